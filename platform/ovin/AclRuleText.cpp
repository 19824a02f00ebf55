#include "platform/ovin/AclRuleText.h"

#include <array>
#include <cctype>
#include <cstdio>
#include <sstream>
#include <stdexcept>

#include "platform/vorn/Exception.h"

namespace Acl {

namespace {

struct Token {
    std::string text;  // lower-cased
    size_t column;     // 1-based
};

// Why reading stopped, and where.
struct Refusal {
    std::string why;
    size_t column;
};

std::string lower(std::string_view s) {
    std::string out(s);
    for (char& c : out)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::string_view withoutComment(std::string_view line) {
    const size_t hash = line.find('#');
    if (hash != std::string_view::npos)
        line = line.substr(0, hash);
    while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back())))
        line.remove_suffix(1);
    return line;
}

std::vector<Token> tokenize(std::string_view line) {
    std::vector<Token> out;
    size_t i = 0;
    while (i < line.size()) {
        if (std::isspace(static_cast<unsigned char>(line[i]))) {
            ++i;
            continue;
        }
        const size_t start = i;
        while (i < line.size() && !std::isspace(static_cast<unsigned char>(line[i])))
            ++i;
        out.push_back({lower(line.substr(start, i - start)), start + 1});
    }
    return out;
}

bool decimal(const std::string& s, uint64_t max, uint64_t& out) {
    if (s.empty() || s.size() > 10)
        return false;
    uint64_t v = 0;
    for (char c : s) {
        if (c < '0' || c > '9')
            return false;
        v = v * 10 + uint64_t(c - '0');
    }
    if (v > max)
        return false;
    out = v;
    return true;
}

// Reads the tokens of one rule; every refusal throws a Refusal.
class RuleReader {
  public:
    RuleReader(std::vector<Token> tokens, size_t endColumn, AclType type)
        : t_(std::move(tokens)), endColumn_(endColumn), type_(type) {}

    RuleText read(std::string_view line);

  private:
    [[noreturn]] void refuse(std::string why, size_t column) const {
        throw Refusal{std::move(why), column};
    }
    [[noreturn]] void refuseHere(std::string why) const { refuse(std::move(why), column()); }
    bool atEnd() const { return i_ >= t_.size(); }
    size_t column() const { return atEnd() ? endColumn_ : t_[i_].column; }
    const std::string& peek() const {
        static const std::string none;
        return atEnd() ? none : t_[i_].text;
    }
    const Token& next(const char* what) {
        if (atEnd())
            refuseHere(std::string("missing ") + what);
        return t_[i_++];
    }
    uint64_t number(const char* what, uint64_t max) {
        const Token& tok = next(what);
        uint64_t v = 0;
        if (!decimal(tok.text, max, v)) {
            refuse(std::string(what) + " must be a number from 0 to " + std::to_string(max) +
                       ", not '" + tok.text + "'",
                   tok.column);
        }
        return v;
    }

    AclEntry readIp(AclAction action);
    AclEntry readMac(AclAction action);
    Zamu::IpProto readProtocol();
    Zamu::IpAddrWithMask readAddress(const char* side);
    PortMatch readPort(const char* side, bool hasPorts);
    Zamu::EthAddr readMacAddress(const Token& tok, const char* what);
    void readMacSide(MacRuleConfig& rule, bool source);

    std::vector<Token> t_;
    size_t i_ = 0;
    size_t endColumn_;
    AclType type_;
    std::vector<std::string> notes_;
};

RuleText RuleReader::read(std::string_view line) {
    RuleText out;
    if (atEnd())
        refuseHere("empty rule");
    {
        const Token& seq = next("sequence number");
        uint64_t v = 0;
        if (!decimal(seq.text, kMaxSequence, v) || v == 0) {
            refuse("a rule begins with its sequence number, 1 to " + std::to_string(kMaxSequence),
                   seq.column);
        }
        out.seq = static_cast<uint32_t>(v);
    }
    const Token& action = next("action (permit, deny or remark)");
    if (action.text == "remark") {
        if (atEnd())
            refuseHere("a remark needs a text");
        // The text as written, from its first word to the end (case kept).
        std::string_view text = withoutComment(line).substr(t_[i_].column - 1);
        out.entry = AclEntry::remark(std::string(text));
        return out;
    }
    AclAction a = aclActionPermit;
    if (action.text == "permit") {
        a = aclActionPermit;
    } else if (action.text == "deny") {
        a = aclActionDeny;
    } else {
        refuse("the action must be permit, deny or remark, not '" + action.text + "'",
               action.column);
    }
    out.entry = type_ == aclTypeMac ? readMac(a) : readIp(a);
    if (!atEnd())
        refuseHere("unexpected '" + peek() + "'");
    out.notes = std::move(notes_);
    return out;
}

