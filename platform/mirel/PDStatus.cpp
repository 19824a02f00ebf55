#include "platform/mirel/PDStatus.h"

#include <stdexcept>

namespace Mirel {

IntfMapping::IntfMapping(const Zamu::IntfId& intfId, ChipId chipId) : intfId_(intfId) {
    if (!Zamu::EthIntfId::isEthIntfId(intfId)) {
        throw std::invalid_argument("Mirel::IntfMapping: " + intfId.name() +
                                    " is not an Ethernet interface");
    }
    chipIdIs(chipId);
}

Vorn::Ptr<PDStatus> pdStatusFactory(const Vorn::Name& name) {
    return Vorn::make<PDStatus>(name);
}

}  // namespace Mirel
