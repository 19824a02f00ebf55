#include "platform/ovin/AclRuleConfig.h"

#include <iomanip>

#include "platform/vorn/Assert.h"
#include "platform/vorn/Exception.h"

namespace Acl {

const char* aclActionName(AclAction a) {
    switch (a) {
        case aclActionPermit:
            return "permit";
        case aclActionDeny:
            return "deny";
    }
    return "unknown";
}

void IpFilter::dscpIs(int dscp) {
    if (dscp < 0 || dscp > kDscpMax)
        Vorn::throwRangeError("IpFilter::dscp < 0 or > 63 not allowed");
    dscp_ = static_cast<uint8_t>(dscp);
    matchDscp_ = true;
}

Ip6Filter::Ip6Filter() {
    // ::/0, without reading it from text: every unpacked IPv6 rule starts here.
    const Zamu::IpAddr any = Zamu::IpAddr::mask(true, 0);
    sourceIs({any, any});
    destinationIs({any, any});
}

IpRuleConfig::IpRuleConfig(const IpFilter& f, AclAction action)
    : RuleConfig(action), filter_(std::in_place_type<IpFilter>, f) {}

IpRuleConfig::IpRuleConfig(const Ip6Filter& f, AclAction action)
    : RuleConfig(action), filter_(std::in_place_type<Ip6Filter>, f) {}

const IpFilter& IpRuleConfig::filter() const {
    return std::visit([](const IpFilter& f) -> const IpFilter& { return f; }, filter_);
}

const Ip6Filter& IpRuleConfig::ip6Filter() const {
    VORN_ASSERT(isIp6());
    return std::get<Ip6Filter>(filter_);
}

namespace {

void printHex(std::ostream& os, unsigned v) {
    os << "0x" << std::hex << v << std::dec;
}

// The fields IPv4 and IPv6 filters share, after the addresses.
void printCommon(std::ostream& os, const IpFilter& f) {
    if (f.protocol() != Zamu::IpProto(Zamu::IpProto::kAny))
        os << " proto " << f.protocol();
    if (f.matchDscp())
        os << " dscp " << int(f.dscp());
    if (f.tcpFlags()) {
        os << " tcpFlags ";
        printHex(os, f.tcpFlags());
    }
    if (f.established())
        os << " established";
    if (f.fragments())
        os << " fragments";
    if (f.matchIcmpType())
        os << " icmpType " << int(f.icmpType());
    if (f.matchIcmpCode())
        os << " icmpCode " << int(f.icmpCode());
}

void printRuleFlags(std::ostream& os, const RuleConfig& r) {
    if (r.log())
        os << " log";
    if (r.count())
        os << " count";
}

}  // namespace

std::ostream& operator<<(std::ostream& os, AclAction a) {
    return os << aclActionName(a);
}

std::ostream& operator<<(std::ostream& os, const IpFilter& f) {
    os << "ip src " << f.source() << " dst " << f.destination();
    printCommon(os, f);
    return os;
}

std::ostream& operator<<(std::ostream& os, const Ip6Filter& f) {
    os << "ipv6 src " << f.source() << " dst " << f.destination();
    printCommon(os, f);
    if (f.trafficClassMask()) {
        os << " tc ";
        printHex(os, f.trafficClass());
        os << "/";
        printHex(os, f.trafficClassMask());
    }
    return os;
}

std::ostream& operator<<(std::ostream& os, const RuleConfig& r) {
    if (auto* ip = dynamic_cast<const IpRuleConfig*>(&r))
        return os << *ip;
    if (auto* mac = dynamic_cast<const MacRuleConfig*>(&r))
        return os << *mac;
    os << r.action();
    printRuleFlags(os, r);
    return os;
}

std::ostream& operator<<(std::ostream& os, const IpRuleConfig& r) {
    os << r.action() << " ";
    if (r.isIp6()) {
        os << r.ip6Filter();
    } else {
        os << r.filter();
    }
    printRuleFlags(os, r);
    return os;
}

std::ostream& operator<<(std::ostream& os, const MacRuleConfig& r) {
    os << r.action() << " mac src " << r.source() << "/" << r.sourceMask() << " dst "
       << r.destination() << "/" << r.destinationMask();
    if (r.matchEtherType()) {
        os << " etherType ";
        printHex(os, r.etherType());
    }
    printRuleFlags(os, r);
    return os;
}

}  // namespace Acl