Zamu::IpProto RuleReader::readProtocol() {
    const bool v6 = type_ == aclTypeIpv6;
    const Token& tok = next("protocol");
    const std::string& w = tok.text;
    if (w == "tcp")
        return Zamu::IpProto::kTcp;
    if (w == "udp")
        return Zamu::IpProto::kUdp;
    if (w == (v6 ? "ipv6" : "ip"))
        return Zamu::IpProto::kAny;
    if (w == (v6 ? "icmpv6" : "icmp"))
        return v6 ? Zamu::IpProto::kIcmp6 : Zamu::IpProto::kIcmp;
    if (w == "ip" || w == "ipv6" || w == "icmp" || w == "icmpv6") {
        refuse("protocol '" + w + "' does not belong in an " + (v6 ? "IPv6" : "IPv4") + " ACL",
               tok.column);
    }
    uint64_t n = 0;
    if (!decimal(w, 255, n))
        refuse("unknown protocol '" + w + "'", tok.column);
    if (n == 0) {
        refuse("protocol number 0 cannot be matched: 0 stands for every protocol here", tok.column);
    }
    return Zamu::IpProto(static_cast<uint8_t>(n));
}

Zamu::IpAddrWithMask RuleReader::readAddress(const char* side) {
    const bool v6 = type_ == aclTypeIpv6;
    const char* family = v6 ? "IPv6" : "IPv4";
    const Token& tok = next((std::string(side) + " address").c_str());
    const int bits = v6 ? 128 : 32;
    if (tok.text == "any")
        return Zamu::IpAddrWithMask::prefix(v6 ? "::" : "0.0.0.0", 0);
    std::string addrText;
    int len = bits;
    size_t addrColumn = tok.column;
    if (tok.text == "host") {
        const Token& host = next((std::string(side) + " host address").c_str());
        addrText = host.text;
        addrColumn = host.column;
    } else {
        const size_t slash = tok.text.find('/');
        if (slash == std::string::npos) {
            refuse(
                std::string(side) + " address must be any, host A or A/LEN, not '" + tok.text + "'",
                tok.column);
        }
        addrText = tok.text.substr(0, slash);
        uint64_t l = 0;
        if (!decimal(tok.text.substr(slash + 1), uint64_t(bits), l)) {
            refuse(std::string(family) + " prefix length must be 0 to " + std::to_string(bits),
                   tok.column + slash + 1);
        }
        len = static_cast<int>(l);
    }
    Zamu::IpAddr addr;
    try {
        addr = Zamu::IpAddr(addrText);
    } catch (const std::invalid_argument&) {
        refuse("'" + addrText + "' is not an " + family + " address", addrColumn);
    }
    if (addr.isV6() != v6)
        refuse("'" + addrText + "' is not an " + family + " address", addrColumn);
    const Zamu::IpAddrWithMask m{addr, Zamu::IpAddr::mask(v6, len)};
    const Zamu::IpAddrWithMask subnet = m.subnet();
    if (subnet.addr != addr) {
        notes_.push_back("host bits of " + addrText + "/" + std::to_string(len) +
                         " cleared: read as " + subnet.addr.str() + "/" + std::to_string(len));
    }
    return subnet;
}

PortMatch RuleReader::readPort(const char* side, bool hasPorts) {
    const std::string& w = peek();
    if (w != "eq" && w != "neq" && w != "lt" && w != "gt" && w != "range")
        return {};
    const size_t col = column();
    if (!hasPorts)
        refuse("ports need protocol tcp, udp or sctp (132)", col);
    ++i_;
    const std::string what = std::string(side) + " port";
    try {
        if (w == "range") {
            const uint64_t lo = number(what.c_str(), 0xffff);
            const uint64_t hi = number(what.c_str(), 0xffff);
            return PortMatch::range(int64_t(lo), int64_t(hi));
        }
        const int64_t p = int64_t(number(what.c_str(), 0xffff));
        if (w == "eq")
            return PortMatch::eq(p);
        if (w == "neq")
            return PortMatch::neq(p);
        if (w == "lt")
            return PortMatch::lt(p);
        return PortMatch::gt(p);
    } catch (const Vorn::RangeException& e) {
        refuse(std::string(e.what()) + " (" + what + " " + w + " matches no port)", col);
    }
}

