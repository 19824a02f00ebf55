#pragma once
// MappingSm: per chip, turns the ACL policy result (AclPolicyStatus), restricted to the ACLs
// of the chip's active root, into hardware ACL indexes and the chip's PD mappings in its
// data-flow configuration. Places that carry the same ACLs in every kind and direction (the
// same HwAclIndexKey) share one index.
//
// Watches: GlueStatus.activeRootSmId (a new active root of this chip rebuilds everything);
//          every place of the four policy collections (intfAclMapping,
//          routedPortSharedAclMapping, vlanAclMapping, subIntfAclMapping), one watcher per
//          place: the place is processed when it appears, on every change of its ACL set, and
//          once more when it goes.
// Reads:   the active root's RootConfig.aclKeyToAclIdTypeSet (ids and table type per ACL),
//          through a hashed copy that follows that collection (and is dropped when the root
//          configuration under the active id is replaced); ChipHwCapability.hwAclIndexMax and
//          hwAclIndexReserved.
// Writes:  ChipDataFlowConfig: 1st level place -> index; 2nd level (index, table type,
//          direction, protocol) -> AclId; the globalAclControl pulse after a rebuild.
// Timers:  none; everything runs in the watchers' callbacks.
// Invariants (checkMappingConsistency in OvinMirelMappingCheck.h verifies each):
//  1. A place's internal mapping holds its policy ACLs that the active root holds; no empty
//     entries.
//  2. placeToKey[p] is the key of p's internal mapping; keyToHwAclIndex has that key and the
//     family's key-to-place set holds p.
//  3. Every key in use has a non-empty set and an index; the empty key never has one.
//  4. An allocator's numbers in use are the indexes of its pool's keys plus the reserved
//     index. The router pool serves routed ports, VLANs and sub-interfaces together.
//  5. The data-flow tables are exactly what 2 to 4 and the active root's ids say.
//  6. A place waits for an index only while its pool has no free number.
// Owns: its watchers, the allocators and all state below; holds references to its inputs.
// The data-flow configuration is its owner's: deleting the machine leaves it as it is.
//
// Decisions where the plain rules leave room or would break the invariants:
//  a. The 2nd-level key carries the ACL's direction, so a place with an inbound and an
//     outbound ACL of one table type keeps both entries.
//  b. A place whose ACLs hold nothing of its family's kinds has the empty key: it gets no
//     index, uses no number and writes no mapping ("      empty hw acl index key, no pd
//     mapping").
//  c. 2nd-level entries are written from the key's ACLs (one per kind and direction), so
//     every place of a key writes the same entries and only its family's table types;
//     releasing an index deletes only its own pool's table types (1, 3, 5 or 2, 4): the two
//     pools deliberately share one number range. A place that reuses an index finds its
//     entries there already (they go only with the index): they are traced, not written
//     again, which changes nothing and keeps a rebuild of a large chip cheap.
//  d. Pool exhausted: the place gets no index, no key-to-place set membership, no place-to-key
//     entry and no mapping; it joins its family's waiting set. After each top-level operation
//     that released a number, the waiting places of that pool are reviewed in order (routed
//     ports, VLANs, sub-interfaces; each by id), so a place waits only while its pool is full.
//  e. The VLAN and sub-interface gates add to the active-root test: the place has an ACL that
//     the active root holds, or the machine still holds something for it (to be removed).
//     Otherwise the review stops ("    no racls on vlan in active config, ignore"; "subintf"
//     for a sub-interface), which is exactly when it would change nothing.
//  f. A new active root that holds exactly the ACLs, each with its table type, of the root
//     the mapping was last rebuilt on (neither root's ACLs changed since) leaves every place
//     its ACLs and its key: the rebuild then keeps the mapping, hands the numbers out again
//     from fresh allocators in the places' order, and writes only the data-flow entries that
//     differ (renumbered places, the new root's ids). The tables come out as a rebuild from
//     scratch writes them. While level 8 is traced the rebuild runs in full, whose per-place
//     lines are the trace.

