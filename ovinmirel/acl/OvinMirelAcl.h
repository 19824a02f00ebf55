#pragma once
// The ACL store: this layer's own copy of every ACL the engine handed over, with its translated
// hardware rules, the interfaces it is bound to and two lifecycle flags.
//
// Writer: the ACL helper only. Readers: the ACL attachment index (watches `acl` and each
// entry's three interface sets) and the agent ACL state machine.
// Invariant: an interface id sits in the set of its kind (sub-interface, VLAN interface or
// Ethernet interface); `aclIntfSetFor` is the one place that decides which.
//
// Rule snapshots: `ruleList(protocolType)` hands out the ACL's rules as an immutable shared
// Mirel::AclRuleList, built on first use and handed out again, the same object, until a rule
// of the ACL changes (a write that changes nothing keeps it). Roots hold these lists instead
// of copies, so a commit cycle costs nothing for an ACL whose rules stayed as they were. Every
// list holds the store's own rule storage, not a copy of it (the two halves of a split ACL pick
// their rules out of it by position): the store's next rule write copies the storage first, so
// a list keeps the rules it was made with.

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "platform/mirel/AclId.h"
#include "platform/mirel/AclRuleList.h"
#include "platform/ovin/AclKey.h"
#include "platform/ovin/AclRuleConfig.h"
#include "platform/vorn/Entity.h"
#include "platform/zamu/Addr.h"
#include "platform/zamu/IntfId.h"

namespace OvinMirel {

// A store entry's rules of one kind: a map by AceIndex whose storage its rule list shares.
// snapshot() is the rules as they are, unchanged by later writes (which copy them first).
template <class Rule>
class RuleByIdField : public Vorn::MapField<Mirel::AceIndex, Rule, Acl::RuleOrdered> {
  public:
    using Vorn::MapField<Mirel::AceIndex, Rule, Acl::RuleOrdered>::MapField;
    std::shared_ptr<const std::vector<std::pair<Mirel::AceIndex, Rule>>> snapshot() const {
        return this->items_.snapshot();
    }
};

class OvinMirelAcl : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::OvinMirelAcl")
  public:
    explicit OvinMirelAcl(const Ovin::AclKey& key);
    const Ovin::AclKey& name() const { return name_; }

    VORN_ATTR(bool, created, false)  // the rule set is complete (final rule produced)
    VORN_ATTR(bool, inUse, true)     // false once the agent removed the ACL; gone at destroy
    // The hardware rules by AceIndex, in one sorted vector each that the ACL's rule list
    // shares while the rules stay as they are (RuleByIdField).
    VORN_COLLECTION_COMMON_(RuleByIdField<Mirel::IpRuleConfig>, Mirel::AceIndex, ipRuleById)
    const Mirel::IpRuleConfig* ipRuleById(const Mirel::AceIndex& k) const {
        return ipRuleById_.find(k);
    }
    void ipRuleByIdIs(const Mirel::AceIndex& k, const Mirel::IpRuleConfig& v) {
        ipRuleById_.is(k, v);
    }
    VORN_COLLECTION_COMMON_(RuleByIdField<Mirel::MacRuleConfig>, Mirel::AceIndex, macRuleById)
    const Mirel::MacRuleConfig* macRuleById(const Mirel::AceIndex& k) const {
        return macRuleById_.find(k);
    }
    void macRuleByIdIs(const Mirel::AceIndex& k, const Mirel::MacRuleConfig& v) {
        macRuleById_.is(k, v);
    }
    // Ordered (sorted arrays): an ACL is bound to a few to a few hundred interfaces, which a
    // hashed set would hold at a node and a bucket each. Walked through sortedKeys, a copy.
    VORN_ORDERED_SET(Zamu::IntfId, ethIntf)
    VORN_ORDERED_SET(Zamu::IntfId, subIntf)
    VORN_ORDERED_SET(Zamu::IntfId, vlanIntf)
    VORN_MAP(Acl::UniqueId, uint32_t, ruleNum)
    VORN_MAP(Zamu::IpProto, uint32_t, ruleCountByProtocol)

    // Adds delta to the protocol's count (created at 0 when absent); returns the new count.
    uint32_t ruleCountByProtocolInc(const Zamu::IpProto& proto, uint32_t delta) {
        return ruleCountByProtocol_.inc(proto, delta);
    }

    // The interface set an interface id belongs in: sub-interface, else VLAN interface, else
    // Ethernet interface; any other kind of id is an internal error (assertion).
    enum class IntfSet { eth, sub, vlan };
    static IntfSet aclIntfSetFor(const Zamu::IntfId& intf);
    // Adds or removes intf in the set of its kind.
    void intfIs(const Zamu::IntfId& intf, bool member);

    // The rules of one protocol class as a shared snapshot: protocolAll_ every rule (IP or
    // MAC; the empty list when there is none), protocolTcp_ the IP rules that match protocol
    // 6 (Mirel::isTcpRule) and protocolNonTcp_ the other IP rules, for an ACL split by
    // protocol. Asserts "ipRuleByIds() == 0 || macRuleByIds() == 0" (an ACL holds IP or MAC
    // rules, never both) and, for the two halves, "macRuleByIds() == 0" (a MAC ACL is never
    // split).
    Mirel::AclRuleListPtr ruleList(Mirel::ProtocolType protocolType = Mirel::protocolAll_) const;

  private:
    void rulesChanged();

    RuleByIdField<Mirel::IpRuleConfig> ipRuleById_{*this};
    RuleByIdField<Mirel::MacRuleConfig> macRuleById_{*this};

    const Ovin::AclKey name_;
    // Built on demand from the rule maps, dropped when they change; index ProtocolType.
    mutable Mirel::AclRuleListPtr ruleList_[Mirel::kProtocolTypeCount];
    Vorn::Subscription ipRuleSub_;
    Vorn::Subscription macRuleSub_;
};

class OvinMirelAclColl : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::OvinMirelAclColl")
  public:
    explicit OvinMirelAclColl(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    VORN_ENTITY_MAP(Ovin::AclKey, OvinMirelAcl, acl)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<OvinMirelAclColl> ovinMirelAclCollFactory(const Vorn::Name& name);

}  // namespace OvinMirel
