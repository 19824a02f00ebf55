#include "ovinmirel/acl/OvinMirelAcl.h"

#include <vector>

#include "platform/vorn/Assert.h"

namespace OvinMirel {

OvinMirelAcl::OvinMirelAcl(const Ovin::AclKey& key) : name_(key) {
    // The entity's own subscriptions come first, so a reader told of a rule change already
    // gets the new snapshot.
    ipRuleSub_ = ipRuleByIdNotify([this](const Mirel::AceIndex&) { rulesChanged(); });
    macRuleSub_ = macRuleByIdNotify([this](const Mirel::AceIndex&) { rulesChanged(); });
}

void OvinMirelAcl::rulesChanged() {
    for (Mirel::AclRuleListPtr& list : ruleList_)
        list = nullptr;
}

Mirel::AclRuleListPtr OvinMirelAcl::ruleList(Mirel::ProtocolType protocolType) const {
    VORN_ASSERT(ipRuleByIds() == 0 || macRuleByIds() == 0);
    VORN_ASSERT(protocolType == Mirel::protocolTcp_ || protocolType == Mirel::protocolNonTcp_ ||
                protocolType == Mirel::protocolAll_);
    Mirel::AclRuleListPtr& cached = ruleList_[protocolType];
    if (cached)
        return cached;
    if (protocolType == Mirel::protocolAll_) {
        cached = macRuleByIds() > 0 ? Mirel::AclRuleList::sharedMacList(macRuleById_.snapshot())
                                    : Mirel::AclRuleList::sharedIpList(ipRuleById_.snapshot());
        return cached;
    }
    VORN_ASSERT(macRuleByIds() == 0);
    // Both halves pick their rules out of the storage the list of every rule shares.
    const Mirel::AclRuleList::IpRules rules = ipRuleById_.snapshot();
    std::vector<uint32_t> picked;
    for (uint32_t i = 0; i < rules->size(); ++i) {
        const bool tcp = Mirel::isTcpRule((*rules)[i].second);
        if (tcp == (protocolType == Mirel::protocolTcp_))
            picked.push_back(i);
    }
    cached = Mirel::AclRuleList::sharedIpList(rules, std::move(picked));
    return cached;
}

OvinMirelAcl::IntfSet OvinMirelAcl::aclIntfSetFor(const Zamu::IntfId& intf) {
    if (Zamu::SubIntfId::isSubIntfId(intf))
        return IntfSet::sub;
    if (Zamu::VlanIntfId::isVlanIntfId(intf))
        return IntfSet::vlan;
    if (Zamu::EthIntfId::isEthIntfId(intf))
        return IntfSet::eth;
    VORN_ASSERT(false && "Internal Error");
}

void OvinMirelAcl::intfIs(const Zamu::IntfId& intf, bool member) {
    switch (aclIntfSetFor(intf)) {
        case IntfSet::sub:
            subIntfIs(intf, member);
            break;
        case IntfSet::vlan:
            vlanIntfIs(intf, member);
            break;
        case IntfSet::eth:
            ethIntfIs(intf, member);
            break;
    }
}

Vorn::Ptr<OvinMirelAclColl> ovinMirelAclCollFactory(const Vorn::Name& name) {
    return Vorn::make<OvinMirelAclColl>(name);
}

}  // namespace OvinMirel
