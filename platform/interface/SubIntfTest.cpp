// Sub-interface configuration and status: keyed by sub-interface ids only.

#include "platform/interface/SubIntf.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

TEST(SubIntfConfigDir, KeysAreSubInterfaces) {
    auto config = Interface::subIntfConfigDirFactory("SubIntfConfigDir");
    auto status = Interface::subIntfStatusDirFactory("SubIntfStatusDir");
    for (const char* notASub : {"Ethernet1", "Port-Channel1", "Vlan3"}) {
        SCOPED_TRACE(notASub);
        EXPECT_THROW(config->intfConfigIs(notASub), std::invalid_argument);
        EXPECT_THROW(status->intfStatusIs(notASub), std::invalid_argument);
    }
    EXPECT_EQ(config->intfConfigs() + status->intfStatuss(), 0u);
    EXPECT_EQ(config->intfConfigIs("Port-Channel4.12")->parentIntfId(),
              Zamu::IntfId("Port-Channel4"));
    EXPECT_EQ(config->intfConfigIs("Ethernet3/1.7")->parentIntfId(), Zamu::IntfId("Ethernet3/1"));
}

}  // namespace
