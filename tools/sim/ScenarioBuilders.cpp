#include "tools/sim/ScenarioBuilders.h"

#include <algorithm>
#include <array>
#include <iomanip>
#include <map>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "platform/ovin/AclRuleText.h"

namespace Sim {

ChipSpec chip(uint32_t id, std::initializer_list<std::string_view> ports) {
    ChipSpec c;
    c.id = id;
    for (std::string_view p : ports)
        c.ports.emplace_back(p);
    return c;
}

uint16_t combination(std::string_view words) {
    std::istringstream in{std::string(words)};
    uint16_t mask = 0;
    std::string w;
    while (in >> w) {
        const std::optional<uint16_t> bit = aclKindMask(w);
        if (!bit)
            throw std::invalid_argument("unknown ACL kind '" + w + "'");
        mask |= *bit;
    }
    return mask;
}

RuleSpec rule(Acl::AclType type, std::string_view line) {
    const Acl::RuleTextResult r = Acl::parseRuleText(line, type);
    if (!r.ok())
        throw std::invalid_argument(r.error);
    return RuleSpec{r.rule->seq, r.rule->entry};
}

AclSpec acl(std::string name, Acl::AclType type, std::initializer_list<std::string_view> rules) {
    AclSpec a;
    a.ref = AclRef{std::move(name), type};
    for (std::string_view line : rules)
        a.rules.push_back(rule(type, line));
    return a;
}

BindingSpec binding(std::string_view intf, const AclSpec& acl, Acl::AclDirection direction) {
    return BindingSpec{Zamu::IntfId(intf), acl.ref, direction};
}

TimedStep at(Vorn::Seconds t, Action a) {
    return TimedStep{t, std::move(a)};
}

Scenario builtinScenario() {
    Scenario s;
    s.name = "two-chip switch";
    s.establishedSupported = false;
    s.description =
        "Two chips of four ports. Ethernet1 and Ethernet2 carry the same ACL and share one "
        "hardware ACL index; VLAN 100 spans both chips with a router ACL; Port-Channel10 has a "
        "member on each chip and an ACL on its sub-interface Port-Channel10.5; Ethernet4 asks "
        "for an IPv4 and a MAC ACL that the chip cannot hold together; tcp-return has a rule "
        "the hardware cannot match. At 10 s chip 2 is set to fail with tcamFull once: the rule "
        "added to web at 11 s fails the commit on both chips; the binding at 20 s commits both "
        "changes.";

    // Both chips prefer every IP kind together; a MAC ACL only goes with an outbound IPv4
    // port ACL, so IPv4 in and MAC in on one port contend.
    const std::vector<uint16_t> combos{
        combination("v4pacl-in v4racl-in v6pacl-in v6racl-in v4pacl-out v4racl-out v6pacl-out "
                    "v6racl-out"),
        combination("macacl-in v4pacl-out")};
    ChipSpec c1 = chip(1, {"Ethernet1", "Ethernet2", "Ethernet3", "Ethernet4"});
    ChipSpec c2 = chip(2, {"Ethernet5", "Ethernet6", "Ethernet7", "Ethernet8"});
    for (ChipSpec* c : {&c1, &c2}) {
        c->ruleListIdMax = 15;
        c->hwAclIndexMax = 63;
        c->combinations = combos;
    }
    s.chips = {c1, c2};
    s.vlans = {
        VlanSpec{Bridging::VlanId(100), {Zamu::IntfId("Ethernet2"), Zamu::IntfId("Ethernet6")}}};
    s.lags = {LagSpec{Zamu::IntfId("Port-Channel10"),
                      {Zamu::IntfId("Ethernet3"), Zamu::IntfId("Ethernet7")}}};
    s.subInterfaces = {Zamu::IntfId("Port-Channel10.5")};

    const AclSpec web = acl("web", Acl::aclTypeIpv4,
                            {"10 permit tcp 10.0.0.0/8 any eq 80",
                             "20 permit tcp 10.0.0.0/8 any eq 443", "30 deny ip any any"});
    const AclSpec vlanGuard = acl("vlan-guard", Acl::aclTypeIpv4,
                                  {"10 deny ip 192.168.66.0/24 any", "20 permit ip any any"});
    const AclSpec subGuard =
        acl("sub-guard", Acl::aclTypeIpv4, {"10 permit udp any any eq 53", "20 deny ip any any"});
    const AclSpec macFilter =
        acl("mac-filter", Acl::aclTypeMac,
            {"10 deny 0200.0000.0001 0000.0000.0000 any", "20 permit any any"});
    const AclSpec v6Edge = acl("v6-edge", Acl::aclTypeIpv6,
                               {"10 permit tcp 2001:db8::/32 any eq 22", "20 deny ipv6 any any"});
    // "established" needs a match this switch's hardware does not have: the ACL is refused.
    const AclSpec tcpReturn = acl("tcp-return", Acl::aclTypeIpv4,
                                  {"10 permit tcp any any established", "20 deny ip any any"});
    s.acls = {web, vlanGuard, subGuard, macFilter, v6Edge, tcpReturn};
    s.bindings = {
        binding("Ethernet1", web),
        binding("Ethernet2", web),
        binding("Ethernet4", web),
        binding("Ethernet4", macFilter),
        binding("Ethernet5", web),
        binding("Vlan100", vlanGuard),
        binding("Port-Channel10.5", subGuard),
        binding("Ethernet8", tcpReturn, Acl::aclDirectionOut),
    };

    OvinMirel::TestAgentFault tcamFull =
        OvinMirel::TestAgentFault::failing(Mirel::stageTcamFull_).times(1);
    s.steps = {
        at(10.0, Step::Fault{2, tcamFull}),
        at(11.0,
           Step::SetRule{web.ref, rule(Acl::aclTypeIpv4, "25 permit tcp 10.0.0.0/8 any eq 8080")}),
        at(20.0, Step::Bind{binding("Ethernet6", v6Edge)}),
    };
    return s;
}

namespace {

std::string eth(uint32_t n) {
    return "Ethernet" + std::to_string(n);
}

constexpr Acl::AclType kFamilies[] = {Acl::aclTypeIpv4, Acl::aclTypeIpv6, Acl::aclTypeMac};

// Rule r of n of ACL number a: each ACL matches its own addresses, the last rule catches all.
RuleSpec nthRule(Acl::AclType type, uint32_t a, uint32_t r, uint32_t n) {
    std::ostringstream line;
    line << (r + 1) * 10;
    if (r + 1 == n) {
        line << (type == Acl::aclTypeMac    ? " permit any any"
                 : type == Acl::aclTypeIpv6 ? " deny ipv6 any any"
                                            : " deny ip any any");
    } else if (type == Acl::aclTypeMac) {
        line << std::hex << std::setfill('0') << " deny 0200." << std::setw(4) << (a & 0xffff)
             << "." << std::setw(4) << (r & 0xffff) << " 0000.0000.0000 any";
    } else if (type == Acl::aclTypeIpv6) {
        line << " permit tcp 2001:db8:" << std::hex << (a & 0xffff) << "::/48 any eq " << std::dec
             << (r % 65535) + 1;
    } else {
        line << " permit tcp 10." << ((a >> 8) & 0xff) << "." << (a & 0xff) << ".0/24 any eq "
             << (r % 65535) + 1;
    }
    return rule(type, line.str());
}

// Where the ports are: chip by chip, the chip's ports consecutive.
struct PortLayout {
    std::vector<uint32_t> firstPort;  // per chip, 0-based
    std::vector<uint32_t> count;      // per chip
    uint32_t total = 0;

