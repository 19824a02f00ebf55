#include "ovinmirel/testagent/OvinMirelTestAgentFaultPlan.h"

#include <charconv>
#include <cmath>
#include <stdexcept>
#include <string>

#include "platform/vorn/Exception.h"

namespace OvinMirel {

namespace {

[[noreturn]] void unreadable(std::string_view word) {
    throw std::invalid_argument("TestAgentFault: cannot read '" + std::string(word) + "'");
}

Mirel::StageErrorCode stageErrorCodeNamed(std::string_view name) {
    for (uint32_t c = 0; const char* n = Mirel::stageErrorCodeName(Mirel::StageErrorCode(c)); ++c) {
        if (name == n)
            return Mirel::StageErrorCode(c);
    }
    throw std::invalid_argument("");
}

Mirel::XformType xformNamed(std::string_view name) {
    for (int t = 0; t < Mirel::kXformTypeCount; ++t) {
        if (name == Mirel::xformConfigName(Mirel::XformType(t)))
            return Mirel::XformType(t);
    }
    throw std::invalid_argument("");
}

template <class T>
T number(std::string_view text) {
    T value{};
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size())
        throw std::invalid_argument("");
    return value;
}

}  // namespace

TestAgentFault TestAgentFault::failing(Mirel::StageErrorCode code) {
    return TestAgentFault{}.alsoFailing(code);
}

TestAgentFault TestAgentFault::late(Vorn::Seconds delay) {
    return TestAgentFault{}.alsoLate(delay);
}

TestAgentFault TestAgentFault::twice() {
    return TestAgentFault{}.alsoTwice();
}

TestAgentFault TestAgentFault::losing() {
    TestAgentFault f;
    f.lost = true;
    return f;
}

TestAgentFault TestAgentFault::onXform(Mirel::XformType t) const {
    TestAgentFault f = *this;
    f.xform = t;
    f.check();
    return f;
}

TestAgentFault TestAgentFault::times(uint32_t n) const {
    TestAgentFault f = *this;
    f.count = n;
    return f;
}

TestAgentFault TestAgentFault::alsoFailing(Mirel::StageErrorCode code) const {
    TestAgentFault f = *this;
    f.failWith = code;
    return f;
}

TestAgentFault TestAgentFault::alsoLate(Vorn::Seconds delay) const {
    TestAgentFault f = *this;
    f.delay = delay;
    f.check();
    return f;
}

TestAgentFault TestAgentFault::alsoTwice(uint32_t passes) const {
    TestAgentFault f = *this;
    f.answerTwice = true;
    f.repeatPasses = passes;
    f.check();
    return f;
}

void TestAgentFault::check() const {
    if (!(delay >= 0.0) || !std::isfinite(delay))
        Vorn::throwRangeError("TestAgentFault::delay < 0 not allowed");
    if (xform && *xform >= Mirel::kXformTypeCount)
        Vorn::throwRangeError("TestAgentFault::xform > 8 not allowed");
    if (repeatPasses < 1)
        Vorn::throwRangeError("TestAgentFault::repeatPasses < 1 not allowed");
}

TestAgentFault TestAgentFault::parse(std::string_view text) {
    TestAgentFault f;
    while (!text.empty()) {
        const size_t start = text.find_first_not_of(' ');
        if (start == std::string_view::npos)
            break;
        text.remove_prefix(start);
        const std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(word.size());
        const size_t colon = word.find(':');
        const std::string_view key = word.substr(0, colon);
        const std::string_view value =
            colon == std::string_view::npos ? std::string_view() : word.substr(colon + 1);
        try {
            if (word == "none") {
                // the printed form of a fault that changes nothing
            } else if (word == "twice") {
                f.answerTwice = true;
            } else if (word == "lost") {
                f.lost = true;
            } else if (key == "fail" && !value.empty()) {
                f.failWith = stageErrorCodeNamed(value);
            } else if (key == "twice" && !value.empty()) {
                f.answerTwice = true;
                f.repeatPasses = number<uint32_t>(value);
            } else if (key == "late" && !value.empty()) {
                f.delay = number<double>(value);
            } else if (key == "xform" && !value.empty()) {
                f.xform = xformNamed(value);
            } else if (key == "count" && !value.empty()) {
                f.count = number<uint32_t>(value);
            } else {
                unreadable(word);
            }
        } catch (const std::invalid_argument&) {
            unreadable(word);
        }
    }
    f.check();
    return f;
}

std::ostream& operator<<(std::ostream& os, const TestAgentFault& f) {
    const char* sep = "";
    auto word = [&]() -> std::ostream& {
        os << sep;
        sep = " ";
        return os;
    };
    if (f.failWith != Mirel::stageSuccess_)
        word() << "fail:" << f.failWith;
    if (f.delay > 0.0)
        word() << "late:" << f.delay;
    if (f.answerTwice && f.repeatPasses == 1)
        word() << "twice";
    else if (f.answerTwice)
        word() << "twice:" << f.repeatPasses;
    if (f.lost)
        word() << "lost";
    if (f.xform)
        word() << "xform:" << *f.xform;
    if (f.count != 0)
        word() << "count:" << f.count;
    if (*sep == '\0')
        os << "none";
    return os;
}

void TestAgentFaultPlan::faultIs(Mirel::ChipId chip, const TestAgentFault& f) {
    f.check();
    fault_.is(chip, f);
}

std::optional<TestAgentFault> TestAgentFaultPlan::takeFault(Mirel::ChipId chip,
                                                            Mirel::XformType t) {
    const TestAgentFault* f = fault_.find(chip);
    if (!f || (f->xform && *f->xform != t))
        return std::nullopt;
    const TestAgentFault taken = *f;
    if (taken.count == 1) {
        fault_.del(chip);
    } else if (taken.count > 1) {
        fault_.is(chip, taken.times(taken.count - 1));
    }
    return taken;
}

Vorn::Ptr<TestAgentFaultPlan> testAgentFaultPlanFactory(const Vorn::Name& name) {
    return Vorn::make<TestAgentFaultPlan>(name);
}

}  // namespace OvinMirel
