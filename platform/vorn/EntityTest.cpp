// The entity framework's contract: what notifies, when, in which order, and what stays safe
// while watchers write, unsubscribe and delete from inside a notification.

#include "platform/vorn/Entity.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

class Child : public Vorn::Entity {
    VORN_ENTITY("Test::Child")
  public:
    explicit Child(int key) : key_(key) {}
    int key() const { return key_; }
    VORN_ATTR(int, value, 0)
    VORN_SET(int, member)

    static int live;
    Child(const Child&) = delete;
    ~Child() override { --live; }

  private:
    int key_;
    int dummy_ = ++live;
};
int Child::live = 0;

class Parent : public Vorn::Entity {
    VORN_ENTITY("Test::Parent")
  public:
    VORN_ATTR(int, count, 7)
    VORN_ATTR(std::string, label)
    VORN_PTR_ATTR(Child, favourite)
    VORN_MAP(int, std::string, word)
    VORN_ORDERED_MAP(int, int, ranked)
    VORN_ENTITY_MAP(int, Child, child)
};

TEST(VornEntity, UnchangedValueNotifiesNobody) {
    auto p = Vorn::make<Parent>();
    int calls = 0;
    auto s1 = p->countNotify([&] { ++calls; });
    auto s2 = p->wordNotify([&](int) { ++calls; });
    auto s3 = p->rankedNotify([&](int) { ++calls; });
    p->countIs(7);  // the default
    p->wordIs(1, "a");
    p->wordIs(1, "a");
    p->rankedIs(2, 5);
    p->rankedIs(2, 5);
    p->wordDel(99);  // absent
    EXPECT_EQ(calls, 2);
    p->countIs(8);
    p->wordIs(1, "b");  // replace
    EXPECT_EQ(calls, 4);
    ASSERT_NE(p->word(1), nullptr);
    EXPECT_EQ(*p->word(1), "b");
    EXPECT_EQ(p->word(2), nullptr);
}

TEST(VornEntity, CollectionsNotifyPerKeyInWriteOrder) {
    auto p = Vorn::make<Parent>();
    std::vector<std::string> seen;
    auto s1 = p->wordNotify([&](int k) { seen.push_back("word" + std::to_string(k)); });
    auto s2 = p->childNotify([&](int k) { seen.push_back("child" + std::to_string(k)); });
    auto s3 = p->labelNotify([&] { seen.push_back("label=" + p->label()); });
    p->wordIs(3, "x");
    p->childIs(4);
    p->childIs(4);  // get-or-create: exists, no change
    p->labelIs("l");
    p->wordDel(3);
    p->childDel(4);
    EXPECT_EQ(seen, (std::vector<std::string>{"word3", "child4", "label=l", "word3", "child4"}));
}

TEST(VornEntity, DelAllNotifiesEveryKeyAndReadersSeeEachStep) {
    auto p = Vorn::make<Parent>();
    for (int k : {5, 1, 3})
        p->rankedIs(k, k * 10);
    std::vector<std::pair<int, size_t>> seen;
    auto s = p->rankedNotify([&](int k) { seen.emplace_back(k, p->rankeds()); });
    p->rankedDelAll();
    // Ordered collections empty in key order; each watcher sees the entry already gone.
    EXPECT_EQ(seen, (std::vector<std::pair<int, size_t>>{{1, 2}, {3, 1}, {5, 0}}));
}

class Counted : public Vorn::Entity {
    VORN_ENTITY("Test::Counted")
  public:
    VORN_MAP(int, uint32_t, n)
    uint32_t nInc(int k, uint32_t d) { return n_.inc(k, d); }
};

class Taken : public Vorn::Entity {
    VORN_ENTITY("Test::Taken")
  public:
    VORN_MAP(int, std::vector<int>, list)
    void listTake(int k, std::vector<int>&& v) { list_.is(k, std::move(v)); }
};

TEST(VornEntity, AValueTakenOverNotifiesLikeACopy) {
    auto t = Vorn::make<Taken>();
    int calls = 0;
    auto s = t->listNotify([&](int) { ++calls; });
    std::vector<int> built = {1, 2};
    t->listTake(1, std::move(built));
    EXPECT_EQ(calls, 1);
    ASSERT_NE(t->list(1), nullptr);
    EXPECT_EQ(*t->list(1), (std::vector<int>{1, 2}));
    t->listTake(1, {1, 2});  // equal: no change
    EXPECT_EQ(calls, 1);
    t->listTake(1, {3});
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(*t->list(1), (std::vector<int>{3}));
}

