#pragma once
// GlueStatus: what the commit orchestration publishes. Written only by the glue state machine
// and the per-chip machines it owns; read by the agent ACL state machine, the per-chip
// computation and the loaders.
//
//  - glueSmState is the phase of the current commit cycle, lastComputationResult the outcome
//    of the last finished one (only ever aclIdAllocFail, aborting, success or fail);
//  - the root sets and maps track every chip's roots through a cycle (root id = chip * 2 +
//    slot, see rootSmIdOf);
//  - two child collections carry the per-chip results of id allocation (AclIdResponseColl)
//    and of the ACL policy (AclPolicyStatusColl); initialize() creates them;
//  - piChipDataFlowConfig holds per chip the mappings the PD mapping computed, before the
//    mapping loader carries them into the chip configuration.
// GlueStatus has root configuration and root status collections from construction on (its
// own); the agent's status root hands it the driver's at start-up, before any machine is built.

#include <cstdint>
#include <ostream>
#include <string_view>
#include <utility>

#include "platform/bridging/VlanId.h"
#include "platform/mirel/AclId.h"
#include "platform/mirel/ChipDataFlowConfig.h"
#include "platform/mirel/ChipId.h"
#include "platform/mirel/Root.h"
#include "platform/mirel/StageErrorCode.h"
#include "platform/ovin/AclKey.h"
#include "platform/vorn/Clock.h"
#include "platform/vorn/Entity.h"
#include "platform/zamu/IntfId.h"

namespace OvinMirel {

// The phases of one commit cycle. Each value prints and parses as its word, the enumerator's
// name without the trailing underscore ("aclIdAllocFail").
enum GlueSmState : uint32_t {
    unknown_ = 0,         // initial value of both state attributes; never set by the glue
    idle_ = 1,            // no commit cycle in progress
    aclIdAlloc_ = 2,      // per-chip ACL id allocation running
    aclIdAllocFail_ = 3,  // allocation ran out of chip rule list ids; cycle failed early
    computing_ = 4,       // every chip's attempt root is computing
    loading_ = 5,         // every attempt root computed; being loaded into hardware
    aborting_ = 6,        // some attempt root failed; all attempt roots are being aborted
    success_ = 7,         // cycle finished, every attempt root is now active
    fail_ = 8,            // cycle finished with a failure
    blockIntf_ = 9,       // failure paths only: requested interfaces blocked before loading
    mappingLoader_ = 10,  // the mapping loaders write (or discard) their pending mappings
    unblockIntf_ = 11,    // interfaces no longer requested are released; always before idle
};
constexpr uint32_t kGlueSmStateCount = 12;

// The word of a state; nullptr for a value outside the enumeration.
const char* glueSmStateWord(GlueSmState s);
// The state of a word; any other text throws std::invalid_argument
// "invalid GlueSmState word '<word>'".
GlueSmState glueSmStateFromWord(std::string_view word);
// The word; a value outside the enumeration prints as "GlueSmState(<n>)".
std::ostream& operator<<(std::ostream& os, GlueSmState s);

// The ACL ids one chip's allocator handed out in the last cycle, by ACL.
class AclIdResponse : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::AclIdResponse")
  public:
    explicit AclIdResponse(Mirel::ChipId chipId) : chipId_(chipId) {}
    Mirel::ChipId chipId() const { return chipId_; }

    VORN_ORDERED_ENTITY_MAP(Ovin::AclKey, Mirel::AclIdTypeSet, response)

  private:
    const Mirel::ChipId chipId_;
};

class AclIdResponseColl : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::AclIdResponseColl")
  public:
    explicit AclIdResponseColl(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }
    // Asked for again under another name: refused (ReinstantiationException).
    void reinstantiate(const Vorn::Name& name) const;

    VORN_ORDERED_ENTITY_MAP(Mirel::ChipId, AclIdResponse, chipAclIdResponse)

  private:
    const Vorn::Name name_;
};

