#pragma once
// EntryWatchers: "one watcher per entry of a watched collection". Given an instantiating
// collection, keeps exactly one W per entry, created when the entry appears and destroyed when
// it goes (or is replaced by another entity under the same key). A state machine declares it
// after the references it uses and gives it a factory:
//
//   Vorn::EntryWatchers<Vorn::EntityMapField<Zamu::IntfId, Mirel::IntfMapping>, IntfWatcher>
//       intfMapping_{pdStatus_->intfMapping(),
//                    [this](const Zamu::IntfId& k, const Vorn::Ptr<Mirel::IntfMapping>& e) {
//                        return std::make_unique<IntfWatcher>(this, k, e); }};
//
// The factory may return nullptr (no watcher for that entry). `onDeleted`, when given, runs
// after an entry's watcher is gone. The constructor creates watchers for the entries already
// present, in the collection's iteration order, unless told not to (`replay` false; then call
// `replay()` when the owner is ready).
// A watcher may delete the entry it watches from inside its own callback; it must then not
// touch its own members afterwards (it is destroyed during the delete, like `delete this`).

#include <functional>
#include <map>
#include <memory>
#include <utility>

#include "platform/vorn/Entity.h"

namespace Vorn {

template <class Field, class W>
class EntryWatchers {
  public:
    using K = typename Field::key_type;
    using V = typename Field::mapped_type;
    using Factory = std::function<std::unique_ptr<W>(const K&, const Ptr<V>&)>;
    using Deleted = std::function<void(const K&)>;

    EntryWatchers(const Field& field, Factory make, Deleted onDeleted = {}, bool replay = true)
        : field_(&field), make_(std::move(make)), onDeleted_(std::move(onDeleted)) {
        sub_ = field.notify([this](const K& k) { handle(k); });
        if (replay)
            this->replay();
    }
    EntryWatchers(const EntryWatchers&) = delete;
    EntryWatchers& operator=(const EntryWatchers&) = delete;

    // Creates the watchers of entries that have none yet.
    void replay() {
        for (const K& k : field_->keys())
            handle(k);
    }
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

    void handle(const K& k) {
        Ptr<V> now = field_->find(k);
        auto it = watchers_.find(k);
        if (it != watchers_.end()) {
            if (it->second.entity == now)
                return;
            // Gone or replaced: drop the old watcher first.
            auto old = std::move(it->second.watcher);
            watchers_.erase(it);
            old.reset();
            if (onDeleted_)
                onDeleted_(k);
        }
        if (!now)
            return;
        watchers_.try_emplace(k, Entry{now, nullptr});
        std::unique_ptr<W> w = make_(k, now);
        // The factory may have re-entered and changed the entry; keep the latest decision.
        auto slot = watchers_.find(k);
        if (slot != watchers_.end() && slot->second.entity == now && !slot->second.watcher) {
            slot->second.watcher = std::move(w);
        }
    }

    const Field* field_;
    Factory make_;
    Deleted onDeleted_;
    std::map<K, Entry> watchers_;
    Subscription sub_;
};

}  // namespace Vorn
