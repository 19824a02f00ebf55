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
    std::vector<Mirel::AclRuleList::IpEntry> rules;
    for (const auto& entry : ipRuleById()) {
        const bool tcp = Mirel::isTcpRule(entry.second);
        if (tcp == (protocolType == Mirel::protocolTcp_))
            rules.push_back(entry);
    }
    cached = Mirel::AclRuleList::ipList(std::move(rules));
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
