#pragma once
// AclPolicySm: per chip, decides which of the ACLs bound to each interface can be in effect
// together (by the chip's ranked list of supported ACL-kind combinations) and publishes the
// result in the chip's AclPolicyStatus; keeps the interfaces on which some bound ACL had to be
// left out (errIntf) and logs each change of that condition once.
//
// Watches (from handleInitialized on):
//  - Index.chipIntfMapping, for this chip's entry, and that entry's interface set;
//  - Index.chipAclMapping, for this chip's entry only: one watcher per ACL, which watches the
//    ACL's interface set on this chip and, per interface, the parents through which the ACL
//    reaches it (Index.aclPhyIntfMapping: the ACL's entry and the parent sets of its
//    interfaces of this chip; the entry's whole interface collection only while one of this
//    chip's interfaces has no mapping there). Any change schedules a review of the interface
//    concerned. So a change costs the chips it concerns, not every chip.
// Writes:  AclPolicyStatus (intfAclMapping, routedPortSharedAclMapping, vlanAclMapping,
//          subIntfAclMapping); it is their only writer.
// Timer:   intfPolicyTimer, armed for time 0 by the first schedule after a review run, so a
//          burst of changes is reviewed once, on the next pass of the timer wheel.
// Invariants (between reviews):
//  1. A key is in AclPolicyStatus exactly when some interface of intfAclStatus contributed it
//     there; intfAclStatus records, per interface and ACL, the parents (the port itself, a
//     VLAN interface, a sub-interface) through which the ACL was put in effect.
//  2. An interface's physical ACLs are in exactly one of intfAclMapping and
//     routedPortSharedAclMapping.
//  3. A VLAN (sub-interface) key stays while any member (carrier) interface contributes it;
//     the VLAN's (sub-interface's) entry goes with its last key. No entry is left empty.
//  4. Nothing is put in effect on an interface until every ACL bound to it is ready (has a
//     mask bit), and then only the ACLs whose kind the chip's best combination admits.
//  5. errIntf holds exactly the reviewed interfaces of this chip whose bound ACL kinds the
//     chip cannot hold together; each entry and exit is logged once.
//  6. A review writes only the difference between what the interface contributed and what it
//     is to contribute now: what stays is not withdrawn and put back. The mapping machine
//     reacts to every write, so a review that changes nothing must leave the status untouched
//     (else a place would give up its hardware index, and a waiting place could take it).
//     Its writes reach the status when it ends, each place once (AclPolicySmStatusEdit): a
//     place that loses every ACL goes whole, one that appears comes filled.
//  7. A review looks only at the ACLs that changed under the interface (each change names
//     its ACL), and when its policy changed since its last review (reviewedPolicy_) also at
//     the ACLs of the kinds admitted or dropped, as long as the interface's eligibility and
//     shared mapping stay as that review left them; otherwise, and when scheduled without an
//     ACL, at all of them. So a change costs the ACLs it touches, not the interface's ACL
//     count.
// Owns: shared references to its inputs and to the chip's AclPolicyStatus; its watchers and
// its timer. The status entity itself is deleted by its owner, not by handleDelete.

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "ovinmirel/chip/OvinMirelAclPolicySmPending.h"
#include "ovinmirel/chip/OvinMirelAclPolicySmStatusEdit.h"
#include "ovinmirel/glue/OvinMirelGlueStatus.h"
#include "ovinmirel/index/OvinMirelIndex.h"
#include "platform/brix/TimerWheel.h"
#include "platform/mirel/ChipId.h"
#include "platform/mirel/HwCapability.h"
#include "platform/ovin/AclKey.h"
#include "platform/vorn/EntryWatchers.h"
#include "platform/vorn/FlatSet.h"
#include "platform/vorn/SmallFlatSet.h"
#include "platform/vorn/StateMachine.h"
#include "platform/zamu/IntfId.h"

namespace OvinMirel {

// The physical interfaces through which one ACL is in effect at one VLAN or sub-interface. The
// ACL is the key it sits under; it is not stored again.
class AclPhyIntfSet : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::AclPhyIntfSet")
  public:
    explicit AclPhyIntfSet(const Ovin::AclKey&) {}

    VORN_ORDERED_SET(Zamu::IntfId, phyIntf)
};

