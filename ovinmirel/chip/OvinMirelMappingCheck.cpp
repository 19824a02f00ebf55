#include "ovinmirel/chip/OvinMirelMappingCheck.h"

#include <map>
#include <set>
#include <sstream>

namespace OvinMirel {

namespace {

// What the checker reads of one family, through the machine's public accessors only.
struct IntfView {
    using Place = Zamu::IntfId;
    static constexpr const char* kWord = "intf";
    static constexpr HwAclIndexAllocatorType kPool = hwAclIndexAllocPaclMacl_;
    static constexpr const char* kInternal = "intfAclMapping";
    static constexpr const char* kPlaceToKey = "intfToHwAclIndexKey";
    static constexpr const char* kSet = "keyToIntfSet";
    static constexpr const char* kFirstLevel = "intfToHwAclIndex";
    static const auto& policy(const AclPolicyStatus& s) { return s.intfAclMapping(); }
    static const auto& internal(const MappingSm& sm) { return sm.intfAclMapping(); }
    static const auto& placeToKey(const MappingSm& sm) { return sm.intfToHwAclIndexKey(); }
    static const auto& keyToSet(const MappingSm& sm) { return sm.keyToIntfSet(); }
    static const auto& waiting(const MappingSm& sm) { return sm.intfWaitingForHwAclIndex(); }
    static const auto& members(const HwAclIndexKeyToIntfSet& s) { return s.intfId(); }
    static const auto& firstLevel(const Mirel::ChipDataFlowConfig& c) {
        return c.intfToHwAclIndex();
    }
};

struct RoutedPortView {
    using Place = Zamu::IntfId;
    static constexpr const char* kWord = "routed port";
    static constexpr HwAclIndexAllocatorType kPool = hwAclIndexAllocRacl_;
    static constexpr const char* kInternal = "routedPortSharedAclMapping";
    static constexpr const char* kPlaceToKey = "routedPortToHwAclIndexKey";
    static constexpr const char* kSet = "keyToRoutedPortSet";
    static constexpr const char* kFirstLevel = "routedPortToHwAclIndex";
    static const auto& policy(const AclPolicyStatus& s) { return s.routedPortSharedAclMapping(); }
    static const auto& internal(const MappingSm& sm) { return sm.routedPortSharedAclMapping(); }
    static const auto& placeToKey(const MappingSm& sm) { return sm.routedPortToHwAclIndexKey(); }
    static const auto& keyToSet(const MappingSm& sm) { return sm.keyToRoutedPortSet(); }
    static const auto& waiting(const MappingSm& sm) { return sm.routedPortWaitingForHwAclIndex(); }
    static const auto& members(const HwAclIndexKeyToIntfSet& s) { return s.intfId(); }
    static const auto& firstLevel(const Mirel::ChipDataFlowConfig& c) {
        return c.routedPortToHwAclIndex();
    }
};

struct VlanView {
    using Place = Bridging::VlanId;
    static constexpr const char* kWord = "vlan";
    static constexpr HwAclIndexAllocatorType kPool = hwAclIndexAllocRacl_;
    static constexpr const char* kInternal = "vlanAclMapping";
    static constexpr const char* kPlaceToKey = "vlanToHwAclIndexKey";
    static constexpr const char* kSet = "keyToVlanSet";
    static constexpr const char* kFirstLevel = "vlanToHwAclIndex";
    static const auto& policy(const AclPolicyStatus& s) { return s.vlanAclMapping(); }
    static const auto& internal(const MappingSm& sm) { return sm.vlanAclMapping(); }
    static const auto& placeToKey(const MappingSm& sm) { return sm.vlanToHwAclIndexKey(); }
    static const auto& keyToSet(const MappingSm& sm) { return sm.keyToVlanSet(); }
    static const auto& waiting(const MappingSm& sm) { return sm.vlanWaitingForHwAclIndex(); }
    static const auto& members(const HwAclIndexKeyToVlanSet& s) { return s.vlanId(); }
    static const auto& firstLevel(const Mirel::ChipDataFlowConfig& c) {
        return c.vlanToHwAclIndex();
    }
};

struct SubIntfView {
    using Place = Zamu::IntfId;
    static constexpr const char* kWord = "subintf";
    static constexpr HwAclIndexAllocatorType kPool = hwAclIndexAllocRacl_;
    static constexpr const char* kInternal = "subIntfAclMapping";
    static constexpr const char* kPlaceToKey = "subIntfToHwAclIndexKey";
    static constexpr const char* kSet = "keyToSubIntfSet";
    static constexpr const char* kFirstLevel = "subIntfToHwAclIndex";
    static const auto& policy(const AclPolicyStatus& s) { return s.subIntfAclMapping(); }
    static const auto& internal(const MappingSm& sm) { return sm.subIntfAclMapping(); }
    static const auto& placeToKey(const MappingSm& sm) { return sm.subIntfToHwAclIndexKey(); }
    static const auto& keyToSet(const MappingSm& sm) { return sm.keyToSubIntfSet(); }
    static const auto& waiting(const MappingSm& sm) { return sm.subIntfWaitingForHwAclIndex(); }
    static const auto& members(const HwAclIndexKeyToSubIntfSet& s) { return s.subIntfId(); }
    static const auto& firstLevel(const Mirel::ChipDataFlowConfig& c) {
        return c.subIntfToHwAclIndex();
    }
};

struct Acls {
    const AclKeySet& acls;
};
std::ostream& operator<<(std::ostream& os, const Acls& a) {
    os << "{";
    const char* sep = "";
    for (const Ovin::AclKey& k : a.acls) {
        os << sep << k;
        sep = ", ";
    }
    return os << "}";
}

struct Numbers {
    const std::set<uint32_t>& numbers;
};
std::ostream& operator<<(std::ostream& os, const Numbers& n) {
    os << "{";
    const char* sep = "";
    for (uint32_t i : n.numbers) {
        os << sep << i;
        sep = ", ";
    }
    return os << "}";
}

bool isPortTable(Mirel::TableType t) {
    return t == Mirel::ipv4PortAcl_ || t == Mirel::ipv6PortAcl_ || t == Mirel::macAcl_;
}
bool isRouterTable(Mirel::TableType t) {
    return t == Mirel::ipv4RouterAcl_ || t == Mirel::ipv6RouterAcl_;
}

// Collects the first violation; later ones are ignored.
class Checker {
  public:
    explicit Checker(const MappingSm& sm)
        : sm_(sm), root_(sm.activeRootConfig()), dataFlow_(*sm.chipDataFlowConfig()) {}

