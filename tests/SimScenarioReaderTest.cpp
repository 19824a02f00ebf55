// The simulator's scenario reader: every refusal names its place and says why (the system's
// own text where it has one), and what the writer writes reads back unchanged.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tools/sim/ScenarioBuilders.h"
#include "tools/sim/ScenarioReader.h"
#include "tools/sim/ScenarioWriter.h"

namespace Sim {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

// A small valid switch the refusal cases add their one fault to.
std::string withSwitch(const std::string& rest) {
    return R"({"chips": [{"id": 1, "ports": ["Ethernet1", "Ethernet2"]},
                         {"id": 2, "ports": ["Ethernet3"]}],
              "acls": [{"name": "web", "type": "ip", "rules": ["10 permit ip any any"]}])" +
           rest + "}";
}

std::string refusal(const std::string& text) {
    try {
        readScenario(text, "t.json");
    } catch (const ScenarioError& e) {
        return e.what();
    }
    return "(accepted)";
}

TEST(SimScenarioReader, RefusalsNameThePlaceAndTheReason) {
    struct Case {
        const char* name;
        std::string text;
        std::string error;  // what() exactly
    };
    // Refusals tests/BadInputTest.cpp does not already run, each at its own place.
    const Case cases[] = {
        {"unknown top-level field", R"({"chipz": []})",
         "t.json: chipz: unknown field (this object has: name, description, "
         "routedPortRaclSharing, tcpFlags, establishedSupported, blockDuringUpdate, end, chips, "
         "vlans, lags, subInterfaces, acls, bindings, steps)"},
        {"unknown TCP flag", R"({"tcpFlags": "ack syn fun"})",
         "t.json: tcpFlags: unknown TCP flag 'fun' (ack, fin, psh, rst, syn, urg)"},
        {"field given twice", R"({"chips": [{"id": 1, "id": 2}]})",
         "t.json: chips[0].id: the field is given twice"},
        {"missing field", R"({"chips": [{"ports": []}]})", "t.json: chips[0]: missing field 'id'"},
        {"rule list id beyond 8 bits", R"({"chips": [{"id": 1, "ruleListIdMax": 256}]})",
         "t.json: chips[0].ruleListIdMax: must be a whole number from 0 to 255"},
        {"unknown ACL kind", R"({"chips": [{"id": 1, "combinations": ["v4pacl-in v4pacl-up"]}]})",
         "t.json: chips[0].combinations[0]: unknown ACL kind 'v4pacl-up' (the kinds are "
         "v4pacl-in, v4racl-in, v6pacl-in, v6racl-in, v4pacl-out, v4racl-out, v6pacl-out, "
         "v6racl-out, macacl-in, macacl-out, all)"},
        {"no combination", R"({"chips": [{"id": 1, "combinations": []}]})",
         "t.json: chips[0].combinations: a chip needs at least one combination"},
        {"port on two chips",
         R"({"chips": [{"id": 1, "ports": ["Ethernet1"]}, {"id": 2, "ports": ["Ethernet1"]}]})",
         "t.json: chips[1].ports[0]: Ethernet1 is already on chip 1"},
        {"a port that is no Ethernet port", R"({"chips": [{"id": 1, "ports": ["Vlan5"]}]})",
         "t.json: chips[0].ports[0]: Vlan5 is not an Ethernet port"},
        {"VLAN out of range", withSwitch(R"(, "vlans": [{"id": 4095, "members": []}])"),
         "t.json: vlans[0].id: VlanId::value < 1 or > 4094 not allowed"},
        {"VLAN interface out of range",
         withSwitch(R"(, "bindings": [{"intf": "Vlan5000", "acl": "web", "direction": "in"}])"),
         "t.json: bindings[0].intf: VlanId::value < 1 or > 4094 not allowed"},
        {"unknown VLAN member", withSwitch(R"(, "vlans": [{"id": 7, "members": ["Ethernet9"]}])"),
         "t.json: vlans[0].members[0]: unknown interface 'Ethernet9' (no chip has had it)"},
        {"binding to an undeclared VLAN",
         withSwitch(R"(, "bindings": [{"intf": "Vlan7", "acl": "web", "direction": "in"}])"),
         "t.json: bindings[0].intf: unknown interface 'Vlan7' (VLAN 7 is not declared)"},
        {"binding to an ACL that does not exist",
         withSwitch(R"(, "bindings": [{"intf": "Ethernet1", "acl": "nope", "direction": "in"}])"),
         "t.json: bindings[0].acl: no ACL named 'nope'"},
        {"binding to an ACL of another type",
         withSwitch(R"(, "bindings": [{"intf": "Ethernet1", "acl": "web", "type": "mac",
                                       "direction": "in"}])"),
         "t.json: bindings[0].acl: no ACL web/mac"},
        {"two ACLs in one slot",
         withSwitch(R"(, "bindings": [{"intf": "Ethernet1", "acl": "web", "direction": "in"},
                                      {"intf": "Ethernet1", "acl": "web", "direction": "in"}])"),
         "t.json: bindings[1].intf: Ethernet1 already has web bound ip in"},
        {"malformed rule, with its column",
         R"({"acls": [{"name": "a", "type": "ip",
                       "rules": ["10 permit ip any any", "20 permit tcp any any eq 99999"]}]})",
         "t.json: acls[0].rules[1]: rule '20 permit tcp any any eq 99999': destination port "
         "must be a number from 0 to 65535, not '99999' (column 26)"},
        {"bad ACL name", R"({"acls": [{"name": "a b", "type": "ip"}]})",
         "t.json: acls[0].name: invalid ACL name 'a b'"},
        {"ACL declared twice",
         R"({"acls": [{"name": "a", "type": "ip"}, {"name": "a", "type": "ip"}]})",
         "t.json: acls[1].name: ACL a/ip is declared twice"},
        {"ambiguous ACL name",
         withSwitch(R"(, "steps": [{"at": 1, "do": "acl", "name": "web", "type": "ipv6"},
                                   {"at": 2, "do": "removeAcl", "acl": "web"}])"),
         "t.json: steps[1].acl: ACL name 'web' is used by several types: give its 'type'"},
        {"port in two port-channels",
         withSwitch(R"(, "lags": [{"name": "Port-Channel1", "members": ["Ethernet1"]},
                                  {"name": "Port-Channel2", "members": ["Ethernet1"]}])"),
         "t.json: lags[1].members[0]: Ethernet1 is already a member of Port-Channel1"},
        {"sub-interface of an unknown port", withSwitch(R"(, "subInterfaces": ["Ethernet9.5"])"),
         "t.json: subInterfaces[0]: unknown interface 'Ethernet9', the parent of Ethernet9.5"},
        {"step before the previous one",
         withSwitch(R"(, "steps": [{"at": 5, "do": "run"}, {"at": 2, "do": "run"}])"),
         "t.json: steps[1].at: 2 s is before the previous step (5 s): steps go in time order"},
        {"step field of another step",
         withSwitch(R"(, "steps": [{"at": 1, "do": "removeChip", "chip": 2, "port": "x"}])"),
         "t.json: steps[0].port: unknown field (this object has: at, do, chip)"},
        {"unknown interface in a step",
         withSwitch(R"(, "steps": [{"at": 1, "do": "bind", "intf": "Ethernet7", "acl": "web",
                                    "direction": "out"}])"),
         "t.json: steps[0].intf: unknown interface 'Ethernet7' (no chip has had it)"},
        {"binding to an ACL removed earlier",
         withSwitch(R"(, "steps": [{"at": 1, "do": "removeAcl", "acl": "web"},
                                   {"at": 2, "do": "bind", "intf": "Ethernet1", "acl": "web",
                                    "direction": "in"}])"),
         "t.json: steps[1].acl: no ACL named 'web'"},
        {"a port of a chip removed earlier moves to it",
         withSwitch(R"(, "steps": [{"at": 1, "do": "removeChip", "chip": 2},
                                   {"at": 2, "do": "movePort", "port": "Ethernet1", "chip": 2}])"),
         "t.json: steps[1].chip: chip 2 is not present"},
        {"unbinding an empty slot",
         withSwitch(R"(, "steps": [{"at": 1, "do": "unbind", "intf": "Ethernet1", "type": "ip",
                                    "direction": "out"}])"),
         "t.json: steps[0].intf: nothing is bound ip out on Ethernet1"},
        {"fault on an unknown chip",
         withSwitch(R"(, "steps": [{"at": 1, "do": "fault", "chip": 9, "fault": "lost"}])"),
         "t.json: steps[0].chip: unknown chip 9"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(refusal(c.text), c.error);
    }
}

