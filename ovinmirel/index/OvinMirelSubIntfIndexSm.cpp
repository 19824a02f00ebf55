#include "ovinmirel/index/OvinMirelSubIntfIndexSm.h"

#include <optional>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelSubIntfIndexSm");

template <class T>
const Vorn::Ptr<T>& required(const Vorn::Ptr<T>& p, const char* attr) {
    Vorn::requireNonNull(p, "OvinMirel::SubIntfIndexSm", attr);
    return p;
}

}  // namespace

// One per LAG entry: a port joining or leaving runs handleLagMember for it. Keeps the entry so
// that the members of a LAG deleted as a whole can still be walked.
class SubIntfIndexSm::LagWatcher {
  public:
    LagWatcher(SubIntfIndexSm* sm, const Zamu::IntfId& lagIntf,
               const Vorn::Ptr<Lag::LagPhyIntfConfig>& entry)
        : entry_(entry) {
        sub_ = entry->phyIntfNotify(
            [sm, lagIntf](const Zamu::IntfId& ethIntf) { sm->handleLagMember(lagIntf, ethIntf); });
    }
    const Vorn::Ptr<Lag::LagPhyIntfConfig>& entry() const { return entry_; }

  private:
    const Vorn::Ptr<Lag::LagPhyIntfConfig> entry_;
    Vorn::Subscription sub_;
};

SubIntfIndexSm::SubIntfIndexSm(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
    const Vorn::Ptr<Lag::LagPhyIntfMapping>& lagMapping,
    const Vorn::Ptr<Interface::SubIntfConfigDir>& subIntfConfig, const Vorn::Ptr<Index>& index)
    : IndexSmBase(aclColl, pdStatus, vlanConfig, index),
      lagMapping_(required(lagMapping, "lagMapping")),
      subIntfConfig_(required(subIntfConfig, "subIntfConfig")) {}

void SubIntfIndexSm::handleInitialized() {
    lagPhyIntfConfig_.reset();
    lagGone_.reset();
    subIntfConfigSub_.reset();
    watching_ = false;
    initializedIs(true);
    // Both are derived from the carriers rebuilt here; entries left from before would
    // otherwise survive a rebuild of the index.
    index()->phySubIntfMappingDelAll();
    index()->chipSubIntfMappingDelAll();
    for (const auto& [subIntf, config] : subIntfConfig_->intfConfig())
        handleSubIntf(subIntf);
    subIntfConfigSub_ = subIntfConfig_->intfConfigNotify(
        [this](const Zamu::IntfId& subIntf) { handleSubIntf(subIntf); });
    lagGone_ = lagMapping_->lagPhyIntfConfigNotify(
        [this](const Zamu::IntfId& lagIntf) { handleLagGone(lagIntf); });
    lagPhyIntfConfig_ = std::make_unique<Vorn::EntryWatchers<LagField, LagWatcher>>(
        lagMapping_->lagPhyIntfConfig(),
        [this](const Zamu::IntfId& lagIntf, const Vorn::Ptr<Lag::LagPhyIntfConfig>& entry) {
            auto watcher = std::make_unique<LagWatcher>(this, lagIntf, entry);
            if (watching_) {
                for (const Zamu::IntfId& ethIntf : entry->phyIntf()) {
                    handleLagMember(lagIntf, ethIntf);
                }
            }
            return watcher;
        });
    watching_ = true;
}

void SubIntfIndexSm::handleLagGone(const Zamu::IntfId& lagIntf) {
    LagWatcher* watcher = lagPhyIntfConfig_ ? lagPhyIntfConfig_->find(lagIntf) : nullptr;
    if (!watcher)
        return;
    Vorn::Ptr<Lag::LagPhyIntfConfig> old = watcher->entry();
    if (lagMapping_->lagPhyIntfConfig(lagIntf) == old)
        return;
    for (const Zamu::IntfId& ethIntf : old->phyIntf())
        handleLagMember(lagIntf, ethIntf);
}

void SubIntfIndexSm::handleSubIntf(const Zamu::IntfId& intfId) {
    FLINQ(th, 8, "handleSubIntf " << intfId);
    // clang-format off
    VORN_ASSERT(Zamu::SubIntfId::isSubIntfId( intfId ));
    // clang-format on
    if (Zamu::SubIntfId::isPortChannelSubIntfId(intfId)) {
        handleLagSubIntf(intfId);
    } else {
        handleEthSubIntf(intfId);
    }
}

void SubIntfIndexSm::handleEthSubIntf(const Zamu::IntfId& subIntf) {
    VORN_ASSERT(initialized());
    FLINQ(th, 8, "handleEthSubIntf Interface " << subIntf);
    const Zamu::IntfId parent = Zamu::SubIntfId::parentIntfId(subIntf);
    if (subIntfConfig_->intfConfig(subIntf)) {
        FLINQ(th, 8, "   Adding Eth SubIntf " << subIntf);
        updateSubIntfMappingAdded(parent, subIntf);
    } else {
        FLINQ(th, 8, "   Removing Eth SubIntf " << subIntf);
        updateSubIntfMappingDeleted(parent, subIntf);
    }
}

