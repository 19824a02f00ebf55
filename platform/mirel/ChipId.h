#pragma once
// Mirel::ChipId: one forwarding chip, the key of every per-chip collection. Prints as its
// number; traces add "Chip-" or "ChipId-" themselves.

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>

namespace Mirel {

class ChipId {
  public:
    constexpr ChipId() = default;
    constexpr explicit ChipId(uint32_t v) : value_(v) {}
    constexpr uint32_t value() const { return value_; }
    auto operator<=>(const ChipId&) const = default;
    bool operator==(const ChipId&) const = default;

  private:
    uint32_t value_ = 0;
};

inline std::ostream& operator<<(std::ostream& os, ChipId c) {
    return os << c.value();
}

}  // namespace Mirel

template <>
struct std::hash<Mirel::ChipId> {
    size_t operator()(Mirel::ChipId c) const noexcept { return c.value(); }
};
