#include "tools/sim/ScenarioBuilders.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

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

}  // namespace

Scenario makeSwitch(const SwitchSize& z) {
    const uint32_t total = z.chips * z.portsPerChip;
    const uint32_t lagPorts = z.lags * z.lagMembers;
    if (z.chips == 0 || z.portsPerChip == 0)
        throw std::invalid_argument("makeSwitch: a switch needs chips and ports");
    if (lagPorts >= total)
        throw std::invalid_argument("makeSwitch: port-channel members take every port");
    if (z.vlans > Bridging::VlanId::kMax)
        throw std::invalid_argument("makeSwitch: more VLANs than VLAN ids");
    if (z.acls == 0 && (z.bindings > 0 || z.vlans > 0 || z.subIntfs > 0))
        throw std::invalid_argument("makeSwitch: bindings need ACLs");
    if (z.rulesPerAcl == 0)
        throw std::invalid_argument("makeSwitch: an ACL needs a rule");
    const uint32_t freePorts = total - lagPorts;

    Scenario s;
    s.name = "switch of " + std::to_string(z.chips) + " chips, " + std::to_string(total) +
             " ports, " + std::to_string(z.acls) + " ACLs";
    for (uint32_t c = 0; c < z.chips; ++c) {
        ChipSpec spec;
        spec.id = c + 1;
        spec.ruleListIdMax = z.ruleListIdMax;
        spec.hwAclIndexMax = z.hwAclIndexMax;
        for (uint32_t p = 0; p < z.portsPerChip; ++p)
            spec.ports.emplace_back(eth(c * z.portsPerChip + p + 1));
        s.chips.push_back(std::move(spec));
    }
    for (uint32_t l = 0; l < z.lags; ++l) {
        LagSpec lag{Zamu::IntfId::portChannel(l + 1), {}};
        for (uint32_t m = 0; m < z.lagMembers; ++m)
            lag.members.emplace_back(eth(freePorts + l * z.lagMembers + m + 1));
        s.lags.push_back(std::move(lag));
    }
    for (uint32_t a = 0; a < z.acls; ++a) {
        AclSpec spec;
        spec.ref = AclRef{"acl" + std::to_string(a + 1), Acl::aclTypeIpv4};
        for (uint32_t r = 0; r + 1 < z.rulesPerAcl; ++r) {
            std::ostringstream line;
            line << (r + 1) * 10 << " permit tcp 10." << ((a >> 8) & 0xff) << "." << (a & 0xff)
                 << ".0/24 any eq " << (r % 65535) + 1;
            spec.rules.push_back(rule(Acl::aclTypeIpv4, line.str()));
        }
        spec.rules.push_back(
            rule(Acl::aclTypeIpv4, std::to_string(z.rulesPerAcl * 10) + " deny ip any any"));
        s.acls.push_back(std::move(spec));
    }
    auto aclRef = [&](uint32_t i) { return s.acls[i % z.acls].ref; };
    const uint32_t portBindings = std::min(z.bindings, 2 * freePorts);
    for (uint32_t b = 0; b < portBindings; ++b) {
        s.bindings.push_back(
            BindingSpec{Zamu::IntfId(eth(b % freePorts + 1)), aclRef(b),
                        b < freePorts ? Acl::aclDirectionIn : Acl::aclDirectionOut});
    }
    const uint32_t members = std::min(z.vlanMembers, freePorts);
    for (uint32_t v = 0; v < z.vlans; ++v) {
        VlanSpec vlan{Bridging::VlanId(v + 1), {}};
        for (uint32_t m = 0; m < members; ++m)
            vlan.members.emplace_back(eth((v * members + m) % freePorts + 1));
        s.vlans.push_back(std::move(vlan));
        s.bindings.push_back(
            BindingSpec{Zamu::IntfId::vlan(v + 1), aclRef(v), Acl::aclDirectionIn});
    }
    for (uint32_t i = 0; i < z.subIntfs; ++i) {
        const bool onLag = z.lags > 0 && i % 2 == 1;
        const Zamu::IntfId parent = onLag ? Zamu::IntfId::portChannel((i / 2) % z.lags + 1)
                                          : Zamu::IntfId(eth((i / 2) % freePorts + 1));
        const Zamu::IntfId sub = Zamu::IntfId::sub(parent, i + 1);
        s.subInterfaces.push_back(sub);
        s.bindings.push_back(BindingSpec{sub, aclRef(i), Acl::aclDirectionIn});
    }
    return s;
}

}  // namespace Sim
