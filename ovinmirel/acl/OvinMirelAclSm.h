#pragma once
// OvinMirel::OvinMirelAclSm: this layer's specialisation of the ACL engine. The engine may
// only report an update as applied once the commit machinery has finished it across all
// chips, so the machine follows the glue's state and answers the engine's data-plane update
// requests from it.
//
// Watches: GlueStatus.glueSmState (through the replaceable `glueStatus` reference).
// Writes: Acl::StatusDp.dpAclUpdateTime; the helper's dirty flag and unit errors; ACL outcomes
//   through the helper's aclStatusUpdateCallback.
// Timers: none of its own (the engine's update timer is the base's).
// Owns: shared references to GlueStatus, the ACL store and the mapping Index (all read only),
//   besides the engine's fourteen; the store's entries in key order (kept as entries come and
//   go, so that the report walks them in that order without sorting every cycle). Beyond that
//   no state of its own: every reaction re-reads its inputs.
//
// On each change of glueSmState, and whenever the engine has requested an update:
//   idle            the glue has no cycle in progress: a pending request is complete, so its
//                   request time goes to dpAclUpdateTime.
//   success         dirty cleared; no chip may have an error (asserted); every ACL of the
//                   store whose rule set is complete (`created`) gets its outcome; the latest
//                   request time goes to dpAclUpdateTime.
//   aclIdAllocFail,
//   fail            the unit errors are replaced by one per chip in GlueStatus.chipError
//                   ("Chip-<n>", the chip's published error code, also published); every
//                   created ACL gets 17; the latest request time goes to dpAclUpdateTime,
//                   which releases waiting clients.
//   anything else   nothing: the engine keeps waiting until the cycle ends.
// While GlueStatus.cycleRequestQueued is set (a request, maybe the engine's latest, arrived
// while a cycle ran and is held for the next one), the four reactions above wait for the
// cycle that follows: every cycle commits the whole configuration, so its outcome answers for
// the update the running cycle did not carry. Releasing clients on the running cycle's result
// would tell them of hardware that does not yet have their change.
//
// Outcomes. A cycle is all or nothing, so after fail or aclIdAllocFail no change of the cycle
// reached any chip: every created ACL is reported 17 (the engine's failure), whether or not it
// sits on a failed chip. After success an ACL is reported 0, except one that is bound (some
// interface in its store entry) yet reaches no chip: the Index has no aclChipMapping entry
// for it (none of its interfaces resolves to a port of a present chip). That one gets 17: the
// commit succeeded, but the user's ACL filters no traffic, and that is what the engine must
// show. One look-up per ACL, so the report costs the number of ACLs, not the size of the
// configuration. An ACL that reaches a chip but that the chip's policy leaves out on every
// interface is reported 0: the interface-level log messages and policy status say that.
// Without an Index (none given, or deleted) nothing says an ACL reaches no chip: 0.

#include <cstdint>
#include <map>

#include "ovinmirel/acl/OvinMirelAcl.h"
#include "ovinmirel/glue/OvinMirelGlueStatus.h"
#include "ovinmirel/index/OvinMirelIndex.h"
#include "platform/ovin/OvinAclSm.h"

