#include "ovinmirel/index/OvinMirelIntfAclTypeIndexSm.h"

#include <cstddef>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelIntfAclTypeIndexSm");

}  // namespace

// One per IntfAclColl: an ACL key added or removed runs the handler for it, given the entry
// (the interface's one in the Index while it notifies), so that it needs no lookup.
class IntfAclTypeIndexSm::IntfAclWatcher {
  public:
    IntfAclWatcher(IntfAclTypeIndexSm* sm, const Zamu::IntfId& intf,
                   const Vorn::Ptr<IntfAclColl>& entry) {
        sub_ = entry->aclKeyNotify(
            [sm, intf, e = entry.ptr()](const Ovin::AclKey& acl) { sm->regroup(intf, e, acl); });
    }

  private:
    Vorn::Subscription sub_;
};

IntfAclTypeIndexSm::IntfAclTypeIndexSm(const Vorn::Ptr<Index>& index) : index_(index) {
    Vorn::requireNonNull(index, "OvinMirel::IntfAclTypeIndexSm", "index");
}

Mirel::TableType IntfAclTypeIndexSm::getTableType(const Ovin::AclKey& acl) {
    Mirel::TableType tableType = Mirel::invalid_;
    const bool router = acl.vlanId.has_value();
    switch (acl.type) {
        case Acl::aclTypeIpv4:
            tableType = router ? Mirel::ipv4RouterAcl_ : Mirel::ipv4PortAcl_;
            break;
        case Acl::aclTypeIpv6:
            tableType = router ? Mirel::ipv6RouterAcl_ : Mirel::ipv6PortAcl_;
            break;
        case Acl::aclTypeMac:
            tableType = Mirel::macAcl_;
            break;
    }
    VORN_ASSERT(tableType != Mirel::invalid_);
    return tableType;
}

void IntfAclTypeIndexSm::handleInitialized() {
    intfAclMapping_.reset();
    initialized_ = true;
    index_->intfAclTypeMappingDelAll();
    using Watchers = Vorn::EntryWatchers<IntfAclField, IntfAclWatcher>;
    // Every ACL of every interface is grouped, now and as entries come. A vanished entry is
    // normally empty by then (its writer removes the last ACL first); a wholesale deletion
    // leaves ACLs to ungroup.
    auto everyAcl = [this](const Zamu::IntfId& intf, IntfAclWatcher&,
                           const Vorn::Ptr<IntfAclColl>& entry) {
        for (const Ovin::AclKey& acl : entry->aclKey())
            handleIntfAcl(intf, acl);
    };
    intfAclMapping_ = std::make_unique<Watchers>(
        index_->intfAclMapping(),
        Watchers::Hooks{.make =
                            [this](const Zamu::IntfId& intf, const Vorn::Ptr<IntfAclColl>& entry) {
                                return std::make_unique<IntfAclWatcher>(this, intf, entry);
                            },
                        .added = everyAcl,
                        .gone = everyAcl},
        Vorn::Existing::add);
}

void IntfAclTypeIndexSm::handleIntfAcl(const Zamu::IntfId& intf, const Ovin::AclKey& acl) {
    regroup(intf, index_->intfAclMapping(intf).ptr(), acl);
}

void IntfAclTypeIndexSm::regroup(const Zamu::IntfId& intf, const IntfAclColl* acls,
                                 const Ovin::AclKey& acl) {
    VORN_ASSERT(initialized());
    const Mirel::TableType tableType = getTableType(acl);
    const uint32_t out = acl.direction == Acl::aclDirectionIn ? 0 : 1;
    if (acls && acls->aclKey(acl)) {
        Vorn::Ptr<AclTableTypeMapping> group =
            index_->intfAclTypeMappingIs(intf)->aclTableTypeMappingIs(tableType);
        // Counted only when it is new here: the size tells, without a second lookup.
        const size_t before = group->aclKeys();
        group->aclKeyIs(acl);
        if (group->aclKeys() != before)
            group->outAclsIs(group->outAcls() + out);
        FLINQ(th, 8,
              "intfAclTypeMapping: " << intf << " " << tableType << " " << acl << " is Added");
        return;
    }
    index_->intfAclTypeMappingDelMember(intf, [&](IntfAclTableTypeColl& types) {
        types.aclTableTypeMappingDelMember(tableType, [&](AclTableTypeMapping& group) {
            const size_t before = group.aclKeys();
            group.aclKeyDel(acl);
            if (group.aclKeys() != before)
                group.outAclsIs(group.outAcls() - out);
            return group.aclKeys();
        });
        return types.aclTableTypeMappings();
    });
    FLINQ(th, 8, "intfAclTypeMapping: " << intf << " " << tableType << " " << acl << " is Removed");
}

Vorn::Ptr<IntfAclTypeIndexSm> intfAclTypeIndexSmFactory(const Vorn::Ptr<Index>& index) {
    return Vorn::make<IntfAclTypeIndexSm>(index);
}

}  // namespace OvinMirel
