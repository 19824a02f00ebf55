#include "platform/ovin/AclKey.h"

#include <charconv>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace Ovin {

namespace {

[[noreturn]] void refuse(std::string_view text, const char* reason) {
    throw std::invalid_argument("invalid AclKey '" + std::string(text) + "': " + reason);
}

std::optional<Acl::AclType> typeOfWord(std::string_view word) {
    for (Acl::AclType t : {Acl::aclTypeIpv4, Acl::aclTypeIpv6, Acl::aclTypeMac}) {
        if (word == Acl::aclTypeName(t))
            return t;
    }
    return std::nullopt;
}

std::optional<Acl::AclDirection> directionOfWord(std::string_view word) {
    for (Acl::AclDirection d : {Acl::aclDirectionIn, Acl::aclDirectionOut}) {
        if (word == Acl::aclDirectionName(d))
            return d;
    }
    return std::nullopt;
}

// The part of `rest` before the next '/', and what follows it (starting at the '/').
std::pair<std::string_view, std::string_view> splitPart(std::string_view rest) {
    const size_t slash = rest.find('/');
    if (slash == std::string_view::npos)
        return {rest, {}};
    return {rest.substr(0, slash), rest.substr(slash)};
}

}  // namespace

std::string AclKey::str() const {
    std::string out = name;
    out.append("/")
        .append(Acl::aclTypeName(type))
        .append("/")
        .append(Acl::aclDirectionName(direction));
    if (vlanId)
        out.append("/vlan").append(std::to_string(vlanId->value()));
    if (flag)
        out.append("/flag");
    if (!tag.empty())
        out.append("/").append(tag.str());
    return out;
}

AclKey AclKey::fromStr(std::string_view text) {
    AclKey key;
    // After the name: "/<type>/<direction>", ending the text or followed by '/'.
    std::string_view rest;
    bool found = false;
    for (size_t at = text.find('/'); at != std::string_view::npos && !found;
         at = text.find('/', at + 1)) {
        auto [typeWord, afterType] = splitPart(text.substr(at + 1));
        const std::optional<Acl::AclType> type = typeOfWord(typeWord);
        if (!type || afterType.empty())
            continue;
        auto [directionWord, afterDirection] = splitPart(afterType.substr(1));
        const std::optional<Acl::AclDirection> direction = directionOfWord(directionWord);
        if (!direction)
            continue;
        key.name = std::string(text.substr(0, at));
        key.type = *type;
        key.direction = *direction;
        rest = afterDirection;
        found = true;
    }
    if (!found)
        refuse(text, "no /<ip|ipv6|mac>/<in|out> part");
    auto [part, after] = splitPart(rest.empty() ? rest : rest.substr(1));
    const std::string_view digits = part.starts_with("vlan") ? part.substr(4) : std::string_view();
    if (!digits.empty() && digits.find_first_not_of("0123456789") == std::string_view::npos) {
        int64_t vlan = 0;
        if (std::from_chars(digits.data(), digits.data() + digits.size(), vlan).ec != std::errc())
            refuse(text, "VLAN number too large");
        key.vlanId = Bridging::VlanId(vlan);
        rest = after;
        std::tie(part, after) = splitPart(rest.empty() ? rest : rest.substr(1));
    }
    if (part == "flag") {
        key.flag = true;
        rest = after;
    }
    if (!rest.empty()) {
        if (rest.size() == 1)
            refuse(text, "empty tag");
        key.tag = Vorn::Name(std::string(rest.substr(1)));
    }
    return key;
}

std::ostream& operator<<(std::ostream& os, const AclKey& k) {
    return os << k.str();
}

}  // namespace Ovin
