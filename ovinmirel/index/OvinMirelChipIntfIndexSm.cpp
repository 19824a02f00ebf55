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
        : chip_(entry->chipId()) {
        sub_ = entry->chipIdNotify([this, sm, intf, e = entry.ptr()] {
            const Mirel::ChipId now = e->chipId();
            if (now == chip_)
                return;
            const Mirel::ChipId old = std::exchange(chip_, now);
            FLINQ(th, 8, "handleIntfMapping");
            sm->handleIntfMapping(intf, old);
            sm->handleIntfMapping(intf, now);
        });
    }
    Mirel::ChipId chip() const { return chip_; }

  private:
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
    initializedIs(true);
    index()->chipIntfMappingDelAll();
    // Replays every entry, then follows new, changed and vanished ones.
    intfMapping_ = std::make_unique<Vorn::EntryWatchers<IntfMappingField, IntfMappingWatcher>>(
        pdStatus()->intfMapping(),
        Vorn::EntryWatchers<IntfMappingField, IntfMappingWatcher>::Hooks{
            .make =
                [this](const Zamu::IntfId& intf, const Vorn::Ptr<Mirel::IntfMapping>& entry) {
                    return std::make_unique<IntfMappingWatcher>(this, intf, entry);
                },
            .added =
                [this](const Zamu::IntfId& intf, IntfMappingWatcher&,
                       const Vorn::Ptr<Mirel::IntfMapping>& entry) {
                    FLINQ(th, 8, "handleIntfMapping");
                    handleIntfMapping(intf, entry->chipId());
                },
            .gone =
                [this](const Zamu::IntfId& intf, IntfMappingWatcher& watcher,
                       const Vorn::Ptr<Mirel::IntfMapping>&) {
                    FLINQ(th, 8, "handleIntfMapping");
                    handleIntfMapping(intf, watcher.chip());
                }},
        Vorn::Existing::add);
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
        index()->chipIntfMappingDelMember(chip, [&](ChipIntfMapping& intfs) {
            intfs.intfIdDel(intf);
            return intfs.intfIds();
        });
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
