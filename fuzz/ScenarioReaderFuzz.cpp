// Fuzz target: the simulator's scenario reader.
//
// Input: the scenario text. Checked for every input:
//  - the reader either returns a scenario or throws Sim::ScenarioError whose text starts with
//    the source name ("fuzz.json: "); any other exception escaping is a finding;
//  - an accepted scenario written back (Sim::writeScenario) reads as an equal scenario, and
//    writing that one gives the same text (the writer's round trip).
// Crashes and sanitizer reports are findings too.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tools/sim/ScenarioReader.h"
#include "tools/sim/ScenarioWriter.h"

namespace {

constexpr std::string_view kSource = "fuzz.json";

[[noreturn]] void fail(const char* what, const std::string& detail) {
    std::fprintf(stderr, "ScenarioReaderFuzz: %s: %s\n", what, detail.c_str());
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    Sim::ReadScenario read;
    try {
        read = Sim::readScenario(text, kSource);
    } catch (const Sim::ScenarioError& e) {
        if (std::string_view(e.what()).rfind(std::string(kSource) + ": ", 0) != 0)
            fail("refusal without the source name", e.what());
        return 0;
    }
    const std::string written = Sim::writeScenario(read.scenario);
    Sim::ReadScenario again;
    try {
        again = Sim::readScenario(written, kSource);
    } catch (const Sim::ScenarioError& e) {
        fail("written scenario refused", std::string(e.what()) + "\n" + written);
    }
    if (!(again.scenario == read.scenario))
        fail("written scenario reads as another", written);
    if (Sim::writeScenario(again.scenario) != written)
        fail("written scenario is not stable", written);
    return 0;
}
