#include "ovinmirel/index/OvinMirelPhyIntfVlanIndexSm.h"

#include <optional>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelPhyIntfVlanIndexSm");

}  // namespace

// One per VLAN entry: a member joining or leaving runs the handler for it. Keeps the entry so
// that the members of a VLAN deleted as a whole can still be walked.
class PhyIntfVlanIndexSm::VlanWatcher {
  public:
    VlanWatcher(PhyIntfVlanIndexSm* sm, const Bridging::VlanId& vlan,
                const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfig>& entry)
        : entry_(entry) {
        sub_ = entry->phyIntfNotify(
            [sm, vlan](const Zamu::IntfId& phyIntf) { sm->handleVlanPhyIntf(vlan, phyIntf); });
    }
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfig>& entry() const { return entry_; }

  private:
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfig> entry_;
    Vorn::Subscription sub_;
};

PhyIntfVlanIndexSm::PhyIntfVlanIndexSm(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
    const Vorn::Ptr<Index>& index)
    : IndexSmBase(aclColl, pdStatus, vlanConfig, index) {}

void PhyIntfVlanIndexSm::handleInitialized() {
    vlanPhyIntfConfig_.reset();
    vlanGone_.reset();
    watching_ = false;
    initializedIs(true);
    index()->phyIntfVlanMappingDelAll();
    // The chip-VLAN mapping is derived from the membership rebuilt here; entries left from
    // before would otherwise survive a rebuild of the index.
    index()->chipVlanMappingDelAll();
    for (const auto& [vlan, entry] : vlanPhyIntfConfigDir()->vlanPhyIntfConfig()) {
        for (const Zamu::IntfId& phyIntf : entry->phyIntf())
            handleVlanPhyIntf(vlan, phyIntf);
    }
    vlanGone_ = vlanPhyIntfConfigDir()->vlanPhyIntfConfigNotify(
        [this](const Bridging::VlanId& vlan) { handleVlanGone(vlan); });
    vlanPhyIntfConfig_ = std::make_unique<Vorn::EntryWatchers<VlanField, VlanWatcher>>(
        vlanPhyIntfConfigDir()->vlanPhyIntfConfig(),
        [this](const Bridging::VlanId& vlan,
               const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfig>& entry) {
            auto watcher = std::make_unique<VlanWatcher>(this, vlan, entry);
            if (watching_) {
                for (const Zamu::IntfId& phyIntf : entry->phyIntf()) {
                    handleVlanPhyIntf(vlan, phyIntf);
                }
            }
            return watcher;
        });
    watching_ = true;
}

void PhyIntfVlanIndexSm::handleVlanGone(const Bridging::VlanId& vlan) {
    VlanWatcher* watcher = vlanPhyIntfConfig_ ? vlanPhyIntfConfig_->find(vlan) : nullptr;
    if (!watcher)
        return;
    Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfig> old = watcher->entry();
    if (vlanPhyIntfConfigDir()->vlanPhyIntfConfig(vlan) == old)
        return;
    // The vanished entry is no longer written by anyone; its members are the ones to remove.
    for (const Zamu::IntfId& phyIntf : old->phyIntf())
        handleVlanPhyIntf(vlan, phyIntf);
}

void PhyIntfVlanIndexSm::handleVlanPhyIntf(const Bridging::VlanId& vlan,
                                           const Zamu::IntfId& phyIntf) {
    VORN_ASSERT(initialized());
    FLINQ(th, 8, "handleVlanPhyIntf " << phyIntf << " Vlan" << vlan);
    Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfig> entry =
        vlanPhyIntfConfigDir()->vlanPhyIntfConfig(vlan);
    const bool added = entry && entry->phyIntf(phyIntf);
    if (added) {
        index()->phyIntfVlanMappingIs(phyIntf)->vlanIdIs(vlan);
    } else if (Vorn::Ptr<PhyIntfVlanColl> vlans = index()->phyIntfVlanMapping(phyIntf)) {
        vlans->vlanIdDel(vlan);
        if (vlans->vlanIds() == 0)
            index()->phyIntfVlanMappingDel(phyIntf);
    }
    if (std::optional<Mirel::ChipId> chip = chipOf(phyIntf)) {
        if (added) {
            updateChipVlanMappingAdded(*chip, vlan, phyIntf);
        } else {
            updateChipVlanMappingDeleted(*chip, vlan, phyIntf);
        }
    }
    Vorn::Ptr<VlanAclColl> acls = index()->vlanAclMapping(vlan);
    if (!acls)
        return;
    // The ripple never writes vlanAclMapping.
    for (const Ovin::AclKey& acl : acls->aclKey()) {
        if (added) {
            updateAclPhyIntfMappingAdded(acl, phyIntf, acls->vlanIntfId());
        } else {
            updateAclPhyIntfMappingDeleted(acl, phyIntf, acls->vlanIntfId());
        }
    }
}

Vorn::Ptr<PhyIntfVlanIndexSm> phyIntfVlanIndexSmFactory(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
    const Vorn::Ptr<Index>& index) {
    return Vorn::make<PhyIntfVlanIndexSm>(aclColl, pdStatus, vlanConfig, index);
}

}  // namespace OvinMirel
