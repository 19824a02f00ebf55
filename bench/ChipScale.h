#pragma once
// What the per-chip benchmarks (ChipBench.cpp, MappingBench.cpp) share: the two chip scales,
// the ACLs their places carry, the root that holds them, and the small/large measurement of
// one change. Header only; part of the benchmarks, not of the library.

#include <benchmark/benchmark.h>

#include <time.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ovinmirel/chip/OvinMirelMappingSmTestWorld.h"

namespace OvinMirel::ChipScale {

using MappingTest::macl;
using MappingTest::pacl;
using MappingTest::racl;

struct Scale {
    uint32_t ports;
    uint32_t vlans;
    uint32_t subIntfs;
    uint32_t portAcls;    // of each of IPv4, IPv6, MAC
    uint32_t routerAcls;  // of each of IPv4, IPv6
};

inline constexpr Scale kSmall{8, 4, 4, 4, 4};
inline constexpr Scale kLarge{1024, 4094, 2000, 256, 1000};

inline Ovin::AclKey p4(uint32_t n) {
    return pacl("p4-" + std::to_string(n));
}
inline Ovin::AclKey p6(uint32_t n) {
    return pacl("p6-" + std::to_string(n), Acl::aclDirectionIn, Acl::aclTypeIpv6);
}
inline Ovin::AclKey mac(uint32_t n) {
    return macl("mac-" + std::to_string(n), n % 2 ? Acl::aclDirectionOut : Acl::aclDirectionIn);
}
inline Ovin::AclKey r4(uint32_t n) {
    return racl("r4-" + std::to_string(n), 1 + int(n % 4094));
}
inline Ovin::AclKey r6(uint32_t n) {
    return racl("r6-" + std::to_string(n), 1 + int(n % 4094), Acl::aclDirectionOut,
                Acl::aclTypeIpv6);
}

// The ACL a measured change adds to Ethernet1: in the root, on no place.
inline const Ovin::AclKey kAdded = pacl("added", Acl::aclDirectionOut);

// Every ACL of the scale, and kAdded.
inline std::vector<Ovin::AclKey> rootAcls(const Scale& s) {
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

// Roots 0 and 1 both hold every ACL of the scale (a rebuild alternates them); 0 is active.
inline void rootsIs(MappingTest::World& w, const Scale& s) {
    w.rootIs(0, rootAcls(s), {p4(0)});
    w.rootIs(1, rootAcls(s), {p4(0)});
    w.activate(0);
}

inline double threadCpuNs() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) * 1e9 + double(t.tv_nsec);
}

// Runs `change` on a small and a large chip in turn, and reports each one's thread CPU time
// per iteration and their ratio, which should stay near 1.
template <class Chip>
void measureSmallLarge(benchmark::State& state, Chip& small, Chip& large) {
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
}

}  // namespace OvinMirel::ChipScale
