#include "platform/zamu/Addr.h"

#include <arpa/inet.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <stdexcept>

#include "platform/vorn/Exception.h"

namespace Zamu {

IpAddr::IpAddr(std::string_view text) {
    std::string s(text);
    if (inet_pton(AF_INET, s.c_str(), b_.data()) == 1) {
        v6_ = false;
    } else if (inet_pton(AF_INET6, s.c_str(), b_.data()) == 1) {
        v6_ = true;
    } else {
        throw std::invalid_argument("invalid IP address '" + s + "'");
    }
}

IpAddr IpAddr::v4(uint32_t hostOrder) {
    IpAddr a;
    for (int i = 0; i < 4; ++i)
        a.b_[i] = static_cast<uint8_t>(hostOrder >> (24 - 8 * i));
    return a;
}

IpAddr IpAddr::fromBytes(bool v6, const uint8_t* bytes) {
    IpAddr a;
    a.v6_ = v6;
    std::copy_n(bytes, v6 ? 16 : 4, a.b_.begin());
    return a;
}

IpAddr IpAddr::mask(bool v6, int prefixLen) {
    IpAddr m;
    m.v6_ = v6;
    if (prefixLen < 0 || prefixLen > m.bits()) {
        Vorn::throwRangeError("IpAddr::prefixLen out of range not allowed");
    }
    std::fill_n(m.b_.begin(), prefixLen / 8, uint8_t(0xff));
    if (prefixLen % 8)
        m.b_[prefixLen / 8] = static_cast<uint8_t>(0xff00 >> (prefixLen % 8));
    return m;
}

std::string IpAddr::str() const {
    char buf[INET6_ADDRSTRLEN];
    inet_ntop(v6_ ? AF_INET6 : AF_INET, b_.data(), buf, sizeof buf);
    return buf;
}

IpAddr IpAddr::operator&(const IpAddr& m) const {
    IpAddr r = *this;
    for (size_t i = 0; i < r.b_.size(); ++i)
        r.b_[i] &= m.b_[i];
    return r;
}

bool IpAddr::isContiguousMask() const {
    // Ones, at most one byte that ends them, then zeros.
    const auto end = b_.begin() + bits() / 8;
    auto it = std::find_if(b_.begin(), end, [](uint8_t b) { return b != 0xff; });
    if (it == end)
        return true;
    const uint8_t ends = static_cast<uint8_t>(~*it);
    if ((ends & (ends + 1)) != 0)  // the byte's ones are not all in front
        return false;
    return std::all_of(it + 1, end, [](uint8_t b) { return b == 0; });
}

int IpAddr::prefixLength() const {
    const auto end = b_.begin() + bits() / 8;
    const auto it = std::find_if(b_.begin(), end, [](uint8_t b) { return b != 0xff; });
    const int n = static_cast<int>(it - b_.begin()) * 8;
    return it == end ? n : n + std::countl_one(*it);
}

IpAddrWithMask IpAddrWithMask::prefix(std::string_view addr, int prefixLen) {
    IpAddr a(addr);
    return {a, IpAddr::mask(a.isV6(), prefixLen)};
}

EthAddr::EthAddr(std::string_view text) {
    std::string s(text);
    unsigned v[6];
    char end;
    if (std::sscanf(s.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &v[0], &v[1], &v[2], &v[3], &v[4],
                    &v[5], &end) == 6) {
        for (int i = 0; i < 6; ++i)
            b_[i] = static_cast<uint8_t>(v[i]);
        return;
    }
    unsigned w[3];
    if (std::sscanf(s.c_str(), "%4x.%4x.%4x%c", &w[0], &w[1], &w[2], &end) == 3) {
        for (int i = 0; i < 3; ++i) {
            b_[2 * i] = static_cast<uint8_t>(w[i] >> 8);
            b_[2 * i + 1] = static_cast<uint8_t>(w[i]);
        }
        return;
    }
    throw std::invalid_argument("invalid MAC address '" + s + "'");
}

EthAddr EthAddr::fromBytes(const uint8_t* bytes) {
    EthAddr a;
    std::copy_n(bytes, a.b_.size(), a.b_.begin());
    return a;
}

std::string EthAddr::str() const {
    char buf[18];
    std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", b_[0], b_[1], b_[2], b_[3],
                  b_[4], b_[5]);
    return buf;
}

std::ostream& operator<<(std::ostream& os, const IpAddr& a) {
    return os << a.str();
}
std::ostream& operator<<(std::ostream& os, const IpAddrWithMask& a) {
    if (a.isValidPrefix())
        return os << a.addr << "/" << a.mask.prefixLength();
    return os << a.addr << "/" << a.mask;
}
std::ostream& operator<<(std::ostream& os, const EthAddr& a) {
    return os << a.str();
}
std::ostream& operator<<(std::ostream& os, IpProto p) {
    return os << int(p.value());
}

}  // namespace Zamu
