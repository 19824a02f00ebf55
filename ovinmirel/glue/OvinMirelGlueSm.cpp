#include "ovinmirel/glue/OvinMirelGlueSm.h"

#include <set>
#include <utility>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelGlueSm");

}  // namespace

// ---- Watchers: each one only subscribes and calls back into the machine ----

class GlueSm::ChipIntfWatcher {
  public:
    ChipIntfWatcher(GlueSm* sm, Mirel::ChipId chip, const ChipIntfMapping& mapping)
        : sub_(mapping.intfIdNotify(
              [sm, chip](const Zamu::IntfId&) { sm->handleChipIntfMapping(chip); })) {}

  private:
    Vorn::Subscription sub_;
};

class GlueSm::AclIntfWatcher {
  public:
    AclIntfWatcher(GlueSm* sm, Mirel::ChipId chip, const Ovin::AclKey& key, const AclIntfColl& acl)
        : sub_(acl.intfIdNotify(
              [sm, chip, key](const Zamu::IntfId&) { sm->handleChipAclMapping(chip, key); })) {}

  private:
    Vorn::Subscription sub_;
};

class GlueSm::ChipAclWatcher {
  public:
    using AclField = Vorn::EntityMapField<Ovin::AclKey, AclIntfColl, Vorn::Ordered>;

    ChipAclWatcher(GlueSm* sm, Mirel::ChipId chip, const ChipAclColl& chipAcls)
        : acls_(
              chipAcls.aclIntfMapping(),
              {.make =
                   [sm, chip](const Ovin::AclKey& key, const Vorn::Ptr<AclIntfColl>& acl) {
                       return std::make_unique<AclIntfWatcher>(sm, chip, key, *acl);
                   },
               .added = [sm, chip](
                            const Ovin::AclKey& key, AclIntfWatcher&,
                            const Vorn::Ptr<AclIntfColl>&) { sm->handleChipAclMapping(chip, key); },
               .gone =
                   [sm, chip](const Ovin::AclKey& key, AclIntfWatcher&,
                              const Vorn::Ptr<AclIntfColl>&) {
                       sm->handleChipAclMapping(chip, key);
                   }}) {}

  private:
    Vorn::EntryWatchers<AclField, AclIntfWatcher> acls_;
};

class GlueSm::ChipConfigWatcher {
  public:
    ChipConfigWatcher(GlueSm* sm, Mirel::ChipId chip, const Mirel::ChipConfig& config)
        : sub_(config.chipDataFlowConfig()->globalAclControlNotify(
              [sm, chip] { sm->handleChipGlobalAclControl(chip); })) {}

  private:
    Vorn::Subscription sub_;
};

class GlueSm::RootStatusWatcher {
  public:
    RootStatusWatcher(GlueSm* sm, uint32_t rootId, const Mirel::RootStatus& status)
        : stateSub_(status.rootStateNotify([sm, rootId] { sm->handleRootStatus(rootId); })),
          kickSub_(status.kickResponseNotify([sm, rootId] { sm->handleRootStatus(rootId); })) {}

  private:
    Vorn::Subscription stateSub_;
    Vorn::Subscription kickSub_;
};

// ---- Life cycle ----

