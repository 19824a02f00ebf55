#include "ovinmirel/index/OvinMirelIndexSmBase.h"

#include <ios>
#include <utility>

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

void IndexSmBase::AclEntries::atChip(const Mirel::ChipId& chip) {
    if (chip_ == chip)
        return;
    chip_ = chip;
    chipIntfs_ = nullptr;
    chipAcls_ = nullptr;
    chipAclIntfs_ = nullptr;
}

void IndexSmBase::updateAclPhyIntfMappingAdded(AclEntries& acl, const Zamu::IntfId& phyIntf,
                                               const Zamu::IntfId& parentIntf) {
    FLINQ(th, 8,
          "updateAclPhyIntfMappingAdded " << acl.acl_ << " " << phyIntf << " " << parentIntf);
    if (!acl.phyIntfs_)
        acl.phyIntfs_ = index_->aclPhyIntfMappingIs(acl.acl_);
    acl.phyIntfs_->phyIntfMappingIs(phyIntf)->parentIntfIdIs(parentIntf);
    // Both run on every call, also when another parent already carried the ACL here: they
    // are idempotent, so a second parent costs a few lookups and changes nothing.
    updateIntfAclMappingAdded(acl.acl_, phyIntf);
    updateChipAclMapping2(acl, phyIntf, true);
}

void IndexSmBase::updateAclPhyIntfMappingDeleted(AclEntries& acl, const Zamu::IntfId& phyIntf,
                                                 const Zamu::IntfId& parentIntf) {
    FLINQ(th, 8,
          "updateAclPhyIntfMappingDeleted " << acl.acl_ << " " << phyIntf << " " << parentIntf);
    if (!acl.phyIntfs_)
        acl.phyIntfs_ = index_->aclPhyIntfMapping(acl.acl_);
    if (!acl.phyIntfs_)
        return;
    const Vorn::Ptr<PhyIntfMapping> parents = acl.phyIntfs_->phyIntfMapping(phyIntf);
    if (!parents || !parents->parentIntfId(parentIntf))
        return;
    if (parents->parentIntfIds() == 1) {
        // The last parent: the ACL leaves the port, undone in the reverse order of the add.
        // The chip mappings go first, so their watchers let go of the parents before these
        // change, and are woken once rather than by every step.
        updateChipAclMapping2(acl, phyIntf, false);
        updateIntfAclMappingDeleted(acl.acl_, phyIntf);
    }
    // The entry found above: nothing the walk above wakes writes the Index.
    parents->parentIntfIdDel(parentIntf);
    if (!parents->parentIntfIds())
        acl.phyIntfs_->phyIntfMappingDel(phyIntf);
    if (!acl.phyIntfs_->phyIntfMappings()) {
        index_->aclPhyIntfMappingDel(acl.acl_);
        acl.phyIntfs_ = nullptr;
    }
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
    // The walk writes only the chip mappings, never intfAclMapping. The chip's entry is the
    // same for every ACL: looked up by the first that needs it (one whose pair of entries is
    // not linked yet, or goes), it passes from one ACL's entries to the next (null once the
    // last ACL has left the chip, created by the first to come).
    Vorn::Ptr<ChipAclColl> chipAcls;
    for (const Ovin::AclKey& key : intfAclColl->aclKey()) {
        AclEntries acl(key);
        acl.chip_ = chip;
        acl.chipAcls_ = std::move(chipAcls);
        if (added) {
            handleAclIntfChipMappingAdded(acl, intf, chip);
        } else {
            handleAclIntfChipMappingDeleted(acl, intf, chip);
        }
        chipAcls = std::move(acl.chipAcls_);
    }
}

void IndexSmBase::updateChipAclMapping2(AclEntries& acl, const Zamu::IntfId& intf, bool added) {
    FLINQ(th, 8,
          "updateChipAclMapping2 " << acl.acl_ << " " << intf << " " << std::boolalpha << added);
    std::optional<Mirel::ChipId> chip = chipOf(intf);
    if (!chip)
        return;
    if (added) {
        handleAclIntfChipMappingAdded(acl, intf, *chip);
    } else {
        handleAclIntfChipMappingDeleted(acl, intf, *chip);
    }
}

