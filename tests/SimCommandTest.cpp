// The ovinmirel-sim command line, run in-process: exit statuses (2 for a refused scenario with
// its text, 1 for a run whose last cycle failed or never finished, 0 otherwise), the JSON dump
// it writes, its check and print options, and the trace ring it opens.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/flinq/FlinqRing.h"
#include "tests/TestSupport.h"
#include "tools/sim/ScenarioBuilders.h"
#include "tools/sim/ScenarioReader.h"
#include "tools/sim/SimCommand.h"

namespace Sim {
namespace {

using ::testing::HasSubstr;
namespace fs = std::filesystem;

fs::path scenarioDir() {
    return fs::path(OVINMIREL_SOURCE_DIR) / "tests" / "scenarios";
}

std::string fileText(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

Outcome command(std::vector<std::string> args) {
    args.insert(args.begin(), "ovinmirel-sim");
    std::vector<const char*> argv;
    for (const std::string& a : args)
        argv.push_back(a.c_str());
    std::ostringstream out, err;
    Outcome r;
    r.status = runCommand(int(argv.size()), argv.data(), {out, err, false});
    r.out = out.str();
    r.err = err.str();
    return r;
}

TEST(SimCommand, RefusedScenariosExitWithTwoAndTheirText) {
    std::vector<fs::path> files;
    for (const fs::directory_entry& e : fs::directory_iterator(scenarioDir() / "bad")) {
        if (e.path().extension() == ".json")
            files.push_back(e.path());
    }
    std::sort(files.begin(), files.end());
    ASSERT_GE(files.size(), 6u);
    for (const fs::path& file : files) {
        SCOPED_TRACE(file.filename().string());
        const std::string expected = fileText(fs::path(file).replace_extension(".error"));
        ASSERT_FALSE(expected.empty()) << "no .error beside " << file;
        const Outcome r = command({file.string()});
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.err, "ovinmirel-sim: " + file.string() + ": " + expected);
        EXPECT_EQ(r.out, "");
    }
}

TEST(SimCommand, UnreadableFilesAndBadOptionsExitWithTwo) {
    const Outcome missing = command({"/nonexistent/switch.json"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.err, "ovinmirel-sim: /nonexistent/switch.json: cannot open the file\n");

    const Outcome option = command({"--frobnicate"});
    EXPECT_EQ(option.status, 2);
    EXPECT_THAT(option.err, HasSubstr("--frobnicate"));

    const Outcome level = command({"--trace", "12"});
    EXPECT_EQ(level.status, 2);
}

TEST(SimCommand, BuiltInScenarioRunsWithoutArguments) {
    TestSupport::TempDir dir;
    const Outcome r = command({"--json", dir.file("dump.json")});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_THAT(r.out, HasSubstr("ovinmirel-sim: two-chip switch\n"));
    EXPECT_THAT(r.out, HasSubstr("Result: last cycle 3 success; glue idle; exit status 0\n"));
    // The file the command writes is the committed dump of the built-in scenario.
    EXPECT_EQ(fileText(dir.file("dump.json")), fileText(scenarioDir() / "builtin.expected.json"));
}

TEST(SimCommand, ExitStatusFollowsTheLastCycle) {
    TestSupport::TempDir dir;
    // A chip that never answers: the cycle cannot finish.
    const std::string stuck = dir.file("stuck.json");
    std::ofstream(stuck) << R"({
        "chips": [{"id": 1, "ports": ["Ethernet1"]}],
        "acls": [{"name": "web", "type": "ip", "rules": ["10 permit ip any any"]}],
        "steps": [{"at": 1, "do": "fault", "chip": 1, "fault": "lost"},
                  {"at": 2, "do": "bind", "intf": "Ethernet1", "acl": "web", "direction": "in"}]})";
    struct Case {
        const char* name;
        std::string file;
        int status;
        const char* result;
    };
    const Case cases[] = {
        {"last cycle failed", (scenarioDir() / "failed-chip-aborts.json").string(), 1,
         "Result: last cycle 2 fail; glue idle; exit status 1\n"},
        {"last cycle never finished", stuck, 1,
         "Result: last cycle 2 did not finish; glue computing; exit status 1\n"},
        {"a failure, then a success", (scenarioDir() / "crli-exhaustion.json").string(), 0,
         "Result: last cycle 2 success; glue idle; exit status 0\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Outcome r = command({c.file});
        EXPECT_EQ(r.status, c.status);
        EXPECT_THAT(r.out, HasSubstr(c.result));
    }
}

TEST(SimCommand, CheckAndPrintRunNothing) {
    const Outcome check = command({"--check", (scenarioDir() / "sharing.json").string()});
    EXPECT_EQ(check.status, 0);
    EXPECT_THAT(check.out, HasSubstr("sharing.json: the scenario is fine\n"));

    const Outcome print = command({"--print-scenario"});
    EXPECT_EQ(print.status, 0);
    ReadScenario back;
    ASSERT_NO_THROW(back = readScenario(print.out, "printed"));
    EXPECT_TRUE(back.scenario == builtinScenario());
}

TEST(SimCommand, TraceGoesToARingFlinqcatReads) {
    TestSupport::TempDir dir;
    const std::string ring = dir.file("sim.fq");
    const Outcome r = command({"--trace", "2", "--trace-file", ring, "--quiet"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ovinmirel-sim: trace in " + ring + " (read it with flinqcat " + ring + ")\n");
    std::vector<Flinq::RingRecord> lines;
    ASSERT_NO_THROW(lines = Flinq::readRing(ring));
    size_t glue = 0;
    for (const Flinq::RingRecord& l : lines) {
        EXPECT_LE(l.level, 2) << Flinq::formatRingRecord(l);
        glue += l.handle == "OvinMirelGlueSm";
    }
    EXPECT_GT(glue, 0u);
}

}  // namespace
}  // namespace Sim