AclEntry RuleReader::readIp(AclAction action) {
    const bool v6 = type_ == aclTypeIpv6;
    const size_t protoColumn = column();
    const Zamu::IpProto proto = readProtocol();
    const bool tcp = proto == Zamu::IpProto(Zamu::IpProto::kTcp);
    const bool icmp = proto == Zamu::IpProto(v6 ? Zamu::IpProto::kIcmp6 : Zamu::IpProto::kIcmp);
    Acl::Ip6Filter f6;
    Acl::IpFilter f4;
    IpFilter& f = v6 ? static_cast<IpFilter&>(f6) : f4;
    f.protocolIs(proto);
    f.sourceIs(readAddress("source"));
    const PortMatch source = readPort("source", proto.hasPorts());
    f.destinationIs(readAddress("destination"));
    const PortMatch destination = readPort("destination", proto.hasPorts());
    if (icmp && !atEnd() && std::isdigit(static_cast<unsigned char>(peek()[0]))) {
        f.icmpTypeIs(static_cast<uint8_t>(number("ICMP type", 255)));
        if (!atEnd() && std::isdigit(static_cast<unsigned char>(peek()[0])))
            f.icmpCodeIs(static_cast<uint8_t>(number("ICMP code", 255)));
    }
    const bool ports = !source.isAny() || !destination.isAny();
    bool dscpSeen = false;
    while (!atEnd()) {
        const Token& tok = next("option");
        const std::string& w = tok.text;
        uint8_t flag = 0;
        if (w == "ack") {
            flag = kTcpAck;
        } else if (w == "fin") {
            flag = kTcpFin;
        } else if (w == "psh") {
            flag = kTcpPsh;
        } else if (w == "rst") {
            flag = kTcpRst;
        } else if (w == "syn") {
            flag = kTcpSyn;
        } else if (w == "urg") {
            flag = kTcpUrg;
        }
        if (flag || w == "established") {
            if (!tcp)
                refuse("'" + w + "' needs protocol tcp", tok.column);
            if (f.fragments())
                refuse("'" + w + "' cannot be combined with fragments", tok.column);
            if (flag) {
                f.tcpFlagsIs(f.tcpFlags() | flag);
            } else {
                f.establishedIs(true);
            }
        } else if (w == "fragments") {
            if (ports || f.tcpFlags() || f.established() || f.matchIcmpType()) {
                refuse("fragments cannot be combined with ports, TCP flags or ICMP type",
                       tok.column);
            }
            f.fragmentsIs(true);
        } else if (w == "dscp") {
            if (dscpSeen)
                refuse("dscp given twice", tok.column);
            dscpSeen = true;
            f.dscpIs(int(number("DSCP", 63)));
        } else if (w == "ttl") {
            refuse("TTL is not matched by this engine, so the rule cannot be kept as written",
                   tok.column);
        } else {
            refuse("unknown option '" + w + "'", tok.column);
        }
    }
    try {
        return v6 ? AclEntry::ip(IpRuleConfig(f6, action), source, destination)
                  : AclEntry::ip(IpRuleConfig(f4, action), source, destination);
    } catch (const std::invalid_argument& e) {
        refuse(e.what(), protoColumn);  // a combination the checks above did not catch
    }
}

Zamu::EthAddr RuleReader::readMacAddress(const Token& tok, const char* what) {
    const std::string& s = tok.text;
    bool ok = s.size() == 14 && s[4] == '.' && s[9] == '.';
    for (size_t k = 0; ok && k < s.size(); ++k) {
        if (k != 4 && k != 9 && !std::isxdigit(static_cast<unsigned char>(s[k])))
            ok = false;
    }
    if (!ok)
        refuse(std::string(what) + " must be HHHH.HHHH.HHHH, not '" + s + "'", tok.column);
    return Zamu::EthAddr(s);
}

