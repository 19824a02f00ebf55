// One watcher per entry: made, told and dropped as entries come, change and go, also when the
// hooks and other watchers write the collection from inside a notification.

#include "platform/vorn/EntryWatchers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace {

class Item : public Vorn::Entity {
    VORN_ENTITY("Test::Item")
  public:
    explicit Item(int key) : key_(key) {}
    int key() const { return key_; }
    VORN_ATTR(int, value, 0)

  private:
    int key_;
};

class Owner : public Vorn::Entity {
    VORN_ENTITY("Test::Owner")
  public:
    VORN_ENTITY_MAP(int, Item, item)
};

using Field = Vorn::EntityMapField<int, Item>;

// Logs what it sees; the log shows which entity each watcher is on.
struct Watcher {
    Watcher(std::vector<std::string>* log, int key, const Vorn::Ptr<Item>& item)
        : log_(log), key_(key), item_(item.ptr()) {
        sub_ = item->valueNotify([this] {
            log_->push_back(std::to_string(key_) + "=" + std::to_string(item_->value()));
        });
    }
    ~Watcher() { log_->push_back("drop " + std::to_string(key_)); }
    std::vector<std::string>* log_;
    int key_;
    const Item* item_;
    Vorn::Subscription sub_;
};

struct World {
    Vorn::Ptr<Owner> owner = Vorn::make<Owner>();
    std::vector<std::string> log;

    std::unique_ptr<Vorn::EntryWatchers<Field, Watcher>> watch(
        Vorn::Existing existing = Vorn::Existing::watch) {
        return std::make_unique<Vorn::EntryWatchers<Field, Watcher>>(
            owner->item(),
            Vorn::EntryWatchers<Field, Watcher>::Hooks{
                .make =
                    [this](int k, const Vorn::Ptr<Item>& e) {
                        log.push_back("make " + std::to_string(k));
                        return std::make_unique<Watcher>(&log, k, e);
                    },
                .added =
                    [this](int k, Watcher& w, const Vorn::Ptr<Item>& e) {
                        EXPECT_EQ(w.item_, e.ptr());
                        log.push_back("added " + std::to_string(k));
                    },
                .gone =
                    [this](int k, Watcher& w, const Vorn::Ptr<Item>& e) {
                        // The watcher and the entity it watched, no longer in the collection.
                        EXPECT_EQ(w.item_, e.ptr());
                        EXPECT_NE(owner->item(k), e);
                        log.push_back("gone " + std::to_string(k) + " value " +
                                      std::to_string(e->value()));
                    }},
            existing);
    }
};

using Log = std::vector<std::string>;

TEST(VornEntryWatchers, FollowsEntriesAndHandsTheVanishedOneToTheOwner) {
    World w;
    w.owner->itemIs(1)->valueIs(5);
    auto watchers = w.watch();
    // Present at construction: a watcher, but no `added` (Existing::watch).
    EXPECT_EQ(w.log, (Log{"make 1"}));
    w.log.clear();
    w.owner->itemIs(2)->valueIs(20);
    w.owner->item(1)->valueIs(10);
    w.owner->itemDel(1);
    w.owner->item(2)->valueIs(21);
    EXPECT_EQ(w.log,
              (Log{"make 2", "added 2", "2=20", "1=10", "gone 1 value 10", "drop 1", "2=21"}));
    EXPECT_EQ(watchers->find(1), nullptr);
    EXPECT_NE(watchers->find(2), nullptr);
    EXPECT_EQ(watchers->size(), 1u);
    w.log.clear();
    watchers.reset();  // dropped without `gone`
    EXPECT_EQ(w.log, (Log{"drop 2"}));
}

TEST(VornEntryWatchers, ExistingAddRunsAddedForEntriesPresentAtConstruction) {
    World w;
    w.owner->itemIs(3);
    w.owner->itemIs(4);
    auto watchers = w.watch(Vorn::Existing::add);
    Log seen = w.log;
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (Log{"added 3", "added 4", "make 3", "make 4"}));
}

