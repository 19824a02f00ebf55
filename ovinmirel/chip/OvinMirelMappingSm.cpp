#include "ovinmirel/chip/OvinMirelMappingSm.h"

#include <algorithm>
#include <array>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "ovinmirel/chip/OvinMirelMappingFamilies.h"
#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelMappingSm");

// Assertion messages (and trace levels) that the families share.
constexpr int kFast = 0;  // the line an assertion is about to stop on
constexpr const char* kAllocIsMember[kHwAclIndexAllocatorTypeCount] = {
    "allocIter.isMemberOf( hwAclIndexAllocPaclMacl_ )",
    "allocIter.isMemberOf( hwAclIndexAllocRacl_ )",
};

constexpr Mirel::TableType kPortTables[] = {Mirel::ipv4PortAcl_, Mirel::ipv6PortAcl_,
                                            Mirel::macAcl_};
constexpr Mirel::TableType kRouterTables[] = {Mirel::ipv4RouterAcl_, Mirel::ipv6RouterAcl_};
// The 2nd-level entries one index can have: a table type, a direction and a protocol class
// each.
constexpr size_t kMaxEntriesPerIndex = 5 * 2 * 3;

// The table types whose ACLs a pool's keys hold, and whose 2nd-level entries it owns.
std::span<const Mirel::TableType> poolTables(HwAclIndexAllocatorType pool) {
    if (pool == hwAclIndexAllocRacl_)
        return kRouterTables;
    return kPortTables;
}

bool isRouterTable(Mirel::TableType t) {
    return t == Mirel::ipv4RouterAcl_ || t == Mirel::ipv6RouterAcl_;
}

// The table type of an ACL the active root holds; an id set with no usable table type is a
// broken root and stops the process.
Mirel::TableType tableTypeOf(const Ovin::AclKey& acl, const Mirel::AclIdTypeSet& ids) {
    const Mirel::TableType tableType = ids.tableType();
    if (tableType == Mirel::invalid_)
        VORN_ASSERT(!"Invalid tableType");
    if (tableType > Mirel::macAcl_) {
        FLINQ(th, kFast, "Unexpected acl " << acl);
        VORN_ASSERT(false);
    }
    return tableType;
}

// "( HwAclIndexKey =  v4PAclIn=..., v6PAclIn=..., ..., macAclOut=... )"
std::string keyFields(const HwAclIndexKey& key) {
    std::ostringstream os;
    os << "( HwAclIndexKey = ";
    for (int i = 0; i < HwAclIndexKey::kFieldCount; ++i) {
        const auto f = HwAclIndexKey::Field(i);
        os << (i == 0 ? " " : ", ") << HwAclIndexKey::fieldName(f) << "=" << key.field(f);
    }
    os << " )";
    return os.str();
}

}  // namespace

// One per place of a policy collection: a change of the place's ACL set reviews the place.
template <class F>
class MappingSm::PlaceWatcher {
  public:
    template <class Entry>
    PlaceWatcher(MappingSm* sm, const typename F::Place& place, const Vorn::Ptr<Entry>& entry)
        : sub_(entry->aclKeyNotify([sm, place](const Ovin::AclKey&) {
              sm->operation([&] { sm->lookUpAndProcess<F>(place); });
          })) {}

  private:
    Vorn::Subscription sub_;
};

MappingSm::MappingSm(Mirel::ChipId chipId, const Vorn::Ptr<GlueStatus>& glueStatus,
                     const Vorn::Ptr<AclPolicyStatus>& aclPolicyStatus,
                     const Vorn::Ptr<Mirel::ChipHwCapability>& chipHwCapability,
                     const Vorn::Ptr<Mirel::ChipDataFlowConfig>& chipDataFlowConfig)
    : Vorn::StateMachine(th),
      chipId_(chipId),
      glueStatus_(required(glueStatus, "glueStatus")),
      aclPolicyStatus_(required(aclPolicyStatus, "aclPolicyStatus")),
      chipHwCapability_(required(chipHwCapability, "chipHwCapability")),
      chipDataFlowConfig_(required(chipDataFlowConfig, "chipDataFlowConfig")) {}

void MappingSm::reinstantiate(
    const Vorn::Ptr<GlueStatus>& glueStatus, const Vorn::Ptr<AclPolicyStatus>& aclPolicyStatus,
    const Vorn::Ptr<Mirel::ChipHwCapability>& chipHwCapability,
    const Vorn::Ptr<Mirel::ChipDataFlowConfig>& chipDataFlowConfig) const {
    requireSameReference("glueStatus", glueStatus_, glueStatus);
    requireSameReference("aclPolicyStatus", aclPolicyStatus_, aclPolicyStatus);
    requireSameReference("chipHwCapability", chipHwCapability_, chipHwCapability);
    requireSameReference("chipDataFlowConfig", chipDataFlowConfig_, chipDataFlowConfig);
}

Vorn::Ptr<Mirel::RootConfig> MappingSm::activeRootConfig() const {
    const uint32_t* rootId = glueStatus_->activeRootSmId(chipId_);
    return rootId ? glueStatus_->rootConfigColl()->rootConfig(*rootId) : nullptr;
}

// A place's ACLs, each with what the active root holds of it (null: nothing), in the policy
// entry's order, which is key order. A review looks them up once, for its gate and its
// internal mapping alike; a place holds a handful, kept in place so that a review allocates
// nothing for them.
class MappingSm::PlaceAcls {
  public:
    struct Item {
        const Ovin::AclKey* acl;
        const ActiveAcl* active;
    };

