#include "ovinmirel/index/OvinMirelChipIntfIndexSm.h"

#include <utility>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelChipIntfIndexSm");

}  // namespace

// One per PDStatus.intfMapping entry: remembers the chip last applied, so that an in-place
// change of the chip (or the entry's deletion) can first take the interface off that chip.
class ChipIntfIndexSm::IntfMappingWatcher {
  public:
    IntfMappingWatcher(ChipIntfIndexSm* sm, const Zamu::IntfId& intf,
                       const Vorn::Ptr<Mirel::IntfMapping>& entry)
        : entry_(entry), chip_(entry->chipId()) {
        sub_ = entry->chipIdNotify([this, sm, intf] {
            const Mirel::ChipId now = entry_->chipId();
            if (now == chip_)
                return;
            const Mirel::ChipId old = std::exchange(chip_, now);
            FLINQ(th, 8, "handleIntfMapping");
            sm->handleIntfMapping(intf, old);
            sm->handleIntfMapping(intf, now);
        });
    }
    const Vorn::Ptr<Mirel::IntfMapping>& entry() const { return entry_; }
    Mirel::ChipId chip() const { return chip_; }

  private:
    const Vorn::Ptr<Mirel::IntfMapping> entry_;
    Mirel::ChipId chip_;
    Vorn::Subscription sub_;
};

ChipIntfIndexSm::ChipIntfIndexSm(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
    const Vorn::Ptr<Index>& index)
    : IndexSmBase(aclColl, pdStatus, vlanConfig, index) {}

void ChipIntfIndexSm::handleInitialized() {
    intfMapping_.reset();
    intfMappingGone_.reset();
    watching_ = false;
    initializedIs(true);
    index()->chipIntfMappingDelAll();
    for (const auto& [intf, entry] : pdStatus()->intfMapping()) {
        handleIntfMapping(intf, entry->chipId());
    }
    intfMappingGone_ = pdStatus()->intfMappingNotify(
        [this](const Zamu::IntfId& intf) { handleIntfMappingGone(intf); });
    intfMapping_ = std::make_unique<Vorn::EntryWatchers<IntfMappingField, IntfMappingWatcher>>(
        pdStatus()->intfMapping(),
        [this](const Zamu::IntfId& intf, const Vorn::Ptr<Mirel::IntfMapping>& entry) {
            auto watcher = std::make_unique<IntfMappingWatcher>(this, intf, entry);
            if (watching_) {
                FLINQ(th, 8, "handleIntfMapping");
                handleIntfMapping(intf, entry->chipId());
            }
            return watcher;
        });
    watching_ = true;
}

void ChipIntfIndexSm::handleIntfMappingGone(const Zamu::IntfId& intf) {
    IntfMappingWatcher* watcher = intfMapping_ ? intfMapping_->find(intf) : nullptr;
    if (!watcher || pdStatus()->intfMapping(intf) == watcher->entry())
        return;
    FLINQ(th, 8, "handleIntfMapping");
    handleIntfMapping(intf, watcher->chip());
}

void ChipIntfIndexSm::handleIntfMapping(const Zamu::IntfId& intf, const Mirel::ChipId& chip) {
    VORN_ASSERT(initialized());
    // The interface is on `chip` when the driver's entry says so; an entry that names another
    // chip means it has left this one.
    Vorn::Ptr<Mirel::IntfMapping> entry = pdStatus()->intfMapping(intf);
    const bool added = entry && entry->chipId() == chip;
    if (added) {
        index()->chipIntfMappingIs(entry->chipId())->intfIdIs(intf);
        FLINQ(th, 8, "handleIntfMapping " << intf << " --> ChipId-" << chip << " added");
    } else {
        if (Vorn::Ptr<ChipIntfMapping> chipIntf = index()->chipIntfMapping(chip)) {
            chipIntf->intfIdDel(intf);
            if (chipIntf->intfIds() == 0)
                index()->chipIntfMappingDel(chip);
        }
        FLINQ(th, 8, "handleIntfMapping " << intf << " --> ChipId-" << chip << " removed");
    }
    updateChipAclMapping1(intf, chip, added);
    // The two walks below write only the chip mappings, never the sets they walk.
    if (Vorn::Ptr<PhyIntfVlanColl> vlans = index()->phyIntfVlanMapping(intf)) {
        for (const Bridging::VlanId& vlan : vlans->vlanId()) {
            if (added) {
                updateChipVlanMappingAdded(chip, vlan, intf);
            } else {
                updateChipVlanMappingDeleted(chip, vlan, intf);
            }
        }
    }
    if (Vorn::Ptr<PhySubIntfColl> subIntfs = index()->phySubIntfMapping(intf)) {
        for (const Zamu::IntfId& subIntf : subIntfs->subIntfId()) {
            if (added) {
                updateChipSubIntfMappingAdded(chip, subIntf, intf);
            } else {
                updateChipSubIntfMappingDeleted(chip, subIntf, intf);
            }
        }
    }
}

Vorn::Ptr<ChipIntfIndexSm> chipIntfIndexSmFactory(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
    const Vorn::Ptr<Index>& index) {
    return Vorn::make<ChipIntfIndexSm>(aclColl, pdStatus, vlanConfig, index);
}

}  // namespace OvinMirel