    explicit PortLayout(const SwitchSize& z) {
        for (uint32_t c = 0; c < z.chips; ++c) {
            const uint32_t n = z.totalPorts == 0
                                   ? z.portsPerChip
                                   : z.totalPorts / z.chips + (c < z.totalPorts % z.chips ? 1 : 0);
            firstPort.push_back(total);
            count.push_back(n);
            total += n;
        }
    }
    uint32_t chipOf(uint32_t port) const {
        const auto it = std::upper_bound(firstPort.begin(), firstPort.end(), port);
        return uint32_t(it - firstPort.begin()) - 1;
    }
};

}  // namespace

Scenario makeSwitch(const SwitchSize& z) {
    if (z.chips == 0 || (z.totalPorts == 0 && z.portsPerChip == 0))
        throw std::invalid_argument("makeSwitch: a switch needs chips and ports");
    const PortLayout layout(z);
    const uint32_t total = layout.total;
    const uint32_t lagPorts = z.lags * z.lagMembers;
    if (lagPorts > total || (!z.spread && lagPorts == total))
        throw std::invalid_argument("makeSwitch: port-channel members take every port");
    if (z.vlans > Bridging::VlanId::kMax)
        throw std::invalid_argument("makeSwitch: more VLANs than VLAN ids");
    if (z.acls == 0 && (z.bindings > 0 || z.vlans > 0 || z.subIntfs > 0))
        throw std::invalid_argument("makeSwitch: bindings need ACLs");
    if (z.totalRules == 0 ? z.rulesPerAcl == 0 : z.totalRules < z.acls)
        throw std::invalid_argument("makeSwitch: an ACL needs a rule");

    // Chip groups: a port-channel spreads over one group, and in the spread layout a group
    // binds only its own ACLs.
    const uint32_t span = z.lagsAcrossChips ? std::max(1u, std::min(z.lagMembers, z.chips)) : 1;
    const uint32_t groups = (z.chips + span - 1) / span;
    auto groupOfPort = [&](uint32_t port) { return layout.chipOf(port) / span; };

    Scenario s;
    s.name = "switch of " + std::to_string(z.chips) + " chips, " + std::to_string(total) +
             " ports, " + std::to_string(z.acls) + " ACLs";
    for (uint32_t c = 0; c < z.chips; ++c) {
        ChipSpec chipSpec;
        chipSpec.id = c + 1;
        chipSpec.ruleListIdMax = z.ruleListIdMax;
        chipSpec.hwAclIndexMax = z.hwAclIndexMax;
        chipSpec.tcamEntries = z.tcamEntries;
        chipSpec.xformEntries = z.xformEntries;
        for (uint32_t p = 0; p < layout.count[c]; ++p)
            chipSpec.ports.emplace_back(eth(layout.firstPort[c] + p + 1));
        s.chips.push_back(std::move(chipSpec));
    }

    // Port-channel members, 0-based port numbers; the ports left over are free.
    std::vector<bool> taken(total, false);
    std::vector<uint32_t> lagGroup;
    std::vector<uint32_t> nextOnChip(layout.firstPort);
    for (uint32_t l = 0; l < z.lags; ++l) {
        LagSpec lag{Zamu::IntfId::portChannel(l + 1), {}};
        const uint32_t g = l % groups;
        const uint32_t groupChips = std::min(span, z.chips - g * span);
        for (uint32_t m = 0; m < z.lagMembers; ++m) {
            uint32_t port = total - lagPorts + l * z.lagMembers + m;
            if (z.lagsAcrossChips) {
                const uint32_t c = g * span + m % groupChips;
                if (nextOnChip[c] == layout.firstPort[c] + layout.count[c])
                    throw std::invalid_argument("makeSwitch: Chip-" + std::to_string(c + 1) +
                                                " has no port left for port-channel members");
                port = nextOnChip[c]++;
            }
            taken[port] = true;
            lag.members.emplace_back(eth(port + 1));
        }
        lagGroup.push_back(z.lagsAcrossChips || z.lagMembers == 0
                               ? g
                               : groupOfPort(total - lagPorts + l * z.lagMembers));
        s.lags.push_back(std::move(lag));
    }
    std::vector<uint32_t> free;
    for (uint32_t p = 0; p < total; ++p) {
        if (!taken[p])
            free.push_back(p);
    }

    // In the spread layout ACL a belongs to group a % groups and is of family
    // (a / groups) % 3, so every group has ACLs of each family.
    for (uint32_t a = 0; a < z.acls; ++a) {
        const uint32_t n = z.totalRules == 0
                               ? z.rulesPerAcl
                               : z.totalRules / z.acls + (a < z.totalRules % z.acls ? 1 : 0);
        AclSpec aclSpec;
        aclSpec.ref = AclRef{"acl" + std::to_string(a + 1),
                             z.spread ? kFamilies[(a / groups) % 3] : Acl::aclTypeIpv4};
        for (uint32_t r = 0; r < n; ++r)
            aclSpec.rules.push_back(nthRule(aclSpec.ref.type, a, r, n));
        s.acls.push_back(std::move(aclSpec));
    }

    for (uint32_t v = 0; v < z.vlans; ++v) {
        VlanSpec vlan{Bridging::VlanId(v + 1), {}};
        if (z.spread) {
            const uint32_t c = v % z.chips;
            const uint32_t members = std::min(z.vlanMembers, layout.count[c]);
            for (uint32_t m = 0; m < members; ++m)
                vlan.members.emplace_back(
                    eth(layout.firstPort[c] + ((v / z.chips) * members + m) % layout.count[c] + 1));
        } else {
            const uint32_t members = std::min(z.vlanMembers, uint32_t(free.size()));
            for (uint32_t m = 0; m < members; ++m)
                vlan.members.emplace_back(eth(free[(v * members + m) % free.size()] + 1));
        }
        s.vlans.push_back(std::move(vlan));
    }
    std::vector<uint32_t> subGroup;
    // At scale a sub-interface is numbered within its parent (.1, .2, ...): its ACLs are keyed
    // with the VLAN its number names, so few numbers keep a chip within its ACL keys.
    std::map<Zamu::IntfId, uint32_t> subsOfParent;
    for (uint32_t i = 0; i < z.subIntfs; ++i) {
        const bool onLag = z.lags > 0 && (free.empty() || i % 2 == 1);
        if (!onLag && free.empty())
            throw std::invalid_argument("makeSwitch: sub-interfaces need a port or a port-channel");
        const uint32_t k = z.spread && (free.empty() || z.lags == 0) ? i : i / 2;
        const uint32_t parentPort = onLag ? 0 : free[k % free.size()];
        const Zamu::IntfId parent =
            onLag ? Zamu::IntfId::portChannel(k % z.lags + 1) : Zamu::IntfId(eth(parentPort + 1));
        s.subInterfaces.push_back(
            Zamu::IntfId::sub(parent, z.spread ? ++subsOfParent[parent] : i + 1));
        subGroup.push_back(onLag ? lagGroup[k % z.lags] : groupOfPort(parentPort));
    }

    if (!z.spread) {
        auto aclRef = [&](uint32_t i) { return s.acls[i % z.acls].ref; };
        const uint32_t freePorts = uint32_t(free.size());
        const uint32_t portBindings = std::min(z.bindings, 2 * freePorts);
        for (uint32_t b = 0; b < portBindings; ++b) {
            s.bindings.push_back(
                BindingSpec{Zamu::IntfId(eth(free[b % freePorts] + 1)), aclRef(b),
                            b < freePorts ? Acl::aclDirectionIn : Acl::aclDirectionOut});
        }
        for (uint32_t v = 0; v < z.vlans; ++v)
            s.bindings.push_back(
                BindingSpec{Zamu::IntfId::vlan(v + 1), aclRef(v), Acl::aclDirectionIn});
        for (uint32_t i = 0; i < z.subIntfs; ++i)
            s.bindings.push_back(BindingSpec{s.subInterfaces[i], aclRef(i), Acl::aclDirectionIn});
        return s;
    }

    // The ACLs each group binds to ports, port-channels and sub-interfaces (by family) and to
    // VLAN interfaces, and the next one of each to hand out.
    std::vector<std::array<std::vector<uint32_t>, 3>> pool(groups);
    std::vector<std::vector<uint32_t>> vlanPool(groups);
    for (uint32_t a = 0; a < z.acls; ++a) {
        const uint32_t i = a / groups;
        if (z.boundAclsPerGroup == 0 || i < z.boundAclsPerGroup)
            pool[a % groups][i % 3].push_back(a);
        else
            vlanPool[a % groups].push_back(a);
    }
    std::vector<std::array<uint32_t, 3>> next(groups, std::array<uint32_t, 3>{});
    std::vector<uint32_t> nextVlan(groups, 0);
    auto take = [&](const std::vector<uint32_t>& acls, uint32_t& counter) -> const AclRef& {
        if (acls.empty())
            throw std::invalid_argument("makeSwitch: a chip group has no ACL of a family it binds");
        return s.acls[acls[counter++ % acls.size()]].ref;
    };

    uint32_t left = z.bindings;
    for (uint32_t v = 0; v < z.vlans && left > 0; ++v) {
        if (z.vlanAclsPerChip != 0 && v / z.chips >= z.vlanAclsPerChip)
            continue;
        const uint32_t g = (v % z.chips) / span;
        // Without ACLs of its own the group's VLANs share the others'.
        const std::vector<uint32_t>& acls = vlanPool[g].empty() ? pool[g][v % 3] : vlanPool[g];
        s.bindings.push_back(
            BindingSpec{Zamu::IntfId::vlan(v + 1), take(acls, nextVlan[g]), Acl::aclDirectionIn});
        --left;
    }
    struct Place {
        Zamu::IntfId intf;
        uint32_t group;
        // A sub-interface takes its group's first ACL of each family, inbound only: every
        // (ACL, number) is a key of its own.
        bool sub = false;
    };
    std::vector<Place> places;
    for (uint32_t p : free)
        places.push_back(Place{Zamu::IntfId(eth(p + 1)), groupOfPort(p)});
    for (uint32_t l = 0; l < z.lags; ++l)
        places.push_back(Place{s.lags[l].lag, lagGroup[l]});
    for (uint32_t i = 0; i < z.subIntfs; ++i)
        places.push_back(Place{s.subInterfaces[i], subGroup[i], true});
    const uint32_t n = uint32_t(places.size());
    for (uint32_t b = 0; b < 6 * n && left > 0; ++b) {
        const uint32_t kind = b / n;
        const Place& place = places[b % n];
        if (place.sub && kind >= 3)
            continue;
        uint32_t first = 0;
        const AclRef& ref = place.sub
                                ? take(pool[place.group][kind], first)
                                : take(pool[place.group][kind % 3], next[place.group][kind % 3]);
        s.bindings.push_back(
            BindingSpec{place.intf, ref, kind < 3 ? Acl::aclDirectionIn : Acl::aclDirectionOut});
        --left;
    }
    return s;
}

}  // namespace Sim
