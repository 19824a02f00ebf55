// The glue's roots through the real modules: what an attempt root holds, and how the answers
// of the hardware layer are taken, including faults: stale and late answers, a chip that goes
// mid-cycle or after a failed cycle, and a root state outside the running phase. (Answers
// repeated into a later phase are the fault matrix's.)

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "ovinmirel/glue/OvinMirelGlueSm.h"
#include "ovinmirel/glue/OvinMirelGlueTestWorld.h"
#include "platform/flinq/Flinq.h"
#include "platform/flinq/FlinqRing.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {
namespace {

using GlueTest::aclKey;
using GlueTest::eth;
using GlueTest::ipRule;
using States = std::vector<GlueSmState>;

const States kLoaded = {aclIdAlloc_, computing_,   loading_, mappingLoader_,
                        success_,    unblockIntf_, idle_};
const Ovin::AclKey kA = aclKey("a");
const Ovin::AclKey kB = aclKey("b");

// Chips 1..n with Ethernet<i> on chip i and ACL a bound there, started and settled (chip i
// runs root 2i), the checker after every pass.
struct Bench {
    explicit Bench(uint32_t n) {
        w.afterPass = [this] {
            if (const auto v = w.check())
                ADD_FAILURE() << "after a pass at " << w.now() << ": " << *v;
        };
        for (uint32_t i = 1; i <= n; ++i) {
            w.addChip(i);
            w.port(eth(int(i)), i);
        }
        w.acl(kA, {ipRule(10, "10.0.0.0", 8)});
        for (uint32_t i = 1; i <= n; ++i)
            w.bind(kA, eth(int(i)));
        w.start();
        w.settle();
        w.takeStates();
        for (uint32_t i = 1; i <= n; ++i)
            chips.push_back(i);
    }
    // ACL b on every chip, then a kick: every chip computes a new root.
    void changeAndKick() {
        w.acl(kB, {ipRule(10, "192.168.0.0", 16)});
        for (uint32_t i : chips)
            w.bind(kB, eth(int(i)));
        w.kick();
    }
    void fault(uint32_t chip, const TestAgentFault& f) {
        w.faultPlan().faultIs(Mirel::ChipId(chip), f);
    }
    Vorn::Ptr<Mirel::RootStatus> status(uint32_t rootId) const {
        return w.glueStatus->rootStatusColl()->rootStatus(rootId);
    }
    // Whatever of the chip is left anywhere, in words; empty when nothing is.
    std::vector<std::string> leftOf(uint32_t id) const {
        const Mirel::ChipId chip(id);
        std::vector<std::string> left;
        auto note = [&](bool present, const char* what) {
            if (present)
                left.push_back(what);
        };
        for (uint32_t root : {2 * id, 2 * id + 1}) {
            note(bool(w.glueStatus->rootConfigColl()->rootConfig(root)), "root configuration");
            note(bool(w.glueStatus->rootStatusColl()->rootStatus(root)), "root status");
            note(bool(w.glue->mirelRootSmColl()->rootSm(root)), "root machine");
            note(w.glueStatus->computingRootSmId(root), "computing");
            note(w.glueStatus->loadingRootSmId(root), "loading");
            note(w.glueStatus->failedRootSmId(root), "failed");
            note(w.glueStatus->abortRootSmId(root), "abort");
        }
        note(w.activeRoot(id).has_value(), "active root");
        note(w.attemptRoot(id).has_value(), "attempt root");
        note(bool(w.glue->aclIdAllocSmColl()->chipAclIdAllocSm(chip)), "AclIdAllocSm");
        note(bool(w.glue->aclPolicySmColl()->sm(chip)), "AclPolicySm");
        note(bool(w.glue->mappingSmColl()->sm(chip)), "MappingSm");
        note(bool(w.glue->mappingLoaderSmColl()->mappingLoader(chip)), "MappingLoaderSm");
        note(bool(w.glueStatus->aclIdResponseColl()->chipAclIdResponse(chip)), "AclIdResponse");
        note(bool(w.glueStatus->aclPolicyStatusColl()->status(chip)), "AclPolicyStatus");
        note(bool(w.pi(id)), "piChipDataFlowConfig");
        note(bool(w.pdConfig->chipConfig(chip)), "chipConfig");
        note(bool(w.mock(chip)), "driver mock");
        note(w.glue->unstableChip(chip), "unstableChip");
        return left;
    }

