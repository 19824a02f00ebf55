// Differential run of the index machines: seeded random sequences of input changes (ACLs
// created, bound, unbound and removed; ports placed on, moved between and taken off chips;
// VLAN and LAG membership; sub-interfaces of ports and port-channels), and after every step
// the incrementally maintained Index must equal one built from scratch by a fresh builder over
// the same inputs, and must keep its invariants.
//
// Reproducible: a failure names the seed, the step and what the step did. Longer runs:
//   INDEX_DIFF_SEEDS=20 INDEX_DIFF_STEPS=20000 ovinmirel_tests --gtest_filter='IndexDiff*'
//   INDEX_DIFF_SEED=1234 (one given seed; combines with INDEX_DIFF_STEPS)

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "ovinmirel/index/OvinMirelIndexCheck.h"
#include "ovinmirel/index/OvinMirelIndexSm.h"
#include "ovinmirel/index/OvinMirelIndexTestWorld.h"

namespace OvinMirel {
namespace {

using IndexTest::aclKey;
using Zamu::IntfId;

uint64_t envNumber(const char* name, uint64_t fallback) {
    const char* v = std::getenv(name);
    if (!v || !*v)
        return fallback;
    return std::strtoull(v, nullptr, 10);
}

std::vector<uint64_t> seeds() {
    if (const char* one = std::getenv("INDEX_DIFF_SEED"); one && *one) {
        return {std::strtoull(one, nullptr, 10)};
    }
    std::vector<uint64_t> out;
    const uint64_t n = envNumber("INDEX_DIFF_SEEDS", 3);
    for (uint64_t s = 1; s <= n; ++s)
        out.push_back(s);
    return out;
}

// The names every step draws from: small enough that changes collide often.
struct Universe {
    std::vector<IntfId> ports;
    std::vector<int> vlans = {1, 10, 20, 30, 4094};
    std::vector<IntfId> lagIntfs = {"Port-Channel1", "Port-Channel2", "Port-Channel3"};
    std::vector<IntfId> subIntfs;
    std::vector<Ovin::AclKey> acls;
    uint32_t chips = 3;

    Universe() {
        for (int i = 1; i <= 14; ++i)
            ports.push_back(IntfId::ethernet(i));
        for (int i = 1; i <= 4; ++i)
            ports.push_back(IntfId::ethernet(20, i));
        for (int i = 0; i < 5; ++i) {
            subIntfs.push_back(IntfId::sub(ports[i], 1 + i % 2));
            subIntfs.push_back(IntfId::sub(ports[i], 100));
        }
        for (const IntfId& lag : lagIntfs) {
            subIntfs.push_back(IntfId::sub(lag, 5));
            subIntfs.push_back(IntfId::sub(lag, 6));
        }
        const Acl::AclType types[] = {Acl::aclTypeIpv4, Acl::aclTypeIpv6, Acl::aclTypeMac};
        for (int i = 0; i < 12; ++i) {
            std::optional<int> vlan;
            if (i % 4 == 3)
                vlan = vlans[i % vlans.size()];  // router ACLs
            acls.push_back(aclKey("acl" + std::to_string(i), types[i % 3], vlan));
        }
    }
};

class RandomRun {
  public:
    explicit RandomRun(uint64_t seed) : rng_(seed) {
        sm_ = indexSmFactory(w_.acls, w_.pd, w_.vlans, w_.lags, w_.subs, w_.index);
        sm_->handleInitialized();
    }

    // Applies one random change and says what it did.
    std::string step() {
        using Change = std::string (RandomRun::*)();
        static constexpr Change kChanges[] = {
            &RandomRun::createAcl, &RandomRun::removeAcl, &RandomRun::bind,    &RandomRun::bind,
            &RandomRun::bind,      &RandomRun::unbind,    &RandomRun::chip,    &RandomRun::chip,
            &RandomRun::vlan,      &RandomRun::lag,       &RandomRun::subIntf, &RandomRun::rare};
        return (this->*kChanges[pick(std::size(kChanges))])();
    }