// The ACL keys in effect for one VLAN, each with the member interfaces that contributed it.
class VlanAclPhyIntfColl : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::VlanAclPhyIntfColl")
  public:
    explicit VlanAclPhyIntfColl(const Bridging::VlanId& vlanId) : vlanId_(vlanId) {}
    const Bridging::VlanId& vlanId() const { return vlanId_; }

    VORN_ORDERED_ENTITY_MAP(Ovin::AclKey, AclPhyIntfSet, aclKey)

  private:
    const Bridging::VlanId vlanId_;
};

// The same for one sub-interface and the physical interfaces that carry it.
class SubIntfAclPhyIntfColl : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::SubIntfAclPhyIntfColl")
  public:
    explicit SubIntfAclPhyIntfColl(const Zamu::IntfId& subIntfId) : subIntfId_(subIntfId) {}
    const Zamu::IntfId& subIntfId() const { return subIntfId_; }

    VORN_ORDERED_ENTITY_MAP(Ovin::AclKey, AclPhyIntfSet, aclKey)

  private:
    const Zamu::IntfId subIntfId_;
};

// The configured interfaces through which one ACL was put in effect on a physical interface:
// a plain value (there is one per interface and ACL in effect, mostly with one parent), kept
// in order rather than as an entity of its own.
class AclParentIntfSet {
  public:
    // Ascending ids; the one parent of the common case is held in place (no allocation per
    // place).
    using Ids = Vorn::SmallFlatSet<Zamu::IntfId>;
    const Ids& parentIntfId() const { return parentIntfId_; }
    Ids& parentIntfId() { return parentIntfId_; }
    bool operator==(const AclParentIntfSet&) const = default;

  private:
    Ids parentIntfId_;
};

// What one physical interface contributed to the status: per ACL, the parents it came
// through. A review withdraws exactly this, whatever the index says by then.
class IntfAclStatus : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::IntfAclStatus")
  public:
    explicit IntfAclStatus(const Zamu::IntfId& intfId) : intfId_(intfId) {}
    const Zamu::IntfId& intfId() const { return intfId_; }

    // Hashed: a review looks its ACLs up one by one, and walks them all (in key order,
    // through sortedKeys()) only when it withdraws the whole interface.
    VORN_MAP(Ovin::AclKey, AclParentIntfSet, aclKey)
    // The same, taking over a set built for the purpose instead of copying it.
    void aclKeyIs(const Ovin::AclKey& aclKey, AclParentIntfSet&& parents) {
        aclKey_.is(aclKey, std::move(parents));
    }

  private:
    const Zamu::IntfId intfId_;
};

class AclPolicySm : public Vorn::StateMachine {
    VORN_ENTITY("OvinMirel::AclPolicySm")
    using Mask = Mirel::AclTypeCombinationBitMask;

  public:
    // References may be null here; handleInitialized asserts that they are all present.
    AclPolicySm(Mirel::ChipId chipId, const Vorn::Ptr<Mirel::ChipHwCapability>& chipHwCapability,
                const Vorn::Ptr<Mirel::HwCapability>& hwCapability, const Vorn::Ptr<Index>& index,
                const Vorn::Ptr<AclPolicyStatus>& aclPolicyStatus, Brix::TimerWheel& timerWheel);
    ~AclPolicySm() override;
    // Asked for again (AclPolicySmColl::smIs) with another reference than the one it holds:
    // refused with ReinstantiationException naming the attribute ("_hwCapability", ...).
    void reinstantiate(const Vorn::Ptr<Mirel::ChipHwCapability>& chipHwCapability,
                       const Vorn::Ptr<Mirel::HwCapability>& hwCapability,
                       const Vorn::Ptr<Index>& index,
                       const Vorn::Ptr<AclPolicyStatus>& aclPolicyStatus,
                       Brix::TimerWheel& timerWheel) const;

    Mirel::ChipId chipId() const { return chipId_; }
    const Vorn::Ptr<Mirel::ChipHwCapability>& chipHwCapability() const { return chipHwCapability_; }
    const Vorn::Ptr<Mirel::HwCapability>& hwCapability() const { return hwCapability_; }
    const Vorn::Ptr<Index>& index() const { return index_; }
    const Vorn::Ptr<AclPolicyStatus>& aclPolicyStatus() const { return aclPolicyStatus_; }
    Brix::TimerWheel& timerWheel() const { return *timerWheel_; }
    const Brix::Timer& intfPolicyTimer() const { return intfPolicyTimer_; }

