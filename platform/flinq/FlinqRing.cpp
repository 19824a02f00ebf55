#include "platform/flinq/FlinqRing.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"

namespace Flinq {

namespace {

constexpr uint64_t align8(uint64_t n) {
    return (n + 7) & ~uint64_t{7};
}

uint32_t fnv1a(uint32_t h, const unsigned char* p, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        h ^= p[i];
        h *= 16777619u;
    }
    return h;
}

// Keeps the compiler from reordering the stores into the mapping across the steps that make
// a crash at any point leave a readable file (a crash stops the process between two
// instructions; the page cache keeps every store made before it).
void orderStores() {
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

uint32_t wordAt(const unsigned char* p) {
    uint32_t w;
    std::memcpy(&w, p, sizeof w);
    return w;
}

std::string errnoText() {
    return std::strerror(errno);
}

}  // namespace

uint32_t recordChecksum(RecordHeader header, const unsigned char* payload, size_t payloadLength) {
    header.checksum = 0;
    uint32_t h = fnv1a(2166136261u, reinterpret_cast<const unsigned char*>(&header), sizeof header);
    return fnv1a(h, payload, payloadLength);
}

RingWriter::RingWriter(const std::string& path, int sizeLog2) : path_(path) {
    if (sizeLog2 < kMinRingSizeLog2 || sizeLog2 > kMaxRingSizeLog2) {
        throw std::invalid_argument("Flinq ring size 2^" + std::to_string(sizeLog2) +
                                    " out of range [2^" + std::to_string(kMinRingSizeLog2) +
                                    ", 2^" + std::to_string(kMaxRingSizeLog2) + "]");
    }
    dataSize_ = uint64_t{1} << sizeLog2;
    maxRecord_ = std::min<uint64_t>(kMaxRecordSize, dataSize_ / 4);
    mapSize_ = sizeof(RingHeader) + dataSize_;

    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd_ < 0) {
        throw std::runtime_error("cannot create trace ring '" + path + "': " + errnoText());
    }
    if (::ftruncate(fd_, static_cast<off_t>(mapSize_)) != 0) {
        std::string why = errnoText();
        ::close(fd_);
        throw std::runtime_error("cannot size trace ring '" + path + "': " + why);
    }
    void* m = ::mmap(nullptr, mapSize_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    std::string why = m == MAP_FAILED ? errnoText() : std::string();
    // The mapping keeps the file; the descriptor is not needed any more.
    ::close(fd_);
    fd_ = -1;
    if (m == MAP_FAILED) {
        throw std::runtime_error("cannot map trace ring '" + path + "': " + why);
    }
    map_ = static_cast<unsigned char*>(m);
    header_ = reinterpret_cast<RingHeader*>(map_);
    data_ = map_ + sizeof(RingHeader);

    RingHeader h{};
    std::memcpy(h.magic, kRingMagic, sizeof h.magic);
    h.version = kRingVersion;
    h.headerSize = sizeof(RingHeader);
    h.sizeLog2 = static_cast<uint32_t>(sizeLog2);
    h.dataSize = dataSize_;
    std::memcpy(header_, &h, sizeof h);
}

RingWriter::~RingWriter() {
    if (map_)
        ::munmap(map_, mapSize_);
}

size_t RingWriter::maxTextLength(size_t nameLength) const {
    return maxRecord_ - sizeof(RecordHeader) - std::min(nameLength, kMaxNameLength);
}

void RingWriter::publishTail() {
    orderStores();
    header_->tail = tail_;
    orderStores();
}

void RingWriter::dropOldest() {
    VORN_ASSERT(count_ > 0);
    uint32_t magic = wordAt(data_ + tail_);
    if (magic == kWrapMagic) {
        tail_ = 0;
        return;
    }
    VORN_ASSERT(magic == kRecordMagic);
    RecordHeader rh;
    std::memcpy(&rh, data_ + tail_, sizeof rh);
    VORN_ASSERT(rh.length >= sizeof(RecordHeader) && tail_ + rh.length <= dataSize_);
    tail_ += rh.length;
    --count_;
    // Keep tail on a record: the end of the lap means offset 0.
    if (tail_ == dataSize_ || (count_ > 0 && wordAt(data_ + tail_) == kWrapMagic))
        tail_ = 0;
}

void RingWriter::append(Vorn::Seconds time, int level, std::string_view name,
                        std::string_view text) {
    VORN_ASSERT(level >= 0 && level <= kMaxLevel);
    const size_t nameLength = std::min(name.size(), kMaxNameLength);
    const size_t textLength = std::min(text.size(), maxTextLength(nameLength));
    const uint64_t length = align8(sizeof(RecordHeader) + nameLength + textLength);
    VORN_ASSERT(length <= maxRecord_);

    // Free [head, head + length): first the rest of the lap when the record does not fit
    // before the end, then what the record itself covers.
    if (head_ + length > dataSize_) {
        while (count_ > 0 && tail_ >= head_)
            dropOldest();
        publishTail();
        const uint32_t marker[2] = {kWrapMagic, 0};
        std::memcpy(data_ + head_, marker, kWrapMarkerSize);
        head_ = 0;
    }
    while (count_ > 0 && tail_ >= head_ && tail_ < head_ + length)
        dropOldest();
    if (count_ == 0)
        tail_ = head_;
    publishTail();

    unsigned char* p = data_ + head_;
    unsigned char* payload = p + sizeof(RecordHeader);
    std::memcpy(payload, name.data(), nameLength);
    std::memcpy(payload + nameLength, text.data(), textLength);
    const size_t used = sizeof(RecordHeader) + nameLength + textLength;
    std::memset(p + used, 0, length - used);

    RecordHeader rh{};
    rh.magic = kRecordMagic;
    rh.length = static_cast<uint32_t>(length);
    rh.seq = nextSeq_;
    rh.time = time;
    rh.textLength = static_cast<uint32_t>(textLength);
    rh.nameLength = static_cast<uint16_t>(nameLength);
    rh.level = static_cast<uint8_t>(level);
    rh.checksum = recordChecksum(rh, payload, length - sizeof(RecordHeader));
    // The header last: until it is stored, the bytes at head belong to an older lap.
    orderStores();
    std::memcpy(p, &rh, sizeof rh);
    orderStores();

    head_ += length;
    if (head_ == dataSize_)
        head_ = 0;
    ++count_;
    ++nextSeq_;
    header_->head = head_;
    header_->nextSeq = nextSeq_;
}

namespace {

std::string readWholeFile(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        throw std::runtime_error("cannot open trace ring '" + path + "': " + errnoText());
    std::string bytes;
    struct stat st;
    if (::fstat(fd, &st) == 0 && st.st_size > 0)
        bytes.reserve(static_cast<size_t>(st.st_size));
    char buf[1 << 16];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            std::string why = errnoText();
            ::close(fd);
            throw std::runtime_error("cannot read trace ring '" + path + "': " + why);
        }
        if (n == 0)
            break;
        bytes.append(buf, static_cast<size_t>(n));
    }
    ::close(fd);
    return bytes;
}