    // `entry` may be null (the place has no policy entry).
    template <class Entry>
    void lookUp(const Entry* entry, const ActiveAcls& activeAcls) {
        count_ = 0;
        more_.clear();
        if (!entry)
            return;
        for (const Ovin::AclKey& acl : entry->aclKey()) {
            const Item item{&acl, activeAcls.find(acl)};
            if (count_ < kInPlace)
                inPlace_[count_++] = item;
            else
                more_.push_back(item);
        }
    }
    template <class Fn>
    void forEach(Fn&& fn) const {
        for (size_t i = 0; i < count_; ++i)
            fn(inPlace_[i]);
        for (const Item& item : more_)
            fn(item);
    }
    // Whether the active root holds any of them.
    bool anyActive() const {
        bool any = false;
        forEach([&](const Item& item) { any = any || item.active; });
        return any;
    }

  private:
    static constexpr size_t kInPlace = 4;
    size_t count_ = 0;
    std::array<Item, kInPlace> inPlace_{};
    std::vector<Item> more_;
};

// A key with the id sets of its ACLs, field by field (null where a field is unused), so that
// the 2nd-level entries need not look the ACLs up again.
struct MappingSm::KeyIds {
    HwAclIndexKey key;
    std::array<const Mirel::AclIdTypeSet*, HwAclIndexKey::kFieldCount> ids{};
};

MappingSm::~MappingSm() = default;

const ActiveAcls& MappingSm::activeAcls() const {
    const uint32_t* rootId = glueStatus_->activeRootSmId(chipId_);
    VORN_ASSERT_MSG(rootId, "activeRootConfig");
    return activeAclsOf(*rootId);
}

const ActiveAcls& MappingSm::activeAclsOf(uint32_t rootId) const {
    if (activeAcls_ && rootId == activeAcls_->root()->rootConfigId() && !activeAcls_->stale())
        return *activeAcls_;
    const Vorn::Ptr<Mirel::RootConfig> activeRootConfig =
        glueStatus_->rootConfigColl()->rootConfig(rootId);
    if (!activeRootConfig) {
        FLINQ(th, kFast, "rootId " << rootId << " missing root config");
        VORN_ASSERT(activeRootConfig);
    }
    activeAcls_ = std::make_unique<ActiveAcls>(*glueStatus_->rootConfigColl(), activeRootConfig,
                                               activeAcls_.get(), ++lastGeneration_);
    return *activeAcls_;
}

// ---- gates ----

const ActiveAcls* MappingSm::mappedRootAcls() const {
    const uint32_t* rootId = glueStatus_->activeRootSmId(chipId_);
    if (!rootId) {
        FLINQ(th, 8, "    no active root");
        return nullptr;
    }
    const ActiveAcls& active = activeAclsOf(*rootId);
    if (active.root()->aclKeyToAclIdTypeSet().empty()) {
        FLINQ(th, 8, "    no active acls");
        return nullptr;
    }
    return &active;
}

bool MappingSm::shouldUpdateInternalMapping() const {
    return mappedRootAcls() != nullptr;
}

template <class F>
const ActiveAcls* MappingSm::gate(const typename F::Place& place,
                                  const typename F::PolicyEntry* entry, PlaceAcls& acls) const {
    const ActiveAcls* active = mappedRootAcls();
    if (!active)
        return nullptr;
    acls.lookUp(entry, *active);
    if constexpr (std::is_same_v<F, VlanFamily> || std::is_same_v<F, SubIntfFamily>) {
        // An ACL of the place that the active root holds, or something to remove.
        if (acls.anyActive())
            return active;
        if (F::internal(*this).contains(place) || F::placeToKey(*this).contains(place) ||
            F::waiting(*this).contains(place)) {
            return active;
        }
        FLINQ(th, 8, "    no racls on " << F::kWord << " in active config, ignore");
        return nullptr;
    }
    return active;
}

bool MappingSm::shouldUpdateInternalVlanMapping(Bridging::VlanId vlanId) const {
    PlaceAcls acls;
    return gate<VlanFamily>(vlanId, aclPolicyStatus_->vlanAclMapping(vlanId).ptr(), acls) !=
           nullptr;
}

bool MappingSm::shouldUpdateInternalSubIntfMapping(const Zamu::IntfId& subIntfId) const {
    PlaceAcls acls;
    return gate<SubIntfFamily>(subIntfId, aclPolicyStatus_->subIntfAclMapping(subIntfId).ptr(),
                               acls) != nullptr;
}

// ---- one place ----

template <class Fn>
void MappingSm::operation(Fn&& fn) {
    ++operationDepth_;
    fn();
    if (--operationDepth_ == 0)
        reviewWaitingPlaces();
}

template <class F>
void MappingSm::lookUpAndProcess(const typename F::Place& place) {
    const auto entry = F::policy(*aclPolicyStatus_).find(place);
    process<F>(place, entry.ptr());
}

template <class F>
void MappingSm::process(const typename F::Place& place, const typename F::PolicyEntry* entry) {
    VORN_ASSERT(initialized());
    FLINQ(th, 8, "Chip-" << chipId_ << " " << F::kProcess << place);
    if constexpr (std::is_same_v<F, SubIntfFamily>) {
        VORN_ASSERT_MSG(Zamu::SubIntfId::isSubIntfId(place),
                        "Zamu::SubIntfId::isSubIntfId( subIntfId )");
    }
    PlaceAcls acls;
    if (!gate<F>(place, entry, acls))
        return;
    // The key is worked out on the way, from the ACLs the gate looked up.
    KeyIds keyIds;
    const bool mapped = updateInternalMapping<F>(place, entry, acls, &keyIds);
    maybeUpdatePdMapping<F>(place, mapped ? &keyIds : nullptr);
}

