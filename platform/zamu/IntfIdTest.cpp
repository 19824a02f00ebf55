// Interface ids: names round-trip, kind tests, parents, VLAN ids, order and refusals.

#include "platform/zamu/IntfId.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

namespace Zamu {
namespace {

TEST(IntfId, NamesRoundTripWithTheirKinds) {
    struct Case {
        const char* name;
        bool eth, sub, lag, vlan;
        const char* parent;
    };
    const Case cases[] = {
        {"Ethernet1", true, false, false, false, "Ethernet1"},
        {"Ethernet3/1", true, false, false, false, "Ethernet3/1"},
        {"Ethernet3/1/4", true, false, false, false, "Ethernet3/1/4"},
        {"Ethernet3/1.100", false, true, false, false, "Ethernet3/1"},
        {"Ethernet1000", true, false, false, false, "Ethernet1000"},
        {"Port-Channel10", false, false, true, false, "Port-Channel10"},
        {"Port-Channel10.5", false, true, false, false, "Port-Channel10"},
        {"Vlan100", false, false, false, true, "Vlan100"},
        {"Vlan4094", false, false, false, true, "Vlan4094"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        IntfId i(c.name);
        EXPECT_EQ(i.name(), c.name);
        EXPECT_EQ(EthIntfId::isEthIntfId(i), c.eth);
        EXPECT_EQ(SubIntfId::isSubIntfId(i), c.sub);
        EXPECT_EQ(PortChannelIntfId::isPortChannelIntfId(i), c.lag);
        EXPECT_EQ(VlanIntfId::isVlanIntfId(i), c.vlan);
        EXPECT_EQ(SubIntfId::parentIntfId(i).name(), c.parent);
        EXPECT_EQ(IntfId::fromRaw(i.raw()), i);
    }
    EXPECT_TRUE(SubIntfId::isPortChannelSubIntfId(IntfId("Port-Channel10.5")));
    EXPECT_FALSE(SubIntfId::isPortChannelSubIntfId(IntfId("Ethernet3/1.100")));
    EXPECT_EQ(VlanIntfId::vlanId(IntfId("Vlan100")).value(), 100);
    EXPECT_EQ(IntfId::sub(IntfId("Port-Channel7"), 3).name(), "Port-Channel7.3");
    EXPECT_EQ(IntfId::ethernet(3, 1).name(), "Ethernet3/1");
    EXPECT_EQ(IntfId().name(), "");
}

TEST(IntfId, BadNamesAreRefused) {
    for (const char* bad : {"Ethernet", "Ethernet1/", "Ethernet1//2", "Ethernet1.0", "Ethernet1.",
                            "Vlan100.5", "Port-Channel1/2", "eth1", "Ethernet1x", "Ethernet70000",
                            "Ethernet1/2/3/4", "Vlan", "Ethernet1.9999999999"}) {
        SCOPED_TRACE(bad);
        try {
            IntfId i(bad);
            ADD_FAILURE() << "accepted as " << i;
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(std::string(e.what()), std::string("invalid interface name '") + bad + "'");
        }
    }
    EXPECT_THROW(IntfId::sub(IntfId("Vlan5"), 1), std::invalid_argument);
    EXPECT_THROW(IntfId::sub(IntfId("Ethernet1.2"), 1), std::invalid_argument);
}

TEST(IntfId, OrderIsByKindThenNumbersThenSubInterface) {
    std::vector<std::string> names = {
        "Vlan2",     "Ethernet10",    "Port-Channel1.2", "Ethernet2",     "Ethernet1.5",
        "Ethernet1", "Port-Channel1", "Ethernet1/1",     "Ethernet1.100", "Vlan10"};
    std::vector<IntfId> ids(names.begin(), names.end());
    std::sort(ids.begin(), ids.end());
    std::vector<std::string> sorted;
    for (const IntfId& i : ids)
        sorted.push_back(i.name());
    EXPECT_EQ(sorted, (std::vector<std::string>{
                          "Ethernet1", "Ethernet1.5", "Ethernet1.100", "Ethernet1/1", "Ethernet2",
                          "Ethernet10", "Port-Channel1", "Port-Channel1.2", "Vlan2", "Vlan10"}));
    std::unordered_set<IntfId> set(ids.begin(), ids.end());
    EXPECT_EQ(set.size(), ids.size());
}

}  // namespace
}  // namespace Zamu