namespace OvinMirel {

class OvinMirelAclSm : public Ovin::AclSm {
    VORN_ENTITY("OvinMirel::OvinMirelAclSm")
  public:
    // The first fourteen references go to the engine; all sixteen are required.
    OvinMirelAclSm(const Vorn::Ptr<Ovin::OvinCommonSmData>& commonSmData,
                   const Vorn::Ptr<const Acl::Config>& aclConfig,
                   const Vorn::Ptr<const Acl::ParamConfig>& paramConfig,
                   const Vorn::Ptr<const Acl::ConfigDir>& configDir,
                   const Vorn::Ptr<const Acl::IntfConfig>& intfConfig,
                   const Vorn::Ptr<const Acl::ConfigDir>& intfConfigDir,
                   const Vorn::Ptr<Acl::StatusDp>& statusDp,
                   const Vorn::Ptr<Errdisable::CauseStatus>& causeStatus,
                   const Vorn::Ptr<const Lag::Input::Config>& lagInputConfig,
                   const Vorn::Ptr<OvinHelper::AclHelper>& aclHelper, Vorn::Clock& clock,
                   const Vorn::Ptr<const Bridging::Config>& bridgingConfig,
                   const Vorn::Ptr<const Interface::SubIntfStatusDir>& subIntfStatusDir,
                   const Vorn::Ptr<const Interface::SubIntfConfigDir>& subIntfConfigDir,
                   const Vorn::Ptr<const GlueStatus>& glueStatus,
                   const Vorn::Ptr<const OvinMirelAclColl>& ovinMirelAclColl);

    // The GlueStatus followed. Replacing it re-targets the watch (a null one is refused:
    // "null _glueStatus parameter to mutator for OvinMirel::OvinMirelAclSm::glueStatus not
    // allowed"); deleting it stops the reaction until another is given.
    VORN_PTR_ATTR(const GlueStatus, glueStatus)
    // The mapping Index, read on success to find ACLs that reach no chip. Given by the owner
    // after creation (the factory's arguments are the engine's); a null one is refused like
    // glueStatus.
    VORN_PTR_ATTR(const Index, index)
    const Vorn::Ptr<const OvinMirelAclColl>& ovinMirelAclColl() const { return ovinMirelAclColl_; }

    // Starts (stops) following glueStatus along with the engine.
    void handleInitialized() override;
    void handleDelete() override;

    // Traces and answers the engine from the current glue state.
    void handleGlueStatus();
    void handleDpAclUpdateRequestTime() override;

  private:
    void watchGlueStatus();
    void handleStoreAcl(const Ovin::AclKey& key);
    Ovin::AclCreateError successResult(const OvinMirelAcl& acl) const;
    void reportCreated(bool failed);

    const Vorn::Ptr<const OvinMirelAclColl> ovinMirelAclColl_;
    // The store's entries in key order, the order outcomes are reported in; and a count of
    // their changes, so that a walk learns when the engine's reaction changed them under it.
    std::map<Ovin::AclKey, Vorn::Ptr<const OvinMirelAcl>> storeAcls_;
    uint64_t storeAclChanges_ = 0;
    // Declared after the references they use.
    Vorn::Subscription storeAclSub_;
    Vorn::Subscription glueStatusSub_;
    Vorn::Subscription glueSmStateSub_;
};

Vorn::Ptr<OvinMirelAclSm> ovinMirelAclSmFactory(
    const Vorn::Ptr<Ovin::OvinCommonSmData>& commonSmData,
    const Vorn::Ptr<const Acl::Config>& aclConfig,
    const Vorn::Ptr<const Acl::ParamConfig>& paramConfig,
    const Vorn::Ptr<const Acl::ConfigDir>& configDir,
    const Vorn::Ptr<const Acl::IntfConfig>& intfConfig,
    const Vorn::Ptr<const Acl::ConfigDir>& intfConfigDir, const Vorn::Ptr<Acl::StatusDp>& statusDp,
    const Vorn::Ptr<Errdisable::CauseStatus>& causeStatus,
    const Vorn::Ptr<const Lag::Input::Config>& lagInputConfig,
    const Vorn::Ptr<OvinHelper::AclHelper>& aclHelper, Vorn::Clock& clock,
    const Vorn::Ptr<const Bridging::Config>& bridgingConfig,
    const Vorn::Ptr<const Interface::SubIntfStatusDir>& subIntfStatusDir,
    const Vorn::Ptr<const Interface::SubIntfConfigDir>& subIntfConfigDir,
    const Vorn::Ptr<const GlueStatus>& glueStatus,
    const Vorn::Ptr<const OvinMirelAclColl>& ovinMirelAclColl);

}  // namespace OvinMirel
