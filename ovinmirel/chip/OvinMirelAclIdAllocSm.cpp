#include "ovinmirel/chip/OvinMirelAclIdAllocSm.h"

#include <algorithm>
#include <vector>

#include "ovinmirel/index/OvinMirelIntfAclTypeIndexSm.h"
#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"
#include "platform/zamu/Addr.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelAclIdAllocSm");

// Without a capability record the chip gets no usable range: one id (0) and no splitting.
constexpr uint32_t kDefaultChipRuleListIdMax = 0;
constexpr uint8_t kDefaultChipRuleListIdReservedPermitAll = 255;

// The two halves of a split ACL, in the order they take their ids.
constexpr Mirel::ProtocolType kSplitProtocolTypes[] = {Mirel::protocolTcp_, Mirel::protocolNonTcp_};

}  // namespace

AclIdAllocSm::AclIdAllocSm(Mirel::ChipId chipId,
                           const Vorn::Ptr<const Mirel::ChipHwCapability>& chipHwCapability,
                           const Vorn::Ptr<const OvinMirelAclColl>& ovinMirelAclColl,
                           const Vorn::Ptr<const GlueStatus>& glueStatus,
                           const Vorn::Ptr<const Index>& index,
                           const Vorn::Ptr<AclIdResponse>& aclIdResponse)
    : Vorn::StateMachine(th),
      chipId_(chipId),
      chipHwCapability_(chipHwCapability),
      ovinMirelAclColl_(required(ovinMirelAclColl, "ovinMirelAclColl")),
      glueStatus_(required(glueStatus, "glueStatus")),
      index_(required(index, "index")),
      aclIdResponse_(required(aclIdResponse, "aclIdResponse")) {}

void AclIdAllocSm::reinstantiate(const Vorn::Ptr<const Mirel::ChipHwCapability>& chipHwCapability,
                                 const Vorn::Ptr<const OvinMirelAclColl>& ovinMirelAclColl,
                                 const Vorn::Ptr<const GlueStatus>& glueStatus,
                                 const Vorn::Ptr<const Index>& index,
                                 const Vorn::Ptr<AclIdResponse>& aclIdResponse) const {
    requireSameReference("chipHwCapability", chipHwCapability_, chipHwCapability);
    requireSameReference("ovinMirelAclColl", ovinMirelAclColl_, ovinMirelAclColl);
    requireSameReference("glueStatus", glueStatus_, glueStatus);
    requireSameReference("index", index_, index);
    requireSameReference("aclIdResponse", aclIdResponse_, aclIdResponse);
}

void AclIdAllocSm::handleInitialized() {
    FLINQ(th, 2, "Chip-" << chipId_ << " handleInitialized");
    StateMachine::handleInitialized();
    chipAclMappingSub_ =
        index_->chipAclMappingNotify([this](Mirel::ChipId chip) { handleChipAclColl(chip); });
    glueSmStateSub_ = glueStatus_->glueSmStateNotify([this] { handleGlueSmState(); });
    storeSub_ =
        ovinMirelAclColl_->aclNotify([this](const Ovin::AclKey& key) { storeAcl_.erase(key); });
    handleChipAclColl(chipId_);
}

void AclIdAllocSm::handleDelete() {
    FLINQ(th, 2, "Chip-" << chipId_ << " handleDelete");
    chipAclMappingSub_.reset();
    glueSmStateSub_.reset();
    storeSub_.reset();
    storeAcl_.clear();
    StateMachine::handleDelete();
}

void AclIdAllocSm::handleChipAclColl(Mirel::ChipId chipId) {
    if (chipId != chipId_)
        return;
    chipAclColl_ = index_->chipAclMapping(chipId_);
    FLINQ(th, 8,
          "Chip-" << chipId_ << " handleChipAclColl " << (chipAclColl_ ? "present" : "absent"));
}

void AclIdAllocSm::handleGlueSmState() {
    const GlueSmState state = glueStatus_->glueSmState();
    FLINQ(th, 8, "Chip-" << chipId_ << " handleGlueSmState " << state);
    if (state == aclIdAlloc_)
        allocateAclId();
}

