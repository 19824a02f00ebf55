#pragma once
// Hardware ACL indexes: the small number a chip's lookup tables use to select the ACLs of one
// place (interface, shared routed port, VLAN, sub-interface).
//
//  - HwAclIndexKey: one ACL key per ACL kind and direction; two places with equal keys carry
//    exactly the same ACLs and can share one index. A field not in use holds the default key.
//  - HwAclIndexAllocator: one per pool (HwAclIndexAllocatorType); its number allocator exists
//    only while both its config (the range) and its status (the numbers in use) exist.
//  - HwAclIndexKeyToIntfSet / ToVlanSet / ToSubIntfSet: the places sharing one key's index.
// The PD mapping machine owns and drives all of them.

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include "platform/bridging/VlanId.h"
#include "platform/brix/NumAllocator.h"
#include "platform/mirel/TableType.h"
#include "platform/ovin/AclKey.h"
#include "platform/vorn/Entity.h"
#include "platform/zamu/IntfId.h"

namespace OvinMirel {

// An ACL key held by reference: read-only, shared by everything that holds the ACL, with the
// hash it contributes as a field of a HwAclIndexKey. The PD mapping makes one per ACL of the
// active root and hands references to every place and key that holds the ACL, so copying one
// costs a reference count instead of an ACL key.
class SharedAclKey : public Vorn::PtrInterface {
  public:
    explicit SharedAclKey(const Ovin::AclKey& aclKey);
    const Ovin::AclKey& aclKey() const { return aclKey_; }
    // HwAclIndexKey::fieldHash(aclKey()).
    uint32_t fieldHash() const { return fieldHash_; }
    // The default ACL key, which leaves a field of a HwAclIndexKey unused.
    bool isDefault() const { return isDefault_; }

  private:
    const Ovin::AclKey aclKey_;
    const uint32_t fieldHash_;
    const bool isDefault_;
};
using AclKeyRef = Vorn::Ptr<const SharedAclKey>;

AclKeyRef sharedAclKeyFactory(const Ovin::AclKey& aclKey);

class HwAclIndexKey {
  public:
    // The ten fields, in field order (which is also the order of comparison and hashing).
    enum Field : uint8_t {
        v4PAclIn_,
        v6PAclIn_,
        v4RAclIn_,
        v6RAclIn_,
        macAclIn_,
        v4PAclOut_,
        v6PAclOut_,
        v4RAclOut_,
        v6RAclOut_,
        macAclOut_,
    };
    static constexpr int kFieldCount = 10;
    // "v4PAclIn", ..., "macAclOut".
    static const char* fieldName(Field f);
    // The field of an ACL of table type 1 to 5 and the direction; an invalid table type or
    // direction has no field (kFieldCount).
    static int fieldOf(Mirel::TableType tableType, Acl::AclDirection direction);

    HwAclIndexKey() = default;
    HwAclIndexKey(Ovin::AclKey v4PAclIn, Ovin::AclKey v6PAclIn, Ovin::AclKey v4RAclIn,
                  Ovin::AclKey v6RAclIn, Ovin::AclKey macAclIn, Ovin::AclKey v4PAclOut,
                  Ovin::AclKey v6PAclOut, Ovin::AclKey v4RAclOut, Ovin::AclKey v6RAclOut,
                  Ovin::AclKey macAclOut);
    // Reads the string form (valueToStrep) back. Any other text throws std::invalid_argument
    // "invalid HwAclIndexKey text: <reason>"; the ACL keys' own errors pass through.
    explicit HwAclIndexKey(std::string_view text);

