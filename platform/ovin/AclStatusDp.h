#pragma once
// Acl::StatusDp: what the ACL engine publishes about the data plane.
//
//  - dpAclUpdateTime: the request time of the latest data-plane update that is complete.
//    The engine stamps each update it requests with a time; the hardware layer's side writes
//    that stamp here once the data plane has it, and clients waiting for an update are
//    released when it reaches their request.
//  - aclStatus: per ACL (as applied: Ovin::AclKey) its outcome, so that a user sees why an ACL
//    is not in effect: pending while an update carrying it is outstanding, installed, or failed
//    with the engine's result code and a sentence saying why.

#include <cstdint>
#include <ostream>
#include <string>

#include "platform/ovin/AclData.h"
#include "platform/ovin/AclKey.h"
#include "platform/vorn/Clock.h"
#include "platform/vorn/Entity.h"

namespace Acl {

enum AclDpState : uint8_t {
    aclDpPending = 0,    // an update carrying the ACL is on its way to the data plane
    aclDpInstalled = 1,  // in effect as configured
    aclDpFailed = 2,     // not in effect as configured; `error` says why
};
const char* aclDpStateName(AclDpState s);  // "pending", "installed", "failed"
std::ostream& operator<<(std::ostream& os, AclDpState s);

class AclStatus : public Vorn::Entity {
    VORN_ENTITY("Acl::AclStatus")
  public:
    explicit AclStatus(const Ovin::AclKey& key) : key_(key) {}
    const Ovin::AclKey& key() const { return key_; }

    VORN_ATTR(AclDpState, state, aclDpPending)
    VORN_ATTR(Ovin::AclCreateError, result, Ovin::aclCreateOk)
    VORN_ATTR(std::string, error, "")

  private:
    const Ovin::AclKey key_;
};

class StatusDp : public Vorn::Entity {
    VORN_ENTITY("Acl::StatusDp")
  public:
    explicit StatusDp(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    VORN_ATTR(Vorn::Seconds, dpAclUpdateTime, 0.0)
    VORN_ORDERED_ENTITY_MAP(Ovin::AclKey, AclStatus, aclStatus)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<StatusDp> statusDpFactory(const Vorn::Name& name);

}  // namespace Acl
