// The sub-interface and LAG machine, wired into the whole index builder: carriers of Ethernet
// and port-channel sub-interfaces, LAG members joining and leaving, and the ACLs that follow.

#include "ovinmirel/index/OvinMirelSubIntfIndexSm.h"

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

class SubIntfIndexSmTest : public ::testing::Test {
  protected:
    // Port-Channel1 = {Ethernet1, Ethernet2} with sub-interfaces .10 (ACL a) and .20 (ACL b);
    // Ethernet3 is on chip 2 and in no LAG.
    SubIntfIndexSmTest() {
        w.onChip("Ethernet1", 1);
        w.onChip("Ethernet2", 1);
        w.onChip("Ethernet3", 2);
        w.lagMember("Port-Channel1", "Ethernet1");
        w.lagMember("Port-Channel1", "Ethernet2");
        w.subIntf("Port-Channel1.10");
        w.subIntf("Port-Channel1.20");
        w.bind(a, "Port-Channel1.10");
        w.bind(b, "Port-Channel1.20");
        sm->handleInitialized();
    }
    void expectConsistent() {
        auto problem = checkIndexConsistency(*w.index);
        EXPECT_FALSE(problem) << *problem;
    }
    // Everything the Index says about one port.
    Facts about(const std::string& port) {
        Facts out;
        for (const std::string& f : IndexTest::indexFacts(*w.index)) {
            if (f.find("[" + port + "]") != std::string::npos)
                out.push_back(f);
        }
        return out;
    }

    IndexTest::World w;
    Vorn::Ptr<IndexSm> sm = indexSmFactory(w.acls, w.pd, w.vlans, w.lags, w.subs, w.index);
    const Ovin::AclKey a = aclKey("a");
    const Ovin::AclKey b = aclKey("b", Acl::aclTypeIpv6);
};

TEST_F(SubIntfIndexSmTest, APortJoiningALagCarriesBothSubInterfacesAndTheirAcls) {
    const Facts alone = about("Ethernet3");
    Flinq::Capture cap;
    w.lagMember("Port-Channel1", "Ethernet3");
    EXPECT_TRUE(cap.has("handleLagMember lagIntf Port-Channel1 ethIntf Ethernet3"));
    EXPECT_TRUE(cap.has("   Adding ethIntf Ethernet3 to lagIntf Port-Channel1"));
    EXPECT_EQ(
        about("Ethernet3"),
        (Facts{
            "aclChipMapping[a/ip/in].chipIntfMapping[2].intfId[Ethernet3]",
            "aclChipMapping[b/ipv6/in].chipIntfMapping[2].intfId[Ethernet3]",
            "aclPhyIntfMapping[a/ip/in].phyIntfMapping[Ethernet3].parentIntfId[Port-Channel1.10]",
            "aclPhyIntfMapping[b/ipv6/in].phyIntfMapping[Ethernet3].parentIntfId[Port-Channel1.20]",
            "chipAclMapping[2].aclIntfMapping[a/ip/in].intfId[Ethernet3]",
            "chipAclMapping[2].aclIntfMapping[b/ipv6/in].intfId[Ethernet3]",
            "chipIntfMapping[2].intfId[Ethernet3]",
            "chipSubIntfMapping[2].subPhyIntfColl[Port-Channel1.10].phyIntfId[Ethernet3]",
            "chipSubIntfMapping[2].subPhyIntfColl[Port-Channel1.20].phyIntfId[Ethernet3]",
            "intfAclMapping[Ethernet3].aclKey[a/ip/in]",
            "intfAclMapping[Ethernet3].aclKey[b/ipv6/in]",
            "intfAclTypeMapping[Ethernet3].aclTableTypeMapping[1].aclKey[a/ip/in]",
            "intfAclTypeMapping[Ethernet3].aclTableTypeMapping[3].aclKey[b/ipv6/in]",
            "phySubIntfMapping[Ethernet3].subIntfId[Port-Channel1.10]",
            "phySubIntfMapping[Ethernet3].subIntfId[Port-Channel1.20]",
            "subPhyIntfMapping[Port-Channel1.10].phyIntfId[Ethernet3]",
            "subPhyIntfMapping[Port-Channel1.20].phyIntfId[Ethernet3]"}));
    expectConsistent();
    cap.clear();
    w.lagMember("Port-Channel1", "Ethernet3", false);
    EXPECT_TRUE(cap.has("   Removing ethIntf Ethernet3 from lagIntf Port-Channel1"));
    EXPECT_EQ(about("Ethernet3"), alone);
    expectConsistent();
}

