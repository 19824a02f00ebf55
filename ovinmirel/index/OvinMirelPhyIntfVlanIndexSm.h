#pragma once
// PhyIntfVlanIndexSm: keeps Index.phyIntfVlanMapping equal to the VLAN membership of physical
// ports (VlanPhyIntfConfigDir) and ripples a port joining or leaving a VLAN to the chip-VLAN
// mapping and to every ACL bound to the VLAN's interface, through IndexSmBase.
//
// Watches: VlanPhyIntfConfigDir.vlanPhyIntfConfig, one watcher per VLAN on its member set
//          (from handleInitialized on).
// Reads:   PDStatus.intfMapping (the member's chip), Index.vlanAclMapping (the VLAN's ACLs).
// Writes:  Index.phyIntfVlanMapping; through the base, chipVlanMapping and the ACLs of the
//          VLAN interface on the member (the VLAN interface is the parent).
// Invariants:
//  1. v is in phyIntfVlanMapping[p] exactly when VLAN v lists p as a member.
//  2. A VLAN entry that disappears with members still listed is treated as every one of them
//     leaving.
// Owns: the per-VLAN watchers; references through IndexSmBase.

#include <memory>

#include "ovinmirel/index/OvinMirelIndexSmBase.h"
#include "platform/vorn/EntryWatchers.h"

namespace OvinMirel {

class PhyIntfVlanIndexSm : public IndexSmBase {
  public:
    PhyIntfVlanIndexSm(const Vorn::Ptr<OvinMirelAclColl>& aclColl,
                       const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
                       const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
                       const Vorn::Ptr<Index>& index);

    // Drops phyIntfVlanMapping and chipVlanMapping (it rebuilds both completely), replays every
    // member of every VLAN, then follows the configuration's changes.
    void handleInitialized();
    // Brings the Index in line with whether phyIntf is a member of vlan now.
    // REQUIRES: initialized().
    void handleVlanPhyIntf(const Bridging::VlanId& vlan, const Zamu::IntfId& phyIntf);

  private:
    class VlanWatcher;
    using VlanField =
        Vorn::EntityMapField<Bridging::VlanId, VlanPhyIntfConfigLib::VlanPhyIntfConfig>;

    std::unique_ptr<Vorn::EntryWatchers<VlanField, VlanWatcher>> vlanPhyIntfConfig_;
};

Vorn::Ptr<PhyIntfVlanIndexSm> phyIntfVlanIndexSmFactory(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
    const Vorn::Ptr<Index>& index);

}  // namespace OvinMirel
