#include "platform/ovin/AclType.h"

namespace Acl {

const char* aclTypeName(AclType t) {
    switch (t) {
        case aclTypeIpv4:
            return "ip";
        case aclTypeIpv6:
            return "ipv6";
        case aclTypeMac:
            return "mac";
    }
    return "unknown";
}

const char* aclDirectionName(AclDirection d) {
    switch (d) {
        case aclDirectionIn:
            return "in";
        case aclDirectionOut:
            return "out";
    }
    return "unknown";
}

}  // namespace Acl
