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
    // Each interface once: no search of what is already watched.
    for (const Zamu::IntfId& intf : entry_->intfId()) {
        if (Vorn::Subscription sub = subscribeParents(intf); sub.connected())
            parents_.push_back(Parents{intf, std::move(sub)});
    }
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
    return std::find_if(parents_.begin(), parents_.end(),
                        [&](const Parents& p) { return p.intf == intf; });
}

Vorn::Subscription AclPolicySm::ChipAclWatcher::subscribeParents(const Zamu::IntfId& intf) {
    const Vorn::Ptr<PhyIntfMapping> mapping =
        phyIntfs_ ? phyIntfs_->phyIntfMapping(intf) : Vorn::Ptr<PhyIntfMapping>();
    if (!mapping)
        return Vorn::Subscription();
    // The slot captures no key (the mapping has it, and is alive while it notifies), so the
    // handler fits in the function object itself: one of these per (ACL, interface).
    return mapping->parentIntfIdNotify(
        [this, m = mapping.ptr()](const Zamu::IntfId&) { handleParents(*m); });
}

void AclPolicySm::ChipAclWatcher::watchParents(const Zamu::IntfId& intf) {
    Vorn::Subscription sub = subscribeParents(intf);
    if (!sub.connected()) {
        unwatchParents(intf);
        return;
    }
    auto it = parentsOf(intf);
    if (it != parents_.end())
        it->sub = std::move(sub);
    else
        parents_.push_back(Parents{intf, std::move(sub)});
}

void AclPolicySm::ChipAclWatcher::unwatchParents(const Zamu::IntfId& intf) {
    auto it = parentsOf(intf);
    if (it == parents_.end())
        return;
    // The last one takes its place: one subscription moves, not all those behind it.
    if (it != parents_.end() - 1)
        *it = std::move(parents_.back());
    parents_.pop_back();
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
