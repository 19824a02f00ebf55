#include "platform/vlan/VlanPhyIntfConfig.h"

#include <stdexcept>

namespace VlanPhyIntfConfigLib {

void VlanPhyIntfConfig::phyIntfIs(const Zamu::IntfId& intf, bool member) {
    if (member && !Zamu::EthIntfId::isEthIntfId(intf)) {
        throw std::invalid_argument("VlanPhyIntfConfig::phyIntf: " + intf.name() +
                                    " is not an Ethernet interface");
    }
    phyIntf_.is(intf, member);
}

Vorn::Ptr<VlanPhyIntfConfigDir> vlanPhyIntfConfigDirFactory(const Vorn::Name& name) {
    return Vorn::make<VlanPhyIntfConfigDir>(name);
}

}  // namespace VlanPhyIntfConfigLib
