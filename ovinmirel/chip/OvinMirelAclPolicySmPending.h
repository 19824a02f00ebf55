#pragma once
// AclPolicySmPending: the interfaces a policy machine has scheduled for review, each with the
// ACLs that changed under it, or `all` when anything interface-wide may have changed.
//
// Held in interface order in one vector rather than as a node per interface: a review run
// takes every entry at once and walks them in the order it reviews the interfaces, and a
// burst of changes mostly schedules interfaces in that order, so adding one mostly appends.
// Invariants:
//  1. At most one entry per interface, in ascending interface order.
//  2. An entry with `all` holds no ACL: all of them will be looked at.

#include <cstddef>
#include <utility>
#include <vector>

#include "platform/ovin/AclKey.h"
#include "platform/vorn/SmallFlatSet.h"
#include "platform/zamu/IntfId.h"

namespace OvinMirel {

class AclPolicySmPending {
  public:
    // Ascending keys, mostly one: that one is held in place (no allocation per entry).
    using AclKeys = Vorn::SmallFlatSet<Ovin::AclKey>;
    struct Review {
        bool all = false;
        AclKeys acls;
    };
    struct Entry {
        Zamu::IntfId intf;
        Review review;
    };

    // Everything about the interface is to be looked at.
    void all(const Zamu::IntfId& intf);
    // The ACL changed under the interface.
    void acl(const Zamu::IntfId& intf, const Ovin::AclKey& key);
    // The interface's entry, removed; `all` for an interface with none (nothing says what
    // changed under it).
    Review take(const Zamu::IntfId& intf);
    // Every entry, leaving none, for a run that reviews interfaces in ascending order. When
    // it ends it hands its storage back for a later run, so a steady flow of bursts does not
    // allocate. REQUIRES: the AclPolicySmPending outlives it.
    class Run {
      public:
        Run(AclPolicySmPending& owner, std::vector<Entry> entries)
            : owner_(owner), entries_(std::move(entries)) {}
        ~Run();
        Run(const Run&) = delete;
        Run& operator=(const Run&) = delete;
        // As AclPolicySmPending::take. REQUIRES: asked in ascending interface order.
        Review take(const Zamu::IntfId& intf);

      private:
        AclPolicySmPending& owner_;
        std::vector<Entry> entries_;
        size_t next_ = 0;
    };
    Run takeAll();
    void clear() { entries_.clear(); }

  private:
    Entry& entry(const Zamu::IntfId& intf);
    std::vector<Entry>::iterator find(const Zamu::IntfId& intf);

    std::vector<Entry> entries_;
    // Empty; the storage the last run handed back, for the next one to fill.
    std::vector<Entry> spare_;
};

}  // namespace OvinMirel
