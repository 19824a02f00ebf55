#pragma once
// The ACL helper as the test agent runs it, and a narrow door to its rule creation for tests.
//
// TestAclHelper is this layer's AclHelper with the one thing a real agent gets from its
// platform start-up: hwInit() publishes the capabilities of the chips the test agent plays,
// so verifyHwInit() holds. It also answers the engine's routed-port sharing question from a
// setting (shareAclDataForRoutedPortsIs), which the base leaves at the engine's default.
//
// AclHelperTestHelper hands tests the helper's rule-creation operations with the values these
// chips ignore left out: an IPv4 or IPv6 subrule (its ports, TCP flags) and a fragment rule.
// It calls the helper exactly as the engine would; nothing is stored beside the helper.

#include <cstdint>

#include "ovinmirel/acl/OvinMirelAclHelper.h"
#include "platform/vorn/Entity.h"

namespace OvinMirel {

class TestAclHelper : public AclHelper {
    VORN_ENTITY("OvinMirel::TestAclHelper")
  public:
    // The helper's five references (none may be null). hwInit() is left to the owner, as the
    // agent leaves it to its platform start-up.
    TestAclHelper(const Vorn::Ptr<OvinMirelAclColl>& aclColl,
                  const Vorn::Ptr<GlueConfig>& glueConfig,
                  const Vorn::Ptr<const GlueStatus>& glueStatus,
                  const Vorn::Ptr<const Mirel::HwCapabilityColl>& hwCapabilityColl,
                  const Vorn::Ptr<const Index>& index);

    // The test agent's chips: what verifyHwInit requires (revert of incomplete ACLs, batch
    // commit, router ACLs, DSCP, IPv6, permit during an update; no MAC egress, no mirroring,
    // no configurable implicit ICMPv6 rules), plus what the chip mocks can hold: MAC ACLs,
    // IP egress ACLs, sub-interface ACLs, counters and the established match.
    void hwInit() override;

    // The engine's question whether a routed port's ACL data may be shared (false until set).
    bool routedPortAclSharingSupported(const Ovin::AclKey& aclKey) const override;
    VORN_ATTR(bool, shareAclDataForRoutedPorts, false)
};

Vorn::Ptr<TestAclHelper> testAclHelperFactory(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<GlueConfig>& glueConfig,
    const Vorn::Ptr<const GlueStatus>& glueStatus,
    const Vorn::Ptr<const Mirel::HwCapabilityColl>& hwCapabilityColl,
    const Vorn::Ptr<const Index>& index);

// One subrule's L4 values, as the engine hands them over. `l4` false: the ports mean nothing.
struct TestSubrulePorts {
    uint16_t srcPort = 0, srcPortMask = 0, srcPortLow = 0, srcPortHigh = 0;
    uint16_t dstPort = 0, dstPortMask = 0, dstPortLow = 0, dstPortHigh = 0;
    bool l4 = false;
};

class AclHelperTestHelper : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::AclHelperTestHelper")
  public:
    // A null helper is refused: "null _helper parameter to mutator for
    // OvinMirel::AclHelperTestHelper::helper not allowed".
    AclHelperTestHelper(const Vorn::Name& name, const Vorn::Ptr<AclHelper>& helper);
    const Vorn::Name& name() const { return name_; }
    const Vorn::Ptr<AclHelper>& helper() const { return helper_; }

    // One subrule of an IPv4 (IPv6) ACL through the helper's createIpAclSubrule, with the
    // values the chips cannot match (IP length, VLAN, hop limit) at 0. Returns the helper's
    // answer; aclCreateNotSupportedByHw leaves the store as it was.
    Ovin::AclCreateError createIpAclSubrule(const Ovin::AclData& aclData,
                                            const Acl::IpRuleConfig& rule, Acl::UniqueId id,
                                            uint32_t ruleNum, uint32_t subruleNum,
                                            const TestSubrulePorts& ports = {},
                                            uint8_t tcpFlags = 0);
    Ovin::AclCreateError createIp6AclSubrule(const Ovin::AclData& aclData,
                                             const Acl::IpRuleConfig& rule, Acl::UniqueId id,
                                             uint32_t ruleNum, uint32_t subruleNum,
                                             const TestSubrulePorts& ports = {},
                                             uint8_t tcpFlags = 0);
    // The helper's createIpFragRule: the entry for the rule's non-initial fragments.
    Ovin::AclCreateError createIpFragRule(const Ovin::AclData& aclData,
                                          const Acl::IpRuleConfig& rule, Acl::UniqueId id,
                                          uint32_t ruleNum, uint32_t subruleNum);

  private:
    Ovin::AclCreateError createSubrule(Acl::AclType type, const Ovin::AclData& aclData,
                                       const Acl::IpRuleConfig& rule, Acl::UniqueId id,
                                       uint32_t ruleNum, uint32_t subruleNum,
                                       const TestSubrulePorts& ports, uint8_t tcpFlags);

    const Vorn::Name name_;
    const Vorn::Ptr<AclHelper> helper_;
};

Vorn::Ptr<AclHelperTestHelper> aclHelperTestHelperFactory(const Vorn::Name& name,
                                                          const Vorn::Ptr<AclHelper>& helper);

}  // namespace OvinMirel
