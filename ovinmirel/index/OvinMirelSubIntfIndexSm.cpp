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

// One per LAG entry: a port joining or leaving runs handleLagMember for it.
class SubIntfIndexSm::LagWatcher {
  public:
    LagWatcher(SubIntfIndexSm* sm, const Zamu::IntfId& lagIntf,
               const Vorn::Ptr<Lag::LagPhyIntfConfig>& entry) {
        sub_ = entry->phyIntfNotify(
            [sm, lagIntf](const Zamu::IntfId& ethIntf) { sm->handleLagMember(lagIntf, ethIntf); });
    }

  private:
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
    subIntfConfigSub_.reset();
    initializedIs(true);
    // Both are derived from the carriers rebuilt here; entries left from before would
    // otherwise survive a rebuild of the index.
    index()->phySubIntfMappingDelAll();
    index()->chipSubIntfMappingDelAll();
    for (const Zamu::IntfId& subIntf : subIntfConfig_->intfConfig().sortedKeys())
        handleSubIntf(subIntf);
    subIntfConfigSub_ = subIntfConfig_->intfConfigNotify(
        [this](const Zamu::IntfId& subIntf) { handleSubIntf(subIntf); });
    using Watchers = Vorn::EntryWatchers<LagField, LagWatcher>;
    using Entry = Vorn::Ptr<Lag::LagPhyIntfConfig>;
    // The LAGs present now were covered by the sub-interface replay (it walks their members).
    // A new LAG's members start carrying its sub-interfaces; a vanished LAG's last members
    // stop.
    auto everyMember = [this](const Zamu::IntfId& lagIntf, LagWatcher&, const Entry& entry) {
        for (const Zamu::IntfId& ethIntf : entry->phyIntf())
            handleLagMember(lagIntf, ethIntf);
    };
    lagPhyIntfConfig_ = std::make_unique<Watchers>(
        lagMapping_->lagPhyIntfConfig(),
        Watchers::Hooks{.make =
                            [this](const Zamu::IntfId& lagIntf, const Entry& entry) {
                                return std::make_unique<LagWatcher>(this, lagIntf, entry);
                            },
                        .added = everyMember,
                        .gone = everyMember},
        Vorn::Existing::watch);
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
        index()->lagSubIntfMappingDelMember(lag, [&](LagSubIntfColl& subIntfs) {
            subIntfs.subIntfIdDel(intfId);
            return subIntfs.subIntfIds();
        });
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
    for (const Ovin::AclKey& key : acls->aclKey()) {
        AclEntries acl(key);
        updateAclPhyIntfMappingAdded(acl, phyIntf, subIntf);
    }
}

void SubIntfIndexSm::updateSubIntfMappingDeleted(const Zamu::IntfId& phyIntf,
                                                 const Zamu::IntfId& subIntf) {
    FLINQ(th, 8, "updateSubIntfMappingDeleted " << phyIntf << " " << subIntf);
    if (std::optional<Mirel::ChipId> chip = chipOf(phyIntf)) {
        updateChipSubIntfMappingDeleted(*chip, subIntf, phyIntf);
    }
    index()->subPhyIntfMappingDelMember(subIntf, [&](SubPhyIntfColl& carriers) {
        carriers.phyIntfIdDel(phyIntf);
        return carriers.phyIntfIds();
    });
    index()->phySubIntfMappingDelMember(phyIntf, [&](PhySubIntfColl& carried) {
        carried.subIntfIdDel(subIntf);
        return carried.subIntfIds();
    });
    Vorn::Ptr<SubIntfAclColl> acls = index()->subIntfAclMapping(subIntf);
    if (!acls)
        return;
    for (const Ovin::AclKey& key : acls->aclKey()) {
        AclEntries acl(key);
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
