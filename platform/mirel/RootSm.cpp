#include "platform/mirel/RootSm.h"

#include <algorithm>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"

namespace Mirel {

namespace {

Flinq::Handle th("MirelRootSm");

}  // namespace

RootNeeds rootNeeds(const RootConfig& root) {
    return RootNeedsTally().update(root);
}

RootSm::RootSm(uint32_t rootId, const Vorn::Ptr<RootConfig>& rootConfig,
               const Vorn::Ptr<RootStatus>& rootStatus,
               const Vorn::Ptr<ChipHwCapability>& chipHwCapability,
               const Vorn::Ptr<ChipConfig>& chipConfig, const Vorn::Ptr<ChipPDStatus>& chipPDStatus,
               Brix::TimerWheel& timerWheel, std::shared_ptr<RootNeedsTally> tally)
    : Vorn::StateMachine(th),
      rootId_(rootId),
      rootConfig_(required(rootConfig, "rootConfig")),
      rootStatus_(required(rootStatus, "rootStatus")),
      chipHwCapability_(required(chipHwCapability, "chipHwCapability")),
      chipConfig_(required(chipConfig, "chipConfig")),
      chipPDStatus_(required(chipPDStatus, "chipPDStatus")),
      timerWheel_(&timerWheel),
      tally_(tally ? std::move(tally) : std::make_shared<RootNeedsTally>()),
      timer_(timerWheel, [this] { handleTimer(); }) {
    VORN_ASSERT(rootConfig_->rootConfigId() == rootId_);
    VORN_ASSERT(rootStatus_->rootStatusId() == rootId_);
    VORN_ASSERT(chipHwCapability_->chipId() == chipId());
    VORN_ASSERT(chipConfig_->chipId() == chipId());
    VORN_ASSERT(chipPDStatus_->chipId() == chipId());
}

RootSm::~RootSm() = default;

void RootSm::reinstantiate(const Vorn::Ptr<RootConfig>& rootConfig,
                           const Vorn::Ptr<RootStatus>& rootStatus,
                           const Vorn::Ptr<ChipHwCapability>& chipHwCapability,
                           const Vorn::Ptr<ChipConfig>& chipConfig,
                           const Vorn::Ptr<ChipPDStatus>& chipPDStatus,
                           Brix::TimerWheel& timerWheel,
                           const std::shared_ptr<RootNeedsTally>& tally) const {
    requireSameReference("rootConfig", rootConfig_, rootConfig);
    requireSameReference("rootStatus", rootStatus_, rootStatus);
    requireSameReference("chipHwCapability", chipHwCapability_, chipHwCapability);
    requireSameReference("chipConfig", chipConfig_, chipConfig);
    requireSameReference("chipPDStatus", chipPDStatus_, chipPDStatus);
    if (&timerWheel != timerWheel_)
        Vorn::throwPointerReinstantiation("timerWheel", "Brix::TimerWheel");
    if (tally && tally != tally_)
        Vorn::throwPointerReinstantiation("tally", "Mirel::RootNeedsTally");
}

void RootSm::handleInitialized() {
    if (initialized())
        return;
    StateMachine::handleInitialized();
    FLINQ(th, 8, chipId() << ":" << rootId_ << " handleInitialized");
    kick_ = rootStatus_->kickResponse();
    actionSub_ = rootConfig_->actionNotify([this] { armTimer(); });
    kickSub_ = rootConfig_->mirelRootKickNotify([this] { armTimer(); });
    xformStatusSubs_ = chipPDStatus_->xformStatusNotify([this](XformType) { handleXformStatus(); });
    armTimer();
}

void RootSm::handleDelete() {
    FLINQ(th, 8, chipId() << ":" << rootId_ << " handleDelete");
    StateMachine::handleDelete();
    actionSub_.reset();
    kickSub_.reset();
    xformStatusSubs_.clear();
    timer_.expiryIs(Vorn::kInfinity);
    phase_ = Phase::idle;
}

void RootSm::armTimer() {
    // Deliberately the absolute time 0: due at once, so it fires on the next pass.
    timer_.expiryIs(0.0);
}

void RootSm::handleXformStatus() {
    if (phase_ == Phase::waitingDriver && allAnswered())
        armTimer();
}

bool RootSm::allAnswered() const {
    for (int t = 0; t < kXformTypeCount; ++t) {
        if (chipPDStatus_->xformStatus(XformType(t)).requestId != requestId_[t])
            return false;
    }
    return true;
}

void RootSm::handleTimer() {
    if (!initialized())
        return;
    // A reader of an answer may drop this machine from its collection.
    const Vorn::Ptr<RootSm> self(this);
    const uint32_t kick = rootConfig_->mirelRootKick();
    if (kick != 0 && kick != kick_) {
        // A new action supersedes whatever was pending: its answer is never written.
        kick_ = kick;
        phase_ = Phase::idle;
        const RootAction action = rootConfig_->action();
        FLINQ(th, 2, chipId() << ":" << rootId_ << " " << action << " kick " << kick);
        switch (action) {
            case rootActionCompute_:
                startCompute();
                return;
            case rootActionLoad_:
                startLoad();
                return;
            case rootActionAbort_:
                startAbort();
                return;
        }
        VORN_ASSERT_MSG(false, "unknown root action");
    }
    switch (phase_) {
        case Phase::idle:
            return;
        case Phase::waitingDriver: {
            if (!allAnswered())
                return;
            StageErrorCode error = stageSuccess_;
            for (int t = 0; t < kXformTypeCount && error == stageSuccess_; ++t) {
                const XformStatus& s = chipPDStatus_->xformStatus(XformType(t));
                if (s.errorCode != stageSuccess_) {
                    FLINQ(th, 2,
                          chipId() << ":" << rootId_ << "   " << XformType(t) << " failed "
                                   << s.errorCode);
                    error = s.errorCode;
                }
            }
            phase_ = Phase::idle;
            computed_ = error == stageSuccess_;
            FLINQ(th, 2,
                  chipId() << ":" << rootId_ << " "
                           << (computed_ ? rootComputed_ : rootComputeFailed_));
            answer(computed_ ? rootComputed_ : rootComputeFailed_, error);
            return;
        }
        case Phase::answerDue:
            phase_ = Phase::idle;
            FLINQ(th, 2, chipId() << ":" << rootId_ << " " << dueState_);
            answer(dueState_, dueError_);
            return;
    }
}

void RootSm::startCompute() {
    computed_ = false;
    needs_ = tally_->update(*rootConfig_);
    FLINQ(th, 2,
          chipId() << ":" << rootId_ << "   needs " << needs_.tcamEntries << " entries, "
                   << needs_.ruleLists << " rule lists, " << needs_.xformEntries
                   << " transform entries");
    StageErrorCode error = stageSuccess_;
    if (needs_.tcamEntries > chipHwCapability_->tcamEntryMax()) {
        error = stageTcamFull_;
    } else if (needs_.ruleLists > chipHwCapability_->ruleListIdCount() ||
               needs_.xformEntries > chipHwCapability_->xformEntryMax()) {
        error = stageResourceExhausted_;
    }
    for (int t = 0; t < kXformTypeCount && error == stageSuccess_; ++t) {
        if (!chipConfig_->xformConfig(XformType(t))) {
            FLINQ(th, 2, chipId() << ":" << rootId_ << "   " << XformType(t) << " missing");
            error = stageInvalidConfig_;
        }
    }
    if (error != stageSuccess_) {
        FLINQ(th, 2, chipId() << ":" << rootId_ << " " << rootComputeFailed_ << " " << error);
        answer(rootComputeFailed_, error);
        return;
    }
    if (!answer(rootComputing_, stageSuccess_) || rootConfig_->mirelRootKick() != kick_)
        return;
    for (int t = 0; t < kXformTypeCount; ++t) {
        const XformType type = XformType(t);
        const Vorn::Ptr<XformConfig> xform = chipConfig_->xformConfig(type);
        const std::vector<std::string>& values = needs_.xformValues[t];
        // The request's entries first: the driver takes the request up on its id.
        for (const Vorn::String& old : xform->attemptedXform().keys()) {
            if (!std::ranges::binary_search(values, old))
                xform->attemptedXformDel(old);
        }
        for (size_t i = 0; i < values.size(); ++i)
            xform->attemptedXformIs(values[i], uint32_t(i + 1));
        requestId_[t] = std::max(xform->attemptedRequestId(), xform->activeRequestId()) + 1;
        FLINQ(th, 8,
              chipId() << ":" << rootId_ << "   " << type << " request " << requestId_[t] << ", "
                       << values.size() << " entries");
        xform->attemptedRequestIdIs(requestId_[t]);
    }
    phase_ = Phase::waitingDriver;
    handleXformStatus();
}

void RootSm::startLoad() {
    VORN_ASSERT(computed_);
    if (!answer(rootLoading_, stageSuccess_) || rootConfig_->mirelRootKick() != kick_)
        return;
    for (int t = 0; t < kXformTypeCount; ++t) {
        if (const Vorn::Ptr<XformConfig> xform = chipConfig_->xformConfig(XformType(t)))
            xform->activeRequestIdIs(requestId_[t]);
    }
    writeTableUsage();
    dueState_ = rootLoaded_;
    dueError_ = stageSuccess_;
    phase_ = Phase::answerDue;
    armTimer();
}

void RootSm::startAbort() {
    computed_ = false;
    // A root that failed keeps its reason; one that computed well was aborted for another
    // chip's failure.
    const StageErrorCode error = rootStatus_->rootState() == rootComputeFailed_
                                     ? rootStatus_->errorCode()
                                     : stageAbortedByPeer_;
    if (!answer(rootAborting_, error) || rootConfig_->mirelRootKick() != kick_)
        return;
    dueState_ = rootAborted_;
    dueError_ = error;
    phase_ = Phase::answerDue;
    armTimer();
}

bool RootSm::answer(RootState state, StageErrorCode error) {
    rootStatus_->errorCodeIs(error);
    if (state == rootLoaded_)
        rootStatus_->activeIs(true);
    rootStatus_->rootStateIs(state);
    rootStatus_->kickResponseIs(kick_);
    return initialized();
}

void RootSm::writeTableUsage() {
    FLINQ(th, 2,
          chipId() << ":" << rootId_ << "   usage " << needs_.tcamEntries << " entries, "
                   << needs_.ruleLists << " rule lists, " << needs_.xformEntries
                   << " transform entries");
    chipPDStatus_->entryTableUsageIs({needs_.tcamEntries, chipHwCapability_->tcamEntryMax()});
    chipPDStatus_->ruleListIdsUsageIs({needs_.ruleLists, chipHwCapability_->ruleListIdCount()});
    chipPDStatus_->algoMatchUsageIs({needs_.xformEntries, chipHwCapability_->xformEntryMax()});
}

Vorn::Ptr<RootSm> rootSmFactory(uint32_t rootId, const Vorn::Ptr<RootConfig>& rootConfig,
                                const Vorn::Ptr<RootStatus>& rootStatus,
                                const Vorn::Ptr<ChipHwCapability>& chipHwCapability,
                                const Vorn::Ptr<ChipConfig>& chipConfig,
                                const Vorn::Ptr<ChipPDStatus>& chipPDStatus,
                                Brix::TimerWheel& timerWheel,
                                std::shared_ptr<RootNeedsTally> tally) {
    return Vorn::make<RootSm>(rootId, rootConfig, rootStatus, chipHwCapability, chipConfig,
                              chipPDStatus, timerWheel, std::move(tally));
}

const std::shared_ptr<RootNeedsTally>& RootSmColl::rootNeedsTally(ChipId chip) {
    std::shared_ptr<RootNeedsTally>& tally = tallies_[chip];
    if (!tally)
        tally = std::make_shared<RootNeedsTally>();
    return tally;
}

Vorn::Ptr<RootSmColl> rootSmCollFactory(const Vorn::Name& name) {
    return Vorn::make<RootSmColl>(name);
}

}  // namespace Mirel
