// The whole path through the test agent: ACL configuration written where the user writes it
// (the engine's Acl::Config and Acl::IntfConfig), through the engine, the helper, the store,
// the index, the glue with its per-chip machines and root machines, down to the chip mocks
// playing the driver, and back up to the engine's per-ACL outcome, its waiting clients, unit
// errors, counters and capacity. The glue's invariants are checked after every pass.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "ovinmirel/index/OvinMirelIndexCheck.h"
#include "ovinmirel/index/OvinMirelIndexTestWorld.h"
#include "ovinmirel/testagent/OvinMirelTestAgentRootTestWorld.h"

namespace OvinMirel {
namespace {

using TestAgentTest::aclKey;
using TestAgentTest::World;
using Zamu::IntfId;
using States = std::vector<GlueSmState>;

const Ovin::AclKey kWeb = aclKey("web");
const Ovin::AclKey kRacl = aclKey("racl", Acl::aclTypeIpv4, 20);
const Ovin::AclKey kV6 = aclKey("v6", Acl::aclTypeIpv6);
const Ovin::AclKey kMacs = aclKey("macs", Acl::aclTypeMac);
// "sub" on the two sub-interfaces: routed, so a router ACL per VLAN their numbers name.
const Ovin::AclKey kSub100 = aclKey("sub", Acl::aclTypeIpv4, 100);
const Ovin::AclKey kSub5 = aclKey("sub", Acl::aclTypeIpv4, 5);

// Three chips and their ports: Ethernet1, 2, 7 on chip 1, Ethernet3, 4, 8 on chip 2, Ethernet5,
// 6 on chip 3. Port-Channel10 has Ethernet2 and Ethernet4, Port-Channel20 Ethernet7 and
// Ethernet8; VLAN 20 has Ethernet3 and Ethernet5; Ethernet6.100 and Port-Channel20.5 are
// sub-interfaces. `chip2` is chip 2's capability.
void startSwitch(World& w, const TestAgentChipCapability& chip2 = {}) {
    w.chip(1);
    w.chip(2, chip2);
    w.chip(3);
    for (uint32_t i = 1; i <= 6; ++i)
        w.root->portIs(IntfId::ethernet(i), Mirel::ChipId((i + 1) / 2));
    w.port("Ethernet7", 1);
    w.port("Ethernet8", 2);
    w.root->lagMemberIs("Ethernet2", "Port-Channel10");
    w.root->lagMemberIs("Ethernet4", "Port-Channel10");
    w.root->lagMemberIs("Ethernet7", "Port-Channel20");
    w.root->lagMemberIs("Ethernet8", "Port-Channel20");
    w.root->vlanMemberIs(20, "Ethernet3");
    w.root->vlanMemberIs(20, "Ethernet5");
    w.root->subIntfIs("Ethernet6.100");
    w.root->subIntfIs("Port-Channel20.5");
}

// An ACL of each family, bound to ports, a port-channel, a VLAN interface and sub-interfaces.
void configure(World& w) {
    w.rule("web", Acl::aclTypeIpv4, "10 permit tcp any any eq 443");
    w.rule("web", Acl::aclTypeIpv4, "20 deny ip 10.0.0.0/8 any");
    w.rule("racl", Acl::aclTypeIpv4, "10 deny udp any any range 1000 2000");
    w.rule("v6", Acl::aclTypeIpv6, "10 deny ipv6 2001:db8::/32 any");
    w.rule("macs", Acl::aclTypeMac, "10 deny 0000.1111.2222 0000.0000.0000 any 0x0806");
    w.rule("sub", Acl::aclTypeIpv4, "10 permit icmp any any 8");
    w.bind("Ethernet1", "web");
    w.bind("Port-Channel10", "web");
    w.bind("Vlan20", "racl");
    w.bind("Ethernet6", "v6", Acl::aclTypeIpv6);
    w.bind("Ethernet5", "macs", Acl::aclTypeMac);
    w.bind("Ethernet6.100", "sub");
    w.bind("Port-Channel20.5", "sub");
}

std::vector<std::string> names(const std::vector<IntfId>& intfs) {
    std::vector<std::string> out;
    for (const IntfId& i : intfs)
        out.push_back(i.name());
    return out;
}

// The ACL ids the chip's second-level table points at.
std::set<Mirel::AclId> loadedAclIds(const World& w, uint32_t chip) {
    std::set<Mirel::AclId> out;
    if (const auto loaded = w.loaded(chip)) {
        for (const auto& [key, id] : loaded->chipRuleListKeyToId())
            out.insert(id);
    }
    return out;
}

// The ids the chip's allocator gave the ACLs.
std::set<Mirel::AclId> allocatedAclIds(const World& w, uint32_t chip,
                                       const std::vector<Ovin::AclKey>& keys) {
    std::set<Mirel::AclId> out;
    for (const Ovin::AclKey& key : keys) {
        if (const auto ids = w.aclIds(chip, key)) {
            for (const auto& [protocol, id] : ids->aclIdType())
                out.insert(id);
        }
    }
    return out;
}

// The ACL ids of the chip's active root.
std::set<Mirel::AclId> activeRootAclIds(const World& w, uint32_t chip) {
    std::set<Mirel::AclId> out;
    const uint32_t* root = w.glueStatus()->activeRootSmId(Mirel::ChipId(chip));
    const auto config = root ? w.glueStatus()->rootConfigColl()->rootConfig(*root) : nullptr;
    if (config) {
        for (const auto& [id, acl] : config->acl())
            out.insert(id);
    }
    return out;
}

std::set<uint32_t> chipsOf(const World& w, const Ovin::AclKey& key) {
    std::set<uint32_t> out;
    if (const auto chips = w.status()->index()->aclChipMapping(key)) {
        for (const auto& [chip, intfs] : chips->chipIntfMapping())
            out.insert(chip.value());
    }
    return out;
}

TEST(TestAgentEndToEndTest, AConfigurationReachesTheStoreTheIndexTheChipsAndTheEngine) {
    World w;
    startSwitch(w);
    configure(w);
    w.settle();

    // The store: the port-channel's ACL on its members, the VLAN interface's as a router ACL;
    // the index: each ACL on the chips of the ports it reaches.
    struct AclView {
        Ovin::AclKey key;
        std::vector<std::string> intfs;
        std::set<uint32_t> chips;
    };
    const std::vector<AclView> acls = {
        {kWeb, {"Ethernet1", "Ethernet2", "Ethernet4"}, {1, 2}},
        {kRacl, {"Vlan20"}, {2, 3}},
        {kV6, {"Ethernet6"}, {3}},
        {kMacs, {"Ethernet5"}, {3}},
        {kSub100, {"Ethernet6.100"}, {3}},
        {kSub5, {"Port-Channel20.5"}, {1, 2}},
    };
    for (const AclView& a : acls) {
        SCOPED_TRACE(TestSupport::str(a.key));
        const auto stored = w.stored(a.key);
        ASSERT_TRUE(stored);
        std::vector<std::string> intfs = names(stored->ethIntf().sortedKeys());
        for (const auto& more : {stored->vlanIntf().sortedKeys(), stored->subIntf().sortedKeys()})
            for (const std::string& n : names(more))
                intfs.push_back(n);
        EXPECT_EQ(intfs, a.intfs);
        EXPECT_EQ(chipsOf(w, a.key), a.chips);
        ASSERT_TRUE(w.outcome(a.key));
        EXPECT_EQ(w.outcome(a.key)->state(), Acl::aclDpInstalled);
        EXPECT_EQ(w.outcome(a.key)->result(), Ovin::aclCreateOk);
    }
    EXPECT_EQ(w.stored(kV6)->ipRuleByIds(), 3u) << "the rule and the two neighbour permits";
    EXPECT_EQ(w.stored(kMacs)->macRuleByIds(), 1u);
    EXPECT_EQ(checkIndexConsistency(*w.status()->index()), std::nullopt);

    // The chips: the active root holds every ACL placed on the chip; every port and the VLAN
    // point at an index, and the indexes at the chip's ids of exactly the ACLs in effect
    // there. That what was loaded is the chip's PD mapping, the invariant checker asserts in
    // the randomized run; the sub-interfaces' policy, tests/scenarios/subintf.json.
    struct ChipView {
        uint32_t chip;
        std::vector<std::string> ports;
        bool vlan20;
        std::vector<Ovin::AclKey> placed;  // all programmed too
    };
    const std::vector<ChipView> chips = {
        {1, {"Ethernet1", "Ethernet2"}, false, {kWeb, kSub5}},
        {2, {"Ethernet4"}, true, {kWeb, kRacl, kSub5}},
        {3, {"Ethernet5", "Ethernet6"}, true, {kRacl, kV6, kMacs, kSub100}},
    };
    for (const ChipView& c : chips) {
        SCOPED_TRACE("chip " + std::to_string(c.chip));
        EXPECT_EQ(activeRootAclIds(w, c.chip), allocatedAclIds(w, c.chip, c.placed));
        EXPECT_EQ(activeRootAclIds(w, c.chip).size(), c.placed.size());
        const auto loaded = w.loaded(c.chip);
        ASSERT_TRUE(loaded);
        EXPECT_EQ(names(loaded->intfToHwAclIndex().keys()), c.ports);
        EXPECT_EQ(loaded->vlanToHwAclIndex(Bridging::VlanId(20)) != nullptr, c.vlan20);
        EXPECT_EQ(loadedAclIds(w, c.chip), allocatedAclIds(w, c.chip, c.placed));
    }
    EXPECT_EQ(w.glueStatus()->lastComputationResult(), success_);
    EXPECT_EQ(w.glueStatus()->chipErrors(), 0u);

    EXPECT_FALSE(w.root->ovinMirelAclHelper()->dirty());
    EXPECT_EQ(w.status()->pDConfig()->blockedIntfs(), 0u);
}

// ---- The engine waits for the cycle that carries its update ----

const Ovin::AclKey kAll = aclKey("all");

struct WaitCase {
    const char* name;
    // Before the configuration settles (capabilities).
    std::function<void(World&)> setup;
    // Held: a first change starts a cycle whose chip 1 answers late, and the change under test
    // arrives while that cycle runs.
    bool held;
    std::function<void(World&)> change;
    // The glue state in which the engine's clients are released, and the states it had to
    // wait through (entered while its request was pending), in order.
    GlueSmState releasedAt;
    States waitedThrough;
    // Whether chip 2's active root holds the ACL "all" when the clients are released.
    bool carried;
};

void PrintTo(const WaitCase& c, std::ostream* os) {
    *os << c.name;
}

std::string waitCaseName(const ::testing::TestParamInfo<WaitCase>& info) {
    return info.param.name;
}

class TestAgentWaitTest : public ::testing::TestWithParam<WaitCase> {};

TEST_P(TestAgentWaitTest, TheEngineWaitsUntilTheCycleOfItsUpdateEnds) {
    const WaitCase& c = GetParam();
    World w;
    startSwitch(w);
    if (c.setup)
        c.setup(w);
    configure(w);
    w.rule("all", Acl::aclTypeIpv4, "10 deny tcp any any eq 22");
    w.settle();
    ASSERT_EQ(w.glueStatus()->lastComputationResult(), success_);
    const Vorn::Ptr<OvinMirelAclSm> engine = w.root->ovinAclSm();

    if (c.held) {
        w.root->faultIs(Mirel::ChipId(1), TestAgentFault::late(5.0));
        w.rule("web", Acl::aclTypeIpv4, "30 permit udp any any eq 53");  // chips 1 and 2
        w.root->runFor(0.5);
        ASSERT_EQ(w.glueStatus()->glueSmState(), computing_) << "chip 1 answers late";
    }

    // From here on: every glue state with whether the engine still waited, and the state in
    // which the update of the change was released.
    struct Entered {
        GlueSmState state;
        bool pending;
    };
    std::vector<Entered> entered;
    std::optional<GlueSmState> releasedAt;
    bool carriedAtRelease = false;
    const uint64_t updatesBefore = engine->updates();
    auto carried = [&] {
        const auto ids = w.aclIds(2, kAll);
        return ids && ids->aclIdTypes() > 0 &&
               activeRootAclIds(w, 2).contains(ids->aclIdType().begin()->second);
    };
    Vorn::Subscription stateSub = w.glueStatus()->glueSmStateNotify([&] {
        entered.push_back({w.glueStatus()->glueSmState(), engine->dpAclUpdateRequestPending()});
    });
    Vorn::Subscription doneSub = w.root->statusDp()->dpAclUpdateTimeNotify([&] {
        if (!releasedAt && engine->updates() > updatesBefore &&
            !engine->dpAclUpdateRequestPending()) {
            releasedAt = w.glueStatus()->glueSmState();
            carriedAtRelease = carried();
        }
    });
    c.change(w);
    w.settle();

    ASSERT_EQ(engine->updates(), updatesBefore + 1);
    ASSERT_TRUE(releasedAt) << "never released";
    EXPECT_EQ(*releasedAt, c.releasedAt);
    EXPECT_EQ(carriedAtRelease, c.carried);
    States waited;
    for (const Entered& e : entered) {
        if (e.pending)
            waited.push_back(e.state);
    }
    EXPECT_EQ(waited, c.waitedThrough);
    EXPECT_FALSE(engine->dpAclUpdateRequestPending());
}

// A new ACL on chip 2: its root changes.
void bindAllOnEthernet3(World& w) {
    w.bind("Ethernet3", "all");
}

const States kHeldCycleEnd = {loading_, mappingLoader_, success_, unblockIntf_, idle_};
States then(States a, const States& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

INSTANTIATE_TEST_SUITE_P(
    TestAgentEndToEnd, TestAgentWaitTest,
    ::testing::Values(
        WaitCase{"success",
                 nullptr,
                 false,
                 bindAllOnEthernet3,
                 success_,
                 {loading_, mappingLoader_},
                 true},
        WaitCase{"fail",
                 nullptr,
                 false,
                 [](World& w) {
                     w.root->faultIs(Mirel::ChipId(2), TestAgentFault::failing(Mirel::stageHwError_)
                                                           .onXform(Mirel::xformDstPortRange_));
                     bindAllOnEthernet3(w);
                 },
                 fail_,
                 {aborting_, blockIntf_, mappingLoader_},
                 false},
        // No chip's root changes: the cycle ends within the kick, before the request is made.
        WaitCase{
            "idle", nullptr, false, [](World& w) { w.bind("Ethernet9", "all"); }, idle_, {}, false},
        WaitCase{"heldSuccess", nullptr, true, bindAllOnEthernet3, success_,
                 then(kHeldCycleEnd, {aclIdAlloc_, computing_, loading_, mappingLoader_}), true},
        // Chip 2 has four rule list ids, for web, racl and sub; two more ACLs exhaust it.
        WaitCase{"heldAclIdAllocFail",
                 [](World& w) {
                     TestAgentChipCapability small;
                     small.chipRuleListIdMax = 3;
                     w.chip(2, small);
                 },
                 true,
                 [](World& w) {
                     w.bind("Ethernet3", "v6", Acl::aclTypeIpv6);
                     bindAllOnEthernet3(w);
                 },
                 aclIdAllocFail_, then(kHeldCycleEnd, {aclIdAlloc_, blockIntf_, mappingLoader_}),
                 false}),
    waitCaseName);

// ---- Failures: unit errors per failed chip, and a refused rule ----

TEST(TestAgentEndToEndTest, FailedChipsBecomeUnitErrorsUntilTheNextUpdate) {
    World w;
    startSwitch(w);
    configure(w);
    w.settle();
    const Ovin::AclKey all = aclKey("all");
    w.root->faultIs(Mirel::ChipId(2), TestAgentFault::failing(Mirel::stageHwError_));
    w.root->faultIs(Mirel::ChipId(3), TestAgentFault::failing(Mirel::stageTcamFull_));
    w.rule("all", Acl::aclTypeIpv4, "10 deny tcp any any eq 22");
    // Chip 1 (through the port-channel's Ethernet7) changes too, and computes well.
    for (const char* intf : {"Port-Channel20", "Ethernet5", "Ethernet6"})
        w.bind(intf, "all");
    w.settle();

    // What each chip kept, and the cycle's states: the invariant checker and
    // tests/scenarios/failed-chip-aborts.json.
    const Vorn::Ptr<TestAclHelper> helper = w.root->ovinMirelAclHelper();
    auto unitErrors = [&] {
        std::vector<std::string> out;
        for (const auto& [unit, code] : helper->unitError())
            out.push_back(unit + " error " + std::to_string(code));
        for (const auto& unit : helper->publishUnitError())
            out.push_back(unit + " published");
        return out;
    };
    EXPECT_EQ(unitErrors(), (std::vector<std::string>{"Chip-2 error 4", "Chip-3 error 2",
                                                      "Chip-2 published", "Chip-3 published"}));
    ASSERT_TRUE(w.outcome(all));
    EXPECT_EQ(w.outcome(all)->state(), Acl::aclDpFailed);
    EXPECT_EQ(w.outcome(all)->error(),
              "not in effect in the data plane (Chip-2 error 4, Chip-3 error 2)");

    // The faults are gone; the next update starts clean and succeeds.
    w.root->faultDel(Mirel::ChipId(2));
    w.root->faultDel(Mirel::ChipId(3));
    w.rule("all", Acl::aclTypeIpv4, "20 deny tcp any any eq 23");
    w.settle();
    EXPECT_EQ(unitErrors(), std::vector<std::string>{});
    EXPECT_EQ(w.outcome(all)->state(), Acl::aclDpInstalled);
}

TEST(TestAgentEndToEndTest, ARefusedRuleFailsItsAclAlone) {
    World w;
    startSwitch(w);
    configure(w);
    w.settle();
    const Ovin::AclKey bad = aclKey("bad");
    w.root->ovinMirelAclHelper()->establishedSupportedIs(false);
    w.rule("bad", Acl::aclTypeIpv4, "10 permit tcp any any established");
    w.bind("Ethernet3", "bad");
    w.rule("web", Acl::aclTypeIpv4, "30 permit udp any any eq 53");  // in the same update
    w.settle();

    ASSERT_TRUE(w.outcome(bad));
    EXPECT_EQ(w.outcome(bad)->state(), Acl::aclDpFailed);
    EXPECT_EQ(w.outcome(bad)->result(), Ovin::aclCreateNotSupportedByHw);
    EXPECT_FALSE(w.stored(bad)) << "nothing of it stays";
    EXPECT_TRUE(chipsOf(w, bad).empty());
    EXPECT_EQ(w.outcome(kWeb)->state(), Acl::aclDpInstalled);
    EXPECT_EQ(w.stored(kWeb)->ipRuleByIds(), 3u);
    EXPECT_EQ(w.glueStatus()->lastComputationResult(), success_);
}

// ---- Counters ----

TEST(TestAgentEndToEndTest, RuleCountersAddUpOverTheChipsOfTheAcl) {
    World w;
    startSwitch(w);
    TestAgentChipCapability split;
    split.aclSplitOnProtocolSupported = true;
    w.chip(4, split);
    w.port("Ethernet10", 4);
    const Ovin::AclKey counted = aclKey("counted");
    const Ovin::AclKey lonely = aclKey("lonely");
    for (const char* name : {"counted", "lonely"}) {
        w.rule(name, Acl::aclTypeIpv4, "10 permit tcp any any eq 22");
        w.rule(name, Acl::aclTypeIpv4, "20 deny udp any any");
    }
    w.bind("Ethernet1", "counted");
    w.bind("Ethernet3", "counted");
    w.bind("Ethernet5", "counted");
    w.bind("Ethernet10", "counted");
    w.bind("Ethernet9", "lonely");  // on no chip
    w.settle();
    ASSERT_EQ(w.outcome(counted)->state(), Acl::aclDpInstalled);

    EXPECT_FALSE(w.root->aclCountersAllocated(lonely));
    EXPECT_EQ(w.root->ruleCounters(lonely, 10), 0u);
    EXPECT_TRUE(w.root->aclCountersAllocated(counted));
    EXPECT_EQ(w.root->ruleCounters(counted, 10), 0u) << "nothing counted yet";

    w.root->ruleCounterIs(Mirel::ChipId(1), counted, 10, 3);
    w.root->ruleCounterIs(Mirel::ChipId(2), counted, 10, 5);
    w.root->ruleCounterIs(Mirel::ChipId(3), counted, 10, 7);
    w.root->ruleCounterIs(Mirel::ChipId(2), counted, 20, 11);
    EXPECT_EQ(w.root->ruleCounters(counted, 10), 15u);
    EXPECT_EQ(w.root->ruleCounters(counted, 20), 11u);

    // Chip 4 splits the ACL: the TCP rule counts under one id, the other rule under the other.
    const auto ids = w.aclIds(4, counted);
    ASSERT_TRUE(ids);
    ASSERT_EQ(ids->aclIdTypes(), 2u);
    w.root->ruleCounterIs(Mirel::ChipId(4), counted, 10, 100);
    w.root->ruleCounterIs(Mirel::ChipId(4), counted, 20, 1000);
    EXPECT_EQ(w.root->ruleCounters(counted, 10), 115u);
    EXPECT_EQ(w.root->ruleCounters(counted, 20), 1011u);
    const auto chip4 = w.status()->pDStatus()->chipPDStatus(Mirel::ChipId(4));
    ASSERT_TRUE(chip4);
    ASSERT_EQ(chip4->ruleCounters(), 2u);
    EXPECT_EQ(chip4->ruleCounter().begin()->first.aclId, *ids->aclIdType(Mirel::protocolTcp_));

    // Unbound from chip 3, its count no longer adds.
    w.unbind("Ethernet5");
    w.settle();
    EXPECT_EQ(w.root->ruleCounters(counted, 10), 108u);
}

}  // namespace
}  // namespace OvinMirel
