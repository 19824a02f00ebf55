#include "platform/vorn/FlatSet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/vorn/Entity.h"

namespace {

class Holder : public Vorn::Entity {
    VORN_ENTITY("Test::Holder")
  public:
    VORN_ORDERED_SET(std::string, member)
};

std::vector<std::string> walk(const Holder& h) {
    return {h.member().begin(), h.member().end()};
}

// Writes in every position of an ordered set (front, middle, back, absent, repeated): the
// set walks in key order, finds exactly its members, and notifies real changes only.
TEST(VornFlatSet, KeepsKeyOrderThroughInsertsAndErases) {
    struct Step {
        const char* name;
        bool add;
        std::string key;
        std::vector<std::string> after;
        bool notifies;
    };
    const Step steps[] = {
        {"first", true, "m", {"m"}, true},
        {"before", true, "c", {"c", "m"}, true},
        {"after", true, "x", {"c", "m", "x"}, true},
        {"between", true, "f", {"c", "f", "m", "x"}, true},
        {"again", true, "f", {"c", "f", "m", "x"}, false},
        {"erase middle", false, "f", {"c", "m", "x"}, true},
        {"erase absent", false, "a", {"c", "m", "x"}, false},
        {"erase front", false, "c", {"m", "x"}, true},
        {"erase back", false, "x", {"m"}, true},
        {"erase last", false, "m", {}, true},
    };
    auto h = Vorn::make<Holder>();
    std::vector<std::string> told;
    auto sub = h->memberNotify([&](const std::string& k) { told.push_back(k); });
    for (const Step& s : steps) {
        SCOPED_TRACE(s.name);
        told.clear();
        h->memberIs(s.key, s.add);
        EXPECT_EQ(walk(*h), s.after);
        EXPECT_EQ(h->members(), s.after.size());
        EXPECT_EQ(told, s.notifies ? std::vector<std::string>{s.key} : std::vector<std::string>{});
        for (const char* k : {"a", "c", "f", "m", "x", "z"}) {
            const bool in = std::find(s.after.begin(), s.after.end(), k) != s.after.end();
            EXPECT_EQ(h->member(k), in) << k;
        }
    }
}

// A key given by reference into the set itself (its first member, say) is gone from under
// the reference once erased; the watchers are still told the key that went.
TEST(VornFlatSet, DeletingByAReferenceIntoTheSetTellsTheKeyThatWent) {
    auto h = Vorn::make<Holder>();
    for (const char* k : {"a", "b", "c"})
        h->memberIs(k);
    std::vector<std::string> told;
    auto sub = h->memberNotify([&](const std::string& k) { told.push_back(k); });
    h->memberDel(*h->member().begin());
    h->memberIs(*h->member().begin(), false);
    EXPECT_EQ(told, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(walk(*h), std::vector<std::string>{"c"});
}

// The hazard of a flat set: a walk that writes the set it walks. Walking keys() is the safe way.
TEST(VornFlatSet, AWalkOverKeysMayEmptyTheSet) {
    auto h = Vorn::make<Holder>();
    for (const char* k : {"a", "b", "c"})
        h->memberIs(k);
    for (const std::string& k : h->member().keys())
        h->memberDel(k);
    EXPECT_EQ(h->members(), 0u);
}

}  // namespace
