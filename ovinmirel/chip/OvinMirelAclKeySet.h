#pragma once
// AclKeySet: the ACLs of one place as the PD mapping holds them, in key order, each once, as
// references to shared ACL keys.

#include <array>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <span>
#include <vector>

#include "ovinmirel/chip/OvinMirelHwAclIndex.h"
#include "platform/ovin/AclKey.h"

namespace OvinMirel {

// The ACLs of one place, in key order, each once, as references to shared ACL keys rather than
// a std::set of copies: a place holds a handful of ACLs, and a rebuild makes one of these for
// every place of the chip from the active root's shared keys. Up to kInPlace references are
// kept in the set itself, so most sets cost no allocation of their own; a larger set keeps all
// of them in a vector. Reads like a set of ACL keys.
class AclKeySet {
  public:
    class const_iterator {
      public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Ovin::AclKey;
        using difference_type = std::ptrdiff_t;
        using pointer = const Ovin::AclKey*;
        using reference = const Ovin::AclKey&;

        const_iterator() = default;
        explicit const_iterator(const AclKeyRef* at) : at_(at) {}
        const Ovin::AclKey& operator*() const { return (*at_)->aclKey(); }
        const Ovin::AclKey* operator->() const { return &(*at_)->aclKey(); }
        const_iterator& operator++() {
            ++at_;
            return *this;
        }
        const_iterator operator++(int) { return const_iterator(at_++); }
        bool operator==(const const_iterator&) const = default;

      private:
        const AclKeyRef* at_ = nullptr;
    };
    using iterator = const_iterator;
    using value_type = Ovin::AclKey;

    AclKeySet() = default;
    AclKeySet(std::initializer_list<Ovin::AclKey> acls);
    AclKeySet(const AclKeySet&) = default;
    AclKeySet& operator=(const AclKeySet&) = default;
    // The set moved from is left empty.
    AclKeySet(AclKeySet&& o) noexcept;
    AclKeySet& operator=(AclKeySet&& o) noexcept;

    const_iterator begin() const { return const_iterator(refs().data()); }
    const_iterator end() const { return const_iterator(refs().data() + refs().size()); }
    size_t size() const { return refs().size(); }
    bool empty() const { return refs().empty(); }
    bool contains(const Ovin::AclKey& acl) const;
    // Adds the ACL in its place; false when it is there already.
    bool insert(const Ovin::AclKey& acl) { return insert(sharedAclKeyFactory(acl)); }
    bool insert(const AclKeyRef& acl);
    // The same ACL keys.
    bool operator==(const AclKeySet& o) const;

  private:
    static constexpr size_t kInPlace = 3;
    std::span<const AclKeyRef> refs() const {
        if (!spilled_.empty())
            return spilled_;
        return {inPlace_.data(), inPlaceCount_};
    }

    size_t inPlaceCount_ = 0;                  // used while spilled_ is empty
    std::array<AclKeyRef, kInPlace> inPlace_;  // the first inPlaceCount_ are the set
    std::vector<AclKeyRef> spilled_;           // the set, once it outgrew inPlace_
};

}  // namespace OvinMirel
