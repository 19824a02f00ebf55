#pragma once
// OvinHelper::AclHelper: the ACL engine's helper interface. The engine drives every ACL through
// these operations; a hardware layer derives from it and overrides what its hardware needs.
//
// Attributes: the capability and behaviour flags the hardware layer publishes (set in hwInit
// or by the owner; the engine reads them to decide what it may ask for), the engine's
// notification attributes, and `initialized`. All notify their watchers on a real change.
//
// Operations are virtual and declared in the engine's slot order (the numbers below).
// Default behaviour of an operation a hardware layer does not override:
//  - rule creation (createIpAclSubrule, createIpFragRule, createMacAclRule, the extended-action
//    creations): refuse with aclCreateNotSupportedByHw, store nothing (no hardware to hold it);
//    createFinalAclRule answers aclCreateFinalRuleDone; precreateAcl answers aclCreateOk;
//  - questions (bool answers: support, sharing, existence, counters allocated): false;
//  - verify...: succeed (true), check nothing;
//  - counters: 0; names (aclOwner, aclGroup, intfLinecardName): empty;
//  - everything else (lifecycle, commit, show, blocking, deep inspection): do nothing;
//  - supportedTcpFlagsDefault() reads the attribute of that name; dirtyIs(b) sets `dirty`.

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "platform/ovin/AclData.h"
#include "platform/ovin/AclKey.h"
#include "platform/ovin/AclRuleConfig.h"
#include "platform/ovin/AclType.h"
#include "platform/vorn/Entity.h"
#include "platform/vorn/Name.h"
#include "platform/zamu/Addr.h"
#include "platform/zamu/IntfId.h"

namespace OvinHelper {

// The callback through which the helper reports an ACL's outcome to the engine. Installed by
// the engine; two values are equal when they hold the same installed function, so installing
// the same callback again notifies nobody. An empty callback ignores calls.
class AclStatusUpdateCallback {
  public:
    using Fn = std::function<void(const Ovin::AclKey&, Ovin::AclCreateError)>;
    AclStatusUpdateCallback() = default;
    explicit AclStatusUpdateCallback(Fn fn)
        : fn_(fn ? std::make_shared<const Fn>(std::move(fn)) : nullptr) {}
    void operator()(const Ovin::AclKey& key, Ovin::AclCreateError result) const {
        if (fn_)
            (*fn_)(key, result);
    }
    explicit operator bool() const { return fn_ != nullptr; }
    bool operator==(const AclStatusUpdateCallback&) const = default;