TEST(VornEntryWatchers, WatcherThatDeletesItsOwnEntryIsDroppedSafely) {
    auto owner = Vorn::make<Owner>();
    struct SelfDeleting {
        SelfDeleting(Owner* o, int k, const Vorn::Ptr<Item>& e) {
            sub_ = e->valueNotify([o, k] { o->itemDel(k); });
        }
        Vorn::Subscription sub_;
    };
    int gone = 0;
    Vorn::EntryWatchers<Field, SelfDeleting> watchers(
        owner->item(), {.make =
                            [&](int k, const Vorn::Ptr<Item>& e) {
                                return std::make_unique<SelfDeleting>(owner.ptr(), k, e);
                            },
                        .gone = [&](int, SelfDeleting&, const Vorn::Ptr<Item>&) { ++gone; }});
    owner->itemIs(1);
    owner->itemIs(2);
    owner->item(1)->valueIs(1);
    EXPECT_EQ(owner->items(), 1u);
    EXPECT_EQ(watchers.size(), 1u);
    EXPECT_NE(watchers.find(2), nullptr);
    EXPECT_EQ(gone, 1);
}

// A watcher of the collection connected BEFORE the per-entry watchers re-creates an entry as
// soon as it is deleted: the per-entry watchers hear of the new entity (nested) before they
// hear of the deletion, and then find the key holding an entity they already watch. The old
// watcher must go (with `gone`), the new entity get its own, and the late deletion notice
// change nothing.
TEST(VornEntryWatchers, EntryReplacedBeforeTheWatchersHearOfItGetsAFreshWatcher) {
    World w;
    auto recreate = w.owner->itemNotify([&](int k) {
        if (!w.owner->item(k) && k == 1)
            w.owner->itemIs(1)->valueIs(7);
    });
    auto watchers = w.watch();
    w.owner->itemIs(1);
    Vorn::Ptr<Item> first = w.owner->item(1);
    w.log.clear();
    w.owner->itemDel(1);
    Vorn::Ptr<Item> second = w.owner->item(1);
    ASSERT_NE(second, nullptr);
    ASSERT_NE(second, first);
    ASSERT_NE(watchers->find(1), nullptr);
    EXPECT_EQ(watchers->find(1)->item_, second.ptr());
    EXPECT_EQ(w.log, (Log{"gone 1 value 0", "drop 1", "make 1", "added 1", "1=7"}));
    w.log.clear();
    second->valueIs(9);
    first->valueIs(4);  // the old entity is no longer watched
    EXPECT_EQ(w.log, (Log{"1=9"}));
    EXPECT_EQ(watchers->size(), 1u);
}

// The same, with the re-creating watcher connected after: the per-entry watchers see the
// deletion first, then the new entry.
TEST(VornEntryWatchers, EntryRecreatedAfterTheWatchersHeardOfItGetsAFreshWatcher) {
    World w;
    auto watchers = w.watch();
    auto recreate = w.owner->itemNotify([&](int k) {
        if (!w.owner->item(k) && k == 1)
            w.owner->itemIs(1);
    });
    w.owner->itemIs(1);
    w.log.clear();
    w.owner->itemDel(1);
    ASSERT_NE(watchers->find(1), nullptr);
    EXPECT_EQ(watchers->find(1)->item_, w.owner->item(1).ptr());
    EXPECT_EQ(w.log, (Log{"gone 1 value 0", "drop 1", "make 1", "added 1"}));
}

// A factory that writes the collection it watches: deleting the entry it is making (the
// watcher is discarded, never told `added` or `gone`), and adding another entry (which gets
// its own watcher).
TEST(VornEntryWatchers, FactoryWritingItsOwnCollectionKeepsOneWatcherPerEntry) {
    auto owner = Vorn::make<Owner>();
    std::vector<std::string> log;
    Vorn::EntryWatchers<Field, Watcher> watchers(
        owner->item(),
        {.make =
             [&](int k, const Vorn::Ptr<Item>& e) {
                 if (k == 1)
                     owner->itemDel(1);
                 if (k == 2)
                     owner->itemIs(3);
                 return std::make_unique<Watcher>(&log, k, e);
             },
         .added = [&](int k, Watcher&,
                      const Vorn::Ptr<Item>&) { log.push_back("added " + std::to_string(k)); },
         .gone = [&](int k, Watcher&,
                     const Vorn::Ptr<Item>&) { log.push_back("gone " + std::to_string(k)); }});
    owner->itemIs(1);
    EXPECT_EQ(owner->item(1), nullptr);
    EXPECT_EQ(watchers.find(1), nullptr);
    EXPECT_EQ(watchers.size(), 0u);
    EXPECT_EQ(log, (Log{"drop 1"}));
    log.clear();
    owner->itemIs(2);
    ASSERT_NE(watchers.find(2), nullptr);
    ASSERT_NE(watchers.find(3), nullptr);
    EXPECT_EQ(watchers.size(), 2u);
    owner->item(3)->valueIs(33);
    EXPECT_EQ(log, (Log{"added 3", "added 2", "3=33"}));
}

}  // namespace
