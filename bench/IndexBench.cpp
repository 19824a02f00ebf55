// The mapping index at switch scale: building it from scratch, and the cost of one change
// (and its undo) in a small and in a large configuration.
//
// Both configurations share the same core: the entities a measured change touches have the
// same neighbourhood in both (the same ACLs on the port, the same VLANs, the same LAG
// sub-interfaces). Only the rest of the configuration grows, from a few dozen ports to 512
// ports on 8 chips, all 4,094 VLANs with members, 128 LAGs with sub-interfaces, 2,000 ACLs and
// 10,000 bindings. The cost of one change must not grow with that rest: the "large/small"
// counter of each change should stay near 1.
//
// Tracing is off (no capture, no ring), so each trace line costs its branch only.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ovinmirel/index/OvinMirelIndexSm.h"
#include "ovinmirel/index/OvinMirelIndexTestWorld.h"

namespace {

using OvinMirel::IndexTest::aclKey;
using OvinMirel::IndexTest::World;
using Zamu::IntfId;

struct Scale {
    uint32_t ports;  // including the 16 core ports
    uint32_t portsPerChip;
    uint32_t vlans;     // including the 8 core VLANs
    uint32_t lags;      // including the core LAG
    uint32_t acls;      // including the 16 core ACLs
    uint32_t bindings;  // filler bindings, beyond the core's
};

constexpr Scale kSmall{48, 24, 24, 4, 40, 120};
constexpr Scale kLarge{512, 64, 4094, 128, 2000, 10000};

constexpr uint32_t kCorePorts = 16;
constexpr uint32_t kCoreVlans = 8;
constexpr uint32_t kCoreAcls = 16;

IntfId port(uint32_t n) {
    return IntfId::ethernet(n);
}

Ovin::AclKey coreAcl(uint32_t n) {
    return aclKey("core" + std::to_string(n));
}

Ovin::AclKey fillerAcl(uint32_t n) {
    static const Acl::AclType kTypes[] = {Acl::aclTypeIpv4, Acl::aclTypeIpv6, Acl::aclTypeMac};
    std::optional<int> vlan;
    if (n % 4 == 3)
        vlan = 1 + static_cast<int>(n % 4094);  // a router ACL
    return aclKey("acl" + std::to_string(n), kTypes[n % 3], vlan);
}

// The core, identical at every scale:
//  - Ethernet1 (the port that moves chips) on chip 1: 4 ACLs of its own, member of VLANs 1-8,
//    carrier of Ethernet1.1 and Ethernet1.2 (one ACL each);
//  - Ethernet2 (the port that joins VLAN 1 and Port-Channel1): no ACLs, in nothing;
//  - Ethernet3 (the port an ACL is bound to): 4 ACLs;
//  - VLAN 1: members Ethernet1 and Ethernet6-9, 4 ACLs on Vlan1; VLANs 2-8: Ethernet1, Ethernet6;
//  - Port-Channel1: members Ethernet4 and Ethernet5, sub-interfaces .1 and .2 with 2 ACLs each.
void populateCore(World& w) {
    for (int a = 0; a < 4; ++a)
        w.bind(coreAcl(a), port(1));
    for (int a = 4; a < 8; ++a)
        w.bind(coreAcl(a), port(3));
    w.acls->aclIs(coreAcl(8));  // the ACL the bind change binds to Ethernet3
    for (uint32_t v = 1; v <= kCoreVlans; ++v) {
        w.vlanMember(static_cast<int>(v), port(1));
        w.vlanMember(static_cast<int>(v), port(6));
    }
    for (uint32_t p = 7; p <= 9; ++p)
        w.vlanMember(1, port(p));
    for (int a = 9; a < 13; ++a)
        w.bind(coreAcl(a), "Vlan1");
    w.subIntf("Ethernet1.1");
    w.subIntf("Ethernet1.2");
    w.bind(coreAcl(0), "Ethernet1.1");
    w.bind(coreAcl(1), "Ethernet1.2");
    w.lagMember("Port-Channel1", port(4));
    w.lagMember("Port-Channel1", port(5));
    w.subIntf("Port-Channel1.1");
    w.subIntf("Port-Channel1.2");
    w.bind(coreAcl(13), "Port-Channel1.1");
    w.bind(coreAcl(14), "Port-Channel1.1");
    w.bind(coreAcl(14), "Port-Channel1.2");
    w.bind(coreAcl(15), "Port-Channel1.2");
}

// Everything else, on ports, VLANs, LAGs and sub-interfaces the core does not use.
void populateFiller(World& w, const Scale& s) {
    const uint32_t filler = s.ports - kCorePorts;
    auto fillerPort = [&](uint32_t i) { return port(kCorePorts + 1 + i % filler); };
    for (uint32_t v = kCoreVlans + 1; v <= s.vlans; ++v) {
        for (uint32_t k = 0; k < 4; ++k)
            w.vlanMember(static_cast<int>(v), fillerPort(v * 7 + k * 13));
    }
    std::vector<IntfId> subIntfs;
    for (uint32_t l = 2; l <= s.lags; ++l) {
        const IntfId lag = IntfId::portChannel(l);
        w.lagMember(lag, fillerPort(2 * (l - 2)));
        w.lagMember(lag, fillerPort(2 * (l - 2) + 1));
        for (uint32_t n = 1; n <= 2; ++n) {
            subIntfs.push_back(IntfId::sub(lag, n));
            w.subIntf(subIntfs.back());
        }
    }
    for (uint32_t i = 0; i < filler; i += 4) {
        subIntfs.push_back(IntfId::sub(fillerPort(i), 100));
        w.subIntf(subIntfs.back());
    }
    const uint32_t fillerAcls = s.acls - kCoreAcls;
    for (uint32_t a = 0; a < fillerAcls; ++a)
        w.acls->aclIs(fillerAcl(a));
    for (uint32_t b = 0; b < s.bindings; ++b) {
        const Ovin::AclKey acl = fillerAcl((b * 7919) % fillerAcls);
        switch (b % 20) {
            case 0:
            case 1:
            case 2:
            case 3:
            case 4:
                w.bind(acl, IntfId::vlan(kCoreVlans + 1 + (b * 17) % (s.vlans - kCoreVlans)));
                break;
            case 5:
            case 6:
            case 7:
                w.bind(acl, subIntfs[(b * 11) % subIntfs.size()]);
                break;
            default:
                w.bind(acl, fillerPort(b * 13));
                break;
        }
    }
}

void placeOnChips(World& w, const Scale& s) {
    for (uint32_t p = 1; p <= s.ports; ++p)
        w.onChip(port(p), 1 + (p - 1) / s.portsPerChip);
}

// A configuration whose inputs are complete; the index is built by start().
struct Config {
    explicit Config(const Scale& s) {
        placeOnChips(w, s);
        populateCore(w);
        populateFiller(w, s);
    }
    void start() {
        sm = OvinMirel::indexSmFactory(w.acls, w.pd, w.vlans, w.lags, w.subs, w.index);
        sm->handleInitialized();
    }
    World w;
    Vorn::Ptr<OvinMirel::IndexSm> sm;
};

void BM_BuildFromScratch(benchmark::State& state, Scale s) {
    Config c(s);
    for (auto _ : state) {
        state.PauseTiming();
        c.w.index = OvinMirel::indexFactory("OvinMirelIndex");
        c.sm = nullptr;
        state.ResumeTiming();
        c.start();
    }
    state.counters["intfAclMapping"] = static_cast<double>(c.w.index->intfAclMappings());
    state.counters["aclPhyIntfMapping"] = static_cast<double>(c.w.index->aclPhyIntfMappings());
}
BENCHMARK_CAPTURE(BM_BuildFromScratch, small, kSmall)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_BuildFromScratch, large, kLarge)->Unit(benchmark::kMillisecond);

