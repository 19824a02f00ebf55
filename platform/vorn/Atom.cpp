#include "platform/vorn/Atom.h"

#include <unordered_map>

namespace Vorn {

namespace {

// Keyed by a view of the record's own text. Never destroyed, so an Atom held by a static
// object can still let go of its record at exit. Looked up only: its order never shows.
std::unordered_map<std::string_view, void*>& table() {
    static auto* t = new std::unordered_map<std::string_view, void*>();
    return *t;
}

uint64_t prefixOf(std::string_view text) {
    uint64_t p = 0;
    for (size_t i = 0; i < 8; ++i)
        p = p << 8 | (i < text.size() ? uint8_t(text[i]) : 0);
    return p;
}

}  // namespace

Atom::Record* Atom::intern(std::string_view text) {
    if (text.empty())
        return nullptr;
    auto& t = table();
    if (auto it = t.find(text); it != t.end()) {
        auto* r = static_cast<Record*>(it->second);
        ++r->holders;
        return r;
    }
    auto* r = new Record{std::string(text), std::hash<std::string_view>()(text), prefixOf(text), 1};
    t.emplace(std::string_view(r->text), r);
    return r;
}

std::strong_ordering Atom::compareTexts(const Atom& a, const Atom& b) {
    return a.str().compare(b.str()) <=> 0;
}

void Atom::drop(Record* r) {
    table().erase(std::string_view(r->text));
    delete r;
}

size_t Atom::liveCount() {
    return table().size();
}

const std::string& Atom::emptyText() {
    static const std::string empty;
    return empty;
}

size_t Atom::emptyHash() {
    static const size_t h = std::hash<std::string_view>()(std::string_view());
    return h;
}

}  // namespace Vorn
