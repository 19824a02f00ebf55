// One chip's machines together at switch scale: ACLs bound in the store, the index machines,
// the chip's policy machine and its mapping machine. Measured: one interface's ACL set
// changing (an ACL bound to a port, the policy review on the next timer pass, the PD mapping
// of its new key; then the undo) on a chip with few places and on a chip with 1,024 ports,
// 4,094 VLANs and 2,000 sub-interfaces carrying ACLs; and the full rebuild of that large
// chip's mappings on a new active root.
//
// The measured port has the same neighbourhood at both scales (its ACLs, the port that shares
// its key, its VLAN and its sub-interface); only the rest of the chip grows. The cost of one
// change must not grow with that rest: "large/small" must stay at most 1.5. A rebuild of the
// large chip must take at most 10 ms.
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

// The ACL the measured change binds to Ethernet1: in the root, on no place.
const Ovin::AclKey kAdded = pacl("added", Acl::aclDirectionOut);
const IntfId kEth1 = IntfId::ethernet(1);

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
// so do places whose router ACLs repeat. The core, the same at both scales: Ethernet1 (the
// port that changes) and Ethernet(1 + portAcls) (the port it shares its key with) are the two
// members of VLAN 1; Ethernet1 carries Ethernet1.1. Every other VLAN has one member and every
// other sub-interface one carrier, among the ports past the core.
class Chip {
  public:
    explicit Chip(const Scale& s) : w(65535) {
        w.rootIs(0, rootAcls(s), {p4(0)});
        w.rootIs(1, rootAcls(s), {p4(0)});
        w.activate(0);
        const uint32_t twin = 1 + s.portAcls;
        auto& in = w.inputs;
        for (uint32_t i = 1; i <= s.ports; ++i) {
            const IntfId port = IntfId::ethernet(i);
            in.onChip(port, w.chip.value());
            const uint32_t n = (i - 1) % s.portAcls;
            for (const Ovin::AclKey& k : {p4(n), p6(n), mac(n)})
                in.bind(k, port);
        }
        // A port past the core, for the fill.
        auto other = [&](uint32_t k) {
            const uint32_t i = 2 + k % (s.ports - 1);
            return IntfId::ethernet(i == twin ? 1 + s.ports : i);
        };
        in.onChip(IntfId::ethernet(1 + s.ports), w.chip.value());
        for (uint32_t v = 1; v <= s.vlans; ++v) {
            if (v == 1) {
                in.vlanMember(1, kEth1);
                in.vlanMember(1, IntfId::ethernet(twin));
            } else {
                in.vlanMember(int(v), other(v));
            }
            const uint32_t n = v % s.routerAcls;
            for (const Ovin::AclKey& k : {r4(n), r6(n)})
                in.bind(k, IntfId::vlan(v));
        }
        for (uint32_t i = 0; i < s.subIntfs; ++i) {
            const IntfId carrier = i == 0 ? kEth1 : other(i);
            const IntfId sub = IntfId::sub(carrier, 1 + i / (s.ports - 1));
            in.subIntf(sub);
            in.bind(r4((i * 7) % s.routerAcls), sub);
        }
        w.settle();
        w.start();
    }
    // Ethernet1's ACL set changes and changes back: a new key with a new index, then back to
    // the key it shares. Not inlined, so a profiler can count each call.
    [[gnu::noinline]] void change() {
        w.inputs.bind(kAdded, kEth1);
        w.inputs.settle();
        w.inputs.bind(kAdded, kEth1, false);
        w.inputs.settle();
    }
    size_t places() const {
        return w.dataFlow->intfToHwAclIndexs() + w.dataFlow->routedPortToHwAclIndexs() +
               w.dataFlow->vlanToHwAclIndexs() + w.dataFlow->subIntfToHwAclIndexs();
    }

    World w;
};

double threadCpuNs() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) * 1e9 + double(t.tv_nsec);
}

void BM_ChipChange(benchmark::State& state) {
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
    state.counters["large_places"] = static_cast<double>(large.places());
}
BENCHMARK(BM_ChipChange);

// The large chip's full rebuild on a new active root (the two roots alternate).
void BM_ChipRebuildOnNewActiveRoot(benchmark::State& state) {
    Chip large(kLarge);
    uint32_t slot = 0;
    for (auto _ : state) {
        slot ^= 1;
        large.w.glue->activeRootSmIdIs(large.w.chip, large.w.rootId(slot));
    }
    state.counters["places"] = static_cast<double>(large.places());
    state.counters["2nd_level"] = static_cast<double>(large.w.dataFlow->chipRuleListKeyToIds());
}
BENCHMARK(BM_ChipRebuildOnNewActiveRoot)->Unit(benchmark::kMillisecond);

}  // namespace