// The ACLs in effect at one interface (physical port, routed port or sub-interface).
class IntfAclKeySet : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::IntfAclKeySet")
  public:
    explicit IntfAclKeySet(const Zamu::IntfId& intfId) : intfId_(intfId) {}
    const Zamu::IntfId& intfId() const { return intfId_; }

    VORN_ORDERED_SET(Ovin::AclKey, aclKey)

  private:
    const Zamu::IntfId intfId_;
};

// The router ACLs in effect on one VLAN of the chip, and the member ports of the chip through
// which they came; the writer removes a port once it no longer contributes.
class VlanAclKeySet : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::VlanAclKeySet")
  public:
    explicit VlanAclKeySet(const Bridging::VlanId& vlanId) : vlanId_(vlanId) {}
    const Bridging::VlanId& vlanId() const { return vlanId_; }

    VORN_ORDERED_SET(Ovin::AclKey, aclKey)
    VORN_ORDERED_SET(Zamu::IntfId, phyIntf)

  private:
    const Bridging::VlanId vlanId_;
};

// One chip's ACL policy result: per place, the ACLs that may be in effect together there.
// Written only by the chip's ACL policy machine; read by its PD mapping machine.
class AclPolicyStatus : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::AclPolicyStatus")
  public:
    explicit AclPolicyStatus(Mirel::ChipId chipId) : chipId_(chipId) {}
    Mirel::ChipId chipId() const { return chipId_; }

    VORN_ORDERED_ENTITY_MAP(Zamu::IntfId, IntfAclKeySet, intfAclMapping)
    // Routed ports whose router ACLs are installed by sharing one index.
    VORN_ORDERED_ENTITY_MAP(Zamu::IntfId, IntfAclKeySet, routedPortSharedAclMapping)
    VORN_ORDERED_ENTITY_MAP(Bridging::VlanId, VlanAclKeySet, vlanAclMapping)
    VORN_ORDERED_ENTITY_MAP(Zamu::IntfId, IntfAclKeySet, subIntfAclMapping)

    // Gets or creates the VLAN's entry and records phyIntf as a member port contributing to
    // it. A VLAN id outside 1..4094 is refused with "VlanId::value < 1 or > 4094 not allowed"
    // and nothing is created.
    Vorn::Ptr<VlanAclKeySet> vlanAclMappingIs(const Zamu::IntfId& phyIntf, int64_t vlanId);

  private:
    const Mirel::ChipId chipId_;
};

class AclPolicyStatusColl : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::AclPolicyStatusColl")
  public:
    explicit AclPolicyStatusColl(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }
    // Asked for again under another name: refused (ReinstantiationException).
    void reinstantiate(const Vorn::Name& name) const;

    VORN_ORDERED_ENTITY_MAP(Mirel::ChipId, AclPolicyStatus, status)

  private:
    const Vorn::Name name_;
};

