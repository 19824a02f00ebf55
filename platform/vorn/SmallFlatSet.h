#pragma once
// SmallFlatSet: an ordered set that holds its one member in place and, from two on, all of
// them in a FlatSet. For values of which there is one per (port, ACL) or per pending
// interface, mostly with a single member: that case allocates nothing.
//
// Invariants:
//  1. Members ascend, each once.
//  2. Either more_ is empty and the set is one_ (when hasOne_) or nothing, or more_ holds every
//     member (two or more) and one_ holds none. So the members are one contiguous range.
// Invalidation as FlatSet's: a write invalidates iterators and references to members.

#include <algorithm>
#include <cstddef>
#include <utility>

#include "platform/vorn/FlatSet.h"

namespace Vorn {

template <class K>
class SmallFlatSet {
  public:
    using value_type = K;
    using const_iterator = const K*;

    const K* begin() const { return more_.empty() ? &one_ : more_.begin(); }
    const K* end() const { return more_.empty() ? &one_ + (hasOne_ ? 1 : 0) : more_.end(); }
    size_t size() const { return size_t(end() - begin()); }
    bool empty() const { return begin() == end(); }
    bool contains(const K& k) const { return std::binary_search(begin(), end(), k); }

    void insert(const K& k) {
        if (more_.empty()) {
            if (!hasOne_ || one_ == k) {
                one_ = k;
                hasOne_ = true;
                return;
            }
            more_.insert(one_);
            one_ = K();
            hasOne_ = false;
        }
        more_.insert(k);
    }
    void erase(const K& k) {
        if (more_.empty()) {
            if (hasOne_ && one_ == k) {
                one_ = K();
                hasOne_ = false;
            }
            return;
        }
        more_.erase(k);
        // Back in place with one member left (invariant 2).
        if (more_.size() == 1) {
            one_ = *more_.begin();
            hasOne_ = true;
            more_ = FlatSet<K>();
        }
    }

    bool operator==(const SmallFlatSet& o) const {
        return std::equal(begin(), end(), o.begin(), o.end());
    }

  private:
    K one_{};  // the member while more_ is empty and hasOne_ is set; else K()
    bool hasOne_ = false;
    FlatSet<K> more_;
};

}  // namespace Vorn
