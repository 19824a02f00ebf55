#include "platform/ovin/AclKey.h"

#include "platform/vorn/Hash.h"

namespace Ovin {

std::string AclKey::str() const {
    std::string out = name;
    out.append("/")
        .append(Acl::aclTypeName(type))
        .append("/")
        .append(Acl::aclDirectionName(direction));
    if (vlanId)
        out.append("/vlan").append(std::to_string(vlanId->value()));
    if (flag)
        out.append("/flag");
    if (!tag.empty())
        out.append("/").append(tag.str());
    return out;
}

std::ostream& operator<<(std::ostream& os, const AclKey& k) {
    return os << k.str();
}

}  // namespace Ovin

size_t std::hash<Ovin::AclKey>::operator()(const Ovin::AclKey& k) const noexcept {
    return Vorn::hashOf(k.name, int(k.type), int(k.direction), k.flag,
                        k.vlanId ? int(k.vlanId->value()) : 0, k.tag);
}
