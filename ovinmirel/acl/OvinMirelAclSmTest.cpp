// The agent ACL state machine with the real helper, ACL store and index: configuration reaches
// the store and the index in the engine's call order, bursts coalesce, clients wait for the glue
// to finish. The glue's state is driven by hand here; refusals, unit errors and removals through
// the whole agent are in tests/TestAgentEndToEndTest.cpp; the index staying equal to a rebuild
// in tests/IndexDifferentialTest.cpp.

#include "ovinmirel/acl/OvinMirelAclSm.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "ovinmirel/acl/OvinMirelAclHelper.h"
#include "ovinmirel/glue/OvinMirelGlueConfig.h"
#include "ovinmirel/index/OvinMirelIndexSm.h"
#include "ovinmirel/index/OvinMirelIndexTestWorld.h"
#include "platform/mirel/HwCapability.h"
#include "platform/ovin/AclRuleText.h"

namespace OvinMirel {
namespace {

using TestSupport::aclKey;
using Zamu::IntfId;

class OvinMirelAclSmTest : public ::testing::Test {
  protected:
    OvinMirelAclSmTest() {
        // Ethernet1, Ethernet2 on chip 0; Ethernet3, Ethernet4 on chip 1. Vlan10 has the
        // member Ethernet3; Port-Channel5 the member Ethernet4 and the sub-interface
        // Port-Channel5.20.
        in_.onChip("Ethernet1", 0);
        in_.onChip("Ethernet2", 0);
        in_.onChip("Ethernet3", 1);
        in_.onChip("Ethernet4", 1);
        in_.vlanMember(10, "Ethernet3");
        in_.lagMember("Port-Channel5", "Ethernet4");
        in_.subIntf("Port-Channel5.20");
        indexSm_->handleInitialized();
        glueStatus_->initialize();
        glueStartsOnKick_ = glueConfig_->prepareCommitKickTimeNotify([this] { glue(aclIdAlloc_); });
        // The capabilities the agent sets before the engine starts.
        for (auto set : {&OvinHelper::AclHelper::ip6AclSupportedIs,
                         &OvinHelper::AclHelper::permitDuringAclUpdateIs,
                         &OvinHelper::AclHelper::revertIncompleteAclSupportedIs,
                         &OvinHelper::AclHelper::establishedSupportedIs})
            ((*helper_).*set)(true);
        sm_->indexIs(in_.index);
        sm_->handleInitialized();
    }
    ~OvinMirelAclSmTest() override { sm_->handleDelete(); }

    void rule(const std::string& name, Acl::AclType type, const std::string& text) {
        const Acl::RuleTextResult r = Acl::parseRuleText(text, type);
        ASSERT_TRUE(r.ok()) << r.error;
        config_->aclIs({name, type})->entryIs(r.rule->seq, r.rule->entry);
    }
    void bind(const char* intf, const std::string& name, Acl::AclType type = Acl::aclTypeIpv4) {
        intfConfig_->appliedAclIs({IntfId(intf), type, Acl::aclDirectionIn}, name);
    }
    void unbind(const char* intf, Acl::AclType type = Acl::aclTypeIpv4) {
        intfConfig_->appliedAclDel({IntfId(intf), type, Acl::aclDirectionIn});
    }
    void run() { wheel_.runUntilIdle(); }
    void glue(GlueSmState s) { glueStatus_->glueSmStateIs(s); }

    // The helper's lifecycle calls in trace order, one word each ("precreateAcl ...").
    static std::string helperCalls(const Flinq::Capture& cap) {
        static const std::regex call("^AclHelper::(\\w+)");
        static const std::regex query(
            "createIpAclSubruleHelper|createPortRange|updateIntfForAcl|intfSupportsAcl|"
            "needToInstallIcmp6NeighborDiscoveryRules|handleInitialized");
        std::string out;
        for (const std::string& t : cap.texts("OvinMirelAclHelper")) {
            std::smatch m;
            if (std::regex_search(t, m, call) && !std::regex_match(m[1].str(), query))
                out += m[1].str() + " ";
        }
        return out;
    }
    Vorn::Ptr<OvinMirelAcl> stored(const Ovin::AclKey& k) const { return in_.acls->acl(k); }
    Vorn::Ptr<Acl::AclStatus> status(const Ovin::AclKey& k) const {
        return statusDp_->aclStatus(k);
    }

