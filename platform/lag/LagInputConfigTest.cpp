#include "platform/lag/LagInputConfig.h"

#include <gtest/gtest.h>

#include "platform/vorn/Exception.h"

namespace {

TEST(LagInputConfig, RequiresTheMembership) {
    try {
        Lag::Input::configFactory("LagInputConfig", nullptr);
        ADD_FAILURE() << "no error";
    } catch (const Vorn::NullPointerException& e) {
        EXPECT_STREQ(e.what(),
                     "null _lagPhyIntfMapping parameter to mutator for "
                     "Lag::Input::Config::lagPhyIntfMapping not allowed");
    }
}

}  // namespace
