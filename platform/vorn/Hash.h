#pragma once
// Hashing for composite keys. Deterministic: no addresses, no random seeds, so a hash (and any
// order derived from one) is the same run after run.
//
//  - hashCombine / hashOf: std::hash of the parts, combined (for std::unordered_* keys).
//  - Vorn::Hash: the framework's 32-bit hash state for values that define their hash field by
//    field: start from a cleared State, feed each field's 32-bit hash with mix() in field order,
//    and take result(). The order matters: the same words in another order hash differently.
//    oneAtATime() is Jenkins' one-at-a-time hash of a byte string, for the field hashes.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

namespace Vorn {

inline size_t hashCombine(size_t seed, size_t h) {
    return seed ^ (h + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2));
}

template <class... T>
size_t hashOf(const T&... parts) {
    size_t seed = 0;
    ((seed = hashCombine(seed, std::hash<T>()(parts))), ...);
    return seed;
}

namespace Hash {

struct State {
    uint32_t h = 0;
    uint32_t words = 0;
};

// Feeds one 32-bit word (the body step of MurmurHash3).
inline void mix(State& s, uint32_t k) {
    k *= 0xcc9e2d51u;
    k = (k << 15) | (k >> 17);
    k *= 0x1b873593u;
    s.h ^= k;
    s.h = (s.h << 13) | (s.h >> 19);
    s.h = s.h * 5 + 0xe6546b64u;
    ++s.words;
}

// The hash of everything fed so far (MurmurHash3's finalizer over the length and the state).
inline uint32_t result(const State& s) {
    uint32_t h = s.h ^ (s.words * 4);
    h ^= h >> 16;
    h *= 0x85ebca6bu;
    h ^= h >> 13;
    h *= 0xc2b2ae35u;
    h ^= h >> 16;
    return h;
}

// Jenkins' one-at-a-time hash: per byte h += b; h += h << 10; h ^= h >> 6; then the finish
// h += h << 3; h ^= h >> 11; h += h << 15 (all in unsigned 32-bit arithmetic). `step` and
// `finish` let a caller feed bytes of several values into one field hash.
inline uint32_t oneAtATimeStep(uint32_t h, uint8_t byte) {
    h += byte;
    h += h << 10;
    h ^= h >> 6;
    return h;
}
inline uint32_t oneAtATimeFinish(uint32_t h) {
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
}
// Feeds the four bytes of `word`, least significant first.
inline uint32_t oneAtATimeWord(uint32_t h, uint32_t word) {
    for (int i = 0; i < 4; ++i)
        h = oneAtATimeStep(h, static_cast<uint8_t>(word >> (8 * i)));
    return h;
}
inline uint32_t oneAtATime(std::string_view bytes) {
    uint32_t h = 0;
    for (char c : bytes)
        h = oneAtATimeStep(h, static_cast<uint8_t>(c));
    return oneAtATimeFinish(h);
}

}  // namespace Hash
}  // namespace Vorn
