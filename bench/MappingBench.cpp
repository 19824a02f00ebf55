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

#include <cstdint>

#include "bench/ChipScale.h"

namespace {

using namespace OvinMirel::MappingTest;
using namespace OvinMirel::ChipScale;

// Every port, VLAN and sub-interface carries ACLs; ports i and i + portAcls share a key, and
// so do places whose router ACLs repeat. Ethernet1 and Ethernet(1 + portAcls) are the core:
// the port that changes and the port it shares its key with.
struct Chip {
    explicit Chip(const Scale& s) : scale(s) {
        rootsIs(w, s);
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

void BM_MappingChange(benchmark::State& state) {
    Chip small(kSmall);
    Chip large(kLarge);
    measureSmallLarge(state, small, large);
    state.counters["large_indexes"] = static_cast<double>(large.w.sm->keyToHwAclIndexs());
}
BENCHMARK(BM_MappingChange);

}  // namespace
