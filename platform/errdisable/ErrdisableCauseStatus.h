#pragma once
// Errdisable::CauseStatus: the error-disable causes an agent may raise on interfaces. The ACL
// engine is handed it so that it can take part in error-disabling; this build raises no cause
// and keeps only the entity's identity.

#include "platform/vorn/Entity.h"

namespace Errdisable {

class CauseStatus : public Vorn::Entity {
    VORN_ENTITY("Errdisable::CauseStatus")
  public:
    explicit CauseStatus(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<CauseStatus> causeStatusFactory(const Vorn::Name& name);

}  // namespace Errdisable