    GlueTest::World w;
    std::vector<uint32_t> chips;
};

TEST(GlueSmRoot, SplitAclGivesEachIdItsHalfOfTheSharedRules) {
    GlueTest::World w;
    w.addChip(1, 15, /*splitOnProtocol=*/true);
    w.port(eth(1), 1);
    w.acl(kA, {ipRule(10, "10.0.0.0", 8, 6), ipRule(20, "10.1.0.0", 16, 17),
               ipRule(30, "10.2.0.0", 16, 6)});
    w.bind(kA, eth(1));
    w.start();
    w.settle();
    ASSERT_EQ(w.takeStates(), kLoaded);
    const Vorn::Ptr<Mirel::RootConfig> root = w.glueStatus->rootConfigColl()->rootConfig(2);
    ASSERT_TRUE(root);
    const Vorn::Ptr<Mirel::AclIdTypeSet> ids = root->aclKeyToAclIdTypeSet(kA);
    ASSERT_TRUE(ids);
    const Mirel::AclId* tcp = ids->aclIdType(Mirel::protocolTcp_);
    const Mirel::AclId* rest = ids->aclIdType(Mirel::protocolNonTcp_);
    ASSERT_TRUE(tcp && rest);
    EXPECT_FALSE(ids->aclIdType(Mirel::protocolAll_));
    ASSERT_EQ(root->acls(), 2u);
    const Vorn::Ptr<OvinMirelAcl> acl = w.acls->acl(kA);
    ASSERT_TRUE(root->acl(*tcp) && root->acl(*rest));
    EXPECT_EQ(root->acl(*tcp)->ruleList(), acl->ruleList(Mirel::protocolTcp_));
    EXPECT_EQ(root->acl(*rest)->ruleList(), acl->ruleList(Mirel::protocolNonTcp_));
}

// An unchanged chip's root is compared with the active one and never written: each way the
// content can differ still gives an attempt, which holds what the store holds.
TEST(GlueSmRoot, AttemptRootFollowsEveryDifferenceFromTheActiveOne) {
    struct Case {
        const char* name;
        void (*change)(GlueTest::World&);
        std::vector<Ovin::AclKey> keys;  // of the new root; empty: the chip is skipped
    };
    const Case cases[] = {
        {"nothing", [](GlueTest::World&) {}, {}},
        {"a rule taken out and put back: a new list with the same rules",
         [](GlueTest::World& w) {
             const Vorn::Ptr<OvinMirelAcl> b = w.acls->acl(kB);
             const auto [index, rule] = *b->ipRuleById().begin();
             b->ipRuleByIdDel(index);
             b->ipRuleByIdIs(index, rule);
         },
         {}},
        {"a rule of the last ACL",
         [](GlueTest::World& w) { w.acl(kB, {ipRule(10, "172.16.0.0", 12)}); },
         {kA, kB}},
        {"the last ACL unbound", [](GlueTest::World& w) { w.bind(kB, eth(1), false); }, {kA}},
        {"the first ACL unbound", [](GlueTest::World& w) { w.bind(kA, eth(1), false); }, {kB}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Bench b(1);
        b.changeAndKick();
        b.w.settle();
        ASSERT_EQ(b.w.activeRoot(1), 3u);
        c.change(b.w);
        Flinq::Capture capture;
        b.w.kick();
        b.w.settle();
        EXPECT_EQ(capture.has("1:2  RootConfig not changed. Skipped."), c.keys.empty());
        EXPECT_EQ(b.w.activeRoot(1), c.keys.empty() ? 3u : 2u);
        const Vorn::Ptr<Mirel::RootConfig> root =
            b.w.glueStatus->rootConfigColl()->rootConfig(*b.w.activeRoot(1));
        ASSERT_TRUE(root);
        if (!c.keys.empty()) {
            EXPECT_EQ(root->aclKeyToAclIdTypeSet().keys(), c.keys);
        }
        for (const auto& [key, ids] : root->aclKeyToAclIdTypeSet()) {
            for (const auto& [protocol, id] : ids->aclIdType()) {
                ASSERT_TRUE(root->acl(id));
                EXPECT_TRUE(root->acl(id)->holdsRules(*b.w.acls->acl(key)->ruleList(protocol)))
                    << key;
            }
        }
    }
}

TEST(GlueSmRootDeathTest, SplitMacAclStopsTheProcess) {
    GlueTest::World w;
    w.addChip(1);
    w.port(eth(1), 1);
    const Ovin::AclKey mac = aclKey("m", Acl::aclTypeMac);
    w.acl(mac, {GlueTest::macRule(10, "00:11:22:33:44:55")});
    w.bind(mac, eth(1));
    w.start(/*instantiatePerChipSm=*/false);
    w.settle();
    // Ids for two protocol halves, as no allocator would hand a MAC ACL.
    const Vorn::Ptr<Mirel::AclIdTypeSet> ids =
        w.glueStatus->aclIdResponseColl()->chipAclIdResponse(Mirel::ChipId(1))->responseIs(mac);
    ids->aclIdTypeIs(Mirel::protocolTcp_, Mirel::AclId(Mirel::macAcl_, 0, Acl::aclDirectionIn));
    ids->aclIdTypeIs(Mirel::protocolNonTcp_, Mirel::AclId(Mirel::macAcl_, 1, Acl::aclDirectionIn));
    EXPECT_DEATH(w.kick(), "iterAcl->macRuleByIds\\(\\) == 0");
}

TEST(GlueSmRoot, ChipThatGoesMidCycleLeavesNothingAndTheCycleEnds) {
    // Chip 2 answers late; chip 1 fails when told.
    struct Case {
        const char* name;
        bool chip1Fails;
        uint32_t goes;
        GlueSmState result;
        std::vector<std::pair<uint32_t, uint32_t>> active;  // chip, root
    };
    const Case cases[] = {
        {"the chip still computing goes", false, 2, success_, {{1, 3}}},
        {"the chip that failed goes", true, 1, success_, {{2, 5}}},
        {"the chip still computing goes after another failed", true, 2, fail_, {{1, 2}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Bench b(2);
        if (c.chip1Fails)
            b.fault(1, TestAgentFault::failing(Mirel::stageHwError_));
        b.fault(2, TestAgentFault::late(5.0));
        b.changeAndKick();
        b.w.runFor(1.0);
        ASSERT_EQ(b.w.state(), computing_);
        ASSERT_EQ(b.w.glueStatus->computingRootSmIds(), 1u) << "chip 2 answers late";
        b.w.dropPDStatus(c.goes);
        EXPECT_EQ(b.leftOf(c.goes), std::vector<std::string>{});
        b.w.settle();
        EXPECT_EQ(b.w.state(), idle_);
        EXPECT_EQ(b.w.glueStatus->lastComputationResult(), c.result);
        std::vector<std::pair<uint32_t, uint32_t>> active;
        for (const auto& [chip, root] : b.w.glueStatus->activeRootSmId())
            active.emplace_back(chip.value(), root);
        EXPECT_EQ(active, c.active);
        EXPECT_EQ(b.leftOf(c.goes), std::vector<std::string>{}) << "nor after its late answers";
        if (c.result == fail_) {
            ASSERT_TRUE(b.w.glueStatus->chipError(Mirel::ChipId(1)));
            EXPECT_EQ(*b.w.glueStatus->chipError(Mirel::ChipId(1)), Mirel::stageHwError_);
        }
    }
}

TEST(GlueSmRoot, ARemovedChipKeepsItsErrorAndLosesEverythingElse) {
    Bench b(2);
    b.fault(2, TestAgentFault::failing(Mirel::stageUnsupported_));
    b.changeAndKick();
    b.w.settle();
    ASSERT_TRUE(b.w.glueStatus->chipError(Mirel::ChipId(2)));
    b.w.dropCapability(2);
    EXPECT_EQ(b.leftOf(2), std::vector<std::string>{});
    ASSERT_TRUE(b.w.glueStatus->chipError(Mirel::ChipId(2)));
    EXPECT_EQ(*b.w.glueStatus->chipError(Mirel::ChipId(2)), Mirel::stageUnsupported_);
    EXPECT_EQ(b.w.glueStatus->rootConfigColl()->rootConfig().keys(), (std::vector<uint32_t>{2, 3}))
        << "chip 1's roots stay";
    b.w.settle();
}

TEST(GlueSmRoot, StaleAnswerIsTracedAndChangesNothing) {
    Bench b(1);
    b.fault(1, TestAgentFault::late(5.0));
    b.changeAndKick();
    b.w.runFor(1.0);
    const Vorn::Ptr<Mirel::RootStatus> status = b.status(3);
    ASSERT_TRUE(status);
    ASSERT_EQ(status->rootState(), Mirel::rootComputing_);
    const uint32_t kick = status->kickResponse();
    ASSERT_NE(kick, 0u);

    Flinq::Capture capture;
    // A hardware layer answering a failure under the kick before this one.
    status->kickResponseIs(kick - 1);
    status->rootStateIs(Mirel::rootComputeFailed_);
    const auto texts = capture.texts("OvinMirelGlueSm");
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "1:3    has a kick but not finished"), 2);
    EXPECT_EQ(b.w.state(), computing_);
    EXPECT_TRUE(b.w.glueStatus->computingRootSmId(3));
    EXPECT_EQ(b.w.glueStatus->failedRootSmIds(), 0u);

    // The real answer under the current kick still counts.
    b.w.settle();
    EXPECT_EQ(b.w.glueStatus->lastComputationResult(), success_);
    EXPECT_EQ(b.w.activeRoot(1), 3u);
}

// A root state outside the running phase stops the process, with the root written to the
// trace ring first.
TEST(GlueSmRootDeathTest, RootStateOutsideThePhaseStopsTheProcess) {
    struct Case {
        const char* name;
        bool failChip;
        GlueSmState phase;
        Mirel::RootState poked;
        std::string ringText;
    };
    const Case cases[] = {
        {"loaded while computing", false, computing_, Mirel::rootLoaded_,
         "1:3    unexpected RootState loaded (5) in GlueSm State computing"},
        {"computed while aborting", true, aborting_, Mirel::rootComputed_,
         "1:3    unexpected RootState computed (2) in GlueSm State aborting"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TestSupport::TempDir dir;
        const std::string ring = dir.file("glue.fq");
        Bench b(1);
        b.fault(1, c.failChip ? TestAgentFault::failing(Mirel::stageHwError_)
                              : TestAgentFault::late(5.0));
        b.changeAndKick();
        // Pass by pass, until the root has answered the action of the phase.
        auto answered = [&] {
            const Vorn::Ptr<Mirel::RootStatus> s = b.status(3);
            const Vorn::Ptr<Mirel::RootConfig> r = b.w.glueStatus->rootConfigColl()->rootConfig(3);
            return b.w.state() == c.phase && s && r && s->kickResponse() == r->mirelRootKick();
        };
        for (int i = 0; i < 100 && !answered(); ++i)
            b.w.pass();
        ASSERT_EQ(b.w.state(), c.phase);
        const Vorn::Ptr<Mirel::RootStatus> status = b.status(3);
        ASSERT_TRUE(status);
        ASSERT_EQ(status->kickResponse(),
                  b.w.glueStatus->rootConfigColl()->rootConfig(3)->mirelRootKick())
            << "the root has answered the current action";
        EXPECT_DEATH(
            {
                Flinq::openRing(ring, Flinq::kMinRingSizeLog2);
                status->rootStateIs(c.poked);
            },
            "Assertion `false' failed");
        bool found = false;
        for (const Flinq::RingRecord& r : Flinq::readRing(ring))
            found = found || (r.handle == "OvinMirelGlueSm" && r.text == c.ringText);
        EXPECT_TRUE(found) << c.ringText;
    }
}

}  // namespace
}  // namespace OvinMirel
