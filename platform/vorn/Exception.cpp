#include "platform/vorn/Exception.h"

namespace Vorn {

void throwRangeError(std::string text) {
    throw RangeException(text);
}

void throwReinstantiation(std::string_view fullName, std::string_view attr, std::string_view value,
                          std::string_view held) {
    std::string text = "Reinstantiating the entity with fullName ";
    text.append(fullName).append(" where constructor parameter attribute '").append(attr);
    text.append("' has a different value of ").append(value).append(" (it holds ").append(held);
    text.append(")");
    throw ReinstantiationException(text);
}

void throwPointerReinstantiation(std::string_view attr, std::string_view value) {
    std::string text =
        "Reinstantiating the pointer interface where constructor parameter attribute _";
    text.append(attr).append(" has a different value of ").append(value);
    throw ReinstantiationException(text);
}

void throwNullMutatorArgument(std::string_view owner, std::string_view attr) {
    std::string text = "null _";
    text.append(attr).append(" parameter to mutator for ").append(owner).append("::");
    text.append(attr).append(" not allowed");
    throw NullPointerException(text);
}

}  // namespace Vorn
