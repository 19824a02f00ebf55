#pragma once
// TestAgentMockSmManager: keeps one chip mock (TestAgentMockSm) per configured chip.
//
// Watches: PDConfig.chipConfig and PDStatus.chipPDStatus (entries added, replaced, removed).
// Writes:  TestAgentMockSmColl: a chip has a mock exactly while it has both a chip
//          configuration and a PD status, and the mock holds those very entities (a replaced
//          entry gets a new mock). New mocks start with the manager's allocMax.
// Owns:    the fault plan its mocks consult ("TestAgentFaultPlan"), which tests and
//          scenarios set through faultPlan(); its subscriptions. The mocks live in the shared
//          collection; the manager removes them when it is deleted.
// No timers of its own.

#include "ovinmirel/testagent/OvinMirelTestAgentFaultPlan.h"
#include "ovinmirel/testagent/OvinMirelTestAgentMockSm.h"
#include "platform/brix/TimerWheel.h"
#include "platform/mirel/PDConfig.h"
#include "platform/mirel/PDStatus.h"
#include "platform/vorn/StateMachine.h"

namespace OvinMirel {

class TestAgentMockSmManager : public Vorn::StateMachine {
    VORN_ENTITY("OvinMirel::TestAgentMockSmManager")
  public:
    // Every reference is required (Vorn::NullPointerException naming it).
    TestAgentMockSmManager(const Vorn::Ptr<Mirel::PDConfig>& pdConfig,
                           const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
                           const Vorn::Ptr<TestAgentMockSmColl>& mockSmColl,
                           Brix::TimerWheel& timerWheel);

    const Vorn::Ptr<TestAgentFaultPlan>& faultPlan() const { return faultPlan_; }
    const Vorn::Ptr<TestAgentMockSmColl>& mockSmColl() const { return mockSmColl_; }

    // The allocMax of every mock, present and future.
    uint32_t allocMax() const { return allocMax_.get(); }
    void allocMaxIs(uint32_t allocMax);
    VORN_ATTR_STORAGE(uint32_t, allocMax, TestAgentMockSm::kAllocUnlimited)

    // Brings every chip's mock in line, then follows the two collections.
    void handleInitialized() override;
    // Stops following and removes the mocks.
    void handleDelete() override;
    // Creates, replaces or removes the mock of one chip. REQUIRES: initialized().
    void updateMockSmColl(Mirel::ChipId chip);

  private:
    const Vorn::Ptr<Mirel::PDConfig> pdConfig_;
    const Vorn::Ptr<Mirel::PDStatus> pdStatus_;
    const Vorn::Ptr<TestAgentMockSmColl> mockSmColl_;
    Brix::TimerWheel* const timerWheel_;
    const Vorn::Ptr<TestAgentFaultPlan> faultPlan_;
    Vorn::Subscription chipConfigSub_;
    Vorn::Subscription chipPDStatusSub_;
};

Vorn::Ptr<TestAgentMockSmManager> testAgentMockSmManagerFactory(
    const Vorn::Ptr<Mirel::PDConfig>& pdConfig, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<TestAgentMockSmColl>& mockSmColl, Brix::TimerWheel& timerWheel);

}  // namespace OvinMirel