template <class F>
bool MappingSm::updateInternalMapping(const typename F::Place& place,
                                      const typename F::PolicyEntry* entry,
                                      const PlaceAcls& placeAcls, KeyIds* keyIds) {
    VORN_ASSERT(initialized());
    // The old entry goes; a new one replaces it in the same write, below.
    FLINQ(th, 8, "    remove " << place << " from internal " << F::kWord << " mapping");
    if (!entry) {
        F::internal(*this).del(place);
        return false;
    }
    FLINQ(th, 8, "    populate internal " << F::kWord << " acl mapping");
    AclKeySet acls;
    placeAcls.forEach([&](const PlaceAcls::Item& item) {
        const Ovin::AclKey& acl = *item.acl;
        if (!item.active) {
            FLINQ(th, 8, "      excluding " << acl);
            return;
        }
        const Mirel::TableType tableType = tableTypeOf(acl, *item.active->ids);
        FLINQ(th, 8, "      adding " << acl);
        acls.insert(item.active->acl);
        if (keyIds)
            addToKey<F>(*keyIds, acl, *item.active, tableType);
    });
    if (acls.empty()) {
        FLINQ(th, 8, "    no active acls found");
        F::internal(*this).del(place);
        return false;
    }
    F::internal(*this).is(place, std::move(acls));
    return true;
}

template <class F>
void MappingSm::addToKey(KeyIds& keyIds, const Ovin::AclKey& acl, const ActiveAcl& active,
                         Mirel::TableType tableType) {
    if (isRouterTable(tableType) != (F::kPool == hwAclIndexAllocRacl_))
        return;  // another family's kind
    const int field = HwAclIndexKey::fieldOf(tableType, acl.direction);
    if (field == HwAclIndexKey::kFieldCount) {
        FLINQ(th, kFast, "Unexpected acl " << acl);
        VORN_ASSERT(false);
    }
    // A later ACL of the same kind and direction overwrites an earlier one.
    keyIds.key.fieldIs(HwAclIndexKey::Field(field), active.acl);
    keyIds.ids[field] = active.ids;
}

template <class F>
MappingSm::KeyIds MappingSm::hwAclIndexKeyIds(const typename F::Place& place) const {
    VORN_ASSERT(initialized());
    const AclKeySet* acls = F::internal(*this).find(place);
    VORN_ASSERT_MSG(acls, F::kInternalHas);
    const ActiveAcls& active = activeAcls();
    KeyIds out;
    for (const Ovin::AclKey& acl : *acls) {
        const ActiveAcl* found = active.find(acl);
        if (!found) {
            FLINQ(th, kFast, "Unexpected acl " << acl);
            VORN_ASSERT(false);
        }
        addToKey<F>(out, acl, *found, tableTypeOf(acl, *found->ids));
    }
    FLINQ(th, 8, keyFields(out.key));
    return out;
}

template <class F>
HwAclIndexKey MappingSm::hwAclIndexKey(const typename F::Place& place) const {
    return hwAclIndexKeyIds<F>(place).key;
}

template <class F>
std::optional<Mirel::HwAclIndex> MappingSm::hwAclIndex(const typename F::Place& place,
                                                       const HwAclIndexKey& key, bool* reused) {
    VORN_ASSERT(initialized());
    if (!key)
        return std::nullopt;
    // A place of this family with the key already: its set's copy of the key is the one every
    // place of the key shares (and compares cheaply with the index map's).
    auto set = F::keyToSet(*this).find(key);
    Mirel::HwAclIndex index;
    if (const Mirel::HwAclIndex* held = keyToHwAclIndex(set ? set->key() : key)) {
        index = *held;
        if (reused)
            *reused = true;
        FLINQ(th, 8, "      reusing hw acl index " << index);
    } else {
        FLINQ(th, 8, "      allocate a new hw acl index for " << key);
        if (set) {
            FLINQ(th, kFast, "Unexpected key to " << F::kWord << " set mapping for " << key);
            VORN_ASSERT_MSG(false, F::kNoSetHas);
        }
        const Vorn::Ptr<HwAclIndexAllocator> alloc = hwAclIndexAllocator(F::kPool);
        VORN_ASSERT_MSG(alloc && alloc->numAllocator(), kAllocIsMember[F::kPool]);
        const std::optional<uint32_t> number = alloc->numAllocator()->getNumber();
        if (!number) {
            // Mapped on a later review, once a number of the pool is free again.
            FLINQ(th, 8, "      range exhausted, cannot allocate hw acl index");
            F::waiting(*this).is(place);
            return std::nullopt;
        }
        FLINQ(th, 8, "        hw acl index " << *number);
        index = Mirel::HwAclIndex(*number);
        keyToHwAclIndexIs(key, index);
    }
    if (!set)
        set = F::keyToSet(*this).is(key);
    F::memberIs(*set, place);
    F::placeToKey(*this).is(place, set->key());
    FLINQ(
        th, 8,
        "      associating " << F::kWord << " " << place << " with " << key << ", index " << index);
    return index;
}