    Vorn::ScopedVirtualClock clock_{10.0};
    Brix::TimerWheel wheel_;
    IndexTest::World in_;
    Vorn::Ptr<IndexSm> indexSm_ =
        indexSmFactory(in_.acls, in_.pd, in_.vlans, in_.lags, in_.subs, in_.index);
    Vorn::Ptr<GlueConfig> glueConfig_ = glueConfigFactory("glueConfig");
    Vorn::Ptr<GlueStatus> glueStatus_ = glueStatusFactory("glueStatus");
    Vorn::Ptr<AclHelper> helper_ = aclHelperFactory(
        in_.acls, glueConfig_, glueStatus_, Mirel::hwCapabilityCollFactory("hw"), in_.index);
    Vorn::Ptr<Acl::Config> config_ = Acl::configFactory("Config");
    Vorn::Ptr<Acl::IntfConfig> intfConfig_ = Acl::intfConfigFactory("IntfConfig");
    Vorn::Ptr<Acl::StatusDp> statusDp_ = Acl::statusDpFactory("StatusDp");
    Vorn::Ptr<OvinMirelAclSm> sm_ = ovinMirelAclSmFactory(
        Ovin::ovinCommonSmDataFactory("common", wheel_), config_,
        Acl::paramConfigFactory("ParamConfig"), Acl::configDirFactory("aclConfigDir"), intfConfig_,
        Acl::configDirFactory("intfConfigDir"), statusDp_,
        Errdisable::causeStatusFactory("CauseStatus"),
        Lag::Input::configFactory("LagInputConfig", in_.lags), helper_, *clock_,
        Bridging::configFactory("BridgingConfig"), Interface::subIntfStatusDirFactory("status"),
        in_.subs, glueStatus_, in_.acls);
    const Ovin::AclKey web_ = aclKey("web");
    const Ovin::AclKey webRouter_ = aclKey("web", Acl::aclTypeIpv4, 10);
    const Ovin::AclKey webSub_ = aclKey("web", Acl::aclTypeIpv4, 20);
    const Ovin::AclKey v6_ = aclKey("v6", Acl::aclTypeIpv6);
    const Ovin::AclKey deny_ = aclKey("deny");
    // Stands in for the glue, which starts a cycle within every kick.
    Vorn::Subscription glueStartsOnKick_;
};

TEST_F(OvinMirelAclSmTest, AConfigurationReachesTheStoreAndTheIndexInTheEngineOrder) {
    rule("web", Acl::aclTypeIpv4, "10 permit tcp any any neq 80");
    rule("web", Acl::aclTypeIpv4, "20 permit ip 10.0.0.0/8 any fragments");
    rule("v6", Acl::aclTypeIpv6, "10 deny ipv6 any any");
    bind("Ethernet1", "web");
    bind("Port-Channel5", "web");
    bind("Port-Channel5.20", "web");
    bind("Vlan10", "web");
    bind("Ethernet2", "v6", Acl::aclTypeIpv6);
    Flinq::Capture cap;
    run();
    // Four ACLs created (web on ports, on Vlan10, on the sub-interface's VLAN 20; v6), then
    // one kick and one commit each; nothing bound separately.
    EXPECT_TRUE(std::regex_match(
        helperCalls(cap),
        std::regex("(precreateAcl (createIpAclSubrule |createIpFragRule )+createFinalAclRule ){4}"
                   "prepareToCommit (commitAcl ){4}")))
        << helperCalls(cap);

    ASSERT_NE(stored(web_), nullptr);
    EXPECT_TRUE(stored(web_)->created());
    EXPECT_EQ(stored(web_)->ipRuleByIds(), 3u);  // neq: two subrules; fragments: one
    EXPECT_EQ(stored(web_)->ethIntfs(), 2u);     // Ethernet1 and Port-Channel5's member
    EXPECT_TRUE(stored(web_)->ethIntf("Ethernet4"));
    EXPECT_EQ(stored(web_)->subIntfs(), 0u);
    // The sub-interface is routed: its ACL is the router ACL of the VLAN its number names.
    ASSERT_NE(stored(webSub_), nullptr);
    EXPECT_TRUE(stored(webSub_)->subIntf("Port-Channel5.20"));
    EXPECT_EQ(stored(webSub_)->ethIntfs() + stored(webSub_)->vlanIntfs(), 0u);
    ASSERT_NE(stored(webRouter_), nullptr);
    EXPECT_TRUE(stored(webRouter_)->vlanIntf("Vlan10"));
    ASSERT_NE(stored(v6_), nullptr);
    EXPECT_EQ(stored(v6_)->ipRuleByIds(), 3u);  // the rule and the two neighbour permits

    EXPECT_EQ(in_.facts("aclChipMapping"),
              (IndexTest::Facts{
                  "aclChipMapping[v6/ipv6/in].chipIntfMapping[0].intfId[Ethernet2]",
                  "aclChipMapping[web/ip/in/vlan10].chipIntfMapping[1].intfId[Ethernet3]",
                  "aclChipMapping[web/ip/in/vlan20].chipIntfMapping[1].intfId[Ethernet4]",
                  "aclChipMapping[web/ip/in].chipIntfMapping[0].intfId[Ethernet1]",
                  "aclChipMapping[web/ip/in].chipIntfMapping[1].intfId[Ethernet4]",
              }));
    EXPECT_EQ(in_.facts("subIntfAclMapping"),
              (IndexTest::Facts{"subIntfAclMapping[Port-Channel5.20].aclKey[web/ip/in/vlan20]"}));
}

TEST_F(OvinMirelAclSmTest, ABurstIsOneUpdateInTheEngineOrder) {
    rule("web", Acl::aclTypeIpv4, "10 permit tcp any any eq 443");
    rule("deny", Acl::aclTypeIpv4, "10 deny ip any any");
    bind("Ethernet1", "web");
    bind("Ethernet2", "deny");
    run();
    int kicks = 0;
    Vorn::Subscription kickSub = glueConfig_->prepareCommitKickTimeNotify([&] { ++kicks; });

    rule("web", Acl::aclTypeIpv4, "20 permit udp any any eq 53");  // an edit
    unbind("Ethernet2");                                           // "deny" no longer applied
    bind("Ethernet2", "web");                                      // re-bound where it was
    Flinq::Capture cap;
    run();
    EXPECT_EQ(kicks, 1);
    EXPECT_TRUE(
        std::regex_match(helperCalls(cap),
                         std::regex("removeAcl destroyAcl "  // web re-created
                                    "precreateAcl (createIpAclSubrule ){2}createFinalAclRule "  //
                                    "removeIntfFromAcl "  // deny unbound
                                    "prepareToCommit commitAcl removeAcl destroyAcl ")))
        << helperCalls(cap);
    EXPECT_EQ(stored(deny_), nullptr);
    ASSERT_NE(stored(web_), nullptr);
    EXPECT_EQ(stored(web_)->ethIntfs(), 2u);
}

// The release in each state that ends a cycle, and what the glue went through before it:
// tests/TestAgentEndToEndTest.cpp (TestAgentWaitTest). Here, what the release undoes on a failure.
TEST_F(OvinMirelAclSmTest, AFailedCycleReleasesTheClientsAndLeavesTheHelperDirty) {
    helper_->ignorePermitDuringAclUpdateIs(true);  // hold the interfaces while it runs
    rule("web", Acl::aclTypeIpv4, "10 permit ip any any");
    bind("Ethernet1", "web");
    run();
    ASSERT_TRUE(sm_->dpAclUpdateRequestPending());  // the glue has not moved yet
    EXPECT_TRUE(glueConfig_->blockedIntf("Ethernet1"));
    int released = 0;
    sm_->dpAclUpdateWaiterIs([&] { ++released; });
    EXPECT_TRUE(helper_->cliWaiting());
    glue(computing_);
    EXPECT_EQ(released, 0);
    glueStatus_->chipErrorIs(Mirel::ChipId(0), Mirel::stageTcamFull_);
    Flinq::Capture cap;
    glue(fail_);
    EXPECT_EQ(released, 1);
    EXPECT_FALSE(sm_->dpAclUpdateRequestPending());
    EXPECT_EQ(statusDp_->dpAclUpdateTime(), sm_->dpAclUpdateRequestTime());
    EXPECT_FALSE(helper_->cliWaiting());
    EXPECT_FALSE(glueConfig_->blockedIntf("Ethernet1"));
    EXPECT_TRUE(cap.has(std::string("   GlueSm State: ") + glueSmStateWord(fail_)));
    EXPECT_TRUE(helper_->dirty());
    ASSERT_NE(status(web_), nullptr);
    EXPECT_EQ(status(web_)->state(), Acl::aclDpFailed);
    EXPECT_EQ(status(web_)->error(), "not in effect in the data plane (Chip-0 error 2)");
}

TEST_F(OvinMirelAclSmTest, OnSuccessABoundAclThatReachesNoChipIsReportedFailed) {
    // Vlan30 and Port-Channel6 have no members; Ethernet9 is on no chip.
    const struct Case {
        const char* acl;
        const char* intf;
        Ovin::AclKey key;
        Ovin::AclCreateError result;
    } cases[] = {
        {"port", "Ethernet1", aclKey("port"), Ovin::aclCreateOk},
        {"member", "Port-Channel5", aclKey("member"), Ovin::aclCreateOk},
        // Reaches chip 1 through Vlan10's member: 0 even though no policy result lists it.
        {"vlan", "Vlan10", aclKey("vlan", Acl::aclTypeIpv4, 10), Ovin::aclCreateOk},
        {"sub", "Port-Channel5.20", aclKey("sub", Acl::aclTypeIpv4, 20), Ovin::aclCreateOk},
        {"offChip", "Ethernet9", aclKey("offChip"), Ovin::aclCreateFailed},
        {"emptyVlan", "Vlan30", aclKey("emptyVlan", Acl::aclTypeIpv4, 30), Ovin::aclCreateFailed},
        // Bound to nothing in the store (a port-channel without members): nothing to reach.
        {"unbound", "Port-Channel6", aclKey("unbound"), Ovin::aclCreateOk},
    };
    for (const Case& c : cases) {
        rule(c.acl, Acl::aclTypeIpv4, "10 permit ip any any");
        bind(c.intf, c.acl);
    }
    run();
    glue(success_);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.acl);
        ASSERT_NE(stored(c.key), nullptr);
        EXPECT_TRUE(stored(c.key)->created());
        ASSERT_NE(status(c.key), nullptr);
        EXPECT_EQ(status(c.key)->result(), c.result);
        EXPECT_EQ(status(c.key)->state(),
                  c.result == Ovin::aclCreateOk ? Acl::aclDpInstalled : Acl::aclDpFailed);
    }

