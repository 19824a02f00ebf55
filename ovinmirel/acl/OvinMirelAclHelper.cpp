#include "ovinmirel/acl/OvinMirelAclHelper.h"

#include <optional>
#include <string_view>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"
#include "platform/vorn/Clock.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {

static Flinq::Handle th("OvinMirelAclHelper");

namespace {

constexpr uint16_t kExactPortMask = 0xffff;
constexpr uint8_t kEcnBits = 0x03;
constexpr uint8_t kTrafficClassDscpMask = 0xfc;
// Two kicks at one clock reading would write the same time and notify nobody.
constexpr Vorn::Seconds kKickNudge = 0.1;

Mirel::AceAction aceActionOf(Acl::AclAction a) {
    return a == Acl::aclActionDeny ? Mirel::AceAction::deny : Mirel::AceAction::permit;
}

// The refusal trace: the operation, what failed, the ACL type and the subrule's identity.
Ovin::AclCreateError refuse(std::string_view what, Acl::AclType type, Acl::UniqueId id,
                            uint32_t ruleNum, uint32_t subruleNum) {
    FLINQ(th, 2,
          "createIpAclSubruleHelper" << what << " with AclType " << int(type) << " aclRuleId " << id
                                     << " ruleNum " << ruleNum << " subruleNum " << subruleNum);
    return Ovin::aclCreateNotSupportedByHw;
}

}  // namespace

void traceAclData(const Ovin::AclData& aclData) {
    FLINQ(th, 8, aclData);
}

AclHelper::AclHelper(const Vorn::Ptr<OvinMirelAclColl>& aclColl,
                     const Vorn::Ptr<GlueConfig>& glueConfig,
                     const Vorn::Ptr<const GlueStatus>& glueStatus,
                     const Vorn::Ptr<const Mirel::HwCapabilityColl>& hwCapabilityColl,
                     const Vorn::Ptr<const Index>& index)
    : aclColl_(aclColl),
      glueConfig_(glueConfig),
      glueStatus_(glueStatus),
      hwCapabilityColl_(hwCapabilityColl),
      index_(index) {
    Vorn::requireNonNull(aclColl_, typeName(), "aclColl");
    Vorn::requireNonNull(glueConfig_, typeName(), "glueConfig");
    Vorn::requireNonNull(glueStatus_, typeName(), "glueStatus");
    Vorn::requireNonNull(hwCapabilityColl_, typeName(), "hwCapabilityColl");
    Vorn::requireNonNull(index_, typeName(), "index");
    handleInitialized();
}

void AclHelper::handleInitialized() {
    FLINQ(th, 8, "AclHelper::handleInitialized");
    initializedIs(true);
    routerAclSupportedIs(true);
}

void AclHelper::handleDeleted() {
    FLINQ(th, 8, "AclHelper::handleDeleted");
}

void AclHelper::verifyHwInit() const {
    FLINQ(th, 8, "AclHelper::verifyHwInit");
    VORN_ASSERT(revertIncompleteAclSupported());
    VORN_ASSERT(aclBatchCommitSupported());
    VORN_ASSERT(routerAclSupported());
    VORN_ASSERT(dscpFilterSupported());
    VORN_ASSERT(ip6AclSupported());
    VORN_ASSERT(permitDuringAclUpdate());
    VORN_ASSERT(!macEgressAclSupported());
    VORN_ASSERT(!mirroringAclSupported());
    VORN_ASSERT(!configurableImplicitIcmp6RulesSupported());
}

bool AclHelper::intfSupportsAcl(const Zamu::IntfId& intf) const {
    FLINQ(th, 8, "AclHelper::intfSupportsAcl intf=" << intf);
    return true;
}

void AclHelper::logAclUnsupportedHardware(const Vorn::String& name, const Zamu::IntfId& intf) {
    // Every interface supports ACLs here, so there is never anything to log.
    FLINQ(th, 8, "AclHelper::logAclUnsupportedHardware name=" << name << " intf=" << intf);
}

// ---- Rule translation ----