#include <algorithm>
#include <array>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "ovinmirel/chip/OvinMirelAclKeySet.h"
#include "ovinmirel/chip/OvinMirelActiveAcls.h"
#include "ovinmirel/chip/OvinMirelHwAclIndex.h"
#include "ovinmirel/glue/OvinMirelGlueStatus.h"
#include "platform/mirel/AclId.h"
#include "platform/mirel/ChipDataFlowConfig.h"
#include "platform/mirel/HwCapability.h"
#include "platform/mirel/Root.h"
#include "platform/vorn/EntryWatchers.h"
#include "platform/vorn/StateMachine.h"

namespace OvinMirel {

class MappingSm : public Vorn::StateMachine {
    VORN_ENTITY("OvinMirel::MappingSm")
  public:
    // Null references throw Vorn::NullPointerException naming the attribute.
    MappingSm(Mirel::ChipId chipId, const Vorn::Ptr<GlueStatus>& glueStatus,
              const Vorn::Ptr<AclPolicyStatus>& aclPolicyStatus,
              const Vorn::Ptr<Mirel::ChipHwCapability>& chipHwCapability,
              const Vorn::Ptr<Mirel::ChipDataFlowConfig>& chipDataFlowConfig);
    ~MappingSm() override;
    // Asked for again with other references: Vorn::ReinstantiationException.
    void reinstantiate(const Vorn::Ptr<GlueStatus>& glueStatus,
                       const Vorn::Ptr<AclPolicyStatus>& aclPolicyStatus,
                       const Vorn::Ptr<Mirel::ChipHwCapability>& chipHwCapability,
                       const Vorn::Ptr<Mirel::ChipDataFlowConfig>& chipDataFlowConfig) const;

    Mirel::ChipId chipId() const { return chipId_; }
    const Vorn::Ptr<GlueStatus>& glueStatus() const { return glueStatus_; }
    const Vorn::Ptr<AclPolicyStatus>& aclPolicyStatus() const { return aclPolicyStatus_; }
    const Vorn::Ptr<Mirel::ChipHwCapability>& chipHwCapability() const { return chipHwCapability_; }
    const Vorn::Ptr<Mirel::ChipDataFlowConfig>& chipDataFlowConfig() const {
        return chipDataFlowConfig_;
    }
    // The configuration of the chip's active root; null when the chip has none (or its
    // configuration is missing).
    Vorn::Ptr<Mirel::RootConfig> activeRootConfig() const;

    // Hashed, like the maps below up to the allocators: they are only looked up, and emptied
    // wholesale on a rebuild; no walk of them shows (places are walked in the policy status's
    // order, and the waiting sets are ordered).
    // Internal mapping: per place, the policy ACLs that the active root holds.
    VORN_MAP(Zamu::IntfId, AclKeySet, intfAclMapping)
    VORN_MAP(Zamu::IntfId, AclKeySet, routedPortSharedAclMapping)
    VORN_MAP(Bridging::VlanId, AclKeySet, vlanAclMapping)
    VORN_MAP(Zamu::IntfId, AclKeySet, subIntfAclMapping)
    // The key each place is programmed with.
    VORN_MAP(Zamu::IntfId, HwAclIndexKey, intfToHwAclIndexKey)
    VORN_MAP(Zamu::IntfId, HwAclIndexKey, routedPortToHwAclIndexKey)
    VORN_MAP(Bridging::VlanId, HwAclIndexKey, vlanToHwAclIndexKey)
    VORN_MAP(Zamu::IntfId, HwAclIndexKey, subIntfToHwAclIndexKey)
    VORN_MAP(HwAclIndexKey, Mirel::HwAclIndex, keyToHwAclIndex)
    VORN_ENTITY_MAP(HwAclIndexKey, HwAclIndexKeyToIntfSet, keyToIntfSet)
    VORN_ENTITY_MAP(HwAclIndexKey, HwAclIndexKeyToIntfSet, keyToRoutedPortSet)
    VORN_ENTITY_MAP(HwAclIndexKey, HwAclIndexKeyToVlanSet, keyToVlanSet)
    VORN_ENTITY_MAP(HwAclIndexKey, HwAclIndexKeyToSubIntfSet, keyToSubIntfSet)
    VORN_ORDERED_ENTITY_MAP(HwAclIndexAllocatorType, HwAclIndexAllocator, hwAclIndexAllocator)
    // Places whose pool had no number left when they needed one.
    VORN_ORDERED_SET(Zamu::IntfId, intfWaitingForHwAclIndex)
    VORN_ORDERED_SET(Zamu::IntfId, routedPortWaitingForHwAclIndex)
    VORN_ORDERED_SET(Bridging::VlanId, vlanWaitingForHwAclIndex)
    VORN_ORDERED_SET(Zamu::IntfId, subIntfWaitingForHwAclIndex)

