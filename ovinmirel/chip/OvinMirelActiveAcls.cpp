#include "ovinmirel/chip/OvinMirelActiveAcls.h"

namespace OvinMirel {

ActiveAcls::ActiveAcls(const Mirel::RootConfigColl& roots, const Vorn::Ptr<Mirel::RootConfig>& root,
                       const ActiveAcls* previous, uint64_t generation)
    : root_(root), generation_(generation), base_(generation) {
    // The root configuration replaced or gone under its id: no longer the one to follow.
    rootSub_ = roots.rootConfigNotify([this](uint32_t rootId) {
        if (rootId == root_->rootConfigId())
            stale_ = true;
    });
    sub_ = root->aclKeyToAclIdTypeSetNotify([this](const Ovin::AclKey&) {
        filled_ = false;
        changed_ = true;
    });
    const bool usable = previous && previous->filled_;
    const size_t same = fill(usable ? previous : nullptr);
    if (usable && !previous->stale_ && !previous->changed_ && same == count_ &&
        same == previous->count_) {
        base_ = previous->base_;
    }
}

size_t ActiveAcls::fill(const ActiveAcls* previous) const {
    size_t same = 0;
    size_t size = 16;
    while (size < 2 * root_->aclKeyToAclIdTypeSets())
        size *= 2;
    slots_.assign(size, Slot{});
    mask_ = size - 1;
    // The keys are the root's own, which stay where they are until its collection changes.
    for (const auto& [acl, ids] : root_->aclKeyToAclIdTypeSet()) {
        const size_t hash = hashOf(acl);
        size_t i = hash & mask_;
        while (slots_[i].key)
            i = (i + 1) & mask_;
        const Acl* before = previous ? previous->lookUp(acl, hash) : nullptr;
        if (before && before->ids->tableType() == ids->tableType())
            ++same;
        slots_[i] =
            Slot{hash, &acl, Acl{ids.ptr(), before ? before->acl : sharedAclKeyFactory(acl)}};
    }
    count_ = root_->aclKeyToAclIdTypeSets();
    filled_ = true;
    return same;
}

}  // namespace OvinMirel
