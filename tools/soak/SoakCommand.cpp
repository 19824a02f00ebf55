#include "tools/soak/SoakCommand.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include <CLI/CLI.hpp>

namespace RandomSequence {

using Sim::parseCommandLine;

namespace {

constexpr int kExitSeedFailed = 1;
constexpr int kExitBadOptions = 2;

}  // namespace

int runSoakCommand(int argc, const char* const* argv, const Sim::CommandStreams& io,
                   const FailsFn& fails) {
    CLI::App app{
        "ovinmirel-soak: runs random sequences of configuration changes and driver faults "
        "through the ACL layer, checks every invariant after every pass, and shrinks a "
        "failing sequence into a scenario file for ovinmirel-sim.",
        "ovinmirel-soak"};
    uint64_t seeds = 100;
    uint64_t first = 1;
    size_t events = 300;
    std::string outDir = std::filesystem::temp_directory_path().string();
    size_t shrinkRuns = 150;
    bool builtinRules = false;
    bool keepGoing = false;
    app.add_option("--seeds", seeds, "how many seeds")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--first", first, "the first seed")->capture_default_str();
    app.add_option("--events", events, "events per seed")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--out", outDir, "where failing scenarios are written")
        ->capture_default_str()
        ->check(CLI::ExistingDirectory);
    app.add_option("--shrink-runs", shrinkRuns, "runs spent shrinking a failing seed")
        ->capture_default_str();
    app.add_flag("--builtin-rules", builtinRules,
                 "draw rules from the built-in lines only, not from the rule corpus");
    app.add_flag("--keep-going", keepGoing, "run every seed even after one failed");
    if (const std::optional<int> status = parseCommandLine(app, argc, argv, io, kExitBadOptions))
        return *status;

    const RulePool builtin = builtinRules ? RulePool::builtin() : RulePool{};
    const RulePool& pool = builtinRules ? builtin : RulePool::standard();
    io.out << "ovinmirel-soak: seeds " << first << " to " << first + seeds - 1 << ", " << events
           << " events each, rules: " << pool.ip.size() << " IPv4, " << pool.ipv6.size()
           << " IPv6, " << pool.mac.size() << " MAC (" << pool.fromCorpus << " from the corpus)\n";
    const auto start = std::chrono::steady_clock::now();
    uint64_t failed = 0, ran = 0;
    for (uint64_t seed = first; seed < first + seeds; ++seed) {
        ++ran;
        const std::optional<SeedFailure> f =
            soakSeed(seed, events, pool, shrinkRuns, outDir, fails);
        if (io.errIsTerminal) {
            io.err << "\rovinmirel-soak: seed " << seed << " (" << ran << "/" << seeds << ")\033[K"
                   << std::flush;
        }
        if (!f)
            continue;
        ++failed;
        if (io.errIsTerminal)
            io.err << "\r\033[K";
        io.out << f->report;
        if (!keepGoing)
            break;
    }
    if (io.errIsTerminal)
        io.err << "\r\033[K" << std::flush;
    const double secs =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    char took[32];
    std::snprintf(took, sizeof took, "%.1f s", secs);
    if (failed == 0) {
        io.out << "ovinmirel-soak: " << ran << " seeds, every invariant held after every pass ("
               << took << ")\n";
        return 0;
    }
    io.out << "ovinmirel-soak: " << failed << " of " << ran << " seeds failed (" << took << ")\n";
    return kExitSeedFailed;
}

}  // namespace RandomSequence
