#pragma once
// The four families of places a MappingSm maps (physical interfaces, shared routed ports,
// VLANs, sub-interfaces), as traits its templates take: what differs between them is only
// what each names. Private to the mapping machine: included by its sources alone.
//
// Each family names: Place (the key of its places), PolicyEntry (its entry in the policy
// status), KeySet (its key-to-place set), kPool (the pool its keys draw indexes from), the
// words of its traces and assertion texts, and accessors for the policy collection it reads,
// its internal mapping, place-to-key map, key-to-place sets, waiting set, set membership and
// 1st-level data-flow table.

#include <cstddef>

#include "ovinmirel/chip/OvinMirelMappingSm.h"
#include "platform/mirel/ChipDataFlowConfig.h"

namespace OvinMirel {

// The four families differ only in what these traits name: the policy collection read, the
// internal mapping, the table types put in the key (through the pool), the pool, the 1st-level
// table written, the key-to-place set, the waiting set and the words of the traces.
struct MappingSm::IntfFamily {
    using Place = Zamu::IntfId;
    using PolicyEntry = IntfAclKeySet;
    using KeySet = HwAclIndexKeyToIntfSet;
    static constexpr HwAclIndexAllocatorType kPool = hwAclIndexAllocPaclMacl_;
    static constexpr const char* kProcess = "processIntf ";
    static constexpr const char* kWord = "intf";
    static constexpr const char* kDeleteWord = "intf";
    static constexpr const char* kPlural = "intfs";
    static constexpr const char* kSetName = "keyToIntfSet";
    static constexpr const char* kInternalHas = "intfAclMappingHas( intfId )";
    static constexpr const char* kNoSetHas = "!keyToIntfSetHas( key )";
    static constexpr const char* kSetHas = "keyToIntfSetHas( hwAclIndexKey )";
    static constexpr const char* kMemberHas = "intfSet->intfIdHas( intfId )";
    static const auto& policy(const AclPolicyStatus& s) { return s.intfAclMapping(); }
    static auto& internal(auto& sm) { return sm.intfAclMapping_; }
    static auto& placeToKey(auto& sm) { return sm.intfToHwAclIndexKey_; }
    static auto& keyToSet(auto& sm) { return sm.keyToIntfSet_; }
    static auto& waiting(auto& sm) { return sm.intfWaitingForHwAclIndex_; }
    static bool member(const KeySet& s, const Place& p) { return s.intfId(p); }
    static void memberIs(KeySet& s, const Place& p) { s.intfIdIs(p); }
    static void memberDel(KeySet& s, const Place& p) { s.intfIdDel(p); }
    static size_t members(const KeySet& s) { return s.intfIds(); }
    static void firstLevelIs(Mirel::ChipDataFlowConfig& c, const Place& p, Mirel::HwAclIndex i) {
        c.intfToHwAclIndexIs(p, i);
    }
    static void firstLevelDel(Mirel::ChipDataFlowConfig& c, const Place& p) {
        c.intfToHwAclIndexDel(p);
    }
    static const auto& firstLevel(const Mirel::ChipDataFlowConfig& c) {
        return c.intfToHwAclIndex();
    }
};

struct MappingSm::RoutedPortFamily {
    using Place = Zamu::IntfId;
    using PolicyEntry = IntfAclKeySet;
    using KeySet = HwAclIndexKeyToIntfSet;
    static constexpr HwAclIndexAllocatorType kPool = hwAclIndexAllocRacl_;
    static constexpr const char* kProcess = "processRoutedPort ";
    static constexpr const char* kWord = "routed port";
    static constexpr const char* kDeleteWord = "shared routed port";
    static constexpr const char* kPlural = "shared routed ports";
    static constexpr const char* kSetName = "keyToRoutedPortSet";
    static constexpr const char* kInternalHas = "routedPortSharedAclMappingHas( intfId )";
    static constexpr const char* kNoSetHas = "!keyToRoutedPortSetHas( key )";
    static constexpr const char* kSetHas = "keyToRoutedPortSetHas( hwAclIndexKey )";
    static constexpr const char* kMemberHas = "routedPortSet->intfIdHas( intfId )";
    static const auto& policy(const AclPolicyStatus& s) { return s.routedPortSharedAclMapping(); }
    static auto& internal(auto& sm) { return sm.routedPortSharedAclMapping_; }
    static auto& placeToKey(auto& sm) { return sm.routedPortToHwAclIndexKey_; }
    static auto& keyToSet(auto& sm) { return sm.keyToRoutedPortSet_; }
    static auto& waiting(auto& sm) { return sm.routedPortWaitingForHwAclIndex_; }
    static bool member(const KeySet& s, const Place& p) { return s.intfId(p); }
    static void memberIs(KeySet& s, const Place& p) { s.intfIdIs(p); }
    static void memberDel(KeySet& s, const Place& p) { s.intfIdDel(p); }
    static size_t members(const KeySet& s) { return s.intfIds(); }
    static void firstLevelIs(Mirel::ChipDataFlowConfig& c, const Place& p, Mirel::HwAclIndex i) {
        c.routedPortToHwAclIndexIs(p, i);
    }
    static void firstLevelDel(Mirel::ChipDataFlowConfig& c, const Place& p) {
        c.routedPortToHwAclIndexDel(p);
    }
    static const auto& firstLevel(const Mirel::ChipDataFlowConfig& c) {
        return c.routedPortToHwAclIndex();
    }
};

struct MappingSm::VlanFamily {
    using Place = Bridging::VlanId;
    using PolicyEntry = VlanAclKeySet;
    using KeySet = HwAclIndexKeyToVlanSet;
    static constexpr HwAclIndexAllocatorType kPool = hwAclIndexAllocRacl_;
    static constexpr const char* kProcess = "processVlan ";
    static constexpr const char* kWord = "vlan";
    static constexpr const char* kDeleteWord = "vlan";
    static constexpr const char* kPlural = "vlans";
    static constexpr const char* kSetName = "keyToVlanSet";
    static constexpr const char* kInternalHas = "vlanAclMappingHas( vlanId )";
    static constexpr const char* kNoSetHas = "!keyToVlanSetHas( key )";
    static constexpr const char* kSetHas = "keyToVlanSetHas( hwAclIndexKey )";
    static constexpr const char* kMemberHas = "vlanSet->vlanIdHas( vlanId )";
    static const auto& policy(const AclPolicyStatus& s) { return s.vlanAclMapping(); }
    static auto& internal(auto& sm) { return sm.vlanAclMapping_; }
    static auto& placeToKey(auto& sm) { return sm.vlanToHwAclIndexKey_; }
    static auto& keyToSet(auto& sm) { return sm.keyToVlanSet_; }
    static auto& waiting(auto& sm) { return sm.vlanWaitingForHwAclIndex_; }
    static bool member(const KeySet& s, const Place& p) { return s.vlanId(p); }
    static void memberIs(KeySet& s, const Place& p) { s.vlanIdIs(p); }
    static void memberDel(KeySet& s, const Place& p) { s.vlanIdDel(p); }
    static size_t members(const KeySet& s) { return s.vlanIds(); }
    static void firstLevelIs(Mirel::ChipDataFlowConfig& c, const Place& p, Mirel::HwAclIndex i) {
        c.vlanToHwAclIndexIs(p, i);
    }
    static void firstLevelDel(Mirel::ChipDataFlowConfig& c, const Place& p) {
        c.vlanToHwAclIndexDel(p);
    }
    static const auto& firstLevel(const Mirel::ChipDataFlowConfig& c) {
        return c.vlanToHwAclIndex();
    }
};

struct MappingSm::SubIntfFamily {
    using Place = Zamu::IntfId;
    using PolicyEntry = IntfAclKeySet;
    using KeySet = HwAclIndexKeyToSubIntfSet;
    static constexpr HwAclIndexAllocatorType kPool = hwAclIndexAllocRacl_;
    static constexpr const char* kProcess = "processSubIntf ";
    static constexpr const char* kWord = "subintf";
    static constexpr const char* kDeleteWord = "subintf";
    static constexpr const char* kPlural = "subintfs";
    static constexpr const char* kSetName = "keyToSubIntfSet";
    static constexpr const char* kInternalHas = "subIntfAclMappingHas( subIntfId )";
    static constexpr const char* kNoSetHas = "!keyToSubIntfSetHas( key )";
    static constexpr const char* kSetHas = "keyToSubIntfSetHas( hwAclIndexKey )";
    static constexpr const char* kMemberHas = "subIntfSet->subIntfIdHas( subIntfId )";
    static const auto& policy(const AclPolicyStatus& s) { return s.subIntfAclMapping(); }
    static auto& internal(auto& sm) { return sm.subIntfAclMapping_; }
    static auto& placeToKey(auto& sm) { return sm.subIntfToHwAclIndexKey_; }
    static auto& keyToSet(auto& sm) { return sm.keyToSubIntfSet_; }
    static auto& waiting(auto& sm) { return sm.subIntfWaitingForHwAclIndex_; }
    static bool member(const KeySet& s, const Place& p) { return s.subIntfId(p); }
    static void memberIs(KeySet& s, const Place& p) { s.subIntfIdIs(p); }
    static void memberDel(KeySet& s, const Place& p) { s.subIntfIdDel(p); }
    static size_t members(const KeySet& s) { return s.subIntfIds(); }
    static void firstLevelIs(Mirel::ChipDataFlowConfig& c, const Place& p, Mirel::HwAclIndex i) {
        c.subIntfToHwAclIndexIs(p, i);
    }
    static void firstLevelDel(Mirel::ChipDataFlowConfig& c, const Place& p) {
        c.subIntfToHwAclIndexDel(p);
    }
    static const auto& firstLevel(const Mirel::ChipDataFlowConfig& c) {
        return c.subIntfToHwAclIndex();
    }
};

}  // namespace OvinMirel
