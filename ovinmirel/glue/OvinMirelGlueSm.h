#pragma once
// GlueSm: the one commit orchestrator. It keeps a record set and machine set per present chip
// and drives every commit cycle over all chips: number the ACLs (aclIdAlloc), build each
// changed chip's attempt root and let the hardware layer compute it (computing), then load
// every attempt (loading) or abort every attempt (aborting), run the mapping loaders
// (mappingLoader), publish the result and release blocked interfaces (unblockIntf), idle.
// No chip is ever left with half a cycle: its new root is programmed only once every attempt
// of the cycle has computed, and a failure anywhere aborts every attempt.
//
// Watches (from handleInitialized on, until handleDelete):
//  - GlueConfig.prepareCommitKickTime: handlePrepareCommit;
//  - chip presence (ChipPresence: capability and PD status): handleHwStatus(chip);
//  - Index.chipIntfMapping, each chip's entry and its interface set: handleChipIntfMapping;
//  - Index.chipAclMapping, each chip's ACL set and each ACL's interface set on the chip:
//    handleChipAclMapping(chip, aclKey);
//  - PDConfig.chipConfig, each chip's data-flow globalAclControl: handleChipGlobalAclControl;
//  - GlueStatus.rootStatusColl, each root status's rootState and kickResponse:
//    handleRootStatus(rootId). The hardware layer answers load and abort twice under one kick
//    (4 then 5, 6 then 7), so the root state matters as much as the kick.
// Writes:  GlueStatus (glueSmState, lastComputationResult, the root sets and maps, chipError,
//          the per-chip records), the root configurations (content, action, mirelRootKick,
//          active) and, per chip, PDConfig.chipConfig.
// Timers:  chipUpdateTimer: now + chipUpdateProcDelay, re-armed by every change that needs a
//          cycle, so a burst of changes gives one cycle one delay after the last change. The
//          agent's task scheduler is held for the machines it owns; the cycle itself runs on
//          the timer wheel and the answers alone.
// Owns:    the per-chip machines (AclIdAllocSm, AclPolicySm, MappingLoaderSm, MappingSm, in
//          collections keyed by chip), the root machines ("MirelRootSmColl", keyed by root
//          id), the interface blocking loader, and the per-chip records in GlueStatus and
//          PDConfig; they exist exactly while their chip is present.
//
// Invariants (checkGlueInvariants in OvinMirelGlueCheck.h verifies them from outside):
//  1. A root id (chip * 2 + slot) in use (configuration, status, machine, outstanding set)
//     is the active or the attempt root of a present chip; the attempt is the slot that is not
//     active, so a failed attempt never touches the active root.
//  2. Outside computing, loading and aborting the outstanding sets hold nothing that still
//     awaits an answer; each of those phases ends exactly when its set empties.
//  3. Every cycle that leaves idle passes unblockIntf and comes back to idle.
//
// Decisions where the plain rules leave room:
//  a. A cycle request (kick or chip update timer) while a cycle runs is held, not obeyed: it
//     would tear down attempt roots mid-load and leave a chip half-applied, or re-enter the
//     cycle from a watcher of its own result. The held request starts a cycle on the next
//     pass after the running one reaches idle (the timer is set to now: the request was due).
//  b. A chip that goes away mid-cycle takes its root ids out of every outstanding set, its
//     failure included (what failed no longer exists); when that empties the set of the
//     running phase, the phase ends as if the last answer had come, so the cycle still ends
//     at idle. Late answers from the gone chip find no machine and change nothing.
//  c. A gone chip's configuration leaves PDConfig last, after its machines and roots, which
//     hold it; its chipError entry and its last-attempt pointers stay, as history.
//  d. instantiateRootSm true: the glue makes the root machine of each attempt root (step 5 of
//     updateRootForChip) and drops it with the root. False (the default): a hardware layer
//     that makes its own root machines answers the root statuses.
//  e. An answer for a root that is not outstanding in the running phase is traced and
//     changes nothing (it cannot count twice).

#include <memory>
#include <vector>

