// The shared update routines, driven directly: reference counting by parent, idempotence, the
// chip mappings following an interface's chip, and delete-when-empty up to the Index.

#include "ovinmirel/index/OvinMirelIndexSmBase.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ovinmirel/index/OvinMirelIndexTestWorld.h"
#include "platform/flinq/Flinq.h"

namespace OvinMirel {
namespace {

using IndexTest::aclKey;
using IndexTest::Facts;

// Exposes the routines that only the concrete machines call.
class BareIndexSm : public IndexSmBase {
  public:
    BareIndexSm(const IndexTest::World& w, const Vorn::Ptr<Index>& index)
        : IndexSmBase(w.acls, w.pd, w.vlans, index) {}
    using IndexSmBase::updateAclPhyIntfMappingAdded;
    using IndexSmBase::updateAclPhyIntfMappingDeleted;
    using IndexSmBase::updateChipAclMapping1;
    using IndexSmBase::updateChipSubIntfMappingAdded;
    using IndexSmBase::updateChipSubIntfMappingDeleted;
    using IndexSmBase::updateChipVlanMappingAdded;
    using IndexSmBase::updateChipVlanMappingDeleted;
};

class IndexSmBaseTest : public ::testing::Test {
  protected:
    IndexSmBaseTest() { w.onChip("Ethernet1", 1); }

