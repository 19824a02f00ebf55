// The ACL store: defaults, hardware order of rules and the classification of interfaces into the
// three sets.

#include "ovinmirel/acl/OvinMirelAcl.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace OvinMirel {
namespace {

Mirel::IpRuleConfig permitFrom(const char* prefix) {
    Mirel::IpRuleConfig r;
    r.filter.source = Zamu::IpAddrWithMask::prefix(prefix, 24);
    return r;
}

TEST(OvinMirelAcl, RulesReadBackInHardwareOrder) {
    auto acl = Vorn::make<OvinMirelAcl>(TestSupport::aclKey("a"));
    const std::vector<Mirel::AceIndex> inserted = {
        {30, 0, {3}}, {10, 1, {1}}, {20, 0, {2}}, {10, 0, {1}}};
    for (const auto& i : inserted)
        acl->ipRuleByIdIs(i, permitFrom("10.0.0.0"));
    std::vector<std::pair<uint32_t, uint32_t>> order;
    for (const auto& [i, r] : acl->ipRuleById())
        order.emplace_back(i.ruleNum, i.subruleNum);
    EXPECT_EQ(order,
              (std::vector<std::pair<uint32_t, uint32_t>>{{10, 0}, {10, 1}, {20, 0}, {30, 0}}));
}

Mirel::IpRuleConfig withProto(Mirel::IpRuleConfig r, uint8_t proto) {
    r.filter.protocol = Zamu::IpProto(proto);
    r.filter.matchProtocol = proto != Zamu::IpProto::kAny;
    return r;
}

std::vector<uint32_t> ruleNums(const Mirel::AclRuleListPtr& list) {
    std::vector<uint32_t> nums;
    for (const auto& [index, rule] : list->ipRules())
        nums.push_back(index.ruleNum);
    return nums;
}

TEST(OvinMirelAcl, RuleSnapshotIsSharedUntilARuleChanges) {
    auto coll = ovinMirelAclCollFactory("acls");
    auto a = coll->aclIs(TestSupport::aclKey("a"));
    auto b = coll->aclIs(TestSupport::aclKey("b"));
    a->ipRuleByIdIs({10, 0, {1}}, permitFrom("10.0.0.0"));
    b->ipRuleByIdIs({10, 0, {2}}, permitFrom("10.0.1.0"));
    const Mirel::AclRuleListPtr a1 = a->ruleList();
    const Mirel::AclRuleListPtr b1 = b->ruleList();
    EXPECT_EQ(a->ruleList(), a1);  // asked again: the same list, not a rebuild

    // A reader told of the change already gets the new snapshot.
    Mirel::AclRuleListPtr seenInNotification;
    auto sub =
        b->ipRuleByIdNotify([&](const Mirel::AceIndex&) { seenInNotification = b->ruleList(); });
    b->ipRuleByIdIs({10, 0, {2}}, permitFrom("10.0.1.0"));  // equal: nothing changes
    EXPECT_EQ(b->ruleList(), b1);
    b->ipRuleByIdIs({20, 0, {3}}, permitFrom("10.0.2.0"));
    const Mirel::AclRuleListPtr b2 = b->ruleList();
    EXPECT_NE(b2, b1);
    EXPECT_EQ(seenInNotification, b2);
    EXPECT_EQ(ruleNums(b2), (std::vector<uint32_t>{10, 20}));
    EXPECT_EQ(ruleNums(b1), (std::vector<uint32_t>{10}));  // a root holding b1 keeps its rules
    // The next cycle: the ACL that did not change hands out the list it had.
    EXPECT_EQ(a->ruleList(), a1);

    // The list holds the store's own rules: later writes leave what it holds alone.
    b->ipRuleByIdIs({10, 0, {2}}, permitFrom("10.9.9.0"));
    EXPECT_EQ(b2->ipRules()[0].second, permitFrom("10.0.1.0"));
    b->ipRuleByIdIs({10, 0, {2}}, permitFrom("10.0.1.0"));
    b->ipRuleByIdDel({20, 0, {3}});
    EXPECT_EQ(ruleNums(b2), (std::vector<uint32_t>{10, 20}));
    const Mirel::AclRuleListPtr b3 = b->ruleList();
    EXPECT_NE(b3, b1);                // a rebuild: a new identity ...
    EXPECT_TRUE(b3->sameRules(*b1));  // ... with the same rules
    b->ipRuleByIdDelAll();
    EXPECT_EQ(b->ruleList(), Mirel::AclRuleList::emptyList());
}

TEST(OvinMirelAcl, SplitSnapshotsHoldTheTcpAndNonTcpHalves) {
    auto acl = Vorn::make<OvinMirelAcl>(TestSupport::aclKey("a"));
    acl->ipRuleByIdIs({10, 0, {1}}, withProto(permitFrom("10.0.0.0"), Zamu::IpProto::kTcp));
    acl->ipRuleByIdIs({20, 0, {2}}, withProto(permitFrom("10.0.0.0"), Zamu::IpProto::kUdp));
    acl->ipRuleByIdIs({30, 0, {3}}, withProto(permitFrom("10.0.0.0"), Zamu::IpProto::kAny));
    acl->ipRuleByIdIs({40, 0, {4}}, withProto(permitFrom("10.0.0.0"), Zamu::IpProto::kTcp));
    EXPECT_EQ(ruleNums(acl->ruleList(Mirel::protocolTcp_)), (std::vector<uint32_t>{10, 40}));
    EXPECT_EQ(ruleNums(acl->ruleList(Mirel::protocolNonTcp_)), (std::vector<uint32_t>{20, 30}));
    EXPECT_EQ(ruleNums(acl->ruleList()), (std::vector<uint32_t>{10, 20, 30, 40}));
    const Mirel::AclRuleListPtr tcp = acl->ruleList(Mirel::protocolTcp_);
    const Mirel::AclRuleListPtr nonTcp = acl->ruleList(Mirel::protocolNonTcp_);
    // The halves hold the store's rules, not copies, and are told apart by what they pick.
    EXPECT_EQ(&tcp->ipRules()[1], &acl->ruleList()->ipRules()[3]);
    EXPECT_FALSE(tcp->sameRules(*nonTcp));
    // A rule that stops matching TCP moves to the other half; the half taken before keeps it.
    acl->ipRuleByIdIs({40, 0, {4}}, withProto(permitFrom("10.0.0.0"), Zamu::IpProto::kUdp));
    EXPECT_EQ(ruleNums(acl->ruleList(Mirel::protocolTcp_)), (std::vector<uint32_t>{10}));
    EXPECT_EQ(ruleNums(acl->ruleList(Mirel::protocolNonTcp_)), (std::vector<uint32_t>{20, 30, 40}));
    EXPECT_EQ(ruleNums(tcp), (std::vector<uint32_t>{10, 40}));
    EXPECT_TRUE(Mirel::isTcpRule(tcp->ipRules()[1].second));
    EXPECT_FALSE(tcp->sameRules(*acl->ruleList(Mirel::protocolTcp_)));
}

TEST(OvinMirelAcl, MacSnapshot) {
    auto acl = Vorn::make<OvinMirelAcl>(TestSupport::aclKey("m", Acl::aclTypeMac));
    Mirel::MacRuleConfig r;
    r.etherType = 0x0800;
    r.matchEtherType = true;
    acl->macRuleByIdIs({10, 0, {1}}, r);
    const Mirel::AclRuleListPtr list = acl->ruleList();
    EXPECT_EQ(list->kind(), Mirel::AclRuleList::Kind::mac);
    ASSERT_EQ(list->macRules().size(), 1u);
    EXPECT_EQ(list->macRules()[0].second, r);
    EXPECT_EQ(acl->ruleList(), list);
}

TEST(OvinMirelAclDeathTest, SnapshotsOfAMixedOrSplitMacAclAreInternalErrors) {
    auto acl = Vorn::make<OvinMirelAcl>(TestSupport::aclKey("m", Acl::aclTypeMac));
    acl->macRuleByIdIs({10, 0, {1}}, Mirel::MacRuleConfig{});
    EXPECT_DEATH(acl->ruleList(Mirel::protocolTcp_), "macRuleByIds\\(\\) == 0");
    acl->ipRuleByIdIs({20, 0, {2}}, permitFrom("10.0.0.0"));
    EXPECT_DEATH(acl->ruleList(), "ipRuleByIds\\(\\) == 0 \\|\\| macRuleByIds\\(\\) == 0");
}

TEST(OvinMirelAclDeathTest, OtherInterfaceKindsAreAnInternalError) {
    auto acl = Vorn::make<OvinMirelAcl>(TestSupport::aclKey("a"));
    EXPECT_DEATH(acl->intfIs(Zamu::IntfId("Port-Channel3"), true), "false && \"Internal Error\"");
}

}  // namespace
}  // namespace OvinMirel
