#pragma once
// The always-on assertion. A broken internal invariant stops the process: the message is the
// failed condition exactly as written (or the given message), with the asserting function.
// It is never compiled out, whatever NDEBUG says.

namespace Vorn {
[[noreturn]] void assertionFailed(const char* condition, const char* function, const char* file,
                                  int line);
}  // namespace Vorn

#define VORN_ASSERT(cond)                                                            \
    do {                                                                             \
        if (!(cond)) [[unlikely]]                                                    \
            ::Vorn::assertionFailed(#cond, __PRETTY_FUNCTION__, __FILE__, __LINE__); \
    } while (0)

// For the few invariants whose message is not the condition itself ("Internal Error").
#define VORN_ASSERT_MSG(cond, message)                                                 \
    do {                                                                               \
        if (!(cond)) [[unlikely]]                                                      \
            ::Vorn::assertionFailed(message, __PRETTY_FUNCTION__, __FILE__, __LINE__); \
    } while (0)
