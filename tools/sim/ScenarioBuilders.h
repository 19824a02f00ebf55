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
    uint32_t acls = 8;
    uint32_t rulesPerAcl = 4;
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
};
// The switch with its whole configuration at start and no steps. Throws std::invalid_argument
// for a size that cannot be built (no chips or ports, more port-channel members than ports,
// more VLANs than 4094).
Scenario makeSwitch(const SwitchSize& size);

}  // namespace Sim