void AclIdAllocSm::allocateAclId() {
    VORN_ASSERT(initialized());
    FLINQ(th, 2, "Chip-" << chipId_ << " allocateAclId");
    // From scratch every cycle: an id means nothing outside the cycle that handed it out.
    // The response is not emptied first, though: each entry is rewritten where its ids differ,
    // so a cycle that leaves the chip's ACLs alone writes nothing (and no reader is woken).
    chipRuleListIdVal_ = 0;
    chipRuleListIdExhausted_.set(false);
    if (!chipAclColl_) {
        aclIdResponse_->responseDelAll();
        storeAcl_.clear();
        return;
    }
    // The chip's ACLs, the response and the store cache are all ordered by ACL key, so one
    // walk over them finds each ACL's entry and store record without a lookup; an entry passed
    // over belongs to an ACL the chip no longer carries and goes. No reader woken by a response
    // write touches the Index or the store (they wait for the next cycle state), so the walks
    // stay valid; the reference keeps the chip's entry alive whatever happens.
    const Vorn::Ptr<const ChipAclColl> chipAclColl = chipAclColl_;
    const auto& response = aclIdResponse_->response();
    auto nextEntry = response.begin();
    auto dropEntry = [this](auto it) {
        const Ovin::AclKey gone = (it++)->first;
        aclIdResponse_->responseDel(gone);
        return it;
    };
    auto nextAcl = storeAcl_.cbegin();
    auto dropAcl = [this](auto it) { return storeAcl_.erase(it); };
    for (const auto& [key, intfs] : chipAclColl->aclIntfMapping()) {
        Vorn::Ptr<Mirel::AclIdTypeSet> entry;
        if (seek(response, nextEntry, key, dropEntry))
            entry = (nextEntry++)->second;
        Vorn::Ptr<const OvinMirelAcl> acl;
        if (seek(storeAcl_, nextAcl, key, dropAcl))
            acl = (nextAcl++)->second;
        else if ((acl = ovinMirelAclColl_->acl(key)))
            storeAcl_.emplace_hint(nextAcl, key, acl);
        allocate(key, std::move(entry), acl.ptr());
    }
    while (nextEntry != response.end())
        nextEntry = dropEntry(nextEntry);
    storeAcl_.erase(nextAcl, storeAcl_.end());
}

template <class Map, class Drop>
bool AclIdAllocSm::seek(const Map& map, typename Map::const_iterator& it, const Ovin::AclKey& key,
                        Drop&& drop) {
    while (it != map.end()) {
        const auto order = it->first <=> key;
        if (order == 0)
            return true;
        if (order > 0)
            return false;
        it = drop(it);
    }
    return false;
}

void AclIdAllocSm::allocateAclId(const Ovin::AclKey& key) {
    VORN_ASSERT(initialized());
    VORN_ASSERT(chipAclColl());
    // clang-format off
    VORN_ASSERT(chipAclColl()->aclIntfMapping( key ));
    // clang-format on
    allocate(key, aclIdResponse_->response(key), ovinMirelAclColl_->acl(key).ptr());
}

void AclIdAllocSm::allocate(const Ovin::AclKey& key, Vorn::Ptr<Mirel::AclIdTypeSet> entry,
                            const OvinMirelAcl* acl) {
    FLINQ(th, 8, "  allocateAclId " << key);
    const uint32_t max = chipRuleListIdMax();
    // The full counter here; the per-id tests below compare the stored 8-bit id.
    if (max < chipRuleListIdVal_) {
        // Never reached in this cycle: no entry (one left from the cycle before goes).
        if (entry)
            aclIdResponse_->responseDel(key);
        rangeExhausted(key);
        return;
    }
    const Mirel::TableType tableType = IntfAclTypeIndexSm::getTableType(key);
    const Acl::AclDirection direction = key.direction;
    // clang-format off
    VORN_ASSERT_MSG(acl, "ovinMirelAclColl()->aclHas( key )");
    // clang-format on
    // Created before any id is known: an exhausted ACL keeps its (maybe partly filled) entry.
    if (!entry)
        entry = aclIdResponse_->responseIs(key);
    TakenIds taken;
    auto take = [&](Mirel::ProtocolType protocolType) {
        const Mirel::AclId aclId = getAclId(tableType, direction);
        if (aclId.chipRuleListId() > max)
            return false;
        taken.push_back({protocolType, aclId});
        FLINQ(th, 8, "    proto:" << protocolType << " allocated aclId " << aclId);
        return true;
    };
    bool fits = true;
    if (shouldSplitOnProtocolType(key, *acl)) {
        for (Mirel::ProtocolType protocolType : kSplitProtocolTypes) {
            fits = take(protocolType);
            if (!fits)
                break;
        }
    } else {
        fits = take(Mirel::protocolAll_);
    }
    writeIds(*entry, taken);
    if (!fits)
        rangeExhausted(key);
}

