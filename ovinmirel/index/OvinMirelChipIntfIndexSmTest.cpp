// The chip-interface machine, wired into the whole index builder: the order in which a join is
// seen, and unknown interfaces. What the chip mappings hold after each change (a move in place
// among them) is the differential run's part.

#include "ovinmirel/index/OvinMirelChipIntfIndexSm.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ovinmirel/index/OvinMirelIndexSm.h"
#include "ovinmirel/index/OvinMirelIndexTestWorld.h"
#include "platform/flinq/Flinq.h"

namespace OvinMirel {
namespace {

using IndexTest::aclKey;

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

    IndexTest::World w;
    const Ovin::AclKey a = aclKey("a");
    const Ovin::AclKey b = aclKey("b");
    const Ovin::AclKey c = aclKey("c", Acl::aclTypeMac);
    Vorn::Ptr<IndexSm> sm;
};

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

TEST_F(ChipIntfIndexSmTest, AnInterfaceUnknownToBothSidesChangesNothing) {
    start();
    const auto before = IndexTest::indexFacts(*w.index);
    Flinq::Capture cap;
    sm->chipIntfIndexSm()->handleIntfMapping("Ethernet7", Mirel::ChipId(4));
    EXPECT_EQ(IndexTest::indexFacts(*w.index), before);
    EXPECT_TRUE(cap.has("handleIntfMapping Ethernet7 --> ChipId-4 removed"));
}

}  // namespace
}  // namespace OvinMirel
