#include "platform/mirel/ChipPresence.h"

#include <algorithm>

#include "platform/vorn/Exception.h"

namespace Mirel {

ChipPresence::ChipPresence(const Vorn::Ptr<HwCapabilityColl>& hwCapabilityColl,
                           const Vorn::Ptr<PDStatus>& pdStatus, Callback changed)
    : hwCapabilityColl_(hwCapabilityColl), pdStatus_(pdStatus), changed_(std::move(changed)) {
    Vorn::requireNonNull(hwCapabilityColl, "Mirel::ChipPresence", "hwCapabilityColl");
    Vorn::requireNonNull(pdStatus, "Mirel::ChipPresence", "pdStatus");
    capabilitySub_ = hwCapabilityColl_->chipHwCapabilityNotify([this](ChipId c) { changed_(c); });
    pdStatusSub_ = pdStatus_->chipPDStatusNotify([this](ChipId c) { changed_(c); });
}

std::vector<ChipId> ChipPresence::presentChips() const {
    std::vector<ChipId> chips;
    for (const auto& [chip, capability] : hwCapabilityColl_->chipHwCapability()) {
        if (pdStatus_->chipPDStatus(chip))
            chips.push_back(chip);
    }
    std::sort(chips.begin(), chips.end());
    return chips;
}

}  // namespace Mirel
