#include "platform/interface/SubIntf.h"

#include <stdexcept>
#include <string>
#include <string_view>

namespace Interface {

namespace {

void requireSubIntf(std::string_view owner, const Zamu::IntfId& intfId) {
    if (!Zamu::SubIntfId::isSubIntfId(intfId)) {
        throw std::invalid_argument(std::string(owner) + ": " + intfId.name() +
                                    " is not a sub-interface");
    }
}

}  // namespace

SubIntfConfig::SubIntfConfig(const Zamu::IntfId& intfId) : intfId_(intfId) {
    requireSubIntf("Interface::SubIntfConfig", intfId);
}

SubIntfStatus::SubIntfStatus(const Zamu::IntfId& intfId) : intfId_(intfId) {
    requireSubIntf("Interface::SubIntfStatus", intfId);
}

Vorn::Ptr<SubIntfConfigDir> subIntfConfigDirFactory(const Vorn::Name& name) {
    return Vorn::make<SubIntfConfigDir>(name);
}

Vorn::Ptr<SubIntfStatusDir> subIntfStatusDirFactory(const Vorn::Name& name) {
    return Vorn::make<SubIntfStatusDir>(name);
}

}  // namespace Interface
