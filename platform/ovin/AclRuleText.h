#pragma once
// The one-line rule text form, read and printed:
//
//   ip rule   SEQ ACTION PROTO ADDR [PORT] ADDR [PORT] [ICMP] {OPTION}
//     ACTION  permit | deny
//     PROTO   IPv4 ACL: ip | tcp | udp | icmp | N      IPv6 ACL: ipv6 | tcp | udp | icmpv6 | N
//             (N: IANA protocol number 1-255; 0 is refused: here it means "any protocol")
//     ADDR    any | host A | A/LEN
//     PORT    eq P | neq P | lt P | gt P | range LO HI   (tcp, udp and 132 only; source first)
//     ICMP    TYPE [CODE]                                (icmp / icmpv6 only)
//     OPTION  established | ack | fin | psh | rst | syn | urg   (tcp only)
//             | fragments | dscp D (0-63)
//   mac rule  SEQ ACTION MADDR MADDR [0xHHHH]
//     MADDR   any | HHHH.HHHH.HHHH WWWW.WWWW.WWWW  (address, then wildcard: 1 bits don't care)
//   remark    SEQ remark TEXT
//
// Everything from the first '#' of a line is a comment. Words and hex digits are read in any
// case; rules print in lower case.
//
// Decisions a reader of real rules has to take:
//  - Host bits: an address with bits set beyond its prefix length (1.1.1.1/24), or a MAC
//    address with bits set under its wildcard, is masked, not refused: the device it came
//    from matched only the prefix, and so does the masked rule. The rule says so in a note
//    ("host bits of 1.1.1.1/24 cleared: read as 1.1.1.0/24").
//  - `ttl eq T` is refused: the engine's rules carry no TTL match, and dropping the option
//    would widen the rule.
//  - Each refusal names the rule, says why, and gives the 1-based column where reading
//    stopped: "rule '10 permit ip any any ttl eq 5': TTL is not matched by this engine, so
//    the rule cannot be kept as written (column 22)".
//
// Printing gives the canonical text: "any" for a zero mask, "host A" for a full one, "A/LEN"
// otherwise; options in the order established ack fin psh rst syn urg fragments dscp. Reading
// the printed text gives back an equal entry. (A non-prefix mask, which this form cannot
// write, prints as A/MASK and is refused when read.)

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ovin/AclConfig.h"
#include "platform/ovin/AclType.h"

namespace Acl {

// One rule line as read.
struct RuleText {
    uint32_t seq = 0;
    AclEntry entry;
    // Where the rule was read differently from how it was written (host bits cleared).
    std::vector<std::string> notes;
};

struct RuleTextResult {
    std::optional<RuleText> rule;
    std::string error;  // "rule '<text>': <why> (column <n>)"; empty on success
    size_t column = 0;  // 1-based column where reading stopped; 0 on success
    bool ok() const { return rule.has_value(); }
};

// Reads one rule line of an ACL of the given type.
RuleTextResult parseRuleText(std::string_view line, AclType type);

// The canonical line of an entry (no comment).
std::string ruleText(uint32_t seq, const AclEntry& entry);

// A file of ACL blocks: `acl NAME TYPE` (TYPE ipv4, ipv6 or mac) followed by its rule lines;
// comment and blank lines anywhere.
struct AclText {
    AclConfigKey key;
    std::vector<RuleText> rules;  // in file order
};
struct AclFileText {
    std::vector<AclText> acls;  // in file order
    struct Error {
        size_t line = 0;  // 1-based
        std::string error;
    };
    // Lines that could not be read: refused rules, bad `acl` lines, rules outside a block,
    // and sequence numbers that do not ascend within a block.
    std::vector<Error> errors;
};
AclFileText parseAclFileText(std::string_view text);

}  // namespace Acl
