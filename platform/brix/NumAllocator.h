#pragma once
// Number allocation in three parts, so that what is configured, what is in use and the object
// that hands numbers out can each be kept where they belong (an owner entity publishes the
// first two):
//  - Brix::NumAllocatorConfig: the range [first, last] numbers come from, and an expiry. The
//    range may be changed while an allocator uses it.
//  - Brix::NumAllocatorStatus: the numbers in use, and the released numbers still held back.
//  - Brix::NumAllocator: built from a config and a status; hands out the lowest free number
//    (getNumber), takes a given one (reserveNumber) and takes numbers back (releaseNumber).
//    It is the status's only writer.
//
// Expiry: a released number may be held back for `expiry` seconds (on Vorn::currentTime())
// before it is handed out again, so that a peer still using its old meaning has time to let
// go; it is free again once currentTime() >= release time + expiry. Expiry 0 means at once.
//
// A range change keeps every number in use: one that falls outside the new range stays in use
// until released and is then simply dropped; numbers of the new range that are not in use are
// free.
//
// The free numbers are kept as a set of disjoint ranges, so any range size costs memory in
// proportion to its fragmentation only; get, reserve and release are O(log ranges) plus the
// status's ordered insert.

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <ostream>

#include "platform/vorn/Clock.h"
#include "platform/vorn/Entity.h"

namespace Brix {

// Numbers first..last, both included. first > last is refused with the range error
// "Range::first > Range::last not allowed".
class Range {
  public:
    Range(uint32_t first, uint32_t last);
    uint32_t first() const { return first_; }
    uint32_t last() const { return last_; }
    // How many numbers the range holds.
    uint64_t size() const { return uint64_t{last_} - first_ + 1; }
    bool contains(uint32_t n) const { return n >= first_ && n <= last_; }
    bool operator==(const Range&) const = default;

  private:
    uint32_t first_;
    uint32_t last_;
};

std::ostream& operator<<(std::ostream& os, const Range& r);  // "[first, last]"

class NumAllocatorConfig : public Vorn::Entity {
    VORN_ENTITY("Brix::NumAllocatorConfig")
  public:
    // A negative or NaN expiry is refused with the range error
    // "NumAllocatorConfig::expiry < 0 not allowed".
    explicit NumAllocatorConfig(Range range, Vorn::Seconds expiry = 0);

    VORN_ATTR(Range, range, Range(0, 0))
    const Vorn::Seconds& expiry() const { return expiry_; }

  private:
    const Vorn::Seconds expiry_;
};

class NumAllocatorStatus : public Vorn::Entity {
    VORN_ENTITY("Brix::NumAllocatorStatus")
  public:
    // The numbers in use.
    VORN_ORDERED_SET(uint32_t, allocated)
    // Released numbers still held back, with the time each becomes free again.
    VORN_ORDERED_MAP(uint32_t, Vorn::Seconds, heldBack)
};

class NumAllocator {
  public:
    // Both are required (Vorn::NullPointerException); the status is taken over as it stands.
    NumAllocator(const Vorn::Ptr<NumAllocatorConfig>& config,
                 const Vorn::Ptr<NumAllocatorStatus>& status);
    NumAllocator(const NumAllocator&) = delete;
    NumAllocator& operator=(const NumAllocator&) = delete;

    const Vorn::Ptr<NumAllocatorConfig>& config() const { return config_; }
    const Vorn::Ptr<NumAllocatorStatus>& status() const { return status_; }

    // Takes the lowest free number; std::nullopt when none is free (all in use, or the rest
    // still held back).
    std::optional<uint32_t> getNumber();
    // Takes `n`; false when it is out of range, in use or still held back.
    bool reserveNumber(uint32_t n);
    // Gives `n` back. Throws std::invalid_argument when `n` is not in use.
    void releaseNumber(uint32_t n);

    bool isAllocated(uint32_t n) const { return status_->allocated(n); }
    // Released but not yet free again.
    bool isHeldBack(uint32_t n) const;
    uint64_t allocatedCount() const { return status_->allocateds(); }
    // Free now (in range, neither in use nor held back).
    uint64_t freeCount();

  private:
    // Recomputes the free ranges from the range and the status.
    void rebuild();
    // Frees the held-back numbers whose time has come.
    void reclaim();
    bool isFreeNow(uint32_t n) const;
    void takeFree(uint32_t n);
    void addFree(uint32_t n);

    const Vorn::Ptr<NumAllocatorConfig> config_;
    const Vorn::Ptr<NumAllocatorStatus> status_;
    std::map<uint32_t, uint32_t> free_;  // first -> last, disjoint, not adjacent
    uint64_t freeCount_ = 0;
    // The status's held-back numbers in the order they become free.
    std::deque<std::pair<Vorn::Seconds, uint32_t>> heldBackQueue_;
    Vorn::Subscription rangeSub_;
};

}  // namespace Brix
