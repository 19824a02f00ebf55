#include "ovinmirel/testagent/OvinMirelTestAgentMockSmManager.h"

#include <set>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelTestAgentMockSmManager");

}  // namespace

TestAgentMockSmManager::TestAgentMockSmManager(const Vorn::Ptr<Mirel::PDConfig>& pdConfig,
                                               const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
                                               const Vorn::Ptr<TestAgentMockSmColl>& mockSmColl,
                                               Brix::TimerWheel& timerWheel)
    : Vorn::StateMachine(th),
      pdConfig_(required(pdConfig, "pdConfig")),
      pdStatus_(required(pdStatus, "pdStatus")),
      mockSmColl_(required(mockSmColl, "mockSmColl")),
      timerWheel_(&timerWheel),
      faultPlan_(testAgentFaultPlanFactory("TestAgentFaultPlan")) {}

void TestAgentMockSmManager::allocMaxIs(uint32_t allocMax) {
    allocMax_.set(allocMax);
    for (const auto& [chip, mock] : mockSmColl_->mockSm())
        mock->allocMaxIs(allocMax);
}

void TestAgentMockSmManager::handleInitialized() {
    if (initialized())
        return;
    StateMachine::handleInitialized();
    FLINQ(th, 8, "handleInitialized");
    chipConfigSub_ = pdConfig_->chipConfigNotify([this](Mirel::ChipId c) { updateMockSmColl(c); });
    chipPDStatusSub_ =
        pdStatus_->chipPDStatusNotify([this](Mirel::ChipId c) { updateMockSmColl(c); });
    // Chips with a mock or a configuration, in chip order.
    std::set<Mirel::ChipId> chips;
    for (const Mirel::ChipId& c : pdConfig_->chipConfig().keys())
        chips.insert(c);
    for (const Mirel::ChipId& c : mockSmColl_->mockSm().keys())
        chips.insert(c);
    for (const Mirel::ChipId& c : chips)
        updateMockSmColl(c);
}

void TestAgentMockSmManager::handleDelete() {
    FLINQ(th, 8, "handleDelete");
    StateMachine::handleDelete();
    chipConfigSub_.reset();
    chipPDStatusSub_.reset();
    mockSmColl_->mockSmDelAll();
}

void TestAgentMockSmManager::updateMockSmColl(Mirel::ChipId chip) {
    VORN_ASSERT(initialized());
    const Vorn::Ptr<Mirel::ChipConfig> chipConfig = pdConfig_->chipConfig(chip);
    const Vorn::Ptr<Mirel::ChipPDStatus> chipPDStatus = pdStatus_->chipPDStatus(chip);
    const Vorn::Ptr<TestAgentMockSm> mock = mockSmColl_->mockSm(chip);
    if (mock && (mock->chipConfig() != chipConfig || mock->chipPDStatus() != chipPDStatus)) {
        FLINQ(th, 8, "updateMockSmColl Chip-" << chip << " removed");
        mockSmColl_->mockSmDel(chip);
    }
    if (!chipConfig || !chipPDStatus || mockSmColl_->mockSm(chip))
        return;
    FLINQ(th, 8, "updateMockSmColl Chip-" << chip << " added");
    const Vorn::Ptr<TestAgentMockSm> added =
        mockSmColl_->mockSmIs(chip, chipConfig, chipPDStatus, faultPlan_, *timerWheel_);
    added->allocMaxIs(allocMax());
    added->handleInitialized();
}

Vorn::Ptr<TestAgentMockSmManager> testAgentMockSmManagerFactory(
    const Vorn::Ptr<Mirel::PDConfig>& pdConfig, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<TestAgentMockSmColl>& mockSmColl, Brix::TimerWheel& timerWheel) {
    return Vorn::make<TestAgentMockSmManager>(pdConfig, pdStatus, mockSmColl, timerWheel);
}

}  // namespace OvinMirel