class GlueStatus : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::GlueStatus")
  public:
    static constexpr const char* kAclIdResponseCollName = "AclIdResponseColl";
    static constexpr const char* kAclPolicyStatusCollName = "aclPolicyStatusColl";

    explicit GlueStatus(const Vorn::Name& name = "glueStatus");
    const Vorn::Name& name() const { return name_; }

    VORN_ATTR(GlueSmState, glueSmState, unknown_)
    VORN_ATTR(GlueSmState, lastComputationResult, unknown_)
    // The answer slot for the glue configuration's prepareCommitKickTime; the glue itself
    // never writes it.
    VORN_ATTR(Vorn::Seconds, prepareCommitKickResponse, 0.0)
    // A cycle was asked for while this one ran, and follows it: the outcome of the running
    // cycle is not the outcome of that request (the glue sets it, and clears it just after
    // the running cycle's idle).
    VORN_ATTR(bool, cycleRequestQueued, false)

    // The root collections: GlueStatus's own until the driver's are handed in. Never null: a
    // null one is refused ("null _rootConfigColl parameter to mutator for
    // OvinMirel::GlueStatus::rootConfigColl not allowed") and the held one kept. Machines look
    // them up when they use them, but one that subscribed to a collection keeps that one, so
    // the handover belongs before any machine is built.
    const Vorn::Ptr<Mirel::RootConfigColl>& rootConfigColl() const { return rootConfigColl_.get(); }
    const Vorn::Ptr<Mirel::RootStatusColl>& rootStatusColl() const { return rootStatusColl_.get(); }
    void rootConfigCollIs(const Vorn::Ptr<Mirel::RootConfigColl>& c) { rootConfigColl_.set(c); }
    void rootStatusCollIs(const Vorn::Ptr<Mirel::RootStatusColl>& c) { rootStatusColl_.set(c); }

    // Roots of the current cycle whose computation, load or abort is outstanding, and those
    // that failed computation.
    VORN_ORDERED_SET(uint32_t, computingRootSmId)
    VORN_ORDERED_SET(uint32_t, loadingRootSmId)
    VORN_ORDERED_SET(uint32_t, failedRootSmId)
    VORN_ORDERED_SET(uint32_t, abortRootSmId)
    // Per chip: the root programmed now, and the root being prepared in this cycle.
    VORN_ORDERED_MAP(Mirel::ChipId, uint32_t, activeRootSmId)
    VORN_ORDERED_MAP(Mirel::ChipId, uint32_t, attemptRootSmId)
    // Per chip: the error published when its attempt failed (chipErrors() is the count).
    VORN_ORDERED_MAP(Mirel::ChipId, Mirel::StageErrorCode, chipError)

    // The two child collections, created by name: an existing one with the same name is
    // returned as it is; asking for another name throws Vorn::ReinstantiationException and
    // keeps the existing one.
    VORN_CHILD_ATTR(AclIdResponseColl, aclIdResponseColl)
    VORN_CHILD_ATTR(AclPolicyStatusColl, aclPolicyStatusColl)

    VORN_ORDERED_ENTITY_MAP(Mirel::ChipId, Mirel::ChipDataFlowConfig, piChipDataFlowConfig)
    VORN_ATTR(bool, initialized, false)

    // Creates the two child collections ("AclIdResponseColl", "aclPolicyStatusColl"), then
    // sets initialized. Calling it again keeps the children it made.
    void initialize();

  private:
    const Vorn::Name name_;
    Vorn::PtrAttr<Mirel::RootConfigColl> rootConfigColl_{*this, "rootConfigColl"};
    Vorn::PtrAttr<Mirel::RootStatusColl> rootStatusColl_{*this, "rootStatusColl"};
};

// Root ids: each chip owns the two roots chipId * 2 and chipId * 2 + 1.
constexpr uint32_t kMaxRootChipId = 0x7fffffff;  // the largest chip with root ids in 32 bits
inline Mirel::ChipId rootSmIdToChipId(uint32_t rootSmId) {
    return Mirel::ChipId(rootSmId >> 1);
}
// REQUIRES: slot < 2, chipId.value() <= kMaxRootChipId (asserted).
uint32_t rootSmIdOf(Mirel::ChipId chipId, uint32_t slot);
// The root a new attempt of the chip uses: the slot that is not active, or slot 0 when the
// chip has no active root.
uint32_t getAttemptRootSmId(const GlueStatus& glueStatus, Mirel::ChipId chipId);

Vorn::Ptr<GlueStatus> glueStatusFactory(const Vorn::Name& name);
Vorn::Ptr<AclIdResponseColl> aclIdResponseCollFactory(const Vorn::Name& name);
Vorn::Ptr<AclIdResponse> aclIdResponseFactory(Mirel::ChipId chipId);
Vorn::Ptr<AclPolicyStatusColl> aclPolicyStatusCollFactory(const Vorn::Name& name);
Vorn::Ptr<AclPolicyStatus> aclPolicyStatusFactory(Mirel::ChipId chipId);

}  // namespace OvinMirel
