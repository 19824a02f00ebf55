#include "platform/mirel/PDConfig.h"

namespace Mirel {

const char* xformConfigName(XformType t) {
    switch (t) {
        case xformSrcMacAddr_:
            return "chipSrcMacAddrConfig";
        case xformDstMacAddr_:
            return "chipDstMacAddrConfig";
        case xformMacEtherType_:
            return "chipMacEtherTypeConfig";
        case xformSrcIpV4Prefix_:
            return "chipSrcIpV4PrefixConfig";
        case xformDstIpV4Prefix_:
            return "chipDstIpV4PrefixConfig";
        case xformSrcIpV6Prefix_:
            return "chipSrcIpV6PrefixConfig";
        case xformDstIpV6Prefix_:
            return "chipDstIpV6PrefixConfig";
        case xformSrcPortRange_:
            return "chipSrcPortRangeConfig";
        case xformDstPortRange_:
            return "chipDstPortRangeConfig";
    }
    return nullptr;
}

std::ostream& operator<<(std::ostream& os, XformType t) {
    if (const char* name = xformConfigName(t))
        return os << name;
    return os << "xformType(" << int(t) << ")";
}

ChipConfig::ChipConfig(ChipId chipId)
    : chipId_(chipId), chipDataFlowConfig_(Vorn::make<ChipDataFlowConfig>(chipId)) {}

Vorn::Ptr<XformConfig> ChipConfig::xformConfig(XformType t) const {
    switch (t) {
        case xformSrcMacAddr_:
            return chipSrcMacAddrConfig();
        case xformDstMacAddr_:
            return chipDstMacAddrConfig();
        case xformMacEtherType_:
            return chipMacEtherTypeConfig();
        case xformSrcIpV4Prefix_:
            return chipSrcIpV4PrefixConfig();
        case xformDstIpV4Prefix_:
            return chipDstIpV4PrefixConfig();
        case xformSrcIpV6Prefix_:
            return chipSrcIpV6PrefixConfig();
        case xformDstIpV6Prefix_:
            return chipDstIpV6PrefixConfig();
        case xformSrcPortRange_:
            return chipSrcPortRangeConfig();
        case xformDstPortRange_:
            return chipDstPortRangeConfig();
    }
    return nullptr;
}

std::vector<Vorn::Subscription> ChipConfig::xformConfigNotify(
    std::function<void(XformType)> f) const {
    auto call = [f](XformType t) { return [f, t] { f(t); }; };
    std::vector<Vorn::Subscription> subs;
    subs.reserve(kXformTypeCount);
    subs.push_back(chipSrcMacAddrConfigNotify(call(xformSrcMacAddr_)));
    subs.push_back(chipDstMacAddrConfigNotify(call(xformDstMacAddr_)));
    subs.push_back(chipMacEtherTypeConfigNotify(call(xformMacEtherType_)));
    subs.push_back(chipSrcIpV4PrefixConfigNotify(call(xformSrcIpV4Prefix_)));
    subs.push_back(chipDstIpV4PrefixConfigNotify(call(xformDstIpV4Prefix_)));
    subs.push_back(chipSrcIpV6PrefixConfigNotify(call(xformSrcIpV6Prefix_)));
    subs.push_back(chipDstIpV6PrefixConfigNotify(call(xformDstIpV6Prefix_)));
    subs.push_back(chipSrcPortRangeConfigNotify(call(xformSrcPortRange_)));
    subs.push_back(chipDstPortRangeConfigNotify(call(xformDstPortRange_)));
    return subs;
}

void ChipConfig::initialize() {
    auto ensure = [](auto& field, XformType t) {
        if (!field.get())
            field.set(Vorn::make<XformConfig>(t));
    };
    ensure(chipSrcMacAddrConfig_, xformSrcMacAddr_);
    ensure(chipDstMacAddrConfig_, xformDstMacAddr_);
    ensure(chipMacEtherTypeConfig_, xformMacEtherType_);
    ensure(chipSrcIpV4PrefixConfig_, xformSrcIpV4Prefix_);
    ensure(chipDstIpV4PrefixConfig_, xformDstIpV4Prefix_);
    ensure(chipSrcIpV6PrefixConfig_, xformSrcIpV6Prefix_);
    ensure(chipDstIpV6PrefixConfig_, xformDstIpV6Prefix_);
    ensure(chipSrcPortRangeConfig_, xformSrcPortRange_);
    ensure(chipDstPortRangeConfig_, xformDstPortRange_);
    initializedIs(true);
}

Vorn::Ptr<PDConfig> pdConfigFactory(const Vorn::Name& name) {
    return Vorn::make<PDConfig>(name);
}

Vorn::Ptr<ChipConfig> chipConfigFactory(ChipId chipId) {
    return Vorn::make<ChipConfig>(chipId);
}

}  // namespace Mirel