  private:
    std::shared_ptr<const Fn> fn_;
};

class AclHelper : public Vorn::Entity {
    VORN_ENTITY("OvinHelper::AclHelper")
  public:
    // ---- Capability and behaviour attributes, in the engine's declared order ----
    VORN_ATTR(bool, revertIncompleteAclSupported, false)
    VORN_ATTR(bool, ipIngressAclSupported, false)
    VORN_ATTR(bool, routerAclSupported, false)
    VORN_ATTR(bool, dscpFilterSupported, false)
    VORN_ATTR(bool, aclDscpSupported, false)
    VORN_ATTR(bool, ecnFilterSupported, false)
    VORN_ATTR(bool, aclEcnSupported, false)
    VORN_ATTR(bool, aclIpLenMatchSupported, false)
    VORN_ATTR(bool, allowIpLenFilter, false)
    VORN_ATTR(bool, aclHopLimitSupported, false)
    VORN_ATTR(bool, macAclSupported, false)
    VORN_ATTR(bool, macEgressAclSupported, false)
    VORN_ATTR(bool, ipEgressAclSupported, false)
    VORN_ATTR(bool, ip6EgressAclSupported, false)
    VORN_ATTR(bool, routerEgressAclSupported, false)
    VORN_ATTR(bool, ip6RouterEgressAclSupported, false)
    VORN_ATTR(bool, subIntfAclSupported, false)
    VORN_ATTR(bool, aclCountersSupported, false)
    VORN_ATTR(bool, dpIp6AclFullMaskSupported, false)
    VORN_ATTR(bool, aclVlanSupported, false)
    VORN_ATTR(bool, aclInnerVlanSupported, false)
    VORN_ATTR(bool, aclInnerProtocolSupported, false)
    VORN_ATTR(bool, aclNvgreSupported, false)
    VORN_ATTR(bool, aclGreSupported, false)
    VORN_ATTR(bool, aclVxlanSupported, false)
    VORN_ATTR(bool, aclGtpSupported, false)
    VORN_ATTR(bool, aclUserL4Supported, false)
    VORN_ATTR(bool, aclPayloadSupported, false)
    VORN_ATTR(bool, aclMplsTwoLabelSupported, false)
    VORN_ATTR(bool, aclMplsSupported, false)
    VORN_ATTR(bool, aclDirStatusEnabled, false)
    VORN_ATTR(bool, aclRollbackSupported, false)
    VORN_ATTR(bool, countersPerChipEnabled, false)
    VORN_ATTR(bool, ip6AclSupported, false)
    VORN_ATTR(bool, aclTcSupported, false)
    VORN_ATTR(bool, mirroringAclSupported, false)
    VORN_ATTR(bool, aclLoggingSupported, false)
    VORN_ATTR(bool, routerAclLoggingSupported, false)
    VORN_ATTR(bool, aclBatchCommitSupported, false)
    VORN_ATTR(bool, establishedSupported, false)
    // TCP flag masks (Acl::kTcp... bits).
    VORN_ATTR(uint8_t, allTcpFlags, Acl::kAllTcpFlags)
    // supportedTcpFlagsDefault: read through the virtual operation of that name (slot 1).
    VORN_ATTR_STORAGE(uint8_t, supportedTcpFlagsDefault, Acl::kAllTcpFlags)
    void supportedTcpFlagsDefaultIs(uint8_t v) { supportedTcpFlagsDefault_.set(v); }
    // The flags a rule may require; a rule asking for any other flag cannot be expressed.
    VORN_ATTR(uint8_t, supportedTcpFlags, Acl::kAllTcpFlags)
    VORN_ATTR(bool, installImplicitIcmp6Rules, false)
    VORN_ATTR(bool, nonContiguousIpMaskSupported, false)
    VORN_ATTR(bool, deferredOperationsSupported, false)
    VORN_ATTR(bool, permitDuringAclUpdate, false)
    VORN_ATTR(bool, ignorePermitDuringAclUpdate, false)
    VORN_ATTR(bool, ingressRaclSharingSupported, false)
    VORN_ATTR(bool, egressRaclSharingSupported, false)
    VORN_ATTR(bool, routerAclExcludeMlagPeerLink, false)
    // The user may turn the implicit ICMPv6 neighbour-discovery rules off.
    VORN_ATTR(bool, configurableImplicitIcmp6RulesSupported, false)

    // ---- The engine's notification attributes ----
    VORN_ATTR(uint64_t, aclHelperCallbackData, 0)  // opaque to the helper
    VORN_ATTR(AclStatusUpdateCallback, aclStatusUpdateCallback)
    VORN_ATTR(bool, cliWaiting, false)
    // dirty: set through the virtual dirtyIs (slot 82).
    VORN_ATTR_STORAGE(bool, dirty, false)
    bool dirty() const { return dirty_.get(); }
    VORN_ATTR(bool, asyncAclConfig, false)
    VORN_ORDERED_MAP(Zamu::IntfId, bool, aclIntfBlockedStatus)
    // Per-unit (chip) errors of the last commit, by unit name ("Chip-0"); the published set
    // names the units whose error has been made visible.
    VORN_ORDERED_MAP(Vorn::String, uint32_t, unitError)
    VORN_ORDERED_SET(Vorn::String, publishUnitError)
    VORN_ATTR(bool, needsDeferredUpdate, false)

    VORN_ATTR(bool, initialized, false)

