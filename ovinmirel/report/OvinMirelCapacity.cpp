#include "ovinmirel/report/OvinMirelCapacity.h"

#include <array>
#include <cmath>
#include <string>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelCapacity");

constexpr std::array<const char*, kCapacityTableCount> kTableNames = {
    "EntryTable",
    "RuleListIds",
    "AlgoMatch",
};

constexpr std::array<const char*, kCapacityFeatureCount> kFeatureStrs = {
    "Ipv4PortAcl", "Ipv4RouterAcl", "Ipv6PortAcl", "Ipv6RouterAcl", "MacAcl",
};

constexpr std::array<CapacityTableNames, kCapacityTableCount> kTables = {
    capacityEntryTable_,
    capacityRuleListIds_,
    capacityAlgoMatch_,
};

std::vector<Vorn::String> allTableNames() {
    return {kTableNames.begin(), kTableNames.end()};
}

// Where the driver reports each table: the root state machine writes all three when it loads
// a root.
const Mirel::TableUsage& usageOf(const Mirel::ChipPDStatus& status, CapacityTableNames t) {
    switch (t) {
        case capacityEntryTable_:
            return status.entryTableUsage();
        case capacityRuleListIds_:
            return status.ruleListIdsUsage();
        case capacityAlgoMatch_:
            return status.algoMatchUsage();
    }
    VORN_ASSERT_MSG(false, "false && \"Internal Error\"");
}

}  // namespace

const char* capacityTableName(CapacityTableNames t) {
    return uint32_t(t) < kTableNames.size() ? kTableNames[t] : nullptr;
}

std::ostream& operator<<(std::ostream& os, CapacityTableNames t) {
    if (const char* name = capacityTableName(t))
        return os << name;
    return os << uint32_t(t);
}

const char* capacityFeatureStr(CapacityFeatureStrs f) {
    return uint32_t(f) < kFeatureStrs.size() ? kFeatureStrs[f] : nullptr;
}

std::ostream& operator<<(std::ostream& os, CapacityFeatureStrs f) {
    if (const char* str = capacityFeatureStr(f))
        return os << str;
    return os << uint32_t(f);
}

std::vector<CapacityFeatureStrs> capacityTableFeatures(CapacityTableNames) {
    return {capacityFeatureIpv4PortAcl_, capacityFeatureIpv4RouterAcl_, capacityFeatureIpv6PortAcl_,
            capacityFeatureIpv6RouterAcl_, capacityFeatureMacAcl_};
}

Vorn::String chipToName(Mirel::ChipId chip) {
    return "Chip" + std::to_string(chip.value());
}

CapacitySm::CapacitySm(const Vorn::Ptr<OvinCapacity::TableCapacity>& tableCapacity,
                       Vorn::Clock& clock,
                       const Vorn::Ptr<const Mirel::RootConfigColl>& rootConfigColl,
                       const Vorn::Ptr<const Mirel::RootStatusColl>& rootStatusColl,
                       const Vorn::Ptr<const Mirel::HwCapabilityColl>& hwCapabilityColl,
                       const Vorn::Ptr<const Mirel::PDStatus>& pdStatus,
                       Brix::TimerWheel& timerWheel)
    : Hardware::Capacity::CapacityHelperSm(th, tableCapacity, allTableNames()),
      rootConfigColl_(required(rootConfigColl, "rootConfigColl")),
      rootStatusColl_(required(rootStatusColl, "rootStatusColl")),
      hwCapabilityColl_(required(hwCapabilityColl, "hwCapabilityColl")),
      pdStatus_(required(pdStatus, "pdStatus")),
      clock_(&clock),
      pollTimer_(timerWheel, [this] { handleClock(); }) {
    handleInitialized();
}

void CapacitySm::pollingIntervalIs(Vorn::Seconds interval) {
    if (!(interval > 0) || !std::isfinite(interval))
        Vorn::throwRangeError("CapacitySm::pollingInterval <= 0 not allowed");
    pollingInterval_ = interval;
}

uint32_t CapacitySm::entryTableRefCount(CapacityTableNames t) const {
    auto it = entryTableRefCount_.find(t);
    return it == entryTableRefCount_.end() ? 0 : it->second;
}

void CapacitySm::entryTableRefCountInc(CapacityTableNames t) {
    ++entryTableRefCount_[t];
}

uint32_t CapacitySm::entryTableRefCountDec(CapacityTableNames t) {
    auto it = entryTableRefCount_.find(t);
    VORN_ASSERT(it != entryTableRefCount_.end() && it->second > 0);
    return --it->second;
}

void CapacitySm::entryTableRefCountDel(CapacityTableNames t) {
    entryTableRefCount_.erase(t);
}

void CapacitySm::handleInitialized() {
    if (initialized())
        return;
    FLINQ(th, 2, "handleInitialized");
    StateMachine::handleInitialized();
    clearCapacityStatus();
    initCapacityTableFeatureMaps();
    chipPDStatusSub_ =
        pdStatus_->chipPDStatusNotify([this](const Mirel::ChipId& c) { handlePDStatus(c); });
    pollTimer_.expiryIs(clock_->now());
}

