#include "platform/brix/TimerWheel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/vorn/Clock.h"

namespace {

using Vorn::kInfinity;

// Timers that append "<name>@<now>" to a shared log when they fire.
class Fixture : public ::testing::Test {
  protected:
    std::unique_ptr<Brix::Timer> make(const std::string& name) {
        return std::make_unique<Brix::Timer>(wheel_, [this, name] { note(name); });
    }
    void note(const std::string& name) {
        log_.push_back(name + "@" + std::to_string(static_cast<int>(Vorn::currentTime())));
    }
    std::vector<std::string> takeLog() { return std::exchange(log_, {}); }

    Vorn::ScopedVirtualClock clock_{100};
    Brix::TimerWheel wheel_;
    std::vector<std::string> log_;
};

using BrixTimerWheel = Fixture;

TEST_F(BrixTimerWheel, DueTimersFireByExpiryThenArmingOrder) {
    struct Arm {
        const char* name;
        double expiry;
    };
    const Arm arms[] = {
        {"now", 100}, {"past", 50}, {"zero", 0}, {"future", 101}, {"minusInf", -kInfinity}};
    std::vector<std::unique_ptr<Brix::Timer>> timers;
    for (const Arm& a : arms)
        timers.push_back(make(a.name));
    for (size_t i = 0; i < std::size(arms); ++i)
        timers[i]->expiryIs(arms[i].expiry);
    // Equal expiries, armed in the reverse of their address order.
    Brix::Timer same[] = {{wheel_, [this] { note("s0"); }},
                          {wheel_, [this] { note("s1"); }},
                          {wheel_, [this] { note("s2"); }}};
    for (int i = 2; i >= 0; --i)
        same[i].expiryIs(99);

    EXPECT_EQ(wheel_.armedCount(), 8u);
    EXPECT_EQ(wheel_.nextExpiry(), -kInfinity);
    EXPECT_EQ(wheel_.runPass(), 7u);
    EXPECT_EQ(takeLog(), (std::vector<std::string>{"minusInf@100", "zero@100", "past@100", "s2@100",
                                                   "s1@100", "s0@100", "now@100"}));
    for (size_t i = 0; i < std::size(arms); ++i) {
        SCOPED_TRACE(arms[i].name);
        EXPECT_EQ(timers[i]->armed(), arms[i].expiry == 101);
        EXPECT_EQ(timers[i]->expiry(), arms[i].expiry == 101 ? 101 : kInfinity);
    }
    EXPECT_EQ(wheel_.armedCount(), 1u);
    EXPECT_EQ(wheel_.nextExpiry(), 101);
    EXPECT_EQ(wheel_.runPass(), 0u);
}

TEST_F(BrixTimerWheel, InfinityDisarms) {
    auto t = make("t");
    t->expiryIs(140);
    t->expiryIs(kInfinity);
    EXPECT_FALSE(t->armed());
    EXPECT_EQ(wheel_.nextExpiry(), kInfinity);
    EXPECT_EQ(wheel_.runFor(100), 0u);
}

// Many timers re-armed earlier, later and to equal times while they wait: they fire as a
// model says, by expiry, then by their last arming (a re-armed timer goes behind those armed
// since at the same expiry).
TEST_F(BrixTimerWheel, RearmedTimersKeepTheOrderOfALargeHeap) {
    for (const uint32_t seed : {1u, 7u, 1234u}) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        constexpr int kTimers = 200;
        std::vector<std::unique_ptr<Brix::Timer>> timers;
        // name -> (expiry, arming number) of the timer's last arming
        std::map<std::string, std::pair<int, int>> model;
        int armings = 0;
        const int base = int(Vorn::currentTime()) + 1;
        // Built by appending: g++ 12 at -O3 warns falsely on a literal plus a temporary string.
        auto nameOf = [](int i) { return std::string("t").append(std::to_string(i)); };
        auto arm = [&](int i) {
            const int expiry = base + int(rng() % 20);
            timers[size_t(i)]->expiryIs(expiry);
            model[nameOf(i)] = {expiry, armings++};
        };
        for (int i = 0; i < kTimers; ++i) {
            timers.push_back(make(nameOf(i)));
            arm(i);
        }
        for (int n = 0; n < 3 * kTimers; ++n)
            arm(int(rng() % kTimers));
        std::vector<std::pair<std::pair<int, int>, std::string>> order;
        for (const auto& [name, key] : model)
            order.push_back({key, name + "@" + std::to_string(key.first)});
        std::sort(order.begin(), order.end());
        std::vector<std::string> expected;
        for (const auto& entry : order)
            expected.push_back(entry.second);
        wheel_.runUntil(base + 20);
        EXPECT_EQ(takeLog(), expected);
        EXPECT_EQ(wheel_.armedCount(), 0u);
    }
}

TEST_F(BrixTimerWheel, ArmedDuringAPassWaitsForTheNextPass) {
    auto late = make("late");
    int selfFires = 0;
    Brix::Timer self(wheel_, [&] {
        note("self");
        // Already due, but armed during the pass: next pass.
        late->expiryIs(Vorn::currentTime() - 10);
        if (++selfFires < 3)
            self.expiryIs(Vorn::currentTime());
    });
    self.expiryIs(100);
    EXPECT_EQ(wheel_.runPass(), 1u);
    EXPECT_EQ(takeLog(), std::vector<std::string>{"self@100"});
    EXPECT_EQ(wheel_.nextExpiry(), 90);
    EXPECT_EQ(wheel_.runPass(), 2u);
    EXPECT_EQ(takeLog(), (std::vector<std::string>{"late@100", "self@100"}));
    // Two more passes: late and self, then the late armed by self's last run.
    EXPECT_EQ(wheel_.runUntilIdle(), 3u);
    EXPECT_EQ(takeLog(), (std::vector<std::string>{"late@100", "self@100", "late@100"}));
    EXPECT_EQ(selfFires, 3);
    EXPECT_EQ(wheel_.nextExpiry(), kInfinity);
}

