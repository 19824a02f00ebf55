#include "platform/mirel/ChipPresence.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Mirel::ChipId;

TEST(MirelChipPresence, AChipIsPresentWhileBothRecordsExist) {
    auto caps = Mirel::hwCapabilityCollFactory("HwCapabilityColl");
    auto pd = Mirel::pdStatusFactory("PDStatus");
    std::vector<std::pair<uint32_t, bool>> seen;
    Mirel::ChipPresence* self = nullptr;
    Mirel::ChipPresence presence(caps, pd,
                                 [&](ChipId c) { seen.emplace_back(c.value(), self->present(c)); });
    self = &presence;
    caps->chipHwCapabilityIs(ChipId(2));
    pd->chipPDStatusIs(ChipId(1));
    pd->chipPDStatusIs(ChipId(2));
    caps->chipHwCapabilityIs(ChipId(1));
    EXPECT_EQ(presence.presentChips(), (std::vector<ChipId>{ChipId(1), ChipId(2)}));
    pd->chipPDStatusDel(ChipId(2));
    EXPECT_EQ(seen, (std::vector<std::pair<uint32_t, bool>>{
                        {2, false}, {1, false}, {2, true}, {1, true}, {2, false}}));
    EXPECT_EQ(presence.presentChips(), (std::vector<ChipId>{ChipId(1)}));
    EXPECT_THROW(Mirel::ChipPresence(nullptr, pd, [](ChipId) {}), Vorn::NullPointerException);
}

}  // namespace
