#include "platform/vorn/Atom.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Vorn {
namespace {

// Atoms must order, compare and hash exactly as their texts, whether or not two of them share
// a record; keys that order differently would change every walk of a keyed collection.
TEST(AtomTest, OrdersComparesAndHashesAsItsText) {
    // Texts that tie on their first eight bytes (an embedded zero byte, a prefix of exactly
    // eight) and bytes above 0x7f, which order as unsigned.
    const std::vector<std::string> texts = {"",
                                            "a",
                                            "ab",
                                            "b",
                                            "acl-10",
                                            "acl-9",
                                            "B",
                                            "acl-edge",
                                            "acl-edge1",
                                            "acl-edge2",
                                            "acl-edge-12",
                                            "\xff",
                                            std::string("ab\0", 3),
                                            std::string("ab\0c", 4)};
    for (const std::string& x : texts) {
        for (const std::string& y : texts) {
            SCOPED_TRACE(x + " vs " + y);
            const Atom a(x), b(y);
            EXPECT_EQ(a == b, x == y);
            EXPECT_EQ(a <=> b, x <=> y);
            EXPECT_EQ(a.str(), x);
            EXPECT_EQ(std::hash<Atom>()(a), std::hash<std::string>()(x));
        }
    }
    std::map<Atom, int> byAtom;
    std::map<std::string, int> byText;
    for (size_t i = 0; i < texts.size(); ++i) {
        byAtom[Atom(texts[i])] = int(i);
        byText[texts[i]] = int(i);
    }
    std::vector<std::pair<std::string, int>> walked;
    for (const auto& [a, i] : byAtom)
        walked.emplace_back(a.str(), i);
    const std::vector<std::pair<std::string, int>> expected(byText.begin(), byText.end());
    EXPECT_EQ(walked, expected);
}

// A text is kept once while anything holds it and dropped with its last holder, through every
// way an Atom is copied, moved, assigned and destroyed.
TEST(AtomTest, KeepsATextOnceWhileItIsHeld) {
    const size_t base = Atom::liveCount();
    {
        Atom a("atom-test-x");
        Atom b(std::string("atom-test-x"));
        EXPECT_EQ(Atom::liveCount(), base + 1);
        Atom c = a;
        Atom d = std::move(b);
        EXPECT_TRUE(b.empty());  // NOLINT(bugprone-use-after-move): a moved-from Atom is empty
        const Atom& self = c;
        c = self;  // self-assignment keeps the record
        d = Atom("atom-test-y");
        EXPECT_EQ(Atom::liveCount(), base + 2);
        a = d;
        c = std::move(d);  // a move-assignment swaps: d holds "atom-test-x" now
        EXPECT_EQ(Atom::liveCount(), base + 2);
        d = Atom();
        EXPECT_EQ(Atom::liveCount(), base + 1);  // "atom-test-x" had no holder left
        EXPECT_EQ(a, Atom("atom-test-y"));
        EXPECT_EQ(c.str(), "atom-test-y");
        const Atom again("atom-test-x");  // a dropped text is kept again when asked
        EXPECT_EQ(again.str(), "atom-test-x");
        EXPECT_EQ(Atom::liveCount(), base + 2);
    }
    EXPECT_EQ(Atom::liveCount(), base);
}

}  // namespace
}  // namespace Vorn
