#include "ovinmirel/testagent/OvinMirelTestAclHelper.h"

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {

static Flinq::Handle th("OvinMirelTestAclHelper");

TestAclHelper::TestAclHelper(const Vorn::Ptr<OvinMirelAclColl>& aclColl,
                             const Vorn::Ptr<GlueConfig>& glueConfig,
                             const Vorn::Ptr<const GlueStatus>& glueStatus,
                             const Vorn::Ptr<const Mirel::HwCapabilityColl>& hwCapabilityColl,
                             const Vorn::Ptr<const Index>& index)
    : AclHelper(aclColl, glueConfig, glueStatus, hwCapabilityColl, index) {}

void TestAclHelper::hwInit() {
    FLINQ(th, 8, "TestAclHelper::hwInit");
    // Required by verifyHwInit.
    revertIncompleteAclSupportedIs(true);
    aclBatchCommitSupportedIs(true);
    routerAclSupportedIs(true);
    dscpFilterSupportedIs(true);
    ip6AclSupportedIs(true);
    permitDuringAclUpdateIs(true);
    macEgressAclSupportedIs(false);
    mirroringAclSupportedIs(false);
    configurableImplicitIcmp6RulesSupportedIs(false);
    // What the mocks' chips hold besides.
    ipIngressAclSupportedIs(true);
    ipEgressAclSupportedIs(true);
    ip6EgressAclSupportedIs(true);
    macAclSupportedIs(true);
    subIntfAclSupportedIs(true);
    aclCountersSupportedIs(true);
    establishedSupportedIs(true);
}

bool TestAclHelper::routedPortAclSharingSupported(const Ovin::AclKey& aclKey) const {
    FLINQ(th, 8, "TestAclHelper::routedPortAclSharingSupported acl=" << aclKey);
    return shareAclDataForRoutedPorts();
}

Vorn::Ptr<TestAclHelper> testAclHelperFactory(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<GlueConfig>& glueConfig,
    const Vorn::Ptr<const GlueStatus>& glueStatus,
    const Vorn::Ptr<const Mirel::HwCapabilityColl>& hwCapabilityColl,
    const Vorn::Ptr<const Index>& index) {
    return Vorn::make<TestAclHelper>(aclColl, glueConfig, glueStatus, hwCapabilityColl, index);
}

// ---- AclHelperTestHelper ----

AclHelperTestHelper::AclHelperTestHelper(const Vorn::Name& name, const Vorn::Ptr<AclHelper>& helper)
    : name_(name), helper_(helper) {
    Vorn::requireNonNull(helper_, typeName(), "helper");
}

Ovin::AclCreateError AclHelperTestHelper::createSubrule(
    Acl::AclType type, const Ovin::AclData& aclData, const Acl::IpRuleConfig& rule,
    Acl::UniqueId id, uint32_t ruleNum, uint32_t subruleNum, const TestSubrulePorts& p,
    uint8_t tcpFlags) {
    return helper_->createIpAclSubrule(type, rule, id, aclData, ruleNum, subruleNum, p.srcPort,
                                       p.srcPortMask, p.srcPortLow, p.srcPortHigh, p.dstPort,
                                       p.dstPortMask, p.dstPortLow, p.dstPortHigh, 0, 0, 0, 0,
                                       tcpFlags, p.l4, 0, 0);
}

Ovin::AclCreateError AclHelperTestHelper::createIpAclSubrule(
    const Ovin::AclData& aclData, const Acl::IpRuleConfig& rule, Acl::UniqueId id, uint32_t ruleNum,
    uint32_t subruleNum, const TestSubrulePorts& ports, uint8_t tcpFlags) {
    return createSubrule(Acl::aclTypeIpv4, aclData, rule, id, ruleNum, subruleNum, ports, tcpFlags);
}

Ovin::AclCreateError AclHelperTestHelper::createIp6AclSubrule(
    const Ovin::AclData& aclData, const Acl::IpRuleConfig& rule, Acl::UniqueId id, uint32_t ruleNum,
    uint32_t subruleNum, const TestSubrulePorts& ports, uint8_t tcpFlags) {
    return createSubrule(Acl::aclTypeIpv6, aclData, rule, id, ruleNum, subruleNum, ports, tcpFlags);
}

Ovin::AclCreateError AclHelperTestHelper::createIpFragRule(const Ovin::AclData& aclData,
                                                           const Acl::IpRuleConfig& rule,
                                                           Acl::UniqueId id, uint32_t ruleNum,
                                                           uint32_t subruleNum) {
    return helper_->createIpFragRule(aclData, rule, id, ruleNum, subruleNum);
}

Vorn::Ptr<AclHelperTestHelper> aclHelperTestHelperFactory(const Vorn::Name& name,
                                                          const Vorn::Ptr<AclHelper>& helper) {
    return Vorn::make<AclHelperTestHelper>(name, helper);
}

}  // namespace OvinMirel
