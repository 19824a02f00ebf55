// Root machines against the chip mocks: the mocks answer every transform request in the
// chip's PD status, the fault plan bends those answers, and the root answers the glue
// accordingly. The test plays the glue: it writes a root's action with a new kick and reads
// the root status back.

#include "ovinmirel/testagent/OvinMirelTestAgentMockSm.h"
#include "ovinmirel/testagent/OvinMirelTestAgentTestWorld.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/flinq/Flinq.h"

namespace OvinMirel {
namespace {

using Mirel::ChipId;
using Mirel::RootState;
using Mirel::XformType;

constexpr ChipId kChip(1);
constexpr uint32_t kRoot = 2;  // the chip's slot 0; kRoot + 1 is slot 1

// Three source prefixes in one list and a port range in another: four transform entries,
// three of them on chipSrcIpV4PrefixConfig.
void fillRoot(Mirel::RootConfig& root) {
    root.aclIs(Mirel::ipv4AclId(0))->ruleListIs(Mirel::ipv4List(3));
    root.aclIs(Mirel::ipv4AclId(1))
        ->ruleListIs(Mirel::AclRuleList::ipList(
            {{Mirel::aceAt(1), Mirel::ipv4Rule("10.0.0.0", 16, {80, 443})}}));
}

class MockSmTest : public ::testing::Test {
  protected:
    MockSmTest() {
        w.addChip(kChip);
        w.addRoot(kRoot);
        fillRoot(*w.config(kRoot));
        sub_ = w.status(kRoot)->kickResponseNotify([this] { recordAnswer(); });
        stateSub_ = w.status(kRoot)->rootStateNotify([this] { recordAnswer(); });
    }
    // What a reader woken by each write of the root status sees, as (kick response, state).
    // A first answer writes the state before it echoes the kick, so it shows twice: with the
    // previous kick response, which readers ignore, then complete.
    void recordAnswer() {
        answers.emplace_back(w.status(kRoot)->kickResponse(), w.status(kRoot)->rootState());
    }
    const Mirel::XformStatus& xformStatus(XformType t) {
        return w.chipPDStatus(kChip)->xformStatus(t);
    }
    uint32_t attempted(XformType t) {
        return w.chipConfig(kChip)->xformConfig(t)->attemptedRequestId();
    }

    TestAgentTestWorld w;
    std::vector<std::pair<uint32_t, RootState>> answers;