template <class F>
void MappingSm::maybeUpdatePdMapping(const typename F::Place& place, const KeyIds* known) {
    VORN_ASSERT(initialized());
    F::waiting(*this).del(place);  // decided again below
    // A caller that knows the key has just filed the place's internal entry.
    if (!known && !F::internal(*this).contains(place)) {
        FLINQ(th, 8, "    " << F::kWord << " " << place << " removed, delete pd mapping");
        deletePdMapping<F>(place);
        return;
    }
    std::optional<KeyIds> computed;
    if (known)
        FLINQ(th, 8, keyFields(known->key));
    else
        computed = hwAclIndexKeyIds<F>(place);
    const KeyIds& keyIds = known ? *known : *computed;
    const HwAclIndexKey& key = keyIds.key;
    FLINQ(th, 8, "    hw acl index key " << key);
    if (const HwAclIndexKey* old = F::placeToKey(*this).find(place)) {
        if (*old == key) {
            FLINQ(th, 8, "      no change in hw acl index key, ignore update");
            return;
        }
        FLINQ(th, 8, "      updating key " << *old << " -> " << key);
        deletePdMapping<F>(place);
    } else {
        FLINQ(th, 8, "      no existing pd mappings associated with this key");
    }
    if (!key) {
        FLINQ(th, 8, "      empty hw acl index key, no pd mapping");
        return;
    }
    FLINQ(th, 8, "    create new pd mapping for " << F::kWord << " " << place);
    bool reused = false;
    const std::optional<Mirel::HwAclIndex> index = hwAclIndex<F>(place, key, &reused);
    if (!index)
        return;
    FLINQ(th, 8,
          "      add 1st-level mapping for " << F::kWord << " " << place << ", hw acl index "
                                             << *index);
    F::firstLevelIs(*chipDataFlowConfig_, place, *index);
    addSecondLevelMappings(*index, keyIds, reused);
}

void MappingSm::addSecondLevelMappings(Mirel::HwAclIndex hwAclIndex, const KeyIds& keyIds,
                                       bool present) {
    // A reused index has these entries already (they go only with the index), so writing them
    // again would change nothing: they are only traced, and not even walked unless traced.
    if (present && !th.enabled(8))
        return;
    forEachSecondLevel(hwAclIndex, keyIds,
                       [&](const Mirel::ChipRuleListIdKey& k, const Mirel::AclId& aclId) {
                           if (!present) {
                               addChipRuleListKeyToIdMapping(hwAclIndex, aclId, k.protocolType());
                               return;
                           }
                           FLINQ(th, 8,
                                 "      add 2nd-level intf mapping for chip-rulelist-id key "
                                     << k << ", id " << aclId);
                       });
}

template <class Fn>
void MappingSm::forEachSecondLevel(Mirel::HwAclIndex hwAclIndex, const KeyIds& keyIds, Fn&& fn) {
    for (const Mirel::AclIdTypeSet* ids : keyIds.ids) {
        if (!ids)
            continue;
        for (const auto& [protocolType, aclId] : ids->aclIdType()) {
            fn(Mirel::ChipRuleListIdKey(hwAclIndex, aclId.tableType(), protocolType,
                                        aclId.direction()),
               aclId);
        }
    }
}

template <class F>
void MappingSm::deletePdMapping(const typename F::Place& place) {
    VORN_ASSERT(initialized());
    FLINQ(th, 8, "      delete pd mappings for " << F::kDeleteWord << " " << place);
    F::waiting(*this).del(place);
    const HwAclIndexKey* held = F::placeToKey(*this).find(place);
    if (!held) {
        FLINQ(th, 8, "      no pd mappings were created for " << place << ", ignore");
        return;
    }
    const HwAclIndexKey hwAclIndexKey = *held;
    const Mirel::HwAclIndex* index = keyToHwAclIndex(hwAclIndexKey);
    if (!index) {
        FLINQ(th, kFast, "Missing keyTohwAclIndex mapping for " << hwAclIndexKey);
        VORN_ASSERT_MSG(false, "keyToHwAclIndexHas( hwAclIndexKey )");
    }
    const Mirel::HwAclIndex hwAclIndex = *index;
    const auto set = F::keyToSet(*this).find(hwAclIndexKey);
    if (!set) {
        FLINQ(th, kFast, "Missing " << F::kSetName << " mapping for " << hwAclIndexKey);
        VORN_ASSERT_MSG(false, F::kSetHas);
    }
    F::placeToKey(*this).del(place);
    F::firstLevelDel(*chipDataFlowConfig_, place);
    FLINQ(th, 8,
          "      delete 1st-level mapping for " << F::kDeleteWord << " " << place
                                                << ", hw acl index " << hwAclIndex);
    if (!F::member(*set, place)) {
        FLINQ(th, kFast,
              hwAclIndexKey << " already associated with " << place << " but missing " << F::kWord
                            << " to key mapping");
        VORN_ASSERT_MSG(false, F::kMemberHas);
    }
    F::memberDel(*set, place);
    if (F::members(*set) == 0) {
        FLINQ(th, 8,
              "      no other " << F::kPlural << " associated with " << hwAclIndexKey
                                << ", release hw acl index " << hwAclIndex);
        F::keyToSet(*this).del(hwAclIndexKey);
        maybeDeleteHwAclIndexMappings(hwAclIndexKey, F::kPool);
    }
}

// ---- indexes ----

