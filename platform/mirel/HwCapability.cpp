#include "platform/mirel/HwCapability.h"

#include <algorithm>

#include "platform/vorn/Exception.h"

namespace Mirel {

AclTypeCombinationBitMask::AclTypeCombinationBitMask(uint32_t value) {
    if (value > kMax)
        Vorn::throwRangeError("AclTypeCombinationBitMask::value > 0x3ff not allowed");
    value_ = static_cast<uint16_t>(value);
}

std::ostream& operator<<(std::ostream& os, AclTypeCombinationBitMask m) {
    return os << "0x" << std::hex << m.value() << std::dec;
}

std::ostream& operator<<(std::ostream& os, AclTypePriority p) {
    return os << p.value;
}

uint32_t ChipHwCapability::ruleListIdCount() const {
    const uint32_t last = std::min<uint32_t>(chipRuleListIdMax(), 255);
    return last + 1 - (chipRuleListIdReservedPermitAll() <= last ? 1 : 0);
}

HwCapabilityColl::HwCapabilityColl(const Vorn::Name& name)
    : name_(name), hwCapability_(Vorn::make<HwCapability>(kHwCapabilityName)) {}

Vorn::Ptr<HwCapabilityColl> hwCapabilityCollFactory(const Vorn::Name& name) {
    return Vorn::make<HwCapabilityColl>(name);
}

Vorn::Ptr<HwCapability> hwCapabilityFactory(const Vorn::Name& name) {
    return Vorn::make<HwCapability>(name);
}

}  // namespace Mirel
