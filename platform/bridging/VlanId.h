#pragma once
// Bridging::VlanId: a VLAN number, 1 to 4094. Anything else is refused with the range error
// "VlanId::value < 1 or > 4094 not allowed".

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>

namespace Bridging {

class VlanId {
  public:
    static constexpr uint16_t kMin = 1;
    static constexpr uint16_t kMax = 4094;

    explicit VlanId(int64_t value);
    uint16_t value() const { return value_; }
    auto operator<=>(const VlanId&) const = default;
    bool operator==(const VlanId&) const = default;

  private:
    uint16_t value_;
};

inline std::ostream& operator<<(std::ostream& os, VlanId v) {
    return os << v.value();
}

}  // namespace Bridging

template <>
struct std::hash<Bridging::VlanId> {
    size_t operator()(Bridging::VlanId v) const noexcept { return v.value(); }
};
