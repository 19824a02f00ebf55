#pragma once
// The ACL engine's rule types: one configured ACL rule as the engine hands it to the helper.
//
//   IpFilter       what an IPv4 rule matches (addresses under masks, protocol, DSCP, TCP flags,
//                  ICMP type/code, fragments, established)
//   Ip6Filter      the same for IPv6, plus the traffic-class byte under its mask
//   RuleConfig     what every rule does: permit or deny, log, count
//   IpRuleConfig   a RuleConfig with an IpFilter or an Ip6Filter
//   MacRuleConfig  a RuleConfig matching Ethernet addresses under masks and the ether type
//
// Value types: copies are independent, equality compares every field. A DSCP outside 0..63 is
// refused with the range error "IpFilter::dscp < 0 or > 63 not allowed" and leaves the filter
// as it was. L4 ports are not part of the filter: the engine expands port matches into
// subrules and hands each subrule's port values to the helper separately.

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <utility>
#include <variant>
#include <vector>

#include "platform/zamu/Addr.h"

namespace Acl {

enum AclAction : uint8_t { aclActionPermit = 0, aclActionDeny = 1 };
const char* aclActionName(AclAction a);  // "permit", "deny", or "unknown"

// TCP flag bits as they sit in the TCP header's flags byte.
constexpr uint8_t kTcpFin = 0x01;
constexpr uint8_t kTcpSyn = 0x02;
constexpr uint8_t kTcpRst = 0x04;
constexpr uint8_t kTcpPsh = 0x08;
constexpr uint8_t kTcpAck = 0x10;
constexpr uint8_t kTcpUrg = 0x20;
constexpr uint8_t kAllTcpFlags = 0x3f;

// An IPv4 match. The default matches every packet: 0.0.0.0/0 both ways, any protocol.
class IpFilter {
  public:
    static constexpr int kDscpMax = 63;

    IpFilter() = default;

    // Address and mask; the mask need not be a prefix (hardware decides whether it can match).
    const Zamu::IpAddrWithMask& source() const { return source_; }
    void sourceIs(const Zamu::IpAddrWithMask& s) { source_ = s; }
    const Zamu::IpAddrWithMask& destination() const { return destination_; }
    void destinationIs(const Zamu::IpAddrWithMask& d) { destination_ = d; }

    // Protocol 0 (IpProto::kAny) matches every protocol.
    Zamu::IpProto protocol() const { return protocol_; }
    void protocolIs(Zamu::IpProto p) { protocol_ = p; }

    // DSCP match: dscpIs sets the value and turns the match on; dscpDel turns it off.
    uint8_t dscp() const { return dscp_; }
    bool matchDscp() const { return matchDscp_; }
    void dscpIs(int dscp);
    void dscpDel() {
        dscp_ = 0;
        matchDscp_ = false;
    }

    // The configured TCP flags (kTcp... bits) every matching segment must carry.
    uint8_t tcpFlags() const { return tcpFlags_; }
    void tcpFlagsIs(uint8_t f) { tcpFlags_ = f; }
    // Matches TCP segments of an established connection (ACK or RST set).
    bool established() const { return established_; }
    void establishedIs(bool e) { established_ = e; }
    // Matches non-initial fragments only.
    bool fragments() const { return fragments_; }
    void fragmentsIs(bool f) { fragments_ = f; }

    uint8_t icmpType() const { return icmpType_; }
    bool matchIcmpType() const { return matchIcmpType_; }
    void icmpTypeIs(uint8_t t) {
        icmpType_ = t;
        matchIcmpType_ = true;
    }
    void icmpTypeDel() {
        icmpType_ = 0;
        matchIcmpType_ = false;
    }
    uint8_t icmpCode() const { return icmpCode_; }
    bool matchIcmpCode() const { return matchIcmpCode_; }
    void icmpCodeIs(uint8_t c) {
        icmpCode_ = c;
        matchIcmpCode_ = true;
    }
    void icmpCodeDel() {
        icmpCode_ = 0;
        matchIcmpCode_ = false;
    }

    bool operator==(const IpFilter&) const = default;

