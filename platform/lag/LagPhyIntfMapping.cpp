#include "platform/lag/LagPhyIntfMapping.h"

#include <stdexcept>

namespace Lag {

LagPhyIntfConfig::LagPhyIntfConfig(const Zamu::IntfId& lagIntfId) : lagIntfId_(lagIntfId) {
    if (!Zamu::PortChannelIntfId::isPortChannelIntfId(lagIntfId)) {
        throw std::invalid_argument("Lag::LagPhyIntfConfig: " + lagIntfId.name() +
                                    " is not a port-channel interface");
    }
}

void LagPhyIntfConfig::checkPhyIntf(const Zamu::IntfId& intf) {
    if (!Zamu::EthIntfId::isEthIntfId(intf)) {
        throw std::invalid_argument("LagPhyIntfConfig::phyIntf: " + intf.name() +
                                    " is not an Ethernet interface");
    }
}

Vorn::Ptr<LagPhyIntfMapping> lagPhyIntfMappingFactory(const Vorn::Name& name) {
    return Vorn::make<LagPhyIntfMapping>(name);
}

}  // namespace Lag
