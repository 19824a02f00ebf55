#pragma once
// Typed exceptions for bad input: a value out of range, a null reference given to a mutator,
// an entity re-created with different constructor parameters. The text is the system's fixed
// text; the operation that throws leaves nothing half-written.

#include <stdexcept>
#include <string>
#include <string_view>

namespace Vorn {

class RangeException : public std::range_error {
  public:
    using std::range_error::range_error;
};

class NullPointerException : public std::invalid_argument {
  public:
    using std::invalid_argument::invalid_argument;
};

class ReinstantiationException : public std::invalid_argument {
  public:
    using std::invalid_argument::invalid_argument;
};

[[noreturn]] void throwRangeError(std::string text);

// Throws ReinstantiationException "Reinstantiating the entity with fullName <fullName> where
// constructor parameter attribute '<attr>' has a different value of <value> (it holds
// <held>)": an entity asked for again with other constructor parameters than it was made with.
[[noreturn]] void throwReinstantiation(std::string_view fullName, std::string_view attr,
                                       std::string_view value, std::string_view held);

// Throws ReinstantiationException "Reinstantiating the pointer interface where constructor
// parameter attribute _<attr> has a different value of <value>": a state machine asked for
// again with another reference than the one it holds.
[[noreturn]] void throwPointerReinstantiation(std::string_view attr, std::string_view value);

// Throws NullPointerException "null _<attr> parameter to mutator for <owner>::<attr> not
// allowed" when p is null.
[[noreturn]] void throwNullMutatorArgument(std::string_view owner, std::string_view attr);
template <class P>
void requireNonNull(const P& p, std::string_view owner, std::string_view attr) {
    if (!p)
        throwNullMutatorArgument(owner, attr);
}

}  // namespace Vorn