GlueSm::GlueSm(const Vorn::Ptr<Index>& index, const Vorn::Ptr<OvinMirelAclColl>& ovinMirelAclColl,
               const Vorn::Ptr<GlueConfig>& glueConfig, const Vorn::Ptr<GlueStatus>& glueStatus,
               const Vorn::Ptr<Mirel::HwCapabilityColl>& hwCapabilityColl,
               const Vorn::Ptr<Mirel::PDStatus>& pDStatus,
               const Vorn::Ptr<Mirel::PDConfig>& pDConfig,
               const Vorn::Ptr<Acl::ParamConfig>& aclParamConfig, Brix::TimerWheel* timerWheel,
               const Vorn::Ptr<Brix::TaskSchedulerVornActivity>& scheduler)
    : Vorn::StateMachine(th),
      index_(required(index, "index")),
      ovinMirelAclColl_(required(ovinMirelAclColl, "ovinMirelAclColl")),
      glueConfig_(required(glueConfig, "glueConfig")),
      glueStatus_(required(glueStatus, "glueStatus")),
      hwCapabilityColl_(required(hwCapabilityColl, "hwCapabilityColl")),
      pDStatus_(required(pDStatus, "pDStatus")),
      pDConfig_(required(pDConfig, "pDConfig")),
      aclParamConfig_(required(aclParamConfig, "aclParamConfig")),
      timerWheel_((Vorn::requireNonNull(timerWheel, typeName(), "timerWheel"), timerWheel)),
      scheduler_(required(scheduler, "scheduler")),
      aclIdAllocSmColl_(aclIdAllocSmCollFactory(kAclIdAllocSmCollName)),
      mappingLoaderSmColl_(mappingLoaderSmCollFactory(kMappingLoaderSmCollName)),
      mappingSmColl_(mappingSmCollFactory(kMappingSmCollName)),
      aclPolicySmColl_(aclPolicySmCollFactory(kAclPolicySmCollName)),
      mirelRootSmColl_(Mirel::rootSmCollFactory(kMirelRootSmCollName)),
      chipUpdateTimer_(*timerWheel_, [this] { handleChipUpdateTimer(); }) {
    VORN_ASSERT(glueStatus_->initialized());
}

GlueSm::~GlueSm() {
    if (initialized())
        handleDelete();
}

void GlueSm::handleInitialized() {
    FLINQ(th, 2, "handleInitialized");
    VORN_ASSERT(!initialized());
    StateMachine::handleInitialized();
    blockIntfLoaderSm_ =
        blockIntfLoaderSmFactory(glueConfig_, glueStatus_, pDConfig_, *timerWheel_);
    blockIntfLoaderSm_->handleInitialized();

    prepareCommitKickSub_ = glueConfig_->prepareCommitKickTimeNotify([this] {
        FLINQ(th, 8, "prepareCommitKickTime " << glueConfig_->prepareCommitKickTime());
        handlePrepareCommit();
    });
    chipPresence_ = std::make_unique<Mirel::ChipPresence>(
        hwCapabilityColl_, pDStatus_, [this](Mirel::ChipId chip) { handleHwStatus(chip); });
    chipIntfMapping_ = std::make_unique<Vorn::EntryWatchers<ChipIntfField, ChipIntfWatcher>>(
        index_->chipIntfMapping(),
        Vorn::EntryWatchers<ChipIntfField, ChipIntfWatcher>::Hooks{
            .make =
                [this](Mirel::ChipId chip, const Vorn::Ptr<ChipIntfMapping>& e) {
                    return std::make_unique<ChipIntfWatcher>(this, chip, *e);
                },
            .added = [this](Mirel::ChipId chip, ChipIntfWatcher&,
                            const Vorn::Ptr<ChipIntfMapping>&) { handleChipIntfMapping(chip); },
            .gone = [this](Mirel::ChipId chip, ChipIntfWatcher&,
                           const Vorn::Ptr<ChipIntfMapping>&) { handleChipIntfMapping(chip); }});
    chipAclColl_ = std::make_unique<Vorn::EntryWatchers<ChipAclField, ChipAclWatcher>>(
        index_->chipAclMapping(),
        Vorn::EntryWatchers<ChipAclField, ChipAclWatcher>::Hooks{
            .make =
                [this](Mirel::ChipId chip, const Vorn::Ptr<ChipAclColl>& e) {
                    return std::make_unique<ChipAclWatcher>(this, chip, *e);
                },
            .added = {},
            // The ACLs it held at the end (normally none: each one's removal was seen).
            .gone =
                [this](Mirel::ChipId chip, ChipAclWatcher&, const Vorn::Ptr<ChipAclColl>& e) {
                    for (const Ovin::AclKey& key : e->aclIntfMapping().keys())
                        handleChipAclMapping(chip, key);
                    setChipUpdateTimer();
                }});
    chipConfig_ = std::make_unique<Vorn::EntryWatchers<ChipConfigField, ChipConfigWatcher>>(
        pDConfig_->chipConfig(),
        Vorn::EntryWatchers<ChipConfigField, ChipConfigWatcher>::Hooks{
            .make =
                [this](Mirel::ChipId chip, const Vorn::Ptr<Mirel::ChipConfig>& e) {
                    return std::make_unique<ChipConfigWatcher>(this, chip, *e);
                },
            .added = [this](
                         Mirel::ChipId chip, ChipConfigWatcher&,
                         const Vorn::Ptr<Mirel::ChipConfig>&) { handleChipGlobalAclControl(chip); },
            .gone = [this](
                        Mirel::ChipId chip, ChipConfigWatcher&,
                        const Vorn::Ptr<Mirel::ChipConfig>&) { handleChipGlobalAclControl(chip); }},
        Vorn::Existing::add);
    rootStatus_ = std::make_unique<Vorn::EntryWatchers<RootStatusField, RootStatusWatcher>>(
        glueStatus_->rootStatusColl()->rootStatus(),
        Vorn::EntryWatchers<RootStatusField, RootStatusWatcher>::Hooks{
            .make =
                [this](uint32_t rootId, const Vorn::Ptr<Mirel::RootStatus>& e) {
                    return std::make_unique<RootStatusWatcher>(this, rootId, *e);
                },
            .added = [this](uint32_t rootId, RootStatusWatcher&,
                            const Vorn::Ptr<Mirel::RootStatus>&) { handleRootStatus(rootId); },
            .gone = {}});

    for (const Mirel::ChipId chip : hwCapabilityColl_->chipHwCapability().sortedKeys())
        handleHwStatus(chip);
}

