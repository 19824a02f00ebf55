#pragma once
// Verifies the invariants of the mapping index (listed in OvinMirelIndex.h) and reports the
// first violation in words. Tests and randomized runs call it after every step; it walks the
// whole Index, so it is not for the event loop.

#include <optional>
#include <string>

#include "ovinmirel/index/OvinMirelIndex.h"

namespace OvinMirel {

// nullopt when every invariant holds; otherwise the first violation found, in words.
std::optional<std::string> checkIndexConsistency(const Index& index);

}  // namespace OvinMirel