    // The first difference from a fresh build, or the first broken invariant.
    std::optional<std::string> check() {
        IndexTest::World fresh;
        fresh.acls = w_.acls;
        fresh.pd = w_.pd;
        fresh.vlans = w_.vlans;
        fresh.lags = w_.lags;
        fresh.subs = w_.subs;
        auto builder =
            indexSmFactory(fresh.acls, fresh.pd, fresh.vlans, fresh.lags, fresh.subs, fresh.index);
        builder->handleInitialized();
        const auto diff =
            IndexTest::indexDifference(*w_.index, *fresh.index, "incremental", "rebuilt");
        const auto broken = checkIndexConsistency(*w_.index);
        if (!diff && !broken)
            return std::nullopt;
        return diff ? *diff + (broken ? "; incremental: " + *broken : "")
                    : "incremental: " + *broken;
    }

    size_t bindings() const {
        size_t n = 0;
        for (const auto& [key, acl] : w_.acls->acl()) {
            n += acl->ethIntfs() + acl->subIntfs() + acl->vlanIntfs();
        }
        return n;
    }

  private:
    size_t pick(size_t n) { return static_cast<size_t>(rng_() % n); }
    template <class T>
    const T& any(const std::vector<T>& v) {
        return v[pick(v.size())];
    }
    IntfId anyBindable() {
        switch (pick(3)) {
            case 0:
                return any(u_.ports);
            case 1:
                return IntfId::vlan(static_cast<uint32_t>(any(u_.vlans)));
            default:
                return any(u_.subIntfs);
        }
    }
    static std::string str(const IntfId& i) { return i.name(); }

    std::string createAcl() {
        const Ovin::AclKey& key = any(u_.acls);
        w_.acls->aclIs(key);
        return "create ACL " + key.str();
    }

    std::string removeAcl() {
        const Ovin::AclKey& key = any(u_.acls);
        Vorn::Ptr<OvinMirelAcl> acl = w_.acls->acl(key);
        if (!acl)
            return "remove absent ACL " + key.str() + " (nothing)";
        // The helper's order: every binding removed, each notified, before the entry goes.
        for (const IntfId& i : acl->ethIntf().keys())
            acl->ethIntfDel(i);
        for (const IntfId& i : acl->subIntf().keys())
            acl->subIntfDel(i);
        for (const IntfId& i : acl->vlanIntf().keys())
            acl->vlanIntfDel(i);
        w_.acls->aclDel(key);
        return "remove ACL " + key.str();
    }

    std::string bind() {
        const Ovin::AclKey& key = any(u_.acls);
        const IntfId intf = anyBindable();
        w_.bind(key, intf);
        return "bind " + key.str() + " to " + str(intf);
    }

    std::string unbind() {
        const Ovin::AclKey& key = any(u_.acls);
        Vorn::Ptr<OvinMirelAcl> acl = w_.acls->acl(key);
        if (!acl)
            return "unbind from absent ACL " + key.str() + " (nothing)";
        std::vector<IntfId> bound = acl->ethIntf().keys();
        for (const IntfId& i : acl->subIntf())
            bound.push_back(i);
        for (const IntfId& i : acl->vlanIntf())
            bound.push_back(i);
        if (bound.empty())
            return "unbind from unbound ACL " + key.str() + " (nothing)";
        const IntfId intf = any(bound);
        acl->intfIs(intf, false);
        return "unbind " + key.str() + " from " + str(intf);
    }

