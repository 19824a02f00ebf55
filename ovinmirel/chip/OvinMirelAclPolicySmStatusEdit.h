#pragma once
// AclPolicySmStatusEdit: the writes that one review of the ACL policy machine makes to its
// chip's AclPolicyStatus, held per place and written when the review ends.
//
// The mapping machine reprocesses a place on every write to the place's ACL set, when the
// place appears and when it goes. So each place is written once with what it ends up holding:
//  1. a place that loses every ACL is deleted whole (one "gone");
//  2. a place that appears is built beside the status, filled, and published in one write;
//  3. a place that stays gets its removed keys, then its added keys; a key removed and added
//     back within the edit is not written at all.
// Reads through the edit see the status as the writes so far leave it. commit() writes the
// places that shrink or go before those that grow or appear (intfAclMapping,
// routedPortSharedAclMapping, vlanAclMapping, subIntfAclMapping, each in key order), as a
// review withdraws before it adds, and leaves the edit empty.
// Only the ACL sets wait for commit(): the member ports of a VLAN's entry, which nothing
// reprocesses a place on, are written to its entry at once (to the one being built for a VLAN
// that has none).
// Owns: a shared reference to the status, and the entities it builds until it publishes them.

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "ovinmirel/glue/OvinMirelGlueStatus.h"
#include "platform/bridging/VlanId.h"
#include "platform/ovin/AclKey.h"
#include "platform/vorn/Entity.h"
#include "platform/vorn/FlatSet.h"
#include "platform/vorn/Ptr.h"
#include "platform/zamu/IntfId.h"

namespace OvinMirel {

class AclPolicySmStatusEdit {
  public:
    // The edits of one mapping of the status, per place.
    template <class Place, class Entry>
    class Places {
      public:
        using Field = Vorn::EntityMapField<Place, Entry, Vorn::Ordered>;
        explicit Places(const Field& field) : field_(&field) {}

        bool empty() const { return edits_.empty(); }
        bool has(const Place& place, const Ovin::AclKey& key) const;
        // The keys the place holds; 0 for a place absent or to be deleted.
        size_t keys(const Place& place) const;
        void add(const Place& place, const Ovin::AclKey& key);
        void remove(const Place& place, const Ovin::AclKey& key);
        // The member ports of a VLAN's entry, written at once.
        void memberAdd(const Place& place, const Zamu::IntfId& phyIntf);
        void memberRemove(const Place& place, const Zamu::IntfId& phyIntf);

        // The first half of a commit: removals, and `del(place)` for a place left empty.
        template <class Del>
        void commitRemovals(Del&& del);
        // The second half: additions, and `put(place, entity)` for a place that appears.
        template <class Put>
        void commitAdditions(Put&& put);

      private:
        // A published entry with the members it loses and gains, or (fresh) an entity being
        // built for an absent place, written directly: nobody watches it yet.
        struct Edit {
            Vorn::Ptr<Entry> entry;
            bool fresh = false;
            Vorn::FlatSet<Ovin::AclKey> added, removed;
        };
        // The edit of the place at `i` (at(place)) that has none yet: of its published entry,
        // else of a fresh entity.
        Edit& insertEdit(size_t i, const Place& place, Vorn::Ptr<Entry> published);
        // The place's edit; null while it has none.
        const Edit* find(const Place& place) const;
        // Where the place's edit is, or would go (edits_ is in place order).
        size_t at(const Place& place) const;
        // The entity the place's writes go to: the one being built, else the published one.
        Vorn::Ptr<Entry> entity(const Place& place);
        // The place's edit for a write that puts `key` in (`member`) or takes it out; null for
        // a write that leaves the place as it is, which needs no edit.
        Edit* editFor(const Place& place, const Ovin::AclKey& key, bool member);

        static bool contains(const Vorn::FlatSet<Ovin::AclKey>& set, const Ovin::AclKey& k) {
            return set.find(k) != set.end();
        }
        static bool erase(Vorn::FlatSet<Ovin::AclKey>& set, const Ovin::AclKey& k) {
            const auto it = set.find(k);
            if (it == set.end())
                return false;
            set.extract(it);
            return true;
        }

        const Field* field_;
        // In place order. A review edits a few places: a sorted vector, whose storage stays
        // from one commit to the next, instead of a node per place.
        std::vector<std::pair<Place, Edit>> edits_;
    };

    explicit AclPolicySmStatusEdit(const Vorn::Ptr<AclPolicyStatus>& status);

    Places<Zamu::IntfId, IntfAclKeySet>& intfAclMapping() { return intf_; }
    Places<Zamu::IntfId, IntfAclKeySet>& routedPortSharedAclMapping() { return routed_; }
    Places<Bridging::VlanId, VlanAclKeySet>& vlanAclMapping() { return vlan_; }
    Places<Zamu::IntfId, IntfAclKeySet>& subIntfAclMapping() { return sub_; }

    void commit();

