#pragma once
// EntryWatchers: "one watcher per entry of a watched collection". Given an instantiating
// collection, keeps exactly one W per entry, made when the entry appears and dropped when it
// goes (or is replaced by another entity under the same key). A state machine declares it
// after the references it uses and gives it its hooks:
//
//   Vorn::EntryWatchers<Vorn::EntityMapField<Zamu::IntfId, Mirel::IntfMapping>, IntfWatcher>
//       intfMapping_{pdStatus_->intfMapping(), {
//           .make = [this](const Zamu::IntfId& k, const Vorn::Ptr<Mirel::IntfMapping>& e) {
//               return std::make_unique<IntfWatcher>(this, k, e); },
//           .added = [this](const Zamu::IntfId& k, IntfWatcher& w, const auto& e) { ... },
//           .gone = [this](const Zamu::IntfId& k, IntfWatcher& w, const auto& e) { ... }}};
//
//  - `make` builds the watcher of an entry (nullptr: no watcher for that entry). It should
//    only subscribe; the owner's reaction to a new entry belongs in `added`.
//  - `added` runs once the entry's watcher is in place, for every entry that appears after
//    construction, and for the entries present at construction only when asked
//    (Existing::add, in key order); with Existing::watch (the default) those get a watcher
//    and nothing else, for owners that replay their input in an order of their own.
//  - `gone` runs when an entry is deleted or replaced, with the watcher and the entity it
//    watched (the collection no longer holds it); the watcher is destroyed right after. So an
//    owner needs no second subscription to learn what a vanished entry held.
// Destroying the EntryWatchers drops every watcher without calling `gone`.
//
// Reentrancy: any hook may write the watched collection. A change that supersedes an entry
// while its watcher is being made (the entry deleted or replaced from inside `make`) discards
// that watcher; the latest state of the collection always wins, and `added`/`gone` are called
// in pairs for each entity that got a watcher. A watcher (or `added`) may delete the entry it
// watches; its watcher is then destroyed during the delete, like `delete this`.

#include <functional>
#include <map>
#include <memory>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "platform/vorn/Entity.h"

namespace Vorn {

enum class Existing { watch, add };

template <class Field, class W>
class EntryWatchers {
  public:
    using K = typename Field::key_type;
    using V = typename Field::mapped_type;

    struct Hooks {
        std::function<std::unique_ptr<W>(const K&, const Ptr<V>&)> make = {};
        std::function<void(const K&, W&, const Ptr<V>&)> added = {};
        std::function<void(const K&, W&, const Ptr<V>&)> gone = {};
    };

    EntryWatchers(const Field& field, Hooks hooks, Existing existing = Existing::watch)
        : field_(&field), hooks_(std::move(hooks)) {
        sub_ = field.notify([this](const K& k) { handle(k, true); });
        for (const K& k : field.sortedKeys())
            handle(k, existing == Existing::add);
    }
    EntryWatchers(const EntryWatchers&) = delete;
    EntryWatchers& operator=(const EntryWatchers&) = delete;

    W* find(const K& k) const {
        auto it = watchers_.find(k);
        return it == watchers_.end() ? nullptr : it->second.watcher.get();
    }
    size_t size() const { return watchers_.size(); }

  private:
    struct Entry {
        Ptr<V> entity;
        std::unique_ptr<W> watcher;
    };

    void handle(const K& k, bool runAdded) {
        Ptr<V> now = field_->find(k);
        auto it = watchers_.find(k);
        if (it != watchers_.end()) {
            if (it->second.entity == now)
                return;
            Entry old = std::move(it->second);
            watchers_.erase(it);
            if (old.watcher && hooks_.gone)
                hooks_.gone(k, *old.watcher, old.entity);
            old.watcher.reset();
            // `gone` may have changed the entry again, and a nested call dealt with it.
            if (watchers_.contains(k))
                return;
            now = field_->find(k);
        }
        if (!now)
            return;
        // A placeholder first: a change made while the watcher is being built sees it.
        watchers_.emplace(k, Entry{now, nullptr});
        std::unique_ptr<W> w = hooks_.make ? hooks_.make(k, now) : nullptr;
        auto slot = watchers_.find(k);
        if (slot == watchers_.end() || slot->second.entity != now || slot->second.watcher)
            return;  // superseded while it was made
        W* made = w.get();
        slot->second.watcher = std::move(w);
        if (made && runAdded && hooks_.added)
            hooks_.added(k, *made, now);
    }

    const Field* field_;
    Hooks hooks_;
    // Looked up only (by the watched collection's key, on every change of it): its order never
    // shows, so it is hashed where the key has a hash.
    using Watchers = std::conditional_t<
        std::is_default_constructible_v<std::hash<K>>,
        std::unordered_map<K, Entry, std::hash<K>, std::equal_to<K>,
                           PoolAllocator<std::pair<const K, Entry>>>,
        std::map<K, Entry, std::less<K>, PoolAllocator<std::pair<const K, Entry>>>>;
    Watchers watchers_;
    Subscription sub_;
};

}  // namespace Vorn
