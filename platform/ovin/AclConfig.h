#pragma once
// Acl::Config: the configured ACLs, as the user wrote them. One Acl::AclConfig per ACL, keyed
// by name and type (IPv4, IPv6, MAC), holding its entries by sequence number and a per-ACL
// counters flag. Written by the configuration front end (CLI, rule text reader); the ACL
// engine (Ovin::AclSm) only reads it.
//
// Value types refuse what no rule can mean before anything is stored:
//  - Acl::PortMatch: one side's L4 port match (eq, neq, lt, gt, range) with its bounds;
//  - Acl::AclEntry: an IP rule with its two port matches, a MAC rule, or a remark, checked for
//    combinations that match nothing sensible (ports without a port-carrying protocol, TCP
//    flags without TCP, ICMP type/code without ICMP, fragments with L4 fields);
//  - AclConfig::entryIs refuses a sequence number outside 1..kMaxSequence and an entry whose
//    family does not match the ACL's type; the ACL stays as it was.

#include <compare>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/ovin/AclRuleConfig.h"
#include "platform/ovin/AclType.h"
#include "platform/vorn/Entity.h"

namespace Acl {

// The largest sequence number a user may give. The engine numbers its own implicit rules
// (and the final rule) above it, so they always come after every configured rule.
constexpr uint32_t kMaxSequence = 0xfffffeff;

enum PortOp : uint8_t {
    portOpAny = 0,  // no port match
    portOpEq = 1,
    portOpNeq = 2,
    portOpLt = 3,
    portOpGt = 4,
    portOpRange = 5,
};
const char* portOpName(PortOp op);  // "any", "eq", "neq", "lt", "gt", "range"

// An inclusive port range, the unit a port match expands into.
struct PortSpan {
    uint16_t low = 0;
    uint16_t high = 0xffff;
    bool isFull() const { return low == 0 && high == 0xffff; }
    auto operator<=>(const PortSpan&) const = default;
    bool operator==(const PortSpan&) const = default;
};

class AclEntry;

// One side's L4 port match. Range errors (Vorn::RangeException), each leaving nothing made:
//   "PortMatch::port < 0 or > 65535 not allowed"
//   "PortMatch::lt port < 1 not allowed"       (lt 0 matches no port)
//   "PortMatch::gt port > 65534 not allowed"   (gt 65535 matches no port)
//   "PortMatch::rangeLow > PortMatch::rangeHigh not allowed"
class PortMatch {
  public:
    PortMatch() = default;  // any port
    static PortMatch eq(int64_t port);
    static PortMatch neq(int64_t port);
    static PortMatch lt(int64_t port);
    static PortMatch gt(int64_t port);
    static PortMatch range(int64_t low, int64_t high);

    PortOp op() const { return op_; }
    bool isAny() const { return op_ == portOpAny; }
    // eq, neq, lt, gt: the port; range: the low end.
    uint16_t port() const { return first_; }
    uint16_t rangeLow() const { return first_; }
    uint16_t rangeHigh() const { return second_; }

    // The disjoint ranges the match covers, ascending: any, eq, lt, gt and range give one;
    // neq gives two, or one when its port is 0 or 65535.
    std::vector<PortSpan> spans() const;

    auto operator<=>(const PortMatch&) const = default;
    bool operator==(const PortMatch&) const = default;

  private:
    friend class AclEntry;  // rebuilds matches from its packed form
    PortMatch(PortOp op, uint16_t first, uint16_t second)
        : op_(op), first_(first), second_(second) {}
    PortOp op_ = portOpAny;
    uint16_t first_ = 0;
    uint16_t second_ = 0;
};

std::ostream& operator<<(std::ostream& os, const PortMatch& m);  // "eq 80", "range 1 9", "any"

// One entry of an ACL. Equality compares every field of the entry's kind.
//
// An immutable value whose copies share one body: the configuration, the engine's versions
// and its subrules all hold the same rule instead of a copy each. The body keeps the rule's
// fields packed (an IPv4 address in 4 bytes, an IPv6 mask that is a prefix as its length), so
// the accessors hand out values built from it, not references into it.
class AclEntry {
  public:
    enum class Kind : uint8_t { ip, mac, remark };

    AclEntry() = default;  // an empty remark
    AclEntry(const AclEntry& o) noexcept : body_(o.body_) { hold(); }
    AclEntry(AclEntry&& o) noexcept : body_(std::exchange(o.body_, nullptr)) {}
    AclEntry& operator=(const AclEntry& o) noexcept {
        AclEntry(o).swap(*this);
        return *this;
    }
    AclEntry& operator=(AclEntry&& o) noexcept {
        AclEntry(std::move(o)).swap(*this);
        return *this;
    }
    ~AclEntry() { release(); }