    // ---- Operations, in slot order ----
    /*  1 */ virtual uint8_t supportedTcpFlagsDefault() const {
        return supportedTcpFlagsDefault_.get();
    }
    /*  2 */ virtual void hwInit() {}
    /*  3 */ virtual void verifyHwInit() const {}
    /*  4 */ virtual Vorn::String aclOwner(const Zamu::IntfId& intf,
                                           const Ovin::AclKey& aclKey) const;
    /*  5 */ virtual Vorn::String aclGroup(const Zamu::IntfId& intf) const;
    /*  6 */ virtual bool intfSupportsAcl(const Zamu::IntfId& intf) const;
    /*  7 */ virtual Vorn::String intfLinecardName(const Zamu::IntfId& intf) const;
    /*  8 */ virtual void logAclUnsupportedHardware(const Vorn::String& name,
                                                    const Zamu::IntfId& intf);
    // The twelve port values: source port, mask, range low, range high; the same four for the
    // destination; then the IP length range (low, high) and the VLAN value and mask. The bool
    // says that the subrule matches L4 ports; the two trailing bytes are the hop limit value
    // and mask.
    /*  9 */ virtual Ovin::AclCreateError createIpAclSubrule(
        Acl::AclType type, const Acl::RuleConfig& rule, Acl::UniqueId id,
        const Ovin::AclData& aclData, uint32_t ruleNum, uint32_t subruleNum, uint16_t srcPort,
        uint16_t srcPortMask, uint16_t srcPortLow, uint16_t srcPortHigh, uint16_t dstPort,
        uint16_t dstPortMask, uint16_t dstPortLow, uint16_t dstPortHigh, uint16_t ipLenLow,
        uint16_t ipLenHigh, uint16_t vlan, uint16_t vlanMask, uint8_t tcpFlags, bool l4,
        uint8_t hopLimit, uint8_t hopLimitMask);
    /* 10 */ virtual Ovin::AclCreateError createIpFragRule(const Ovin::AclData& aclData,
                                                           const Acl::IpRuleConfig& rule,
                                                           Acl::UniqueId id, uint32_t ruleNum,
                                                           uint32_t subruleNum);
    /* 11 */ virtual Ovin::AclCreateError createMacAclRule(const Acl::MacRuleConfig& rule,
                                                           Acl::UniqueId id,
                                                           const Ovin::AclData& aclData,
                                                           uint32_t ruleNum);
    /* 12 */ virtual Ovin::AclCreateError createFinalAclRule(Acl::AclType type,
                                                             const Ovin::AclData& aclData,
                                                             uint32_t ruleNum);
    /* 13 */ virtual bool needToInstallIcmp6NeighborDiscoveryRules() const;
    /* 14 */ virtual Ovin::AclCreateError precreateAcl(const Ovin::AclData& aclData,
                                                       Ovin::AclDataStatus& status);
    /* 15 */ virtual void destroyAcl(const Ovin::AclData& aclData);
    /* 16 */ virtual void removeAcl(const Ovin::AclData& aclData);
    /* 17 */ virtual void cleanupAcl(const Ovin::AclData& aclData);
    /* 18 */ virtual void prepareToCommit();
    /* 19 */ virtual void commitAcl(const Ovin::AclData& aclData);
    /* 20 */ virtual void batchCommitAcls();
    /* 21 */ virtual void blockIntf(const Zamu::IntfId& intf, bool block, uint32_t n);
    /* 22 */ virtual bool sharedAclDataForVlansSupported(const Ovin::AclKey& aclKey) const;
    /* 23 */ virtual bool routedPortAclSharingSupported(const Ovin::AclKey& aclKey) const;
    /* 24 */ virtual bool subIntfAclSharingSupported(const Ovin::AclKey& aclKey) const;
    /* 25 */ virtual bool useUnsharedRaclsForSubIntf() const;
    /* 26 */ virtual bool isVfiForwarding() const;
    /* 27 */ virtual bool addIntfToAcl(const Zamu::IntfId& intf, const Ovin::AclData& aclData,
                                       Ovin::AclDataStatus& status);
    /* 28 */ virtual bool removeIntfFromAcl(const Zamu::IntfId& intf, const Ovin::AclData& aclData,
                                            bool belongsToAnother);
    /* 29 */ virtual void updateAclPorts(const Ovin::AclData& aclData, bool active);
    /* 30 */ virtual Ovin::AclCreateError createAclsWithExtActions(const Ovin::AclData& aclData);
    /* 31 */ virtual Ovin::AclCreateError addAclWithExtActions(const Ovin::AclData& aclData,
                                                               const Zamu::IntfId& intf);
    /* 32 */ virtual Ovin::AclCreateError createMirrorDestinationAcl(const Ovin::AclData& aclData);
    /* 33 */ virtual void removeMirrorDestinationAcl(const Ovin::AclData& aclData);
    /* 34 */ virtual void deleteAclRuleWithExtActions(const Ovin::AclData& aclData,
                                                      Acl::UniqueId id);
    /* 35 */ virtual void commitAclWithExtActions(const Ovin::AclData& aclData);
    /* 36 */ virtual void deleteAcl(const Ovin::AclData& aclData);
    /* 37 */ virtual void deleteAclRule(const Ovin::AclData& aclData, Acl::UniqueId id,
                                        uint32_t ruleNum);
    /* 38 */ virtual bool macRuleExists(const Ovin::AclData& aclData, Acl::UniqueId id,
                                        uint32_t ruleNum) const;
    /* 39 */ virtual bool ipSubruleExists(const Ovin::AclData& aclData, Acl::UniqueId id,
                                          uint32_t ruleNum, uint32_t subruleNum) const;
    /* 40 */ virtual bool ipPortRangeSubruleExists(const Ovin::AclData& aclData, Acl::UniqueId id,
                                                   uint32_t ruleNum, uint32_t subruleNum,
                                                   uint16_t low, uint16_t high) const;

