#pragma once
// The ovinmirel-soak command line, as a function the tests call in-process (main.cpp only
// forwards to it):
//
//   ovinmirel-soak [--seeds N] [--first N] [--events N] [--out DIR] [--shrink-runs N]
//                  [--builtin-rules] [--keep-going]
//
// Long randomized runs of the whole ACL path through the test agent, beyond what the test
// suite runs in CI: seeds first, first+1, ... each make a scenario of configuration changes
// and driver faults (RandomSequence.h) that runs with every invariant of AgentInvariants.h
// and the index, rebuild and mapping checks after every pass of the event loop. A failing
// seed is shrunk to the few steps it needs and written as a scenario file ovinmirel-sim
// replays. It stops at the first failing seed unless --keep-going.
//
// Exit status: 0 when every seed held, 1 when one failed, 2 for bad options.

#include "tools/sim/SimCommand.h"
#include "tools/soak/RandomSequence.h"

namespace RandomSequence {

// `fails` runs one scenario with its checks (runChecked unless a test plants another).
int runSoakCommand(
    int argc, const char* const* argv, const Sim::CommandStreams& io,
    const FailsFn& fails = [](const Sim::Scenario& x) { return runChecked(x); });

}  // namespace RandomSequence
