// Configured ACLs: port matches expand into the spans the engine installs, and every value
// that cannot mean a rule is refused before anything is stored.

#include "platform/ovin/AclConfig.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "platform/vorn/Exception.h"

namespace {

using Acl::PortMatch;
using Acl::PortSpan;

TEST(AclPortMatch, SpansCoverExactlyThePortsMatched) {
    struct Case {
        const char* name;
        PortMatch match;
        std::vector<PortSpan> spans;
    };
    const Case cases[] = {
        {"any", PortMatch(), {{0, 65535}}},
        {"eq", PortMatch::eq(80), {{80, 80}}},
        {"range", PortMatch::range(1000, 2000), {{1000, 2000}}},
        {"lt 1 is port 0", PortMatch::lt(1), {{0, 0}}},
        {"lt", PortMatch::lt(1024), {{0, 1023}}},
        {"gt", PortMatch::gt(1023), {{1024, 65535}}},
        {"gt 65534 is port 65535", PortMatch::gt(65534), {{65535, 65535}}},
        {"neq in the middle", PortMatch::neq(15), {{0, 14}, {16, 65535}}},
        {"neq 0", PortMatch::neq(0), {{1, 65535}}},
        {"neq 1", PortMatch::neq(1), {{0, 0}, {2, 65535}}},
        {"neq 65534", PortMatch::neq(65534), {{0, 65533}, {65535, 65535}}},
        {"neq 65535", PortMatch::neq(65535), {{0, 65534}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.match.spans(), c.spans);
    }
}

TEST(AclPortMatch, MatchesThatCoverNoPortAreRefused) {
    struct Case {
        const char* name;
        PortMatch (*make)();
        const char* text;
    };
    const Case cases[] = {
        {"negative", [] { return PortMatch::eq(-1); },
         "PortMatch::port < 0 or > 65535 not allowed"},
        {"too big", [] { return PortMatch::neq(65536); },
         "PortMatch::port < 0 or > 65535 not allowed"},
        {"lt 0", [] { return PortMatch::lt(0); }, "PortMatch::lt port < 1 not allowed"},
        {"gt 65535", [] { return PortMatch::gt(65535); }, "PortMatch::gt port > 65534 not allowed"},
        {"reversed range", [] { return PortMatch::range(20, 10); },
         "PortMatch::rangeLow > PortMatch::rangeHigh not allowed"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        try {
            c.make();
            ADD_FAILURE() << "no error";
        } catch (const Vorn::RangeException& e) {
            EXPECT_STREQ(e.what(), c.text);
        }
    }
}

Acl::IpRuleConfig ipRule(uint8_t proto) {
    Acl::IpFilter f;
    f.protocolIs(proto);
    return Acl::IpRuleConfig(f);
}

TEST(AclEntry, CombinationsThatMatchNothingSensibleAreRefused) {
    Acl::IpFilter tcpFlags;
    tcpFlags.protocolIs(Zamu::IpProto::kUdp);
    tcpFlags.tcpFlagsIs(Acl::kTcpSyn);
    Acl::IpFilter icmpOnTcp;
    icmpOnTcp.protocolIs(Zamu::IpProto::kTcp);
    icmpOnTcp.icmpTypeIs(3);
    Acl::Ip6Filter icmp4In6;
    icmp4In6.protocolIs(Zamu::IpProto::kIcmp);
    icmp4In6.icmpTypeIs(3);
    Acl::IpFilter codeOnly;
    codeOnly.protocolIs(Zamu::IpProto::kIcmp);
    codeOnly.icmpCodeIs(4);
    Acl::IpFilter fragPorts;
    fragPorts.protocolIs(Zamu::IpProto::kTcp);
    fragPorts.fragmentsIs(true);
    Acl::IpFilter v6AddrIn4;
    v6AddrIn4.sourceIs(Zamu::IpAddrWithMask::prefix("2001:db8::", 32));
    struct Case {
        const char* name;
        Acl::IpRuleConfig rule;
        PortMatch source;
        const char* text;
    };
    const Case cases[] = {
        {"ports on icmp", ipRule(Zamu::IpProto::kIcmp), PortMatch::eq(1),
         "AclEntry: ports need protocol tcp, udp or sctp (132)"},
        {"flags on udp",
         Acl::IpRuleConfig(tcpFlags),
         {},
         "AclEntry: TCP flags and established need protocol tcp"},
        {"icmp type on tcp",
         Acl::IpRuleConfig(icmpOnTcp),
         {},
         "AclEntry: ICMP type and code need protocol icmp (IPv4) or icmpv6 (IPv6)"},
        {"icmp (v4) type in an IPv6 rule",
         Acl::IpRuleConfig(icmp4In6),
         {},
         "AclEntry: ICMP type and code need protocol icmp (IPv4) or icmpv6 (IPv6)"},
        {"code without type",
         Acl::IpRuleConfig(codeOnly),
         {},
         "AclEntry: an ICMP code needs an ICMP type"},
        {"fragments with ports", Acl::IpRuleConfig(fragPorts), PortMatch::eq(22),
         "AclEntry: fragments cannot be combined with ports, TCP flags or ICMP type"},
        {"IPv6 address in an IPv4 rule",
         Acl::IpRuleConfig(v6AddrIn4),
         {},
         "AclEntry: IPv6 address in an IPv4 rule"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        try {
            Acl::AclEntry::ip(c.rule, c.source);
            ADD_FAILURE() << "no error";
        } catch (const std::invalid_argument& e) {
            EXPECT_STREQ(e.what(), c.text);
        }
    }
    EXPECT_NO_THROW(Acl::AclEntry::ip(ipRule(132), PortMatch::eq(9), PortMatch::range(1, 2)));
}

// Copies hold the one rule (the engine keeps a version per ACL and a subrule per port span);
// equality still reads the fields of entries made apart.
TEST(AclEntry, CopiesShareTheRuleAndEqualityComparesFields) {
    const Acl::AclEntry entry = Acl::AclEntry::ip(ipRule(6), PortMatch::eq(80));
    const Acl::AclEntry copy = entry;
    EXPECT_TRUE(copy.sharesBodyWith(entry));
    EXPECT_EQ(copy, Acl::AclEntry::ip(ipRule(6), PortMatch::eq(80)));
    EXPECT_NE(copy, Acl::AclEntry::ip(ipRule(6), PortMatch::eq(81)));
    EXPECT_EQ(Acl::AclEntry::remark(""), Acl::AclEntry());
    EXPECT_NE(Acl::AclEntry::remark("x"), Acl::AclEntry());
}

// The body keeps addresses packed by family and an IPv6 prefix mask as its length: every
// field comes back as it went in, at the edges of each form, and entries made apart from
// rules that differ in one such field are not equal.
TEST(AclEntry, RulesComeBackAsTheyWentInAtTheEdgesOfTheirPackedForm) {
    auto mask6 = [](const char* text) { return Zamu::IpAddr(text); };
    Acl::IpFilter v4;
    v4.sourceIs({Zamu::IpAddr("255.255.255.255"), Zamu::IpAddr("255.0.255.0")});
    v4.destinationIs(Zamu::IpAddrWithMask::prefix("10.1.2.3", 32));
    v4.protocolIs(Zamu::IpProto::kTcp);
    v4.dscpIs(63);
    v4.tcpFlagsIs(Acl::kAllTcpFlags);
    v4.establishedIs(true);
    Acl::IpFilter icmp;
    icmp.protocolIs(Zamu::IpProto::kIcmp);
    icmp.icmpTypeIs(0);
    icmp.icmpCodeIs(255);
    Acl::Ip6Filter prefixes;
    prefixes.sourceIs(Zamu::IpAddrWithMask::prefix("2001:db8::1", 128));
    prefixes.destinationIs(Zamu::IpAddrWithMask::prefix("ffff::", 1));
    prefixes.trafficClassIs(0xb8, 0xfc);
    Acl::Ip6Filter wildcard = prefixes;  // a mask that is no prefix keeps all its bytes
    wildcard.sourceIs({Zamu::IpAddr("2001:db8::1"), mask6("ffff::ffff")});
    Acl::Ip6Filter frag;
    frag.fragmentsIs(true);
    Acl::IpRuleConfig logged(v4, Acl::aclActionDeny);
    logged.logIs(true);
    logged.countIs(true);
    struct Case {
        const char* name;
        Acl::IpRuleConfig rule;
        PortMatch source, destination;
    };
    const Case cases[] = {
        {"IPv4, every field at its top", logged, PortMatch::range(0, 65535), PortMatch::neq(65535)},
        {"IPv4 ICMP type 0 code 255", Acl::IpRuleConfig(icmp), {}, {}},
        {"IPv4 any", Acl::IpRuleConfig(Acl::IpFilter()), {}, {}},
        {"IPv6 prefixes /128 and /1", Acl::IpRuleConfig(prefixes), {}, {}},
        {"IPv6 mask that is no prefix", Acl::IpRuleConfig(wildcard), {}, {}},
        {"IPv6 any, fragments", Acl::IpRuleConfig(frag, Acl::aclActionDeny), {}, {}},
    };
    std::vector<Acl::AclEntry> made;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Acl::AclEntry e = Acl::AclEntry::ip(c.rule, c.source, c.destination);
        EXPECT_EQ(e.ipRule(), c.rule);
        EXPECT_EQ(e.ipRule().isIp6(), c.rule.isIp6());
        EXPECT_EQ(e.sourcePort(), c.source);
        EXPECT_EQ(e.destinationPort(), c.destination);
        EXPECT_EQ(e, Acl::AclEntry::ip(c.rule, c.source, c.destination));
        for (const Acl::AclEntry& other : made)
            EXPECT_NE(e, other);
        made.push_back(e);
    }

    Acl::MacRuleConfig mac(Acl::aclActionDeny);
    mac.sourceIs(Zamu::EthAddr("00:11:22:33:44:55"), Zamu::EthAddr("ff:ff:ff:00:00:00"));
    mac.destinationIs(Zamu::EthAddr("ff:ff:ff:ff:ff:ff"), Zamu::EthAddr("ff:ff:ff:ff:ff:fe"));
    mac.etherTypeIs(0);
    mac.countIs(true);
    EXPECT_EQ(Acl::AclEntry::mac(mac).macRule(), mac);
    Acl::MacRuleConfig anyType = mac;
    anyType.etherTypeDel();
    EXPECT_NE(Acl::AclEntry::mac(mac), Acl::AclEntry::mac(anyType));
    EXPECT_EQ(Acl::AclEntry::remark(std::string(300, 'r')).remarkText(), std::string(300, 'r'));
}

// Entries are kept in one sorted vector: written in any order, they walk in sequence order,
// and every insert, replacement and removal is told once.
TEST(AclConfig, EntriesWalkInSequenceOrderWhateverTheOrderWritten) {
    auto config = Acl::configFactory("Config");
    auto acl = config->aclIs({"order", Acl::aclTypeIpv4});
    std::vector<uint32_t> told;
    auto sub = acl->entryNotify([&](uint32_t seq) { told.push_back(seq); });
    const Acl::AclEntry tcp = Acl::AclEntry::ip(ipRule(Zamu::IpProto::kTcp));
    const Acl::AclEntry udp = Acl::AclEntry::ip(ipRule(Zamu::IpProto::kUdp));
    for (uint32_t seq : {30u, 10u, 40u, 20u})
        acl->entryIs(seq, tcp);
    acl->entryIs(10, tcp);  // equal: nobody is told
    acl->entryIs(10, udp);
    acl->entryDel(20);
    acl->entryDel(25);  // absent: nobody is told
    std::vector<uint32_t> walked;
    for (const auto& [seq, entry] : acl->entry())
        walked.push_back(seq);
    EXPECT_EQ(walked, (std::vector<uint32_t>{10, 30, 40}));
    EXPECT_EQ(told, (std::vector<uint32_t>{30, 10, 40, 20, 10, 20}));
    ASSERT_NE(acl->entry(10), nullptr);
    EXPECT_EQ(*acl->entry(10), udp);
    EXPECT_EQ(acl->entry(20), nullptr);
}

TEST(AclConfig, EntriesOutOfRangeOrOfTheWrongFamilyLeaveTheAclAsItWas) {
    auto config = Acl::configFactory("Config");
    auto acl = config->aclIs({"edge", Acl::aclTypeIpv4});
    const Acl::AclEntry tcp = Acl::AclEntry::ip(ipRule(Zamu::IpProto::kTcp), {}, PortMatch::eq(22));
    acl->entryIs(10, tcp);
    try {
        acl->entryIs(0, tcp);
        ADD_FAILURE() << "no error";
    } catch (const Vorn::RangeException& e) {
        EXPECT_STREQ(e.what(), "AclConfig::entry sequence < 1 or > 4294967039 not allowed");
    }
    EXPECT_THROW(acl->entryIs(int64_t(Acl::kMaxSequence) + 1, tcp), Vorn::RangeException);
    acl->entryIs(Acl::kMaxSequence, Acl::AclEntry::remark("last"));
    try {
        acl->entryIs(10, Acl::AclEntry::mac(Acl::MacRuleConfig()));
        ADD_FAILURE() << "no error";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "AclConfig edge/ip: MAC entry in a ip ACL");
    }
    EXPECT_THROW(acl->entryIs(20, Acl::AclEntry::ip(Acl::IpRuleConfig(Acl::Ip6Filter()))),
                 std::invalid_argument);
    ASSERT_NE(acl->entry(10), nullptr);
    EXPECT_EQ(*acl->entry(10), tcp);
    EXPECT_EQ(acl->entrys(), 2u);

    for (const char* bad : {"", "has space", "semi;colon"}) {
        SCOPED_TRACE(bad);
        EXPECT_THROW(config->aclIs({bad, Acl::aclTypeMac}), std::invalid_argument);
    }
    EXPECT_THROW(config->aclIs({"x", Acl::AclType(3)}), std::invalid_argument);
    EXPECT_EQ(config->acls(), 1u);
}

}  // namespace
