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

#include <cstdint>

#include "bench/ChipScale.h"

namespace {

using namespace OvinMirel::MappingTest;
using namespace OvinMirel::ChipScale;

const IntfId kEth1 = IntfId::ethernet(1);

// Every port, VLAN and sub-interface carries ACLs; ports i and i + portAcls share a key, and
// so do places whose router ACLs repeat. The core, the same at both scales: Ethernet1 (the
// port that changes) and Ethernet(1 + portAcls) (the port it shares its key with) are the two
// members of VLAN 1; Ethernet1 carries Ethernet1.1. Every other VLAN has one member and every
// other sub-interface one carrier, among the ports past the core.
class Chip {
  public:
    explicit Chip(const Scale& s) : w(65535) {
        rootsIs(w, s);
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

void BM_ChipChange(benchmark::State& state) {
    Chip small(kSmall);
    Chip large(kLarge);
    measureSmallLarge(state, small, large);
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
