#pragma once
// The ACL engine's ACL kind and direction.

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>

namespace Acl {

// Plain enumerations: values outside the named ones can reach us from the engine and are
// checked where they matter (table-type derivation asserts on them).
enum AclType : uint8_t { aclTypeIpv4 = 0, aclTypeIpv6 = 1, aclTypeMac = 2 };
enum AclDirection : uint8_t { aclDirectionIn = 0, aclDirectionOut = 1 };

const char* aclTypeName(AclType t);            // "ip", "ipv6", "mac", or "unknown"
const char* aclDirectionName(AclDirection d);  // "in", "out", or "unknown"

// The engine's identity of one configured rule, stable across renumbering.
struct UniqueId {
    uint64_t value = 0;
    auto operator<=>(const UniqueId&) const = default;
    bool operator==(const UniqueId&) const = default;
};
inline std::ostream& operator<<(std::ostream& os, UniqueId u) {
    return os << u.value;
}

}  // namespace Acl

template <>
struct std::hash<Acl::UniqueId> {
    size_t operator()(Acl::UniqueId u) const noexcept { return std::hash<uint64_t>()(u.value); }
};
