#include "platform/capacity/TableCapacity.h"

namespace OvinCapacity {

std::ostream& operator<<(std::ostream& os, const TableKey& k) {
    return os << k.tableName << "/" << k.chipName;
}

std::ostream& operator<<(std::ostream& os, const CapacityEntry& e) {
    return os << "used " << e.used << " free " << e.free << " committed " << e.committed << " max "
              << e.max;
}

Vorn::Ptr<TableCapacity> tableCapacityFactory(const Vorn::Name& name) {
    return Vorn::make<TableCapacity>(name);
}

}  // namespace OvinCapacity
