#pragma once
// The hardware layer's rule types: what one ACL entry of a chip can match and do. The ACL
// helper translates the engine's rules into these; the ACL store keeps them by AceIndex.

#include <compare>
#include <cstdint>
#include <ostream>

#include "platform/ovin/AclType.h"
#include "platform/zamu/Addr.h"

namespace Mirel {

// An inclusive L4 port range; 0..65535 matches every port. A start above the end is refused
// with the range error "L4PortRange::rangeStart > L4PortRange::rangeEnd not allowed".
class L4PortRange {
  public:
    L4PortRange() = default;
    L4PortRange(uint16_t start, uint16_t end);
    uint16_t rangeStart() const { return start_; }
    uint16_t rangeEnd() const { return end_; }
    bool isFull() const { return start_ == 0 && end_ == 0xffff; }
    auto operator<=>(const L4PortRange&) const = default;
    bool operator==(const L4PortRange&) const = default;

  private:
    uint16_t start_ = 0;
    uint16_t end_ = 0xffff;
};

// Position of one hardware entry within its ACL. Entries are programmed in ascending order:
// by rule number, then subrule number (the engine's expansion order within a rule); the rule's
// unique id only separates entries that would otherwise collide.
struct AceIndex {
    uint32_t ruleNum = 0;
    uint32_t subruleNum = 0;
    Acl::UniqueId uniqueId;
    auto operator<=>(const AceIndex&) const = default;
    bool operator==(const AceIndex&) const = default;
};

enum class AceAction : uint8_t { permit = 0, deny = 1 };

// What an IP entry matches. Fields with a `match...` flag are ignored when the flag is off.
// The flags are bits: the store and every rule list hold a filter per entry.
struct IpRuleFilter {
    Zamu::IpAddrWithMask source;  // mask 0 matches every address
    Zamu::IpAddrWithMask destination;
    Zamu::IpProto protocol;  // 0 with matchProtocol false: any protocol
    uint8_t dscp = 0;
    uint8_t tcpFlags = 0;  // every flag set here must be set in the packet
    uint8_t icmpType = 0;
    uint8_t icmpCode = 0;
    bool ipv6 : 1 = false;
    bool matchProtocol : 1 = false;
    bool matchDscp : 1 = false;
    bool matchFragments : 1 = false;  // non-initial fragments only
    bool established : 1 = false;     // TCP ACK or RST set (an established connection)
    bool matchIcmpType : 1 = false;
    bool matchIcmpCode : 1 = false;
    auto operator<=>(const IpRuleFilter&) const = default;
    bool operator==(const IpRuleFilter&) const = default;
};

struct IpRuleConfig {
    IpRuleFilter filter;
    AceAction action = AceAction::permit;
    L4PortRange sourcePort;
    L4PortRange destinationPort;
    bool log = false;
    bool count = false;
    auto operator<=>(const IpRuleConfig&) const = default;
    bool operator==(const IpRuleConfig&) const = default;
};

struct MacRuleConfig {
    Zamu::EthAddr source;
    Zamu::EthAddr sourceMask;  // all zero matches every address
    Zamu::EthAddr destination;
    Zamu::EthAddr destinationMask;
    uint16_t etherType = 0;
    bool matchEtherType = false;
    AceAction action = AceAction::permit;
    bool log = false;
    bool count = false;
    auto operator<=>(const MacRuleConfig&) const = default;
    bool operator==(const MacRuleConfig&) const = default;
};

std::ostream& operator<<(std::ostream& os, const L4PortRange& r);
std::ostream& operator<<(std::ostream& os, const AceIndex& i);
std::ostream& operator<<(std::ostream& os, AceAction a);
std::ostream& operator<<(std::ostream& os, const IpRuleFilter& f);
std::ostream& operator<<(std::ostream& os, const IpRuleConfig& r);
std::ostream& operator<<(std::ostream& os, const MacRuleConfig& r);

}  // namespace Mirel