    // The member the VLAN lacked arrives: the next success finds it on chip 0.
    in_.vlanMember(30, "Ethernet2");
    bind("Ethernet2", "port");
    run();
    glue(success_);
    const Ovin::AclKey emptyVlan = aclKey("emptyVlan", Acl::aclTypeIpv4, 30);
    ASSERT_NE(status(emptyVlan), nullptr);
    EXPECT_EQ(status(emptyVlan)->result(), Ovin::aclCreateOk);

    // Without an Index nothing says an ACL reaches no chip.
    sm_->indexDel();
    glue(aclIdAlloc_);
    glue(success_);
    ASSERT_NE(status(aclKey("offChip")), nullptr);
    EXPECT_EQ(status(aclKey("offChip"))->result(), Ovin::aclCreateOk);
}

TEST_F(OvinMirelAclSmTest, EachCycleReportsTheCreatedAclsInKeyOrderAsTheyComeAndGo) {
    // The outcomes one success reports, as traced.
    auto reported = [this] {
        Flinq::Capture cap;
        glue(aclIdAlloc_);
        glue(success_);
        std::vector<std::string> out;
        for (const std::string& t : cap.texts("OvinMirelAclSm")) {
            if (t.starts_with("   aclStatusUpdate "))
                out.push_back(t.substr(19));
        }
        return out;
    };
    for (const char* acl : {"zeta", "alpha", "mid", "beta"})
        rule(acl, Acl::aclTypeIpv4, "10 permit ip any any");
    bind("Ethernet1", "zeta");
    bind("Ethernet2", "alpha");
    bind("Vlan10", "alpha");
    bind("Ethernet3", "mid");
    run();
    EXPECT_EQ(reported(),
              (std::vector<std::string>{"alpha/ip/in result 0", "alpha/ip/in/vlan10 result 0",
                                        "mid/ip/in result 0", "zeta/ip/in result 0"}));

    unbind("Ethernet3");  // mid leaves the store, beta enters it
    bind("Ethernet4", "beta");
    run();
    EXPECT_EQ(reported(),
              (std::vector<std::string>{"alpha/ip/in result 0", "alpha/ip/in/vlan10 result 0",
                                        "beta/ip/in result 0", "zeta/ip/in result 0"}));
}

