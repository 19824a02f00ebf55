#pragma once
// OvinCapacity::TableCapacity: the capacity platform's published table of hardware table usage.
// Agents that own hardware tables write it through their capacity helper machines
// (Hardware::Capacity::CapacityHelperSm); the state database and the show commands read it.
//
//  - `capacityEntry`: one record per table of one chip (TableKey: table name and chip name),
//    with the table's used, free, committed and maximum entries;
//  - `featureMapping`: per table name, the features whose configuration takes entries of
//    that table (the same on every chip).

#include <compare>
#include <cstdint>
#include <ostream>

#include "platform/vorn/Entity.h"
#include "platform/vorn/Name.h"

namespace OvinCapacity {

struct TableKey {
    Vorn::String tableName;
    Vorn::String chipName;
    auto operator<=>(const TableKey&) const = default;
    bool operator==(const TableKey&) const = default;
};

// "EntryTable/Chip1"
std::ostream& operator<<(std::ostream& os, const TableKey& k);

// One table's figures. Committed counts the entries promised to configuration that is in
// force; a writer that reports only what is programmed gives committed == used.
struct CapacityEntry {
    uint32_t used = 0;
    uint32_t free = 0;
    uint32_t committed = 0;
    uint32_t max = 0;
    bool operator==(const CapacityEntry&) const = default;
};

// "used 3 free 4093 committed 3 max 4096"
std::ostream& operator<<(std::ostream& os, const CapacityEntry& e);

class FeatureMapping : public Vorn::Entity {
    VORN_ENTITY("OvinCapacity::FeatureMapping")
  public:
    explicit FeatureMapping(const Vorn::String& tableName) : tableName_(tableName) {}
    const Vorn::String& tableName() const { return tableName_; }

    VORN_ORDERED_SET(Vorn::String, feature)

  private:
    const Vorn::String tableName_;
};

class TableCapacity : public Vorn::Entity {
    VORN_ENTITY("OvinCapacity::TableCapacity")
  public:
    explicit TableCapacity(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    VORN_ORDERED_MAP(TableKey, CapacityEntry, capacityEntry)
    VORN_ORDERED_ENTITY_MAP(Vorn::String, FeatureMapping, featureMapping)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<TableCapacity> tableCapacityFactory(const Vorn::Name& name);

}  // namespace OvinCapacity
