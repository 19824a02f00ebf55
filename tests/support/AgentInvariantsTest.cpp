// The checker over the test agent: silent on a healthy switch through a whole configuration,
// its failure paths and its removal, and naming the rule when the state is corrupted.

#include "tests/support/AgentInvariants.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "ovinmirel/testagent/OvinMirelTestAgentRootTestWorld.h"
#include "tests/support/PdMappingOracle.h"

namespace OvinMirel::Reliability {
namespace {

using TestAgentTest::World;
using Zamu::IntfId;
using Lines = std::vector<std::string>;

// Two chips: Ethernet1, 2 on chip 1, Ethernet3, 4 on chip 2; VLAN 20 has Ethernet2 and
// Ethernet3; Port-Channel10 has Ethernet1 and Ethernet4; Ethernet4.7 is a sub-interface.
struct Switch {
    World w;
    AgentInvariants inv{*w.root};
    Lines seen;

    Switch() {
        w.root->afterPassIs([this] {
            for (std::string& v : inv.check())
                seen.push_back(std::move(v));
        });
        w.chip(1);
        w.chip(2);
        for (uint32_t i = 1; i <= 4; ++i)
            w.root->portIs(IntfId::ethernet(i), Mirel::ChipId((i + 1) / 2));
        w.root->vlanMemberIs(20, "Ethernet2");
        w.root->vlanMemberIs(20, "Ethernet3");
        w.root->lagMemberIs("Ethernet1", "Port-Channel10");
        w.root->lagMemberIs("Ethernet4", "Port-Channel10");
        w.root->subIntfIs("Ethernet4.7");
    }
    void configure() {
        w.rule("web", Acl::aclTypeIpv4, "10 permit tcp any any eq 443");
        w.rule("web", Acl::aclTypeIpv4, "20 deny udp any any");
        w.rule("racl", Acl::aclTypeIpv4, "10 deny udp any any range 1000 2000");
        w.rule("macs", Acl::aclTypeMac, "10 deny 0000.1111.2222 0000.0000.0000 any 0x0806");
        w.rule("v6", Acl::aclTypeIpv6, "10 deny ipv6 2001:db8::/32 any");
        w.bind("Port-Channel10", "web");
        w.bind("Ethernet2", "web");
        w.bind("Ethernet3", "web");
        w.bind("Vlan20", "racl");
        w.bind("Ethernet4.7", "racl");
        w.bind("Ethernet2", "macs", Acl::aclTypeMac);
        w.bind("Ethernet3", "v6", Acl::aclTypeIpv6, Acl::aclDirectionOut);
    }
    void unconfigure() {
        w.unbind("Port-Channel10");
        w.unbind("Ethernet2");
        w.unbind("Ethernet3");
        w.unbind("Vlan20");
        w.unbind("Ethernet4.7");
        w.unbind("Ethernet2", Acl::aclTypeMac);
        w.unbind("Ethernet3", Acl::aclTypeIpv6, Acl::aclDirectionOut);
        for (const char* name : {"web", "racl"})
            w.root->aclDel(name, Acl::aclTypeIpv4);
        w.root->aclDel("macs", Acl::aclTypeMac);
        w.root->aclDel("v6", Acl::aclTypeIpv6);
    }
    Lines settled() {
        w.settle();
        Lines out = std::move(seen);
        seen.clear();
        for (std::string& v : inv.checkSettled())
            out.push_back(std::move(v));
        return out;
    }
};

TEST(AgentInvariantsTest, AHealthySwitchBreaksNoRuleThroughFailuresAndRemoval) {
    Switch s;
    s.configure();
    EXPECT_EQ(s.settled(), Lines{});
    EXPECT_EQ(s.w.glueStatus()->lastComputationResult(), success_);

    // A failed computation on chip 2, then a change that succeeds.
    s.w.root->faultIs(Mirel::ChipId(2), TestAgentFault::failing(Mirel::stageTcamFull_).times(1));
    s.w.rule("web", Acl::aclTypeIpv4, "30 deny tcp any any eq 22");
    EXPECT_EQ(s.settled(), Lines{});
    EXPECT_EQ(s.w.glueStatus()->lastComputationResult(), fail_);
    s.w.rule("web", Acl::aclTypeIpv4, "40 deny tcp any any eq 23");
    EXPECT_EQ(s.settled(), Lines{});
    EXPECT_EQ(s.w.glueStatus()->lastComputationResult(), success_);

    s.unconfigure();
    EXPECT_EQ(s.settled(), Lines{});
    EXPECT_EQ(s.inv.checkEmptied(), Lines{});
    EXPECT_GE(s.inv.cyclesJudged(), 4u);
}

}  // namespace
}  // namespace OvinMirel::Reliability
