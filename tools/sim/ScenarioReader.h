#pragma once
// The scenario reader: JSON text in, a checked Sim::Scenario out (docs/scenario.md describes the
// format). Everything the run could not apply is refused here, before anything runs, with the
// place it was found: the source, the JSON path of the field, and why:
//
//   "switch.json: steps[3].intf: unknown interface 'Ethernet9'"
//   "switch.json: vlans[0].id: VlanId::value < 1 or > 4094 not allowed"
//   "switch.json: acls[1].rules[0]: rule '10 permit tcp any any eq 99999': ... (column 28)"
//   "switch.json: bindings[2].acl: no ACL named 'web'"
//
// Steps are checked in time order against what the scenario has declared by then (chips
// present, ports and their chips, VLANs, port-channels and their members, sub-interfaces,
// ACLs and their rules, bindings), so a step that names something removed earlier is refused
// too. Unknown fields are refused, so a misspelt field never passes silently.
//
// The reader takes text and touches nothing else (no files, no library state): a fuzz target
// can drive readScenario directly.

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tools/sim/Scenario.h"

namespace Sim {

class ScenarioError : public std::runtime_error {
  public:
    // what(): "<source>: <path>: <why>", or "<source>: <why>" when the path is empty.
    ScenarioError(std::string source, std::string path, std::string why);
    const std::string& source() const { return source_; }
    const std::string& path() const { return path_; }
    const std::string& why() const { return why_; }

  private:
    std::string source_;
    std::string path_;
    std::string why_;
};

struct ReadScenario {
    Scenario scenario;
    // Where a rule was read differently from how it was written ("acls[0].rules[1]: host bits
    // of 10.1.1.1/8 cleared: read as 10.0.0.0/8"), in file order.
    std::vector<std::string> notes;
};

// Throws ScenarioError for anything it refuses (JSON syntax errors included).
ReadScenario readScenario(std::string_view text, std::string_view source);
// The file's text through readScenario; a file that cannot be read is a ScenarioError too.
ReadScenario readScenarioFile(const std::string& path);

}  // namespace Sim
