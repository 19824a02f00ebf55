#include "ovinmirel/acl/OvinMirelAcl.h"

#include "platform/vorn/Assert.h"

namespace OvinMirel {

OvinMirelAcl::IntfSet OvinMirelAcl::aclIntfSetFor(const Zamu::IntfId& intf) {
    if (Zamu::SubIntfId::isSubIntfId(intf))
        return IntfSet::sub;
    if (Zamu::VlanIntfId::isVlanIntfId(intf))
        return IntfSet::vlan;
    if (Zamu::EthIntfId::isEthIntfId(intf))
        return IntfSet::eth;
    VORN_ASSERT(false && "Internal Error");
}

void OvinMirelAcl::intfIs(const Zamu::IntfId& intf, bool member) {
    switch (aclIntfSetFor(intf)) {
        case IntfSet::sub:
            subIntfIs(intf, member);
            break;
        case IntfSet::vlan:
            vlanIntfIs(intf, member);
            break;
        case IntfSet::eth:
            ethIntfIs(intf, member);
            break;
    }
}

Vorn::Ptr<OvinMirelAclColl> ovinMirelAclCollFactory(const Vorn::Name& name) {
    return Vorn::make<OvinMirelAclColl>(name);
}

}  // namespace OvinMirel
