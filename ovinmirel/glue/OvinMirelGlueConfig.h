#pragma once
// GlueConfig: written by the agent side (the ACL helper), read by the glue state machine and
// the interface blocking loader. One per process.

#include "platform/mirel/PackerAlgorithm.h"
#include "platform/vorn/Clock.h"
#include "platform/vorn/Entity.h"
#include "platform/zamu/IntfId.h"

namespace OvinMirel {

class GlueConfig : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::GlueConfig")
  public:
    explicit GlueConfig(const Vorn::Name& name = "glueConfig") : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    // Interfaces the agent asks to hold blocked while ACLs are updated (member: true).
    VORN_ORDERED_SET(Zamu::IntfId, blockedIntf)
    // Each change asks for a commit cycle; seconds on the framework clock.
    VORN_ATTR(Vorn::Seconds, prepareCommitKickTime, 0.0)
    VORN_ATTR(Mirel::PackerAlgorithm, packerAlgorithm, Mirel::packerFirstFit)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<GlueConfig> glueConfigFactory(const Vorn::Name& name);

}  // namespace OvinMirel
