// The VLAN membership machine, wired into the whole index builder: its trace.

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

// What the Index holds as ports join and leave VLANs is the differential run's part; here the
// trace, and a port kept by its own binding.
TEST_F(PhyIntfVlanIndexSmTest, APortLeavingAVlanIsTracedAndKeepsAnAclBoundToItDirectly) {
    w.bind(a, "Ethernet1");
    Flinq::Capture cap;
    w.vlanMember(10, "Ethernet1", false);
    EXPECT_TRUE(cap.has("handleVlanPhyIntf Ethernet1 Vlan10"));
    EXPECT_EQ(w.facts("intfAclMapping"), (Facts{"intfAclMapping[Ethernet1].aclKey[a/ip/in]",
                                                "intfAclMapping[Ethernet2].aclKey[a/ip/in]"}));
    expectConsistent();
}

}  // namespace
}  // namespace OvinMirel
