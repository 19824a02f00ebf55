#include "ovinmirel/chip/OvinMirelLogMessages.h"

#include <gtest/gtest.h>

#include "platform/logging/Logging.h"

namespace {

// The texts are what operators see and search for: they must not drift.
TEST(LoggingOvinMirelMessages, RegisteredTextsAreExact) {
    OvinMirel::registerLogMessages();
    OvinMirel::registerLogMessages();  // idempotent

    const Logging::MessageDef& notActive = Logging::message(OvinMirel::kAclNotActiveOnInterface);
    EXPECT_EQ(notActive.id, "ACL_NOT_ACTIVE_ON_INTERFACE");
    EXPECT_EQ(notActive.format, "One or more ACLs not in effect on interface %s ");
    EXPECT_EQ(notActive.explanation,
              "The ACL is not applied on the interface due to contention with other ACLs applied "
              "on the same interface. The action is performed based on the priority of different "
              "types of ACLs as specified in the ACL limitation policy on the platform");
    EXPECT_EQ(notActive.action, "Remove contending ACLs applied on this interface");

    const Logging::MessageDef& active = Logging::message(OvinMirel::kAclActiveOnInterface);
    EXPECT_EQ(active.id, "ACL_ACTIVE_ON_INTERFACE");
    EXPECT_EQ(active.format, "All ACLs applied on %s are now in effect");
    EXPECT_EQ(active.explanation, "All ACLs are applied to the interface successfully");
    EXPECT_EQ(active.action, "No action is required.");
}

}  // namespace
