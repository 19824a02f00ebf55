// The driver's interface-to-chip mapping: only Ethernet ports sit on chips, and placing a
// port on another chip is one change of its entry.

#include "platform/mirel/PDStatus.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

TEST(PDStatus, OnlyEthernetPortsSitOnChips) {
    auto pd = Mirel::pdStatusFactory("PDStatus");
    for (const char* intf : {"Port-Channel1", "Vlan10", "Ethernet1.5"}) {
        SCOPED_TRACE(intf);
        EXPECT_THROW(pd->intfMappingIs(intf, Mirel::ChipId(1)), std::invalid_argument);
    }
    EXPECT_EQ(pd->intfMappings(), 0u);
    try {
        pd->intfMappingIs("Vlan10", Mirel::ChipId(1));
        FAIL() << "expected invalid_argument";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "Mirel::IntfMapping: Vlan10 is not an Ethernet interface");
    }
}

TEST(PDStatus, PlacingAPortOnAnotherChipChangesItsEntryInPlace) {
    auto pd = Mirel::pdStatusFactory("PDStatus");
    auto entry = pd->intfMappingIs("Ethernet3/1", Mirel::ChipId(1));
    EXPECT_EQ(entry->intfId(), Zamu::IntfId("Ethernet3/1"));
    int changes = 0;
    auto sub = entry->chipIdNotify([&] { ++changes; });
    pd->intfMappingIs("Ethernet3/1", Mirel::ChipId(1));
    EXPECT_EQ(changes, 0);
    EXPECT_EQ(pd->intfMappingIs("Ethernet3/1", Mirel::ChipId(4)), entry);
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(pd->intfMapping("Ethernet3/1")->chipId(), Mirel::ChipId(4));
}

}  // namespace
