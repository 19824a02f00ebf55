// The test agent root: the agent's start-up order, chips as the driver publishes them (their
// records and machines follow), the event loop on the virtual clock, and the test helpers
// around the ACL helper. Its bad input is in tests/BadInputTest.cpp, a port that moves in
// tests/scenarios/port-move.json.

#include "ovinmirel/testagent/OvinMirelTestAgentRoot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "ovinmirel/testagent/OvinMirelTestAgentRootTestWorld.h"
#include "platform/flinq/Flinq.h"
#include "platform/ovin/AclRuleText.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {
namespace {

using TestAgentTest::aclKey;
using TestAgentTest::World;
using Zamu::IntfId;

TEST(TestAgentRootTest, StartsEveryPieceInTheAgentsOrder) {
    using Marker = std::pair<std::string, std::string>;
    const std::vector<Marker> order = {
        {"OvinMirelStatus", "initStatus OvinMirelStatus"},
        {"OvinMirelAclHelper", "AclHelper::handleInitialized"},
        {"OvinMirelTestAclHelper", "TestAclHelper::hwInit"},
        {"OvinMirelAclHelper", "AclHelper::verifyHwInit"},
        {"OvinMirelIndexSm", "handleInitialized"},
        {"OvinMirelGlueSm", "handleInitialized"},
        {"OvinAclSm", "AclSm::handleInitialized"},
        {"OvinMirelTestAgentMockSmManager", "handleInitialized"},
        {"OvinMirelLagPhyIntfMappingSm", "LagPhyIntfMappingSm::handleInitialized"},
        {"OvinMirelCapacity", "handleInitialized"},
    };
    Flinq::Capture cap;
    World w;
    std::vector<Marker> seen;
    for (const Flinq::Line& l : cap.lines()) {
        const Marker m{l.handle, l.text};
        if (std::find(order.begin(), order.end(), m) != order.end())
            seen.push_back(m);
    }
    EXPECT_EQ(seen, order);
}

TEST(TestAgentRootTest, RefusesToStartWithoutAVirtualClock) {
    Brix::TimerWheel wheel;
    EXPECT_THROW(testAgentRootFactory("root", wheel), std::logic_error);
}

TEST(TestAgentRootTest, ChipsBringTheirRecordsAndMachinesAndTakeThemAway) {
    World w;
    w.chip(1);
    TestAgentChipCapability small;
    small.chipRuleListIdMax = 3;
    small.aclTypeCombinations = {Mirel::AclTypeCombinationBitMask::kV4PaclIn,
                                 Mirel::AclTypeCombinationBitMask::kMacIn};
    w.chip(2, small);
    w.port("Ethernet1", 1);
    w.port("Ethernet2", 2);
    w.settle();
    const Vorn::Ptr<GlueSm> glue = w.root->ovinMirelGlueSm();
    for (uint32_t id : {1u, 2u}) {
        SCOPED_TRACE(id);
        const Mirel::ChipId chip(id);
        EXPECT_TRUE(w.root->chip(chip));
        EXPECT_TRUE(w.glueStatus()->aclIdResponseColl()->chipAclIdResponse(chip));
        ASSERT_TRUE(w.status()->pDConfig()->chipConfig(chip));
        EXPECT_TRUE(w.status()->pDConfig()->chipConfig(chip)->initialized());
        EXPECT_TRUE(glue->aclIdAllocSmColl()->chipAclIdAllocSm(chip));
        EXPECT_TRUE(glue->mappingSmColl()->sm(chip));
        EXPECT_TRUE(w.glueStatus()->activeRootSmId(chip)) << "the first cycle loads a root";
    }
    // The capability is as given: a second priority list replaces the first one.
    const auto cap2 = w.status()->hwCapabilityColl()->chipHwCapability(Mirel::ChipId(2));
    ASSERT_TRUE(cap2);
    EXPECT_EQ(cap2->chipRuleListIdMax(), 3u);
    EXPECT_EQ(cap2->aclTypeCombinationByPrioritys(), 2u);
    w.chip(2, {});
    EXPECT_EQ(cap2->aclTypeCombinationByPrioritys(), 1u);
    EXPECT_EQ(cap2->chipRuleListIdMax(), 63u);

    w.root->chipDel(Mirel::ChipId(1));
    w.settle();
    const Mirel::ChipId gone(1);
    EXPECT_FALSE(w.root->chip(gone));
    EXPECT_FALSE(w.status()->pDStatus()->intfMapping("Ethernet1")) << "its ports go with it";
    EXPECT_FALSE(w.status()->pDConfig()->chipConfig(gone));
    EXPECT_FALSE(glue->aclIdAllocSmColl()->chipAclIdAllocSm(gone));
    EXPECT_FALSE(w.glueStatus()->activeRootSmId(gone));
    EXPECT_TRUE(w.root->chip(Mirel::ChipId(2)));
    EXPECT_TRUE(w.status()->pDStatus()->intfMapping("Ethernet2"));
    w.root->chipDel(Mirel::ChipId(7));  // not there: nothing
}

TEST(TestAgentRootTest, TheEventLoopRunsOnTheVirtualClock) {
    World w;
    w.chip(1);
    const Vorn::Seconds start = w.clock->now();
    // A chip's arrival makes a cycle one chipUpdateProcDelay later.
    w.root->runFor(0.5);
    EXPECT_EQ(w.clock->now(), start + 0.5);
    EXPECT_EQ(w.root->cycles(), 0u);
    w.root->runUntil(start + 1.0);
    EXPECT_EQ(w.root->cycles(), 1u);
    EXPECT_EQ(w.glueStatus()->glueSmState(), idle_);
    const size_t passes = w.root->passes();
    // Idle with only the capacity poll armed: nothing runs and time stands.
    ASSERT_TRUE(w.root->capacitySm()->pollTimer().armed());
    const Vorn::Seconds now = w.clock->now();
    w.root->runUntilIdle();
    EXPECT_EQ(w.clock->now(), now);
    EXPECT_EQ(w.root->passes(), passes);

    // A timer that re-arms itself for ever never lets it settle.
    Brix::Timer forever(w.wheel, {});
    forever.callbackIs([&] { forever.expiryIs(Vorn::currentTime() + 1.0); });
    forever.expiryIs(now + 1.0);
    EXPECT_THROW(w.root->runUntilIdle(), std::runtime_error);
    forever.expiryIs(Vorn::kInfinity);
}

// The test helper calls the helper as the engine does: an IPv4 subrule with its ports, an IPv6
// one, and a fragment entry land in the store; a rule the chips cannot express does not.
TEST(TestAgentRootTest, TheTestHelperCreatesRulesThroughTheHelper) {
    World w;
    const Vorn::Ptr<AclHelperTestHelper> t =
        aclHelperTestHelperFactory("testHelper", w.root->ovinMirelAclHelper());
    auto ipRule = [](const char* line, Acl::AclType type) {
        const Acl::RuleTextResult r = Acl::parseRuleText(line, type);
        EXPECT_TRUE(r.ok()) << r.error;
        return r.ok() ? r.rule->entry.ipRule() : Acl::IpRuleConfig();
    };
    Ovin::AclData v4;
    v4.key = aclKey("v4");
    Ovin::AclData v6;
    v6.key = aclKey("v6", Acl::aclTypeIpv6);
    Ovin::AclDataStatus status;
    w.root->ovinMirelAclHelper()->precreateAcl(v4, status);
    w.root->ovinMirelAclHelper()->precreateAcl(v6, status);

    TestSubrulePorts https;
    https.dstPort = 443;
    https.dstPortMask = 0xffff;
    https.l4 = true;
    EXPECT_EQ(t->createIpAclSubrule(v4, ipRule("10 permit tcp any any", Acl::aclTypeIpv4),
                                    Acl::UniqueId{1}, 10, 0, https),
              Ovin::aclCreateOk);
    EXPECT_EQ(t->createIpFragRule(v4, ipRule("20 deny ip 10.0.0.0/8 any", Acl::aclTypeIpv4),
                                  Acl::UniqueId{2}, 20, 0),
              Ovin::aclCreateOk);
    EXPECT_EQ(t->createIp6AclSubrule(v6, ipRule("10 permit ipv6 any any", Acl::aclTypeIpv6),
                                     Acl::UniqueId{3}, 10, 0),
              Ovin::aclCreateOk);
    w.root->ovinMirelAclHelper()->establishedSupportedIs(false);
    EXPECT_EQ(
        t->createIpAclSubrule(v4, ipRule("30 permit tcp any any established", Acl::aclTypeIpv4),
                              Acl::UniqueId{4}, 30, 0),
        Ovin::aclCreateNotSupportedByHw);

    const Vorn::Ptr<OvinMirelAcl> a4 = w.stored(v4.key);
    const Vorn::Ptr<OvinMirelAcl> a6 = w.stored(v6.key);
    ASSERT_TRUE(a4 && a6);
    ASSERT_EQ(a4->ipRuleByIds(), 2u) << "the refused rule left nothing";
    const Mirel::IpRuleConfig* web = a4->ipRuleById(Mirel::AceIndex{10, 0, Acl::UniqueId{1}});
    ASSERT_TRUE(web);
    EXPECT_EQ(web->destinationPort, Mirel::L4PortRange(443, 443));
    const Mirel::IpRuleConfig* frag = a4->ipRuleById(Mirel::AceIndex{20, 0, Acl::UniqueId{2}});
    ASSERT_TRUE(frag);
    EXPECT_TRUE(frag->filter.matchFragments);
    ASSERT_EQ(a6->ipRuleByIds(), 1u);
    EXPECT_TRUE(a6->ipRuleById().begin()->second.filter.ipv6);

    EXPECT_THROW(aclHelperTestHelperFactory("testHelper", nullptr), Vorn::NullPointerException);
}

}  // namespace
}  // namespace OvinMirel
