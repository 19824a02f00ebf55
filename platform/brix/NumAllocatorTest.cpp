#include "platform/brix/NumAllocator.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/vorn/Clock.h"
#include "platform/vorn/Exception.h"

namespace {

using Brix::Range;

// An allocator over a fresh config and status, as an owner entity would hold them.
struct Alloc {
    explicit Alloc(Range range, Vorn::Seconds expiry = 0)
        : config(Vorn::make<Brix::NumAllocatorConfig>(range, expiry)),
          status(Vorn::make<Brix::NumAllocatorStatus>()),
          numbers(config, status) {}
    std::optional<uint32_t> get() { return numbers.getNumber(); }
    bool reserve(uint32_t n) { return numbers.reserveNumber(n); }
    void release(uint32_t n) { numbers.releaseNumber(n); }
    bool isAllocated(uint32_t n) const { return numbers.isAllocated(n); }
    bool isHeldBack(uint32_t n) const { return numbers.isHeldBack(n); }
    uint64_t allocatedCount() const { return numbers.allocatedCount(); }
    uint64_t freeCount() { return numbers.freeCount(); }

    Vorn::Ptr<Brix::NumAllocatorConfig> config;
    Vorn::Ptr<Brix::NumAllocatorStatus> status;
    Brix::NumAllocator numbers;
};

TEST(BrixNumAllocator, ConfigRefusesBadValues) {
    EXPECT_THROW(Range(5, 4), Vorn::RangeException);
    EXPECT_THROW(Brix::NumAllocatorConfig(Range(1, 4), -1), Vorn::RangeException);
    EXPECT_THROW(Brix::NumAllocatorConfig(Range(1, 4), std::nan("")), Vorn::RangeException);
    EXPECT_EQ(Range(0, UINT32_MAX).size(), uint64_t{1} << 32);
    EXPECT_EQ(Range(7, 7).size(), 1u);
    EXPECT_THROW(Brix::NumAllocator(nullptr, Vorn::make<Brix::NumAllocatorStatus>()),
                 Vorn::NullPointerException);
}

// Inside the range, reserving agrees with the model below.
TEST(BrixNumAllocator, ReserveRefusesNumbersOutsideTheRange) {
    Alloc a(Range(1, 6));
    for (uint32_t n : {0u, 7u}) {
        SCOPED_TRACE(n);
        EXPECT_FALSE(a.reserve(n));
        EXPECT_FALSE(a.isAllocated(n));
    }
    EXPECT_EQ(a.allocatedCount(), 0u);
    EXPECT_EQ(a.get(), 1u);
}

TEST(BrixNumAllocator, ReleasingWhatIsNotAllocatedThrows) {
    Vorn::ScopedVirtualClock clock(0);
    Alloc a(Range(1, 4), 5);
    ASSERT_EQ(a.get(), 1u);
    a.release(1);  // now held back
    struct Case {
        const char* what;
        uint32_t n;
        const char* fragment;
    };
    for (Case c : {Case{"never allocated", 2, "2 is not allocated"},
                   Case{"released, held back", 1, "1 is not allocated"},
                   Case{"out of range", 9, "9 is not allocated"}}) {
        SCOPED_TRACE(c.what);
        try {
            a.release(c.n);
            ADD_FAILURE() << "no error";
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find(c.fragment), std::string::npos) << e.what();
        }
    }
    EXPECT_EQ(a.allocatedCount(), 0u);
}

TEST(BrixNumAllocator, ReleasedNumberWaitsForItsExpiry) {
    Vorn::ScopedVirtualClock clock(100);
    Alloc a(Range(1, 3), 10);
    ASSERT_EQ(a.get(), 1u);
    ASSERT_EQ(a.get(), 2u);
    a.release(1);
    clock->advance(4);
    a.release(2);
    EXPECT_TRUE(a.isHeldBack(1));
    EXPECT_FALSE(a.isAllocated(1));
    EXPECT_EQ(a.get(), 3u);
    EXPECT_EQ(a.get(), std::nullopt);

    clock->nowIs(109.999);
    EXPECT_FALSE(a.reserve(1));
    EXPECT_EQ(a.get(), std::nullopt);
    clock->nowIs(110);  // exactly release time + expiry
    EXPECT_FALSE(a.isHeldBack(1));
    EXPECT_TRUE(a.isHeldBack(2));
    EXPECT_EQ(a.freeCount(), 1u);
    EXPECT_EQ(a.get(), 1u);
    EXPECT_EQ(a.get(), std::nullopt);
    clock->nowIs(114);
    EXPECT_TRUE(a.reserve(2));
    EXPECT_EQ(a.allocatedCount(), 3u);
}

