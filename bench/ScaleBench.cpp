// The whole agent at switch scale: the test agent with chip mocks that answer at once and
// tracing as shipped (levels off), on switches built by the simulator's scenario builders.
//
//  S1 top-of-rack: 1 chip, 128 ports, 500 ACLs / 10,000 rules, 2,000 bindings, 4,094 VLANs,
//     32 port-channels of 4, 256 sub-interfaces.
//  S2: 4 chips, 512 ports, 2,000 ACLs / 50,000 rules, 10,000 bindings, 4,094 VLANs,
//     128 port-channels of 4 across chips, 1,000 sub-interfaces.
//  S3 chassis: 24 chips, 1,024 ports, 5,000 ACLs / 100,000 rules, 50,000 bindings (VLAN-wide
//     ones among them), 4,094 VLANs, 256 port-channels of 4 across chips, 4,000 sub-interfaces.
//
// A chip numbers its ACLs with 8-bit rule list ids, so no chip can hold more than 255 ACLs:
// every group of chips that port-channels span binds its own ACLs, at most kBoundPerGroup of
// them; the other ACLs are configured with their rules and bound nowhere.
//
// Every time is the thread's CPU time measured by hand around the work itself: building the
// agent and the configuration's description, undoing a change and tearing down are left out,
// and so is the commit timer's delay, which passes on the virtual clock at no cost.
//
//  ScaleApply/<S>        empty switch (chips, ports and interfaces up, no ACL) to every chip's
//                        mappings loaded, one commit.
//  ScaleChange/<kind>/<S3|S3x2>   one change through a whole cycle to loaded mappings; S3x2
//                        doubles the rules of every ACL but the edited one.
//  ScaleIndex/<kind>/<S>  one change in the index and the per-chip machines, before any cycle
//                        (the median is the counter median_us); the changes that fan out (the
//                        VLAN-wide bind, the port move) per affected (port, chip, ACL) in
//                        per_place_us.
//  ScaleMemory/<S1>      heap bytes per rule and per binding (mallinfo2), and ScaleApply/S3's
//                        rss_MB counter: the process's VmRSS once S3 is applied (which also
//                        holds the benchmark's own description of every switch it built), and
//                        agent_MB: the heap the agent itself took, its configuration included
//                        (rule bodies it shares with that description count there, not here;
//                        ScaleMemory gives the agent rules of its own).
//  ScaleChips/<n>        a commit cycle against the number of chips, same configuration per
//                        chip.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "ovinmirel/testagent/OvinMirelTestAgentRoot.h"
#include "platform/brix/TimerWheel.h"
#include "platform/vorn/Clock.h"
#include "platform/vorn/Pool.h"
#include "tools/sim/ScenarioBuilders.h"