    // This chip's entry of Index.chipIntfMapping while it exists.
    VORN_PTR_ATTR(ChipIntfMapping, chipIntfMapping)
    // Interfaces awaiting review, reviewed in this (interface) order.
    VORN_ORDERED_SET(Zamu::IntfId, intfPolicyQueue)
    // Interfaces on which not every bound ACL is in effect. A real change (only) logs.
    VORN_ORDERED_SET(Zamu::IntfId, errIntf)
    VORN_ORDERED_ENTITY_MAP(Bridging::VlanId, VlanAclPhyIntfColl, vlanAclPhyIntfStatus)
    VORN_ORDERED_ENTITY_MAP(Zamu::IntfId, SubIntfAclPhyIntfColl, subIntfAclPhyIntfStatus)
    // The interfaces that have entries in the status, with what they contributed. Hashed: a
    // review looks its interface up per ACL; the one walk (scheduling every interface) goes
    // to the ordered queue.
    VORN_ENTITY_MAP(Zamu::IntfId, IntfAclStatus, intfAclStatus)

    // Every operation below asserts "initialized()", except scheduling, which does nothing
    // before initialisation (and after handleDelete).

    // The ACL kinds bound to the interface (in effect or not), from Index.intfAclTypeMapping.
    Mirel::AclTypeCombinationBitMask getIntfAclTypeCombination(const Zamu::IntfId& intfId) const;
    // The supported part of `requested`: the first supported combination (ascending priority
    // key) that holds all of it; else the first one that shares any bit with it (never a
    // later, larger one); else 0.
    Mirel::AclTypeCombinationBitMask getBestAclTypeCombinationMatch(
        Mirel::AclTypeCombinationBitMask requested) const;
    // The kinds allowed on the interface.
    Mirel::AclTypeCombinationBitMask getIntfPolicy(const Zamu::IntfId& intfId) const;
    // The one mask bit of an ACL from its key alone; 0 for an ACL type with no table.
    Mirel::AclTypeCombinationBitMask getAclTypeMask(const Ovin::AclKey& aclKey) const;
    // Whether a routed port's router ACLs are installed by sharing one index.
    // REQUIRES: Index.intfAclMapping has the interface.
    bool shouldDoRaclSharing(const Zamu::IntfId& intfId) const;
    // Whether every ACL bound to the interface has a mask bit. REQUIRES: the interface has
    // ACLs in the index and sits on this chip.
    bool isReadyIntfAcl(const Zamu::IntfId& intfId) const;

    void scheduleIntfAclPolicyReview(const Zamu::IntfId& intfId);
    // Every interface of the chip, and every one that has status or is an error interface.
    void scheduleIntfAclPolicyReview();
    void handleIntfPolicyTimer();
    // Withdraws what the interface contributed and no longer does, then puts its admitted
    // ACLs in effect (those already in effect stay as they are).
    void processIntf(const Zamu::IntfId& intfId);
    // The direct form: rewrites the interface's intfAclMapping entry from the index alone,
    // without the bookkeeping of processIntf. REQUIRES: as isReadyIntfAcl.
    void applyIntfAclPolicy(const Zamu::IntfId& intfId);
    void updateErrIntf(const Zamu::IntfId& intfId);
    void logErrIntf(const Zamu::IntfId& intfId) const;

    // The writers of AclPolicyStatus.
    void addIntfAclStatus(const Zamu::IntfId& intfId, const Ovin::AclKey& aclKey);
    void addPhyIntf(const Zamu::IntfId& intfId, const Ovin::AclKey& aclKey);
    void addVlanIntf(const Zamu::IntfId& intfId, const Zamu::IntfId& vlanIntfId,
                     const Ovin::AclKey& aclKey);
    void addSubIntf(const Zamu::IntfId& intfId, const Zamu::IntfId& subIntfId,
                    const Ovin::AclKey& aclKey);
    void deletePhyIntf(const Zamu::IntfId& intfId, const Ovin::AclKey& aclKey);
    void deleteVlanIntf(const Zamu::IntfId& intfId, const Zamu::IntfId& vlanIntfId,
                        const Ovin::AclKey& aclKey);
    void deleteSubIntf(const Zamu::IntfId& intfId, const Zamu::IntfId& subIntfId,
                       const Ovin::AclKey& aclKey);
    // Withdraws everything the interface contributed.
    void deleteIntfStatus(const Zamu::IntfId& intfId);
    // Each of the writers above (and a review) writes the status when it returns; called from
    // within another, its writes join those of the outer one.

