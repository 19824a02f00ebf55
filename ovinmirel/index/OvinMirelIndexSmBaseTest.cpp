// The shared update routines, driven directly with what the machines never ask for (a parent
// added twice, deleted without being there): reference counting by parent, the order of the
// mirror mappings, and delete-when-empty up to the Index.

#include "ovinmirel/index/OvinMirelIndexSmBase.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ovinmirel/index/OvinMirelIndexTestWorld.h"

namespace OvinMirel {
namespace {

using IndexTest::aclKey;
using IndexTest::Facts;

// Exposes the routines that only the concrete machines call.
class BareIndexSm : public IndexSmBase {
  public:
    BareIndexSm(const IndexTest::World& w, const Vorn::Ptr<Index>& index)
        : IndexSmBase(w.acls, w.pd, w.vlans, index) {}
    using IndexSmBase::AclEntries;
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
            BareIndexSm::AclEntries acl(a);
            if (s.add) {
                bare->updateAclPhyIntfMappingAdded(acl, "Ethernet1", s.parent);
            } else {
                bare->updateAclPhyIntfMappingDeleted(acl, "Ethernet1", s.parent);
            }
        }
        EXPECT_EQ(fresh.facts("aclPhyIntfMapping"), c.parents);
        // With a parent left the ACL reaches the port in all three mappings; without, in none.
        const size_t reached = c.parents.empty() ? 0 : 1;
        for (const char* coll : {"intfAclMapping", "aclChipMapping", "chipAclMapping"})
            EXPECT_EQ(fresh.facts(coll).size(), reached) << coll;
    }
}

// A withdrawal undoes the add in reverse: the chip mappings (the reverse one second) and
// intfAclMapping go before the last parent, so that the chips' watchers of the parents are gone
// by the time these change. A parent that is not the last one changes only the parents.
TEST_F(IndexSmBaseTest, AWithdrawalUndoesTheAddInReverse) {
    struct Case {
        const char* name;
        std::vector<const char*> parents;  // added in order; the last one is deleted
        std::vector<std::string> order;    // what is notified, in order
    };
    const Case cases[] = {
        {"the last parent goes", {"Ethernet1"}, {"aclChip", "chipAcl", "intfAcl", "parent"}},
        {"another parent stays", {"Ethernet1", "Vlan10"}, {"parent"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        IndexTest::World fresh;
        fresh.onChip("Ethernet1", 1);
        fresh.index->chipIntfMappingIs(Mirel::ChipId(1))->intfIdIs("Ethernet1");
        auto bare = Vorn::make<BareIndexSm>(fresh, fresh.index);
        for (const char* parent : c.parents) {
            BareIndexSm::AclEntries added(a);
            bare->updateAclPhyIntfMappingAdded(added, "Ethernet1", parent);
        }
        std::vector<std::string> order;
        auto note = [&](const char* what) {
            return [&order, what](const auto&) { order.push_back(what); };
        };
        auto s1 = fresh.index->aclChipMappingNotify(note("aclChip"));
        auto s2 = fresh.index->chipAclMappingNotify(note("chipAcl"));
        auto s3 = fresh.index->intfAclMapping("Ethernet1")->aclKeyNotify(note("intfAcl"));
        auto s4 = fresh.index->aclPhyIntfMapping(a)
                      ->phyIntfMapping("Ethernet1")
                      ->parentIntfIdNotify(note("parent"));
        BareIndexSm::AclEntries deleted(a);
        bare->updateAclPhyIntfMappingDeleted(deleted, "Ethernet1", c.parents.back());
        EXPECT_EQ(order, c.order);
    }
}

// The ACL's entry for a chip reaches the chip's entry for the ACL through a link. When the two
// disagree and only the chip's goes, the link must go with it: the next add re-creates the
// chip's entry instead of writing to the one no longer in the Index.
TEST_F(IndexSmBaseTest, AChipEntryThatWentAloneIsCreatedAgain) {
    w.onChip("Ethernet2", 1);
    w.index->chipIntfMappingIs(Mirel::ChipId(1))->intfIdIs("Ethernet1");
    BareIndexSm::AclEntries added(a);
    sm->updateAclPhyIntfMappingAdded(added, "Ethernet1", "Ethernet1");
    // Not written by any machine: the ACL's side holds a port the chip's side lacks.
    w.index->aclChipMapping(a)->chipIntfMapping(Mirel::ChipId(1))->intfIdIs("Ethernet2");
    BareIndexSm::AclEntries deleted(a);
    sm->updateAclPhyIntfMappingDeleted(deleted, "Ethernet1", "Ethernet1");
    EXPECT_EQ(w.facts("chipAclMapping"), Facts{});
    BareIndexSm::AclEntries again(a);
    sm->updateAclPhyIntfMappingAdded(again, "Ethernet1", "Ethernet1");
    EXPECT_EQ(w.facts("chipAclMapping"),
              Facts{"chipAclMapping[1].aclIntfMapping[a/ip/in].intfId[Ethernet1]"});
}

}  // namespace
}  // namespace OvinMirel
