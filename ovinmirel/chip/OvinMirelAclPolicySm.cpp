#include "ovinmirel/chip/OvinMirelAclPolicySm.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ovinmirel/chip/OvinMirelChipAclWatcher.h"
#include "ovinmirel/chip/OvinMirelLogMessages.h"
#include "platform/flinq/Flinq.h"
#include "platform/logging/Logging.h"
#include "platform/mirel/TableType.h"
#include "platform/vorn/Assert.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelAclPolicySm");

using Mask = Mirel::AclTypeCombinationBitMask;

// One ACL kind: its in and out bits and the word traces print for it. Indexed by table type
// minus one (1 IPv4 port, 2 IPv4 router, 3 IPv6 port, 4 IPv6 router, 5 MAC).
struct Kind {
    uint16_t in;
    uint16_t out;
    const char* word;
};
constexpr Kind kKinds[] = {
    {Mask::kV4PaclIn, Mask::kV4PaclOut, " v4pacl"}, {Mask::kV4RaclIn, Mask::kV4RaclOut, " v4racl"},
    {Mask::kV6PaclIn, Mask::kV6PaclOut, " v6pacl"}, {Mask::kV6RaclIn, Mask::kV6RaclOut, " v6racl"},
    {Mask::kMacIn, Mask::kMacOut, " macacl"},
};

uint16_t bitOf(const Kind& kind, Acl::AclDirection direction) {
    return direction == Acl::aclDirectionIn ? kind.in : kind.out;
}

// " v4pacl-in v6racl-in-out ..." for the kinds present in the mask.
std::string maskWords(Mask mask) {
    std::string out;
    for (const Kind& kind : kKinds) {
        const bool in = mask.value() & kind.in;
        const bool outBit = mask.value() & kind.out;
        if (!in && !outBit)
            continue;
        out += kind.word;
        if (in)
            out += "-in";
        if (outBit)
            out += "-out";
    }
    return out;
}

// The kinds bound to an interface, as a review and the error check both trace them.
void traceCombination(const Zamu::IntfId& intfId, Mask combination) {
    FLINQ(th, 8,
          "    " << intfId << " aclTypeCombination " << combination << maskWords(combination));
}

bool isIp(const Ovin::AclKey& key) {
    return key.type == Acl::aclTypeIpv4 || key.type == Acl::aclTypeIpv6;
}

}  // namespace

AclPolicySm::AclPolicySm(Mirel::ChipId chipId,
                         const Vorn::Ptr<Mirel::ChipHwCapability>& chipHwCapability,
                         const Vorn::Ptr<Mirel::HwCapability>& hwCapability,
                         const Vorn::Ptr<Index>& index,
                         const Vorn::Ptr<AclPolicyStatus>& aclPolicyStatus,
                         Brix::TimerWheel& timerWheel)
    : Vorn::StateMachine(th),
      chipId_(chipId),
      chipHwCapability_(chipHwCapability),
      hwCapability_(hwCapability),
      index_(index),
      aclPolicyStatus_(aclPolicyStatus),
      timerWheel_(&timerWheel),
      intfPolicyTimer_(timerWheel, [this] { handleIntfPolicyTimer(); }) {
    // errIntf's mutators change only on a real change and notify only then: each entry and
    // exit is logged once, however often the interface is reviewed.
    errIntfLog_ = errIntfNotify([this](const Zamu::IntfId& intf) { logErrIntf(intf); });
}

AclPolicySm::~AclPolicySm() = default;

void AclPolicySm::reinstantiate(const Vorn::Ptr<Mirel::ChipHwCapability>& chipHwCapability,
                                const Vorn::Ptr<Mirel::HwCapability>& hwCapability,
                                const Vorn::Ptr<Index>& index,
                                const Vorn::Ptr<AclPolicyStatus>& aclPolicyStatus,
                                Brix::TimerWheel& timerWheel) const {
    requireSameReference("chipHwCapability", chipHwCapability_, chipHwCapability);
    requireSameReference("hwCapability", hwCapability_, hwCapability);
    requireSameReference("index", index_, index);
    requireSameReference("aclPolicyStatus", aclPolicyStatus_, aclPolicyStatus);
    // The wheel is not a shared entity (requireSameReference takes those); same rule, same text.
    if (&timerWheel != timerWheel_)
        Vorn::throwPointerReinstantiation("timerWheel", "Brix::TimerWheel");
}

// ---- Policy -------------------------------------------------------------------------------

Mask AclPolicySm::getIntfAclTypeCombination(const Zamu::IntfId& intfId) const {
    VORN_ASSERT(initialized());
    const Mask combination = boundKinds(intfId).combination;
    traceCombination(intfId, combination);
    return combination;
}

AclPolicySm::BoundKinds AclPolicySm::boundKinds(const Zamu::IntfId& intfId) const {
    uint32_t mask = 0;
    size_t typed = 0;
    if (Vorn::Ptr<IntfAclTableTypeColl> types = index()->intfAclTypeMapping(intfId)) {
        for (const auto& [tableType, keys] : types->aclTableTypeMapping()) {
            // Table type 0 (or anything past MAC) cannot come out of the type index.
            if (tableType < Mirel::ipv4PortAcl_ || tableType > Mirel::macAcl_)
                VORN_ASSERT(false);
            const Kind& kind = kKinds[tableType - 1];
            if (keys->outAcls() < keys->aclKeys())
                mask |= kind.in;
            if (keys->outAcls() > 0)
                mask |= kind.out;
            typed += keys->aclKeys();
        }
    }
    return BoundKinds{Mask(mask), typed};
}

