#include "ovinmirel/acl/OvinMirelAclSm.h"

#include <iterator>
#include <string>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"

namespace OvinMirel {

static Flinq::Handle th("OvinMirelAclSm");

OvinMirelAclSm::OvinMirelAclSm(const Vorn::Ptr<Ovin::OvinCommonSmData>& commonSmData,
                               const Vorn::Ptr<const Acl::Config>& aclConfig,
                               const Vorn::Ptr<const Acl::ParamConfig>& paramConfig,
                               const Vorn::Ptr<const Acl::ConfigDir>& configDir,
                               const Vorn::Ptr<const Acl::IntfConfig>& intfConfig,
                               const Vorn::Ptr<const Acl::ConfigDir>& intfConfigDir,
                               const Vorn::Ptr<Acl::StatusDp>& statusDp,
                               const Vorn::Ptr<Errdisable::CauseStatus>& causeStatus,
                               const Vorn::Ptr<const Lag::Input::Config>& lagInputConfig,
                               const Vorn::Ptr<OvinHelper::AclHelper>& aclHelper,
                               Vorn::Clock& clock,
                               const Vorn::Ptr<const Bridging::Config>& bridgingConfig,
                               const Vorn::Ptr<const Interface::SubIntfStatusDir>& subIntfStatusDir,
                               const Vorn::Ptr<const Interface::SubIntfConfigDir>& subIntfConfigDir,
                               const Vorn::Ptr<const GlueStatus>& glueStatus,
                               const Vorn::Ptr<const OvinMirelAclColl>& ovinMirelAclColl)
    : Ovin::AclSm(th, commonSmData, aclConfig, paramConfig, configDir, intfConfig, intfConfigDir,
                  statusDp, causeStatus, lagInputConfig, aclHelper, clock, bridgingConfig,
                  subIntfStatusDir, subIntfConfigDir),
      ovinMirelAclColl_(required(ovinMirelAclColl, "ovinMirelAclColl")) {
    glueStatusIs(glueStatus);
}

void OvinMirelAclSm::handleInitialized() {
    Ovin::AclSm::handleInitialized();
    storeAclSub_ =
        ovinMirelAclColl_->aclNotify([this](const Ovin::AclKey& key) { handleStoreAcl(key); });
    for (const auto& [key, acl] : ovinMirelAclColl_->acl())
        storeAcls_.emplace(key, acl);
    glueStatusSub_ = glueStatusNotify([this] { watchGlueStatus(); });
    watchGlueStatus();
}

void OvinMirelAclSm::handleDelete() {
    glueStatusSub_.reset();
    glueSmStateSub_.reset();
    storeAclSub_.reset();
    storeAcls_.clear();
    Ovin::AclSm::handleDelete();
}

void OvinMirelAclSm::watchGlueStatus() {
    glueSmStateSub_.reset();
    if (const Vorn::Ptr<const GlueStatus> gs = glueStatus())
        glueSmStateSub_ = gs->glueSmStateNotify([this] { handleGlueStatus(); });
}

void OvinMirelAclSm::handleStoreAcl(const Ovin::AclKey& key) {
    ++storeAclChanges_;
    if (const Vorn::Ptr<OvinMirelAcl> acl = ovinMirelAclColl_->acl(key))
        storeAcls_.insert_or_assign(key, acl);
    else
        storeAcls_.erase(key);
}

void OvinMirelAclSm::handleGlueStatus() {
    FLINQ(th, 8,
          "OvinMirelAclSm::"
              << "handleGlueStatus");
    handleDpAclUpdateRequestTime();
}

Ovin::AclCreateError OvinMirelAclSm::successResult(const OvinMirelAcl& acl) const {
    const bool bound = acl.ethIntfs() + acl.subIntfs() + acl.vlanIntfs() > 0;
    const Vorn::Ptr<const Index> in = index();
    if (bound && in && !in->aclChipMapping(acl.name()))
        return Ovin::aclCreateFailed;
    return Ovin::aclCreateOk;
}

void OvinMirelAclSm::reportCreated(bool failed) {
    const OvinHelper::AclStatusUpdateCallback report = aclHelper()->aclStatusUpdateCallback();
    for (auto it = storeAcls_.begin(); it != storeAcls_.end();) {
        const Vorn::Ptr<const OvinMirelAcl> acl = it->second;  // the key lives as long as it
        const Ovin::AclKey& key = acl->name();
        const uint64_t changes = storeAclChanges_;
        if (acl->created()) {
            const Ovin::AclCreateError result =
                failed ? Ovin::aclCreateFailed : successResult(*acl);
            FLINQ(th, 8, "   aclStatusUpdate " << key << " result " << uint32_t(result));
            report(key, result);
        }
        // The engine's reaction may have changed the store: then go on after this key.
        it = changes == storeAclChanges_ ? std::next(it) : storeAcls_.upper_bound(key);
    }
}

void OvinMirelAclSm::handleDpAclUpdateRequestTime() {
    const Vorn::Ptr<const GlueStatus> gs = glueStatus();
    if (!gs) {
        FLINQ(th, 8, "   no GlueStatus");
        return;
    }
    const GlueSmState state = gs->glueSmState();
    FLINQ(th, 8, "   GlueSm State: " << state);
    if (gs->cycleRequestQueued() &&
        (state == idle_ || state == success_ || state == fail_ || state == aclIdAllocFail_)) {
        // A held request follows this cycle, which may not carry the engine's latest update.
        // Every cycle commits the whole configuration, so the next outcome answers for both.
        FLINQ(th, 8, "   a held cycle follows, waiting for its outcome");
        return;
    }
    switch (state) {
        case idle_:
            if (dpAclUpdateRequestPending())
                statusDp()->dpAclUpdateTimeIs(dpAclUpdateRequestTime());
            break;
        case success_:
            aclHelper()->dirtyIs(false);
            VORN_ASSERT(glueStatus()->chipErrors() == 0);
            reportCreated(false);
            statusDp()->dpAclUpdateTimeIs(dpAclUpdateRequestTime());
            break;
        case aclIdAllocFail_:
        case fail_: {
            const Vorn::Ptr<OvinHelper::AclHelper>& helper = aclHelper();
            helper->unitErrorDelAll();
            helper->publishUnitErrorDelAll();
            for (const auto& [chip, error] : gs->chipError()) {
                const std::string name = "Chip-" + std::to_string(chip.value());
                helper->unitErrorIs(name, uint32_t(error));
                helper->publishUnitErrorIs(name, true);
            }
            reportCreated(true);
            statusDp()->dpAclUpdateTimeIs(dpAclUpdateRequestTime());
            break;
        }
        default:
            break;  // a cycle is under way
    }
}

Vorn::Ptr<OvinMirelAclSm> ovinMirelAclSmFactory(
    const Vorn::Ptr<Ovin::OvinCommonSmData>& commonSmData,
    const Vorn::Ptr<const Acl::Config>& aclConfig,
    const Vorn::Ptr<const Acl::ParamConfig>& paramConfig,
    const Vorn::Ptr<const Acl::ConfigDir>& configDir,
    const Vorn::Ptr<const Acl::IntfConfig>& intfConfig,
    const Vorn::Ptr<const Acl::ConfigDir>& intfConfigDir, const Vorn::Ptr<Acl::StatusDp>& statusDp,
    const Vorn::Ptr<Errdisable::CauseStatus>& causeStatus,
    const Vorn::Ptr<const Lag::Input::Config>& lagInputConfig,
    const Vorn::Ptr<OvinHelper::AclHelper>& aclHelper, Vorn::Clock& clock,
    const Vorn::Ptr<const Bridging::Config>& bridgingConfig,
    const Vorn::Ptr<const Interface::SubIntfStatusDir>& subIntfStatusDir,
    const Vorn::Ptr<const Interface::SubIntfConfigDir>& subIntfConfigDir,
    const Vorn::Ptr<const GlueStatus>& glueStatus,
    const Vorn::Ptr<const OvinMirelAclColl>& ovinMirelAclColl) {
    return Vorn::make<OvinMirelAclSm>(commonSmData, aclConfig, paramConfig, configDir, intfConfig,
                                      intfConfigDir, statusDp, causeStatus, lagInputConfig,
                                      aclHelper, clock, bridgingConfig, subIntfStatusDir,
                                      subIntfConfigDir, glueStatus, ovinMirelAclColl);
}

}  // namespace OvinMirel
