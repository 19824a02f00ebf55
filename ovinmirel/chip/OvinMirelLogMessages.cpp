#include "ovinmirel/chip/OvinMirelLogMessages.h"

#include <string>

#include "platform/logging/Logging.h"

namespace OvinMirel {

void registerLogMessages() {
    // Registering an identical definition again is a no-op, so this is idempotent.
    Logging::registerMessage({
        std::string(kAclNotActiveOnInterface),
        "One or more ACLs not in effect on interface %s ",
        "The ACL is not applied on the interface due to contention with other ACLs applied on "
        "the same interface. The action is performed based on the priority of different types "
        "of ACLs as specified in the ACL limitation policy on the platform",
        "Remove contending ACLs applied on this interface",
    });
    Logging::registerMessage({
        std::string(kAclActiveOnInterface),
        "All ACLs applied on %s are now in effect",
        "All ACLs are applied to the interface successfully",
        Logging::kNoActionRequired,
    });
}

namespace {
// Registered at load time so that any code may log them without a set-up call.
[[maybe_unused]] const bool kRegistered = (registerLogMessages(), true);
}  // namespace

}  // namespace OvinMirel
