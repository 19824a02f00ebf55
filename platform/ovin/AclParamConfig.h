#pragma once
// Acl::ParamConfig: the ACL engine's tunables, set by the agent before the engine starts and
// changed rarely. The engine reads them at each use.

#include "platform/vorn/Clock.h"
#include "platform/vorn/Entity.h"

namespace Acl {

class ParamConfig : public Vorn::Entity {
    VORN_ENTITY("Acl::ParamConfig")
  public:
    explicit ParamConfig(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    // How long the engine lets configuration changes gather before it applies them in one
    // update, counted from the first change; 0 (the default) applies them on the next pass
    // of the event loop. A negative or non-finite delay is refused with the range error
    // "ParamConfig::updateDelay < 0 or not finite not allowed".
    Vorn::Seconds updateDelay() const { return updateDelay_.get(); }
    void updateDelayIs(Vorn::Seconds d);
    VORN_ATTR_STORAGE(Vorn::Seconds, updateDelay, 0.0)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<ParamConfig> paramConfigFactory(const Vorn::Name& name);

}  // namespace Acl
