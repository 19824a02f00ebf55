#include "platform/ovin/AclStatusDp.h"

namespace Acl {

const char* aclDpStateName(AclDpState s) {
    switch (s) {
        case aclDpPending:
            return "pending";
        case aclDpInstalled:
            return "installed";
        case aclDpFailed:
            return "failed";
    }
    return "unknown";
}

std::ostream& operator<<(std::ostream& os, AclDpState s) {
    return os << aclDpStateName(s);
}

Vorn::Ptr<StatusDp> statusDpFactory(const Vorn::Name& name) {
    return Vorn::make<StatusDp>(name);
}

}  // namespace Acl
