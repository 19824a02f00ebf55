#pragma once
// Vorn::Pool: a cache of small blocks in front of the global allocator, for the framework's
// own allocations (entities and machines, signal slots and their storage, the collections'
// nodes, flat sets). A change that fans out frees dozens to hundreds of blocks of a few sizes,
// and the next change asks for the same sizes again: kept here, a block goes back out in a few
// instructions instead of a trip through the allocator's bins.
//
// Requests up to kMaxBytes fall into size classes kGranule bytes apart; a block is allocated
// from the global allocator in its class's size, chosen to fill the allocator's chunk. Each thread keeps a free list per class, of
// at most kKeptBytes per class: the blocks of a burst beyond that go back to the global
// allocator, so memory is not hoarded. A block may be released on any thread (it joins that
// thread's list). Larger requests pass straight through. In a build with AddressSanitizer every
// request passes straight through, so that the sanitizer sees each misuse of a block.
//
// REQUIRES: a block is released with the size it was asked for with (a class-level
// `operator delete(void*, size_t)` under a virtual destructor is told the dynamic size).

#include <cstddef>
#include <new>

namespace Vorn {

namespace Pool {

inline constexpr size_t kGranule = 16;
inline constexpr size_t kMaxBytes = 520;
inline constexpr size_t kKeptBytes = 32 * 1024;

void* allocate(size_t bytes);
void release(void* block, size_t bytes) noexcept;

// False where every request passes through (a sanitizer build).
bool pooling();
// The size of the block a request of `bytes` gets: its class's, or `bytes` when passed through.
size_t blockBytes(size_t bytes);
// The blocks this thread keeps for requests of `bytes`, and their total size over all classes.
size_t keptBlocks(size_t bytes);
size_t keptBytes();

}  // namespace Pool

// The standard allocator interface over the pool, for the framework's containers.
template <class T>
class PoolAllocator {
  public:
    static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
    using value_type = T;

    PoolAllocator() noexcept = default;
    template <class U>
    PoolAllocator(const PoolAllocator<U>&) noexcept {}

    T* allocate(size_t n) { return static_cast<T*>(Pool::allocate(n * sizeof(T))); }
    void deallocate(T* p, size_t n) noexcept { Pool::release(p, n * sizeof(T)); }

    template <class U>
    bool operator==(const PoolAllocator<U>&) const noexcept {
        return true;
    }
};

}  // namespace Vorn
