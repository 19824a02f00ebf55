#pragma once
// AclIdAllocSm: one chip's ACL id allocator. When the commit cycle enters aclIdAlloc it
// numbers every ACL on the chip from scratch, in ACL-key order, and publishes the ids in the
// chip's AclIdResponse. An ACL that mixes TCP rules with other protocols gets two chip rule
// lists (TCP first) when the chip can split on protocol; every other ACL gets one, under all
// protocols.
//
// Watches: Index.chipAclMapping (keeps chipAclColl pointing at this chip's entry);
//          GlueStatus.glueSmState (allocates on aclIdAlloc); the store's acl collection
//          (drops an ACL's record from the cache below). All from handleInitialized on, until
//          handleDelete.
// Reads:   the chip's ChipHwCapability (chipRuleListIdMax, chipRuleListIdReservedPermitAll,
//          aclSplitOnProtocolSupported; taken as 0, 255 and false when the chip has none);
//          the ACL store (per-protocol rule counts of an ACL).
// Writes:  the chip's AclIdResponse.response, only where an entry's ids differ from the
//          cycle before; chipRuleListIdVal; chipRuleListIdExhausted, which the glue watches
//          to fail the cycle.
// Timers:  none.
// Invariants, after each cycle:
//  1. response holds an entry for every ACL of chipAclColl that was reached before the range
//     ran out, and nothing else; ids are dense from 0 in ACL-key order.
//  2. The reserved permit-all id is never handed out (the counter skips it; see
//     getChipRuleListId for the wrap of the 8-bit stored id).
//  3. chipRuleListIdExhausted is true exactly when some ACL of the cycle ran out of range;
//     allocation still goes on for the later ACLs.
// Owns: shared references to its inputs and to the chip's AclIdResponse; the store records of
//       the ACLs its last cycle reached, in key order, which a cycle walks alongside the chip's
//       ACLs and the response instead of looking each ACL up (and so does the glue, building
//       the chip's attempt root).

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>

#include "ovinmirel/acl/OvinMirelAcl.h"
#include "ovinmirel/glue/OvinMirelGlueStatus.h"
#include "ovinmirel/index/OvinMirelIndex.h"
#include "platform/mirel/AclId.h"
#include "platform/mirel/ChipId.h"
#include "platform/mirel/HwCapability.h"
#include "platform/mirel/TableType.h"
#include "platform/ovin/AclKey.h"
#include "platform/ovin/AclType.h"
#include "platform/vorn/Entity.h"
#include "platform/vorn/Name.h"
#include "platform/vorn/StateMachine.h"

namespace OvinMirel {

class AclIdAllocSm : public Vorn::StateMachine {
    VORN_ENTITY("OvinMirel::AclIdAllocSm")
  public:
    // chipHwCapability may be null (the defaults above apply); every other reference is
    // required (Vorn::NullPointerException naming it).
    AclIdAllocSm(Mirel::ChipId chipId,
                 const Vorn::Ptr<const Mirel::ChipHwCapability>& chipHwCapability,
                 const Vorn::Ptr<const OvinMirelAclColl>& ovinMirelAclColl,
                 const Vorn::Ptr<const GlueStatus>& glueStatus, const Vorn::Ptr<const Index>& index,
                 const Vorn::Ptr<AclIdResponse>& aclIdResponse);
    // Asked for again (chipAclIdAllocSmIs on an existing chip): the same references are
    // required, anything else is refused (Vorn::ReinstantiationException).
    void reinstantiate(const Vorn::Ptr<const Mirel::ChipHwCapability>& chipHwCapability,
                       const Vorn::Ptr<const OvinMirelAclColl>& ovinMirelAclColl,
                       const Vorn::Ptr<const GlueStatus>& glueStatus,
                       const Vorn::Ptr<const Index>& index,
                       const Vorn::Ptr<AclIdResponse>& aclIdResponse) const;

    Mirel::ChipId chipId() const { return chipId_; }
    const Vorn::Ptr<const Mirel::ChipHwCapability>& chipHwCapability() const {
        return chipHwCapability_;
    }
    const Vorn::Ptr<const OvinMirelAclColl>& ovinMirelAclColl() const { return ovinMirelAclColl_; }
    const Vorn::Ptr<const GlueStatus>& glueStatus() const { return glueStatus_; }
    const Vorn::Ptr<const Index>& index() const { return index_; }
    const Vorn::Ptr<AclIdResponse>& aclIdResponse() const { return aclIdResponse_; }

    using StoreAcls = std::map<Ovin::AclKey, Vorn::Ptr<const OvinMirelAcl>>;
    // The store's record of each ACL the last cycle reached, in key order; every record is
    // still the store's (see storeAcl_).
    const StoreAcls& storeAcls() const { return storeAcl_; }
    // The Index's entry for this chip; null while the chip carries no ACL.
    const Vorn::Ptr<const ChipAclColl>& chipAclColl() const { return chipAclColl_; }
    // The next chip rule list id to hand out (the full counter, not truncated).
    uint32_t chipRuleListIdVal() const { return chipRuleListIdVal_; }
    // The last cycle ran out of ids. Notifies its watchers on every change.
    VORN_ATTR_STORAGE(bool, chipRuleListIdExhausted, false)
    bool chipRuleListIdExhausted() const { return chipRuleListIdExhausted_.get(); }

