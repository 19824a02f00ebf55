#include "ovinmirel/testagent/OvinMirelTestAgentMockSm.h"

#include <utility>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelTestAgentMockSm");

}  // namespace

TestAgentMockSm::TestAgentMockSm(Mirel::ChipId chipId,
                                 const Vorn::Ptr<Mirel::ChipConfig>& chipConfig,
                                 const Vorn::Ptr<Mirel::ChipPDStatus>& chipPDStatus,
                                 const Vorn::Ptr<TestAgentFaultPlan>& faultPlan,
                                 Brix::TimerWheel& timerWheel)
    : Vorn::StateMachine(th),
      chipId_(chipId),
      chipConfig_(required(chipConfig, "chipConfig")),
      chipPDStatus_(required(chipPDStatus, "chipPDStatus")),
      faultPlan_(required(faultPlan, "faultPlan")),
      timerWheel_(&timerWheel) {
    VORN_ASSERT(chipConfig_->chipId() == chipId_);
    VORN_ASSERT(chipPDStatus_->chipId() == chipId_);
}

TestAgentMockSm::~TestAgentMockSm() = default;

void TestAgentMockSm::reinstantiate(const Vorn::Ptr<Mirel::ChipConfig>& chipConfig,
                                    const Vorn::Ptr<Mirel::ChipPDStatus>& chipPDStatus,
                                    const Vorn::Ptr<TestAgentFaultPlan>& faultPlan,
                                    Brix::TimerWheel& timerWheel) const {
    requireSameReference("chipConfig", chipConfig_, chipConfig);
    requireSameReference("chipPDStatus", chipPDStatus_, chipPDStatus);
    requireSameReference("faultPlan", faultPlan_, faultPlan);
    if (&timerWheel != timerWheel_)
        Vorn::throwPointerReinstantiation("timerWheel", "Brix::TimerWheel");
}

void TestAgentMockSm::handleInitialized() {
    if (initialized())
        return;
    StateMachine::handleInitialized();
    FLINQ(th, 8, "Chip-" << chipId_ << " handleInitialized");
    configSubs_ = chipConfig_->xformConfigNotify([this](Mirel::XformType t) {
        watchXformConfig(t);
        handleAttemptedConfig();
        handleActiveConfig();
    });
    for (int t = 0; t < Mirel::kXformTypeCount; ++t)
        watchXformConfig(Mirel::XformType(t));
    handleAttemptedConfig();
    handleActiveConfig();
}

void TestAgentMockSm::handleDelete() {
    FLINQ(th, 8, "Chip-" << chipId_ << " handleDelete");
    StateMachine::handleDelete();
    configSubs_.clear();
    for (int t = 0; t < Mirel::kXformTypeCount; ++t) {
        attemptedSubs_[t].reset();
        activeSubs_[t].reset();
    }
    deliveries_.clear();
}

void TestAgentMockSm::watchXformConfig(Mirel::XformType t) {
    attemptedSubs_[t].reset();
    activeSubs_[t].reset();
    if (const Vorn::Ptr<Mirel::XformConfig> xform = chipConfig_->xformConfig(t)) {
        attemptedSubs_[t] = xform->attemptedRequestIdNotify([this] { handleAttemptedConfig(); });
        activeSubs_[t] = xform->activeRequestIdNotify([this] { handleActiveConfig(); });
    }
}

void TestAgentMockSm::handleAttemptedConfig() {
    if (!initialized())
        return;
    FLINQ(th, 8, "Chip-" << chipId_ << " handleAttemptedConfig");
    for (int i = 0; i < Mirel::kXformTypeCount; ++i) {
        const Mirel::XformType t = Mirel::XformType(i);
        const Vorn::Ptr<Mirel::XformConfig> xform = chipConfig_->xformConfig(t);
        if (!xform) {
            FLINQ(th, 8, Mirel::xformConfigName(t) << " is not initialized.");
            continue;
        }
        const uint32_t attempted = xform->attemptedRequestId();
        const Mirel::XformStatus& stored = chipPDStatus_->xformStatus(t);
        if (attempted == stored.requestId || attempted == inFlight_[t])
            continue;
        const uint32_t entries = uint32_t(xform->attemptedXforms());
        FLINQ(th, 8,
              "  response for " << Mirel::xformConfigName(t) << " attemptedRequestId: " << attempted
                                << " attemptedXforms: " << entries);
        Mirel::XformStatus answer;
        answer.requestId = attempted;
        answer.entries = entries;
        answer.errorCode =
            entries > allocMax() ? Mirel::stageResourceExhausted_ : Mirel::stageSuccess_;
        answer.answers = 1;
        answer.activeRequestId = stored.activeRequestId;

        const std::optional<TestAgentFault> fault = faultPlan_->takeFault(chipId_, t);
        if (fault) {
            FLINQ(th, 2, "Chip-" << chipId_ << "   fault " << *fault << " on " << t);
            if (fault->failWith != Mirel::stageSuccess_)
                answer.errorCode = fault->failWith;
            if (fault->lost) {
                inFlight_[t] = attempted;
                continue;
            }
            if (fault->delay > 0.0) {
                inFlight_[t] = attempted;
                const Vorn::Seconds at = Vorn::currentTime() + fault->delay;
                later(at, t, answer, false);
                if (fault->answerTwice)
                    later(at, t, answer, true);
                continue;
            }
        }
        if (answer != stored)
            chipPDStatus_->xformStatusIs(t, answer);
        if (fault && fault->answerTwice)
            later(0.0, t, answer, true);  // deliberately time 0: the next pass
    }
}

