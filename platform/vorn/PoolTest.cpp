// The pool hands each block to one holder at a time, keeps size classes apart, bounds what it
// keeps, and gets back entities at their dynamic size.

#include "platform/vorn/Pool.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <vector>

#include "platform/vorn/Entity.h"

namespace {

std::vector<void*> allocateFilled(size_t bytes, size_t n) {
    std::vector<void*> blocks;
    for (size_t i = 0; i < n; ++i) {
        blocks.push_back(Vorn::Pool::allocate(bytes));
        std::memset(blocks.back(), int(i), bytes);
    }
    return blocks;
}

void releaseAll(const std::vector<void*>& blocks, size_t bytes) {
    for (void* b : blocks)
        Vorn::Pool::release(b, bytes);
}

// A burst released and asked for again: every block goes back out once, and (where the pool
// runs) the second burst is served from the first one's blocks.
TEST(VornPool, ABlockGoesBackOutToOneHolderOnly) {
    for (size_t bytes : {size_t(1), size_t(16), size_t(17), size_t(100), Vorn::Pool::kMaxBytes}) {
        SCOPED_TRACE(bytes);
        const std::vector<void*> first = allocateFilled(bytes, 20);
        const size_t kept = Vorn::Pool::keptBlocks(bytes);
        releaseAll(first, bytes);
        if (Vorn::Pool::pooling()) {
            EXPECT_EQ(Vorn::Pool::keptBlocks(bytes), kept + first.size());
        }
        const std::vector<void*> second = allocateFilled(bytes, 20);
        EXPECT_EQ(std::set<void*>(second.begin(), second.end()).size(), second.size());
        if (Vorn::Pool::pooling()) {
            const std::set<void*> freed(first.begin(), first.end());
            for (void* b : second)
                EXPECT_TRUE(freed.contains(b));
            EXPECT_EQ(Vorn::Pool::keptBlocks(bytes), kept);
        }
        releaseAll(second, bytes);
    }
}

// Blocks released in one size class are never handed out for a request of another.
TEST(VornPool, SizeClassesStayApart) {
    using Vorn::Pool::blockBytes;
    const size_t first = blockBytes(1);
    const struct {
        const char* name;
        size_t released, asked;
    } cases[] = {
        {"across the first boundary", first, first + 1},
        {"down across a boundary", blockBytes(first + 1) + 1, blockBytes(first + 1)},
        {"below the largest class", Vorn::Pool::kMaxBytes, Vorn::Pool::kMaxBytes - 16},
        {"past the largest class", Vorn::Pool::kMaxBytes, Vorn::Pool::kMaxBytes + 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::vector<void*> released = allocateFilled(c.released, 20);
        releaseAll(released, c.released);
        const std::vector<void*> asked = allocateFilled(c.asked, 20);
        const std::set<void*> freed(released.begin(), released.end());
        // Without the pool the global allocator may reuse them for any size.
        if (Vorn::Pool::pooling()) {
            for (void* b : asked)
                EXPECT_FALSE(freed.contains(b));
        }
        releaseAll(asked, c.asked);
    }
}

// A burst larger than a class's bound leaves only the bound kept: the rest went back.
TEST(VornPool, KeepsABoundedNumberOfBlocksPerClass) {
    if (!Vorn::Pool::pooling())
        GTEST_SKIP() << "every block passes through";
    for (size_t bytes : {size_t(1), size_t(64), Vorn::Pool::kMaxBytes}) {
        SCOPED_TRACE(bytes);
        const size_t block = Vorn::Pool::blockBytes(bytes);
        const size_t bound = (Vorn::Pool::kKeptBytes + block - 1) / block;
        releaseAll(allocateFilled(bytes, 2 * bound), bytes);
        EXPECT_EQ(Vorn::Pool::keptBlocks(bytes), bound);
    }
    EXPECT_LE(Vorn::Pool::keptBytes(),
              (Vorn::Pool::kMaxBytes / Vorn::Pool::kGranule + 1) *
                  (Vorn::Pool::kKeptBytes + Vorn::Pool::kMaxBytes));
}

class Small : public Vorn::Entity {
    VORN_ENTITY("Test::Small")
};
class Large : public Small {
  public:
    char payload[200] = {};
};

// Dropped through its base, an entity's block returns to the class of its own size.
TEST(VornPool, AnEntityGoesBackAtItsDynamicSize) {
    if (!Vorn::Pool::pooling())
        GTEST_SKIP() << "every block passes through";
    // Counted once the entity is made: making it may take a block its class keeps (after other
    // tests of this process have returned some).
    Vorn::Ptr<Small> e = Vorn::make<Large>();
    const size_t largeBefore = Vorn::Pool::keptBlocks(sizeof(Large));
    const size_t smallBefore = Vorn::Pool::keptBlocks(sizeof(Small));
    void* block = e.ptr();
    e = nullptr;
    EXPECT_EQ(Vorn::Pool::keptBlocks(sizeof(Small)), smallBefore);
    ASSERT_EQ(Vorn::Pool::keptBlocks(sizeof(Large)), largeBefore + 1);
    void* again = Vorn::Pool::allocate(sizeof(Large));
    EXPECT_EQ(again, block);
    Vorn::Pool::release(again, sizeof(Large));
}

}  // namespace