Mask AclPolicySm::getBestAclTypeCombinationMatch(Mask requested) const {
    VORN_ASSERT(initialized());
    // The platform's tie-breaks, deliberate: it lists its preferred combinations under the
    // smallest keys, so the first that holds everything wins; failing that, the first partial
    // match stands even when a later one would keep more bits.
    Mask result;
    for (const auto& [priority, supported] : chipHwCapability()->aclTypeCombinationByPriority()) {
        const Mask candidate(requested.value() & supported.value());
        if (candidate == requested)
            return candidate;
        if (!candidate.empty() && result.empty())
            result = candidate;
    }
    return result;
}

Mask AclPolicySm::getIntfPolicy(const Zamu::IntfId& intfId) const {
    VORN_ASSERT(initialized());
    return getBestAclTypeCombinationMatch(getIntfAclTypeCombination(intfId));
}

Mask AclPolicySm::getAclTypeMask(const Ovin::AclKey& aclKey) const {
    VORN_ASSERT(initialized());
    // A key that carries a VLAN id is a router ACL (the same rule as its table type).
    const bool router = aclKey.vlanId.has_value();
    switch (aclKey.type) {
        case Acl::aclTypeIpv4:
            return Mask(bitOf(kKinds[router ? 1 : 0], aclKey.direction));
        case Acl::aclTypeIpv6:
            return Mask(bitOf(kKinds[router ? 3 : 2], aclKey.direction));
        case Acl::aclTypeMac:
            return Mask(bitOf(kKinds[4], aclKey.direction));
    }
    return Mask();
}

bool AclPolicySm::shouldDoRaclSharing(const Zamu::IntfId& intfId) const {
    VORN_ASSERT(initialized());
    Vorn::Ptr<IntfAclColl> intfAclColl = index()->intfAclMapping(intfId);
    VORN_ASSERT(intfAclColl);
    const bool supported = hwCapability()->routedPortRaclSharingSupported();
    bool result = supported;
    if (!supported) {
        FLINQ(th, 8, "      routed port sharing not supported");
        // The answer is no: the walk below only traces what it passes over.
        if (!th.enabled(8))
            return false;
    }
    uint32_t mask = 0;
    for (const Ovin::AclKey& key : intfAclColl->aclKey()) {
        FLINQ(th, 8, "      processing " << key);
        // A router ACL asks for both the port and the router bit of its family and direction.
        const bool in = key.direction == Acl::aclDirectionIn;
        if (key.type == Acl::aclTypeIpv4)
            mask |= in ? 0x003 : 0x030;
        if (key.type == Acl::aclTypeIpv6)
            mask |= in ? 0x00c : 0x0c0;
        const bool racl = isIp(key) && key.vlanId.has_value();
        if (!supported) {
            if (racl)
                FLINQ(th, 8, "        routed port RACL sharing disabled but RACL on intf " << key);
            continue;
        }
        // The first ACL that fails decides.
        if (key.type == Acl::aclTypeMac) {
            FLINQ(th, 8, "        mac acls cannot co-exist with racls");
            return false;
        }
        if (!racl) {
            FLINQ(th, 8, "        routed port RACL sharing enabled and PACL " << key << " on intf");
            return false;
        }
        if (getBestAclTypeCombinationMatch(Mask(mask)) != Mask(mask)) {
            FLINQ(th, 8,
                  "        routed port RACL sharing enabled but PaclRacl combination not "
                  "supported on intf after adding "
                      << key);
            return false;
        }
    }
    return result;
}

bool AclPolicySm::isReadyIntfAcl(const Zamu::IntfId& intfId) const {
    VORN_ASSERT(initialized());
    Vorn::Ptr<IntfAclColl> acls = index()->intfAclMapping(intfId);
    VORN_ASSERT_MSG(acls, "index()->intfAclMappingHas( intfId )");
    VORN_ASSERT(chipIntfMapping());
    VORN_ASSERT_MSG(chipIntfMapping()->intfId(intfId), "chipIntfMapping()->intfIdHas( intfId )");
    return allReady(*acls, boundKinds(intfId).typed);
}

bool AclPolicySm::allReady(const IntfAclColl& acls, size_t typed) const {
    // An ACL the type index grouped under a table type has that table's mask bit: when it
    // grouped every ACL of the interface, all are ready, and the walk below would only trace.
    if (!th.enabled(8) && typed == acls.aclKeys())
        return true;
    for (const Ovin::AclKey& key : acls.aclKey()) {
        FLINQ(th, 8, "    acl " << key);
        if (getAclTypeMask(key).empty())
            return false;
    }
    return true;
}

bool AclPolicySm::onChip(const Zamu::IntfId& intfId) const {
    return chipIntfMapping() && chipIntfMapping()->intfId(intfId);
}

// ---- Review -------------------------------------------------------------------------------