void AclIdAllocSm::writeIds(Mirel::AclIdTypeSet& entry, const TakenIds& taken) {
    // Both in protocol order: most cycles find every entry as it was and stop here.
    if (std::ranges::equal(entry.aclIdType(), taken, [](const auto& stored, const auto& t) {
            return stored.first == t.first && stored.second == t.second;
        }))
        return;
    auto isTaken = [&](Mirel::ProtocolType protocolType) {
        return std::ranges::any_of(taken, [&](const auto& t) { return t.first == protocolType; });
    };
    std::vector<Mirel::ProtocolType> stale;
    for (const auto& [protocolType, aclId] : entry.aclIdType()) {
        if (!isTaken(protocolType))
            stale.push_back(protocolType);
    }
    for (Mirel::ProtocolType protocolType : stale)
        entry.aclIdTypeDel(protocolType);
    // An id equal to the one stored is not written (and notifies nobody).
    for (const auto& [protocolType, aclId] : taken)
        entry.aclIdTypeIs(protocolType, aclId);
}

uint32_t AclIdAllocSm::getChipRuleListId() {
    VORN_ASSERT(initialized());
    // The full counter is compared with the 8-bit reserved id, so only its first occurrence
    // is skipped: past 255 the stored (truncated) id may equal it again. Deliberate; the range
    // tests of allocateAclId rely on the same widths.
    uint32_t v = chipRuleListIdVal_;
    if (v == chipRuleListIdReservedPermitAll()) {
        ++chipRuleListIdVal_;
        v = chipRuleListIdVal_;
    }
    ++chipRuleListIdVal_;
    return v;
}

Mirel::AclId AclIdAllocSm::getAclId(Mirel::TableType tableType, Acl::AclDirection direction) {
    // The chip rule list id is 8 bits wide: truncating the counter is intended.
    return Mirel::AclId(tableType, static_cast<uint8_t>(getChipRuleListId()), direction);
}

bool AclIdAllocSm::shouldSplitOnProtocolType(const Ovin::AclKey& key) const {
    const Vorn::Ptr<OvinMirelAcl> acl = ovinMirelAclColl_->acl(key);
    // clang-format off
    VORN_ASSERT_MSG(acl, "ovinMirelAclColl()->aclHas( key )");
    // clang-format on
    return shouldSplitOnProtocolType(key, *acl);
}

bool AclIdAllocSm::shouldSplitOnProtocolType(const Ovin::AclKey& key,
                                             const OvinMirelAcl& acl) const {
    if (!chipHwCapability_ || !chipHwCapability_->aclSplitOnProtocolSupported()) {
        FLINQ(th, 2, "  splitting on protocol not supported");
        return false;
    }
    if (key.type == Acl::aclTypeMac) {
        FLINQ(th, 2, "  splitting on protocol not supported on mac acls");
        return false;
    }
    const uint32_t* tcp = acl.ruleCountByProtocol(Zamu::IpProto(Zamu::IpProto::kTcp));
    if (!tcp || *tcp == 0) {
        FLINQ(th, 2, "  acl contains no tcp rules, not splitting");
        return false;
    }
    const uint32_t* anyIp = acl.ruleCountByProtocol(Zamu::IpProto(Zamu::IpProto::kAny));
    if (*tcp + (anyIp ? *anyIp : 0) == acl.ipRuleByIds()) {
        FLINQ(th, 2, "  acl contains only tcp or ip rules, not splitting");
        return false;
    }
    FLINQ(th, 2, "  acl is candidate for splitting on protocol");
    return true;
}

uint32_t AclIdAllocSm::chipRuleListIdMax() const {
    return chipHwCapability_ ? chipHwCapability_->chipRuleListIdMax() : kDefaultChipRuleListIdMax;
}

uint8_t AclIdAllocSm::chipRuleListIdReservedPermitAll() const {
    return chipHwCapability_ ? chipHwCapability_->chipRuleListIdReservedPermitAll()
                             : kDefaultChipRuleListIdReservedPermitAll;
}

void AclIdAllocSm::rangeExhausted(const Ovin::AclKey& key) {
    FLINQ(th, 0, "    Acl key: " << key << " range exhausted.");
    chipRuleListIdExhausted_.set(true);
}

Vorn::Ptr<AclIdAllocSm> aclIdAllocSmFactory(
    Mirel::ChipId chipId, const Vorn::Ptr<const Mirel::ChipHwCapability>& chipHwCapability,
    const Vorn::Ptr<const OvinMirelAclColl>& ovinMirelAclColl,
    const Vorn::Ptr<const GlueStatus>& glueStatus, const Vorn::Ptr<const Index>& index,
    const Vorn::Ptr<AclIdResponse>& aclIdResponse) {
    return Vorn::make<AclIdAllocSm>(chipId, chipHwCapability, ovinMirelAclColl, glueStatus, index,
                                    aclIdResponse);
}

Vorn::Ptr<AclIdAllocSmColl> aclIdAllocSmCollFactory(const Vorn::Name& name) {
    return Vorn::make<AclIdAllocSmColl>(name);
}

}  // namespace OvinMirel