Mirel::L4PortRange AclHelper::createPortRange(bool l4, uint16_t port, uint16_t mask, uint16_t low,
                                              uint16_t high) {
    FLINQ(th, 8,
          "AclHelper::createPortRange( l4=" << l4 << ", port/mask=" << port << "/" << mask
                                            << ", low=" << low << ", high " << high);
    if (!l4)
        return Mirel::L4PortRange(0, 0xffff);
    if (mask == kExactPortMask)
        return Mirel::L4PortRange(port, port);
    if (low == 0 && high == 0)
        return Mirel::L4PortRange(0, 0xffff);
    return Mirel::L4PortRange(low, high);  // low > high: the range error
}

Ovin::AclCreateError AclHelper::createIpAclSubrule(
    Acl::AclType type, const Acl::RuleConfig& rule, Acl::UniqueId id, const Ovin::AclData& aclData,
    uint32_t ruleNum, uint32_t subruleNum, uint16_t srcPort, uint16_t srcPortMask,
    uint16_t srcPortLow, uint16_t srcPortHigh, uint16_t dstPort, uint16_t dstPortMask,
    uint16_t dstPortLow, uint16_t dstPortHigh, uint16_t /*ipLenLow*/, uint16_t /*ipLenHigh*/,
    uint16_t /*vlan*/, uint16_t /*vlanMask*/, uint8_t tcpFlags, bool l4, uint8_t /*hopLimit*/,
    uint8_t /*hopLimitMask*/) {
    FLINQ(th, 8,
          "AclHelper::createIpAclSubrule acl=" << aclData.key << " aclRuleId=" << id << " ruleNum="
                                               << ruleNum << " subruleNum=" << subruleNum);
    return createIpAclSubruleHelper(type, rule, id, aclData, ruleNum, subruleNum, srcPort,
                                    srcPortMask, srcPortLow, srcPortHigh, dstPort, dstPortMask,
                                    dstPortLow, dstPortHigh, tcpFlags, l4, aclData.countersEnabled);
}

