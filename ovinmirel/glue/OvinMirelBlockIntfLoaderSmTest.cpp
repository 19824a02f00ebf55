// The interface blocking loader between the agent's requests (GlueConfig.blockedIntf) and the
// driver's blocked set (PDConfig.blockedIntf), on a virtual clock and a real timer wheel.

#include "ovinmirel/glue/OvinMirelBlockIntfLoaderSm.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/flinq/Flinq.h"
#include "tests/TestSupport.h"

namespace OvinMirel {
namespace {

using Strings = std::vector<std::string>;
using TestSupport::str;

class BlockIntfLoaderSmTest : public ::testing::Test {
  protected:
    BlockIntfLoaderSmTest() {
        // Every change of the driver's set, as the driver would see it.
        driverSub = pDConfig->blockedIntfNotify([this](const Zamu::IntfId& i) {
            driver.push_back((pDConfig->blockedIntf(i) ? "block " : "unblock ") + str(i));
        });
    }
    void start() {
        loader = blockIntfLoaderSmFactory(glueConfig, glueStatus, pDConfig, wheel);
        loader->handleInitialized();
    }
    Strings blocked() const {
        Strings out;
        for (const Zamu::IntfId& i : pDConfig->blockedIntf())
            out.push_back(str(i));
        return out;
    }

    Vorn::ScopedVirtualClock clock{100.0};
    Brix::TimerWheel wheel;
    Vorn::Ptr<GlueConfig> glueConfig = glueConfigFactory("glueConfig");
    Vorn::Ptr<GlueStatus> glueStatus = glueStatusFactory("glueStatus");
    Vorn::Ptr<Mirel::PDConfig> pDConfig = Mirel::pdConfigFactory("pdConfig");
    Strings driver;
    Vorn::Subscription driverSub;
    Vorn::Ptr<BlockIntfLoaderSm> loader;
};

TEST_F(BlockIntfLoaderSmTest, ARequestWithdrawnBeforeTheTimerLeavesNoTrace) {
    start();
    glueConfig->blockedIntfIs("Ethernet1");
    glueConfig->blockedIntfDel("Ethernet1");
    EXPECT_EQ(wheel.runUntilIdle(), 1u);
    EXPECT_EQ(driver, Strings{});
    // A burst is handled by one timer service, in interface order.
    Flinq::Capture cap;
    for (const char* intf : {"Ethernet3", "Ethernet1", "Ethernet2"})
        glueConfig->blockedIntfIs(intf);
    EXPECT_EQ(wheel.runUntilIdle(), 1u);
    EXPECT_EQ(driver, (Strings{"block Ethernet1", "block Ethernet2", "block Ethernet3"}));
    EXPECT_TRUE(cap.has("  queueing up blocking of Ethernet3"));
    EXPECT_TRUE(cap.has("  blocking Ethernet1"));
}

TEST_F(BlockIntfLoaderSmTest, AnInterfaceBlockedAtStartUpButNotRequestedIsUnblocked) {
    pDConfig->blockedIntfIs("Ethernet2");
    pDConfig->blockedIntfIs("Ethernet5");
    glueConfig->blockedIntfIs("Ethernet1");
    glueConfig->blockedIntfIs("Ethernet5");
    driver.clear();
    Flinq::Capture cap;
    start();
    EXPECT_TRUE(cap.has("  queueing up unblocking of Ethernet2"));
    EXPECT_TRUE(cap.has("  queueing up blocking of Ethernet5"));
    EXPECT_EQ(driver, Strings{});  // nothing before the timer is serviced
    EXPECT_EQ(wheel.runPass(), 1u);
    EXPECT_EQ(driver, (Strings{"block Ethernet1", "unblock Ethernet2"}));
    EXPECT_TRUE(cap.has("  unblocking Ethernet2"));
    EXPECT_EQ(blocked(), (Strings{"Ethernet1", "Ethernet5"}));
}

TEST_F(BlockIntfLoaderSmTest, TheDelayIsAnAbsoluteTimeNotADelayFromNow) {
    start();
    loader->blockIntfDelayIs(5.0);  // long past: the clock reads 100
    glueConfig->blockedIntfIs("Ethernet1");
    EXPECT_EQ(loader->blockIntfTimer().expiry(), 5.0);
    EXPECT_EQ(wheel.runPass(), 1u);
    EXPECT_EQ(blocked(), Strings{"Ethernet1"});
    EXPECT_EQ(Vorn::currentTime(), 100.0);
    // A time still to come does wait for it.
    loader->blockIntfDelayIs(130.0);
    glueConfig->blockedIntfDel("Ethernet1");
    EXPECT_EQ(wheel.runPass(), 0u);
    EXPECT_EQ(wheel.runUntil(130.0), 1u);
    EXPECT_EQ(blocked(), Strings{});
}

TEST_F(BlockIntfLoaderSmTest, TheCycleBlocksAtBlockIntfAndUnblocksAtUnblockIntf) {
    start();
    pDConfig->blockedIntfIs("Ethernet9");  // left over, not requested
    glueConfig->blockedIntfIs("Ethernet1");
    driver.clear();
    // Blocking only, at once, and the pending timer run is dropped.
    glueStatus->glueSmStateIs(blockIntf_);
    EXPECT_EQ(driver, Strings{"block Ethernet1"});
    EXPECT_FALSE(loader->blockIntfTimer().armed());
    // The states in between do nothing.
    glueConfig->blockedIntfDel("Ethernet1");
    glueConfig->blockedIntfIs("Ethernet3");
    for (GlueSmState s : {mappingLoader_, fail_})
        glueStatus->glueSmStateIs(s);
    EXPECT_EQ(driver, Strings{"block Ethernet1"});
    // Unblocking only: Ethernet3 waits for the next request or the next blockIntf.
    glueStatus->glueSmStateIs(unblockIntf_);
    EXPECT_EQ(driver, (Strings{"block Ethernet1", "unblock Ethernet1", "unblock Ethernet9"}));
    EXPECT_FALSE(loader->blockIntfTimer().armed());
    glueStatus->glueSmStateIs(idle_);
    EXPECT_EQ(wheel.runUntilIdle(), 0u);
    EXPECT_EQ(blocked(), Strings{});
    glueStatus->glueSmStateIs(blockIntf_);
    EXPECT_EQ(blocked(), Strings{"Ethernet3"});
}

TEST_F(BlockIntfLoaderSmTest, ADeletedLoaderWritesNothing) {
    start();
    glueConfig->blockedIntfIs("Ethernet1");
    loader->handleDelete();
    EXPECT_FALSE(loader->blockIntfTimer().armed());
    glueConfig->blockedIntfIs("Ethernet2");
    glueStatus->glueSmStateIs(blockIntf_);
    wheel.runUntilIdle();
    EXPECT_EQ(driver, Strings{});
}

}  // namespace
}  // namespace OvinMirel
