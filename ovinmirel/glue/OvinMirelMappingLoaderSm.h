#pragma once
// MappingLoaderSm: one chip's mapping loader. The PD mapping writes the chip's mappings into
// the platform-independent data-flow configuration (the input) whenever it likes; this machine
// copies them into the data-flow configuration of the chip's PD configuration (the output),
// which the hardware programs, only when the commit cycle allows it.
//
// Watches: the input's five mapping tables and its globalAclControl (one handler each, which
//          records the changed key, or a flag, and arms the queue timer);
//          GlueStatus.glueSmState. All from handleInitialized on, until handleDelete.
// Writes:  the output's five mapping tables and its globalAclControl; nothing else writes them.
// Timers:  queueProcessTimer, armed for the absolute time 0.0: it fires at the next service of
//          the timer wheel, so every change of one pass of the event loop is handled by one
//          run of the queues. The first change after a run arms it; later ones join that run.
// Invariants:
//  1. The queues hold keys, not values: processing copies what the input holds at that time,
//     and a key the input no longer holds is deleted from the output.
//  2. The output is written only in idle, success and mappingLoader; in aborting and fail the
//     five queues are dropped (the aborted computation's mappings are never loaded, while a
//     pending globalAclControl change is kept); in every other state they wait.
//  3. Nothing is lost for good by that drop. The input follows the chip's active root, which
//     an aborted cycle leaves in place, so a key dropped there may well be a change the chip
//     needs (a port that left it while another chip failed). When keys were dropped, the next
//     run in idle queues every key on which input and output differ and processes them in the
//     usual order: once idle, the output equals the input.
//  4. Safe order within one run: new chip rule list keys are set before any place is pointed
//     at them, old ones are cleared only after no place points at them, and globalAclControl
//     is written last.
// Owns: shared references to its input, output and GlueStatus; its timer on the given wheel.

#include <vector>

#include "ovinmirel/glue/OvinMirelGlueStatus.h"
#include "platform/bridging/VlanId.h"
#include "platform/brix/TimerWheel.h"
#include "platform/mirel/ChipDataFlowConfig.h"
#include "platform/mirel/ChipId.h"
#include "platform/vorn/Clock.h"
#include "platform/vorn/Entity.h"
#include "platform/vorn/Name.h"
#include "platform/vorn/StateMachine.h"
#include "platform/zamu/IntfId.h"

namespace OvinMirel {

class MappingLoaderSm : public Vorn::StateMachine {
    VORN_ENTITY("OvinMirel::MappingLoaderSm")
  public:
    // Every reference is required (Vorn::NullPointerException naming it).
    MappingLoaderSm(Mirel::ChipId chipId,
                    const Vorn::Ptr<const Mirel::ChipDataFlowConfig>& inputChipDataFlowConfig,
                    const Vorn::Ptr<Mirel::ChipDataFlowConfig>& outputChipDataFlowConfig,
                    const Vorn::Ptr<const GlueStatus>& glueStatus, Brix::TimerWheel& timerWheel);
    // Asked for again (mappingLoaderIs on an existing chip): the same references are required,
    // anything else is refused (Vorn::ReinstantiationException).
    void reinstantiate(const Vorn::Ptr<const Mirel::ChipDataFlowConfig>& inputChipDataFlowConfig,
                       const Vorn::Ptr<Mirel::ChipDataFlowConfig>& outputChipDataFlowConfig,
                       const Vorn::Ptr<const GlueStatus>& glueStatus,
                       Brix::TimerWheel& timerWheel) const;

    Mirel::ChipId chipId() const { return chipId_; }
    const Vorn::Ptr<const Mirel::ChipDataFlowConfig>& inputChipDataFlowConfig() const {
        return inputChipDataFlowConfig_;
    }
    const Vorn::Ptr<Mirel::ChipDataFlowConfig>& outputChipDataFlowConfig() const {
        return outputChipDataFlowConfig_;
    }
    const Vorn::Ptr<const GlueStatus>& glueStatus() const { return glueStatus_; }

