#include "platform/logging/Logging.h"

#include <algorithm>
#include <map>
#include <stdexcept>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"

namespace Logging {

namespace {

Flinq::Handle th("Logging");

constexpr std::string_view kArg = "%s";

// Created on first use and never destroyed: messages are registered from static
// initialisers of other translation units, and may be logged during static destruction.
struct Registry {
    std::map<std::string, MessageDef, std::less<>> messages;  // entries are never removed
    Capture* capture = nullptr;                               // the innermost one
};

Registry& registry() {
    static Registry* r = new Registry;
    return *r;
}

size_t countArgs(std::string_view format) {
    size_t n = 0;
    for (size_t pos = format.find(kArg); pos != std::string_view::npos;
         pos = format.find(kArg, pos + kArg.size())) {
        ++n;
    }
    return n;
}

}  // namespace

void registerMessage(const MessageDef& def) {
    if (def.id.empty())
        throw std::invalid_argument("Logging::registerMessage: empty message id");
    if (countArgs(def.format) != 1) {
        throw std::invalid_argument("Logging::registerMessage: format of " + def.id +
                                    " must hold exactly one %s: \"" + def.format + "\"");
    }
    Registry& r = registry();
    auto [it, inserted] = r.messages.emplace(def.id, def);
    if (!inserted && it->second != def) {
        throw std::invalid_argument("Logging::registerMessage: " + def.id +
                                    " is already registered with a different definition");
    }
}

const MessageDef& message(std::string_view id) {
    Registry& r = registry();
    auto it = r.messages.find(id);
    if (it == r.messages.end()) {
        throw std::invalid_argument("Logging: no message registered as " + std::string(id));
    }
    return it->second;
}

bool isRegistered(std::string_view id) {
    Registry& r = registry();
    return r.messages.find(id) != r.messages.end();
}

std::string format(const MessageDef& def, std::string_view arg) {
    std::string text = def.format;
    const size_t pos = text.find(kArg);
    VORN_ASSERT(pos != std::string::npos);  // registerMessage checked it
    text.replace(pos, kArg.size(), arg);
    return text;
}

void log(std::string_view id, std::string_view arg) {
    const std::string text = format(message(id), arg);
    {
        Registry& r = registry();
        if (r.capture)
            r.capture->records_.push_back(Record{std::string(id), text});
    }
    FLINQ(th, 0, id << ": " << text);
}

Capture::Capture() {
    Registry& r = registry();
    outer_ = r.capture;
    r.capture = this;
}

Capture::~Capture() {
    Registry& r = registry();
    // Captures are scoped objects: they end innermost first.
    VORN_ASSERT(r.capture == this);
    r.capture = outer_;
}

std::vector<std::string> Capture::texts(std::string_view id) const {
    std::vector<std::string> out;
    for (const Record& rec : records_) {
        if (rec.id == id)
            out.push_back(rec.text);
    }
    return out;
}

bool Capture::has(std::string_view id, std::string_view text) const {
    return std::any_of(records_.begin(), records_.end(),
                       [&](const Record& rec) { return rec.id == id && rec.text == text; });
}

}  // namespace Logging
