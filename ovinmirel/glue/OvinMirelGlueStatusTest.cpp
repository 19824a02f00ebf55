// GlueStatus: the state words, initialization of the child collections, the root id rules
// and the per-chip policy record's VLAN range check.

#include "ovinmirel/glue/OvinMirelGlueStatus.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace OvinMirel {
namespace {

using TestSupport::str;

TEST(GlueSmState, WordsRoundTrip) {
    struct Case {
        GlueSmState state;
        uint32_t value;
        const char* word;
    };
    const Case cases[] = {
        {unknown_, 0, "unknown"},
        {idle_, 1, "idle"},
        {aclIdAlloc_, 2, "aclIdAlloc"},
        {aclIdAllocFail_, 3, "aclIdAllocFail"},
        {computing_, 4, "computing"},
        {loading_, 5, "loading"},
        {aborting_, 6, "aborting"},
        {success_, 7, "success"},
        {fail_, 8, "fail"},
        {blockIntf_, 9, "blockIntf"},
        {mappingLoader_, 10, "mappingLoader"},
        {unblockIntf_, 11, "unblockIntf"},
    };
    ASSERT_EQ(std::size(cases), kGlueSmStateCount);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.word);
        EXPECT_EQ(uint32_t(c.state), c.value);
        EXPECT_STREQ(glueSmStateWord(c.state), c.word);
        EXPECT_EQ(glueSmStateFromWord(c.word), c.state);
        EXPECT_EQ(str(c.state), c.word);
    }
}

TEST(GlueSmState, BadWordAndBadValue) {
    for (const char* word : {"", "Idle", "idle ", "computing_", "unblock", "4"}) {
        SCOPED_TRACE(word);
        try {
            glueSmStateFromWord(word);
            ADD_FAILURE() << "accepted";
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(e.what(), "invalid GlueSmState word '" + std::string(word) + "'");
        }
    }
    EXPECT_EQ(glueSmStateWord(GlueSmState(12)), nullptr);
    EXPECT_EQ(str(GlueSmState(12)), "GlueSmState(12)");
}

TEST(GlueStatus, InitializeCreatesNamedChildrenOnce) {
    auto status = glueStatusFactory("glueStatus");
    EXPECT_FALSE(status->aclIdResponseColl());
    const auto rootConfigs = status->rootConfigColl();
    const auto rootStatuses = status->rootStatusColl();
    ASSERT_TRUE(rootConfigs);
    ASSERT_TRUE(rootStatuses);

    int events = 0;
    auto s1 = status->initializedNotify([&] {
        ++events;
        // Watchers of initialized may rely on the children being there already.
        EXPECT_TRUE(status->aclIdResponseColl());
        EXPECT_TRUE(status->aclPolicyStatusColl());
    });
    auto s2 = status->aclIdResponseCollNotify([&] { ++events; });
    auto s3 = status->aclPolicyStatusCollNotify([&] { ++events; });
    status->initialize();
    EXPECT_EQ(events, 3);
    EXPECT_TRUE(status->initialized());
    const auto ids = status->aclIdResponseColl();
    const auto policy = status->aclPolicyStatusColl();
    ASSERT_TRUE(ids);
    ASSERT_TRUE(policy);
    EXPECT_EQ(ids->name(), Vorn::Name("AclIdResponseColl"));
    EXPECT_EQ(policy->name(), Vorn::Name("aclPolicyStatusColl"));

    status->initialize();
    EXPECT_EQ(events, 3);
    EXPECT_EQ(status->aclIdResponseColl(), ids);
    EXPECT_EQ(status->aclPolicyStatusColl(), policy);
    EXPECT_EQ(status->rootConfigColl(), rootConfigs);
    EXPECT_EQ(status->rootStatusColl(), rootStatuses);
}

TEST(GlueStatus, RootIdRules) {
    struct Case {
        const char* name;
        std::vector<std::pair<uint32_t, uint32_t>> active;  // chip -> active root
        uint32_t chip;
        uint32_t attempt;
    };
    const Case cases[] = {
        {"no active root takes slot 0", {}, 2, 4},
        {"active slot 0 gives slot 1", {{2, 4}}, 2, 5},
        {"active slot 1 gives slot 0", {{2, 5}}, 2, 4},
        {"another chip's root does not count", {{3, 7}}, 2, 4},
        {"chip 0", {{0, 0}}, 0, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto status = glueStatusFactory("glueStatus");
        for (auto [chip, root] : c.active)
            status->activeRootSmIdIs(Mirel::ChipId(chip), root);
        EXPECT_EQ(getAttemptRootSmId(*status, Mirel::ChipId(c.chip)), c.attempt);
        EXPECT_EQ(rootSmIdToChipId(c.attempt), Mirel::ChipId(c.chip));
    }
    EXPECT_EQ(rootSmIdToChipId(5), Mirel::ChipId(2));
    EXPECT_EQ(rootSmIdOf(Mirel::ChipId(2), 0), 4u);
    EXPECT_EQ(rootSmIdOf(Mirel::ChipId(2), 1), 5u);
    EXPECT_EQ(rootSmIdOf(Mirel::ChipId(kMaxRootChipId), 1), 0xffffffffu);
}

TEST(GlueStatusDeathTest, BrokenRootIdsStopTheProcess) {
    EXPECT_DEATH(rootSmIdOf(Mirel::ChipId(1), 2), "slot < 2");
    EXPECT_DEATH(rootSmIdOf(Mirel::ChipId(kMaxRootChipId + 1), 0),
                 "chipId\\.value\\(\\) <= kMaxRootChipId");
    auto status = glueStatusFactory("glueStatus");
    status->activeRootSmIdIs(Mirel::ChipId(2), 7);  // root 7 belongs to chip 3
    EXPECT_DEATH(getAttemptRootSmId(*status, Mirel::ChipId(2)),
                 "rootSmIdToChipId\\(\\*active\\) == chipId");
}

TEST(AclPolicyStatus, VlanMappingChecksTheVlanId) {
    auto policy = aclPolicyStatusFactory(Mirel::ChipId(1));
    int events = 0;
    auto s = policy->vlanAclMappingNotify([&](const Bridging::VlanId&) { ++events; });
    for (int64_t bad : {int64_t(0), int64_t(4095), int64_t(-1), int64_t(65536 + 10)}) {
        SCOPED_TRACE(bad);
        try {
            policy->vlanAclMappingIs(Zamu::IntfId("Ethernet1"), bad);
            ADD_FAILURE() << "accepted";
        } catch (const Vorn::RangeException& e) {
            EXPECT_STREQ(e.what(), "VlanId::value < 1 or > 4094 not allowed");
        }
    }
    EXPECT_EQ(policy->vlanAclMappings(), 0u);
    EXPECT_EQ(events, 0);

    policy->vlanAclMappingIs(Zamu::IntfId("Ethernet1"), 1);
    policy->vlanAclMappingIs(Zamu::IntfId("Ethernet1"), 4094);
    EXPECT_EQ(events, 2);
}

}  // namespace
}  // namespace OvinMirel
