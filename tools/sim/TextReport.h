#pragma once
// The simulator's report for a person: the scenario in one line, a timeline (steps, commit
// cycles with their states and outcome, log messages, in time order), then per chip what it
// is programmed with, per interface the ACLs in effect and those left out with the reason, the
// engine's outcome per ACL, and the result. It shows the same facts as the JSON dump.

#include <ostream>

#include "tools/sim/Scenario.h"
#include "tools/sim/Simulator.h"

namespace Sim {

void printReport(std::ostream& os, const Scenario& scenario, const RunResult& r);

}  // namespace Sim