    // Sets initialized, starts watching, and picks up the chip's Index entry.
    void handleInitialized() override;
    // Stops watching and clears initialized; the last response stays as it is.
    void handleDelete() override;
    // Index.chipAclMapping changed for chipId; other chips are ignored.
    void handleChipAclColl(Mirel::ChipId chipId);
    // GlueStatus.glueSmState changed: allocates when it is aclIdAlloc.
    void handleGlueSmState();

    // One cycle: resets the counter, the flag and the response, then allocates for every ACL
    // of the chip in ACL-key order. REQUIRES: initialized().
    void allocateAclId();
    // Allocates for one ACL. REQUIRES: initialized(), the chip carries the ACL, the store
    // holds it.
    void allocateAclId(const Ovin::AclKey& key);
    // Takes the next id, skipping the reserved permit-all id. REQUIRES: initialized().
    uint32_t getChipRuleListId();
    // {tableType, the next id truncated to its 8 bits, direction}.
    Mirel::AclId getAclId(Mirel::TableType tableType, Acl::AclDirection direction);
    // Whether the ACL gets a TCP list and a list for the rest; traces the reason. REQUIRES:
    // the store holds the ACL.
    bool shouldSplitOnProtocolType(const Ovin::AclKey& key) const;

  private:
    // allocateAclId(key) once the ACL's response entry and store record are known (null when
    // there is none).
    void allocate(const Ovin::AclKey& key, Vorn::Ptr<Mirel::AclIdTypeSet> entry,
                  const OvinMirelAcl* acl);
    // Moves `it` forward to `key`, through `drop(it)` (which returns the next iterator) for
    // each entry passed over; whether `it` is then at key.
    template <class Map, class Drop>
    static bool seek(const Map& map, typename Map::const_iterator& it, const Ovin::AclKey& key,
                     Drop&& drop);
    bool shouldSplitOnProtocolType(const Ovin::AclKey& key, const OvinMirelAcl& acl) const;
    // The ids one ACL took in this cycle, in the order taken: at most two, kept in place (an
    // allocation per ACL and cycle would cost more than the numbering itself).
    struct TakenIds {
        std::array<std::pair<Mirel::ProtocolType, Mirel::AclId>, 2> ids{};
        size_t size = 0;
        void push_back(const std::pair<Mirel::ProtocolType, Mirel::AclId>& id) { ids[size++] = id; }
        auto begin() const { return ids.begin(); }
        auto end() const { return ids.begin() + static_cast<std::ptrdiff_t>(size); }
    };
    // Makes the entry hold exactly `taken`, writing only what differs.
    static void writeIds(Mirel::AclIdTypeSet& entry, const TakenIds& taken);
    uint32_t chipRuleListIdMax() const;
    uint8_t chipRuleListIdReservedPermitAll() const;
    void rangeExhausted(const Ovin::AclKey& key);

    const Mirel::ChipId chipId_;
    const Vorn::Ptr<const Mirel::ChipHwCapability> chipHwCapability_;
    const Vorn::Ptr<const OvinMirelAclColl> ovinMirelAclColl_;
    const Vorn::Ptr<const GlueStatus> glueStatus_;
    const Vorn::Ptr<const Index> index_;
    const Vorn::Ptr<AclIdResponse> aclIdResponse_;
    Vorn::Ptr<const ChipAclColl> chipAclColl_;
    uint32_t chipRuleListIdVal_ = 0;
    Vorn::Subscription chipAclMappingSub_;
    Vorn::Subscription glueSmStateSub_;
    // The store's record of each ACL the last cycle reached, so that a cycle finds them by
    // walking rather than by hashing every key. A key the store gains or loses leaves it (a
    // destroyed and re-created ACL is a new record): whatever it holds is still the store's.
    StoreAcls storeAcl_;
    Vorn::Subscription storeSub_;
};

// The allocators of all chips, keyed by chip. Deleting an entry stops its machine.
class AclIdAllocSmColl : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::AclIdAllocSmColl")
  public:
    explicit AclIdAllocSmColl(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    // chipAclIdAllocSmIs(chipId, chipHwCapability, ovinMirelAclColl, glueStatus, index,
    // aclIdResponse)
    VORN_MACHINE_MAP(Mirel::ChipId, AclIdAllocSm, chipAclIdAllocSm)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<AclIdAllocSm> aclIdAllocSmFactory(
    Mirel::ChipId chipId, const Vorn::Ptr<const Mirel::ChipHwCapability>& chipHwCapability,
    const Vorn::Ptr<const OvinMirelAclColl>& ovinMirelAclColl,
    const Vorn::Ptr<const GlueStatus>& glueStatus, const Vorn::Ptr<const Index>& index,
    const Vorn::Ptr<AclIdResponse>& aclIdResponse);
Vorn::Ptr<AclIdAllocSmColl> aclIdAllocSmCollFactory(const Vorn::Name& name);

}  // namespace OvinMirel