  private:
    const Vorn::Ptr<AclPolicyStatus> status_;
    Places<Zamu::IntfId, IntfAclKeySet> intf_;
    Places<Zamu::IntfId, IntfAclKeySet> routed_;
    Places<Bridging::VlanId, VlanAclKeySet> vlan_;
    Places<Zamu::IntfId, IntfAclKeySet> sub_;
};

template <class Place, class Entry>
bool AclPolicySmStatusEdit::Places<Place, Entry>::has(const Place& place,
                                                      const Ovin::AclKey& key) const {
    const Edit* found = find(place);
    if (!found) {
        const Vorn::Ptr<Entry> entry = field_->find(place);
        return entry && entry->aclKey(key);
    }
    const Edit& e = *found;
    if (e.fresh)
        return e.entry->aclKey(key);
    return contains(e.added, key) || (e.entry->aclKey(key) && !contains(e.removed, key));
}

template <class Place, class Entry>
size_t AclPolicySmStatusEdit::Places<Place, Entry>::keys(const Place& place) const {
    const Edit* found = find(place);
    if (!found) {
        const Vorn::Ptr<Entry> entry = field_->find(place);
        return entry ? entry->aclKeys() : 0;
    }
    const Edit& e = *found;
    return e.entry->aclKeys() - e.removed.size() + e.added.size();
}

template <class Place, class Entry>
typename AclPolicySmStatusEdit::Places<Place, Entry>::Edit&
AclPolicySmStatusEdit::Places<Place, Entry>::insertEdit(size_t i, const Place& place,
                                                        Vorn::Ptr<Entry> published) {
    Edit e;
    e.entry = std::move(published);
    if (!e.entry) {
        e.entry = Vorn::make<Entry>(place);
        e.fresh = true;
    }
    return edits_.emplace(edits_.begin() + ptrdiff_t(i), place, std::move(e))->second;
}

template <class Place, class Entry>
const typename AclPolicySmStatusEdit::Places<Place, Entry>::Edit*
AclPolicySmStatusEdit::Places<Place, Entry>::find(const Place& place) const {
    const size_t i = at(place);
    return i < edits_.size() && edits_[i].first == place ? &edits_[i].second : nullptr;
}

template <class Place, class Entry>
size_t AclPolicySmStatusEdit::Places<Place, Entry>::at(const Place& place) const {
    return size_t(std::lower_bound(edits_.begin(), edits_.end(), place,
                                   [](const auto& e, const Place& p) { return e.first < p; }) -
                  edits_.begin());
}

template <class Place, class Entry>
Vorn::Ptr<Entry> AclPolicySmStatusEdit::Places<Place, Entry>::entity(const Place& place) {
    const size_t i = at(place);
    if (i < edits_.size() && edits_[i].first == place)
        return edits_[i].second.entry;
    if (Vorn::Ptr<Entry> published = field_->find(place))
        return published;
    return insertEdit(i, place, nullptr).entry;
}

template <class Place, class Entry>
typename AclPolicySmStatusEdit::Places<Place, Entry>::Edit*
AclPolicySmStatusEdit::Places<Place, Entry>::editFor(const Place& place, const Ovin::AclKey& key,
                                                     bool member) {
    const size_t i = at(place);
    if (i < edits_.size() && edits_[i].first == place)
        return &edits_[i].second;
    Vorn::Ptr<Entry> published = field_->find(place);
    if (published ? published->aclKey(key) == member : !member)
        return nullptr;
    return &insertEdit(i, place, std::move(published));
}

template <class Place, class Entry>
void AclPolicySmStatusEdit::Places<Place, Entry>::add(const Place& place, const Ovin::AclKey& key) {
    Edit* found = editFor(place, key, true);
    if (!found)
        return;
    Edit& e = *found;
    if (e.fresh) {
        e.entry->aclKeyIs(key);
        return;
    }
    // A key that comes back cancels its removal.
    if (!erase(e.removed, key) && !e.entry->aclKey(key))
        e.added.insert(key);
}

template <class Place, class Entry>
void AclPolicySmStatusEdit::Places<Place, Entry>::remove(const Place& place,
                                                         const Ovin::AclKey& key) {
    Edit* found = editFor(place, key, false);
    if (!found)
        return;
    Edit& e = *found;
    if (e.fresh) {
        e.entry->aclKeyDel(key);
        return;
    }
    if (!erase(e.added, key) && e.entry->aclKey(key))
        e.removed.insert(key);
}

template <class Place, class Entry>
void AclPolicySmStatusEdit::Places<Place, Entry>::memberAdd(const Place& place,
                                                            const Zamu::IntfId& phyIntf) {
    entity(place)->phyIntfIs(phyIntf);
}

template <class Place, class Entry>
void AclPolicySmStatusEdit::Places<Place, Entry>::memberRemove(const Place& place,
                                                               const Zamu::IntfId& phyIntf) {
    entity(place)->phyIntfDel(phyIntf);
}

template <class Place, class Entry>
template <class Del>
void AclPolicySmStatusEdit::Places<Place, Entry>::commitRemovals(Del&& del) {
    for (auto& [place, e] : edits_) {
        if (e.fresh)
            continue;
        if (keys(place) == 0) {
            del(place);
            continue;
        }
        for (const Ovin::AclKey& key : e.removed)
            e.entry->aclKeyDel(key);
        e.removed = {};
    }
}

template <class Place, class Entry>
template <class Put>
void AclPolicySmStatusEdit::Places<Place, Entry>::commitAdditions(Put&& put) {
    for (auto& [place, e] : edits_) {
        if (e.fresh) {
            if (e.entry->aclKeys())
                put(place, e.entry);
            continue;
        }
        for (const Ovin::AclKey& key : e.added)
            e.entry->aclKeyIs(key);
    }
    edits_.clear();
}

}  // namespace OvinMirel
