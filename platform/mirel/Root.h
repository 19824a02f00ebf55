#pragma once
// Roots: complete hardware ACL configurations of one chip. Each chip owns two root ids
// (chipId * 2 + slot); the one programmed is the active root, the other takes the next
// attempt, so a failed attempt never disturbs what is running.
//
// The glue writes a RootConfig (its content, then `action` with a new `mirelRootKick`); the
// hardware layer answers in the RootStatus of the same id: `rootState`, and `kickResponse` set
// to the kick it has acted on. A status whose kickResponse differs from its configuration's
// mirelRootKick has not yet answered the latest action.

#include <cstdint>
#include <ostream>

#include "platform/mirel/AclId.h"
#include "platform/mirel/AclRuleList.h"
#include "platform/mirel/ChipId.h"
#include "platform/mirel/StageErrorCode.h"
#include "platform/ovin/AclKey.h"
#include "platform/vorn/Entity.h"

namespace Mirel {

enum RootAction : uint32_t {
    rootActionCompute_ = 0,
    rootActionLoad_ = 1,
    rootActionAbort_ = 2,
};

enum RootState : uint32_t {
    rootComputePending_ = 0,  // 0 and 1: computation in progress
    rootComputing_ = 1,
    rootComputed_ = 2,
    rootComputeFailed_ = 3,
    rootLoading_ = 4,
    rootLoaded_ = 5,
    rootAborting_ = 6,
    rootAborted_ = 7,
};

// Enumerator names without the trailing underscore; nullptr for a value outside the
// enumeration, which prints as its number.
const char* rootActionName(RootAction a);
const char* rootStateName(RootState s);
std::ostream& operator<<(std::ostream& os, RootAction a);
std::ostream& operator<<(std::ostream& os, RootState s);

// One chip rule list of a root: the rules of one ACL (or of one protocol class of a split ACL),
// programmed in AceIndex order. The rules are a shared immutable list (usually the ACL store's
// snapshot), never a copy; a list holds IP rules or MAC rules, never both.
class HwAcl : public Vorn::Entity {
    VORN_ENTITY("Mirel::HwAcl")
  public:
    explicit HwAcl(const AclId& aclId) : aclId_(aclId) {}
    const AclId& aclId() const { return aclId_; }

    // Never null: the shared empty list until set. A null list is refused with
    // Vorn::NullPointerException; a list whose kind contradicts the id's table type (MAC rules
    // for an IP table, IP rules for the MAC table) with std::invalid_argument. Either way the
    // list held stays as it was.
    const AclRuleListPtr& ruleList() const { return ruleList_.get(); }
    void ruleListIs(const AclRuleListPtr& list);
    VORN_ATTR_STORAGE(AclRuleListPtr, ruleList, AclRuleList::emptyList())

    // The same list, or lists with the same rules at the same indexes (the id is not compared).
    bool isEqual(const HwAcl& other) const { return holdsRules(*other.ruleList()); }
    // Whether this ACL would be equal to one given `list`.
    bool holdsRules(const AclRuleList& list) const;

  private:
    const AclId aclId_;
};

class RootConfig : public Vorn::Entity {
    VORN_ENTITY("Mirel::RootConfig")
  public:
    explicit RootConfig(uint32_t rootConfigId) : rootConfigId_(rootConfigId) {}
    uint32_t rootConfigId() const { return rootConfigId_; }
    ChipId chipId() const { return ChipId(rootConfigId_ >> 1); }

    // Content: the ids of every ACL in the root, and the rule lists by id.
    VORN_ORDERED_ENTITY_MAP(Ovin::AclKey, AclIdTypeSet, aclKeyToAclIdTypeSet)
    VORN_ORDERED_ENTITY_MAP(AclId, HwAcl, acl)
    // Control: what the hardware layer is asked to do, stamped with a kick it echoes back.
    VORN_ATTR(RootAction, action, rootActionCompute_)
    VORN_ATTR(uint32_t, mirelRootKick, 0)
    // Set by the glue once the root is loaded and is the chip's programmed root.
    VORN_ATTR(bool, active, false)
    VORN_ATTR(bool, initialized, false)

    void initialize() { initializedIs(true); }

    // Same ACL keys with the same ids, same rule lists with the same rules (a shared list is
    // equal without a look at its rules). The root id, the action, the kick and the active
    // flag are not content and are not compared: a new attempt equal to the active root
    // changes nothing in hardware.
    bool isEqual(const RootConfig& other) const;

  private:
    const uint32_t rootConfigId_;
};

class RootStatus : public Vorn::Entity {
    VORN_ENTITY("Mirel::RootStatus")
  public:
    explicit RootStatus(uint32_t rootStatusId) : rootStatusId_(rootStatusId) {}
    uint32_t rootStatusId() const { return rootStatusId_; }
    ChipId chipId() const { return ChipId(rootStatusId_ >> 1); }

    VORN_ATTR(RootState, rootState, rootComputePending_)
    VORN_ATTR(uint32_t, kickResponse, 0)
    // Why computation or load failed; stageSuccess_ otherwise.
    VORN_ATTR(StageErrorCode, errorCode, stageSuccess_)
    // Set by the hardware layer while the root it describes is the one programmed.
    VORN_ATTR(bool, active, false)
    VORN_ATTR(bool, initialized, false)

    // Starts the status at the hardware layer's first answer (computation pending, no kick
    // answered, no error), then marks it initialized.
    void initialize();

  private:
    const uint32_t rootStatusId_;
};

// The root configurations by root id, and per chip the root its last attempt ended in
// (loaded or aborted).
class RootConfigColl : public Vorn::Entity {
    VORN_ENTITY("Mirel::RootConfigColl")
  public:
    explicit RootConfigColl(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    VORN_ORDERED_ENTITY_MAP(uint32_t, RootConfig, rootConfig)
    VORN_ORDERED_MAP(ChipId, uint32_t, lastAttemptRootSmId)

  private:
    const Vorn::Name name_;
};

class RootStatusColl : public Vorn::Entity {
    VORN_ENTITY("Mirel::RootStatusColl")
  public:
    explicit RootStatusColl(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    VORN_ORDERED_ENTITY_MAP(uint32_t, RootStatus, rootStatus)
    VORN_ORDERED_MAP(ChipId, uint32_t, lastAttemptRootSmId)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<RootConfigColl> rootConfigCollFactory(const Vorn::Name& name);
Vorn::Ptr<RootStatusColl> rootStatusCollFactory(const Vorn::Name& name);
Vorn::Ptr<RootConfig> rootConfigFactory(uint32_t rootConfigId);
Vorn::Ptr<RootStatus> rootStatusFactory(uint32_t rootStatusId);

}  // namespace Mirel
