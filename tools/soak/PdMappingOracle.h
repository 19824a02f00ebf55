#pragma once
// An independent model of one chip's PD mappings, written from the mapping rules alone (it
// calls nothing of MappingSm): given the chip's policy result and its active root, which places
// get a hardware ACL index, which places share one, and which 2nd-level entries each index
// carries. The comparison with what the chip's data-flow tables hold is made up to a renaming
// of the index numbers, since the numbers depend on the order in which places came.
//
// The model:
//  - A place (interface, shared routed port, VLAN, sub-interface) carries the ACLs of its
//    policy entry that the active root holds. Its key is one ACL per table type and direction,
//    over its family's table types only (interfaces: IPv4 port, IPv6 port, MAC; the other
//    three families: IPv4 router, IPv6 router); a later ACL of the same kind and direction
//    (in key order) replaces an earlier one. A place whose key is empty gets no index.
//  - Without an active root, or with one that holds no ACL, nothing is mapped.
//  - Places of one pool (interfaces; or routed ports, VLANs and sub-interfaces together) with
//    equal keys share one index; different keys of a pool have different indexes, taken from
//    0..hwAclIndexMax without the reserved index. When a pool has more keys than numbers,
//    exactly as many keys as there are numbers are mapped, each with all its places.
//  - An index carries, for each ACL of its key and each protocol class of that ACL's ids in
//    the active root, the entry (index, table type, protocol class, direction) -> the ACL id.

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ovinmirel/glue/OvinMirelGlueStatus.h"
#include "platform/mirel/ChipDataFlowConfig.h"
#include "platform/mirel/HwCapability.h"
#include "platform/mirel/Root.h"

namespace OvinMirel::Reliability {

// One ACL per (table type, direction): the ten fields of a hardware ACL index key.
using PdKey = std::map<std::pair<Mirel::TableType, Acl::AclDirection>, Ovin::AclKey>;

// The families that share a number range.
enum class PdPool { paclMacl, racl };

// A place as the 1st level names it: family word and id, for example "intf Ethernet1".
struct PdPlace {
    std::string family;
    std::string id;
    auto operator<=>(const PdPlace&) const = default;
};

struct PdExpectation {
    // Per pool, per key (non-empty), the places that carry it.
    std::map<PdPool, std::map<PdKey, std::vector<PdPlace>>> groups;
};

// What the rules expect; activeRoot may be null.
PdExpectation expectPdMapping(const AclPolicyStatus& policy, const Mirel::RootConfig* activeRoot);

// The differences between the expectation and the tables, one line each, naming the chip;
// empty when the tables hold exactly what the rules give, up to the index numbers.
std::vector<std::string> comparePdMapping(Mirel::ChipId chip, const PdExpectation& expected,
                                          const Mirel::RootConfig* activeRoot,
                                          const Mirel::ChipHwCapability& capability,
                                          const Mirel::ChipDataFlowConfig& tables);

}  // namespace OvinMirel::Reliability
