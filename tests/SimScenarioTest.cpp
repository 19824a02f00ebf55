// End-to-end promises of the ACL layer, each shown by a scenario under tests/scenarios run
// through the simulator, with the facts its state dump must hold in <name>.expect.json:
//
//   {"facts": [{"why": "Ethernet1 and Ethernet2 share index 1",
//               "path": "chips[id=1].hwAclIndexes[pool=port][index=1].places",
//               "is": ["Ethernet1", "Ethernet2"]}, ...]}
//
// A path walks the dump: "a.b" takes fields (of each element, on an array); "[k=v]" keeps the
// elements of an array whose field k reads v (a string as it is, anything else as its JSON
// text), and on an element kept by a filter, keeps it when it also reads v; "[n]" takes
// element n.
// A fact is "is" (exactly one value, equal), "count" (how many elements the path selects; it
// ends in a filter or an index) or "contains" (exactly one value: an array holding the element,
// or a string holding the text). "why" says what the fact shows; a failure prints it.
//
// Also: the built-in scenario's dump equals tests/scenarios/builtin.expected.json byte for byte
// (set OVINMIREL_UPDATE_EXPECTED=1 to rewrite it after a deliberate change of output).

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/sim/ScenarioBuilders.h"
#include "tools/sim/ScenarioReader.h"
#include "tools/sim/Simulator.h"
#include "tools/sim/StateDump.h"

