#include "platform/brix/TimerWheel.h"

#include <cmath>
#include <stdexcept>
#include <string>

#include "platform/vorn/Assert.h"

namespace Brix {

Timer::Timer(Callback callback) : Timer(timerWheel(), std::move(callback)) {}

Timer::Timer(TimerWheel& wheel, Callback callback)
    : wheel_(&wheel), callback_(std::move(callback)) {
    ++wheel_->timerCount_;
}

Timer::~Timer() {
    if (wheel_->firing_ == this)
        wheel_->firing_ = nullptr;
    wheel_->disarm(*this);
    --wheel_->timerCount_;
}

void Timer::expiryIs(Vorn::Seconds t) {
    if (std::isnan(t))
        throw std::invalid_argument("Brix::Timer::expiryIs: expiry is NaN");
    if (t == Vorn::kInfinity) {
        wheel_->disarm(*this);
    } else {
        wheel_->arm(*this, t);
    }
}

TimerWheel::~TimerWheel() {
    VORN_ASSERT_MSG(timerCount_ == 0, "a Brix::Timer outlives its TimerWheel");
}

bool TimerWheel::before(const Timer* a, const Timer* b) {
    if (a->expiry_ != b->expiry_)
        return a->expiry_ < b->expiry_;
    return a->seq_ < b->seq_;
}

Vorn::Seconds TimerWheel::nextExpiry() const {
    Vorn::Seconds next = heap_.empty() ? Vorn::kInfinity : heap_.front()->expiry_;
    // Inside a pass, the timers still to fire in it are due too (the pass is in order).
    if (passArmed_ > 0) {
        for (size_t i = passPos_; i < pass_.size(); ++i) {
            if (pass_[i])
                return std::min(next, pass_[i]->expiry_);
        }
    }
    return next;
}

void TimerWheel::arm(Timer& t, Vorn::Seconds expiry) {
    // A timer waiting in the heap moves to its new place from where it stands: machines
    // re-arm their review timer on every change they see, and one sift costs less than a
    // removal and a push.
    if (t.heapIndex_ != Timer::kNowhere) {
        t.expiry_ = expiry;
        t.seq_ = nextSeq_++;
        siftDown(t.heapIndex_);
        siftUp(t.heapIndex_);
        return;
    }
    disarm(t);
    t.expiry_ = expiry;
    t.seq_ = nextSeq_++;
    pushHeap(&t);
}

void TimerWheel::disarm(Timer& t) {
    if (t.heapIndex_ != Timer::kNowhere)
        removeFromHeap(t.heapIndex_);
    if (t.passIndex_ != Timer::kNowhere) {
        VORN_ASSERT(pass_[t.passIndex_] == &t);
        pass_[t.passIndex_] = nullptr;
        t.passIndex_ = Timer::kNowhere;
        --passArmed_;
    }
    t.expiry_ = Vorn::kInfinity;
}

void TimerWheel::place(size_t i, Timer* t) {
    heap_[i] = t;
    t->heapIndex_ = i;
}

void TimerWheel::pushHeap(Timer* t) {
    heap_.push_back(t);
    t->heapIndex_ = heap_.size() - 1;
    siftUp(heap_.size() - 1);
}

void TimerWheel::removeFromHeap(size_t i) {
    VORN_ASSERT(i < heap_.size());
    heap_[i]->heapIndex_ = Timer::kNowhere;
    Timer* last = heap_.back();
    heap_.pop_back();
    if (i == heap_.size())
        return;
    place(i, last);
    siftDown(i);
    siftUp(i);
}

void TimerWheel::siftUp(size_t i) {
    Timer* t = heap_[i];
    while (i > 0) {
        size_t parent = (i - 1) / 2;
        if (!before(t, heap_[parent]))
            break;
        place(i, heap_[parent]);
        i = parent;
    }
    place(i, t);
}

void TimerWheel::siftDown(size_t i) {
    Timer* t = heap_[i];
    const size_t n = heap_.size();
    for (;;) {
        size_t child = 2 * i + 1;
        if (child >= n)
            break;
        if (child + 1 < n && before(heap_[child + 1], heap_[child]))
            ++child;
        if (!before(heap_[child], t))
            break;
        place(i, heap_[child]);
        i = child;
    }
    place(i, t);
}

void TimerWheel::fire(Timer& t) {
    // The callback may destroy its timer, and with it the std::function being called: run a
    // moved-out copy and give it back only when the timer is still there and got no new one.
    Timer::Callback callback = std::move(t.callback_);
    t.callback_ = nullptr;
    firing_ = &t;
    struct Restore {
        TimerWheel& wheel;
        Timer::Callback& callback;
        ~Restore() {
            if (!wheel.firing_)
                return;
            if (!wheel.firing_->callback_)
                wheel.firing_->callback_ = std::move(callback);
            wheel.firing_ = nullptr;
        }
    } restore{*this, callback};
    if (callback)
        callback();
}

size_t TimerWheel::runPass() {
    VORN_ASSERT_MSG(!inPass_, "Brix::TimerWheel pass started from a timer callback");
    const Vorn::Seconds now = Vorn::currentTime();
    // Take the due timers out, in firing order: anything armed from now on goes to the heap
    // and waits for a later pass.
    pass_.clear();
    while (!heap_.empty() && heap_.front()->expiry_ <= now) {
        Timer* t = heap_.front();
        removeFromHeap(0);
        t->passIndex_ = pass_.size();
        pass_.push_back(t);
    }
    passArmed_ = pass_.size();
    inPass_ = true;
    size_t fired = 0;
    for (passPos_ = 0; passPos_ < pass_.size(); ++passPos_) {
        Timer* t = pass_[passPos_];
        if (!t)
            continue;
        pass_[passPos_] = nullptr;
        t->passIndex_ = Timer::kNowhere;
        t->expiry_ = Vorn::kInfinity;
        --passArmed_;
        ++fired;
        try {
            fire(*t);
        } catch (...) {
            abandonPass();
            throw;
        }
    }
    VORN_ASSERT(passArmed_ == 0);
    pass_.clear();
    passPos_ = 0;
    inPass_ = false;
    return fired;
}

void TimerWheel::abandonPass() {
    for (size_t i = passPos_ + 1; i < pass_.size(); ++i) {
        Timer* t = pass_[i];
        if (!t)
            continue;
        t->passIndex_ = Timer::kNowhere;
        pushHeap(t);  // same expiry and sequence number: same place in the order
    }
    pass_.clear();
    passPos_ = 0;
    passArmed_ = 0;
    inPass_ = false;
}

size_t TimerWheel::runUntilIdle() {
    size_t fired = 0;
    while (nextExpiry() <= Vorn::currentTime())
        fired += runPass();
    return fired;
}

Vorn::VirtualClock& TimerWheel::virtualClock() {
    auto* clock = dynamic_cast<Vorn::VirtualClock*>(&Vorn::clock());
    if (!clock) {
        throw std::logic_error(
            "Brix::TimerWheel: moving time needs a Vorn::VirtualClock installed "
            "(Vorn::ScopedVirtualClock)");
    }
    return *clock;
}

size_t TimerWheel::advanceToNextExpiry() {
    Vorn::VirtualClock& clock = virtualClock();
    const Vorn::Seconds next = nextExpiry();
    if (next == Vorn::kInfinity)
        return 0;
    if (next > clock.now())
        clock.nowIs(next);
    return runUntilIdle();
}

size_t TimerWheel::runUntil(Vorn::Seconds t) {
    Vorn::VirtualClock& clock = virtualClock();
    if (!std::isfinite(t)) {
        throw std::invalid_argument("Brix::TimerWheel::runUntil: time " + std::to_string(t) +
                                    " is not finite");
    }
    if (t < clock.now()) {
        throw std::invalid_argument("Brix::TimerWheel::runUntil: time " + std::to_string(t) +
                                    " is before now (" + std::to_string(clock.now()) + ")");
    }
    size_t fired = runUntilIdle();
    for (Vorn::Seconds next = nextExpiry(); next <= t; next = nextExpiry()) {
        clock.nowIs(next);
        fired += runUntilIdle();
    }
    clock.nowIs(t);
    return fired;
}

size_t TimerWheel::runFor(Vorn::Seconds dt) {
    if (!(dt >= 0)) {
        throw std::invalid_argument("Brix::TimerWheel::runFor: duration " + std::to_string(dt) +
                                    " is negative or NaN");
    }
    return runUntil(virtualClock().now() + dt);
}

TimerWheel& timerWheel() {
    static TimerWheel* wheel = new TimerWheel;
    return *wheel;
}

}  // namespace Brix
