#pragma once
// Verifies the invariants of the mapping index (listed in OvinMirelIndex.h), that the
// parents of each ACL on a port and the per-type grouping follow the bindings the Index holds,
// and that an ACL's entry for a chip links to no other entry than the chip's one for the ACL,
// and reports the first violation in words. Tests and randomized runs call it after every
// step; an agent may call it on a live switch as a diagnostic. It costs one pass over the
// Index with lookups by key, so it is not for every event of the loop.

#include <optional>
#include <string>

#include "ovinmirel/index/OvinMirelIndex.h"

namespace OvinMirel {

// nullopt when every invariant holds; otherwise the first violation found, in words.
std::optional<std::string> checkIndexConsistency(const Index& index);

}  // namespace OvinMirel
