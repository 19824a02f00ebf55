#include "platform/capacity/CapacityHelperSm.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include "platform/vorn/Exception.h"

namespace Hardware::Capacity {

CapacityHelperSm::CapacityHelperSm(Flinq::Handle& th,
                                   const Vorn::Ptr<OvinCapacity::TableCapacity>& tableCapacity,
                                   std::vector<Vorn::String> tableNames)
    : Vorn::StateMachine(th), tableCapacity_(tableCapacity), tableNames_(std::move(tableNames)) {
    // typeName() is the concrete machine's only once its constructor runs, so the null
    // check names the base's attribute with the base's own name.
    Vorn::requireNonNull(tableCapacity_, "Hardware::Capacity::CapacityHelperSm", "tableCapacity");
}

bool CapacityHelperSm::reportsTable(const Vorn::String& tableName) const {
    return std::find(tableNames_.begin(), tableNames_.end(), tableName) != tableNames_.end();
}

void CapacityHelperSm::requireReported(const Vorn::String& tableName) const {
    if (!reportsTable(tableName))
        throw std::invalid_argument("table '" + tableName + "' is not reported by " +
                                    std::string(typeName()));
}

void CapacityHelperSm::updateCapacityEntry(const OvinCapacity::TableKey& key, uint32_t used,
                                           uint32_t free, uint32_t committed, uint32_t max) {
    requireReported(key.tableName);
    const uint32_t left = used < max ? max - used : 0;
    if (free > left)
        Vorn::throwRangeError("CapacityEntry::free > max - used not allowed");
    tableCapacity_->capacityEntryIs(key, {used, free, committed, max});
}

void CapacityHelperSm::delCapacityEntry(const OvinCapacity::TableKey& key) {
    tableCapacity_->capacityEntryDel(key);
}

void CapacityHelperSm::delEntries(const Vorn::String& chipName) {
    for (const Vorn::String& table : tableNames_)
        tableCapacity_->capacityEntryDel({table, chipName});
}

void CapacityHelperSm::delAllEntries() {
    // A copy of the keys: the walk deletes from the collection it walks.
    for (const OvinCapacity::TableKey& key : tableCapacity_->capacityEntry().keys()) {
        if (reportsTable(key.tableName))
            tableCapacity_->capacityEntryDel(key);
    }
}

void CapacityHelperSm::featureMappingIs(const Vorn::String& tableName,
                                        const std::vector<Vorn::String>& features) {
    requireReported(tableName);
    Vorn::Ptr<OvinCapacity::FeatureMapping> mapping = tableCapacity_->featureMappingIs(tableName);
    const std::set<Vorn::String> wanted(features.begin(), features.end());
    for (const Vorn::String& feature : mapping->feature().keys()) {
        if (!wanted.contains(feature))
            mapping->featureDel(feature);
    }
    for (const Vorn::String& feature : wanted)
        mapping->featureIs(feature);
}

void CapacityHelperSm::featureMappingDel(const Vorn::String& tableName) {
    tableCapacity_->featureMappingDel(tableName);
}

void CapacityHelperSm::featureMappingDelAll() {
    for (const Vorn::String& table : tableNames_)
        tableCapacity_->featureMappingDel(table);
}

}  // namespace Hardware::Capacity
