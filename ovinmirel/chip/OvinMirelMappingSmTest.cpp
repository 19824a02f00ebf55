// The PD mapping machine behind the real ones: ACLs bound in the store, the index machines
// keeping a real Index, the chip's AclPolicySm writing the policy status (the timer wheel run
// after every step), and a glue status whose active root the test writes. Sharing and releasing
// indexes in both pools, key changes, exhaustion, the gates, the rebuild on a new active root,
// the traces and the fatal inconsistencies. The mapping checker runs after every step, the
// index checker after every step that changed the index. DirectPolicy stands in where a case
// needs a policy result the policy machine never writes; each such case says why.

#include "ovinmirel/chip/OvinMirelMappingSm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ovinmirel/chip/OvinMirelMappingCheck.h"
#include "ovinmirel/chip/OvinMirelMappingSmTestWorld.h"
#include "ovinmirel/index/OvinMirelIndexCheck.h"
#include "platform/flinq/Flinq.h"
#include "tests/TestSupport.h"

namespace OvinMirel {
namespace {

using namespace MappingTest;
using Strings = std::vector<std::string>;

// Ports Ethernet1 and Ethernet2 carry port ACLs, Ethernet3 and Ethernet4 are routed ports,
// Ethernet5 carries Ethernet5.1, Ethernet6 and Ethernet7 are the members of VLAN 10, Ethernet8
// the member of Port-Channel1, which carries Port-Channel1.5.
const IntfId kEth1("Ethernet1"), kEth2("Ethernet2"), kEth3("Ethernet3"), kEth4("Ethernet4");
const IntfId kEth6("Ethernet6"), kEth7("Ethernet7"), kVlan10("Vlan10");
const IntfId kSub1("Ethernet5.1"), kLagSub("Port-Channel1.5");

const Ovin::AclKey kP4 = pacl("p4"), kP4Out = pacl("p4out", Acl::aclDirectionOut);
const Ovin::AclKey kP6 = pacl("p6", Acl::aclDirectionIn, Acl::aclTypeIpv6);
const Ovin::AclKey kMac = macl("mac"), kMacOut = macl("macout", Acl::aclDirectionOut);
const Ovin::AclKey kR4 = racl("r4"), kR4Out = racl("r4out", 1, Acl::aclDirectionOut);
const Ovin::AclKey kR6 = racl("r6", 1, Acl::aclDirectionIn, Acl::aclTypeIpv6);
const Ovin::AclKey kR4b = racl("r4b", 2);
// Their ids in root 0: 1 to 9 in this order.
const std::vector<Ovin::AclKey> kAllAcls = {kP4, kP4Out, kP6, kMac, kMacOut,
                                            kR4, kR4Out, kR6, kR4b};

// A world whose machine is checked after every step, with the topology above and routed-port
// sharing on.
std::unique_ptr<World> checkedWorld(uint32_t hwAclIndexMax = 100, uint32_t reserved = 0,
                                    PolicySource source = PolicySource::bindings) {
    auto w = std::make_unique<World>(hwAclIndexMax, reserved, source);
    World* raw = w.get();
    raw->afterStep = [raw](bool indexChanged) {
        EXPECT_EQ(checkMappingConsistency(*raw->sm), std::nullopt);
        if (indexChanged) {
            EXPECT_EQ(checkIndexConsistency(*raw->inputs.index), std::nullopt);
        }
    };
    if (source == PolicySource::direct)
        return w;
    w->raclSharing(true);
    w->vlanMember(10, kEth6);
    w->vlanMember(10, kEth7);
    w->subIntfConfigured(kSub1);
    w->lagMember("Port-Channel1", "Ethernet8");
    w->subIntfConfigured(kLagSub);
    return w;
}

// Started with root 0 holding every ACL above active.
std::unique_ptr<World> runningWorld(uint32_t hwAclIndexMax = 100, uint32_t reserved = 0,
                                    PolicySource source = PolicySource::bindings) {
    auto w = checkedWorld(hwAclIndexMax, reserved, source);
    w->rootIs(0, kAllAcls);
    w->activate(0);
    w->start();
    return w;
}

// One place of any family: the interface its ACLs are bound to, and its index.
struct Place {
    std::string name;
    IntfId bound;
    std::function<std::optional<int>(const World&)> index;
};
Place port(const IntfId& i) {
    return {"intf " + i.name(), i, [i](const World& w) { return w.intfIndex(i); }};
}
Place routedPort(const IntfId& i) {
    return {"routed port " + i.name(), i, [i](const World& w) { return w.routedPortIndex(i); }};
}
Place vlan10() {
    return {"vlan 10", kVlan10, [](const World& w) { return w.vlanIndex(10); }};
}
Place subIntf(const IntfId& i) {
    return {"subintf " + i.name(), i, [i](const World& w) { return w.subIntfIndex(i); }};
}

TEST(MappingSm, PlacesWithOneKeyShareAnIndexFreedByTheLastOfThePool) {
    struct Case {
        const char* name;
        std::vector<Place> places;  // all given the same ACLs, then emptied in this order
        AclKeySet acls;
        HwAclIndexAllocatorType pool;
        Strings secondLevel;  // in and out ACLs of one kind each have theirs
    };
    const Case cases[] = {
        {"two interfaces",
         {port(kEth1), port(kEth2)},
         {kP4, kP6, kMac, kP4Out, kMacOut},
         hwAclIndexAllocPaclMacl_,
         {"1/in/all=1", "1/out/all=2", "3/in/all=3", "5/in/all=4", "5/out/all=5"}},
        {"routed port, VLAN, sub-interfaces of a port and of a port-channel",
         {routedPort(kEth3), vlan10(), subIntf(kSub1), subIntf(kLagSub)},
         {kR4, kR6, kR4Out},
         hwAclIndexAllocRacl_,
         {"2/in/all=6", "2/out/all=7", "4/in/all=8"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto w = runningWorld();
        for (const Place& p : c.places)
            w->bind(p.bound, c.acls);
        const std::optional<int> index = c.places.front().index(*w);
        ASSERT_EQ(index, 1);
        for (const Place& p : c.places)
            EXPECT_EQ(p.index(*w), index) << p.name;
        EXPECT_EQ(w->secondLevel(*index), c.secondLevel);
        EXPECT_EQ(w->numbersInUse(c.pool), (std::vector<uint32_t>{0, 1}));
        for (size_t i = 0; i < c.places.size(); ++i) {
            SCOPED_TRACE(c.places[i].name + " emptied");
            w->bind(c.places[i].bound, {});
            EXPECT_EQ(c.places[i].index(*w), std::nullopt);
            const bool last = i + 1 == c.places.size();
            if (!last) {
                EXPECT_EQ(c.places.back().index(*w), index);
                EXPECT_EQ(w->secondLevel(*index), c.secondLevel);
            }
            const std::vector<uint32_t> inUse =
                last ? std::vector<uint32_t>{0} : std::vector<uint32_t>{0, 1};
            EXPECT_EQ(w->numbersInUse(c.pool), inUse);
        }
        EXPECT_EQ(w->secondLevel(*index), Strings{});
        EXPECT_EQ(w->sm->keyToHwAclIndexs(), 0u);
    }
}

TEST(MappingSm, AKeyChangeFreesTheOldIndexBeforeTheNewIsWritten) {
    auto w = runningWorld();
    w->bind(kEth1, {kP4});
    w->bind(kEth2, {kP6});
    ASSERT_EQ(w->intfIndex(kEth1), 1);
    ASSERT_EQ(w->intfIndex(kEth2), 2);
    Strings events;
    auto s1 = w->dataFlow->intfToHwAclIndexNotify([&](const IntfId& i) {
        const Mirel::HwAclIndex* index = w->dataFlow->intfToHwAclIndex(i);
        events.push_back(i.name() + (index ? "=" + std::to_string(index->value()) : " gone"));
    });
    auto s2 = w->dataFlow->chipRuleListKeyToIdNotify([&](const Mirel::ChipRuleListIdKey& k) {
        const bool present = w->dataFlow->chipRuleListKeyToId(k) != nullptr;
        events.push_back(std::string(present ? "add " : "del ") +
                         std::to_string(k.hwAclIndex().value()) + "/" +
                         std::to_string(int(k.tableType())));
    });
    Flinq::Capture capture;
    w->bind(kEth1, {kP4, kMac});
    // Ethernet1 was the last user of index 1: it goes with its entries, and is handed out again.
    // The review of Ethernet1 changes its status by the one ACL only.
    EXPECT_EQ(events, (Strings{"Ethernet1 gone", "del 1/1", "Ethernet1=1", "add 1/1", "add 1/5"}));
    EXPECT_TRUE(capture.hasSubstring("      updating key "));
    EXPECT_TRUE(
        capture.has("      deleting all 2nd-level mapping with hw acl index 1 from pool "
                    "hwAclIndexAllocPaclMacl"));
    EXPECT_EQ(w->intfIndex(kEth2), 2);

    // With another user left, the old index stays as it is and the place moves to a new one.
    w->bind(kEth3, {kP4, kMac});
    events.clear();
    w->bind(kEth1, {kP4});
    EXPECT_EQ(events, (Strings{"Ethernet1 gone", "Ethernet1=3", "add 3/1"}));
    EXPECT_EQ(w->intfIndex(kEth3), 1);
    EXPECT_EQ(w->secondLevel(1).size(), 2u);
}

TEST(MappingSm, TheReservedIndexIsNeverHandedOut) {
    struct Case {
        uint32_t max;
        uint32_t reserved;
        std::vector<std::optional<int>> indexes;  // of Ethernet1.. with distinct keys
    };
    const Case cases[] =
        {
            {1, 0, {1, std::nullopt}},       {1, 1, {0, std::nullopt}},
            {2, 1, {0, 2, std::nullopt}},    {0, 0, {std::nullopt}},
            {2, 5, {0, 1, 2, std::nullopt}},  // a reserved index beyond the range takes nothing
        };
    const std::vector<AclKeySet> keys = {{kP4}, {kP6}, {kMac}, {kP4Out}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "max " << c.max << " reserved " << c.reserved);
        auto w = runningWorld(c.max, c.reserved);
        for (size_t i = 0; i < c.indexes.size(); ++i) {
            const IntfId intf = IntfId::ethernet(uint32_t(i + 1));
            w->bind(intf, keys[i]);
            EXPECT_EQ(w->intfIndex(intf), c.indexes[i]) << intf;
        }
    }
}

TEST(MappingSm, AnExhaustedPoolMapsItsWaitingPlacesOnceANumberIsFree) {
    auto w = runningWorld(1, 0);
    w->bind(kEth1, {kP4});
    ASSERT_EQ(w->intfIndex(kEth1), 1);
    {
        Flinq::Capture capture;
        w->bind(kEth2, {kP6});
        EXPECT_TRUE(capture.has("      range exhausted, cannot allocate hw acl index"));
    }
    // A second place with the same unmapped key: it waits too, and is in no key's set.
    w->bind(kEth3, {kP6});
    EXPECT_EQ(w->intfIndex(kEth2), std::nullopt);
    EXPECT_EQ(w->intfIndex(kEth3), std::nullopt);
    EXPECT_EQ(w->sm->intfWaitingForHwAclIndex().keys(), (std::vector<IntfId>{kEth2, kEth3}));
    EXPECT_EQ(w->sm->keyToIntfSets(), 1u);
    // Ethernet1 reviewed with its key unchanged (an ACL that the active root lacks): it keeps
    // its index, which no waiting place may take meanwhile.
    w->bind(kEth1, {kP4, pacl("notInRoot", Acl::aclDirectionOut)});
    EXPECT_EQ(w->intfIndex(kEth1), 1);
    EXPECT_EQ(w->intfIndex(kEth2), std::nullopt);
    // A key that has an index is shared even now.
    w->bind(kEth4, {kP4});
    EXPECT_EQ(w->intfIndex(kEth4), 1);
    // The number stays in use while Ethernet4 holds it.
    w->bind(kEth1, {});
    EXPECT_EQ(w->intfIndex(kEth2), std::nullopt);
    // Freed: both waiting places get it, in order.
    w->bind(kEth4, {});
    EXPECT_EQ(w->intfIndex(kEth2), 1);
    EXPECT_EQ(w->intfIndex(kEth3), 1);
    EXPECT_EQ(w->sm->intfWaitingForHwAclIndexs(), 0u);
    // A waiting place that loses its ACLs simply stops waiting.
    w->bind(kEth1, {kMac});
    EXPECT_TRUE(w->sm->intfWaitingForHwAclIndex(kEth1));
    w->bind(kEth1, {});
    EXPECT_FALSE(w->sm->intfWaitingForHwAclIndex(kEth1));
}

TEST(MappingSm, TheRouterPoolIsFreedForWaitingPlacesOfAnyRouterFamily) {
    auto w = runningWorld(1, 0);
    w->bind(kVlan10, {kR4});
    w->bind(kEth3, {kR6});
    w->bind(kSub1, {kR4b});
    EXPECT_EQ(w->vlanIndex(10), 1);
    EXPECT_EQ(w->routedPortIndex(kEth3), std::nullopt);
    EXPECT_EQ(w->subIntfIndex(kSub1), std::nullopt);
    // The port pool is another pool: its number 1 is free.
    w->bind(kEth2, {kP4});
    EXPECT_EQ(w->intfIndex(kEth2), 1);
    // Routed ports are reviewed before sub-interfaces.
    w->bind(kVlan10, {});
    EXPECT_EQ(w->routedPortIndex(kEth3), 1);
    EXPECT_EQ(w->subIntfIndex(kSub1), std::nullopt);
}

TEST(MappingSm, AKeyWithNothingOfItsFamilyTakesNoNumber) {
    struct Case {
        Place place;
        AclKeySet acls;  // active, but of another family's kinds
        bool sharing = true;
    };
    const Case cases[] = {
        // Unshared, a routed port's router ACLs are the port's, and ports map no router ACL.
        {port(kEth3), {kR4}, false},
        {vlan10(), {kP6}},
        {subIntf(kSub1), {kMacOut}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.place.name);
        auto w = runningWorld();
        w->raclSharing(c.sharing);
        Flinq::Capture capture;
        w->bind(c.place.bound, c.acls);
        EXPECT_TRUE(capture.has("      empty hw acl index key, no pd mapping"));
        EXPECT_EQ(c.place.index(*w), std::nullopt);
        EXPECT_EQ(w->dataFlow->chipRuleListKeyToIds(), 0u);
        EXPECT_EQ(w->sm->keyToHwAclIndexs(), 0u);
    }
    // A mapped interface whose port ACLs go, leaving an unshared router ACL, gives its index
    // back.
    auto w = runningWorld();
    w->raclSharing(false);
    w->bind(kEth1, {kP4, kR4});
    ASSERT_EQ(w->intfIndex(kEth1), 1);
    w->bind(kEth1, {kR4});
    EXPECT_EQ(w->intfIndex(kEth1), std::nullopt);
    EXPECT_EQ(w->numbersInUse(hwAclIndexAllocPaclMacl_), (std::vector<uint32_t>{0}));
    EXPECT_EQ(w->secondLevel(1), Strings{});
}

TEST(MappingSm, ARoutedPortMovesBetweenThePoolsAsAPortAclComesAndGoes) {
    auto w = runningWorld();
    w->bind(kVlan10, {kR4});
    w->bind(kEth3, {kR4});
    EXPECT_EQ(w->routedPortIndex(kEth3), w->vlanIndex(10));
    // A port ACL ends the sharing: the port's key holds its port ACL only. The pools share one
    // number range: both hand out 1.
    Flinq::Capture capture;
    w->bind(kEth3, {kR4, kP4});
    EXPECT_TRUE(
        capture.has("        removing r4/ip/in/vlan1 Ethernet3 from routedPortSharedAclMapping, "
                    "deleting routedPortSharedAclMapping"));
    EXPECT_EQ(w->routedPortIndex(kEth3), std::nullopt);
    ASSERT_EQ(w->intfIndex(kEth3), 1);
    EXPECT_EQ(w->secondLevel(1), (Strings{"1/in/all=1", "2/in/all=6"}));
    // Releasing a number in one pool leaves the other pool's entries under it.
    w->bind(kVlan10, {});
    EXPECT_EQ(w->secondLevel(1), (Strings{"1/in/all=1"}));
    w->bind(kEth3, {kR4});
    EXPECT_EQ(w->intfIndex(kEth3), std::nullopt);
    EXPECT_EQ(w->routedPortIndex(kEth3), 1);
    EXPECT_EQ(w->secondLevel(1), (Strings{"2/in/all=6"}));
}

TEST(MappingSm, AVlanAclIsKeptWhileAnyMemberContributesIt) {
    auto w = runningWorld();
    w->bind(kVlan10, {kR4});
    ASSERT_EQ(w->vlanIndex(10), 1);
    Strings events;
    auto sub = w->dataFlow->vlanToHwAclIndexNotify(
        [&](const Bridging::VlanId& v) { events.push_back("vlan " + std::to_string(v.value())); });
    Flinq::Capture capture;
    w->vlanMember(10, kEth6, false);
    EXPECT_TRUE(capture.has("        not removing vlanId 10 r4/ip/in/vlan1 from vlanAclMapping"));
    // The last member reviewed for a port ACL of its own: its VLAN contribution stays as it is.
    w->bind(kEth7, {kP4});
    EXPECT_EQ(events, Strings{});
    EXPECT_EQ(w->vlanIndex(10), 1);
    w->vlanMember(10, kEth7, false);
    EXPECT_TRUE(capture.has("    vlan 10 removed, delete pd mapping"));
    EXPECT_EQ(w->vlanIndex(10), std::nullopt);
    EXPECT_EQ(w->numbersInUse(hwAclIndexAllocRacl_), (std::vector<uint32_t>{0}));
    // A member coming back brings the VLAN's ACL back.
    w->vlanMember(10, kEth6);
    EXPECT_EQ(w->vlanIndex(10), 1);
}

TEST(MappingSm, NothingIsMappedWithoutAnActiveRootHoldingAcls) {
    struct Case {
        const char* name;
        std::function<void(World&)> root;
        const char* trace;
    };
    const Case cases[] = {
        {"no active root", [](World&) {}, "    no active root"},
        {"active root without ACLs",
         [](World& w) {
             w.rootIs(0, {});
             w.activate(0);
         },
         "    no active acls"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto w = checkedWorld();
        c.root(*w);
        w->start();
        Flinq::Capture capture;
        w->bind(kEth1, {kP4});
        w->bind(kVlan10, {kR4});
        EXPECT_TRUE(capture.has(c.trace));
        EXPECT_EQ(w->sm->intfAclMappings(), 0u);
        EXPECT_EQ(w->intfIndex(kEth1), std::nullopt);
        EXPECT_EQ(w->vlanIndex(10), std::nullopt);
        // The first root with ACLs maps everything.
        w->rootIs(1, kAllAcls);
        w->activate(1);
        EXPECT_EQ(w->intfIndex(kEth1), 1);
        EXPECT_EQ(w->vlanIndex(10), 1);
    }
}

TEST(MappingSm, AclsOutsideTheActiveRootAreExcluded) {
    auto w = checkedWorld();
    w->rootIs(0, {kP4, kR4});
    w->activate(0);
    w->start();
    Flinq::Capture capture;
    w->bind(kEth1, {kP4, kP6});
    EXPECT_TRUE(capture.has("      excluding p6/ipv6/in"));
    const AclKeySet* internal = w->sm->intfAclMapping(kEth1);
    ASSERT_NE(internal, nullptr);
    EXPECT_EQ(*internal, AclKeySet{kP4});
    ASSERT_TRUE(w->intfIndex(kEth1));
    EXPECT_EQ(w->secondLevel(*w->intfIndex(kEth1)), (Strings{"1/in/all=1"}));
    // A VLAN with no ACL in the root is not looked at further.
    capture.clear();
    w->bind(kVlan10, {kR6});
    EXPECT_TRUE(capture.has("    no racls on vlan in active config, ignore"));
    EXPECT_FALSE(w->sm->vlanAclMapping(Bridging::VlanId(10)));
    // Once the active root holds it, it is in.
    w->rootIs(1, {kP4, kP6, kR4, kR6});
    w->activate(1);
    // Index 1 of both pools: the interface's port ACLs, the VLAN's router ACL.
    EXPECT_EQ(w->intfIndex(kEth1), 1);
    EXPECT_EQ(w->vlanIndex(10), 1);
    EXPECT_EQ(w->secondLevel(1), (Strings{"1/in/all=1", "3/in/all=2", "4/in/all=4"}));
}

TEST(MappingSm, ReviewsFollowTheActiveRootsAclsAsTheyStand) {
    auto w = checkedWorld();
    w->rootIs(0, {kP4});
    w->activate(0);
    w->start();
    w->bind(kEth1, {kP4});
    // The active root gains an ACL (no place has it yet): the next review sees it.
    auto root = w->glue->rootConfigColl()->rootConfig(w->rootId(0));
    ASSERT_TRUE(root);
    root->aclKeyToAclIdTypeSetIs(kP6)->aclIdTypeIs(
        Mirel::protocolAll_, Mirel::AclId(Mirel::ipv6PortAcl_, 9, Acl::aclDirectionIn));
    w->bind(kEth2, {kP6});
    ASSERT_TRUE(w->intfIndex(kEth2));
    EXPECT_EQ(w->secondLevel(*w->intfIndex(kEth2)), (Strings{"3/in/all=9"}));
    // The active root's configuration replaced under the same id (its places gone first): the
    // new one counts.
    w->bind(kEth1, {});
    w->bind(kEth2, {});
    w->glue->rootConfigColl()->rootConfigDel(w->rootId(0));
    w->rootIs(0, {kP4, kP6}, {}, 20);
    w->bind(kEth3, {kP6});
    ASSERT_TRUE(w->intfIndex(kEth3));
    EXPECT_EQ(w->secondLevel(*w->intfIndex(kEth3)), (Strings{"3/in/all=21"}));
}

TEST(MappingSm, ANewActiveRootRenumbersFromScratchAndPulsesTheControl) {
    // Bound on both worlds alike.
    auto bindAll = [](World& w) {
        w.bind(kEth3, {kP4});
        w.bind(kEth2, {kP6});
        w.bind(kEth1, {kMac});
        w.bind(kEth3, {});
        w.bind(kEth3, {kP4Out});
        w.bind("Vlan10", {kR4});
        w.bind(kLagSub, {kR6});
        w.bind(kEth4, {kR4});
    };
    auto w = runningWorld();
    // A history that leaves the numbers out of key order.
    bindAll(*w);
    EXPECT_EQ(w->intfIndex(kEth1), 3);
    EXPECT_EQ(w->intfIndex(kEth3), 1);
    const auto oldAllocator = w->sm->hwAclIndexAllocator(hwAclIndexAllocPaclMacl_);

    Strings events;
    auto s1 = w->dataFlow->globalAclControlNotify(
        [&] { events.push_back("control " + std::to_string(w->dataFlow->globalAclControl())); });
    auto s2 = w->dataFlow->intfToHwAclIndexNotify([&](const IntfId&) { events.push_back("intf"); });
    w->rootIs(1, kAllAcls, {}, 50);
    Flinq::Capture capture;
    w->activate(1);
    EXPECT_TRUE(capture.has("  new active root, re-compute"));
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ((Strings{events.end() - 2, events.end()}), (Strings{"control 1", "control 0"}));
    EXPECT_EQ(w->dataFlow->globalAclControl(), uint32_t(Mirel::globalAclControlStable_));
    EXPECT_NE(w->sm->hwAclIndexAllocator(hwAclIndexAllocPaclMacl_), oldAllocator);
    // Numbers follow the places' order now; the ids are the new root's.
    EXPECT_EQ(w->intfIndex(kEth1), 1);
    EXPECT_EQ(w->intfIndex(kEth2), 2);
    EXPECT_EQ(w->intfIndex(kEth3), 3);
    EXPECT_EQ(w->secondLevel(1), (Strings{"2/in/all=55", "5/in/all=53"}));
    EXPECT_EQ(w->routedPortIndex(kEth4), 1);
    EXPECT_EQ(w->vlanIndex(10), 1);
    EXPECT_EQ(w->subIntfIndex(kLagSub), 2);

    // The same bindings given to a fresh machine, started on that root, give the same tables.
    auto fresh = checkedWorld();
    fresh->rootIs(1, kAllAcls, {}, 50);
    bindAll(*fresh);
    fresh->activate(1);
    fresh->start();
    EXPECT_TRUE(w->dataFlow->mappingsEqual(*fresh->dataFlow));
}

// A new root with the ACLs of the old one keeps the mapping and writes only what differs: the
// tables must still be those of a rebuild from scratch, stale entries included.
TEST(MappingSm, ANewActiveRootWithTheSameAclsWritesOnlyWhatARebuildWouldChange) {
    auto bindAll = [](World& w) {
        w.bind(kEth3, {kP4});
        w.bind(kEth2, {kP6, kMac});
        w.bind(kEth1, {kMac});
        w.bind(kEth3, {kP4Out});
        w.bind(kVlan10, {kR4});
        w.bind(kLagSub, {kR6});
        w.bind(kEth4, {kR4});
        w.bind(kVlan10, {kR4b});
    };
    auto w = runningWorld();
    bindAll(*w);
    ASSERT_EQ(w->intfIndex(kEth3), 1);  // a history that leaves the numbers out of order
    size_t firstLevelWrites = 0;
    auto sub = w->dataFlow->intfToHwAclIndexNotify([&](const IntfId&) { ++firstLevelWrites; });
    struct Case {
        const char* name;
        uint32_t slot;
        AclKeySet split;
        uint32_t firstId;
        size_t firstLevelWrites;  // each place renumbered once, nothing else
    };
    const Case cases[] = {
        {"renumbered, other ids, split lists", 1, {kP6, kR4b}, 60, 2},
        {"numbers in place, the split undone", 0, {}, 1, 0},
        {"the same ids again", 1, {}, 1, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        firstLevelWrites = 0;
        w->rootIs(c.slot, kAllAcls, c.split, c.firstId);
        w->activate(c.slot);
        EXPECT_EQ(firstLevelWrites, c.firstLevelWrites);
        auto fresh = checkedWorld();
        fresh->rootIs(c.slot, kAllAcls, c.split, c.firstId);
        bindAll(*fresh);
        fresh->activate(c.slot);
        fresh->start();
        EXPECT_TRUE(w->dataFlow->mappingsEqual(*fresh->dataFlow));
        for (const auto pool : {hwAclIndexAllocPaclMacl_, hwAclIndexAllocRacl_})
            EXPECT_EQ(w->numbersInUse(pool), fresh->numbersInUse(pool));
    }
}

TEST(MappingSm, ANewActiveRootMapsTheAclsItSharesWithTheOldOneWithItsOwnIds) {
    auto w = runningWorld();
    w->bind(kEth1, {kP4, kMac});
    w->bind(kVlan10, {kR4});
    w->rootIs(1, {kP4, kP6, kMac, kR4}, {}, 50);
    // The old root changed before the switch: nothing of it may count any more.
    auto old = w->glue->rootConfigColl()->rootConfig(w->rootId(0));
    ASSERT_TRUE(old);
    old->aclKeyToAclIdTypeSetDel(kMac);
    old->aclKeyToAclIdTypeSetDel(kP6);
    w->activate(1);
    ASSERT_EQ(w->intfIndex(kEth1), 1);
    EXPECT_EQ(w->secondLevel(1), (Strings{"1/in/all=50", "2/in/all=53", "5/in/all=52"}));
    w->bind(kEth2, {kP6});
    ASSERT_EQ(w->intfIndex(kEth2), 2);
    EXPECT_EQ(w->secondLevel(2), (Strings{"3/in/all=51"}));
}

TEST(MappingSm, AnEntryDeletedWithItsAclsStillInItIsRemoved) {
    // The policy machine empties an entry before it deletes it; the mapping does not rely on it.
    auto w = runningWorld(100, 0, PolicySource::direct);
    w->subIntf(kSub1, {kR4, kR6});
    EXPECT_EQ(w->subIntfIndex(kSub1), 1);
    Flinq::Capture capture;
    w->policyStatus->subIntfAclMappingDel(kSub1);
    w->step(false);
    EXPECT_TRUE(capture.has("    subintf Ethernet5.1 removed, delete pd mapping"));
    EXPECT_TRUE(
        capture.has("      delete 1st-level mapping for subintf Ethernet5.1, hw acl index 1"));
    EXPECT_EQ(w->subIntfIndex(kSub1), std::nullopt);
    EXPECT_EQ(w->numbersInUse(hwAclIndexAllocRacl_), (std::vector<uint32_t>{0}));
}

TEST(MappingSm, TracesNameWhatIsDone) {
    auto w = checkedWorld(100, 7);
    w->rootIs(0, kAllAcls);
    w->activate(0);
    Flinq::Capture capture;
    w->start();
    w->bind(kEth1, {kP4});
    w->bind(kEth2, {kP4});
    w->bind(kEth3, {kR4});
    w->bind(kEth3, {});
    const Strings expected = {
        "    instantiated allocator hwAclIndexAllocPaclMacl: max: 100 reservedNumber: 7",
        "    instantiated allocator hwAclIndexAllocRacl: max: 100 reservedNumber: 7",
        "      add 1st-level mapping for intf Ethernet1, hw acl index 0",
        "      add 2nd-level intf mapping for chip-rulelist-id key ChipRuleListIdKey{hwAclIndex=0, "
        "tableType=1, direction=in, protocolType=all}, id AclId{tableType=1, chipRuleListId=1, "
        "direction=in}",
        "      reusing hw acl index 0",
        "      delete 1st-level mapping for shared routed port Ethernet3, hw acl index 0",
    };
    for (const std::string& line : expected)
        EXPECT_TRUE(capture.has(line)) << line;
    EXPECT_TRUE(capture.hasSubstring("( HwAclIndexKey =  v4PAclIn=p4/ip/in, v6PAclIn=/ip/in,"));
    EXPECT_TRUE(capture.hasSubstring("      no other shared routed ports associated with Value("));
    EXPECT_TRUE(capture.hasSubstring("      associating intf Ethernet2 with Value("));
}

TEST(MappingSm, MachinesPerChip) {
    World w;
    auto coll = w.machines;
    auto sm = coll->smIs(w.chip, w.glue, w.policyStatus, w.capability, w.dataFlow);
    EXPECT_EQ(coll->smIs(w.chip, w.glue, w.policyStatus, w.capability, w.dataFlow), sm);
    EXPECT_THROW(coll->smIs(w.chip, w.glue, w.policyStatus, w.capability,
                            Mirel::chipDataFlowConfigFactory(w.chip)),
                 Vorn::ReinstantiationException);
    w.rootIs(0, kAllAcls);
    w.activate(0);
    sm->handleInitialized();
    w.bind(kEth1, {kP4});
    EXPECT_EQ(w.intfIndex(kEth1), 1);
    // Dropped: it reacts no more, and the data-flow configuration stays as it was.
    coll->smDel(w.chip);
    EXPECT_FALSE(sm->initialized());
    w.bind(kEth2, {kP6});
    w.rootIs(1, kAllAcls);
    w.activate(1);
    EXPECT_EQ(w.intfIndex(kEth1), 1);
    EXPECT_EQ(w.intfIndex(kEth2), std::nullopt);
}

using MappingSmDeathTest = testing::Test;

TEST(MappingSmDeathTest, InconsistenciesStopTheProcess) {
    struct Case {
        const char* name;
        std::function<void()> run;
        const char* message;
    };
    const Case cases[] = {
        {"key without an index",
         [] {
             auto w = runningWorld();
             w->bind(kEth1, {kP4});
             w->afterStep = nullptr;
             w->sm->keyToHwAclIndexDelAll();
             w->bind(kEth1, {});
         },
         "keyToHwAclIndexHas\\( hwAclIndexKey \\)"},
        {"index range too wide", [] { runningWorld(65536); }, "65535 >= hwAclIndexMax"},
        // The policy machine files only sub-interfaces there.
        {"sub-interface that is none",
         [] {
             auto w = runningWorld(100, 0, PolicySource::direct);
             w->subIntf(kEth1, {kR4});
         },
         "Zamu::SubIntfId::isSubIntfId\\( subIntfId \\)"},
        {"root id with a table type of none",
         [] {
             auto w = runningWorld();
             w->glue->rootConfigColl()
                 ->rootConfig(w->rootId(0))
                 ->aclKeyToAclIdTypeSetIs(pacl("bare"));
             w->bind(kEth1, {pacl("bare")});
         },
         "!\"Invalid tableType\""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_DEATH(c.run(), c.message);
    }
}

// A place holding more ACLs than a review keeps at hand: its gate and its internal mapping see
// every one of them, on a change and on a rebuild alike. The ACLs outside the root sort before
// the one it holds, so the held one is the last a review looks at. DirectPolicy: the policy
// machine never gives a place more than one ACL of a kind and direction.
TEST(MappingSm, AReviewSeesEveryAclOfAPlaceHoldingMany) {
    auto w = runningWorld(100, 0, PolicySource::direct);
    AclKeySet portAcls{kP4Out}, vlanAcls{kR4}, subIntfAcls{kR4b};
    std::vector<Ovin::AclKey> outside;
    for (int i = 0; i < 6; ++i) {
        const std::string n = "a" + std::to_string(i);
        outside.push_back(pacl(n, Acl::aclDirectionOut));
        portAcls.insert(outside.back());
        outside.push_back(racl(n));
        vlanAcls.insert(outside.back());
        subIntfAcls.insert(outside.back());
    }
    w->intf(kEth1, portAcls);
    w->vlan(10, vlanAcls);
    w->subIntf(kSub1, subIntfAcls);
    auto expectMapped = [&] {
        const AclKeySet* intf = w->sm->intfAclMapping(kEth1);
        ASSERT_NE(intf, nullptr);
        EXPECT_EQ(*intf, AclKeySet{kP4Out});
        const AclKeySet* vlan = w->sm->vlanAclMapping(Bridging::VlanId(10));
        ASSERT_NE(vlan, nullptr);
        EXPECT_EQ(*vlan, AclKeySet{kR4});
        const AclKeySet* sub = w->sm->subIntfAclMapping(kSub1);
        ASSERT_NE(sub, nullptr);
        EXPECT_EQ(*sub, AclKeySet{kR4b});
        EXPECT_TRUE(w->intfIndex(kEth1));
        EXPECT_TRUE(w->vlanIndex(10));
        EXPECT_TRUE(w->subIntfIndex(kSub1));
        EXPECT_EQ(w->sm->getVlanHwAclIndexKey(Bridging::VlanId(10)).v4RAclIn(), kR4);
    };
    {
        SCOPED_TRACE("written one ACL at a time");
        expectMapped();
    }
    Flinq::Capture capture;
    w->rootIs(1, kAllAcls);
    w->activate(1);
    SCOPED_TRACE("rebuilt on a new active root");
    expectMapped();
    for (const Ovin::AclKey& acl : outside)
        EXPECT_TRUE(capture.has("      excluding " + acl.str())) << acl.str();
}

}  // namespace
}  // namespace OvinMirel