TEST(SimScenarioReader, SyntaxErrorsGiveTheLineAndColumn) {
    const std::string error = refusal("{\n  \"chips\": [}\n");
    EXPECT_THAT(error, StartsWith("t.json: parse error at line 2, column 13: "));
    EXPECT_THAT(error, Not(HasSubstr("json.exception")));
    EXPECT_EQ(refusal(R"({"end": 1e999})"), "t.json: number overflow parsing '1e999'");
}

TEST(SimScenarioReader, RulesReadDifferentlyFromTheirTextAreNoted) {
    const ReadScenario r = readScenario(
        R"({"acls": [{"name": "a", "type": "ip", "rules": ["10 permit ip 10.1.1.1/8 any"]}]})",
        "t.json");
    ASSERT_EQ(r.notes.size(), 1u);
    EXPECT_EQ(r.notes[0], "acls[0].rules[0]: host bits of 10.1.1.1/8 cleared: read as 10.0.0.0/8");
    ASSERT_EQ(r.scenario.acls.size(), 1u);
    EXPECT_EQ(r.scenario.acls[0].rules.size(), 1u);
}

TEST(SimScenarioReader, StepsFollowTheDeclaredState) {
    // A port-channel declared by a step, a sub-interface on it, a chip that comes and goes and
    // comes back, and an ACL re-created after its removal: all accepted.
    const ReadScenario r = readScenario(withSwitch(R"(, "steps": [
        {"at": 1, "do": "lagJoin", "lag": "Port-Channel4", "port": "Ethernet3"},
        {"at": 1, "do": "addSubIntf", "intf": "Port-Channel4.7"},
        {"at": 2, "do": "bind", "intf": "Port-Channel4.7", "acl": "web", "direction": "in"},
        {"at": 3, "do": "removeChip", "chip": 2},
        {"at": 4, "do": "addChip", "chip": {"id": 2, "ports": ["Ethernet3"]}},
        {"at": 5, "do": "removeAcl", "acl": "web"},
        {"at": 6, "do": "acl", "name": "web", "type": "ip", "rules": []},
        {"at": 6, "do": "rule", "acl": "web", "rule": "5 deny ip any any"},
        {"at": 7, "do": "removeRule", "acl": "web", "seq": 5},
        {"at": 8, "do": "movePort", "port": "Ethernet1", "chip": null},
        {"at": 9, "do": "allocMax", "chip": 1, "max": 3},
        {"at": 9, "do": "fault", "chip": 2, "fault": "late:1.5 twice"}])"),
                                        "t.json");
    ASSERT_EQ(r.scenario.steps.size(), 12u);
    const auto* fault = std::get_if<Step::Fault>(&r.scenario.steps[11].action);
    ASSERT_TRUE(fault);
    EXPECT_EQ(fault->fault, OvinMirel::TestAgentFault::late(1.5).alsoTwice());
    const auto* move = std::get_if<Step::MovePort>(&r.scenario.steps[9].action);
    ASSERT_TRUE(move);
    EXPECT_FALSE(move->chip);
}

