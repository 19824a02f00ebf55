#include "ovinmirel/index/OvinMirelIndexSmBase.h"

#include <ios>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelIndexSmBase");

template <class T>
const Vorn::Ptr<T>& required(const Vorn::Ptr<T>& p, const char* attr) {
    Vorn::requireNonNull(p, "OvinMirel::IndexSmBase", attr);
    return p;
}

}  // namespace

IndexSmBase::IndexSmBase(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanPhyIntfConfigDir,
    const Vorn::Ptr<Index>& index)
    : aclColl_(required(aclColl, "aclColl")),
      pdStatus_(required(pdStatus, "pdStatus")),
      vlanPhyIntfConfigDir_(required(vlanPhyIntfConfigDir, "vlanPhyIntfConfigDir")),
      index_(required(index, "index")) {}

std::optional<Mirel::ChipId> IndexSmBase::chipOf(const Zamu::IntfId& phyIntf) const {
    Vorn::Ptr<Mirel::IntfMapping> m = pdStatus_->intfMapping(phyIntf);
    if (!m)
        return std::nullopt;
    return m->chipId();
}

void IndexSmBase::updateAclPhyIntfMappingAdded(const Ovin::AclKey& acl, const Zamu::IntfId& phyIntf,
                                               const Zamu::IntfId& parentIntf) {
    FLINQ(th, 8, "updateAclPhyIntfMappingAdded " << acl << " " << phyIntf << " " << parentIntf);
    index_->aclPhyIntfMappingIs(acl)->phyIntfMappingIs(phyIntf)->parentIntfIdIs(parentIntf);
    // Both run on every call, also when another parent already carried the ACL here: they
    // are idempotent, so a second parent costs a few lookups and changes nothing.
    updateIntfAclMappingAdded(acl, phyIntf);
    updateChipAclMapping2(acl, phyIntf, true);
}

void IndexSmBase::updateAclPhyIntfMappingDeleted(const Ovin::AclKey& acl,
                                                 const Zamu::IntfId& phyIntf,
                                                 const Zamu::IntfId& parentIntf) {
    FLINQ(th, 8, "updateAclPhyIntfMappingDeleted " << acl << " " << phyIntf << " " << parentIntf);
    index_->aclPhyIntfMappingDelMember(acl, [&](AclPhyIntfColl& phyIntfs) {
        const bool lastParent = phyIntfs.phyIntfMappingDelMember(phyIntf, [&](PhyIntfMapping& m) {
            m.parentIntfIdDel(parentIntf);
            return m.parentIntfIds();
        });
        if (lastParent) {
            updateIntfAclMappingDeleted(acl, phyIntf);
            updateChipAclMapping2(acl, phyIntf, false);
        }
        return phyIntfs.phyIntfMappings();
    });
}

void IndexSmBase::updateIntfAclMappingAdded(const Ovin::AclKey& acl, const Zamu::IntfId& intf) {
    index_->intfAclMappingIs(intf)->aclKeyIs(acl);
    FLINQ(th, 8, "updateIntfAclMappingAdded, key: " << acl << ", " << intf << " added");
}

void IndexSmBase::updateIntfAclMappingDeleted(const Ovin::AclKey& acl, const Zamu::IntfId& intf) {
    index_->intfAclMappingDelMember(intf, [&](IntfAclColl& acls) {
        acls.aclKeyDel(acl);
        return acls.aclKeys();
    });
    FLINQ(th, 8, "updateIntfAclMappingDeleted, key: " << acl << ", " << intf << " deleted");
}

void IndexSmBase::updateChipAclMapping1(const Zamu::IntfId& intf, const Mirel::ChipId& chip,
                                        bool added) {
    FLINQ(th, 8, "updateChipAclMapping1 " << intf << " " << chip << " " << std::boolalpha << added);
    Vorn::Ptr<IntfAclColl> intfAclColl = index_->intfAclMapping(intf);
    if (!intfAclColl)
        return;
    // The walk writes only the chip mappings, never intfAclMapping.
    for (const Ovin::AclKey& acl : intfAclColl->aclKey()) {
        if (added) {
            handleAclIntfChipMappingAdded(acl, intf, chip);
        } else {
            handleAclIntfChipMappingDeleted(acl, intf, chip);
        }
    }
}

void IndexSmBase::updateChipAclMapping2(const Ovin::AclKey& acl, const Zamu::IntfId& intf,
                                        bool added) {
    FLINQ(th, 8, "updateChipAclMapping2 " << acl << " " << intf << " " << std::boolalpha << added);
    std::optional<Mirel::ChipId> chip = chipOf(intf);
    if (!chip)
        return;
    if (added) {
        handleAclIntfChipMappingAdded(acl, intf, *chip);
    } else {
        handleAclIntfChipMappingDeleted(acl, intf, *chip);
    }
}

