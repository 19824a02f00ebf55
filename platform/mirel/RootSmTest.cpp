// The root machine on its own: what a root needs, failing at once beyond the chip's
// capability, the requests it writes, answering only through the wheel, kicks. Here the test
// plays the driver by writing the chip's transform statuses; load, abort, the chip mocks and
// their faults are exercised in ovinmirel/testagent.

#include "platform/mirel/RootSm.h"
#include "platform/mirel/RootSmTestWorld.h"

#include <gtest/gtest.h>

#include <functional>
#include <utility>
#include <vector>

#include "platform/vorn/Exception.h"

namespace Mirel {
namespace {

constexpr ChipId kChip(2);
constexpr uint32_t kRoot = 4;

// Answers every transform's attempted request the way a driver would, except `skip`.
void driverAnswers(RootSmTestWorld& w, int skip = kXformTypeCount) {
    for (int t = 0; t < kXformTypeCount; ++t) {
        if (t == skip)
            continue;
        XformStatus s = w.chipPDStatus(kChip)->xformStatus(XformType(t));
        s.requestId = w.chipConfig(kChip)->xformConfig(XformType(t))->attemptedRequestId();
        s.answers = 1;
        w.chipPDStatus(kChip)->xformStatusIs(XformType(t), s);
    }
}

// Two lists: three IPv4 source prefixes, and one rule with a destination port range.
void fillRoot(RootConfig& root) {
    root.aclIs(ipv4AclId(0))->ruleListIs(ipv4List(3));
    root.aclIs(ipv4AclId(1))
        ->ruleListIs(AclRuleList::ipList({{aceAt(1), ipv4Rule("10.0.0.0", 16, {80, 443})}}));
}

class RootSmTest : public ::testing::Test {
  protected:
    RootSmTest() {
        w.addChip(kChip);
        w.addRoot(kRoot);
        fillRoot(*w.config(kRoot));
    }
    // Compute, the pass that starts it, the driver's answers and the pass that answers.
    uint32_t computeWell() {
        const uint32_t k = w.act(kRoot, rootActionCompute_);
        w.pass();
        driverAnswers(w);
        w.pass();
        return k;
    }
    RootSmTestWorld w;
};

TEST_F(RootSmTest, NeedsComeFromTheSharedListsOnce) {
    const AclRuleListPtr shared = ipv4List(2);
    auto root = rootConfigFactory(kRoot);
    root->aclIs(ipv4AclId(0))->ruleListIs(shared);
    root->aclIs(ipv4AclId(1))->ruleListIs(shared);
    root->aclIs(ipv4AclId(2))
        ->ruleListIs(AclRuleList::ipList({{aceAt(1), ipv4Rule("10.7.0.0", 16, {22, 22})}}));
    const RootNeeds needs = rootNeeds(*root);
    EXPECT_EQ(needs.tcamEntries, 5u);  // each rule list takes its own entries
    EXPECT_EQ(needs.ruleLists, 3u);
    // A value two lists match takes one class id.
    EXPECT_EQ(needs.xformValues[xformSrcIpV4Prefix_],
              (std::vector<std::string>{"10.0.0.0/16", "10.1.0.0/16", "10.7.0.0/16"}));
    EXPECT_EQ(needs.xformEntries, 4u);
}

TEST_F(RootSmTest, ComputeAnswersThroughTheWheelOnceEveryRequestIsAnswered) {
    const uint32_t k = w.act(kRoot, rootActionCompute_);
    EXPECT_EQ(w.status(kRoot)->kickResponse(), 0u);  // never within the write that asked
    EXPECT_EQ(w.chipConfig(kChip)->chipSrcIpV4PrefixConfig()->attemptedRequestId(), 0u);
    w.pass();
    EXPECT_TRUE(w.answered(kRoot, k, rootComputing_));
    // Each transform got a request; the values in text order took class ids from 1.
    for (int t = 0; t < kXformTypeCount; ++t) {
        SCOPED_TRACE(xformConfigName(XformType(t)));
        EXPECT_EQ(w.chipConfig(kChip)->xformConfig(XformType(t))->attemptedRequestId(), 1u);
    }
    auto src = w.chipConfig(kChip)->chipSrcIpV4PrefixConfig();
    EXPECT_EQ(src->attemptedXforms(), 3u);
    ASSERT_TRUE(src->attemptedXform("10.2.0.0/16"));
    EXPECT_EQ(*src->attemptedXform("10.2.0.0/16"), 3u);
    auto dport = w.chipConfig(kChip)->chipDstPortRangeConfig();
    ASSERT_TRUE(dport->attemptedXform("80-443"));
    EXPECT_EQ(dport->attemptedXforms(), 1u);

    driverAnswers(w, xformSrcMacAddr_);  // one request still open
    w.settle();
    EXPECT_TRUE(w.answered(kRoot, k, rootComputing_));
    XformStatus last = w.chipPDStatus(kChip)->srcMacXformStatus();
    last.requestId = 1;
    w.chipPDStatus(kChip)->srcMacXformStatusIs(last);
    EXPECT_TRUE(w.answered(kRoot, k, rootComputing_));
    w.pass();
    EXPECT_TRUE(w.answered(kRoot, k, rootComputed_));
    EXPECT_EQ(w.status(kRoot)->errorCode(), stageSuccess_);

    // The next compute asks afresh, one above the ids in use, and drops entries gone.
    w.config(kRoot)->aclDel(ipv4AclId(1));
    w.act(kRoot, rootActionCompute_);
    w.pass();
    EXPECT_EQ(dport->attemptedRequestId(), 2u);
    EXPECT_EQ(dport->attemptedXforms(), 0u);
}

TEST(RootSm, ARootBeyondTheCapabilityFailsAtOnce) {
    // fillRoot needs 4 entries, 2 rule lists and 4 transform class ids.
    struct Case {
        const char* name;
        std::function<void(ChipHwCapability&)> limit;
        StageErrorCode expected;  // stageSuccess_: the root is computing
        bool chipConfigInitialized = true;
    };
    const Case cases[] = {
        {"entries at the limit", [](ChipHwCapability& c) { c.tcamEntryMaxIs(4); }, stageSuccess_},
        {"one entry too many", [](ChipHwCapability& c) { c.tcamEntryMaxIs(3); }, stageTcamFull_},
        {"rule list ids at the limit", [](ChipHwCapability& c) { c.chipRuleListIdMaxIs(1); },
         stageSuccess_},
        {"the permit-all id leaves one",
         [](ChipHwCapability& c) {
             c.chipRuleListIdMaxIs(1);
             c.chipRuleListIdReservedPermitAllIs(0);
         },
         stageResourceExhausted_},
        {"one rule list id", [](ChipHwCapability& c) { c.chipRuleListIdMaxIs(0); },
         stageResourceExhausted_},
        {"transform entries at the limit", [](ChipHwCapability& c) { c.xformEntryMaxIs(4); },
         stageSuccess_},
        {"one transform entry too many", [](ChipHwCapability& c) { c.xformEntryMaxIs(3); },
         stageResourceExhausted_},
        {"a chip configuration without transforms", [](ChipHwCapability&) {}, stageInvalidConfig_,
         false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        RootSmTestWorld world;
        world.addChip(kChip, c.chipConfigInitialized);
        c.limit(*world.capability(kChip));
        world.addRoot(kRoot);
        fillRoot(*world.config(kRoot));
        const uint32_t k = world.act(kRoot, rootActionCompute_);
        world.pass();
        const auto src = world.chipConfig(kChip)->chipSrcIpV4PrefixConfig();
        const uint32_t requested = src ? src->attemptedRequestId() : 0;
        if (c.expected == stageSuccess_) {
            EXPECT_TRUE(world.answered(kRoot, k, rootComputing_));
            EXPECT_EQ(requested, 1u);
        } else {
            EXPECT_TRUE(world.answered(kRoot, k, rootComputeFailed_));
            EXPECT_EQ(world.status(kRoot)->errorCode(), c.expected);
            EXPECT_EQ(requested, 0u);  // nothing asked of the driver
        }
    }
}

TEST_F(RootSmTest, ANewerActionSupersedesTheAnswerInProgress) {
    // Every answer as written, (kick response, state).
    std::vector<std::pair<uint32_t, RootState>> answers;
    auto sub = w.status(kRoot)->kickResponseNotify([&] {
        answers.emplace_back(w.status(kRoot)->kickResponse(), w.status(kRoot)->rootState());
    });
    const uint32_t k1 = w.act(kRoot, rootActionCompute_);
    w.pass();
    driverAnswers(w);  // the answer to k1 is due on the next pass ...
    const uint32_t k2 = w.act(kRoot, rootActionCompute_);  // ... when a new compute arrives
    w.settle();
    EXPECT_TRUE(w.answered(kRoot, k2, rootComputing_));
    driverAnswers(w);
    w.settle();
    EXPECT_TRUE(w.answered(kRoot, k2, rootComputed_));
    EXPECT_EQ(answers, (std::vector<std::pair<uint32_t, RootState>>{{k1, rootComputing_},
                                                                    {k2, rootComputing_}}));
    // An action without a new kick is not an action.
    w.config(kRoot)->actionIs(rootActionAbort_);
    w.settle();
    EXPECT_TRUE(w.answered(kRoot, k2, rootComputed_));
}

TEST_F(RootSmTest, ARootThatComputedWellIsAbortedForAnotherChip) {
    computeWell();
    const uint32_t a = w.act(kRoot, rootActionAbort_);
    w.settle();
    EXPECT_TRUE(w.answered(kRoot, a, rootAborted_));
    EXPECT_EQ(w.status(kRoot)->errorCode(), stageAbortedByPeer_);
}

TEST_F(RootSmTest, ADeletedMachineAnswersNothing) {
    w.act(kRoot, rootActionCompute_);
    w.rootSmColl->rootSmDel(kRoot);
    w.settle();
    EXPECT_EQ(w.status(kRoot)->kickResponse(), 0u);
    EXPECT_EQ(w.chipConfig(kChip)->chipSrcIpV4PrefixConfig()->attemptedRequestId(), 0u);
}

TEST_F(RootSmTest, AReaderMayDropTheRootWhileItAnswers) {
    // Like the glue clearing a chip's roots: the machine, its configuration and its status
    // go from inside the answer's write.
    Vorn::Ptr<RootStatus> status = w.status(kRoot);
    auto sub = status->kickResponseNotify([&] {
        w.rootSmColl->rootSmDel(kRoot);
        w.rootConfigColl->rootConfigDel(kRoot);
        w.rootStatusColl->rootStatusDel(kRoot);
    });
    const uint32_t k = w.act(kRoot, rootActionCompute_);
    w.settle();
    EXPECT_EQ(w.rootSmColl->rootSms(), 0u);
    EXPECT_EQ(status->kickResponse(), k);
    EXPECT_EQ(status->rootState(), rootComputing_);
    // It stopped before asking the driver anything.
    EXPECT_EQ(w.chipConfig(kChip)->chipSrcIpV4PrefixConfig()->attemptedRequestId(), 0u);
}

TEST_F(RootSmTest, ANullReferenceIsRefusedByName) {
    try {
        rootSmFactory(kRoot, w.config(kRoot), nullptr, w.capability(kChip), w.chipConfig(kChip),
                      w.chipPDStatus(kChip), w.wheel);
        ADD_FAILURE() << "null accepted";
    } catch (const Vorn::NullPointerException& e) {
        EXPECT_STREQ(e.what(),
                     "null _rootStatus parameter to mutator for Mirel::RootSm::rootStatus not "
                     "allowed");
    }
}

TEST(RootSmDeathTest, LoadingARootThatDidNotComputeIsAnInternalError) {
    RootSmTestWorld w;
    w.addChip(kChip);
    w.addRoot(kRoot);
    w.act(kRoot, rootActionLoad_);
    EXPECT_DEATH(w.pass(), "computed_");
}

}  // namespace
}  // namespace Mirel
