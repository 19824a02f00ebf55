#include "ovinmirel/glue/OvinMirelBlockIntfLoaderSm.h"

#include <algorithm>
#include <vector>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelBlockIntfLoaderSm");

// The requested interfaces, copied (the walks write the driver's set, whose watchers may write
// the request set) and in id order: the order of blocking shows in the trace.
std::vector<Zamu::IntfId> requested(const GlueConfig& glueConfig) {
    return glueConfig.blockedIntf().sortedKeys();
}

}  // namespace

BlockIntfLoaderSm::BlockIntfLoaderSm(const Vorn::Ptr<const GlueConfig>& glueConfig,
                                     const Vorn::Ptr<const GlueStatus>& glueStatus,
                                     const Vorn::Ptr<Mirel::PDConfig>& pDConfig,
                                     Brix::TimerWheel& timerWheel)
    : Vorn::StateMachine(th),
      glueConfig_(required(glueConfig, "glueConfig")),
      glueStatus_(required(glueStatus, "glueStatus")),
      pDConfig_(required(pDConfig, "pDConfig")),
      blockIntfTimer_(timerWheel, [this] { handleBlockIntfTimer(); }) {}

void BlockIntfLoaderSm::handleInitialized() {
    FLINQ(th, 2, "handleInitialized");
    StateMachine::handleInitialized();
    blockedIntfSub_ =
        glueConfig_->blockedIntfNotify([this](const Zamu::IntfId& i) { handleBlockedIntf(i); });
    glueSmStateSub_ = glueStatus_->glueSmStateNotify([this] { handleGlueSmState(); });
    // What the driver blocks from before (a restart) is reviewed as well as what is asked.
    for (const Zamu::IntfId& intf : pDConfig_->blockedIntf().keys())
        handleBlockedIntf(intf);
    for (const Zamu::IntfId& intf : requested(*glueConfig_))
        handleBlockedIntf(intf);
}

void BlockIntfLoaderSm::handleDelete() {
    FLINQ(th, 2, "handleDelete");
    blockedIntfSub_.reset();
    glueSmStateSub_.reset();
    blockIntfTimer_.expiryIs(Vorn::kInfinity);
    StateMachine::handleDelete();
}

void BlockIntfLoaderSm::handleBlockedIntf(const Zamu::IntfId& intf) {
    FLINQ(th, 8, "handleBlockedIntf " << intf);
    VORN_ASSERT(initialized());
    if (glueConfig_->blockedIntf(intf)) {
        FLINQ(th, 8, "  queueing up blocking of " << intf);
    } else {
        FLINQ(th, 8, "  queueing up unblocking of " << intf);
    }
    // An absolute time, deliberately not added to now: with the default 0.0 (or any time in
    // the past) the work runs at the next service of the wheel, together with the rest of
    // the burst.
    blockIntfTimer_.expiryIs(blockIntfDelay_);
}

void BlockIntfLoaderSm::handleBlockIntfTimer() {
    FLINQ(th, 8, "handleBlockIntfTimer");
    if (!initialized())
        return;
    processBlockIntfs();
    processUnblockIntfs();
}

void BlockIntfLoaderSm::handleGlueSmState() {
    const GlueSmState state = glueStatus_->glueSmState();
    FLINQ(th, 8, "handleGlueSmState " << state);
    if (!initialized())
        return;
    if (state == blockIntf_) {
        blockIntfTimer_.expiryIs(Vorn::kInfinity);
        processBlockIntfs();
    } else if (state == unblockIntf_) {
        blockIntfTimer_.expiryIs(Vorn::kInfinity);
        processUnblockIntfs();
    }
}

void BlockIntfLoaderSm::processBlockIntfs() {
    FLINQ(th, 8, "processBlockIntfs");
    VORN_ASSERT(initialized());
    for (const Zamu::IntfId& intf : requested(*glueConfig_)) {
        if (pDConfig_->blockedIntf(intf))
            continue;
        FLINQ(th, 8, "  blocking " << intf);
        pDConfig_->blockedIntfIs(intf);
    }
}

void BlockIntfLoaderSm::processUnblockIntfs() {
    FLINQ(th, 8, "processUnblockIntfs");
    VORN_ASSERT(initialized());
    // A copy of the keys: the walk deletes from the set it walks.
    for (const Zamu::IntfId& intf : pDConfig_->blockedIntf().keys()) {
        if (glueConfig_->blockedIntf(intf))
            continue;
        FLINQ(th, 8, "  unblocking " << intf);
        pDConfig_->blockedIntfDel(intf);
    }
}

Vorn::Ptr<BlockIntfLoaderSm> blockIntfLoaderSmFactory(const Vorn::Ptr<const GlueConfig>& glueConfig,
                                                      const Vorn::Ptr<const GlueStatus>& glueStatus,
                                                      const Vorn::Ptr<Mirel::PDConfig>& pDConfig,
                                                      Brix::TimerWheel& timerWheel) {
    return Vorn::make<BlockIntfLoaderSm>(glueConfig, glueStatus, pDConfig, timerWheel);
}

}  // namespace OvinMirel