    // The pending keys, by input table, as they were queued: a key changed twice is there
    // twice (a run takes each key once, in key order).
    const std::vector<Zamu::IntfId>& intfQueue() const { return intfQueue_; }
    const std::vector<Zamu::IntfId>& routedPortQueue() const { return routedPortQueue_; }
    const std::vector<Bridging::VlanId>& vlanQueue() const { return vlanQueue_; }
    const std::vector<Zamu::IntfId>& subIntfQueue() const { return subIntfQueue_; }
    const std::vector<Mirel::ChipRuleListIdKey>& chipRuleListIdKeyQueue() const {
        return chipRuleListIdKeyQueue_;
    }
    bool globalAclControlChanged() const { return globalAclControlChanged_; }
    // Keys were dropped by an aborted cycle: the next run in idle reconciles input and output.
    bool resyncPending() const { return resyncPending_; }
    const Brix::Timer& queueProcessTimer() const { return queueProcessTimer_; }
    // A setting for the owner; the queue timer does not read it (it always fires at the next
    // service of the wheel).
    Vorn::Seconds queueProcessDelay() const { return queueProcessDelay_; }
    void queueProcessDelayIs(Vorn::Seconds delay) { queueProcessDelay_ = delay; }

    // Sets initialized, starts watching, empties the output's tables except
    // routedPortToHwAclIndex, queues every key of the input and processes the queues once.
    void handleInitialized() override;
    // Stops watching, disarms the timer and clears initialized; the output stays as it is.
    void handleDelete() override;

    // One input key (or the control value) changed: queue it and arm the timer.
    // REQUIRES: initialized().
    void handleIntfId(const Zamu::IntfId& intf);
    void handleRoutedPort(const Zamu::IntfId& intf);
    void handleVlan(const Bridging::VlanId& vlan);
    void handleSubIntfId(const Zamu::IntfId& intf);
    void handleChipRuleListIdKey(const Mirel::ChipRuleListIdKey& key);
    void handleGlobalAclControl();
    // GlueStatus.glueSmState changed. REQUIRES: initialized().
    void handleGlueStatus();
    // Processes, keeps or drops the queues according to the glue state.
    void handleQueueProcessTimer();

  private:
    void armQueueProcessTimer();
    // Drops the five queues; true when any of them held a key.
    bool clearQueues();
    void queueDifferences();

    const Mirel::ChipId chipId_;
    const Vorn::Ptr<const Mirel::ChipDataFlowConfig> inputChipDataFlowConfig_;
    const Vorn::Ptr<Mirel::ChipDataFlowConfig> outputChipDataFlowConfig_;
    const Vorn::Ptr<const GlueStatus> glueStatus_;
    // Vectors, appended to: a change queues a handful of keys, for which a tree would
    // allocate a node each.
    std::vector<Zamu::IntfId> intfQueue_;
    std::vector<Zamu::IntfId> routedPortQueue_;
    std::vector<Bridging::VlanId> vlanQueue_;
    std::vector<Zamu::IntfId> subIntfQueue_;
    std::vector<Mirel::ChipRuleListIdKey> chipRuleListIdKeyQueue_;
    bool globalAclControlChanged_ = false;
    bool resyncPending_ = false;
    Vorn::Seconds queueProcessDelay_ = 0.0;
    Brix::Timer queueProcessTimer_;
    Vorn::Subscription intfSub_;
    Vorn::Subscription routedPortSub_;
    Vorn::Subscription vlanSub_;
    Vorn::Subscription subIntfSub_;
    Vorn::Subscription chipRuleListIdKeySub_;
    Vorn::Subscription globalAclControlSub_;
    Vorn::Subscription glueSmStateSub_;
};

// The loaders of all chips, keyed by chip. Deleting an entry stops its machine.
class MappingLoaderSmColl : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::MappingLoaderSmColl")
  public:
    explicit MappingLoaderSmColl(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    // mappingLoaderIs(chipId, inputChipDataFlowConfig, outputChipDataFlowConfig, glueStatus,
    // timerWheel)
    VORN_MACHINE_MAP(Mirel::ChipId, MappingLoaderSm, mappingLoader)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<MappingLoaderSm> mappingLoaderSmFactory(
    Mirel::ChipId chipId, const Vorn::Ptr<const Mirel::ChipDataFlowConfig>& inputChipDataFlowConfig,
    const Vorn::Ptr<Mirel::ChipDataFlowConfig>& outputChipDataFlowConfig,
    const Vorn::Ptr<const GlueStatus>& glueStatus, Brix::TimerWheel& timerWheel);
Vorn::Ptr<MappingLoaderSmColl> mappingLoaderSmCollFactory(const Vorn::Name& name);

}  // namespace OvinMirel
