#pragma once
// Sim::SwitchState: what a running test agent has programmed, read back from its entities into
// plain values in a fixed order (every collection walked in key order), so that the report and
// the JSON dump print the same facts the same way run after run.
//
//  - per chip: its ports, active root, the ACL ids of the active root, the 1st-level mappings
//    (place -> hardware ACL index) and 2nd-level mappings (index, table type, direction,
//    protocol -> chip rule list) loaded into the chip's configuration, which places share each
//    index, the interfaces where the policy left an ACL out, places waiting for an index,
//    blocked ports, its published error and its table capacity;
//  - per configured interface, each ACL bound there: in effect on every port it reaches, or
//    left out with the first reason found (see Reason);
//  - the engine's outcome per ACL, the glue's state and last result, blocked interfaces.

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ovinmirel/testagent/OvinMirelTestAgentRoot.h"

namespace Sim {

// Why an ACL bound to an interface is not in effect there. The words are stable: the dump and
// the tests use them.
enum class Reason {
    none,        // in effect
    refused,     // the engine did not install the ACL (a rule or a kind the hardware refuses)
    notReady,    // it reaches no port on a present chip yet, or the policy has not admitted it
    contention,  // the chip's policy kept a higher-priority combination of ACL kinds
    chipFailed,  // the chip's programmed root lacks it: the commit that carried it failed
    noIndex,     // no hardware ACL index was free for its place
    unmapped,    // its place's index selects other ACL kinds: the chip programs it nowhere
};
// "", "refused", "notReady", "contention", "chipFailed", "noIndex", "unmapped"
const char* reasonWord(
    Reason r);  // "", "refused", "notReady", "contention", "chipFailed", "noIndex"

struct TableUse {
    std::string table;  // "EntryTable", "RuleListIds", "AlgoMatch"
    uint32_t used = 0;
    uint32_t free = 0;
    uint32_t committed = 0;
    uint32_t max = 0;
};

struct AclIdRow {
    std::string acl;       // the ACL key's text ("web/ip/in")
    std::string protocol;  // "tcp", "nonTcp", "all"
    uint32_t tableType = 0;
    uint32_t chipRuleListId = 0;
    std::string direction;
    uint32_t rules = 0;  // the rules of its rule list (the split halves count theirs)
};

struct FirstLevelRow {
    std::string kind;  // "intf", "routedPort", "vlan", "subIntf"
    std::string place;
    uint32_t index = 0;
};

struct SecondLevelRow {
    uint32_t index = 0;
    uint32_t tableType = 0;
    std::string direction;
    std::string protocol;
    uint32_t chipRuleListId = 0;
    std::string acl;  // the ACL of the active root with that id; empty when none
};

struct IndexShare {
    std::string pool;  // "port" (port and MAC ACLs) or "router" (router ACLs)
    uint32_t index = 0;
    std::vector<std::string> places;  // "Ethernet1", "Vlan100", "Port-Channel10.5", ...
};

struct ChipState {
    uint32_t id = 0;
    bool present = false;
    std::vector<std::string> ports;
    std::optional<uint32_t> activeRoot;
    std::optional<std::string> error;  // the error published for the chip's last attempt
    bool ruleListIdsExhausted = false;
    std::vector<AclIdRow> aclIds;
    std::vector<FirstLevelRow> firstLevel;
    std::vector<SecondLevelRow> secondLevel;
    std::vector<IndexShare> indexes;
    std::vector<std::string> contention;       // the policy's error interfaces
    std::vector<std::string> waitingForIndex;  // places whose pool had no free index
    std::vector<std::string> blocked;
    std::vector<TableUse> capacity;
};

struct PortVerdict {
    std::string port;
    std::optional<uint32_t> chip;
    Reason reason = Reason::none;
    std::string detail;
};

struct AclVerdict {
    std::string acl;  // the ACL key's text
    Reason reason = Reason::none;
    std::string detail;
    std::vector<PortVerdict> ports;  // the ports the binding reaches, in port order
};

struct IntfState {
    std::string intf;
    std::vector<AclVerdict> acls;  // by binding slot: type, then direction
};

struct AclOutcome {
    std::string acl;    // the ACL key's text
    std::string state;  // "pending", "installed", "failed"
    uint32_t result = 0;
    std::string error;
};

struct SwitchState {
    double time = 0.0;
    std::string glueState;
    std::string lastResult;
    std::vector<ChipState> chips;
    std::vector<IntfState> interfaces;
    std::vector<AclOutcome> acls;
    std::vector<std::string> blocked;
};

// Reads the agent's state now. `chips`: chip ids to report besides the present ones (chips
// that left keep their entry, with present false).
SwitchState captureState(const OvinMirel::TestAgentRoot& root, const std::set<uint32_t>& chips);

}  // namespace Sim
