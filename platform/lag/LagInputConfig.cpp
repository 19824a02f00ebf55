#include "platform/lag/LagInputConfig.h"

#include "platform/vorn/Exception.h"

namespace Lag::Input {

Config::Config(const Vorn::Name& name, const Vorn::Ptr<const LagPhyIntfMapping>& lagPhyIntfMapping)
    : name_(name), lagPhyIntfMapping_(lagPhyIntfMapping) {
    Vorn::requireNonNull(lagPhyIntfMapping_, typeName(), "lagPhyIntfMapping");
}

Vorn::Ptr<Config> configFactory(const Vorn::Name& name,
                                const Vorn::Ptr<const LagPhyIntfMapping>& lagPhyIntfMapping) {
    return Vorn::make<Config>(name, lagPhyIntfMapping);
}

}  // namespace Lag::Input
