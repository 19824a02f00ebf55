#pragma once
// The scenario writer: a Sim::Scenario as the JSON text the reader takes (docs/scenario.md).
// Reading the written text gives back an equal scenario, so a built scenario (the built-in
// one, a benchmark's switch) can be saved, edited and run again. Fields at their default are
// left out; rules print in their canonical one-line form.

#include <string>

#include "tools/sim/Scenario.h"

namespace Sim {

std::string writeScenario(const Scenario& s);

}  // namespace Sim
