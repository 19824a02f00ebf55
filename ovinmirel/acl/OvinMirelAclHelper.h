#pragma once
// OvinMirel::AclHelper: this hardware layer's side of the ACL engine's helper interface.
//
// The engine calls it for every ACL: precreate, one creation call per subrule, the final rule,
// interface bindings, prepare and commit, remove and destroy. The helper validates each rule
// against what the chips can match, translates it into a hardware rule, and records
// everything in the ACL store; it programs nothing itself (the index and glue machines take
// over from the store and the glue configuration).
//
// Writes: the ACL store (OvinMirelAclColl: entries, rules, interface sets, created/inUse) and
//   GlueConfig (blockedIntf, prepareCommitKickTime).
// Reads: the mapping Index (chips an ACL is placed on), GlueStatus (per-chip ACL ids), and for
//   the rule counters the driver's PDStatus (per chip, hits by chip rule list and rule).
// Invariants:
//  1. A refused rule (aclCreateNotSupportedByHw) leaves the store exactly as it was.
//  2. ruleCountByProtocol of an ACL sums to the number of its ipRuleById entries.
//  3. An interface id lands in the store set of its kind (OvinMirelAcl::aclIntfSetFor).
// Owns shared references to the five entities it was built with, and to the PDStatus the agent
// hands it for counters (pDStatusIs); watches nothing.

#include <cstdint>

#include "ovinmirel/acl/OvinMirelAcl.h"
#include "ovinmirel/glue/OvinMirelGlueConfig.h"
#include "ovinmirel/glue/OvinMirelGlueStatus.h"
#include "ovinmirel/index/OvinMirelIndex.h"
#include "platform/mirel/AclRule.h"
#include "platform/mirel/HwCapability.h"
#include "platform/mirel/PDStatus.h"
#include "platform/ovin/OvinHelperAclHelper.h"

namespace OvinMirel {

class AclHelper : public OvinHelper::AclHelper {
    VORN_ENTITY("OvinMirel::AclHelper")
  public:
    // Stores the references (none may be null: NullPointerException naming the parameter),
    // then runs handleInitialized.
    AclHelper(const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<GlueConfig>& glueConfig,
              const Vorn::Ptr<const GlueStatus>& glueStatus,
              const Vorn::Ptr<const Mirel::HwCapabilityColl>& hwCapabilityColl,
              const Vorn::Ptr<const Index>& index);

    const Vorn::Ptr<OvinMirelAclColl>& aclColl() const { return aclColl_; }
    const Vorn::Ptr<GlueConfig>& glueConfig() const { return glueConfig_; }
    const Vorn::Ptr<const GlueStatus>& glueStatus() const { return glueStatus_; }
    const Vorn::Ptr<const Mirel::HwCapabilityColl>& hwCapabilityColl() const {
        return hwCapabilityColl_;
    }
    const Vorn::Ptr<const Index>& index() const { return index_; }
    // Where the rule counters come from: the driver's per-chip status. Not one of the factory's
    // references (the engine's contract has five); the agent sets it once the driver's status
    // exists. Without it every count is 0.
    VORN_PTR_ATTR(const Mirel::PDStatus, pDStatus)

    // Sets initialized and routerAclSupported.
    void handleInitialized();
    void handleDeleted();