  private:
    Zamu::IpAddrWithMask source_;
    Zamu::IpAddrWithMask destination_;
    Zamu::IpProto protocol_;
    uint8_t dscp_ = 0;
    bool matchDscp_ = false;
    uint8_t tcpFlags_ = 0;
    bool established_ = false;
    bool fragments_ = false;
    uint8_t icmpType_ = 0;
    bool matchIcmpType_ = false;
    uint8_t icmpCode_ = 0;
    bool matchIcmpCode_ = false;
};

// An IPv6 match. The default matches every packet: ::/0 both ways, any next header, no
// traffic-class match.
class Ip6Filter : public IpFilter {
  public:
    Ip6Filter();

    // The traffic-class byte (DSCP in its upper six bits, ECN in its lower two) under a mask;
    // mask 0 means no traffic-class match.
    uint8_t trafficClass() const { return trafficClass_; }
    uint8_t trafficClassMask() const { return trafficClassMask_; }
    void trafficClassIs(uint8_t value, uint8_t mask) {
        trafficClass_ = value;
        trafficClassMask_ = mask;
    }

    bool operator==(const Ip6Filter&) const = default;

  private:
    uint8_t trafficClass_ = 0;
    uint8_t trafficClassMask_ = 0;
};

// What every rule does. The base the engine passes to the rule-creation operations; the
// concrete rule is an IpRuleConfig or a MacRuleConfig.
class RuleConfig {
  public:
    RuleConfig() = default;
    explicit RuleConfig(AclAction action) : action_(action) {}
    RuleConfig(const RuleConfig&) = default;
    RuleConfig& operator=(const RuleConfig&) = default;
    virtual ~RuleConfig() = default;

    AclAction action() const { return action_; }
    void actionIs(AclAction a) { action_ = a; }
    bool log() const { return log_; }
    void logIs(bool l) { log_ = l; }
    bool count() const { return count_; }
    void countIs(bool c) { count_ = c; }

    bool operator==(const RuleConfig&) const = default;

  private:
    AclAction action_ = aclActionPermit;
    bool log_ = false;
    bool count_ = false;
};

// An IP rule: IPv4 (IpFilter) or IPv6 (Ip6Filter). The ACL type decides which one the helper
// reads; `filter()` is the part both families share.
class IpRuleConfig : public RuleConfig {
  public:
    IpRuleConfig() = default;
    explicit IpRuleConfig(const IpFilter& f, AclAction action = aclActionPermit);
    explicit IpRuleConfig(const Ip6Filter& f, AclAction action = aclActionPermit);

    bool isIp6() const { return std::holds_alternative<Ip6Filter>(filter_); }
    const IpFilter& filter() const;
    // REQUIRES: isIp6() (asserted).
    const Ip6Filter& ip6Filter() const;
    void filterIs(const IpFilter& f) { filter_.emplace<IpFilter>(f); }
    void filterIs(const Ip6Filter& f) { filter_.emplace<Ip6Filter>(f); }

    bool operator==(const IpRuleConfig&) const = default;

  private:
    std::variant<IpFilter, Ip6Filter> filter_;
};

// A MAC rule: source and destination Ethernet addresses under masks (an all-zero mask matches
// every address) and, optionally, the ether type.
class MacRuleConfig : public RuleConfig {
  public:
    MacRuleConfig() = default;
    explicit MacRuleConfig(AclAction action) : RuleConfig(action) {}

    const Zamu::EthAddr& source() const { return source_; }
    const Zamu::EthAddr& sourceMask() const { return sourceMask_; }
    void sourceIs(const Zamu::EthAddr& addr, const Zamu::EthAddr& mask) {
        source_ = addr;
        sourceMask_ = mask;
    }
    const Zamu::EthAddr& destination() const { return destination_; }
    const Zamu::EthAddr& destinationMask() const { return destinationMask_; }
    void destinationIs(const Zamu::EthAddr& addr, const Zamu::EthAddr& mask) {
        destination_ = addr;
        destinationMask_ = mask;
    }
    uint16_t etherType() const { return etherType_; }
    bool matchEtherType() const { return matchEtherType_; }
    void etherTypeIs(uint16_t t) {
        etherType_ = t;
        matchEtherType_ = true;
    }
    void etherTypeDel() {
        etherType_ = 0;
        matchEtherType_ = false;
    }

    bool operator==(const MacRuleConfig&) const = default;

