// The ACL attachment machine, wired into the whole index builder: bindings to ports, VLAN
// interfaces and sub-interfaces resolve to physical ports with the binding as the parent.

#include "ovinmirel/index/OvinMirelAclPhyIntfIndexSm.h"

#include <gtest/gtest.h>

#include <functional>
#include <set>
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
    Facts parents(const std::string& phyIntf) {
        Facts out;
        for (const std::string& f : w.facts("aclPhyIntfMapping")) {
            if (f.find("[" + phyIntf + "]") != std::string::npos)
                out.push_back(f);
        }
        return out;
    }

    IndexTest::World w;
    Vorn::Ptr<IndexSm> sm = indexSmFactory(w.acls, w.pd, w.vlans, w.lags, w.subs, w.index);
    const Ovin::AclKey a = aclKey("a");
};

TEST_F(AclPhyIntfIndexSmTest, EachKindOfBindingRecordsItselfAsTheParent) {
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
    EXPECT_EQ(w.facts("vlanAclMapping"), Facts{"vlanAclMapping[10](Vlan10).aclKey[a/ip/in]"});
    EXPECT_EQ(w.facts("subIntfAclMapping"),
              Facts{"subIntfAclMapping[Ethernet2.7].aclKey[a/ip/in]"});
    EXPECT_TRUE(cap.has("handleAclPhyIntf a/ip/in Ethernet1"));
    EXPECT_TRUE(cap.has("  created: a/ip/in Ethernet1"));
    EXPECT_TRUE(cap.has(" aclKey: a/ip/in vlan: Vlan10 is added."));
    EXPECT_TRUE(cap.has(" aclKey: a/ip/in subIntf: Ethernet2.7 is added."));
    expectConsistent();

    cap.clear();
    w.bind(a, "Vlan10", false);
    w.bind(a, "Ethernet2.7", false);
    EXPECT_TRUE(cap.has(" aclKey: a/ip/in vlan: Vlan10 is removed."));
    EXPECT_TRUE(cap.has(" aclKey: a/ip/in subIntf: Ethernet2.7 is removed."));
    EXPECT_EQ(w.facts("aclPhyIntfMapping"), Facts{p + "Ethernet1].parentIntfId[Ethernet1]"});
    EXPECT_EQ(w.index->vlanAclMappings() + w.index->subIntfAclMappings(), 0u);
    expectConsistent();
}

TEST_F(AclPhyIntfIndexSmTest, UnbindingAVlanKeepsTheAclOnAPortBoundDirectly) {
    w.bind(a, "Vlan10");
    w.bind(a, "Ethernet2");
    w.bind(a, "Vlan10", false);
    EXPECT_EQ(w.facts("intfAclMapping"), Facts{"intfAclMapping[Ethernet2].aclKey[a/ip/in]"});
    EXPECT_EQ(w.facts("chipAclMapping"),
              Facts{"chipAclMapping[1].aclIntfMapping[a/ip/in].intfId[Ethernet2]"});
    expectConsistent();
}

TEST_F(AclPhyIntfIndexSmTest, ABindingWaitsForItsFirstPort) {
    struct Case {
        const char* name;
        const char* binding;
        const char* entry;  // what the binding alone leaves in the Index
        std::function<void(IndexTest::World&)> firstPort;
    };
    const Case cases[] = {
        {"VLAN with no members", "Vlan20", "vlanAclMapping[20](Vlan20).aclKey[a/ip/in]",
         [](IndexTest::World& w) { w.vlanMember(20, "Ethernet3"); }},
        {"sub-interface before its carrier", "Ethernet3.4",
         "subIntfAclMapping[Ethernet3.4].aclKey[a/ip/in]",
         [](IndexTest::World& w) { w.subIntf("Ethernet3.4"); }},
        {"port-channel sub-interface before a member", "Port-Channel2.4",
         "subIntfAclMapping[Port-Channel2.4].aclKey[a/ip/in]",
         [](IndexTest::World& w) {
             w.subIntf("Port-Channel2.4");
             w.lagMember("Port-Channel2", "Ethernet3");
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        IndexTest::World fresh;
        fresh.onChip("Ethernet3", 2);
        auto builder =
            indexSmFactory(fresh.acls, fresh.pd, fresh.vlans, fresh.lags, fresh.subs, fresh.index);
        builder->handleInitialized();
        fresh.bind(a, c.binding);
        EXPECT_EQ(IndexTest::indexFacts(*fresh.index),
                  (std::set<std::string>{c.entry, "chipIntfMapping[2].intfId[Ethernet3]"}));
        c.firstPort(fresh);
        EXPECT_EQ(fresh.facts("aclPhyIntfMapping"),
                  Facts{std::string("aclPhyIntfMapping[a/ip/in].phyIntfMapping[Ethernet3]"
                                    ".parentIntfId[") +
                        c.binding + "]"});
        EXPECT_EQ(fresh.facts("chipAclMapping"),
                  Facts{"chipAclMapping[2].aclIntfMapping[a/ip/in].intfId[Ethernet3]"});
        auto problem = checkIndexConsistency(*fresh.index);
        EXPECT_FALSE(problem) << *problem;
    }
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

TEST_F(AclPhyIntfIndexSmTest, AWrongKindOfInterfaceStopsTheProcess) {
    auto acl = sm->aclPhyIntfIndexSm();
    EXPECT_DEATH(acl->handleAclPhyIntf(a, "Vlan10"), "Internal Error");
    EXPECT_DEATH(acl->handleAclPhyIntf(a, "Ethernet1.5"), "Internal Error");
    EXPECT_DEATH(acl->handleAclSubIntf(a, "Ethernet1"), "Internal Error");
    EXPECT_DEATH(acl->handleAclVlanIntf(a, "Port-Channel1"), "Internal Error");
}

TEST_F(AclPhyIntfIndexSmTest, AHandlerBeforeInitialisationStopsTheProcess) {
    auto acl = aclPhyIntfIndexSmFactory(w.acls, w.pd, w.vlans, w.index);
    EXPECT_DEATH(acl->handleAclPhyIntf(a, "Ethernet1"), "initialized\\(\\)");
    EXPECT_DEATH(acl->handleAclSubIntf(a, "Ethernet1.1"), "initialized\\(\\)");
    EXPECT_DEATH(acl->handleAclVlanIntf(a, "Vlan1"), "initialized\\(\\)");
}

}  // namespace
}  // namespace OvinMirel
