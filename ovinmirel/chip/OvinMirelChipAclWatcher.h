#pragma once
// AclPolicySm::ChipAclWatcher: one per ACL of the policy machine's chip entry in
// Index.chipAclMapping.
//
// Watches: the ACL's interface set on the chip (the entry); per interface of it that has a
//          mapping under the ACL (Index.aclPhyIntfMapping), that mapping's parent set; the
//          ACL's whole set of mappings only while some interface of the entry has none.
// Writes:  nothing; every change it sees schedules a review of the interface concerned under
//          the ACL (AclPolicySm::handleAclPhyIntf), which reads the index again.
// Invariants (between notifications):
//  1. parents_ holds, in no order, exactly the interfaces of the entry that have a
//     mapping in phyIntfs_ (but for one whose mapping was left without parents), each with
//     one subscription to that mapping's parents.
//  2. mappingSub_ is connected exactly while phyIntfs_ is set and some interface of the entry
//     is missing from parents_, not counting one whose last parent went (it leaves the
//     entry next).
// The index writes an interface's mapping under the ACL together with the chip entry that
// lists the interface, and deletes them together (the mapping with its last parent), so the
// parents are taken when the interface comes, and a mapping left without parents is followed
// by the interface leaving the entry, not by another mapping. Watching the whole set of
// mappings only in between (an attachment index rebuilt under the entry) keeps every chip
// holding the ACL from hearing of each port the ACL reaches anywhere.
// Owns: its subscriptions; holds the entry and the ACL's mappings (so they outlive their
// removal from the Index while it lives). REQUIRES: the machine outlives it.

#include <vector>

#include "ovinmirel/chip/OvinMirelAclPolicySm.h"
#include "ovinmirel/index/OvinMirelIndex.h"
#include "platform/ovin/AclKey.h"
#include "platform/vorn/Signal.h"
#include "platform/zamu/IntfId.h"

namespace OvinMirel {

class AclPolicySm::ChipAclWatcher {
  public:
    ChipAclWatcher(AclPolicySm* sm, const Ovin::AclKey& acl, const Vorn::Ptr<AclIntfColl>& entry);
    // Every interface of the chip under the ACL, in order.
    void reviewAll() const;
    // Index.aclPhyIntfMapping changed for the ACL: an entry replaced or gone (the attachment
    // index rebuilt) may carry other parents, so every interface is reviewed.
    void handleAclPhyIntfColl();

  private:
    // The parent subscription of one interface. parents_ is searched by a scan rather than
    // kept sorted: moving a subscription re-points its slot, and an insertion or removal in
    // the middle of a sorted vector would move every one behind it.
    struct Parents {
        Zamu::IntfId intf;
        Vorn::Subscription sub;
    };

    void follow();
    void handleIntf(const Zamu::IntfId& intf);
    // A mapping under the ACL came or went while some interface here had none.
    void handleMapping(const Zamu::IntfId& intf);
    void handleParents(const PhyIntfMapping& mapping);
    std::vector<Parents>::iterator parentsOf(const Zamu::IntfId& intf);
    // A subscription to the parents of the interface's mapping under the ACL; none without one.
    Vorn::Subscription subscribeParents(const Zamu::IntfId& intf);
    void watchParents(const Zamu::IntfId& intf);
    void unwatchParents(const Zamu::IntfId& intf);
    // Keeps invariant 2.
    void watchMappings();

    AclPolicySm* const sm_;
    const Ovin::AclKey acl_;
    const Vorn::Ptr<AclIntfColl> entry_;
    Vorn::Subscription sub_;
    // The ACL's entry of Index.aclPhyIntfMapping, whose interfaces on this chip are watched.
    Vorn::Ptr<AclPhyIntfColl> phyIntfs_;
    Vorn::Subscription mappingSub_;
    // The interfaces of entry_ that have a mapping under the ACL, each with its subscription.
    std::vector<Parents> parents_;
};

}  // namespace OvinMirel
