// Commit cycles through the real modules: the index machines, the glue with its per-chip
// machines, the root machines and the chip mocks, on a virtual clock. The glue checker runs
// after every pass of every test.

#include "ovinmirel/glue/OvinMirelGlueSm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ovinmirel/glue/OvinMirelGlueTestWorld.h"
#include "platform/flinq/Flinq.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {
namespace {

using GlueTest::aclKey;
using GlueTest::eth;
using GlueTest::ipRule;
using States = std::vector<GlueSmState>;

const States kNoChange = {aclIdAlloc_, computing_, success_, mappingLoader_, unblockIntf_, idle_};
const States kLoaded = {aclIdAlloc_, computing_,   loading_, mappingLoader_,
                        success_,    unblockIntf_, idle_};
const States kAborted = {aclIdAlloc_,    computing_, aborting_,    blockIntf_,
                         mappingLoader_, fail_,      unblockIntf_, idle_};
const States kExhausted = {aclIdAlloc_,     blockIntf_,   mappingLoader_,
                           aclIdAllocFail_, unblockIntf_, idle_};

const Ovin::AclKey kA = aclKey("a");
const Ovin::AclKey kB = aclKey("b");
const Ovin::AclKey kC = aclKey("c");

// A world with the checker after every pass, and the set-ups the tests share.
struct Bench {
    Bench() {
        w.afterPass = [this] {
            if (const auto v = w.check())
                ADD_FAILURE() << "after a pass at " << w.now() << ": " << *v;
        };
    }
    // Chips 1..n, Ethernet<i> on chip i, ACL a bound on every one; started and settled, so
    // chip i runs root 2i with a.
    void startChips(uint32_t n, uint32_t ruleListIdMax = 15) {
        for (uint32_t i = 1; i <= n; ++i) {
            w.addChip(i, ruleListIdMax);
            w.port(eth(int(i)), i);
        }
        w.acl(kA, {ipRule(10, "10.0.0.0", 8), ipRule(20, "10.1.0.0", 16)});
        for (uint32_t i = 1; i <= n; ++i)
            w.bind(kA, eth(int(i)));
        w.start();
        w.settle();
        w.takeStates();
    }
    // A new ACL on every chip's port: every chip's root changes.
    void changeEveryChip(const Ovin::AclKey& key, uint32_t n) {
        w.acl(key, {ipRule(10, "192.168.0.0", 16)});
        for (uint32_t i = 1; i <= n; ++i)
            w.bind(key, eth(int(i)));
    }
    std::map<Mirel::ChipId, uint32_t> activeRoots() const {
        std::map<Mirel::ChipId, uint32_t> out;
        for (const auto& [chip, root] : w.glueStatus->activeRootSmId())
            out.emplace(chip, root);
        return out;
    }
    std::vector<uint32_t> rootConfigIds() const {
        return w.glueStatus->rootConfigColl()->rootConfig().keys();
    }