void AclPolicySm::scheduleIntfAclPolicyReview(const Zamu::IntfId& intfId) {
    if (!initialized())
        return;
    pending_.all(intfId);
    intfPolicyQueueIs(intfId);
    armIntfPolicyTimer();
}

void AclPolicySm::armIntfPolicyTimer() {
    // Deliberately the absolute time 0: already due, so the timer fires on the wheel's next
    // pass, and everything scheduled until then is reviewed in that one run. Armed once for
    // all of them: arming it again would only move it in the wheel.
    if (!intfPolicyTimer_.armed())
        intfPolicyTimer_.expiryIs(0.0);
}

void AclPolicySm::scheduleAclReview(const Zamu::IntfId& intfId, const Ovin::AclKey& aclKey) {
    if (!initialized())
        return;
    pending_.acl(intfId, aclKey);
    intfPolicyQueueIs(intfId);
    armIntfPolicyTimer();
}

void AclPolicySm::scheduleIntfAclPolicyReview() {
    if (!initialized())
        return;
    // Every interface of the chip (an ordered set); the queue orders what it receives anyway,
    // so the walks below may schedule in any order.
    if (Vorn::Ptr<ChipIntfMapping> mapping = chipIntfMapping()) {
        for (const Zamu::IntfId& intf : mapping->intfId())
            scheduleIntfAclPolicyReview(intf);
    }
    // Interfaces with something to withdraw, whether or not they are still on the chip.
    for (const auto& [intf, contribution] : intfAclStatus())
        scheduleIntfAclPolicyReview(intf);
    for (const Zamu::IntfId& intf : errIntf())
        scheduleIntfAclPolicyReview(intf);
}

void AclPolicySm::handleIntfPolicyTimer() {
    VORN_ASSERT(initialized());
    FLINQ(th, 8, "Chip-" << chipId_ << " handleIntfPolicyTimer");
    // The queue is taken before the run, so an interface scheduled during the run waits for
    // the next one instead of being cleared unseen.
    const std::vector<Zamu::IntfId> queue = intfPolicyQueue().keys();
    intfPolicyQueueDelAll();
    AclPolicySmPending::Run pending = pending_.takeAll();
    for (const Zamu::IntfId& intf : queue)
        updateErrIntf(intf, reviewIntf(intf, pending.take(intf)));
}

void AclPolicySm::processIntf(const Zamu::IntfId& intfId) {
    reviewIntf(intfId, pending_.take(intfId));
}

AclPolicySm::IntfReview AclPolicySm::reviewIntf(const Zamu::IntfId& intfId, PendingReview pending) {
    VORN_ASSERT(initialized());
    FLINQ(th, 8, "  processIntf " << intfId);
    StatusWrites writes(*this);
    IntfReview review = intfReview(intfId);
    // Only the ACLs that changed under the interface are looked at, with those of the kinds a
    // new policy admits or drops, unless what the interface admits may have changed as a
    // whole: its eligibility, or (below) the mapping its own ACLs go to.
    const auto reviewed = reviewedPolicy_.find(intfId);
    bool all = pending.all || !review.acls || reviewed == reviewedPolicy_.end();
    if (!all && reviewed->second != review.policy)
        addAclsOfKinds(intfId, Mask(reviewed->second.value() ^ review.policy.value()),
                       pending.acls);
    // Where each ACL looked at is to reach the interface, in the order of its walk: looked up
    // once for the whole review, and held bare (the status writes below never change the
    // index). The vector is the machine's, lent to the review, so reviews do not allocate.
    WantedLease lease(wanted_);
    std::vector<const PhyIntfMapping*>& wanted = lease.wanted();
    auto lookUpWanted = [&](const auto& keys, bool bound) {
        wanted.clear();
        wanted.reserve(keys.size());
        for (const Ovin::AclKey& key : keys)
            wanted.push_back(wantedParents(intfId, key, review, bound).ptr());
    };
    if (review.acls) {
        if (reviewed != reviewedPolicy_.end())
            reviewed->second = review.policy;
        else
            reviewedPolicy_.emplace(intfId, review.policy);
        if (all) {
            lookUpWanted(review.acls->aclKey(), true);
        } else {
            lookUpWanted(pending.acls, false);
        }
        // Whether the interface keeps ACLs of its own only decides whether sharing is asked
        // about; where the platform has none and nothing traces, the answer is no anyway.
        bool phy = false;
        if (hwCapability()->routedPortRaclSharingSupported() || th.enabled(8)) {
            phy = !all && otherPhyAclInEffect(intfId, pending.acls);
            for (const PhyIntfMapping* parents : wanted)
                phy = phy || (parents && parents->parentIntfId(intfId));
        }
        review.sharedAfter = phy && shouldDoRaclSharing(intfId);
        // A move between intfAclMapping and routedPortSharedAclMapping takes every one of the
        // interface's own ACLs along.
        if (!all && review.sharedAfter != review.sharedBefore &&
            otherPhyAclInEffect(intfId, pending.acls)) {
            all = true;
            lookUpWanted(review.acls->aclKey(), true);
        }
    } else {
        reviewedPolicy_.erase(intfId);
    }
    // Only the difference is written (invariant 6), withdrawals first: an ACL that stays in
    // effect the same way is neither withdrawn nor put back.
    if (all) {
        if (Vorn::Ptr<IntfAclStatus> contribution = intfAclStatus(intfId)) {
            for (const Ovin::AclKey& key : contribution->aclKey().sortedKeys())
                withdrawAcl(intfId, key, wantedParents(intfId, key, review).ptr(), review);
        }
        if (review.acls) {
            size_t i = 0;
            for (const Ovin::AclKey& key : review.acls->aclKey()) {
                if (const PhyIntfMapping* parents = wanted[i++])
                    addAcl(intfId, key, *parents, review.sharedAfter);
            }
        }
        return review;
    }
    size_t i = 0;
    for (const Ovin::AclKey& key : pending.acls)
        withdrawAcl(intfId, key, wanted[i++], review);
    i = 0;
    for (const Ovin::AclKey& key : pending.acls) {
        if (const PhyIntfMapping* parents = wanted[i++])
            addAcl(intfId, key, *parents, review.sharedAfter);
    }
    return review;
}

