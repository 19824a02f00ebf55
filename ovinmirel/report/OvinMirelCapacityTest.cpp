// Capacity reporting on a world started like the agent: the status root's children, the root
// machines and the chip mocks. Roots are loaded (or fail, or are aborted) through the real
// root machines; the reporter's records are read back from the table capacity.

#include "ovinmirel/report/OvinMirelCapacity.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <numeric>
#include <string>
#include <vector>

#include "ovinmirel/report/OvinMirelStatusTestWorld.h"
#include "platform/flinq/Flinq.h"
#include "platform/mirel/RootSmTestWorld.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {
namespace {

using Mirel::ChipId;

constexpr ChipId kChip1(1);
constexpr ChipId kChip2(2);
constexpr std::array<CapacityTableNames, 3> kTables = {capacityEntryTable_, capacityRuleListIds_,
                                                       capacityAlgoMatch_};
const std::vector<std::string> kAllFeatures = {"Ipv4PortAcl", "Ipv4RouterAcl", "Ipv6PortAcl",
                                               "Ipv6RouterAcl", "MacAcl"};

uint32_t rootOf(ChipId chip, uint32_t slot) {
    return chip.value() * 2 + slot;
}

// IPv4 lists of the given sizes; list i's rule j matches source 10.<j>.0.0/16, so the lists
// share their first prefixes.
std::vector<Mirel::AclRuleListPtr> lists(const std::vector<uint32_t>& sizes) {
    std::vector<Mirel::AclRuleListPtr> out;
    for (uint32_t n : sizes)
        out.push_back(Mirel::ipv4List(n));
    return out;
}

// What a chip should report per table, in table order.
struct Figures {
    std::array<uint32_t, 3> used{};
    std::array<uint32_t, 3> max{};
};

// The figures of a loaded root of these lists, worked out from the rules: one TCAM entry per
// IPv4 rule, one rule list id per list, one class id per distinct source prefix.
Figures loadedFigures(const std::vector<uint32_t>& sizes, const Mirel::ChipHwCapability& cap) {
    Figures f;
    f.used = {std::accumulate(sizes.begin(), sizes.end(), 0u), uint32_t(sizes.size()),
              sizes.empty() ? 0 : *std::max_element(sizes.begin(), sizes.end())};
    f.max = {cap.tcamEntryMax(), cap.ruleListIdCount(), cap.xformEntryMax()};
    return f;
}

void expectPublished(const CapacityProbe& probe, ChipId chip, const Figures& want) {
    for (CapacityTableNames t : kTables) {
        SCOPED_TRACE(capacityTableName(t));
        const OvinCapacity::CapacityEntry* r = probe.record(t, chip);
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(r->used, want.used[t]);
        EXPECT_EQ(r->max, want.max[t]);
        EXPECT_EQ(r->used + r->free, r->max);
        EXPECT_EQ(r->committed, r->used);
    }
}

class CapacitySmTest : public ::testing::Test {
  protected:
    void poll() { w.wheel.runFor(probe.sm->pollingInterval()); }

