#pragma once
// Mirel::AclId names one chip rule list: the ACL's table type, the per-chip chip rule list id
// and the direction. An ACL gets one id, or two when its TCP rules are split into a list of
// their own; Mirel::AclIdTypeSet holds an ACL's ids by protocol class.

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>

#include "platform/mirel/TableType.h"
#include "platform/ovin/AclKey.h"
#include "platform/ovin/AclType.h"
#include "platform/vorn/Entity.h"

namespace Mirel {

// The protocol class a chip rule list matches. 0 and 1 are the two halves of a split ACL;
// an ACL that is not split has its one list under all protocols.
enum ProtocolType : uint8_t {
    protocolTcp_ = 0,
    protocolNonTcp_ = 1,
    protocolAll_ = 2,
};
constexpr int kProtocolTypeCount = 3;

const char* protocolTypeName(ProtocolType p);  // "tcp", "nonTcp", "all"; nullptr otherwise
std::ostream& operator<<(std::ostream& os, ProtocolType p);

class AclId {
  public:
    AclId() = default;
    // The chip rule list id is 8 bits wide; a caller counting in 32 bits truncates on purpose
    // and compares the stored value.
    AclId(TableType tableType, uint8_t chipRuleListId, Acl::AclDirection direction)
        : tableType_(tableType), chipRuleListId_(chipRuleListId), direction_(direction) {}

    TableType tableType() const { return tableType_; }
    uint8_t chipRuleListId() const { return chipRuleListId_; }
    Acl::AclDirection direction() const { return direction_; }

    // Ordered by table type, then chip rule list id, then direction.
    auto operator<=>(const AclId&) const = default;
    bool operator==(const AclId&) const = default;

  private:
    TableType tableType_ = invalid_;
    uint8_t chipRuleListId_ = 0;
    Acl::AclDirection direction_ = Acl::aclDirectionIn;
};

// "AclId{tableType=1, chipRuleListId=3, direction=in}"
std::ostream& operator<<(std::ostream& os, const AclId& id);

// The ACL ids of one ACL on one chip, by protocol class.
class AclIdTypeSet : public Vorn::Entity {
    VORN_ENTITY("Mirel::AclIdTypeSet")
  public:
    explicit AclIdTypeSet(const Ovin::AclKey& aclKey) : aclKey_(aclKey) {}
    const Ovin::AclKey& aclKey() const { return aclKey_; }

    VORN_ORDERED_MAP(ProtocolType, AclId, aclIdType)

    // Every id of one ACL carries the ACL's table type; invalid_ when the set is empty.
    TableType tableType() const;
    // Same ids under the same protocol classes (the ACL key is not compared).
    bool isEqual(const AclIdTypeSet& other) const;
    // Makes this set hold exactly other's ids; only real changes notify.
    void copyFrom(const AclIdTypeSet& other);

  private:
    const Ovin::AclKey aclKey_;
};

Vorn::Ptr<AclIdTypeSet> aclIdTypeSetFactory(const Ovin::AclKey& aclKey);

}  // namespace Mirel

template <>
struct std::hash<Mirel::AclId> {
    size_t operator()(const Mirel::AclId& id) const noexcept;
};
