#pragma once
// Acl::IntfConfig: which ACL is applied where. One entry per binding slot, an interface with
// an ACL type and a direction (an interface carries at most one ACL per type and direction),
// naming the configured ACL. Written by the configuration front end; the ACL engine only reads
// it.
//
// Interfaces: Ethernet ports, port-channels, VLAN interfaces (whose ACLs are router ACLs: the
// engine's key for them carries the VLAN id) and sub-interfaces of ports and port-channels.
// appliedAclIs refuses, changing nothing:
//   the empty interface id: std::invalid_argument "IntfConfig: '' cannot carry an ACL";
//   a VLAN interface whose number is not a VLAN id: the range error "VlanId::value < 1 or >
//     4094 not allowed";
//   a type or direction outside the enumerations: std::invalid_argument;
//   a bad name: std::invalid_argument "invalid ACL name '<name>'".

#include <compare>
#include <ostream>
#include <string>
#include <utility>

#include "platform/ovin/AclType.h"
#include "platform/vorn/Entity.h"
#include "platform/zamu/IntfId.h"

namespace Acl {

struct AclBinding {
    Zamu::IntfId intf;
    AclType type = aclTypeIpv4;
    AclDirection direction = aclDirectionIn;
    // By interface, then type, then direction: an interface's bindings are adjacent.
    auto operator<=>(const AclBinding&) const = default;
    bool operator==(const AclBinding&) const = default;
};
std::ostream& operator<<(std::ostream& os, const AclBinding& b);  // "Ethernet1 ip in"

class IntfConfig : public Vorn::Entity {
    VORN_ENTITY("Acl::IntfConfig")
  public:
    explicit IntfConfig(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    // Binding slot -> name of the configured ACL applied there.
    using AppliedAclField = Vorn::MapField<AclBinding, std::string, Vorn::Ordered>;
    const AppliedAclField& appliedAcl() const { return appliedAcl_; }
    const std::string* appliedAcl(const AclBinding& b) const { return appliedAcl_.find(b); }
    size_t appliedAcls() const { return appliedAcl_.size(); }
    void appliedAclIs(const AclBinding& b, const std::string& aclName);
    void appliedAclDel(const AclBinding& b) { appliedAcl_.del(b); }
    void appliedAclDelAll() { appliedAcl_.delAll(); }
    template <class F>
    [[nodiscard]] Vorn::Subscription appliedAclNotify(F&& f) const {
        return appliedAcl_.notify(std::forward<F>(f));
    }

  private:
    const Vorn::Name name_;
    AppliedAclField appliedAcl_{*this};
};

Vorn::Ptr<IntfConfig> intfConfigFactory(const Vorn::Name& name);

}  // namespace Acl