void MappingSm::maybeDeleteHwAclIndexMappings(const HwAclIndexKey& hwAclIndexKey,
                                              HwAclIndexAllocatorType type) {
    VORN_ASSERT(initialized());
    const Mirel::HwAclIndex* index = keyToHwAclIndex(hwAclIndexKey);
    VORN_ASSERT_MSG(index, "keyToHwAclIndexHas( hwAclIndexKey )");
    if (type == hwAclIndexAllocRacl_) {
        // Routed ports, VLANs and sub-interfaces with the same router ACLs share the index.
        if (keyToRoutedPortSet().contains(hwAclIndexKey) ||
            keyToVlanSet().contains(hwAclIndexKey) || keyToSubIntfSet().contains(hwAclIndexKey)) {
            return;
        }
    } else if (type != hwAclIndexAllocPaclMacl_) {
        return;
    }
    const Mirel::HwAclIndex hwAclIndex = *index;
    keyToHwAclIndexDel(hwAclIndexKey);
    const Vorn::Ptr<HwAclIndexAllocator> alloc = hwAclIndexAllocator(type);
    VORN_ASSERT_MSG(alloc && alloc->numAllocator(), "allocIter.isMemberOf( type )");
    VORN_ASSERT(alloc->numAllocator()->isAllocated(hwAclIndex.value()));
    alloc->numAllocator()->releaseNumber(hwAclIndex.value());
    released_[type] = true;
    FLINQ(th, 8,
          "      deleting all 2nd-level mapping with hw acl index " << hwAclIndex << " from pool "
                                                                    << type);
    // The index's entries are adjacent in key order, which starts with the index. Only this
    // pool's table types go: the other pool may use the same number.
    const std::span<const Mirel::TableType> tables = poolTables(type);
    std::array<Mirel::ChipRuleListIdKey, kMaxEntriesPerIndex> doomed;
    size_t n = 0;
    const auto& entries = chipDataFlowConfig_->chipRuleListKeyToId();
    for (auto it = entries.lowerBound(Mirel::ChipRuleListIdKey(hwAclIndex, Mirel::TableType(0),
                                                               Mirel::ProtocolType(0),
                                                               Acl::aclDirectionIn));
         it != entries.end() && it->first.hwAclIndex() == hwAclIndex; ++it) {
        const Mirel::ChipRuleListIdKey& k = it->first;
        if (std::find(tables.begin(), tables.end(), k.tableType()) == tables.end())
            continue;
        FLINQ(th, 8,
              "        delete 2nd-level mapping for hw acl index "
                  << hwAclIndex << " of type " << k.tableType() << " chip-rulelist-id key " << k
                  << ", id " << it->second);
        VORN_ASSERT(n < doomed.size());
        doomed[n++] = k;
    }
    // Deleted after the walk: each deletion notifies the loader, which must not see the
    // collection under a live iterator.
    for (size_t i = 0; i < n; ++i)
        chipDataFlowConfig_->chipRuleListKeyToIdDel(doomed[i]);
}

void MappingSm::addChipRuleListKeyToIdMapping(Mirel::HwAclIndex hwAclIndex,
                                              const Mirel::AclId& aclId,
                                              Mirel::ProtocolType protocolType) {
    VORN_ASSERT(initialized());
    const Mirel::ChipRuleListIdKey k(hwAclIndex, aclId.tableType(), protocolType,
                                     aclId.direction());
    chipDataFlowConfig_->chipRuleListKeyToIdIs(k, aclId);
    FLINQ(th, 8,
          "      add 2nd-level intf mapping for chip-rulelist-id key " << k << ", id " << aclId);
}

void MappingSm::instantiateHwAclIndexAllocators() {
    VORN_ASSERT(initialized());
    for (int t = 0; t < kHwAclIndexAllocatorTypeCount; ++t) {
        const auto type = HwAclIndexAllocatorType(t);
        const Vorn::Ptr<HwAclIndexAllocator> alloc = hwAclIndexAllocatorIs(type);
        const uint32_t hwAclIndexMax = chipHwCapability_->hwAclIndexMax();
        VORN_ASSERT(65535 >= hwAclIndexMax);
        alloc->configIs(Brix::Range(0, hwAclIndexMax));
        alloc->statusIs();
        const uint32_t reserved = chipHwCapability_->hwAclIndexReserved();
        alloc->numAllocatorIs()->reserveNumber(reserved);
        FLINQ(th, 8,
              "    instantiated allocator " << type << ": max: " << hwAclIndexMax
                                            << " reservedNumber: " << reserved);
    }
}

// ---- waiting places ----

template <class F>
void MappingSm::reviewWaiting() {
    Brix::NumAllocator* numbers = hwAclIndexAllocator(F::kPool)->numAllocator();
    for (const typename F::Place& place : F::waiting(*this).keys()) {
        if (!F::waiting(*this).contains(place))
            continue;
        // A place gets an index if its key has one by now, or a number is free.
        if (F::internal(*this).contains(place) && numbers->freeCount() == 0 &&
            !keyToHwAclIndex(hwAclIndexKey<F>(place))) {
            continue;
        }
        maybeUpdatePdMapping<F>(place);
    }
}

void MappingSm::reviewWaitingPlaces() {
    ++operationDepth_;
    if (std::exchange(released_[hwAclIndexAllocPaclMacl_], false))
        reviewWaiting<IntfFamily>();
    if (std::exchange(released_[hwAclIndexAllocRacl_], false)) {
        reviewWaiting<RoutedPortFamily>();
        reviewWaiting<VlanFamily>();
        reviewWaiting<SubIntfFamily>();
    }
    --operationDepth_;
}

