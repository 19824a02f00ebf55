#include "platform/mirel/AclRule.h"

#include <iomanip>

#include "platform/vorn/Exception.h"

namespace Mirel {

L4PortRange::L4PortRange(uint16_t start, uint16_t end) : start_(start), end_(end) {
    if (start > end)
        Vorn::throwRangeError("L4PortRange::rangeStart > L4PortRange::rangeEnd not allowed");
}

std::ostream& operator<<(std::ostream& os, const L4PortRange& r) {
    return os << r.rangeStart() << "-" << r.rangeEnd();
}

std::ostream& operator<<(std::ostream& os, const AceIndex& i) {
    return os << i.ruleNum << "." << i.subruleNum << "(" << i.uniqueId << ")";
}

std::ostream& operator<<(std::ostream& os, AceAction a) {
    return os << (a == AceAction::permit ? "permit" : "deny");
}

std::ostream& operator<<(std::ostream& os, const IpRuleFilter& f) {
    os << (f.ipv6 ? "ipv6" : "ip") << " src " << f.source << " dst " << f.destination;
    if (f.matchProtocol)
        os << " proto " << f.protocol;
    if (f.matchDscp)
        os << " dscp " << int(f.dscp);
    if (f.matchFragments)
        os << " fragments";
    if (f.tcpFlags)
        os << " tcpFlags 0x" << std::hex << int(f.tcpFlags) << std::dec;
    if (f.established)
        os << " established";
    if (f.matchIcmpType)
        os << " icmpType " << int(f.icmpType);
    if (f.matchIcmpCode)
        os << " icmpCode " << int(f.icmpCode);
    return os;
}

std::ostream& operator<<(std::ostream& os, const IpRuleConfig& r) {
    os << r.action << " " << r.filter;
    if (!r.sourcePort.isFull())
        os << " sport " << r.sourcePort;
    if (!r.destinationPort.isFull())
        os << " dport " << r.destinationPort;
    if (r.log)
        os << " log";
    if (r.count)
        os << " count";
    return os;
}

std::ostream& operator<<(std::ostream& os, const MacRuleConfig& r) {
    os << r.action << " mac src " << r.source << "/" << r.sourceMask << " dst " << r.destination
       << "/" << r.destinationMask;
    if (r.matchEtherType)
        os << " etherType 0x" << std::hex << r.etherType << std::dec;
    if (r.log)
        os << " log";
    if (r.count)
        os << " count";
    return os;
}

}  // namespace Mirel
