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

TEST(OvinMirelAcl, NewEntryHasItsDefaults) {
    auto coll = ovinMirelAclCollFactory("acls");
    auto acl = coll->aclIs(TestSupport::aclKey("a"));
    EXPECT_EQ(acl->name(), TestSupport::aclKey("a"));
    EXPECT_FALSE(acl->created());
    EXPECT_TRUE(acl->inUse());
    EXPECT_EQ(acl->ipRuleByIds() + acl->macRuleByIds() + acl->ethIntfs() + acl->subIntfs() +
                  acl->vlanIntfs() + acl->ruleNums() + acl->ruleCountByProtocols(),
              0u);
    EXPECT_EQ(coll->aclIs(TestSupport::aclKey("a")), acl);  // get-or-create returns the same entry
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

TEST(OvinMirelAcl, InterfacesGoToTheSetOfTheirKind) {
    auto acl = Vorn::make<OvinMirelAcl>(TestSupport::aclKey("a"));
    acl->intfIs(Zamu::IntfId("Ethernet1"), true);
    acl->intfIs(Zamu::IntfId("Ethernet1.10"), true);
    acl->intfIs(Zamu::IntfId("Port-Channel3.10"), true);
    acl->intfIs(Zamu::IntfId("Vlan10"), true);
    EXPECT_TRUE(acl->ethIntf(Zamu::IntfId("Ethernet1")));
    EXPECT_EQ(acl->subIntfs(), 2u);
    EXPECT_TRUE(acl->vlanIntf(Zamu::IntfId("Vlan10")));
    acl->intfIs(Zamu::IntfId("Ethernet1.10"), false);
    EXPECT_EQ(acl->subIntfs(), 1u);
    EXPECT_EQ(acl->ethIntfs(), 1u);
}

TEST(OvinMirelAclDeathTest, OtherInterfaceKindsAreAnInternalError) {
    auto acl = Vorn::make<OvinMirelAcl>(TestSupport::aclKey("a"));
    EXPECT_DEATH(acl->intfIs(Zamu::IntfId("Port-Channel3"), true), "false && \"Internal Error\"");
}

}  // namespace
}  // namespace OvinMirel
