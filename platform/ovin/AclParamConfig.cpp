#include "platform/ovin/AclParamConfig.h"

#include <cmath>

#include "platform/vorn/Exception.h"

namespace Acl {

void ParamConfig::updateDelayIs(Vorn::Seconds d) {
    if (!(d >= 0.0) || !std::isfinite(d))
        Vorn::throwRangeError("ParamConfig::updateDelay < 0 or not finite not allowed");
    updateDelay_.set(d);
}

Vorn::Ptr<ParamConfig> paramConfigFactory(const Vorn::Name& name) {
    return Vorn::make<ParamConfig>(name);
}

}  // namespace Acl
