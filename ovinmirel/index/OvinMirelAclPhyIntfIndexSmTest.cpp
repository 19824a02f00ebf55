// The ACL attachment machine, wired into the whole index builder: its traces, the binding as
// the parent, and what the differential run cannot reach (bindings made from inside the ACL's
// creation, a stale ACL entity, bad VLAN interfaces, early calls).

#include "ovinmirel/index/OvinMirelAclPhyIntfIndexSm.h"

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

class AclPhyIntfIndexSmTest : public ::testing::Test {
  protected:
    AclPhyIntfIndexSmTest() {
        w.onChip("Ethernet1", 1);
        w.onChip("Ethernet2", 1);
        w.vlanMember(10, "Ethernet1");
        w.vlanMember(10, "Ethernet2");
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

TEST_F(AclPhyIntfIndexSmTest, EachKindOfBindingIsTracedAndRecordedAsTheParent) {
    w.subIntf("Ethernet2.7");
    Flinq::Capture cap;
    w.bind(a, "Ethernet1");
    w.bind(a, "Vlan10");
    w.bind(a, "Ethernet2.7");
    const std::string p = "aclPhyIntfMapping[a/ip/in].phyIntfMapping[";
    EXPECT_EQ(
        w.facts("aclPhyIntfMapping"),
        (Facts{p + "Ethernet1].parentIntfId[Ethernet1]", p + "Ethernet1].parentIntfId[Vlan10]",
               p + "Ethernet2].parentIntfId[Ethernet2.7]", p + "Ethernet2].parentIntfId[Vlan10]"}));
    for (const char* line : {"handleAclPhyIntf a/ip/in Ethernet1", "  created: a/ip/in Ethernet1",
                             " aclKey: a/ip/in vlan: Vlan10 is added.",
                             " aclKey: a/ip/in subIntf: Ethernet2.7 is added."})
        EXPECT_TRUE(cap.has(line)) << line;
    cap.clear();
    w.bind(a, "Vlan10", false);
    w.bind(a, "Ethernet2.7", false);
    EXPECT_TRUE(cap.has(" aclKey: a/ip/in vlan: Vlan10 is removed."));
    EXPECT_TRUE(cap.has(" aclKey: a/ip/in subIntf: Ethernet2.7 is removed."));
    expectConsistent();
}

// Another reader of the store binds a new ACL from inside the notification that creates it,
// one subscribed before the index machines and one after them: both bindings reach the Index.
TEST(AclPhyIntfIndexSm, BindingsMadeWhileTheAclIsCreatedReachTheIndex) {
    IndexTest::World w;
    w.onChip("Ethernet1", 1);
    w.onChip("Ethernet2", 2);
    auto bindOnCreation = [&w](const char* intf) {
        return w.acls->aclNotify([&w, intf](const Ovin::AclKey& key) {
            if (Vorn::Ptr<OvinMirelAcl> acl = w.acls->acl(key))
                acl->intfIs(intf, true);
        });
    };
    Vorn::Subscription before = bindOnCreation("Ethernet1");
    auto sm = indexSmFactory(w.acls, w.pd, w.vlans, w.lags, w.subs, w.index);
    sm->handleInitialized();
    Vorn::Subscription after = bindOnCreation("Ethernet2");

    w.acls->aclIs(aclKey("a"));
    EXPECT_EQ(w.facts("chipAclMapping"),
              (Facts{"chipAclMapping[1].aclIntfMapping[a/ip/in].intfId[Ethernet1]",
                     "chipAclMapping[2].aclIntfMapping[a/ip/in].intfId[Ethernet2]"}));
    auto problem = checkIndexConsistency(*w.index);
    EXPECT_FALSE(problem) << *problem;
}

TEST_F(AclPhyIntfIndexSmTest, AnAclLeavingTheStoreIsOnlyNoLongerWatched) {
    w.bind(a, "Ethernet1");
    Vorn::Ptr<OvinMirelAcl> detached = w.acls->acl(a);
    ASSERT_TRUE(detached);
    const auto before = IndexTest::indexFacts(*w.index);
    w.acls->aclDel(a);
    EXPECT_EQ(IndexTest::indexFacts(*w.index), before);
    detached->ethIntfIs("Ethernet2");  // a stale entity no longer reaches the Index
    EXPECT_EQ(IndexTest::indexFacts(*w.index), before);
}

TEST_F(AclPhyIntfIndexSmTest, AVlanInterfaceThatIsNoVlanIsARangeErrorThatWritesNothing) {
    auto acl = sm->aclPhyIntfIndexSm();
    w.acls->aclIs(a);
    const auto before = IndexTest::indexFacts(*w.index);
    for (const char* vlanIntf : {"Vlan0", "Vlan4095"}) {
        SCOPED_TRACE(vlanIntf);
        try {
            acl->handleAclVlanIntf(a, vlanIntf);
            FAIL() << "expected RangeException";
        } catch (const Vorn::RangeException& e) {
            EXPECT_STREQ(e.what(), "VlanId::value < 1 or > 4094 not allowed");
        }
        EXPECT_EQ(IndexTest::indexFacts(*w.index), before);
    }
}

TEST_F(AclPhyIntfIndexSmTest, AWrongKindOfInterfaceOrAnEarlyCallStopsTheProcess) {
    auto acl = sm->aclPhyIntfIndexSm();
    EXPECT_DEATH(acl->handleAclPhyIntf(a, "Vlan10"), "Internal Error");
    EXPECT_DEATH(acl->handleAclSubIntf(a, "Ethernet1"), "Internal Error");
    auto early = aclPhyIntfIndexSmFactory(w.acls, w.pd, w.vlans, w.index);
    EXPECT_DEATH(early->handleAclVlanIntf(a, "Vlan1"), "initialized\\(\\)");
}

}  // namespace
}  // namespace OvinMirel