void IndexSmBase::handleAclIntfChipMappingAdded(const Ovin::AclKey& acl, const Zamu::IntfId& intf,
                                                const Mirel::ChipId& chip) {
    index_->aclChipMappingIs(acl)->chipIntfMappingIs(chip)->intfIdIs(intf);
    index_->chipAclMappingIs(chip)->aclIntfMappingIs(acl)->intfIdIs(intf);
    FLINQ(th, 8,
          "handleAclIntfChipMappingAdded " << acl << " <--> " << intf << " <--> ChipId-" << chip
                                           << " added");
}

void IndexSmBase::handleAclIntfChipMappingDeleted(const Ovin::AclKey& acl, const Zamu::IntfId& intf,
                                                  const Mirel::ChipId& chip) {
    FLINQ(th, 8,
          "handleAclIntfChipMappingDeleted " << acl << " <--> " << intf << " <--> ChipId-" << chip
                                             << " deleted");
    index_->aclChipMappingDelMember(acl, [&](AclChipColl& chips) {
        chips.chipIntfMappingDelMember(chip, [&](ChipIntfMapping& intfs) {
            intfs.intfIdDel(intf);
            return intfs.intfIds();
        });
        return chips.chipIntfMappings();
    });
    // The reverse mapping is cleaned second.
    index_->chipAclMappingDelMember(chip, [&](ChipAclColl& acls) {
        acls.aclIntfMappingDelMember(acl, [&](AclIntfColl& intfs) {
            intfs.intfIdDel(intf);
            return intfs.intfIds();
        });
        return acls.aclIntfMappings();
    });
}

void IndexSmBase::updateChipVlanMappingAdded(const Mirel::ChipId& chip,
                                             const Bridging::VlanId& vlan,
                                             const Zamu::IntfId& phyIntf) {
    index_->chipVlanMappingIs(chip)->vlanPhyIntfCollIs(vlan)->phyIntfIdIs(phyIntf);
    FLINQ(th, 8,
          "updateChipVlanMappingAdded, Chip-" << chip << ", vlan-" << vlan << ", " << phyIntf);
}

void IndexSmBase::updateChipVlanMappingDeleted(const Mirel::ChipId& chip,
                                               const Bridging::VlanId& vlan,
                                               const Zamu::IntfId& phyIntf) {
    FLINQ(th, 8,
          "updateChipVlanMappingDeleted, Chip-" << chip << ", vlan-" << vlan << ", " << phyIntf);
    const bool chipGone = index_->chipVlanMappingDelMember(chip, [&](ChipVlanColl& vlans) {
        const bool vlanGone = vlans.vlanPhyIntfCollDelMember(vlan, [&](VlanPhyIntfColl& members) {
            FLINQ(th, 8, "   Removing " << phyIntf);
            members.phyIntfIdDel(phyIntf);
            return members.phyIntfIds();
        });
        if (vlanGone)
            FLINQ(th, 8, "   Removing " << vlan);
        return vlans.vlanPhyIntfColls();
    });
    if (chipGone)
        FLINQ(th, 8, "   Removing " << chip);
}

void IndexSmBase::updateChipSubIntfMappingAdded(const Mirel::ChipId& chip,
                                                const Zamu::IntfId& subIntf,
                                                const Zamu::IntfId& phyIntf) {
    index_->chipSubIntfMappingIs(chip)->subPhyIntfCollIs(subIntf)->phyIntfIdIs(phyIntf);
    FLINQ(th, 8,
          "updateChipSubIntfMappingAdded, Chip-" << chip << ", " << subIntf << ", " << phyIntf);
}

void IndexSmBase::updateChipSubIntfMappingDeleted(const Mirel::ChipId& chip,
                                                  const Zamu::IntfId& subIntf,
                                                  const Zamu::IntfId& phyIntf) {
    FLINQ(th, 8,
          "updateChipSubIntfMappingDeleted, Chip-" << chip << ", " << subIntf << ", " << phyIntf);
    const bool chipGone = index_->chipSubIntfMappingDelMember(chip, [&](ChipSubIntfColl& subs) {
        const bool subGone = subs.subPhyIntfCollDelMember(subIntf, [&](SubPhyIntfColl& carriers) {
            FLINQ(th, 8, "   Removing " << phyIntf);
            carriers.phyIntfIdDel(phyIntf);
            return carriers.phyIntfIds();
        });
        if (subGone)
            FLINQ(th, 8, "   Removing " << subIntf);
        return subs.subPhyIntfColls();
    });
    if (chipGone)
        FLINQ(th, 8, "   Removing " << chip);
}

}  // namespace OvinMirel