    // Verification: true when the installed state agrees with the value given. `match` says
    // whether the field is matched at all.
    /* 41 */ virtual bool verifyMacRuleGeneral(const Ovin::AclData& aclData, Acl::UniqueId id,
                                               uint32_t ruleNum) const;
    /* 42 */ virtual bool verifyMacRuleAction(const Ovin::AclData& aclData, Acl::UniqueId id,
                                              uint32_t ruleNum, Acl::AclAction action) const;
    /* 43 */ virtual bool verifyMacRuleSrcMac(const Ovin::AclData& aclData, Acl::UniqueId id,
                                              uint32_t ruleNum, const Zamu::EthAddr& mac,
                                              const Zamu::EthAddr& mask, bool match) const;
    /* 44 */ virtual bool verifyMacRuleDstMac(const Ovin::AclData& aclData, Acl::UniqueId id,
                                              uint32_t ruleNum, const Zamu::EthAddr& mac,
                                              const Zamu::EthAddr& mask, bool match) const;
    /* 45 */ virtual bool verifyMacRuleEtherType(const Ovin::AclData& aclData, Acl::UniqueId id,
                                                 uint32_t ruleNum, uint16_t etherType,
                                                 bool match) const;
    /* 46 */ virtual bool verifyIpRuleGeneral(const Ovin::AclData& aclData, Acl::UniqueId id,
                                              uint32_t ruleNum, uint32_t subruleNum) const;
    /* 47 */ virtual bool verifyIpRuleAction(const Ovin::AclData& aclData, Acl::UniqueId id,
                                             uint32_t ruleNum, uint32_t subruleNum,
                                             Acl::AclAction action) const;
    /* 48 */ virtual bool verifyIpRuleIpProto(const Ovin::AclData& aclData, Acl::UniqueId id,
                                              uint32_t ruleNum, uint32_t subruleNum,
                                              Zamu::IpProto proto, bool match) const;
    /* 49 */ virtual bool verifyIpRuleSrcIp(const Ovin::AclData& aclData, Acl::UniqueId id,
                                            uint32_t ruleNum, uint32_t subruleNum,
                                            const Zamu::IpAddrWithMask& ip, bool match) const;
    /* 50 */ virtual bool verifyIpRuleDstIp(const Ovin::AclData& aclData, Acl::UniqueId id,
                                            uint32_t ruleNum, uint32_t subruleNum,
                                            const Zamu::IpAddrWithMask& ip, bool match) const;
    /* 51 */ virtual bool verifyIpRuleSrcIp6(const Ovin::AclData& aclData, Acl::UniqueId id,
                                             uint32_t ruleNum, uint32_t subruleNum,
                                             const Zamu::IpAddrWithMask& ip, bool match) const;
    /* 52 */ virtual bool verifyIpRuleDstIp6(const Ovin::AclData& aclData, Acl::UniqueId id,
                                             uint32_t ruleNum, uint32_t subruleNum,
                                             const Zamu::IpAddrWithMask& ip, bool match) const;
    /* 53 */ virtual bool verifyIpRuleDscp(const Ovin::AclData& aclData, Acl::UniqueId id,
                                           uint32_t ruleNum, uint32_t subruleNum, uint8_t dscp,
                                           bool match) const;
    /* 54 */ virtual bool verifyIpRuleTrafficClass(const Ovin::AclData& aclData, Acl::UniqueId id,
                                                   uint32_t ruleNum, uint32_t subruleNum,
                                                   uint8_t value, uint8_t mask) const;
    /* 55 */ virtual bool verifyIpRuleIpLen(const Ovin::AclData& aclData, Acl::UniqueId id,
                                            uint32_t ruleNum, uint32_t subruleNum, uint16_t low,
                                            uint16_t high, bool match) const;
    /* 56 */ virtual bool verifyIpRuleFragments(const Ovin::AclData& aclData, Acl::UniqueId id,
                                                uint32_t ruleNum, uint32_t subruleNum,
                                                bool fragments, bool match) const;
    /* 57 */ virtual bool verifyIpRuleTcpFlags(const Ovin::AclData& aclData, Acl::UniqueId id,
                                               uint32_t ruleNum, uint32_t subruleNum,
                                               uint8_t tcpFlags, bool match) const;
    /* 58 */ virtual bool verifyIpRuleIcmp(const Ovin::AclData& aclData, Acl::UniqueId id,
                                           uint32_t ruleNum, uint32_t subruleNum, uint8_t icmpType,
                                           uint8_t icmpCode, bool match) const;
    /* 59 */ virtual bool verifyIpRuleSrcPort(const Ovin::AclData& aclData, Acl::UniqueId id,
                                              uint32_t ruleNum, uint32_t subruleNum, uint16_t port,
                                              uint16_t mask, bool match) const;
    /* 60 */ virtual bool verifyIpRuleDstPort(const Ovin::AclData& aclData, Acl::UniqueId id,
                                              uint32_t ruleNum, uint32_t subruleNum, uint16_t port,
                                              uint16_t mask, bool match) const;
    /* 61 */ virtual bool verifyAclGeneral(const Ovin::AclData& aclData) const;
    /* 62 */ virtual bool verifyDropAllRule(const Ovin::AclData& aclData, uint32_t ruleNum) const;
    // Deep-inspection rules.
    /* 63 */ virtual bool verifyDiRuleGeneral(const Ovin::AclData& aclData, Acl::UniqueId id,
                                              uint32_t ruleNum) const;
    /* 64 */ virtual bool verifyDiRuleAction(const Ovin::AclData& aclData, Acl::UniqueId id,
                                             uint32_t ruleNum, Acl::AclAction action) const;
    /* 65 */ virtual bool verifyDiRuleOffset(const Ovin::AclData& aclData, Acl::UniqueId id,
                                             uint32_t ruleNum, uint32_t offset) const;
    /* 66 */ virtual bool verifyDiRulePattern(const Ovin::AclData& aclData, Acl::UniqueId id,
                                              uint32_t ruleNum, uint32_t pattern,
                                              uint32_t mask) const;