Ovin::AclCreateError AclHelper::createIpAclSubruleHelper(
    Acl::AclType type, const Acl::RuleConfig& rule, Acl::UniqueId id, const Ovin::AclData& aclData,
    uint32_t ruleNum, uint32_t subruleNum, uint16_t srcPort, uint16_t srcPortMask,
    uint16_t srcPortLow, uint16_t srcPortHigh, uint16_t dstPort, uint16_t dstPortMask,
    uint16_t dstPortLow, uint16_t dstPortHigh, uint8_t tcpFlags, bool l4, bool countAll) {
    FLINQ(th, 8,
          "AclHelper::createIpAclSubruleHelper acl=" << aclData.key << " aclRuleId=" << id
                                                     << " ruleNum=" << ruleNum
                                                     << " subruleNum=" << subruleNum);
    VORN_ASSERT(type == Acl::aclTypeIpv4 || type == Acl::aclTypeIpv6);
    const bool ipv6 = type == Acl::aclTypeIpv6;
    const auto* ipRule = dynamic_cast<const Acl::IpRuleConfig*>(&rule);
    VORN_ASSERT(ipRule);
    const bool ruleFamilyMatchesType = ipRule->isIp6() == ipv6;
    VORN_ASSERT(ruleFamilyMatchesType);
    const Vorn::Ptr<OvinMirelAcl> acl = aclColl_->acl(aclData.key);
    VORN_ASSERT(acl);

    // Everything is validated before the first store write, so a refusal or a range error
    // leaves the ACL as it was.
    const Mirel::L4PortRange sourcePort =
        createPortRange(l4, srcPort, srcPortMask, srcPortLow, srcPortHigh);
    const Mirel::L4PortRange destinationPort =
        createPortRange(l4, dstPort, dstPortMask, dstPortLow, dstPortHigh);

    const Acl::IpFilter& f = ipRule->filter();
    Mirel::IpRuleFilter hw;
    hw.ipv6 = ipv6;
    hw.source = ipv6 ? f.source().subnet() : f.source();
    hw.destination = ipv6 ? f.destination().subnet() : f.destination();
    hw.protocol = f.protocol();
    hw.matchProtocol = f.protocol() != Zamu::IpProto(Zamu::IpProto::kAny);
    hw.dscp = f.dscp();  // 0..63: the filter refuses anything else
    hw.matchDscp = f.matchDscp();

    if (ipv6) {
        const Acl::Ip6Filter& f6 = ipRule->ip6Filter();
        const uint8_t tc = f6.trafficClass();
        const uint8_t tcMask = f6.trafficClassMask();
        if (tcMask != 0) {
            if (tc & kEcnBits) {
                return refuse(" failed. ECN bits set in rule", type, id, ruleNum, subruleNum);
            }
            if (tcMask != kTrafficClassDscpMask) {
                return refuse(" failed. Partial TC Mask set in rule", type, id, ruleNum,
                              subruleNum);
            }
            hw.dscp = tc >> 2;
            hw.matchDscp = true;
        }
    }

    // The engine hands each subrule's TCP flags over separately (it may spread one rule over
    // several subrules); those are the flags the entry matches.
    if (tcpFlags & ~supportedTcpFlags()) {
        return refuse(" Unsupported tcpFlag in rule", type, id, ruleNum, subruleNum);
    }
    // "established" is a match on ACK or RST; a chip that cannot match it would let the entry
    // act on every segment of the flow, so the rule is refused rather than widened.
    if (f.established() && !establishedSupported()) {
        return refuse(" failed. Established not supported in rule", type, id, ruleNum, subruleNum);
    }

    const bool nonContiguousOk = !ipv6 && nonContiguousIpMaskSupported();
    if (!nonContiguousOk && (!hw.source.isValidPrefix() || !hw.destination.isValidPrefix())) {
        return refuse(" failed. Invalid prefix in rule", type, id, ruleNum, subruleNum);
    }

    hw.matchFragments = f.fragments();
    hw.tcpFlags = tcpFlags;
    hw.established = f.established();
    hw.icmpType = f.icmpType();
    hw.matchIcmpType = f.matchIcmpType();
    hw.icmpCode = f.icmpCode();
    hw.matchIcmpCode = f.matchIcmpCode();

    Mirel::IpRuleConfig hwRule;
    hwRule.filter = hw;
    hwRule.action = aceActionOf(rule.action());
    hwRule.sourcePort = sourcePort;
    hwRule.destinationPort = destinationPort;
    hwRule.log = rule.log();
    hwRule.count = rule.count() || countAll;
    FLINQ(th, 8, "  Mirel::IpRuleConfig : " << hwRule);

    // The chip evaluates an ACL's entries in AceIndex order and the first match wins, so the
    // index leads with the rule number, then the subrule number: the order the user wrote.
    const Mirel::AceIndex aceIndex{ruleNum, subruleNum, id};
    std::optional<Zamu::IpProto> replaced;
    if (const Mirel::IpRuleConfig* old = acl->ipRuleById(aceIndex)) {
        replaced = old->filter.protocol;
    }
    acl->ipRuleByIdIs(aceIndex, hwRule);
    acl->ruleNumIs(id, ruleNum);
    // A subrule created again replaces its entry; its protocol is counted once.
    if (replaced && *replaced != hw.protocol) {
        const uint32_t* n = acl->ruleCountByProtocol(*replaced);
        if (n && *n > 1) {
            acl->ruleCountByProtocolIs(*replaced, *n - 1);
        } else {
            acl->ruleCountByProtocolDel(*replaced);
        }
    }
    if (!replaced || *replaced != hw.protocol) {
        acl->ruleCountByProtocolInc(hw.protocol, 1);
    }
    return Ovin::aclCreateOk;
}

