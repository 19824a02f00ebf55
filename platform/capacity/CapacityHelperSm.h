#pragma once
// Hardware::Capacity::CapacityHelperSm: the base of an agent's capacity reporting machine. It
// writes the agent's capacity records and feature mappings into the shared table capacity.
//
// Writes:  OvinCapacity::TableCapacity (capacityEntry and featureMapping), for the tables the
//          machine names at construction and no others, so that several agents may report
//          into one table capacity without touching each other's records.
// Timers:  none; a derived machine decides when to poll its hardware.
// Owns:    a shared reference to the table capacity.
// Invariant: every record it writes holds free <= max - used (0 when used is above max).

#include <cstdint>
#include <vector>

#include "platform/capacity/TableCapacity.h"
#include "platform/flinq/Flinq.h"
#include "platform/vorn/StateMachine.h"

namespace Hardware::Capacity {

class CapacityHelperSm : public Vorn::StateMachine {
  public:
    const Vorn::Ptr<OvinCapacity::TableCapacity>& tableCapacity() const { return tableCapacity_; }
    // The tables this machine reports, in the order it was given them.
    const std::vector<Vorn::String>& tableNames() const { return tableNames_; }
    bool reportsTable(const Vorn::String& tableName) const;

    // Publishes one table's figures (nothing changes when they are the ones published).
    // Refused with nothing written: a table this machine does not report
    // (std::invalid_argument "table '<name>' is not reported by <machine type>"), and free
    // space beyond what the table has left (Vorn::RangeException
    // "CapacityEntry::free > max - used not allowed").
    void updateCapacityEntry(const OvinCapacity::TableKey& key, uint32_t used, uint32_t free,
                             uint32_t committed, uint32_t max);
    void delCapacityEntry(const OvinCapacity::TableKey& key);
    // Deletes the records of one chip, for every table of this machine.
    void delEntries(const Vorn::String& chipName);
    // Deletes every record of this machine's tables.
    void delAllEntries();

    // The features that use a table: the table's mapping is created when absent and then
    // holds exactly these. Refused like updateCapacityEntry for a table not reported here.
    void featureMappingIs(const Vorn::String& tableName, const std::vector<Vorn::String>& features);
    void featureMappingDel(const Vorn::String& tableName);
    // Deletes the mappings of every table of this machine.
    void featureMappingDelAll();

  protected:
    // The table capacity is required (Vorn::NullPointerException naming it).
    CapacityHelperSm(Flinq::Handle& th, const Vorn::Ptr<OvinCapacity::TableCapacity>& tableCapacity,
                     std::vector<Vorn::String> tableNames);

  private:
    void requireReported(const Vorn::String& tableName) const;

    const Vorn::Ptr<OvinCapacity::TableCapacity> tableCapacity_;
    const std::vector<Vorn::String> tableNames_;
};

}  // namespace Hardware::Capacity
