#include "platform/vlan/VlanPhyIntfConfig.h"

#include <stdexcept>

namespace VlanPhyIntfConfigLib {

void VlanPhyIntfConfig::checkPhyIntf(const Zamu::IntfId& intf) {
    if (!Zamu::EthIntfId::isEthIntfId(intf)) {
        throw std::invalid_argument("VlanPhyIntfConfig::phyIntf: " + intf.name() +
                                    " is not an Ethernet interface");
    }
}

Vorn::Ptr<VlanPhyIntfConfigDir> vlanPhyIntfConfigDirFactory(const Vorn::Name& name) {
    return Vorn::make<VlanPhyIntfConfigDir>(name);
}

}  // namespace VlanPhyIntfConfigLib
