#include "platform/logging/Logging.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "platform/flinq/Flinq.h"

namespace {

const Logging::MessageDef kPortDown{"LOGGING_TEST_PORT_DOWN", "Port %s is down, 100% sure",
                                    "The port lost its link.", "Check the cable."};
const Logging::MessageDef kAtEnd{"LOGGING_TEST_AT_END", "Ends with %s", "x",
                                 Logging::kNoActionRequired};

class LoggingTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Logging::registerMessage(kPortDown);
        Logging::registerMessage(kAtEnd);
    }
};

TEST_F(LoggingTest, FormatsTheArgumentIntoTheText) {
    struct Case {
        const Logging::MessageDef* def;
        std::string arg;
        std::string want;
    };
    const Case cases[] = {
        {&kPortDown, "Ethernet1", "Port Ethernet1 is down, 100% sure"},
        {&kPortDown, "", "Port  is down, 100% sure"},
        {&kPortDown, "%s", "Port %s is down, 100% sure"},  // the argument is not re-scanned
        {&kAtEnd, "Vlan7", "Ends with Vlan7"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.want);
        EXPECT_EQ(Logging::format(*c.def, c.arg), c.want);
    }
}

TEST_F(LoggingTest, LogGoesToTheInnermostCaptureAndToFlinq) {
    Flinq::Capture trace;
    Logging::Capture outer;
    Logging::log(kPortDown.id, "Ethernet1");
    {
        Logging::Capture inner;
        Logging::log(kAtEnd.id, "inner");
        EXPECT_EQ(inner.records(),
                  (std::vector<Logging::Record>{{"LOGGING_TEST_AT_END", "Ends with inner"}}));
    }
    Logging::log(kPortDown.id, "Ethernet2");
    EXPECT_EQ(outer.texts(kPortDown.id),
              (std::vector<std::string>{"Port Ethernet1 is down, 100% sure",
                                        "Port Ethernet2 is down, 100% sure"}));
    EXPECT_TRUE(outer.texts(kAtEnd.id).empty());
    EXPECT_TRUE(outer.has(kPortDown.id, "Port Ethernet2 is down, 100% sure"));
    EXPECT_FALSE(outer.has(kAtEnd.id, "Port Ethernet2 is down, 100% sure"));

    ASSERT_EQ(trace.lines().size(), 3u);
    EXPECT_EQ(trace.lines()[1].handle, "Logging");
    EXPECT_EQ(trace.lines()[1].level, 0);
    EXPECT_EQ(
        trace.texts("Logging"),
        (std::vector<std::string>{"LOGGING_TEST_PORT_DOWN: Port Ethernet1 is down, 100% sure",
                                  "LOGGING_TEST_AT_END: Ends with inner",
                                  "LOGGING_TEST_PORT_DOWN: Port Ethernet2 is down, 100% sure"}));
}

TEST_F(LoggingTest, RegistrationConflictsAndBadDefinitions) {
    // The same definition again is fine.
    EXPECT_NO_THROW(Logging::registerMessage(kPortDown));
    struct Case {
        const char* what;
        Logging::MessageDef def;
        const char* fragment;
    };
    const Case cases[] = {
        {"other text",
         {kPortDown.id, "Port %s went down", kPortDown.explanation, kPortDown.action},
         "already registered"},
        {"other explanation",
         {kPortDown.id, kPortDown.format, "?", kPortDown.action},
         "already registered"},
        {"other action",
         {kPortDown.id, kPortDown.format, kPortDown.explanation, "?"},
         "already registered"},
        {"empty id", {"", "x %s", "", ""}, "empty message id"},
        {"no argument", {"LOGGING_TEST_NO_ARG", "no argument", "", ""}, "exactly one %s"},
        {"two arguments", {"LOGGING_TEST_TWO", "%s and %s", "", ""}, "exactly one %s"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        try {
            Logging::registerMessage(c.def);
            ADD_FAILURE() << "registered";
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find(c.fragment), std::string::npos) << e.what();
        }
    }
    // The first definition stands; the refused ones left nothing behind.
    EXPECT_EQ(Logging::message(kPortDown.id), kPortDown);
    EXPECT_FALSE(Logging::isRegistered("LOGGING_TEST_NO_ARG"));
    EXPECT_FALSE(Logging::isRegistered("LOGGING_TEST_TWO"));
}

TEST_F(LoggingTest, UnknownIdIsAnError) {
    Logging::Capture cap;
    EXPECT_THROW(Logging::message("LOGGING_TEST_NEVER"), std::invalid_argument);
    EXPECT_THROW(Logging::log("LOGGING_TEST_NEVER", "x"), std::invalid_argument);
    EXPECT_TRUE(cap.records().empty());
}

}  // namespace
