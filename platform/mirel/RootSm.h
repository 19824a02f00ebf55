#pragma once
// Mirel::RootSm: the hardware layer's machine for one root (one per attempt root, kept in a
// RootSmColl keyed by root id). It turns the root's rule lists into the chip's transform
// requests and TCAM needs, waits for the driver, and answers compute, load and abort.
//
// Watches: RootConfig.action and RootConfig.mirelRootKick; the chip's nine transform statuses
//          in ChipPDStatus (the driver's answers).
// Writes:  RootStatus (rootState, errorCode, active, kickResponse); the chip's nine
//          XformConfigs in ChipConfig (attemptedXform, attemptedRequestId on compute,
//          activeRequestId on load); the chip's table usage in ChipPDStatus on load; its
//          RootNeedsTally on compute.
// Timer:   one one-shot timer on the given wheel; every answer is written from it, never from
//          inside the write that asked (nor from a driver's notification).
// Owns:    nothing but its subscriptions and its timer; every reference is shared (the tally
//          with the chip's other roots, through RootSmColl::rootNeedsTally).
//
// Protocol. An action is the configuration's `action` under a new `mirelRootKick` (kick 0 is
// never an action). The machine looks at both on the next wheel pass after either changed, so
// the glue may write them in either order.
//  - compute (0): derives what the root needs from its lists (AclRuleList::needs, cached per
//    list, counted in the tally the machine was given, the chip's, so that only the lists
//    that changed since the last compute on the chip move the counts): TCAM entries, one chip rule
//    list id per rule list, and the distinct values of each transform. A root that needs more than
//    ChipHwCapability allows answers 3 at once: tcamFull for entries, resourceExhausted for rule
//    list ids or transform class ids. Otherwise it answers 1 (computing), writes every transform's
//    request (the values in text order get class ids 1, 2, ...; the request id is one above both
//    the attempted and the active id), and once the driver has answered every request of this
//    compute, answers 2, or 3 with the error of the first failed transform in transform order. A
//    transform configuration missing from the chip configuration answers 3 invalidConfig.
//  - load (1), only after this machine answered 2 (asserted): answers 4, makes its request
//    ids active, writes the chip's table usage, then answers 5 with the status marked active.
//    Load waits for no driver answer: a load has no failure answer.
//  - abort (2): answers 6, then 7. The active request ids stay as they were. The error code
//    of a failed computation is kept; a root aborted after computing well reports
//    abortedByPeer.
// Each answer writes errorCode and rootState (and active) before kickResponse := the kick it
// acts on, so a reader woken by the kick response reads a complete answer. Load and abort
// answer twice under one kick (4 then 5, 6 then 7): a reader waiting for the end watches
// rootState as well.
//
// Invariants:
//  1. An answer is written only for the configuration's current kick: a newer action
//     supersedes the one in progress, whose answer is never written.
//  2. The machine waits only for its own requests: the driver's answer to another request
//     id (older, or another root's) changes nothing.
//  3. A repeated driver answer changes nothing once the root has answered.
// REQUIRES: one root of a chip computes at a time (the glue's attempt root); a second compute
// on the chip takes the transform configurations over and the first waits for ever.
// A machine made for a status that already answered the configuration's kick does not act on
// that kick again.

#include <array>
#include <cstdint>
#include <map>
#include <memory>

#include "platform/brix/TimerWheel.h"
#include "platform/mirel/HwCapability.h"
#include "platform/mirel/PDConfig.h"
#include "platform/mirel/PDStatus.h"
#include "platform/mirel/Root.h"
#include "platform/mirel/RootNeedsTally.h"
#include "platform/vorn/StateMachine.h"

namespace Mirel {

// A pass over every list of the root, counted from nothing (see RootNeedsTally).
RootNeeds rootNeeds(const RootConfig& root);

class RootSm : public Vorn::StateMachine {
    VORN_ENTITY("Mirel::RootSm")
  public:
    // Every reference is required (Vorn::NullPointerException naming it); the root ids of
    // the configuration and the status are rootId, and the chip of the capability, the chip
    // configuration and the chip PD status is the root's chip (asserted). Without a tally the
    // machine counts from nothing on each compute.
    RootSm(uint32_t rootId, const Vorn::Ptr<RootConfig>& rootConfig,
           const Vorn::Ptr<RootStatus>& rootStatus,
           const Vorn::Ptr<ChipHwCapability>& chipHwCapability,
           const Vorn::Ptr<ChipConfig>& chipConfig, const Vorn::Ptr<ChipPDStatus>& chipPDStatus,
           Brix::TimerWheel& timerWheel, std::shared_ptr<RootNeedsTally> tally = nullptr);
    ~RootSm() override;
    // Asked again for the same root: the same references, or Vorn::ReinstantiationException.
    void reinstantiate(const Vorn::Ptr<RootConfig>& rootConfig,
                       const Vorn::Ptr<RootStatus>& rootStatus,
                       const Vorn::Ptr<ChipHwCapability>& chipHwCapability,
                       const Vorn::Ptr<ChipConfig>& chipConfig,
                       const Vorn::Ptr<ChipPDStatus>& chipPDStatus, Brix::TimerWheel& timerWheel,
                       const std::shared_ptr<RootNeedsTally>& tally = nullptr) const;

