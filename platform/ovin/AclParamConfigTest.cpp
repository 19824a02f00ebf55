#include "platform/ovin/AclParamConfig.h"

#include <gtest/gtest.h>

#include <limits>

#include "platform/vorn/Exception.h"

namespace {

TEST(AclParamConfig, UpdateDelayMustBeAFiniteNonNegativeTime) {
    auto param = Acl::paramConfigFactory("ParamConfig");
    param->updateDelayIs(0.5);
    for (double bad : {-0.1, std::numeric_limits<double>::infinity(),
                       std::numeric_limits<double>::quiet_NaN()}) {
        SCOPED_TRACE(bad);
        try {
            param->updateDelayIs(bad);
            ADD_FAILURE() << "no error";
        } catch (const Vorn::RangeException& e) {
            EXPECT_STREQ(e.what(), "ParamConfig::updateDelay < 0 or not finite not allowed");
        }
    }
    EXPECT_EQ(param->updateDelay(), 0.5);
}

}  // namespace
