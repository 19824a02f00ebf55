#pragma once
// The hardware layer's capability records, published by the platform driver:
//  - ChipHwCapability, one per chip (kept in HwCapabilityColl): ACL id and hardware ACL index
//    ranges, and the ranked list of ACL-kind combinations the chip can hold on one interface;
//  - HwCapability, global: what the platform as a whole supports.
// This layer only reads them.

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>

#include "platform/mirel/ChipId.h"
#include "platform/vorn/Entity.h"
#include "platform/vorn/Name.h"

namespace Mirel {

// A set of ACL kinds (family, port or router, direction) as ten bits. Values above 0x3ff are
// refused with the range error "AclTypeCombinationBitMask::value > 0x3ff not allowed".
class AclTypeCombinationBitMask {
  public:
    static constexpr uint16_t kV4PaclIn = 0x001;
    static constexpr uint16_t kV4RaclIn = 0x002;
    static constexpr uint16_t kV6PaclIn = 0x004;
    static constexpr uint16_t kV6RaclIn = 0x008;
    static constexpr uint16_t kV4PaclOut = 0x010;
    static constexpr uint16_t kV4RaclOut = 0x020;
    static constexpr uint16_t kV6PaclOut = 0x040;
    static constexpr uint16_t kV6RaclOut = 0x080;
    static constexpr uint16_t kMacIn = 0x100;
    static constexpr uint16_t kMacOut = 0x200;
    static constexpr uint16_t kMax = 0x3ff;

    constexpr AclTypeCombinationBitMask() = default;
    explicit AclTypeCombinationBitMask(uint32_t value);
    uint16_t value() const { return value_; }
    bool empty() const { return value_ == 0; }
    // Whether every bit of `other` is also set here.
    bool contains(AclTypeCombinationBitMask other) const {
        return (value_ & other.value_) == other.value_;
    }
    AclTypeCombinationBitMask operator&(AclTypeCombinationBitMask o) const {
        return AclTypeCombinationBitMask(value_ & o.value_);
    }
    AclTypeCombinationBitMask operator|(AclTypeCombinationBitMask o) const {
        return AclTypeCombinationBitMask(value_ | o.value_);
    }
    auto operator<=>(const AclTypeCombinationBitMask&) const = default;
    bool operator==(const AclTypeCombinationBitMask&) const = default;

  private:
    uint16_t value_ = 0;
};

// The rank of a supported combination: smaller ranks are preferred.
struct AclTypePriority {
    uint32_t value = 0;
    auto operator<=>(const AclTypePriority&) const = default;
    bool operator==(const AclTypePriority&) const = default;
};

std::ostream& operator<<(std::ostream& os, AclTypeCombinationBitMask m);  // "0x" and hex
std::ostream& operator<<(std::ostream& os, AclTypePriority p);

class ChipHwCapability : public Vorn::Entity {
    VORN_ENTITY("Mirel::ChipHwCapability")
  public:
    explicit ChipHwCapability(ChipId chipId) : chipId_(chipId) {}
    ChipId chipId() const { return chipId_; }

    // Largest chip rule list id an ACL may be given.
    VORN_ATTR(uint32_t, chipRuleListIdMax, 0)
    // The chip rule list id the chip keeps for its permit-all list; never handed out.
    VORN_ATTR(uint8_t, chipRuleListIdReservedPermitAll, 255)
    // The chip can split an ACL into one rule list for TCP rules and one for the others.
    VORN_ATTR(bool, aclSplitOnProtocolSupported, false)
    // Largest hardware ACL index, and the one index the chip keeps for itself.
    VORN_ATTR(uint32_t, hwAclIndexMax, 0)
    VORN_ATTR(uint32_t, hwAclIndexReserved, 0)
    // What one root may use of the chip's ACL tables (the chip swaps whole roots, so the limits
    // apply to the attempt root alone): TCAM entries, and class ids over the nine field
    // transforms. A root that needs more fails its computation at once.
    VORN_ATTR(uint32_t, tcamEntryMax, 4096)
    VORN_ATTR(uint32_t, xformEntryMax, 1024)
    // The chip rule list ids a root may use: 0 to chipRuleListIdMax (ids are 8 bits wide, so
    // at most 255), without the permit-all id.
    uint32_t ruleListIdCount() const;
    // The combinations of ACL kinds one interface can hold at once, preferred ones first.
    VORN_ORDERED_MAP(AclTypePriority, AclTypeCombinationBitMask, aclTypeCombinationByPriority)

  private:
    const ChipId chipId_;
};

class HwCapability : public Vorn::Entity {
    VORN_ENTITY("Mirel::HwCapability")
  public:
    explicit HwCapability(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    // A routed port's router ACLs may share one hardware ACL index with VLANs and
    // sub-interfaces that carry the same ACLs.
    VORN_ATTR(bool, routedPortRaclSharingSupported, false)

  private:
    const Vorn::Name name_;
};

// The per-chip capabilities, and the platform's global capability record, which the
// collection owns: it is created with the collection (named "hwCapability") and lives as long
// as it does, so whoever is handed the collection has both.
class HwCapabilityColl : public Vorn::Entity {
    VORN_ENTITY("Mirel::HwCapabilityColl")
  public:
    static constexpr const char* kHwCapabilityName = "hwCapability";

    explicit HwCapabilityColl(const Vorn::Name& name);
    const Vorn::Name& name() const { return name_; }

    // Never null.
    const Vorn::Ptr<HwCapability>& hwCapability() const { return hwCapability_; }
    VORN_ENTITY_MAP(ChipId, ChipHwCapability, chipHwCapability)

  private:
    const Vorn::Name name_;
    const Vorn::Ptr<HwCapability> hwCapability_;
};

Vorn::Ptr<HwCapabilityColl> hwCapabilityCollFactory(const Vorn::Name& name);
Vorn::Ptr<HwCapability> hwCapabilityFactory(const Vorn::Name& name);

}  // namespace Mirel

template <>
struct std::hash<Mirel::AclTypePriority> {
    size_t operator()(Mirel::AclTypePriority p) const noexcept { return p.value; }
};
