#include "platform/vorn/FlatSet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "platform/vorn/Atom.h"
#include "platform/vorn/Entity.h"
#include "platform/vorn/Name.h"

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

// The set itself against std::set, step by step, for a key type shifted member by member
// (std::string) and one shifted as raw bytes (Vorn::Name): erasing and extracting at both ends
// and in the middle, growing past its room, copies, and clearing. The Name keys' shared texts
// show a member lost, duplicated or destroyed twice on the way.
template <class K>
void checkAgainstStdSet(K (*key)(int)) {
    enum Op { add, erase, extractFront, extractBack, extractMiddle, clear, copy };
    const struct {
        const char* name;
        Op op;
        int k;
    } script[] = {
        {"first", add, 50},     {"front", add, 10},      {"back", add, 90},
        {"middle", add, 30},    {"grow past 4", add, 70}, {"again", add, 30},
        {"erase front", erase, 10}, {"erase back", erase, 90}, {"erase absent", erase, 11},
        {"refill", add, 5},     {"refill", add, 95},     {"refill", add, 60},
        {"refill", add, 20},    {"refill", add, 80},     {"grow past 8", add, 40},
        {"extract front", extractFront, 0}, {"extract back", extractBack, 0},
        {"extract middle", extractMiddle, 0}, {"copy", copy, 0}, {"erase middle", erase, 50},
        {"clear", clear, 0},    {"after clear", add, 7}, {"after clear", add, 3},
        {"erase last but one", erase, 7}, {"erase last", erase, 3}, {"into empty", add, 1},
    };
    const size_t atomsBefore = Vorn::Atom::liveCount();
    {
        Vorn::FlatSet<K> set;
        Vorn::FlatSet<K> copied;
        std::set<K> model;
        std::set<K> copiedModel;
        for (const auto& step : script) {
            SCOPED_TRACE(step.name);
            switch (step.op) {
            case add:
                EXPECT_EQ(set.insert(key(step.k)).second, model.insert(key(step.k)).second);
                break;
            case erase:
                EXPECT_EQ(set.erase(key(step.k)), model.erase(key(step.k)));
                break;
            case extractFront:
            case extractBack:
            case extractMiddle: {
                ASSERT_FALSE(set.empty());
                const size_t at = step.op == extractFront  ? 0
                                  : step.op == extractBack ? set.size() - 1
                                                           : set.size() / 2;
                const K k = set.extract(set.begin() + at).value();
                EXPECT_EQ(model.erase(k), 1u);
                break;
            }
            case clear:
                set.clear();
                model.clear();
                break;
            case copy:
                copied = set;
                copiedModel = model;
                break;
            }
            EXPECT_TRUE(std::equal(set.begin(), set.end(), model.begin(), model.end()));
            EXPECT_EQ(set.size(), model.size());
            for (int k : {1, 3, 5, 7, 10, 30, 50, 90, 95})
                EXPECT_EQ(set.contains(key(k)), model.contains(key(k))) << k;
        }
        EXPECT_TRUE(std::equal(copied.begin(), copied.end(), copiedModel.begin(),
                               copiedModel.end()));
    }
    EXPECT_EQ(Vorn::Atom::liveCount(), atomsBefore);
}

TEST(VornFlatSet, AgreesWithStdSetWhateverTheKeyShifts) {
    static_assert(!Vorn::kTriviallyRelocatable<std::string> &&
                  Vorn::kTriviallyRelocatable<Vorn::Name>);
    {
        SCOPED_TRACE("std::string");
        checkAgainstStdSet<std::string>([](int k) { return "key" + std::to_string(k); });
    }
    {
        SCOPED_TRACE("Vorn::Name");
        checkAgainstStdSet<Vorn::Name>(
            [](int k) { return Vorn::Name("name" + std::to_string(1000 + k)); });
    }
}

}  // namespace
