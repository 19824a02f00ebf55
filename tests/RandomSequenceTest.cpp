// Randomized fault sequences through the test agent. Each seed makes a scenario of ACL, rule,
// binding, membership, sub-interface, port and chip changes mixed with driver faults (failed
// computations with every stage error code, late, doubled and lost answers, small limits),
// runs it with the invariant checks after every pass of the event loop, and on a failure
// prints the seed and the steps, shrinks the scenario and writes it where ovinmirel-sim
// replays it.
//
//   OVINMIREL_RANDOM_SEED=17 build/ovinmirel_tests --gtest_filter='RandomSequence*'
//   OVINMIREL_RANDOM_SEEDS=2000 OVINMIREL_RANDOM_EVENTS=1000 build/ovinmirel_tests ...
//   OVINMIREL_RANDOM_OUT=<dir>   where shrunk scenarios go (default: the temporary directory)
//   OVINMIREL_RANDOM_SHRINK_RUNS=<n>   the shrinking effort (default 150 runs)
//
// The default run (300 seeds of 300 events) is split into shards, one test each, so that each
// stays well inside the per-test time limit of ctest.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

#include "ovinmirel/testagent/OvinMirelTestAgentRoot.h"
#include "tools/sim/ScenarioBuilders.h"
#include "tools/sim/ScenarioReader.h"
#include "tools/sim/ScenarioWriter.h"
#include "tools/soak/RandomSequence.h"

