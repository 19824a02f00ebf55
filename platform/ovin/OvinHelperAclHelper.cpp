#include "platform/ovin/OvinHelperAclHelper.h"

// The engine's defaults, as documented in the header: creation refuses, questions answer false,
// verification succeeds, counters are 0, everything else does nothing.

namespace OvinHelper {

Vorn::String AclHelper::aclOwner(const Zamu::IntfId& /*intf*/,
                                 const Ovin::AclKey& /*aclKey*/) const {
    return {};
}

Vorn::String AclHelper::aclGroup(const Zamu::IntfId& /*intf*/) const {
    return {};
}

bool AclHelper::intfSupportsAcl(const Zamu::IntfId& /*intf*/) const {
    return false;
}

Vorn::String AclHelper::intfLinecardName(const Zamu::IntfId& /*intf*/) const {
    return {};
}

void AclHelper::logAclUnsupportedHardware(const Vorn::String& /*name*/,
                                          const Zamu::IntfId& /*intf*/) {}

Ovin::AclCreateError AclHelper::createIpAclSubrule(
    Acl::AclType /*type*/, const Acl::RuleConfig& /*rule*/, Acl::UniqueId /*id*/,
    const Ovin::AclData& /*aclData*/, uint32_t /*ruleNum*/, uint32_t /*subruleNum*/,
    uint16_t /*srcPort*/, uint16_t /*srcPortMask*/, uint16_t /*srcPortLow*/,
    uint16_t /*srcPortHigh*/, uint16_t /*dstPort*/, uint16_t /*dstPortMask*/,
    uint16_t /*dstPortLow*/, uint16_t /*dstPortHigh*/, uint16_t /*ipLenLow*/,
    uint16_t /*ipLenHigh*/, uint16_t /*vlan*/, uint16_t /*vlanMask*/, uint8_t /*tcpFlags*/,
    bool /*l4*/, uint8_t /*hopLimit*/, uint8_t /*hopLimitMask*/) {
    return Ovin::aclCreateNotSupportedByHw;
}

Ovin::AclCreateError AclHelper::createIpFragRule(const Ovin::AclData& /*aclData*/,
                                                 const Acl::IpRuleConfig& /*rule*/,
                                                 Acl::UniqueId /*id*/, uint32_t /*ruleNum*/,
                                                 uint32_t /*subruleNum*/) {
    return Ovin::aclCreateNotSupportedByHw;
}

Ovin::AclCreateError AclHelper::createMacAclRule(const Acl::MacRuleConfig& /*rule*/,
                                                 Acl::UniqueId /*id*/,
                                                 const Ovin::AclData& /*aclData*/,
                                                 uint32_t /*ruleNum*/) {
    return Ovin::aclCreateNotSupportedByHw;
}

Ovin::AclCreateError AclHelper::createFinalAclRule(Acl::AclType /*type*/,
                                                   const Ovin::AclData& /*aclData*/,
                                                   uint32_t /*ruleNum*/) {
    return Ovin::aclCreateFinalRuleDone;
}

bool AclHelper::needToInstallIcmp6NeighborDiscoveryRules() const {
    return false;
}

Ovin::AclCreateError AclHelper::precreateAcl(const Ovin::AclData& /*aclData*/,
                                             Ovin::AclDataStatus& /*status*/) {
    return Ovin::aclCreateOk;
}

void AclHelper::destroyAcl(const Ovin::AclData& /*aclData*/) {}

void AclHelper::removeAcl(const Ovin::AclData& /*aclData*/) {}

void AclHelper::cleanupAcl(const Ovin::AclData& /*aclData*/) {}

void AclHelper::prepareToCommit() {}

void AclHelper::commitAcl(const Ovin::AclData& /*aclData*/) {}

void AclHelper::batchCommitAcls() {}

void AclHelper::blockIntf(const Zamu::IntfId& /*intf*/, bool /*block*/, uint32_t /*n*/) {}

bool AclHelper::sharedAclDataForVlansSupported(const Ovin::AclKey& /*aclKey*/) const {
    return false;
}

bool AclHelper::routedPortAclSharingSupported(const Ovin::AclKey& /*aclKey*/) const {
    return false;
}

bool AclHelper::subIntfAclSharingSupported(const Ovin::AclKey& /*aclKey*/) const {
    return false;
}

bool AclHelper::useUnsharedRaclsForSubIntf() const {
    return false;
}

bool AclHelper::isVfiForwarding() const {
    return false;
}

bool AclHelper::addIntfToAcl(const Zamu::IntfId& /*intf*/, const Ovin::AclData& /*aclData*/,
                             Ovin::AclDataStatus& /*status*/) {
    return false;
}

bool AclHelper::removeIntfFromAcl(const Zamu::IntfId& /*intf*/, const Ovin::AclData& /*aclData*/,
                                  bool /*belongsToAnother*/) {
    return false;
}

void AclHelper::updateAclPorts(const Ovin::AclData& /*aclData*/, bool /*active*/) {}

Ovin::AclCreateError AclHelper::createAclsWithExtActions(const Ovin::AclData& /*aclData*/) {
    return Ovin::aclCreateNotSupportedByHw;
}

Ovin::AclCreateError AclHelper::addAclWithExtActions(const Ovin::AclData& /*aclData*/,
                                                     const Zamu::IntfId& /*intf*/) {
    return Ovin::aclCreateNotSupportedByHw;
}

Ovin::AclCreateError AclHelper::createMirrorDestinationAcl(const Ovin::AclData& /*aclData*/) {
    return Ovin::aclCreateNotSupportedByHw;
}

void AclHelper::removeMirrorDestinationAcl(const Ovin::AclData& /*aclData*/) {}

void AclHelper::deleteAclRuleWithExtActions(const Ovin::AclData& /*aclData*/,
                                            Acl::UniqueId /*id*/) {}

void AclHelper::commitAclWithExtActions(const Ovin::AclData& /*aclData*/) {}

void AclHelper::deleteAcl(const Ovin::AclData& /*aclData*/) {}

void AclHelper::deleteAclRule(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                              uint32_t /*ruleNum*/) {}

bool AclHelper::macRuleExists(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                              uint32_t /*ruleNum*/) const {
    return false;
}

bool AclHelper::ipSubruleExists(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                uint32_t /*ruleNum*/, uint32_t /*subruleNum*/) const {
    return false;
}

bool AclHelper::ipPortRangeSubruleExists(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                         uint32_t /*ruleNum*/, uint32_t /*subruleNum*/,
                                         uint16_t /*low*/, uint16_t /*high*/) const {
    return false;
}

bool AclHelper::verifyMacRuleGeneral(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                     uint32_t /*ruleNum*/) const {
    return true;
}

bool AclHelper::verifyMacRuleAction(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                    uint32_t /*ruleNum*/, Acl::AclAction /*action*/) const {
    return true;
}

bool AclHelper::verifyMacRuleSrcMac(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                    uint32_t /*ruleNum*/, const Zamu::EthAddr& /*mac*/,
                                    const Zamu::EthAddr& /*mask*/, bool /*match*/) const {
    return true;
}

bool AclHelper::verifyMacRuleDstMac(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                    uint32_t /*ruleNum*/, const Zamu::EthAddr& /*mac*/,
                                    const Zamu::EthAddr& /*mask*/, bool /*match*/) const {
    return true;
}

bool AclHelper::verifyMacRuleEtherType(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                       uint32_t /*ruleNum*/, uint16_t /*etherType*/,
                                       bool /*match*/) const {
    return true;
}

bool AclHelper::verifyIpRuleGeneral(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                    uint32_t /*ruleNum*/, uint32_t /*subruleNum*/) const {
    return true;
}

bool AclHelper::verifyIpRuleAction(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                   uint32_t /*ruleNum*/, uint32_t /*subruleNum*/,
                                   Acl::AclAction /*action*/) const {
    return true;
}

bool AclHelper::verifyIpRuleIpProto(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                    uint32_t /*ruleNum*/, uint32_t /*subruleNum*/,
                                    Zamu::IpProto /*proto*/, bool /*match*/) const {
    return true;
}

bool AclHelper::verifyIpRuleSrcIp(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                  uint32_t /*ruleNum*/, uint32_t /*subruleNum*/,
                                  const Zamu::IpAddrWithMask& /*ip*/, bool /*match*/) const {
    return true;
}

bool AclHelper::verifyIpRuleDstIp(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                  uint32_t /*ruleNum*/, uint32_t /*subruleNum*/,
                                  const Zamu::IpAddrWithMask& /*ip*/, bool /*match*/) const {
    return true;
}

bool AclHelper::verifyIpRuleSrcIp6(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                   uint32_t /*ruleNum*/, uint32_t /*subruleNum*/,
                                   const Zamu::IpAddrWithMask& /*ip*/, bool /*match*/) const {
    return true;
}

bool AclHelper::verifyIpRuleDstIp6(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                   uint32_t /*ruleNum*/, uint32_t /*subruleNum*/,
                                   const Zamu::IpAddrWithMask& /*ip*/, bool /*match*/) const {
    return true;
}

bool AclHelper::verifyIpRuleDscp(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                 uint32_t /*ruleNum*/, uint32_t /*subruleNum*/, uint8_t /*dscp*/,
                                 bool /*match*/) const {
    return true;
}

bool AclHelper::verifyIpRuleTrafficClass(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                         uint32_t /*ruleNum*/, uint32_t /*subruleNum*/,
                                         uint8_t /*value*/, uint8_t /*mask*/) const {
    return true;
}

bool AclHelper::verifyIpRuleIpLen(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                  uint32_t /*ruleNum*/, uint32_t /*subruleNum*/, uint16_t /*low*/,
                                  uint16_t /*high*/, bool /*match*/) const {
    return true;
}

bool AclHelper::verifyIpRuleFragments(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                      uint32_t /*ruleNum*/, uint32_t /*subruleNum*/,
                                      bool /*fragments*/, bool /*match*/) const {
    return true;
}

bool AclHelper::verifyIpRuleTcpFlags(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                     uint32_t /*ruleNum*/, uint32_t /*subruleNum*/,
                                     uint8_t /*tcpFlags*/, bool /*match*/) const {
    return true;
}

bool AclHelper::verifyIpRuleIcmp(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                 uint32_t /*ruleNum*/, uint32_t /*subruleNum*/,
                                 uint8_t /*icmpType*/, uint8_t /*icmpCode*/, bool /*match*/) const {
    return true;
}

bool AclHelper::verifyIpRuleSrcPort(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                    uint32_t /*ruleNum*/, uint32_t /*subruleNum*/,
                                    uint16_t /*port*/, uint16_t /*mask*/, bool /*match*/) const {
    return true;
}

bool AclHelper::verifyIpRuleDstPort(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                    uint32_t /*ruleNum*/, uint32_t /*subruleNum*/,
                                    uint16_t /*port*/, uint16_t /*mask*/, bool /*match*/) const {
    return true;
}

bool AclHelper::verifyAclGeneral(const Ovin::AclData& /*aclData*/) const {
    return true;
}

bool AclHelper::verifyDropAllRule(const Ovin::AclData& /*aclData*/, uint32_t /*ruleNum*/) const {
    return true;
}

bool AclHelper::verifyDiRuleGeneral(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                    uint32_t /*ruleNum*/) const {
    return true;
}

bool AclHelper::verifyDiRuleAction(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                   uint32_t /*ruleNum*/, Acl::AclAction /*action*/) const {
    return true;
}

bool AclHelper::verifyDiRuleOffset(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                   uint32_t /*ruleNum*/, uint32_t /*offset*/) const {
    return true;
}

bool AclHelper::verifyDiRulePattern(const Ovin::AclData& /*aclData*/, Acl::UniqueId /*id*/,
                                    uint32_t /*ruleNum*/, uint32_t /*pattern*/,
                                    uint32_t /*mask*/) const {
    return true;
}

void AclHelper::showAclTypeHeader(uint32_t /*ctx*/, uint32_t /*flags*/, Acl::AclType /*type*/) {}

void AclHelper::showAclHeader(uint32_t /*ctx*/, uint32_t /*flags*/, bool /*summary*/,
                              const Ovin::AclData& /*aclData*/) {}

void AclHelper::showMacAclRule(uint32_t /*ctx*/, uint32_t /*flags*/,
                               const Ovin::AclData& /*aclData*/, uint32_t /*ruleNum*/,
                               Acl::UniqueId /*id*/) {}

void AclHelper::showIpAclRule(uint32_t /*ctx*/, uint32_t /*flags*/,
                              const Ovin::AclData& /*aclData*/, uint32_t /*ruleNum*/,
                              Acl::UniqueId /*id*/) {}

void AclHelper::showDropEntry(uint32_t /*ctx*/, uint32_t /*flags*/,
                              const Ovin::AclData& /*aclData*/) {}

void AclHelper::showSharedRaclData(uint32_t /*ctx*/, uint32_t /*flags*/,
                                   const Ovin::AclData& /*aclData*/) {}

bool AclHelper::aclCountersAllocated(const Ovin::AclData& /*aclData*/) const {
    return false;
}

uint64_t AclHelper::aclRuleCountersSinceLastPoll(const Ovin::AclData& /*aclData*/,
                                                 uint32_t /*ruleNum*/, Acl::UniqueId /*id*/) {
    return 0;
}

uint64_t AclHelper::aclRuleCounterPerChipSinceLastPoll(const Ovin::AclData& /*aclData*/,
                                                       uint32_t /*ruleNum*/, Acl::UniqueId /*id*/,
                                                       const Vorn::String& /*unit*/) {
    return 0;
}

void AclHelper::doConfigureTapAggMode(bool /*enabled*/) {}

void AclHelper::handleDeepInspSkipL2(uint32_t /*bytes*/) {}

void AclHelper::handleDeepInspSkipL4(uint32_t /*bytes*/) {}

bool AclHelper::verifyDeepInspSkipL2(uint32_t /*bytes*/) const {
    return true;
}

bool AclHelper::verifyDeepInspSkipL4(uint32_t /*bytes*/) const {
    return true;
}

bool AclHelper::subIntfAclAsPacl(const Zamu::IntfId& /*intf*/) const {
    return false;
}

}  // namespace OvinHelper
