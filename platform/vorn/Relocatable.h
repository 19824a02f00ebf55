#pragma once
// Vorn::kTriviallyRelocatable<T>: an object of T may move to another address by a copy of its
// bytes, the old bytes then being forgotten rather than destroyed. True of trivially copyable
// types; a type that holds only such members and pointers to records that do not point back
// (Atom, Name, Ovin::AclKey) declares it, and the flat sets then shift members as raw bytes.

#include <type_traits>

namespace Vorn {

template <class T>
inline constexpr bool kTriviallyRelocatable = std::is_trivially_copyable_v<T>;

}  // namespace Vorn