Ovin::AclCreateError AclHelper::createIpFragRule(const Ovin::AclData& aclData,
                                                 const Acl::IpRuleConfig& rule, Acl::UniqueId id,
                                                 uint32_t ruleNum, uint32_t subruleNum) {
    FLINQ(th, 8,
          "AclHelper::createIpFragRule acl=" << aclData.key << " aclRuleId=" << id << " ruleNum="
                                             << ruleNum << " subruleNum=" << subruleNum);
    if (!aclColl_->acl(aclData.key)) {
        // Not an error for the engine: there is no ACL to attach the entry to.
        FLINQ(th, 8, "There is no acl for " << aclData.key);
        return Ovin::aclCreateOk;
    }
    Acl::IpRuleConfig frag = rule;
    if (rule.isIp6()) {
        Acl::Ip6Filter f = rule.ip6Filter();
        f.fragmentsIs(true);
        frag.filterIs(f);
    } else {
        Acl::IpFilter f = rule.filter();
        f.fragmentsIs(true);
        frag.filterIs(f);
    }
    // Non-initial fragments carry no L4 header: no ports, no TCP flags. The entry keeps the
    // rule's own count flag; the ACL-wide one applies to the engine's expanded subrules.
    return createIpAclSubruleHelper(aclData.key.type, frag, id, aclData, ruleNum, subruleNum, 0, 0,
                                    0, 0, 0, 0, 0, 0, 0, false, false);
}

Ovin::AclCreateError AclHelper::createMacAclRule(const Acl::MacRuleConfig& rule, Acl::UniqueId id,
                                                 const Ovin::AclData& aclData, uint32_t ruleNum) {
    FLINQ(th, 8,
          "AclHelper::createMacAclRule acl=" << aclData.key << ", rule# " << ruleNum
                                             << ", aclRuleId=" << id);
    const Vorn::Ptr<OvinMirelAcl> acl = aclColl_->acl(aclData.key);
    VORN_ASSERT(acl);
    Mirel::MacRuleConfig hw;
    hw.source = rule.source();
    hw.sourceMask = rule.sourceMask();
    hw.destination = rule.destination();
    hw.destinationMask = rule.destinationMask();
    hw.etherType = rule.etherType();
    hw.matchEtherType = rule.matchEtherType();
    hw.action = aceActionOf(rule.action());
    hw.log = rule.log();
    hw.count = rule.count() || aclData.countersEnabled;
    // MAC rules are not expanded into subrules: subrule 0 (order as for IP entries).
    acl->macRuleByIdIs(Mirel::AceIndex{ruleNum, 0, id}, hw);
    acl->ruleNumIs(id, ruleNum);
    return Ovin::aclCreateOk;
}

Ovin::AclCreateError AclHelper::createFinalAclRule(Acl::AclType /*type*/,
                                                   const Ovin::AclData& aclData, uint32_t ruleNum) {
    FLINQ(th, 8, "AclHelper::createFinalAclRule acl=" << aclData.key << ", ruleNum# " << ruleNum);
    traceAclData(aclData);
    const Vorn::Ptr<OvinMirelAcl> acl = aclColl_->acl(aclData.key);
    VORN_ASSERT(acl);
    acl->createdIs(true);
    // 1, not 0, on purpose: the engine takes it as the final rule's result.
    return Ovin::aclCreateFinalRuleDone;
}

bool AclHelper::needToInstallIcmp6NeighborDiscoveryRules() const {
    FLINQ(th, 8, "AclHelper::needToInstallIcmp6NeighborDiscoveryRules");
    return true;
}

// ---- Lifecycle and interface binding ----

Ovin::AclCreateError AclHelper::precreateAcl(const Ovin::AclData& aclData,
                                             Ovin::AclDataStatus& /*status*/) {
    FLINQ(th, 8, "AclHelper::precreateAcl acl=" << aclData.key);
    traceAclData(aclData);
    const Vorn::Ptr<OvinMirelAcl> acl = aclColl_->aclIs(aclData.key);
    for (const Zamu::IntfId& intf : aclData.intf)
        acl->intfIs(intf, true);
    return Ovin::aclCreateOk;
}

void AclHelper::destroyAcl(const Ovin::AclData& aclData) {
    FLINQ(th, 8, "AclHelper::destroyAcl acl=" << aclData.key);
    traceAclData(aclData);
    aclColl_->aclDel(aclData.key);
}

void AclHelper::removeAcl(const Ovin::AclData& aclData) {
    FLINQ(th, 8, "AclHelper::removeAcl acl=" << aclData.key);
    traceAclData(aclData);
    if (const Vorn::Ptr<OvinMirelAcl> acl = aclColl_->acl(aclData.key)) {
        acl->inUseIs(false);
    } else {
        FLINQ(th, 8, "    ACL not present");
    }
}