namespace RandomSequence {
namespace {

namespace fs = std::filesystem;

constexpr size_t kShards = 30;
constexpr size_t kDefaultEvents = 300;
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OVINMIREL_RANDOM_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(OVINMIREL_RANDOM_SANITIZED)
// The sanitized build runs this two to three times slower than a Debug build: it takes the
// first third of the seeds, so that the whole sanitized suite stays within its share of the
// CI time (the normal build runs them all).
constexpr size_t kDefaultSeeds = 100;
#else
constexpr size_t kDefaultSeeds = 300;
#endif

// The shrinking effort per failure, in runs (OVINMIREL_RANDOM_SHRINK_RUNS).
size_t shrinkRuns() {
    if (const char* n = std::getenv("OVINMIREL_RANDOM_SHRINK_RUNS"); n && *n)
        return size_t(std::strtoul(n, nullptr, 10));
    return 150;
}

fs::path outDir() {
    if (const char* d = std::getenv("OVINMIREL_RANDOM_OUT"); d && *d)
        return d;
    return fs::temp_directory_path();
}

// ---- The generator ----

TEST(RandomSequenceTest, ASeedGivesOneScenarioThatReadsBackEqual) {
    for (uint64_t seed : {1u, 2u, 77u}) {
        SCOPED_TRACE(seed);
        const Sim::Scenario s = generate(seed, 120, RulePool::standard());
        EXPECT_EQ(s, generate(seed, 120, RulePool::standard()));
        EXPECT_NE(s, generate(seed + 1, 120, RulePool::standard()));
        EXPECT_GE(s.steps.size(), 120u);
        const Sim::ReadScenario back = Sim::readScenario(Sim::writeScenario(s), "generated");
        EXPECT_EQ(back.scenario, s);
    }
}

// Over a few seeds every kind of event appears, every stage error code is injected, and
// every lost answer is followed by its chip's removal before the run ends.
TEST(RandomSequenceTest, SeedsCoverEveryEventAndEachLostAnswerIsFollowedByItsChipsRemoval) {
    std::set<std::string> words;
    std::set<int> codes;
    std::set<std::string> boundKinds;  // port, VLAN, port-channel and their sub-interfaces
    size_t lost = 0, late = 0, twice = 0, exhaustible = 0;
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        const Sim::Scenario s = generate(seed, 300, RulePool::standard());
        for (const Sim::ChipSpec& c : s.chips)
            exhaustible += c.ruleListIdMax < 6 || c.hwAclIndexMax < 6 ? 1 : 0;
        for (size_t i = 0; i < s.steps.size(); ++i) {
            const Sim::Action& a = s.steps[i].action;
            words.insert(Sim::actionWord(a));
            if (const auto* b = std::get_if<Sim::Step::Bind>(&a)) {
                const std::string n = b->binding.intf.name();
                boundKinds.insert(n.substr(0, n.find_first_of("0123456789")) +
                                  (n.find('.') == std::string::npos ? "" : ".sub"));
            }
            const auto* f = std::get_if<Sim::Step::Fault>(&a);
            if (!f)
                continue;
            if (f->fault.failWith != Mirel::stageSuccess_)
                codes.insert(int(f->fault.failWith));
            late += f->fault.delay > 0 ? 1 : 0;
            twice += f->fault.answerTwice ? 1 : 0;
            if (!f->fault.lost)
                continue;
            ++lost;
            bool removed = false;
            for (size_t j = i + 1; j < s.steps.size() && !removed; ++j) {
                const auto* r = std::get_if<Sim::Step::RemoveChip>(&s.steps[j].action);
                removed = r && r->chip == f->chip;
            }
            EXPECT_TRUE(removed) << "the lost answer of step " << i << " on chip " << f->chip;
        }
    }
    for (const char* w : {"acl", "removeAcl", "rule", "removeRule", "bind", "unbind", "addChip",
                          "removeChip", "movePort", "vlanJoin", "vlanLeave", "lagJoin", "lagLeave",
                          "addSubIntf", "removeSubIntf", "fault", "allocMax"})
        EXPECT_TRUE(words.contains(w)) << w;
    EXPECT_EQ(codes, (std::set<int>{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(boundKinds.size(), 5u);
    EXPECT_GT(lost, 0u);
    EXPECT_GT(late, 0u);
    EXPECT_GT(twice, 0u);
    EXPECT_GT(exhaustible, 0u);
}

TEST(RandomSequenceTest, CorpusRulesJoinThePoolOnlyWhenTheReaderTakesThem) {
    const fs::path file = outDir() / "ovinmirel-random-pool-test.acl";
    {
        std::ofstream out(file);
        out << "# header\nacl one ipv4\n10 permit tcp any any eq 80  # orig: x\n"
            << "20 permit tcp any any eq 99999\n# unconverted: remark\n"
            << "acl two mac\n10 permit any any 0x0806\nacl three arp\n10 permit ip any any\n";
    }
    RulePool p;
    p.addCorpusFile(file.string());
    fs::remove(file);
    EXPECT_EQ(p.ip, std::vector<std::string>{"permit tcp any any eq 80"});
    EXPECT_EQ(p.mac, std::vector<std::string>{"permit any any 0x0806"});
    EXPECT_TRUE(p.ipv6.empty());
    EXPECT_EQ(p.fromCorpus, 2u);
}

// ---- Runs, failures and shrinking ----

Sim::Scenario twoChips() {
    Sim::Scenario s;
    s.name = "two chips";
    s.chips = {Sim::chip(1, {"Ethernet1", "Ethernet2"}), Sim::chip(2, {"Ethernet5"})};
    s.acls = {Sim::acl("web", Acl::aclTypeIpv4, {"10 permit tcp any any eq 80"})};
    s.bindings = {Sim::binding("Ethernet1", s.acls[0])};
    return s;
}

TEST(RandomSequenceTest, ALostAnswerStallsItsCycleUntilItsChipLeaves) {
    Sim::Scenario s = twoChips();
    s.steps = {
        Sim::at(2, Sim::Step::Fault{2, OvinMirel::TestAgentFault::losing().times(1)}),
        Sim::at(2, Sim::Step::Bind{Sim::binding("Ethernet5", s.acls[0])}),
    };
    const std::optional<Failure> stalled = runChecked(s);
    ASSERT_TRUE(stalled);
    EXPECT_EQ(stalled->kind, "I7") << stalled->what;

    s.steps.push_back(Sim::at(6, Sim::Step::RemoveChip{2}));
    const std::optional<Failure> released = runChecked(s);
    EXPECT_FALSE(released) << released->what;
}

// A planted check fails once chip 2 has left: the seed's failure is shrunk to the removal
// alone, written, and the written file replays to the same failure.
TEST(RandomSequenceTest, AFailureIsShrunkToTheStepsItNeedsAndWrittenForTheSimulator) {
    const Sim::PassCheck planted =
        [](const OvinMirel::TestAgentRoot& root) -> std::optional<std::string> {
        if (!root.chip(Mirel::ChipId(2)))
            return "agent: chip 2 is gone";
        return checkAgent(root);
    };
    const FailsFn fails = [&](const Sim::Scenario& x) { return runChecked(x, planted); };
    auto leaves = [](const Sim::Scenario& s) {
        return std::any_of(s.steps.begin(), s.steps.end(), [](const auto& st) {
            return st.action == Sim::Action(Sim::Step::RemoveChip{2});
        });
    };
    uint64_t seed = 1;
    while (!leaves(generate(seed, 100, RulePool::builtin())))
        ASSERT_LT(++seed, 50u);
    const std::optional<SeedFailure> f =
        soakSeed(seed, 100, RulePool::builtin(), 200, outDir(), fails);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->failure.kind, "agent") << f->failure.what;
    EXPECT_EQ(f->shrunk.failure.kind, "agent");
    ASSERT_EQ(f->shrunk.scenario.steps.size(), 1u) << f->report;
    EXPECT_EQ(f->shrunk.scenario.steps[0].action, Sim::Action(Sim::Step::RemoveChip{2}));
    EXPECT_NE(f->report.find("seed " + std::to_string(seed) + " (100 events) fails at step"),
              std::string::npos)
        << f->report;

    const Sim::ReadScenario back = Sim::readScenarioFile(f->file.string());
    fs::remove(f->file);
    EXPECT_EQ(back.scenario, f->shrunk.scenario);
    const std::optional<Failure> again = fails(back.scenario);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->what, f->shrunk.failure.what);
}

// Delta debugging finds the two steps a failure needs among many, and never keeps a
// candidate that fails another way.
TEST(RandomSequenceTest, ShrinkingKeepsExactlyTheStepsTheFailureNeeds) {
    const Sim::Scenario s = generate(9, 200, RulePool::builtin());
    const size_t a = 37, b = 151;
    const Sim::TimedStep first = s.steps[a], second = s.steps[b];
    auto holds = [](const Sim::Scenario& x, const Sim::TimedStep& st) {
        return std::find(x.steps.begin(), x.steps.end(), st) != x.steps.end();
    };
    const FailsFn fails = [&](const Sim::Scenario& x) -> std::optional<Failure> {
        if (holds(x, first) && holds(x, second))
            return Failure{"both", x.steps.size(), "planted"};
        if (holds(x, first))
            return Failure{"one", x.steps.size(), "other"};
        return std::nullopt;
    };
    const ShrinkResult shrunk = shrink(s, *fails(s), 1000, fails);
    EXPECT_EQ(shrunk.failure.what, "both");
    EXPECT_TRUE(holds(shrunk.scenario, first));
    EXPECT_TRUE(holds(shrunk.scenario, second));
    // The reader may need a step that declares what the two name; no more than a few.
    EXPECT_LE(shrunk.scenario.steps.size(), 6u) << listSteps(shrunk.scenario, 100);
    EXPECT_LE(shrunk.runs, 1000u);
}

TEST(RandomSequenceTest, ThePlanComesFromTheEnvironment) {
    const char* const names[] = {"OVINMIREL_RANDOM_SEED", "OVINMIREL_RANDOM_SEEDS",
                                 "OVINMIREL_RANDOM_EVENTS"};
    auto set = [&](const std::array<const char*, 3>& values) {
        for (size_t i = 0; i < values.size(); ++i) {
            if (values[i])
                setenv(names[i], values[i], 1);
            else
                unsetenv(names[i]);
        }
    };
    // Put back what the caller set, so the randomized run below sees its own plan.
    std::array<std::string, 3> savedText;
    std::array<const char*, 3> saved{};
    for (size_t i = 0; i < saved.size(); ++i) {
        if (const char* v = std::getenv(names[i]))
            saved[i] = (savedText[i] = v).c_str();
    }
    struct Case {
        std::array<const char*, 3> env;  // seed, seeds, events
        std::vector<uint64_t> wantSeeds;
        size_t wantEvents;
    };
    const Case cases[] = {
        {{nullptr, nullptr, nullptr}, {1, 2, 3}, 300},
        {{"17", nullptr, "50"}, {17}, 50},
        {{nullptr, "2", nullptr}, {1, 2}, 300},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.env[0] ? c.env[0] : "-") + " " + (c.env[1] ? c.env[1] : "-"));
        set(c.env);
        const RunPlan p = runPlan(3, 300);
        EXPECT_EQ(p.seeds, c.wantSeeds);
        EXPECT_EQ(p.events, c.wantEvents);
    }
    set({nullptr, nullptr, "many"});
    EXPECT_THROW(runPlan(3, 300), std::invalid_argument);
    set(saved);
}

