// The switch builder's layout at scale (SwitchSize::spread): what it builds matches what it is
// asked for, no chip gets more ACL keys than it can number, and the switch commits.

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <tuple>

#include "tools/sim/ScenarioBuilders.h"
#include "tools/sim/Simulator.h"

namespace Sim {
namespace {

SwitchSize spread(uint32_t chips, uint32_t ports, uint32_t lags, uint32_t subs, uint32_t vlans,
                  uint32_t bindings) {
    SwitchSize z;
    z.spread = true;
    z.lagsAcrossChips = true;
    z.chips = chips;
    z.totalPorts = ports;
    z.lags = lags;
    z.lagMembers = 4;
    z.subIntfs = subs;
    z.vlans = vlans;
    z.vlanMembers = 3;
    z.acls = 60;
    z.totalRules = 250;
    z.bindings = bindings;
    z.boundAclsPerGroup = 6;
    z.vlanAclsPerChip = 5;
    z.ruleListIdMax = 30;
    return z;
}

// The chips each interface of the scenario reaches.
std::map<Zamu::IntfId, std::set<uint32_t>> chipsOf(const Scenario& s) {
    std::map<Zamu::IntfId, std::set<uint32_t>> out;
    for (const ChipSpec& c : s.chips) {
        for (const Zamu::IntfId& p : c.ports)
            out[p].insert(c.id);
    }
    for (const LagSpec& l : s.lags) {
        for (const Zamu::IntfId& m : l.members)
            out[l.lag].insert(out[m].begin(), out[m].end());
    }
    for (const Zamu::IntfId& sub : s.subInterfaces) {
        const std::string name = sub.name();
        const Zamu::IntfId parent(name.substr(0, name.find('.')));
        out[sub] = out[parent];
    }
    for (const VlanSpec& v : s.vlans) {
        for (const Zamu::IntfId& m : v.members)
            out[Zamu::IntfId::vlan(v.id.value())].insert(out[m].begin(), out[m].end());
    }
    return out;
}

TEST(SimScaleSwitch, BuildsWhatItIsAskedForWithinEachChipsKeys) {
    struct Case {
        const char* name;
        SwitchSize size;
        size_t bindings;  // what it can bind
    };
    const Case cases[] = {
        // 8 port-channels take six each, 16 sub-interfaces three; 5 VLAN ACLs per chip.
        {"every port in a port-channel", spread(4, 32, 8, 16, 40, 1000), 4 * 5 + 6 * 8 + 3 * 16},
        {"fewer bindings than places", spread(4, 32, 8, 16, 40, 50), 50},
        // Ports 11, 11, 10, ... of which 7 per chip in port-channels: 26 free; all 30 VLANs.
        {"two chip groups, free ports", spread(8, 82, 14, 10, 30, 400),
         30 + 6 * (26 + 14) + 3 * 10},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Scenario s = makeSwitch(c.size);
        ASSERT_EQ(s.chips.size(), c.size.chips);
        size_t ports = 0;
        for (const ChipSpec& chip : s.chips)
            ports += chip.ports.size();
        EXPECT_EQ(ports, c.size.totalPorts);
        size_t rules = 0;
        for (const AclSpec& a : s.acls)
            rules += a.rules.size();
        EXPECT_EQ(rules, c.size.totalRules);
        EXPECT_EQ(s.bindings.size(), c.bindings);

        const auto chips = chipsOf(s);
        // A port-channel has one member on each chip of one group of four.
        for (const LagSpec& l : s.lags) {
            SCOPED_TRACE(l.lag.name());
            const std::set<uint32_t>& on = chips.at(l.lag);
            ASSERT_EQ(on.size(), 4u);
            EXPECT_EQ((*on.begin() - 1) % 4, 0u);
            EXPECT_EQ(*on.rbegin(), *on.begin() + 3);
        }
        // No binding twice on one interface, kind and direction; every chip within its keys
        // (an ACL on a VLAN interface is a key of its own).
        std::set<std::tuple<Zamu::IntfId, Acl::AclType, Acl::AclDirection>> places;
        std::map<uint32_t, std::set<std::string>> keys;
        for (const BindingSpec& b : s.bindings) {
            EXPECT_TRUE(places.insert({b.intf, b.acl.type, b.direction}).second) << b.intf.name();
            std::string key = str(b.acl) + (b.direction == Acl::aclDirectionIn ? "/in" : "/out");
            // A VLAN interface's ACL and a sub-interface's are keyed with their VLAN.
            if (Zamu::VlanIntfId::isVlanIntfId(b.intf))
                key += "/vlan" + std::to_string(Zamu::VlanIntfId::vlanId(b.intf).value());
            if (Zamu::SubIntfId::isSubIntfId(b.intf))
                key += "/vlan" + std::to_string(b.intf.subNumber());
            for (uint32_t chip : chips.at(b.intf))
                keys[chip].insert(key);
        }
        for (const auto& [chip, k] : keys) {
            SCOPED_TRACE(chip);
            EXPECT_LE(k.size(), c.size.ruleListIdMax);
        }
    }
}

// Every family's rules are ones the hardware takes, and the whole switch commits on every chip.
TEST(SimScaleSwitch, CommitsOnEveryChip) {
    const Scenario s = makeSwitch(spread(8, 82, 14, 10, 30, 400));
    SimOptions options;
    options.checkInvariants = false;
    const RunResult r = simulate(s, options);
    ASSERT_FALSE(r.cycles.empty());
    EXPECT_EQ(r.cycles.back().outcome, "success");
    EXPECT_EQ(r.cycles.back().chips.size(), 8u);
}

TEST(SimScaleSwitch, RefusesWhatCannotBeBuilt) {
    SwitchSize noRoom = spread(4, 32, 9, 0, 0, 0);  // a ninth port-channel finds no port
    EXPECT_THROW(makeSwitch(noRoom), std::invalid_argument);
    SwitchSize noParent = spread(4, 32, 0, 0, 0, 0);
    noParent.totalPorts = 0;
    noParent.portsPerChip = 0;
    EXPECT_THROW(makeSwitch(noParent), std::invalid_argument);
    SwitchSize fewRules = spread(4, 32, 8, 0, 0, 0);
    fewRules.totalRules = fewRules.acls - 1;
    EXPECT_THROW(makeSwitch(fewRules), std::invalid_argument);
}

}  // namespace
}  // namespace Sim
