#include "platform/flinq/Flinq.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "platform/flinq/FlinqRing.h"
#include "platform/vorn/Assert.h"
#include "platform/vorn/Clock.h"

namespace Flinq {

namespace {

// Everything the handles share. Created on first use, so a handle constructed during static
// initialisation of any translation unit finds it, and never destroyed, so a handle destroyed
// (or a line written) during static destruction still finds it.
// The agent runs on one thread, so nothing here is locked.
struct State {
    std::vector<Handle*> handles;  // in creation order
    Capture* capture = nullptr;    // the innermost one
    std::unique_ptr<RingWriter> ring;
};

State& state() {
    static State* s = new State;
    return *s;
}

void refreshAll(State& s) {
    for (Handle* h : s.handles)
        h->refresh();
}

void checkMask(uint32_t mask) {
    if (mask & ~kAllLevels) {
        throw std::invalid_argument("Flinq level mask " + std::to_string(mask) +
                                    " has bits above level " + std::to_string(kMaxLevel));
    }
}

std::string pathFromEnvironment() {
    if (const char* file = std::getenv("FQFILE"); file && *file)
        return file;
    const char* dir = std::getenv("FLINQDIR");
    std::string name = "OvinMirel";
    if (!dir) {
        char pid[32];
        std::snprintf(pid, sizeof pid, "-%d", static_cast<int>(::getpid()));
        name += pid;
    }
    name += ".fq";
    if (!dir || !*dir)
        return name;
    std::string path = dir;
    if (path.back() != '/')
        path += '/';
    return path + name;
}

}  // namespace

Handle::Handle(const char* name) : name_(name) {
    VORN_ASSERT(name != nullptr);
    State& s = state();
    s.handles.push_back(this);
    refresh();
}

Handle::~Handle() {
    State& s = state();
    auto it = std::find(s.handles.begin(), s.handles.end(), this);
    VORN_ASSERT(it != s.handles.end());
    s.handles.erase(it);
}

void Handle::refresh() {
    const State& s = state();
    mask_ = (s.ring ? ringLevels_ : 0u) | (s.capture ? kAllLevels : 0u);
}

void Handle::ringLevelsIs(uint32_t mask) {
    checkMask(mask);
    ringLevels_ = mask;
    refresh();
}

void Handle::write(int level, std::string_view text) {
    VORN_ASSERT(level >= 0 && level <= kMaxLevel);
    State& s = state();
    if (s.capture)
        s.capture->record(*this, level, text);
    if (s.ring && ((ringLevels_ >> level) & 1u)) {
        s.ring->append(Vorn::currentTime(), level, name_, text);
    }
}

void ringLevelsIs(std::string_view name, uint32_t mask) {
    checkMask(mask);
    State& s = state();
    for (Handle* h : s.handles) {
        if (name == "*" || name == h->name())
            h->ringLevelsIs(mask);
    }
}

Capture::Capture() {
    State& s = state();
    outer_ = s.capture;
    s.capture = this;
    if (!outer_)
        refreshAll(s);
}

Capture::~Capture() {
    State& s = state();
    // Captures are scoped objects: they end innermost first.
    VORN_ASSERT(s.capture == this);
    s.capture = outer_;
    if (!outer_)
        refreshAll(s);
}

std::vector<std::string> Capture::texts(std::string_view handle) const {
    std::vector<std::string> out;
    for (const Line& l : lines_) {
        if (handle.empty() || l.handle == handle)
            out.push_back(l.text);
    }
    return out;
}

bool Capture::has(std::string_view text) const {
    return std::any_of(lines_.begin(), lines_.end(), [&](const Line& l) { return l.text == text; });
}

bool Capture::hasSubstring(std::string_view fragment) const {
    return std::any_of(lines_.begin(), lines_.end(),
                       [&](const Line& l) { return l.text.find(fragment) != std::string::npos; });
}

void Capture::record(const Handle& h, int level, std::string_view text) {
    lines_.push_back(Line{h.name(), level, std::string(text)});
}

void openRing(const std::string& path, int sizeLog2) {
    auto ring = std::make_unique<RingWriter>(path, sizeLog2);
    State& s = state();
    // The previous ring, if any, is unmapped when `ring` goes out of scope.
    s.ring.swap(ring);
    refreshAll(s);
}

void closeRing() {
    std::unique_ptr<RingWriter> ring;
    State& s = state();
    s.ring.swap(ring);
    refreshAll(s);
}

bool ringOpen() {
    State& s = state();
    return s.ring != nullptr;
}

std::string ringPath() {
    State& s = state();
    return s.ring ? s.ring->path() : std::string();
}

}  // namespace Flinq

extern "C" void OvinMirel_flinqInitialize() {
    if (std::getenv("FLINQ_DISABLE"))
        return;
    if (Flinq::ringOpen())
        return;
    const std::string path = Flinq::pathFromEnvironment();
    try {
        Flinq::openRing(path, Flinq::kDefaultRingSizeLog2);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "flinq: %s; tracing goes on without a ring\n", e.what());
    }
}