void CapacitySm::handleDelete() {
    FLINQ(th, 2, "handleDelete");
    chipPDStatusSub_.reset();
    pollTimer_.expiryIs(Vorn::kInfinity);
    StateMachine::handleDelete();
}

void CapacitySm::clearCapacityStatus() {
    FLINQ(th, 8, "clearCapacityStatus");
    delAllEntries();
    featureMappingDelAll();
    entryTableRefCount_.clear();
    mappedChip_.clear();
}

void CapacitySm::initCapacityTableFeatureMaps() {
    FLINQ(th, 8, "initCapacityTableFeatureMaps");
    for (const Mirel::ChipId& chip : pdStatus_->chipPDStatus().sortedKeys())
        maybeAddFeatureMapping(chip);
}

void CapacitySm::maybeAddFeatureMapping(Mirel::ChipId chip) {
    // A chip is mapped once, however often its entry is seen.
    if (!mappedChip_.insert(chip).second)
        return;
    for (CapacityTableNames t : kTables) {
        entryTableRefCountInc(t);
        FLINQ(th, 8,
              "Increment ref count for table: " << t << " feature mapping"
                                                << " ChipId: " << chip);
        if (entryTableRefCount(t) != 1)
            continue;
        FLINQ(th, 2,
              "Adding table: " << t << " to feature mapping"
                               << " ChipId: " << chip);
        std::vector<Vorn::String> features;
        for (CapacityFeatureStrs f : capacityTableFeatures(t))
            features.push_back(capacityFeatureStr(f));
        featureMappingIs(capacityTableName(t), features);
    }
}

void CapacitySm::maybeDelFeatureMapping(Mirel::ChipId chip) {
    if (mappedChip_.erase(chip) == 0)
        return;
    for (CapacityTableNames t : kTables) {
        FLINQ(th, 8,
              "Decrementing reference count for table: " << t << " feature mapping"
                                                         << " ChipId: " << chip);
        if (entryTableRefCountDec(t) != 0)
            continue;
        FLINQ(th, 2,
              "Removing table: " << t << " from feature mapping"
                                 << " ChipId: " << chip);
        entryTableRefCountDel(t);
        featureMappingDel(capacityTableName(t));
    }
}

void CapacitySm::handleClock() {
    FLINQ(th, 8, "handleClock");
    VORN_ASSERT(initialized());
    pollTimer_.expiryIs(Vorn::kInfinity);
    if (pdStatus_->chipPDStatus().empty())
        return;  // nothing to report; the next change of the chips arms the timer again
    updateCapacityTable();
    pollTimer_.expiryIs(clock_->now() + pollingInterval_);
}

void CapacitySm::updateCapacityTable() {
    FLINQ(th, 8, "Computing ___ Usage");
    // In chip order: the order of the writes shows to watchers of the table capacity.
    for (const Mirel::ChipId& chip : pdStatus_->chipPDStatus().sortedKeys()) {
        const Vorn::Ptr<const Mirel::ChipPDStatus> status = pdStatus_->chipPDStatus(chip);
        if (!status)
            continue;  // removed by a watcher of an earlier write
        const Vorn::String chipName = chipToName(chip);
        for (CapacityTableNames t : kTables) {
            if (!mappedChip_.contains(chip) || entryTableRefCount(t) == 0)
                continue;
            const Mirel::TableUsage usage = usageOf(*status, t);
            const uint32_t u = usage.inUse;
            const uint32_t m = usage.max;
            FLINQ(th, 8, "  Chip-" << chip << " " << t << " " << usage);
            // An overfull table (its maximum lowered below its use) has no room left.
            updateCapacityEntry({capacityTableName(t), chipName}, u, u <= m ? m - u : 0, u, m);
        }
    }
}

void CapacitySm::handlePDStatus(Mirel::ChipId chip) {
    FLINQ(th, 8, "Chip-" << chip << " handlePDStatus");
    VORN_ASSERT(initialized());
    if (pdStatus_->chipPDStatus(chip)) {
        maybeAddFeatureMapping(chip);
    } else {
        delEntries(chip);
        maybeDelFeatureMapping(chip);
    }
    pollTimer_.expiryIs(clock_->now());
}

void CapacitySm::delEntries(Mirel::ChipId chip) {
    FLINQ(th, 8, "  delEntries Chip-" << chip);
    delEntries(chipToName(chip));
}

Vorn::Ptr<CapacitySm> capacitySmFactory(
    const Vorn::Ptr<OvinCapacity::TableCapacity>& tableCapacity, Vorn::Clock& clock,
    const Vorn::Ptr<const Mirel::RootConfigColl>& rootConfigColl,
    const Vorn::Ptr<const Mirel::RootStatusColl>& rootStatusColl,
    const Vorn::Ptr<const Mirel::HwCapabilityColl>& hwCapabilityColl,
    const Vorn::Ptr<const Mirel::PDStatus>& pdStatus, Brix::TimerWheel& timerWheel) {
    return Vorn::make<CapacitySm>(tableCapacity, clock, rootConfigColl, rootStatusColl,
                                  hwCapabilityColl, pdStatus, timerWheel);
}

}  // namespace OvinMirel
