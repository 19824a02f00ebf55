#pragma once
// OvinMirel::CapacitySm: reports how full each chip's ACL tables are. For every chip the
// driver reports on, and for each of the three tables (the TCAM entry table, the chip rule
// list ids and the match transforms' class ids), it publishes used, free, committed and
// maximum entries in the table capacity, keyed by table and chip name ("Chip<n>"), and per
// table the features that use it.
//
// Watches: PDStatus.chipPDStatus (chips added and removed). The figures themselves are
//          polled: the root state machine writes a chip's table usage when it loads a root,
//          and the next poll publishes it.
// Writes:  TableCapacity records and feature mappings of its three tables (through the base,
//          CapacityHelperSm), and nothing else.
// Timer:   pollTimer, one one-shot timer on the given wheel. Each poll disarms it first and
//          re-arms it at now + pollingInterval only while the PD status holds some chip, so a
//          switch without chips costs nothing; any change of the chip entries arms it for
//          now, so a new chip's figures appear on the next pass (a departed chip's records go
//          at once).
// Invariants:
//  1. A chip's records exist only while it has a PD status: its records go with its entry.
//  2. entryTableRefCount(table) is the number of chips mapped onto the table's feature
//     mapping; the mapping exists exactly while that count is above 0. Adding a chip twice,
//     or removing one that was never added, changes nothing.
//  3. Every published record holds used + free == max and committed == used; a table whose
//     maximum shrank below its use is published as it is, with free 0.
// Owns:    shared references to the table capacity (written) and to the driver's root
//          configurations, root statuses, capability and PD status (read only). The figures
//          come from the PD status alone; the other driver references are held for the
//          agent's wiring. The clock and the wheel are borrowed and must outlive the machine.
//
// Timer wheel: the factory's six arguments are the agent's; the wheel is an optional seventh
// (the process-wide Brix::timerWheel() by default, the wheel of the test world in tests). The
// clock must be the clock that wheel runs on.

#include <cstdint>
#include <map>
#include <ostream>
#include <set>
#include <vector>

#include "platform/brix/TimerWheel.h"
#include "platform/capacity/CapacityHelperSm.h"
#include "platform/mirel/ChipId.h"
#include "platform/mirel/HwCapability.h"
#include "platform/mirel/PDStatus.h"
#include "platform/mirel/Root.h"
#include "platform/vorn/Clock.h"

namespace OvinMirel {

// The reported tables, in report order.
enum CapacityTableNames : uint8_t {
    capacityEntryTable_ = 0,   // "EntryTable": TCAM entries
    capacityRuleListIds_ = 1,  // "RuleListIds": chip rule list ids
    capacityAlgoMatch_ = 2,    // "AlgoMatch": match transform class ids
};
constexpr int kCapacityTableCount = 3;
// The table's name; nullptr for a value outside the enumeration, which prints as its number.
const char* capacityTableName(CapacityTableNames t);
std::ostream& operator<<(std::ostream& os, CapacityTableNames t);

// The features that can use a table: the ACL kinds of the hardware layer's table types.
enum CapacityFeatureStrs : uint8_t {
    capacityFeatureIpv4PortAcl_ = 0,    // "Ipv4PortAcl"
    capacityFeatureIpv4RouterAcl_ = 1,  // "Ipv4RouterAcl"
    capacityFeatureIpv6PortAcl_ = 2,    // "Ipv6PortAcl"
    capacityFeatureIpv6RouterAcl_ = 3,  // "Ipv6RouterAcl"
    capacityFeatureMacAcl_ = 4,         // "MacAcl"
};
constexpr int kCapacityFeatureCount = 5;
const char* capacityFeatureStr(CapacityFeatureStrs f);
std::ostream& operator<<(std::ostream& os, CapacityFeatureStrs f);
// The features of a table. Every ACL kind takes TCAM entries for its rules, one or two rule
// list ids, and class ids for the addresses, prefixes and port ranges it matches, so each
// table lists all five.
std::vector<CapacityFeatureStrs> capacityTableFeatures(CapacityTableNames t);

// "Chip" and the chip number in decimal: the chip half of a capacity record's key.
Vorn::String chipToName(Mirel::ChipId chip);

class CapacitySm final : public Hardware::Capacity::CapacityHelperSm {
    VORN_ENTITY("OvinMirel::CapacitySm")
  public:
    // Between two polls while some chip is present. Usage changes only when a root is loaded,
    // at most once per commit cycle; ten seconds keeps a show command's figures fresh at a
    // cost of one pass over the chips.
    static constexpr Vorn::Seconds kDefaultPollingInterval = 10.0;

