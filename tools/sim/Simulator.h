#pragma once
// Sim::simulate: runs a scenario on the test agent (OvinMirel::TestAgentRoot) under a virtual
// clock and records what happened: every step as applied, every commit cycle (its states in
// order, outcome, the chips that took part, their errors, the interfaces blocked during it),
// every log message with the time it was logged, and the switch's state at the end.
//
// The run: the switch and its configuration at time 0 (chips with their capabilities, ports,
// VLAN and port-channel membership, sub-interfaces, ACLs, bindings), then each step at its
// time, the event loop running every timer due in between. It ends at the scenario's `end`,
// or, without one, once the agent is idle after the last step and the capacity has been
// polled once more, so the reported figures are those of the last commit.
//
// Deterministic: the same scenario gives the same result, field for field.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/sim/Scenario.h"
#include "tools/sim/SwitchState.h"

namespace OvinMirel {
class TestAgentRoot;
}

namespace Sim {

struct StepRecord {
    size_t index = 0;  // in Scenario::steps
    double at = 0.0;
    std::string word;  // actionWord
    std::string text;  // describe
};

struct CycleRecord {
    uint32_t number = 0;  // 1, 2, ... in the order the cycles started
    double start = 0.0;
    double end = 0.0;
    bool finished = false;            // reached idle before the run ended
    std::vector<std::string> states;  // every state the glue passed through, in order
    std::string outcome;              // lastComputationResult when it finished
    std::vector<uint32_t> chips;      // chips whose attempt root took part
    std::map<uint32_t, std::string> chipErrors;
    std::vector<std::string> blocked;  // interfaces blocked at some point of the cycle
    bool failed() const { return outcome == "fail" || outcome == "aclIdAllocFail"; }
};

struct LogRecord {
    double time = 0.0;
    std::string id;
    std::string text;
};

struct SnapshotRecord {
    double at = 0.0;
    std::string label;
    SwitchState state;
};

struct RunResult {
    std::string scenario;  // its name
    double endTime = 0.0;
    std::vector<StepRecord> steps;
    std::vector<CycleRecord> cycles;
    std::vector<LogRecord> logs;
    std::vector<SnapshotRecord> snapshots;  // the snapshot steps', in step order
    SwitchState state;                      // at the end
    // The first broken invariant, if any: the glue's check, run after every pass, then the
    // caller's pass check (SimOptions::passCheck), "at <time>: <what>".
    std::optional<std::string> violation;
    // Steps applied when a check first failed; with stopOnViolation the run ended there (the
    // check at the end counts as after the last step).
    std::optional<size_t> violationStep;

    // 1 when the last cycle failed or never finished, 0 otherwise (also without cycles).
    int exitStatus() const;
};

// Called before each step and at the end: (steps done, steps in all, virtual time, cycles).
using Progress = std::function<void(size_t, size_t, double, size_t)>;

// Called after every pass of the event loop with the running agent; a text says what is
// broken. Randomized runs put their invariant checks here.
using PassCheck = std::function<std::optional<std::string>(const OvinMirel::TestAgentRoot&)>;

// Checks that watch the agent from start-up on (a checker that follows the glue's cycles):
// made once the agent exists, before the scenario's configuration is applied. `afterPass` runs
// with the pass check; `atEnd` once, when the run has settled.
struct RunChecks {
    PassCheck afterPass;
    PassCheck atEnd;
};
using MakeChecks = std::function<RunChecks(OvinMirel::TestAgentRoot&)>;

struct SimOptions {
    // The glue's invariant check after every pass (RunResult::violation). It reads every
    // chip's state, so a benchmark turns it off.
    bool checkInvariants = true;
    Progress progress;
    PassCheck passCheck;
    MakeChecks makeChecks;
    // The first failed pass check ends the run: the steps after it are not applied and the
    // state recorded is the one the check saw. A shrinking search wants its answer early.
    bool stopOnViolation = false;
};

// Throws std::runtime_error when the agent refuses a step the reader let through or the event
// loop does not settle ("step 3 (bind at 2 s): <why>").
RunResult simulate(const Scenario& scenario, const SimOptions& options = {});

}  // namespace Sim