TEST_F(BrixTimerWheel, CallbacksMayDestroyOrCancelTimersOfThePass) {
    std::unique_ptr<Brix::Timer> victim = make("victim");
    std::unique_ptr<Brix::Timer> cancelled = make("cancelled");
    std::unique_ptr<Brix::Timer> moved = make("moved");
    std::unique_ptr<Brix::Timer> self;
    self = std::make_unique<Brix::Timer>(wheel_, [&] {
        note("self");
        self.reset();  // destroys the std::function running now
        victim.reset();
        cancelled->expiryIs(kInfinity);
        moved->expiryIs(150);
    });
    auto after = make("after");
    self->expiryIs(100);
    victim->expiryIs(100);
    cancelled->expiryIs(100);
    moved->expiryIs(100);
    after->expiryIs(100);
    EXPECT_EQ(wheel_.runPass(), 2u);
    EXPECT_EQ(takeLog(), (std::vector<std::string>{"self@100", "after@100"}));
    EXPECT_EQ(wheel_.armedCount(), 1u);
    EXPECT_EQ(wheel_.runFor(100), 1u);
    EXPECT_EQ(takeLog(), std::vector<std::string>{"moved@150"});
}

TEST_F(BrixTimerWheel, CallbackMayReplaceItsOwnCallback) {
    Brix::Timer t(wheel_, {});
    int first = 0;
    int second = 0;
    t.callbackIs([&] {
        ++first;
        t.callbackIs([&] { ++second; });
        t.expiryIs(101);
    });
    t.expiryIs(100);
    wheel_.runFor(5);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
}

TEST_F(BrixTimerWheel, ThrowingCallbackLeavesTheRestForTheNextPass) {
    auto before = make("before");
    Brix::Timer thrower(wheel_, [] { throw std::runtime_error("boom"); });
    auto rest = make("rest");
    before->expiryIs(100);
    thrower.expiryIs(100);
    rest->expiryIs(100);
    EXPECT_THROW(wheel_.runPass(), std::runtime_error);
    EXPECT_EQ(takeLog(), std::vector<std::string>{"before@100"});
    EXPECT_FALSE(thrower.armed());
    EXPECT_TRUE(rest->armed());
    EXPECT_EQ(wheel_.runPass(), 1u);
    EXPECT_EQ(takeLog(), std::vector<std::string>{"rest@100"});
    // The callback survived its throw.
    thrower.expiryIs(100);
    EXPECT_THROW(wheel_.runPass(), std::runtime_error);
}

TEST_F(BrixTimerWheel, VirtualTimeMovesToEachExpiry) {
    auto a = make("a");
    auto b = make("b");
    Brix::Timer chain(wheel_, [&] {
        note("chain");
        b->expiryIs(Vorn::currentTime() + 5);
    });
    EXPECT_EQ(wheel_.advanceToNextExpiry(), 0u);
    EXPECT_EQ(Vorn::currentTime(), 100);

    a->expiryIs(130);
    chain.expiryIs(110);
    EXPECT_EQ(wheel_.advanceToNextExpiry(), 1u);
    EXPECT_EQ(Vorn::currentTime(), 110);
    EXPECT_EQ(takeLog(), std::vector<std::string>{"chain@110"});

    chain.expiryIs(120);
    EXPECT_EQ(wheel_.runUntil(128), 3u);
    EXPECT_EQ(Vorn::currentTime(), 128);
    EXPECT_EQ(takeLog(), (std::vector<std::string>{"b@115", "chain@120", "b@125"}));
    EXPECT_EQ(wheel_.runFor(2), 1u);
    EXPECT_EQ(takeLog(), std::vector<std::string>{"a@130"});
    EXPECT_EQ(Vorn::currentTime(), 130);
}

TEST_F(BrixTimerWheel, BadTimesAreRefused) {
    auto t = make("t");
    EXPECT_THROW(t->expiryIs(std::nan("")), std::invalid_argument);
    EXPECT_FALSE(t->armed());
    EXPECT_THROW(wheel_.runUntil(99), std::invalid_argument);
    EXPECT_THROW(wheel_.runUntil(kInfinity), std::invalid_argument);
    EXPECT_THROW(wheel_.runFor(-1), std::invalid_argument);
    EXPECT_EQ(Vorn::currentTime(), 100);
}

TEST(BrixTimerWheelClock, MovingTimeNeedsAVirtualClock) {
    Brix::TimerWheel wheel;
    EXPECT_THROW(wheel.runFor(1), std::logic_error);
    EXPECT_THROW(wheel.advanceToNextExpiry(), std::logic_error);
}

TEST(BrixTimerWheelDeathTest, MisuseStopsTheProcess) {
    EXPECT_DEATH(
        {
            auto* wheel = new Brix::TimerWheel;
            new Brix::Timer(*wheel, {});
            delete wheel;
        },
        "outlives its TimerWheel");
    EXPECT_DEATH(
        {
            Vorn::ScopedVirtualClock clock(0);
            Brix::TimerWheel wheel;
            Brix::Timer t(wheel, [&] { wheel.runPass(); });
            t.expiryIs(0);
            wheel.runPass();
        },
        "from a timer callback");
}

}  // namespace
