#include "platform/vorn/Signal.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

namespace {

// Slots dropped outside an emission, in patterns that leave holes anywhere: each is freed at
// once (what it captured goes with it), and the others keep being called in connection order,
// also after slots connected later.
TEST(VornSignal, DroppedSlotsGoAtOnceAndTheOthersKeepTheirOrder) {
    struct Case {
        const char* name;
        std::function<bool(int)> drop;
    };
    const Case cases[] = {
        {"every other", [](int i) { return i % 2 == 0; }},
        {"first half", [](int i) { return i < 50; }},
        {"last half", [](int i) { return i >= 50; }},
        {"all but the last", [](int i) { return i != 99; }},
        {"all", [](int) { return true; }},
        {"none", [](int) { return false; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Vorn::Signal<int> signal;
        std::vector<int> calls;
        const auto token = std::make_shared<int>(0);
        std::vector<Vorn::Subscription> subs;
        for (int i = 0; i < 100; ++i)
            subs.push_back(signal.connect([&calls, i, token](int) { calls.push_back(i); }));
        std::vector<int> expected;
        for (int i = 0; i < 100; ++i) {
            if (c.drop(i))
                subs[size_t(i)].reset();
            else
                expected.push_back(i);
        }
        EXPECT_EQ(token.use_count(), long(expected.size()) + 1);
        EXPECT_EQ(signal.slots(), expected.size());
        signal.emit(0);
        EXPECT_EQ(calls, expected);

        Vorn::Subscription late = signal.connect([&calls](int) { calls.push_back(1000); });
        calls.clear();
        expected.push_back(1000);
        signal.emit(0);
        EXPECT_EQ(calls, expected);
        // Dropping the rest in reverse order leaves nothing to call.
        late.reset();
        for (auto it = subs.rbegin(); it != subs.rend(); ++it)
            it->reset();
        calls.clear();
        signal.emit(0);
        EXPECT_TRUE(calls.empty());
        EXPECT_EQ(signal.slots(), 0u);
        EXPECT_EQ(token.use_count(), 1);
    }
}

// A slot that drops others (holes on both sides of it) and then itself during an emission:
// those dropped are not called, the rest are, and the next emission sees the same.
TEST(VornSignal, SlotsDroppedDuringAnEmissionAreSkipped) {
    Vorn::Signal<> signal;
    std::vector<int> calls;
    std::vector<Vorn::Subscription> subs(6);
    for (int i = 0; i < 6; ++i) {
        subs[size_t(i)] = signal.connect([&, i] {
            calls.push_back(i);
            if (i == 2) {
                subs[1].reset();
                subs[4].reset();
                subs[2].reset();
            }
        });
    }
    subs[0].reset();  // a hole before the emission
    signal.emit();
    EXPECT_EQ(calls, (std::vector<int>{1, 2, 3, 5}));
    calls.clear();
    signal.emit();
    EXPECT_EQ(calls, (std::vector<int>{3, 5}));
    EXPECT_EQ(signal.slots(), 2u);
}

// The slots' storage comes with the first connection and goes with the last slot, also when
// that slot leaves during an emission: a signal goes back and forth between the two states,
// and an emission that creates the storage anew (a slot reconnecting) keeps its own.
TEST(VornSignal, StorageComesAndGoesWithTheSlots) {
    Vorn::Signal<> signal;
    std::vector<int> calls;
    signal.emit();  // nothing connected
    Vorn::Subscription a = signal.connect([&] { calls.push_back(1); });
    Vorn::Subscription b = signal.connect([&] { calls.push_back(2); });
    a.reset();
    b.reset();
    EXPECT_EQ(signal.slots(), 0u);
    signal.emit();
    EXPECT_TRUE(calls.empty());

    // The only slot leaves and connects a successor from inside its own call.
    Vorn::Subscription c, d;
    c = signal.connect([&] {
        calls.push_back(3);
        c.reset();
        d = signal.connect([&] { calls.push_back(4); });
    });
    signal.emit();
    signal.emit();
    EXPECT_EQ(calls, (std::vector<int>{3, 4}));
    EXPECT_EQ(signal.slots(), 1u);

    // A slot connecting others while a later one is still to be called: the storage moves as
    // it grows, and the emission goes on in the moved storage.
    Vorn::Signal<> grows;
    std::vector<Vorn::Subscription> later;
    Vorn::Subscription first = grows.connect([&] {
        calls.push_back(5);
        for (int i = 0; i < 4; ++i)
            later.push_back(grows.connect([&] { calls.push_back(7); }));
    });
    Vorn::Subscription second = grows.connect([&] { calls.push_back(6); });
    calls.clear();
    grows.emit();
    EXPECT_EQ(calls, (std::vector<int>{5, 6}));
}

// An owned signal holds its owner for the whole emission: a slot dropping the owner's last
// reference does not cut the emission short nor free what the next slots read; the owner goes
// once the emission is over. An owner not held by any Ptr is left alone.
TEST(VornSignal, AnEmissionHoldsItsOwner) {
    struct Owner : Vorn::PtrInterface {
        explicit Owner(bool* alive) : alive(alive) { *alive = true; }
        ~Owner() override { *alive = false; }
        bool* alive;
        Vorn::Signal<> changed{this};
    };
    bool alive = false;
    std::vector<bool> seen;
    Vorn::Ptr<Owner> owner = Vorn::make<Owner>(&alive);
    EXPECT_EQ(owner->changed.owner(), owner.ptr());
    Vorn::Subscription drop = owner->changed.connect([&] { owner = nullptr; });
    Vorn::Subscription look = owner->changed.connect([&] { seen.push_back(alive); });
    owner->changed.emit();
    EXPECT_EQ(seen, std::vector<bool>{true});
    EXPECT_FALSE(alive);
    EXPECT_FALSE(look.connected());

    Owner unowned(&alive);
    Vorn::Subscription s = unowned.changed.connect([&] { seen.push_back(alive); });
    unowned.changed.emit();
    EXPECT_EQ(seen, (std::vector<bool>{true, true}));
}

}  // namespace
