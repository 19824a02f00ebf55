#pragma once
// Mirel::ChipDataFlowConfig: the mapping tables that steer a chip's packets to its ACLs.
//  1st level: each place that carries ACLs (physical interface, shared routed port, VLAN,
//             sub-interface) -> the hardware ACL index that selects its ACL set;
//  2nd level: (hardware ACL index, table type, protocol class) -> the chip rule list to run.
// Two copies exist per chip: the platform-independent one the PD mapping fills, and the one
// inside the chip configuration that the hardware programs; the mapping loader copies the
// first into the second.

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>

#include "platform/bridging/VlanId.h"
#include "platform/mirel/AclId.h"
#include "platform/mirel/ChipId.h"
#include "platform/mirel/TableType.h"
#include "platform/ovin/AclType.h"
#include "platform/vorn/Entity.h"
#include "platform/zamu/IntfId.h"

namespace Mirel {

// A hardware ACL index, 0 to 65535. Anything else is refused with the range error
// "HwAclIndex::value < 0 or > 65535 not allowed".
class HwAclIndex {
  public:
    static constexpr int64_t kMax = 0xffff;

    HwAclIndex() = default;
    explicit HwAclIndex(int64_t value);
    uint16_t value() const { return value_; }
    auto operator<=>(const HwAclIndex&) const = default;
    bool operator==(const HwAclIndex&) const = default;

  private:
    uint16_t value_ = 0;
};

inline std::ostream& operator<<(std::ostream& os, HwAclIndex i) {
    return os << i.value();
}

// The 2nd-level key: which chip rule list a hardware ACL index runs for one table type,
// direction and protocol class. The direction is part of the key because one place may carry
// an inbound and an outbound ACL of the same table type under one index.
class ChipRuleListIdKey {
  public:
    ChipRuleListIdKey() = default;
    ChipRuleListIdKey(HwAclIndex hwAclIndex, TableType tableType, ProtocolType protocolType,
                      Acl::AclDirection direction = Acl::aclDirectionIn)
        : hwAclIndex_(hwAclIndex),
          tableType_(tableType),
          direction_(direction),
          protocolType_(protocolType) {}

    HwAclIndex hwAclIndex() const { return hwAclIndex_; }
    TableType tableType() const { return tableType_; }
    Acl::AclDirection direction() const { return direction_; }
    ProtocolType protocolType() const { return protocolType_; }

    // Ordered by index, then table type, then direction, then protocol class, so all entries
    // of one index are adjacent.
    auto operator<=>(const ChipRuleListIdKey&) const = default;
    bool operator==(const ChipRuleListIdKey&) const = default;

  private:
    HwAclIndex hwAclIndex_;
    TableType tableType_ = invalid_;
    Acl::AclDirection direction_ = Acl::aclDirectionIn;
    ProtocolType protocolType_ = protocolAll_;
};

// "ChipRuleListIdKey{hwAclIndex=2, tableType=1, direction=in, protocolType=tcp}"
std::ostream& operator<<(std::ostream& os, const ChipRuleListIdKey& k);

// Named values of globalAclControl. Non-zero tells the glue that the chip's mappings are being
// rewritten in full and the hardware is not stable; the PD mapping pulses it 1 then 0 after a
// full re-computation.
enum GlobalAclControl : uint32_t {
    globalAclControlStable_ = 0,
    globalAclControlRewrite_ = 1,
};

class ChipDataFlowConfig : public Vorn::Entity {
    VORN_ENTITY("Mirel::ChipDataFlowConfig")
  public:
    explicit ChipDataFlowConfig(ChipId chipId) : chipId_(chipId) {}
    ChipId chipId() const { return chipId_; }

    // Ordered throughout: the loader and the show output walk them in key order.
    VORN_ORDERED_MAP(Zamu::IntfId, HwAclIndex, intfToHwAclIndex)
    VORN_ORDERED_MAP(Zamu::IntfId, HwAclIndex, routedPortToHwAclIndex)
    VORN_ORDERED_MAP(Bridging::VlanId, HwAclIndex, vlanToHwAclIndex)
    VORN_ORDERED_MAP(Zamu::IntfId, HwAclIndex, subIntfToHwAclIndex)
    VORN_ORDERED_MAP(ChipRuleListIdKey, AclId, chipRuleListKeyToId)
    VORN_ATTR(uint32_t, globalAclControl, globalAclControlStable_)

    // The five mapping tables hold the same entries (globalAclControl and chip id aside).
    bool mappingsEqual(const ChipDataFlowConfig& other) const;
    // Empties the five mapping tables, each entry notified.
    void mappingsDelAll();

  private:
    const ChipId chipId_;
};

Vorn::Ptr<ChipDataFlowConfig> chipDataFlowConfigFactory(ChipId chipId);
// A detached copy of the five mapping tables (not the control word), for checkers that judge
// a later state against this one.
Vorn::Ptr<ChipDataFlowConfig> chipDataFlowTablesCopy(const ChipDataFlowConfig& from);

}  // namespace Mirel

template <>
struct std::hash<Mirel::HwAclIndex> {
    size_t operator()(Mirel::HwAclIndex i) const noexcept { return i.value(); }
};

template <>
struct std::hash<Mirel::ChipRuleListIdKey> {
    size_t operator()(const Mirel::ChipRuleListIdKey& k) const noexcept;
};
