#pragma once
// Lag::LagPhyIntfMapping: LAG (port-channel) membership, one LagPhyIntfConfig per LAG
// interface with the set of its member Ethernet ports. Written by the LAG manager; this layer
// only reads it. A port is a member of at most one LAG; the writer keeps that true.

#include <cstddef>
#include <utility>

#include "platform/vorn/Entity.h"
#include "platform/zamu/IntfId.h"

namespace Lag {

class LagPhyIntfConfig : public Vorn::Entity {
    VORN_ENTITY("Lag::LagPhyIntfConfig")
  public:
    // Throws std::invalid_argument when lagIntfId is not a port-channel interface id.
    explicit LagPhyIntfConfig(const Zamu::IntfId& lagIntfId);
    const Zamu::IntfId& lagIntfId() const { return lagIntfId_; }

    // Member ports. Only Ethernet interface ids can be members: adding any other kind throws
    // std::invalid_argument and changes nothing.
    VORN_CHECKED_SET(Zamu::IntfId, phyIntf, checkPhyIntf)

  private:
    static void checkPhyIntf(const Zamu::IntfId& intf);
    const Zamu::IntfId lagIntfId_;
};

class LagPhyIntfMapping : public Vorn::Entity {
    VORN_ENTITY("Lag::LagPhyIntfMapping")
  public:
    explicit LagPhyIntfMapping(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    VORN_ENTITY_MAP(Zamu::IntfId, LagPhyIntfConfig, lagPhyIntfConfig)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<LagPhyIntfMapping> lagPhyIntfMappingFactory(const Vorn::Name& name);

}  // namespace Lag
