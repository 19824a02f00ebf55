#include "platform/ovin/OvinHelperAclHelper.h"

#include <gtest/gtest.h>

#include <vector>

namespace OvinHelper {
namespace {

Ovin::AclData dataOf(const char* name) {
    Ovin::AclData d;
    d.key.name = name;
    return d;
}

TEST(OvinHelperAclHelperTest, DefaultsNeverPretendToHoldARule) {
    const Vorn::Ptr<AclHelper> h = Vorn::make<AclHelper>();
    const Ovin::AclData data = dataOf("a");
    const Acl::IpRuleConfig ip;
    EXPECT_EQ(h->createIpAclSubrule(Acl::aclTypeIpv4, ip, Acl::UniqueId{1}, data, 10, 0, 0, 0, 0, 0,
                                    0, 0, 0, 0, 0, 0, 0, 0, 0, false, 0, 0),
              Ovin::aclCreateNotSupportedByHw);
    EXPECT_EQ(h->createIpFragRule(data, ip, Acl::UniqueId{1}, 10, 0),
              Ovin::aclCreateNotSupportedByHw);
    EXPECT_EQ(h->createMacAclRule(Acl::MacRuleConfig(), Acl::UniqueId{1}, data, 10),
              Ovin::aclCreateNotSupportedByHw);
    EXPECT_EQ(h->createFinalAclRule(Acl::aclTypeIpv4, data, 11), Ovin::aclCreateFinalRuleDone);
    Ovin::AclDataStatus status;
    EXPECT_EQ(h->precreateAcl(data, status), Ovin::aclCreateOk);
    EXPECT_FALSE(h->addIntfToAcl("Ethernet1", data, status));
    EXPECT_FALSE(h->ipSubruleExists(data, Acl::UniqueId{1}, 10, 0));
    EXPECT_FALSE(h->aclCountersAllocated(data));
    EXPECT_EQ(h->aclRuleCountersSinceLastPoll(data, 10, Acl::UniqueId{1}), 0u);
    EXPECT_TRUE(h->verifyIpRuleDscp(data, Acl::UniqueId{1}, 10, 0, 46, true));
    EXPECT_TRUE(h->verifyAclGeneral(data));
    EXPECT_EQ(h->supportedTcpFlagsDefault(), Acl::kAllTcpFlags);  // refuses no flag of its own
}

TEST(OvinHelperAclHelperTest, StatusUpdateCallback) {
    const Vorn::Ptr<AclHelper> h = Vorn::make<AclHelper>();
    h->aclStatusUpdateCallback()(Ovin::AclKey(), Ovin::aclCreateFailed);  // none installed: ignored
    std::vector<std::pair<std::string, Ovin::AclCreateError>> reports;
    const AclStatusUpdateCallback cb(
        [&](const Ovin::AclKey& k, Ovin::AclCreateError e) { reports.emplace_back(k.name, e); });
    int installs = 0;
    Vorn::Subscription s = h->aclStatusUpdateCallbackNotify([&] { ++installs; });
    h->aclStatusUpdateCallbackIs(cb);
    h->aclStatusUpdateCallbackIs(cb);  // the same callback again
    EXPECT_EQ(installs, 1);
    // An equal-looking but separately installed function is a new callback.
    h->aclStatusUpdateCallbackIs(
        AclStatusUpdateCallback([](const Ovin::AclKey&, Ovin::AclCreateError) {}));
    EXPECT_EQ(installs, 2);
    h->aclStatusUpdateCallbackIs(cb);
    h->aclStatusUpdateCallback()(dataOf("a").key, Ovin::aclCreateFailed);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].first, "a");
    EXPECT_EQ(reports[0].second, Ovin::aclCreateFailed);
}

}  // namespace
}  // namespace OvinHelper