    // Gates: whether the chip has an active root holding at least one ACL (the VLAN and
    // sub-interface gates add decision e above). An active root id without a configuration
    // stops the process ("activeRootConfig").
    bool shouldUpdateInternalMapping() const;
    bool shouldUpdateInternalVlanMapping(Bridging::VlanId vlanId) const;
    bool shouldUpdateInternalSubIntfMapping(const Zamu::IntfId& subIntfId) const;

    // The review of one place: gate, internal mapping, PD mapping. REQUIRES: initialized().
    void processIntf(const Zamu::IntfId& intfId);
    void processRoutedPort(const Zamu::IntfId& intfId);
    void processVlan(Bridging::VlanId vlanId);
    void processSubIntf(const Zamu::IntfId& subIntfId);

    // The steps of a review, each REQUIRES: initialized() and an active root.
    void updateInternalIntfMapping(const Zamu::IntfId& intfId);
    void updateInternalRoutedPortMapping(const Zamu::IntfId& intfId);
    void updateInternalVlanMapping(Bridging::VlanId vlanId);
    void updateInternalSubIntfMapping(const Zamu::IntfId& subIntfId);
    // The key of the place's internal mapping (which must exist).
    HwAclIndexKey getIntfHwAclIndexKey(const Zamu::IntfId& intfId) const;
    HwAclIndexKey getRoutedPortHwAclIndexKey(const Zamu::IntfId& intfId) const;
    HwAclIndexKey getVlanHwAclIndexKey(Bridging::VlanId vlanId) const;
    HwAclIndexKey getSubIntfHwAclIndexKey(const Zamu::IntfId& subIntfId) const;
    // Finds or allocates the index of the place's key and associates the place with it;
    // nullopt for the empty key or an exhausted pool (the place then waits).
    std::optional<Mirel::HwAclIndex> getIntfHwAclIndex(const Zamu::IntfId& intfId);
    std::optional<Mirel::HwAclIndex> getRoutedPortHwAclIndex(const Zamu::IntfId& intfId);
    std::optional<Mirel::HwAclIndex> getVlanHwAclIndex(Bridging::VlanId vlanId);
    std::optional<Mirel::HwAclIndex> getSubIntfHwAclIndex(const Zamu::IntfId& subIntfId);
    void maybeUpdateIntfPdMapping(const Zamu::IntfId& intfId);
    void maybeUpdateRoutedPortPdMapping(const Zamu::IntfId& intfId);
    void maybeUpdateVlanPdMapping(Bridging::VlanId vlanId);
    void maybeUpdateSubIntfPdMapping(const Zamu::IntfId& subIntfId);
    void deleteIntfPdMapping(const Zamu::IntfId& intfId);
    void deleteRoutedPortPdMapping(const Zamu::IntfId& intfId);
    void deleteVlanPdMapping(Bridging::VlanId vlanId);
    void deleteSubIntfPdMapping(const Zamu::IntfId& subIntfId);

