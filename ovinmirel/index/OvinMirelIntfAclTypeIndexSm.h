#pragma once
// IntfAclTypeIndexSm: groups the ACLs that reach each physical interface
// (Index.intfAclMapping) by hardware table type, in Index.intfAclTypeMapping, so that readers
// see per interface which table types meet there. Reads and writes only the Index.
//
// Watches: Index.intfAclMapping, one watcher per IntfAclColl on its ACL keys (from
//          handleInitialized on).
// Writes:  Index.intfAclTypeMapping.
// Invariants:
//  1. acl is in intfAclTypeMapping[i].aclTableTypeMapping[getTableType(acl)] exactly when acl
//     is in intfAclMapping[i].
//  2. No empty entries: the last ACL of a type removes the type, the last type the interface.
//  3. Each type's outAcls counts its ACLs that are not inbound.
// Owns: the Index reference and the per-interface watchers.

#include <memory>

#include "ovinmirel/index/OvinMirelIndex.h"
#include "platform/mirel/TableType.h"
#include "platform/ovin/AclKey.h"
#include "platform/vorn/EntryWatchers.h"
#include "platform/vorn/Ptr.h"

namespace OvinMirel {

class IntfAclTypeIndexSm : public Vorn::PtrInterface {
  public:
    // A null index throws Vorn::NullPointerException.
    explicit IntfAclTypeIndexSm(const Vorn::Ptr<Index>& index);

    // The hardware table an ACL lands in: IPv4 1 (2 with a VLAN id, a router ACL), IPv6 3
    // (4), MAC 5. Any other ACL type stops the process ("tableType != Mirel::invalid_").
    static Mirel::TableType getTableType(const Ovin::AclKey& acl);

    bool initialized() const { return initialized_; }
    const Vorn::Ptr<Index>& index() const { return index_; }

    // Drops intfAclTypeMapping, regroups every ACL of every interface, then follows
    // intfAclMapping.
    void handleInitialized();
    // Brings intfAclTypeMapping in line with whether acl reaches intf now.
    // REQUIRES: initialized().
    void handleIntfAcl(const Zamu::IntfId& intf, const Ovin::AclKey& acl);

  private:
    class IntfAclWatcher;
    // handleIntfAcl, given intfAclMapping[intf] (null when there is none).
    void regroup(const Zamu::IntfId& intf, const IntfAclColl* acls, const Ovin::AclKey& acl);
    using IntfAclField = Vorn::EntityMapField<Zamu::IntfId, IntfAclColl>;

    const Vorn::Ptr<Index> index_;
    bool initialized_ = false;
    std::unique_ptr<Vorn::EntryWatchers<IntfAclField, IntfAclWatcher>> intfAclMapping_;
};

Vorn::Ptr<IntfAclTypeIndexSm> intfAclTypeIndexSmFactory(const Vorn::Ptr<Index>& index);

}  // namespace OvinMirel