    IndexTest::World w;
    Vorn::Ptr<BareIndexSm> sm = Vorn::make<BareIndexSm>(w, w.index);
    const Ovin::AclKey a = aclKey("a");
};

TEST_F(IndexSmBaseTest, AnAclLeavesAPortOnlyWithItsLastParent) {
    struct Step {
        bool add;
        const char* parent;
    };
    struct Case {
        const char* name;
        std::vector<Step> steps;
        Facts parents;  // what is left of aclPhyIntfMapping
    };
    const std::string p = "aclPhyIntfMapping[a/ip/in].phyIntfMapping[Ethernet1].parentIntfId[";
    const Case cases[] = {
        {"same triple twice, then one delete",
         {{true, "Ethernet1"}, {true, "Ethernet1"}, {false, "Ethernet1"}},
         {}},
        {"port and VLAN, the port binding goes",
         {{true, "Ethernet1"}, {true, "Vlan10"}, {false, "Ethernet1"}},
         {p + "Vlan10]"}},
        {"port and VLAN, the VLAN binding goes",
         {{true, "Ethernet1"}, {true, "Vlan10"}, {false, "Vlan10"}},
         {p + "Ethernet1]"}},
        {"sub-interface and VLAN, both go",
         {{true, "Ethernet1.5"}, {true, "Vlan10"}, {false, "Vlan10"}, {false, "Ethernet1.5"}},
         {}},
        {"deleting a parent that never carried it",
         {{true, "Ethernet1"}, {false, "Vlan10"}},
         {p + "Ethernet1]"}},
        {"deleting with nothing there", {{false, "Ethernet1"}}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        IndexTest::World fresh;
        fresh.onChip("Ethernet1", 1);
        // What the chip-interface machine would write for it.
        fresh.index->chipIntfMappingIs(Mirel::ChipId(1))->intfIdIs("Ethernet1");
        auto bare = Vorn::make<BareIndexSm>(fresh, fresh.index);
        for (const Step& s : c.steps) {
            if (s.add) {
                bare->updateAclPhyIntfMappingAdded(a, "Ethernet1", s.parent);
            } else {
                bare->updateAclPhyIntfMappingDeleted(a, "Ethernet1", s.parent);
            }
        }
        EXPECT_EQ(fresh.facts("aclPhyIntfMapping"), c.parents);
        const bool reached = !c.parents.empty();
        EXPECT_EQ(fresh.facts("intfAclMapping"),
                  reached ? Facts{"intfAclMapping[Ethernet1].aclKey[a/ip/in]"} : Facts{});
        EXPECT_EQ(fresh.facts("aclChipMapping"),
                  reached ? Facts{"aclChipMapping[a/ip/in].chipIntfMapping[1].intfId[Ethernet1]"}
                          : Facts{});
        EXPECT_EQ(fresh.facts("chipAclMapping"),
                  reached ? Facts{"chipAclMapping[1].aclIntfMapping[a/ip/in].intfId[Ethernet1]"}
                          : Facts{});
    }
}

TEST_F(IndexSmBaseTest, AddAndDeleteFollowTheCallGraphWithTheirTraces) {
    Flinq::Capture cap;
    sm->updateAclPhyIntfMappingAdded(a, "Ethernet1", "Ethernet1");
    EXPECT_EQ(cap.texts("OvinMirelIndexSmBase"),
              (Facts{"updateAclPhyIntfMappingAdded a/ip/in Ethernet1 Ethernet1",
                     "updateIntfAclMappingAdded, key: a/ip/in, Ethernet1 added",
                     "updateChipAclMapping2 a/ip/in Ethernet1 true",
                     "handleAclIntfChipMappingAdded a/ip/in <--> Ethernet1 <--> ChipId-1 added"}));
    cap.clear();
    sm->updateAclPhyIntfMappingDeleted(a, "Ethernet1", "Ethernet1");
    EXPECT_EQ(
        cap.texts("OvinMirelIndexSmBase"),
        (Facts{"updateAclPhyIntfMappingDeleted a/ip/in Ethernet1 Ethernet1",
               "updateIntfAclMappingDeleted, key: a/ip/in, Ethernet1 deleted",
               "updateChipAclMapping2 a/ip/in Ethernet1 false",
               "handleAclIntfChipMappingDeleted a/ip/in <--> Ethernet1 <--> ChipId-1 deleted"}));
}

TEST_F(IndexSmBaseTest, TheReverseChipMappingIsCleanedSecond) {
    sm->updateAclPhyIntfMappingAdded(a, "Ethernet1", "Ethernet1");
    std::vector<std::string> order;
    auto s1 = w.index->aclChipMappingNotify([&](const Ovin::AclKey&) { order.push_back("acl"); });
    auto s2 = w.index->chipAclMappingNotify([&](const Mirel::ChipId&) { order.push_back("chip"); });
    sm->updateAclPhyIntfMappingDeleted(a, "Ethernet1", "Ethernet1");
    EXPECT_EQ(order, (std::vector<std::string>{"acl", "chip"}));
}

TEST_F(IndexSmBaseTest, AnAclOnAnInterfaceOnNoChipFollowsItOntoAChip) {
    sm->updateAclPhyIntfMappingAdded(a, "Ethernet2", "Ethernet2");
    EXPECT_EQ(w.facts("intfAclMapping"), Facts{"intfAclMapping[Ethernet2].aclKey[a/ip/in]"});
    EXPECT_EQ(w.facts("chipAclMapping"), Facts{});
    EXPECT_EQ(w.facts("aclChipMapping"), Facts{});

    w.onChip("Ethernet2", 2);  // no machine watches the driver here: the caller ripples
    sm->updateChipAclMapping1("Ethernet2", Mirel::ChipId(2), true);
    EXPECT_EQ(w.facts("chipAclMapping"),
              Facts{"chipAclMapping[2].aclIntfMapping[a/ip/in].intfId[Ethernet2]"});
    EXPECT_EQ(w.facts("aclChipMapping"),
              Facts{"aclChipMapping[a/ip/in].chipIntfMapping[2].intfId[Ethernet2]"});

    sm->updateChipAclMapping1("Ethernet2", Mirel::ChipId(2), false);
    EXPECT_EQ(w.facts("chipAclMapping"), Facts{});
    EXPECT_EQ(w.facts("aclChipMapping"), Facts{});
    EXPECT_EQ(w.facts("intfAclMapping"), Facts{"intfAclMapping[Ethernet2].aclKey[a/ip/in]"});
}

TEST_F(IndexSmBaseTest, TheLastVlanMemberOfTheLastVlanRemovesTheChip) {
    const Mirel::ChipId chip(1);
    sm->updateChipVlanMappingAdded(chip, Bridging::VlanId(10), "Ethernet1");
    sm->updateChipVlanMappingAdded(chip, Bridging::VlanId(10), "Ethernet2");
    sm->updateChipVlanMappingAdded(chip, Bridging::VlanId(20), "Ethernet1");
    Flinq::Capture cap;
    sm->updateChipVlanMappingDeleted(chip, Bridging::VlanId(10), "Ethernet1");
    EXPECT_EQ(cap.texts("OvinMirelIndexSmBase"),
              (Facts{"updateChipVlanMappingDeleted, Chip-1, vlan-10, Ethernet1",
                     "   Removing Ethernet1"}));
    cap.clear();
    sm->updateChipVlanMappingDeleted(chip, Bridging::VlanId(10), "Ethernet2");
    EXPECT_EQ(cap.texts("OvinMirelIndexSmBase"),
              (Facts{"updateChipVlanMappingDeleted, Chip-1, vlan-10, Ethernet2",
                     "   Removing Ethernet2", "   Removing 10"}));
    EXPECT_EQ(w.facts("chipVlanMapping"),
              Facts{"chipVlanMapping[1].vlanPhyIntfColl[20].phyIntfId[Ethernet1]"});
    cap.clear();
    sm->updateChipVlanMappingDeleted(chip, Bridging::VlanId(20), "Ethernet1");
    EXPECT_EQ(cap.texts("OvinMirelIndexSmBase"),
              (Facts{"updateChipVlanMappingDeleted, Chip-1, vlan-20, Ethernet1",
                     "   Removing Ethernet1", "   Removing 20", "   Removing 1"}));
    EXPECT_EQ(w.index->chipVlanMappings(), 0u);
}

TEST_F(IndexSmBaseTest, TheLastCarrierOfTheLastSubInterfaceRemovesTheChip) {
    const Mirel::ChipId chip(3);
    sm->updateChipSubIntfMappingAdded(chip, "Port-Channel1.5", "Ethernet1");
    sm->updateChipSubIntfMappingAdded(chip, "Port-Channel1.5", "Ethernet2");
    sm->updateChipSubIntfMappingAdded(chip, "Ethernet1.7", "Ethernet1");
    sm->updateChipSubIntfMappingDeleted(chip, "Port-Channel1.5", "Ethernet1");
    sm->updateChipSubIntfMappingDeleted(chip, "Port-Channel1.5", "Ethernet9");  // absent
    EXPECT_EQ(
        w.facts("chipSubIntfMapping"),
        (Facts{"chipSubIntfMapping[3].subPhyIntfColl[Ethernet1.7].phyIntfId[Ethernet1]",
               "chipSubIntfMapping[3].subPhyIntfColl[Port-Channel1.5].phyIntfId[Ethernet2]"}));
    sm->updateChipSubIntfMappingDeleted(chip, "Port-Channel1.5", "Ethernet2");
    Flinq::Capture cap;
    sm->updateChipSubIntfMappingDeleted(chip, "Ethernet1.7", "Ethernet1");
    EXPECT_TRUE(cap.has("updateChipSubIntfMappingDeleted, Chip-3, Ethernet1.7, Ethernet1"));
    EXPECT_TRUE(cap.has("   Removing Ethernet1.7"));
    EXPECT_TRUE(cap.has("   Removing 3"));
    EXPECT_EQ(w.index->chipSubIntfMappings(), 0u);
    // Deleting from a chip with nothing left is a no-op.
    sm->updateChipSubIntfMappingDeleted(chip, "Ethernet1.7", "Ethernet1");
    sm->updateChipVlanMappingDeleted(chip, Bridging::VlanId(10), "Ethernet1");
    EXPECT_EQ(IndexTest::indexFacts(*w.index).size(), 0u);
}

TEST_F(IndexSmBaseTest, ANullReferenceIsRefused) {
    try {
        Vorn::make<BareIndexSm>(w, Vorn::Ptr<Index>());
        FAIL() << "expected NullPointerException";
    } catch (const Vorn::NullPointerException& e) {
        EXPECT_STREQ(e.what(),
                     "null _index parameter to mutator for OvinMirel::IndexSmBase::index not "
                     "allowed");
    }
}

}  // namespace
}  // namespace OvinMirel
