#include "platform/ovin/AclConfig.h"

#include <stdexcept>

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
    return AclEntry(Body(std::in_place_type<Ip>, Ip{rule, source, destination}));
}

AclEntry AclEntry::mac(const MacRuleConfig& rule) {
    return AclEntry(Body(std::in_place_type<MacRuleConfig>, rule));
}

AclEntry AclEntry::remark(std::string text) {
    if (text.empty())
        return AclEntry();
    return AclEntry(Body(std::in_place_type<std::string>, std::move(text)));
}

const IpRuleConfig& AclEntry::ipRule() const {
    VORN_ASSERT(isIp());
    return std::get<Ip>(*body_).rule;
}

const PortMatch& AclEntry::sourcePort() const {
    VORN_ASSERT(isIp());
    return std::get<Ip>(*body_).source;
}

const PortMatch& AclEntry::destinationPort() const {
    VORN_ASSERT(isIp());
    return std::get<Ip>(*body_).destination;
}

const MacRuleConfig& AclEntry::macRule() const {
    VORN_ASSERT(isMac());
    return std::get<MacRuleConfig>(*body_);
}

const std::string& AclEntry::remarkText() const {
    VORN_ASSERT(isRemark());
    static const std::string kEmpty;
    return body_ ? std::get<std::string>(*body_) : kEmpty;
}

bool AclEntry::operator==(const AclEntry& o) const {
    if (body_ == o.body_)
        return true;
    if (kind() != o.kind())
        return false;
    switch (kind()) {
        case Kind::ip:
            return ipRule() == o.ipRule() && sourcePort() == o.sourcePort() &&
                   destinationPort() == o.destinationPort();
        case Kind::mac:
            return macRule() == o.macRule();
        case Kind::remark:
            return remarkText() == o.remarkText();
    }
    return false;
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
