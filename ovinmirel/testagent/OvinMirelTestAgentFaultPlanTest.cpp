// The fault plan: the scenario form read and written, refused faults, and faults used up
// answer by answer.

#include "ovinmirel/testagent/OvinMirelTestAgentFaultPlan.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "platform/vorn/Exception.h"
#include "tests/TestSupport.h"

namespace OvinMirel {
namespace {

using Mirel::ChipId;

TEST(TestAgentFault, ScenarioFormReadsAndPrintsBack) {
    struct Case {
        const char* text;
        TestAgentFault fault;
        const char* printed;
    };
    const Case cases[] = {
        {"", TestAgentFault{}, "none"},
        {"fail:tcamFull", TestAgentFault::failing(Mirel::stageTcamFull_), "fail:tcamFull"},
        {"  late:1.5 twice ", TestAgentFault::late(1.5).alsoTwice(), "late:1.5 twice"},
        {"lost", TestAgentFault::losing(), "lost"},
        {"twice:3", TestAgentFault{}.alsoTwice(3), "twice:3"},
        {"count:2 xform:chipSrcPortRangeConfig fail:hwError",
         TestAgentFault::failing(Mirel::stageHwError_).onXform(Mirel::xformSrcPortRange_).times(2),
         "fail:hwError xform:chipSrcPortRangeConfig count:2"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        const TestAgentFault parsed = TestAgentFault::parse(c.text);
        EXPECT_EQ(parsed, c.fault);
        EXPECT_EQ(TestSupport::str(parsed), c.printed);
        EXPECT_EQ(TestAgentFault::parse(c.printed), c.fault);
    }
}

TEST(TestAgentFault, UnreadableOrOutOfRangeFaultsAreRefused) {
    struct Case {
        const char* text;
        const char* error;
        bool range;
    };
    const Case cases[] = {
        {"fail:oops", "TestAgentFault: cannot read 'fail:oops'", false},
        {"late:soon", "TestAgentFault: cannot read 'late:soon'", false},
        {"count:-1", "TestAgentFault: cannot read 'count:-1'", false},
        {"xform:chipFooConfig twice", "TestAgentFault: cannot read 'xform:chipFooConfig'", false},
        {"fail:", "TestAgentFault: cannot read 'fail:'", false},
        {"sometimes", "TestAgentFault: cannot read 'sometimes'", false},
        {"late:-2", "TestAgentFault::delay < 0 not allowed", true},
        {"late:inf", "TestAgentFault::delay < 0 not allowed", true},
        {"twice:0", "TestAgentFault::repeatPasses < 1 not allowed", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        try {
            TestAgentFault::parse(c.text);
            ADD_FAILURE() << "accepted";
        } catch (const Vorn::RangeException& e) {
            EXPECT_TRUE(c.range);
            EXPECT_STREQ(e.what(), c.error);
        } catch (const std::invalid_argument& e) {
            EXPECT_FALSE(c.range);
            EXPECT_STREQ(e.what(), c.error);
        }
    }
    auto plan = testAgentFaultPlanFactory("plan");
    plan->faultIs(ChipId(1), TestAgentFault::twice());
    TestAgentFault bad;
    bad.xform = Mirel::XformType(Mirel::kXformTypeCount);
    EXPECT_THROW(plan->faultIs(ChipId(1), bad), Vorn::RangeException);
    ASSERT_TRUE(plan->fault(ChipId(1)));
    EXPECT_EQ(*plan->fault(ChipId(1)), TestAgentFault::twice());  // the plan as it was
}

TEST(TestAgentFaultPlan, FaultsAreUsedUpAnswerByAnswer) {
    auto plan = testAgentFaultPlanFactory("plan");
    const auto portFault =
        TestAgentFault::failing(Mirel::stageHwError_).onXform(Mirel::xformDstPortRange_).times(2);
    plan->faultIs(ChipId(1), portFault);
    plan->faultIs(ChipId(2), TestAgentFault::losing());
    // Another transform's answer or another chip's leaves the fault alone.
    EXPECT_FALSE(plan->takeFault(ChipId(1), Mirel::xformSrcPortRange_));
    EXPECT_FALSE(plan->takeFault(ChipId(3), Mirel::xformDstPortRange_));
    EXPECT_EQ(plan->takeFault(ChipId(1), Mirel::xformDstPortRange_), portFault);
    ASSERT_TRUE(plan->fault(ChipId(1)));
    EXPECT_EQ(plan->fault(ChipId(1))->count, 1u);
    EXPECT_TRUE(plan->takeFault(ChipId(1), Mirel::xformDstPortRange_));
    EXPECT_FALSE(plan->fault(ChipId(1)));  // used up
    EXPECT_FALSE(plan->takeFault(ChipId(1), Mirel::xformDstPortRange_));
    // Without a count a fault lasts until it is removed.
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(plan->takeFault(ChipId(2), Mirel::XformType(i)));
    EXPECT_EQ(plan->faults(), 1u);
}

}  // namespace
}  // namespace OvinMirel
