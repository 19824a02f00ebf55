#include "platform/vorn/Exception.h"

namespace Vorn {

void throwRangeError(std::string text) {
    throw RangeException(text);
}

void throwNullMutatorArgument(std::string_view owner, std::string_view attr) {
    std::string text = "null _";
    text.append(attr).append(" parameter to mutator for ").append(owner).append("::");
    text.append(attr).append(" not allowed");
    throw NullPointerException(text);
}

}  // namespace Vorn