namespace Sim {
namespace {

using Json = nlohmann::json;
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

// ---- Paths into the dump ----

struct Segment {
    std::string field;  // empty: stay on the current values
    struct Bracket {
        bool isIndex = false;
        size_t index = 0;
        std::string key, value;
    };
    std::vector<Bracket> brackets;
};

std::vector<Segment> parsePath(const std::string& path) {
    std::vector<Segment> out;
    size_t i = 0;
    while (i < path.size()) {
        Segment s;
        while (i < path.size() && path[i] != '.' && path[i] != '[')
            s.field += path[i++];
        while (i < path.size() && path[i] == '[') {
            const size_t close = path.find(']', i);
            if (close == std::string::npos)
                throw std::invalid_argument("unclosed [ in " + path);
            const std::string inside = path.substr(i + 1, close - i - 1);
            Segment::Bracket b;
            if (const size_t eq = inside.find('='); eq != std::string::npos) {
                b.key = inside.substr(0, eq);
                b.value = inside.substr(eq + 1);
            } else {
                b.isIndex = true;
                b.index = std::stoul(inside);
            }
            s.brackets.push_back(b);
            i = close + 1;
        }
        if (i < path.size() && path[i] == '.')
            ++i;
        out.push_back(std::move(s));
    }
    return out;
}

bool reads(const Json& v, const std::string& text) {
    return v.is_string() ? v.get<std::string>() == text : v.dump() == text;
}

std::vector<const Json*> resolve(const Json& root, const std::string& path) {
    std::vector<const Json*> current{&root};
    for (const Segment& s : parsePath(path)) {
        std::vector<const Json*> next;
        for (const Json* node : current) {
            if (s.field.empty()) {
                next.push_back(node);
            } else if (node->is_object() && node->contains(s.field)) {
                next.push_back(&(*node)[s.field]);
            } else if (node->is_array()) {
                // A field of an array: the field of each element.
                for (const Json& e : *node) {
                    if (e.is_object() && e.contains(s.field))
                        next.push_back(&e[s.field]);
                }
            }
        }
        for (const Segment::Bracket& b : s.brackets) {
            std::vector<const Json*> kept;
            for (const Json* node : next) {
                if (!b.isIndex && node->is_object()) {
                    // A second filter tests the element the first one kept.
                    if (node->contains(b.key) && reads((*node)[b.key], b.value))
                        kept.push_back(node);
                    continue;
                }
                if (!node->is_array())
                    continue;
                if (b.isIndex) {
                    if (b.index < node->size())
                        kept.push_back(&(*node)[b.index]);
                    continue;
                }
                for (const Json& e : *node) {
                    if (e.is_object() && e.contains(b.key) && reads(e[b.key], b.value))
                        kept.push_back(&e);
                }
            }
            next = std::move(kept);
        }
        current = std::move(next);
    }
    return current;
}

std::string shown(const std::vector<const Json*>& values) {
    std::string out;
    for (const Json* v : values) {
        std::string text = v->dump();
        if (text.size() > 300)
            text = text.substr(0, 300) + "...";
        out += "\n    " + text;
    }
    return out.empty() ? " nothing" : out;
}

// Checks one fact; an empty string when it holds.
std::string checkFact(const Json& dump, const Json& fact) {
    const std::string path = fact.at("path").get<std::string>();
    const std::vector<const Json*> values = resolve(dump, path);
    if (fact.contains("count")) {
        // Counting the values of a field would count one array: a count selects elements.
        if (path.empty() || path.back() != ']')
            return "a count's path ends in a filter or an index: " + path;
        if (values.size() != fact["count"].get<size_t>()) {
            return path + " selects " + std::to_string(values.size()) + " values, not " +
                   fact["count"].dump() + ":" + shown(values);
        }
        return "";
    }
    if (values.size() != 1)
        return path + " selects " + std::to_string(values.size()) + " values:" + shown(values);
    const Json& v = *values.front();
    if (fact.contains("is")) {
        if (v != fact["is"])
            return path + " is " + v.dump() + ", not " + fact["is"].dump();
        return "";
    }
    if (fact.contains("contains")) {
        const Json& want = fact["contains"];
        const bool holds = v.is_array() ? std::find(v.begin(), v.end(), want) != v.end()
                                        : v.is_string() && want.is_string() &&
                                              v.get<std::string>().find(want.get<std::string>()) !=
                                                  std::string::npos;
        if (!holds)
            return path + " is " + v.dump() + ", which does not contain " + want.dump();
        return "";
    }
    return "a fact needs is, count or contains: " + fact.dump();
}

Json dumpOf(const Scenario& s) {
    return Json::parse(writeDump(simulate(s)));
}

// ---- The fact checker itself ----

TEST(SimScenarioFacts, PathsSelectWhatTheySay) {
    const Json dump = Json::parse(R"({
        "chips": [{"id": 1, "ports": ["Ethernet1", "Ethernet2"], "error": null},
                  {"id": 2, "ports": [], "error": "tcamFull"}],
        "logs": [{"id": "A", "text": "x"}, {"id": "B", "text": "y"}, {"id": "A", "text": "z"}]})");
    struct Case {
        const char* name;
        Json fact;
        bool holds;
    };
    const Case cases[] = {
        {"filter by number", {{"path", "chips[id=2].error"}, {"is", "tcamFull"}}, true},
        {"filter by number, wrong value",
         {{"path", "chips[id=1].error"}, {"is", "tcamFull"}},
         false},
        {"index", {{"path", "chips[0].ports[1]"}, {"is", "Ethernet2"}}, true},
        {"count of a filter", {{"path", "logs[id=A]"}, {"count", 2}}, true},
        {"count that differs", {{"path", "logs[id=A]"}, {"count", 1}}, false},
        {"nothing selected", {{"path", "chips[id=3].error"}, {"is", nullptr}}, false},
        {"two selected", {{"path", "logs[id=A].text"}, {"is", "x"}}, false},
        {"array contains", {{"path", "chips[id=1].ports"}, {"contains", "Ethernet1"}}, true},
        {"array lacks", {{"path", "chips[id=2].ports"}, {"contains", "Ethernet1"}}, false},
        {"string contains", {{"path", "logs[id=B].text"}, {"contains", "y"}}, true},
        {"two filters", {{"path", "logs[id=A][text=z].text"}, {"is", "z"}}, true},
        {"field of every element", {{"path", "chips.ports[0]"}, {"count", 1}}, true},
        {"a count of a field is refused", {{"path", "chips.ports"}, {"count", 2}}, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(checkFact(dump, c.fact).empty(), c.holds) << checkFact(dump, c.fact);
    }
}

// ---- The scenarios ----

std::vector<std::string> scenarioNames() {
    std::vector<std::string> out;
    const std::string suffix = ".expect.json";
    for (const fs::directory_entry& e : fs::directory_iterator(scenarioDir())) {
        const std::string file = e.path().filename().string();
        if (file.size() > suffix.size() && file.ends_with(suffix))
            out.push_back(file.substr(0, file.size() - suffix.size()));
    }
    std::sort(out.begin(), out.end());
    return out;
}

class SimScenario : public ::testing::TestWithParam<std::string> {};

TEST_P(SimScenario, DumpHoldsTheExpectedFacts) {
    const fs::path file = scenarioDir() / (GetParam() + ".json");
    ReadScenario read;
    ASSERT_NO_THROW(read = readScenarioFile(file.string()));
    const Json dump = dumpOf(read.scenario);
    const Json expect = Json::parse(fileText(scenarioDir() / (GetParam() + ".expect.json")));
    ASSERT_TRUE(expect.contains("facts"));
    EXPECT_TRUE(dump.at("violation").is_null()) << dump.at("violation");
    for (const Json& fact : expect["facts"]) {
        SCOPED_TRACE(fact.value("why", fact.dump()));
        const std::string failure = checkFact(dump, fact);
        EXPECT_TRUE(failure.empty()) << failure;
    }
}

INSTANTIATE_TEST_SUITE_P(Files, SimScenario, ::testing::ValuesIn(scenarioNames()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             std::string name;
                             for (char c : info.param)
                                 name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             return name;
                         });

TEST(SimBuiltinScenario, DumpMatchesTheCommittedOne) {
    const fs::path expected = scenarioDir() / "builtin.expected.json";
    const std::string dump = writeDump(simulate(builtinScenario()));
    if (const char* update = std::getenv("OVINMIREL_UPDATE_EXPECTED"); update && *update) {
        std::ofstream(expected, std::ios::binary | std::ios::trunc) << dump;
        GTEST_SKIP() << "rewrote " << expected;
    }
    const std::string committed = fileText(expected);
    ASSERT_FALSE(committed.empty()) << expected << " is missing";
    EXPECT_EQ(dump, committed)
        << "the built-in scenario's dump changed; if that is deliberate, run the test with "
           "OVINMIREL_UPDATE_EXPECTED=1 and commit the file";
}

}  // namespace
}  // namespace Sim