// ---- The randomized run ----

class RandomSequenceRun : public testing::TestWithParam<size_t> {};

TEST_P(RandomSequenceRun, EveryInvariantHoldsAfterEveryPass) {
    const RunPlan plan = runPlan(kDefaultSeeds, kDefaultEvents);
    for (size_t i = GetParam(); i < plan.seeds.size(); i += kShards) {
        if (const std::optional<SeedFailure> f = soakSeed(
                plan.seeds[i], plan.events, RulePool::standard(), shrinkRuns(), outDir())) {
            ADD_FAILURE() << f->report;
            return;  // one failure per shard is enough to read
        }
    }
}

// Shrunk scenarios of seeds that once broke an invariant (tests/scenarios/regress, each file's
// description says what it showed): every one must now hold every invariant after every pass.
TEST(RandomSequenceTest, EveryScenarioThatOnceFailedNowHolds) {
    const fs::path dir = fs::path(OVINMIREL_SOURCE_DIR) / "tests" / "scenarios" / "regress";
    std::set<fs::path> files;
    for (const fs::directory_entry& e : fs::directory_iterator(dir))
        files.insert(e.path());
    ASSERT_GE(files.size(), 3u) << dir;
    for (const fs::path& file : files) {
        SCOPED_TRACE(file.filename().string());
        const std::optional<Failure> f = runChecked(Sim::readScenarioFile(file.string()).scenario);
        EXPECT_FALSE(f) << f->what;
    }
}

INSTANTIATE_TEST_SUITE_P(Shard, RandomSequenceRun, testing::Range<size_t>(0, kShards),
                         [](const testing::TestParamInfo<size_t>& i) {
                             return "shard" + std::to_string(i.param);
                         });

}  // namespace
}  // namespace RandomSequence