    // Every reference is required (Vorn::NullPointerException naming it). Runs
    // handleInitialized(): the machine reports from construction on.
    CapacitySm(const Vorn::Ptr<OvinCapacity::TableCapacity>& tableCapacity, Vorn::Clock& clock,
               const Vorn::Ptr<const Mirel::RootConfigColl>& rootConfigColl,
               const Vorn::Ptr<const Mirel::RootStatusColl>& rootStatusColl,
               const Vorn::Ptr<const Mirel::HwCapabilityColl>& hwCapabilityColl,
               const Vorn::Ptr<const Mirel::PDStatus>& pdStatus, Brix::TimerWheel& timerWheel);

    Vorn::Clock& clock() const { return *clock_; }
    const Vorn::Ptr<const Mirel::RootConfigColl>& rootConfigColl() const { return rootConfigColl_; }
    const Vorn::Ptr<const Mirel::RootStatusColl>& rootStatusColl() const { return rootStatusColl_; }
    const Vorn::Ptr<const Mirel::HwCapabilityColl>& hwCapabilityColl() const {
        return hwCapabilityColl_;
    }
    const Vorn::Ptr<const Mirel::PDStatus>& pdStatus() const { return pdStatus_; }
    const Brix::Timer& pollTimer() const { return pollTimer_; }

    // Seconds between two polls; takes effect when the timer is next re-armed. Anything but a
    // finite number above 0 is refused with "CapacitySm::pollingInterval <= 0 not allowed".
    Vorn::Seconds pollingInterval() const { return pollingInterval_; }
    void pollingIntervalIs(Vorn::Seconds interval);

    // Per table: the chips mapped onto its feature mapping (0 when unmapped).
    uint32_t entryTableRefCount(CapacityTableNames t) const;
    size_t entryTableRefCounts() const { return entryTableRefCount_.size(); }
    bool featureMapped(Mirel::ChipId chip) const { return mappedChip_.contains(chip); }

    // Clears what a previous reporter left, maps every present chip, and polls on the next
    // pass. Again on an initialized machine: nothing.
    void handleInitialized() override;
    // Stops watching and disarms the timer; the published records stay until the next
    // machine's handleInitialized clears them.
    void handleDelete() override;

    // The poll. REQUIRES: initialized().
    void handleClock();
    // A chip's PD status came or went. REQUIRES: initialized().
    void handlePDStatus(Mirel::ChipId chip);

    void clearCapacityStatus();
    void initCapacityTableFeatureMaps();
    void maybeAddFeatureMapping(Mirel::ChipId chip);
    void maybeDelFeatureMapping(Mirel::ChipId chip);
    void updateCapacityTable();
    // Deletes the chip's records.
    using CapacityHelperSm::delEntries;
    void delEntries(Mirel::ChipId chip);

  private:
    void entryTableRefCountInc(CapacityTableNames t);
    // Returns the count left.
    uint32_t entryTableRefCountDec(CapacityTableNames t);
    void entryTableRefCountDel(CapacityTableNames t);

    const Vorn::Ptr<const Mirel::RootConfigColl> rootConfigColl_;
    const Vorn::Ptr<const Mirel::RootStatusColl> rootStatusColl_;
    const Vorn::Ptr<const Mirel::HwCapabilityColl> hwCapabilityColl_;
    const Vorn::Ptr<const Mirel::PDStatus> pdStatus_;
    Vorn::Clock* const clock_;
    Vorn::Seconds pollingInterval_ = kDefaultPollingInterval;
    std::map<CapacityTableNames, uint32_t> entryTableRefCount_;
    std::set<Mirel::ChipId> mappedChip_;

    // Declared after the references they use.
    Brix::Timer pollTimer_;
    Vorn::Subscription chipPDStatusSub_;
};

Vorn::Ptr<CapacitySm> capacitySmFactory(
    const Vorn::Ptr<OvinCapacity::TableCapacity>& tableCapacity, Vorn::Clock& clock,
    const Vorn::Ptr<const Mirel::RootConfigColl>& rootConfigColl,
    const Vorn::Ptr<const Mirel::RootStatusColl>& rootStatusColl,
    const Vorn::Ptr<const Mirel::HwCapabilityColl>& hwCapabilityColl,
    const Vorn::Ptr<const Mirel::PDStatus>& pdStatus,
    Brix::TimerWheel& timerWheel = Brix::timerWheel());

}  // namespace OvinMirel
