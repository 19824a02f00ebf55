#include "platform/bridging/VlanId.h"

#include "platform/vorn/Exception.h"

namespace Bridging {

VlanId::VlanId(int64_t value) {
    if (value < kMin || value > kMax)
        Vorn::throwRangeError("VlanId::value < 1 or > 4094 not allowed");
    value_ = static_cast<uint16_t>(value);
}

}  // namespace Bridging