    // Reactions.
    void handleChipIntfMapping(Mirel::ChipId chipId);
    void handleChipIntf(const Zamu::IntfId& intfId);
    void handleAclPhyIntf(const Ovin::AclKey& aclKey, const Zamu::IntfId& intfId);
    // Asserts its inputs, starts watching and takes this chip's interface mapping.
    void handleInitialized() override;
    // Drops the watchers and disarms the timer; the status stays as it is.
    void handleDelete() override;

  private:
    class ChipAclWatcher;
    // Holds the status writes of one entry point, and commits them when the outermost ends.
    class StatusWrites {
      public:
        explicit StatusWrites(AclPolicySm& sm) : sm_(sm), outer_(!sm.writing_) {
            sm.writing_ = true;
        }
        ~StatusWrites() {
            if (!outer_)
                return;
            sm_.writing_ = false;
            sm_.statusEdit_->commit();
        }
        StatusWrites(const StatusWrites&) = delete;
        StatusWrites& operator=(const StatusWrites&) = delete;

      private:
        AclPolicySm& sm_;
        const bool outer_;
    };
    using ChipAclField = Vorn::EntityMapField<Ovin::AclKey, AclIntfColl, Vorn::Ordered>;
    using ChipAclWatchers = Vorn::EntryWatchers<ChipAclField, ChipAclWatcher>;

    // Index.chipAclMapping changed for this chip: follows its (new) entry.
    void handleChipAclColl(Vorn::Existing existing);

    // What a review of one interface knows once, for all the ACLs it looks at: whether
    // anything of the interface may be in effect, the kinds admitted, and where its own ACLs
    // go before and after (routedPortSharedAclMapping or intfAclMapping).
    struct IntfReview {
        Vorn::Ptr<IntfAclColl> acls;  // null unless the interface may contribute
        Mask combination;             // the kinds bound, read where acls is set
        Mask policy;
        bool sharedBefore = false;
        bool sharedAfter = false;
    };
    using AclKeys = AclPolicySmPending::AclKeys;
    using PendingReview = AclPolicySmPending::Review;
    void scheduleAclReview(const Zamu::IntfId& intfId, const Ovin::AclKey& aclKey);
    void armIntfPolicyTimer();
    // processIntf for what changed under the interface, returning what it found of it.
    IntfReview reviewIntf(const Zamu::IntfId& intfId, PendingReview pending);
    // updateErrIntf, from a review's reading of the interface where it made one.
    void updateErrIntf(const Zamu::IntfId& intfId, const IntfReview& review);
    // The kinds bound to the interface (untraced) and how many of its ACLs the type index
    // grouped under a table type, from one walk of Index.intfAclTypeMapping.
    struct BoundKinds {
        Mask combination;
        size_t typed = 0;
    };
    BoundKinds boundKinds(const Zamu::IntfId& intfId) const;
    // isReadyIntfAcl for the interface's ACLs, `typed` of them grouped by the type index.
    bool allReady(const IntfAclColl& acls, size_t typed) const;
    // The review's interface-wide part; traces why an interface contributes nothing, where it
    // does not.
    IntfReview intfReview(const Zamu::IntfId& intfId) const;
    // The index's entry through which an admitted ACL reaches the interface; null when the
    // ACL is not to be in effect there. `bound`: the ACL is one of review.acls, which then
    // need not be searched.
    Vorn::Ptr<PhyIntfMapping> wantedParents(const Zamu::IntfId& intfId, const Ovin::AclKey& aclKey,
                                            const IntfReview& review, bool bound = false) const;
    // Withdraws what the ACL contributed on the interface and no longer does the same way.
    void withdrawAcl(const Zamu::IntfId& intfId, const Ovin::AclKey& aclKey,
                     const PhyIntfMapping* wanted, const IntfReview& review);
    // Puts in effect the parents of `wanted` that are not yet (those that are stay untouched).
    void addAcl(const Zamu::IntfId& intfId, const Ovin::AclKey& aclKey,
                const PhyIntfMapping& wanted, bool shared);
    void addPhyIntf(const Zamu::IntfId& intfId, const Ovin::AclKey& aclKey, bool shared);
    // Adds to `acls` the interface's ACLs (Index.intfAclTypeMapping) whose kind is in `kinds`:
    // those a change of policy admits or drops.
    void addAclsOfKinds(const Zamu::IntfId& intfId, Mask kinds, AclKeys& acls) const;
    // Whether some ACL other than `changed` is in effect on the interface's own entry.
    bool otherPhyAclInEffect(const Zamu::IntfId& intfId, const AclKeys& changed) const;