AclPolicySm::IntfReview AclPolicySm::intfReview(const Zamu::IntfId& intfId) const {
    IntfReview out;
    out.sharedBefore = aclPolicyStatus()->routedPortSharedAclMapping(intfId) != nullptr;
    Vorn::Ptr<IntfAclColl> acls = index()->intfAclMapping(intfId);
    if (!acls) {
        FLINQ(th, 8, "    no intfAclMapping");
        return out;
    }
    if (!acls->aclKeys()) {
        FLINQ(th, 8, "    there are no acls associated with this intf");
        return out;
    }
    // "Not yet" until the chip's mapping is first taken; once it has been removed, every
    // interface is simply off the chip.
    if (!chipIntfMapping() && !chipIntfMappingTaken_) {
        FLINQ(th, 8, "    chipIntfMapping is not yet set");
        return out;
    }
    if (!onChip(intfId)) {
        FLINQ(th, 8, "    no chipIntfMapping");
        return out;
    }
    // All or nothing: the interface's ACLs are put in effect only once all are ready. One
    // walk of the type index answers that and gives the kinds.
    const BoundKinds kinds = boundKinds(intfId);
    if (!allReady(*acls, kinds.typed)) {
        FLINQ(th, 8, "    intf is not ready");
        return out;
    }
    out.combination = kinds.combination;
    traceCombination(intfId, out.combination);
    out.policy = getBestAclTypeCombinationMatch(out.combination);
    out.acls = acls;
    return out;
}

Vorn::Ptr<PhyIntfMapping> AclPolicySm::wantedParents(const Zamu::IntfId& intfId,
                                                     const Ovin::AclKey& aclKey,
                                                     const IntfReview& review, bool bound) const {
    if (!review.acls || (!bound && !review.acls->aclKey(aclKey)) ||
        (getAclTypeMask(aclKey) & review.policy).empty())
        return nullptr;
    Vorn::Ptr<AclPhyIntfColl> acl = index()->aclPhyIntfMapping(aclKey);
    Vorn::Ptr<PhyIntfMapping> phyIntf = acl ? acl->phyIntfMapping(intfId) : nullptr;
    VORN_ASSERT(phyIntf);
    return phyIntf;
}

void AclPolicySm::addAclsOfKinds(const Zamu::IntfId& intfId, Mask kinds, AclKeys& acls) const {
    Vorn::Ptr<IntfAclTableTypeColl> types = index()->intfAclTypeMapping(intfId);
    if (!types)
        return;
    for (const auto& [tableType, keys] : types->aclTableTypeMapping()) {
        const Kind& kind = kKinds[tableType - 1];
        if (!(kinds.value() & (kind.in | kind.out)))
            continue;
        for (const Ovin::AclKey& key : keys->aclKey()) {
            if (kinds.value() & bitOf(kind, key.direction))
                acls.insert(key);
        }
    }
}

bool AclPolicySm::otherPhyAclInEffect(const Zamu::IntfId& intfId, const AclKeys& changed) const {
    Vorn::Ptr<IntfAclKeySet> entry = aclPolicyStatus()->intfAclMapping(intfId);
    if (!entry)
        entry = aclPolicyStatus()->routedPortSharedAclMapping(intfId);
    if (!entry)
        return false;
    size_t changedThere = 0;
    for (const Ovin::AclKey& key : changed)
        changedThere += entry->aclKey(key) ? 1 : 0;
    return entry->aclKeys() > changedThere;
}

void AclPolicySm::applyIntfAclPolicy(const Zamu::IntfId& intfId) {
    VORN_ASSERT(initialized());
    Vorn::Ptr<IntfAclColl> acls = index()->intfAclMapping(intfId);
    VORN_ASSERT_MSG(acls, "index()->intfAclMappingHas( intfId )");
    VORN_ASSERT(chipIntfMapping());
    VORN_ASSERT_MSG(chipIntfMapping()->intfId(intfId), "chipIntfMapping()->intfIdHas( intfId )");
    FLINQ(th, 8, "    discovering acl types");
    // Written outside a review: the next review of the interface looks at all of it.
    reviewedPolicy_.erase(intfId);
    const Mask policy = getIntfPolicy(intfId);
    Vorn::Ptr<IntfAclKeySet> entry = aclPolicyStatus()->intfAclMappingIs(intfId);
    entry->aclKeyDelAll();
    for (const Ovin::AclKey& key : acls->aclKey()) {
        if ((getAclTypeMask(key) & policy).empty())
            continue;
        FLINQ(th, 8, "      adding " << key);
        entry->aclKeyIs(key);
    }
    if (!entry->aclKeys())
        aclPolicyStatus()->intfAclMappingDel(intfId);
}