// The first call after an expiry is a get: it must reclaim before it looks for a number.
TEST(BrixNumAllocator, GetRightAfterAnExpiryHandsOutTheReclaimedNumber) {
    Vorn::ScopedVirtualClock clock(0);
    Alloc a(Range(1, 2), 5);
    ASSERT_EQ(a.get(), 1u);
    ASSERT_EQ(a.get(), 2u);
    a.release(1);
    clock->advance(5);
    EXPECT_EQ(a.get(), 1u);
    EXPECT_EQ(a.status->heldBacks(), 0u);
}

TEST(BrixNumAllocator, RangeChangesKeepTheNumbersInUse) {
    Alloc a(Range(0, 3));
    ASSERT_EQ(a.get(), 0u);
    ASSERT_EQ(a.get(), 1u);
    ASSERT_EQ(a.get(), 2u);
    a.config->rangeIs(Range(0, 1));  // 2 is now outside, still in use
    EXPECT_TRUE(a.isAllocated(2));
    EXPECT_EQ(a.freeCount(), 0u);
    EXPECT_EQ(a.get(), std::nullopt);
    EXPECT_FALSE(a.reserve(3));
    a.release(2);  // in use, so it can be given back; it is not free in the small range
    EXPECT_EQ(a.freeCount(), 0u);
    a.config->rangeIs(Range(0, 5));
    EXPECT_EQ(a.freeCount(), 4u);
    EXPECT_EQ(a.get(), 2u);
    EXPECT_TRUE(a.reserve(5));
    EXPECT_EQ(a.get(), 3u);
    EXPECT_EQ(a.get(), 4u);
    EXPECT_EQ(a.get(), std::nullopt);
    EXPECT_EQ((std::vector<uint32_t>(a.status->allocated().begin(), a.status->allocated().end())),
              (std::vector<uint32_t>{0, 1, 2, 3, 4, 5}));
}

// The status is the allocator's state: a new allocator over it continues where the old one
// stopped, held-back numbers included.
TEST(BrixNumAllocator, ANewAllocatorTakesOverTheStatus) {
    Vorn::ScopedVirtualClock clock(0);
    Alloc a(Range(10, 13), 3);
    ASSERT_EQ(a.get(), 10u);
    ASSERT_EQ(a.get(), 11u);
    a.release(10);
    Brix::NumAllocator b(a.config, a.status);
    EXPECT_TRUE(b.isAllocated(11));
    EXPECT_TRUE(b.isHeldBack(10));
    EXPECT_EQ(b.getNumber(), 12u);
    clock->advance(3);
    EXPECT_EQ(b.getNumber(), 10u);
    EXPECT_EQ(b.getNumber(), 13u);
    EXPECT_EQ(b.getNumber(), std::nullopt);
}

// Random operations against a plain set, at both ends of the number space (where n + 1 and
// n - 1 overflow).
TEST(BrixNumAllocator, AgreesWithASimpleModel) {
    struct Span {
        uint32_t min;
        uint32_t max;
    };
    for (Span r : {Span{0, 40}, Span{UINT32_MAX - 40, UINT32_MAX}, Span{1000, 1300}}) {
        SCOPED_TRACE(std::to_string(r.min) + ".." + std::to_string(r.max));
        Alloc a(Range(r.min, r.max));
        std::set<uint32_t> taken;
        std::mt19937 rng(42);
        const uint64_t size = uint64_t{r.max} - r.min + 1;
        for (int step = 0; step < 20000; ++step) {
            const uint32_t n = r.min + static_cast<uint32_t>(rng() % size);
            switch (rng() % 3) {
                case 0: {
                    std::optional<uint32_t> want;
                    for (uint64_t m = r.min; m <= r.max; ++m) {
                        if (!taken.contains(static_cast<uint32_t>(m))) {
                            want = static_cast<uint32_t>(m);
                            break;
                        }
                    }
                    ASSERT_EQ(a.get(), want) << "step " << step;
                    if (want)
                        taken.insert(*want);
                    break;
                }
                case 1:
                    ASSERT_EQ(a.reserve(n), !taken.contains(n)) << "step " << step;
                    taken.insert(n);
                    break;
                default:
                    if (taken.erase(n)) {
                        a.release(n);
                    } else {
                        ASSERT_THROW(a.release(n), std::invalid_argument) << "step " << step;
                    }
                    break;
            }
            ASSERT_EQ(a.isAllocated(n), taken.contains(n)) << "step " << step;
            ASSERT_EQ(a.allocatedCount(), taken.size()) << "step " << step;
            ASSERT_EQ(a.freeCount(), size - taken.size()) << "step " << step;
        }
    }
}

}  // namespace
