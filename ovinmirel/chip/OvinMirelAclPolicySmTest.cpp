// The ACL policy machine, through the real index machines, a real policy status and a timer
// wheel on a virtual clock: what ends up in effect where, the error interfaces and their log
// messages, the review run, and the refusals.

#include "ovinmirel/chip/OvinMirelAclPolicySm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "ovinmirel/chip/OvinMirelChipTestWorld.h"
#include "ovinmirel/index/OvinMirelAclPhyIntfIndexSm.h"
#include "platform/flinq/Flinq.h"
#include "platform/logging/Logging.h"

namespace OvinMirel {
namespace {

using ChipTest::aclKey;
using ChipTest::Facts;
using Mask = Mirel::AclTypeCombinationBitMask;

const Ovin::AclKey kP4 = aclKey("p4");
const Ovin::AclKey kP4Out = aclKey("p4out", Acl::aclTypeIpv4, std::nullopt, Acl::aclDirectionOut);
const Ovin::AclKey kP4b = aclKey("p4b");
const Ovin::AclKey kP4c = aclKey("p4c");
const Ovin::AclKey kP6 = aclKey("p6", Acl::aclTypeIpv6);
const Ovin::AclKey kMac = aclKey("m", Acl::aclTypeMac);
const Ovin::AclKey kR4 = aclKey("r4", Acl::aclTypeIpv4, 100);
const Ovin::AclKey kR6 = aclKey("r6", Acl::aclTypeIpv6, 100);
const Ovin::AclKey kVlanR4 = aclKey("v4", Acl::aclTypeIpv4, 10);
const Ovin::AclKey kSubR4 = aclKey("s4", Acl::aclTypeIpv4, 7);
// An ACL type the hardware has no table for: it has no mask bit.
const Ovin::AclKey kOdd = aclKey("x", Acl::AclType(3));

std::string line(const std::string& collection, const std::string& place, const Ovin::AclKey& k) {
    return collection + "[" + place + "].aclKey[" + k.str() + "]";
}

std::vector<std::string> reviewed(const Flinq::Capture& cap) {
    std::vector<std::string> out;
    for (const std::string& t : cap.texts("OvinMirelAclPolicySm"))
        if (t.rfind("  processIntf ", 0) == 0)
            out.push_back(t.substr(14));
    return out;
}

// A chip with everything allowed, its machine started over a running index.
struct Chip1 : ChipTest::World {
    explicit Chip1(std::initializer_list<uint32_t> ranked = {Mask::kMax}) {
        chip(1, ranked);
        for (const char* intf : {"Ethernet1", "Ethernet2", "Ethernet3"})
            onChip(intf, 1);
        startIndex();
        sm = startPolicy(1);
        settle();
    }
    Vorn::Ptr<AclPolicySm> sm;
};

TEST(AclPolicySm, BestMatchKeepsThePlatformTieBreaks) {
    Chip1 w;
    struct Case {
        const char* name;
        std::initializer_list<uint32_t> ranked;
        uint32_t requested;
        uint32_t expected;
    };
    const Case cases[] = {
        {"a later full match beats an earlier partial one", {0x001, 0x003}, 0x003, 0x003},
        {"the first partial match wins, not a later larger one", {0x101, 0x012}, 0x013, 0x001},
        {"combinations that share no bit are passed over", {0x200, 0x004, 0x00a}, 0x00e, 0x004},
        {"no common bit gives 0", {0x001, 0x010}, 0x100, 0x000},
        {"an empty request is held by anything", {0x001}, 0x000, 0x000},
        {"all ten bits", {0x0ff, 0x3ff}, 0x3ff, 0x3ff},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        w.chip(1, c.ranked);
        EXPECT_EQ(w.sm->getBestAclTypeCombinationMatch(Mask(c.requested)), Mask(c.expected));
    }
    // The walk follows the priority key, not the order the platform wrote the entries in.
    auto cap = w.chip(1, {});
    cap->aclTypeCombinationByPriorityIs(Mirel::AclTypePriority{2}, Mask(0x001));
    cap->aclTypeCombinationByPriorityIs(Mirel::AclTypePriority{1}, Mask(0x002));
    EXPECT_EQ(w.sm->getBestAclTypeCombinationMatch(Mask(0x003)), Mask(0x002));

    try {
        w.sm->getBestAclTypeCombinationMatch(Mask(Mask::kMax + 1));
        ADD_FAILURE() << "no error";
    } catch (const Vorn::RangeException& e) {
        EXPECT_STREQ(e.what(), "AclTypeCombinationBitMask::value > 0x3ff not allowed");
    }
}

TEST(AclPolicySm, EachAclKindHasItsBitAndTraceWord) {
    Chip1 w;
    const Acl::AclDirection out = Acl::aclDirectionOut;
    struct Case {
        const char* name;
        Ovin::AclKey key;
        uint32_t mask;
    };
    const Case cases[] = {
        {"IPv4 port in", kP4, 0x001},
        {"IPv4 port out", aclKey("a", Acl::aclTypeIpv4, std::nullopt, out), 0x010},
        {"IPv4 router in", kR4, 0x002},
        {"IPv4 router out", aclKey("a", Acl::aclTypeIpv4, 100, out), 0x020},
        {"IPv6 port in", kP6, 0x004},
        {"IPv6 port out", aclKey("a", Acl::aclTypeIpv6, std::nullopt, out), 0x040},
        {"IPv6 router in", kR6, 0x008},
        {"IPv6 router out", aclKey("a", Acl::aclTypeIpv6, 100, out), 0x080},
        {"MAC in", kMac, 0x100},
        {"MAC out, a VLAN id changes nothing", aclKey("a", Acl::aclTypeMac, 100, out), 0x200},
        {"no table for the type", kOdd, 0x000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(w.sm->getAclTypeMask(c.key), Mask(c.mask));
    }
    // The interface's combination comes from the index's table types, with its words.
    w.bind(kP4, "Ethernet1");
    w.bind(aclKey("p4out", Acl::aclTypeIpv4, std::nullopt, out), "Ethernet1");
    w.bind(kR6, "Ethernet1");
    w.bind(aclKey("mout", Acl::aclTypeMac, std::nullopt, out), "Ethernet1");
    Flinq::Capture cap;
    EXPECT_EQ(w.sm->getIntfAclTypeCombination("Ethernet1"), Mask(0x219));
    EXPECT_TRUE(
        cap.has("    Ethernet1 aclTypeCombination 0x219 v4pacl-in-out v6racl-in macacl-out"))
        << testing::PrintToString(cap.texts());
    EXPECT_EQ(w.sm->getIntfAclTypeCombination("Ethernet2"), Mask());
}

TEST(AclPolicySm, ContentionLeavesAclsOutAndLogsOncePerTransition) {
    // IPv4 and IPv6 port ACLs together first, MAC alone second.
    Chip1 w({0x005, 0x100});
    Logging::Capture log;
    w.bind(kP4, "Ethernet1");
    w.bind(kP6, "Ethernet1");
    w.bind(kMac, "Ethernet1");
    w.settle();
    EXPECT_EQ(w.status(1), (Facts{line("intfAclMapping", "Ethernet1", kP4),
                                  line("intfAclMapping", "Ethernet1", kP6)}));
    EXPECT_TRUE(w.sm->errIntf("Ethernet1"));
    const Logging::Record notActive{"ACL_NOT_ACTIVE_ON_INTERFACE",
                                    "One or more ACLs not in effect on interface Ethernet1 "};
    EXPECT_EQ(log.records(), std::vector<Logging::Record>{notActive});

    // Reviews in the same state log nothing more.
    w.sm->scheduleIntfAclPolicyReview();
    w.settle();
    w.bind(kP4, "Ethernet2");
    w.settle();
    EXPECT_EQ(log.records(), std::vector<Logging::Record>{notActive});

    // Recovery is logged once.
    w.bind(kMac, "Ethernet1", false);
    w.settle();
    w.sm->scheduleIntfAclPolicyReview();
    w.settle();
    const Logging::Record active{"ACL_ACTIVE_ON_INTERFACE",
                                 "All ACLs applied on Ethernet1 are now in effect"};
    EXPECT_EQ(log.records(), (std::vector<Logging::Record>{notActive, active}));
    EXPECT_EQ(w.sm->errIntfs(), 0u);
    EXPECT_EQ(w.status(1), (Facts{line("intfAclMapping", "Ethernet1", kP4),
                                  line("intfAclMapping", "Ethernet1", kP6),
                                  line("intfAclMapping", "Ethernet2", kP4)}));
}

TEST(AclPolicySm, AnAclThatIsNotReadyHoldsBackTheWholeInterface) {
    Chip1 w;
    w.bind(kP4, "Ethernet1");
    w.settle();
    ASSERT_EQ(w.status(1), Facts{line("intfAclMapping", "Ethernet1", kP4)});
    // The table-type index refuses such a key outright; the rest of the index takes it.
    w.indexSm->intfAclTypeIndexSmDel();
    w.bind(kOdd, "Ethernet1");
    w.settle();
    EXPECT_EQ(w.status(1), Facts{});
    // The same review traced.
    Flinq::Capture cap;
    w.sm->scheduleIntfAclPolicyReview("Ethernet1");
    w.settle();
    EXPECT_EQ(w.status(1), Facts{});
    EXPECT_TRUE(cap.has("    acl " + kOdd.str()));
    EXPECT_TRUE(cap.has("    intf is not ready"));
    w.bind(kOdd, "Ethernet1", false);
    w.settle();
    EXPECT_EQ(w.status(1), Facts{line("intfAclMapping", "Ethernet1", kP4)});
}

TEST(AclPolicySm, RemovingTheLastAclOfAnInterfaceDeletesItsEntry) {
    Chip1 w;
    w.bind(kP4, "Ethernet1");
    w.bind(kP6, "Ethernet1");
    w.settle();
    w.bind(kP4, "Ethernet1", false);
    w.settle();
    Flinq::Capture cap;
    w.bind(kP6, "Ethernet1", false);
    w.settle();
    EXPECT_EQ(w.status(1), Facts{});
    EXPECT_TRUE(
        cap.has("        removing p6/ipv6/in Ethernet1 from intfAclMapping, deleting "
                "intfAclMapping"));
    EXPECT_TRUE(cap.has("    no intfAclMapping"));
    EXPECT_EQ(w.sm->intfAclStatuss(), 0u);
}

TEST(AclPolicySm, AnAclEntryThatVanishesWholeHasItsInterfacesReviewed) {
    Chip1 w;
    w.bind(kP4, "Ethernet1");
    w.bind(kP4, "Ethernet2");
    w.settle();
    ASSERT_EQ(w.status(1).size(), 2u);
    // What a rebuild of the attachment index does first, here with its machines stopped: the
    // ACL's entry goes with its interfaces still in it.
    w.indexSm = nullptr;
    w.index->intfAclMappingDelAll();
    w.index->aclPhyIntfMappingDelAll();
    EXPECT_EQ(w.settle(), 1u);
    EXPECT_EQ(w.status(1), Facts{});
}

TEST(AclPolicySm, AnInterfaceKeepsItsParentsFollowedThroughARebuiltAttachmentIndex) {
    // The attachment machine started over gives the ACL new mappings while this chip's entry
    // still lists the port: a parent the port gains afterwards, which changes no chip entry,
    // is still seen.
    Chip1 w;
    w.subIntf("Ethernet1.7");
    w.bind(kSubR4, "Ethernet1");
    w.settle();
    aclPhyIntfIndexSmFactory(w.acls, w.pd, w.vlans, w.index)->handleInitialized();
    w.settle();
    ASSERT_EQ(w.status(1), Facts{line("intfAclMapping", "Ethernet1", kSubR4)});
    w.bind(kSubR4, "Ethernet1.7");
    w.settle();
    EXPECT_EQ(w.status(1), (Facts{line("intfAclMapping", "Ethernet1", kSubR4),
                                  line("subIntfAclMapping", "Ethernet1.7", kSubR4)}));
}

TEST(AclPolicySm, AnInterfaceThatLeavesTheChipIsNoLongerFollowedThere) {
    // Ethernet1 moves to chip 2 while the ACL stays on chip 1 through Ethernet2: a parent that
    // Ethernet1 gains afterwards, which changes no chip entry, concerns chip 2 alone.
    ChipTest::World w;
    w.chip(1, {Mask::kMax});
    w.chip(2, {Mask::kMax});
    w.onChip("Ethernet1", 1);
    w.onChip("Ethernet2", 1);
    w.subIntf("Ethernet1.7");
    w.startIndex();
    auto sm1 = w.startPolicy(1);
    auto sm2 = w.startPolicy(2);
    w.bind(kSubR4, "Ethernet1");
    w.bind(kSubR4, "Ethernet2");
    w.onChip("Ethernet1", 2);
    w.settle();
    ASSERT_EQ(w.status(1), Facts{line("intfAclMapping", "Ethernet2", kSubR4)});
    w.bind(kSubR4, "Ethernet1.7");
    EXPECT_EQ(sm1->intfPolicyQueues(), 0u) << "chip 1 still follows Ethernet1";
    EXPECT_EQ(sm2->intfPolicyQueues(), 1u);
    w.settle();
    EXPECT_EQ(w.status(2), (Facts{line("intfAclMapping", "Ethernet1", kSubR4),
                                  line("subIntfAclMapping", "Ethernet1.7", kSubR4)}));
}

TEST(AclPolicySm, RoutedPortSharingNeedsRouterAclsOnlyAndTheirCombination) {
    struct Case {
        const char* name;
        bool supported;
        std::initializer_list<uint32_t> ranked;
        std::vector<Ovin::AclKey> acls;
        bool shared;
    };
    const Case cases[] = {
        {"router ACLs only", true, {0x3ff}, {kR4, kR6}, true},
        {"with a MAC ACL", true, {0x3ff}, {kR4, kMac}, false},
        {"with a port ACL", true, {0x3ff}, {kR4, kP4}, false},
        {"port and router bits not held together", true, {0x002, 0x001}, {kR4}, false},
        {"sharing not supported", false, {0x3ff}, {kR4}, false},
    };
    // The trace of each case, in the same order.
    const std::string sharing = "        routed port RACL sharing ";
    const std::string traces[] = {
        "      processing r6/ipv6/in/vlan100",
        "        mac acls cannot co-exist with racls",
        sharing + "enabled and PACL p4/ip/in on intf",
        sharing + "enabled but PaclRacl combination not supported on intf after adding " +
            "r4/ip/in/vlan100",
        sharing + "disabled but RACL on intf r4/ip/in/vlan100",
    };
    ASSERT_EQ(std::size(cases), std::size(traces));
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(c.name);
        Chip1 w(c.ranked);
        w.hw->routedPortRaclSharingSupportedIs(c.supported);
        Flinq::Capture cap;
        for (const Ovin::AclKey& k : c.acls)
            w.bind(k, "Ethernet1");
        w.settle();
        Facts expected;
        for (const Ovin::AclKey& k : c.acls)
            expected.push_back(
                line(c.shared ? "routedPortSharedAclMapping" : "intfAclMapping", "Ethernet1", k));
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(w.status(1), expected);
        EXPECT_TRUE(cap.has(traces[i]))
            << testing::PrintToString(cap.texts("OvinMirelAclPolicySm"));
    }
}

TEST(AclPolicySm, SubInterfaceAclsFollowTheirCarriers) {
    Chip1 w;
    w.subIntf("Ethernet1.7");
    w.bind(kSubR4, "Ethernet1.7");
    w.lagMember("Port-Channel1", "Ethernet2");
    w.lagMember("Port-Channel1", "Ethernet3");
    w.subIntf("Port-Channel1.5");
    w.bind(kSubR4, "Port-Channel1.5");
    w.settle();
    Flinq::Capture cap;
    w.lagMember("Port-Channel1", "Ethernet2", false);
    w.settle();
    EXPECT_TRUE(
        cap.has("        not removing Port-Channel1.5 s4/ip/in/vlan7 from subIntfAclMapping"));
    w.lagMember("Port-Channel1", "Ethernet3", false);
    w.settle();
    EXPECT_EQ(w.status(1), Facts{line("subIntfAclMapping", "Ethernet1.7", kSubR4)});
    EXPECT_TRUE(cap.has("        no more acls on Port-Channel1.5, deleting subIntfAclMapping"));
    EXPECT_EQ(w.sm->subIntfAclPhyIntfStatuss(), 1u);
}

TEST(AclPolicySm, AnAclThatLosesOneOfTwoParentsKeepsTheOther) {
    // The same key bound on a port and on its sub-interface reaches the port twice: losing
    // the port's own binding keeps the sub-interface's, and getting it back restores it.
    Chip1 w;
    w.subIntf("Ethernet1.7");
    w.bind(kSubR4, "Ethernet1.7");
    w.bind(kSubR4, "Ethernet1");
    w.settle();
    const Facts both{line("intfAclMapping", "Ethernet1", kSubR4),
                     line("subIntfAclMapping", "Ethernet1.7", kSubR4)};
    ASSERT_EQ(w.status(1), both);
    w.bind(kSubR4, "Ethernet1", false);
    w.settle();
    EXPECT_EQ(w.status(1), Facts{line("subIntfAclMapping", "Ethernet1.7", kSubR4)});
    w.bind(kSubR4, "Ethernet1");
    w.settle();
    EXPECT_EQ(w.status(1), both);
}

TEST(AclPolicySm, ABurstOfChangesIsReviewedOnceInInterfaceOrder) {
    Chip1 w;
    Flinq::Capture cap;
    w.onChip("Ethernet4", 1);
    w.bind(kP4, "Ethernet3");
    w.bind(kP4, "Ethernet1");
    w.bind(kP6, "Ethernet3");
    w.bind(kP6, "Ethernet4");
    w.vlanMember(10, "Ethernet2");
    w.bind(kVlanR4, "Vlan10");
    EXPECT_TRUE(w.sm->intfPolicyTimer().armed());
    EXPECT_EQ(w.settle(), 1u);
    EXPECT_EQ(w.sm->intfPolicyQueues(), 0u);
    EXPECT_EQ(reviewed(cap),
              (std::vector<std::string>{"Ethernet1", "Ethernet2", "Ethernet3", "Ethernet4"}));
    EXPECT_EQ(w.status(1).size(), 6u);
}

TEST(AclPolicySm, TheChipLeavingTheIndexWithdrawsEverythingAndComingBackRestoresIt) {
    // IPv4 port and router ACLs, no MAC.
    Chip1 w({0x007});
    w.vlanMember(10, "Ethernet2");
    w.subIntf("Ethernet3.7");
    w.bind(kP4, "Ethernet1");
    w.bind(kMac, "Ethernet1");
    w.bind(kVlanR4, "Vlan10");
    w.bind(kSubR4, "Ethernet3.7");
    w.settle();
    const Facts before = w.status(1);
    ASSERT_EQ(before.size(), 4u);
    ASSERT_TRUE(w.sm->errIntf("Ethernet1"));
    Flinq::Capture cap;
    for (const char* intf : {"Ethernet1", "Ethernet2", "Ethernet3"})
        w.offChip(intf);
    w.settle();
    EXPECT_TRUE(cap.has("  chipIntfMapping is removed"));
    EXPECT_TRUE(cap.has("    no chipIntfMapping"));
    EXPECT_EQ(w.status(1), Facts{});
    EXPECT_EQ(w.sm->intfAclStatuss() + w.sm->vlanAclPhyIntfStatuss() +
                  w.sm->subIntfAclPhyIntfStatuss() + w.sm->errIntfs(),
              0u);
    cap.clear();
    for (const char* intf : {"Ethernet1", "Ethernet2", "Ethernet3"})
        w.onChip(intf, 1);
    w.settle();
    EXPECT_TRUE(cap.has("  chipIntfMapping is set"));
    EXPECT_EQ(w.status(1), before);
    EXPECT_TRUE(w.sm->errIntf("Ethernet1"));
}

TEST(AclPolicySm, AReviewWritesEachPlaceOnceWithWhatItEndsUpHolding) {
    // The mapping machine reprocesses a place on every write to it: an interface that leaves
    // the chip deletes each of its places whole, and one that joins publishes each filled.
    Chip1 w;
    w.vlanMember(10, "Ethernet1");
    w.subIntf("Ethernet1.7");
    const Ovin::AclKey kVlanR6 = aclKey("v6", Acl::aclTypeIpv6, 10);
    const Ovin::AclKey kSubR6 = aclKey("s6", Acl::aclTypeIpv6, 7);
    for (const Ovin::AclKey& key : {kP4, kP6, kMac})
        w.bind(key, "Ethernet1");
    w.bind(kVlanR4, "Vlan10");
    w.bind(kVlanR6, "Vlan10");
    w.bind(kSubR4, "Ethernet1.7");
    w.bind(kSubR6, "Ethernet1.7");
    w.settle();
    const Facts before = w.status(1);
    ASSERT_EQ(before.size(), 8u);  // with the VLAN's member port

    // Per write the watchers see: "<mapping>[<place>] <keys it holds>", or "... key" for a
    // write to the ACL set of a place that was there already.
    std::vector<std::string> writes;
    std::vector<Vorn::Subscription> subs;
    const AclPolicyStatus& status = *w.statuses->status(Mirel::ChipId(1));
    auto watch = [&](const std::string& name, const auto& field) {
        subs.push_back(field.notify([&writes, &field, name](const auto& place) {
            std::ostringstream os;
            const auto entry = field.find(place);
            os << name << "[" << place << "] " << (entry ? entry->aclKeys() : 0);
            writes.push_back(os.str());
        }));
        for (const auto& [place, entry] : field) {
            subs.push_back(entry->aclKeyNotify([&writes, name, p = place](const Ovin::AclKey&) {
                std::ostringstream os;
                os << name << "[" << p << "] key";
                writes.push_back(os.str());
            }));
        }
    };
    auto watchAll = [&] {
        subs.clear();
        writes.clear();
        watch("intfAclMapping", status.intfAclMapping());
        watch("vlanAclMapping", status.vlanAclMapping());
        watch("subIntfAclMapping", status.subIntfAclMapping());
    };
    watchAll();
    w.offChip("Ethernet1");
    w.settle();
    EXPECT_EQ(w.status(1), Facts{});
    EXPECT_EQ(writes,
              (std::vector<std::string>{"intfAclMapping[Ethernet1] 0", "vlanAclMapping[10] 0",
                                        "subIntfAclMapping[Ethernet1.7] 0"}));
    watchAll();
    w.onChip("Ethernet1", 1);
    w.settle();
    EXPECT_EQ(w.status(1), before);
    EXPECT_EQ(writes,
              (std::vector<std::string>{"intfAclMapping[Ethernet1] 3", "vlanAclMapping[10] 2",
                                        "subIntfAclMapping[Ethernet1.7] 2"}));
}

TEST(AclPolicySm, AnInterfaceOfAnotherChipIsNoErrorHere) {
    ChipTest::World w;
    w.chip(1, {0x001});
    w.chip(2, {0x001});
    w.onChip("Ethernet1", 1);
    w.onChip("Ethernet5", 2);
    w.startIndex();
    auto sm1 = w.startPolicy(1);
    auto sm2 = w.startPolicy(2);
    // A chip with no interface yet.
    w.chip(3, {0x001});
    auto sm3 = w.startPolicy(3);
    Logging::Capture log;
    w.bind(kMac, "Ethernet5");
    w.bind(kP4, "Ethernet5");
    w.settle();
    EXPECT_EQ(log.texts("ACL_NOT_ACTIVE_ON_INTERFACE"),
              std::vector<std::string>{"One or more ACLs not in effect on interface Ethernet5 "});
    EXPECT_EQ(sm1->errIntfs(), 0u);
    EXPECT_EQ(sm3->errIntfs(), 0u);
    EXPECT_TRUE(sm2->errIntf("Ethernet5"));
    EXPECT_EQ(w.status(1), Facts{});
    EXPECT_EQ(w.status(2), Facts{line("intfAclMapping", "Ethernet5", kP4)});
}

TEST(AclPolicySm, TheDirectFormRewritesTheInterfaceEntry) {
    Chip1 w({0x005, 0x100});
    w.bind(kP4, "Ethernet1");
    w.bind(kMac, "Ethernet1");
    w.settle();
    w.chip(1, {0x100});
    Flinq::Capture cap;
    w.sm->applyIntfAclPolicy("Ethernet1");
    EXPECT_EQ(w.status(1), Facts{line("intfAclMapping", "Ethernet1", kMac)});
    EXPECT_EQ(cap.texts("OvinMirelAclPolicySm").front(), "    discovering acl types");
    EXPECT_TRUE(cap.has("      adding m/mac/in"));
    w.chip(1, {0x040});
    w.sm->applyIntfAclPolicy("Ethernet1");
    EXPECT_EQ(w.status(1), Facts{});
}

TEST(AclPolicySm, SchedulesNothingOutsideItsLife) {
    ChipTest::World w;
    w.chip(1, {0x3ff});
    w.onChip("Ethernet1", 1);
    w.startIndex();
    auto sm = w.policies->smIs(Mirel::ChipId(1), w.caps->chipHwCapability(Mirel::ChipId(1)), w.hw,
                               w.index, w.statuses->statusIs(Mirel::ChipId(1)), w.wheel);
    sm->scheduleIntfAclPolicyReview("Ethernet1");
    EXPECT_EQ(sm->intfPolicyQueues(), 0u);
    EXPECT_FALSE(sm->intfPolicyTimer().armed());

    sm->handleInitialized();
    w.bind(kP4, "Ethernet1");
    EXPECT_TRUE(sm->intfPolicyTimer().armed());
    w.policies->smDel(Mirel::ChipId(1));
    EXPECT_FALSE(sm->initialized());
    EXPECT_FALSE(sm->intfPolicyTimer().armed());
    w.bind(kP6, "Ethernet1");
    EXPECT_EQ(w.settle(), 0u);
    EXPECT_EQ(sm->intfPolicyQueues(), 0u);
}

TEST(AclPolicySmDeathTest, BrokenInvariantsStopTheProcess) {
    ChipTest::World w;
    auto cap = w.chip(1, {});
    auto machine = [&](const Vorn::Ptr<Mirel::HwCapability>& hw, Mirel::ChipId statusChip) {
        return aclPolicySmFactory(Mirel::ChipId(1), cap, hw, w.index,
                                  aclPolicyStatusFactory(statusChip), w.wheel);
    };
    EXPECT_DEATH(machine(nullptr, Mirel::ChipId(1))->handleInitialized(),
                 "Assertion `hwCapability\\(\\)' failed");
    EXPECT_DEATH(machine(w.hw, Mirel::ChipId(1))->handleInitialized(),
                 "Assertion `chipHwCapability\\(\\)->aclTypeCombinationByPrioritys\\(\\)' failed");

    w.chip(1, {0x3ff});
    w.onChip("Ethernet1", 1);
    w.startIndex();
    auto sm = w.startPolicy(1);
    EXPECT_DEATH(sm->addSubIntf("Ethernet1", "Port-Channel1", kP4),
                 "Assertion `Unexpected port-channel parent interface' failed");
    EXPECT_DEATH(sm->deletePhyIntf("Ethernet1", kP4),
                 "Assertion `!!intfAclColl != !!routedIntfAclColl' failed");
    w.bind(kP4, "Ethernet2");
    EXPECT_DEATH(sm->applyIntfAclPolicy("Ethernet2"),
                 "Assertion `chipIntfMapping\\(\\)->intfIdHas\\( intfId \\)' failed");
}

TEST(AclPolicySm, AReviewOfTheChangedAclsLeavesWhatAFullReviewWould) {
    // One ACL at a time through the kinds, the VLAN path and the shared mapping; after each
    // step the status must be what a review of every interface as a whole leaves it.
    struct Step {
        const char* name;
        std::function<void(ChipTest::World&)> change;
        const char* holds = nullptr;  // a line the status then has
    };
    const Step steps[] = {
        {"a router ACL: shared", [](auto& w) { w.bind(kR4, "Ethernet1"); },
         "routedPortSharedAclMapping[Ethernet1].aclKey[r4/ip/in/vlan100]"},
        {"a second router ACL", [](auto& w) { w.bind(kR6, "Ethernet1"); }},
        // Outbound only: a change of policy then drops its kind's out bit alone.
        {"an outbound port ACL ends sharing", [](auto& w) { w.bind(kP4Out, "Ethernet1"); },
         "intfAclMapping[Ethernet1].aclKey[r4/ip/in/vlan100]"},
        {"a VLAN ACL",
         [](auto& w) {
             w.vlanMember(20, "Ethernet1");
             w.bind(kVlanR4, "Vlan20");
         }},
        {"a MAC ACL in contention", [](auto& w) { w.bind(kMac, "Ethernet1"); }},
        {"the port ACL goes", [](auto& w) { w.bind(kP4Out, "Ethernet1", false); }},
        {"the MAC ACL goes: shared again", [](auto& w) { w.bind(kMac, "Ethernet1", false); },
         "routedPortSharedAclMapping[Ethernet1].aclKey[r6/ipv6/in/vlan100]"},
        {"the port leaves the VLAN", [](auto& w) { w.vlanMember(20, "Ethernet1", false); }},
        {"the router ACLs go",
         [](auto& w) {
             w.bind(kR4, "Ethernet1", false);
             w.bind(kR6, "Ethernet1", false);
         }},
        // Kinds already bound keep the policy: only the ACLs of the burst are looked at.
        {"a port ACL on another port", [](auto& w) { w.bind(kP4, "Ethernet2"); }},
        {"two more of its kind in one burst",
         [](auto& w) {
             w.bind(kP4b, "Ethernet2");
             w.bind(kP4c, "Ethernet2");
         },
         "intfAclMapping[Ethernet2].aclKey[p4b/ip/in]"},
        {"all three go in one burst",
         [](auto& w) {
             for (const Ovin::AclKey& key : {kP4, kP4b, kP4c})
                 w.bind(key, "Ethernet2", false);
         }},
    };
    // IP kinds ranked before MAC keeps the policy on a MAC ACL's arrival; MAC first changes it.
    for (const std::initializer_list<uint32_t>& ranked :
         {std::initializer_list<uint32_t>{0x0ff, 0x300}, {0x300, 0x0ff}}) {
        SCOPED_TRACE(testing::PrintToString(std::vector<uint32_t>(ranked)));
        Chip1 w(ranked);
        w.hw->routedPortRaclSharingSupportedIs(true);
        for (const Step& step : steps) {
            SCOPED_TRACE(step.name);
            step.change(w);
            w.settle();
            const Facts incremental = w.status(1);
            if (step.holds) {
                EXPECT_NE(std::find(incremental.begin(), incremental.end(), step.holds),
                          incremental.end())
                    << testing::PrintToString(incremental);
            }
            w.sm->scheduleIntfAclPolicyReview();
            w.settle();
            EXPECT_EQ(w.status(1), incremental);
        }
        EXPECT_EQ(w.status(1), Facts{});
    }
}

}  // namespace
}  // namespace OvinMirel
