#pragma once
// The ACL engine's view of one ACL as it hands it to the helper (Ovin::AclData), the engine's
// per-ACL status (Ovin::AclDataStatus) and the result code of the helper's creation
// operations (Ovin::AclCreateError).

#include <cstdint>
#include <ostream>
#include <set>
#include <vector>

#include "platform/ovin/AclKey.h"
#include "platform/ovin/AclRuleConfig.h"
#include "platform/ovin/AclType.h"
#include "platform/zamu/IntfId.h"

namespace Ovin {

// Result of a creation operation. The engine interprets the values; the gaps between them
// are engine codes this layer never produces.
enum AclCreateError : uint32_t {
    aclCreateOk = 0,
    // The final (implicit) rule has been created: the ACL's rule set is complete.
    aclCreateFinalRuleDone = 1,
    // The hardware cannot express the rule; nothing of it was stored.
    aclCreateNotSupportedByHw = 14,
    // The engine's generic failure (used when reporting an ACL's commit outcome).
    aclCreateFailed = 17,
};
const char* aclCreateErrorName(AclCreateError e);  // the enumerator's name without "aclCreate"
std::ostream& operator<<(std::ostream& os, AclCreateError e);  // the number

// One rule of an ACL as the engine numbered it: the numbering only (tracing, show); the rule
// itself goes to the helper with each creation call.
struct AclDataRule {
    uint32_t ruleNum = 0;
    uint32_t subruleNum = 0;
    Acl::UniqueId id;
};

struct AclData {
    AclKey key;
    std::vector<AclDataRule> rules;  // in the engine's order
    // Interfaces the ACL is already applied to when the engine hands it over.
    std::set<Zamu::IntfId> intf;
    // Count every subrule of the ACL in hardware, whatever each rule's own count flag says.
    // The engine passes it on to each subrule it creates.
    bool countersEnabled = false;
};

// "aclData: <key>, dir: <in|out>, vlan: <id|none>" then ", rule# <n>, subrule# <m>,
// aclRuleId=<id>" per rule.
std::ostream& operator<<(std::ostream& os, const AclData& d);

// The engine's bookkeeping for one ACL. The helper receives it with some operations and does
// not write it.
struct AclDataStatus {
    AclCreateError lastResult = aclCreateOk;  // the outcome last reported for the ACL
    bool installed = false;                   // the ACL is in effect in the data plane
};

}  // namespace Ovin
