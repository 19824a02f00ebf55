#include "platform/bridging/BridgingConfig.h"

namespace Bridging {

Vorn::Ptr<Config> configFactory(const Vorn::Name& name) {
    return Vorn::make<Config>(name);
}

}  // namespace Bridging
