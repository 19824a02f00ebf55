#pragma once
// Mirel::PDStatus: what the platform-dependent driver reports. The driver is its only writer;
// this layer reads it.
//
//  - `intfMapping`: one IntfMapping per physical (Ethernet) interface that currently sits on a
//    chip, keyed by the interface id and carrying the chip. An interface on no chip has no
//    entry. A move to another chip is normally presented as a removal then an addition;
//    `intfMappingIs(intf, otherChip)` on an existing entry moves it in place (one change of
//    its `chipId`), which readers must handle as well.
//  - `chipPDStatus`: one entry per chip the driver reports on; it exists while the driver
//    knows the chip. It carries:
//      - per field transform (PDConfig.h) the driver's answer to the latest attempted request
//        it took up and its acknowledgement of the active request (XformStatus);
//      - the chip's table usage (TableUsage of the entry table, the rule list ids and the
//        match transforms), written by the hardware layer's root state machine when a root
//        is loaded; capacity reporting reads it;
//      - rule counters per chip rule list and rule (AclId, Acl::UniqueId), which the driver
//        (or a test, or the simulator) sets and the ACL helper sums over chips.

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <utility>
#include <vector>

#include "platform/mirel/AclId.h"
#include "platform/mirel/ChipId.h"
#include "platform/mirel/PDConfig.h"
#include "platform/mirel/StageErrorCode.h"
#include "platform/ovin/AclType.h"
#include "platform/vorn/Entity.h"
#include "platform/zamu/IntfId.h"

namespace Mirel {

class IntfMapping : public Vorn::Entity {
    VORN_ENTITY("Mirel::IntfMapping")
  public:
    // Throws std::invalid_argument when intfId is not an Ethernet interface id: only physical
    // ports sit on chips.
    IntfMapping(const Zamu::IntfId& intfId, ChipId chipId);
    const Zamu::IntfId& intfId() const { return intfId_; }
    VORN_ATTR(ChipId, chipId)

    // Get-or-create with a chip: an existing entry moves to that chip.
    void reinstantiate(ChipId chipId) { chipIdIs(chipId); }

  private:
    const Zamu::IntfId intfId_;
};

// The driver's answer to a transform request. A request is answered once its request id is
// here; `errorCode` says whether the driver took it.
struct XformStatus {
    uint32_t requestId = 0;  // the attempted request answered; 0: none yet
    StageErrorCode errorCode = stageSuccess_;
    uint32_t entries = 0;          // the request's entries (class ids)
    uint32_t answers = 0;          // times the driver reported this request; more than 1 is a
                                   // driver repeating itself, which readers must tolerate
    uint32_t activeRequestId = 0;  // the active request the driver acknowledged
    bool operator==(const XformStatus&) const = default;
};

// "XformStatus{requestId=3, errorCode=success, entries=2, answers=1, activeRequestId=2}"
std::ostream& operator<<(std::ostream& os, const XformStatus& s);

// One table of the chip: entries in use and the most it holds.
struct TableUsage {
    uint32_t inUse = 0;
    uint32_t max = 0;
    bool operator==(const TableUsage&) const = default;
};

std::ostream& operator<<(std::ostream& os, const TableUsage& u);  // "3/4096"

// A rule counter's key: the chip rule list and the rule's unique id.
struct RuleCounterKey {
    AclId aclId;
    Acl::UniqueId uniqueId;
    auto operator<=>(const RuleCounterKey&) const = default;
    bool operator==(const RuleCounterKey&) const = default;
};

class ChipPDStatus : public Vorn::Entity {
    VORN_ENTITY("Mirel::ChipPDStatus")
  public:
    explicit ChipPDStatus(ChipId chipId) : chipId_(chipId) {}
    ChipId chipId() const { return chipId_; }

    // The nine transforms, in the order the driver services them.
    VORN_ATTR(XformStatus, srcMacXformStatus)
    VORN_ATTR(XformStatus, dstMacXformStatus)
    VORN_ATTR(XformStatus, macEtherTypeXformStatus)
    VORN_ATTR(XformStatus, srcIpV4PrefixXformStatus)
    VORN_ATTR(XformStatus, dstIpV4PrefixXformStatus)
    VORN_ATTR(XformStatus, srcIpV6PrefixXformStatus)
    VORN_ATTR(XformStatus, dstIpV6PrefixXformStatus)
    VORN_ATTR(XformStatus, srcPortRangeXformStatus)
    VORN_ATTR(XformStatus, dstPortRangeXformStatus)
    // Capacity tables: "EntryTable" (TCAM entries), "RuleListIds", "AlgoMatch" (transform
    // class ids).
    VORN_ATTR(TableUsage, entryTableUsage)
    VORN_ATTR(TableUsage, ruleListIdsUsage)
    VORN_ATTR(TableUsage, algoMatchUsage)
    // Hits since the last poll, per rule of a chip rule list.
    VORN_ORDERED_MAP(RuleCounterKey, uint64_t, ruleCounter)

    // The transform's status by type. REQUIRES: t is one of the nine (asserted).
    const XformStatus& xformStatus(XformType t) const { return xformStatusAttr(t).get(); }
    void xformStatusIs(XformType t, const XformStatus& s) { xformStatusAttr(t).set(s); }
    // Subscribes f to all nine: f(type) after each real change of that transform's status.
    std::vector<Vorn::Subscription> xformStatusNotify(std::function<void(XformType)> f) const;

  private:
    const Vorn::Attr<XformStatus>& xformStatusAttr(XformType t) const;
    Vorn::Attr<XformStatus>& xformStatusAttr(XformType t) {
        return const_cast<Vorn::Attr<XformStatus>&>(std::as_const(*this).xformStatusAttr(t));
    }

    const ChipId chipId_;
};

class PDStatus : public Vorn::Entity {
    VORN_ENTITY("Mirel::PDStatus")
  public:
    explicit PDStatus(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    VORN_ENTITY_MAP(Zamu::IntfId, IntfMapping, intfMapping)
    VORN_ENTITY_MAP(ChipId, ChipPDStatus, chipPDStatus)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<PDStatus> pdStatusFactory(const Vorn::Name& name);
Vorn::Ptr<ChipPDStatus> chipPDStatusFactory(ChipId chipId);

}  // namespace Mirel