void AclPolicySm::updateErrIntf(const Zamu::IntfId& intfId) {
    VORN_ASSERT(initialized());
    // Every chip's machine reviews every interface whose bindings change; only one that sits
    // on this chip can be in error here.
    bool contention = false;
    if (onChip(intfId)) {
        const Mask combination = getIntfAclTypeCombination(intfId);
        contention = getBestAclTypeCombinationMatch(combination) != combination;
    }
    if (contention) {
        errIntfIs(intfId, true);
    } else {
        errIntfDel(intfId);
    }
}

void AclPolicySm::updateErrIntf(const Zamu::IntfId& intfId, const IntfReview& review) {
    if (!review.acls) {
        updateErrIntf(intfId);
        return;
    }
    // The review found the interface on this chip and read its kinds: the same answer, traced
    // the same way, without reading them again.
    traceCombination(intfId, review.combination);
    if (review.policy != review.combination) {
        errIntfIs(intfId, true);
    } else {
        errIntfDel(intfId);
    }
}

void AclPolicySm::logErrIntf(const Zamu::IntfId& intfId) const {
    VORN_ASSERT(initialized());
    Logging::log(errIntf(intfId) ? kAclNotActiveOnInterface : kAclActiveOnInterface, intfId.name());
}

// ---- Status writers -----------------------------------------------------------------------

AclPolicySm::Path AclPolicySm::pathOf(const Zamu::IntfId& intfId,
                                      const Zamu::IntfId& parentIntfId) const {
    if (parentIntfId == intfId)
        return Path::phy;
    if (Zamu::VlanIntfId::isVlanIntfId(parentIntfId))
        return Path::vlan;
    // A port-channel here is refused by addSubIntf with its own message.
    if (Zamu::SubIntfId::isSubIntfId(parentIntfId) ||
        Zamu::PortChannelIntfId::isPortChannelIntfId(parentIntfId))
        return Path::sub;
    VORN_ASSERT(false);
    return Path::phy;
}

void AclPolicySm::addIntfAclStatus(const Zamu::IntfId& intfId, const Ovin::AclKey& aclKey) {
    VORN_ASSERT(initialized());
    Vorn::Ptr<AclPhyIntfColl> acl = index()->aclPhyIntfMapping(aclKey);
    Vorn::Ptr<PhyIntfMapping> phyIntf = acl ? acl->phyIntfMapping(intfId) : nullptr;
    VORN_ASSERT(phyIntf);
    // Written outside a review: the next review of the interface looks at all of it.
    reviewedPolicy_.erase(intfId);
    StatusWrites writes(*this);
    const bool direct = phyIntf->parentIntfId(intfId);
    addAcl(intfId, aclKey, *phyIntf, direct && shouldDoRaclSharing(intfId));
}

void AclPolicySm::addAcl(const Zamu::IntfId& intfId, const Ovin::AclKey& aclKey,
                         const PhyIntfMapping& wanted, bool shared) {
    Vorn::Ptr<IntfAclStatus> contribution = intfAclStatus(intfId);
    const AclParentIntfSet* found = contribution ? contribution->aclKey(aclKey) : nullptr;
    // In effect through every wanted parent already: a review that looks at an unchanged ACL
    // writes nothing.
    if (found &&
        std::all_of(wanted.parentIntfId().begin(), wanted.parentIntfId().end(),
                    [&](const Zamu::IntfId& p) { return found->parentIntfId().contains(p); }))
        return;
    if (!contribution)
        contribution = intfAclStatusIs(intfId);
    AclParentIntfSet parents = found ? *found : AclParentIntfSet();
    // The status writes reach the mapping machine only, which never writes the index: the
    // parent set is walked in place.
    for (const Zamu::IntfId& parent : wanted.parentIntfId()) {
        if (parents.parentIntfId().contains(parent))
            continue;
        const Path path = pathOf(intfId, parent);
        parents.parentIntfId().insert(parent);
        switch (path) {
            case Path::phy:
                addPhyIntf(intfId, aclKey, shared);
                break;
            case Path::vlan:
                addVlanIntf(intfId, parent, aclKey);
                break;
            case Path::sub:
                addSubIntf(intfId, parent, aclKey);
                break;
        }
    }
    contribution->aclKeyIs(aclKey, std::move(parents));
}

void AclPolicySm::addPhyIntf(const Zamu::IntfId& intfId, const Ovin::AclKey& aclKey) {
    VORN_ASSERT(initialized());
    StatusWrites writes(*this);
    addPhyIntf(intfId, aclKey, shouldDoRaclSharing(intfId));
}

void AclPolicySm::addPhyIntf(const Zamu::IntfId& intfId, const Ovin::AclKey& aclKey, bool shared) {
    auto& entry =
        shared ? statusEdit_->routedPortSharedAclMapping() : statusEdit_->intfAclMapping();
    // The look-up only picks the trace line: adding a key already there changes nothing.
    if (th.enabled(8) && entry.has(intfId, aclKey)) {
        FLINQ(th, 8, "    redundant entry");
        return;
    }
    FLINQ(th, 8,
          "        adding " << aclKey << " " << intfId
                            << (shared ? " to routedPortSharedAclMapping" : " to intfAclMapping"));
    entry.add(intfId, aclKey);
}

