#include "platform/flinq/FlinqRing.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "platform/flinq/Flinq.h"
#include "tests/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using TestSupport::TempDir;

// The text of line `seq` in the wrap tests: its length varies with the pattern.
std::string lineText(uint64_t seq, int pattern) {
    std::string text = "line " + std::to_string(seq);
    switch (pattern) {
        case 0:
            break;  // short, nearly constant
        case 1:
            text.append(seq * 7 % 61, 'a' + static_cast<char>(seq % 26));  // varying
            break;
        default:
            text.append(5000, 'x');  // always cut to the longest record
            break;
    }
    return text;
}

void patchFile(const std::string& path, off_t offset, const void* bytes, size_t n) {
    int fd = ::open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pwrite(fd, bytes, n, offset), static_cast<ssize_t>(n));
    ::close(fd);
}

Flinq::RingHeader headerOf(const std::string& path) {
    Flinq::RingHeader h{};
    int fd = ::open(path.c_str(), O_RDONLY);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(::pread(fd, &h, sizeof h, 0), static_cast<ssize_t>(sizeof h));
    ::close(fd);
    return h;
}

struct WrapCase {
    const char* name;
    int sizeLog2;
    int pattern;
    uint64_t lines;
};

// Keeps test listings readable (the case's name instead of its bytes).
void PrintTo(const WrapCase& c, std::ostream* os) {
    *os << c.name;
}

class FlinqRingWrap : public ::testing::TestWithParam<WrapCase> {};

// After every line, the reader sees a contiguous run of the newest lines ending with the one
// just written, each intact, and the ring is not wasting more than the slack of one record.
// The reader opens the file while the writer holds it: a line is in the file as soon as it
// is written, so a writer that dies keeps what it wrote.
TEST_P(FlinqRingWrap, ReaderSeesNewestLinesOldestFirst) {
    const WrapCase c = GetParam();
    TempDir dir;
    const std::string path = dir.file("wrap.fq");
    Flinq::RingWriter w(path, c.sizeLog2);
    const size_t maxText = w.maxTextLength(std::strlen("Mod"));
    auto recordSize = [](size_t textLength) {
        return (sizeof(Flinq::RecordHeader) + 3 + textLength + 7) / 8 * 8;
    };
    uint64_t firstSeen = 0;
    uint64_t largest = 0;
    for (uint64_t seq = 0; seq < c.lines; ++seq) {
        SCOPED_TRACE("after line " + std::to_string(seq));
        const std::string text = lineText(seq, c.pattern);
        largest = std::max<uint64_t>(largest, recordSize(std::min(text.size(), maxText)));
        w.append(0.5 * seq, static_cast<int>(seq % 10), "Mod", text);
        std::vector<Flinq::RingRecord> got = Flinq::readRing(path);
        ASSERT_FALSE(got.empty());
        ASSERT_EQ(got.back().seq, seq);
        ASSERT_EQ(got.front().seq + got.size() - 1, seq);
        // The oldest line only moves forward.
        ASSERT_GE(got.front().seq, firstSeen);
        firstSeen = got.front().seq;
        uint64_t live = 0;
        for (const Flinq::RingRecord& r : got) {
            std::string want = lineText(r.seq, c.pattern).substr(0, maxText);
            ASSERT_EQ(r.text, want) << "seq " << r.seq;
            ASSERT_EQ(r.handle, "Mod");
            ASSERT_EQ(r.level, static_cast<int>(r.seq % 10));
            ASSERT_EQ(r.time, 0.5 * r.seq);
            live += recordSize(r.text.size());
        }
        if (got.front().seq > 0) {
            // Something was overwritten, so the ring is full but for the gap left by the last
            // record dropped and the unused end of a lap: less than a record each.
            ASSERT_GT(live + 2 * largest, w.dataSize());
        }
    }
    EXPECT_GT(firstSeen, 0u) << "the test must make the ring wrap";
}

INSTANTIATE_TEST_SUITE_P(FlinqShapes, FlinqRingWrap,
                         ::testing::Values(WrapCase{"Short4k", 12, 0, 1500},
                                           WrapCase{"Varying4k", 12, 1, 1500},
                                           WrapCase{"Varying8k", 13, 1, 2500},
                                           WrapCase{"Longest4k", 12, 2, 60}),
                         [](const ::testing::TestParamInfo<WrapCase>& i) { return i.param.name; });