// ---- life cycle ----

template <class F>
void MappingSm::processAll() {
    // A review never writes the policy status, so its collection can be walked as it is.
    for (const auto& [place, entry] : F::policy(*aclPolicyStatus_))
        process<F>(place, entry.ptr());
}

// What keepMapping works out before it writes: per pool, the new number of each old one.
struct MappingSm::Renumbering {
    static constexpr uint32_t kNone = UINT32_MAX;
    std::array<std::vector<uint32_t>, kHwAclIndexAllocatorTypeCount> to;
    std::array<bool, kHwAclIndexAllocatorTypeCount> moved{};
    // The 2nd-level entries of every key under its new number.
    std::vector<std::pair<Mirel::ChipRuleListIdKey, Mirel::AclId>> secondLevel;

    uint32_t& of(HwAclIndexAllocatorType pool, uint32_t old) {
        std::vector<uint32_t>& numbers = to[pool];
        if (old >= numbers.size())
            numbers.resize(old + 1, kNone);
        return numbers[old];
    }
    uint32_t newIndex(HwAclIndexAllocatorType pool, Mirel::HwAclIndex old) const {
        const uint32_t n = to[pool][old.value()];
        VORN_ASSERT(n != kNone);  // every key has a place, which the walk reached
        return n;
    }
};

template <class F>
bool MappingSm::renumberPlaces(Renumbering& r) {
    Brix::NumAllocator* numbers = hwAclIndexAllocator(F::kPool)->numAllocator();
    // The places of a family in the policy status's order, as processAll takes them; only
    // those with an index are here (none waits).
    for (const auto& [place, index] : F::firstLevel(*chipDataFlowConfig_)) {
        uint32_t& to = r.of(F::kPool, index.value());
        if (to != Renumbering::kNone)
            continue;
        const std::optional<uint32_t> number = numbers->getNumber();
        if (!number)
            return false;
        to = *number;
        r.moved[F::kPool] = r.moved[F::kPool] || to != index.value();
        forEachSecondLevel(Mirel::HwAclIndex(to), hwAclIndexKeyIds<F>(place),
                           [&](const Mirel::ChipRuleListIdKey& k, const Mirel::AclId& aclId) {
                               r.secondLevel.emplace_back(k, aclId);
                           });
    }
    return true;
}

template <class F>
void MappingSm::writeRenumbered(const Renumbering& r) {
    if (!r.moved[F::kPool])
        return;
    // Values only change: the walk stays valid.
    for (const auto& [place, index] : F::firstLevel(*chipDataFlowConfig_))
        F::firstLevelIs(*chipDataFlowConfig_, place,
                        Mirel::HwAclIndex(r.newIndex(F::kPool, index)));
}

bool MappingSm::keepMapping(const ActiveAcls& active) {
    if (th.enabled(8) || !active.holdsAclsOf(mappedGeneration_) ||
        active.root()->aclKeyToAclIdTypeSet().empty()) {
        return false;
    }
    if (!intfWaitingForHwAclIndex().empty() || !routedPortWaitingForHwAclIndex().empty() ||
        !vlanWaitingForHwAclIndex().empty() || !subIntfWaitingForHwAclIndex().empty()) {
        return false;
    }
    hwAclIndexAllocatorDelAll();
    instantiateHwAclIndexAllocators();
    Renumbering r;
    if (!renumberPlaces<IntfFamily>(r) || !renumberPlaces<RoutedPortFamily>(r) ||
        !renumberPlaces<VlanFamily>(r) || !renumberPlaces<SubIntfFamily>(r)) {
        return false;  // a smaller range now: the rebuild decides who waits
    }
    released_ = {};
    if (r.moved[hwAclIndexAllocPaclMacl_] || r.moved[hwAclIndexAllocRacl_]) {
        // Hashed, but each key's number is written on its own: the order of the walk never
        // shows.
        std::vector<std::pair<HwAclIndexKey, Mirel::HwAclIndex>> renumbered;
        for (const auto& [key, index] : keyToHwAclIndex()) {
            const auto pool =
                keyToIntfSet().contains(key) ? hwAclIndexAllocPaclMacl_ : hwAclIndexAllocRacl_;
            renumbered.emplace_back(key, Mirel::HwAclIndex(r.newIndex(pool, index)));
        }
        for (const auto& [key, index] : renumbered)
            keyToHwAclIndexIs(key, index);
    }
    // New 2nd-level entries first, so that no place points at an index without them.
    std::sort(r.secondLevel.begin(), r.secondLevel.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [k, aclId] : r.secondLevel)
        chipDataFlowConfig_->chipRuleListKeyToIdIs(k, aclId);
    writeRenumbered<IntfFamily>(r);
    writeRenumbered<RoutedPortFamily>(r);
    writeRenumbered<VlanFamily>(r);
    writeRenumbered<SubIntfFamily>(r);
    // Then the entries no key holds any more.
    std::vector<Mirel::ChipRuleListIdKey> gone;
    auto wanted = r.secondLevel.begin();
    for (const auto& [k, aclId] : chipDataFlowConfig_->chipRuleListKeyToId()) {
        while (wanted != r.secondLevel.end() && wanted->first < k)
            ++wanted;
        if (wanted == r.secondLevel.end() || k < wanted->first)
            gone.push_back(k);
    }
    for (const Mirel::ChipRuleListIdKey& k : gone)
        chipDataFlowConfig_->chipRuleListKeyToIdDel(k);
    return true;
}