    std::string chip() {
        const IntfId& port = any(u_.ports);
        Vorn::Ptr<Mirel::IntfMapping> entry = w_.pd->intfMapping(port);
        if (!entry) {
            const uint32_t to = 1 + static_cast<uint32_t>(pick(u_.chips));
            w_.onChip(port, to);
            return "place " + str(port) + " on chip " + std::to_string(to);
        }
        const uint32_t from = entry->chipId().value();
        const uint32_t to = 1 + (from + static_cast<uint32_t>(pick(u_.chips - 1))) % u_.chips;
        const std::string move = str(port) + " from chip " + std::to_string(from);
        switch (pick(3)) {
            case 0:
                w_.offChip(port);
                return "take " + move;
            case 1:
                w_.offChip(port);
                w_.onChip(port, to);
                return "move " + move + " to " + std::to_string(to) + " (removal, addition)";
            default:
                w_.onChip(port, to);
                return "move " + move + " to " + std::to_string(to) + " (in place)";
        }
    }

    std::string vlan() {
        const int v = any(u_.vlans);
        const Bridging::VlanId id(v);
        if (pick(15) == 0) {
            w_.vlans->vlanPhyIntfConfigDel(id);
            return "delete VLAN " + std::to_string(v) + " with its members";
        }
        const IntfId& port = any(u_.ports);
        auto entry = w_.vlans->vlanPhyIntfConfig(id);
        const bool member = entry && entry->phyIntf(port);
        w_.vlanMember(v, port, !member);
        return std::string(member ? "remove " : "add ") + str(port) + (member ? " from" : " to") +
               " VLAN " + std::to_string(v);
    }

    std::string lag() {
        const IntfId& lagIntf = any(u_.lagIntfs);
        if (pick(15) == 0) {
            w_.lags->lagPhyIntfConfigDel(lagIntf);
            return "delete " + str(lagIntf) + " with its members";
        }
        const IntfId& port = any(u_.ports);
        // A port is in at most one LAG: leaving its current one is the change.
        for (const auto& [other, entry] : w_.lags->lagPhyIntfConfig()) {
            if (entry->phyIntf(port)) {
                const IntfId from = other;
                w_.lagMember(from, port, false);
                return "remove " + str(port) + " from " + str(from);
            }
        }
        w_.lagMember(lagIntf, port);
        return "add " + str(port) + " to " + str(lagIntf);
    }

    std::string subIntf() {
        const IntfId& sub = any(u_.subIntfs);
        const bool configured = w_.subs->intfConfig(sub) != nullptr;
        w_.subIntf(sub, !configured);
        return std::string(configured ? "delete sub-interface " : "create sub-interface ") +
               str(sub);
    }

    // Now and then the machine is rebuilt in place; a bind otherwise.
    std::string rare() {
        if (pick(20) != 0)
            return bind();
        sm_ = indexSmFactory(w_.acls, w_.pd, w_.vlans, w_.lags, w_.subs, w_.index);
        sm_->handleInitialized();
        return "rebuild the incremental index in place";
    }
    Universe u_;
    std::mt19937_64 rng_;
    IndexTest::World w_;
    Vorn::Ptr<IndexSm> sm_;
};

class IndexDifferentialTest : public ::testing::TestWithParam<uint64_t> {};

TEST_P(IndexDifferentialTest, IncrementalIndexEqualsAFreshBuildAfterEveryStep) {
    const uint64_t seed = GetParam();
    const uint64_t steps = envNumber("INDEX_DIFF_STEPS", 1500);
    RandomRun run(seed);
    size_t maxBindings = 0;
    for (uint64_t n = 1; n <= steps; ++n) {
        const std::string what = run.step();
        if (auto problem = run.check()) {
            FAIL() << "seed " << seed << ", step " << n << " (" << what << "): " << *problem;
        }
        maxBindings = std::max(maxBindings, run.bindings());
    }
    // A run that never got busy proves little.
    EXPECT_GE(maxBindings, 20u);
}

INSTANTIATE_TEST_SUITE_P(IndexDifferential, IndexDifferentialTest, ::testing::ValuesIn(seeds()),
                         [](const ::testing::TestParamInfo<uint64_t>& info) {
                             return "Seed" + std::to_string(info.param);
                         });

}  // namespace
}  // namespace OvinMirel
