#pragma once
// Brix::NumAllocatorConfig / NumAllocatorStatus: hands out numbers of a range [min, max],
// lowest free first.
//
// A released number may be held back for `expiry` seconds (on Vorn::currentTime()) before it
// is handed out again, so that a peer still using the old meaning of the number has time to
// let go of it: it is free again once currentTime() >= release time + expiry. Expiry 0 means
// at once.
//
// The free numbers are kept as a set of disjoint ranges, so any range size costs memory in
// proportion to its fragmentation only; get, reserve and release are O(log ranges).

#include <cstdint>
#include <deque>
#include <map>
#include <optional>

#include "platform/vorn/Clock.h"

namespace Brix {

class NumAllocatorConfig {
  public:
    // Throws std::invalid_argument when min > max or expiry is negative or NaN.
    NumAllocatorConfig(uint32_t min, uint32_t max, Vorn::Seconds expiry = 0);

    uint32_t min() const { return min_; }
    uint32_t max() const { return max_; }
    Vorn::Seconds expiry() const { return expiry_; }
    // How many numbers the range holds.
    uint64_t size() const { return uint64_t{max_} - min_ + 1; }
    bool contains(uint32_t n) const { return n >= min_ && n <= max_; }
    bool operator==(const NumAllocatorConfig&) const = default;

  private:
    uint32_t min_;
    uint32_t max_;
    Vorn::Seconds expiry_;
};

class NumAllocatorStatus {
  public:
    explicit NumAllocatorStatus(const NumAllocatorConfig& config);

    const NumAllocatorConfig& config() const { return config_; }

    // Takes the lowest free number; std::nullopt when none is free (all allocated, or the
    // rest still held back after release).
    std::optional<uint32_t> get();
    // Takes `n`; false when it is out of range, allocated or still held back.
    bool reserve(uint32_t n);
    // Gives `n` back. Throws std::invalid_argument when `n` is out of range or not allocated.
    void release(uint32_t n);

    bool isAllocated(uint32_t n) const;
    // Released but not yet free again.
    bool isHeldBack(uint32_t n) const;
    uint64_t allocatedCount() const { return allocated_; }
    // Free now (neither allocated nor held back).
    uint64_t freeCount();

  private:
    // Frees the held-back numbers whose time has come.
    void reclaim();
    bool isFreeNow(uint32_t n) const;
    void takeFree(uint32_t n);
    void addFree(uint32_t n);

    NumAllocatorConfig config_;
    std::map<uint32_t, uint32_t> free_;  // first -> last, disjoint, not adjacent
    uint64_t freeCount_;
    uint64_t allocated_ = 0;
    // Held-back numbers with the time they become free, in release order: with a fixed
    // expiry and a clock that only moves forward, the front is always the first due.
    std::deque<std::pair<Vorn::Seconds, uint32_t>> heldBackQueue_;
    std::map<uint32_t, Vorn::Seconds> heldBack_;  // number -> time it becomes free
};

}  // namespace Brix