void AclHelper::cleanupAcl(const Ovin::AclData& aclData) {
    FLINQ(th, 8, "AclHelper::cleanupAcl acl=" << aclData.key);
}

void AclHelper::prepareToCommit() {
    FLINQ(th, 8, "AclHelper::prepareToCommit");
    const Vorn::Seconds now = Vorn::currentTime();
    // The glue starts a cycle on every change of the kick time; the nudge keeps a second kick
    // within one clock tick from being a silent no-op.
    glueConfig_->prepareCommitKickTimeIs(
        now == glueConfig_->prepareCommitKickTime() ? now + kKickNudge : now);
}

void AclHelper::commitAcl(const Ovin::AclData& aclData) {
    FLINQ(th, 8, "AclHelper::commitAcl acl=" << aclData.key);
}

// `n` is the engine's count of outstanding block requests for the interface. The glue only
// needs to know whether the interface is held, which `block` says, so `n` is not used.
void AclHelper::blockIntf(const Zamu::IntfId& intf, bool block, uint32_t /*n*/) {
    FLINQ(th, 8, "AclHelper::blockIntf intf=" << intf << " block=" << block);
    if (block) {
        glueConfig_->blockedIntfIs(intf, true);
    } else {
        glueConfig_->blockedIntfDel(intf);
    }
}

bool AclHelper::sharedAclDataForVlansSupported(const Ovin::AclKey& aclKey) const {
    FLINQ(th, 8, "AclHelper::sharedAclDataForVlansSupported acl=" << aclKey);
    return true;
}

bool AclHelper::subIntfAclSharingSupported(const Ovin::AclKey& aclKey) const {
    FLINQ(th, 8, "AclHelper::subIntfAclSharingSupported acl=" << aclKey);
    return true;
}

bool AclHelper::addIntfToAcl(const Zamu::IntfId& intf, const Ovin::AclData& aclData,
                             Ovin::AclDataStatus& /*status*/) {
    FLINQ(th, 8, "AclHelper::addIntfToAcl intf=" << intf << " acl=" << aclData.key);
    return updateIntfForAcl(intf, aclData, true);
}

bool AclHelper::removeIntfFromAcl(const Zamu::IntfId& intf, const Ovin::AclData& aclData,
                                  bool belongsToAnother) {
    FLINQ(th, 8,
          "AclHelper::removeIntfFromAcl intf=" << intf << " acl=" << aclData.key
                                               << " belongsToAnother=" << belongsToAnother);
    return updateIntfForAcl(intf, aclData, false);
}

void AclHelper::updateAclPorts(const Ovin::AclData& aclData, bool active) {
    FLINQ(th, 8, "AclHelper::updateAclPorts acl=" << aclData.key << " active=" << active);
}

size_t AclHelper::getChipCountForAcl(const Ovin::AclKey& key) const {
    const Vorn::Ptr<AclChipColl> chips = index_->aclChipMapping(key);
    return chips ? chips->chipIntfMappings() : 0;
}

bool AclHelper::updateIntfForAcl(const Zamu::IntfId& intf, const Ovin::AclData& aclData, bool add) {
    FLINQ(th, 8,
          "AclHelper::updateIntfForAcl intf=" << intf << " acl=" << aclData.key << " add=" << add);
    const size_t before = getChipCountForAcl(aclData.key);
    if (add) {
        aclColl_->aclIs(aclData.key)->intfIs(intf, true);
    } else if (const Vorn::Ptr<OvinMirelAcl> acl = aclColl_->acl(aclData.key)) {
        acl->intfIs(intf, false);
    } else {
        FLINQ(th, 8, "    ACL not present");
    }
    // The index machines follow the store within the write above, so this count is current.
    const size_t after = getChipCountForAcl(aclData.key);
    if (before == after)
        return false;
    FLINQ(th, 8, "    chipAclMapping changed as a result");
    return true;
}

// ---- Verification and show: trace only ----

bool AclHelper::verifyMacRuleGeneral(const Ovin::AclData& aclData, Acl::UniqueId id,
                                     uint32_t ruleNum) const {
    FLINQ(th, 8,
          "AclHelper::verifyMacRuleGeneral acl=" << aclData.key << " aclRuleId=" << id
                                                 << " ruleNum=" << ruleNum);
    return true;
}

