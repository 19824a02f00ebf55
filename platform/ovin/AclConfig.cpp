#include "platform/ovin/AclConfig.h"

#include <algorithm>
#include <new>
#include <stdexcept>
#include <vector>

#include "platform/vorn/Assert.h"
#include "platform/vorn/Exception.h"

namespace Acl {

namespace {

constexpr int64_t kMaxPort = 0xffff;

uint16_t checkedPort(int64_t port) {
    if (port < 0 || port > kMaxPort)
        Vorn::throwRangeError("PortMatch::port < 0 or > 65535 not allowed");
    return static_cast<uint16_t>(port);
}

[[noreturn]] void refuseEntry(const std::string& why) {
    throw std::invalid_argument("AclEntry: " + why);
}

const char* entryKindName(const AclEntry& e) {
    if (e.isMac())
        return "MAC";
    if (e.isRemark())
        return "remark";
    return e.ipRule().isIp6() ? "IPv6" : "IPv4";
}

bool entryFitsType(const AclEntry& e, AclType type) {
    switch (e.kind()) {
        case AclEntry::Kind::remark:
            return true;
        case AclEntry::Kind::mac:
            return type == aclTypeMac;
        case AclEntry::Kind::ip:
            return type == (e.ipRule().isIp6() ? aclTypeIpv6 : aclTypeIpv4);
    }
    return false;
}

}  // namespace

// ---- AclEntry's packed body ----
//
// Eight bytes of header, then the kind's fields as bytes:
//   IP:     protocol, DSCP, TCP flags, ICMP type, ICMP code; each port match as its operator
//           and two 16-bit values; for IPv6 the traffic class and its mask; then the source
//           and the destination, each an address (4 or 16 bytes) and its mask (as many bytes,
//           or for an IPv6 mask that is a prefix one byte: its length);
//   MAC:    the ether type (16 bits), source, source mask, destination, destination mask;
//   remark: the text's length (32 bits), then the text.
// Every field is kept, also one whose match flag is off, so equal rules pack to equal bytes.
struct AclEntry::Body {
    uint32_t refs;
    Kind kind;
    uint8_t action;
    uint8_t flags;  // kLog ... kMatchIcmpCode; kMatchEtherType for MAC
    uint8_t masks;  // kSourcePrefix, kDestinationPrefix
    uint8_t* data() { return reinterpret_cast<uint8_t*>(this) + sizeof(Body); }
    const uint8_t* data() const { return reinterpret_cast<const uint8_t*>(this) + sizeof(Body); }
};

namespace {

constexpr uint8_t kLog = 0x01, kCount = 0x02, kIp6 = 0x04, kMatchDscp = 0x08, kEstablished = 0x10,
                  kFragments = 0x20, kMatchIcmpType = 0x40, kMatchIcmpCode = 0x80;
constexpr uint8_t kMatchEtherType = 0x04;
constexpr uint8_t kSourcePrefix = 0x01, kDestinationPrefix = 0x02;
// Where the IP fields sit in the data.
constexpr size_t kSourcePortAt = 5, kDestinationPortAt = 10, kIpAddressesAt = 15;

class Packer {
  public:
    // Room for every kind but a long remark: an IPv6 rule with both masks in full takes 81.
    Packer() { bytes_.reserve(96); }
    void u8(uint8_t v) { bytes_.push_back(v); }
    void u16(uint16_t v) {
        u8(static_cast<uint8_t>(v >> 8));
        u8(static_cast<uint8_t>(v));
    }
    void u32(uint32_t v) {
        u16(static_cast<uint16_t>(v >> 16));
        u16(static_cast<uint16_t>(v));
    }
    void raw(const uint8_t* p, size_t n) { bytes_.insert(bytes_.end(), p, p + n); }
    // An address and its mask; returns whether the mask went as a prefix length.
    bool address(const Zamu::IpAddrWithMask& a, bool v6) {
        const size_t n = v6 ? 16 : 4;
        raw(a.addr.bytes().data(), n);
        if (v6 && a.mask.isContiguousMask()) {
            u8(static_cast<uint8_t>(a.mask.prefixLength()));
            return true;
        }
        raw(a.mask.bytes().data(), n);
        return false;
    }
    const std::vector<uint8_t>& bytes() const { return bytes_; }

