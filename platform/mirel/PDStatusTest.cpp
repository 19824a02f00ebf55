// The driver's interface-to-chip mapping: only Ethernet ports sit on chips, and placing a
// port on another chip is one change of its entry.

#include "platform/mirel/PDStatus.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

namespace {

TEST(PDStatus, OnlyEthernetPortsSitOnChips) {
    auto pd = Mirel::pdStatusFactory("PDStatus");
    for (const char* intf : {"Port-Channel1", "Vlan10", "Ethernet1.5"}) {
        SCOPED_TRACE(intf);
        try {
            pd->intfMappingIs(intf, Mirel::ChipId(1));
            ADD_FAILURE() << "accepted";
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(e.what(),
                      "Mirel::IntfMapping: " + std::string(intf) + " is not an Ethernet interface");
        }
    }
    EXPECT_EQ(pd->intfMappings(), 0u);
}

TEST(PDStatus, PlacingAPortOnAnotherChipChangesItsEntryInPlace) {
    auto pd = Mirel::pdStatusFactory("PDStatus");
    auto entry = pd->intfMappingIs("Ethernet3/1", Mirel::ChipId(1));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->intfId(), Zamu::IntfId("Ethernet3/1"));
    int changes = 0;
    auto sub = entry->chipIdNotify([&] { ++changes; });
    pd->intfMappingIs("Ethernet3/1", Mirel::ChipId(1));
    EXPECT_EQ(changes, 0);
    EXPECT_EQ(pd->intfMappingIs("Ethernet3/1", Mirel::ChipId(4)), entry);
    EXPECT_EQ(changes, 1);
    ASSERT_NE(pd->intfMapping("Ethernet3/1"), nullptr);
    EXPECT_EQ(pd->intfMapping("Ethernet3/1")->chipId(), Mirel::ChipId(4));
}

TEST(ChipPDStatus, TransformStatusesByType) {
    auto chip = Mirel::chipPDStatusFactory(Mirel::ChipId(1));
    std::vector<Mirel::XformType> changed;
    auto subs = chip->xformStatusNotify([&](Mirel::XformType t) { changed.push_back(t); });
    for (int t = 0; t < Mirel::kXformTypeCount; ++t) {
        Mirel::XformStatus s;
        s.requestId = uint32_t(t + 1);
        chip->xformStatusIs(Mirel::XformType(t), s);
        chip->xformStatusIs(Mirel::XformType(t), s);  // equal: no notification
    }
    ASSERT_EQ(changed.size(), size_t(Mirel::kXformTypeCount));
    for (int t = 0; t < Mirel::kXformTypeCount; ++t) {
        SCOPED_TRACE(t);
        EXPECT_EQ(changed[t], Mirel::XformType(t));
        EXPECT_EQ(chip->xformStatus(Mirel::XformType(t)).requestId, uint32_t(t + 1));
    }
    // The generic accessor and the named attributes are the same storage.
    EXPECT_EQ(chip->srcMacXformStatus().requestId, 1u);
    EXPECT_EQ(chip->macEtherTypeXformStatus().requestId, 3u);
    EXPECT_EQ(chip->dstIpV6PrefixXformStatus().requestId, 7u);
    EXPECT_EQ(chip->dstPortRangeXformStatus().requestId, 9u);
}

}  // namespace
