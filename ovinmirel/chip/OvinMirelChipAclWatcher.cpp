#include "ovinmirel/chip/OvinMirelChipAclWatcher.h"

#include <algorithm>
#include <utility>

namespace OvinMirel {

AclPolicySm::ChipAclWatcher::ChipAclWatcher(AclPolicySm* sm, const Ovin::AclKey& acl,
                                            const Vorn::Ptr<AclIntfColl>& entry)
    : sm_(sm), acl_(acl), entry_(entry) {
    sub_ = entry->intfIdNotify([this](const Zamu::IntfId& intf) { handleIntf(intf); });
    follow();
}

void AclPolicySm::ChipAclWatcher::reviewAll() const {
    for (const Zamu::IntfId& intf : entry_->intfId())
        sm_->handleAclPhyIntf(acl_, intf);
}

void AclPolicySm::ChipAclWatcher::handleAclPhyIntfColl() {
    if (sm_->index()->aclPhyIntfMapping(acl_) == phyIntfs_)
        return;
    follow();
    reviewAll();
}

void AclPolicySm::ChipAclWatcher::follow() {
    phyIntfs_ = sm_->index()->aclPhyIntfMapping(acl_);
    mappingSub_.reset();
    parents_.clear();
    for (const Zamu::IntfId& intf : entry_->intfId())
        watchParents(intf);
    watchMappings();
}

void AclPolicySm::ChipAclWatcher::handleIntf(const Zamu::IntfId& intf) {
    if (entry_->intfId(intf))
        watchParents(intf);
    else
        unwatchParents(intf);
    watchMappings();
    sm_->handleAclPhyIntf(acl_, intf);
}

void AclPolicySm::ChipAclWatcher::handleMapping(const Zamu::IntfId& intf) {
    // Only this chip's interfaces; one replaced under the ACL is reviewed.
    if (!entry_->intfId(intf))
        return;
    watchParents(intf);
    watchMappings();
    sm_->handleAclPhyIntf(acl_, intf);
}

void AclPolicySm::ChipAclWatcher::handleParents(const PhyIntfMapping& mapping) {
    const Zamu::IntfId intf = mapping.intfId();
    // Its writer deletes a mapping left without parents and takes the interface out of the
    // chip entry in the same write: no mapping can come for it in between (invariant 2).
    if (!mapping.parentIntfIds())
        unwatchParents(intf);
    sm_->handleAclPhyIntf(acl_, intf);
}

std::vector<AclPolicySm::ChipAclWatcher::Parents>::iterator AclPolicySm::ChipAclWatcher::parentsOf(
    const Zamu::IntfId& intf) {
    return std::lower_bound(parents_.begin(), parents_.end(), intf,
                            [](const Parents& p, const Zamu::IntfId& i) { return p.intf < i; });
}

void AclPolicySm::ChipAclWatcher::watchParents(const Zamu::IntfId& intf) {
    const Vorn::Ptr<PhyIntfMapping> mapping =
        phyIntfs_ ? phyIntfs_->phyIntfMapping(intf) : Vorn::Ptr<PhyIntfMapping>();
    if (!mapping) {
        unwatchParents(intf);
        return;
    }
    // The slot captures no key (the mapping has it, and is alive while it notifies), so the
    // handler fits in the function object itself: one of these per (ACL, interface).
    Vorn::Subscription sub = mapping->parentIntfIdNotify(
        [this, m = mapping.ptr()](const Zamu::IntfId&) { handleParents(*m); });
    auto it = parentsOf(intf);
    if (it != parents_.end() && it->intf == intf)
        it->sub = std::move(sub);
    else
        parents_.insert(it, Parents{intf, std::move(sub)});
}

void AclPolicySm::ChipAclWatcher::unwatchParents(const Zamu::IntfId& intf) {
    auto it = parentsOf(intf);
    if (it != parents_.end() && it->intf == intf)
        parents_.erase(it);
}

void AclPolicySm::ChipAclWatcher::watchMappings() {
    if (!phyIntfs_ || parents_.size() == entry_->intfIds()) {
        mappingSub_.reset();
        return;
    }
    if (!mappingSub_.connected())
        mappingSub_ = phyIntfs_->phyIntfMappingNotify(
            [this](const Zamu::IntfId& intf) { handleMapping(intf); });
}

}  // namespace OvinMirel
