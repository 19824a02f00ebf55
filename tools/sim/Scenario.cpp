#include "tools/sim/Scenario.h"

#include <array>
#include <sstream>
#include <utility>

#include "platform/ovin/AclRuleText.h"

namespace Sim {

namespace {

struct KindWord {
    const char* word;
    uint16_t bit;
};
// In bit order, so that words print in the order of the mask's bits.
constexpr std::array<KindWord, 10> kKindWords{{
    {"v4pacl-in", 0x001},
    {"v4racl-in", 0x002},
    {"v6pacl-in", 0x004},
    {"v6racl-in", 0x008},
    {"v4pacl-out", 0x010},
    {"v4racl-out", 0x020},
    {"v6pacl-out", 0x040},
    {"v6racl-out", 0x080},
    {"macacl-in", 0x100},
    {"macacl-out", 0x200},
}};

template <class... F>
struct Overloaded : F... {
    using F::operator()...;
};
// Spelt out for compilers without aggregate deduction (clang before 17, used by the fuzz build).
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

std::string chipName(uint32_t chip) {
    return "chip " + std::to_string(chip);
}

}  // namespace

std::optional<uint16_t> aclKindMask(std::string_view word) {
    if (word == "all")
        return uint16_t(0x3ff);
    for (const KindWord& k : kKindWords) {
        if (word == k.word)
            return k.bit;
    }
    return std::nullopt;
}

std::string aclKindWords(uint16_t mask) {
    std::string out;
    for (const KindWord& k : kKindWords) {
        if (mask & k.bit) {
            if (!out.empty())
                out += ' ';
            out += k.word;
        }
    }
    return out.empty() ? "none" : out;
}

std::string aclKindWordList() {
    std::string out;
    for (const KindWord& k : kKindWords) {
        out += k.word;
        out += ", ";
    }
    return out + "all";
}

namespace {
constexpr std::array<std::pair<const char*, uint8_t>, 6> kTcpFlagWords{{
    {"ack", Acl::kTcpAck},
    {"fin", Acl::kTcpFin},
    {"psh", Acl::kTcpPsh},
    {"rst", Acl::kTcpRst},
    {"syn", Acl::kTcpSyn},
    {"urg", Acl::kTcpUrg},
}};
}  // namespace

std::optional<uint8_t> tcpFlagNamed(std::string_view word) {
    for (const auto& [w, bit] : kTcpFlagWords) {
        if (word == w)
            return bit;
    }
    return std::nullopt;
}

std::string tcpFlagWords(uint8_t flags) {
    std::string out;
    for (const auto& [w, bit] : kTcpFlagWords) {
        if (flags & bit) {
            if (!out.empty())
                out += ' ';
            out += w;
        }
    }
    return out;
}

std::optional<Acl::AclType> aclTypeNamed(std::string_view word) {
    if (word == "ip" || word == "ipv4")
        return Acl::aclTypeIpv4;
    if (word == "ipv6")
        return Acl::aclTypeIpv6;
    if (word == "mac")
        return Acl::aclTypeMac;
    return std::nullopt;
}

std::optional<Acl::AclDirection> aclDirectionNamed(std::string_view word) {
    if (word == "in")
        return Acl::aclDirectionIn;
    if (word == "out")
        return Acl::aclDirectionOut;
    return std::nullopt;
}

std::string str(const AclRef& r) {
    return r.name + "/" + Acl::aclTypeName(r.type);
}

const char* actionWord(const Action& a) {
    return std::visit(
        Overloaded{
            [](const Step::SetAcl&) { return "acl"; },
            [](const Step::RemoveAcl&) { return "removeAcl"; },
            [](const Step::SetRule&) { return "rule"; },
            [](const Step::RemoveRule&) { return "removeRule"; },
            [](const Step::Bind&) { return "bind"; },
            [](const Step::Unbind&) { return "unbind"; },
            [](const Step::AddChip&) { return "addChip"; },
            [](const Step::RemoveChip&) { return "removeChip"; },
            [](const Step::MovePort&) { return "movePort"; },
            [](const Step::VlanMember& s) { return s.join ? "vlanJoin" : "vlanLeave"; },
            [](const Step::LagMember& s) { return s.join ? "lagJoin" : "lagLeave"; },
            [](const Step::SubIntf& s) { return s.add ? "addSubIntf" : "removeSubIntf"; },
            [](const Step::Fault&) { return "fault"; },
            [](const Step::AllocMax&) { return "allocMax"; },
            [](const Step::Run&) { return "run"; },
            [](const Step::Snapshot&) { return "snapshot"; },
        },
        a);
}

std::string describe(const Action& a) {
    std::ostringstream os;
    std::visit(
        Overloaded{
            [&](const Step::SetAcl& s) {
                os << "set ACL " << str(s.acl.ref) << " (" << s.acl.rules.size() << " rules)";
            },
            [&](const Step::RemoveAcl& s) { os << "remove ACL " << str(s.acl); },
            [&](const Step::SetRule& s) {
                os << "set rule of " << str(s.acl) << ": "
                   << Acl::ruleText(s.rule.seq, s.rule.entry);
            },
            [&](const Step::RemoveRule& s) {
                os << "remove rule " << s.seq << " of " << str(s.acl);
            },
            [&](const Step::Bind& s) {
                os << "bind " << str(s.binding.acl) << " "
                   << Acl::aclDirectionName(s.binding.direction) << " on " << s.binding.intf;
            },
            [&](const Step::Unbind& s) {
                os << "unbind " << Acl::aclTypeName(s.type) << " "
                   << Acl::aclDirectionName(s.direction) << " on " << s.intf;
            },
            [&](const Step::AddChip& s) {
                os << "add " << chipName(s.chip.id) << " with " << s.chip.ports.size() << " ports";
            },
            [&](const Step::RemoveChip& s) { os << "remove " << chipName(s.chip); },
            [&](const Step::MovePort& s) {
                if (s.chip)
                    os << "move " << s.port << " to " << chipName(*s.chip);
                else
                    os << "take " << s.port << " off its chip";
            },
            [&](const Step::VlanMember& s) {
                os << s.port << (s.join ? " joins VLAN " : " leaves VLAN ") << s.vlan;
            },
            [&](const Step::LagMember& s) {
                os << s.port << (s.join ? " joins " : " leaves ") << s.lag;
            },
            [&](const Step::SubIntf& s) {
                os << (s.add ? "add sub-interface " : "remove sub-interface ") << s.intf;
            },
            [&](const Step::Fault& s) { os << "fault on " << chipName(s.chip) << ": " << s.fault; },
            [&](const Step::AllocMax& s) {
                os << "allocMax of " << chipName(s.chip) << ": ";
                if (s.max)
                    os << *s.max;
                else
                    os << "unlimited";
            },
            [&](const Step::Run&) { os << "run"; },
            [&](const Step::Snapshot& s) { os << "snapshot '" << s.label << "'"; },
        },
        a);
    return os.str();
}

}  // namespace Sim
