#pragma once
// Lag::Input::Config: the LAG manager's input as other agents see it. It publishes the
// port-channel membership it resolved (Lag::LagPhyIntfMapping: each port-channel with its
// member Ethernet ports), which the ACL engine follows to apply a port-channel's ACLs to the
// member ports.

#include "platform/lag/LagPhyIntfMapping.h"
#include "platform/vorn/Entity.h"

namespace Lag::Input {

class Config : public Vorn::Entity {
    VORN_ENTITY("Lag::Input::Config")
  public:
    // A null mapping is refused: "null _lagPhyIntfMapping parameter to mutator for
    // Lag::Input::Config::lagPhyIntfMapping not allowed".
    Config(const Vorn::Name& name, const Vorn::Ptr<const LagPhyIntfMapping>& lagPhyIntfMapping);
    const Vorn::Name& name() const { return name_; }
    const Vorn::Ptr<const LagPhyIntfMapping>& lagPhyIntfMapping() const {
        return lagPhyIntfMapping_;
    }

  private:
    const Vorn::Name name_;
    const Vorn::Ptr<const LagPhyIntfMapping> lagPhyIntfMapping_;
};

Vorn::Ptr<Config> configFactory(const Vorn::Name& name,
                                const Vorn::Ptr<const LagPhyIntfMapping>& lagPhyIntfMapping);

}  // namespace Lag::Input