    // ---- Engine operations this layer overrides (in the engine's slot order) ----
    // Asserts the capabilities this layer requires, in a fixed order.
    void verifyHwInit() const override;
    bool intfSupportsAcl(const Zamu::IntfId& intf) const override;
    void logAclUnsupportedHardware(const Vorn::String& name, const Zamu::IntfId& intf) override;
    // Forwards to createIpAclSubruleHelper; the IP length, VLAN and hop-limit values are
    // dropped because these chips cannot match them.
    Ovin::AclCreateError createIpAclSubrule(
        Acl::AclType type, const Acl::RuleConfig& rule, Acl::UniqueId id,
        const Ovin::AclData& aclData, uint32_t ruleNum, uint32_t subruleNum, uint16_t srcPort,
        uint16_t srcPortMask, uint16_t srcPortLow, uint16_t srcPortHigh, uint16_t dstPort,
        uint16_t dstPortMask, uint16_t dstPortLow, uint16_t dstPortHigh, uint16_t ipLenLow,
        uint16_t ipLenHigh, uint16_t vlan, uint16_t vlanMask, uint8_t tcpFlags, bool l4,
        uint8_t hopLimit, uint8_t hopLimitMask) override;
    Ovin::AclCreateError createIpFragRule(const Ovin::AclData& aclData,
                                          const Acl::IpRuleConfig& rule, Acl::UniqueId id,
                                          uint32_t ruleNum, uint32_t subruleNum) override;
    Ovin::AclCreateError createMacAclRule(const Acl::MacRuleConfig& rule, Acl::UniqueId id,
                                          const Ovin::AclData& aclData, uint32_t ruleNum) override;
    Ovin::AclCreateError createFinalAclRule(Acl::AclType type, const Ovin::AclData& aclData,
                                            uint32_t ruleNum) override;
    bool needToInstallIcmp6NeighborDiscoveryRules() const override;
    Ovin::AclCreateError precreateAcl(const Ovin::AclData& aclData,
                                      Ovin::AclDataStatus& status) override;
    void destroyAcl(const Ovin::AclData& aclData) override;
    void removeAcl(const Ovin::AclData& aclData) override;
    void cleanupAcl(const Ovin::AclData& aclData) override;
    void prepareToCommit() override;
    void commitAcl(const Ovin::AclData& aclData) override;
    void blockIntf(const Zamu::IntfId& intf, bool block, uint32_t n) override;
    bool sharedAclDataForVlansSupported(const Ovin::AclKey& aclKey) const override;
    bool subIntfAclSharingSupported(const Ovin::AclKey& aclKey) const override;
    bool addIntfToAcl(const Zamu::IntfId& intf, const Ovin::AclData& aclData,
                      Ovin::AclDataStatus& status) override;
    bool removeIntfFromAcl(const Zamu::IntfId& intf, const Ovin::AclData& aclData,
                           bool belongsToAnother) override;
    void updateAclPorts(const Ovin::AclData& aclData, bool active) override;

    // Verification: trace the call, check nothing.
    bool verifyMacRuleGeneral(const Ovin::AclData& aclData, Acl::UniqueId id,
                              uint32_t ruleNum) const override;
    bool verifyMacRuleAction(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                             Acl::AclAction action) const override;
    bool verifyMacRuleSrcMac(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                             const Zamu::EthAddr& mac, const Zamu::EthAddr& mask,
                             bool match) const override;
    bool verifyMacRuleDstMac(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                             const Zamu::EthAddr& mac, const Zamu::EthAddr& mask,
                             bool match) const override;
    bool verifyMacRuleEtherType(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                                uint16_t etherType, bool match) const override;
    bool verifyIpRuleGeneral(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                             uint32_t subruleNum) const override;
    bool verifyIpRuleAction(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                            uint32_t subruleNum, Acl::AclAction action) const override;
    bool verifyIpRuleIpProto(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                             uint32_t subruleNum, Zamu::IpProto proto, bool match) const override;
    bool verifyIpRuleSrcIp(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                           uint32_t subruleNum, const Zamu::IpAddrWithMask& ip,
                           bool match) const override;
    bool verifyIpRuleDstIp(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                           uint32_t subruleNum, const Zamu::IpAddrWithMask& ip,
                           bool match) const override;
    bool verifyIpRuleFragments(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                               uint32_t subruleNum, bool fragments, bool match) const override;
    bool verifyIpRuleTcpFlags(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                              uint32_t subruleNum, uint8_t tcpFlags, bool match) const override;
    bool verifyIpRuleIcmp(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                          uint32_t subruleNum, uint8_t icmpType, uint8_t icmpCode,
                          bool match) const override;
    bool verifyIpRuleSrcPort(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                             uint32_t subruleNum, uint16_t port, uint16_t mask,
                             bool match) const override;
    bool verifyIpRuleDstPort(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                             uint32_t subruleNum, uint16_t port, uint16_t mask,
                             bool match) const override;
    bool verifyAclGeneral(const Ovin::AclData& aclData) const override;
    bool verifyDropAllRule(const Ovin::AclData& aclData, uint32_t ruleNum) const override;

