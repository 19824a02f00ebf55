// Bad input against a switch that already holds configuration: every refusal carries its exact
// text, and afterwards everything the switch holds is what it held before. "Everything" is the
// full state text below: the simulator's state dump (each chip's programmed ids, mappings,
// shared indexes, contention, blocked ports, capacity; each binding's verdict; the engine's
// outcome per ACL), the ACL store, the Index, the per-chip ACL ids, the hardware ACL index
// allocators, the glue's status and the number of commit cycles.
//
// Ranges are tested at both boundaries: the out-of-range value is refused and changes nothing,
// the in-range one is then accepted. Rule translation refusals go through the running agent's
// own helper, as the engine would call it. The scenario reader is checked field by field.

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "ovinmirel/index/OvinMirelIndexTestWorld.h"
#include "ovinmirel/testagent/OvinMirelTestAgentRootTestWorld.h"
#include "platform/flinq/Flinq.h"
#include "platform/vorn/Exception.h"
#include "tools/sim/ScenarioReader.h"
#include "tools/sim/StateDump.h"
#include "tools/sim/SwitchState.h"

namespace OvinMirel {
namespace {

using TestAgentTest::World;
using Zamu::IntfId;
using Zamu::IpAddrWithMask;

const std::set<uint32_t> kChips = {1, 2};
const Ovin::AclKey kWeb = TestSupport::aclKey("web");
const Ovin::AclKey kV6 = TestSupport::aclKey("v6", Acl::aclTypeIpv6);

// Two chips; Ethernet1-3 on chip 1, Ethernet4-5 on chip 2; VLAN 20 spans both chips;
// Port-Channel10 holds Ethernet3 and carries the sub-interface Port-Channel10.5. An ACL of each
// family is bound to a port, the VLAN interface and the sub-interface.
void configure(World& w) {
    w.chip(1);
    w.chip(2);
    for (uint32_t i = 1; i <= 5; ++i)
        w.root->portIs(IntfId::ethernet(i), Mirel::ChipId(i <= 3 ? 1 : 2));
    w.root->vlanMemberIs(20, "Ethernet2");
    w.root->vlanMemberIs(20, "Ethernet4");
    w.root->lagMemberIs("Ethernet3", "Port-Channel10");
    w.root->subIntfIs("Port-Channel10.5");
    w.rule("web", Acl::aclTypeIpv4, "10 permit tcp 10.0.0.0/8 any eq 443");
    w.rule("web", Acl::aclTypeIpv4, "20 deny udp any range 1000 2000 any");
    w.rule("v6", Acl::aclTypeIpv6, "10 deny ipv6 2001:db8::/32 any dscp 46");
    w.rule("macs", Acl::aclTypeMac, "10 deny 0000.1111.2222 0000.0000.0000 any 0x0806");
    w.bind("Ethernet1", "web");
    w.bind("Vlan20", "web");
    w.bind("Ethernet4", "v6", Acl::aclTypeIpv6);
    w.bind("Ethernet5", "macs", Acl::aclTypeMac);
    w.bind("Port-Channel10.5", "web", Acl::aclTypeIpv4, Acl::aclDirectionOut);
    w.settle();
}

template <class Map>
std::vector<std::string> sortedTexts(const Map& m) {
    std::vector<std::string> out;
    for (const auto& [k, v] : m)
        out.push_back(TestSupport::str(k) + "=" + TestSupport::str(v));
    std::sort(out.begin(), out.end());
    return out;
}
template <class Set>
std::vector<std::string> sortedMembers(const Set& s) {
    std::vector<std::string> out;
    for (const auto& k : s)
        out.push_back(TestSupport::str(k));
    std::sort(out.begin(), out.end());
    return out;
}

// Everything the switch holds, one fact per line.
std::string fullState(const World& w) {
    std::ostringstream os;
    Sim::RunResult dump;
    dump.state = Sim::captureState(*w.root, kChips);
    dump.state.time = 0;  // the run moves the clock; the state is what matters
    os << Sim::writeDump(dump);

    const auto line = [&os](const auto&... parts) {
        (os << ... << parts);
        os << "\n";
    };
    const Vorn::Ptr<OvinMirelAclColl> store = w.status()->aclColl();
    for (const Ovin::AclKey& key : store->acl().sortedKeys()) {
        const Vorn::Ptr<OvinMirelAcl> acl = store->acl(key);
        line("store ", key, " created=", acl->created(), " inUse=", acl->inUse());
        for (const auto& [i, r] : acl->ipRuleById())
            line("  ip ", i, " ", r);
        for (const auto& [i, r] : acl->macRuleById())
            line("  mac ", i, " ", r);
        for (const std::string& s : sortedTexts(acl->ruleNum()))
            line("  ruleNum ", s);
        for (const std::string& s : sortedTexts(acl->ruleCountByProtocol()))
            line("  count ", s);
        for (const std::string& s : sortedMembers(acl->ethIntf()))
            line("  ethIntf ", s);
        for (const std::string& s : sortedMembers(acl->subIntf()))
            line("  subIntf ", s);
        for (const std::string& s : sortedMembers(acl->vlanIntf()))
            line("  vlanIntf ", s);
    }
    for (const std::string& fact : IndexTest::indexFacts(*w.status()->index()))
        line("index ", fact);

    const Vorn::Ptr<GlueStatus> glue = w.glueStatus();
    line("glue ", glue->glueSmState(), " last=", glue->lastComputationResult(),
         " cycles=", w.root->cycles());
    for (const auto& [chip, root] : glue->activeRootSmId())
        line("activeRoot ", chip, "=", root);
    for (const auto& [chip, error] : glue->chipError())
        line("chipError ", chip, "=", error);
    for (const auto& [chip, response] : glue->aclIdResponseColl()->chipAclIdResponse())
        for (const auto& [key, ids] : response->response())
            for (const auto& [protocol, id] : ids->aclIdType())
                line("aclId ", chip, " ", key, " ", protocol, "=", id);
    for (const auto& [chip, sm] : w.root->ovinMirelGlueSm()->mappingSmColl()->sm()) {
        for (const auto& [type, alloc] : sm->hwAclIndexAllocator()) {
            if (const auto& status = alloc->status()) {
                for (uint32_t n : status->allocated())
                    line("hwAclIndex ", chip, " ", type, " ", n);
                for (const auto& [n, t] : status->heldBack())
                    line("hwAclIndex heldBack ", chip, " ", type, " ", n, " ", t);
            }
        }
    }
    for (const std::string& s : sortedMembers(w.status()->pDConfig()->blockedIntf()))
        line("blocked ", s);
    // What the driver publishes: capabilities, chips and where each port sits.
    for (const auto& chip : w.status()->hwCapabilityColl()->chipHwCapability().sortedKeys())
        line("capability ", chip);
    for (const auto& chip : w.status()->pDStatus()->chipPDStatus().sortedKeys())
        line("pdStatus ", chip);
    for (const auto& port : w.status()->pDStatus()->intfMapping().sortedKeys())
        line("port ", port, " ", w.status()->pDStatus()->intfMapping(port)->chipId());
    return os.str();
}

// The exception a call throws, as "<kind>: <what()>"; "accepted" when it returns.
std::string outcomeOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const Vorn::RangeException& e) {
        return std::string("range: ") + e.what();
    } catch (const Vorn::NullPointerException& e) {
        return std::string("null: ") + e.what();
    } catch (const std::invalid_argument& e) {
        return std::string("invalid: ") + e.what();
    } catch (const std::exception& e) {
        return std::string("other: ") + e.what();
    }
    return "accepted";
}