// One change followed by its undo, so the configuration is the same at every iteration.
using Change = void (*)(World&);

void bindAclToPort(World& w) {
    Vorn::Ptr<OvinMirel::OvinMirelAcl> acl = w.acls->acl(coreAcl(8));
    acl->ethIntfIs(port(3));
    acl->ethIntfDel(port(3));
}

void portJoinsVlanWithAcls(World& w) {
    w.vlanMember(1, port(2));
    w.vlanMember(1, port(2), false);
}

void portJoinsLagWithSubIntfs(World& w) {
    w.lagMember("Port-Channel1", port(2));
    w.lagMember("Port-Channel1", port(2), false);
}

void portMovesToAnotherChip(World& w) {
    w.offChip(port(1));
    w.onChip(port(1), 2);
    w.offChip(port(1));
    w.onChip(port(1), 1);
}

// Both scales in the same loop, timed one after the other, so that noise from the shared
// machine hits both alike; reports the cost of one change and its undo at each scale.
void BM_Change(benchmark::State& state, Change change) {
    Config small(kSmall);
    Config large(kLarge);
    small.start();
    large.start();
    using Clock = std::chrono::steady_clock;
    Clock::duration tSmall{}, tLarge{};
    for (auto _ : state) {
        const auto t0 = Clock::now();
        change(small.w);
        const auto t1 = Clock::now();
        change(large.w);
        const auto t2 = Clock::now();
        tSmall += t1 - t0;
        tLarge += t2 - t1;
    }
    const double n = static_cast<double>(state.iterations());
    const double small_ns = std::chrono::duration<double, std::nano>(tSmall).count() / n;
    const double large_ns = std::chrono::duration<double, std::nano>(tLarge).count() / n;
    state.counters["small_ns"] = small_ns;
    state.counters["large_ns"] = large_ns;
    state.counters["large/small"] = large_ns / small_ns;
}
BENCHMARK_CAPTURE(BM_Change, bindAclToPort, bindAclToPort);
BENCHMARK_CAPTURE(BM_Change, portJoinsVlanWithAcls, portJoinsVlanWithAcls);
BENCHMARK_CAPTURE(BM_Change, portJoinsLagWithSubIntfs, portJoinsLagWithSubIntfs);
BENCHMARK_CAPTURE(BM_Change, portMovesToAnotherChip, portMovesToAnotherChip);

}  // namespace
