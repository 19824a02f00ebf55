// The glue checker as an oracle: one corruption per rule, each named in its words. (Its
// silence over real cycles is what every glue test that runs it after each pass shows.)

#include "ovinmirel/glue/OvinMirelGlueCheck.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ovinmirel/glue/OvinMirelGlueTestWorld.h"

namespace OvinMirel {
namespace {

using GlueTest::aclKey;
using GlueTest::eth;
using GlueTest::ipRule;

const Ovin::AclKey kA = aclKey("a");
const Ovin::AclKey kB = aclKey("b");

enum class After { success, fail, exhausted };

// Chip 1 with Ethernet1 and Ethernet2, ACL a on Ethernet1, started and settled (root 2
// active); then one more cycle that ends as asked: b comes in (root 3), or b comes in and the
// driver fails (root 2 stays), or b comes in where there is only one id.
void setUp(GlueTest::World& w, After after) {
    w.addChip(1, after == After::exhausted ? 0 : 15);
    w.port(eth(1), 1);
    w.port(eth(2), 1);
    w.acl(kA, {ipRule(10, "10.0.0.0", 8)});
    w.bind(kA, eth(1));
    w.start();
    w.settle();
    if (after == After::fail)
        w.faultPlan().faultIs(Mirel::ChipId(1), TestAgentFault::failing(Mirel::stageHwError_));
    w.acl(kB, {ipRule(10, "10.2.0.0", 16)});
    w.bind(kB, eth(2));
    w.settle();
}

// Chip 1 leaves and comes back while chip 2's late failure holds the cycle: its roots went
// with it, so the failed cycle ends with chip 1 rootless, which is not the cycle's doing. A
// chip that stayed is still held to its root.
TEST(GlueCheck, AChipThatLeftDuringAFailedCycleIsNotJudgedOnIt) {
    GlueTest::World w;
    w.addChip(1);
    w.addChip(2);
    w.port(eth(1), 1);
    w.port(eth(5), 2);
    w.acl(kA, {ipRule(10, "10.0.0.0", 8)});
    w.bind(kA, eth(1));
    w.bind(kA, eth(5));
    w.start();
    w.settle();
    ASSERT_TRUE(w.activeRoot(1));
    ASSERT_TRUE(w.activeRoot(2));
    const uint32_t chip2Root = *w.activeRoot(2);

    // Chip 2 fails every cycle from now on, late.
    w.faultPlan().faultIs(Mirel::ChipId(2),
                          TestAgentFault::failing(Mirel::stageHwError_).alsoLate(2));
    w.acl(kB, {ipRule(10, "10.2.0.0", 16)});
    w.bind(kB, eth(1));
    w.bind(kB, eth(5));
    w.runFor(1);
    ASSERT_NE(w.state(), idle_) << "the late answer holds the cycle";
    w.dropPDStatus(1);
    w.pass();
    ASSERT_FALSE(w.activeRoot(1));
    w.addChip(1);
    std::vector<std::string> seen;
    w.afterPass = [&] {
        if (const auto v = w.check())
            seen.push_back(*v);
    };
    w.settle();
    EXPECT_EQ(w.glueStatus->lastComputationResult(), fail_);
    EXPECT_EQ(seen, std::vector<std::string>{});
    EXPECT_FALSE(w.activeRoot(1));
    EXPECT_EQ(w.activeRoot(2), chip2Root);

    // The same end, had chip 2 lost its root: that one stayed, and is named.
    w.glueStatus->activeRootSmIdDel(Mirel::ChipId(2));
    EXPECT_EQ(w.check(), "Chip-2 active root changed from " + std::to_string(chip2Root) +
                             " to none in a failed cycle (fail)");
}

TEST(GlueCheck, NamesTheFirstViolationOfEachRule) {
    struct Case {
        const char* name;
        After after;
        std::function<void(GlueTest::World&)> corrupt;
        std::string violation;
    };
    const Mirel::AclId stray(Mirel::ipv4PortAcl_, 99, Acl::aclDirectionIn);
    const Case cases[] = {
        {"a failed cycle moved the active root", After::fail,
         [](GlueTest::World& w) { w.glueStatus->activeRootSmIdIs(Mirel::ChipId(1), 3); },
         "Chip-1 active root changed from 2 to 3 in a failed cycle (fail)"},
        {"a failed cycle changed the loaded tables", After::fail,
         [](GlueTest::World& w) { w.loaded(1)->intfToHwAclIndexIs(eth(9), Mirel::HwAclIndex(9)); },
         "Chip-1 loaded configuration changed in a failed cycle (fail), and is not its PD "
         "mapping either"},
        {"an exhausted cycle changed the loaded tables", After::exhausted,
         [](GlueTest::World& w) { w.loaded(1)->intfToHwAclIndexDelAll(); },
         "Chip-1 loaded configuration changed in a failed cycle (aclIdAllocFail), and is not "
         "its PD mapping either"},
        {"a loaded chip lacks part of its PD mapping", After::success,
         [](GlueTest::World& w) { w.loaded(1)->intfToHwAclIndexDel(eth(2)); },
         "Chip-1 loaded configuration is not its PD mapping after the successful cycle that "
         "loaded root 3"},
        {"a loaded 2nd-level entry names an id the active root lacks", After::success,
         [&](GlueTest::World& w) {
             const Mirel::HwAclIndex index = *w.pi(1)->intfToHwAclIndex(eth(1));
             w.pi(1)->chipRuleListKeyToIdIs(
                 Mirel::ChipRuleListIdKey(index, Mirel::ipv4PortAcl_, Mirel::protocolAll_,
                                          Acl::aclDirectionOut),
                 stray);
             w.pass();  // the loader carries it over
         },
         "Chip-1 loaded 2nd-level entry ChipRuleListIdKey{hwAclIndex=1, tableType=1, "
         "direction=out, protocolType=all} names AclId{tableType=1, chipRuleListId=99, "
         "direction=in}, which active root 3 does not hold"},
        {"an interface blocked without a request", After::success,
         [](GlueTest::World& w) { w.pdConfig->blockedIntfIs(eth(5)); },
         "Ethernet5 is blocked while idle without a request"},
        {"a root of a chip that is not present", After::success,
         [](GlueTest::World& w) { w.glueStatus->rootConfigColl()->rootConfigIs(99); },
         "root 99 (configuration) belongs to Chip-49, which is not present"},
        {"a configuration in the slot nobody uses", After::success,
         [](GlueTest::World& w) { w.glueStatus->rootConfigColl()->rootConfigIs(2); },
         "root 2 (configuration) is neither the active nor the attempt root of Chip-1"},
        {"an outstanding root in the slot nobody uses", After::success,
         [](GlueTest::World& w) { w.glueStatus->abortRootSmIdIs(2); },
         "root 2 (abort) is neither the active nor the attempt root of Chip-1"},
        {"an attempt root of another chip", After::success,
         [](GlueTest::World& w) { w.glueStatus->attemptRootSmIdIs(Mirel::ChipId(1), 4); },
         "Chip-1 has attempt root 4 of another chip"},
        {"an attempt on the active root", After::success,
         [](GlueTest::World& w) { w.glueStatus->attemptRootSmIdIs(Mirel::ChipId(1), 3); },
         "Chip-1 attempts on its active root 3"},
        {"an active root without its status", After::success,
         [](GlueTest::World& w) { w.glueStatus->rootStatusColl()->rootStatusDel(3); },
         "Chip-1 active root 3 has no configuration or no status"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        GlueTest::World w;
        setUp(w, c.after);
        ASSERT_EQ(w.check(), std::nullopt);
        c.corrupt(w);
        EXPECT_EQ(w.check(), c.violation);
    }
}

TEST(GlueCheck, CycleRulesNeedTheSnapshotOfTheCycle) {
    GlueTest::World w;
    setUp(w, After::fail);
    w.loaded(1)->intfToHwAclIndexIs(eth(9), Mirel::HwAclIndex(9));
    EXPECT_NE(w.check(), std::nullopt);
    EXPECT_EQ(checkGlueInvariants(*w.glue, nullptr), std::nullopt);
    // The snapshot is taken when a cycle starts: the next cycle starts from what is loaded.
    w.faultPlan().faultDelAll();
    w.kick();
    w.settle();
    EXPECT_EQ(w.glueStatus->lastComputationResult(), success_);
}

}  // namespace
}  // namespace OvinMirel