#include "ovinmirel/acl/OvinMirelAcl.h"
#include "ovinmirel/chip/OvinMirelAclIdAllocSm.h"
#include "ovinmirel/chip/OvinMirelAclPolicySm.h"
#include "ovinmirel/chip/OvinMirelMappingSm.h"
#include "ovinmirel/glue/OvinMirelBlockIntfLoaderSm.h"
#include "ovinmirel/glue/OvinMirelGlueConfig.h"
#include "ovinmirel/glue/OvinMirelGlueStatus.h"
#include "ovinmirel/glue/OvinMirelMappingLoaderSm.h"
#include "ovinmirel/index/OvinMirelIndex.h"
#include "platform/brix/TaskSchedulerVornActivity.h"
#include "platform/brix/TimerWheel.h"
#include "platform/mirel/ChipPresence.h"
#include "platform/mirel/HwCapability.h"
#include "platform/mirel/PDConfig.h"
#include "platform/mirel/PDStatus.h"
#include "platform/mirel/RootSm.h"
#include "platform/ovin/AclParamConfig.h"
#include "platform/vorn/EntryWatchers.h"
#include "platform/vorn/StateMachine.h"

namespace OvinMirel {

class GlueSm : public Vorn::StateMachine {
    VORN_ENTITY("OvinMirel::GlueSm")
  public:
    static constexpr const char* kAclIdAllocSmCollName = "AclIdAllocSmColl";
    static constexpr const char* kAclPolicySmCollName = "aclPolicySmColl";
    static constexpr const char* kMappingSmCollName = "mappingSmColl";
    static constexpr const char* kMappingLoaderSmCollName = "mappingLoaderSmColl";
    static constexpr const char* kMirelRootSmCollName = "MirelRootSmColl";

    // Every argument is required (Vorn::NullPointerException naming it); glueStatus must be
    // initialized (asserted).
    GlueSm(const Vorn::Ptr<Index>& index, const Vorn::Ptr<OvinMirelAclColl>& ovinMirelAclColl,
           const Vorn::Ptr<GlueConfig>& glueConfig, const Vorn::Ptr<GlueStatus>& glueStatus,
           const Vorn::Ptr<Mirel::HwCapabilityColl>& hwCapabilityColl,
           const Vorn::Ptr<Mirel::PDStatus>& pDStatus, const Vorn::Ptr<Mirel::PDConfig>& pDConfig,
           const Vorn::Ptr<Acl::ParamConfig>& aclParamConfig, Brix::TimerWheel* timerWheel,
           const Vorn::Ptr<Brix::TaskSchedulerVornActivity>& scheduler);
    ~GlueSm() override;

    const Vorn::Ptr<Index>& index() const { return index_; }
    const Vorn::Ptr<OvinMirelAclColl>& ovinMirelAclColl() const { return ovinMirelAclColl_; }
    const Vorn::Ptr<GlueConfig>& glueConfig() const { return glueConfig_; }
    const Vorn::Ptr<GlueStatus>& glueStatus() const { return glueStatus_; }
    const Vorn::Ptr<Mirel::HwCapabilityColl>& hwCapabilityColl() const { return hwCapabilityColl_; }
    const Vorn::Ptr<Mirel::PDStatus>& pDStatus() const { return pDStatus_; }
    const Vorn::Ptr<Mirel::PDConfig>& pDConfig() const { return pDConfig_; }
    const Vorn::Ptr<Acl::ParamConfig>& aclParamConfig() const { return aclParamConfig_; }
    Brix::TimerWheel& timerWheel() const { return *timerWheel_; }
    const Vorn::Ptr<Brix::TaskSchedulerVornActivity>& scheduler() const { return scheduler_; }

    // Settings, for the owner before initialisation (see decision d for instantiateRootSm).
    VORN_ATTR(bool, instantiatePerChipSm, true)
    VORN_ATTR(bool, instantiateRootSm, false)
    VORN_ATTR(Vorn::Seconds, chipUpdateProcDelay, 1.0)

    // The kick stamped on every action given to a root.
    uint32_t activeRootKick() const { return activeRootKick_; }
    // Chips whose data-flow globalAclControl is not zero: no cycle starts while there is one.
    VORN_ORDERED_SET(Mirel::ChipId, unstableChip)
    // A cycle was asked for while some chip was unstable; it starts when the last one is stable.
    VORN_ATTR(bool, hwUnstableUpdateQueued, false)
    // A cycle was asked for while one ran; it starts once that one is idle (decision a).
    // Published as GlueStatus.cycleRequestQueued, so that the agent does not take the running
    // cycle's outcome for the held request's.
    VORN_ATTR(bool, cycleRequestQueued, false)
    const Brix::Timer& chipUpdateTimer() const { return chipUpdateTimer_; }

