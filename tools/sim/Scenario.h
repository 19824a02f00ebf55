#pragma once
// Sim::Scenario: what the simulator runs. A switch (chips with their capabilities and ports,
// VLANs, port-channels, sub-interfaces), the ACLs and their bindings at start, then timed steps
// on the virtual clock: configuration changes, chips and ports coming and going, membership
// changes and faults injected through the chip mocks' fault plan.
//
// The model is plain values, already checked: the scenario reader (ScenarioReader.h) refuses
// anything the run could not apply, and the builders (ScenarioBuilders.h) make only valid
// scenarios. Interfaces, VLANs, ACL types and faults are held as the library's own types.

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "ovinmirel/testagent/OvinMirelTestAgentFaultPlan.h"
#include "platform/bridging/VlanId.h"
#include "platform/ovin/AclConfig.h"
#include "platform/ovin/AclType.h"
#include "platform/vorn/Clock.h"
#include "platform/zamu/IntfId.h"

namespace Sim {

// ---- ACL kinds ----
// The words of the ten ACL kinds and directions, as the policy traces them: "v4pacl-in",
// "v4racl-out", "macacl-in", ...; "all" names every kind.
// The bit of a word; nullopt for anything else.
std::optional<uint16_t> aclKindMask(std::string_view word);
// The words of a mask, blank-separated, in bit order ("v4pacl-in v4pacl-out"); "none" for 0.
std::string aclKindWords(uint16_t mask);
// Every word aclKindMask reads, for error texts.
std::string aclKindWordList();

// TCP flag words: "ack fin psh rst syn urg" (the order they print in); nullopt for another word.
std::optional<uint8_t> tcpFlagNamed(std::string_view word);
// The words of a set of flags, blank-separated; "" for none.
std::string tcpFlagWords(uint8_t flags);

// "ip" (also read as "ipv4"), "ipv6", "mac".
std::optional<Acl::AclType> aclTypeNamed(std::string_view word);
std::optional<Acl::AclDirection> aclDirectionNamed(std::string_view word);

// ---- The switch ----
struct ChipSpec {
    uint32_t id = 0;
    // Chip rule list ids 0..ruleListIdMax (at most 255), without the reserved permit-all id.
    uint32_t ruleListIdMax = 15;
    uint32_t ruleListIdReserved = 255;
    bool splitOnProtocol = false;
    // Hardware ACL indexes 0..hwAclIndexMax (at most 65535), without the reserved one.
    uint32_t hwAclIndexMax = 63;
    uint32_t hwAclIndexReserved = 0;
    // Supported combinations of ACL kinds on one interface, preferred first.
    std::vector<uint16_t> combinations{0x3ff};
    uint32_t tcamEntries = 4096;
    uint32_t xformEntries = 1024;
    // Most entries the chip's mock accepts in one transform request; none: unlimited.
    std::optional<uint32_t> allocMax;
    std::vector<Zamu::IntfId> ports;
    bool operator==(const ChipSpec&) const = default;
};

struct RuleSpec {
    uint32_t seq = 0;
    Acl::AclEntry entry;
    bool operator==(const RuleSpec&) const = default;
};

struct AclRef {
    std::string name;
    Acl::AclType type = Acl::aclTypeIpv4;
    auto operator<=>(const AclRef&) const = default;
    bool operator==(const AclRef&) const = default;
};
std::string str(const AclRef& r);  // "web/ip"

struct AclSpec {
    AclRef ref;
    std::vector<RuleSpec> rules;  // ascending sequence numbers
    bool operator==(const AclSpec&) const = default;
};

struct BindingSpec {
    Zamu::IntfId intf;
    AclRef acl;
    Acl::AclDirection direction = Acl::aclDirectionIn;
    bool operator==(const BindingSpec&) const = default;
};

struct VlanSpec {
    Bridging::VlanId id{1};
    std::vector<Zamu::IntfId> members;
    bool operator==(const VlanSpec&) const = default;
};

struct LagSpec {
    Zamu::IntfId lag;
    std::vector<Zamu::IntfId> members;
    bool operator==(const LagSpec&) const = default;
};

// ---- Steps ----
namespace Step {
struct SetAcl {  // creates the ACL, or replaces all its rules
    AclSpec acl;
    bool operator==(const SetAcl&) const = default;
};
struct RemoveAcl {
    AclRef acl;
    bool operator==(const RemoveAcl&) const = default;
};
struct SetRule {  // adds the rule, or replaces the rule with its sequence number
    AclRef acl;
    RuleSpec rule;
    bool operator==(const SetRule&) const = default;
};
struct RemoveRule {
    AclRef acl;
    uint32_t seq = 0;
    bool operator==(const RemoveRule&) const = default;
};
struct Bind {
    BindingSpec binding;
    bool operator==(const Bind&) const = default;
};
struct Unbind {
    Zamu::IntfId intf;
    Acl::AclType type = Acl::aclTypeIpv4;
    Acl::AclDirection direction = Acl::aclDirectionIn;
    bool operator==(const Unbind&) const = default;
};
struct AddChip {
    ChipSpec chip;
    bool operator==(const AddChip&) const = default;
};
struct RemoveChip {
    uint32_t chip = 0;
    bool operator==(const RemoveChip&) const = default;
};
struct MovePort {  // to another chip, or off every chip
    Zamu::IntfId port;
    std::optional<uint32_t> chip;
    bool operator==(const MovePort&) const = default;
};
struct VlanMember {
    Bridging::VlanId vlan{1};
    Zamu::IntfId port;
    bool join = true;
    bool operator==(const VlanMember&) const = default;
};
struct LagMember {
    Zamu::IntfId lag;
    Zamu::IntfId port;
    bool join = true;
    bool operator==(const LagMember&) const = default;
};
struct SubIntf {
    Zamu::IntfId intf;
    bool add = true;
    bool operator==(const SubIntf&) const = default;
};
struct Fault {  // replaces the chip's fault; "none" clears it
    uint32_t chip = 0;
    OvinMirel::TestAgentFault fault;
    bool operator==(const Fault&) const = default;
};
struct AllocMax {
    uint32_t chip = 0;
    std::optional<uint32_t> max;
    bool operator==(const AllocMax&) const = default;
};
struct Run {  // changes nothing: the run goes on at least until then
    bool operator==(const Run&) const = default;
};
// Records the switch's state at this time (after every earlier step and every timer due by
// then; a change made at the same time has not run yet) under a label.
struct Snapshot {
    std::string label;
    bool operator==(const Snapshot&) const = default;
};
}  // namespace Step

using Action = std::variant<Step::SetAcl, Step::RemoveAcl, Step::SetRule, Step::RemoveRule,
                            Step::Bind, Step::Unbind, Step::AddChip, Step::RemoveChip,
                            Step::MovePort, Step::VlanMember, Step::LagMember, Step::SubIntf,
                            Step::Fault, Step::AllocMax, Step::Run, Step::Snapshot>;

// The word a step is written with ("do" in the scenario file).
const char* actionWord(const Action& a);

struct TimedStep {
    Vorn::Seconds at = 0.0;
    Action action;
    bool operator==(const TimedStep&) const = default;
};
// One line saying what the step does: "bind web/ip in on Ethernet1".
std::string describe(const Action& a);

struct Scenario {
    std::string name;
    std::string description;
    // Routed ports may share one hardware ACL index with VLANs and sub-interfaces.
    bool routedPortRaclSharing = false;
    // What the hardware's rules can match, as the ACL helper answers it: TCP flags (Acl::kTcp...
    // bits) and "established". A rule asking for more is refused.
    uint8_t tcpFlags = Acl::kAllTcpFlags;
    bool establishedSupported = true;
    // The engine blocks the interfaces whose ACLs change until the commit is done (the helper
    // ignores its permit-during-update capability).
    bool blockDuringUpdate = false;
    // The run ends here; none: once the switch is quiet after the last step.
    std::optional<Vorn::Seconds> end;
    std::vector<ChipSpec> chips;
    std::vector<VlanSpec> vlans;
    std::vector<LagSpec> lags;
    std::vector<Zamu::IntfId> subInterfaces;
    std::vector<AclSpec> acls;
    std::vector<BindingSpec> bindings;
    std::vector<TimedStep> steps;  // ascending times; steps at one time run in file order
    bool operator==(const Scenario&) const = default;
};

}  // namespace Sim
