#pragma once
// Verifies the invariants of a MappingSm (listed in OvinMirelMappingSm.h) against its inputs
// and its chip's data-flow configuration, and reports the first violation in words. Tests and
// randomized runs call it after every step; it walks everything, so it is not for the event
// loop. It recomputes what it expects from the policy status and the active root on its own,
// without the machine's code.
//
// The rules, in the order they are checked:
//  1. The internal mapping of every place is its policy ACLs that the active root holds, and
//     no entry is empty.
//  2. Every 1st-level key entry's place has that key (the key of its internal mapping), the key
//     has an index, and the key's set holds the place; a place whose ACLs give a non-empty key
//     is mapped or waits.
//  3. Every key-to-place set is non-empty, its key has an index and its members have the key;
//     every key with an index is used by some place, in one pool only, and is not empty.
//  4. The numbers in use in each pool are the indexes of its keys plus the reserved index;
//     every 2nd-level entry names an index in use in the pool of its table type.
//  5. The data-flow tables are exactly what the keys, their indexes and the active root's ids
//     give.
//  6. No place waits for an index while it has one, while its key has one, or while its pool
//     has a free number.

#include <optional>
#include <string>

#include "ovinmirel/chip/OvinMirelMappingSm.h"

namespace OvinMirel {

// nullopt when every invariant holds; otherwise the first violation found, in words.
std::optional<std::string> checkMappingConsistency(const MappingSm& sm);

}  // namespace OvinMirel
