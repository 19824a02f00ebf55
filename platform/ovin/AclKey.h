#pragma once
// Ovin::AclKey: one ACL as the engine applies it. The key of every per-ACL collection.
// A key that carries a VLAN id is a router ACL.

#include <compare>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/bridging/VlanId.h"
#include "platform/ovin/AclType.h"
#include "platform/vorn/Hash.h"
#include "platform/vorn/Name.h"
#include "platform/vorn/Relocatable.h"

namespace Ovin {

using AclVlanIdOrNone = std::optional<Bridging::VlanId>;

struct AclKey {
    Vorn::Atom name;
    Acl::AclType type = Acl::aclTypeIpv4;
    Acl::AclDirection direction = Acl::aclDirectionIn;
    bool flag = false;       // the engine's per-key flag (carried, never interpreted here)
    AclVlanIdOrNone vlanId;  // set for router ACLs
    Vorn::Name tag;          // the engine's name for where the key comes from; usually empty

    // A total order: name, type, direction, flag, VLAN (none first), tag. Keys of one ACL
    // often differ only by VLAN (a per-port set holds one key per VLAN the ACL reaches), so
    // the whole comparison stays inline, each field settling it as early as it can.
    std::strong_ordering operator<=>(const AclKey& o) const {
        if (name != o.name)
            return name <=> o.name;
        if (type != o.type)
            return type <=> o.type;
        if (direction != o.direction)
            return direction <=> o.direction;
        if (flag != o.flag)
            return flag <=> o.flag;
        if (const int a = vlanOrder(), b = o.vlanOrder(); a != b)
            return a <=> b;
        return tag <=> o.tag;
    }
    bool operator==(const AclKey&) const = default;

    // "<name>/<ip|ipv6|mac>/<in|out>", then "/vlan<N>", "/flag", "/<tag>" when present.
    std::string str() const;
    // Reads str()'s form back. The name ends at the first "/<type>/<direction>" that is
    // followed by the end or a "/"; the tag is the rest after the optional VLAN and flag parts.
    // So a key reads back as itself unless its name contains such a part or its tag reads as
    // one ("vlan7", "flag"). Text of another form throws std::invalid_argument
    // "invalid AclKey '<text>': <reason>"; a VLAN number outside 1..4094 throws the VLAN's
    // range error.
    static AclKey fromStr(std::string_view text);

  private:
    // No VLAN orders before every VLAN.
    int vlanOrder() const { return vlanId ? int(vlanId->value()) : -1; }
};

std::ostream& operator<<(std::ostream& os, const AclKey& k);

}  // namespace Ovin

// Sets of keys shift them as raw bytes: every member may be.
namespace Vorn {
template <>
inline constexpr bool kTriviallyRelocatable<Ovin::AclKey> =
    kTriviallyRelocatable<Atom> && kTriviallyRelocatable<Name> &&
    std::is_trivially_copyable_v<Ovin::AclVlanIdOrNone>;
}  // namespace Vorn

// Inline: every per-ACL collection of the index and the chips hashes keys on each lookup.
template <>
struct std::hash<Ovin::AclKey> {
    size_t operator()(const Ovin::AclKey& k) const noexcept {
        return Vorn::hashOf(k.name, int(k.type), int(k.direction), k.flag,
                            k.vlanId ? int(k.vlanId->value()) : 0, k.tag);
    }
};