void TestAgentMockSm::handleActiveConfig() {
    if (!initialized())
        return;
    FLINQ(th, 8, "Chip-" << chipId_ << " handleActiveConfig");
    for (int i = 0; i < Mirel::kXformTypeCount; ++i) {
        const Mirel::XformType t = Mirel::XformType(i);
        const Vorn::Ptr<Mirel::XformConfig> xform = chipConfig_->xformConfig(t);
        if (!xform)
            continue;
        Mirel::XformStatus status = chipPDStatus_->xformStatus(t);
        if (status.activeRequestId == xform->activeRequestId())
            continue;
        status.activeRequestId = xform->activeRequestId();
        FLINQ(th, 8,
              "  active for " << Mirel::xformConfigName(t)
                              << " activeRequestId: " << status.activeRequestId);
        chipPDStatus_->xformStatusIs(t, status);
    }
}

void TestAgentMockSm::ruleCounterIs(const Mirel::AclId& aclId, Acl::UniqueId id, uint64_t hits) {
    FLINQ(th, 8,
          "Chip-" << chipId_ << " ruleCounterIs " << aclId << " aclRuleId=" << id << " " << hits);
    chipPDStatus_->ruleCounterIs(Mirel::RuleCounterKey{aclId, id}, hits);
}

void TestAgentMockSm::ruleCounterDel(const Mirel::AclId& aclId, Acl::UniqueId id) {
    chipPDStatus_->ruleCounterDel(Mirel::RuleCounterKey{aclId, id});
}

void TestAgentMockSm::later(Vorn::Seconds at, Mirel::XformType t, const Mirel::XformStatus& answer,
                            bool repeat) {
    const uint64_t id = nextDelivery_++;
    auto timer = std::make_unique<Brix::Timer>(*timerWheel_, [this, id, t, answer, repeat] {
        const Vorn::Ptr<TestAgentMockSm> self(this);
        deliver(t, answer, repeat);
        deliveries_.erase(id);  // destroys this timer: nothing of it is used afterwards
    });
    timer->expiryIs(at);
    deliveries_.emplace(id, std::move(timer));
}

void TestAgentMockSm::deliver(Mirel::XformType t, Mirel::XformStatus answer, bool repeat) {
    if (!initialized())
        return;
    const Vorn::Ptr<Mirel::XformConfig> xform = chipConfig_->xformConfig(t);
    const Mirel::XformStatus& stored = chipPDStatus_->xformStatus(t);
    if (repeat) {
        if (stored.requestId != answer.requestId)
            return;
        answer.answers = stored.answers + 1;
    } else {
        if (inFlight_[t] == answer.requestId)
            inFlight_[t] = 0;
        // A request the hardware layer has replaced meanwhile gets no answer any more.
        if (!xform || xform->attemptedRequestId() != answer.requestId) {
            FLINQ(th, 2, "Chip-" << chipId_ << "   late answer dropped for " << t);
            return;
        }
    }
    answer.activeRequestId = stored.activeRequestId;
    FLINQ(th, 8,
          "Chip-" << chipId_ << "   " << (repeat ? "repeated" : "late") << " answer for " << t
                  << " attemptedRequestId: " << answer.requestId);
    chipPDStatus_->xformStatusIs(t, answer);
}

Vorn::Ptr<TestAgentMockSm> testAgentMockSmFactory(
    Mirel::ChipId chipId, const Vorn::Ptr<Mirel::ChipConfig>& chipConfig,
    const Vorn::Ptr<Mirel::ChipPDStatus>& chipPDStatus,
    const Vorn::Ptr<TestAgentFaultPlan>& faultPlan, Brix::TimerWheel& timerWheel) {
    return Vorn::make<TestAgentMockSm>(chipId, chipConfig, chipPDStatus, faultPlan, timerWheel);
}

Vorn::Ptr<TestAgentMockSmColl> testAgentMockSmCollFactory(const Vorn::Name& name) {
    return Vorn::make<TestAgentMockSmColl>(name);
}

}  // namespace OvinMirel
