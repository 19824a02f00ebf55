// The costs every state machine pays: a notified attribute write, a set insert and delete with
// a watcher, a write that changes nothing, a trace line whose level is off, a timer armed and
// fired, a burst of entities made and dropped, and a key moving in and out of an ordered set
// that holds many. These sit on every hot path of the index and the per-chip machines.

#include <benchmark/benchmark.h>

#include <vector>

#include "platform/brix/TimerWheel.h"
#include "platform/flinq/Flinq.h"
#include "platform/ovin/AclKey.h"
#include "platform/vorn/Entity.h"
#include "platform/zamu/IntfId.h"

namespace {

class Sample : public Vorn::Entity {
    VORN_ENTITY("Bench::Sample")
  public:
    VORN_ATTR(uint64_t, counter, 0)
    VORN_SET(Zamu::IntfId, member)
    VORN_ORDERED_SET(Ovin::AclKey, acl)
};

void BM_AttrWriteNotifiesOneWatcher(benchmark::State& state) {
    auto e = Vorn::make<Sample>();
    uint64_t seen = 0;
    auto sub = e->counterNotify([&] { seen += e->counter(); });
    uint64_t v = 0;
    for (auto _ : state)
        e->counterIs(++v);
    benchmark::DoNotOptimize(seen);
}
BENCHMARK(BM_AttrWriteNotifiesOneWatcher);

void BM_UnchangedWriteIsFree(benchmark::State& state) {
    // Many entities, so that the writes cannot be folded into one: per write, see items/s.
    std::vector<Vorn::Ptr<Sample>> es;
    std::vector<Vorn::Subscription> subs;
    for (int i = 0; i < 1024; ++i) {
        es.push_back(Vorn::make<Sample>());
        es.back()->counterIs(7);
        subs.push_back(es.back()->counterNotify([] {}));
    }
    for (auto _ : state) {
        for (const auto& e : es)
            e->counterIs(7);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * int64_t(es.size()));
}
BENCHMARK(BM_UnchangedWriteIsFree);

void BM_SetAddAndDeleteWithWatcher(benchmark::State& state) {
    auto e = Vorn::make<Sample>();
    size_t calls = 0;
    auto sub = e->memberNotify([&](const Zamu::IntfId&) { ++calls; });
    for (uint32_t i = 1; i <= 512; ++i)
        e->memberIs(Zamu::IntfId::ethernet(i));
    const Zamu::IntfId probe("Ethernet1000");
    for (auto _ : state) {
        e->memberIs(probe);
        e->memberDel(probe);
    }
    benchmark::DoNotOptimize(calls);
}
BENCHMARK(BM_SetAddAndDeleteWithWatcher);

// A change that fans out makes and drops entities by the hundred, each with a watcher.
void BM_EntityBurstMakeAndDrop(benchmark::State& state) {
    std::vector<Vorn::Ptr<Sample>> es;
    std::vector<Vorn::Subscription> subs;
    for (auto _ : state) {
        for (int i = 0; i < 256; ++i) {
            es.push_back(Vorn::make<Sample>());
            subs.push_back(es.back()->counterNotify([] {}));
        }
        subs.clear();
        es.clear();
    }
    state.SetItemsProcessed(state.iterations() * 256);
}
BENCHMARK(BM_EntityBurstMakeAndDrop);

// A port's key set holds one key per VLAN an ACL reaches; a key joins and leaves the middle.
void BM_OrderedSetKeyAmongMany(benchmark::State& state) {
    auto e = Vorn::make<Sample>();
    auto key = [](int vlan) {
        Ovin::AclKey k;
        k.name = "edge-acl";
        k.vlanId = Bridging::VlanId(vlan);
        return k;
    };
    for (int vlan = 1; vlan <= 2048; vlan += 2)
        e->aclIs(key(vlan));
    const Ovin::AclKey probe = key(1024);
    for (auto _ : state) {
        e->aclIs(probe);
        e->aclDel(probe);
    }
    benchmark::DoNotOptimize(e->acls());
}
BENCHMARK(BM_OrderedSetKeyAmongMany);

void BM_TraceLineLevelOff(benchmark::State& state) {
    static Flinq::Handle th("FrameworkBench");
    std::vector<Zamu::IntfId> intfs;
    for (uint32_t i = 1; i <= 1024; ++i)
        intfs.push_back(Zamu::IntfId::ethernet(i));
    for (auto _ : state) {
        for (const auto& intf : intfs) {
            FLINQ(th, 8, "handleIntfMapping " << intf << " --> ChipId-" << 3 << " added");
            benchmark::ClobberMemory();  // the level mask is re-read for every line
        }
    }
    state.SetItemsProcessed(state.iterations() * int64_t(intfs.size()));
}
BENCHMARK(BM_TraceLineLevelOff);

void BM_TimerArmAndFire(benchmark::State& state) {
    Vorn::ScopedVirtualClock clock(1.0);
    Brix::TimerWheel wheel;
    uint64_t fired = 0;
    Brix::Timer t(wheel, [&] { ++fired; });
    for (auto _ : state) {
        t.expiryIs(0.0);
        wheel.runPass();
    }
    benchmark::DoNotOptimize(fired);
}
BENCHMARK(BM_TimerArmAndFire);

}  // namespace