    // Frees the key's index and its pool's 2nd-level entries once no place of the pool uses
    // the key any more.
    void maybeDeleteHwAclIndexMappings(const HwAclIndexKey& hwAclIndexKey,
                                       HwAclIndexAllocatorType type);
    void addChipRuleListKeyToIdMapping(Mirel::HwAclIndex hwAclIndex, const Mirel::AclId& aclId,
                                       Mirel::ProtocolType protocolType);
    // One allocator per pool over [0, hwAclIndexMax], the chip's reserved index taken.
    void instantiateHwAclIndexAllocators();

    void handleInitialized() override;
    void handleDelete() override;
    // A new active root of this chip: everything is computed again from scratch.
    void handleActiveRootSmId(Mirel::ChipId chipId);

  private:
    struct IntfFamily;
    struct RoutedPortFamily;
    struct VlanFamily;
    struct SubIntfFamily;
    struct KeyIds;
    class PlaceAcls;
    template <class F>
    class PlaceWatcher;
    using IntfPolicyField = Vorn::EntityMapField<Zamu::IntfId, IntfAclKeySet, Vorn::Ordered>;
    using VlanPolicyField = Vorn::EntityMapField<Bridging::VlanId, VlanAclKeySet, Vorn::Ordered>;
    template <class Field, class F>
    using PolicyWatchers = Vorn::EntryWatchers<Field, PlaceWatcher<F>>;

    // `entry`: the place's entry in the policy status, null when it has none.
    template <class F>
    void lookUpAndProcess(const typename F::Place& place);
    template <class F>
    void process(const typename F::Place& place, const typename F::PolicyEntry* entry);
    // The active root's ACLs when the place is to be reviewed (the family's gate), else null.
    // `acls` gets the entry's ACLs looked up in them (the gate's verdict rests on those), for
    // the internal mapping to use without looking them up again.
    template <class F>
    const ActiveAcls* gate(const typename F::Place& place, const typename F::PolicyEntry* entry,
                           PlaceAcls& acls) const;
    // Fills keyIds (when given) with the key of the new internal entry; false when the place
    // has none. `acls`: the entry's ACLs looked up in the active root's.
    template <class F>
    bool updateInternalMapping(const typename F::Place& place, const typename F::PolicyEntry* entry,
                               const PlaceAcls& acls, KeyIds* keyIds = nullptr);
    // updateInternalMapping for the place's current policy entry.
    template <class F>
    void updateInternalMappingOf(const typename F::Place& place);
    template <class F>
    // `tableType`: the ACL's, as tableTypeOf gives it.
    static void addToKey(KeyIds& keyIds, const Ovin::AclKey& acl, const ActiveAcl& active,
                         Mirel::TableType tableType);
    // The active root's ACLs. REQUIRES: an active root with a configuration.
    const ActiveAcls& activeAcls() const;
    // The same for the active root `rootId`; its table is kept while its configuration stays.
    // A root id without a configuration stops the process ("activeRootConfig").
    const ActiveAcls& activeAclsOf(uint32_t rootId) const;
    // The active root's ACLs when the chip has an active root holding ACLs; null (traced) when
    // it has no active root or one without ACLs. The common gate of all families.
    const ActiveAcls* mappedRootAcls() const;
    template <class F>
    KeyIds hwAclIndexKeyIds(const typename F::Place& place) const;
    template <class F>
    HwAclIndexKey hwAclIndexKey(const typename F::Place& place) const;
    // `reused` (when given) is set when the key had its index already.
    template <class F>
    std::optional<Mirel::HwAclIndex> hwAclIndex(const typename F::Place& place,
                                                const HwAclIndexKey& key, bool* reused = nullptr);
    // `known`: the key of the place's internal entry, when the caller has it already.
    template <class F>
    void maybeUpdatePdMapping(const typename F::Place& place, const KeyIds* known = nullptr);
    template <class F>
    void deletePdMapping(const typename F::Place& place);
    // The entries of the key's ACLs (one per kind and direction) under the index; `present`:
    // the index was reused and has them already.
    void addSecondLevelMappings(Mirel::HwAclIndex hwAclIndex, const KeyIds& keyIds, bool present);
    template <class F>
    void reviewWaiting();
    template <class F>
    void processAll();
    template <class Field, class F>
    std::unique_ptr<PolicyWatchers<Field, F>> watchPolicy();

