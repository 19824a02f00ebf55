#pragma once
// Hash combining for composite keys (deterministic: no addresses, no random seeds).

#include <cstddef>
#include <functional>

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

}  // namespace Vorn