void AclPolicySm::addVlanIntf(const Zamu::IntfId& intfId, const Zamu::IntfId& vlanIntfId,
                              const Ovin::AclKey& aclKey) {
    VORN_ASSERT(initialized());
    StatusWrites writes(*this);
    const Bridging::VlanId vlan = Zamu::VlanIntfId::vlanId(vlanIntfId);
    auto& entry = statusEdit_->vlanAclMapping();
    entry.memberAdd(vlan, intfId);
    if (th.enabled(8) && entry.has(vlan, aclKey)) {  // as in addPhyIntf
        FLINQ(th, 8, "        adding vlanId " << vlan << " " << aclKey << " already added");
    } else {
        FLINQ(th, 8, "        adding vlanId " << vlan << " " << aclKey << " to vlanAclMapping");
        entry.add(vlan, aclKey);
    }
    vlanAclPhyIntfStatusIs(vlan)->aclKeyIs(aclKey)->phyIntfIs(intfId);
}

void AclPolicySm::addSubIntf(const Zamu::IntfId& intfId, const Zamu::IntfId& subIntfId,
                             const Ovin::AclKey& aclKey) {
    VORN_ASSERT(initialized());
    VORN_ASSERT_MSG(!Zamu::PortChannelIntfId::isPortChannelIntfId(subIntfId),
                    "Unexpected port-channel parent interface");
    StatusWrites writes(*this);
    auto& entry = statusEdit_->subIntfAclMapping();
    if (th.enabled(8) && entry.has(subIntfId, aclKey)) {  // as in addPhyIntf
        FLINQ(th, 8, "        adding " << subIntfId << " " << aclKey << " already added");
    } else {
        FLINQ(th, 8, "        adding " << subIntfId << " " << aclKey << " to subIntfAclMapping");
        entry.add(subIntfId, aclKey);
    }
    subIntfAclPhyIntfStatusIs(subIntfId)->aclKeyIs(aclKey)->phyIntfIs(intfId);
}

void AclPolicySm::deletePhyIntf(const Zamu::IntfId& intfId, const Ovin::AclKey& aclKey) {
    VORN_ASSERT(initialized());
    StatusWrites writes(*this);
    auto& intfs = statusEdit_->intfAclMapping();
    auto& routed = statusEdit_->routedPortSharedAclMapping();
    const size_t intfAclColl = intfs.keys(intfId);
    const size_t routedIntfAclColl = routed.keys(intfId);
    VORN_ASSERT(!!intfAclColl != !!routedIntfAclColl);
    auto removeKey = [&](auto& mapping) {
        mapping.remove(intfId, aclKey);
        return mapping.keys(intfId) == 0;
    };
    if (intfAclColl) {
        const bool gone = removeKey(intfs);
        FLINQ(th, 8,
              "        removing " << aclKey << " " << intfId << " from intfAclMapping"
                                  << (gone ? ", deleting intfAclMapping" : ""));
    } else {
        const bool gone = removeKey(routed);
        FLINQ(th, 8,
              "        removing " << aclKey << " " << intfId << " from routedPortSharedAclMapping"
                                  << (gone ? ", deleting routedPortSharedAclMapping" : ""));
    }
}

void AclPolicySm::deleteVlanIntf(const Zamu::IntfId& intfId, const Zamu::IntfId& vlanIntfId,
                                 const Ovin::AclKey& aclKey) {
    VORN_ASSERT(initialized());
    StatusWrites writes(*this);
    const Bridging::VlanId vlan = Zamu::VlanIntfId::vlanId(vlanIntfId);
    Vorn::Ptr<VlanAclPhyIntfColl> vlanAclPhyIntf = vlanAclPhyIntfStatus(vlan);
    auto& mapping = statusEdit_->vlanAclMapping();
    const size_t entry = mapping.keys(vlan);
    VORN_ASSERT(vlanAclPhyIntf && entry);
    // The key leaves the VLAN only with the last member that contributed it.
    const bool lastMember = vlanAclPhyIntf->aclKeyDelMember(aclKey, [&](AclPhyIntfSet& members) {
        members.phyIntfDel(intfId);
        return members.phyIntfs();
    });
    if (lastMember) {
        FLINQ(th, 8, "        removing vlanId " << vlan << " " << aclKey << " from vlanAclMapping");
        mapping.remove(vlan, aclKey);
    } else {
        FLINQ(th, 8,
              "        not removing vlanId " << vlan << " " << aclKey << " from vlanAclMapping");
    }
    // The member port stays listed while it still contributes another key.
    bool contributes = false;
    for (const auto& [key, members] : vlanAclPhyIntf->aclKey())
        contributes = contributes || members->phyIntf(intfId);
    if (!contributes)
        mapping.memberRemove(vlan, intfId);
    // The edit deletes the VLAN's entry once it holds no key.
    if (!mapping.keys(vlan)) {
        FLINQ(th, 8, "        no more acls on vlanId " << vlan << ", deleting vlanAclMapping");
        VORN_ASSERT(!vlanAclPhyIntf->aclKeys());
        vlanAclPhyIntfStatusDel(vlan);
    }
}