    // Throws std::invalid_argument "AclEntry: <why>" for a combination no rule can mean:
    // ports need protocol tcp, udp or sctp (132); TCP flags and established need tcp; ICMP
    // type and code need icmp (IPv4) or icmpv6 (IPv6), and a code needs a type; fragments
    // exclude ports, TCP flags, established and ICMP type.
    static AclEntry ip(const IpRuleConfig& rule, const PortMatch& source = {},
                       const PortMatch& destination = {});
    static AclEntry mac(const MacRuleConfig& rule);
    static AclEntry remark(std::string text);

    Kind kind() const;
    bool isIp() const { return kind() == Kind::ip; }
    bool isMac() const { return kind() == Kind::mac; }
    bool isRemark() const { return kind() == Kind::remark; }
    // REQUIRES: the entry is of that kind (asserted).
    IpRuleConfig ipRule() const;
    PortMatch sourcePort() const;
    PortMatch destinationPort() const;
    MacRuleConfig macRule() const;
    std::string remarkText() const;

    // Whether the two hold the one body (a copy of the other), not merely equal rules.
    bool sharesBodyWith(const AclEntry& o) const { return body_ == o.body_; }

    bool operator==(const AclEntry& o) const;

  private:
    struct Body;  // a count of the entries that hold it, then the packed fields
    explicit AclEntry(Body* body) : body_(body) {}
    static Body* make(Kind kind, uint8_t action, uint8_t flags, uint8_t masks,
                      const std::vector<uint8_t>& bytes);
    static size_t dataSize(const Body& b);
    void swap(AclEntry& o) noexcept { std::swap(body_, o.body_); }
    void hold() const;
    void release() noexcept;

    Body* body_ = nullptr;  // null: the empty remark
};

// An ACL as configured: its name and type.
struct AclConfigKey {
    std::string name;
    AclType type = aclTypeIpv4;
    auto operator<=>(const AclConfigKey&) const = default;
    bool operator==(const AclConfigKey&) const = default;
    std::string str() const;  // "<name>/<ip|ipv6|mac>"
};
std::ostream& operator<<(std::ostream& os, const AclConfigKey& k);

// Throws std::invalid_argument "invalid ACL name '<name>'" unless the name is 1 to 100
// characters of A-Z a-z 0-9 _ . : / + -.
void checkAclName(const std::string& name);

class AclConfig : public Vorn::Entity {
    VORN_ENTITY("Acl::AclConfig")
  public:
    // Throws std::invalid_argument for a bad name ("invalid ACL name '<name>'") or type
    // ("invalid ACL type <n>").
    explicit AclConfig(const AclConfigKey& key);
    const AclConfigKey& key() const { return key_; }

    // Entries by sequence number, walked in sequence order. entryIs refuses, changing nothing:
    //   a sequence outside 1..kMaxSequence: "AclConfig::entry sequence < 1 or > 4294967039 not
    //     allowed" (Vorn::RangeException);
    //   an entry of the wrong family: std::invalid_argument "AclConfig <key>: <kind> entry in
    //     a <type> ACL" (a MAC rule in an IP ACL, an IPv4 rule in an IPv6 ACL, ...).
    // Stored as one sorted vector (RuleOrdered): a configuration holds many small entries.
    using EntryField = Vorn::MapField<uint32_t, AclEntry, RuleOrdered>;
    const EntryField& entry() const { return entry_; }
    const AclEntry* entry(uint32_t seq) const { return entry_.find(seq); }
    size_t entrys() const { return entry_.size(); }
    void entryIs(int64_t seq, const AclEntry& e);
    void entryDel(uint32_t seq) { entry_.del(seq); }
    void entryDelAll() { entry_.delAll(); }
    template <class F>
    [[nodiscard]] Vorn::Subscription entryNotify(F&& f) const {
        return entry_.notify(std::forward<F>(f));
    }

    // Count every rule of the ACL in hardware.
    VORN_ATTR(bool, countersEnabled, false)

  private:
    const AclConfigKey key_;
    EntryField entry_{*this};
};

class Config : public Vorn::Entity {
    VORN_ENTITY("Acl::Config")
  public:
    explicit Config(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    VORN_ORDERED_ENTITY_MAP(AclConfigKey, AclConfig, acl)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<Config> configFactory(const Vorn::Name& name);

}  // namespace Acl