    // Runs `fn` as one top-level operation: once the outermost one ends, the places waiting
    // for an index of a pool that released one are reviewed.
    template <class Fn>
    void operation(Fn&& fn);
    void reviewWaitingPlaces();
    // Empties all state, renews the allocators and the data-flow tables, processes every
    // place of the policy status (or keeps the mapping, decision f).
    void rebuild();
    // Decision f: false, with nothing changed but the allocators, when it does not apply.
    bool keepMapping(const ActiveAcls& active);
    struct Renumbering;
    // Gives each key of the family's places, in their order, its number from the fresh
    // allocator and files the entries of its 2nd level; false when the pool runs out.
    template <class F>
    bool renumberPlaces(Renumbering& r);
    template <class F>
    void writeRenumbered(const Renumbering& r);
    // Calls fn(2nd-level key, id) for each entry of the key's ACLs under the index.
    template <class Fn>
    static void forEachSecondLevel(Mirel::HwAclIndex hwAclIndex, const KeyIds& keyIds, Fn&& fn);

    const Mirel::ChipId chipId_;
    const Vorn::Ptr<GlueStatus> glueStatus_;
    const Vorn::Ptr<AclPolicyStatus> aclPolicyStatus_;
    const Vorn::Ptr<Mirel::ChipHwCapability> chipHwCapability_;
    const Vorn::Ptr<Mirel::ChipDataFlowConfig> chipDataFlowConfig_;
    int operationDepth_ = 0;
    std::array<bool, kHwAclIndexAllocatorTypeCount> released_{};
    // Declared after the references they use, so they go first.
    std::unique_ptr<PolicyWatchers<IntfPolicyField, IntfFamily>> policyIntfAcl_;
    std::unique_ptr<PolicyWatchers<IntfPolicyField, RoutedPortFamily>> policyRoutedPortAcl_;
    std::unique_ptr<PolicyWatchers<VlanPolicyField, VlanFamily>> policyVlanAcl_;
    std::unique_ptr<PolicyWatchers<IntfPolicyField, SubIntfFamily>> policySubIntfAcl_;
    Vorn::Subscription activeRootSmIdSub_;
    mutable std::unique_ptr<ActiveAcls> activeAcls_;
    // ActiveAcls tables are numbered as they are made (from 1); the mapping was last rebuilt
    // on table mappedGeneration_ (0: on none).
    mutable uint64_t lastGeneration_ = 0;
    uint64_t mappedGeneration_ = 0;
};

// One MappingSm per chip; deleting an entry stops its machine first.
class MappingSmColl : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::MappingSmColl")
  public:
    explicit MappingSmColl(const Vorn::Name& name = "mappingSmColl") : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    VORN_MACHINE_MAP(Mirel::ChipId, MappingSm, sm)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<MappingSm> mappingSmFactory(
    Mirel::ChipId chipId, const Vorn::Ptr<GlueStatus>& glueStatus,
    const Vorn::Ptr<AclPolicyStatus>& aclPolicyStatus,
    const Vorn::Ptr<Mirel::ChipHwCapability>& chipHwCapability,
    const Vorn::Ptr<Mirel::ChipDataFlowConfig>& chipDataFlowConfig);
Vorn::Ptr<MappingSmColl> mappingSmCollFactory(const Vorn::Name& name = "mappingSmColl");

}  // namespace OvinMirel