// ---- Bad input to the agent: refused with its text, nothing changed, the neighbour accepted ----

struct BadInput {
    const char* name;
    std::function<void(World&)> refused;
    std::string outcome;                        // "<kind>: <exact text>"
    std::function<void(World&)> accepted = {};  // the in-range neighbour, when there is one
    bool acceptedShows = true;  // the neighbour changes the switch state (not all settings do)
};

void PrintTo(const BadInput& c, std::ostream* os) {
    *os << c.name;
}

class BadInputTest : public ::testing::TestWithParam<BadInput> {};

TEST_P(BadInputTest, RefusedWithItsTextAndNothingChanges) {
    const BadInput& c = GetParam();
    World w;
    configure(w);
    const std::string before = fullState(w);
    ASSERT_NE(before.find("store web/ip/in"), std::string::npos) << "the switch is not configured";

    EXPECT_EQ(outcomeOf([&] { c.refused(w); }), c.outcome);
    w.settle();
    EXPECT_EQ(fullState(w), before);

    if (c.accepted) {
        EXPECT_EQ(outcomeOf([&] { c.accepted(w); }), "accepted");
        w.settle();
        if (c.acceptedShows) {
            EXPECT_NE(fullState(w), before) << "the in-range neighbour changed nothing";
        }
    }
}

std::string nameOf(const ::testing::TestParamInfo<BadInput>& info) {
    return info.param.name;
}

TestAgentChipCapability capability(std::function<void(TestAgentChipCapability&)> edit) {
    TestAgentChipCapability c;
    edit(c);
    return c;
}

// A rule line for the bound ACL of that type: refused, it must leave the ACL as it was.
std::function<void(World&)> rule(Acl::AclType type, std::string line) {
    const char* name = type == Acl::aclTypeIpv6 ? "v6" : type == Acl::aclTypeMac ? "macs" : "web";
    return [name, type, line](World& w) { w.root->aclRuleIs(name, type, line); };
}

const Acl::AclEntry kPermitAll = Acl::AclEntry::ip(Acl::IpRuleConfig());