bool AclHelper::verifyMacRuleAction(const Ovin::AclData& aclData, Acl::UniqueId id,
                                    uint32_t ruleNum, Acl::AclAction action) const {
    FLINQ(th, 8,
          "AclHelper::verifyMacRuleAction acl=" << aclData.key << " aclRuleId=" << id
                                                << " ruleNum=" << ruleNum << " action=" << action);
    return true;
}

bool AclHelper::verifyMacRuleSrcMac(const Ovin::AclData& aclData, Acl::UniqueId id,
                                    uint32_t ruleNum, const Zamu::EthAddr& mac,
                                    const Zamu::EthAddr& mask, bool match) const {
    FLINQ(th, 8,
          "AclHelper::verifyMacRuleSrcMac acl=" << aclData.key << " aclRuleId=" << id
                                                << " ruleNum=" << ruleNum << " mac=" << mac << "/"
                                                << mask << " match=" << match);
    return true;
}

bool AclHelper::verifyMacRuleDstMac(const Ovin::AclData& aclData, Acl::UniqueId id,
                                    uint32_t ruleNum, const Zamu::EthAddr& mac,
                                    const Zamu::EthAddr& mask, bool match) const {
    FLINQ(th, 8,
          "AclHelper::verifyMacRuleDstMac acl=" << aclData.key << " aclRuleId=" << id
                                                << " ruleNum=" << ruleNum << " mac=" << mac << "/"
                                                << mask << " match=" << match);
    return true;
}

bool AclHelper::verifyMacRuleEtherType(const Ovin::AclData& aclData, Acl::UniqueId id,
                                       uint32_t ruleNum, uint16_t etherType, bool match) const {
    FLINQ(th, 8,
          "AclHelper::verifyMacRuleEtherType acl=" << aclData.key << " aclRuleId=" << id
                                                   << " ruleNum=" << ruleNum << " etherType="
                                                   << etherType << " match=" << match);
    return true;
}

bool AclHelper::verifyIpRuleGeneral(const Ovin::AclData& aclData, Acl::UniqueId id,
                                    uint32_t ruleNum, uint32_t subruleNum) const {
    FLINQ(th, 8,
          "AclHelper::verifyIpRuleGeneral acl=" << aclData.key << " aclRuleId=" << id << " ruleNum="
                                                << ruleNum << " subruleNum=" << subruleNum);
    return true;
}

bool AclHelper::verifyIpRuleAction(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                                   uint32_t subruleNum, Acl::AclAction action) const {
    FLINQ(th, 8,
          "AclHelper::verifyIpRuleAction acl=" << aclData.key << " aclRuleId=" << id << " ruleNum="
                                               << ruleNum << " subruleNum=" << subruleNum
                                               << " action=" << action);
    return true;
}

bool AclHelper::verifyIpRuleIpProto(const Ovin::AclData& aclData, Acl::UniqueId id,
                                    uint32_t ruleNum, uint32_t subruleNum, Zamu::IpProto proto,
                                    bool match) const {
    FLINQ(th, 8,
          "AclHelper::verifyIpRuleIpProto acl=" << aclData.key << " aclRuleId=" << id << " ruleNum="
                                                << ruleNum << " subruleNum=" << subruleNum
                                                << " proto=" << proto << " match=" << match);
    return true;
}

bool AclHelper::verifyIpRuleSrcIp(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                                  uint32_t subruleNum, const Zamu::IpAddrWithMask& ip,
                                  bool match) const {
    FLINQ(th, 8,
          "AclHelper::verifyIpRuleSrcIp acl=" << aclData.key << " aclRuleId=" << id << " ruleNum="
                                              << ruleNum << " subruleNum=" << subruleNum
                                              << " ip=" << ip << " match=" << match);
    return true;
}

bool AclHelper::verifyIpRuleDstIp(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                                  uint32_t subruleNum, const Zamu::IpAddrWithMask& ip,
                                  bool match) const {
    FLINQ(th, 8,
          "AclHelper::verifyIpRuleDstIp acl=" << aclData.key << " aclRuleId=" << id << " ruleNum="
                                              << ruleNum << " subruleNum=" << subruleNum
                                              << " ip=" << ip << " match=" << match);
    return true;
}

