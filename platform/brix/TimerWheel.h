#pragma once
// Brix::TimerWheel: one-shot timers with absolute expiries on Vorn::currentTime(), and the
// loop that fires them.
//
// A Brix::Timer belongs to its user (usually a member of a state machine): destroying it
// cancels it. expiryIs(t) arms it for time t; Vorn::kInfinity disarms it; arming again
// replaces the previous expiry.
//
// Order: timers due together fire by expiry, then by arming order (each arming takes the next
// sequence number), so a run never depends on addresses.
//
// Passes: a pass fires, once each, the timers that are due when it starts. A timer armed
// during a pass waits for a later pass even when its expiry is already past, so a callback
// that re-arms itself for "now" cannot keep a pass going forever. Callbacks may arm, cancel or
// destroy any timer of the wheel, their own included.
//
// Time: runPass()/runUntilIdle() read the installed clock and never move it. The virtual-time
// calls (advanceToNextExpiry, runUntil, runFor) move the installed clock, which must then be a
// Vorn::VirtualClock (Vorn::ScopedVirtualClock); otherwise they throw std::logic_error.
// runUntilIdle() returns once nothing is due; a callback that keeps re-arming itself for a
// time <= now keeps it from ever returning.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "platform/vorn/Clock.h"

namespace Brix {

class TimerWheel;

class Timer {
  public:
    using Callback = std::function<void()>;

    // On the process-wide wheel, timerWheel().
    explicit Timer(Callback callback = {});
    Timer(TimerWheel& wheel, Callback callback);
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    void callbackIs(Callback callback) { callback_ = std::move(callback); }
    // Arms the timer for time `t` (kInfinity disarms). Throws std::invalid_argument for NaN.
    void expiryIs(Vorn::Seconds t);
    // The armed expiry, kInfinity when disarmed (also once it has fired).
    Vorn::Seconds expiry() const { return expiry_; }
    bool armed() const { return expiry_ != Vorn::kInfinity; }
    TimerWheel& wheel() const { return *wheel_; }

  private:
    friend class TimerWheel;
    static constexpr size_t kNowhere = SIZE_MAX;

    TimerWheel* wheel_;
    Callback callback_;
    Vorn::Seconds expiry_ = Vorn::kInfinity;
    uint64_t seq_ = 0;
    size_t heapIndex_ = kNowhere;  // position in the wheel's heap
    size_t passIndex_ = kNowhere;  // position in the running pass
};

class TimerWheel {
  public:
    TimerWheel() = default;
    // REQUIRES: every timer of this wheel is gone.
    ~TimerWheel();
    TimerWheel(const TimerWheel&) = delete;
    TimerWheel& operator=(const TimerWheel&) = delete;

    // The earliest armed expiry, kInfinity when nothing is armed.
    Vorn::Seconds nextExpiry() const;
    size_t armedCount() const { return heap_.size() + passArmed_; }

    // Fires the timers due when the pass starts; returns how many fired. Not from a callback.
    size_t runPass();
    // Runs passes until nothing is due now; returns how many fired.
    size_t runUntilIdle();

    // Virtual time. Moves the clock to the next expiry (when it is later than now) and runs
    // until idle; does nothing when no timer is armed. Returns how many fired.
    size_t advanceToNextExpiry();
    // Fires everything due up to `t` in expiry order, moving the clock to each expiry in turn,
    // and leaves the clock at `t`. Throws std::invalid_argument when `t` is not finite or is
    // before now.
    size_t runUntil(Vorn::Seconds t);
    size_t runFor(Vorn::Seconds dt);

  private:
    friend class Timer;

    static bool before(const Timer* a, const Timer* b);
    static Vorn::VirtualClock& virtualClock();
    void arm(Timer& t, Vorn::Seconds expiry);
    void disarm(Timer& t);
    void fire(Timer& t);
    void pushHeap(Timer* t);
    void removeFromHeap(size_t i);
    void siftUp(size_t i);
    void siftDown(size_t i);
    void place(size_t i, Timer* t);
    // After a callback threw: the rest of the pass goes back to the heap.
    void abandonPass();

    std::vector<Timer*> heap_;  // min-heap on (expiry, seq)
    std::vector<Timer*> pass_;  // the running pass; a cancelled entry is null
    size_t passPos_ = 0;
    size_t passArmed_ = 0;  // non-null entries of pass_ after passPos_
    bool inPass_ = false;
    Timer* firing_ = nullptr;  // the timer whose callback runs; null once it is destroyed
    uint64_t nextSeq_ = 0;
    size_t timerCount_ = 0;
};

// The process-wide wheel (never destroyed, so timers with static storage may use it).
TimerWheel& timerWheel();

}  // namespace Brix
