// The chip-interface machine, wired into the whole index builder: interfaces joining, leaving
// and moving between chips carry their ACLs, VLANs and sub-interfaces with them.

#include "ovinmirel/index/OvinMirelChipIntfIndexSm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "ovinmirel/index/OvinMirelIndexCheck.h"
#include "ovinmirel/index/OvinMirelIndexSm.h"
#include "ovinmirel/index/OvinMirelIndexTestWorld.h"
#include "platform/flinq/Flinq.h"

namespace OvinMirel {
namespace {

using IndexTest::aclKey;
using IndexTest::Facts;

class ChipIntfIndexSmTest : public ::testing::Test {
  protected:
    // Ethernet1 and Ethernet2 on chip 1, both in VLAN 10; ACL a on Ethernet1, b on Vlan10, c on
    // the sub-interface Ethernet1.5.
    ChipIntfIndexSmTest() {
        w.onChip("Ethernet1", 1);
        w.onChip("Ethernet2", 1);
        w.vlanMember(10, "Ethernet1");
        w.vlanMember(10, "Ethernet2");
        w.subIntf("Ethernet1.5");
        w.bind(a, "Ethernet1");
        w.bind(b, "Vlan10");
        w.bind(c, "Ethernet1.5");
    }
    void start() {
        sm = indexSmFactory(w.acls, w.pd, w.vlans, w.lags, w.subs, w.index);
        sm->handleInitialized();
    }
    void expectConsistent() {
        auto problem = checkIndexConsistency(*w.index);
        EXPECT_FALSE(problem) << *problem;
    }
    // Everything the chip-keyed collections say about chip n.
    Facts chipFacts(int n) {
        Facts out;
        const std::string tag = "[" + std::to_string(n) + "]";
        for (const char* coll : {"chipIntfMapping", "chipAclMapping", "chipVlanMapping",
                                 "chipSubIntfMapping", "aclChipMapping"}) {
            for (const std::string& f : w.facts(coll)) {
                if (f.find(tag) != std::string::npos)
                    out.push_back(f);
            }
        }
        return out;
    }