INSTANTIATE_TEST_SUITE_P(
    Ranges, BadInputTest,
    ::testing::Values(
        BadInput{"chipIdAboveMax", [](World& w) { w.chip(2147483648u); },
                 "range: TestAgentRoot::chip > 2147483647 not allowed",
                 [](World& w) { w.chip(2147483647u); }},
        BadInput{"combinationAbove0x3ff",
                 [](World& w) {
                     w.chip(3, capability([](auto& c) { c.aclTypeCombinations = {0x3ff, 0x400}; }));
                 },
                 "range: AclTypeCombinationBitMask::value > 0x3ff not allowed",
                 [](World& w) {
                     w.chip(3, capability([](auto& c) { c.aclTypeCombinations = {0x3ff}; }));
                 }},
        BadInput{"hwAclIndexMaxAbove65535",
                 [](World& w) { w.chip(3, capability([](auto& c) { c.hwAclIndexMax = 65536; })); },
                 "range: TestAgentRoot::hwAclIndexMax > 65535 not allowed",
                 [](World& w) { w.chip(3, capability([](auto& c) { c.hwAclIndexMax = 65535; })); }},
        BadInput{
            "chipRuleListIdMaxAbove255",
            [](World& w) { w.chip(3, capability([](auto& c) { c.chipRuleListIdMax = 256; })); },
            "range: TestAgentRoot::chipRuleListIdMax > 255 not allowed",
            [](World& w) { w.chip(3, capability([](auto& c) { c.chipRuleListIdMax = 255; })); }},
        BadInput{"vlanZero", [](World& w) { w.root->vlanMemberIs(0, "Ethernet1"); },
                 "range: VlanId::value < 1 or > 4094 not allowed",
                 [](World& w) { w.root->vlanMemberIs(1, "Ethernet1"); }},
        BadInput{"vlanAbove4094", [](World& w) { w.root->vlanMemberIs(4095, "Ethernet1"); },
                 "range: VlanId::value < 1 or > 4094 not allowed",
                 [](World& w) { w.root->vlanMemberIs(4094, "Ethernet1"); }},
        BadInput{"sequenceZero",
                 [](World& w) { w.root->aclEntryIs("web", Acl::aclTypeIpv4, 0, kPermitAll); },
                 "range: AclConfig::entry sequence < 1 or > 4294967039 not allowed",
                 [](World& w) { w.root->aclEntryIs("web", Acl::aclTypeIpv4, 1, kPermitAll); }},
        BadInput{
            "sequenceAboveMax",
            [](World& w) { w.root->aclEntryIs("web", Acl::aclTypeIpv4, 4294967040, kPermitAll); },
            "range: AclConfig::entry sequence < 1 or > 4294967039 not allowed",
            [](World& w) { w.root->aclEntryIs("web", Acl::aclTypeIpv4, 4294967039, kPermitAll); }},
        BadInput{"sequenceOfANewAcl",
                 [](World& w) { w.root->aclEntryIs("fresh", Acl::aclTypeIpv4, 0, kPermitAll); },
                 "range: AclConfig::entry sequence < 1 or > 4294967039 not allowed"},
        BadInput{"updateDelayNegative",
                 [](World& w) { w.root->aclParamConfig()->updateDelayIs(-0.5); },
                 "range: ParamConfig::updateDelay < 0 or not finite not allowed",
                 [](World& w) { w.root->aclParamConfig()->updateDelayIs(0); }, false},
        BadInput{"runUntilBeforeNow",
                 [](World& w) { w.root->runUntil(w.root->clock().now() - 0.001); },
                 "invalid: TestAgentRoot::runUntil: a time before now",
                 [](World& w) { w.root->runUntil(w.root->clock().now()); }, false}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    RuleText, BadInputTest,
    ::testing::Values(
        BadInput{"portAbove65535", rule(Acl::aclTypeIpv4, "10 permit tcp any any eq 65536"),
                 "invalid: rule '10 permit tcp any any eq 65536': destination port must be a "
                 "number from 0 to 65535, not '65536' (column 26)",
                 rule(Acl::aclTypeIpv4, "10 permit tcp any any eq 65535")},
        BadInput{"ltZero", rule(Acl::aclTypeIpv4, "10 permit udp any lt 0 any"),
                 "invalid: rule '10 permit udp any lt 0 any': PortMatch::lt port < 1 not allowed "
                 "(source port lt matches no port) (column 19)",
                 rule(Acl::aclTypeIpv4, "10 permit udp any lt 1 any")},
        BadInput{"gt65535", rule(Acl::aclTypeIpv4, "10 permit udp any any gt 65535"),
                 "invalid: rule '10 permit udp any any gt 65535': PortMatch::gt port > 65534 not "
                 "allowed (destination port gt matches no port) (column 23)",
                 rule(Acl::aclTypeIpv4, "10 permit udp any any gt 65534")},
        BadInput{"rangeBackward", rule(Acl::aclTypeIpv4, "10 permit tcp any range 20 10 any"),
                 "invalid: rule '10 permit tcp any range 20 10 any': PortMatch::rangeLow > "
                 "PortMatch::rangeHigh not allowed (source port range matches no port) (column 19)",
                 rule(Acl::aclTypeIpv4, "10 permit tcp any range 10 10 any")},
        BadInput{"dscpAbove63", rule(Acl::aclTypeIpv4, "10 permit ip any any dscp 64"),
                 "invalid: rule '10 permit ip any any dscp 64': DSCP must be a number from 0 to "
                 "63, not '64' (column 27)",
                 rule(Acl::aclTypeIpv4, "10 permit ip any any dscp 63")},
        BadInput{"protocolZero", rule(Acl::aclTypeIpv4, "10 permit 0 any any"),
                 "invalid: rule '10 permit 0 any any': protocol number 0 cannot be matched: 0 "
                 "stands for every protocol here (column 11)",
                 rule(Acl::aclTypeIpv4, "10 permit 1 any any")},
        BadInput{"protocolAbove255", rule(Acl::aclTypeIpv4, "10 permit 256 any any"),
                 "invalid: rule '10 permit 256 any any': unknown protocol '256' (column 11)",
                 rule(Acl::aclTypeIpv4, "10 permit 255 any any")},
        BadInput{"icmpTypeAbove255", rule(Acl::aclTypeIpv4, "10 permit icmp any any 256"),
                 "invalid: rule '10 permit icmp any any 256': ICMP type must be a number from 0 "
                 "to 255, not '256' (column 24)",
                 rule(Acl::aclTypeIpv4, "10 permit icmp any any 255 255")},
        BadInput{"icmpCodeAbove255", rule(Acl::aclTypeIpv6, "10 permit icmpv6 any any 1 256"),
                 "invalid: rule '10 permit icmpv6 any any 1 256': ICMP code must be a number from "
                 "0 to 255, not '256' (column 28)"},
        BadInput{"v4PrefixAbove32", rule(Acl::aclTypeIpv4, "10 deny ip 10.0.0.0/33 any"),
                 "invalid: rule '10 deny ip 10.0.0.0/33 any': IPv4 prefix length must be 0 to "
                 "32 (column 21)",
                 rule(Acl::aclTypeIpv4, "10 deny ip 10.0.0.1/32 any")},
        BadInput{"v6PrefixAbove128", rule(Acl::aclTypeIpv6, "10 deny ipv6 any 2001:db8::/129"),
                 "invalid: rule '10 deny ipv6 any 2001:db8::/129': IPv6 prefix length must be 0 "
                 "to 128 (column 29)",
                 rule(Acl::aclTypeIpv6, "10 deny ipv6 any 2001:db8::1/128")},
        BadInput{"sequenceAboveMaxInText", rule(Acl::aclTypeIpv4, "4294967040 deny ip any any"),
                 "invalid: rule '4294967040 deny ip any any': a rule begins with its sequence "
                 "number, 1 to 4294967039 (column 1)",
                 rule(Acl::aclTypeIpv4, "4294967039 deny ip any any")},
        BadInput{"etherTypeAbove0xffff", rule(Acl::aclTypeMac, "10 permit any any 0x10000"),
                 "invalid: rule '10 permit any any 0x10000': the ether type must be 0xHHHH, not "
                 "'0x10000' (column 19)",
                 rule(Acl::aclTypeMac, "10 permit any any 0xffff")},
        BadInput{"ttlMatch", rule(Acl::aclTypeIpv4, "10 permit ip any any ttl eq 5"),
                 "invalid: rule '10 permit ip any any ttl eq 5': TTL is not matched by this "
                 "engine, so the rule cannot be kept as written (column 22)"},
        BadInput{"flagWithoutTcp", rule(Acl::aclTypeIpv4, "10 permit udp any any syn"),
                 "invalid: rule '10 permit udp any any syn': 'syn' needs protocol tcp (column 23)"},
        BadInput{"portsWithoutL4", rule(Acl::aclTypeIpv4, "10 permit icmp any eq 7 any"),
                 "invalid: rule '10 permit icmp any eq 7 any': ports need protocol tcp, udp or "
                 "sctp (132) (column 20)"},
        BadInput{"v6ProtocolInV4Acl", rule(Acl::aclTypeIpv4, "10 permit ipv6 any any"),
                 "invalid: rule '10 permit ipv6 any any': protocol 'ipv6' does not belong in an "
                 "IPv4 ACL (column 11)"},
        BadInput{"badMacAddress", rule(Acl::aclTypeMac, "10 deny 0000.1111 0000.0000.0000 any"),
                 "invalid: rule '10 deny 0000.1111 0000.0000.0000 any': source MAC address must "
                 "be HHHH.HHHH.HHHH, not '0000.1111' (column 9)"},
        BadInput{"fragmentsWithPorts",
                 rule(Acl::aclTypeIpv4, "10 permit tcp any any eq 80 fragments"),
                 "invalid: rule '10 permit tcp any any eq 80 fragments': fragments cannot be "
                 "combined with ports, TCP flags or ICMP type (column 29)"},
        BadInput{"emptyRule", rule(Acl::aclTypeIpv4, "   # nothing"),
                 "invalid: rule '': empty rule (column 1)"}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Interfaces, BadInputTest,
    ::testing::Values(
        BadInput{"portOnAbsentChip", [](World& w) { w.port("Ethernet9", 7); },
                 "invalid: TestAgentRoot::port: Chip-7 is not present",
                 [](World& w) { w.port("Ethernet9", 2); }},
        BadInput{"portThatIsAVlan", [](World& w) { w.port("Vlan20", 1); },
                 "invalid: TestAgentRoot::port: Vlan20 is not an Ethernet interface"},
        BadInput{"vlanMemberThatIsALag",
                 [](World& w) { w.root->vlanMemberIs(20, "Port-Channel10"); },
                 "invalid: TestAgentRoot::vlanMember: Port-Channel10 is not an Ethernet "
                 "interface"},
        BadInput{"subIntfWithoutDot", [](World& w) { w.root->subIntfIs("Ethernet2"); },
                 "invalid: TestAgentRoot::subIntf: Ethernet2 is not a sub-interface",
                 [](World& w) { w.root->subIntfIs("Ethernet2.7"); }},
        BadInput{"countersOfAnUnknownAcl",
                 [](World& w) { w.root->aclCountersEnabledIs("nope", Acl::aclTypeIpv4, true); },
                 "invalid: TestAgentRoot::aclCountersEnabled: no ACL nope/ip"},
        BadInput{"ruleOfTheWrongFamily",
                 [](World& w) {
                     w.root->aclEntryIs("other", Acl::aclTypeIpv4, 10, Acl::AclEntry::mac({}));
                 },
                 "invalid: AclConfig other/ip: MAC entry in a ip ACL"},
        BadInput{"badAclNameInABinding",
                 [](World& w) {
                     w.root->aclBindingIs("Ethernet2", Acl::aclTypeIpv4, Acl::aclDirectionIn,
                                          "no spaces");
                 },
                 "invalid: invalid ACL name 'no spaces'"},
        BadInput{"counterOnAChipWithoutAMock",
                 [](World& w) { w.root->ruleCounterIs(Mirel::ChipId(5), kWeb, 10, 1); },
                 "invalid: TestAgentRoot::ruleCounter: Chip-5 has no driver mock"},
        BadInput{"counterOfAnAclNotStored",
                 [](World& w) {
                     w.root->ruleCounterIs(Mirel::ChipId(1), TestSupport::aclKey("nope"), 10, 1);
                 },
                 "invalid: TestAgentRoot::ruleCounter: nope/ip/in has no rule 10"},
        BadInput{"counterOfAnAclWithoutAnIdOnTheChip",
                 [](World& w) { w.root->ruleCounterIs(Mirel::ChipId(1), kV6, 10, 1); },
                 "invalid: TestAgentRoot::ruleCounter: v6/ipv6/in has no ACL id on Chip-1",
                 [](World& w) { w.root->ruleCounterIs(Mirel::ChipId(2), kV6, 10, 1); }, false}),
    nameOf);

// Null references, one of each kind of holder (an entity's attribute, a machine's required input,
// the root's replaceable machines, each factory): the held reference stays, and the machines
// built on it go on working. The message itself comes from one framework mechanism.
INSTANTIATE_TEST_SUITE_P(
    NullReferences, BadInputTest,
    ::testing::Values(
        BadInput{"statusRootConfigColl", [](World& w) { w.status()->rootConfigCollIs(nullptr); },
                 "null: null _rootConfigColl parameter to mutator for "
                 "OvinMirel::Status::rootConfigColl not allowed"},
        BadInput{"aclSmGlueStatus", [](World& w) { w.root->ovinAclSm()->glueStatusIs(nullptr); },
                 "null: null _glueStatus parameter to mutator for "
                 "OvinMirel::OvinMirelAclSm::glueStatus not allowed"},
        BadInput{"rootGlueSm", [](World& w) { w.root->ovinMirelGlueSmIs(nullptr); },
                 "null: null _ovinMirelGlueSm parameter to mutator for "
                 "OvinMirel::TestAgentRoot::ovinMirelGlueSm not allowed"},
        BadInput{"helperFactoryAclColl",
                 [](World& w) {
                     const auto& s = *w.status();
                     aclHelperFactory(nullptr, s.glueConfig(), s.glueStatus(), s.hwCapabilityColl(),
                                      s.index());
                 },
                 "null: null _aclColl parameter to mutator for OvinMirel::AclHelper::aclColl not "
                 "allowed"},
        BadInput{"helperFactoryIndex",
                 [](World& w) {
                     const auto& s = *w.status();
                     aclHelperFactory(s.aclColl(), s.glueConfig(), s.glueStatus(),
                                      s.hwCapabilityColl(), nullptr);
                 },
                 "null: null _index parameter to mutator for OvinMirel::AclHelper::index not "
                 "allowed"},
        BadInput{"indexSmFactoryPdStatus",
                 [](World& w) {
                     const auto& s = *w.status();
                     indexSmFactory(s.aclColl(), nullptr, s.vlanPhyIntfConfigDir(),
                                    s.lagPhyIntfMapping(), w.root->subIntfConfigDir(), s.index());
                 },
                 "null: null _pdStatus parameter to mutator for OvinMirel::IndexSm::pdStatus not "
                 "allowed"},
        BadInput{"glueSmFactoryTimerWheel",
                 [](World& w) {
                     const auto& s = *w.status();
                     glueSmFactory(s.index(), s.aclColl(), s.glueConfig(), s.glueStatus(),
                                   s.hwCapabilityColl(), s.pDStatus(), s.pDConfig(),
                                   w.root->aclParamConfig(), nullptr, nullptr);
                 },
                 "null: null _timerWheel parameter to mutator for OvinMirel::GlueSm::timerWheel "
                 "not allowed"}),
    nameOf);

// ---- Rule translation: refused subrules through the running agent's helper ----

struct Translation {
    const char* name;
    Acl::AclType type;
    Acl::IpRuleConfig rule;
    const char* failure;  // the refusal trace after "createIpAclSubruleHelper"
    uint8_t tcpFlags = 0;
    std::function<void(AclHelper&)> setup = {};
};

void PrintTo(const Translation& c, std::ostream* os) {
    *os << c.name;
}

template <class Filter, class F>
Acl::IpRuleConfig ruleWith(F edit) {
    Filter f;
    edit(f);
    return Acl::IpRuleConfig(f);
}

IpAddrWithMask withMask(const char* addr, const char* mask) {
    return {Zamu::IpAddr(addr), Zamu::IpAddr(mask)};
}

class BadSubruleTest : public ::testing::TestWithParam<Translation> {};

// The engine's call for a subrule of a stored ACL: 14, the refusal trace, and the whole switch
// as it was.
TEST_P(BadSubruleTest, RefusedWithItsTraceAndNothingChanges) {
    const Translation& c = GetParam();
    World w;
    configure(w);
    const Vorn::Ptr<AclHelper> helper = w.root->ovinMirelAclHelper();
    ASSERT_TRUE(helper);
    if (c.setup)
        c.setup(*helper);
    const Ovin::AclKey key = TestSupport::aclKey(c.type == Acl::aclTypeIpv6 ? "v6" : "web", c.type);
    ASSERT_TRUE(w.stored(key)) << key << " is not in the store";
    Ovin::AclData data;
    data.key = key;
    const std::string before = fullState(w);

    Flinq::Capture cap;
    EXPECT_EQ(helper->createIpAclSubrule(c.type, c.rule, Acl::UniqueId{77}, data, 30, 1, 0, 0, 0, 0,
                                         0, 0, 0, 0, 0, 0, 0, 0, c.tcpFlags, false, 0, 0),
              Ovin::aclCreateNotSupportedByHw);
    const std::string trace = std::string("createIpAclSubruleHelper") + c.failure +
                              " with AclType " + std::to_string(int(c.type)) +
                              " aclRuleId 77 ruleNum 30 subruleNum 1";
    EXPECT_TRUE(cap.has(trace)) << ::testing::PrintToString(cap.texts("OvinMirelAclHelper"));
    w.settle();
    EXPECT_EQ(fullState(w), before);
}

std::string translationName(const ::testing::TestParamInfo<Translation>& info) {
    return info.param.name;
}

const char* const kEcn = " failed. ECN bits set in rule";
const char* const kPartialTc = " failed. Partial TC Mask set in rule";
const char* const kPrefix = " failed. Invalid prefix in rule";

Acl::IpRuleConfig trafficClass(uint8_t value, uint8_t mask) {
    return ruleWith<Acl::Ip6Filter>([=](auto& f) { f.trafficClassIs(value, mask); });
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, BadSubruleTest,
    ::testing::Values(
        Translation{"ecnLowBit", Acl::aclTypeIpv6, trafficClass(0x01, 0xfc), kEcn},
        Translation{"ecnHighBit", Acl::aclTypeIpv6, trafficClass(0xba, 0xfc), kEcn},
        Translation{"partialTcMask", Acl::aclTypeIpv6, trafficClass(0xb8, 0xf0), kPartialTc},
        Translation{"fullByteTcMask", Acl::aclTypeIpv6, trafficClass(0xb8, 0xff), kPartialTc},
        Translation{"tcpFlagBeyondSupported", Acl::aclTypeIpv4,
                    ruleWith<Acl::IpFilter>([](auto& f) { f.protocolIs(Zamu::IpProto::kTcp); }),
                    " Unsupported tcpFlag in rule", Acl::kTcpSyn | Acl::kTcpUrg,
                    [](AclHelper& h) { h.supportedTcpFlagsIs(Acl::kTcpSyn | Acl::kTcpAck); }},
        Translation{"tcpFlagOutsideTheByte", Acl::aclTypeIpv4,
                    ruleWith<Acl::IpFilter>([](auto& f) { f.protocolIs(Zamu::IpProto::kTcp); }),
                    " Unsupported tcpFlag in rule", 0x40},
        Translation{"establishedUnsupported", Acl::aclTypeIpv4,
                    ruleWith<Acl::IpFilter>([](auto& f) { f.establishedIs(true); }),
                    " failed. Established not supported in rule", 0,
                    [](AclHelper& h) { h.establishedSupportedIs(false); }},
        Translation{"v4HoleySource", Acl::aclTypeIpv4, ruleWith<Acl::IpFilter>([](auto& f) {
                        f.sourceIs(withMask("10.0.1.0", "255.0.255.0"));
                    }),
                    kPrefix, 0, [](AclHelper& h) { h.nonContiguousIpMaskSupportedIs(false); }},
        Translation{"v4HoleyDestination", Acl::aclTypeIpv4, ruleWith<Acl::IpFilter>([](auto& f) {
                        f.destinationIs(withMask("10.0.0.1", "255.255.255.1"));
                    }),
                    kPrefix, 0, [](AclHelper& h) { h.nonContiguousIpMaskSupportedIs(false); }},
        Translation{"v6HoleyEvenWhenV4MayBe", Acl::aclTypeIpv6,
                    ruleWith<Acl::Ip6Filter>([](auto& f) {
                        f.destinationIs(withMask("2001:db8::1", "ffff:ffff::ffff"));
                    }),
                    kPrefix, 0, [](AclHelper& h) { h.nonContiguousIpMaskSupportedIs(true); }}),
    translationName);

// Range errors of translation: thrown before anything is stored. createPortRange's bound is
// tested on the agent's helper at both sides; a DSCP of 64 never reaches it (the filter refuses).
TEST(BadSubrule, RangeErrorsThrowAndNothingChanges) {
    World w;
    configure(w);
    const Vorn::Ptr<AclHelper> helper = w.root->ovinMirelAclHelper();
    ASSERT_TRUE(helper);
    const Ovin::AclKey key = TestSupport::aclKey("web");
    Ovin::AclData data;
    data.key = key;
    const Acl::IpRuleConfig tcp =
        ruleWith<Acl::IpFilter>([](auto& f) { f.protocolIs(Zamu::IpProto::kTcp); });
    const std::string before = fullState(w);

    auto subrule = [&](uint16_t low, uint16_t high) {
        return outcomeOf([&] {
            helper->createIpAclSubrule(Acl::aclTypeIpv4, tcp, Acl::UniqueId{77}, data, 30, 1, 0, 0,
                                       0, 0, 0, 0, low, high, 0, 0, 0, 0, 0, true, 0, 0);
        });
    };
    EXPECT_EQ(subrule(101, 100),
              "range: L4PortRange::rangeStart > L4PortRange::rangeEnd not allowed");
    EXPECT_EQ(outcomeOf([] { Acl::IpFilter().dscpIs(64); }),
              "range: IpFilter::dscp < 0 or > 63 not allowed");
    EXPECT_EQ(outcomeOf([] { Acl::IpFilter().dscpIs(-1); }),
              "range: IpFilter::dscp < 0 or > 63 not allowed");
    w.settle();
    EXPECT_EQ(fullState(w), before);

    // The in-range neighbours: accepted.
    EXPECT_EQ(subrule(100, 100), "accepted");
    EXPECT_EQ(outcomeOf([] { Acl::IpFilter().dscpIs(63); }), "accepted");
    EXPECT_EQ(outcomeOf([] { Acl::IpFilter().dscpIs(0); }), "accepted");
}

// ---- The scenario reader: each malformed field refused with its place and why ----

struct BadScenario {
    const char* name;
    std::string text;
    std::string error;  // what() exactly
};

void PrintTo(const BadScenario& c, std::ostream* os) {
    *os << c.name;
}

class BadScenarioTest : public ::testing::TestWithParam<BadScenario> {};

TEST_P(BadScenarioTest, RefusedWithItsPlaceAndWhy) {
    const BadScenario& c = GetParam();
    std::string error = "(accepted)";
    try {
        Sim::readScenario(c.text, "bad.json");
    } catch (const Sim::ScenarioError& e) {
        error = e.what();
    }
    EXPECT_EQ(error, c.error);
}

std::string scenarioName(const ::testing::TestParamInfo<BadScenario>& info) {
    return info.param.name;
}

// A one-chip switch with an ACL, and the field under test.
std::string sw(const std::string& rest) {
    return R"({"chips": [{"id": 1, "ports": ["Ethernet1"]}],
              "acls": [{"name": "web", "type": "ip", "rules": ["10 permit ip any any"]}])" +
           rest + "}";
}

INSTANTIATE_TEST_SUITE_P(
    Fields, BadScenarioTest,
    ::testing::Values(
        BadScenario{"chipIdAboveMax", R"({"chips": [{"id": 2147483648}]})",
                    "bad.json: chips[0].id: must be a whole number from 0 to 2147483647"},
        BadScenario{"chipIdNegative", R"({"chips": [{"id": -1}]})",
                    "bad.json: chips[0].id: must be a whole number from 0 to 2147483647"},
        BadScenario{"hwAclIndexMaxAbove65535", R"({"chips": [{"id": 1, "hwAclIndexMax": 65536}]})",
                    "bad.json: chips[0].hwAclIndexMax: must be a whole number from 0 to 65535"},
        BadScenario{"ruleListIdReservedAbove255",
                    R"({"chips": [{"id": 1, "ruleListIdReserved": 256}]})",
                    "bad.json: chips[0].ruleListIdReserved: must be a whole number from 0 to 255"},
        BadScenario{"vlanZero", R"({"vlans": [{"id": 0}]})",
                    "bad.json: vlans[0].id: VlanId::value < 1 or > 4094 not allowed"},
        BadScenario{"stepBeyondADay", sw(R"(, "steps": [{"at": 86400.5, "do": "run"}])"),
                    "bad.json: steps[0].at: must be a number of seconds from 0 to 86400"},
        BadScenario{"stepNegativeTime", sw(R"(, "steps": [{"at": -1, "do": "run"}])"),
                    "bad.json: steps[0].at: must be a number of seconds from 0 to 86400"},
        BadScenario{"endBeforeLastStep", sw(R"(, "end": 1, "steps": [{"at": 2, "do": "run"}])"),
                    "bad.json: end: the run would end at 1 s, before the last step at 2 s"},
        BadScenario{
            "unknownStep", sw(R"(, "steps": [{"at": 1, "do": "explode"}])"),
            "bad.json: steps[0].do: unknown step 'explode' (acl, removeAcl, rule, removeRule, "
            "bind, unbind, addChip, removeChip, movePort, vlanJoin, vlanLeave, lagJoin, "
            "lagLeave, addSubIntf, removeSubIntf, fault, allocMax, run, snapshot)"},
        BadScenario{
            "ruleInWrongFamily",
            R"({"acls": [{"name": "a", "type": "ipv6", "rules": ["10 permit ip any any"]}]})",
            "bad.json: acls[0].rules[0]: rule '10 permit ip any any': protocol 'ip' does "
            "not belong in an IPv6 ACL (column 11)"},
        BadScenario{"sequenceTwice",
                    R"({"acls": [{"name": "a", "type": "ip",
                                  "rules": ["10 permit ip any any", "10 deny ip any any"]}]})",
                    "bad.json: acls[0].rules[1]: sequence number 10 is used twice"},
        BadScenario{"unknownAclType", R"({"acls": [{"name": "a", "type": "arp"}]})",
                    "bad.json: acls[0].type: unknown ACL type 'arp' (ip, ipv6 or mac)"},
        BadScenario{"unknownDirection",
                    sw(R"(, "bindings": [{"intf": "Ethernet1", "acl": "web", "direction": "up"}])"),
                    "bad.json: bindings[0].direction: unknown direction 'up' (in or out)"},
        BadScenario{"bindingOfUnknownInterface",
                    sw(R"(, "bindings": [{"intf": "Ethernet9", "acl": "web", "direction": "in"}])"),
                    "bad.json: bindings[0].intf: unknown interface 'Ethernet9' (no chip has had "
                    "it)"},
        BadScenario{"subIntfOfUnknownParent", R"({"subInterfaces": ["Port-Channel7.5"]})",
                    "bad.json: subInterfaces[0]: unknown interface 'Port-Channel7', the parent of "
                    "Port-Channel7.5"},
        BadScenario{"lagMemberNotEthernet",
                    R"({"lags": [{"name": "Port-Channel1", "members": ["Vlan5"]}]})",
                    "bad.json: lags[0].members[0]: Vlan5 is not an Ethernet port"},
        BadScenario{"faultWord",
                    sw(R"(, "steps": [{"at": 1, "do": "fault", "chip": 1, "fault": "melt"}])"),
                    "bad.json: steps[0].fault: TestAgentFault: cannot read 'melt'"},
        BadScenario{"removeRuleNotThere",
                    sw(R"(, "steps": [{"at": 1, "do": "removeRule", "acl": "web", "seq": 20}])"),
                    "bad.json: steps[0].seq: ACL web/ip has no rule 20"},
        BadScenario{
            "movePortToAbsentChip",
            sw(R"(, "steps": [{"at": 1, "do": "movePort", "port": "Ethernet1", "chip": 4}])"),
            "bad.json: steps[0].chip: unknown chip 4"},
        BadScenario{"notAnObject", "[]", "bad.json: must be an object"},
        BadScenario{"nameNotAString", R"({"name": 5})", "bad.json: name: must be a string"},
        BadScenario{"truncated", R"({"chips": [)",
                    "bad.json: parse error at line 1, column 12: syntax error while parsing value "
                    "- unexpected end of input; expected '[', '{', or a literal"}),
    scenarioName);

}  // namespace
}  // namespace OvinMirel
