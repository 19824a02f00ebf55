#pragma once
// Bridging::Config: the bridging configuration of the switch. The ACL engine is handed it
// with its other inputs; VLAN membership, which is all the ACL path needs of bridging, comes
// through VlanPhyIntfConfigLib, so this build keeps only the entity's identity.

#include "platform/vorn/Entity.h"

namespace Bridging {

class Config : public Vorn::Entity {
    VORN_ENTITY("Bridging::Config")
  public:
    explicit Config(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<Config> configFactory(const Vorn::Name& name);

}  // namespace Bridging
