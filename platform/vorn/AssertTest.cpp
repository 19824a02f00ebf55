// The always-on assertion prints the failed condition (or the given message) with the asserting
// function, and stops the process.

#include "platform/vorn/Assert.h"

#include <gtest/gtest.h>

namespace {

struct Machine {
    bool initialized() const { return false; }
    void handle() const { VORN_ASSERT(initialized()); }
    void classify(int kind) const { VORN_ASSERT_MSG(kind == 1, "Internal Error"); }
};

TEST(VornAssertDeathTest, PrintsConditionAndFunction) {
    Machine m;
    EXPECT_DEATH(m.handle(), "Machine::handle\\(\\) const: Assertion `initialized\\(\\)' failed");
    EXPECT_DEATH(m.classify(2), "Assertion `Internal Error' failed");
    EXPECT_DEATH(VORN_ASSERT(false && "Internal Error"), "false && \"Internal Error\"");
}

TEST(VornAssert, HoldingConditionDoesNothing) {
    int evaluated = 0;
    VORN_ASSERT(++evaluated == 1);
    EXPECT_EQ(evaluated, 1);  // evaluated once, also in optimized builds
}

}  // namespace