// An empty ring has no lines. A record half-written when the writer died (its header claims the
// next number but the checksum does not match) is not a line.
TEST(FlinqRing, TornLastRecordIsIgnored) {
    TempDir dir;
    const std::string path = dir.file("torn.fq");
    {
        // Not wrapped yet: the space after head is free, as the writer would have made it.
        Flinq::RingWriter w(path, 12);
        EXPECT_TRUE(Flinq::readRing(path).empty());
        for (int i = 0; i < 50; ++i)
            w.append(i, 2, "Mod", "line " + std::to_string(i));
    }
    const std::vector<Flinq::RingRecord> before = Flinq::readRing(path);
    ASSERT_FALSE(before.empty());
    const Flinq::RingHeader h = headerOf(path);
    Flinq::RecordHeader torn{};
    torn.magic = Flinq::kRecordMagic;
    torn.length = 64;
    torn.seq = h.nextSeq;
    torn.textLength = 10;
    torn.nameLength = 3;
    torn.checksum = 12345;
    patchFile(path, static_cast<off_t>(sizeof h + h.head), &torn, sizeof torn);
    const std::vector<Flinq::RingRecord> after = Flinq::readRing(path);
    ASSERT_EQ(after.size(), before.size());
    EXPECT_EQ(after.back().seq, before.back().seq);
    EXPECT_EQ(after.back().text, "line 49");
}

TEST(FlinqRing, BadSizeOrPlaceIsRefused) {
    TempDir dir;
    EXPECT_THROW(Flinq::RingWriter(dir.file("a.fq"), Flinq::kMinRingSizeLog2 - 1),
                 std::invalid_argument);
    EXPECT_THROW(Flinq::RingWriter(dir.file("a.fq"), Flinq::kMaxRingSizeLog2 + 1),
                 std::invalid_argument);
    try {
        Flinq::RingWriter w(dir.file("no/such/dir/a.fq"), 12);
        ADD_FAILURE() << "created a ring in a missing directory";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("cannot create trace ring"), std::string::npos);
    }
}

TEST(FlinqRing, DamagedFilesAreReportedClearly) {
    struct Case {
        const char* name;
        void (*damage)(const std::string& path);
        const char* fragment;
    };
    const Case cases[] = {
        {"missing", [](const std::string& p) { fs::remove(p); }, "cannot open trace ring"},
        {"too short", [](const std::string& p) { fs::resize_file(p, 10); }, "too short"},
        {"bad magic", [](const std::string& p) { patchFile(p, 0, "XXXX", 4); }, "bad magic"},
        {"cut data area",
         [](const std::string& p) { fs::resize_file(p, sizeof(Flinq::RingHeader) + 100); },
         "header says"},
        {"version",
         [](const std::string& p) {
             uint32_t v = 99;
             patchFile(p, offsetof(Flinq::RingHeader, version), &v, sizeof v);
         },
         "unsupported version 99"},
        {"tail outside",
         [](const std::string& p) {
             uint64_t t = uint64_t{1} << 20;
             patchFile(p, offsetof(Flinq::RingHeader, tail), &t, sizeof t);
         },
         "head or tail"},
        {"oldest record smashed",
         [](const std::string& p) {
             const Flinq::RingHeader h = headerOf(p);
             const char zeros[16] = {};
             patchFile(p, static_cast<off_t>(sizeof h + h.tail), zeros, sizeof zeros);
         },
         "no intact record"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        const std::string path = dir.file("damaged.fq");
        {
            Flinq::RingWriter w(path, 12);
            for (int i = 0; i < 300; ++i)
                w.append(i, 0, "Mod", "line " + std::to_string(i));
        }
        const std::vector<Flinq::RingRecord> intact = Flinq::readRing(path);
        ASSERT_FALSE(intact.empty());
        ASSERT_EQ(intact.back().seq, 299u);
        c.damage(path);
        try {
            Flinq::readRing(path);
            ADD_FAILURE() << "no error";
        } catch (const std::runtime_error& e) {
            const std::string what = e.what();
            EXPECT_NE(what.find(path), std::string::npos) << what;
            EXPECT_NE(what.find(c.fragment), std::string::npos) << what;
        }
    }
}

TEST(FlinqRing, FormatsOneLinePerRecord) {
    EXPECT_EQ(Flinq::formatRingRecord({7, 12.5, 3, "Mod", "hello world"}),
              "12.500000 Mod 3 hello world");
    EXPECT_EQ(Flinq::formatRingRecord({0, 1700000000.25, 0, "A", ""}), "1700000000.250000 A 0 ");
}

}  // namespace