void AclPolicySm::deleteSubIntf(const Zamu::IntfId& intfId, const Zamu::IntfId& subIntfId,
                                const Ovin::AclKey& aclKey) {
    VORN_ASSERT(initialized());
    StatusWrites writes(*this);
    Vorn::Ptr<SubIntfAclPhyIntfColl> subAclPhyIntf = subIntfAclPhyIntfStatus(subIntfId);
    auto& mapping = statusEdit_->subIntfAclMapping();
    const size_t entry = mapping.keys(subIntfId);
    VORN_ASSERT(subAclPhyIntf && entry);
    // The key leaves the sub-interface only with the last carrier that contributed it.
    const bool lastCarrier = subAclPhyIntf->aclKeyDelMember(aclKey, [&](AclPhyIntfSet& carriers) {
        carriers.phyIntfDel(intfId);
        return carriers.phyIntfs();
    });
    if (lastCarrier) {
        FLINQ(th, 8,
              "        removing " << subIntfId << " " << aclKey << " from subIntfAclMapping");
        mapping.remove(subIntfId, aclKey);
    } else {
        FLINQ(th, 8,
              "        not removing " << subIntfId << " " << aclKey << " from subIntfAclMapping");
    }
    // The edit deletes the sub-interface's entry once it holds no key.
    if (!mapping.keys(subIntfId)) {
        FLINQ(th, 8, "        no more acls on " << subIntfId << ", deleting subIntfAclMapping");
        VORN_ASSERT(!subAclPhyIntf->aclKeys());
        subIntfAclPhyIntfStatusDel(subIntfId);
    }
}

void AclPolicySm::deleteIntfStatus(const Zamu::IntfId& intfId) {
    VORN_ASSERT(initialized());
    reviewedPolicy_.erase(intfId);
    Vorn::Ptr<IntfAclStatus> contribution = intfAclStatus(intfId);
    if (!contribution)
        return;
    StatusWrites writes(*this);
    IntfReview nothing;
    nothing.sharedBefore = aclPolicyStatus()->routedPortSharedAclMapping(intfId) != nullptr;
    for (const Ovin::AclKey& key : contribution->aclKey().sortedKeys())
        withdrawAcl(intfId, key, nullptr, nothing);
}

void AclPolicySm::withdrawAcl(const Zamu::IntfId& intfId, const Ovin::AclKey& aclKey,
                              const PhyIntfMapping* wanted, const IntfReview& review) {
    Vorn::Ptr<IntfAclStatus> contribution = intfAclStatus(intfId);
    const AclParentIntfSet* recorded = contribution ? contribution->aclKey(aclKey) : nullptr;
    if (!recorded)
        return;
    // What the interface contributed is withdrawn as it was recorded: the index may no longer
    // say how the ACL came. The interface's own ACLs are in one mapping; when they are to go
    // to the other, all go. The status writes below never touch intfAclStatus: the record is
    // read in place and replaced once.
    auto stays = [&](const Zamu::IntfId& parent) {
        return wanted && wanted->parentIntfId(parent) &&
               (pathOf(intfId, parent) != Path::phy || review.sharedBefore == review.sharedAfter);
    };
    // Most ACLs a review looks at stay as they are: nothing to build or write for them.
    if (std::all_of(recorded->parentIntfId().begin(), recorded->parentIntfId().end(), stays))
        return;
    AclParentIntfSet kept;
    for (const Zamu::IntfId& parent : recorded->parentIntfId()) {
        if (stays(parent)) {
            kept.parentIntfId().insert(parent);
            continue;
        }
        switch (pathOf(intfId, parent)) {
            case Path::phy:
                deletePhyIntf(intfId, aclKey);
                break;
            case Path::vlan:
                deleteVlanIntf(intfId, parent, aclKey);
                break;
            case Path::sub:
                deleteSubIntf(intfId, parent, aclKey);
                break;
        }
    }
    if (!kept.parentIntfId().empty()) {
        contribution->aclKeyIs(aclKey, std::move(kept));
        return;
    }
    contribution->aclKeyDel(aclKey);
    if (!contribution->aclKeys())
        intfAclStatusDel(intfId);
}

// ---- Reactions and life cycle -------------------------------------------------------------

void AclPolicySm::handleChipIntfMapping(Mirel::ChipId chipId) {
    VORN_ASSERT(initialized());
    FLINQ(th, 8, "Chip-" << chipId_ << " handleChipIntfMapping ChipId-" << chipId);
    VORN_ASSERT(chipId == chipId_);
    if (Vorn::Ptr<ChipIntfMapping> entry = index()->chipIntfMapping(chipId_)) {
        FLINQ(th, 8, "  chipIntfMapping is set");
        chipIntfMappingIs(entry);
        chipIntfMappingTaken_ = true;
        chipIntfSub_ =
            entry->intfIdNotify([this](const Zamu::IntfId& intf) { handleChipIntf(intf); });
    } else {
        FLINQ(th, 8, "  chipIntfMapping is removed");
        chipIntfSub_.reset();
        chipIntfMappingDel();
    }
    scheduleIntfAclPolicyReview();
}

