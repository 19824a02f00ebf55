#include "platform/mirel/ChipDataFlowConfig.h"

#include <algorithm>

#include "platform/vorn/Exception.h"
#include "platform/vorn/Hash.h"

namespace Mirel {

HwAclIndex::HwAclIndex(int64_t value) {
    if (value < 0 || value > kMax) {
        Vorn::throwRangeError("HwAclIndex::value < 0 or > 65535 not allowed");
    }
    value_ = static_cast<uint16_t>(value);
}

std::ostream& operator<<(std::ostream& os, const ChipRuleListIdKey& k) {
    return os << "ChipRuleListIdKey{hwAclIndex=" << k.hwAclIndex()
              << ", tableType=" << k.tableType()
              << ", direction=" << Acl::aclDirectionName(k.direction())
              << ", protocolType=" << k.protocolType() << "}";
}

bool ChipDataFlowConfig::mappingsEqual(const ChipDataFlowConfig& other) const {
    return std::ranges::equal(intfToHwAclIndex(), other.intfToHwAclIndex()) &&
           std::ranges::equal(routedPortToHwAclIndex(), other.routedPortToHwAclIndex()) &&
           std::ranges::equal(vlanToHwAclIndex(), other.vlanToHwAclIndex()) &&
           std::ranges::equal(subIntfToHwAclIndex(), other.subIntfToHwAclIndex()) &&
           std::ranges::equal(chipRuleListKeyToId(), other.chipRuleListKeyToId());
}

void ChipDataFlowConfig::mappingsDelAll() {
    intfToHwAclIndexDelAll();
    routedPortToHwAclIndexDelAll();
    vlanToHwAclIndexDelAll();
    subIntfToHwAclIndexDelAll();
    chipRuleListKeyToIdDelAll();
}

Vorn::Ptr<ChipDataFlowConfig> chipDataFlowConfigFactory(ChipId chipId) {
    return Vorn::make<ChipDataFlowConfig>(chipId);
}

Vorn::Ptr<ChipDataFlowConfig> chipDataFlowTablesCopy(const ChipDataFlowConfig& from) {
    Vorn::Ptr<ChipDataFlowConfig> to = chipDataFlowConfigFactory(from.chipId());
    for (const auto& [k, v] : from.intfToHwAclIndex())
        to->intfToHwAclIndexIs(k, v);
    for (const auto& [k, v] : from.routedPortToHwAclIndex())
        to->routedPortToHwAclIndexIs(k, v);
    for (const auto& [k, v] : from.vlanToHwAclIndex())
        to->vlanToHwAclIndexIs(k, v);
    for (const auto& [k, v] : from.subIntfToHwAclIndex())
        to->subIntfToHwAclIndexIs(k, v);
    for (const auto& [k, v] : from.chipRuleListKeyToId())
        to->chipRuleListKeyToIdIs(k, v);
    return to;
}

}  // namespace Mirel

size_t std::hash<Mirel::ChipRuleListIdKey>::operator()(
    const Mirel::ChipRuleListIdKey& k) const noexcept {
    return Vorn::hashOf(k.hwAclIndex().value(), uint8_t(k.tableType()), uint8_t(k.direction()),
                        uint8_t(k.protocolType()));
}
