#include "platform/ovin/AclRuleConfig.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "platform/vorn/Exception.h"
#include "tests/TestSupport.h"

namespace Acl {
namespace {

using TestSupport::str;

TEST(AclRuleConfigTest, IpRuleHoldsEitherFamily) {
    Ip6Filter f6;
    f6.trafficClassIs(0xb8, 0xfc);
    f6.protocolIs(Zamu::IpProto::kUdp);
    IpRuleConfig rule(f6, aclActionDeny);
    ASSERT_TRUE(rule.isIp6());
    EXPECT_EQ(rule.ip6Filter(), f6);
    // The shared part reads the same fields whichever family is held.
    EXPECT_EQ(rule.filter().protocol(), Zamu::IpProto(Zamu::IpProto::kUdp));

    IpFilter f4;
    f4.protocolIs(Zamu::IpProto::kTcp);
    rule.filterIs(f4);
    EXPECT_FALSE(rule.isIp6());
    EXPECT_EQ(rule.filter(), f4);
    EXPECT_EQ(rule.action(), aclActionDeny);

    // Same shared fields, different family: not equal.
    IpRuleConfig a{IpFilter()};
    IpRuleConfig b{Ip6Filter()};
    b.filterIs(IpFilter());
    EXPECT_EQ(a, b);
    b.filterIs(Ip6Filter());
    EXPECT_NE(a, b);
}

TEST(AclRuleConfigDeathTest, Ip6FilterOfAnIpv4Rule) {
    const IpRuleConfig rule{IpFilter()};
    EXPECT_DEATH(rule.ip6Filter(), "Assertion `isIp6\\(\\)' failed");
}

TEST(AclRuleConfigTest, Printing) {
    IpFilter f;
    f.sourceIs(Zamu::IpAddrWithMask::prefix("10.0.0.0", 8));
    f.protocolIs(Zamu::IpProto::kTcp);
    f.dscpIs(46);
    f.tcpFlagsIs(kTcpSyn | kTcpAck);
    f.establishedIs(true);
    IpRuleConfig ip(f, aclActionDeny);
    ip.logIs(true);
    EXPECT_EQ(str(ip),
              "deny ip src 10.0.0.0/8 dst 0.0.0.0/0 proto 6 dscp 46 tcpFlags 0x12 established log");

    Ip6Filter f6;
    f6.trafficClassIs(0xb8, 0xfc);
    f6.icmpTypeIs(135);
    EXPECT_EQ(str(IpRuleConfig(f6)), "permit ipv6 src ::/0 dst ::/0 icmpType 135 tc 0xb8/0xfc");

    MacRuleConfig mac(aclActionPermit);
    mac.destinationIs(Zamu::EthAddr("01:80:c2:00:00:00"), Zamu::EthAddr("ff:ff:ff:ff:ff:f0"));
    mac.etherTypeIs(0x88cc);
    mac.countIs(true);
    // Printed through the base: the concrete rule shows.
    const RuleConfig& base = mac;
    EXPECT_EQ(str(base),
              "permit mac src 00:00:00:00:00:00/00:00:00:00:00:00 dst "
              "01:80:c2:00:00:00/ff:ff:ff:ff:ff:f0 etherType 0x88cc count");
}

}  // namespace
}  // namespace Acl