void RuleReader::readMacSide(MacRuleConfig& rule, bool source) {
    const char* side = source ? "source" : "destination";
    const Token& tok = next((std::string(side) + " MAC address").c_str());
    Zamu::EthAddr addr;
    Zamu::EthAddr care;  // all zero: any address
    if (tok.text != "any") {
        addr = readMacAddress(tok, (std::string(side) + " MAC address").c_str());
        const Token& wild = next((std::string(side) + " MAC wildcard").c_str());
        const Zamu::EthAddr wildcard =
            readMacAddress(wild, (std::string(side) + " MAC wildcard").c_str());
        std::array<uint8_t, 6> c{};
        std::array<uint8_t, 6> a{};
        for (size_t k = 0; k < 6; ++k) {
            c[k] = static_cast<uint8_t>(~wildcard.bytes()[k]);
            a[k] = addr.bytes()[k] & c[k];
        }
        char buf[32];
        std::snprintf(buf, sizeof buf, "%02x%02x.%02x%02x.%02x%02x", c[0], c[1], c[2], c[3], c[4],
                      c[5]);
        care = Zamu::EthAddr(buf);
        std::snprintf(buf, sizeof buf, "%02x%02x.%02x%02x.%02x%02x", a[0], a[1], a[2], a[3], a[4],
                      a[5]);
        const Zamu::EthAddr masked(buf);
        if (masked != addr) {
            notes_.push_back("bits of " + tok.text + " under wildcard " + wild.text +
                             " cleared: read as " + buf);
        }
        addr = masked;
    }
    if (source) {
        rule.sourceIs(addr, care);
    } else {
        rule.destinationIs(addr, care);
    }
}

AclEntry RuleReader::readMac(AclAction action) {
    MacRuleConfig rule(action);
    readMacSide(rule, true);
    readMacSide(rule, false);
    if (!atEnd()) {
        const Token& tok = t_[i_];
        unsigned v = 0;
        char end = 0;
        const bool hex = tok.text.size() > 2 && tok.text.size() <= 6 &&
                         tok.text.compare(0, 2, "0x") == 0 &&
                         std::sscanf(tok.text.c_str() + 2, "%x%c", &v, &end) == 1 &&
                         tok.text.find_first_not_of("0123456789abcdef", 2) == std::string::npos;
        if (!hex)
            refuse("the ether type must be 0xHHHH, not '" + tok.text + "'", tok.column);
        ++i_;
        rule.etherTypeIs(static_cast<uint16_t>(v));
    }
    return AclEntry::mac(rule);
}

const char* protocolWord(Zamu::IpProto p, bool v6) {
    switch (p.value()) {
        case Zamu::IpProto::kAny:
            return v6 ? "ipv6" : "ip";
        case Zamu::IpProto::kTcp:
            return "tcp";
        case Zamu::IpProto::kUdp:
            return "udp";
        case Zamu::IpProto::kIcmp:
            return v6 ? nullptr : "icmp";
        case Zamu::IpProto::kIcmp6:
            return v6 ? "icmpv6" : nullptr;
    }
    return nullptr;
}

void printAddress(std::ostream& os, const Zamu::IpAddrWithMask& a) {
    if (!a.isValidPrefix()) {
        os << a.addr << "/" << a.mask;
        return;
    }
    const int len = a.mask.prefixLength();
    if (len == 0) {
        os << "any";
    } else if (len == a.addr.bits()) {
        os << "host " << a.addr;
    } else {
        os << a.addr << "/" << len;
    }
}

void printMac(std::ostream& os, const Zamu::EthAddr& addr, const Zamu::EthAddr& care) {
    const auto& c = care.bytes();
    if (c == std::array<uint8_t, 6>{}) {
        os << "any";
        return;
    }
    const auto& a = addr.bytes();
    char buf[40];
    std::snprintf(buf, sizeof buf, "%02x%02x.%02x%02x.%02x%02x %02x%02x.%02x%02x.%02x%02x", a[0],
                  a[1], a[2], a[3], a[4], a[5], 0xff & ~c[0], 0xff & ~c[1], 0xff & ~c[2],
                  0xff & ~c[3], 0xff & ~c[4], 0xff & ~c[5]);
    os << buf;
}

}  // namespace

