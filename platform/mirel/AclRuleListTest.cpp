// Immutable rule lists: what a list asks of a chip, identity versus contents, and the order
// a list must be built in.

#include "platform/mirel/AclRuleList.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Mirel {
namespace {

using Strings = std::vector<std::string>;

AceIndex ace(uint32_t ruleNum) {
    AceIndex i;
    i.ruleNum = ruleNum;
    return i;
}

IpRuleConfig v4(const char* src, int srcLen, const char* dst, int dstLen) {
    IpRuleConfig r;
    r.filter.source = Zamu::IpAddrWithMask::prefix(src, srcLen);
    r.filter.destination = Zamu::IpAddrWithMask::prefix(dst, dstLen);
    return r;
}

IpRuleConfig v6(const char* src, int srcLen) {
    IpRuleConfig r;
    r.filter.ipv6 = true;
    r.filter.source = Zamu::IpAddrWithMask::prefix(src, srcLen);
    r.filter.destination = Zamu::IpAddrWithMask::prefix("::", 0);
    return r;
}

IpRuleConfig ports(IpRuleConfig r, L4PortRange src, L4PortRange dst) {
    r.sourcePort = src;
    r.destinationPort = dst;
    return r;
}

MacRuleConfig mac(const char* src, const char* srcMask, uint16_t etherType, bool matchType) {
    MacRuleConfig r;
    r.source = Zamu::EthAddr(src);
    r.sourceMask = Zamu::EthAddr(srcMask);
    r.etherType = etherType;
    r.matchEtherType = matchType;
    return r;
}

TEST(AclRuleList, NeedsCountEntriesAndDistinctTransformValues) {
    const AclRuleListPtr ip = AclRuleList::ipList({
        {ace(10), ports(v4("10.1.2.3", 16, "0.0.0.0", 0), {80, 443}, {})},
        {ace(20), ports(v4("10.1.0.0", 16, "192.168.1.0", 24), {}, {80, 443})},
        {ace(30), ports(v4("0.0.0.0", 0, "192.168.1.0", 24), {22, 22}, {})},
        {ace(40), v6("2001:db8::", 32)},
    });
    const AclRuleListNeeds& needs = ip->needs();
    EXPECT_EQ(needs.tcamEntries, 5u);  // three IPv4 rules, one IPv6 rule of two entries
    struct Expect {
        XformType type;
        Strings values;
    };
    const Expect expected[] = {
        // Host bits cleared: 10.1.2.3/16 and 10.1.0.0/16 are one class; /0 matches nothing.
        {xformSrcIpV4Prefix_, {"10.1.0.0/16"}},
        {xformDstIpV4Prefix_, {"192.168.1.0/24"}},
        {xformSrcIpV6Prefix_, {"2001:db8::/32"}},
        {xformDstIpV6Prefix_, {}},
        {xformSrcPortRange_, {"22-22", "80-443"}},  // sorted; the full range needs nothing
        {xformDstPortRange_, {"80-443"}},
        {xformSrcMacAddr_, {}},
        {xformMacEtherType_, {}},
    };
    for (const Expect& e : expected) {
        SCOPED_TRACE(xformConfigName(e.type));
        EXPECT_EQ(needs.xformValues[e.type], e.values);
    }
    EXPECT_EQ(&ip->needs(), &needs);  // computed once, kept with the list

    const AclRuleListPtr macs = AclRuleList::macList({
        {ace(1), mac("00:11:22:33:44:55", "ff:ff:ff:00:00:00", 0x0800, true)},
        {ace(2), mac("00:11:22:99:99:99", "ff:ff:ff:00:00:00", 0x86dd, false)},
        {ace(3), mac("00:00:00:00:00:00", "00:00:00:00:00:00", 0x0806, true)},
    });
    EXPECT_EQ(macs->needs().tcamEntries, 3u);
    EXPECT_EQ(macs->needs().xformValues[xformSrcMacAddr_],
              Strings{"00:11:22:00:00:00/ff:ff:ff:00:00:00"});
    EXPECT_EQ(macs->needs().xformValues[xformDstMacAddr_], Strings{});
    EXPECT_EQ(macs->needs().xformValues[xformMacEtherType_], (Strings{"0x0800", "0x0806"}));
}

TEST(AclRuleList, IdentityAndContents) {
    const auto rules = std::vector<AclRuleList::IpEntry>{{ace(1), v4("10.0.0.0", 8, "0.0.0.0", 0)}};
    const AclRuleListPtr a = AclRuleList::ipList(rules);
    const AclRuleListPtr b = AclRuleList::ipList(rules);
    EXPECT_NE(a, b);
    EXPECT_LT(a->version(), b->version());  // versions follow build order
    EXPECT_TRUE(a->sameRules(*b));
    EXPECT_EQ(a->kind(), AclRuleList::Kind::ip);
    const AclRuleListPtr other = AclRuleList::ipList({{ace(2), rules[0].second}});
    EXPECT_FALSE(a->sameRules(*other));
    // Every empty list is the one shared empty list, whatever kind was asked for.
    EXPECT_EQ(AclRuleList::ipList({}), AclRuleList::emptyList());
    EXPECT_EQ(AclRuleList::macList({}), AclRuleList::emptyList());
    EXPECT_EQ(AclRuleList::emptyList()->kind(), AclRuleList::Kind::none);
    EXPECT_FALSE(a->sameRules(*AclRuleList::emptyList()));
}

TEST(AclRuleListDeathTest, RulesMustComeInAceIndexOrder) {
    const IpRuleConfig r = v4("10.0.0.0", 8, "0.0.0.0", 0);
    EXPECT_DEATH(AclRuleList::ipList({{ace(2), r}, {ace(1), r}}), "strictlyAscending\\(rules\\)");
    EXPECT_DEATH(AclRuleList::ipList({{ace(1), r}, {ace(1), r}}), "strictlyAscending\\(rules\\)");
}

}  // namespace
}  // namespace Mirel
