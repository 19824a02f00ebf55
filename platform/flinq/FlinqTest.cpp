#include "platform/flinq/Flinq.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include "platform/flinq/FlinqRing.h"
#include "platform/vorn/Clock.h"
#include "tests/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using TestSupport::TempDir;

// Sets or unsets one environment variable for the scope.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const std::optional<std::string>& value) : name_(name) {
        if (const char* old = std::getenv(name))
            old_ = old;
        set(value);
    }
    ~ScopedEnv() { set(old_); }

  private:
    void set(const std::optional<std::string>& v) {
        v ? ::setenv(name_, v->c_str(), 1) : ::unsetenv(name_);
    }
    const char* name_;
    std::optional<std::string> old_;
};

class ScopedCwd {
  public:
    explicit ScopedCwd(const fs::path& dir) : old_(fs::current_path()) { fs::current_path(dir); }
    ~ScopedCwd() { fs::current_path(old_); }

  private:
    fs::path old_;
};

// Every test leaves no ring open behind it.
class FlinqTest : public ::testing::Test {
  protected:
    void SetUp() override { Flinq::closeRing(); }
    void TearDown() override { Flinq::closeRing(); }
};

using FlinqEnv = FlinqTest;
using FlinqHandle = FlinqTest;
using FlinqCapture = FlinqTest;

enum class Dir { kUnset, kEmpty, kTemp };

struct EnvCase {
    const char* name;
    std::optional<std::string> disable;
    std::optional<std::string> fqfile;  // "@" stands for the temp directory
    Dir flinqdir;
    std::string expected;  // relative to the working directory (the temp one); "" = no ring
};

TEST_F(FlinqEnv, InitializeOpensTheRingTheEnvironmentNames) {
    const std::string pidName = "OvinMirel-" + std::to_string(::getpid()) + ".fq";
    const EnvCase cases[] = {
        {"disabled, even with a file named", "", "@/named.fq", Dir::kTemp, ""},
        {"FQFILE as given", std::nullopt, "@/named.fq", Dir::kTemp, "named.fq"},
        {"empty FQFILE is ignored", std::nullopt, "", Dir::kTemp, "d/OvinMirel.fq"},
        {"FLINQDIR: no pid, inside it", std::nullopt, std::nullopt, Dir::kTemp, "d/OvinMirel.fq"},
        {"FLINQDIR empty: no pid, here", std::nullopt, std::nullopt, Dir::kEmpty, "OvinMirel.fq"},
        {"no FLINQDIR: pid, here", std::nullopt, std::nullopt, Dir::kUnset, pidName},
    };
    for (const EnvCase& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir tmp;
        fs::create_directory(tmp.path() / "d");
        ScopedCwd cwd(tmp.path());
        std::optional<std::string> fqfile = c.fqfile;
        if (fqfile && fqfile->starts_with("@"))
            fqfile = tmp.path().string() + fqfile->substr(1);
        std::optional<std::string> dir;
        if (c.flinqdir == Dir::kEmpty)
            dir = "";
        if (c.flinqdir == Dir::kTemp)
            dir = (tmp.path() / "d").string();
        ScopedEnv e1("FLINQ_DISABLE", c.disable);
        ScopedEnv e2("FQFILE", fqfile);
        ScopedEnv e3("FLINQDIR", dir);

        OvinMirel_flinqInitialize();
        if (c.expected.empty()) {
            EXPECT_FALSE(Flinq::ringOpen());
            EXPECT_EQ(Flinq::ringPath(), "");
            EXPECT_TRUE(fs::is_empty(tmp.path() / "d"));
            const auto entries = std::distance(fs::directory_iterator(tmp.path()), {});
            EXPECT_EQ(entries, 1) << "only the directory d, no ring file";
            continue;
        }
        ASSERT_TRUE(Flinq::ringOpen());
        const fs::path file = tmp.path() / c.expected;
        EXPECT_TRUE(fs::equivalent(Flinq::ringPath(), file)) << Flinq::ringPath();
        ASSERT_TRUE(fs::exists(file));
        EXPECT_EQ(fs::file_size(file), sizeof(Flinq::RingHeader) + (uint64_t{1} << 24));
        static Flinq::Handle th("FlinqEnvTest");
        FLINQ(th, 4, "opened by " << c.name);
        const std::vector<Flinq::RingRecord> got = Flinq::readRing(file.string());
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].text, std::string("opened by ") + c.name);
        Flinq::closeRing();
    }
}

