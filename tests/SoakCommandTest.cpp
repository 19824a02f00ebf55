// The ovinmirel-soak command in-process: its options, a healthy run, and what a failing seed
// leaves (its report, its scenario file, the exit status, stopping unless --keep-going).

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tools/soak/SoakCommand.h"

namespace RandomSequence {
namespace {

namespace fs = std::filesystem;

struct Ran {
    int status;
    std::string out, err;
};

Ran soak(
    std::vector<std::string> args,
    const FailsFn& fails = [](const Sim::Scenario& x) { return runChecked(x); }) {
    args.insert(args.begin(), "ovinmirel-soak");
    std::vector<const char*> argv;
    for (const std::string& a : args)
        argv.push_back(a.c_str());
    std::ostringstream out, err;
    const int status = runSoakCommand(int(argv.size()), argv.data(), {out, err, false}, fails);
    return {status, out.str(), err.str()};
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(SoakCommandTest, BadOptionsAreRefusedWithTheOptionNamed) {
    for (const auto& [args, word] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"--seeds", "0"}, "--seeds"},
             {{"--events", "x"}, "--events"},
             {{"--out", "/no/such/directory"}, "/no/such/directory"},
             {{"--bogus"}, "--bogus"}}) {
        SCOPED_TRACE(word);
        const Ran r = soak(args);
        EXPECT_EQ(r.status, 2);
        EXPECT_TRUE(has(r.err, "ovinmirel-soak: ") && has(r.err, word)) << r.err;
        EXPECT_EQ(r.out, "");
    }
}

TEST(SoakCommandTest, AHealthyRunSaysEverySeedHeld) {
    const Ran r = soak({"--seeds", "2", "--first", "5", "--events", "40", "--builtin-rules"});
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(has(r.out,
                    "seeds 5 to 6, 40 events each, rules: 10 IPv4, 5 IPv6, 4 MAC (0 from "
                    "the corpus)"))
        << r.out;
    EXPECT_TRUE(has(r.out, "ovinmirel-soak: 2 seeds, every invariant held after every pass"))
        << r.out;
}

// Every seed fails a planted check: the run stops at the first one unless told to go on, and
// each failing seed leaves its shrunk scenario where --out says.
TEST(SoakCommandTest, AFailingSeedIsReportedWrittenAndEndsTheRunUnlessKeepGoing) {
    const fs::path dir = fs::temp_directory_path() / "ovinmirel-soak-command-test";
    fs::remove_all(dir);
    fs::create_directories(dir);
    const FailsFn planted = [](const Sim::Scenario& x) -> std::optional<Failure> {
        if (x.steps.empty())
            return std::nullopt;
        return Failure{"at 1 s: planted", 1, "planted"};
    };
    const std::vector<std::string> args = {"--seeds",         "3",     "--events",  "20",
                                           "--builtin-rules", "--out", dir.string()};
    const Ran once = soak(args, planted);
    EXPECT_EQ(once.status, 1);
    EXPECT_TRUE(has(once.out, "seed 1 (20 events) fails at step 1: at 1 s: planted")) << once.out;
    EXPECT_FALSE(has(once.out, "seed 2 (")) << once.out;
    EXPECT_TRUE(has(once.out, "ovinmirel-soak: 1 of 1 seeds failed")) << once.out;
    EXPECT_TRUE(fs::exists(dir / "ovinmirel-random-seed-1.json"));

    std::vector<std::string> all = args;
    all.push_back("--keep-going");
    const Ran every = soak(all, planted);
    EXPECT_EQ(every.status, 1);
    EXPECT_TRUE(has(every.out, "ovinmirel-soak: 3 of 3 seeds failed")) << every.out;
    for (const char* f : {"ovinmirel-random-seed-2.json", "ovinmirel-random-seed-3.json"})
        EXPECT_TRUE(fs::exists(dir / f)) << f;
    fs::remove_all(dir);
}

}  // namespace
}  // namespace RandomSequence