    uint32_t rootId() const { return rootId_; }
    ChipId chipId() const { return ChipId(rootId_ >> 1); }
    const Vorn::Ptr<RootConfig>& rootConfig() const { return rootConfig_; }
    const Vorn::Ptr<RootStatus>& rootStatus() const { return rootStatus_; }

    // Subscribes, then looks at the configuration on the next pass (an action already there
    // and not yet answered is acted on). Again on an initialized machine: nothing.
    void handleInitialized() override;
    // Stops: no subscription, no timer, no answer after this.
    void handleDelete() override;

    // The request ids of this machine's last compute, by transform (0 before any).
    uint32_t requestId(XformType t) const { return requestId_[t]; }

  private:
    enum class Phase : uint8_t {
        idle,           // nothing pending
        waitingDriver,  // compute requests out, waiting for every answer
        answerDue,      // a final answer is due on the next pass
    };

    void handleTimer();
    void handleXformStatus();
    void armTimer();
    void startCompute();
    void startLoad();
    void startAbort();
    bool allAnswered() const;
    // Writes errorCode, rootState (and active when asked), then kickResponse. Returns false
    // when the machine was deleted by a reader of the answer.
    bool answer(RootState state, StageErrorCode error);
    void writeTableUsage();

    const uint32_t rootId_;
    const Vorn::Ptr<RootConfig> rootConfig_;
    const Vorn::Ptr<RootStatus> rootStatus_;
    const Vorn::Ptr<ChipHwCapability> chipHwCapability_;
    const Vorn::Ptr<ChipConfig> chipConfig_;
    const Vorn::Ptr<ChipPDStatus> chipPDStatus_;
    Brix::TimerWheel* const timerWheel_;
    const std::shared_ptr<RootNeedsTally> tally_;

    uint32_t kick_ = 0;  // the kick acted on last
    Phase phase_ = Phase::idle;
    RootState dueState_ = rootComputePending_;
    StageErrorCode dueError_ = stageSuccess_;
    bool computed_ = false;  // answered 2 under the kick of the last compute
    RootNeeds needs_;        // of the last compute
    std::array<uint32_t, kXformTypeCount> requestId_{};

    Brix::Timer timer_;
    Vorn::Subscription actionSub_;
    Vorn::Subscription kickSub_;
    std::vector<Vorn::Subscription> xformStatusSubs_;
};

class RootSmColl : public Vorn::Entity {
    VORN_ENTITY("Mirel::RootSmColl")
  public:
    explicit RootSmColl(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    // rootSmIs(rootId, <the constructor's other arguments>); deleting an entry stops it.
    VORN_MACHINE_MAP(uint32_t, RootSm, rootSm)

    // The chip's tally, made on first use, for each root machine of the chip: what the last
    // root computed on it was counted from. Dropped with the chip (its lists go with it).
    const std::shared_ptr<RootNeedsTally>& rootNeedsTally(ChipId chip);
    void rootNeedsTallyDel(ChipId chip) { tallies_.erase(chip); }
    size_t rootNeedsTallies() const { return tallies_.size(); }

  private:
    const Vorn::Name name_;
    std::map<ChipId, std::shared_ptr<RootNeedsTally>> tallies_;
};

Vorn::Ptr<RootSm> rootSmFactory(uint32_t rootId, const Vorn::Ptr<RootConfig>& rootConfig,
                                const Vorn::Ptr<RootStatus>& rootStatus,
                                const Vorn::Ptr<ChipHwCapability>& chipHwCapability,
                                const Vorn::Ptr<ChipConfig>& chipConfig,
                                const Vorn::Ptr<ChipPDStatus>& chipPDStatus,
                                Brix::TimerWheel& timerWheel,
                                std::shared_ptr<RootNeedsTally> tally = nullptr);
// The glue's collection is named "MirelRootSmColl".
Vorn::Ptr<RootSmColl> rootSmCollFactory(const Vorn::Name& name);

}  // namespace Mirel