bool AclHelper::verifyIpRuleFragments(const Ovin::AclData& aclData, Acl::UniqueId id,
                                      uint32_t ruleNum, uint32_t subruleNum, bool fragments,
                                      bool match) const {
    FLINQ(th, 8,
          "AclHelper::verifyIpRuleFragments acl="
              << aclData.key << " aclRuleId=" << id << " ruleNum=" << ruleNum
              << " subruleNum=" << subruleNum << " fragments=" << fragments << " match=" << match);
    return true;
}

bool AclHelper::verifyIpRuleTcpFlags(const Ovin::AclData& aclData, Acl::UniqueId id,
                                     uint32_t ruleNum, uint32_t subruleNum, uint8_t tcpFlags,
                                     bool match) const {
    FLINQ(th, 8,
          "AclHelper::verifyIpRuleTcpFlags acl="
              << aclData.key << " aclRuleId=" << id << " ruleNum=" << ruleNum << " subruleNum="
              << subruleNum << " tcpFlags=" << int(tcpFlags) << " match=" << match);
    return true;
}

bool AclHelper::verifyIpRuleIcmp(const Ovin::AclData& aclData, Acl::UniqueId id, uint32_t ruleNum,
                                 uint32_t subruleNum, uint8_t icmpType, uint8_t icmpCode,
                                 bool match) const {
    FLINQ(th, 8,
          "AclHelper::verifyIpRuleIcmp acl="
              << aclData.key << " aclRuleId=" << id << " ruleNum=" << ruleNum
              << " subruleNum=" << subruleNum << " icmpType=" << int(icmpType)
              << " icmpCode=" << int(icmpCode) << " match=" << match);
    return true;
}

bool AclHelper::verifyIpRuleSrcPort(const Ovin::AclData& aclData, Acl::UniqueId id,
                                    uint32_t ruleNum, uint32_t subruleNum, uint16_t port,
                                    uint16_t mask, bool match) const {
    FLINQ(th, 8,
          "AclHelper::verifyIpRuleSrcPort acl=" << aclData.key << " aclRuleId=" << id
                                                << " ruleNum=" << ruleNum
                                                << " subruleNum=" << subruleNum << " port=" << port
                                                << "/" << mask << " match=" << match);
    return true;
}

bool AclHelper::verifyIpRuleDstPort(const Ovin::AclData& aclData, Acl::UniqueId id,
                                    uint32_t ruleNum, uint32_t subruleNum, uint16_t port,
                                    uint16_t mask, bool match) const {
    FLINQ(th, 8,
          "AclHelper::verifyIpRuleDstPort acl=" << aclData.key << " aclRuleId=" << id
                                                << " ruleNum=" << ruleNum
                                                << " subruleNum=" << subruleNum << " port=" << port
                                                << "/" << mask << " match=" << match);
    return true;
}

bool AclHelper::verifyAclGeneral(const Ovin::AclData& aclData) const {
    FLINQ(th, 8, "AclHelper::verifyAclGeneral acl=" << aclData.key);
    return true;
}

bool AclHelper::verifyDropAllRule(const Ovin::AclData& aclData, uint32_t ruleNum) const {
    FLINQ(th, 8, "AclHelper::verifyDropAllRule acl=" << aclData.key << " ruleNum=" << ruleNum);
    return true;
}

void AclHelper::showAclTypeHeader(uint32_t ctx, uint32_t flags, Acl::AclType type) {
    FLINQ(
        th, 8,
        "AclHelper::showAclTypeHeader ctx=" << ctx << " flags=" << flags << " type=" << int(type));
}

void AclHelper::showAclHeader(uint32_t ctx, uint32_t flags, bool summary,
                              const Ovin::AclData& aclData) {
    FLINQ(th, 8,
          "AclHelper::showAclHeader ctx=" << ctx << " flags=" << flags << " summary=" << summary
                                          << " acl=" << aclData.key);
}

