#pragma once
// Mirel::ChipPresence: "a chip is present while the hardware layer publishes both its
// capability and its PD status", written once. It watches HwCapabilityColl.chipHwCapability
// and PDStatus.chipPDStatus and calls back with the chip whenever either entry of that chip is
// added, replaced or removed; the callback reads present() to learn which way it went (the
// same callback may run for a change that leaves presence as it was: handlers re-read).

#include <functional>
#include <vector>

#include "platform/mirel/ChipId.h"
#include "platform/mirel/HwCapability.h"
#include "platform/mirel/PDStatus.h"
#include "platform/vorn/Ptr.h"
#include "platform/vorn/Signal.h"

namespace Mirel {

class ChipPresence {
  public:
    using Callback = std::function<void(ChipId)>;

    // Both references are required (Vorn::NullPointerException naming `owner`'s attribute).
    ChipPresence(const Vorn::Ptr<HwCapabilityColl>& hwCapabilityColl,
                 const Vorn::Ptr<PDStatus>& pdStatus, Callback changed);
    ChipPresence(const ChipPresence&) = delete;
    ChipPresence& operator=(const ChipPresence&) = delete;

    bool present(ChipId chip) const { return present(*hwCapabilityColl_, *pdStatus_, chip); }
    static bool present(const HwCapabilityColl& hwCapabilityColl, const PDStatus& pdStatus,
                        ChipId chip) {
        return hwCapabilityColl.chipHwCapability(chip) && pdStatus.chipPDStatus(chip);
    }
    // Every chip that is present, in chip order.
    std::vector<ChipId> presentChips() const;

  private:
    const Vorn::Ptr<HwCapabilityColl> hwCapabilityColl_;
    const Vorn::Ptr<PDStatus> pdStatus_;
    Callback changed_;
    Vorn::Subscription capabilitySub_;
    Vorn::Subscription pdStatusSub_;
};

}  // namespace Mirel
