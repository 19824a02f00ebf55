// The test agent's LAG manager: the published membership follows the channel-group
// configuration through joins, moves and departures, empty port-channels go, and a start over
// a mapping that someone else left drops what nobody configured.

#include "ovinmirel/testagent/OvinMirelLagPhyIntfMappingSm.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/vorn/Exception.h"

namespace OvinMirel {
namespace {

using Zamu::IntfId;
using Memberships = std::vector<std::string>;

// "Port-Channel1: Ethernet1 Ethernet2" per port-channel, in key order.
Memberships membershipsOf(const Lag::LagPhyIntfMapping& mapping) {
    Memberships out;
    for (const IntfId& lag : mapping.lagPhyIntfConfig().sortedKeys()) {
        std::string line = lag.name() + ":";
        for (const IntfId& port : mapping.lagPhyIntfConfig(lag)->phyIntf().sortedKeys())
            line.append(" ").append(port.name());  // g++ 12 -O3 warns falsely on " " + name
        out.push_back(line);
    }
    return out;
}

struct LagWorld {
    Vorn::Ptr<TestAgentLagConfig> config = testAgentLagConfigFactory("lagConfig");
    Vorn::Ptr<Lag::LagPhyIntfMapping> mapping = Lag::lagPhyIntfMappingFactory("mapping");
    Vorn::Ptr<LagPhyIntfMappingSm> sm = lagPhyIntfMappingSmFactory(config, mapping);
};

TEST(LagPhyIntfMappingSmTest, MembershipFollowsTheConfiguration) {
    struct Step {
        const char* name;
        std::function<void(TestAgentLagConfig&)> change;
        Memberships expected;
    };
    const std::vector<Step> steps = {
        {"two ports join",
         [](TestAgentLagConfig& c) {
             c.channelGroupIs("Ethernet1", "Port-Channel1");
             c.channelGroupIs("Ethernet2", "Port-Channel1");
         },
         {"Port-Channel1: Ethernet1 Ethernet2"}},
        {"a port moves to another port-channel",
         [](TestAgentLagConfig& c) { c.channelGroupIs("Ethernet2", "Port-Channel2"); },
         {"Port-Channel1: Ethernet1", "Port-Channel2: Ethernet2"}},
        {"the same configuration again changes nothing",
         [](TestAgentLagConfig& c) { c.channelGroupIs("Ethernet2", "Port-Channel2"); },
         {"Port-Channel1: Ethernet1", "Port-Channel2: Ethernet2"}},
        {"the last member leaves: the port-channel goes",
         [](TestAgentLagConfig& c) { c.channelGroupDel("Ethernet1"); },
         {"Port-Channel2: Ethernet2"}},
        {"everything goes", [](TestAgentLagConfig& c) { c.channelGroupDelAll(); }, {}},
    };
    LagWorld w;
    w.sm->handleInitialized();
    for (const Step& s : steps) {
        SCOPED_TRACE(s.name);
        s.change(*w.config);
        EXPECT_EQ(membershipsOf(*w.mapping), s.expected);
    }
}

TEST(LagPhyIntfMappingSmTest, StartReplacesWhatNobodyConfigured) {
    LagWorld w;
    w.config->channelGroupIs("Ethernet1", "Port-Channel1");
    w.config->channelGroupIs("Ethernet3", "Port-Channel2");
    // Left by an earlier writer: Ethernet1 in the wrong port-channel, a port nobody configured.
    w.mapping->lagPhyIntfConfigIs("Port-Channel9")->phyIntfIs("Ethernet1");
    w.mapping->lagPhyIntfConfigIs("Port-Channel2")->phyIntfIs("Ethernet4");
    w.sm->handleInitialized();
    EXPECT_EQ(membershipsOf(*w.mapping),
              (Memberships{"Port-Channel1: Ethernet1", "Port-Channel2: Ethernet3"}));

    // Stopped, it no longer follows.
    w.sm->handleDelete();
    w.config->channelGroupDel("Ethernet1");
    EXPECT_EQ(membershipsOf(*w.mapping),
              (Memberships{"Port-Channel1: Ethernet1", "Port-Channel2: Ethernet3"}));
}

TEST(LagPhyIntfMappingSmTest, RefusesWhatIsNoMembership) {
    LagWorld w;
    w.sm->handleInitialized();
    struct Case {
        IntfId port, lag;
        const char* text;
    };
    const std::vector<Case> cases = {
        {"Port-Channel2", "Port-Channel1",
         "TestAgentLagConfig::channelGroup: Port-Channel2 is not an Ethernet interface"},
        {"Ethernet1.5", "Port-Channel1",
         "TestAgentLagConfig::channelGroup: Ethernet1.5 is not an Ethernet interface"},
        {"Ethernet1", "Vlan2",
         "TestAgentLagConfig::channelGroup: Vlan2 is not a port-channel interface"},
        {"Ethernet1", "Port-Channel1.3",
         "TestAgentLagConfig::channelGroup: Port-Channel1.3 is not a port-channel interface"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        try {
            w.config->channelGroupIs(c.port, c.lag);
            ADD_FAILURE() << "accepted";
        } catch (const std::invalid_argument& e) {
            EXPECT_STREQ(e.what(), c.text);
        }
        EXPECT_EQ(w.config->channelGroups(), 0u);
        EXPECT_EQ(w.mapping->lagPhyIntfConfigs(), 0u);
    }
    EXPECT_THROW(lagPhyIntfMappingSmFactory(w.config, nullptr), Vorn::NullPointerException);
}

}  // namespace
}  // namespace OvinMirel
