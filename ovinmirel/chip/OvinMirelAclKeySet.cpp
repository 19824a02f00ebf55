#include "ovinmirel/chip/OvinMirelAclKeySet.h"

#include <algorithm>
#include <utility>

namespace OvinMirel {

AclKeySet::AclKeySet(std::initializer_list<Ovin::AclKey> acls) {
    for (const Ovin::AclKey& acl : acls)
        insert(acl);
}

AclKeySet::AclKeySet(AclKeySet&& o) noexcept
    : inPlaceCount_(std::exchange(o.inPlaceCount_, 0)),
      inPlace_(std::move(o.inPlace_)),
      spilled_(std::move(o.spilled_)) {
    o.spilled_.clear();
}

AclKeySet& AclKeySet::operator=(AclKeySet&& o) noexcept {
    inPlaceCount_ = std::exchange(o.inPlaceCount_, 0);
    inPlace_ = std::move(o.inPlace_);
    spilled_ = std::move(o.spilled_);
    o.spilled_.clear();
    return *this;
}

namespace {

bool aclKeyLess(const AclKeyRef& a, const Ovin::AclKey& b) {
    return a->aclKey() < b;
}

}  // namespace

bool AclKeySet::contains(const Ovin::AclKey& acl) const {
    const std::span<const AclKeyRef> held = refs();
    const auto at = std::lower_bound(held.begin(), held.end(), acl, aclKeyLess);
    return at != held.end() && (*at)->aclKey() == acl;
}

bool AclKeySet::insert(const AclKeyRef& acl) {
    const std::span<const AclKeyRef> held = refs();
    // Sets are mostly filled in key order: past the last ACL needs one comparison.
    size_t pos = held.size();
    if (!held.empty() && !aclKeyLess(held.back(), acl->aclKey())) {
        const auto at = std::lower_bound(held.begin(), held.end(), acl->aclKey(), aclKeyLess);
        if ((*at)->aclKey() == acl->aclKey())
            return false;
        pos = size_t(at - held.begin());
    }
    if (spilled_.empty() && inPlaceCount_ < kInPlace) {
        std::move_backward(inPlace_.begin() + pos, inPlace_.begin() + inPlaceCount_,
                           inPlace_.begin() + inPlaceCount_ + 1);
        inPlace_[pos] = acl;
        ++inPlaceCount_;
        return true;
    }
    if (spilled_.empty()) {
        spilled_.reserve(2 * kInPlace);
        for (size_t i = 0; i < inPlaceCount_; ++i)
            spilled_.push_back(std::move(inPlace_[i]));
        inPlaceCount_ = 0;
    }
    spilled_.insert(spilled_.begin() + std::ptrdiff_t(pos), acl);
    return true;
}

bool AclKeySet::operator==(const AclKeySet& o) const {
    const std::span<const AclKeyRef> a = refs();
    const std::span<const AclKeyRef> b = o.refs();
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const AclKeyRef& x, const AclKeyRef& y) {
                          return x == y || x->aclKey() == y->aclKey();
                      });
}

}  // namespace OvinMirel
