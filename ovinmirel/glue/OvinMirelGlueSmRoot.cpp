// GlueSm, second part: the roots. Building a chip's attempt root, clearing roots, and
// following the hardware layer's answers through computing, loading and aborting.

#include <ostream>
#include <vector>

#include "ovinmirel/glue/OvinMirelGlueSm.h"
#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"

namespace OvinMirel {

namespace {

// "<chip>:<rootId> ", the start of every trace line about one root.
struct RootPrefix {
    uint32_t rootId;
};

std::ostream& operator<<(std::ostream& os, RootPrefix p) {
    return os << rootSmIdToChipId(p.rootId) << ":" << p.rootId << " ";
}

}  // namespace

uint32_t GlueSm::getAttemptRootSmId(Mirel::ChipId chip) const {
    Flinq::Handle& th = traceHandle();
    FLINQ(th, 9, "getAttemptRootSmId Chip-" << chip);
    if (const uint32_t* active = glueStatus_->activeRootSmId(chip)) {
        VORN_ASSERT(rootSmIdToChipId(*active) == chip);
        FLINQ(th, 9, "Found activeRootSmId " << *active << " for Chip-" << chip);
        return *active ^ 1;
    }
    const uint32_t attempt = rootSmIdOf(chip, 0);
    FLINQ(th, 9, "Using attemptRootSmId " << attempt << " for Chip-" << chip);
    return attempt;
}

void GlueSm::clearRootById(Mirel::ChipId chip, uint32_t rootId) {
    FLINQ(traceHandle(), 8, RootPrefix{rootId} << "clearRootById Chip-" << chip);
    VORN_ASSERT(rootSmIdToChipId(rootId) == chip);
    mirelRootSmColl_->rootSmDel(rootId);
    glueStatus_->rootConfigColl()->rootConfigDel(rootId);
    glueStatus_->rootStatusColl()->rootStatusDel(rootId);
}

void GlueSm::clearRootForChip(Mirel::ChipId chip) {
    FLINQ(traceHandle(), 8,
          "clearRootForChip"
              << " Chip-" << chip);
    if (const uint32_t* attempt = glueStatus_->attemptRootSmId(chip)) {
        const uint32_t rootId = *attempt;
        clearRootById(chip, rootId);
        glueStatus_->attemptRootSmIdDel(chip);
    }
    if (const uint32_t* active = glueStatus_->activeRootSmId(chip)) {
        const uint32_t rootId = *active;
        clearRootById(chip, rootId);
        glueStatus_->activeRootSmIdDel(chip);
    }
    // What its roots were counted from goes with them.
    mirelRootSmColl_->rootNeedsTallyDel(chip);
    // Decision b: nothing waits for an answer from a chip that is gone.
    for (uint32_t slot = 0; slot < 2; ++slot) {
        const uint32_t rootId = rootSmIdOf(chip, slot);
        glueStatus_->computingRootSmIdDel(rootId);
        glueStatus_->loadingRootSmIdDel(rootId);
        glueStatus_->failedRootSmIdDel(rootId);
        glueStatus_->abortRootSmIdDel(rootId);
    }
}

// ---- Building the attempt root ----

void GlueSm::updateRootForChip(Mirel::ChipId chip) {
    Flinq::Handle& th = traceHandle();
    FLINQ(th, 8, "updateRootForChip Chip-" << chip);
    VORN_ASSERT(initialized());
    const Vorn::Ptr<Mirel::ChipHwCapability> capability = hwCapabilityColl_->chipHwCapability(chip);
    if (!capability) {
        FLINQ(th, 2, "Chip-" << chip << " doesn't have HW Capability");
        return;
    }
    const Vorn::Ptr<Mirel::ChipPDStatus> chipPDStatus = pDStatus_->chipPDStatus(chip);
    if (!chipPDStatus) {
        FLINQ(th, 2, "Chip-" << chip << " doesn't have PD Status");
        return;
    }

    const uint32_t attempt = getAttemptRootSmId(chip);
    FLINQ(th, 2, RootPrefix{attempt} << " Instantiating AttemptRootSm");
    clearRootById(chip, attempt);
    glueStatus_->attemptRootSmIdDel(chip);

    Mirel::RootConfigColl& configs = *glueStatus_->rootConfigColl();
    Mirel::RootStatusColl& statuses = *glueStatus_->rootStatusColl();
    const Vorn::Ptr<Mirel::RootConfig> rootConfig = configs.rootConfigIs(attempt);
    rootConfig->initialize();
    const Vorn::Ptr<Mirel::RootStatus> rootStatus = statuses.rootStatusIs(attempt);
    rootStatus->initialize();

    const uint32_t* active = glueStatus_->activeRootSmId(chip);
    const Vorn::Ptr<Mirel::RootConfig> activeConfig =
        active ? configs.rootConfig(*active) : Vorn::Ptr<Mirel::RootConfig>();
    const std::vector<RootAcl> acls = rootAcls(chip, attempt);
    // Most chips are unchanged in a cycle: their content is compared, never written.
    const bool sameAsActive = activeConfig && sameContent(acls, *activeConfig);
    if (!sameAsActive)
        addAclsToRoot(acls, *rootConfig);

    if (instantiateRootSm()) {
        const Vorn::Ptr<Mirel::ChipConfig> chipConfig = pDConfig_->chipConfig(chip);
        VORN_ASSERT(chipConfig);
        mirelRootSmColl_
            ->rootSmIs(attempt, rootConfig, rootStatus, capability, chipConfig, chipPDStatus,
                       *timerWheel_, mirelRootSmColl_->rootNeedsTally(chip))
            ->handleInitialized();
    }

    // A chip whose new root is the one it runs takes no part in the cycle.
    if (sameAsActive || (activeConfig && rootConfig->isEqual(*activeConfig))) {
        configs.rootConfigDel(attempt);
        statuses.rootStatusDel(attempt);
        mirelRootSmColl_->rootSmDel(attempt);
        FLINQ(th, 2, RootPrefix{attempt} << " RootConfig not changed. Skipped.");
        return;
    }

    glueStatus_->attemptRootSmIdIs(chip, attempt);
    glueStatus_->computingRootSmIdIs(attempt);
    rootConfig->actionIs(Mirel::rootActionCompute_);
    rootConfig->mirelRootKickIs(activeRootKick_);
}

std::vector<GlueSm::RootAcl> GlueSm::rootAcls(Mirel::ChipId chip, uint32_t attempt) const {
    Flinq::Handle& th = traceHandle();
    std::vector<RootAcl> acls;
    const Vorn::Ptr<ChipAclColl> chipAcls = index_->chipAclMapping(chip);
    if (!chipAcls)
        return acls;
    acls.reserve(chipAcls->aclIntfMappings());
    Vorn::Ptr<AclIdResponse> response = glueStatus_->aclIdResponseColl()->chipAclIdResponse(chip);
    if (!response)
        response = aclIdResponseFactory(chip);  // no ids for any ACL
    // The chip's ACLs, its response and the store records its allocator keeps are all in key
    // order: one walk pairs them, instead of an ordered and a hashed lookup per ACL.
    const Vorn::Ptr<AclIdAllocSm> alloc = aclIdAllocSmColl_->chipAclIdAllocSm(chip);
    const AclIdAllocSm::StoreAcls noStoreAcls;
    const AclIdAllocSm::StoreAcls& storeAcls = alloc ? alloc->storeAcls() : noStoreAcls;
    auto nextStoreAcl = storeAcls.begin();
    auto nextIds = response->response().begin();
    auto seek = [](auto& it, const auto& end, const Ovin::AclKey& key) {
        while (it != end && it->first < key)
            ++it;
        return it != end && it->first == key;
    };
    for (const auto& [key, aclIntf] : chipAcls->aclIntfMapping()) {
        if (aclIntf->intfIds() == 0) {
            FLINQ(th, 8, RootPrefix{attempt} << "   Skipping ACL: " << key << ", no interfaces");
            continue;
        }
        Vorn::Ptr<Mirel::AclIdTypeSet> ids;
        if (seek(nextIds, response->response().end(), key))
            ids = nextIds->second;
        if (!ids || ids->aclIdTypes() == 0) {
            FLINQ(th, 8,
                  RootPrefix{attempt} << "   Skipping ACL: " << key << ", aclId not applied");
            continue;
        }
        Vorn::Ptr<const OvinMirelAcl> iterAcl;
        if (seek(nextStoreAcl, storeAcls.end(), key))
            iterAcl = nextStoreAcl->second;
        else
            iterAcl = ovinMirelAclColl_->acl(key);
        VORN_ASSERT(iterAcl);
        VORN_ASSERT_MSG(!(iterAcl->ipRuleByIds() > 0 && iterAcl->macRuleByIds() > 0),
                        "!( iterAcl->ipRuleByIds() > 0 && iterAcl->macRuleByIds() > 0 )");
        acls.push_back({&key, &*ids, &*iterAcl});
        const bool split = !ids->aclIdType(Mirel::protocolAll_);
        if (split)
            VORN_ASSERT_MSG(iterAcl->macRuleByIds() == 0, "iterAcl->macRuleByIds() == 0");
        for (const auto& [protocol, aclId] : ids->aclIdType()) {
            FLINQ(th, 8,
                  RootPrefix{attempt} << "   AclId " << aclId << " created for " << key
                                      << " matching proto " << protocol);
            // Walking the rules costs a pass over them: only when someone reads the lines.
            if (th.enabled(9))
                traceRules(attempt, *iterAcl, protocol);
        }
    }
    return acls;
}

void GlueSm::addAclsToRoot(const std::vector<RootAcl>& acls, Mirel::RootConfig& rootConfig) {
    for (const RootAcl& a : acls) {
        rootConfig.aclKeyToAclIdTypeSetIs(*a.key)->copyFrom(*a.ids);
        // The store's shared list for each protocol class: nothing is copied.
        for (const auto& [protocol, aclId] : a.ids->aclIdType())
            rootConfig.aclIs(aclId)->ruleListIs(a.acl->ruleList(protocol));
    }
}

bool GlueSm::sameContent(const std::vector<RootAcl>& acls, const Mirel::RootConfig& root) {
    if (acls.size() != root.aclKeyToAclIdTypeSets())
        return false;
    // Both in key order: one pass pairs them.
    auto entry = root.aclKeyToAclIdTypeSet().begin();
    size_t ids = 0;
    for (const RootAcl& a : acls) {
        if (entry->first != *a.key || !entry->second->isEqual(*a.ids))
            return false;
        ++entry;
        for (const auto& [protocol, aclId] : a.ids->aclIdType()) {
            const Vorn::Ptr<Mirel::HwAcl> hwAcl = root.acl(aclId);
            if (!hwAcl || !hwAcl->holdsRules(*a.acl->ruleList(protocol)))
                return false;
            ++ids;
        }
    }
    // Every id found in the root and as many as it holds: no other entry.
    return ids == root.acls();
}

void GlueSm::traceRules(uint32_t rootId, const OvinMirelAcl& acl,
                        Mirel::ProtocolType protocol) const {
    Flinq::Handle& th = traceHandle();
    for (const auto& [index, rule] : acl.ipRuleById()) {
        FLINQ(th, 9, RootPrefix{rootId} << "    Adding Ace: " << index << ", " << rule);
        const bool tcp = Mirel::isTcpRule(rule);
        if (protocol == Mirel::protocolTcp_) {
            FLINQ(th, 9,
                  RootPrefix{rootId} << (tcp ? "      Added as rule matching on proto TCP"
                                             : "      Skipped, rule not matching on proto TCP"));
        } else if (protocol == Mirel::protocolNonTcp_ && tcp) {
            FLINQ(th, 9, RootPrefix{rootId} << "      Skipped, rule matching on proto TCP");
        }
    }
    for (const auto& [index, rule] : acl.macRuleById())
        FLINQ(th, 9, RootPrefix{rootId} << "    Adding Ace: " << index << ", " << rule);
}

// ---- The hardware layer's answers ----

void GlueSm::handleRootStatus(uint32_t rootId) {
    Flinq::Handle& th = traceHandle();
    FLINQ(th, 8, RootPrefix{rootId} << "handleRootStatus");
    if (!initialized())
        return;
    const Vorn::Ptr<Mirel::RootStatus> rootStatus =
        glueStatus_->rootStatusColl()->rootStatus(rootId);
    if (!rootStatus) {
        FLINQ(th, 8, RootPrefix{rootId} << "   no rootStatus");
        return;
    }
    const Vorn::Ptr<Mirel::RootConfig> rootConfig =
        glueStatus_->rootConfigColl()->rootConfig(rootId);
    VORN_ASSERT(rootConfig);
    const GlueSmState state = glueStatus_->glueSmState();
    FLINQ(th, 8, RootPrefix{rootId} << "   GlueSm State: " << state);
    FLINQ(th, 8, RootPrefix{rootId} << "   RootState: " << rootStatus->rootState());
    if (rootStatus->kickResponse() != rootConfig->mirelRootKick()) {
        FLINQ(th, 8, RootPrefix{rootId} << "   has a kick but not finished");
        return;
    }
    switch (state) {
        case computing_:
            processCompRootStatus(rootId);
            return;
        case loading_:
            processLoadRootStatus(rootId);
            return;
        case aborting_:
            processAbortRootStatus(rootId);
            return;
        default:
            return;
    }
}

void GlueSm::unexpectedRootState(uint32_t rootId, Mirel::RootState rootState) const {
    // Level 0: the ring has it whatever the levels, before the process stops.
    FLINQ(traceHandle(), 0,
          RootPrefix{rootId} << "   unexpected RootState " << rootState << " ("
                             << uint32_t(rootState) << ") in GlueSm State "
                             << glueStatus_->glueSmState());
    VORN_ASSERT(false);
}

void GlueSm::processCompRootStatus(uint32_t rootId) {
    Flinq::Handle& th = traceHandle();
    VORN_ASSERT(glueStatus()->glueSmState() == computing_);
    const Mirel::RootState rootState =
        glueStatus_->rootStatusColl()->rootStatus(rootId)->rootState();
    switch (rootState) {
        case Mirel::rootComputePending_:
        case Mirel::rootComputing_:
            return;
        case Mirel::rootComputed_:
        case Mirel::rootComputeFailed_:
            break;
        default:
            unexpectedRootState(rootId, rootState);
            return;
    }
    if (!glueStatus_->computingRootSmId(rootId)) {
        FLINQ(th, 2, RootPrefix{rootId} << "   not computing in this cycle, ignored");
        return;
    }
    if (rootState == Mirel::rootComputed_) {
        FLINQ(th, 2, RootPrefix{rootId} << "   finished processing");
        glueStatus_->computingRootSmIdDel(rootId);
    } else {
        FLINQ(th, 2, RootPrefix{rootId} << "   failed processing");
        glueStatus_->computingRootSmIdDel(rootId);
        glueStatus_->failedRootSmIdIs(rootId);
    }
    ++activeRootKick_;
    if (glueStatus_->computingRootSmIds() != 0)
        return;
    allRootsComputed();
}

void GlueSm::allRootsComputed() {
    Flinq::Handle& th = traceHandle();
    if (glueStatus_->failedRootSmIds() == 0) {
        FLINQ(th, 2, "All attemptRootSms finished computing");
        changeGlueSmState(loading_);
        actOnAttemptRoots(Mirel::rootActionLoad_);
        // Every attempt went with its chip (decision b): nothing is left to load.
        if (glueStatus_->glueSmState() == loading_ && glueStatus_->loadingRootSmIds() == 0)
            allRootsLoaded();
        return;
    }
    FLINQ(th, 2, "Some attemptRootSms have failed, start aborting processing");
    changeGlueSmState(aborting_);
    // All of them, also those that computed well: a cycle is all or nothing.
    actOnAttemptRoots(Mirel::rootActionAbort_);
    if (glueStatus_->glueSmState() == aborting_ && glueStatus_->abortRootSmIds() == 0)
        allRootsAborted();
}

void GlueSm::actOnAttemptRoots(Mirel::RootAction action) {
    Flinq::Handle& th = traceHandle();
    std::vector<uint32_t> roots;
    for (const auto& entry : glueStatus_->attemptRootSmId())
        roots.push_back(entry.second);
    // Every root is outstanding before any is told: an answer that came at once could not end
    // the phase early.
    for (const uint32_t rootId : roots) {
        if (action == Mirel::rootActionLoad_) {
            glueStatus_->loadingRootSmIdIs(rootId);
            VORN_ASSERT(glueStatus()->loadingRootSmIds());
        } else {
            glueStatus_->abortRootSmIdIs(rootId);
            VORN_ASSERT(glueStatus()->abortRootSmIds());
        }
    }
    for (const uint32_t rootId : roots) {
        FLINQ(
            th, 2,
            " Setting RootSm-" << rootId
                               << (action == Mirel::rootActionLoad_ ? " to loading" : " to abort"));
        const Vorn::Ptr<Mirel::RootConfig> rootConfig =
            glueStatus_->rootConfigColl()->rootConfig(rootId);
        VORN_ASSERT(rootConfig);
        rootConfig->actionIs(action);
        rootConfig->mirelRootKickIs(activeRootKick_);
    }
}

void GlueSm::processLoadRootStatus(uint32_t rootId) {
    Flinq::Handle& th = traceHandle();
    VORN_ASSERT(glueStatus()->glueSmState() == loading_);
    const Mirel::RootState rootState =
        glueStatus_->rootStatusColl()->rootStatus(rootId)->rootState();
    if (rootState == Mirel::rootLoading_)
        return;
    if (rootState != Mirel::rootLoaded_) {
        unexpectedRootState(rootId, rootState);
        return;
    }
    if (!glueStatus_->loadingRootSmId(rootId)) {
        FLINQ(th, 2, RootPrefix{rootId} << "   not loading in this cycle, ignored");
        return;
    }
    const Mirel::ChipId chip = rootSmIdToChipId(rootId);
    FLINQ(th, 2, RootPrefix{rootId} << "   finished loading");
    glueStatus_->loadingRootSmIdDel(rootId);
    glueStatus_->activeRootSmIdIs(chip, rootId);
    FLINQ(th, 2, RootPrefix{rootId} << "   activeRootSmId is now set to " << rootId);
    glueStatus_->rootConfigColl()->rootConfig(rootId)->activeIs(true);
    FLINQ(th, 2, "Updating last attempt for rootStatus/rootConfig for chip " << chip);
    glueStatus_->rootStatusColl()->lastAttemptRootSmIdIs(chip, rootId);
    glueStatus_->rootConfigColl()->lastAttemptRootSmIdIs(chip, rootId);
    glueStatus_->attemptRootSmIdDel(chip);
    // Now the other slot: the root that was active until this load.
    clearRootById(chip, getAttemptRootSmId(chip));
    if (glueStatus_->loadingRootSmIds() == 0)
        allRootsLoaded();
}

void GlueSm::allRootsLoaded() {
    FLINQ(traceHandle(), 2, "All attemptRootSms finished loading");
    // The loaders write before the result is published.
    changeGlueSmState(mappingLoader_);
    changeGlueSmState(success_);
    changeGlueSmState(unblockIntf_);
    changeGlueSmState(idle_);
}

void GlueSm::processAbortRootStatus(uint32_t rootId) {
    Flinq::Handle& th = traceHandle();
    VORN_ASSERT(glueStatus()->glueSmState() == aborting_);
    const Mirel::RootState rootState =
        glueStatus_->rootStatusColl()->rootStatus(rootId)->rootState();
    if (rootState == Mirel::rootAborting_)
        return;
    if (rootState != Mirel::rootAborted_) {
        unexpectedRootState(rootId, rootState);
        return;
    }
    if (!glueStatus_->abortRootSmId(rootId)) {
        FLINQ(th, 2, RootPrefix{rootId} << "   not aborting in this cycle, ignored");
        return;
    }
    const Mirel::ChipId chip = rootSmIdToChipId(rootId);
    FLINQ(th, 2, RootPrefix{rootId} << "   aborted");
    FLINQ(th, 2, "Updating last attempt for rootStatus/rootConfig for chip " << chip);
    glueStatus_->rootStatusColl()->lastAttemptRootSmIdIs(chip, rootId);
    glueStatus_->rootConfigColl()->lastAttemptRootSmIdIs(chip, rootId);
    glueStatus_->abortRootSmIdDel(rootId);
    if (glueStatus_->abortRootSmIds() == 0)
        allRootsAborted();
}

void GlueSm::allRootsAborted() {
    FLINQ(traceHandle(), 2, "All attemptRootSms finished aborting");
    changeGlueSmState(blockIntf_);
    changeGlueSmState(mappingLoader_);
    changeGlueSmState(fail_);
    changeGlueSmState(unblockIntf_);
    changeGlueSmState(idle_);
}

void GlueSm::endPhaseIfNothingOutstanding() {
    // Each step may start the next phase; the next test sees where it left the cycle.
    if (glueStatus_->glueSmState() == computing_ && glueStatus_->computingRootSmIds() == 0)
        allRootsComputed();
    if (glueStatus_->glueSmState() == loading_ && glueStatus_->loadingRootSmIds() == 0)
        allRootsLoaded();
    if (glueStatus_->glueSmState() == aborting_ && glueStatus_->abortRootSmIds() == 0)
        allRootsAborted();
}

}  // namespace OvinMirel
