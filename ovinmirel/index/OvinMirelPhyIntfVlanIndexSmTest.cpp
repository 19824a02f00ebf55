// The VLAN membership machine, wired into the whole index builder: ports joining and leaving
// VLANs carry the VLAN interface's ACLs and the chip-VLAN mapping with them.

#include "ovinmirel/index/OvinMirelPhyIntfVlanIndexSm.h"

#include <gtest/gtest.h>

#include <string>

#include "ovinmirel/index/OvinMirelIndexCheck.h"
#include "ovinmirel/index/OvinMirelIndexSm.h"
#include "ovinmirel/index/OvinMirelIndexTestWorld.h"
#include "platform/flinq/Flinq.h"

namespace OvinMirel {
namespace {

using IndexTest::aclKey;
using IndexTest::Facts;

class PhyIntfVlanIndexSmTest : public ::testing::Test {
  protected:
    PhyIntfVlanIndexSmTest() {
        w.onChip("Ethernet1", 1);
        w.onChip("Ethernet2", 1);
        w.vlanMember(10, "Ethernet1");
        w.vlanMember(10, "Ethernet2");
        w.bind(a, "Vlan10");
        sm->handleInitialized();
    }
    void expectConsistent() {
        auto problem = checkIndexConsistency(*w.index);
        EXPECT_FALSE(problem) << *problem;
    }

    IndexTest::World w;
    Vorn::Ptr<IndexSm> sm = indexSmFactory(w.acls, w.pd, w.vlans, w.lags, w.subs, w.index);
    const Ovin::AclKey a = aclKey("a");
};

TEST_F(PhyIntfVlanIndexSmTest, APortLeavingAVlanLosesItsAclsUnlessBoundOtherwise) {
    struct Case {
        const char* name;
        const char* otherBinding;  // of a, keeping it on Ethernet1; null for none
        Facts left;                // intfAclMapping once Ethernet1 left VLAN 10
    };
    const Case cases[] = {
        {"no other binding", nullptr, {"intfAclMapping[Ethernet2].aclKey[a/ip/in]"}},
        {"bound to the port",
         "Ethernet1",
         {"intfAclMapping[Ethernet1].aclKey[a/ip/in]",
          "intfAclMapping[Ethernet2].aclKey[a/ip/in]"}},
        {"bound to a sub-interface of the port",
         "Ethernet1.3",
         {"intfAclMapping[Ethernet1].aclKey[a/ip/in]",
          "intfAclMapping[Ethernet2].aclKey[a/ip/in]"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        w.subIntf("Ethernet1.3");
        if (c.otherBinding)
            w.bind(a, c.otherBinding);
        Flinq::Capture cap;
        w.vlanMember(10, "Ethernet1", false);
        EXPECT_TRUE(cap.has("handleVlanPhyIntf Ethernet1 Vlan10"));
        EXPECT_EQ(w.facts("intfAclMapping"), c.left);
        EXPECT_EQ(w.facts("phyIntfVlanMapping"), Facts{"phyIntfVlanMapping[Ethernet2].vlanId[10]"});
        EXPECT_EQ(w.facts("chipVlanMapping"),
                  Facts{"chipVlanMapping[1].vlanPhyIntfColl[10].phyIntfId[Ethernet2]"});
        expectConsistent();
        // Back to the start for the next case.
        if (c.otherBinding)
            w.bind(a, c.otherBinding, false);
        w.vlanMember(10, "Ethernet1");
        w.subIntf("Ethernet1.3", false);
    }
}

TEST_F(PhyIntfVlanIndexSmTest, APortOnNoChipIsAMemberAndTheChipFollowsLater) {
    w.vlanMember(10, "Ethernet5");
    EXPECT_EQ(w.facts("phyIntfVlanMapping"), (Facts{"phyIntfVlanMapping[Ethernet1].vlanId[10]",
                                                    "phyIntfVlanMapping[Ethernet2].vlanId[10]",
                                                    "phyIntfVlanMapping[Ethernet5].vlanId[10]"}));
    EXPECT_EQ(w.index->chipVlanMappings(), 1u);
    expectConsistent();
    w.onChip("Ethernet5", 4);
    EXPECT_EQ(w.facts("chipVlanMapping"),
              (Facts{"chipVlanMapping[1].vlanPhyIntfColl[10].phyIntfId[Ethernet1]",
                     "chipVlanMapping[1].vlanPhyIntfColl[10].phyIntfId[Ethernet2]",
                     "chipVlanMapping[4].vlanPhyIntfColl[10].phyIntfId[Ethernet5]"}));
    EXPECT_EQ(w.facts("chipAclMapping").size(), 3u);
    expectConsistent();
}

TEST_F(PhyIntfVlanIndexSmTest, AVlanDeletedWithItsMembersTakesThemAllOut) {
    w.vlanMember(20, "Ethernet1");
    w.vlans->vlanPhyIntfConfigDel(Bridging::VlanId(10));
    EXPECT_EQ(w.facts("phyIntfVlanMapping"), Facts{"phyIntfVlanMapping[Ethernet1].vlanId[20]"});
    EXPECT_EQ(w.facts("chipVlanMapping"),
              Facts{"chipVlanMapping[1].vlanPhyIntfColl[20].phyIntfId[Ethernet1]"});
    EXPECT_EQ(w.facts("intfAclMapping"), Facts{});
    // The binding itself stays, waiting for members.
    EXPECT_EQ(w.facts("vlanAclMapping"), Facts{"vlanAclMapping[10](Vlan10).aclKey[a/ip/in]"});
    expectConsistent();
    w.vlanMember(10, "Ethernet2");  // the VLAN again, with a new entity
    EXPECT_EQ(w.facts("intfAclMapping"), Facts{"intfAclMapping[Ethernet2].aclKey[a/ip/in]"});
    expectConsistent();
}

TEST_F(PhyIntfVlanIndexSmTest, AHandlerBeforeInitialisationStopsTheProcess) {
    auto vlan = phyIntfVlanIndexSmFactory(w.acls, w.pd, w.vlans, w.index);
    EXPECT_DEATH(vlan->handleVlanPhyIntf(Bridging::VlanId(10), "Ethernet1"), "initialized\\(\\)");
}

}  // namespace
}  // namespace OvinMirel
