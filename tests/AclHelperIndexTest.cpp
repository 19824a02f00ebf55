// The ACL helper driving the real index state machines: its answer to a binding change (did the
// set of chips carrying the ACL change?) must already reflect the Index update that the store
// write caused, and an ACL's whole life must leave the Index consistent and, at the end, empty.

#include <gtest/gtest.h>

#include "ovinmirel/acl/OvinMirelAclHelper.h"
#include "ovinmirel/glue/OvinMirelGlueConfig.h"
#include "ovinmirel/glue/OvinMirelGlueStatus.h"
#include "ovinmirel/index/OvinMirelIndexCheck.h"
#include "ovinmirel/index/OvinMirelIndexSm.h"
#include "ovinmirel/index/OvinMirelIndexTestWorld.h"
#include "platform/flinq/Flinq.h"
#include "platform/mirel/HwCapability.h"

namespace OvinMirel {
namespace {

using Zamu::IntfId;

class AclHelperIndexTest : public ::testing::Test {
  protected:
    AclHelperIndexTest() {
        // Ethernet1 and Ethernet2 on chip 0; Ethernet3 and Ethernet4 on chip 1. Vlan10 has the
        // member Ethernet3; Port-Channel5 has the member Ethernet4 and the sub-interface
        // Port-Channel5.20.
        world_.onChip(IntfId("Ethernet1"), 0);
        world_.onChip(IntfId("Ethernet2"), 0);
        world_.onChip(IntfId("Ethernet3"), 1);
        world_.onChip(IntfId("Ethernet4"), 1);
        world_.vlanMember(10, IntfId("Ethernet3"));
        world_.lagMember(IntfId("Port-Channel5"), IntfId("Ethernet4"));
        world_.subIntf(IntfId("Port-Channel5.20"));
        indexSm_->handleInitialized();
        aclData_.key.name = "edge";
    }

    size_t chipsOf(const Ovin::AclKey& key) const {
        auto e = index_->aclChipMapping(key);
        return e ? e->chipIntfMappings() : 0;
    }

    IndexTest::World world_;
    const Vorn::Ptr<OvinMirelAclColl>& aclColl_ = world_.acls;
    const Vorn::Ptr<Index>& index_ = world_.index;
    Vorn::Ptr<IndexSm> indexSm_ =
        indexSmFactory(aclColl_, world_.pd, world_.vlans, world_.lags, world_.subs, index_);
    Vorn::Ptr<GlueConfig> glueConfig_ = glueConfigFactory("glueConfig");
    Vorn::Ptr<GlueStatus> glueStatus_ = glueStatusFactory("glueStatus");
    Vorn::Ptr<AclHelper> helper_ = aclHelperFactory(aclColl_, glueConfig_, glueStatus_,
                                                    Mirel::hwCapabilityCollFactory("hw"), index_);
    Ovin::AclData aclData_;
    Ovin::AclDataStatus status_;
};

TEST_F(AclHelperIndexTest, BindingAnswersSeeTheIndexChangeWithinTheStoreWrite) {
    // Not precreated: the first binding creates the store entry.
    struct Step {
        const char* name;
        const char* intf;
        bool add;
        bool chipsChanged;
        size_t chips;
    };
    const Step steps[] = {
        {"first port brings chip 0", "Ethernet1", true, true, 1},
        {"second port on the same chip", "Ethernet2", true, false, 1},
        {"the same port again", "Ethernet2", true, false, 1},
        {"VLAN interface reaches chip 1 through its member", "Vlan10", true, true, 2},
        {"LAG sub-interface reaches chip 1 again: no change", "Port-Channel5.20", true, false, 2},
        {"chip 0 keeps Ethernet2", "Ethernet1", false, false, 2},
        {"chip 0 loses its last port", "Ethernet2", false, true, 1},
        {"chip 1 still carried by the sub-interface", "Vlan10", false, false, 1},
        {"last binding gone", "Port-Channel5.20", false, true, 0},
        {"removing what is not bound changes nothing", "Ethernet1", false, false, 0},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.name);
        Flinq::Capture cap;
        const bool changed = s.add ? helper_->addIntfToAcl(IntfId(s.intf), aclData_, status_)
                                   : helper_->removeIntfFromAcl(IntfId(s.intf), aclData_, false);
        EXPECT_EQ(changed, s.chipsChanged);
        EXPECT_EQ(chipsOf(aclData_.key), s.chips);
        EXPECT_EQ(cap.has("    chipAclMapping changed as a result"), s.chipsChanged);
        EXPECT_EQ(checkIndexConsistency(*index_), std::nullopt);
    }
    const Vorn::Ptr<OvinMirelAcl> acl = aclColl_->acl(aclData_.key);
    ASSERT_TRUE(acl);
    EXPECT_EQ(acl->ethIntfs() + acl->vlanIntfs() + acl->subIntfs(), 0u);
}

TEST_F(AclHelperIndexTest, WholeLifeLeavesTheIndexEmpty) {
    aclData_.intf = {IntfId("Ethernet1"), IntfId("Vlan10"), IntfId("Port-Channel5.20")};
    helper_->precreateAcl(aclData_, status_);
    EXPECT_EQ(chipsOf(aclData_.key), 2u);
    EXPECT_EQ(IndexTest::facts(*index_, "chipAclMapping"),
              (IndexTest::Facts{"chipAclMapping[0].aclIntfMapping[edge/ip/in].intfId[Ethernet1]",
                                "chipAclMapping[1].aclIntfMapping[edge/ip/in].intfId[Ethernet3]",
                                "chipAclMapping[1].aclIntfMapping[edge/ip/in].intfId[Ethernet4]"}));
    EXPECT_EQ(checkIndexConsistency(*index_), std::nullopt);

    // The engine empties the bindings before it removes and destroys the ACL.
    for (const IntfId& i : aclData_.intf)
        helper_->removeIntfFromAcl(i, aclData_, false);
    helper_->removeAcl(aclData_);
    ASSERT_TRUE(aclColl_->acl(aclData_.key));
    EXPECT_FALSE(aclColl_->acl(aclData_.key)->inUse());
    helper_->destroyAcl(aclData_);
    EXPECT_EQ(aclColl_->acls(), 0u);
    EXPECT_EQ(index_->aclChipMappings() + index_->chipAclMappings() + index_->intfAclMappings() +
                  index_->aclPhyIntfMappings() + index_->vlanAclMappings() +
                  index_->subIntfAclMappings() + index_->intfAclTypeMappings(),
              0u);
    EXPECT_EQ(checkIndexConsistency(*index_), std::nullopt);
}

}  // namespace
}  // namespace OvinMirel
