#pragma once
// Acl::ConfigDir: a directory of the agent's configuration tree, handed to the ACL engine by
// name (the ACL configuration and the interface configuration each live under one). The
// engine holds it for as long as it runs; what it reads comes through the typed entities it
// is given alongside.

#include "platform/vorn/Entity.h"

namespace Acl {

class ConfigDir : public Vorn::Entity {
    VORN_ENTITY("Acl::ConfigDir")
  public:
    explicit ConfigDir(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<ConfigDir> configDirFactory(const Vorn::Name& name);

}  // namespace Acl
