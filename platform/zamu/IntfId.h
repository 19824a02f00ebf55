#pragma once
// Zamu::IntfId: an interface id, by its name: Ethernet ports ("Ethernet1", "Ethernet3/1",
// "Ethernet3/1/4"), port-channels ("Port-Channel10"), VLAN interfaces ("Vlan100") and
// sub-interfaces, written as their parent plus ".N" ("Ethernet3/1.100", "Port-Channel10.5").
//
// The id is packed into 64 bits so that comparing, hashing and copying it is as cheap as an
// integer; the packing also gives the order: by kind (Ethernet, Port-Channel, Vlan), then the
// numbers left to right, then the sub-interface number, so "Ethernet1" < "Ethernet1.5" <
// "Ethernet2" < "Ethernet10".
//
//   bits 61-63 kind   45-60 first number   33-44 second   25-32 third
//        23-24 how many numbers            0-22  sub-interface number (0: not a sub-interface)

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "platform/bridging/VlanId.h"

namespace Zamu {

class IntfId {
  public:
    enum class Kind : uint8_t { none = 0, ethernet = 1, portChannel = 2, vlan = 3 };
    static constexpr uint32_t kMaxFirst = 0xffff;
    static constexpr uint32_t kMaxSecond = 0xfff;
    static constexpr uint32_t kMaxThird = 0xff;
    static constexpr uint32_t kMaxSub = (1u << 23) - 1;

    IntfId() = default;  // the empty id, named ""
    // Parses a name; throws std::invalid_argument "invalid interface name '<name>'".
    explicit IntfId(std::string_view name);
    IntfId(const char* name) : IntfId(std::string_view(name)) {}

    static IntfId ethernet(uint32_t first, int64_t second = -1, int64_t third = -1);
    static IntfId portChannel(uint32_t n);
    static IntfId vlan(uint32_t vlan);
    static IntfId sub(IntfId parent, uint32_t n);

    std::string name() const;
    Kind kind() const { return static_cast<Kind>(raw_ >> 61); }
    bool isSub() const { return subNumber() != 0; }
    uint32_t subNumber() const { return static_cast<uint32_t>(raw_ & kMaxSub); }
    // The interface a sub-interface belongs to (itself when it is not a sub-interface).
    IntfId parent() const { return fromRaw(raw_ & ~uint64_t(kMaxSub)); }
    uint32_t first() const { return static_cast<uint32_t>((raw_ >> 45) & kMaxFirst); }
    uint64_t raw() const { return raw_; }
    static IntfId fromRaw(uint64_t raw) {
        IntfId i;
        i.raw_ = raw;
        return i;
    }
    bool empty() const { return raw_ == 0; }

    auto operator<=>(const IntfId&) const = default;
    bool operator==(const IntfId&) const = default;

  private:
    uint64_t raw_ = 0;
};

std::ostream& operator<<(std::ostream& os, const IntfId& i);

// The platform's kind tests.
struct EthIntfId {
    static bool isEthIntfId(const IntfId& i) {
        return i.kind() == IntfId::Kind::ethernet && !i.isSub();
    }
};
struct PortChannelIntfId {
    static bool isPortChannelIntfId(const IntfId& i) {
        return i.kind() == IntfId::Kind::portChannel && !i.isSub();
    }
};
struct VlanIntfId {
    static bool isVlanIntfId(const IntfId& i) { return i.kind() == IntfId::Kind::vlan; }
    // The VLAN of a VLAN interface; the range error when its number is not a VLAN id.
    static Bridging::VlanId vlanId(const IntfId& i) { return Bridging::VlanId(i.first()); }
};
struct SubIntfId {
    static bool isSubIntfId(const IntfId& i) { return i.isSub(); }
    static bool isPortChannelSubIntfId(const IntfId& i) {
        return i.isSub() && i.kind() == IntfId::Kind::portChannel;
    }
    static IntfId parentIntfId(const IntfId& i) { return i.parent(); }
};

}  // namespace Zamu

template <>
struct std::hash<Zamu::IntfId> {
    size_t operator()(const Zamu::IntfId& i) const noexcept {
        return std::hash<uint64_t>()(i.raw() * 0x9e3779b97f4a7c15ULL);
    }
};
