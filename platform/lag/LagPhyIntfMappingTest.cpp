// LAG membership: entries are port-channels, members are Ethernet ports.

#include "platform/lag/LagPhyIntfMapping.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

TEST(LagPhyIntfMapping, EntriesArePortChannelsWithEthernetMembers) {
    auto lags = Lag::lagPhyIntfMappingFactory("LagPhyIntfMapping");
    for (const char* notALag : {"Ethernet1", "Port-Channel1.5", "Vlan3"}) {
        SCOPED_TRACE(notALag);
        EXPECT_THROW(lags->lagPhyIntfConfigIs(notALag), std::invalid_argument);
    }
    EXPECT_EQ(lags->lagPhyIntfConfigs(), 0u);
    auto lag = lags->lagPhyIntfConfigIs("Port-Channel7");
    EXPECT_EQ(lag->lagIntfId(), Zamu::IntfId("Port-Channel7"));
    lag->phyIntfIs("Ethernet2");
    try {
        lag->phyIntfIs("Port-Channel8");
        FAIL() << "expected invalid_argument";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(),
                     "LagPhyIntfConfig::phyIntf: Port-Channel8 is not an Ethernet interface");
    }
    EXPECT_EQ(lag->phyIntfs(), 1u);
    EXPECT_TRUE(lag->phyIntf("Ethernet2"));
}

}  // namespace
