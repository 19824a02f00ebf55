#include "platform/ovin/AclIntfConfig.h"

#include <stdexcept>

#include "platform/ovin/AclConfig.h"

namespace Acl {

std::ostream& operator<<(std::ostream& os, const AclBinding& b) {
    return os << b.intf << " " << aclTypeName(b.type) << " " << aclDirectionName(b.direction);
}

void IntfConfig::appliedAclIs(const AclBinding& b, const std::string& aclName) {
    const Zamu::IntfId& i = b.intf;
    if (i.empty())
        throw std::invalid_argument("IntfConfig: '' cannot carry an ACL");
    if (Zamu::VlanIntfId::isVlanIntfId(i))
        Zamu::VlanIntfId::vlanId(i);  // the VLAN id's range error
    if (b.type != aclTypeIpv4 && b.type != aclTypeIpv6 && b.type != aclTypeMac)
        throw std::invalid_argument("IntfConfig: invalid ACL type " + std::to_string(int(b.type)));
    if (b.direction != aclDirectionIn && b.direction != aclDirectionOut) {
        throw std::invalid_argument("IntfConfig: invalid ACL direction " +
                                    std::to_string(int(b.direction)));
    }
    checkAclName(aclName);
    appliedAcl_.is(b, aclName);
}

Vorn::Ptr<IntfConfig> intfConfigFactory(const Vorn::Name& name) {
    return Vorn::make<IntfConfig>(name);
}

}  // namespace Acl