  private:
    Zamu::EthAddr source_;
    Zamu::EthAddr sourceMask_;
    Zamu::EthAddr destination_;
    Zamu::EthAddr destinationMask_;
    uint16_t etherType_ = 0;
    bool matchEtherType_ = false;
};

// Storage for a collection of rules kept in rule order (a configured ACL's entries by sequence
// number, the store's hardware rules by their index): one sorted vector instead of a node per
// rule, for collections written mostly in ascending order and walked in order. A write in the
// middle moves the rules after it.
//
// snapshot() hands out the vector itself, shared, and the next write copies it first, so a
// snapshot never changes: a rule list can hold the rules the collection holds without a copy
// of its own while the collection stays as it is.
//
// Unlike a node-based map, every write invalidates iterators and pointers into the collection.
// Used as a Vorn collection's container (RuleOrdered below).
template <class K, class V>
class RuleVector {
  public:
    using key_type = K;
    using mapped_type = V;
    using value_type = std::pair<K, V>;
    using key_compare = std::less<K>;
    using Rules = std::vector<value_type>;
    using iterator = typename Rules::iterator;
    using const_iterator = typename Rules::const_iterator;
    // A removed entry, kept by the collection until its watchers have been told.
    struct node_type {
        value_type value;
        const K& key() const { return value.first; }
        ~node_type() {}  // not trivial: holding one is a use, as with a map's node handle
    };

    size_t size() const { return rules_ ? rules_->size() : 0; }
    bool empty() const { return size() == 0; }
    const_iterator begin() const { return read().begin(); }
    const_iterator end() const { return read().end(); }
    const_iterator find(const K& k) const { return find(read(), k); }

    // Writers: each takes the vector for itself first.
    iterator begin() { return write().begin(); }
    iterator end() { return write().end(); }
    iterator find(const K& k) { return find(write(), k); }
    std::pair<iterator, bool> try_emplace(const K& k, const V& v) {
        Rules& rules = write();
        auto it = lowerBound(rules, k);
        if (it != rules.end() && it->first == k)
            return {it, false};
        return {rules.emplace(it, k, v), true};
    }
    iterator emplace(const K& k, V&& v) {
        Rules& rules = write();
        return rules.emplace(lowerBound(rules, k), k, std::move(v));
    }
    node_type extract(const_iterator it) {
        Rules& rules = write();
        const auto at = rules.begin() + (it - rules.cbegin());
        node_type node{std::move(*at)};
        rules.erase(at);
        return node;
    }

    // The rules as they are now, shared until the next write. Trims the vector's spare
    // capacity first, since the snapshot keeps it as long as it lives.
    std::shared_ptr<const Rules> snapshot() const {
        if (!rules_)
            rules_ = std::make_shared<Rules>();
        else if (rules_.use_count() == 1)
            rules_->shrink_to_fit();
        return rules_;
    }

  private:
    static const Rules& none() {
        static const Rules kNone;
        return kNone;
    }
    const Rules& read() const { return rules_ ? *rules_ : none(); }
    Rules& write() {
        if (!rules_)
            rules_ = std::make_shared<Rules>();
        else if (rules_.use_count() > 1)
            rules_ = std::make_shared<Rules>(*rules_);  // a snapshot holds the old one
        return *rules_;
    }
    template <class R>
    static auto lowerBound(R& rules, const K& k) {
        return std::lower_bound(rules.begin(), rules.end(), k,
                                [](const value_type& e, const K& key) { return e.first < key; });
    }
    template <class R>
    static auto find(R& rules, const K& k) {
        auto it = lowerBound(rules, k);
        return it != rules.end() && it->first == k ? it : rules.end();
    }

    // Shared with the snapshots taken; trimming it (snapshot) changes nothing a reader sees.
    mutable std::shared_ptr<Rules> rules_;
};

// The container choice of a Vorn map collection that keeps rules (Vorn::MapField<K, V,
// RuleOrdered>): ordered by key, stored as a RuleVector.
struct RuleOrdered {
    template <class K, class V>
    using Map = RuleVector<K, V>;
};

std::ostream& operator<<(std::ostream& os, AclAction a);
std::ostream& operator<<(std::ostream& os, const IpFilter& f);
std::ostream& operator<<(std::ostream& os, const Ip6Filter& f);
// Prints the concrete rule (IP or MAC) whatever the static type.
std::ostream& operator<<(std::ostream& os, const RuleConfig& r);
std::ostream& operator<<(std::ostream& os, const IpRuleConfig& r);
std::ostream& operator<<(std::ostream& os, const MacRuleConfig& r);

}  // namespace Acl