    StatusTestWorld w;
    CapacityProbe probe{*w.status, *w.clock, w.wheel};
};

TEST_F(CapacitySmTest, UsageFollowsLoadedRoots) {
    enum class Attempt { loads, driverFails, abortedForPeer, beyondTcam };
    struct Step {
        const char* name;
        ChipId chip;
        uint32_t slot;
        std::vector<uint32_t> sizes;
        Attempt attempt;
        uint32_t tcamEntryMax = 4096;
    };
    const Step steps[] = {
        {"chip 1 loads one list", kChip1, 0, {3}, Attempt::loads},
        {"chip 2 loads two lists", kChip2, 0, {2, 4}, Attempt::loads},
        {"chip 1 replaces its root", kChip1, 1, {5, 1}, Attempt::loads},
        {"the driver fails chip 1's attempt", kChip1, 0, {7}, Attempt::driverFails},
        {"chip 2's attempt is aborted for a peer", kChip2, 1, {1}, Attempt::abortedForPeer},
        {"chip 1's attempt exceeds a lowered TCAM", kChip1, 0, {9}, Attempt::beyondTcam, 8},
        {"chip 1 fills the lowered TCAM", kChip1, 0, {4, 4}, Attempt::loads, 8},
        {"chip 1 loads an empty root", kChip1, 1, {}, Attempt::loads, 8},
    };
    w.addChip(kChip1);
    w.addChip(kChip2);
    std::map<ChipId, Figures> want = {{kChip1, {}}, {kChip2, {}}};
    poll();
    expectPublished(probe, kChip1, want[kChip1]);

    for (const Step& s : steps) {
        SCOPED_TRACE(s.name);
        Vorn::Ptr<Mirel::ChipHwCapability> cap = w.capability(s.chip);
        ASSERT_TRUE(cap);
        cap->tcamEntryMaxIs(s.tcamEntryMax);
        if (s.attempt == Attempt::driverFails) {
            w.faultPlan().faultIs(s.chip, TestAgentFault::failing(Mirel::stageHwError_).times(1));
        }
        const Mirel::RootState end =
            w.attempt(rootOf(s.chip, s.slot), lists(s.sizes), s.attempt == Attempt::abortedForPeer);
        w.faultPlan().faultDel(s.chip);
        if (s.attempt == Attempt::loads) {
            ASSERT_EQ(end, Mirel::rootLoaded_);
            want[s.chip] = loadedFigures(s.sizes, *cap);
        } else {
            ASSERT_EQ(end, Mirel::rootAborted_);
        }
        poll();
        for (const auto& [chip, figures] : want) {
            SCOPED_TRACE("Chip" + std::to_string(chip.value()));
            expectPublished(probe, chip, figures);
        }
    }
}

TEST_F(CapacitySmTest, FiguresAppearOnlyAtAPoll) {
    w.addChip(kChip1);
    w.wheel.runPass();  // the poll the new chip asked for
    ASSERT_NE(probe.record(capacityEntryTable_, kChip1), nullptr);
    const Vorn::Seconds start = w.clock->now();
    EXPECT_EQ(probe.sm->pollTimer().expiry(), start + CapacitySm::kDefaultPollingInterval);

    // The driver's figures change between polls; the record follows at the next poll only.
    Vorn::Ptr<Mirel::ChipPDStatus> pd = w.chipPDStatus(kChip1);
    ASSERT_TRUE(pd);
    pd->entryTableUsageIs({7, 100});
    w.wheel.runUntil(start + CapacitySm::kDefaultPollingInterval - 0.5);
    EXPECT_EQ(probe.record(capacityEntryTable_, kChip1)->used, 0u);
    w.wheel.runUntil(start + CapacitySm::kDefaultPollingInterval);
    EXPECT_EQ(*probe.record(capacityEntryTable_, kChip1),
              (OvinCapacity::CapacityEntry{7, 93, 7, 100}));

    // A new interval applies from the next re-arming.
    probe.sm->pollingIntervalIs(2.5);
    EXPECT_EQ(probe.sm->pollTimer().expiry(), start + 2 * CapacitySm::kDefaultPollingInterval);
    w.wheel.runUntil(start + 2 * CapacitySm::kDefaultPollingInterval);
    EXPECT_EQ(probe.sm->pollTimer().expiry(),
              start + 2 * CapacitySm::kDefaultPollingInterval + 2.5);

    // A maximum lowered below the use: reported as it is, with no room left.
    pd->entryTableUsageIs({7, 5});
    w.wheel.runFor(2.5);
    EXPECT_EQ(*probe.record(capacityEntryTable_, kChip1),
              (OvinCapacity::CapacityEntry{7, 0, 7, 5}));
}

TEST_F(CapacitySmTest, PollingStopsWithoutPdStatusAndRestartsOnTheNextChange) {
    // Made with no chip: its first poll finds nothing and leaves the timer disarmed.
    EXPECT_TRUE(probe.sm->pollTimer().armed());
    w.wheel.runPass();
    EXPECT_FALSE(probe.sm->pollTimer().armed());
    w.wheel.runFor(100);
    EXPECT_EQ(w.wheel.armedCount(), 0u);
    EXPECT_TRUE(probe.tableCapacity->capacityEntry().empty());

    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        w.addChip(kChip1);
        // A chip's arrival asks for a poll at once, not after an interval.
        EXPECT_EQ(probe.sm->pollTimer().expiry(), w.clock->now());
        w.wheel.runPass();
        EXPECT_EQ(probe.chipsOf(capacityEntryTable_), std::vector<std::string>{"Chip1"});
        EXPECT_EQ(probe.sm->pollTimer().expiry(),
                  w.clock->now() + CapacitySm::kDefaultPollingInterval);
        w.wheel.runFor(3 * CapacitySm::kDefaultPollingInterval);
        EXPECT_TRUE(probe.sm->pollTimer().armed());

        w.removeChip(kChip1);
        w.wheel.runPass();
        EXPECT_FALSE(probe.sm->pollTimer().armed());
        w.wheel.runFor(100);
        EXPECT_FALSE(probe.sm->pollTimer().armed());
        EXPECT_TRUE(probe.tableCapacity->capacityEntry().empty());
    }
}