TEST_F(OvinMirelAclSmTest, TheGlueStatusFollowedCanBeReplacedOrDropped) {
    rule("web", Acl::aclTypeIpv4, "10 permit ip any any");
    bind("Ethernet1", "web");
    run();
    auto other = glueStatusFactory("other");
    sm_->glueStatusIs(other);
    glue(idle_);  // the old one no longer counts
    EXPECT_TRUE(sm_->dpAclUpdateRequestPending());
    other->glueSmStateIs(idle_);
    EXPECT_FALSE(sm_->dpAclUpdateRequestPending());

    other->glueSmStateIs(computing_);
    bind("Ethernet2", "web");
    run();
    sm_->glueStatusDel();
    other->glueSmStateIs(success_);
    EXPECT_TRUE(sm_->dpAclUpdateRequestPending());
    try {
        sm_->indexIs(nullptr);
        ADD_FAILURE() << "no error";
    } catch (const Vorn::NullPointerException& e) {
        EXPECT_STREQ(e.what(),
                     "null _index parameter to mutator for OvinMirel::OvinMirelAclSm::index not "
                     "allowed");
    }
    EXPECT_EQ(sm_->index(), in_.index);
}

TEST_F(OvinMirelAclSmTest, SuccessWithAChipErrorIsAnInternalInconsistency) {
    glueStatus_->chipErrorIs(Mirel::ChipId(3), Mirel::stageHwError_);
    EXPECT_DEATH(glue(success_), "glueStatus\\(\\)->chipErrors\\(\\) == 0");
}

}  // namespace
}  // namespace OvinMirel
