#include "platform/mirel/PDStatus.h"

#include <stdexcept>

#include "platform/vorn/Assert.h"

namespace Mirel {

IntfMapping::IntfMapping(const Zamu::IntfId& intfId, ChipId chipId) : intfId_(intfId) {
    if (!Zamu::EthIntfId::isEthIntfId(intfId)) {
        throw std::invalid_argument("Mirel::IntfMapping: " + intfId.name() +
                                    " is not an Ethernet interface");
    }
    chipIdIs(chipId);
}

std::ostream& operator<<(std::ostream& os, const XformStatus& s) {
    return os << "XformStatus{requestId=" << s.requestId << ", errorCode=" << s.errorCode
              << ", entries=" << s.entries << ", answers=" << s.answers
              << ", activeRequestId=" << s.activeRequestId << "}";
}

std::ostream& operator<<(std::ostream& os, const TableUsage& u) {
    return os << u.inUse << "/" << u.max;
}

const Vorn::Attr<XformStatus>& ChipPDStatus::xformStatusAttr(XformType t) const {
    switch (t) {
        case xformSrcMacAddr_:
            return srcMacXformStatus_;
        case xformDstMacAddr_:
            return dstMacXformStatus_;
        case xformMacEtherType_:
            return macEtherTypeXformStatus_;
        case xformSrcIpV4Prefix_:
            return srcIpV4PrefixXformStatus_;
        case xformDstIpV4Prefix_:
            return dstIpV4PrefixXformStatus_;
        case xformSrcIpV6Prefix_:
            return srcIpV6PrefixXformStatus_;
        case xformDstIpV6Prefix_:
            return dstIpV6PrefixXformStatus_;
        case xformSrcPortRange_:
            return srcPortRangeXformStatus_;
        case xformDstPortRange_:
            return dstPortRangeXformStatus_;
    }
    VORN_ASSERT_MSG(false, "xformType out of range");
}

std::vector<Vorn::Subscription> ChipPDStatus::xformStatusNotify(
    std::function<void(XformType)> f) const {
    std::vector<Vorn::Subscription> subs;
    subs.reserve(kXformTypeCount);
    for (int t = 0; t < kXformTypeCount; ++t)
        subs.push_back(xformStatusAttr(XformType(t)).notify([f, t] { f(XformType(t)); }));
    return subs;
}

Vorn::Ptr<ChipPDStatus> chipPDStatusFactory(ChipId chipId) {
    return Vorn::make<ChipPDStatus>(chipId);
}

Vorn::Ptr<PDStatus> pdStatusFactory(const Vorn::Name& name) {
    return Vorn::make<PDStatus>(name);
}

}  // namespace Mirel