TEST_F(CapacitySmTest, FeatureMappingsAreCountedByChip) {
    enum class Op { addChip, removeChip, mapAgain, unmapUnknown };
    struct Step {
        const char* name;
        Op op;
        ChipId chip;
        uint32_t count;      // every table's reference count after the step
        const char* change;  // the mapping trace of each table, "" when none
        // Whose records every table holds: a chip's go at once with it, and a new chip is
        // reported on the next pass.
        std::vector<std::string> reported;
    };
    const Step steps[] = {
        {"first chip maps the tables",
         Op::addChip,
         kChip1,
         1,
         "Adding table: %s to feature mapping ChipId: 1",
         {"Chip1"}},
        {"second chip counts", Op::addChip, kChip2, 2, "", {"Chip1", "Chip2"}},
        {"a mapped chip again", Op::mapAgain, kChip2, 2, "", {"Chip1", "Chip2"}},
        {"a chip never mapped", Op::unmapUnknown, ChipId(7), 2, "", {"Chip1", "Chip2"}},
        {"first chip goes", Op::removeChip, kChip1, 1, "", {"Chip2"}},
        {"last chip goes",
         Op::removeChip,
         kChip2,
         0,
         "Removing table: %s from feature mapping ChipId: 2",
         {}},
        {"a chip comes back",
         Op::addChip,
         kChip2,
         1,
         "Adding table: %s to feature mapping ChipId: 2",
         {"Chip2"}},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.name);
        Flinq::Capture capture;
        switch (s.op) {
            case Op::addChip:
                w.addChip(s.chip);
                w.wheel.runPass();
                break;
            case Op::removeChip:
                w.removeChip(s.chip);
                break;
            case Op::mapAgain:
                probe.sm->maybeAddFeatureMapping(s.chip);
                break;
            case Op::unmapUnknown:
                probe.sm->maybeDelFeatureMapping(s.chip);
                break;
        }
        std::vector<std::string> changes;
        for (const std::string& text : capture.texts("OvinMirelCapacity")) {
            if (text.starts_with("Adding table: ") || text.starts_with("Removing table: "))
                changes.push_back(text);
        }
        std::vector<std::string> wantChanges;
        for (CapacityTableNames t : kTables) {
            SCOPED_TRACE(capacityTableName(t));
            EXPECT_EQ(probe.sm->entryTableRefCount(t), s.count);
            EXPECT_EQ(probe.features(t), s.count ? kAllFeatures : std::vector<std::string>{});
            EXPECT_EQ(probe.chipsOf(t), s.reported);
            if (*s.change) {
                std::string text = s.change;
                text.replace(text.find("%s"), 2, capacityTableName(t));
                wantChanges.push_back(text);
            }
        }
        EXPECT_EQ(changes, wantChanges);
    }
    EXPECT_EQ(probe.sm->entryTableRefCounts(), 3u);
}