    // Show: trace only; these chips add nothing to the engine's output.
    void showAclTypeHeader(uint32_t ctx, uint32_t flags, Acl::AclType type) override;
    void showAclHeader(uint32_t ctx, uint32_t flags, bool summary,
                       const Ovin::AclData& aclData) override;
    void showMacAclRule(uint32_t ctx, uint32_t flags, const Ovin::AclData& aclData,
                        uint32_t ruleNum, Acl::UniqueId id) override;
    void showIpAclRule(uint32_t ctx, uint32_t flags, const Ovin::AclData& aclData, uint32_t ruleNum,
                       Acl::UniqueId id) override;

    // Counters: whether the ACL has an ACL id on some chip it is placed on; the rule's hits
    // summed over every chip the Index places the ACL on, under each of the chip's ACL ids for
    // it (a split ACL has two). A chip without an ACL id or a count for the rule adds 0, and
    // so does an ACL on no chip.
    bool aclCountersAllocated(const Ovin::AclData& aclData) const override;
    uint64_t aclRuleCountersSinceLastPoll(const Ovin::AclData& aclData, uint32_t ruleNum,
                                          Acl::UniqueId id) override;

    // ---- This layer's own operations ----
    // Adds (add) or removes intf in the store entry of the ACL; true when that changed the
    // number of chips the ACL is placed on (the index follows the store synchronously).
    bool updateIntfForAcl(const Zamu::IntfId& intf, const Ovin::AclData& aclData, bool add);
    // Number of chips the Index places the ACL on; 0 when the Index does not know it.
    size_t getChipCountForAcl(const Ovin::AclKey& key) const;
    // Validates one IP subrule and stores its hardware rule (IPv4 or IPv6 by `type`). `l4`:
    // the port values are meaningful; `countAll`: count the entry whatever the rule says.
    // Returns aclCreateNotSupportedByHw, with a trace and nothing stored, for a rule the chips
    // cannot express; range errors (ports) throw before anything is stored.
    Ovin::AclCreateError createIpAclSubruleHelper(Acl::AclType type, const Acl::RuleConfig& rule,
                                                  Acl::UniqueId id, const Ovin::AclData& aclData,
                                                  uint32_t ruleNum, uint32_t subruleNum,
                                                  uint16_t srcPort, uint16_t srcPortMask,
                                                  uint16_t srcPortLow, uint16_t srcPortHigh,
                                                  uint16_t dstPort, uint16_t dstPortMask,
                                                  uint16_t dstPortLow, uint16_t dstPortHigh,
                                                  uint8_t tcpFlags, bool l4, bool countAll);
    // The port range a subrule matches: everything without L4, the exact port under a full
    // mask, else low..high (0..0 meaning everything). low > high throws the L4PortRange range
    // error.
    static Mirel::L4PortRange createPortRange(bool l4, uint16_t port, uint16_t mask, uint16_t low,
                                              uint16_t high);

  private:
    // The ACL's ids in the chip's active root; null when the chip runs none for it.
    Vorn::Ptr<Mirel::AclIdTypeSet> aclIdsOnChip(Mirel::ChipId chip, const Ovin::AclKey& key) const;

    const Vorn::Ptr<OvinMirelAclColl> aclColl_;
    const Vorn::Ptr<GlueConfig> glueConfig_;
    const Vorn::Ptr<const GlueStatus> glueStatus_;
    const Vorn::Ptr<const Mirel::HwCapabilityColl> hwCapabilityColl_;
    const Vorn::Ptr<const Index> index_;
};

// Writes the ACL data to the helper's trace ("aclData: <key>, dir: ..., vlan: ..." and its
// rules).
void traceAclData(const Ovin::AclData& aclData);

Vorn::Ptr<AclHelper> aclHelperFactory(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<GlueConfig>& glueConfig,
    const Vorn::Ptr<const GlueStatus>& glueStatus,
    const Vorn::Ptr<const Mirel::HwCapabilityColl>& hwCapabilityColl,
    const Vorn::Ptr<const Index>& index);

}  // namespace OvinMirel
