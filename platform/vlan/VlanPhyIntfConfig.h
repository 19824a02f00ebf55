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

    // Member physical interfaces. Only Ethernet interface ids can be members: adding any other
    // kind throws std::invalid_argument and changes nothing.
    const Vorn::SetField<Zamu::IntfId>& phyIntf() const { return phyIntf_; }
    bool phyIntf(const Zamu::IntfId& intf) const { return phyIntf_.contains(intf); }
    size_t phyIntfs() const { return phyIntf_.size(); }
    void phyIntfIs(const Zamu::IntfId& intf, bool member = true);
    void phyIntfDel(const Zamu::IntfId& intf) { phyIntf_.del(intf); }
    void phyIntfDelAll() { phyIntf_.delAll(); }
    template <class F>
    [[nodiscard]] Vorn::Subscription phyIntfNotify(F&& f) const {
        return phyIntf_.notify(std::forward<F>(f));
    }

  private:
    const Bridging::VlanId vlanId_;
    Vorn::SetField<Zamu::IntfId> phyIntf_{*this};
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