    std::optional<std::string> run() {
        if (const uint32_t* rootId = sm_.glueStatus()->activeRootSmId(sm_.chipId());
            rootId && !root_)
            fail("active root ", *rootId, " has no root configuration");
        internalFollowsPolicy<IntfView>();
        internalFollowsPolicy<RoutedPortView>();
        internalFollowsPolicy<VlanView>();
        internalFollowsPolicy<SubIntfView>();
        placesHaveTheirKeys<IntfView>();
        placesHaveTheirKeys<RoutedPortView>();
        placesHaveTheirKeys<VlanView>();
        placesHaveTheirKeys<SubIntfView>();
        setsHoldTheirPlaces<IntfView>();
        setsHoldTheirPlaces<RoutedPortView>();
        setsHoldTheirPlaces<VlanView>();
        setsHoldTheirPlaces<SubIntfView>();
        keysWithIndexesAreUsed();
        numbersAreTheIndexesInUse();
        secondLevelIndexesInUse();
        firstLevelFollowsState<IntfView>();
        firstLevelFollowsState<RoutedPortView>();
        firstLevelFollowsState<VlanView>();
        firstLevelFollowsState<SubIntfView>();
        secondLevelFollowsState();
        waitOnlyWhenFull<IntfView>();
        waitOnlyWhenFull<RoutedPortView>();
        waitOnlyWhenFull<VlanView>();
        waitOnlyWhenFull<SubIntfView>();
        return failure_;
    }