    GlueTest::World w;
};

class GlueSmTest : public ::testing::Test, protected Bench {};

TEST(GlueSmCycle, EveryPathPassesItsStatesInOrder) {
    struct Case {
        const char* name;
        std::function<void(Bench&)> setUp;
        States states;
        GlueSmState result;
    };
    const Case cases[] = {
        {"noChange", [](Bench&) {}, kNoChange, success_},
        {"loaded", [](Bench& t) { t.changeEveryChip(kB, 2); }, kLoaded, success_},
        {"aborted",
         [](Bench& t) {
             t.w.faultPlan().faultIs(Mirel::ChipId(2),
                                     TestAgentFault::failing(Mirel::stageTcamFull_));
             t.changeEveryChip(kB, 2);
         },
         kAborted, fail_},
        {"exhausted",
         [](Bench& t) {
             t.changeEveryChip(kB, 2);
             t.changeEveryChip(kC, 2);
         },
         kExhausted, aclIdAllocFail_},
        {"unstable",
         [](Bench& t) { t.w.loaded(1)->globalAclControlIs(Mirel::globalAclControlRewrite_); },
         {},
         success_},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Bench t;
        t.startChips(2, /*ruleListIdMax=*/1);
        c.setUp(t);
        t.w.kick();
        t.w.runFor(0.5);  // less than the delay: only what the kick started
        EXPECT_EQ(t.w.takeStates(), c.states);
        EXPECT_EQ(t.w.glueStatus->lastComputationResult(), c.result);
    }
}

TEST_F(GlueSmTest, NoChangeCycleStillEndsAndCounts) {
    startChips(2);
    const uint32_t kick = w.glue->activeRootKick();
    const auto before = activeRoots();
    Flinq::Capture capture;
    w.kick();
    EXPECT_EQ(w.takeStates(), kNoChange) << "finished inside the kick";
    EXPECT_EQ(w.glue->activeRootKick(), kick + 1);
    EXPECT_EQ(activeRoots(), before);
    EXPECT_EQ(rootConfigIds(), (std::vector<uint32_t>{2, 4})) << "the attempts were dropped";
    EXPECT_EQ(w.glue->mirelRootSmColl()->rootSms(), 2u);
    EXPECT_TRUE(capture.has("1:3  RootConfig not changed. Skipped."));
    EXPECT_TRUE(capture.has("2:5  RootConfig not changed. Skipped."));
    EXPECT_TRUE(capture.has("handlePrepareCommit 2 chips to process"));
    EXPECT_EQ(w.glueStatus->computingRootSmIds(), 0u);
}

// The checker sees that the active roots and loaded tables stay as they were.
TEST(GlueSmCycle, FailureOnOneChipAbortsEveryChipAndPublishesOnlyCodesOneToSeven) {
    struct Case {
        Mirel::StageErrorCode code;
        bool published;
        size_t ignored;  // "  Ignoring error" lines: the healthy chips' abortedByPeer, ...
    };
    const Case cases[] = {
        {Mirel::stageResourceExhausted_, true, 2}, {Mirel::stageHwError_, true, 2},
        {Mirel::stageInternalError_, true, 2},     {Mirel::stageAbortedByPeer_, false, 3},
        {Mirel::StageErrorCode(9), false, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.code);
        Bench t;
        t.startChips(3);
        t.w.faultPlan().faultIs(Mirel::ChipId(2), TestAgentFault::failing(c.code));
        t.changeEveryChip(kB, 3);
        Flinq::Capture capture;
        t.w.kick();
        t.w.settle();
        EXPECT_EQ(t.w.takeStates(), kAborted);
        EXPECT_EQ(t.w.glueStatus->lastComputationResult(), fail_);
        for (uint32_t chip = 1; chip <= 3; ++chip) {
            // The failed attempt stays for the next cycle to clear.
            EXPECT_EQ(t.w.attemptRoot(chip), 2 * chip + 1) << chip;
            const auto status = t.w.glueStatus->rootStatusColl()->rootStatus(2 * chip + 1);
            ASSERT_TRUE(status) << chip;
            EXPECT_EQ(status->rootState(), Mirel::rootAborted_) << chip;
        }
        EXPECT_EQ(t.w.glueStatus->chipErrors(), c.published ? 1u : 0u);
        if (c.published) {
            ASSERT_TRUE(t.w.glueStatus->chipError(Mirel::ChipId(2)));
            EXPECT_EQ(*t.w.glueStatus->chipError(Mirel::ChipId(2)), c.code);
        }
        EXPECT_TRUE(capture.has("Some attemptRootSms have failed, start aborting processing"));
        const auto texts = capture.texts("OvinMirelGlueSm");
        EXPECT_EQ(std::count(texts.begin(), texts.end(), "  Ignoring error"), long(c.ignored));
        EXPECT_EQ(std::count(texts.begin(), texts.end(), "  Publishing error"),
                  long(c.published ? 1 : 0));
        EXPECT_EQ(std::count(texts.begin(), texts.end(), "Inactive Chip-2"), 1);
        // Next time the error goes: computing empties it.
        t.w.faultPlan().faultDelAll();
        t.w.kick();
        t.w.settle();
        EXPECT_EQ(t.w.takeStates(), kLoaded);
        EXPECT_EQ(t.w.glueStatus->chipErrors(), 0u);
    }
}

TEST_F(GlueSmTest, CrliExhaustionFailsEarlyAndLoadsPendingMappings) {
    // Two ids (0 and 1) for chip 1's ACLs.
    w.addChip(1, /*ruleListIdMax=*/1);
    for (int i = 1; i <= 4; ++i)
        w.port(eth(i), 1);
    w.acl(kA, {ipRule(10, "10.0.0.0", 8)});
    w.acl(kB, {ipRule(10, "10.2.0.0", 16)});
    w.acl(kC, {ipRule(10, "10.3.0.0", 16)});
    w.bind(kA, eth(1));
    w.bind(kB, eth(2));
    w.bind(kB, eth(3));
    w.start();
    w.settle();
    EXPECT_EQ(w.takeStates(), kLoaded);
    ASSERT_TRUE(w.loaded(1)->intfToHwAclIndex(eth(3)));

    // Ethernet3 leaves b (a mapping the loader must take out), c comes in (a third ACL).
    w.bind(kB, eth(3), false);
    w.bind(kC, eth(4));
    w.pass();  // the policy review: the PD mapping drops Ethernet3, the loader queues it
    ASSERT_FALSE(w.pi(1)->intfToHwAclIndex(eth(3)));
    ASSERT_TRUE(w.loaded(1)->intfToHwAclIndex(eth(3))) << "queued, not yet loaded";
    bool loadedBeforeResult = false;
    const Vorn::Subscription sub = w.glueStatus->glueSmStateNotify([&] {
        if (w.state() == aclIdAllocFail_)
            loadedBeforeResult = !w.loaded(1)->intfToHwAclIndex(eth(3));
    });
    Flinq::Capture capture;
    w.kick();
    EXPECT_EQ(w.takeStates(), kExhausted) << "all inside the kick";
    EXPECT_TRUE(loadedBeforeResult) << "the loader wrote at mappingLoader";
    EXPECT_EQ(w.glueStatus->lastComputationResult(), aclIdAllocFail_);
    EXPECT_TRUE(capture.has("checkAclIdAllocFail Chip-1 CRLI range exhausted"));
    EXPECT_TRUE(capture.has("handlePrepareCommit CRLI range exhausted, failing GlueSm early"));
    EXPECT_EQ(w.activeRoot(1), 2u);
    EXPECT_EQ(rootConfigIds(), std::vector<uint32_t>{2}) << "no root was built";
    EXPECT_FALSE(w.glue->chipUpdateTimer().armed()) << "the kick took the pending change";
    w.settle();
    EXPECT_TRUE(w.takeStates().empty());
}

TEST_F(GlueSmTest, ChangesWithinTheDelayGiveOneCycleOneDelayAfterTheLast) {
    startChips(1);
    std::vector<Vorn::Seconds> started;
    const Vorn::Subscription sub = w.glueStatus->glueSmStateNotify([&] {
        if (w.state() == aclIdAlloc_)
            started.push_back(w.now());
    });
    const Vorn::Seconds t0 = w.now();
    w.acl(kB, {ipRule(10, "10.2.0.0", 16)});
    w.bind(kB, eth(1));
    w.runFor(0.5);
    w.acl(kC, {ipRule(10, "10.3.0.0", 16)});
    w.bind(kC, eth(1));
    w.runUntil(t0 + 1.4);
    EXPECT_TRUE(started.empty()) << "the first change's delay was re-armed by the second";
    w.settle();
    EXPECT_EQ(started, std::vector<Vorn::Seconds>{t0 + 1.5});
    EXPECT_EQ(w.takeStates(), kLoaded);
}

TEST_F(GlueSmTest, KickWhileUnstableWaitsThenStartsAtOnce) {
    startChips(2);
    Flinq::Capture capture;
    w.loaded(2)->globalAclControlIs(Mirel::globalAclControlRewrite_);
    EXPECT_TRUE(w.glue->unstableChip(Mirel::ChipId(2)));
    changeEveryChip(kB, 2);
    w.kick();
    w.runFor(10);
    EXPECT_TRUE(w.takeStates().empty()) << "neither the kick nor the timer starts a cycle";
    EXPECT_TRUE(w.glue->hwUnstableUpdateQueued());
    EXPECT_TRUE(capture.has("  hw currently not stable, backing off until hw is stable"));

    const Vorn::Seconds stable = w.now();
    w.loaded(2)->globalAclControlIs(Mirel::globalAclControlStable_);
    EXPECT_TRUE(capture.has("  hw stable, scheduling handlePrepareCommit to run"));
    EXPECT_FALSE(w.glue->hwUnstableUpdateQueued());
    EXPECT_EQ(w.glue->chipUpdateTimer().expiry(), stable) << "now, without the delay";
    w.pass();
    EXPECT_EQ(w.now(), stable);
    EXPECT_FALSE(w.takeStates().empty()) << "the cycle started on the next pass";
    w.settle();
    EXPECT_EQ(w.glueStatus->lastComputationResult(), success_);
}

TEST_F(GlueSmTest, KickDuringACycleIsHeldUntilIdle) {
    startChips(2);
    w.faultPlan().faultIs(Mirel::ChipId(2), TestAgentFault::late(3.0));
    changeEveryChip(kB, 2);
    w.kick();
    w.runFor(1.0);
    ASSERT_EQ(w.state(), computing_);
    const States before = w.takeStates();
    w.kick();
    EXPECT_TRUE(w.glue->cycleRequestQueued());
    EXPECT_EQ(w.state(), computing_) << "the running cycle goes on";
    EXPECT_TRUE(w.takeStates().empty());
    w.faultPlan().faultDelAll();
    w.runFor(2.5);
    // The first cycle ended, then the held request ran on the next pass.
    States seen = before;
    for (GlueSmState s : w.takeStates())
        seen.push_back(s);
    States expected = kLoaded;
    expected.insert(expected.end(), kNoChange.begin(), kNoChange.end());
    EXPECT_EQ(seen, expected);
    EXPECT_FALSE(w.glue->cycleRequestQueued());
}

TEST_F(GlueSmTest, AttemptsAlternateSlotsAndReuseTheSlotAfterAFailure) {
    w.addChip(2);
    w.port(eth(1), 2);
    w.acl(kA, {ipRule(10, "10.0.0.0", 8)});
    w.bind(kA, eth(1));
    w.start();
    w.settle();
    struct Step {
        const char* name;
        bool fail;
        uint32_t attempt;
        uint32_t activeAfter;
    };
    const Step steps[] = {
        {"second root", false, 5, 5},  {"back to the first", false, 4, 4},
        {"failed", true, 5, 4},        {"same slot after the failure", true, 5, 4},
        {"and it loads", false, 5, 5},
    };
    ASSERT_EQ(w.activeRoot(2), 4u) << "a chip without an active root starts at chip * 2";
    int rule = 100;
    for (const Step& s : steps) {
        SCOPED_TRACE(s.name);
        if (s.fail) {
            w.faultPlan().faultIs(Mirel::ChipId(2), TestAgentFault::failing(Mirel::stageHwError_));
        } else {
            w.faultPlan().faultDelAll();
        }
        w.acl(kA, {ipRule(++rule, "172.16.0.0", 12)});  // a's rules change: a new root
        w.kick();
        EXPECT_EQ(w.attemptRoot(2), s.attempt) << "computing, inside the kick";
        w.settle();
        EXPECT_EQ(w.activeRoot(2), s.activeAfter);
        EXPECT_EQ(w.glueStatus->lastComputationResult(), s.fail ? fail_ : success_);
    }
}

TEST_F(GlueSmTest, WithoutPerChipMachinesRecordsExistAndResponsesStand) {
    w.addChip(1);
    w.port(eth(1), 1);
    w.acl(kA, {ipRule(10, "10.0.0.0", 8)});
    w.bind(kA, eth(1));
    Flinq::Capture capture;
    w.start(/*instantiatePerChipSm=*/false);
    const Mirel::ChipId chip(1);
    EXPECT_TRUE(w.glueStatus->aclIdResponseColl()->chipAclIdResponse(chip));
    ASSERT_TRUE(w.pdConfig->chipConfig(chip));
    EXPECT_TRUE(w.pdConfig->chipConfig(chip)->initialized());
    EXPECT_TRUE(w.glueStatus->aclPolicyStatusColl()->status(chip));
    EXPECT_TRUE(w.pi(1));
    EXPECT_EQ(w.glue->aclIdAllocSmColl()->chipAclIdAllocSms() + w.glue->aclPolicySmColl()->sms() +
                  w.glue->mappingLoaderSmColl()->mappingLoaders() + w.glue->mappingSmColl()->sms(),
              0u);

    w.settle();
    EXPECT_EQ(w.takeStates(), kLoaded) << "an empty root: no allocator gave a an id";
    EXPECT_TRUE(
        capture.hasSubstring("   Skipping ACL: " + TestSupport::str(kA) + ", aclId not applied"));
    const Vorn::Ptr<Mirel::RootConfig> empty = w.glueStatus->rootConfigColl()->rootConfig(2);
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->acls(), 0u);

    // The responses as they stand are what the next cycle builds from.
    const Mirel::AclId id(Mirel::ipv4PortAcl_, 7, Acl::aclDirectionIn);
    w.glueStatus->aclIdResponseColl()->chipAclIdResponse(chip)->responseIs(kA)->aclIdTypeIs(
        Mirel::protocolAll_, id);
    w.kick();
    w.settle();
    EXPECT_EQ(w.takeStates(), kLoaded);
    const Vorn::Ptr<Mirel::RootConfig> root = w.glueStatus->rootConfigColl()->rootConfig(3);
    ASSERT_TRUE(root);
    EXPECT_TRUE(root->acl(id));
}

}  // namespace
}  // namespace OvinMirel