    // Show: the two leading numbers are the engine's show context.
    /* 67 */ virtual void showAclTypeHeader(uint32_t ctx, uint32_t flags, Acl::AclType type);
    /* 68 */ virtual void showAclHeader(uint32_t ctx, uint32_t flags, bool summary,
                                        const Ovin::AclData& aclData);
    /* 69 */ virtual void showMacAclRule(uint32_t ctx, uint32_t flags, const Ovin::AclData& aclData,
                                         uint32_t ruleNum, Acl::UniqueId id);
    /* 70 */ virtual void showIpAclRule(uint32_t ctx, uint32_t flags, const Ovin::AclData& aclData,
                                        uint32_t ruleNum, Acl::UniqueId id);
    /* 71 */ virtual void showDropEntry(uint32_t ctx, uint32_t flags, const Ovin::AclData& aclData);
    /* 72 */ virtual void showSharedRaclData(uint32_t ctx, uint32_t flags,
                                             const Ovin::AclData& aclData);

    /* 73 */ virtual bool aclCountersAllocated(const Ovin::AclData& aclData) const;
    /* 74 */ virtual uint64_t aclRuleCountersSinceLastPoll(const Ovin::AclData& aclData,
                                                           uint32_t ruleNum, Acl::UniqueId id);
    /* 75 */ virtual uint64_t aclRuleCounterPerChipSinceLastPoll(const Ovin::AclData& aclData,
                                                                 uint32_t ruleNum, Acl::UniqueId id,
                                                                 const Vorn::String& unit);

    /* 76 */ virtual void doConfigureTapAggMode(bool enabled);
    /* 77 */ virtual void handleDeepInspSkipL2(uint32_t bytes);
    /* 78 */ virtual void handleDeepInspSkipL4(uint32_t bytes);
    /* 79 */ virtual bool verifyDeepInspSkipL2(uint32_t bytes) const;
    /* 80 */ virtual bool verifyDeepInspSkipL4(uint32_t bytes) const;
    /* 81 */ virtual bool subIntfAclAsPacl(const Zamu::IntfId& intf) const;
    /* 82 */ virtual void dirtyIs(bool d) { dirty_.set(d); }
};

}  // namespace OvinHelper
