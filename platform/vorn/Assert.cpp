#include "platform/vorn/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Vorn {

void assertionFailed(const char* condition, const char* function, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, function, condition);
    std::fflush(stderr);
    std::abort();
}

}  // namespace Vorn