void GlueSm::handleDelete() {
    FLINQ(th, 2, "handleDelete");
    rootStatus_.reset();
    chipConfig_.reset();
    chipAclColl_.reset();
    chipIntfMapping_.reset();
    chipPresence_.reset();
    prepareCommitKickSub_.reset();
    chipUpdateTimer_.expiryIs(Vorn::kInfinity);
    mirelRootSmColl_->rootSmDelAll();
    std::set<Mirel::ChipId> chips;
    for (const Mirel::ChipId chip : aclIdAllocSmColl_->chipAclIdAllocSm().keys())
        chips.insert(chip);
    for (const Mirel::ChipId chip : aclPolicySmColl_->sm().keys())
        chips.insert(chip);
    for (const Mirel::ChipId chip : mappingSmColl_->sm().keys())
        chips.insert(chip);
    for (const Mirel::ChipId chip : mappingLoaderSmColl_->mappingLoader().keys())
        chips.insert(chip);
    for (const Mirel::ChipId chip : chips)
        deleteChipMachines(chip);
    if (blockIntfLoaderSm_) {
        blockIntfLoaderSm_->handleDelete();
        blockIntfLoaderSm_ = nullptr;
    }
    StateMachine::handleDelete();
}

// ---- The cycle's start ----

void GlueSm::setChipUpdateTimer() {
    chipUpdateTimer_.expiryIs(Vorn::currentTime() + chipUpdateProcDelay());
}

void GlueSm::handleChipUpdateTimer() {
    FLINQ(th, 8, "handleChipUpdateTimer");
    if (initialized())
        handlePrepareCommit();
}