void MappingSm::rebuild() {
    // The active root's ACLs are gathered first, before the old state goes.
    const ActiveAcls* active = activeRootConfig() ? &activeAcls() : nullptr;
    if (active && keepMapping(*active)) {
        mappedGeneration_ = active->generation();
        return;
    }
    intfAclMappingDelAll();
    routedPortSharedAclMappingDelAll();
    vlanAclMappingDelAll();
    subIntfAclMappingDelAll();
    keyToHwAclIndexDelAll();
    intfToHwAclIndexKeyDelAll();
    routedPortToHwAclIndexKeyDelAll();
    vlanToHwAclIndexKeyDelAll();
    subIntfToHwAclIndexKeyDelAll();
    keyToIntfSetDelAll();
    keyToRoutedPortSetDelAll();
    keyToVlanSetDelAll();
    keyToSubIntfSetDelAll();
    intfWaitingForHwAclIndexDelAll();
    routedPortWaitingForHwAclIndexDelAll();
    vlanWaitingForHwAclIndexDelAll();
    subIntfWaitingForHwAclIndexDelAll();
    released_ = {};
    hwAclIndexAllocatorDelAll();
    instantiateHwAclIndexAllocators();
    chipDataFlowConfig_->mappingsDelAll();
    processAll<IntfFamily>();
    processAll<RoutedPortFamily>();
    processAll<VlanFamily>();
    processAll<SubIntfFamily>();
    mappedGeneration_ = active ? active->generation() : 0;
}

template <class Field, class F>
std::unique_ptr<MappingSm::PolicyWatchers<Field, F>> MappingSm::watchPolicy() {
    using Watchers = PolicyWatchers<Field, F>;
    using Entry = typename Field::mapped_type;
    // A place is reviewed when it appears and once more when it goes, so that its removal
    // runs; in between its watcher reviews it on every change of its ACL set.
    auto review = [this](const typename F::Place& place, PlaceWatcher<F>&,
                         const Vorn::Ptr<Entry>&) {
        operation([&] { lookUpAndProcess<F>(place); });
    };
    return std::make_unique<Watchers>(
        F::policy(*aclPolicyStatus_),
        typename Watchers::Hooks{
            .make =
                [this](const typename F::Place& place, const Vorn::Ptr<Entry>& entry) {
                    return std::make_unique<PlaceWatcher<F>>(this, place, entry);
                },
            .added = review,
            .gone = review});
}

void MappingSm::handleInitialized() {
    VORN_ASSERT(glueStatus());
    VORN_ASSERT(aclPolicyStatus());
    VORN_ASSERT(chipHwCapability());
    VORN_ASSERT(chipDataFlowConfig());
    if (chipId() != aclPolicyStatus()->chipId())
        FLINQ(th, kFast, chipId() << " != " << aclPolicyStatus()->chipId());
    VORN_ASSERT(chipId() == aclPolicyStatus()->chipId());
    if (chipId() != chipDataFlowConfig()->chipId())
        FLINQ(th, kFast, chipId() << " != " << chipDataFlowConfig()->chipId());
    VORN_ASSERT(chipId() == chipDataFlowConfig()->chipId());
    if (chipId() != chipHwCapability()->chipId())
        FLINQ(th, kFast, chipId() << " != " << chipHwCapability()->chipId());
    VORN_ASSERT(chipId() == chipHwCapability()->chipId());
    FLINQ(th, 8, "handleInitialized Chip-" << chipId_);
    StateMachine::handleInitialized();
    // The places present now are processed by the rebuild, in family order; the watchers
    // only follow them from here on.
    policyIntfAcl_ = watchPolicy<IntfPolicyField, IntfFamily>();
    policyRoutedPortAcl_ = watchPolicy<IntfPolicyField, RoutedPortFamily>();
    policyVlanAcl_ = watchPolicy<VlanPolicyField, VlanFamily>();
    policySubIntfAcl_ = watchPolicy<IntfPolicyField, SubIntfFamily>();
    activeRootSmIdSub_ = glueStatus_->activeRootSmIdNotify(
        [this](const Mirel::ChipId& chipId) { handleActiveRootSmId(chipId); });
    operation([this] { rebuild(); });
}

void MappingSm::handleDelete() {
    activeAcls_.reset();
    activeRootSmIdSub_.reset();
    policySubIntfAcl_.reset();
    policyVlanAcl_.reset();
    policyRoutedPortAcl_.reset();
    policyIntfAcl_.reset();
    StateMachine::handleDelete();
}

void MappingSm::handleActiveRootSmId(Mirel::ChipId chipId) {
    if (!initialized() || chipId != chipId_)
        return;
    FLINQ(th, 8, "handleActiveRootSmId Chip-" << chipId);
    FLINQ(th, 2, "  new active root, re-compute");
    operation([this] { rebuild(); });
    // Deliberate pulse: the mapping loader watches globalAclControl, and a 1 tells it that a
    // full re-computation has been written; it goes back to 0 at once.
    chipDataFlowConfig_->globalAclControlIs(Mirel::globalAclControlRewrite_);
    chipDataFlowConfig_->globalAclControlIs(Mirel::globalAclControlStable_);
}

// ---- the public entry points per family ----