namespace {

using OvinMirel::TestAgentRoot;
using Sim::Scenario;
using Sim::SwitchSize;
using Zamu::IntfId;

// The time this thread spends on the CPU: the machine is shared, and wall time would count the
// other processes' turns.
struct Clock {
    using time_point = double;
    static time_point now() {
        timespec ts{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
        return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
    }
};

// Every chip holds at most 255 ACL keys: 24 ACLs of a chip group, in and out, on its ports and
// port-channels; up to 150 VLAN interfaces with an ACL each; and on sub-interfaces, numbered
// within their port-channel (.1 to .16 at S3), the group's first ACL of each family inbound,
// a key per number: 48 + 150 + 3 x 16 = 246.
constexpr uint32_t kBoundPerGroup = 24;
constexpr uint32_t kVlanAclsPerChip = 150;

SwitchSize spreadSize() {
    SwitchSize z;
    z.spread = true;
    z.lagsAcrossChips = true;
    z.lagMembers = 4;
    z.vlans = 4094;
    z.vlanMembers = 4;
    z.boundAclsPerGroup = kBoundPerGroup;
    z.vlanAclsPerChip = kVlanAclsPerChip;
    z.ruleListIdMax = 255;
    z.hwAclIndexMax = 65535;
    // A chassis line card's TCAM: room for every rule of the ACLs a chip holds.
    z.tcamEntries = 1 << 20;
    z.xformEntries = 1 << 16;
    return z;
}

SwitchSize sizeS1() {
    SwitchSize z = spreadSize();
    z.chips = 1;
    z.totalPorts = 128;
    z.acls = 500;
    z.totalRules = 10000;
    z.bindings = 2000;
    z.lags = 32;
    z.subIntfs = 256;
    return z;
}

SwitchSize sizeS2() {
    SwitchSize z = spreadSize();
    z.chips = 4;
    z.totalPorts = 512;
    z.acls = 2000;
    z.totalRules = 50000;
    z.bindings = 10000;
    z.lags = 128;
    z.subIntfs = 1000;
    return z;
}

SwitchSize sizeS3() {
    SwitchSize z = spreadSize();
    z.chips = 24;
    z.totalPorts = 1024;
    z.acls = 5000;
    z.totalRules = 100000;
    z.bindings = 50000;
    z.lags = 256;
    z.subIntfs = 4000;
    return z;
}

// The per-chip share of S3 on `chips` chips.
SwitchSize sizePerChip(uint32_t chips) {
    SwitchSize z = spreadSize();
    z.chips = chips;
    z.totalPorts = 40 * chips;
    z.acls = 200 * chips;
    z.totalRules = 4000 * chips;
    z.bindings = 2000 * chips;
    z.vlans = 160 * chips;
    z.lags = 10 * chips;
    z.subIntfs = 160 * chips;
    return z;
}

const Scenario& scenario(const std::string& name) {
    static std::map<std::string, Scenario> built;
    auto it = built.find(name);
    if (it == built.end()) {
        SwitchSize z = name == "S1" ? sizeS1() : name == "S2" ? sizeS2() : sizeS3();
        if (name == "S3x2") {
            z.totalRules *= 2;
            Scenario s = Sim::makeSwitch(z);
            // The ACL the rule edit changes keeps its rules.
            s.acls[0] = Sim::makeSwitch(sizeS3()).acls[0];
            it = built.emplace(name, std::move(s)).first;
        } else {
            it = built.emplace(name, Sim::makeSwitch(z)).first;
        }
    }
    return it->second;
}

// One agent on its own virtual clock and timer wheel; gone in the reverse order.
class Agent {
  public:
    Agent() : root_(OvinMirel::testAgentRootFactory("scale", wheel_)) {}
    TestAgentRoot& operator*() const { return *root_; }
    TestAgentRoot* operator->() const { return root_.ptr(); }

