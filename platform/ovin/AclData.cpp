#include "platform/ovin/AclData.h"

namespace Ovin {

const char* aclCreateErrorName(AclCreateError e) {
    switch (e) {
        case aclCreateOk:
            return "Ok";
        case aclCreateFinalRuleDone:
            return "FinalRuleDone";
        case aclCreateNotSupportedByHw:
            return "NotSupportedByHw";
        case aclCreateFailed:
            return "Failed";
    }
    return "unknown";
}

std::ostream& operator<<(std::ostream& os, AclCreateError e) {
    return os << uint32_t(e);
}

std::ostream& operator<<(std::ostream& os, const AclData& d) {
    os << "aclData: " << d.key << ", dir: " << Acl::aclDirectionName(d.key.direction) << ", vlan: ";
    if (d.key.vlanId) {
        os << *d.key.vlanId;
    } else {
        os << "none";
    }
    for (const AclDataRule& r : d.rules) {
        os << ", rule# " << r.ruleNum << ", subrule# " << r.subruleNum << ", aclRuleId=" << r.id;
    }
    return os;
}

}  // namespace Ovin
