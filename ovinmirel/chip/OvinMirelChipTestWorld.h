#pragma once
// Test support for the per-chip machines: the index test world with its index machines
// running, the hardware capabilities, the per-chip policy status, a timer wheel on a virtual
// clock and the policy machines; and a flattening of an AclPolicyStatus into sorted lines
// ("intfAclMapping[Ethernet1].aclKey[a/ip/in]") that tests compare against expectations.
// Header only, for tests; not part of the library.

#include <cstdint>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

#include "ovinmirel/chip/OvinMirelAclPolicySm.h"
#include "ovinmirel/glue/OvinMirelGlueStatus.h"
#include "ovinmirel/index/OvinMirelIndexSm.h"
#include "ovinmirel/index/OvinMirelIndexTestWorld.h"
#include "platform/brix/TimerWheel.h"
#include "platform/mirel/HwCapability.h"
#include "platform/vorn/Clock.h"

namespace OvinMirel::ChipTest {

using IndexTest::aclKey;
using IndexTest::Facts;

// Every leaf of a policy status as one line, in key order; an entry with no ACL shows as
// "<collection>[<key>] empty", so a test sees one left behind.
inline Facts statusFacts(const AclPolicyStatus& s) {
    Facts out;
    auto add = [&](const auto&... parts) {
        std::ostringstream os;
        (os << ... << parts);
        out.push_back(os.str());
    };
    auto keys = [&](const char* name, const auto& coll) {
        for (const auto& [k, e] : coll) {
            if (!e->aclKeys())
                add(name, "[", k, "] empty");
            for (const auto& a : e->aclKey())
                add(name, "[", k, "].aclKey[", a, "]");
        }
    };
    keys("intfAclMapping", s.intfAclMapping());
    keys("routedPortSharedAclMapping", s.routedPortSharedAclMapping());
    keys("vlanAclMapping", s.vlanAclMapping());
    for (const auto& [v, e] : s.vlanAclMapping())
        for (const auto& p : e->phyIntf())
            add("vlanAclMapping[", v, "].phyIntf[", p, "]");
    keys("subIntfAclMapping", s.subIntfAclMapping());
    return out;
}

// The index world plus everything a chip machine is built from. Members are destroyed in
// reverse order: the machines (and their timers) before the wheel, the wheel before the clock.
struct World : IndexTest::World {
    Vorn::ScopedVirtualClock clock;
    Brix::TimerWheel wheel;
    Vorn::Ptr<Mirel::HwCapabilityColl> caps = Mirel::hwCapabilityCollFactory("HwCapabilityColl");
    Vorn::Ptr<Mirel::HwCapability> hw = Mirel::hwCapabilityFactory("HwCapability");
    Vorn::Ptr<AclPolicyStatusColl> statuses = aclPolicyStatusCollFactory("aclPolicyStatusColl");
    Vorn::Ptr<IndexSm> indexSm;
    Vorn::Ptr<AclPolicySmColl> policies = aclPolicySmCollFactory("aclPolicySmColl");

    // The chip's capability with its supported combinations, ranked in the order given
    // (priority 1, 2, ...), replacing any it had.
    Vorn::Ptr<Mirel::ChipHwCapability> chip(uint32_t id, std::initializer_list<uint32_t> ranked) {
        Vorn::Ptr<Mirel::ChipHwCapability> cap = caps->chipHwCapabilityIs(Mirel::ChipId(id));
        cap->aclTypeCombinationByPriorityDelAll();
        uint32_t priority = 0;
        for (uint32_t mask : ranked)
            cap->aclTypeCombinationByPriorityIs(Mirel::AclTypePriority{++priority},
                                                Mirel::AclTypeCombinationBitMask(mask));
        return cap;
    }
    void startIndex() {
        indexSm = indexSmFactory(acls, pd, vlans, lags, subs, index);
        indexSm->handleInitialized();
    }
    // The chip's policy machine, initialised. REQUIRES: chip(c, ...) first.
    Vorn::Ptr<AclPolicySm> startPolicy(uint32_t id) {
        const Mirel::ChipId c(id);
        Vorn::Ptr<AclPolicySm> sm =
            policies->smIs(c, caps->chipHwCapability(c), hw, index, statuses->statusIs(c), wheel);
        sm->handleInitialized();
        return sm;
    }
    // Runs the wheel until nothing is due; returns how many timers fired.
    size_t settle() { return wheel.runUntilIdle(); }
    Facts status(uint32_t id) const {
        Vorn::Ptr<AclPolicyStatus> s = statuses->status(Mirel::ChipId(id));
        return s ? statusFacts(*s) : Facts{};
    }
};

}  // namespace OvinMirel::ChipTest
