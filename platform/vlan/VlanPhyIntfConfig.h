#pragma once
// VlanPhyIntfConfigLib::VlanPhyIntfConfigDir: the VLAN membership of physical ports, one
// VlanPhyIntfConfig per VLAN with the set of its member Ethernet interfaces. Written by the
// bridging configuration; this layer only reads it.

#include <cstddef>
#include <utility>

#include "platform/bridging/VlanId.h"
#include "platform/vorn/Entity.h"
#include "platform/zamu/IntfId.h"

namespace VlanPhyIntfConfigLib {

class VlanPhyIntfConfig : public Vorn::Entity {
    VORN_ENTITY("VlanPhyIntfConfigLib::VlanPhyIntfConfig")
  public:
    explicit VlanPhyIntfConfig(const Bridging::VlanId& vlanId) : vlanId_(vlanId) {}
    const Bridging::VlanId& vlanId() const { return vlanId_; }

    // Member ports. Only Ethernet interface ids can be members: adding any other kind throws
    // std::invalid_argument and changes nothing.
    VORN_CHECKED_SET(Zamu::IntfId, phyIntf, checkPhyIntf)

  private:
    static void checkPhyIntf(const Zamu::IntfId& intf);
    const Bridging::VlanId vlanId_;
};

class VlanPhyIntfConfigDir : public Vorn::Entity {
    VORN_ENTITY("VlanPhyIntfConfigLib::VlanPhyIntfConfigDir")
  public:
    explicit VlanPhyIntfConfigDir(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    VORN_ENTITY_MAP(Bridging::VlanId, VlanPhyIntfConfig, vlanPhyIntfConfig)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<VlanPhyIntfConfigDir> vlanPhyIntfConfigDirFactory(const Vorn::Name& name);

}  // namespace VlanPhyIntfConfigLib
