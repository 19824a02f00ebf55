#include "ovinmirel/index/OvinMirelIntfAclTypeIndexSm.h"

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelIntfAclTypeIndexSm");

}  // namespace

// One per IntfAclColl: an ACL key added or removed runs the handler for it. Keeps the entry so
// that the ACLs of an entry deleted while not empty can still be walked.
class IntfAclTypeIndexSm::IntfAclWatcher {
  public:
    IntfAclWatcher(IntfAclTypeIndexSm* sm, const Zamu::IntfId& intf,
                   const Vorn::Ptr<IntfAclColl>& entry)
        : entry_(entry) {
        sub_ = entry->aclKeyNotify(
            [sm, intf](const Ovin::AclKey& acl) { sm->handleIntfAcl(intf, acl); });
    }
    const Vorn::Ptr<IntfAclColl>& entry() const { return entry_; }

  private:
    const Vorn::Ptr<IntfAclColl> entry_;
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
    intfAclGone_.reset();
    watching_ = false;
    initialized_ = true;
    index_->intfAclTypeMappingDelAll();
    // The handler writes only intfAclTypeMapping, so walking intfAclMapping directly is safe.
    for (const auto& [intf, acls] : index_->intfAclMapping()) {
        for (const Ovin::AclKey& acl : acls->aclKey())
            handleIntfAcl(intf, acl);
    }
    intfAclGone_ =
        index_->intfAclMappingNotify([this](const Zamu::IntfId& intf) { handleIntfAclGone(intf); });
    intfAclMapping_ = std::make_unique<Vorn::EntryWatchers<IntfAclField, IntfAclWatcher>>(
        index_->intfAclMapping(),
        [this](const Zamu::IntfId& intf, const Vorn::Ptr<IntfAclColl>& entry) {
            auto watcher = std::make_unique<IntfAclWatcher>(this, intf, entry);
            if (watching_) {
                for (const Ovin::AclKey& acl : entry->aclKey())
                    handleIntfAcl(intf, acl);
            }
            return watcher;
        });
    watching_ = true;
}

void IntfAclTypeIndexSm::handleIntfAclGone(const Zamu::IntfId& intf) {
    IntfAclWatcher* watcher = intfAclMapping_ ? intfAclMapping_->find(intf) : nullptr;
    if (!watcher)
        return;
    Vorn::Ptr<IntfAclColl> old = watcher->entry();
    if (index_->intfAclMapping(intf) == old)
        return;
    // Normally empty by now (its writer removes the last ACL first); a wholesale deletion
    // leaves ACLs to ungroup.
    for (const Ovin::AclKey& acl : old->aclKey())
        handleIntfAcl(intf, acl);
}

void IntfAclTypeIndexSm::handleIntfAcl(const Zamu::IntfId& intf, const Ovin::AclKey& acl) {
    VORN_ASSERT(initialized());
    const Mirel::TableType tableType = getTableType(acl);
    Vorn::Ptr<IntfAclColl> acls = index_->intfAclMapping(intf);
    if (acls && acls->aclKey(acl)) {
        index_->intfAclTypeMappingIs(intf)->aclTableTypeMappingIs(tableType)->aclKeyIs(acl);
        FLINQ(th, 8,
              "intfAclTypeMapping: " << intf << " " << tableType << " " << acl << " is Added");
        return;
    }
    if (Vorn::Ptr<IntfAclTableTypeColl> types = index_->intfAclTypeMapping(intf)) {
        if (Vorn::Ptr<AclTableTypeMapping> type = types->aclTableTypeMapping(tableType)) {
            type->aclKeyDel(acl);
            if (type->aclKeys() == 0)
                types->aclTableTypeMappingDel(tableType);
        }
        if (types->aclTableTypeMappings() == 0)
            index_->intfAclTypeMappingDel(intf);
    }
    FLINQ(th, 8, "intfAclTypeMapping: " << intf << " " << tableType << " " << acl << " is Removed");
}

Vorn::Ptr<IntfAclTypeIndexSm> intfAclTypeIndexSmFactory(const Vorn::Ptr<Index>& index) {
    return Vorn::make<IntfAclTypeIndexSm>(index);
}

}  // namespace OvinMirel
