#pragma once
// Mirel::TableType: the hardware ACL table an ACL lands in.

#include <cstdint>
#include <ostream>

namespace Mirel {

enum TableType : uint8_t {
    invalid_ = 0,
    ipv4PortAcl_ = 1,
    ipv4RouterAcl_ = 2,
    ipv6PortAcl_ = 3,
    ipv6RouterAcl_ = 4,
    macAcl_ = 5,
};

inline std::ostream& operator<<(std::ostream& os, TableType t) {
    return os << int(t);
}

}  // namespace Mirel
