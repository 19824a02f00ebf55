#pragma once
// AclPhyIntfIndexSm: follows, for every ACL of the store, the three sets of configured
// interfaces it is bound to (Ethernet ports, sub-interfaces, VLAN interfaces) and resolves each
// binding to physical interfaces through IndexSmBase, with the configured interface recorded
// as the parent.
//
// Watches: the store's `acl` collection, one watcher per ACL on its ethIntf, subIntf and
//          vlanIntf sets (from handleInitialized on).
// Reads:   the VLAN configuration (members of a VLAN), Index.subPhyIntfMapping (carriers of
//          a sub-interface).
// Writes:  Index.subIntfAclMapping and Index.vlanAclMapping; through the base, everything an
//          ACL reaching a physical interface implies.
// Invariants:
//  1. acl is in subIntfAclMapping[s] (vlanAclMapping[v]) exactly when the store binds acl to
//     s (to the VLAN interface of v).
//  2. For every binding and every physical interface it resolves to, that interface's
//     PhyIntfMapping under the ACL lists the configured interface as a parent.
//  3. An ACL leaving the store is only no longer watched; its sets must be emptied (each
//     removal notified) before it goes, or its bindings stay in the Index.
// Owns: the per-ACL watchers; references through IndexSmBase.

#include <memory>

#include "ovinmirel/index/OvinMirelIndexSmBase.h"
#include "platform/vorn/EntryWatchers.h"

namespace OvinMirel {

class AclPhyIntfIndexSm : public IndexSmBase {
  public:
    AclPhyIntfIndexSm(const Vorn::Ptr<OvinMirelAclColl>& aclColl,
                      const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
                      const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
                      const Vorn::Ptr<Index>& index);

    // Drops intfAclMapping, vlanAclMapping, subIntfAclMapping and aclPhyIntfMapping, replays
    // every binding of the store, then follows its changes.
    void handleInitialized();
    // Each brings the Index in line with whether the store binds acl to the interface now.
    // REQUIRES: initialized(), and an interface id of the handler's kind.
    void handleAclPhyIntf(const Ovin::AclKey& acl, const Zamu::IntfId& intfId);
    void handleAclSubIntf(const Ovin::AclKey& acl, const Zamu::IntfId& subIntfId);
    // Throws Vorn::RangeException when the VLAN interface's number is not a VLAN id (before
    // anything is written).
    void handleAclVlanIntf(const Ovin::AclKey& acl, const Zamu::IntfId& vlanIntfId);

  private:
    class AclWatcher;
    using AclField = Vorn::EntityMapField<Ovin::AclKey, OvinMirelAcl>;

    bool bound(const Ovin::AclKey& acl, OvinMirelAcl::IntfSet set, const Zamu::IntfId& intf) const;

    std::unique_ptr<Vorn::EntryWatchers<AclField, AclWatcher>> acl_;
};

Vorn::Ptr<AclPhyIntfIndexSm> aclPhyIntfIndexSmFactory(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
    const Vorn::Ptr<Index>& index);

}  // namespace OvinMirel
