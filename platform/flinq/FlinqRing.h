#pragma once
// The trace ring file: a fixed-size file written circularly, readable after the writer is gone
// (even killed mid-line), oldest line first.
//
// Layout (native byte order; the file is read on the machine that wrote it):
//   RingHeader (64 bytes), then the data area of 2^sizeLog2 bytes.
//   The data area holds records back to back, each 8-byte aligned: a RecordHeader, the handle
//   name, the text, zero padding. A record never straddles the end of the data area: when the
//   next one does not fit, a wrap marker (kWrapMagic, 8 bytes) is left and writing goes on at
//   offset 0, overwriting the oldest records.
//   header.tail is the offset of the oldest record, header.head the offset where the next
//   record goes, header.nextSeq the sequence number it will get.
//
// Crash safety: the file is mapped shared, so whatever the writer stored survives the process.
// The writer moves tail past the records it is about to overwrite before touching them, and
// publishes head/nextSeq only after the record is complete. The reader starts at tail and
// follows records while each one is intact (magic, bounds, checksum) and its sequence number
// is the previous one plus one; a torn last record or stale bytes of an older lap end the walk.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/vorn/Clock.h"

namespace Flinq {

struct RingHeader {
    char magic[8];  // kRingMagic
    uint32_t version;
    uint32_t headerSize;
    uint32_t sizeLog2;
    uint32_t reserved0;
    uint64_t dataSize;
    uint64_t head;
    uint64_t tail;
    uint64_t nextSeq;
    uint64_t reserved1;
};
static_assert(sizeof(RingHeader) == 64);

struct RecordHeader {
    uint32_t magic;   // kRecordMagic
    uint32_t length;  // the whole record with padding, a multiple of 8
    uint64_t seq;
    double time;
    uint32_t checksum;  // FNV-1a of the record with this field zero
    uint32_t textLength;
    uint16_t nameLength;
    uint8_t level;
    uint8_t reserved0;
    uint32_t reserved1;
};
static_assert(sizeof(RecordHeader) == 40);

constexpr char kRingMagic[8] = {'F', 'L', 'Q', 'R', 'I', 'N', 'G', '1'};
constexpr uint32_t kRingVersion = 1;
constexpr uint32_t kRecordMagic = 0x4c51464cu;  // "LFQL"
constexpr uint32_t kWrapMagic = 0x5051464cu;    // "LFQP"
constexpr size_t kWrapMarkerSize = 8;
// The longest record; longer texts are cut. A quarter of the data area at most, so that one
// line never evicts the whole ring.
constexpr size_t kMaxRecordSize = 64 * 1024;
// Names longer than this are cut (handle names are short module names).
constexpr size_t kMaxNameLength = 255;

uint32_t recordChecksum(RecordHeader header, const unsigned char* payload, size_t payloadLength);

// Writes records into a ring file it created. Not thread-safe: Flinq serialises the writes.
class RingWriter {
  public:
    // Creates or truncates the file. Throws std::invalid_argument for a size outside
    // [kMinRingSizeLog2, kMaxRingSizeLog2] and std::runtime_error when the file cannot be made.
    RingWriter(const std::string& path, int sizeLog2);
    ~RingWriter();
    RingWriter(const RingWriter&) = delete;
    RingWriter& operator=(const RingWriter&) = delete;

    const std::string& path() const { return path_; }
    uint64_t dataSize() const { return dataSize_; }
    uint64_t nextSeq() const { return nextSeq_; }
    // The longest text a record of `nameLength` can carry here.
    size_t maxTextLength(size_t nameLength) const;

    void append(Vorn::Seconds time, int level, std::string_view name, std::string_view text);

  private:
    // Drops the oldest record (or follows the lap's wrap marker) and publishes the new tail.
    void dropOldest();
    void publishTail();

    std::string path_;
    int fd_ = -1;
    unsigned char* map_ = nullptr;
    size_t mapSize_ = 0;
    RingHeader* header_ = nullptr;
    unsigned char* data_ = nullptr;
    uint64_t dataSize_ = 0;
    uint64_t maxRecord_ = 0;
    uint64_t head_ = 0;
    uint64_t tail_ = 0;
    uint64_t count_ = 0;  // live records
    uint64_t nextSeq_ = 0;
};

struct RingRecord {
    uint64_t seq;
    Vorn::Seconds time;
    int level;
    std::string handle;
    std::string text;
};

// The lines of a ring file, oldest first. Throws std::runtime_error naming the file and the
// fault when it is missing, unreadable, not a ring file, or its header or oldest record is
// damaged.
std::vector<RingRecord> readRing(const std::string& path);

// "<time with 6 decimals> <handle> <level> <text>", the reader tool's line.
std::string formatRingRecord(const RingRecord& r);

}  // namespace Flinq
