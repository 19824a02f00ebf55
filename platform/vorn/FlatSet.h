#pragma once
// FlatSet: an ordered set kept as a sorted vector, the container of the framework's ordered
// sets. Most of them hold one to a few members (the parents of an ACL on a port, the ports of
// an ACL on a chip), where a tree pays a node allocation and a 32-byte header per member.
//
// Invalidation, unlike std::set: inserting or erasing moves the members behind the place and
// may reallocate, so it invalidates every iterator and every reference to a member. A walk
// during which the same set may change walks a copy (`keys()` of the collection).
//
// Offers the part of std::set's interface the collections use, node extraction included (the
// extracted member is moved out, so it survives the erase).

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <utility>
#include <vector>

namespace Vorn {

template <class K>
class FlatSet {
    using Items = std::vector<K>;

  public:
    using key_type = K;
    using value_type = K;
    using key_compare = std::less<K>;

    using const_iterator = typename Items::const_iterator;
    using iterator = const_iterator;

    // What extract() hands back: the member, moved out of the set.
    class node_type {
      public:
        const K& value() const { return value_; }

      private:
        friend class FlatSet;
        explicit node_type(K&& v) : value_(std::move(v)) {}
        K value_;
    };

    size_t size() const { return items_.size(); }
    bool empty() const { return items_.empty(); }
    const_iterator begin() const { return items_.begin(); }
    const_iterator end() const { return items_.end(); }

    const_iterator find(const K& k) const {
        auto it = std::lower_bound(items_.begin(), items_.end(), k);
        return it != items_.end() && !(k < *it) ? it : items_.end();
    }
    std::pair<const_iterator, bool> insert(const K& k) {
        auto it = std::lower_bound(items_.begin(), items_.end(), k);
        if (it != items_.end() && !(k < *it))
            return {it, false};
        return {items_.insert(it, k), true};
    }
    node_type extract(const_iterator pos) {
        auto it = items_.begin() + (pos - items_.cbegin());
        node_type node(std::move(*it));
        items_.erase(it);
        return node;
    }

  private:
    Items items_;
};

}  // namespace Vorn
