#pragma once
// FlatSet: an ordered set kept as a sorted array, the container of the framework's ordered
// sets. Most of them hold one to a few members (the parents of an ACL on a port, the ports of
// an ACL on a chip), where a tree pays a node allocation and a 32-byte header per member; its
// block comes from the framework's pool (Pool.h).
//
// Invalidation, unlike std::set: inserting or erasing moves the members behind the place and
// may reallocate, so it invalidates every iterator and every reference to a member. A walk
// during which the same set may change walks a copy (`keys()` of the collection).
//
// Some sets hold many keys (every ACL on a port), so making room or closing a gap moves the
// members behind it as raw bytes when the key type allows (Vorn::kTriviallyRelocatable), and
// one by one otherwise.
//
// Offers the part of std::set's interface the collections and their users need, node
// extraction included (the extracted member is moved out, so it survives the erase).

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "platform/vorn/Pool.h"
#include "platform/vorn/Relocatable.h"

namespace Vorn {

template <class K>
class FlatSet {
    static_assert(std::is_nothrow_move_constructible_v<K>);

  public:
    using key_type = K;
    using value_type = K;
    using key_compare = std::less<K>;

    using const_iterator = const K*;
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

    FlatSet() = default;
    FlatSet(const FlatSet& o) {
        if (o.size_ == 0)
            return;
        K* data = allocate(o.size_);
        try {
            std::uninitialized_copy_n(o.data_, o.size_, data);
        } catch (...) {
            Pool::release(data, o.size_ * sizeof(K));
            throw;
        }
        data_ = data;
        size_ = capacity_ = o.size_;
    }
    FlatSet(FlatSet&& o) noexcept
        : data_(std::exchange(o.data_, nullptr)),
          size_(std::exchange(o.size_, 0)),
          capacity_(std::exchange(o.capacity_, 0)) {}
    FlatSet& operator=(const FlatSet& o) {
        if (this != &o)
            FlatSet(o).swap(*this);
        return *this;
    }
    FlatSet& operator=(FlatSet&& o) noexcept {
        FlatSet(std::move(o)).swap(*this);
        return *this;
    }
    ~FlatSet() {
        clear();
        Pool::release(data_, capacity_ * sizeof(K));
    }
    void swap(FlatSet& o) noexcept {
        std::swap(data_, o.data_);
        std::swap(size_, o.size_);
        std::swap(capacity_, o.capacity_);
    }

    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    const_iterator begin() const { return data_; }
    const_iterator end() const { return data_ + size_; }

    const_iterator find(const K& k) const {
        const K* it = std::lower_bound(begin(), end(), k);
        return it != end() && !(k < *it) ? it : end();
    }
    bool contains(const K& k) const { return find(k) != end(); }

    std::pair<const_iterator, bool> insert(const K& k) {
        const K* at = std::lower_bound(begin(), end(), k);
        if (at != end() && !(k < *at))
            return {at, false};
        const size_t i = size_t(at - data_);
        K copy(k);  // before anything moves: it may throw, and k may be about to move
        if (size_ == capacity_) {
            growWithGapAt(i);
        } else {
            relocate(data_ + i + 1, data_ + i, size_ - i);
        }
        ::new (static_cast<void*>(data_ + i)) K(std::move(copy));
        ++size_;
        return {data_ + i, true};
    }
    // Removes k; returns how many members went (0 or 1).
    size_t erase(const K& k) {
        const K* it = find(k);
        if (it == end())
            return 0;
        eraseAt(size_t(it - data_));
        return 1;
    }
    node_type extract(const_iterator pos) {
        const size_t i = size_t(pos - data_);
        node_type node(std::move(data_[i]));
        eraseAt(i);
        return node;
    }
    // Keeps the room, as a set emptied now is usually filled again.
    void clear() noexcept {
        std::destroy_n(data_, size_);
        size_ = 0;
    }

  private:
    static K* allocate(size_t n) { return static_cast<K*>(Pool::allocate(n * sizeof(K))); }

    // Moves n members from src to dst (the ranges may overlap); src's are left unconstructed.
    static void relocate(K* dst, K* src, size_t n) noexcept {
        if (n == 0 || dst == src)
            return;
        if constexpr (kTriviallyRelocatable<K>) {
            std::memmove(static_cast<void*>(dst), static_cast<const void*>(src), n * sizeof(K));
        } else if (dst < src) {
            for (size_t j = 0; j < n; ++j)
                moveOne(dst + j, src + j);
        } else {
            for (size_t j = n; j-- > 0;)
                moveOne(dst + j, src + j);
        }
    }
    static void moveOne(K* dst, K* src) noexcept {
        ::new (static_cast<void*>(dst)) K(std::move(*src));
        src->~K();
    }
    // A block of twice the room, holding the members with an unconstructed place at i.
    void growWithGapAt(size_t i) {
        const uint32_t capacity = capacity_ ? capacity_ * 2 : 1;
        K* data = allocate(capacity);
        relocate(data, data_, i);
        relocate(data + i + 1, data_ + i, size_ - i);
        Pool::release(data_, capacity_ * sizeof(K));
        data_ = data;
        capacity_ = capacity;
    }
    void eraseAt(size_t i) noexcept {
        data_[i].~K();
        relocate(data_ + i, data_ + i + 1, size_ - i - 1);
        --size_;
    }

    K* data_ = nullptr;
    uint32_t size_ = 0;
    uint32_t capacity_ = 0;
};

}  // namespace Vorn