void MappingSm::processIntf(const Zamu::IntfId& intfId) {
    operation([&] { lookUpAndProcess<IntfFamily>(intfId); });
}
void MappingSm::processRoutedPort(const Zamu::IntfId& intfId) {
    operation([&] { lookUpAndProcess<RoutedPortFamily>(intfId); });
}
void MappingSm::processVlan(Bridging::VlanId vlanId) {
    operation([&] { lookUpAndProcess<VlanFamily>(vlanId); });
}
void MappingSm::processSubIntf(const Zamu::IntfId& subIntfId) {
    operation([&] { lookUpAndProcess<SubIntfFamily>(subIntfId); });
}

template <class F>
void MappingSm::updateInternalMappingOf(const typename F::Place& place) {
    const auto entry = F::policy(*aclPolicyStatus_).find(place);
    PlaceAcls acls;
    acls.lookUp(entry.ptr(), activeAcls());
    updateInternalMapping<F>(place, entry.ptr(), acls);
}

void MappingSm::updateInternalIntfMapping(const Zamu::IntfId& intfId) {
    updateInternalMappingOf<IntfFamily>(intfId);
}
void MappingSm::updateInternalRoutedPortMapping(const Zamu::IntfId& intfId) {
    updateInternalMappingOf<RoutedPortFamily>(intfId);
}
void MappingSm::updateInternalVlanMapping(Bridging::VlanId vlanId) {
    updateInternalMappingOf<VlanFamily>(vlanId);
}
void MappingSm::updateInternalSubIntfMapping(const Zamu::IntfId& subIntfId) {
    updateInternalMappingOf<SubIntfFamily>(subIntfId);
}

HwAclIndexKey MappingSm::getIntfHwAclIndexKey(const Zamu::IntfId& intfId) const {
    return hwAclIndexKey<IntfFamily>(intfId);
}
HwAclIndexKey MappingSm::getRoutedPortHwAclIndexKey(const Zamu::IntfId& intfId) const {
    return hwAclIndexKey<RoutedPortFamily>(intfId);
}
HwAclIndexKey MappingSm::getVlanHwAclIndexKey(Bridging::VlanId vlanId) const {
    return hwAclIndexKey<VlanFamily>(vlanId);
}
HwAclIndexKey MappingSm::getSubIntfHwAclIndexKey(const Zamu::IntfId& subIntfId) const {
    return hwAclIndexKey<SubIntfFamily>(subIntfId);
}

std::optional<Mirel::HwAclIndex> MappingSm::getIntfHwAclIndex(const Zamu::IntfId& intfId) {
    return hwAclIndex<IntfFamily>(intfId, hwAclIndexKey<IntfFamily>(intfId));
}
std::optional<Mirel::HwAclIndex> MappingSm::getRoutedPortHwAclIndex(const Zamu::IntfId& intfId) {
    return hwAclIndex<RoutedPortFamily>(intfId, hwAclIndexKey<RoutedPortFamily>(intfId));
}
std::optional<Mirel::HwAclIndex> MappingSm::getVlanHwAclIndex(Bridging::VlanId vlanId) {
    return hwAclIndex<VlanFamily>(vlanId, hwAclIndexKey<VlanFamily>(vlanId));
}
std::optional<Mirel::HwAclIndex> MappingSm::getSubIntfHwAclIndex(const Zamu::IntfId& subIntfId) {
    return hwAclIndex<SubIntfFamily>(subIntfId, hwAclIndexKey<SubIntfFamily>(subIntfId));
}

void MappingSm::maybeUpdateIntfPdMapping(const Zamu::IntfId& intfId) {
    maybeUpdatePdMapping<IntfFamily>(intfId);
}
void MappingSm::maybeUpdateRoutedPortPdMapping(const Zamu::IntfId& intfId) {
    maybeUpdatePdMapping<RoutedPortFamily>(intfId);
}
void MappingSm::maybeUpdateVlanPdMapping(Bridging::VlanId vlanId) {
    maybeUpdatePdMapping<VlanFamily>(vlanId);
}
void MappingSm::maybeUpdateSubIntfPdMapping(const Zamu::IntfId& subIntfId) {
    maybeUpdatePdMapping<SubIntfFamily>(subIntfId);
}

void MappingSm::deleteIntfPdMapping(const Zamu::IntfId& intfId) {
    deletePdMapping<IntfFamily>(intfId);
}
void MappingSm::deleteRoutedPortPdMapping(const Zamu::IntfId& intfId) {
    deletePdMapping<RoutedPortFamily>(intfId);
}
void MappingSm::deleteVlanPdMapping(Bridging::VlanId vlanId) {
    deletePdMapping<VlanFamily>(vlanId);
}
void MappingSm::deleteSubIntfPdMapping(const Zamu::IntfId& subIntfId) {
    deletePdMapping<SubIntfFamily>(subIntfId);
}

Vorn::Ptr<MappingSm> mappingSmFactory(
    Mirel::ChipId chipId, const Vorn::Ptr<GlueStatus>& glueStatus,
    const Vorn::Ptr<AclPolicyStatus>& aclPolicyStatus,
    const Vorn::Ptr<Mirel::ChipHwCapability>& chipHwCapability,
    const Vorn::Ptr<Mirel::ChipDataFlowConfig>& chipDataFlowConfig) {
    return Vorn::make<MappingSm>(chipId, glueStatus, aclPolicyStatus, chipHwCapability,
                                 chipDataFlowConfig);
}

Vorn::Ptr<MappingSmColl> mappingSmCollFactory(const Vorn::Name& name) {
    return Vorn::make<MappingSmColl>(name);
}

}  // namespace OvinMirel
