// Fuzz target: the one-line rule reader and the ACL file reader.
//
// Input: the first byte picks the ACL type (IPv4, IPv6, MAC), the rest is the text. Checked
// for every input:
//  - a refusal has its fixed form "rule '<text>': <why> (column <n>)" with 1 <= n, and no rule;
//  - an accepted rule prints its canonical line, and reading that line gives back an equal
//    entry that prints the same line (the reader's round trip);
//  - the file reader takes the same text as a file without crashing, every error it reports
//    names a line of the text.
// Anything else (a crash, a sanitizer report, an escaped exception) is a finding.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/ovin/AclRuleText.h"

namespace {

[[noreturn]] void fail(const char* what, const std::string& detail) {
    std::fprintf(stderr, "RuleTextFuzz: %s: %s\n", what, detail.c_str());
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    const Acl::AclType types[] = {Acl::aclTypeIpv4, Acl::aclTypeIpv6, Acl::aclTypeMac};
    const Acl::AclType type = types[data[0] % 3];
    const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);

    const Acl::RuleTextResult r = Acl::parseRuleText(text, type);
    if (!r.ok()) {
        if (r.error.rfind("rule '", 0) != 0 || r.column == 0 ||
            r.error.find(" (column " + std::to_string(r.column) + ")") == std::string::npos) {
            fail("refusal without its fixed form", r.error);
        }
    } else {
        if (!r.error.empty())
            fail("accepted rule with an error", r.error);
        const std::string line = Acl::ruleText(r.rule->seq, r.rule->entry);
        const Acl::RuleTextResult again = Acl::parseRuleText(line, type);
        if (!again.ok())
            fail("canonical line refused", line + " -> " + again.error);
        if (again.rule->seq != r.rule->seq || !(again.rule->entry == r.rule->entry))
            fail("canonical line reads as another rule", line);
        if (Acl::ruleText(again.rule->seq, again.rule->entry) != line)
            fail("canonical line is not stable", line);
    }

    const Acl::AclFileText file = Acl::parseAclFileText(text);
    size_t lines = 1;
    for (char c : text)
        lines += c == '\n';
    for (const Acl::AclFileText::Error& e : file.errors) {
        if (e.line == 0 || e.line > lines || e.error.empty())
            fail("file error outside the text", std::to_string(e.line) + ": " + e.error);
    }
    return 0;
}