    // The parent's kind decides the place an ACL takes in the status.
    enum class Path { phy, vlan, sub };
    Path pathOf(const Zamu::IntfId& intfId, const Zamu::IntfId& parentIntfId) const;
    bool onChip(const Zamu::IntfId& intfId) const;

    const Mirel::ChipId chipId_;
    const Vorn::Ptr<Mirel::ChipHwCapability> chipHwCapability_;
    const Vorn::Ptr<Mirel::HwCapability> hwCapability_;
    const Vorn::Ptr<Index> index_;
    const Vorn::Ptr<AclPolicyStatus> aclPolicyStatus_;
    Brix::TimerWheel* const timerWheel_;
    Brix::Timer intfPolicyTimer_;
    // The status writes under way (made by handleInitialized, once the status is known).
    std::optional<AclPolicySmStatusEdit> statusEdit_;
    bool writing_ = false;
    // Whether chipIntfMapping has been taken since initialisation (its absence then reads as
    // "removed", not "not yet set").
    bool chipIntfMappingTaken_ = false;
    // Declared after what they use, so they go first.
    Vorn::Subscription errIntfLog_;
    Vorn::Subscription chipIntfMappingSub_;
    Vorn::Subscription chipIntfSub_;
    Vorn::Subscription chipAclMappingSub_;
    Vorn::Subscription aclPhyIntfMappingSub_;
    // This chip's entry of Index.chipAclMapping (null while the chip carries no ACL), held so
    // that its watchers outlive its removal from the Index.
    Vorn::Ptr<ChipAclColl> chipAclColl_;
    std::unique_ptr<ChipAclWatchers> chipAclWatchers_;
    // Interfaces awaiting review with the ACLs that changed under them; every one of them is
    // in intfPolicyQueue.
    AclPolicySmPending pending_;
    // The policy under which each interface that may contribute was last reviewed.
    std::map<Zamu::IntfId, Mask> reviewedPolicy_;
    // The storage of a review's look-ups (reviewIntf), kept between reviews. A review takes it
    // for its duration and gives it back, so one nested in another would only allocate.
    std::vector<const PhyIntfMapping*> wanted_;
    class WantedLease {
      public:
        explicit WantedLease(std::vector<const PhyIntfMapping*>& home)
            : home_(home), wanted_(std::move(home)) {}
        ~WantedLease() { home_ = std::move(wanted_); }
        WantedLease(const WantedLease&) = delete;
        WantedLease& operator=(const WantedLease&) = delete;
        std::vector<const PhyIntfMapping*>& wanted() { return wanted_; }

      private:
        std::vector<const PhyIntfMapping*>& home_;
        std::vector<const PhyIntfMapping*> wanted_;
    };
};

class AclPolicySmColl : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::AclPolicySmColl")
  public:
    explicit AclPolicySmColl(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    // smIs(chipId, chipHwCapability, hwCapability, index, aclPolicyStatus, timerWheel);
    // smDel runs the machine's handleDelete first.
    VORN_MACHINE_MAP(Mirel::ChipId, AclPolicySm, sm)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<AclPolicySm> aclPolicySmFactory(
    Mirel::ChipId chipId, const Vorn::Ptr<Mirel::ChipHwCapability>& chipHwCapability,
    const Vorn::Ptr<Mirel::HwCapability>& hwCapability, const Vorn::Ptr<Index>& index,
    const Vorn::Ptr<AclPolicyStatus>& aclPolicyStatus, Brix::TimerWheel& timerWheel);
Vorn::Ptr<AclPolicySmColl> aclPolicySmCollFactory(const Vorn::Name& name);

}  // namespace OvinMirel