  private:
    template <class... T>
    void fail(const T&... parts) {
        if (failure_)
            return;
        std::ostringstream os;
        (os << ... << parts);
        failure_ = os.str();
    }

    // The policy's ACLs of a place that the active root holds.
    template <class V>
    AclKeySet expectedAcls(const typename V::Place& place) const {
        AclKeySet out;
        const auto entry = V::policy(*sm_.aclPolicyStatus()).find(place);
        if (!entry || !root_)
            return out;
        for (const Ovin::AclKey& acl : entry->aclKey()) {
            if (root_->aclKeyToAclIdTypeSet().contains(acl))
                out.insert(acl);
        }
        return out;
    }

    // The key of a set of ACLs for a family: its kinds only, the later ACL of a kind winning.
    template <class V>
    HwAclIndexKey keyOf(const AclKeySet& acls) const {
        HwAclIndexKey key;
        for (const Ovin::AclKey& acl : acls) {
            const auto ids = root_ ? root_->aclKeyToAclIdTypeSet(acl) : nullptr;
            if (!ids)
                continue;
            const Mirel::TableType t = ids->tableType();
            const bool ofFamily =
                V::kPool == hwAclIndexAllocRacl_ ? isRouterTable(t) : isPortTable(t);
            const int field = HwAclIndexKey::fieldOf(t, acl.direction);
            if (ofFamily && field < HwAclIndexKey::kFieldCount)
                key.fieldIs(HwAclIndexKey::Field(field), acl);
        }
        return key;
    }

    // Rule 1.
    template <class V>
    void internalFollowsPolicy() {
        for (const auto& [place, acls] : V::internal(sm_)) {
            if (acls.empty())
                fail(V::kInternal, "[", place, "] is empty");
            const AclKeySet expected = expectedAcls<V>(place);
            if (acls != expected) {
                fail(V::kInternal, "[", place, "] holds ", Acls{acls},
                     " but the policy and the active root give ", Acls{expected});
            }
        }
        for (const auto& [place, entry] : V::policy(*sm_.aclPolicyStatus())) {
            const AclKeySet expected = expectedAcls<V>(place);
            if (!expected.empty() && !V::internal(sm_).contains(place)) {
                fail(V::kInternal, " lacks ", place, ", which the policy and the active root give ",
                     Acls{expected});
            }
        }
    }

    // Rule 2.
    template <class V>
    void placesHaveTheirKeys() {
        for (const auto& [place, key] : V::placeToKey(sm_)) {
            const AclKeySet* acls = V::internal(sm_).find(place);
            if (!acls) {
                fail(V::kPlaceToKey, "[", place, "] is set but ", V::kInternal, " has no entry");
                continue;
            }
            const HwAclIndexKey expected = keyOf<V>(*acls);
            if (!(expected == key))
                fail(V::kPlaceToKey, "[", place, "] is ", key, " but its ACLs give ", expected);
            if (!sm_.keyToHwAclIndex(key))
                fail(V::kPlaceToKey, "[", place, "] is ", key, ", which has no index");
            const auto set = V::keyToSet(sm_).find(key);
            if (!set || !V::members(*set).contains(place))
                fail(V::kSet, "[", key, "] lacks ", place, ", which has the key");
        }
        for (const auto& [place, acls] : V::internal(sm_)) {
            if (!keyOf<V>(acls))
                continue;
            if (!V::placeToKey(sm_).contains(place) && !V::waiting(sm_).contains(place)) {
                fail(V::kWord, " ", place, " has ACLs of its kinds but neither a key nor a wait ",
                     "for an index");
            }
        }
    }

