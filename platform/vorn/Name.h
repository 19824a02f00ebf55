#pragma once
// Vorn::String is the framework's text type; Vorn::Name is the name an entity is created with
// (kept once in the process however many hold it: see Atom.h);
// Vorn::words joins what streams into one text (a checker's finding, say).

#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>

#include "platform/vorn/Atom.h"

namespace Vorn {

using String = std::string;

class Name {
  public:
    Name() = default;
    explicit Name(std::string_view s) : s_(s) {}
    Name(const char* s) : s_(s) {}

    const std::string& str() const { return s_.str(); }
    bool empty() const { return s_.empty(); }
    size_t hash() const { return s_.hash(); }
    auto operator<=>(const Name&) const = default;
    bool operator==(const Name&) const = default;

  private:
    Atom s_;
};

inline std::ostream& operator<<(std::ostream& os, const Name& n) {
    return os << n.str();
}

template <>
inline constexpr bool kTriviallyRelocatable<Name> = kTriviallyRelocatable<Atom>;

// The parts as they stream, one after the other: words("Chip-", 2, " has ", n, " ids").
template <class... Parts>
std::string words(const Parts&... parts) {
    std::ostringstream os;
    (os << ... << parts);
    return os.str();
}

}  // namespace Vorn

template <>
struct std::hash<Vorn::Name> {
    size_t operator()(const Vorn::Name& n) const noexcept {
        return n.hash();
    }
};
