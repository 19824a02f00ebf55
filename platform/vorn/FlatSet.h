#pragma once
// FlatSet: an ordered set kept as a sorted vector, the container of the framework's ordered
// sets. Most of them hold one to a few members (the parents of an ACL on a port, the ports of
// an ACL on a chip), where a tree pays a node allocation and a 32-byte header per member.
//
// Invalidation, unlike std::set: inserting or erasing moves the members behind the place and
// may reallocate, so it invalidates every iterator and every reference to a member. A walk
// during which the same set may change walks a copy (`keys()` of the collection). Debug builds
// check this: an iterator used after its set changed stops the process.
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

#include "platform/vorn/Assert.h"

namespace Vorn {

template <class K>
class FlatSet {
    using Items = std::vector<K>;

  public:
    using key_type = K;
    using value_type = K;
    using key_compare = std::less<K>;

#ifdef NDEBUG
    using const_iterator = typename Items::const_iterator;
#else
    // Remembers the set's change count and checks it on every step.
    class const_iterator {
      public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = K;
        using difference_type = std::ptrdiff_t;
        using pointer = const K*;
        using reference = const K&;

        const_iterator() = default;
        const K& operator*() const {
            check();
            return *it_;
        }
        const K* operator->() const { return &**this; }
        const_iterator& operator++() {
            check();
            ++it_;
            return *this;
        }
        const_iterator operator++(int) {
            const_iterator old = *this;
            ++*this;
            return old;
        }
        bool operator==(const const_iterator& o) const { return it_ == o.it_; }

      private:
        friend class FlatSet;
        const_iterator(const FlatSet* set, typename Items::const_iterator it)
            : set_(set), it_(it), changes_(set->changes_) {}
        void check() const {
            VORN_ASSERT_MSG(set_->changes_ == changes_, "set changed during a walk over it");
        }
        const FlatSet* set_ = nullptr;
        typename Items::const_iterator it_;
        uint64_t changes_ = 0;
    };
#endif
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

    size_t size() const {
        return items_.size();
    }
    bool empty() const {
        return items_.empty();
    }
    const_iterator begin() const {
        return wrap(items_.begin());
    }
    const_iterator end() const {
        return wrap(items_.end());
    }

    const_iterator find(const K& k) const {
        auto it = std::lower_bound(items_.begin(), items_.end(), k);
        return wrap(it != items_.end() && !(k < *it) ? it : items_.end());
    }
    std::pair<const_iterator, bool> insert(const K& k) {
        auto it = std::lower_bound(items_.begin(), items_.end(), k);
        if (it != items_.end() && !(k < *it))
            return {wrap(it), false};
        changed();
        return {wrap(items_.insert(it, k)), true};
    }
    node_type extract(const_iterator pos) {
        auto it = items_.begin() + (raw(pos) - items_.cbegin());
        node_type node(std::move(*it));
        changed();
        items_.erase(it);
        return node;
    }

  private:
#ifdef NDEBUG
    const_iterator wrap(typename Items::const_iterator it) const {
        return it;
    }
    static typename Items::const_iterator raw(const_iterator it) {
        return it;
    }
    void changed() {}
#else
    const_iterator wrap(typename Items::const_iterator it) const {
        return {this, it};
    }
    static typename Items::const_iterator raw(const_iterator it) {
        return it.it_;
    }
    void changed() {
        ++changes_;
    }
    uint64_t changes_ = 0;
#endif
    Items items_;
};

}  // namespace Vorn
