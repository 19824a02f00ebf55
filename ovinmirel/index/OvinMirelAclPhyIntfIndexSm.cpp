#include "ovinmirel/index/OvinMirelAclPhyIntfIndexSm.h"

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelAclPhyIntfIndexSm");

}  // namespace

// One per ACL of the store: a change of one member of a set runs the matching handler for
// that member. The ACL's key is kept here so that a notification costs no lookup.
class AclPhyIntfIndexSm::AclWatcher {
  public:
    AclWatcher(AclPhyIntfIndexSm* sm, const Ovin::AclKey& key, const OvinMirelAcl& acl)
        : key_(key) {
        eth_ =
            acl.ethIntfNotify([this, sm](const Zamu::IntfId& i) { sm->handleAclPhyIntf(key_, i); });
        sub_ =
            acl.subIntfNotify([this, sm](const Zamu::IntfId& i) { sm->handleAclSubIntf(key_, i); });
        vlan_ = acl.vlanIntfNotify(
            [this, sm](const Zamu::IntfId& i) { sm->handleAclVlanIntf(key_, i); });
    }

  private:
    const Ovin::AclKey key_;
    Vorn::Subscription eth_;
    Vorn::Subscription sub_;
    Vorn::Subscription vlan_;
};

AclPhyIntfIndexSm::AclPhyIntfIndexSm(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
    const Vorn::Ptr<Index>& index)
    : IndexSmBase(aclColl, pdStatus, vlanConfig, index) {}

void AclPhyIntfIndexSm::handleInitialized() {
    acl_.reset();
    initializedIs(true);
    index()->intfAclMappingDelAll();
    index()->vlanAclMappingDelAll();
    index()->subIntfAclMappingDelAll();
    index()->aclPhyIntfMappingDelAll();
    // The store's collections are hashed (its data model): walked in key order so that a
    // replay traces the same whatever the store's history. The handlers write only the Index.
    for (const Ovin::AclKey& key : aclColl()->acl().sortedKeys()) {
        Vorn::Ptr<OvinMirelAcl> acl = aclColl()->acl(key);
        for (const Zamu::IntfId& intf : acl->ethIntf().sortedKeys())
            handleAclPhyIntf(key, intf);
        for (const Zamu::IntfId& intf : acl->vlanIntf().sortedKeys())
            handleAclVlanIntf(key, intf);
        for (const Zamu::IntfId& intf : acl->subIntf().sortedKeys())
            handleAclSubIntf(key, intf);
    }
    // The ACLs replayed above get their watcher only; a new ACL may arrive with bindings
    // already in place, handled Ethernet, then sub-interface, then VLAN interface. An ACL
    // leaving the store only stops being watched.
    using Watchers = Vorn::EntryWatchers<AclField, AclWatcher>;
    acl_ = std::make_unique<Watchers>(
        aclColl()->acl(),
        Watchers::Hooks{
            .make =
                [this](const Ovin::AclKey& key, const Vorn::Ptr<OvinMirelAcl>& acl) {
                    return std::make_unique<AclWatcher>(this, key, *acl);
                },
            .added =
                [this](const Ovin::AclKey& key, AclWatcher&, const Vorn::Ptr<OvinMirelAcl>& acl) {
                    for (const Zamu::IntfId& intf : acl->ethIntf().sortedKeys())
                        handleAclPhyIntf(key, intf);
                    for (const Zamu::IntfId& intf : acl->subIntf().sortedKeys())
                        handleAclSubIntf(key, intf);
                    for (const Zamu::IntfId& intf : acl->vlanIntf().sortedKeys())
                        handleAclVlanIntf(key, intf);
                }},
        Vorn::Existing::watch);
}

bool AclPhyIntfIndexSm::bound(const Ovin::AclKey& acl, OvinMirelAcl::IntfSet set,
                              const Zamu::IntfId& intf) const {
    Vorn::Ptr<OvinMirelAcl> entry = aclColl()->acl(acl);
    if (!entry)
        return false;
    switch (set) {
        case OvinMirelAcl::IntfSet::eth:
            return entry->ethIntf(intf);
        case OvinMirelAcl::IntfSet::sub:
            return entry->subIntf(intf);
        case OvinMirelAcl::IntfSet::vlan:
            return entry->vlanIntf(intf);
    }
    return false;
}

