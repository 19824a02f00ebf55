// The sub-interface and LAG machine, wired into the whole index builder: its traces and its
// refusals.

#include "ovinmirel/index/OvinMirelSubIntfIndexSm.h"

#include <gtest/gtest.h>

#include <functional>
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

    IndexTest::World w;
    Vorn::Ptr<IndexSm> sm = indexSmFactory(w.acls, w.pd, w.vlans, w.lags, w.subs, w.index);
    const Ovin::AclKey a = aclKey("a");
    const Ovin::AclKey b = aclKey("b", Acl::aclTypeIpv6);
};

// What each change is traced as; the Index stays consistent throughout (what it holds is
// the differential run's part).
TEST_F(SubIntfIndexSmTest, EachChangeIsTraced) {
    struct Step {
        const char* name;
        std::function<void(IndexTest::World&)> change;
        Facts traces;
    };
    const Step steps[] = {
        {"a port joins the LAG",
         [](IndexTest::World& w) { w.lagMember("Port-Channel1", "Ethernet3"); },
         {"handleLagMember lagIntf Port-Channel1 ethIntf Ethernet3",
          "   Adding ethIntf Ethernet3 to lagIntf Port-Channel1"}},
        {"and leaves it",
         [](IndexTest::World& w) { w.lagMember("Port-Channel1", "Ethernet3", false); },
         {"   Removing ethIntf Ethernet3 from lagIntf Port-Channel1"}},
        {"a LAG sub-interface goes",
         [](IndexTest::World& w) { w.subIntf("Port-Channel1.10", false); },
         {"   Removing Lag SubIntf Port-Channel1.10"}},
        {"and comes back",
         [](IndexTest::World& w) { w.subIntf("Port-Channel1.10"); },
         {"   Adding Lag SubIntf Port-Channel1.10"}},
        {"an Ethernet sub-interface comes",
         [](IndexTest::World& w) { w.subIntf("Ethernet3.7"); },
         {"handleEthSubIntf Interface Ethernet3.7", "   Adding Eth SubIntf Ethernet3.7"}},
        {"and goes",
         [](IndexTest::World& w) { w.subIntf("Ethernet3.7", false); },
         {"   Removing Eth SubIntf Ethernet3.7"}},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.name);
        Flinq::Capture cap;
        s.change(w);
        for (const std::string& line : s.traces)
            EXPECT_TRUE(cap.has(line)) << line;
        expectConsistent();
    }
    // An Ethernet sub-interface is carried by exactly its parent.
    w.subIntf("Ethernet3.7");
    EXPECT_EQ(w.facts("subPhyIntfMapping").size(), 5u);
    EXPECT_EQ(w.facts("phySubIntfMapping").size(), 5u);
}

TEST_F(SubIntfIndexSmTest, WrongKindsStopTheProcess) {
    auto sub = sm->subIntfIndexSm();
    EXPECT_DEATH(sub->handleSubIntf("Ethernet1"), "Zamu::SubIntfId::isSubIntfId\\( intfId \\)");
    EXPECT_DEATH(sub->handleLagSubIntf("Ethernet1.4"),
                 "Zamu::SubIntfId::isPortChannelSubIntfId\\( intfId \\)");
}

}  // namespace
}  // namespace OvinMirel
