#pragma once
// Flinq: per-module trace handles writing lines at levels 0 to 9 into a ring buffer backed by
// a file (see OvinMirel_flinqInitialize), and into an in-memory Capture that tests read.
//
// A line is formatted only when its level is enabled on its handle: FLINQ() costs one load
// and one branch when the level is off.
//
//   static Flinq::Handle th("OvinMirelGlueSm");
//   FLINQ(th, 8, "handleRootStatus RootSm-" << rootId);

#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Flinq {

constexpr int kMaxLevel = 9;
constexpr uint32_t kAllLevels = (1u << (kMaxLevel + 1)) - 1;

class Handle {
  public:
    // Handles live for the whole process (static storage); the name is the module's name.
    explicit Handle(const char* name);
    // Leaves the registry (a handle with a shorter life, e.g. in a test, must not dangle).
    ~Handle();
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    const char* name() const { return name_; }
    bool enabled(int level) const { return (mask_ >> level) & 1u; }
    // The levels this handle writes to the ring; a capture adds all levels on top.
    uint32_t ringLevels() const { return ringLevels_; }
    void ringLevelsIs(uint32_t mask);
    void write(int level, std::string_view text);

    // Internal: recomputes mask_ from the ring levels and the active sinks.
    void refresh();

  private:
    const char* name_;
    uint32_t ringLevels_ = kAllLevels;
    uint32_t mask_ = 0;
};

// Sets the ring levels of every handle whose name equals `name` ("*" for all of them).
// Handles registered later keep their own levels.
void ringLevelsIs(std::string_view name, uint32_t mask);

// The ring file (format and reader in FlinqRing.h). Its data area is 2^sizeLog2 bytes;
// kMinRingSizeLog2 <= sizeLog2 <= kMaxRingSizeLog2.
constexpr int kDefaultRingSizeLog2 = 24;
constexpr int kMinRingSizeLog2 = 12;
constexpr int kMaxRingSizeLog2 = 30;
// Creates (or truncates) the ring file at `path` and sends the handles' ring levels to it.
// An open ring is closed first. Throws std::invalid_argument for a bad size and
// std::runtime_error when the file cannot be created.
void openRing(const std::string& path, int sizeLog2 = kDefaultRingSizeLog2);
// Stops writing to the ring; the file stays readable. No-op when no ring is open.
void closeRing();
bool ringOpen();
// The path the open ring was opened with, empty when none is open.
std::string ringPath();

// One captured trace line.
struct Line {
    std::string handle;
    int level;
    std::string text;
};

// While alive, every line of every handle at every level is also recorded here (tests).
// Captures nest; the innermost one records.
class Capture {
  public:
    Capture();
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    const std::vector<Line>& lines() const { return lines_; }
    // The texts only, optionally of one handle, in order.
    std::vector<std::string> texts(std::string_view handle = {}) const;
    // Whether some line's text equals `text` exactly.
    bool has(std::string_view text) const;
    // Whether some line's text contains `fragment`.
    bool hasSubstring(std::string_view fragment) const;
    void clear() { lines_.clear(); }

    void record(const Handle& h, int level, std::string_view text);

  private:
    std::vector<Line> lines_;
    Capture* outer_;
};

}  // namespace Flinq

#define FLINQ(handle, level, expr)                    \
    do {                                              \
        if ((handle).enabled(level)) [[unlikely]] {   \
            std::ostringstream flinqOs_;              \
            flinqOs_ << expr;                         \
            (handle).write((level), flinqOs_.view()); \
        }                                             \
    } while (0)

// Tracing start-up, called by the agent when it loads the library.
//   FLINQ_DISABLE set (any value): does nothing.
//   FQFILE set and non-empty: the ring is that path, as given.
//   else FLINQDIR set: "$FLINQDIR/OvinMirel.fq" ("OvinMirel.fq" in the working directory when
//     FLINQDIR is empty).
//   else: "OvinMirel-<pid>.fq" in the working directory.
// The ring's data area is 2^24 bytes. Does nothing when a ring is already open, so a second
// call neither reopens nor leaks. A file that cannot be created is reported on stderr and
// tracing goes on without a ring (this entry point cannot throw).
extern "C" void OvinMirel_flinqInitialize();
