#include "platform/vorn/Pool.h"

#include <cstdint>
#include <limits>

namespace Vorn::Pool {

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kPooling = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kPooling = false;
#else
constexpr bool kPooling = true;
#endif
#else
constexpr bool kPooling = true;
#endif

// Class c holds blocks of 16c + 8 bytes: the global allocator's chunks are 16-byte multiples
// with an 8-byte header, so a block fills its chunk exactly (asked for 16c bytes, it would
// take a chunk 16 bytes larger).
constexpr size_t kHeader = 8;
constexpr size_t kClasses = (kMaxBytes - kHeader) / kGranule + 1;
static_assert((kMaxBytes - kHeader) % kGranule == 0 && sizeof(void*) <= kHeader);

// Larger requests fall past the last class.
constexpr size_t classOf(size_t bytes) {
    return (bytes + kGranule - 1 - kHeader) / kGranule;
}
constexpr size_t classBytes(size_t c) {
    return c * kGranule + kHeader;
}
// Whether a class's list is full: it keeps fewer than kKeptBytes.
constexpr bool full(uint32_t count, size_t c) {
    return uint64_t(count) * classBytes(c) >= kKeptBytes;
}

struct FreeBlock {
    FreeBlock* next;
};

// Trivial, so that reaching it costs no guard: the hook that gives the blocks back when the
// thread ends is set up by the first release.
struct FreeLists {
    FreeBlock* head[kClasses];
    uint32_t count[kClasses];
    bool exitHooked;
};

// About 400 bytes of thread storage in the initial block, reached without a call on every
// allocation. A process that loads the library with dlopen() takes them from the static TLS
// space the C library reserves for such loads (512 bytes by default in glibc, raised with the
// glibc.rtld.optional_static_tls tunable).
__attribute__((tls_model("initial-exec"))) thread_local FreeLists lists;

struct GiveBackAtExit {
    bool armed = false;
    ~GiveBackAtExit() {
        for (size_t c = 0; c < kClasses; ++c) {
            while (FreeBlock* b = lists.head[c]) {
                lists.head[c] = b->next;
                ::operator delete(b);
            }
            // A block released by a later destructor of this thread goes to the allocator.
            lists.count[c] = std::numeric_limits<uint32_t>::max();
        }
    }
};
thread_local GiveBackAtExit giveBackAtExit;

[[gnu::noinline]] void hookExit() {
    lists.exitHooked = true;
    giveBackAtExit.armed = true;
}

}  // namespace

void* allocate(size_t bytes) {
    const size_t c = classOf(bytes);
    if (!kPooling || c >= kClasses)
        return ::operator new(bytes);
    FreeLists& l = lists;
    if (FreeBlock* b = l.head[c]) {
        l.head[c] = b->next;
        --l.count[c];
        return b;
    }
    return ::operator new(classBytes(c));
}

void release(void* block, size_t bytes) noexcept {
    const size_t c = classOf(bytes);
    if (!kPooling || c >= kClasses) {
        ::operator delete(block);
        return;
    }
    if (!block)
        return;
    FreeLists& l = lists;
    if (!l.exitHooked)
        hookExit();
    if (full(l.count[c], c)) {
        ::operator delete(block);
        return;
    }
    auto* b = static_cast<FreeBlock*>(block);
    b->next = l.head[c];
    l.head[c] = b;
    ++l.count[c];
}

size_t blockBytes(size_t bytes) {
    const size_t c = classOf(bytes);
    return kPooling && c < kClasses ? classBytes(c) : bytes;
}

bool pooling() {
    return kPooling;
}

size_t keptBlocks(size_t bytes) {
    const size_t c = classOf(bytes);
    return kPooling && c < kClasses ? lists.count[c] : 0;
}

size_t keptBytes() {
    size_t total = 0;
    if (kPooling) {
        for (size_t c = 0; c < kClasses; ++c)
            total += lists.count[c] * classBytes(c);
    }
    return total;
}

}  // namespace Vorn::Pool
