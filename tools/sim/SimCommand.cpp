#include "tools/sim/SimCommand.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "platform/flinq/Flinq.h"
#include "tools/sim/ScenarioBuilders.h"
#include "tools/sim/ScenarioReader.h"
#include "tools/sim/ScenarioWriter.h"
#include "tools/sim/Simulator.h"
#include "tools/sim/StateDump.h"
#include "tools/sim/TextReport.h"

namespace Sim {

namespace {

constexpr int kExitBadScenario = 2;
constexpr int kExitRunFailed = 1;

// "\rovinmirel-sim: step 12/40, t=35 s, 9 cycles", rewritten in place at most five times a
// second once the run has taken a second of wall time; wiped at the end.
class ProgressLine {
  public:
    explicit ProgressLine(std::ostream& err) : err_(err), start_(Clock::now()) {}
    ~ProgressLine() {
        if (shown_)
            err_ << "\r\033[K" << std::flush;
    }
    void operator()(size_t done, size_t total, double t, size_t cycles) {
        const Clock::time_point now = Clock::now();
        if (now - start_ < std::chrono::seconds(1) ||
            (shown_ && now - last_ < std::chrono::milliseconds(200))) {
            return;
        }
        last_ = now;
        shown_ = true;
        char buf[128];
        std::snprintf(buf, sizeof buf, "\rovinmirel-sim: step %zu/%zu, t=%.1f s, %zu cycles\033[K",
                      done, total, t, cycles);
        err_ << buf << std::flush;
    }

  private:
    using Clock = std::chrono::steady_clock;
    std::ostream& err_;
    Clock::time_point start_;
    Clock::time_point last_;
    bool shown_ = false;
};

// The ring closed and every handle back at its default levels (all of them), so that a caller
// running the command in-process finds tracing as it was.
void closeTrace() {
    Flinq::closeRing();
    Flinq::ringLevelsIs("*", Flinq::kAllLevels);
}

}  // namespace

std::optional<int> parseCommandLine(CLI::App& app, int argc, const char* const* argv,
                                    const CommandStreams& io, int badOptions) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        io.out << app.help();
        return 0;
    } catch (const CLI::ParseError& e) {
        io.err << app.get_name() << ": " << e.what() << "\n"
               << "run " << app.get_name() << " --help for the options\n";
        return badOptions;
    }
    return std::nullopt;
}

int runCommand(int argc, const char* const* argv, const CommandStreams& io) {
    CLI::App app{
        "ovinmirel-sim: runs a switch scenario through the ACL layer on a virtual clock and "
        "shows what every chip ends up programmed with.",
        "ovinmirel-sim"};
    std::string scenarioFile;
    std::string jsonFile;
    std::optional<int> traceLevel;
    std::string traceFile = "ovinmirel-sim.fq";
    bool printScenario = false;
    bool checkOnly = false;
    bool quiet = false;
    bool noProgress = false;
    bool noCheck = false;
    app.add_option("scenario", scenarioFile,
                   "scenario file (JSON, see docs/scenario.md); the built-in scenario without one");
    app.add_option("--json", jsonFile, "also write the state dump (JSON) to this file");
    app.add_option("--trace", traceLevel,
                   "trace every module at levels 0 to LEVEL into a ring file (read it with "
                   "flinqcat)")
        ->check(CLI::Range(0, Flinq::kMaxLevel));
    app.add_option("--trace-file", traceFile, "the trace ring file")->capture_default_str();
    app.add_flag("--print-scenario", printScenario,
                 "print the scenario as JSON (a start for your own) and stop");
    app.add_flag("--check", checkOnly, "read and check the scenario, run nothing");
    app.add_flag("-q,--quiet", quiet, "no report on standard output");
    app.add_flag("--no-progress", noProgress, "no progress line on a terminal");
    app.add_flag("--no-check", noCheck,
                 "skip the glue's invariant check after every pass (faster on large runs)");
    if (const std::optional<int> status = parseCommandLine(app, argc, argv, io, kExitBadScenario))
        return *status;

    Scenario scenario;
    try {
        if (scenarioFile.empty()) {
            scenario = builtinScenario();
        } else {
            ReadScenario read = readScenarioFile(scenarioFile);
            for (const std::string& note : read.notes)
                io.err << "ovinmirel-sim: note: " << scenarioFile << ": " << note << "\n";
            scenario = std::move(read.scenario);
        }
    } catch (const ScenarioError& e) {
        io.err << "ovinmirel-sim: " << e.what() << "\n";
        return kExitBadScenario;
    }
    if (printScenario) {
        io.out << writeScenario(scenario);
        return 0;
    }
    if (checkOnly) {
        io.out << (scenarioFile.empty() ? std::string("the built-in scenario") : scenarioFile)
               << ": the scenario is fine\n";
        return 0;
    }

    if (traceLevel) {
        Flinq::ringLevelsIs("*", (1u << (*traceLevel + 1)) - 1);
        try {
            Flinq::openRing(traceFile);
        } catch (const std::exception& e) {
            io.err << "ovinmirel-sim: " << e.what() << "\n";
            return kExitBadScenario;
        }
    }

    RunResult result;
    try {
        ProgressLine line(io.err);
        SimOptions options;
        options.checkInvariants = !noCheck;
        if (io.errIsTerminal && !noProgress) {
            options.progress = [&line](size_t done, size_t total, double t, size_t cycles) {
                line(done, total, t, cycles);
            };
        }
        result = simulate(scenario, options);
    } catch (const std::exception& e) {
        if (traceLevel)
            closeTrace();
        io.err << "ovinmirel-sim: the run stopped: " << e.what() << "\n";
        return kExitRunFailed;
    }
    if (traceLevel) {
        closeTrace();
        io.err << "ovinmirel-sim: trace in " << traceFile << " (read it with flinqcat " << traceFile
               << ")\n";
    }
    if (!jsonFile.empty()) {
        std::ofstream json(jsonFile, std::ios::binary | std::ios::trunc);
        json << writeDump(result);
        if (!json.flush()) {
            io.err << "ovinmirel-sim: cannot write " << jsonFile << "\n";
            return kExitRunFailed;
        }
    }
    if (!quiet)
        printReport(io.out, scenario, result);
    return result.exitStatus();
}

}  // namespace Sim
