#pragma once
// The ovinmirel-sim command line, as a function the tests call in-process (main.cpp only
// forwards to it):
//
//   ovinmirel-sim [SCENARIO.json] [--json FILE] [--trace LEVEL] [--trace-file FILE]
//                 [--print-scenario] [--check] [--quiet] [--no-progress] [--no-check]
//
// Without a scenario file it runs the built-in scenario. Exit status: 2 for a scenario it
// refuses (or bad options), 1 when the run's last commit cycle failed or never finished (or
// the run itself stopped), 0 otherwise.

#include <optional>
#include <ostream>

namespace CLI {
class App;
}

namespace Sim {

struct CommandStreams {
    std::ostream& out;
    std::ostream& err;
    // The progress line is written to `err` only when it is a terminal.
    bool errIsTerminal = false;
};

int runCommand(int argc, const char* const* argv, const CommandStreams& io);

// Parses a tool's command line: nullopt to go on, else the exit status (0 after printing the
// help on --help; `badOptions` after "<name>: <what>" and a pointer to --help on `err`).
std::optional<int> parseCommandLine(CLI::App& app, int argc, const char* const* argv,
                                    const CommandStreams& io, int badOptions);

}  // namespace Sim
