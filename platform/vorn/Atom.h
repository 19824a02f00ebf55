#pragma once
// Vorn::Atom: an immutable text kept once in the process, however many keys hold it. Names
// of ACLs and entities repeat in every collection keyed by them (an ACL key sits in the index,
// each chip's policy and mapping state, the engine's tables), so each holder keeps a pointer
// to one shared record instead of a string of its own: copying and equality cost a pointer,
// the hash is the text's std::hash taken once, and ordering compares the texts only when the
// records differ, so Atoms order exactly as their texts do. Most orderings are settled by the
// texts' first eight bytes, kept in the record as one number: names of a switch's ACLs differ
// early, and a set of keys compares them on every lookup.
//
// A record lives while an Atom holds it; the last one to let go removes it from the table.
// Single-threaded, like the rest of the framework: the table and the counts have no locks.

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

#include "platform/vorn/Relocatable.h"

namespace Vorn {

class Atom {
  public:
    Atom() = default;  // the empty text (holds no record)
    Atom(std::string_view text) : rec_(intern(text)) {}
    Atom(const std::string& text) : Atom(std::string_view(text)) {}
    Atom(const char* text) : Atom(std::string_view(text)) {}
    Atom(const Atom& o) : rec_(o.rec_) { hold(rec_); }
    Atom(Atom&& o) noexcept : rec_(o.rec_) { o.rec_ = nullptr; }
    Atom& operator=(const Atom& o) {
        hold(o.rec_);
        release(rec_);
        rec_ = o.rec_;
        return *this;
    }
    // Swaps: the moved-from Atom holds the old text until it goes or is assigned. Sorted
    // vectors of keys shift their members by move-assignment; this way a shift touches no count.
    Atom& operator=(Atom&& o) noexcept {
        std::swap(rec_, o.rec_);
        return *this;
    }
    ~Atom() { release(rec_); }

    const std::string& str() const { return rec_ ? rec_->text : emptyText(); }
    operator const std::string&() const { return str(); }
    bool empty() const { return rec_ == nullptr; }
    size_t size() const { return str().size(); }
    std::string::const_iterator begin() const { return str().begin(); }
    std::string::const_iterator end() const { return str().end(); }
    // std::hash<std::string> of the text: an Atom hashes as its text does.
    size_t hash() const { return rec_ ? rec_->hash : emptyHash(); }

    friend bool operator==(const Atom& a, const Atom& b) { return a.rec_ == b.rec_; }
    friend std::strong_ordering operator<=>(const Atom& a, const Atom& b) {
        if (a.rec_ == b.rec_)
            return std::strong_ordering::equal;
        const uint64_t pa = a.rec_ ? a.rec_->prefix : 0;
        const uint64_t pb = b.rec_ ? b.rec_->prefix : 0;
        if (pa != pb)
            return pa <=> pb;
        return compareTexts(a, b);
    }

    // How many distinct texts are held now (for tests and memory accounting).
    static size_t liveCount();

  private:
    struct Record {
        std::string text;
        size_t hash;
        // The first eight bytes, big-endian and zero-padded: numbers compare as the texts'
        // starts do (unsigned bytes), and equal numbers leave the order to the whole texts.
        uint64_t prefix;
        uint32_t holders;
    };
    static Record* intern(std::string_view text);
    // The whole texts' order, for two records whose first eight bytes are the same: out of
    // line, so that the common comparison stays small enough to inline wherever keys compare.
    static std::strong_ordering compareTexts(const Atom& a, const Atom& b);
    static void hold(Record* r) {
        if (r)
            ++r->holders;
    }
    static void release(Record* r) {
        if (r && --r->holders == 0)
            drop(r);
    }
    static void drop(Record* r);
    static const std::string& emptyText();
    static size_t emptyHash();

    Record* rec_ = nullptr;
};

inline std::ostream& operator<<(std::ostream& os, const Atom& a) {
    return os << a.str();
}

// One pointer to a record that does not point back.
template <>
inline constexpr bool kTriviallyRelocatable<Atom> = true;

}  // namespace Vorn

template <>
struct std::hash<Vorn::Atom> {
    size_t operator()(const Vorn::Atom& a) const noexcept { return a.hash(); }
};