// The record at `pos` when it is intact, else false.
bool intactRecord(const unsigned char* data, uint64_t dataSize, uint64_t pos, RecordHeader& rh) {
    if (pos + sizeof(RecordHeader) > dataSize)
        return false;
    std::memcpy(&rh, data + pos, sizeof rh);
    if (rh.magic != kRecordMagic || rh.length < sizeof(RecordHeader) || rh.length % 8 != 0 ||
        pos + rh.length > dataSize || rh.level > kMaxLevel) {
        return false;
    }
    if (sizeof(RecordHeader) + uint64_t{rh.nameLength} + rh.textLength > rh.length)
        return false;
    return recordChecksum(rh, data + pos + sizeof(RecordHeader),
                          rh.length - sizeof(RecordHeader)) == rh.checksum;
}

}  // namespace

std::vector<RingRecord> readRing(const std::string& path) {
    const std::string bytes = readWholeFile(path);
    auto corrupt = [&path](const std::string& what) {
        return std::runtime_error("trace ring '" + path + "' is " + what);
    };
    if (bytes.size() < sizeof(RingHeader))
        throw corrupt("not a trace ring file (too short)");
    RingHeader h;
    std::memcpy(&h, bytes.data(), sizeof h);
    if (std::memcmp(h.magic, kRingMagic, sizeof h.magic) != 0) {
        throw corrupt("not a trace ring file (bad magic)");
    }
    if (h.version != kRingVersion) {
        throw corrupt("of unsupported version " + std::to_string(h.version));
    }
    if (h.headerSize != sizeof(RingHeader) || h.sizeLog2 < kMinRingSizeLog2 ||
        h.sizeLog2 > kMaxRingSizeLog2 || h.dataSize != uint64_t{1} << h.sizeLog2) {
        throw corrupt("corrupt (bad header geometry)");
    }
    if (bytes.size() != sizeof(RingHeader) + h.dataSize) {
        throw corrupt("corrupt (file has " + std::to_string(bytes.size()) + " bytes, header says " +
                      std::to_string(sizeof(RingHeader) + h.dataSize) + ")");
    }
    if (h.tail >= h.dataSize || h.head >= h.dataSize || h.tail % 8 != 0 || h.head % 8 != 0) {
        throw corrupt("corrupt (head or tail out of the data area)");
    }

    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data()) + sizeof(RingHeader);
    std::vector<RingRecord> out;
    uint64_t pos = h.tail;
    int wraps = 0;
    const uint64_t maxRecords = h.dataSize / sizeof(RecordHeader);
    while (out.size() < maxRecords) {
        if (pos + kWrapMarkerSize <= h.dataSize && wordAt(data + pos) == kWrapMagic) {
            pos = h.dataSize;
        }
        if (pos >= h.dataSize) {
            // A walk from the oldest record wraps once at most.
            if (++wraps > 1)
                break;
            pos = 0;
            continue;
        }
        RecordHeader rh;
        if (!intactRecord(data, h.dataSize, pos, rh)) {
            if (out.empty() && h.nextSeq > 0) {
                throw corrupt("corrupt (no intact record at its oldest position)");
            }
            break;
        }
        if (!out.empty() && rh.seq != out.back().seq + 1)
            break;
        const char* payload = reinterpret_cast<const char*>(data + pos + sizeof(RecordHeader));
        out.push_back(RingRecord{rh.seq, rh.time, rh.level, std::string(payload, rh.nameLength),
                                 std::string(payload + rh.nameLength, rh.textLength)});
        pos += rh.length;
    }
    return out;
}

std::string formatRingRecord(const RingRecord& r) {
    char time[64];
    std::snprintf(time, sizeof time, "%.6f", r.time);
    std::string line = time;
    line += ' ';
    line += r.handle;
    line += ' ';
    line += std::to_string(r.level);
    line += ' ';
    line += r.text;
    return line;
}

}  // namespace Flinq
