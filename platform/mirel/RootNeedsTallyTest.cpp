// The per-chip tally of what roots need: after any sequence of roots it answers what a pass
// over every list of the current root answers, and the machine's requests on a chip whose
// lists change between computes are those of a compute from nothing.

#include "platform/mirel/RootNeedsTally.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "platform/mirel/RootSm.h"
#include "platform/mirel/RootSmTestWorld.h"

namespace Mirel {
namespace {

// One rule list whose rules match the given source prefixes (each a /16 of 10.<n>.0.0) and,
// for the first rule, destination port `port`.
AclRuleListPtr listOf(const std::vector<int>& sources, uint16_t port = 0) {
    std::vector<AclRuleList::IpEntry> rules;
    for (size_t i = 0; i < sources.size(); ++i) {
        const L4PortRange dst = i == 0 && port != 0 ? L4PortRange{port, port} : L4PortRange{};
        rules.emplace_back(aceAt(uint32_t(i + 1)),
                           ipv4Rule("10." + std::to_string(sources[i]) + ".0.0", 16, dst));
    }
    return AclRuleList::ipList(std::move(rules));
}

// Makes root hold exactly `lists` (chip rule list id -> list).
void holdExactly(RootConfig& root, const std::map<uint8_t, AclRuleListPtr>& lists) {
    std::vector<AclId> gone;
    for (const auto& [id, acl] : root.acl()) {
        if (!lists.contains(id.chipRuleListId()))
            gone.push_back(id);
    }
    for (const AclId& id : gone)
        root.aclDel(id);
    for (const auto& [n, list] : lists)
        root.aclIs(ipv4AclId(n))->ruleListIs(list);
}

void expectSameNeeds(const RootNeeds& got, const RootNeeds& want) {
    EXPECT_EQ(got.tcamEntries, want.tcamEntries);
    EXPECT_EQ(got.ruleLists, want.ruleLists);
    EXPECT_EQ(got.xformEntries, want.xformEntries);
    for (int t = 0; t < kXformTypeCount; ++t) {
        SCOPED_TRACE(xformConfigName(XformType(t)));
        EXPECT_EQ(got.xformValues[t], want.xformValues[t]);
    }
}

TEST(RootNeedsTallyTest, FollowsEveryChangeOfTheRootAsAFreshPassWould) {
    const AclRuleListPtr a = listOf({1, 2, 3}, 80);
    const AclRuleListPtr b = listOf({3, 4});
    const AclRuleListPtr aEdited = listOf({1, 2, 9}, 80);     // 10.3 now only in b
    const AclRuleListPtr aSameRules = listOf({1, 2, 3}, 80);  // equal rules, another object
    struct Step {
        const char* name;
        std::map<uint8_t, AclRuleListPtr> lists;
        uint32_t matching3;  // lists matching 10.3.0.0/16 afterwards
    };
    const std::vector<Step> steps = {
        {"from nothing", {{0, a}, {1, b}}, 2},
        {"the same root again", {{0, a}, {1, b}}, 2},
        {"one list edited", {{0, aEdited}, {1, b}}, 1},
        {"a list added in front and one shared", {{0, b}, {1, aEdited}, {2, b}}, 2},
        {"a list gone from the middle", {{0, b}, {2, b}}, 2},
        {"every list gone", {}, 0},
        {"back, through an equal list of another identity", {{3, aSameRules}, {7, b}}, 2},
    };
    RootNeedsTally tally;
    const Vorn::Ptr<RootConfig> root = rootConfigFactory(4);
    for (const Step& s : steps) {
        SCOPED_TRACE(s.name);
        holdExactly(*root, s.lists);
        const RootNeeds got = tally.update(*root);
        expectSameNeeds(got, rootNeeds(*root));
        EXPECT_EQ(tally.lists(), s.lists.size());
        // A value stays while any counted list matches it, and goes with the last one.
        EXPECT_EQ(tally.listsMatching(xformSrcIpV4Prefix_, "10.3.0.0/16"), s.matching3);
        const bool edited = std::ranges::any_of(
            s.lists, [&](const auto& entry) { return entry.second == aEdited; });
        EXPECT_EQ(tally.listsMatching(xformSrcIpV4Prefix_, "10.9.0.0/16") > 0, edited);
    }
}

TEST(RootNeedsTallyTest, ASecondComputeOnTheChipRequestsWhatAFreshOneWould) {
    constexpr ChipId kChip(2);
    RootSmTestWorld w;
    w.addChip(kChip);
    // Both roots of the chip count in the chip's tally, as the glue makes them.
    auto addRoot = [&](uint32_t rootId) {
        w.rootSmColl->rootSmDel(rootId);
        w.rootSmColl
            ->rootSmIs(rootId, w.config(rootId), w.status(rootId), w.capability(kChip),
                       w.chipConfig(kChip), w.chipPDStatus(kChip), w.wheel,
                       w.rootSmColl->rootNeedsTally(kChip))
            ->handleInitialized();
    };
    w.addRoot(4);
    addRoot(4);
    holdExactly(*w.config(4), {{0, listOf({1, 2}, 80)}, {1, listOf({2, 5}, 443)}});
    w.act(4, rootActionCompute_);
    w.pass();
    ASSERT_EQ(w.status(4)->rootState(), rootComputing_);

    // The chip's other root computes next: one list edited, one gone, one new.
    w.addRoot(5);
    addRoot(5);
    const std::map<uint8_t, AclRuleListPtr> next = {{0, listOf({1, 7}, 22)}, {2, listOf({5}, 443)}};
    holdExactly(*w.config(5), next);
    w.act(5, rootActionCompute_);
    w.pass();
    ASSERT_EQ(w.status(5)->rootState(), rootComputing_);

    const RootNeeds fresh = rootNeeds(*w.config(5));
    for (int t = 0; t < kXformTypeCount; ++t) {
        SCOPED_TRACE(xformConfigName(XformType(t)));
        const Vorn::Ptr<XformConfig> xform = w.chipConfig(kChip)->xformConfig(XformType(t));
        ASSERT_TRUE(xform);
        std::vector<std::string> requested;
        for (const auto& [value, classId] : xform->attemptedXform()) {
            requested.push_back(value);
            EXPECT_EQ(classId, requested.size());  // text order, from 1
        }
        EXPECT_EQ(requested, fresh.xformValues[t]);
    }
    EXPECT_EQ(w.rootSmColl->rootNeedsTally(kChip)->lists(), next.size());
}

}  // namespace
}  // namespace Mirel