void IndexSmBase::handleAclIntfChipMappingAdded(AclEntries& acl, const Zamu::IntfId& intf,
                                                const Mirel::ChipId& chip) {
    acl.atChip(chip);
    if (!acl.chipIntfs_) {
        if (!acl.chips_)
            acl.chips_ = index_->aclChipMappingIs(acl.acl_);
        acl.chipIntfs_ = acl.chips_->chipIntfMappingIs(chip);
    }
    acl.chipIntfs_->intfIdIs(intf);
    if (!acl.chipAclIntfs_)
        acl.chipAclIntfs_ = acl.chipIntfs_->mirror_;
    if (!acl.chipAclIntfs_) {
        if (!acl.chipAcls_)
            acl.chipAcls_ = index_->chipAclMappingIs(chip);
        acl.chipAclIntfs_ = acl.chipAcls_->aclIntfMappingIs(acl.acl_);
        acl.chipIntfs_->mirror_ = acl.chipAclIntfs_;
    }
    acl.chipAclIntfs_->intfIdIs(intf);
    FLINQ(th, 8,
          "handleAclIntfChipMappingAdded " << acl.acl_ << " <--> " << intf << " <--> ChipId-"
                                           << chip << " added");
}

void IndexSmBase::handleAclIntfChipMappingDeleted(AclEntries& acl, const Zamu::IntfId& intf,
                                                  const Mirel::ChipId& chip) {
    FLINQ(th, 8,
          "handleAclIntfChipMappingDeleted " << acl.acl_ << " <--> " << intf << " <--> ChipId-"
                                             << chip << " deleted");
    acl.atChip(chip);
    if (!acl.chipIntfs_) {
        if (!acl.chips_)
            acl.chips_ = index_->aclChipMapping(acl.acl_);
        if (acl.chips_)
            acl.chipIntfs_ = acl.chips_->chipIntfMapping(chip);
    }
    if (acl.chipIntfs_) {
        // Taken before the entry may go, and its link with it.
        if (!acl.chipAclIntfs_)
            acl.chipAclIntfs_ = acl.chipIntfs_->mirror_;
        acl.chipIntfs_->intfIdDel(intf);
        if (!acl.chipIntfs_->intfIds()) {
            acl.chipIntfs_ = nullptr;
            acl.chips_->chipIntfMappingDel(chip);
            if (!acl.chips_->chipIntfMappings()) {
                acl.chips_ = nullptr;
                index_->aclChipMappingDel(acl.acl_);
            }
        }
    }
    // The reverse mapping is cleaned second; the chip's entry is looked up only when needed.
    if (!acl.chipAclIntfs_) {
        if (!acl.chipAcls_)
            acl.chipAcls_ = index_->chipAclMapping(chip);
        if (acl.chipAcls_)
            acl.chipAclIntfs_ = acl.chipAcls_->aclIntfMapping(acl.acl_);
    }
    if (acl.chipAclIntfs_) {
        acl.chipAclIntfs_->intfIdDel(intf);
        if (!acl.chipAclIntfs_->intfIds()) {
            acl.chipAclIntfs_ = nullptr;
            // An entry of the ACL's left behind (the two disagreed) must not keep the link.
            if (acl.chipIntfs_)
                acl.chipIntfs_->mirror_ = nullptr;
            if (!acl.chipAcls_)
                acl.chipAcls_ = index_->chipAclMapping(chip);
            if (!acl.chipAcls_)
                return;
            acl.chipAcls_->aclIntfMappingDel(acl.acl_);
            if (!acl.chipAcls_->aclIntfMappings()) {
                acl.chipAcls_ = nullptr;
                index_->chipAclMappingDel(chip);
            }
        }
    }
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
