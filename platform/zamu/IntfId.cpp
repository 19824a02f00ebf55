#include "platform/zamu/IntfId.h"

#include <charconv>
#include <stdexcept>

namespace Zamu {

namespace {

constexpr std::string_view kEthernet = "Ethernet";
constexpr std::string_view kPortChannel = "Port-Channel";
constexpr std::string_view kVlan = "Vlan";

uint64_t pack(IntfId::Kind kind, uint32_t count, uint64_t a, uint64_t b, uint64_t c, uint64_t sub) {
    return (uint64_t(kind) << 61) | (a << 45) | (b << 33) | (c << 25) | (uint64_t(count) << 23) |
           sub;
}

[[noreturn]] void invalid(std::string_view name) {
    throw std::invalid_argument("invalid interface name '" + std::string(name) + "'");
}

// Reads a decimal number of at most `max` from the front of s.
bool number(std::string_view& s, uint32_t max, uint32_t& out) {
    if (s.empty() || s[0] < '0' || s[0] > '9')
        return false;
    auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), out);
    if (ec != std::errc() || out > max)
        return false;
    s.remove_prefix(static_cast<size_t>(p - s.data()));
    return true;
}

}  // namespace

IntfId::IntfId(std::string_view name) {
    if (name.empty())
        return;
    std::string_view s = name;
    Kind kind;
    if (s.starts_with(kEthernet)) {
        kind = Kind::ethernet;
        s.remove_prefix(kEthernet.size());
    } else if (s.starts_with(kPortChannel)) {
        kind = Kind::portChannel;
        s.remove_prefix(kPortChannel.size());
    } else if (s.starts_with(kVlan)) {
        kind = Kind::vlan;
        s.remove_prefix(kVlan.size());
    } else {
        invalid(name);
    }
    uint32_t n[3] = {0, 0, 0};
    const uint32_t max[3] = {kMaxFirst, kMaxSecond, kMaxThird};
    uint32_t count = 0;
    do {
        if (count > 0)
            s.remove_prefix(1);  // the '/'
        if (count == 3 || !number(s, max[count], n[count]))
            invalid(name);
        ++count;
    } while (!s.empty() && s[0] == '/' && kind == Kind::ethernet);
    uint32_t sub = 0;
    if (!s.empty() && s[0] == '.' && kind != Kind::vlan) {
        s.remove_prefix(1);
        if (!number(s, kMaxSub, sub) || sub == 0)
            invalid(name);
    }
    if (!s.empty())
        invalid(name);
    raw_ = pack(kind, count, n[0], n[1], n[2], sub);
}

IntfId IntfId::ethernet(uint32_t first, int64_t second, int64_t third) {
    std::string n = std::string(kEthernet) + std::to_string(first);
    // Appended piece by piece: a concatenated temporary trips g++ 12's -Wrestrict at -O2.
    for (const int64_t part : {second, third}) {
        if (part >= 0) {
            n += '/';
            n += std::to_string(part);
        }
    }
    return IntfId(n);
}

IntfId IntfId::portChannel(uint32_t n) {
    return IntfId(std::string(kPortChannel) + std::to_string(n));
}

IntfId IntfId::vlan(uint32_t vlan) {
    return IntfId(std::string(kVlan) + std::to_string(vlan));
}

IntfId IntfId::sub(IntfId parent, uint32_t n) {
    if (parent.isSub() || parent.kind() == Kind::vlan || parent.empty() || n == 0 || n > kMaxSub) {
        throw std::invalid_argument("invalid sub-interface " + parent.name() + "." +
                                    std::to_string(n));
    }
    return fromRaw(parent.raw_ | n);
}

std::string IntfId::name() const {
    if (empty())
        return {};
    std::string out;
    switch (kind()) {
        case Kind::ethernet:
            out = kEthernet;
            break;
        case Kind::portChannel:
            out = kPortChannel;
            break;
        case Kind::vlan:
            out = kVlan;
            break;
        case Kind::none:
            return {};
    }
    const uint32_t count = static_cast<uint32_t>((raw_ >> 23) & 3);
    const uint32_t n[3] = {first(), static_cast<uint32_t>((raw_ >> 33) & kMaxSecond),
                           static_cast<uint32_t>((raw_ >> 25) & kMaxThird)};
    for (uint32_t i = 0; i < count; ++i) {
        if (i)
            out += '/';
        out += std::to_string(n[i]);
    }
    if (isSub()) {
        out += '.';
        out += std::to_string(subNumber());
    }
    return out;
}

std::ostream& operator<<(std::ostream& os, const IntfId& i) {
    return os << i.name();
}

}  // namespace Zamu
