// VLAN membership: only Ethernet ports can be members; a refused member changes nothing.

#include "platform/vlan/VlanPhyIntfConfig.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

TEST(VlanPhyIntfConfig, OnlyEthernetPortsAreMembers) {
    auto dir = VlanPhyIntfConfigLib::vlanPhyIntfConfigDirFactory("VlanPhyIntfConfigDir");
    auto vlan = dir->vlanPhyIntfConfigIs(Bridging::VlanId(10));
    int changes = 0;
    auto sub = vlan->phyIntfNotify([&](const Zamu::IntfId&) { ++changes; });
    vlan->phyIntfIs("Ethernet1");
    for (const char* intf : {"Port-Channel1", "Vlan10", "Ethernet1.5"}) {
        SCOPED_TRACE(intf);
        EXPECT_THROW(vlan->phyIntfIs(intf), std::invalid_argument);
    }
    EXPECT_EQ(vlan->phyIntfs(), 1u);
    EXPECT_EQ(changes, 1);
    vlan->phyIntfIs("Vlan10", false);  // removing what is not there is harmless
    vlan->phyIntfIs("Ethernet1", false);
    EXPECT_EQ(vlan->phyIntfs(), 0u);
    EXPECT_EQ(changes, 2);
}

}  // namespace
