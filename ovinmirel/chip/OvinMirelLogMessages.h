#pragma once
// The log messages of the ACL layer. They are registered when the library loads;
// registerLogMessages() does it again harmlessly, for code that wants to be explicit.

#include <string_view>

namespace OvinMirel {

// Some ACL bound to an interface cannot be programmed alongside the others there.
inline constexpr std::string_view kAclNotActiveOnInterface = "ACL_NOT_ACTIVE_ON_INTERFACE";
// Every ACL bound to an interface is programmed again.
inline constexpr std::string_view kAclActiveOnInterface = "ACL_ACTIVE_ON_INTERFACE";

void registerLogMessages();

}  // namespace OvinMirel
