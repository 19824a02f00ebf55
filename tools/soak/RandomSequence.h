#pragma once
// Randomized fault sequences over the test agent: a seeded generator of simulator scenarios,
// the run that checks the agent's invariants after every pass of its event loop, and a
// shrinker that cuts a failing scenario down to a short one that still fails the same way.
//
// Every event is a Sim::Scenario step, so a failure is written as a scenario file that
// ovinmirel-sim replays. The generator keeps its own picture of the switch so that each step
// it makes is one the scenario reader accepts (a step never names something absent), and so
// that a lost driver answer is always followed by the removal of its chip: a lost answer
// stalls its cycle until then.
//
// Deterministic: the generator draws from its own 64-bit generator, not from <random>'s
// distributions (whose results differ between standard libraries), so a seed gives the same
// scenario everywhere the rule pool is the same (the pool takes in the corpus when present).

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/sim/Scenario.h"
#include "tools/sim/Simulator.h"

namespace OvinMirel {
class TestAgentRoot;
}

namespace RandomSequence {

// Rule bodies (a rule line without its sequence number) the generator draws from, per ACL
// type. Each one is accepted by the rule reader.
struct RulePool {
    std::vector<std::string> ip, ipv6, mac;
    size_t fromCorpus = 0;  // how many came from the corpus

    const std::vector<std::string>& of(Acl::AclType t) const;
    // The built-in lines alone.
    static RulePool builtin();
    // The built-in lines and every corpus rule the reader accepts (the corpus directory from
    // OVINMIREL_CORPUS, else ../shared/corpus beside the sources, else /work/shared/corpus;
    // none of them present: the built-in lines alone). Read once.
    static const RulePool& standard();
    // Adds the rules of one corpus file ("acl NAME TYPE" blocks of rule lines).
    void addCorpusFile(const std::string& path);
};

// A scenario of `events` steps (a few more where one event needs two: a lost answer and the
// removal of its chip, a chip leaving and its fault cleared), on a switch of two or three
// chips, some with small limits on rule list ids, hardware ACL indexes and transform entries.
Sim::Scenario generate(uint64_t seed, size_t events, const RulePool& pool);

// Every check that holds after any pass: nullopt, or what is broken, led by the check's name
// ("index: ...", "rebuild: ...", "mapping Chip-2: ...", "agent: ...").
std::optional<std::string> checkAgent(const OvinMirel::TestAgentRoot& root);

struct Failure {
    std::string what;  // "at <time>: <check>: <text>", or the run's own error
    size_t step = 0;   // steps applied before it showed
    // The check that failed ("I1" ... "I7" for the agent invariants, "glue", "index",
    // "rebuild", "mapping", "agent" for the others, "error" for a run that threw, "stalled"
    // for a cycle that never finished): a shrunk scenario must fail the same way.
    std::string kind;
};

// Runs the scenario with the agent invariants (AgentInvariants.h: check() after every pass,
// checkSettled() at the end), stopping at the first violation; every cycle must also have
// reached idle. nullopt when all held.
std::optional<Failure> runChecked(const Sim::Scenario& s);
// The same with another check after every pass instead of the agent invariants.
std::optional<Failure> runChecked(const Sim::Scenario& s, const Sim::PassCheck& check);

// The scenario as ovinmirel-sim reads it back; false when the reader refuses the written text
// (the steps left do not make a valid scenario).
bool replayable(const Sim::Scenario& s);

struct ShrinkResult {
    Sim::Scenario scenario;
    Failure failure;
    size_t runs = 0;
};
// Delta debugging over the steps: drops chunks of steps, halving the chunk size, keeping a
// smaller scenario whenever it is replayable and still fails with the same kind. Stops after
// maxRuns runs. `fails` decides; runChecked by default.
using FailsFn = std::function<std::optional<Failure>(const Sim::Scenario&)>;
ShrinkResult shrink(
    const Sim::Scenario& s, const Failure& failure, size_t maxRuns,
    const FailsFn& fails = [](const Sim::Scenario& x) { return runChecked(x); });

// One seed of a soak: its scenario run checked; on a failure the scenario is shrunk (at most
// `shrinkRuns` runs) and written to <outDir>/ovinmirel-random-seed-<seed>.json.
struct SeedFailure {
    Failure failure;      // as the whole scenario first showed it
    ShrinkResult shrunk;  // what the shrinking kept
    std::filesystem::path file;
    // The seed, where it failed, the steps up to there, the shrunk steps and how to replay.
    std::string report;
};
std::optional<SeedFailure> soakSeed(
    uint64_t seed, size_t events, const RulePool& pool, size_t shrinkRuns,
    const std::filesystem::path& outDir,
    const FailsFn& fails = [](const Sim::Scenario& x) { return runChecked(x); });

// Seeds and events for the run, from the environment: OVINMIREL_RANDOM_SEED (one seed),
// OVINMIREL_RANDOM_SEEDS (how many, from 1), OVINMIREL_RANDOM_EVENTS; the defaults otherwise.
struct RunPlan {
    std::vector<uint64_t> seeds;
    size_t events = 0;
    bool fromEnvironment = false;
};
RunPlan runPlan(size_t defaultSeeds, size_t defaultEvents);

// The steps as a numbered list, for a failure message ("  12 @ 8.5 s: bind web/ip in on ...").
std::string listSteps(const Sim::Scenario& s, size_t upTo);

}  // namespace RandomSequence