void AclPolicySm::handleChipIntf(const Zamu::IntfId& intfId) {
    VORN_ASSERT(initialized());
    // An interface leaving the chip is reviewed as well: it has status to withdraw.
    FLINQ(th, 8, "Chip-" << chipId_ << " handleChipIntf " << intfId);
    scheduleIntfAclPolicyReview(intfId);
}

void AclPolicySm::handleAclPhyIntf(const Ovin::AclKey& aclKey, const Zamu::IntfId& intfId) {
    VORN_ASSERT(initialized());
    FLINQ(th, 8, "Chip-" << chipId_ << " handleAclPhyIntf " << aclKey << " " << intfId);
    scheduleAclReview(intfId, aclKey);
}

void AclPolicySm::handleChipAclColl(Vorn::Existing existing) {
    const Vorn::Ptr<ChipAclColl> entry = index()->chipAclMapping(chipId_);
    if (entry == chipAclColl_)
        return;
    FLINQ(th, 8, "Chip-" << chipId_ << " handleChipAclColl " << (entry ? "present" : "absent"));
    chipAclWatchers_.reset();
    chipAclColl_ = entry;
    if (!entry)
        return;
    // An ACL entry that comes or goes: each of its interfaces is reviewed, in order.
    auto reviewAll = [](const Ovin::AclKey&, ChipAclWatcher& watcher,
                        const Vorn::Ptr<AclIntfColl>&) { watcher.reviewAll(); };
    chipAclWatchers_ = std::make_unique<ChipAclWatchers>(
        entry->aclIntfMapping(),
        ChipAclWatchers::Hooks{
            .make =
                [this](const Ovin::AclKey& acl, const Vorn::Ptr<AclIntfColl>& e) {
                    return std::make_unique<ChipAclWatcher>(this, acl, e);
                },
            .added = reviewAll,
            .gone = reviewAll},
        existing);
}

void AclPolicySm::handleInitialized() {
    FLINQ(th, 8, "Chip-" << chipId_ << " handleInitialized");
    VORN_ASSERT(chipHwCapability());
    VORN_ASSERT(hwCapability());
    VORN_ASSERT(index());
    VORN_ASSERT(aclPolicyStatus());
    VORN_ASSERT(chipId() == chipHwCapability()->chipId());
    VORN_ASSERT(chipId() == aclPolicyStatus()->chipId());
    VORN_ASSERT(chipHwCapability()->aclTypeCombinationByPrioritys());
    chipAclWatchers_.reset();
    chipAclColl_ = nullptr;
    chipIntfMappingTaken_ = false;
    pending_.clear();
    reviewedPolicy_.clear();
    statusEdit_.emplace(aclPolicyStatus());
    StateMachine::handleInitialized();
    // An ACL's entry comes or goes here only when it first or last reaches a port (or the
    // attachment index is rebuilt); what happens under it reaches only the chips concerned.
    aclPhyIntfMappingSub_ = index()->aclPhyIntfMappingNotify([this](const Ovin::AclKey& acl) {
        if (ChipAclWatcher* w = chipAclWatchers_ ? chipAclWatchers_->find(acl) : nullptr)
            w->handleAclPhyIntfColl();
    });
    chipAclMappingSub_ = index()->chipAclMappingNotify([this](const Mirel::ChipId& chip) {
        if (chip == chipId_)
            handleChipAclColl(Vorn::Existing::add);
    });
    // The ACLs present now only get watchers: every interface of the chip is reviewed below.
    handleChipAclColl(Vorn::Existing::watch);
    chipIntfMappingSub_ = index()->chipIntfMappingNotify([this](const Mirel::ChipId& chip) {
        if (chip == chipId_)
            handleChipIntfMapping(chip);
    });
    handleChipIntfMapping(chipId_);
}

void AclPolicySm::handleDelete() {
    FLINQ(th, 8, "Chip-" << chipId_ << " handleDelete");
    chipAclMappingSub_.reset();
    aclPhyIntfMappingSub_.reset();
    chipAclWatchers_.reset();
    chipAclColl_ = nullptr;
    chipIntfMappingSub_.reset();
    chipIntfSub_.reset();
    chipIntfMappingDel();
    intfPolicyTimer_.expiryIs(Vorn::kInfinity);
    intfPolicyQueueDelAll();
    pending_.clear();
    reviewedPolicy_.clear();
    StateMachine::handleDelete();
}

Vorn::Ptr<AclPolicySm> aclPolicySmFactory(
    Mirel::ChipId chipId, const Vorn::Ptr<Mirel::ChipHwCapability>& chipHwCapability,
    const Vorn::Ptr<Mirel::HwCapability>& hwCapability, const Vorn::Ptr<Index>& index,
    const Vorn::Ptr<AclPolicyStatus>& aclPolicyStatus, Brix::TimerWheel& timerWheel) {
    return Vorn::make<AclPolicySm>(chipId, chipHwCapability, hwCapability, index, aclPolicyStatus,
                                   timerWheel);
}

Vorn::Ptr<AclPolicySmColl> aclPolicySmCollFactory(const Vorn::Name& name) {
    return Vorn::make<AclPolicySmColl>(name);
}

}  // namespace OvinMirel
