#include "ovinmirel/chip/OvinMirelAclPolicySmStatusEdit.h"

namespace OvinMirel {

AclPolicySmStatusEdit::AclPolicySmStatusEdit(const Vorn::Ptr<AclPolicyStatus>& status)
    : status_(status),
      intf_(status->intfAclMapping()),
      routed_(status->routedPortSharedAclMapping()),
      vlan_(status->vlanAclMapping()),
      sub_(status->subIntfAclMapping()) {}

void AclPolicySmStatusEdit::commit() {
    // Most reviews change nothing.
    if (intf_.empty() && routed_.empty() && vlan_.empty() && sub_.empty())
        return;
    AclPolicyStatus& s = *status_;
    intf_.commitRemovals([&](const Zamu::IntfId& p) { s.intfAclMappingDel(p); });
    routed_.commitRemovals([&](const Zamu::IntfId& p) { s.routedPortSharedAclMappingDel(p); });
    vlan_.commitRemovals([&](const Bridging::VlanId& p) { s.vlanAclMappingDel(p); });
    sub_.commitRemovals([&](const Zamu::IntfId& p) { s.subIntfAclMappingDel(p); });
    intf_.commitAdditions([&](const Zamu::IntfId& p, const Vorn::Ptr<IntfAclKeySet>& e) {
        s.intfAclMappingPut(p, e);
    });
    routed_.commitAdditions([&](const Zamu::IntfId& p, const Vorn::Ptr<IntfAclKeySet>& e) {
        s.routedPortSharedAclMappingPut(p, e);
    });
    vlan_.commitAdditions([&](const Bridging::VlanId& p, const Vorn::Ptr<VlanAclKeySet>& e) {
        s.vlanAclMappingPut(p, e);
    });
    sub_.commitAdditions([&](const Zamu::IntfId& p, const Vorn::Ptr<IntfAclKeySet>& e) {
        s.subIntfAclMappingPut(p, e);
    });
}

}  // namespace OvinMirel
