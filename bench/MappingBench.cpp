// The PD mapping machine alone at switch scale: the cost of one interface's ACL set changing
// in the policy status (and its undo) on a chip with few places and on a chip with 1,024
// ports, 4,094 VLANs and 2,000 sub-interfaces carrying ACLs. The status is written directly,
// so this is the mapping's share of the whole chip's change (bench/ChipBench.cpp), which also
// measures the rebuild on a new active root.
//
// The measured interface has the same neighbourhood at both scales (its ACLs, the port that
// shares its key); only the rest of the chip grows. The cost of one change must not grow with
// that rest: "large/small" should stay near 1.
//
// Times are the thread's CPU time (the machine is shared). Tracing is off (no capture, no
// ring), so each trace line costs its branch only.

#include <benchmark/benchmark.h>

#include <time.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ovinmirel/chip/OvinMirelMappingSmTestWorld.h"

namespace {

using namespace OvinMirel::MappingTest;
using OvinMirel::AclKeySet;

struct Scale {
    uint32_t ports;
    uint32_t vlans;
    uint32_t subIntfs;
    uint32_t portAcls;    // of each of IPv4, IPv6, MAC
    uint32_t routerAcls;  // of each of IPv4, IPv6
};

constexpr Scale kSmall{8, 4, 4, 4, 4};
constexpr Scale kLarge{1024, 4094, 2000, 256, 1000};

Ovin::AclKey p4(uint32_t n) {
    return pacl("p4-" + std::to_string(n));
}
Ovin::AclKey p6(uint32_t n) {
    return pacl("p6-" + std::to_string(n), Acl::aclDirectionIn, Acl::aclTypeIpv6);
}
Ovin::AclKey mac(uint32_t n) {
    return macl("mac-" + std::to_string(n), n % 2 ? Acl::aclDirectionOut : Acl::aclDirectionIn);
}
Ovin::AclKey r4(uint32_t n) {
    return racl("r4-" + std::to_string(n), 1 + int(n % 4094));
}
Ovin::AclKey r6(uint32_t n) {
    return racl("r6-" + std::to_string(n), 1 + int(n % 4094), Acl::aclDirectionOut,
                Acl::aclTypeIpv6);
}

// The ACL the measured change adds to Ethernet1: in the root, on no place.
const Ovin::AclKey kAdded = pacl("added", Acl::aclDirectionOut);

std::vector<Ovin::AclKey> rootAcls(const Scale& s) {
    std::vector<Ovin::AclKey> acls = {kAdded};
    for (uint32_t n = 0; n < s.portAcls; ++n) {
        acls.push_back(p4(n));
        acls.push_back(p6(n));
        acls.push_back(mac(n));
    }
    for (uint32_t n = 0; n < s.routerAcls; ++n) {
        acls.push_back(r4(n));
        acls.push_back(r6(n));
    }
    return acls;
}

// Every port, VLAN and sub-interface carries ACLs; ports i and i + portAcls share a key, and
// so do places whose router ACLs repeat. Ethernet1 and Ethernet(1 + portAcls) are the core:
// the port that changes and the port it shares its key with.
struct Chip {
    explicit Chip(const Scale& s) : scale(s) {
        w.rootIs(0, rootAcls(s), {p4(0)});
        w.rootIs(1, rootAcls(s), {p4(0)});
        w.activate(0);
        for (uint32_t i = 0; i < s.ports; ++i) {
            const uint32_t n = i % s.portAcls;
            w.intf(IntfId::ethernet(i + 1), {p4(n), p6(n), mac(n)});
        }
        for (uint32_t v = 1; v <= s.vlans; ++v) {
            const uint32_t n = v % s.routerAcls;
            w.vlan(int(v), {r4(n), r6(n)});
        }
        for (uint32_t i = 0; i < s.subIntfs; ++i) {
            const uint32_t n = (i * 7) % s.routerAcls;
            const IntfId sub = IntfId::sub(IntfId::ethernet(i % s.ports + 1), i / s.ports + 1);
            w.subIntf(sub, {r4(n)});
        }
        w.start();
        eth1 = w.policyStatus->intfAclMapping(IntfId::ethernet(1));
    }
    // One change of Ethernet1's ACL set and its undo: a new key with a new index, then back
    // to the key it shares.
    void change() {
        eth1->aclKeyIs(kAdded);
        eth1->aclKeyDel(kAdded);
    }
    Scale scale;
    World w{65535, 0, PolicySource::direct};
    Vorn::Ptr<OvinMirel::IntfAclKeySet> eth1;
};

double threadCpuNs() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) * 1e9 + double(t.tv_nsec);
}

void BM_MappingChange(benchmark::State& state) {
    Chip small(kSmall);
    Chip large(kLarge);
    double tSmall = 0, tLarge = 0;
    for (auto _ : state) {
        const double t0 = threadCpuNs();
        small.change();
        const double t1 = threadCpuNs();
        large.change();
        const double t2 = threadCpuNs();
        tSmall += t1 - t0;
        tLarge += t2 - t1;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["small_ns"] = tSmall / n;
    state.counters["large_ns"] = tLarge / n;
    state.counters["large/small"] = tLarge / tSmall;
    state.counters["large_indexes"] = static_cast<double>(large.w.sm->keyToHwAclIndexs());
}
BENCHMARK(BM_MappingChange);

}  // namespace
