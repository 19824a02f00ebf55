#pragma once
// Mirel::RootNeedsTally: what the last root computed on a chip asks of it, kept as counts so
// the next root's needs follow from the rule lists that differ between the two.
//
// It holds the lists it has counted (by chip rule list id, each a shared immutable list) and,
// per transform, how many of them match on each value. update(root) walks the root's lists
// and the counted ones side by side in id order and moves the counts of an id whose list is
// not the same object (added, gone or replaced) only: a commit cycle that leaves most of a
// chip's ACLs alone costs their ids, not their rules or values. The values come out in text
// order from the counts themselves, so class ids are the same as from a pass over every list.
//
// One per chip (RootSmColl::rootNeedsTally), used by the root that computes on the chip; the
// root computed last need not be the one it was counted from: the walk reconciles with any.
// Owns shared references to the lists it counts (their cached needs outlive the counts).

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/mirel/AclId.h"
#include "platform/mirel/AclRuleList.h"
#include "platform/mirel/PDConfig.h"

namespace Mirel {

class RootConfig;

// What a whole root asks of its chip.
struct RootNeeds {
    uint32_t tcamEntries = 0;
    uint32_t ruleLists = 0;
    uint32_t xformEntries = 0;  // class ids over the nine transforms
    // Per transform, the distinct values of every list, in text order.
    std::array<std::vector<std::string>, kXformTypeCount> xformValues;
};

class RootNeedsTally {
  public:
    // Counts root's lists in place of the ones counted before; returns root's needs.
    RootNeeds update(const RootConfig& root);

    // The counted state, for tests: lists counted, and the lists matching on a value.
    size_t lists() const { return lists_.size(); }
    uint32_t listsMatching(XformType t, const std::string& value) const;

  private:
    void count(const AclRuleList& list, int delta);

    std::map<AclId, AclRuleListPtr> lists_;
    uint32_t tcamEntries_ = 0;
    // Per transform: value -> number of counted lists that match on it (never 0).
    std::array<std::map<std::string, uint32_t, std::less<>>, kXformTypeCount> values_;
};

}  // namespace Mirel
