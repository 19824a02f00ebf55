#pragma once
// ChipIntfIndexSm: keeps Index.chipIntfMapping equal to the driver's assignment of physical
// interfaces to chips (PDStatus.intfMapping), and ripples every change of an interface's chip
// to the chip-ACL, chip-VLAN and chip-sub-interface mappings through IndexSmBase.
//
// Watches: PDStatus.intfMapping, one watcher per IntfMapping entry (from handleInitialized on).
// Writes:  Index.chipIntfMapping; through the base, the chip mappings of the interface's ACLs,
//          VLANs (phyIntfVlanMapping) and carried sub-interfaces (phySubIntfMapping).
// Invariants:
//  1. intf is in chipIntfMapping[c].intfId exactly when PDStatus.intfMapping[intf] is on c.
//  2. The interface is entered on (or removed from) its chip before its ACLs, VLANs and
//     sub-interfaces follow, so readers of the chip-ACL mapping see the interface first.
//  3. An interface that moves (removal then addition, or an in-place change of its chip)
//     leaves the old chip completely before it joins the new one.
// Owns: the per-entry watchers; references through IndexSmBase.

#include <memory>

#include "ovinmirel/index/OvinMirelIndexSmBase.h"
#include "platform/vorn/EntryWatchers.h"

namespace OvinMirel {

class ChipIntfIndexSm : public IndexSmBase {
  public:
    ChipIntfIndexSm(const Vorn::Ptr<OvinMirelAclColl>& aclColl,
                    const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
                    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
                    const Vorn::Ptr<Index>& index);

    // Drops every chipIntfMapping entry, replays the whole input, then follows its changes.
    void handleInitialized();
    // Brings the Index in line with whether intf sits on chip now. REQUIRES: initialized().
    void handleIntfMapping(const Zamu::IntfId& intf, const Mirel::ChipId& chip);

  private:
    class IntfMappingWatcher;
    using IntfMappingField = Vorn::EntityMapField<Zamu::IntfId, Mirel::IntfMapping>;

    std::unique_ptr<Vorn::EntryWatchers<IntfMappingField, IntfMappingWatcher>> intfMapping_;
};

Vorn::Ptr<ChipIntfIndexSm> chipIntfIndexSmFactory(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
    const Vorn::Ptr<Index>& index);

}  // namespace OvinMirel