TEST_F(SubIntfIndexSmTest, RemovingALagSubInterfaceRemovesItFromEveryMember) {
    Flinq::Capture cap;
    w.subIntf("Port-Channel1.10", false);
    EXPECT_TRUE(cap.has("   Removing Lag SubIntf Port-Channel1.10"));
    EXPECT_EQ(w.facts("lagSubIntfMapping"),
              Facts{"lagSubIntfMapping[Port-Channel1].subIntfId[Port-Channel1.20]"});
    EXPECT_EQ(w.facts("subPhyIntfMapping"),
              (Facts{"subPhyIntfMapping[Port-Channel1.20].phyIntfId[Ethernet1]",
                     "subPhyIntfMapping[Port-Channel1.20].phyIntfId[Ethernet2]"}));
    EXPECT_EQ(w.facts("intfAclMapping"), (Facts{"intfAclMapping[Ethernet1].aclKey[b/ipv6/in]",
                                                "intfAclMapping[Ethernet2].aclKey[b/ipv6/in]"}));
    // The ACL stays bound to the sub-interface, ready for it to come back.
    EXPECT_EQ(w.facts("subIntfAclMapping").size(), 2u);
    expectConsistent();

    w.subIntf("Port-Channel1.20", false);
    EXPECT_EQ(w.index->lagSubIntfMappings() + w.index->subPhyIntfMappings() +
                  w.index->phySubIntfMappings() + w.index->chipSubIntfMappings() +
                  w.index->intfAclMappings(),
              0u);
    expectConsistent();

    cap.clear();
    w.subIntf("Port-Channel1.10");
    EXPECT_TRUE(cap.has("   Adding Lag SubIntf Port-Channel1.10"));
    EXPECT_EQ(w.facts("intfAclMapping"), (Facts{"intfAclMapping[Ethernet1].aclKey[a/ip/in]",
                                                "intfAclMapping[Ethernet2].aclKey[a/ip/in]"}));
    expectConsistent();
}

TEST_F(SubIntfIndexSmTest, AnEthernetSubInterfaceIsCarriedByExactlyItsParent) {
    Flinq::Capture cap;
    w.subIntf("Ethernet3.7");
    EXPECT_TRUE(cap.has("handleEthSubIntf Interface Ethernet3.7"));
    EXPECT_TRUE(cap.has("   Adding Eth SubIntf Ethernet3.7"));
    EXPECT_EQ(w.facts("subPhyIntfMapping").size(), 5u);
    ASSERT_NE(w.index->subPhyIntfMapping("Ethernet3.7"), nullptr);
    EXPECT_EQ(w.index->subPhyIntfMapping("Ethernet3.7")->phyIntfIds(), 1u);
    EXPECT_TRUE(w.index->subPhyIntfMapping("Ethernet3.7")->phyIntfId("Ethernet3"));
    EXPECT_EQ(w.facts("chipSubIntfMapping").size(), 5u);
    w.subIntf("Ethernet3.7", false);
    EXPECT_TRUE(cap.has("   Removing Eth SubIntf Ethernet3.7"));
    EXPECT_EQ(w.index->subPhyIntfMapping("Ethernet3.7"), nullptr);
    expectConsistent();
}

TEST_F(SubIntfIndexSmTest, ALagDeletedWithItsMembersTakesThemAllOut) {
    w.lags->lagPhyIntfConfigDel("Port-Channel1");
    EXPECT_EQ(w.index->subPhyIntfMappings() + w.index->phySubIntfMappings() +
                  w.index->intfAclMappings() + w.index->chipAclMappings(),
              0u);
    EXPECT_EQ(w.facts("lagSubIntfMapping").size(), 2u);  // configured, waiting for members
    expectConsistent();
    w.lagMember("Port-Channel1", "Ethernet3");
    EXPECT_EQ(w.facts("intfAclMapping"), (Facts{"intfAclMapping[Ethernet3].aclKey[a/ip/in]",
                                                "intfAclMapping[Ethernet3].aclKey[b/ipv6/in]"}));
    expectConsistent();
}

TEST_F(SubIntfIndexSmTest, WrongKindsAndEarlyCallsStopTheProcess) {
    auto sub = sm->subIntfIndexSm();
    EXPECT_DEATH(sub->handleSubIntf("Ethernet1"), "Zamu::SubIntfId::isSubIntfId\\( intfId \\)");
    EXPECT_DEATH(sub->handleLagSubIntf("Ethernet1.4"),
                 "Zamu::SubIntfId::isPortChannelSubIntfId\\( intfId \\)");
    auto early = subIntfIndexSmFactory(w.acls, w.pd, w.vlans, w.lags, w.subs, w.index);
    EXPECT_DEATH(early->handleEthSubIntf("Ethernet1.4"), "initialized\\(\\)");
    EXPECT_DEATH(early->handleLagSubIntf("Port-Channel1.4"), "initialized\\(\\)");
    EXPECT_DEATH(early->handleLagMember("Port-Channel1", "Ethernet1"), "initialized\\(\\)");
}

}  // namespace
}  // namespace OvinMirel