    // A field; an unused one holds the default ACL key.
    const Ovin::AclKey& field(Field f) const;
    // Sets a field; the default ACL key leaves it unused.
    void fieldIs(Field f, const Ovin::AclKey& aclKey);
    // The same with a shared ACL key, which the field then shares (null leaves it unused).
    void fieldIs(Field f, AclKeyRef aclKey);
    // What a field holding aclKey contributes to hash(): Jenkins' one-at-a-time hash over the
    // 4 little-endian bytes of the hash of the ACL name (0 when empty), the 4 bytes of the ACL
    // type, the direction and flag bytes, the 4 bytes of the VLAN id (0 when none) and the 4
    // bytes of the hash of the tag (0 when empty).
    static uint32_t fieldHash(const Ovin::AclKey& aclKey);

    const Ovin::AclKey& v4PAclIn() const { return field(v4PAclIn_); }
    const Ovin::AclKey& v6PAclIn() const { return field(v6PAclIn_); }
    const Ovin::AclKey& v4RAclIn() const { return field(v4RAclIn_); }
    const Ovin::AclKey& v6RAclIn() const { return field(v6RAclIn_); }
    const Ovin::AclKey& macAclIn() const { return field(macAclIn_); }
    const Ovin::AclKey& v4PAclOut() const { return field(v4PAclOut_); }
    const Ovin::AclKey& v6PAclOut() const { return field(v6PAclOut_); }
    const Ovin::AclKey& v4RAclOut() const { return field(v4RAclOut_); }
    const Ovin::AclKey& v6RAclOut() const { return field(v6RAclOut_); }
    const Ovin::AclKey& macAclOut() const { return field(macAclOut_); }

    // All ten fields equal, compared in field order.
    bool operator==(const HwAclIndexKey& o) const;
    // Lexicographic over the fields in field order, by the ACL key's own order (in which the
    // default key comes first, as an unused field does here).
    bool operator<(const HwAclIndexKey& o) const;
    // True when every field is default: nothing is bound, and such a key gets no index.
    bool operator!() const;
    // The field hashes fed in field order to the framework's hash state, and its result.
    // Computed once per value (a key is hashed by every map it is looked up in) and kept
    // until a field changes.
    uint32_t hash() const {
        if (!hashKnown_) {
            hash_ = computeHash();
            hashKnown_ = true;
        }
        return hash_;
    }

  private:
    uint32_t computeHash() const;

    // Only the used fields hold anything, a reference to their shared ACL key; an unused field
    // is null. (Ten ACL keys held in place would make every key about 1 KB to build and copy,
    // though a place uses two or three of them.)
    std::array<AclKeyRef, kFieldCount> fields_;
    mutable uint32_t hash_ = 0;
    mutable bool hashKnown_ = false;
};

// "Value('OvinMirel::HwAclIndexKey', ** {'v4PAclIn': <key>, ..., 'macAclOut': <key>})", each
// <key> the ACL key's own string form.
std::string valueToStrep(const HwAclIndexKey& key);
std::ostream& operator<<(std::ostream& os, const HwAclIndexKey& key);

// The two pools of hardware ACL indexes. Both span the same numbers: one number may be in use
// in both pools at once.
enum HwAclIndexAllocatorType : uint8_t {
    hwAclIndexAllocPaclMacl_ = 0,  // port and MAC ACLs of physical interfaces
    hwAclIndexAllocRacl_ = 1,      // router ACLs of shared routed ports, VLANs, sub-interfaces
};
constexpr int kHwAclIndexAllocatorTypeCount = 2;

// The name ("hwAclIndexAllocPaclMacl", "hwAclIndexAllocRacl"); nullptr for any other value.
const char* stringValue(HwAclIndexAllocatorType type);
// The name; empty for any other value.
std::string valueToStrep(HwAclIndexAllocatorType type);
// The name; any other value prints as "HwAclIndexAllocatorType(<n>)".
std::ostream& operator<<(std::ostream& os, HwAclIndexAllocatorType type);

class HwAclIndexAllocator : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::HwAclIndexAllocator")
  public:
    explicit HwAclIndexAllocator(HwAclIndexAllocatorType type) : type_(type) {}
    HwAclIndexAllocatorType type() const { return type_; }

