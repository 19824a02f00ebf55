#pragma once
// The hardware layer's test world with the chip mocks playing the driver: the root machines
// of Mirel::RootSmTestWorld, plus the mock collection and its manager following PDConfig
// and PDStatus. Faults go through `faultPlan()`. Header only; not part of the library.

#include "ovinmirel/testagent/OvinMirelTestAgentFaultPlan.h"
#include "ovinmirel/testagent/OvinMirelTestAgentMockSm.h"
#include "ovinmirel/testagent/OvinMirelTestAgentMockSmManager.h"
#include "platform/mirel/RootSmTestWorld.h"

namespace OvinMirel {

struct TestAgentTestWorld : Mirel::RootSmTestWorld {
    // Destroyed before the wheel of the base.
    Vorn::Ptr<TestAgentMockSmColl> mockSmColl = testAgentMockSmCollFactory("TestAgentMockSmColl");
    Vorn::Ptr<TestAgentMockSmManager> manager =
        testAgentMockSmManagerFactory(pdConfig, pdStatus, mockSmColl, wheel);

    TestAgentTestWorld() { manager->handleInitialized(); }
    ~TestAgentTestWorld() { manager->handleDelete(); }

    TestAgentFaultPlan& faultPlan() { return *manager->faultPlan(); }
    Vorn::Ptr<TestAgentMockSm> mock(Mirel::ChipId chip) const { return mockSmColl->mockSm(chip); }
};

}  // namespace OvinMirel
