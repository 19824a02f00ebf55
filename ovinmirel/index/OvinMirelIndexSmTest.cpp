// The index builder: rebuilding over an index left from before (which depends on the order in
// which it starts its machines), and stopping.

#include "ovinmirel/index/OvinMirelIndexSm.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ovinmirel/index/OvinMirelIndexCheck.h"
#include "ovinmirel/index/OvinMirelIndexTestWorld.h"

namespace OvinMirel {
namespace {

using IndexTest::aclKey;
using IndexTest::Facts;

// Two chips, VLANs, a LAG with sub-interfaces, an Ethernet sub-interface and ACLs of every
// kind of binding.
void populate(IndexTest::World& w) {
    w.onChip("Ethernet1", 1);
    w.onChip("Ethernet2", 1);
    w.onChip("Ethernet3", 2);
    w.vlanMember(10, "Ethernet1");
    w.vlanMember(10, "Ethernet3");
    w.vlanMember(20, "Ethernet2");
    w.lagMember("Port-Channel1", "Ethernet2");
    w.lagMember("Port-Channel1", "Ethernet3");
    w.subIntf("Port-Channel1.5");
    w.subIntf("Ethernet1.7");
    w.bind(aclKey("a"), "Ethernet1");
    w.bind(aclKey("a"), "Vlan10");
    w.bind(aclKey("b", Acl::aclTypeIpv6, 20), "Vlan20");
    w.bind(aclKey("c", Acl::aclTypeMac), "Port-Channel1.5");
    w.bind(aclKey("d"), "Ethernet1.7");
}

Vorn::Ptr<IndexSm> build(IndexTest::World& w) {
    auto sm = indexSmFactory(w.acls, w.pd, w.vlans, w.lags, w.subs, w.index);
    sm->handleInitialized();
    return sm;
}

// The world changes while no machine watches it, among others a port-channel sub-interface
// with an ACL goes and an ACL leaves a sub-interface that stays; a rebuild over the Index left
// from before, by the same builder or a new one, must equal a fresh build and keep nothing
// that went through that sub-interface.
TEST(IndexSm, RebuildingOverAnIndexLeftFromBeforeEqualsAFreshBuild) {
    for (bool sameBuilder : {true, false}) {
        SCOPED_TRACE(sameBuilder ? "the same builder again" : "a new builder");
        IndexTest::World w;
        populate(w);
        w.subIntf("Ethernet3.9");
        w.bind(aclKey("f"), "Ethernet3.9");
        auto sm = build(w);
        if (sameBuilder) {
            sm->chipIntfIndexSmDel();
            sm->phyIntfVlanIndexSmDel();
            sm->aclPhyIntfIndexSmDel();
            sm->subIntfIndexSmDel();
            sm->intfAclTypeIndexSmDel();
        } else {
            sm->handleDelete();
            EXPECT_FALSE(sm->initialized());
            sm = nullptr;
        }
        w.offChip("Ethernet1");
        w.onChip("Ethernet4", 2);
        w.vlanMember(10, "Ethernet3", false);
        w.vlanMember(20, "Ethernet4");
        w.lagMember("Port-Channel1", "Ethernet2", false);
        w.subIntf("Port-Channel1.5", false);
        w.subIntf("Ethernet1.7", false);
        w.subIntf("Ethernet4.1");
        w.bind(aclKey("a"), "Ethernet4");
        w.bind(aclKey("d"), "Ethernet4.1");
        w.bind(aclKey("f"), "Ethernet3.9", false);
        if (sameBuilder) {
            sm->handleInitialized();
        } else {
            sm = build(w);
        }

        // Only the binding is left of the sub-interface and of the ACL bound to it.
        Facts through;
        for (const std::string& f : IndexTest::indexFacts(*w.index)) {
            if (f.find("Port-Channel1.5") != std::string::npos ||
                f.find("c/mac/in") != std::string::npos)
                through.push_back(f);
        }
        EXPECT_EQ(through, Facts{"subIntfAclMapping[Port-Channel1.5].aclKey[c/mac/in]"});
        IndexTest::World fresh;
        fresh.acls = w.acls;
        fresh.pd = w.pd;
        fresh.vlans = w.vlans;
        fresh.lags = w.lags;
        fresh.subs = w.subs;
        auto reference = build(fresh);
        auto diff = IndexTest::indexDifference(*w.index, *fresh.index, "rebuilt", "fresh");
        EXPECT_FALSE(diff) << *diff;
        auto problem = checkIndexConsistency(*w.index);
        EXPECT_FALSE(problem) << *problem;
    }
}

TEST(IndexSm, ADeletedMachineStopsFollowingAndLeavesItsWrites) {
    IndexTest::World w;
    populate(w);
    auto sm = build(w);
    sm->chipIntfIndexSmDel();
    EXPECT_EQ(sm->chipIntfIndexSm(), nullptr);
    const Facts chips = w.facts("chipIntfMapping");
    w.offChip("Ethernet3");
    EXPECT_EQ(w.facts("chipIntfMapping"), chips);
    // The others still follow their inputs.
    w.bind(aclKey("e"), "Ethernet2");
    ASSERT_NE(w.index->intfAclMapping("Ethernet2"), nullptr);
    EXPECT_TRUE(w.index->intfAclMapping("Ethernet2")->aclKey(aclKey("e")));
}

TEST(IndexSm, ANullReferenceIsRefused) {
    IndexTest::World w;
    try {
        indexSmFactory(w.acls, w.pd, w.vlans, nullptr, w.subs, w.index);
        FAIL() << "expected NullPointerException";
    } catch (const Vorn::NullPointerException& e) {
        EXPECT_STREQ(e.what(),
                     "null _lagMapping parameter to mutator for OvinMirel::IndexSm::lagMapping "
                     "not allowed");
    }
}

}  // namespace
}  // namespace OvinMirel