    // The range indexes come from. configIs creates the config (numbers released are free
    // again at once) or, when there is one, sets its range, which an allocator in use follows.
    const Vorn::Ptr<Brix::NumAllocatorConfig>& config() const { return config_.get(); }
    void configIs(const Brix::Range& range);
    // Drops the config, and with it the number allocator.
    void configDel();

    // The numbers in use. statusIs creates it when there is none.
    const Vorn::Ptr<Brix::NumAllocatorStatus>& status() const { return status_.get(); }
    void statusIs();
    // Drops the status, and with it the number allocator.
    void statusDel();

    // The allocator over config and status; null unless both exist.
    Brix::NumAllocator* numAllocator() const { return numAllocator_.get().get(); }
    // Builds it over the current config and status (kept when it already uses them). Without
    // a config or a status it throws Vorn::NullPointerException naming the missing one and
    // changes nothing.
    Brix::NumAllocator* numAllocatorIs();
    void numAllocatorDel();

    VORN_SUBSCRIBE_(config)
    VORN_SUBSCRIBE_(status)
    VORN_SUBSCRIBE_(numAllocator)

  private:
    const HwAclIndexAllocatorType type_;
    Vorn::Attr<Vorn::Ptr<Brix::NumAllocatorConfig>> config_{*this};
    Vorn::Attr<Vorn::Ptr<Brix::NumAllocatorStatus>> status_{*this};
    // Declared last: it refers to the config and status, and goes first.
    Vorn::Attr<std::shared_ptr<Brix::NumAllocator>> numAllocator_{*this};
};

// The physical interfaces (or shared routed ports) whose places share one key's index.
class HwAclIndexKeyToIntfSet : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::HwAclIndexKeyToIntfSet")
  public:
    explicit HwAclIndexKeyToIntfSet(const HwAclIndexKey& key) : key_(key) {}
    const HwAclIndexKey& key() const { return key_; }

    VORN_ORDERED_SET(Zamu::IntfId, intfId)

  private:
    const HwAclIndexKey key_;
};

// The VLANs sharing one key's index.
class HwAclIndexKeyToVlanSet : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::HwAclIndexKeyToVlanSet")
  public:
    explicit HwAclIndexKeyToVlanSet(const HwAclIndexKey& key) : key_(key) {}
    const HwAclIndexKey& key() const { return key_; }

    VORN_ORDERED_SET(Bridging::VlanId, vlanId)
    // By number: outside 1..4094 throws "VlanId::value < 1 or > 4094 not allowed" and changes
    // nothing.
    void vlanIdIs(int64_t vlanId, bool member = true) {
        vlanIdIs(Bridging::VlanId(vlanId), member);
    }

  private:
    const HwAclIndexKey key_;
};

// The sub-interfaces sharing one key's index.
class HwAclIndexKeyToSubIntfSet : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::HwAclIndexKeyToSubIntfSet")
  public:
    explicit HwAclIndexKeyToSubIntfSet(const HwAclIndexKey& key) : key_(key) {}
    const HwAclIndexKey& key() const { return key_; }

    VORN_ORDERED_SET(Zamu::IntfId, subIntfId)

  private:
    const HwAclIndexKey key_;
};

Vorn::Ptr<HwAclIndexAllocator> hwAclIndexAllocatorFactory(HwAclIndexAllocatorType type);
Vorn::Ptr<HwAclIndexKeyToIntfSet> hwAclIndexKeyToIntfSetFactory(const HwAclIndexKey& key);
Vorn::Ptr<HwAclIndexKeyToVlanSet> hwAclIndexKeyToVlanSetFactory(const HwAclIndexKey& key);
Vorn::Ptr<HwAclIndexKeyToSubIntfSet> hwAclIndexKeyToSubIntfSetFactory(const HwAclIndexKey& key);

}  // namespace OvinMirel

template <>
struct std::hash<OvinMirel::HwAclIndexKey> {
    size_t operator()(const OvinMirel::HwAclIndexKey& k) const noexcept { return k.hash(); }
};