void GlueSm::handlePrepareCommit() {
    VORN_ASSERT(initialized());
    FLINQ(th, 8, "handlePrepareCommit state " << glueStatus_->glueSmState());
    if (unstableChips() > 0) {
        FLINQ(th, 2, "  hw currently not stable, backing off until hw is stable");
        hwUnstableUpdateQueuedIs(true);
        return;
    }
    const GlueSmState state = glueStatus_->glueSmState();
    if (state != idle_ && state != unknown_) {
        // Decision a: obeyed once this cycle is idle.
        FLINQ(th, 2, "  commit cycle in progress (" << state << "), holding the request");
        cycleRequestQueuedIs(true);
        glueStatus_->cycleRequestQueuedIs(true);
        return;
    }
    chipUpdateTimer_.expiryIs(Vorn::kInfinity);
    changeGlueSmState(aclIdAlloc_);
    if (checkAclIdAllocFail()) {
        FLINQ(th, 2,
              "handlePrepareCommit"
                  << " CRLI range exhausted, failing GlueSm early");
        changeGlueSmState(blockIntf_);
        changeGlueSmState(mappingLoader_);
        changeGlueSmState(aclIdAllocFail_);
        changeGlueSmState(unblockIntf_);
        changeGlueSmState(idle_);
        return;
    }
    changeGlueSmState(computing_);

    // A chip that lost all its interfaces (or its ACLs) still gets an emptied root.
    std::set<Mirel::ChipId> chips;
    for (const Mirel::ChipId chip : index_->chipIntfMapping().keys())
        chips.insert(chip);
    for (const auto& entry : glueStatus_->activeRootSmId())
        chips.insert(entry.first);
    for (const auto& entry : glueStatus_->attemptRootSmId())
        chips.insert(entry.first);
    FLINQ(th, 2, "handlePrepareCommit " << chips.size() << " chips to process");
    ++activeRootKick_;
    for (const Mirel::ChipId chip : chips)
        updateRootForChip(chip);
    if (glueStatus_->computingRootSmIds() == 0) {
        changeGlueSmState(success_);
        changeGlueSmState(mappingLoader_);
        changeGlueSmState(unblockIntf_);
        changeGlueSmState(idle_);
    }
}

bool GlueSm::checkAclIdAllocFail() const {
    bool exhausted = false;
    for (const auto& [chip, sm] : aclIdAllocSmColl_->chipAclIdAllocSm()) {
        if (sm->chipRuleListIdExhausted()) {
            FLINQ(th, 2,
                  "checkAclIdAllocFail"
                      << " Chip-" << chip << " CRLI range exhausted");
            exhausted = true;
        }
    }
    return exhausted;
}

void GlueSm::changeGlueSmState(GlueSmState newState) {
    VORN_ASSERT(initialized());
    FLINQ(th, 2, "GlueSm State Change: " << glueStatus_->glueSmState() << " ----> " << newState);
    switch (newState) {
        case aclIdAllocFail_:
        case aborting_:
        case success_:
            glueStatus_->lastComputationResultIs(newState);
            break;
        case computing_:
            glueStatus_->computingRootSmIdDelAll();
            glueStatus_->loadingRootSmIdDelAll();
            glueStatus_->failedRootSmIdDelAll();
            glueStatus_->chipErrorDelAll();
            break;
        case fail_: {
            const Mirel::RootStatusColl& statuses = *glueStatus_->rootStatusColl();
            for (const auto& [rootId, iter] : glueStatus_->rootConfigColl()->rootConfig()) {
                const Vorn::Ptr<Mirel::RootStatus> rootStatus = statuses.rootStatus(rootId);
                if (!rootStatus || rootStatus->active() ||
                    rootStatus->kickResponse() != activeRootKick_) {
                    continue;
                }
                const Mirel::ChipId chip = rootSmIdToChipId(rootId);
                FLINQ(th, 2, "Inactive Chip-" << chip);
                VORN_ASSERT(rootStatus->rootStatusId() == iter->rootConfigId());
                const Mirel::StageErrorCode code = rootStatus->errorCode();
                FLINQ(th, 2, "  Error: " << code);
                // Deliberately asymmetric: 0 and 8 are named as ignored, codes above 8 (from a
                // newer hardware layer) pass without a word.
                if (code >= Mirel::stageResourceExhausted_ && code <= Mirel::stageInternalError_) {
                    FLINQ(th, 2, "  Publishing error");
                    glueStatus_->chipErrorIs(chip, code);
                } else if (code == Mirel::stageSuccess_ || code == Mirel::stageAbortedByPeer_) {
                    FLINQ(th, 2, "  Ignoring error");
                }
            }
            glueStatus_->lastComputationResultIs(fail_);
            break;
        }
        default:
            break;
    }
    glueStatus_->glueSmStateIs(newState);
    if (newState == idle_ && cycleRequestQueued()) {
        // Decision a: the held request was due already, so no delay.
        FLINQ(th, 2, "  cycle idle, scheduling the held handlePrepareCommit to run");
        cycleRequestQueuedIs(false);
        glueStatus_->cycleRequestQueuedIs(false);
        chipUpdateTimer_.expiryIs(Vorn::currentTime());
    }
}