    // Rule 3, the sets.
    template <class V>
    void setsHoldTheirPlaces() {
        for (const auto& [key, set] : V::keyToSet(sm_)) {
            if (V::members(*set).empty())
                fail(V::kSet, "[", key, "] is empty");
            if (!sm_.keyToHwAclIndex(key))
                fail(V::kSet, "[", key, "] has no index");
            for (const auto& place : V::members(*set)) {
                const HwAclIndexKey* held = V::placeToKey(sm_).find(place);
                if (!held || !(*held == key))
                    fail(V::kSet, "[", key, "] holds ", place, ", whose key is another");
            }
        }
    }

    // The pools a key is used in, by the sets that hold it.
    bool usedInPool(const HwAclIndexKey& key, HwAclIndexAllocatorType pool) const {
        if (pool == hwAclIndexAllocPaclMacl_)
            return sm_.keyToIntfSet().contains(key);
        return sm_.keyToRoutedPortSet().contains(key) || sm_.keyToVlanSet().contains(key) ||
               sm_.keyToSubIntfSet().contains(key);
    }

    // Rule 3, the keys with an index; fills the indexes in use per pool.
    void keysWithIndexesAreUsed() {
        for (const auto& [key, index] : sm_.keyToHwAclIndex()) {
            if (!key)
                fail("the empty key holds index ", index);
            const bool pacl = usedInPool(key, hwAclIndexAllocPaclMacl_);
            const bool racl = usedInPool(key, hwAclIndexAllocRacl_);
            if (!pacl && !racl)
                fail("keyToHwAclIndex[", key, "] is ", index, " but no place uses the key");
            if (pacl && racl)
                fail("keyToHwAclIndex[", key, "] is used in both pools");
            const int pool = racl ? hwAclIndexAllocRacl_ : hwAclIndexAllocPaclMacl_;
            if (!inUse_[pool].insert(index.value()).second)
                fail("index ", index, " of pool ", HwAclIndexAllocatorType(pool),
                     " is held by two keys");
        }
    }

    // Rule 4.
    void numbersAreTheIndexesInUse() {
        if (!sm_.initialized())
            return;
        const uint32_t max = sm_.chipHwCapability()->hwAclIndexMax();
        const uint32_t reserved = sm_.chipHwCapability()->hwAclIndexReserved();
        for (int pool = 0; pool < kHwAclIndexAllocatorTypeCount; ++pool) {
            const auto type = HwAclIndexAllocatorType(pool);
            const auto alloc = sm_.hwAclIndexAllocator(type);
            if (!alloc || !alloc->numAllocator()) {
                fail("pool ", type, " has no number allocator");
                continue;
            }
            if (!(alloc->config()->range() == Brix::Range(0, max)))
                fail("pool ", type, " spans ", alloc->config()->range(), ", not [0, ", max, "]");
            std::set<uint32_t> expected = inUse_[pool];
            if (reserved <= max)
                expected.insert(reserved);
            const std::set<uint32_t> actual(alloc->status()->allocated().begin(),
                                            alloc->status()->allocated().end());
            if (actual != expected) {
                fail("pool ", type, " has numbers ", Numbers{actual},
                     " in use but its keys and the reserved index hold ", Numbers{expected});
            }
        }
    }

    // Rule 4, the 2nd-level entries.
    void secondLevelIndexesInUse() {
        for (const auto& [k, id] : dataFlow_.chipRuleListKeyToId()) {
            const Mirel::TableType t = k.tableType();
            if (!isPortTable(t) && !isRouterTable(t)) {
                fail("chipRuleListKeyToId[", k, "] has a table type of no pool");
                continue;
            }
            const auto pool = isRouterTable(t) ? hwAclIndexAllocRacl_ : hwAclIndexAllocPaclMacl_;
            if (!inUse_[pool].contains(k.hwAclIndex().value()))
                fail("chipRuleListKeyToId[", k, "] names an index pool ", pool, " does not use");
        }
    }