void SubIntfIndexSm::handleLagSubIntf(const Zamu::IntfId& intfId) {
    VORN_ASSERT(initialized());
    // clang-format off
    VORN_ASSERT(Zamu::SubIntfId::isSubIntfId( intfId ));
    VORN_ASSERT(Zamu::SubIntfId::isPortChannelSubIntfId( intfId ));
    // clang-format on
    FLINQ(th, 8, "handleLagSubIntf Interface " << intfId);
    const Zamu::IntfId lag = Zamu::SubIntfId::parentIntfId(intfId);
    Vorn::Ptr<Lag::LagPhyIntfConfig> members = lagMapping_->lagPhyIntfConfig(lag);
    if (subIntfConfig_->intfConfig(intfId)) {
        FLINQ(th, 8, "   Adding Lag SubIntf " << intfId);
        index()->lagSubIntfMappingIs(lag)->subIntfIdIs(intfId);
        if (!members)
            return;
        for (const Zamu::IntfId& member : members->phyIntf()) {
            updateSubIntfMappingAdded(member, intfId);
        }
    } else {
        FLINQ(th, 8, "   Removing Lag SubIntf " << intfId);
        if (Vorn::Ptr<LagSubIntfColl> subIntfs = index()->lagSubIntfMapping(lag)) {
            subIntfs->subIntfIdDel(intfId);
            if (subIntfs->subIntfIds() == 0)
                index()->lagSubIntfMappingDel(lag);
        }
        if (!members)
            return;
        for (const Zamu::IntfId& member : members->phyIntf()) {
            updateSubIntfMappingDeleted(member, intfId);
        }
    }
}

void SubIntfIndexSm::handleLagMember(const Zamu::IntfId& lagIntf, const Zamu::IntfId& ethIntf) {
    VORN_ASSERT(initialized());
    FLINQ(th, 8, "handleLagMember lagIntf " << lagIntf << " ethIntf " << ethIntf);
    Vorn::Ptr<Lag::LagPhyIntfConfig> members = lagMapping_->lagPhyIntfConfig(lagIntf);
    const bool member = members && members->phyIntf(ethIntf);
    Vorn::Ptr<LagSubIntfColl> subIntfs = index()->lagSubIntfMapping(lagIntf);
    if (!subIntfs)
        return;
    // The ripple never writes lagSubIntfMapping.
    for (const Zamu::IntfId& subIntf : subIntfs->subIntfId()) {
        if (member) {
            FLINQ(th, 8, "   Adding ethIntf " << ethIntf << " to lagIntf " << lagIntf);
            updateSubIntfMappingAdded(ethIntf, subIntf);
        } else {
            FLINQ(th, 8, "   Removing ethIntf " << ethIntf << " from lagIntf " << lagIntf);
            updateSubIntfMappingDeleted(ethIntf, subIntf);
        }
    }
}

void SubIntfIndexSm::updateSubIntfMappingAdded(const Zamu::IntfId& phyIntf,
                                               const Zamu::IntfId& subIntf) {
    FLINQ(th, 8, "updateSubIntfMappingAdded " << phyIntf << " " << subIntf);
    if (std::optional<Mirel::ChipId> chip = chipOf(phyIntf)) {
        updateChipSubIntfMappingAdded(*chip, subIntf, phyIntf);
    }
    index()->subPhyIntfMappingIs(subIntf)->phyIntfIdIs(phyIntf);
    index()->phySubIntfMappingIs(phyIntf)->subIntfIdIs(subIntf);
    Vorn::Ptr<SubIntfAclColl> acls = index()->subIntfAclMapping(subIntf);
    if (!acls)
        return;
    // The ripple never writes subIntfAclMapping.
    for (const Ovin::AclKey& acl : acls->aclKey()) {
        updateAclPhyIntfMappingAdded(acl, phyIntf, subIntf);
    }
}

void SubIntfIndexSm::updateSubIntfMappingDeleted(const Zamu::IntfId& phyIntf,
                                                 const Zamu::IntfId& subIntf) {
    FLINQ(th, 8, "updateSubIntfMappingDeleted " << phyIntf << " " << subIntf);
    if (std::optional<Mirel::ChipId> chip = chipOf(phyIntf)) {
        updateChipSubIntfMappingDeleted(*chip, subIntf, phyIntf);
    }
    if (Vorn::Ptr<SubPhyIntfColl> carriers = index()->subPhyIntfMapping(subIntf)) {
        carriers->phyIntfIdDel(phyIntf);
        if (carriers->phyIntfIds() == 0)
            index()->subPhyIntfMappingDel(subIntf);
    }
    if (Vorn::Ptr<PhySubIntfColl> carried = index()->phySubIntfMapping(phyIntf)) {
        carried->subIntfIdDel(subIntf);
        if (carried->subIntfIds() == 0)
            index()->phySubIntfMappingDel(phyIntf);
    }
    Vorn::Ptr<SubIntfAclColl> acls = index()->subIntfAclMapping(subIntf);
    if (!acls)
        return;
    for (const Ovin::AclKey& acl : acls->aclKey()) {
        updateAclPhyIntfMappingDeleted(acl, phyIntf, subIntf);
    }
}

Vorn::Ptr<SubIntfIndexSm> subIntfIndexSmFactory(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
    const Vorn::Ptr<Lag::LagPhyIntfMapping>& lagMapping,
    const Vorn::Ptr<Interface::SubIntfConfigDir>& subIntfConfig, const Vorn::Ptr<Index>& index) {
    return Vorn::make<SubIntfIndexSm>(aclColl, pdStatus, vlanConfig, lagMapping, subIntfConfig,
                                      index);
}

}  // namespace OvinMirel