// ---- Chips ----

void GlueSm::handleHwStatus(Mirel::ChipId chip) {
    FLINQ(th, 8, "handleHwStatus Chip-" << chip);
    VORN_ASSERT(initialized());
    handleChipAddRemove(chip);
    setChipUpdateTimer();
}

void GlueSm::handleChipAddRemove(Mirel::ChipId chip) {
    VORN_ASSERT(initialized());
    if (Mirel::ChipPresence::present(*hwCapabilityColl_, *pDStatus_, chip)) {
        FLINQ(th, 2, "handleChipAddRemove Chip-" << chip << " present");
        const Vorn::Ptr<AclIdResponse> response =
            glueStatus_->aclIdResponseColl()->chipAclIdResponseIs(chip);
        if (instantiatePerChipSm() && !aclIdAllocSmColl_->chipAclIdAllocSm(chip)) {
            const Vorn::Ptr<AclIdAllocSm> sm = aclIdAllocSmColl_->chipAclIdAllocSmIs(
                chip, hwCapabilityColl_->chipHwCapability(chip), ovinMirelAclColl_, glueStatus_,
                index_, response);
            sm->handleInitialized();
        }
        // initChipConfig: creates the transforms it lacks, keeps the ones it has.
        pDConfig_->chipConfigIs(chip)->initialize();
        glueStatus_->aclPolicyStatusColl()->statusIs(chip);
        glueStatus_->piChipDataFlowConfigIs(chip);
        if (instantiatePerChipSm())
            addChipMachines(chip);
        return;
    }
    FLINQ(th, 2, "handleChipAddRemove Chip-" << chip << " absent");
    // The machines go whatever instantiatePerChipSm says now: deleting none changes nothing.
    aclPolicySmColl_->smDel(chip);
    mappingSmColl_->smDel(chip);
    mappingLoaderSmColl_->mappingLoaderDel(chip);
    glueStatus_->aclPolicyStatusColl()->statusDel(chip);
    glueStatus_->piChipDataFlowConfigDel(chip);
    aclIdAllocSmColl_->chipAclIdAllocSmDel(chip);
    glueStatus_->aclIdResponseColl()->chipAclIdResponseDel(chip);
    const size_t outstanding = outstandingRoots();
    clearRootForChip(chip);
    // Decision c: the machines and roots that held it are gone.
    pDConfig_->chipConfigDel(chip);
    if (outstandingRoots() != outstanding)
        endPhaseIfNothingOutstanding();
}

size_t GlueSm::outstandingRoots() const {
    return glueStatus_->computingRootSmIds() + glueStatus_->loadingRootSmIds() +
           glueStatus_->failedRootSmIds() + glueStatus_->abortRootSmIds();
}