RuleTextResult parseRuleText(std::string_view line, AclType type) {
    const std::string_view body = withoutComment(line);
    RuleTextResult result;
    RuleReader reader(tokenize(body), body.size() + 1, type);
    try {
        result.rule = reader.read(line);
    } catch (const Refusal& r) {
        size_t first = 0;
        while (first < body.size() && std::isspace(static_cast<unsigned char>(body[first])))
            ++first;
        result.column = r.column;
        result.error = "rule '" + std::string(body.substr(first)) + "': " + r.why + " (column " +
                       std::to_string(r.column) + ")";
    }
    return result;
}

std::string ruleText(uint32_t seq, const AclEntry& entry) {
    std::ostringstream os;
    os << seq << " ";
    if (entry.isRemark()) {
        os << "remark " << entry.remarkText();
        return os.str();
    }
    if (entry.isMac()) {
        const MacRuleConfig& r = entry.macRule();
        os << r.action() << " ";
        printMac(os, r.source(), r.sourceMask());
        os << " ";
        printMac(os, r.destination(), r.destinationMask());
        if (r.matchEtherType()) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "0x%04x", r.etherType());
            os << " " << buf;
        }
        return os.str();
    }
    const IpRuleConfig& r = entry.ipRule();
    const IpFilter& f = r.filter();
    os << r.action() << " ";
    if (const char* word = protocolWord(f.protocol(), r.isIp6())) {
        os << word;
    } else {
        os << f.protocol();
    }
    os << " ";
    printAddress(os, f.source());
    if (!entry.sourcePort().isAny())
        os << " " << entry.sourcePort();
    os << " ";
    printAddress(os, f.destination());
    if (!entry.destinationPort().isAny())
        os << " " << entry.destinationPort();
    if (f.matchIcmpType())
        os << " " << int(f.icmpType());
    if (f.matchIcmpCode())
        os << " " << int(f.icmpCode());
    if (f.established())
        os << " established";
    const std::pair<uint8_t, const char*> flags[] = {{kTcpAck, "ack"}, {kTcpFin, "fin"},
                                                     {kTcpPsh, "psh"}, {kTcpRst, "rst"},
                                                     {kTcpSyn, "syn"}, {kTcpUrg, "urg"}};
    for (const auto& [bit, word] : flags) {
        if (f.tcpFlags() & bit)
            os << " " << word;
    }
    if (f.fragments())
        os << " fragments";
    if (f.matchDscp())
        os << " dscp " << int(f.dscp());
    return os.str();
}

AclFileText parseAclFileText(std::string_view text) {
    AclFileText out;
    AclText* current = nullptr;
    size_t lineNo = 0;
    while (!text.empty()) {
        const size_t nl = text.find('\n');
        const std::string_view line = text.substr(0, nl);
        text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
        ++lineNo;
        const std::string_view body = withoutComment(line);
        const std::vector<Token> tokens = tokenize(body);
        if (tokens.empty())
            continue;
        auto error = [&](std::string e) { out.errors.push_back({lineNo, std::move(e)}); };
        if (tokens[0].text == "acl") {
            current = nullptr;
            const std::string what = "acl line '" + std::string(body) + "': ";
            if (tokens.size() != 3) {
                error(what + "needs a name and a type");
                continue;
            }
            // The name as written (case kept).
            const std::string name(body.substr(tokens[1].column - 1, tokens[1].text.size()));
            AclType type;
            if (tokens[2].text == "ipv4") {
                type = aclTypeIpv4;
            } else if (tokens[2].text == "ipv6") {
                type = aclTypeIpv6;
            } else if (tokens[2].text == "mac") {
                type = aclTypeMac;
            } else {
                error(what + "the type must be ipv4, ipv6 or mac");
                continue;
            }
            try {
                checkAclName(name);
            } catch (const std::invalid_argument& e) {
                error(what + e.what());
                continue;
            }
            out.acls.push_back({AclConfigKey{name, type}, {}});
            current = &out.acls.back();
            continue;
        }
        if (!current) {
            error("rule '" + std::string(body) + "' is outside an acl block");
            continue;
        }
        RuleTextResult r = parseRuleText(line, current->key.type);
        if (!r.ok()) {
            error(r.error);
            continue;
        }
        if (!current->rules.empty() && r.rule->seq <= current->rules.back().seq) {
            error("rule '" + std::string(body) + "': sequence " + std::to_string(r.rule->seq) +
                  " does not follow " + std::to_string(current->rules.back().seq));
            continue;
        }
        current->rules.push_back(std::move(*r.rule));
    }
    return out;
}

}  // namespace Acl