TEST(VornEntity, AnEntityPutFilledAppearsWholeInOneNotification) {
    auto p = Vorn::make<Parent>();
    std::vector<std::pair<int, size_t>> seen;  // the key, and the members a watcher finds
    auto s = p->childNotify([&](int k) {
        const Vorn::Ptr<Child> c = p->child(k);
        seen.emplace_back(k, c ? c->members() : 0);
    });
    auto built = Vorn::make<Child>(1);
    built->memberIs(10);
    built->memberIs(11);
    EXPECT_TRUE(p->childPut(1, built));
    EXPECT_FALSE(p->childPut(1, built));  // held already: no change
    EXPECT_EQ(p->child(1), built);
    // Another entity under the same key replaces it: one notification, the new one whole, and
    // the old one lives until the watchers have been told.
    const int liveBefore = Child::live;
    auto other = Vorn::make<Child>(1);
    other->memberIs(12);
    built = nullptr;
    auto s2 = p->childNotify([&](int) { EXPECT_EQ(Child::live, liveBefore + 1); });
    EXPECT_TRUE(p->childPut(1, other));
    EXPECT_EQ(Child::live, liveBefore);
    EXPECT_EQ(seen, (std::vector<std::pair<int, size_t>>{{1, 2}, {1, 1}}));
}

TEST(VornEntity, CounterIncNotifiesOnlyOnChange) {
    auto c = Vorn::make<Counted>();
    int calls = 0;
    auto s = c->nNotify([&](int) { ++calls; });
    EXPECT_EQ(c->nInc(1, 0), 0u);  // created at 0: a change
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(c->nInc(1, 0), 0u);  // no change
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(c->nInc(1, 2), 2u);
    EXPECT_EQ(c->nInc(1, 3), 5u);
    EXPECT_EQ(calls, 3);
}

TEST(VornEntity, NullReferenceToMutatorIsRefusedAndKeepsTheOldValue) {
    auto p = Vorn::make<Parent>();
    auto c = Vorn::make<Child>(1);
    p->favouriteIs(c);
    try {
        p->favouriteIs(nullptr);
        FAIL() << "expected NullPointerException";
    } catch (const Vorn::NullPointerException& e) {
        EXPECT_STREQ(
            e.what(),
            "null _favourite parameter to mutator for Test::Parent::favourite not allowed");
    }
    EXPECT_EQ(p->favourite(), c);
    p->favouriteDel();
    EXPECT_EQ(p->favourite(), nullptr);
}

TEST(VornEntity, WatcherDeletesTheEntryItIsToldAbout) {
    Child::live = 0;
    auto p = Vorn::make<Parent>();
    auto c = p->childIs(1);
    std::vector<int> seen;
    // The first watcher deletes the child whose change it hears about; the second watcher of
    // the same attribute still hears the change, once, and the child is freed afterwards.
    auto s1 = c->valueNotify([&] {
        seen.push_back(1);
        p->childDel(1);
    });
    auto s2 = c->valueNotify([&] { seen.push_back(2); });
    c = nullptr;
    ASSERT_NE(p->child(1), nullptr);
    p->child(1)->valueIs(5);
    EXPECT_EQ(seen, (std::vector<int>{1, 2}));
    EXPECT_EQ(p->childs(), 0u);
    EXPECT_EQ(Child::live, 0);
    // The subscriptions outlived their signal and are inert.
    EXPECT_FALSE(s1.connected());
}

TEST(VornEntity, WatcherRemovesItselfAndOthersDuringNotification) {
    auto p = Vorn::make<Parent>();
    std::vector<std::string> seen;
    Vorn::Subscription a, b, c, late;
    a = p->countNotify([&] {
        seen.push_back("a");
        a.reset();                                               // itself
        c.reset();                                               // a later one: must not be called
        late = p->countNotify([&] { seen.push_back("late"); });  // first called next time
    });
    b = p->countNotify([&] { seen.push_back("b"); });
    c = p->countNotify([&] { seen.push_back("c"); });
    p->countIs(1);
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "b"}));
    seen.clear();
    p->countIs(2);
    EXPECT_EQ(seen, (std::vector<std::string>{"b", "late"}));
}

TEST(VornEntity, WatcherWritesAnotherWatchedEntityNestedInOrder) {
    auto p = Vorn::make<Parent>();
    auto q = Vorn::make<Parent>();
    std::vector<std::string> seen;
    auto s1 = p->countNotify([&] {
        seen.push_back("p1");
        q->countIs(p->count());
        seen.push_back("p1 done");
    });
    auto s2 = p->countNotify([&] { seen.push_back("p2"); });
    auto s3 = q->countNotify([&] {
        seen.push_back("q");
        p->countIs(p->count());  // writing the same value again: nothing
    });
    p->countIs(3);
    EXPECT_EQ(seen, (std::vector<std::string>{"p1", "q", "p1 done", "p2"}));
    EXPECT_EQ(q->count(), 3);
}

}  // namespace