  private:
    Vorn::Subscription sub_;
    Vorn::Subscription stateSub_;
};

using Answers = std::vector<std::pair<uint32_t, RootState>>;

TEST_F(MockSmTest, ComputeIsAnsweredByTheMockThroughTheWheel) {
    Flinq::Capture capture;
    const uint32_t k = w.act(kRoot, Mirel::rootActionCompute_);
    EXPECT_TRUE(answers.empty());
    w.pass();
    // The mock answered every request as it was written; the root answers on the next pass.
    for (int t = 0; t < Mirel::kXformTypeCount; ++t) {
        SCOPED_TRACE(Mirel::xformConfigName(XformType(t)));
        EXPECT_EQ(xformStatus(XformType(t)).requestId, 1u);
        EXPECT_EQ(xformStatus(XformType(t)).errorCode, Mirel::stageSuccess_);
    }
    EXPECT_EQ(xformStatus(Mirel::xformSrcIpV4Prefix_).entries, 3u);
    EXPECT_EQ(answers, (Answers{{0, Mirel::rootComputing_}, {k, Mirel::rootComputing_}}));
    w.pass();
    EXPECT_EQ(answers, (Answers{{0, Mirel::rootComputing_},
                                {k, Mirel::rootComputing_},
                                {k, Mirel::rootComputed_}}));
    EXPECT_TRUE(
        capture.has("  response for chipSrcIpV4PrefixConfig attemptedRequestId: 1 "
                    "attemptedXforms: 3"));
    EXPECT_TRUE(
        capture.has("  response for chipDstPortRangeConfig attemptedRequestId: 1 "
                    "attemptedXforms: 1"));
}

TEST_F(MockSmTest, FaultsFromThePlanShapeTheRootsAnswer) {
    struct Case {
        const char* name;
        TestAgentFault fault;
        // Virtual seconds to run after the compute's first pass, then the expected answer.
        Vorn::Seconds runFor;
        RootState state;
        Mirel::StageErrorCode error;
    };
    const Case cases[] = {
        {"a transform fails with the chosen code",
         TestAgentFault::failing(Mirel::stageHwError_).onXform(Mirel::xformDstPortRange_), 0.0,
         Mirel::rootComputeFailed_, Mirel::stageHwError_},
        {"the next answer fails", TestAgentFault::failing(Mirel::stageTimeout_).times(1), 0.0,
         Mirel::rootComputeFailed_, Mirel::stageTimeout_},
        {"a transform without entries fails too",
         TestAgentFault::failing(Mirel::stageTcamFull_).onXform(Mirel::xformSrcMacAddr_), 0.0,
         Mirel::rootComputeFailed_, Mirel::stageTcamFull_},
        {"answers twice", TestAgentFault::twice(), 10.0, Mirel::rootComputed_,
         Mirel::stageSuccess_},
        {"late answers, before their time", TestAgentFault::late(2.0), 1.99, Mirel::rootComputing_,
         Mirel::stageSuccess_},
        {"late answers, on time", TestAgentFault::late(2.0), 2.0, Mirel::rootComputed_,
         Mirel::stageSuccess_},
        {"one transform late", TestAgentFault::late(3.0).onXform(Mirel::xformSrcIpV6Prefix_), 2.5,
         Mirel::rootComputing_, Mirel::stageSuccess_},
        {"a late failure", TestAgentFault::late(1.0).alsoFailing(Mirel::stageHwError_), 1.0,
         Mirel::rootComputeFailed_, Mirel::stageHwError_},
        {"answers lost", TestAgentFault::losing(), 100.0, Mirel::rootComputing_,
         Mirel::stageSuccess_},
        {"one answer lost", TestAgentFault::losing().times(1), 100.0, Mirel::rootComputing_,
         Mirel::stageSuccess_},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TestAgentTestWorld world;
        world.addChip(kChip);
        world.addRoot(kRoot);
        fillRoot(*world.config(kRoot));
        world.faultPlan().faultIs(kChip, c.fault);
        const uint32_t k = world.act(kRoot, Mirel::rootActionCompute_);
        world.pass();
        world.wheel.runFor(c.runFor);
        world.settle();
        EXPECT_TRUE(world.answered(kRoot, k, c.state))
            << "state " << world.status(kRoot)->rootState();
        EXPECT_EQ(world.status(kRoot)->errorCode(), c.error);
    }
}

TEST_F(MockSmTest, ARepeatedAnswerChangesNothing) {
    w.faultPlan().faultIs(kChip, TestAgentFault::twice());
    const uint32_t k = w.act(kRoot, Mirel::rootActionCompute_);
    w.settle();
    EXPECT_EQ(xformStatus(Mirel::xformSrcMacAddr_).answers, 2u);  // the driver did repeat
    const Answers computed = {
        {0, Mirel::rootComputing_}, {k, Mirel::rootComputing_}, {k, Mirel::rootComputed_}};
    EXPECT_EQ(answers, computed);
    // The fault stays in the plan; the load, which waits for no answer, writes each step once.
    answers.clear();
    const uint32_t l = w.act(kRoot, Mirel::rootActionLoad_);
    w.settle();
    EXPECT_EQ(
        answers,
        (Answers{{k, Mirel::rootLoading_}, {l, Mirel::rootLoading_}, {l, Mirel::rootLoaded_}}));
}

TEST_F(MockSmTest, ALateAnswerToAnOldKickIsNeverWrittenAfterANewerAction) {
    // The first compute's nine answers are late; the second compute's are not.
    w.faultPlan().faultIs(kChip, TestAgentFault::late(5.0).times(Mirel::kXformTypeCount));
    const uint32_t k1 = w.act(kRoot, Mirel::rootActionCompute_);
    w.pass();
    const uint32_t k2 = w.act(kRoot, Mirel::rootActionCompute_);
    w.settle();
    EXPECT_TRUE(w.answered(kRoot, k2, Mirel::rootComputed_));
    w.wheel.runFor(10.0);
    EXPECT_EQ(answers, (Answers{{0, Mirel::rootComputing_},
                                {k1, Mirel::rootComputing_},
                                {k2, Mirel::rootComputing_},
                                {k2, Mirel::rootComputed_}}));
    // The driver's late answers to the replaced requests were dropped.
    EXPECT_EQ(xformStatus(Mirel::xformSrcIpV4Prefix_).requestId, 2u);
}

// A load makes the requests active and records the table usage; a later attempt on the other
// slot that fails and is aborted leaves them as they were.
TEST_F(MockSmTest, LoadMakesTheRequestsActiveAndAnAbortLeavesThem) {
    w.act(kRoot, Mirel::rootActionCompute_);
    w.settle();
    const uint32_t l = w.act(kRoot, Mirel::rootActionLoad_);
    w.pass();
    EXPECT_TRUE(w.answered(kRoot, l, Mirel::rootLoading_));
    w.pass();
    EXPECT_TRUE(w.answered(kRoot, l, Mirel::rootLoaded_));
    auto pd = w.chipPDStatus(kChip);
    EXPECT_EQ(pd->entryTableUsage(), (Mirel::TableUsage{4, 4096}));
    EXPECT_EQ(pd->ruleListIdsUsage(), (Mirel::TableUsage{2, 16}));
    EXPECT_EQ(pd->algoMatchUsage(), (Mirel::TableUsage{4, 1024}));
    // The next attempt on the other slot fails in the driver and is aborted.
    w.addRoot(kRoot + 1);
    w.config(kRoot + 1)->aclIs(Mirel::ipv4AclId(0))->ruleListIs(Mirel::ipv4List(5));
    w.faultPlan().faultIs(kChip, TestAgentFault::failing(Mirel::stageHwError_).times(1));
    const uint32_t k = w.act(kRoot + 1, Mirel::rootActionCompute_);
    w.settle();
    ASSERT_TRUE(w.answered(kRoot + 1, k, Mirel::rootComputeFailed_));
    const uint32_t a = w.act(kRoot + 1, Mirel::rootActionAbort_);
    w.pass();
    EXPECT_TRUE(w.answered(kRoot + 1, a, Mirel::rootAborting_));
    w.pass();
    EXPECT_TRUE(w.answered(kRoot + 1, a, Mirel::rootAborted_));
    EXPECT_EQ(w.status(kRoot + 1)->errorCode(), Mirel::stageHwError_);
    for (int t = 0; t < Mirel::kXformTypeCount; ++t) {
        SCOPED_TRACE(Mirel::xformConfigName(XformType(t)));
        EXPECT_EQ(attempted(XformType(t)), 2u);
        EXPECT_EQ(w.chipConfig(kChip)->xformConfig(XformType(t))->activeRequestId(), 1u);
        EXPECT_EQ(xformStatus(XformType(t)).activeRequestId, 1u);  // the mock acknowledged it
    }
    EXPECT_EQ(w.chipPDStatus(kChip)->entryTableUsage().inUse, 4u);  // the loaded root's
}

TEST(MockSm, AllocMaxCapsTheEntriesOfOneRequest) {
    struct Case {
        uint32_t allocMax;
        RootState state;
        Mirel::StageErrorCode error;
    };
    // The root's largest request has three entries (chipSrcIpV4PrefixConfig).
    const Case cases[] = {
        {2, Mirel::rootComputeFailed_, Mirel::stageResourceExhausted_},
        {3, Mirel::rootComputed_, Mirel::stageSuccess_},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.allocMax);
        TestAgentTestWorld w;
        w.manager->allocMaxIs(c.allocMax);
        w.addChip(kChip);
        w.addRoot(kRoot);
        fillRoot(*w.config(kRoot));
        const uint32_t k = w.act(kRoot, Mirel::rootActionCompute_);
        w.settle();
        EXPECT_TRUE(w.answered(kRoot, k, c.state));
        EXPECT_EQ(w.status(kRoot)->errorCode(), c.error);
        EXPECT_EQ(w.chipPDStatus(kChip)->srcIpV4PrefixXformStatus().errorCode, c.error);
        EXPECT_EQ(w.chipPDStatus(kChip)->srcMacXformStatus().errorCode, Mirel::stageSuccess_);
    }
}

TEST(MockSm, ATransformNotYetConfiguredIsReportedAndSkipped) {
    Flinq::Capture capture;
    TestAgentTestWorld w;
    w.addChip(kChip, false);
    ASSERT_TRUE(w.mock(kChip));
    for (int t = 0; t < Mirel::kXformTypeCount; ++t) {
        const std::string name = Mirel::xformConfigName(XformType(t));
        EXPECT_TRUE(capture.has(name + " is not initialized.")) << name;
    }
    // Configured later, the transforms are watched and answered.
    w.chipConfig(kChip)->initialize();
    w.chipConfig(kChip)->chipDstPortRangeConfig()->attemptedRequestIdIs(7);
    EXPECT_EQ(w.chipPDStatus(kChip)->dstPortRangeXformStatus().requestId, 7u);
}

}  // namespace
}  // namespace OvinMirel
