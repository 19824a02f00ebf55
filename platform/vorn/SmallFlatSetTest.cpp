#include "platform/vorn/SmallFlatSet.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

TEST(VornSmallFlatSet, HoldsItsMembersInOrderHoweverTheyCame) {
    // Each step inserts (+) or erases (-) one member; after each, the set must hold what a
    // std::set given the same steps holds, in order, and equal a set built from those alone
    // (so nothing of an earlier shape, in place or in the array, is left behind).
    struct Case {
        const char* name;
        std::vector<std::string> steps;
    };
    const Case cases[] = {
        {"one member comes and goes", {"+m", "-m"}},
        {"a second member that sorts first", {"+m", "+c"}},
        {"a second member that sorts last", {"+c", "+m", "-c"}},
        {"the middle one of three leaves, then the first", {"+c", "+f", "+m", "-f", "-c"}},
        {"back to one, then another again", {"+m", "+c", "-m", "+x"}},
        {"the same member twice", {"+c", "+c", "+m", "+m"}},
        {"what is not there is not erased", {"-c", "+m", "-c", "-x"}},
    };
    const std::vector<std::string> probes{"c", "f", "m", "x"};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Vorn::SmallFlatSet<std::string> set;
        std::set<std::string> model;
        for (const std::string& step : c.steps) {
            SCOPED_TRACE(step);
            const std::string key = step.substr(1);
            if (step[0] == '+') {
                set.insert(key);
                model.insert(key);
            } else {
                set.erase(key);
                model.erase(key);
            }
            EXPECT_EQ(std::vector<std::string>(set.begin(), set.end()),
                      std::vector<std::string>(model.begin(), model.end()));
            EXPECT_EQ(set.size(), model.size());
            EXPECT_EQ(set.empty(), model.empty());
            for (const std::string& probe : probes)
                EXPECT_EQ(set.contains(probe), model.count(probe) == 1) << probe;
            Vorn::SmallFlatSet<std::string> fresh;
            for (const std::string& member : model)
                fresh.insert(member);
            EXPECT_TRUE(set == fresh);
        }
    }
}

}  // namespace