    // Rule 5, 1st level.
    template <class V>
    void firstLevelFollowsState() {
        std::map<typename V::Place, Mirel::HwAclIndex> expected;
        for (const auto& [place, key] : V::placeToKey(sm_)) {
            if (const Mirel::HwAclIndex* index = sm_.keyToHwAclIndex(key))
                expected.emplace(place, *index);
        }
        const auto& actual = V::firstLevel(dataFlow_);
        for (const auto& [place, index] : expected) {
            const Mirel::HwAclIndex* written = actual.find(place);
            if (!written)
                fail(V::kFirstLevel, " lacks ", place, " -> ", index);
            else if (!(*written == index))
                fail(V::kFirstLevel, "[", place, "] is ", *written, " but its key has ", index);
        }
        for (const auto& [place, index] : actual) {
            if (!expected.contains(place))
                fail(V::kFirstLevel, "[", place, "] is ", index, " but the place has no key");
        }
    }

    // Rule 5, 2nd level.
    void secondLevelFollowsState() {
        static const Ovin::AclKey kUnused;
        std::map<Mirel::ChipRuleListIdKey, Mirel::AclId> expected;
        for (const auto& [key, index] : sm_.keyToHwAclIndex()) {
            for (int i = 0; i < HwAclIndexKey::kFieldCount; ++i) {
                const Ovin::AclKey& acl = key.field(HwAclIndexKey::Field(i));
                if (acl == kUnused)
                    continue;
                const auto ids = root_ ? root_->aclKeyToAclIdTypeSet(acl) : nullptr;
                if (!ids) {
                    fail("key ", key, " holds ", acl, ", which the active root lacks");
                    continue;
                }
                for (const auto& [protocol, id] : ids->aclIdType())
                    expected[{index, id.tableType(), protocol, id.direction()}] = id;
            }
        }
        const auto& actual = dataFlow_.chipRuleListKeyToId();
        for (const auto& [k, id] : expected) {
            const Mirel::AclId* written = actual.find(k);
            if (!written)
                fail("chipRuleListKeyToId lacks ", k, " -> ", id);
            else if (!(*written == id))
                fail("chipRuleListKeyToId[", k, "] is ", *written, " but the key gives ", id);
        }
        for (const auto& [k, id] : actual) {
            if (!expected.contains(k))
                fail("chipRuleListKeyToId[", k, "] is ", id, " but no key in use gives it");
        }
    }

    // Rule 6.
    template <class V>
    void waitOnlyWhenFull() {
        for (const auto& place : V::waiting(sm_)) {
            if (V::placeToKey(sm_).contains(place)) {
                fail(V::kWord, " ", place, " waits for an index but has a key");
                continue;
            }
            const AclKeySet* acls = V::internal(sm_).find(place);
            if (!acls) {
                fail(V::kWord, " ", place, " waits for an index but has no ACLs");
                continue;
            }
            const HwAclIndexKey key = keyOf<V>(*acls);
            if (!key)
                fail(V::kWord, " ", place, " waits for an index with the empty key");
            else if (const Mirel::HwAclIndex* index = sm_.keyToHwAclIndex(key))
                fail(V::kWord, " ", place, " waits for an index although its key has ", *index);
            const auto alloc = sm_.hwAclIndexAllocator(V::kPool);
            if (alloc && alloc->numAllocator()) {
                if (const uint64_t free = alloc->numAllocator()->freeCount()) {
                    fail(V::kWord, " ", place, " waits for an index while pool ", V::kPool, " has ",
                         free, " free");
                }
            }
        }
    }

    const MappingSm& sm_;
    const Vorn::Ptr<Mirel::RootConfig> root_;
    const Mirel::ChipDataFlowConfig& dataFlow_;
    std::set<uint32_t> inUse_[kHwAclIndexAllocatorTypeCount];
    std::optional<std::string> failure_;
};

}  // namespace

std::optional<std::string> checkMappingConsistency(const MappingSm& sm) {
    return Checker(sm).run();
}

}  // namespace OvinMirel
