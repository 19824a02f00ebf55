// The table-type grouping: the type of each ACL key, and intfAclTypeMapping following
// intfAclMapping as ACLs reach and leave a port.

#include "ovinmirel/index/OvinMirelIntfAclTypeIndexSm.h"

#include <gtest/gtest.h>

#include <optional>

#include "ovinmirel/index/OvinMirelIndexCheck.h"
#include "ovinmirel/index/OvinMirelIndexSm.h"
#include "ovinmirel/index/OvinMirelIndexTestWorld.h"
#include "platform/flinq/Flinq.h"

namespace OvinMirel {
namespace {

using IndexTest::aclKey;
using IndexTest::Facts;

TEST(IntfAclTypeIndexSm, TableTypeOfAnAclKey) {
    struct Case {
        const char* name;
        Acl::AclType type;
        std::optional<int> vlan;
        Mirel::TableType want;
    };
    const Case cases[] = {
        {"IPv4 port ACL", Acl::aclTypeIpv4, std::nullopt, Mirel::ipv4PortAcl_},
        {"IPv4 router ACL", Acl::aclTypeIpv4, 100, Mirel::ipv4RouterAcl_},
        {"IPv6 port ACL", Acl::aclTypeIpv6, std::nullopt, Mirel::ipv6PortAcl_},
        {"IPv6 router ACL", Acl::aclTypeIpv6, 4094, Mirel::ipv6RouterAcl_},
        {"MAC ACL", Acl::aclTypeMac, std::nullopt, Mirel::macAcl_},
        {"MAC ACL with a VLAN id", Acl::aclTypeMac, 1, Mirel::macAcl_},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(int(IntfAclTypeIndexSm::getTableType(aclKey("x", c.type, c.vlan))), int(c.want));
    }
    EXPECT_DEATH(IntfAclTypeIndexSm::getTableType(aclKey("x", static_cast<Acl::AclType>(3))),
                 "tableType != Mirel::invalid_");
}

class IntfAclTypeIndexSmTest : public ::testing::Test {
  protected:
    IntfAclTypeIndexSmTest() {
        w.onChip("Ethernet1", 1);
        w.vlanMember(10, "Ethernet1");
        sm->handleInitialized();
    }
    void expectConsistent() {
        auto problem = checkIndexConsistency(*w.index);
        EXPECT_FALSE(problem) << *problem;
    }

    IndexTest::World w;
    Vorn::Ptr<IndexSm> sm = indexSmFactory(w.acls, w.pd, w.vlans, w.lags, w.subs, w.index);
};

// The grouping's contents are the differential run's part; here its traces.
TEST_F(IntfAclTypeIndexSmTest, AclsReachingAndLeavingAPortAreTracedWithTheirTypes) {
    Flinq::Capture cap;
    w.bind(aclKey("p"), "Ethernet1");
    w.bind(aclKey("r", Acl::aclTypeIpv4, 10), "Vlan10");
    w.bind(aclKey("m", Acl::aclTypeMac), "Vlan10");
    w.vlanMember(10, "Ethernet1", false);
    // The outbound count follows an outbound ACL in and out, beside an inbound one.
    const Ovin::AclKey out = aclKey("o", Acl::aclTypeIpv4, std::nullopt, Acl::aclDirectionOut);
    w.bind(out, "Ethernet1");
    expectConsistent();
    w.bind(out, "Ethernet1", false);
    for (const char* line : {"intfAclTypeMapping: Ethernet1 1 p/ip/in is Added",
                             "intfAclTypeMapping: Ethernet1 2 r/ip/in/vlan10 is Added",
                             "intfAclTypeMapping: Ethernet1 5 m/mac/in is Removed"})
        EXPECT_TRUE(cap.has(line)) << line;
    expectConsistent();
}

TEST_F(IntfAclTypeIndexSmTest, AnInterfaceEntryDeletedWholeUngroupsItsAcls) {
    w.bind(aclKey("p"), "Ethernet1");
    w.bind(aclKey("m", Acl::aclTypeMac), "Ethernet1");
    w.bind(aclKey("q"), "Ethernet2");
    // Not how the machines write it (they remove the ACLs one by one), but a reader of the
    // grouping must not be left with ACLs that no longer reach the port.
    w.index->intfAclMappingDel("Ethernet1");
    EXPECT_EQ(w.facts("intfAclTypeMapping"),
              Facts{"intfAclTypeMapping[Ethernet2].aclTableTypeMapping[1].aclKey[q/ip/in]"});
}

}  // namespace
}  // namespace OvinMirel
