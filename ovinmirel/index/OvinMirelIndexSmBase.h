#pragma once
// IndexSmBase: the update routines shared by the four index state machines that resolve
// bindings to physical interfaces and chips (ChipIntfIndexSm, AclPhyIntfIndexSm,
// PhyIntfVlanIndexSm, SubIntfIndexSm). The subclasses decide what changed; these routines
// decide how the change ripples through the Index.
//
// Watches: nothing (the subclasses own their watchers).
// Reads:   PDStatus.intfMapping (the chip that owns a physical interface); the ACL store and
//          the VLAN configuration are held for the subclasses.
// Writes:  Index.aclPhyIntfMapping, intfAclMapping, aclChipMapping, chipAclMapping,
//          chipVlanMapping, chipSubIntfMapping.
// Invariants kept (numbering of OvinMirelIndex.h):
//  1. Get-or-create on add; the routine that removes the last member deletes the entry, then
//     the entry above it when that became empty.
//  2. aclChipMapping and chipAclMapping are written together, the reverse one second; the
//     ACL's entry for a chip links to the chip's entry for the ACL while both are there.
//  4. Reference counting by parent: an ACL leaves a physical interface only when the last
//     configured interface (the port itself, a sub-interface, a VLAN interface) that carried
//     it there is gone. Adds and deletes are idempotent.
// Owns: shared references to its inputs and to the Index; the `initialized` flag, set by the
// subclass when its initial replay starts. Deleting the machine leaves the Index as it is.
//
// Call graph:
//   interface onto / off a chip -> updateChipAclMapping1 + updateChipVlanMapping* per VLAN +
//     updateChipSubIntfMapping* per carried sub-interface;
//   ACL binding, VLAN member, sub-interface carrier -> updateAclPhyIntfMapping* ->
//     updateIntfAclMapping* + updateChipAclMapping2 -> handleAclIntfChipMapping* (a
//     withdrawal in the reverse order of the add: these before the last parent goes).

#include <optional>

#include "ovinmirel/acl/OvinMirelAcl.h"
#include "ovinmirel/index/OvinMirelIndex.h"
#include "platform/bridging/VlanId.h"
#include "platform/mirel/ChipId.h"
#include "platform/mirel/PDStatus.h"
#include "platform/ovin/AclKey.h"
#include "platform/vlan/VlanPhyIntfConfig.h"
#include "platform/vorn/Ptr.h"
#include "platform/zamu/IntfId.h"

namespace OvinMirel {

class IndexSmBase : public Vorn::PtrInterface {
  public:
    bool initialized() const { return initialized_; }
    const Vorn::Ptr<OvinMirelAclColl>& aclColl() const { return aclColl_; }
    const Vorn::Ptr<Mirel::PDStatus>& pdStatus() const { return pdStatus_; }
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanPhyIntfConfigDir() const {
        return vlanPhyIntfConfigDir_;
    }
    const Vorn::Ptr<Index>& index() const { return index_; }

  protected:
    // Every reference is required: a null one throws Vorn::NullPointerException.
    IndexSmBase(const Vorn::Ptr<OvinMirelAclColl>& aclColl,
                const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
                const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanPhyIntfConfigDir,
                const Vorn::Ptr<Index>& index);

    void initializedIs(bool initialized) { initialized_ = initialized; }
    // The chip that owns a physical interface, from the driver's interface mapping.
    std::optional<Mirel::ChipId> chipOf(const Zamu::IntfId& phyIntf) const;

    // One ACL's entries in the Index, for a change that writes them at many interfaces (a
    // VLAN's or a sub-interface's members): each is looked up once, and the chip's pair of
    // entries is kept while the interfaces stay on one chip (they come in order, so a chip's
    // ports in a run); a walk of one interface's ACLs hands the chip's entry on from one ACL
    // to the next. The chip's side of the pair is reached through the ACL's (its mirror link),
    // so a chip's ACLs are searched only to create or delete an entry there. Lives for one
    // change, on its writer's stack: only that writer writes these entries meanwhile, and it
    // forgets an entry when it deletes it.
    class AclEntries {
      public:
        explicit AclEntries(const Ovin::AclKey& acl) : acl_(acl) {}

      private:
        friend class IndexSmBase;
        // Forgets the chip's entries when the change moves on to another chip.
        void atChip(const Mirel::ChipId& chip);

        const Ovin::AclKey acl_;
        Vorn::Ptr<AclPhyIntfColl> phyIntfs_;    // aclPhyIntfMapping[acl]
        Vorn::Ptr<AclChipColl> chips_;          // aclChipMapping[acl]
        std::optional<Mirel::ChipId> chip_;     // the chip of the three below
        Vorn::Ptr<ChipIntfMapping> chipIntfs_;  // aclChipMapping[acl].chipIntfMapping[chip]
        Vorn::Ptr<ChipAclColl> chipAcls_;       // chipAclMapping[chip]
        Vorn::Ptr<AclIntfColl> chipAclIntfs_;   // chipAclMapping[chip].aclIntfMapping[acl]
    };

    void updateAclPhyIntfMappingAdded(AclEntries& acl, const Zamu::IntfId& phyIntf,
                                      const Zamu::IntfId& parentIntf);
    void updateAclPhyIntfMappingDeleted(AclEntries& acl, const Zamu::IntfId& phyIntf,
                                        const Zamu::IntfId& parentIntf);
    void updateIntfAclMappingAdded(const Ovin::AclKey& acl, const Zamu::IntfId& intf);
    void updateIntfAclMappingDeleted(const Ovin::AclKey& acl, const Zamu::IntfId& intf);
    void updateChipAclMapping1(const Zamu::IntfId& intf, const Mirel::ChipId& chip, bool added);
    void updateChipAclMapping2(AclEntries& acl, const Zamu::IntfId& intf, bool added);
    void handleAclIntfChipMappingAdded(AclEntries& acl, const Zamu::IntfId& intf,
                                       const Mirel::ChipId& chip);
    void handleAclIntfChipMappingDeleted(AclEntries& acl, const Zamu::IntfId& intf,
                                         const Mirel::ChipId& chip);
    void updateChipVlanMappingAdded(const Mirel::ChipId& chip, const Bridging::VlanId& vlan,
                                    const Zamu::IntfId& phyIntf);
    void updateChipVlanMappingDeleted(const Mirel::ChipId& chip, const Bridging::VlanId& vlan,
                                      const Zamu::IntfId& phyIntf);
    void updateChipSubIntfMappingAdded(const Mirel::ChipId& chip, const Zamu::IntfId& subIntf,
                                       const Zamu::IntfId& phyIntf);
    void updateChipSubIntfMappingDeleted(const Mirel::ChipId& chip, const Zamu::IntfId& subIntf,
                                         const Zamu::IntfId& phyIntf);

  private:
    const Vorn::Ptr<OvinMirelAclColl> aclColl_;
    const Vorn::Ptr<Mirel::PDStatus> pdStatus_;
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir> vlanPhyIntfConfigDir_;
    const Vorn::Ptr<Index> index_;
    bool initialized_ = false;
};

}  // namespace OvinMirel