    // The machines it owns.
    const Vorn::Ptr<AclIdAllocSmColl>& aclIdAllocSmColl() const { return aclIdAllocSmColl_; }
    const Vorn::Ptr<AclPolicySmColl>& aclPolicySmColl() const { return aclPolicySmColl_; }
    const Vorn::Ptr<MappingLoaderSmColl>& mappingLoaderSmColl() const {
        return mappingLoaderSmColl_;
    }
    const Vorn::Ptr<MappingSmColl>& mappingSmColl() const { return mappingSmColl_; }
    const Vorn::Ptr<Mirel::RootSmColl>& mirelRootSmColl() const { return mirelRootSmColl_; }
    // Null before handleInitialized and after handleDelete.
    const Vorn::Ptr<BlockIntfLoaderSm>& blockIntfLoaderSm() const { return blockIntfLoaderSm_; }

    // Creates the interface blocking loader, starts watching and takes every chip in.
    void handleInitialized() override;
    // Stops watching; releases the per-chip machines, the root machines and the loader.
    void handleDelete() override;

    // ---- Handlers (each REQUIRES: initialized(), unless it says otherwise) ----
    // The start of a cycle (kick or chip update timer).
    void handlePrepareCommit();
    // Runs handlePrepareCommit when initialized.
    void handleChipUpdateTimer();
    void handleHwStatus(Mirel::ChipId chip);
    // Makes the chip's records and machines follow its presence.
    void handleChipAddRemove(Mirel::ChipId chip);
    void handleChipIntfMapping(Mirel::ChipId chip);
    void handleChipAclMapping(Mirel::ChipId chip, const Ovin::AclKey& aclKey);
    void handleChipGlobalAclControl(Mirel::ChipId chip);
    // Ignored before initialisation.
    void handleRootStatus(uint32_t rootId);
    void processCompRootStatus(uint32_t rootId);
    void processLoadRootStatus(uint32_t rootId);
    void processAbortRootStatus(uint32_t rootId);

    // ---- Internal operations ----
    // The slot that is not active, or slot 0 for a chip with no active root.
    uint32_t getAttemptRootSmId(Mirel::ChipId chip) const;
    // Drops the root's machine, configuration and status; last-attempt pointers stay.
    void clearRootById(Mirel::ChipId chip, uint32_t rootId);
    // Drops the chip's attempt and active roots and takes them out of every outstanding set.
    void clearRootForChip(Mirel::ChipId chip);
    // Builds the chip's attempt root and gives it to the hardware layer to compute, unless it
    // equals the active root.
    void updateRootForChip(Mirel::ChipId chip);
    void changeGlueSmState(GlueSmState newState);
    // Whether some chip ran out of chip rule list ids in this cycle's allocation.
    bool checkAclIdAllocFail() const;
    void setChipUpdateTimer();

  private:
    class ChipIntfWatcher;
    class ChipAclWatcher;
    class AclIntfWatcher;
    class ChipConfigWatcher;
    class RootStatusWatcher;
    using ChipIntfField = Vorn::EntityMapField<Mirel::ChipId, ChipIntfMapping>;
    using ChipAclField = Vorn::EntityMapField<Mirel::ChipId, ChipAclColl>;
    using ChipConfigField = Vorn::EntityMapField<Mirel::ChipId, Mirel::ChipConfig, Vorn::Ordered>;
    using RootStatusField = Vorn::EntityMapField<uint32_t, Mirel::RootStatus, Vorn::Ordered>;