TEST(CapacitySm, StartClearsWhatAnEarlierReporterLeftOfItsTablesOnly) {
    StatusTestWorld w;
    w.addChip(kChip1);
    auto capacity = OvinCapacity::tableCapacityFactory("TableCapacity");
    capacity->capacityEntryIs({"EntryTable", "Chip9"}, {1, 1, 1, 2});
    capacity->capacityEntryIs({"OtherTable", "Chip1"}, {1, 1, 1, 2});
    capacity->featureMappingIs("AlgoMatch")->featureIs("Stale");
    capacity->featureMappingIs("OtherTable")->featureIs("Other");

    auto sm = capacitySmFactory(capacity, *w.clock, w.rootConfigColl, w.rootStatusColl,
                                w.status->hwCapabilityColl(), w.status->pDStatus(), w.wheel);
    EXPECT_FALSE(capacity->capacityEntry({"EntryTable", "Chip9"}));
    EXPECT_TRUE(capacity->capacityEntry({"OtherTable", "Chip1"}));
    auto algoMatch = capacity->featureMapping("AlgoMatch");
    ASSERT_TRUE(algoMatch);
    EXPECT_FALSE(algoMatch->feature("Stale"));
    EXPECT_EQ(algoMatch->features(), kAllFeatures.size());
    EXPECT_TRUE(capacity->featureMapping("OtherTable"));
    // The chip present at the start is mapped and reported on the first pass.
    EXPECT_TRUE(sm->featureMapped(kChip1));
    w.wheel.runPass();
    EXPECT_TRUE(capacity->capacityEntry({"RuleListIds", "Chip1"}));
    sm->handleDelete();
}

TEST(CapacitySm, RefusesBadReferencesAndIntervals) {
    StatusTestWorld w;
    auto capacity = OvinCapacity::tableCapacityFactory("TableCapacity");
    try {
        capacitySmFactory(capacity, *w.clock, w.rootConfigColl, w.rootStatusColl,
                          w.status->hwCapabilityColl(), nullptr, w.wheel);
        ADD_FAILURE() << "accepted";
    } catch (const Vorn::NullPointerException& e) {
        EXPECT_STREQ(e.what(),
                     "null _pdStatus parameter to mutator for OvinMirel::CapacitySm::pdStatus "
                     "not allowed");
    }
    auto sm = capacitySmFactory(capacity, *w.clock, w.rootConfigColl, w.rootStatusColl,
                                w.status->hwCapabilityColl(), w.status->pDStatus(), w.wheel);
    for (double bad : {0.0, -1.0, Vorn::kInfinity, std::nan("")}) {
        SCOPED_TRACE(bad);
        try {
            sm->pollingIntervalIs(bad);
            ADD_FAILURE() << "accepted";
        } catch (const Vorn::RangeException& e) {
            EXPECT_STREQ(e.what(), "CapacitySm::pollingInterval <= 0 not allowed");
        }
        EXPECT_EQ(sm->pollingInterval(), CapacitySm::kDefaultPollingInterval);
    }
    sm->handleDelete();
}

TEST(CapacitySmDeathTest, PollAfterDeleteStops) {
    StatusTestWorld w;
    auto capacity = OvinCapacity::tableCapacityFactory("TableCapacity");
    auto sm = capacitySmFactory(capacity, *w.clock, w.rootConfigColl, w.rootStatusColl,
                                w.status->hwCapabilityColl(), w.status->pDStatus(), w.wheel);
    sm->handleDelete();
    EXPECT_DEATH(sm->handleClock(), "initialized\\(\\)");
}

}  // namespace
}  // namespace OvinMirel