void AclPhyIntfIndexSm::handleAclPhyIntf(const Ovin::AclKey& acl, const Zamu::IntfId& intfId) {
    VORN_ASSERT(initialized());
    FLINQ(th, 8, "handleAclPhyIntf " << acl << " " << intfId);
    // clang-format off
    VORN_ASSERT_MSG(Zamu::EthIntfId::isEthIntfId( intfId ), "Internal Error");
    // clang-format on
    AclEntries entries(acl);
    if (bound(acl, OvinMirelAcl::IntfSet::eth, intfId)) {
        FLINQ(th, 8, "  created: " << acl << " " << intfId);
        updateAclPhyIntfMappingAdded(entries, intfId, intfId);
    } else {
        updateAclPhyIntfMappingDeleted(entries, intfId, intfId);
    }
}

void AclPhyIntfIndexSm::handleAclSubIntf(const Ovin::AclKey& acl, const Zamu::IntfId& subIntfId) {
    VORN_ASSERT(initialized());
    FLINQ(th, 8, "handleAclSubIntf " << acl << " " << subIntfId);
    // clang-format off
    VORN_ASSERT_MSG(Zamu::SubIntfId::isSubIntfId( subIntfId ), "Internal Error");
    // clang-format on
    const bool added = bound(acl, OvinMirelAcl::IntfSet::sub, subIntfId);
    if (added) {
        index()->subIntfAclMappingIs(subIntfId)->aclKeyIs(acl);
        FLINQ(th, 8, " aclKey: " << acl << " subIntf: " << subIntfId << " is added.");
    } else {
        index()->subIntfAclMappingDelMember(subIntfId, [&](SubIntfAclColl& acls) {
            acls.aclKeyDel(acl);
            return acls.aclKeys();
        });
        FLINQ(th, 8, " aclKey: " << acl << " subIntf: " << subIntfId << " is removed.");
    }
    Vorn::Ptr<SubPhyIntfColl> carriers = index()->subPhyIntfMapping(subIntfId);
    if (!carriers)
        return;
    // The ripple never writes subPhyIntfMapping.
    AclEntries entries(acl);
    for (const Zamu::IntfId& phyIntf : carriers->phyIntfId()) {
        if (added) {
            updateAclPhyIntfMappingAdded(entries, phyIntf, subIntfId);
        } else {
            updateAclPhyIntfMappingDeleted(entries, phyIntf, subIntfId);
        }
    }
}

void AclPhyIntfIndexSm::handleAclVlanIntf(const Ovin::AclKey& acl, const Zamu::IntfId& vlanIntfId) {
    VORN_ASSERT(initialized());
    FLINQ(th, 8, "handleAclVlanIntf " << acl << " " << vlanIntfId);
    // clang-format off
    VORN_ASSERT_MSG(Zamu::VlanIntfId::isVlanIntfId( vlanIntfId ), "Internal Error");
    // clang-format on
    const Bridging::VlanId vlan = Zamu::VlanIntfId::vlanId(vlanIntfId);  // may throw
    const bool added = bound(acl, OvinMirelAcl::IntfSet::vlan, vlanIntfId);
    if (added) {
        index()->vlanAclMappingIs(vlan, vlanIntfId)->aclKeyIs(acl);
        FLINQ(th, 8, " aclKey: " << acl << " vlan: " << vlanIntfId << " is added.");
    } else {
        index()->vlanAclMappingDelMember(vlan, [&](VlanAclColl& acls) {
            acls.aclKeyDel(acl);
            return acls.aclKeys();
        });
        FLINQ(th, 8, " aclKey: " << acl << " vlan: " << vlanIntfId << " is removed.");
    }
    Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfig> members =
        vlanPhyIntfConfigDir()->vlanPhyIntfConfig(vlan);
    if (!members)
        return;
    AclEntries entries(acl);
    for (const Zamu::IntfId& phyIntf : members->phyIntf()) {
        if (added) {
            updateAclPhyIntfMappingAdded(entries, phyIntf, vlanIntfId);
        } else {
            updateAclPhyIntfMappingDeleted(entries, phyIntf, vlanIntfId);
        }
    }
}

Vorn::Ptr<AclPhyIntfIndexSm> aclPhyIntfIndexSmFactory(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
    const Vorn::Ptr<Index>& index) {
    return Vorn::make<AclPhyIntfIndexSm>(aclColl, pdStatus, vlanConfig, index);
}

}  // namespace OvinMirel
