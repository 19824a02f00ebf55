// The capacity helper base: what it refuses (and then leaves as it was), and that it touches
// only the records and mappings of its own tables.

#include "platform/capacity/CapacityHelperSm.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "platform/vorn/Exception.h"

namespace Hardware::Capacity {
namespace {

Flinq::Handle th("CapacityHelperSmTest");

class TwoTableSm : public CapacityHelperSm {
    VORN_ENTITY("Test::TwoTableSm")
  public:
    explicit TwoTableSm(const Vorn::Ptr<OvinCapacity::TableCapacity>& capacity)
        : CapacityHelperSm(th, capacity, {"T1", "T2"}) {}
};

class CapacityHelperSmTest : public ::testing::Test {
  protected:
    CapacityHelperSmTest() {
        // Another agent's record and mapping in the same table capacity.
        capacity->capacityEntryIs({"Other", "Chip1"}, {1, 1, 1, 2});
        capacity->featureMappingIs("Other")->featureIs("OtherFeature");
    }
    std::vector<std::string> keys() const {
        std::vector<std::string> out;
        for (const auto& [k, e] : capacity->capacityEntry())
            out.push_back(k.tableName + "/" + k.chipName);
        return out;
    }

    Vorn::Ptr<OvinCapacity::TableCapacity> capacity =
        OvinCapacity::tableCapacityFactory("TableCapacity");
    Vorn::Ptr<TwoTableSm> sm = Vorn::make<TwoTableSm>(capacity);
};

TEST_F(CapacityHelperSmTest, InconsistentFiguresAreRefused) {
    struct Case {
        const char* name;
        uint32_t used, free, max;
        bool accepted;
    };
    const Case cases[] = {
        {"full", 10, 0, 10, true},
        {"empty", 0, 10, 10, true},
        {"free one beyond what is left", 4, 7, 10, false},
        {"overfull with no room", 12, 0, 10, true},
        {"overfull with room", 12, 1, 10, false},
        {"no table at all", 0, 0, 0, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const OvinCapacity::TableKey key{"T1", "Chip0"};
        capacity->capacityEntryIs(key, {1, 1, 1, 2});
        int changes = 0;
        auto sub = capacity->capacityEntryNotify([&](const OvinCapacity::TableKey&) { ++changes; });
        try {
            sm->updateCapacityEntry(key, c.used, c.free, c.used, c.max);
            EXPECT_TRUE(c.accepted);
            ASSERT_TRUE(capacity->capacityEntry(key));
            EXPECT_EQ(*capacity->capacityEntry(key),
                      (OvinCapacity::CapacityEntry{c.used, c.free, c.used, c.max}));
        } catch (const Vorn::RangeException& e) {
            EXPECT_FALSE(c.accepted);
            EXPECT_STREQ(e.what(), "CapacityEntry::free > max - used not allowed");
            EXPECT_EQ(changes, 0);
        }
    }
}

TEST_F(CapacityHelperSmTest, OnlyItsOwnTables) {
    EXPECT_THROW(sm->updateCapacityEntry({"Other", "Chip2"}, 0, 0, 0, 0), std::invalid_argument);
    try {
        sm->featureMappingIs("Other", {"Mine"});
        ADD_FAILURE() << "accepted";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "table 'Other' is not reported by Test::TwoTableSm");
    }
    ASSERT_TRUE(capacity->featureMapping("Other"));
    EXPECT_FALSE(capacity->featureMapping("Other")->feature("Mine"));

    for (const char* chip : {"Chip1", "Chip2"}) {
        sm->updateCapacityEntry({"T1", chip}, 1, 1, 1, 2);
        sm->updateCapacityEntry({"T2", chip}, 1, 1, 1, 2);
    }
    sm->delEntries("Chip1");
    EXPECT_EQ(keys(), (std::vector<std::string>{"Other/Chip1", "T1/Chip2", "T2/Chip2"}));
    sm->delAllEntries();
    EXPECT_EQ(keys(), std::vector<std::string>{"Other/Chip1"});

    // A mapping holds exactly the features last given.
    sm->featureMappingIs("T1", {"A", "B"});
    sm->featureMappingIs("T1", {"B", "C"});
    sm->featureMappingIs("T2", {"A"});
    auto t1 = capacity->featureMapping("T1");
    ASSERT_TRUE(t1);
    EXPECT_EQ(t1->feature().sortedKeys(), (std::vector<std::string>{"B", "C"}));
    sm->featureMappingDelAll();
    EXPECT_FALSE(capacity->featureMapping("T1"));
    EXPECT_FALSE(capacity->featureMapping("T2"));
    EXPECT_TRUE(capacity->featureMapping("Other"));
}

TEST(CapacityHelperSm, RequiresATableCapacity) {
    try {
        Vorn::make<TwoTableSm>(nullptr);
        ADD_FAILURE() << "accepted";
    } catch (const Vorn::NullPointerException& e) {
        EXPECT_STREQ(e.what(),
                     "null _tableCapacity parameter to mutator for "
                     "Hardware::Capacity::CapacityHelperSm::tableCapacity not allowed");
    }
}

}  // namespace
}  // namespace Hardware::Capacity
