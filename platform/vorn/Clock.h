#pragma once
// The framework clock. Production reads the real clock; tests and the simulator install a
// VirtualClock and move time themselves, so nothing ever sleeps and every run is repeatable.

#include <limits>

namespace Vorn {

using Seconds = double;
constexpr Seconds kInfinity = std::numeric_limits<double>::infinity();

class Clock {
  public:
    virtual ~Clock() = default;
    virtual Seconds now() const = 0;
};

// Seconds since the epoch, from the system clock.
class RealClock final : public Clock {
  public:
    Seconds now() const override;
};

// Time that moves only when told to; it never goes backwards.
class VirtualClock final : public Clock {
  public:
    explicit VirtualClock(Seconds start = 0.0) : now_(start) {}
    Seconds now() const override { return now_; }
    void nowIs(Seconds t);  // REQUIRES: t >= now()
    void advance(Seconds dt) { nowIs(now_ + dt); }

  private:
    Seconds now_;
};

// The clock currentTime() reads; a RealClock until another is installed.
Clock& clock();
void clockIs(Clock* c);  // nullptr restores the real clock
Seconds currentTime();

// Installs a virtual clock for the lifetime of the object (tests, simulator).
class ScopedVirtualClock {
  public:
    explicit ScopedVirtualClock(Seconds start = 0.0) : clock_(start) { clockIs(&clock_); }
    ~ScopedVirtualClock() { clockIs(nullptr); }
    ScopedVirtualClock(const ScopedVirtualClock&) = delete;
    ScopedVirtualClock& operator=(const ScopedVirtualClock&) = delete;
    VirtualClock& operator*() { return clock_; }
    VirtualClock* operator->() { return &clock_; }

  private:
    VirtualClock clock_;
};

}  // namespace Vorn