void GlueSm::addChipMachines(Mirel::ChipId chip) {
    const Vorn::Ptr<Mirel::ChipHwCapability> capability = hwCapabilityColl_->chipHwCapability(chip);
    const Vorn::Ptr<AclPolicyStatus> policyStatus =
        glueStatus_->aclPolicyStatusColl()->status(chip);
    const Vorn::Ptr<Mirel::ChipDataFlowConfig> piConfig = glueStatus_->piChipDataFlowConfig(chip);
    const Vorn::Ptr<Mirel::ChipConfig> chipConfig = pDConfig_->chipConfig(chip);
    VORN_ASSERT(capability && policyStatus && piConfig && chipConfig);
    // Each machine only once every record it is given exists; one that exists stays as it is.
    if (!aclPolicySmColl_->sm(chip)) {
        aclPolicySmColl_
            ->smIs(chip, capability, hwCapabilityColl_->hwCapability(), index_, policyStatus,
                   *timerWheel_)
            ->handleInitialized();
    }
    if (!mappingLoaderSmColl_->mappingLoader(chip)) {
        mappingLoaderSmColl_
            ->mappingLoaderIs(chip, piConfig, chipConfig->chipDataFlowConfig(), glueStatus_,
                              *timerWheel_)
            ->handleInitialized();
    }
    if (!mappingSmColl_->sm(chip)) {
        mappingSmColl_->smIs(chip, glueStatus_, policyStatus, capability, piConfig)
            ->handleInitialized();
    }
}

void GlueSm::deleteChipMachines(Mirel::ChipId chip) {
    aclPolicySmColl_->smDel(chip);
    mappingSmColl_->smDel(chip);
    mappingLoaderSmColl_->mappingLoaderDel(chip);
    aclIdAllocSmColl_->chipAclIdAllocSmDel(chip);
}

void GlueSm::handleChipIntfMapping(Mirel::ChipId chip) {
    FLINQ(th, 8, "handleChipIntfMapping Chip-" << chip);
    VORN_ASSERT(initialized());
    setChipUpdateTimer();
}

void GlueSm::handleChipAclMapping(Mirel::ChipId chip, const Ovin::AclKey& aclKey) {
    FLINQ(th, 8, "handleChipAclMapping Chip-" << chip << " " << aclKey);
    VORN_ASSERT(initialized());
    setChipUpdateTimer();
}

void GlueSm::handleChipGlobalAclControl(Mirel::ChipId chip) {
    const Vorn::Ptr<Mirel::ChipConfig> config = pDConfig_->chipConfig(chip);
    // A chip configuration that went is stable: nothing of it is being rewritten.
    const uint32_t control = config ? config->chipDataFlowConfig()->globalAclControl()
                                    : uint32_t(Mirel::globalAclControlStable_);
    FLINQ(th, 8, "handleChipGlobalAclControl Chip-" << chip << " " << control);
    if (control != Mirel::globalAclControlStable_) {
        unstableChipIs(chip);
    } else {
        unstableChipDel(chip);
    }
    if (unstableChips() == 0 && hwUnstableUpdateQueued()) {
        FLINQ(th, 2, "  hw stable, scheduling handlePrepareCommit to run");
        hwUnstableUpdateQueuedIs(false);
        // Now, not after the delay: the cycle was already due.
        chipUpdateTimer_.expiryIs(Vorn::currentTime());
    }
}

Vorn::Ptr<GlueSm> glueSmFactory(
    const Vorn::Ptr<Index>& index, const Vorn::Ptr<OvinMirelAclColl>& ovinMirelAclColl,
    const Vorn::Ptr<GlueConfig>& glueConfig, const Vorn::Ptr<GlueStatus>& glueStatus,
    const Vorn::Ptr<Mirel::HwCapabilityColl>& hwCapabilityColl,
    const Vorn::Ptr<Mirel::PDStatus>& pDStatus, const Vorn::Ptr<Mirel::PDConfig>& pDConfig,
    const Vorn::Ptr<Acl::ParamConfig>& aclParamConfig, Brix::TimerWheel* timerWheel,
    const Vorn::Ptr<Brix::TaskSchedulerVornActivity>& scheduler) {
    return Vorn::make<GlueSm>(index, ovinMirelAclColl, glueConfig, glueStatus, hwCapabilityColl,
                              pDStatus, pDConfig, aclParamConfig, timerWheel, scheduler);
}

}  // namespace OvinMirel
