#pragma once
// The simulator's JSON state dump (docs/simulator.md describes every field): the run's steps,
// commit cycles, log messages, each chip's programmed state and capacity, each interface's
// ACLs in effect and left out, and the engine's outcome per ACL.
//
// Stable and deterministic: object fields are sorted, lists are in the fixed orders of
// Sim::SwitchState and Sim::RunResult, nothing depends on addresses or wall time, so one run
// gives the same bytes every time. The "format" field names the layout; a change of layout
// changes it.

#include <string>

#include "tools/sim/Simulator.h"

namespace Sim {

inline constexpr const char* kDumpFormat = "ovinmirel-sim-dump/1";

// The dump as text: two-space indentation, a final newline.
std::string writeDump(const RunResult& r);

}  // namespace Sim