TEST_F(FlinqEnv, SecondInitializeKeepsTheFirstRing) {
    TempDir tmp;
    ScopedEnv e1("FLINQ_DISABLE", std::nullopt);
    ScopedEnv e3("FLINQDIR", std::nullopt);
    {
        ScopedEnv e2("FQFILE", tmp.file("first.fq"));
        OvinMirel_flinqInitialize();
    }
    ScopedEnv e2("FQFILE", tmp.file("second.fq"));
    OvinMirel_flinqInitialize();
    EXPECT_EQ(Flinq::ringPath(), tmp.file("first.fq"));
    EXPECT_FALSE(fs::exists(tmp.file("second.fq")));
}

TEST_F(FlinqEnv, UncreatableFileLeavesTracingWithoutRing) {
    TempDir tmp;
    ScopedEnv e1("FLINQ_DISABLE", std::nullopt);
    ScopedEnv e2("FQFILE", tmp.file("missing/dir/x.fq"));
    ::testing::internal::CaptureStderr();
    OvinMirel_flinqInitialize();
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_FALSE(Flinq::ringOpen());
    EXPECT_NE(err.find("missing/dir/x.fq"), std::string::npos) << err;
}

TEST_F(FlinqHandle, DisabledLevelIsNotFormatted) {
    static Flinq::Handle th("FlinqLevelTest");
    TempDir tmp;
    int evaluated = 0;
    auto count = [&evaluated] { return ++evaluated; };

    // No sink at all: nothing is enabled, whatever the ring levels.
    for (int level = 0; level <= Flinq::kMaxLevel; ++level)
        EXPECT_FALSE(th.enabled(level));
    FLINQ(th, 0, "nobody listens " << count());
    EXPECT_EQ(evaluated, 0);

    Flinq::openRing(tmp.file("levels.fq"), 12);
    th.ringLevelsIs(0b0000000110);  // levels 1 and 2
    struct Step {
        int level;
        bool on;
    };
    for (Step s : {Step{0, false}, Step{1, true}, Step{2, true}, Step{3, false}, Step{9, false}}) {
        SCOPED_TRACE("level " + std::to_string(s.level));
        const int before = evaluated;
        EXPECT_EQ(th.enabled(s.level), s.on);
        FLINQ(th, s.level, "level " << s.level << " call " << count());
        EXPECT_EQ(evaluated, before + (s.on ? 1 : 0));
    }
    const std::vector<Flinq::RingRecord> got = Flinq::readRing(tmp.file("levels.fq"));
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].text, "level 1 call 1");
    EXPECT_EQ(got[1].text, "level 2 call 2");

    // Closing the ring turns the levels off again.
    Flinq::closeRing();
    EXPECT_FALSE(th.enabled(1));
    th.ringLevelsIs(Flinq::kAllLevels);
}

TEST_F(FlinqHandle, RingLevelsByName) {
    static Flinq::Handle a("FlinqNameTestA");
    static Flinq::Handle b("FlinqNameTestB");
    static Flinq::Handle a2("FlinqNameTestA");
    TempDir tmp;
    Flinq::openRing(tmp.file("names.fq"), 12);

    Flinq::ringLevelsIs("FlinqNameTestA", 0b1000);
    EXPECT_EQ(a.ringLevels(), 0b1000u);
    EXPECT_EQ(a2.ringLevels(), 0b1000u);
    EXPECT_EQ(b.ringLevels(), Flinq::kAllLevels);
    EXPECT_TRUE(a.enabled(3));
    EXPECT_FALSE(a.enabled(2));
    EXPECT_TRUE(b.enabled(2));

    Flinq::ringLevelsIs("*", 0);
    EXPECT_FALSE(a.enabled(3));
    EXPECT_FALSE(b.enabled(2));
    Flinq::ringLevelsIs("*", Flinq::kAllLevels);
    EXPECT_TRUE(b.enabled(9));

    EXPECT_THROW(Flinq::ringLevelsIs("*", 1u << (Flinq::kMaxLevel + 1)), std::invalid_argument);
    EXPECT_THROW(a.ringLevelsIs(~0u), std::invalid_argument);
    EXPECT_EQ(a.ringLevels(), Flinq::kAllLevels);
}