    IndexTest::World w;
    const Ovin::AclKey a = aclKey("a");
    const Ovin::AclKey b = aclKey("b");
    const Ovin::AclKey c = aclKey("c", Acl::aclTypeMac);
    Vorn::Ptr<IndexSm> sm;
};

TEST_F(ChipIntfIndexSmTest, AnInterfaceLeavingItsChipVanishesFromTheChipMappings) {
    start();
    w.offChip("Ethernet1");
    EXPECT_EQ(w.facts("chipIntfMapping"), Facts{"chipIntfMapping[1].intfId[Ethernet2]"});
    EXPECT_EQ(w.facts("chipAclMapping"),
              Facts{"chipAclMapping[1].aclIntfMapping[b/ip/in].intfId[Ethernet2]"});
    EXPECT_EQ(w.facts("chipVlanMapping"),
              Facts{"chipVlanMapping[1].vlanPhyIntfColl[10].phyIntfId[Ethernet2]"});
    EXPECT_EQ(w.facts("chipSubIntfMapping"), Facts{});
    // Where the ACLs reach does not depend on chips.
    EXPECT_EQ(w.facts("intfAclMapping"), (Facts{"intfAclMapping[Ethernet1].aclKey[a/ip/in]",
                                                "intfAclMapping[Ethernet1].aclKey[b/ip/in]",
                                                "intfAclMapping[Ethernet1].aclKey[c/mac/in]",
                                                "intfAclMapping[Ethernet2].aclKey[b/ip/in]"}));
    expectConsistent();

    w.offChip("Ethernet2");
    EXPECT_EQ(chipFacts(1), Facts{});
    EXPECT_EQ(w.index->chipIntfMappings() + w.index->chipAclMappings() +
                  w.index->chipVlanMappings() + w.index->chipSubIntfMappings() +
                  w.index->aclChipMappings(),
              0u);
    expectConsistent();
}

TEST_F(ChipIntfIndexSmTest, AMoveLeavesTheOldChipBeforeJoiningTheNew) {
    struct Case {
        const char* name;
        std::function<void(IndexTest::World&)> move;
    };
    const Case cases[] = {
        {"removal then addition",
         [](IndexTest::World& w) {
             w.offChip("Ethernet1");
             w.onChip("Ethernet1", 2);
         }},
        {"in place", [](IndexTest::World& w) { w.onChip("Ethernet1", 2); }},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.name);
        start();
        Flinq::Capture cap;
        k.move(w);
        const auto texts = cap.texts("OvinMirelChipIntfIndexSm");
        auto removed = std::find(texts.begin(), texts.end(),
                                 "handleIntfMapping Ethernet1 --> ChipId-1 removed");
        auto added =
            std::find(texts.begin(), texts.end(), "handleIntfMapping Ethernet1 --> ChipId-2 added");
        ASSERT_NE(removed, texts.end());
        ASSERT_NE(added, texts.end());
        EXPECT_LT(removed, added);
        EXPECT_EQ(chipFacts(2),
                  (Facts{"chipIntfMapping[2].intfId[Ethernet1]",
                         "chipAclMapping[2].aclIntfMapping[a/ip/in].intfId[Ethernet1]",
                         "chipAclMapping[2].aclIntfMapping[b/ip/in].intfId[Ethernet1]",
                         "chipAclMapping[2].aclIntfMapping[c/mac/in].intfId[Ethernet1]",
                         "chipVlanMapping[2].vlanPhyIntfColl[10].phyIntfId[Ethernet1]",
                         "chipSubIntfMapping[2].subPhyIntfColl[Ethernet1.5].phyIntfId[Ethernet1]",
                         "aclChipMapping[a/ip/in].chipIntfMapping[2].intfId[Ethernet1]",
                         "aclChipMapping[b/ip/in].chipIntfMapping[2].intfId[Ethernet1]",
                         "aclChipMapping[c/mac/in].chipIntfMapping[2].intfId[Ethernet1]"}));
        for (const std::string& f : chipFacts(1)) {
            EXPECT_EQ(f.find("Ethernet1]"), std::string::npos) << f;
        }
        expectConsistent();
        // Back, for the next case.
        w.offChip("Ethernet1");
        w.onChip("Ethernet1", 1);
        expectConsistent();
    }
}

TEST_F(ChipIntfIndexSmTest, ReadersSeeTheInterfaceOnItsChipBeforeItsAcls) {
    w.offChip("Ethernet1");
    start();
    std::vector<bool> intfPresent;
    auto sub = w.index->chipAclMappingNotify([&](const Mirel::ChipId& chip) {
        auto intfs = w.index->chipIntfMapping(chip);
        intfPresent.push_back(intfs && intfs->intfId("Ethernet1"));
    });
    w.onChip("Ethernet1", 3);  // chip 3 had nothing: its ACL entry is created once
    EXPECT_EQ(intfPresent, std::vector<bool>{true});
}

TEST_F(ChipIntfIndexSmTest, EntriesLeftFromBeforeAreDroppedAtInitialisation) {
    w.index->chipIntfMappingIs(Mirel::ChipId(9))->intfIdIs("Ethernet99");
    w.index->chipIntfMappingIs(Mirel::ChipId(1))->intfIdIs("Ethernet5");
    auto chipIntf = chipIntfIndexSmFactory(w.acls, w.pd, w.vlans, w.index);
    chipIntf->handleInitialized();
    EXPECT_EQ(w.facts("chipIntfMapping"), (Facts{"chipIntfMapping[1].intfId[Ethernet1]",
                                                 "chipIntfMapping[1].intfId[Ethernet2]"}));
}

TEST_F(ChipIntfIndexSmTest, AnInterfaceUnknownToBothSidesChangesNothing) {
    start();
    const auto before = IndexTest::indexFacts(*w.index);
    Flinq::Capture cap;
    sm->chipIntfIndexSm()->handleIntfMapping("Ethernet7", Mirel::ChipId(4));
    EXPECT_EQ(IndexTest::indexFacts(*w.index), before);
    EXPECT_TRUE(cap.has("handleIntfMapping Ethernet7 --> ChipId-4 removed"));
}

TEST_F(ChipIntfIndexSmTest, AHandlerBeforeInitialisationStopsTheProcess) {
    auto chipIntf = chipIntfIndexSmFactory(w.acls, w.pd, w.vlans, w.index);
    EXPECT_DEATH(chipIntf->handleIntfMapping("Ethernet1", Mirel::ChipId(1)), "initialized\\(\\)");
}

}  // namespace
}  // namespace OvinMirel
