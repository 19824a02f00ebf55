#include "platform/mirel/AclId.h"

#include <algorithm>

#include "platform/vorn/Hash.h"

namespace Mirel {

const char* protocolTypeName(ProtocolType p) {
    switch (p) {
        case protocolTcp_:
            return "tcp";
        case protocolNonTcp_:
            return "nonTcp";
        case protocolAll_:
            return "all";
    }
    return nullptr;
}

std::ostream& operator<<(std::ostream& os, ProtocolType p) {
    if (const char* name = protocolTypeName(p))
        return os << name;
    return os << "protocolType(" << int(p) << ")";
}

std::ostream& operator<<(std::ostream& os, const AclId& id) {
    return os << "AclId{tableType=" << id.tableType()
              << ", chipRuleListId=" << int(id.chipRuleListId())
              << ", direction=" << Acl::aclDirectionName(id.direction()) << "}";
}

TableType AclIdTypeSet::tableType() const {
    return aclIdType().empty() ? invalid_ : aclIdType().begin()->second.tableType();
}

bool AclIdTypeSet::isEqual(const AclIdTypeSet& other) const {
    return std::ranges::equal(aclIdType(), other.aclIdType());
}

void AclIdTypeSet::copyFrom(const AclIdTypeSet& other) {
    if (&other == this)
        return;
    // Drop first what other lacks, so a watcher never sees a mix of both sets' protocol classes
    // that neither had.
    for (ProtocolType p : aclIdType().keys()) {
        if (!other.aclIdType().contains(p))
            aclIdTypeDel(p);
    }
    for (const auto& [p, id] : other.aclIdType())
        aclIdTypeIs(p, id);
}

Vorn::Ptr<AclIdTypeSet> aclIdTypeSetFactory(const Ovin::AclKey& aclKey) {
    return Vorn::make<AclIdTypeSet>(aclKey);
}

}  // namespace Mirel

size_t std::hash<Mirel::AclId>::operator()(const Mirel::AclId& id) const noexcept {
    return Vorn::hashOf(uint8_t(id.tableType()), id.chipRuleListId(), uint8_t(id.direction()));
}