// The ring records the level, handle and virtual time; a capture adds every level for itself
// but the ring still gets only its levels.
TEST_F(FlinqHandle, RingRecordsWhatItsLevelsAllow) {
    static Flinq::Handle th("FlinqRingLineTest");
    Vorn::ScopedVirtualClock clock(12.5);
    TempDir tmp;
    Flinq::openRing(tmp.file("lines.fq"), 12);
    EXPECT_EQ(Flinq::ringPath(), tmp.file("lines.fq"));
    th.ringLevelsIs(0b1);
    {
        Flinq::Capture cap;
        EXPECT_TRUE(th.enabled(7));
        FLINQ(th, 0, "to both");
        clock->advance(0.25);
        FLINQ(th, 7, "to capture only");
        EXPECT_EQ(cap.texts(), (std::vector<std::string>{"to both", "to capture only"}));
    }
    EXPECT_FALSE(th.enabled(7));
    const std::vector<Flinq::RingRecord> got = Flinq::readRing(tmp.file("lines.fq"));
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].handle, "FlinqRingLineTest");
    EXPECT_EQ(got[0].level, 0);
    EXPECT_EQ(got[0].time, 12.5);
    EXPECT_EQ(got[0].text, "to both");

    // Reopening elsewhere moves the ring; the old file keeps what it had.
    Flinq::openRing(tmp.file("other.fq"), 12);
    FLINQ(th, 0, "second file");
    EXPECT_EQ(Flinq::readRing(tmp.file("lines.fq")).size(), 1u);
    EXPECT_EQ(Flinq::readRing(tmp.file("other.fq")).at(0).text, "second file");
    th.ringLevelsIs(Flinq::kAllLevels);
}

TEST_F(FlinqCapture, InnermostCaptureRecords) {
    static Flinq::Handle one("FlinqCaptureOne");
    static Flinq::Handle two("FlinqCaptureTwo");
    EXPECT_FALSE(one.enabled(5));
    Flinq::Capture outer;
    EXPECT_TRUE(one.enabled(5));
    FLINQ(one, 5, "a " << 1);
    {
        Flinq::Capture inner;
        FLINQ(two, 9, "b");
        FLINQ(one, 0, "c");
        ASSERT_EQ(inner.lines().size(), 2u);
        EXPECT_EQ(inner.lines()[0].handle, "FlinqCaptureTwo");
        EXPECT_EQ(inner.lines()[0].level, 9);
        EXPECT_EQ(inner.texts("FlinqCaptureOne"), std::vector<std::string>{"c"});
    }
    // Still on: the outer capture is alive.
    EXPECT_TRUE(two.enabled(2));
    FLINQ(two, 2, "d-long text");
    EXPECT_EQ(outer.texts(), (std::vector<std::string>{"a 1", "d-long text"}));
    EXPECT_EQ(outer.texts("FlinqCaptureTwo"), std::vector<std::string>{"d-long text"});
    EXPECT_TRUE(outer.has("a 1"));
    EXPECT_FALSE(outer.has("a"));
    EXPECT_FALSE(outer.has("b"));
    EXPECT_TRUE(outer.hasSubstring("long"));
    EXPECT_FALSE(outer.hasSubstring("c"));
}

// A handle made during a capture is on at once; one that dies leaves the registry.
TEST_F(FlinqCapture, HandlesComeAndGoDuringACapture) {
    {
        Flinq::Capture cap;
        Flinq::Handle local("FlinqLocalHandle");
        EXPECT_TRUE(local.enabled(6));
        FLINQ(local, 6, "local");
        EXPECT_TRUE(cap.has("local"));
    }
    // Both walk the registry: a dangling entry would be used here.
    Flinq::ringLevelsIs("FlinqLocalHandle", 0);
    Flinq::Capture again;
    EXPECT_TRUE(again.lines().empty());
}

TEST(FlinqCaptureDeathTest, CapturesEndInnermostFirst) {
    EXPECT_DEATH(
        {
            auto* outer = new Flinq::Capture;
            new Flinq::Capture;
            delete outer;
        },
        "s.capture == this");
}

}  // namespace
