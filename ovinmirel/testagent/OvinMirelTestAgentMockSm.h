#pragma once
// TestAgentMockSm: plays the platform driver of one chip. It answers every transform request
// the hardware layer writes into the chip's configuration, in the chip's PD status.
//
// Watches: the chip configuration's nine transform configurations (set, replaced, cleared),
//          in the order chipSrcMacAddrConfig, chipDstMacAddrConfig, chipMacEtherTypeConfig,
//          chipSrcIpV4PrefixConfig, chipDstIpV4PrefixConfig, chipSrcIpV6PrefixConfig,
//          chipDstIpV6PrefixConfig, chipSrcPortRangeConfig, chipDstPortRangeConfig, and each
//          one's attemptedRequestId and activeRequestId.
// Writes:  the nine transform statuses of the chip's PD status (Mirel::XformStatus).
//  - handleAttemptedConfig: a transform whose attempted request id is not the one answered
//    (nor one in flight) gets an answer: the request id, its entries, success or, when the
//    request holds more entries than `allocMax`, resourceExhausted; answers 1; the active
//    request id as acknowledged so far.
//  - handleActiveConfig: acknowledges the active request: a transform whose activeRequestId
//    differs from the acknowledged one gets its status's activeRequestId set to it (nothing
//    else changes). Faults do not touch acknowledgements.
//  - ruleCounterIs: the hits the driver counted for one rule of one chip rule list, as the
//    test or the simulator sets them (the ACL helper sums them over chips).
// Faults: before each answer the mock takes the chip's fault from the fault plan
//          (TestAgentFaultPlan::takeFault): it fails the answer with the fault's code, writes
//          it late, writes it again a pass later (answers 2), or drops it.
// Timers: one one-shot timer per late or repeated answer on the given wheel. A late answer
//          whose request is no longer the attempted one is dropped; a repeat is written only
//          while the status still answers that request.
// Owns:   its subscriptions and timers; the chip configuration, PD status and fault plan are
//          shared.

#include <array>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <vector>

#include "ovinmirel/testagent/OvinMirelTestAgentFaultPlan.h"
#include "platform/brix/TimerWheel.h"
#include "platform/mirel/PDConfig.h"
#include "platform/mirel/PDStatus.h"
#include "platform/vorn/StateMachine.h"

namespace OvinMirel {

class TestAgentMockSm : public Vorn::StateMachine {
    VORN_ENTITY("OvinMirel::TestAgentMockSm")
  public:
    static constexpr uint32_t kAllocUnlimited = std::numeric_limits<uint32_t>::max();

    // Every reference is required (Vorn::NullPointerException naming it); the chip
    // configuration and PD status are those of chipId (asserted).
    TestAgentMockSm(Mirel::ChipId chipId, const Vorn::Ptr<Mirel::ChipConfig>& chipConfig,
                    const Vorn::Ptr<Mirel::ChipPDStatus>& chipPDStatus,
                    const Vorn::Ptr<TestAgentFaultPlan>& faultPlan, Brix::TimerWheel& timerWheel);
    ~TestAgentMockSm() override;
    void reinstantiate(const Vorn::Ptr<Mirel::ChipConfig>& chipConfig,
                       const Vorn::Ptr<Mirel::ChipPDStatus>& chipPDStatus,
                       const Vorn::Ptr<TestAgentFaultPlan>& faultPlan,
                       Brix::TimerWheel& timerWheel) const;

    Mirel::ChipId chipId() const { return chipId_; }
    const Vorn::Ptr<Mirel::ChipConfig>& chipConfig() const { return chipConfig_; }
    const Vorn::Ptr<Mirel::ChipPDStatus>& chipPDStatus() const { return chipPDStatus_; }
    // The most entries one transform request may hold; a larger request fails with
    // resourceExhausted. Applies to requests answered from now on.
    VORN_ATTR(uint32_t, allocMax, kAllocUnlimited)

    // Watches the transforms, then answers whatever is outstanding. Again: nothing.
    void handleInitialized() override;
    // Stops: no subscription, no pending answer.
    void handleDelete() override;
    void handleAttemptedConfig();
    void handleActiveConfig();

    // The driver's count for a rule (its unique id) of a chip rule list, in the chip's PD
    // status; 0 keeps an entry (the driver polled and saw none), ruleCounterDel drops it.
    void ruleCounterIs(const Mirel::AclId& aclId, Acl::UniqueId id, uint64_t hits);
    void ruleCounterDel(const Mirel::AclId& aclId, Acl::UniqueId id);

  private:
    void watchXformConfig(Mirel::XformType t);
    // Schedules an answer (or its repeat) for `at`.
    void later(Vorn::Seconds at, Mirel::XformType t, const Mirel::XformStatus& answer, bool repeat);
    void deliver(Mirel::XformType t, Mirel::XformStatus answer, bool repeat);

    const Mirel::ChipId chipId_;
    const Vorn::Ptr<Mirel::ChipConfig> chipConfig_;
    const Vorn::Ptr<Mirel::ChipPDStatus> chipPDStatus_;
    const Vorn::Ptr<TestAgentFaultPlan> faultPlan_;
    Brix::TimerWheel* const timerWheel_;

    // Per transform, a request taken up whose answer is late or lost: not answered again.
    std::array<uint32_t, Mirel::kXformTypeCount> inFlight_{};
    // Late answers and repeats, by scheduling order.
    std::map<uint64_t, std::unique_ptr<Brix::Timer>> deliveries_;
    uint64_t nextDelivery_ = 0;

    std::vector<Vorn::Subscription> configSubs_;
    std::array<Vorn::Subscription, Mirel::kXformTypeCount> attemptedSubs_;
    std::array<Vorn::Subscription, Mirel::kXformTypeCount> activeSubs_;
};

class TestAgentMockSmColl : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::TestAgentMockSmColl")
  public:
    explicit TestAgentMockSmColl(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    // mockSmIs(chipId, <the constructor's other arguments>); deleting an entry stops it.
    VORN_MACHINE_MAP(Mirel::ChipId, TestAgentMockSm, mockSm)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<TestAgentMockSm> testAgentMockSmFactory(
    Mirel::ChipId chipId, const Vorn::Ptr<Mirel::ChipConfig>& chipConfig,
    const Vorn::Ptr<Mirel::ChipPDStatus>& chipPDStatus,
    const Vorn::Ptr<TestAgentFaultPlan>& faultPlan, Brix::TimerWheel& timerWheel);
Vorn::Ptr<TestAgentMockSmColl> testAgentMockSmCollFactory(const Vorn::Name& name);

}  // namespace OvinMirel
