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
//    knows the chip.

#include "platform/mirel/ChipId.h"
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

class ChipPDStatus : public Vorn::Entity {
    VORN_ENTITY("Mirel::ChipPDStatus")
  public:
    explicit ChipPDStatus(ChipId chipId) : chipId_(chipId) {}
    ChipId chipId() const { return chipId_; }

  private:
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

}  // namespace Mirel