  private:
    std::vector<uint8_t> bytes_;
};

class Unpacker {
  public:
    explicit Unpacker(const uint8_t* p) : p_(p) {}
    uint8_t u8() { return *p_++; }
    uint16_t u16() {
        const uint16_t hi = u8();
        return static_cast<uint16_t>(hi << 8 | u8());
    }
    uint32_t u32() {
        const uint32_t hi = u16();
        return hi << 16 | u16();
    }
    const uint8_t* raw(size_t n) { return std::exchange(p_, p_ + n); }
    Zamu::IpAddrWithMask address(bool v6, bool prefix) {
        const Zamu::IpAddr addr = Zamu::IpAddr::fromBytes(v6, raw(v6 ? 16 : 4));
        if (prefix)
            return {addr, Zamu::IpAddr::mask(v6, u8())};
        return {addr, Zamu::IpAddr::fromBytes(v6, raw(v6 ? 16 : 4))};
    }
    Zamu::EthAddr eth() { return Zamu::EthAddr::fromBytes(raw(6)); }

  private:
    const uint8_t* p_;
};

}  // namespace

const char* portOpName(PortOp op) {
    switch (op) {
        case portOpAny:
            return "any";
        case portOpEq:
            return "eq";
        case portOpNeq:
            return "neq";
        case portOpLt:
            return "lt";
        case portOpGt:
            return "gt";
        case portOpRange:
            return "range";
    }
    return "unknown";
}

PortMatch PortMatch::eq(int64_t port) {
    return PortMatch(portOpEq, checkedPort(port), 0);
}

PortMatch PortMatch::neq(int64_t port) {
    return PortMatch(portOpNeq, checkedPort(port), 0);
}

PortMatch PortMatch::lt(int64_t port) {
    const uint16_t p = checkedPort(port);
    if (p < 1)
        Vorn::throwRangeError("PortMatch::lt port < 1 not allowed");
    return PortMatch(portOpLt, p, 0);
}

PortMatch PortMatch::gt(int64_t port) {
    const uint16_t p = checkedPort(port);
    if (p > kMaxPort - 1)
        Vorn::throwRangeError("PortMatch::gt port > 65534 not allowed");
    return PortMatch(portOpGt, p, 0);
}

PortMatch PortMatch::range(int64_t low, int64_t high) {
    const uint16_t lo = checkedPort(low);
    const uint16_t hi = checkedPort(high);
    if (lo > hi)
        Vorn::throwRangeError("PortMatch::rangeLow > PortMatch::rangeHigh not allowed");
    return PortMatch(portOpRange, lo, hi);
}

std::vector<PortSpan> PortMatch::spans() const {
    switch (op_) {
        case portOpAny:
            return {PortSpan{}};
        case portOpEq:
            return {PortSpan{first_, first_}};
        case portOpLt:
            return {PortSpan{0, static_cast<uint16_t>(first_ - 1)}};
        case portOpGt:
            return {PortSpan{static_cast<uint16_t>(first_ + 1), 0xffff}};
        case portOpRange:
            return {PortSpan{first_, second_}};
        case portOpNeq: {
            std::vector<PortSpan> out;
            if (first_ > 0)
                out.push_back(PortSpan{0, static_cast<uint16_t>(first_ - 1)});
            if (first_ < kMaxPort)
                out.push_back(PortSpan{static_cast<uint16_t>(first_ + 1), 0xffff});
            return out;
        }
    }
    return {};
}

std::ostream& operator<<(std::ostream& os, const PortMatch& m) {
    os << portOpName(m.op());
    if (m.op() == portOpRange)
        return os << " " << m.rangeLow() << " " << m.rangeHigh();
    if (m.op() != portOpAny)
        os << " " << m.port();
    return os;
}

AclEntry AclEntry::ip(const IpRuleConfig& rule, const PortMatch& source,
                      const PortMatch& destination) {
    const IpFilter& f = rule.filter();
    const bool v6 = rule.isIp6();
    if (f.source().addr.isV6() != v6 || f.source().mask.isV6() != v6 ||
        f.destination().addr.isV6() != v6 || f.destination().mask.isV6() != v6) {
        refuseEntry(v6 ? "IPv4 address in an IPv6 rule" : "IPv6 address in an IPv4 rule");
    }
    const bool ports = !source.isAny() || !destination.isAny();
    if (ports && !f.protocol().hasPorts())
        refuseEntry("ports need protocol tcp, udp or sctp (132)");
    const bool tcpOptions = f.tcpFlags() != 0 || f.established();
    if (tcpOptions && f.protocol() != Zamu::IpProto(Zamu::IpProto::kTcp))
        refuseEntry("TCP flags and established need protocol tcp");
    if (f.tcpFlags() & ~kAllTcpFlags)
        refuseEntry("unknown TCP flag bits");
    const Zamu::IpProto icmp(v6 ? Zamu::IpProto::kIcmp6 : Zamu::IpProto::kIcmp);
    if ((f.matchIcmpType() || f.matchIcmpCode()) && f.protocol() != icmp)
        refuseEntry("ICMP type and code need protocol icmp (IPv4) or icmpv6 (IPv6)");
    if (f.matchIcmpCode() && !f.matchIcmpType())
        refuseEntry("an ICMP code needs an ICMP type");
    if (f.fragments() && (ports || tcpOptions || f.matchIcmpType()))
        refuseEntry("fragments cannot be combined with ports, TCP flags or ICMP type");

    const uint8_t flags = (rule.log() ? kLog : 0) | (rule.count() ? kCount : 0) | (v6 ? kIp6 : 0) |
                          (f.matchDscp() ? kMatchDscp : 0) | (f.established() ? kEstablished : 0) |
                          (f.fragments() ? kFragments : 0) |
                          (f.matchIcmpType() ? kMatchIcmpType : 0) |
                          (f.matchIcmpCode() ? kMatchIcmpCode : 0);
    Packer out;
    out.u8(f.protocol().value());
    out.u8(f.dscp());
    out.u8(f.tcpFlags());
    out.u8(f.icmpType());
    out.u8(f.icmpCode());
    for (const PortMatch* m : {&source, &destination}) {
        out.u8(m->op_);
        out.u16(m->first_);
        out.u16(m->second_);
    }
    if (v6) {
        out.u8(rule.ip6Filter().trafficClass());
        out.u8(rule.ip6Filter().trafficClassMask());
    }
    uint8_t masks = 0;
    if (out.address(f.source(), v6))
        masks |= kSourcePrefix;
    if (out.address(f.destination(), v6))
        masks |= kDestinationPrefix;
    return AclEntry(make(Kind::ip, rule.action(), flags, masks, out.bytes()));
}

AclEntry AclEntry::mac(const MacRuleConfig& rule) {
    const uint8_t flags = (rule.log() ? kLog : 0) | (rule.count() ? kCount : 0) |
                          (rule.matchEtherType() ? kMatchEtherType : 0);
    Packer out;
    out.u16(rule.etherType());
    for (const Zamu::EthAddr* a :
         {&rule.source(), &rule.sourceMask(), &rule.destination(), &rule.destinationMask()}) {
        out.raw(a->bytes().data(), a->bytes().size());
    }
    return AclEntry(make(Kind::mac, rule.action(), flags, 0, out.bytes()));
}

AclEntry AclEntry::remark(std::string text) {
    if (text.empty())
        return AclEntry();
    Packer out;
    out.u32(static_cast<uint32_t>(text.size()));
    out.raw(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    return AclEntry(make(Kind::remark, 0, 0, 0, out.bytes()));
}

AclEntry::Body* AclEntry::make(Kind kind, uint8_t action, uint8_t flags, uint8_t masks,
                               const std::vector<uint8_t>& bytes) {
    void* raw = ::operator new(sizeof(Body) + bytes.size());
    Body* body = new (raw) Body{1, kind, action, flags, masks};
    std::copy(bytes.begin(), bytes.end(), body->data());
    return body;
}

size_t AclEntry::dataSize(const Body& b) {
    switch (b.kind) {
        case Kind::ip: {
            if (!(b.flags & kIp6))
                return kIpAddressesAt + 16;
            const size_t source = (b.masks & kSourcePrefix) ? 17 : 32;
            const size_t destination = (b.masks & kDestinationPrefix) ? 17 : 32;
            return kIpAddressesAt + 2 + source + destination;
        }
        case Kind::mac:
            return 2 + 4 * 6;
        case Kind::remark:
            return 4 + Unpacker(b.data()).u32();
    }
    return 0;
}

void AclEntry::hold() const {
    if (body_)
        ++body_->refs;
}

void AclEntry::release() noexcept {
    // The body is plain bytes: nothing to destroy but the storage.
    if (body_ && --body_->refs == 0)
        ::operator delete(body_);
}

AclEntry::Kind AclEntry::kind() const {
    return body_ ? body_->kind : Kind::remark;
}

IpRuleConfig AclEntry::ipRule() const {
    VORN_ASSERT(isIp());
    const bool v6 = body_->flags & kIp6;
    Unpacker in(body_->data());
    auto fill = [&](IpFilter& f) {
        f.protocolIs(Zamu::IpProto(in.u8()));
        const uint8_t dscp = in.u8();
        if (body_->flags & kMatchDscp)
            f.dscpIs(dscp);
        f.tcpFlagsIs(in.u8());
        const uint8_t icmpType = in.u8();
        if (body_->flags & kMatchIcmpType)
            f.icmpTypeIs(icmpType);
        const uint8_t icmpCode = in.u8();
        if (body_->flags & kMatchIcmpCode)
            f.icmpCodeIs(icmpCode);
        f.establishedIs(body_->flags & kEstablished);
        f.fragmentsIs(body_->flags & kFragments);
        in.raw(kIpAddressesAt - kSourcePortAt);
    };
    auto addresses = [&](IpFilter& f) {
        f.sourceIs(in.address(v6, body_->masks & kSourcePrefix));
        f.destinationIs(in.address(v6, body_->masks & kDestinationPrefix));
    };
    const AclAction action = static_cast<AclAction>(body_->action);
    IpRuleConfig rule;
    if (v6) {
        Ip6Filter f;
        fill(f);
        const uint8_t trafficClass = in.u8();
        f.trafficClassIs(trafficClass, in.u8());
        addresses(f);
        rule = IpRuleConfig(f, action);
    } else {
        IpFilter f;
        fill(f);
        addresses(f);
        rule = IpRuleConfig(f, action);
    }
    rule.logIs(body_->flags & kLog);
    rule.countIs(body_->flags & kCount);
    return rule;
}

PortMatch AclEntry::sourcePort() const {
    VORN_ASSERT(isIp());
    Unpacker in(body_->data() + kSourcePortAt);
    const auto op = static_cast<PortOp>(in.u8());
    const uint16_t first = in.u16();
    return PortMatch(op, first, in.u16());
}

PortMatch AclEntry::destinationPort() const {
    VORN_ASSERT(isIp());
    Unpacker in(body_->data() + kDestinationPortAt);
    const auto op = static_cast<PortOp>(in.u8());
    const uint16_t first = in.u16();
    return PortMatch(op, first, in.u16());
}

MacRuleConfig AclEntry::macRule() const {
    VORN_ASSERT(isMac());
    Unpacker in(body_->data());
    MacRuleConfig rule(static_cast<AclAction>(body_->action));
    rule.logIs(body_->flags & kLog);
    rule.countIs(body_->flags & kCount);
    const uint16_t etherType = in.u16();
    if (body_->flags & kMatchEtherType)
        rule.etherTypeIs(etherType);
    const Zamu::EthAddr source = in.eth();
    rule.sourceIs(source, in.eth());
    const Zamu::EthAddr destination = in.eth();
    rule.destinationIs(destination, in.eth());
    return rule;
}

std::string AclEntry::remarkText() const {
    VORN_ASSERT(isRemark());
    if (!body_)
        return {};
    Unpacker in(body_->data());
    const uint32_t n = in.u32();
    return std::string(reinterpret_cast<const char*>(in.raw(n)), n);
}

bool AclEntry::operator==(const AclEntry& o) const {
    if (body_ == o.body_)
        return true;
    if (!body_ || !o.body_)
        return false;  // the empty remark against a rule or a remark with text
    const Body& a = *body_;
    const Body& b = *o.body_;
    if (a.kind != b.kind || a.action != b.action || a.flags != b.flags || a.masks != b.masks)
        return false;
    const size_t n = dataSize(a);
    return n == dataSize(b) && std::equal(a.data(), a.data() + n, b.data());
}

std::string AclConfigKey::str() const {
    return name + "/" + aclTypeName(type);
}

std::ostream& operator<<(std::ostream& os, const AclConfigKey& k) {
    return os << k.str();
}

void checkAclName(const std::string& name) {
    constexpr size_t kMaxNameLength = 100;
    bool ok = !name.empty() && name.size() <= kMaxNameLength;
    for (char c : name) {
        const bool alnum =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        if (!alnum && std::string_view("_.:/+-").find(c) == std::string_view::npos)
            ok = false;
    }
    if (!ok)
        throw std::invalid_argument("invalid ACL name '" + name + "'");
}

AclConfig::AclConfig(const AclConfigKey& key) : key_(key) {
    checkAclName(key.name);
    if (key.type != aclTypeIpv4 && key.type != aclTypeIpv6 && key.type != aclTypeMac)
        throw std::invalid_argument("invalid ACL type " + std::to_string(int(key.type)));
}

void AclConfig::entryIs(int64_t seq, const AclEntry& e) {
    if (seq < 1 || seq > int64_t(kMaxSequence))
        Vorn::throwRangeError("AclConfig::entry sequence < 1 or > 4294967039 not allowed");
    if (!entryFitsType(e, key_.type)) {
        throw std::invalid_argument("AclConfig " + key_.str() + ": " + entryKindName(e) +
                                    " entry in a " + aclTypeName(key_.type) + " ACL");
    }
    entry_.is(static_cast<uint32_t>(seq), e);
}

Vorn::Ptr<Config> configFactory(const Vorn::Name& name) {
    return Vorn::make<Config>(name);
}

}  // namespace Acl