    void addChipMachines(Mirel::ChipId chip);
    void deleteChipMachines(Mirel::ChipId chip);
    // Attempt-root content (step 4 of updateRootForChip), gathered before it is written: most
    // cycles leave most chips as they were, and such a chip's content is compared with its
    // active root, never written. The pointers are valid until something is written.
    struct RootAcl {
        const Ovin::AclKey* key;
        const Mirel::AclIdTypeSet* ids;
        const OvinMirelAcl* acl;  // whose shared lists the ids get
    };
    // The chip's ACLs that go into its root, in key order (the root's own), with their traces.
    std::vector<RootAcl> rootAcls(Mirel::ChipId chip, uint32_t attempt) const;
    static void addAclsToRoot(const std::vector<RootAcl>& acls, Mirel::RootConfig& rootConfig);
    // True only when a root given `acls` would equal `root` (RootConfig::isEqual); ids that
    // repeat across ACLs answer false and are left to the full comparison.
    static bool sameContent(const std::vector<RootAcl>& acls, const Mirel::RootConfig& root);
    void traceRules(uint32_t rootId, const OvinMirelAcl& acl, Mirel::ProtocolType protocol) const;
    // What follows the last answer of each phase.
    void allRootsComputed();
    void allRootsLoaded();
    void allRootsAborted();
    // The root ids in the four outstanding sets, counted.
    size_t outstandingRoots() const;
    // Ends the running phase when its outstanding set is empty (decision b).
    void endPhaseIfNothingOutstanding();
    // Gives every attempt root of the cycle the action, under the current kick.
    void actOnAttemptRoots(Mirel::RootAction action);
    // The root id and state written to the trace ring, then the process stops.
    [[noreturn]] void unexpectedRootState(uint32_t rootId, Mirel::RootState state) const;

    const Vorn::Ptr<Index> index_;
    const Vorn::Ptr<OvinMirelAclColl> ovinMirelAclColl_;
    const Vorn::Ptr<GlueConfig> glueConfig_;
    const Vorn::Ptr<GlueStatus> glueStatus_;
    const Vorn::Ptr<Mirel::HwCapabilityColl> hwCapabilityColl_;
    const Vorn::Ptr<Mirel::PDStatus> pDStatus_;
    const Vorn::Ptr<Mirel::PDConfig> pDConfig_;
    const Vorn::Ptr<Acl::ParamConfig> aclParamConfig_;
    Brix::TimerWheel* const timerWheel_;
    const Vorn::Ptr<Brix::TaskSchedulerVornActivity> scheduler_;

    uint32_t activeRootKick_ = 0;

    // Owned machines. The root machines go before the per-chip ones (they share the chip
    // configuration), the blocking loader last.
    Vorn::Ptr<BlockIntfLoaderSm> blockIntfLoaderSm_;
    const Vorn::Ptr<AclIdAllocSmColl> aclIdAllocSmColl_;
    const Vorn::Ptr<MappingLoaderSmColl> mappingLoaderSmColl_;
    const Vorn::Ptr<MappingSmColl> mappingSmColl_;
    const Vorn::Ptr<AclPolicySmColl> aclPolicySmColl_;
    const Vorn::Ptr<Mirel::RootSmColl> mirelRootSmColl_;

    Brix::Timer chipUpdateTimer_;

    // Watches, declared after what they use so that they go first.
    Vorn::Subscription prepareCommitKickSub_;
    std::unique_ptr<Mirel::ChipPresence> chipPresence_;
    std::unique_ptr<Vorn::EntryWatchers<ChipIntfField, ChipIntfWatcher>> chipIntfMapping_;
    std::unique_ptr<Vorn::EntryWatchers<ChipAclField, ChipAclWatcher>> chipAclColl_;
    std::unique_ptr<Vorn::EntryWatchers<ChipConfigField, ChipConfigWatcher>> chipConfig_;
    std::unique_ptr<Vorn::EntryWatchers<RootStatusField, RootStatusWatcher>> rootStatus_;
};

Vorn::Ptr<GlueSm> glueSmFactory(
    const Vorn::Ptr<Index>& index, const Vorn::Ptr<OvinMirelAclColl>& ovinMirelAclColl,
    const Vorn::Ptr<GlueConfig>& glueConfig, const Vorn::Ptr<GlueStatus>& glueStatus,
    const Vorn::Ptr<Mirel::HwCapabilityColl>& hwCapabilityColl,
    const Vorn::Ptr<Mirel::PDStatus>& pDStatus, const Vorn::Ptr<Mirel::PDConfig>& pDConfig,
    const Vorn::Ptr<Acl::ParamConfig>& aclParamConfig, Brix::TimerWheel* timerWheel,
    const Vorn::Ptr<Brix::TaskSchedulerVornActivity>& scheduler);

}  // namespace OvinMirel
