#include "ovinmirel/index/OvinMirelPhyIntfVlanIndexSm.h"

#include <optional>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelPhyIntfVlanIndexSm");

}  // namespace

// One per VLAN entry: a member joining or leaving runs the handler for it.
class PhyIntfVlanIndexSm::VlanWatcher {
  public:
    VlanWatcher(PhyIntfVlanIndexSm* sm, const Bridging::VlanId& vlan,
                const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfig>& entry) {
        sub_ = entry->phyIntfNotify(
            [sm, vlan](const Zamu::IntfId& phyIntf) { sm->handleVlanPhyIntf(vlan, phyIntf); });
    }

  private:
    Vorn::Subscription sub_;
};

PhyIntfVlanIndexSm::PhyIntfVlanIndexSm(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
    const Vorn::Ptr<Index>& index)
    : IndexSmBase(aclColl, pdStatus, vlanConfig, index) {}

void PhyIntfVlanIndexSm::handleInitialized() {
    vlanPhyIntfConfig_.reset();
    initializedIs(true);
    index()->phyIntfVlanMappingDelAll();
    // The chip-VLAN mapping is derived from the membership rebuilt here; entries left from
    // before would otherwise survive a rebuild of the index.
    index()->chipVlanMappingDelAll();
    using Watchers = Vorn::EntryWatchers<VlanField, VlanWatcher>;
    using Entry = Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfig>;
    // Every member of every VLAN is replayed, then new VLANs are handled member by member. A
    // vanished VLAN is no longer written by anyone: its last members are the ones to remove.
    auto everyMember = [this](const Bridging::VlanId& vlan, VlanWatcher&, const Entry& entry) {
        for (const Zamu::IntfId& phyIntf : entry->phyIntf())
            handleVlanPhyIntf(vlan, phyIntf);
    };
    vlanPhyIntfConfig_ = std::make_unique<Watchers>(
        vlanPhyIntfConfigDir()->vlanPhyIntfConfig(),
        Watchers::Hooks{.make =
                            [this](const Bridging::VlanId& vlan, const Entry& entry) {
                                return std::make_unique<VlanWatcher>(this, vlan, entry);
                            },
                        .added = everyMember,
                        .gone = everyMember},
        Vorn::Existing::add);
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
    } else {
        index()->phyIntfVlanMappingDelMember(phyIntf, [&](PhyIntfVlanColl& vlans) {
            vlans.vlanIdDel(vlan);
            return vlans.vlanIds();
        });
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
    for (const Ovin::AclKey& key : acls->aclKey()) {
        AclEntries acl(key);
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