  private:
    Vorn::ScopedVirtualClock clock_;
    Brix::TimerWheel wheel_;
    Vorn::Ptr<TestAgentRoot> root_;
};

OvinMirel::TestAgentChipCapability capabilityOf(const Sim::ChipSpec& c) {
    OvinMirel::TestAgentChipCapability cap;
    cap.chipRuleListIdMax = c.ruleListIdMax;
    cap.aclSplitOnProtocolSupported = c.splitOnProtocol;
    cap.hwAclIndexMax = c.hwAclIndexMax;
    cap.hwAclIndexReserved = c.hwAclIndexReserved;
    cap.tcamEntryMax = c.tcamEntries;
    cap.xformEntryMax = c.xformEntries;
    cap.aclTypeCombinations.assign(c.combinations.begin(), c.combinations.end());
    return cap;
}

void addChip(TestAgentRoot& root, const Sim::ChipSpec& c) {
    const Mirel::ChipId id(c.id);
    root.chipIs(id, capabilityOf(c));
    root.ovinMirelStatus()
        ->hwCapabilityColl()
        ->chipHwCapability(id)
        ->chipRuleListIdReservedPermitAllIs(uint8_t(c.ruleListIdReserved));
    for (const IntfId& p : c.ports)
        root.portIs(p, id);
}

// The switch without ACLs: chips, ports, VLAN and port-channel membership, sub-interfaces.
void configureSwitch(TestAgentRoot& root, const Scenario& s) {
    root.routedPortAclSharingIs(s.routedPortRaclSharing);
    root.ovinMirelAclHelper()->supportedTcpFlagsIs(s.tcpFlags);
    root.ovinMirelAclHelper()->establishedSupportedIs(s.establishedSupported);
    root.ovinMirelAclHelper()->ignorePermitDuringAclUpdateIs(s.blockDuringUpdate);
    for (const Sim::ChipSpec& c : s.chips)
        addChip(root, c);
    for (const Sim::VlanSpec& v : s.vlans) {
        for (const IntfId& p : v.members)
            root.vlanMemberIs(v.id.value(), p, true);
    }
    for (const Sim::LagSpec& l : s.lags) {
        for (const IntfId& p : l.members)
            root.lagMemberIs(p, l.lag);
    }
    for (const IntfId& i : s.subInterfaces)
        root.subIntfIs(i);
}

void configureAcls(TestAgentRoot& root, const Scenario& s) {
    for (const Sim::AclSpec& a : s.acls) {
        for (const Sim::RuleSpec& r : a.rules)
            root.aclEntryIs(a.ref.name, a.ref.type, r.seq, r.entry);
    }
    for (const Sim::BindingSpec& b : s.bindings)
        root.aclBindingIs(b.intf, b.acl.type, b.direction, b.acl.name);
}

// Empty when the last cycle succeeded and every chip has its mappings loaded; else why not.
std::string notLoaded(TestAgentRoot& root, const Scenario& s) {
    const auto& glue = *root.ovinMirelStatus()->glueStatus();
    if (glue.glueSmState() != OvinMirel::idle_)
        return "the glue is not idle";
    if (glue.lastComputationResult() != OvinMirel::success_) {
        std::ostringstream why;
        why << "the last cycle ended " << OvinMirel::glueSmStateWord(glue.lastComputationResult());
        for (const auto& [chip, e] : glue.chipError())
            why << "; Chip-" << chip.value() << ": " << e;
        return why.str();
    }
    for (const Sim::ChipSpec& c : s.chips) {
        if (!root.chip(Mirel::ChipId(c.id)))
            continue;
        if (!root.loadedDataFlow(Mirel::ChipId(c.id)))
            return "Chip-" + std::to_string(c.id) + " has no loaded mappings";
    }
    return {};
}

size_t loadedMappings(TestAgentRoot& root, const Scenario& s) {
    size_t n = 0;
    for (const Sim::ChipSpec& c : s.chips) {
        if (const auto df = root.loadedDataFlow(Mirel::ChipId(c.id)))
            n += df->intfToHwAclIndexs() + df->routedPortToHwAclIndexs() + df->vlanToHwAclIndexs() +
                 df->subIntfToHwAclIndexs();
    }
    return n;
}

double seconds(Clock::time_point from) {
    return Clock::now() - from;
}

// The heap in use: what the allocator counts, less the blocks the pool keeps for reuse (up
// to a megabyte, left by whatever ran before on this thread and held by nothing).
size_t heapInUse() {
    const struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd - Vorn::Pool::keptBytes();
}

double residentMb() {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stod(line.substr(6)) / 1024.0;
    }
    return 0.0;
}

// An agent with the switch up and no ACL, settled.
std::unique_ptr<Agent> switchUp(const Scenario& s) {
    auto agent = std::make_unique<Agent>();
    configureSwitch(**agent, s);
    (*agent)->runUntilIdle();
    return agent;
}

// Applies the ACLs and bindings and runs to idle; the wall time it took.
double applyAcls(TestAgentRoot& root, const Scenario& s) {
    const Clock::time_point t0 = Clock::now();
    configureAcls(root, s);
    root.runUntilIdle();
    return seconds(t0);
}

// ---- a. Full apply ----

void BM_ScaleApply(benchmark::State& state, const std::string& name) {
    const Scenario& s = scenario(name);
    for (auto _ : state) {
        const size_t heapBefore = heapInUse();
        std::unique_ptr<Agent> agent = switchUp(s);
        const double t = applyAcls(**agent, s);
        state.SetIterationTime(t);
        if (const std::string why = notLoaded(**agent, s); !why.empty()) {
            state.SkipWithError(why.c_str());
            break;
        }
        state.counters["mappings"] = double(loadedMappings(**agent, s));
        state.counters["heap_MB"] = double(heapInUse()) / (1 << 20);
        state.counters["agent_MB"] = double(heapInUse() - heapBefore) / (1 << 20);
        state.counters["rss_MB"] = residentMb();
    }
    state.counters["rules"] = 0;
    for (const Sim::AclSpec& a : s.acls)
        state.counters["rules"] += double(a.rules.size());
    state.counters["bindings"] = double(s.bindings.size());
}

// ---- b. One change through a whole cycle ----

// A change and its undo; the change is what is timed.
struct Change {
    std::function<void(TestAgentRoot&)> apply;
    std::function<void(TestAgentRoot&)> undo;
    // Untimed, before the first apply (and kept afterwards).
    std::function<void(TestAgentRoot&)> prepare;
};

const Sim::BindingSpec& firstBindingOn(const Scenario& s, const std::string& prefix) {
    for (const Sim::BindingSpec& b : s.bindings) {
        if (b.intf.name().rfind(prefix, 0) == 0 && b.intf.name().find('.') == std::string::npos)
            return b;
    }
    throw std::logic_error("no binding on " + prefix);
}

// A VLAN whose interface carries an ACL, and a port of another VLAN that is not in it. With
// `sameChip` the port is on the chip of the VLAN's first member, so the VLAN's ACL is already
// on the port's chip, as it must be on a one-chip switch; otherwise the first such port, which
// on a switch of many chips brings the ACL onto a chip that did not hold it.
std::pair<uint32_t, IntfId> vlanToJoin(const Scenario& s, bool sameChip = false) {
    const Sim::VlanSpec& v = s.vlans[0];
    auto chipOf = [&s](const IntfId& p) {
        for (size_t c = 0; c < s.chips.size(); ++c) {
            const auto& ports = s.chips[c].ports;
            if (std::find(ports.begin(), ports.end(), p) != ports.end())
                return c;
        }
        throw std::logic_error("a port on no chip");
    };
    for (const Sim::VlanSpec& other : s.vlans) {
        for (const IntfId& p : other.members) {
            if (std::find(v.members.begin(), v.members.end(), p) == v.members.end() &&
                (!sameChip || chipOf(p) == chipOf(v.members.front())))
                return {uint32_t(v.id.value()), p};
        }
    }
    throw std::logic_error("no port outside VLAN 1");
}

Change changeOf(const std::string& kind, const Scenario& s) {
    if (kind == "bind") {
        // The first port-channel's IPv4 inbound binding, taken away beforehand.
        const Sim::BindingSpec b = firstBindingOn(s, "Port-Channel");
        auto bind = [b](TestAgentRoot& r) {
            r.aclBindingIs(b.intf, b.acl.type, b.direction, b.acl.name);
        };
        auto unbind = [b](TestAgentRoot& r) { r.aclBindingDel(b.intf, b.acl.type, b.direction); };
        return Change{bind, unbind, unbind};
    }
    if (kind == "vlanJoin") {
        const auto [vlan, port] = vlanToJoin(s);
        return Change{[vlan, port](TestAgentRoot& r) { r.vlanMemberIs(vlan, port, true); },
                      [vlan, port](TestAgentRoot& r) { r.vlanMemberIs(vlan, port, false); },
                      nullptr};
    }
    if (kind == "lagMember") {
        // A member of the last port-channel leaves it beforehand and joins the first one,
        // whose members are all on chips of another group.
        const IntfId port = s.lags.back().members.front();
        const IntfId to = s.lags.front().lag;
        return Change{[port, to](TestAgentRoot& r) { r.lagMemberIs(port, to); },
                      [port](TestAgentRoot& r) { r.lagMemberDel(port); },
                      [port](TestAgentRoot& r) { r.lagMemberDel(port); }};
    }
    if (kind == "ruleEdit") {
        // acl1 is bound in the most places; its first rule alternates between two ports.
        const Sim::AclSpec& a = s.acls[0];
        const Sim::RuleSpec first = a.rules.front();
        const Sim::RuleSpec edited = Sim::rule(
            a.ref.type, std::to_string(first.seq) + " permit tcp 10.0.0.0/24 any eq 8080");
        const Sim::AclRef ref = a.ref;
        return Change{[ref, edited](TestAgentRoot& r) {
                          r.aclEntryIs(ref.name, ref.type, edited.seq, edited.entry);
                      },
                      [ref, first](TestAgentRoot& r) {
                          r.aclEntryIs(ref.name, ref.type, first.seq, first.entry);
                      },
                      nullptr};
    }
    if (kind == "chipRemove" || kind == "chipAdd") {
        const Sim::ChipSpec chip = s.chips.back();
        auto remove = [chip](TestAgentRoot& r) { r.chipDel(Mirel::ChipId(chip.id)); };
        auto add = [chip](TestAgentRoot& r) { addChip(r, chip); };
        if (kind == "chipRemove")
            return Change{remove, add, nullptr};
        return Change{add, remove, remove};
    }
    throw std::logic_error("unknown change " + kind);
}

struct Applied {
    std::unique_ptr<Agent> agent;
    std::string name;
};

// One applied switch at a time, kept across the benchmarks that change it.
Applied applied;

Applied& appliedSwitch(const std::string& name) {
    if (applied.name != name) {
        applied.agent.reset();
        const Scenario& s = scenario(name);
        applied.agent = switchUp(s);
        applyAcls(**applied.agent, s);
        applied.name = name;
    }
    return applied;
}

void BM_ScaleChange(benchmark::State& state, const std::string& kind, const std::string& name) {
    const Scenario& s = scenario(name);
    TestAgentRoot& root = **appliedSwitch(name).agent;
    if (const std::string why = notLoaded(root, s); !why.empty()) {
        state.SkipWithError(("before the change: " + why).c_str());
        return;
    }
    const Change c = changeOf(kind, s);
    if (c.prepare) {
        c.prepare(root);
        root.runUntilIdle();
    }
    for (auto _ : state) {
        const uint64_t cycles = root.cycles();
        const Clock::time_point t0 = Clock::now();
        c.apply(root);
        root.runUntilIdle();
        state.SetIterationTime(seconds(t0));
        std::string why = notLoaded(root, s);
        if (why.empty() && root.cycles() == cycles)
            why = "no commit cycle ran";
        if (!why.empty()) {
            state.SkipWithError(why.c_str());
            break;
        }
        c.undo(root);
        root.runUntilIdle();
    }
    // Back to the switch as built, for the next change.
    if (c.prepare) {
        const Change back = changeOf(kind, s);
        if (kind == "bind")
            back.apply(root);
        else if (kind == "lagMember")
            root.lagMemberIs(s.lags.back().members.front(), s.lags.back().lag);
        else if (kind == "chipAdd")
            back.apply(root);
        root.runUntilIdle();
    }
}

// ---- c. One change in the index and the per-chip machines ----

// Runs every timer due now and none later: the per-chip machines' reviews run, the commit
// timer (armed one chipUpdateProcDelay ahead) does not.
void settleNow(TestAgentRoot& root) {
    root.runUntil(Vorn::currentTime());
}

// One measured change and the settling it causes. Kept out of line so that a profiler can
// collect exactly the measured work by this name (callgrind --toggle-collect='*changeAndSettle*'),
// without the set-up before the loop and the restoring after it.
[[gnu::noinline]] void changeAndSettle(TestAgentRoot& root, const std::function<void()>& change) {
    change();
    settleNow(root);
}

// The store's entry for a binding's ACL: the key carries the VLAN of a VLAN interface.
Vorn::Ptr<OvinMirel::OvinMirelAcl> storeAcl(TestAgentRoot& root, const Sim::BindingSpec& b) {
    Ovin::AclKey key;
    key.name = b.acl.name;
    key.type = b.acl.type;
    key.direction = b.direction;
    if (Zamu::VlanIntfId::isVlanIntfId(b.intf))
        key.vlanId = Zamu::VlanIntfId::vlanId(b.intf);
    return root.ovinMirelStatus()->aclColl()->acl(key);
}

void BM_ScaleIndex(benchmark::State& state, const std::string& kind, const std::string& name) {
    const Scenario& s = scenario(name);
    TestAgentRoot& root = **appliedSwitch(name).agent;
    // Untimed before and after the measured changes; apply and undo alternate, apply timed.
    std::function<void()> prepare, apply, undo, restore;
    double places = 1;
    if (kind == "bind" || kind == "fanOut") {
        // The store loses an interface of a bound ACL beforehand and gains it back, as the
        // helper writes it (without the helper's kick, so no cycle starts). The fan-out
        // change is a VLAN-wide binding on a VLAN that first gains 60 ports of its group.
        const bool vlan = kind == "fanOut";
        const Sim::BindingSpec& b = firstBindingOn(s, vlan ? "Vlan" : "Port-Channel");
        const auto acl = storeAcl(root, b);
        if (!acl) {
            state.SkipWithError("the binding's ACL is not in the store");
            return;
        }
        // The store holds a port-channel's member ports; the measured bind is one of them.
        std::vector<IntfId> intfs{b.intf};
        if (!vlan)
            intfs = s.lags.front().members;
        const IntfId intf = intfs.front();
        apply = [acl, intf] { acl->intfIs(intf, true); };
        undo = [acl, intf] { acl->intfIs(intf, false); };
        prepare = [acl, intfs] {
            for (const IntfId& i : intfs)
                acl->intfIs(i, false);
        };
        restore = [acl, intfs] {
            for (const IntfId& i : intfs)
                acl->intfIs(i, true);
        };
        if (vlan) {
            const int64_t v = int64_t(std::stoul(intf.name().substr(4)));
            std::vector<IntfId> extra;
            for (const Sim::VlanSpec& other : s.vlans) {
                if (other.id.value() % s.vlans.size() == v % s.vlans.size())
                    continue;
                for (const IntfId& p : other.members) {
                    if (extra.size() < 60 &&
                        std::find(extra.begin(), extra.end(), p) == extra.end())
                        extra.push_back(p);
                }
                if (extra.size() == 60)
                    break;
            }
            const Sim::VlanSpec& self = s.vlans[size_t(v - 1)];
            std::erase_if(extra, [&](const IntfId& p) {
                return std::find(self.members.begin(), self.members.end(), p) != self.members.end();
            });
            places = double(self.members.size() + extra.size());
            prepare = [&root, acl, intf, v, extra] {
                acl->intfIs(intf, false);
                for (const IntfId& p : extra)
                    root.vlanMemberIs(v, p, true);
            };
            restore = [&root, acl, intf, v, extra] {
                acl->intfIs(intf, true);
                for (const IntfId& p : extra)
                    root.vlanMemberIs(v, p, false);
            };
        }
    } else if (kind == "vlanJoin" || kind == "vlanJoinChip") {
        // The same change at every size: the VLAN's ACL is on the port's chip already. The
        // other kind brings it onto a chip that did not hold it (many chips only).
        if (kind == "vlanJoinChip" && s.chips.size() < 2) {
            state.SkipWithError("one chip only");
            return;
        }
        const auto [vlan, port] = vlanToJoin(s, kind == "vlanJoin");
        apply = [&root, vlan, port] { root.vlanMemberIs(vlan, port, true); };
        undo = [&root, vlan, port] { root.vlanMemberIs(vlan, port, false); };
    } else if (kind == "portMove") {
        if (s.chips.size() < 2) {
            state.SkipWithError("one chip only");
            return;
        }
        const IntfId port = s.chips.front().ports.back();
        // The move withdraws each (ACL, interface) through which an ACL reaches the port from
        // the chip it leaves and puts it in effect on the chip it joins: read from the index
        // before the move, once per chip.
        const Vorn::Ptr<OvinMirel::Index> index = root.ovinMirelStatus()->index();
        size_t perChip = 0;
        if (const auto acls = index->intfAclMapping(port)) {
            for (const Ovin::AclKey& key : acls->aclKey()) {
                const auto acl = index->aclPhyIntfMapping(key);
                if (const auto parents = acl ? acl->phyIntfMapping(port) : nullptr)
                    perChip += parents->parentIntfIds();
            }
        }
        places = 2.0 * double(perChip);
        apply = [&root, port] { root.portIs(port, Mirel::ChipId(2)); };
        undo = [&root, port] { root.portIs(port, Mirel::ChipId(1)); };
    } else {
        state.SkipWithError("unknown change");
        return;
    }
    if (prepare) {
        prepare();
        root.runUntilIdle();
    }
    std::vector<double> samples;
    for (auto _ : state) {
        const Clock::time_point t0 = Clock::now();
        changeAndSettle(root, apply);
        const double t = seconds(t0);
        state.SetIterationTime(t);
        samples.push_back(t);
        changeAndSettle(root, undo);
    }
    if (restore)
        restore();
    // Back to a settled switch for whoever comes next.
    root.runUntilIdle();
    std::sort(samples.begin(), samples.end());
    const double median = samples.empty() ? 0 : samples[samples.size() / 2];
    state.counters["median_us"] = median * 1e6;
    if (kind == "fanOut" || kind == "portMove") {
        state.counters["places"] = places;
        state.counters["per_place_us"] = median * 1e6 / places;
    }
}

// ---- d. Memory ----

// The entry with a rule body of its own: copies of an entry share one body, so the scenario's
// entries would share theirs with the agent's configuration and go uncounted.
Acl::AclEntry ownCopy(const Acl::AclEntry& e) {
    if (e.isIp())
        return Acl::AclEntry::ip(e.ipRule(), e.sourcePort(), e.destinationPort());
    if (e.isMac())
        return Acl::AclEntry::mac(e.macRule());
    return e.isRemark() && !e.remarkText().empty() ? Acl::AclEntry::remark(e.remarkText())
                                                   : Acl::AclEntry();
}

// The heap a switch's ACLs and bindings take once applied, as a configuration read from text
// would hold them: every rule owned by the agent alone.
size_t appliedHeap(const Scenario& s) {
    std::unique_ptr<Agent> agent = switchUp(s);
    const size_t before = heapInUse();
    {
        Scenario own = s;
        for (Sim::AclSpec& a : own.acls) {
            for (Sim::RuleSpec& r : a.rules)
                r.entry = ownCopy(r.entry);
        }
        applyAcls(**agent, own);
        if (!notLoaded(**agent, own).empty())
            throw std::runtime_error("not loaded: " + notLoaded(**agent, own));
    }
    return heapInUse() - before;
}

void BM_ScaleMemory(benchmark::State& state) {
    applied = Applied{};
    // Rules: S1 with half its bindings against the same with twice the rules. Bindings: S1
    // with a quarter of the bindings it can number against all of them (the builder numbers
    // fewer than asked: see the README), so that the difference is some 600 bindings of every
    // kind of place, not a handful.
    SwitchSize base = sizeS1();
    base.bindings /= 2;
    SwitchSize moreRules = base;
    moreRules.totalRules *= 2;
    SwitchSize fewBindings = base;
    fewBindings.bindings /= 2;
    const Scenario a = Sim::makeSwitch(base);
    const Scenario r = Sim::makeSwitch(moreRules);
    const Scenario f = Sim::makeSwitch(fewBindings);
    const Scenario b = Sim::makeSwitch(sizeS1());
    for (auto _ : state) {
        const Clock::time_point t0 = Clock::now();
        const double heapA = double(appliedHeap(a));
        const double heapR = double(appliedHeap(r));
        const double heapF = double(appliedHeap(f));
        const double heapB = double(appliedHeap(b));
        state.SetIterationTime(seconds(t0));
        state.counters["B_per_rule"] =
            (heapR - heapA) / double(moreRules.totalRules - base.totalRules);
        state.counters["B_per_binding"] =
            (heapB - heapF) / double(b.bindings.size() - f.bindings.size());
        state.counters["bindings"] = double(b.bindings.size() - f.bindings.size());
        state.counters["heap_MB"] = heapA / (1 << 20);
    }
}

// ---- e. Cycle cost against chips ----

void BM_ScaleChips(benchmark::State& state) {
    const uint32_t chips = uint32_t(state.range(0));
    const Scenario s = Sim::makeSwitch(sizePerChip(chips));
    std::unique_ptr<Agent> agent = switchUp(s);
    TestAgentRoot& root = **agent;
    state.counters["apply_ms"] = applyAcls(root, s) * 1e3;
    if (const std::string why = notLoaded(root, s); !why.empty()) {
        state.SkipWithError(why.c_str());
        return;
    }
    const Change c = changeOf("bind", s);
    c.prepare(root);
    root.runUntilIdle();
    for (auto _ : state) {
        const Clock::time_point t0 = Clock::now();
        c.apply(root);
        root.runUntilIdle();
        state.SetIterationTime(seconds(t0));
        c.undo(root);
        root.runUntilIdle();
    }
}

void registerChange(const char* name) {
    for (const char* kind :
         {"bind", "vlanJoin", "lagMember", "ruleEdit", "chipRemove", "chipAdd"}) {
        benchmark::RegisterBenchmark((std::string("ScaleChange/") + kind + "/" + name).c_str(),
                                     BM_ScaleChange, std::string(kind), std::string(name))
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(3);
    }
}

void registerIndex(const char* name) {
    // Not a port-channel member change: the engine re-derives the bindings of the members and
    // the helper's commit starts a cycle at once (ScaleChange/lagMember covers it).
    for (const char* kind : {"bind", "vlanJoin", "vlanJoinChip", "portMove", "fanOut"}) {
        benchmark::RegisterBenchmark((std::string("ScaleIndex/") + kind + "/" + name).c_str(),
                                     BM_ScaleIndex, std::string(kind), std::string(name))
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond)
            ->Iterations(std::string(name) == "S1" ? 201 : 31);
    }
}

// In an order that applies each switch the changes need once.
void registerAll() {
    for (const char* name : {"S1", "S2", "S3"}) {
        benchmark::RegisterBenchmark((std::string("ScaleApply/") + name).c_str(), BM_ScaleApply,
                                     std::string(name))
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(std::string(name) == "S3" ? 1 : 3);
    }
    registerIndex("S1");
    registerIndex("S3");
    registerChange("S3");
    registerChange("S3x2");
    benchmark::RegisterBenchmark("ScaleMemory/S1", BM_ScaleMemory)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1);
    benchmark::RegisterBenchmark("ScaleChips", BM_ScaleChips)
        ->Arg(1)
        ->Arg(4)
        ->Arg(24)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond)
        ->Iterations(5);
}

const bool registered = (registerAll(), true);

}  // namespace