void AclHelper::showMacAclRule(uint32_t ctx, uint32_t flags, const Ovin::AclData& aclData,
                               uint32_t ruleNum, Acl::UniqueId id) {
    FLINQ(th, 8,
          "AclHelper::showMacAclRule ctx=" << ctx << " flags=" << flags << " acl=" << aclData.key
                                           << " ruleNum=" << ruleNum << " aclRuleId=" << id);
}

void AclHelper::showIpAclRule(uint32_t ctx, uint32_t flags, const Ovin::AclData& aclData,
                              uint32_t ruleNum, Acl::UniqueId id) {
    FLINQ(th, 8,
          "AclHelper::showIpAclRule ctx=" << ctx << " flags=" << flags << " acl=" << aclData.key
                                          << " ruleNum=" << ruleNum << " aclRuleId=" << id);
}

// ---- Counters ----

// The ids the chip is programmed with: those of its active root. (The allocator's response is
// renumbered every cycle, and after a failed cycle no longer matches what the chip runs.)
Vorn::Ptr<Mirel::AclIdTypeSet> AclHelper::aclIdsOnChip(Mirel::ChipId chip,
                                                       const Ovin::AclKey& key) const {
    const uint32_t* active = glueStatus_->activeRootSmId(chip);
    if (!active)
        return nullptr;
    const Vorn::Ptr<Mirel::RootConfig> root = glueStatus_->rootConfigColl()->rootConfig(*active);
    if (!root)
        return nullptr;
    const Vorn::Ptr<Mirel::AclIdTypeSet> ids = root->aclKeyToAclIdTypeSet(key);
    return ids && ids->aclIdTypes() ? ids : nullptr;
}

bool AclHelper::aclCountersAllocated(const Ovin::AclData& aclData) const {
    const Ovin::AclKey& key = aclData.key;
    FLINQ(th, 8,
          "AclHelper::aclCountersAllocated acl=" << key << ", vlanId="
                                                 << (key.vlanId ? key.vlanId->value() : 0));
    const Vorn::Ptr<AclChipColl> chips = index_->aclChipMapping(key);
    if (!chips)
        return false;
    for (const auto& [chip, intfs] : chips->chipIntfMapping()) {
        if (aclIdsOnChip(chip, key))
            return true;
    }
    return false;
}

uint64_t AclHelper::aclRuleCountersSinceLastPoll(const Ovin::AclData& aclData, uint32_t ruleNum,
                                                 Acl::UniqueId id) {
    FLINQ(th, 8,
          "AclHelper::aclRuleCountersSinceLastPoll aclKey "
              << aclData.key << " ruleNum=" << ruleNum << " aclRuleId=" << id
              << " counters Enabled " << aclData.countersEnabled);
    const Vorn::Ptr<const Mirel::PDStatus> pd = pDStatus();
    const Vorn::Ptr<AclChipColl> chips = index_->aclChipMapping(aclData.key);
    if (!pd || !chips)
        return 0;
    uint64_t total = 0;
    for (const Mirel::ChipId& chip : chips->chipIntfMapping().sortedKeys()) {
        const Vorn::Ptr<Mirel::AclIdTypeSet> ids = aclIdsOnChip(chip, aclData.key);
        const Vorn::Ptr<Mirel::ChipPDStatus> chipStatus = pd->chipPDStatus(chip);
        if (!ids || !chipStatus)
            continue;
        for (const auto& [protocol, aclId] : ids->aclIdType()) {
            if (const uint64_t* hits = chipStatus->ruleCounter(Mirel::RuleCounterKey{aclId, id})) {
                FLINQ(th, 8, "    Chip-" << chip << " " << aclId << " hits " << *hits);
                total += *hits;
            }
        }
    }
    return total;
}

Vorn::Ptr<AclHelper> aclHelperFactory(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<GlueConfig>& glueConfig,
    const Vorn::Ptr<const GlueStatus>& glueStatus,
    const Vorn::Ptr<const Mirel::HwCapabilityColl>& hwCapabilityColl,
    const Vorn::Ptr<const Index>& index) {
    return Vorn::make<AclHelper>(aclColl, glueConfig, glueStatus, hwCapabilityColl, index);
}

}  // namespace OvinMirel
