#pragma once
// Scenario builders: short ways to write a Sim::Scenario in code, the simulator's built-in
// scenario, and a switch of any size for the benchmarks. Everything built here is a valid
// scenario (the reader takes the written form back unchanged).

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "tools/sim/Scenario.h"

namespace Sim {

// ---- Pieces ----
// A chip with the default capabilities and these ports ("Ethernet1", ...).
ChipSpec chip(uint32_t id, std::initializer_list<std::string_view> ports);
// A supported combination from its words ("v4pacl-in macacl-in"). Throws std::invalid_argument
// "unknown ACL kind '<word>'".
uint16_t combination(std::string_view words);
// An ACL from rule lines in the one-line form. Throws std::invalid_argument with the rule
// reader's error for a line it refuses.
AclSpec acl(std::string name, Acl::AclType type, std::initializer_list<std::string_view> rules);
RuleSpec rule(Acl::AclType type, std::string_view line);
BindingSpec binding(std::string_view intf, const AclSpec& acl,
                    Acl::AclDirection direction = Acl::aclDirectionIn);
TimedStep at(Vorn::Seconds t, Action a);

// ---- The built-in scenario ----
// A small two-chip switch that shows, in one run: one hardware ACL index shared by several
// ports, a VLAN ACL reaching member ports on both chips, an ACL on a sub-interface of a
// port-channel spread over both chips, a policy contention and its log message (and the
// message when it is resolved), an ACL refused for a rule the hardware cannot match, and one
// commit that fails on an injected TCAM-full fault and succeeds on the next change.
Scenario builtinScenario();

// ---- A switch of a given size ----
struct SwitchSize {
    uint32_t chips = 2;
    uint32_t portsPerChip = 8;
    // When not 0, the switch's ports in all, spread evenly over the chips (the first chips
    // take one more when they do not divide); portsPerChip is then unused.
    uint32_t totalPorts = 0;
    uint32_t acls = 8;
    uint32_t rulesPerAcl = 4;
    // When not 0, the rules of all ACLs together, spread evenly (the first ACLs take one more
    // when they do not divide); rulesPerAcl is then unused. At least one rule per ACL.
    uint32_t totalRules = 0;
    // Port bindings, spread over the ports outside port-channels, inbound first, then
    // outbound (so at most two per port).
    uint32_t bindings = 8;
    // VLANs 1, 2, ... each with vlanMembers consecutive ports and one ACL on its interface.
    uint32_t vlans = 2;
    uint32_t vlanMembers = 4;
    // Port-channels Port-Channel1, ... each with lagMembers ports taken from the last ports.
    uint32_t lags = 1;
    uint32_t lagMembers = 2;
    // Sub-interfaces, alternately on ports and on port-channels, each with one ACL.
    uint32_t subIntfs = 2;
    // Rule list ids and hardware ACL indexes of each chip.
    uint32_t ruleListIdMax = 255;
    uint32_t hwAclIndexMax = 65535;
    // TCAM and transform entries of each chip.
    uint32_t tcamEntries = 4096;
    uint32_t xformEntries = 1024;

    // A switch laid out like a real one at scale, within what a chip can number: each chip
    // holds at most ruleListIdMax ACL keys, and every ACL on a VLAN interface is a key of its
    // own. Chips form groups of lagMembers consecutive chips (one chip a group when
    // lagsAcrossChips is off); a port-channel has one member on each chip of its group, taken
    // from the first free ports. VLAN v (from 0) lives on chip v % chips, its members
    // consecutive ports of that chip. ACLs are of every family (IPv4, IPv6, MAC, in turn).
    // `bindings` counts every binding: first one ACL on the interface of each of the first
    // vlanAclsPerChip VLANs of every chip (0: of every VLAN), then one ACL kind at a time
    // (IPv4, IPv6, MAC inbound, then outbound) over the ports outside port-channels, the
    // port-channels and the sub-interfaces in turn, at most six per interface. These take
    // their ACLs from the first boundAclsPerGroup ACLs of the interface's chip group (0: no
    // limit), the VLAN interfaces from the group's others. Sub-interfaces sit on
    // port-channels when no port is free.
    bool spread = false;
    bool lagsAcrossChips = false;
    uint32_t boundAclsPerGroup = 0;
    uint32_t vlanAclsPerChip = 0;
};
// The switch with its whole configuration at start and no steps. Throws std::invalid_argument
// for a size that cannot be built (no chips or ports, more port-channel members than ports,
// more VLANs than 4094, fewer rules than ACLs).
Scenario makeSwitch(const SwitchSize& size);

}  // namespace Sim
