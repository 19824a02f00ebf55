#pragma once
// BlockIntfLoaderSm: keeps the driver's blocked interfaces (PDConfig.blockedIntf) in step with
// the interfaces the agent asks to hold (GlueConfig.blockedIntf). One per process, created and
// initialised by the glue state machine.
//
// Watches: GlueConfig.blockedIntf (each interface added or removed); GlueStatus.glueSmState.
//          Both from handleInitialized on, until handleDelete.
// Writes:  PDConfig.blockedIntf; nothing else writes it.
// Timers:  blockIntfTimer, armed for the ABSOLUTE time blockIntfDelay (0.0 by default): the
//          delay only defers the work to the next service of the timer wheel, so that a burst
//          of requests is handled together; it is not added to the current time.
// Invariants:
//  1. No queue of its own: the difference between the two sets is the work to do, so a
//     request withdrawn before the timer fires leaves nothing behind.
//  2. Blocking follows the request at the next timer service and again when the cycle passes
//     blockIntf; unblocking likewise, and again at unblockIntf, which every cycle passes, so
//     no interface stays blocked past a cycle's end once its request is gone.
//  3. Interfaces are blocked and unblocked in interface-id order.
// Owns: shared references to its inputs and to PDConfig; its timer on the given wheel.

#include "ovinmirel/glue/OvinMirelGlueConfig.h"
#include "ovinmirel/glue/OvinMirelGlueStatus.h"
#include "platform/brix/TimerWheel.h"
#include "platform/mirel/PDConfig.h"
#include "platform/vorn/Clock.h"
#include "platform/vorn/Entity.h"
#include "platform/vorn/StateMachine.h"
#include "platform/zamu/IntfId.h"

namespace OvinMirel {

class BlockIntfLoaderSm : public Vorn::StateMachine {
    VORN_ENTITY("OvinMirel::BlockIntfLoaderSm")
  public:
    // Every reference is required (Vorn::NullPointerException naming it).
    BlockIntfLoaderSm(const Vorn::Ptr<const GlueConfig>& glueConfig,
                      const Vorn::Ptr<const GlueStatus>& glueStatus,
                      const Vorn::Ptr<Mirel::PDConfig>& pDConfig, Brix::TimerWheel& timerWheel);

    const Vorn::Ptr<const GlueConfig>& glueConfig() const { return glueConfig_; }
    const Vorn::Ptr<const GlueStatus>& glueStatus() const { return glueStatus_; }
    const Vorn::Ptr<Mirel::PDConfig>& pDConfig() const { return pDConfig_; }
    const Brix::Timer& blockIntfTimer() const { return blockIntfTimer_; }
    // The absolute time the timer is armed for on each request (see Timers above).
    Vorn::Seconds blockIntfDelay() const { return blockIntfDelay_; }
    void blockIntfDelayIs(Vorn::Seconds delay) { blockIntfDelay_ = delay; }

    // Sets initialized, starts watching, then reviews every interface the driver blocks and
    // every interface requested.
    void handleInitialized() override;
    // Stops watching, disarms the timer and clears initialized; PDConfig stays as it is.
    void handleDelete() override;

    // A request for intf was added or removed: arms the timer. REQUIRES: initialized().
    void handleBlockedIntf(const Zamu::IntfId& intf);
    void handleBlockIntfTimer();
    // Blocks at blockIntf, unblocks at unblockIntf (the timer is disarmed first).
    void handleGlueSmState();
    // Blocks every requested interface the driver does not block. REQUIRES: initialized().
    void processBlockIntfs();
    // Unblocks every interface the driver blocks that is no longer requested.
    // REQUIRES: initialized().
    void processUnblockIntfs();

  private:
    const Vorn::Ptr<const GlueConfig> glueConfig_;
    const Vorn::Ptr<const GlueStatus> glueStatus_;
    const Vorn::Ptr<Mirel::PDConfig> pDConfig_;
    Vorn::Seconds blockIntfDelay_ = 0.0;
    Brix::Timer blockIntfTimer_;
    Vorn::Subscription blockedIntfSub_;
    Vorn::Subscription glueSmStateSub_;
};

Vorn::Ptr<BlockIntfLoaderSm> blockIntfLoaderSmFactory(const Vorn::Ptr<const GlueConfig>& glueConfig,
                                                      const Vorn::Ptr<const GlueStatus>& glueStatus,
                                                      const Vorn::Ptr<Mirel::PDConfig>& pDConfig,
                                                      Brix::TimerWheel& timerWheel);

}  // namespace OvinMirel
