#pragma once
// ActiveAcls: the ACLs of one root configuration by key, each with its ids and the shared key
// that the PD mapping's place sets and hardware ACL index keys refer to. The PD mapping keeps
// one for its chip's active root and makes a new one for each new active root.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ovinmirel/chip/OvinMirelHwAclIndex.h"
#include "platform/mirel/Root.h"
#include "platform/ovin/AclKey.h"
#include "platform/vorn/Entity.h"

namespace OvinMirel {

// An ACL of the active root: its ids, and the shared key that places' ACL sets and hardware
// ACL index keys holding it refer to.
struct ActiveAcl {
    const Mirel::AclIdTypeSet* ids;
    AclKeyRef acl;
};

// The ACLs of one root by key, hashed: every review looks its place's ACLs up, and the root's
// own collection is ordered by key. Open addressing over a power-of-two table at most half
// full, each slot with the key's hash: a lookup probes a few adjacent slots and compares keys
// only where the hashes match. Any change of the root's ACLs refills the table on the next
// lookup (a root is written before it becomes active; later changes are rare).
class ActiveAcls {
  public:
    using Acl = ActiveAcl;

    // `previous`: the table of the root active before, whose shared keys are taken over for
    // the ACLs this root holds too (a new root mostly holds the ACLs of the one before).
    // `generation`: this table's number, above every earlier table's.
    ActiveAcls(const Mirel::RootConfigColl& roots, const Vorn::Ptr<Mirel::RootConfig>& root,
               const ActiveAcls* previous, uint64_t generation);
    const Vorn::Ptr<Mirel::RootConfig>& root() const { return root_; }
    bool stale() const { return stale_; }
    uint64_t generation() const { return generation_; }
    // Whether this table holds, unchanged, the same ACLs with the same table types as table
    // `generation` did (itself included).
    bool holdsAclsOf(uint64_t generation) const {
        return !changed_ && !stale_ && base_ <= generation && generation <= generation_;
    }
    const Acl* find(const Ovin::AclKey& acl) const {
        if (!filled_)
            fill(nullptr);
        return lookUp(acl, hashOf(acl));
    }

  private:
    // Cheaper than the ACL key's own hash: the tag is nearly always empty and is left to
    // the equality test.
    static size_t hashOf(const Ovin::AclKey& k) {
        uint64_t h = 0xcbf29ce484222325ULL;  // FNV-1a over the name
        for (char c : k.name)
            h = (h ^ uint8_t(c)) * 0x100000001b3ULL;
        return h ^ (uint64_t(k.type) | uint64_t(k.direction) << 8 | uint64_t(k.flag) << 16 |
                    uint64_t(k.vlanId ? k.vlanId->value() : 0) << 24) *
                       0x9e3779b97f4a7c15ULL;
    }
    // REQUIRES: filled_ (else the slots may point to keys the root no longer holds).
    const Acl* lookUp(const Ovin::AclKey& acl, size_t hash) const {
        for (size_t i = hash & mask_; slots_[i].key; i = (i + 1) & mask_) {
            if (slots_[i].hash == hash && *slots_[i].key == acl)
                return &slots_[i].acl;
        }
        return nullptr;
    }
    // `previous`: a filled table whose shared keys to take over, or null. Returns how many
    // ACLs previous holds with the same table type.
    size_t fill(const ActiveAcls* previous) const;

    struct Slot {
        size_t hash = 0;
        const Ovin::AclKey* key = nullptr;  // null: empty
        Acl acl{};
    };
    const Vorn::Ptr<Mirel::RootConfig> root_;
    mutable std::vector<Slot> slots_;
    mutable size_t mask_ = 0;
    mutable bool filled_ = false;
    mutable size_t count_ = 0;
    bool stale_ = false;
    // The root's ACLs changed after the table was made.
    bool changed_ = false;
    const uint64_t generation_;
    // The first table of the run of tables, ending with this one, that held the same ACLs.
    uint64_t base_;
    Vorn::Subscription sub_;
    Vorn::Subscription rootSub_;
};

}  // namespace OvinMirel
