#pragma once
// Addresses: IPv4/IPv6 addresses with masks, Ethernet (MAC) addresses, IP protocol numbers.

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

namespace Zamu {

// An IPv4 or IPv6 address. IPv4 uses the first 4 bytes.
class IpAddr {
  public:
    IpAddr() = default;
    // Parses dotted-quad or IPv6 text; throws std::invalid_argument "invalid IP address '<s>'".
    explicit IpAddr(std::string_view text);
    static IpAddr v4(uint32_t hostOrder);
    // The address whose bytes (4 for IPv4, 16 for IPv6, network order) start at `bytes`.
    static IpAddr fromBytes(bool v6, const uint8_t* bytes);
    // The mask of a prefix length (0..32 for IPv4, 0..128 for IPv6); the range error
    // "IpAddr::prefixLen out of range not allowed" otherwise.
    static IpAddr mask(bool v6, int prefixLen);

    bool isV6() const { return v6_; }
    int bits() const { return v6_ ? 128 : 32; }
    const std::array<uint8_t, 16>& bytes() const { return b_; }
    std::string str() const;
    IpAddr operator&(const IpAddr& m) const;
    // Whether the address read as a mask is contiguous ones then zeros; its length if so.
    bool isContiguousMask() const;
    int prefixLength() const;  // REQUIRES: isContiguousMask()

    auto operator<=>(const IpAddr&) const = default;
    bool operator==(const IpAddr&) const = default;

  private:
    bool v6_ = false;
    std::array<uint8_t, 16> b_{};
};

// An address matched under a mask (the mask need not be a prefix).
struct IpAddrWithMask {
    IpAddr addr;
    IpAddr mask;
    static IpAddrWithMask prefix(std::string_view addr, int prefixLen);
    bool isValidPrefix() const { return mask.isContiguousMask(); }
    // The subnet: the address with host bits cleared.
    IpAddrWithMask subnet() const { return {addr & mask, mask}; }
    auto operator<=>(const IpAddrWithMask&) const = default;
    bool operator==(const IpAddrWithMask&) const = default;
};

class EthAddr {
  public:
    EthAddr() = default;
    // "00:11:22:33:44:55" or "0011.2233.4455"; throws std::invalid_argument otherwise.
    explicit EthAddr(std::string_view text);
    static EthAddr fromBytes(const uint8_t* bytes);  // the 6 bytes at `bytes`
    const std::array<uint8_t, 6>& bytes() const { return b_; }
    std::string str() const;
    auto operator<=>(const EthAddr&) const = default;
    bool operator==(const EthAddr&) const = default;

  private:
    std::array<uint8_t, 6> b_{};
};

class IpProto {
  public:
    static constexpr uint8_t kIcmp = 1, kTcp = 6, kUdp = 17, kIcmp6 = 58, kAny = 0;
    constexpr IpProto() = default;
    constexpr IpProto(uint8_t v) : v_(v) {}
    constexpr uint8_t value() const { return v_; }
    // Whether packets of this protocol carry L4 ports.
    bool hasPorts() const { return v_ == kTcp || v_ == kUdp || v_ == 132 /* sctp */; }
    auto operator<=>(const IpProto&) const = default;
    bool operator==(const IpProto&) const = default;

  private:
    uint8_t v_ = 0;
};

std::ostream& operator<<(std::ostream& os, const IpAddr& a);
std::ostream& operator<<(std::ostream& os, const IpAddrWithMask& a);
std::ostream& operator<<(std::ostream& os, const EthAddr& a);
std::ostream& operator<<(std::ostream& os, IpProto p);

}  // namespace Zamu

template <>
struct std::hash<Zamu::IpProto> {
    size_t operator()(Zamu::IpProto p) const noexcept { return p.value(); }
};