TEST(SimScenarioReader, WrittenScenariosReadBackUnchanged) {
    struct Case {
        const char* name;
        Scenario scenario;
    };
    SwitchSize big;
    big.chips = 3;
    big.portsPerChip = 6;
    big.acls = 5;
    big.bindings = 30;
    big.vlans = 3;
    big.lags = 2;
    big.subIntfs = 5;
    Scenario edits = builtinScenario();
    edits.end = 99.5;
    edits.routedPortRaclSharing = true;
    edits.tcpFlags = Acl::kTcpAck | Acl::kTcpSyn;
    edits.blockDuringUpdate = true;
    edits.chips[0].allocMax = 7;
    edits.chips[0].splitOnProtocol = true;
    edits.chips[0].ruleListIdReserved = 3;
    edits.steps.push_back(at(40, Step::MovePort{Zamu::IntfId("Ethernet1"), std::nullopt}));
    edits.steps.push_back(at(41, Step::AllocMax{1, std::nullopt}));
    edits.steps.push_back(at(42, Step::RemoveChip{2}));
    const Case cases[] = {
        {"built-in", builtinScenario()},
        {"built-in with every kind of field", edits},
        {"default switch", makeSwitch({})},
        {"larger switch", makeSwitch(big)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string text = writeScenario(c.scenario);
        ReadScenario back;
        ASSERT_NO_THROW(back = readScenario(text, "written.json")) << text;
        EXPECT_TRUE(back.notes.empty());
        EXPECT_TRUE(back.scenario == c.scenario) << text;
        EXPECT_EQ(writeScenario(back.scenario), text);
    }
}

TEST(SimScenarioReader, SwitchBuilderMakesWhatItIsAskedFor) {
    SwitchSize z;
    z.chips = 4;
    z.portsPerChip = 10;
    z.acls = 3;
    z.bindings = 100;  // more than two per free port: capped
    z.vlans = 5;
    z.vlanMembers = 3;
    z.lags = 2;
    z.lagMembers = 3;
    z.subIntfs = 6;
    const Scenario s = makeSwitch(z);
    ASSERT_EQ(s.chips.size(), 4u);
    EXPECT_EQ(s.chips[3].ports.back(), Zamu::IntfId("Ethernet40"));
    ASSERT_EQ(s.lags.size(), 2u);
    EXPECT_EQ(s.lags[1].members.back(), Zamu::IntfId("Ethernet40"));
    EXPECT_EQ(s.vlans.size(), 5u);
    EXPECT_EQ(s.subInterfaces.size(), 6u);
    EXPECT_EQ(s.subInterfaces[1], Zamu::IntfId("Port-Channel1.2"));
    EXPECT_EQ(s.acls[2].rules.size(), z.rulesPerAcl);
    // 34 ports outside the port-channels, in and out each, then one per VLAN and sub-interface.
    EXPECT_EQ(s.bindings.size(), 2u * 34 + 5 + 6);
    EXPECT_THROW(makeSwitch(SwitchSize{.chips = 1, .portsPerChip = 2, .lags = 1, .lagMembers = 2}),
                 std::invalid_argument);
}

}  // namespace
}  // namespace Sim
