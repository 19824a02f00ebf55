// The consistency checker is the oracle of the index tests: over an index the machines built,
// every rule it names must report its own first violation, in each direction, in exact words.
// Also the Index entity's own rules.

#include "ovinmirel/index/OvinMirelIndexCheck.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "ovinmirel/index/OvinMirelIndexSm.h"
#include "ovinmirel/index/OvinMirelIndexTestWorld.h"

namespace OvinMirel {
namespace {

using IndexTest::aclKey;
using Zamu::IntfId;

const Mirel::ChipId kChip0{0}, kChip1{1}, kChip7{7};
const Bridging::VlanId kVlanId10{10}, kVlanId20{20};
const Ovin::AclKey a1 = aclKey("acl1"), a2 = aclKey("acl2", Acl::aclTypeMac),
                   a3 = aclKey("acl3", Acl::aclTypeIpv6), a4 = aclKey("acl4", Acl::aclTypeIpv6),
                   a9 = aclKey("acl9");

// Built by the machines from: Ethernet1 and Ethernet3 on chip 0, Ethernet2 on chip 1,
// Ethernet5 on none; VLAN 10 = {Ethernet1, Ethernet5}; Port-Channel1 = {Ethernet3} with its
// sub-interface Port-Channel1.5; Ethernet2.7; acl1 on Ethernet1 and Vlan10, acl2 on
// Ethernet2.7, acl3 and acl4 on Ethernet1. The machines are gone afterwards, so nothing repairs a
// corruption.
Vorn::Ptr<Index> consistentIndex() {
    IndexTest::World w;
    w.onChip("Ethernet1", 0);
    w.onChip("Ethernet3", 0);
    w.onChip("Ethernet2", 1);
    w.vlanMember(10, "Ethernet1");
    w.vlanMember(10, "Ethernet5");
    w.lagMember("Port-Channel1", "Ethernet3");
    w.subIntf("Port-Channel1.5");
    w.subIntf("Ethernet2.7");
    w.bind(a1, "Ethernet1");
    w.bind(a1, "Vlan10");
    w.bind(a2, "Ethernet2.7");
    w.bind(a3, "Ethernet1");
    w.bind(a4, "Ethernet1");
    indexSmFactory(w.acls, w.pd, w.vlans, w.lags, w.subs, w.index)->handleInitialized();
    return w.index;
}

// Get-or-create shorthands for the nested entries the cases write into.
auto parents(Index& x, const Ovin::AclKey& a, const char* port) {
    return x.aclPhyIntfMappingIs(a)->phyIntfMappingIs(port);
}
auto vlanColl(Index& x, Mirel::ChipId chip, Bridging::VlanId vlan) {
    return x.chipVlanMappingIs(chip)->vlanPhyIntfCollIs(vlan);
}
auto subColl(Index& x, Mirel::ChipId chip, const char* subIntf) {
    return x.chipSubIntfMappingIs(chip)->subPhyIntfCollIs(subIntf);
}
auto typeColl(Index& x, const char* intf, Mirel::TableType type) {
    return x.intfAclTypeMappingIs(intf)->aclTableTypeMappingIs(type);
}

struct Case {
    const char* name;
    std::function<void(Index&)> corrupt;  // get-or-create only: entries it names exist
    const char* report;
};

void expectReports(const std::vector<Case>& cases) {
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto ix = consistentIndex();
        ASSERT_EQ(checkIndexConsistency(*ix), std::nullopt);
        c.corrupt(*ix);
        EXPECT_EQ(checkIndexConsistency(*ix), std::optional<std::string>(c.report));
    }
}

TEST(IndexCheck, EveryEmptyEntryIsReported) {
    expectReports({
        {"intfAcl", [](Index& x) { x.intfAclMappingIs("Ethernet9"); },
         "intfAclMapping[Ethernet9] is empty"},
        {"aclPhyIntf", [](Index& x) { x.aclPhyIntfMappingIs(a9); },
         "aclPhyIntfMapping[acl9/ip/in] is empty"},
        {"aclPhyIntf port",
         [](Index& x) { x.aclPhyIntfMappingIs(a1)->phyIntfMappingIs("Ethernet9"); },
         "aclPhyIntfMapping[acl1/ip/in].phyIntfMapping[Ethernet9] is empty"},
        {"aclChip", [](Index& x) { x.aclChipMappingIs(a9); },
         "aclChipMapping[acl9/ip/in] is empty"},
        {"aclChip chip", [](Index& x) { x.aclChipMappingIs(a1)->chipIntfMappingIs(kChip1); },
         "aclChipMapping[acl1/ip/in].chipIntfMapping[1] is empty"},
        {"chipAcl", [](Index& x) { x.chipAclMappingIs(kChip7); }, "chipAclMapping[7] is empty"},
        {"chipAcl ACL", [](Index& x) { x.chipAclMappingIs(kChip0)->aclIntfMappingIs(a9); },
         "chipAclMapping[0].aclIntfMapping[acl9/ip/in] is empty"},
        {"chipIntf", [](Index& x) { x.chipIntfMappingIs(kChip7); }, "chipIntfMapping[7] is empty"},
        {"chipVlan", [](Index& x) { x.chipVlanMappingIs(kChip7); }, "chipVlanMapping[7] is empty"},
        {"chipVlan VLAN",
         [](Index& x) { x.chipVlanMappingIs(kChip0)->vlanPhyIntfCollIs(kVlanId20); },
         "chipVlanMapping[0].vlanPhyIntfColl[20] is empty"},
        {"chipSubIntf", [](Index& x) { x.chipSubIntfMappingIs(kChip7); },
         "chipSubIntfMapping[7] is empty"},
        {"chipSubIntf sub-interface",
         [](Index& x) { x.chipSubIntfMappingIs(kChip1)->subPhyIntfCollIs("Ethernet2.8"); },
         "chipSubIntfMapping[1].subPhyIntfColl[Ethernet2.8] is empty"},
        {"phyIntfVlan", [](Index& x) { x.phyIntfVlanMappingIs("Ethernet9"); },
         "phyIntfVlanMapping[Ethernet9] is empty"},
        {"phySubIntf", [](Index& x) { x.phySubIntfMappingIs("Ethernet9"); },
         "phySubIntfMapping[Ethernet9] is empty"},
        {"subPhyIntf", [](Index& x) { x.subPhyIntfMappingIs("Ethernet9.1"); },
         "subPhyIntfMapping[Ethernet9.1] is empty"},
        {"lagSubIntf", [](Index& x) { x.lagSubIntfMappingIs("Port-Channel9"); },
         "lagSubIntfMapping[Port-Channel9] is empty"},
        {"subIntfAcl", [](Index& x) { x.subIntfAclMappingIs("Ethernet9.1"); },
         "subIntfAclMapping[Ethernet9.1] is empty"},
        {"vlanAcl", [](Index& x) { x.vlanAclMappingIs(kVlanId20, "Vlan20"); },
         "vlanAclMapping[20] is empty"},
        {"intfAclType", [](Index& x) { x.intfAclTypeMappingIs("Ethernet9"); },
         "intfAclTypeMapping[Ethernet9] is empty"},
        {"intfAclType type",
         [](Index& x) {
             x.intfAclTypeMappingIs("Ethernet1")->aclTableTypeMappingIs(Mirel::macAcl_);
         },
         "intfAclTypeMapping[Ethernet1].aclTableTypeMapping[5] is empty"},
    });
}

TEST(IndexCheck, IdsOfAKindTheirPlaceRefusesAreReported) {
    expectReports({
        {"VLAN entry of another VLAN",
         [](Index& x) { x.vlanAclMappingIs(kVlanId20, "Vlan21")->aclKeyIs(a1); },
         "vlanAclMapping[20] carries the VLAN interface Vlan21"},
        {"VLAN entry of a port",
         [](Index& x) { x.vlanAclMappingIs(kVlanId20, "Ethernet20")->aclKeyIs(a1); },
         "vlanAclMapping[20] carries the VLAN interface Ethernet20"},
        {"LAG entry of a port",
         [](Index& x) { x.lagSubIntfMappingIs("Ethernet3")->subIntfIdIs("Port-Channel1.5"); },
         "lagSubIntfMapping keys Ethernet3, not a LAG"},
        {"LAG holding another LAG's",
         [](Index& x) { x.lagSubIntfMappingIs("Port-Channel1")->subIntfIdIs("Port-Channel2.5"); },
         "lagSubIntfMapping[Port-Channel1] holds Port-Channel2.5, not one of its sub-interfaces"},
        {"LAG holding itself",
         [](Index& x) { x.lagSubIntfMappingIs("Port-Channel1")->subIntfIdIs("Port-Channel1"); },
         "lagSubIntfMapping[Port-Channel1] holds Port-Channel1, not one of its sub-interfaces"},
        {"intfAcl key", [](Index& x) { x.intfAclMappingIs("Vlan10")->aclKeyIs(a1); },
         "intfAclMapping keys Vlan10, not a physical interface"},
        {"phyIntfVlan key", [](Index& x) { x.phyIntfVlanMappingIs("Vlan10")->vlanIdIs(kVlanId10); },
         "phyIntfVlanMapping keys Vlan10, not a physical interface"},
        {"phySubIntf key",
         [](Index& x) { x.phySubIntfMappingIs("Vlan10")->subIntfIdIs("Ethernet2.7"); },
         "phySubIntfMapping keys Vlan10, not a physical interface"},
        {"phySubIntf member",
         [](Index& x) { x.phySubIntfMappingIs("Ethernet2")->subIntfIdIs("Ethernet3"); },
         "phySubIntfMapping[Ethernet2] holds Ethernet3, not a sub-interface"},
        {"intfAclType key",
         [](Index& x) { typeColl(x, "Vlan10", Mirel::ipv4PortAcl_)->aclKeyIs(a1); },
         "intfAclTypeMapping keys Vlan10, not a physical interface"},
        {"aclPhyIntf port", [](Index& x) { parents(x, a1, "Vlan10")->parentIntfIdIs("Vlan10"); },
         "aclPhyIntfMapping[acl1/ip/in].phyIntfMapping keys Vlan10, not a physical interface"},
        {"aclPhyIntf parent",
         [](Index& x) { parents(x, a1, "Ethernet1")->parentIntfIdIs("Port-Channel1"); },
         "aclPhyIntfMapping[acl1/ip/in].phyIntfMapping[Ethernet1] has the parent Port-Channel1, "
         "not a port, sub-interface or VLAN interface"},
        {"aclChip member",
         [](Index& x) { x.aclChipMappingIs(a1)->chipIntfMappingIs(kChip0)->intfIdIs("Vlan10"); },
         "aclChipMapping[acl1/ip/in].chipIntfMapping[0] holds Vlan10, not a physical interface"},
        {"chipAcl member",
         [](Index& x) { x.chipAclMappingIs(kChip0)->aclIntfMappingIs(a1)->intfIdIs("Vlan10"); },
         "chipAclMapping[0].aclIntfMapping[acl1/ip/in] holds Vlan10, not a physical interface"},
        {"chipIntf member", [](Index& x) { x.chipIntfMappingIs(kChip0)->intfIdIs("Vlan10"); },
         "chipIntfMapping[0] holds Vlan10, not a physical interface"},
        {"chipVlan member", [](Index& x) { vlanColl(x, kChip0, kVlanId10)->phyIntfIdIs("Vlan10"); },
         "chipVlanMapping[0].vlanPhyIntfColl[10] holds Vlan10, not a physical interface"},
        {"chipSubIntf key",
         [](Index& x) { subColl(x, kChip1, "Ethernet2")->phyIntfIdIs("Ethernet2"); },
         "chipSubIntfMapping[1].subPhyIntfColl keys Ethernet2, not a sub-interface"},
        {"chipSubIntf member",
         [](Index& x) { subColl(x, kChip1, "Ethernet2.7")->phyIntfIdIs("Vlan10"); },
         "chipSubIntfMapping[1].subPhyIntfColl[Ethernet2.7] holds Vlan10, not a physical "
         "interface"},
        {"subPhyIntf key",
         [](Index& x) { x.subPhyIntfMappingIs("Ethernet3")->phyIntfIdIs("Ethernet3"); },
         "subPhyIntfMapping keys Ethernet3, not a sub-interface"},
        {"subPhyIntf member",
         [](Index& x) { x.subPhyIntfMappingIs("Ethernet2.7")->phyIntfIdIs("Vlan10"); },
         "subPhyIntfMapping[Ethernet2.7] holds Vlan10, not a physical interface"},
        {"subIntfAcl key", [](Index& x) { x.subIntfAclMappingIs("Ethernet2")->aclKeyIs(a2); },
         "subIntfAclMapping keys Ethernet2, not a sub-interface"},
    });
}

// A member on one side only, while the entry holding it (or lacking it) exists on both.
TEST(IndexCheck, EachMirrorDirectionIsReported) {
    auto chipMapped = [](Index& x, const Ovin::AclKey& a, const char* intf, Mirel::ChipId c) {
        x.aclChipMappingIs(a)->chipIntfMappingIs(c)->intfIdIs(intf);
        x.chipAclMappingIs(c)->aclIntfMappingIs(a)->intfIdIs(intf);
    };
    expectReports({
        {"aclChip member without chipAcl",
         [](Index& x) { x.aclChipMappingIs(a1)->chipIntfMappingIs(kChip0)->intfIdIs("Ethernet3"); },
         "aclChipMapping has (acl1/ip/in, Ethernet3, chip 0) but chipAclMapping has not"},
        {"chipAcl member without aclChip",
         [](Index& x) { x.chipAclMappingIs(kChip0)->aclIntfMappingIs(a1)->intfIdIs("Ethernet3"); },
         "chipAclMapping has (acl1/ip/in, Ethernet3, chip 0) but aclChipMapping has not"},
        {"aclChip chip without chipAcl ACL",
         [](Index& x) { x.aclChipMappingIs(a2)->chipIntfMappingIs(kChip0)->intfIdIs("Ethernet1"); },
         "aclChipMapping has (acl2/mac/in, Ethernet1, chip 0) but chipAclMapping has not"},
        {"chipAcl ACL without aclChip chip",
         [](Index& x) { x.chipAclMappingIs(kChip1)->aclIntfMappingIs(a1)->intfIdIs("Ethernet2"); },
         "chipAclMapping has (acl1/ip/in, Ethernet2, chip 1) but aclChipMapping has not"},
        {"intfAcl without aclPhyIntf",
         [](Index& x) { x.intfAclMappingIs("Ethernet5")->aclKeyIs(a2); },
         "intfAclMapping[Ethernet5] holds acl2/mac/in but aclPhyIntfMapping[acl2/mac/in] lacks "
         "Ethernet5"},
        {"aclPhyIntf without intfAcl",
         [](Index& x) { parents(x, a2, "Ethernet1")->parentIntfIdIs("Ethernet1"); },
         "aclPhyIntfMapping[acl2/mac/in] has Ethernet1 but intfAclMapping[Ethernet1] lacks "
         "acl2/mac/in"},
        {"link to the chip's entry for the ACL, filed anew since",
         [](Index& x) {
             x.chipAclMappingIs(kChip0)->aclIntfMappingDel(a1);
             x.chipAclMappingIs(kChip0)->aclIntfMappingIs(a1)->intfIdIs("Ethernet1");
         },
         "aclChipMapping[acl1/ip/in].chipIntfMapping[0] links to another entry than "
         "chipAclMapping[0].aclIntfMapping[acl1/ip/in]"},
        {"link into the chip's entry, filed anew since",
         [](Index& x) {
             x.chipAclMappingDel(kChip1);
             x.chipAclMappingIs(kChip1)->aclIntfMappingIs(a2)->intfIdIs("Ethernet2");
         },
         "aclChipMapping[acl2/mac/in].chipIntfMapping[1] links to another entry than "
         "chipAclMapping[1].aclIntfMapping[acl2/mac/in]"},
        {"a port on two chips",
         [](Index& x) { x.chipIntfMappingIs(kChip1)->intfIdIs("Ethernet1"); },
         "Ethernet1 is on chip 0 and on chip 1"},
        {"chip mappings without the ACL reaching the port",
         [&](Index& x) { chipMapped(x, a2, "Ethernet1", kChip0); },
         "(acl2/mac/in, Ethernet1, chip 0) is mapped but acl2/mac/in does not reach Ethernet1"},
        {"chip mappings without the port on the chip",
         [&](Index& x) { chipMapped(x, a1, "Ethernet1", kChip1); },
         "(acl1/ip/in, Ethernet1, chip 1) is mapped but Ethernet1 is not on chip 1"},
        {"the ACL reaching a port on a chip without chip mappings",
         [](Index& x) { x.chipIntfMappingIs(kChip0)->intfIdIs("Ethernet5"); },
         "acl1/ip/in reaches Ethernet5 on chip 0 but the chip mappings lack it"},
        {"phySubIntf without subPhyIntf",
         [](Index& x) { x.phySubIntfMappingIs("Ethernet3")->subIntfIdIs("Ethernet2.7"); },
         "phySubIntfMapping[Ethernet3] holds Ethernet2.7 but subPhyIntfMapping[Ethernet2.7] lacks "
         "Ethernet3"},
        {"subPhyIntf without phySubIntf",
         [](Index& x) { x.subPhyIntfMappingIs("Port-Channel1.5")->phyIntfIdIs("Ethernet2"); },
         "subPhyIntfMapping[Port-Channel1.5] holds Ethernet2 but phySubIntfMapping[Ethernet2] "
         "lacks Port-Channel1.5"},
        {"chipVlan member off its chip",
         [](Index& x) { vlanColl(x, kChip0, kVlanId10)->phyIntfIdIs("Ethernet5"); },
         "chipVlanMapping[0] has Ethernet5 in vlan 10 without cause"},
        {"chipVlan member outside the VLAN",
         [](Index& x) { vlanColl(x, kChip0, kVlanId20)->phyIntfIdIs("Ethernet1"); },
         "chipVlanMapping[0] has Ethernet1 in vlan 20 without cause"},
        {"membership without chipVlan",
         [](Index& x) { x.phyIntfVlanMappingIs("Ethernet3")->vlanIdIs(kVlanId10); },
         "chipVlanMapping[0] lacks Ethernet3 in vlan 10"},
        {"chipSubIntf carrier off its chip",
         [](Index& x) { subColl(x, kChip1, "Port-Channel1.5")->phyIntfIdIs("Ethernet3"); },
         "chipSubIntfMapping[1] has Ethernet3 carrying Port-Channel1.5 without cause"},
        {"chipSubIntf carrier not carrying it",
         [](Index& x) { subColl(x, kChip0, "Ethernet1.5")->phyIntfIdIs("Ethernet1"); },
         "chipSubIntfMapping[0] has Ethernet1 carrying Ethernet1.5 without cause"},
        {"carrier without chipSubIntf",
         [](Index& x) {
             x.phySubIntfMappingIs("Ethernet1")->subIntfIdIs("Port-Channel1.5");
             x.subPhyIntfMappingIs("Port-Channel1.5")->phyIntfIdIs("Ethernet1");
         },
         "chipSubIntfMapping[0] lacks Ethernet1 carrying Port-Channel1.5"},
    });
}

TEST(IndexCheck, ParentsAndTableTypesFollowTheBindings) {
    expectReports({
        {"another port as parent",
         [](Index& x) { parents(x, a1, "Ethernet1")->parentIntfIdIs("Ethernet3"); },
         "aclPhyIntfMapping[acl1/ip/in].phyIntfMapping[Ethernet1] has the parent Ethernet3, "
         "another port"},
        {"VLAN parent without the binding",
         [](Index& x) { parents(x, a2, "Ethernet2")->parentIntfIdIs("Vlan10"); },
         "aclPhyIntfMapping[acl2/mac/in].phyIntfMapping[Ethernet2] has the parent Vlan10 but "
         "vlanAclMapping[10] lacks acl2/mac/in"},
        {"VLAN parent without the membership",
         [](Index& x) {
             x.phyIntfVlanMappingIs("Ethernet5")->vlanIdIs(kVlanId20);
             x.phyIntfVlanMappingIs("Ethernet5")->vlanIdDel(kVlanId10);
         },
         "aclPhyIntfMapping[acl1/ip/in].phyIntfMapping[Ethernet5] has the parent Vlan10 but "
         "phyIntfVlanMapping[Ethernet5] lacks 10"},
        {"parent naming no VLAN",
         [](Index& x) { parents(x, a1, "Ethernet1")->parentIntfIdIs("Vlan4095"); },
         "aclPhyIntfMapping[acl1/ip/in].phyIntfMapping[Ethernet1] has the parent Vlan4095, which "
         "names no VLAN"},
        {"sub-interface parent without the binding",
         [](Index& x) { parents(x, a1, "Ethernet1")->parentIntfIdIs("Ethernet2.7"); },
         "aclPhyIntfMapping[acl1/ip/in].phyIntfMapping[Ethernet1] has the parent Ethernet2.7 but "
         "subIntfAclMapping[Ethernet2.7] lacks acl1/ip/in"},
        {"sub-interface parent the port does not carry",
         [](Index& x) {
             parents(x, a1, "Ethernet1")->parentIntfIdIs("Ethernet2.7");
             x.subIntfAclMappingIs("Ethernet2.7")->aclKeyIs(a1);
         },
         "aclPhyIntfMapping[acl1/ip/in].phyIntfMapping[Ethernet1] has the parent Ethernet2.7 but "
         "subPhyIntfMapping[Ethernet2.7] lacks Ethernet1"},
        {"VLAN binding and membership without the parent",
         [](Index& x) { parents(x, a1, "Ethernet1")->parentIntfIdDel("Vlan10"); },
         "acl1/ip/in is bound to Vlan10 and Ethernet1 is a member of Vlan10 but "
         "aclPhyIntfMapping[acl1/ip/in].phyIntfMapping[Ethernet1] lacks that parent"},
        {"sub-interface binding and carrier without the parent",
         [](Index& x) {
             parents(x, a2, "Ethernet2")->parentIntfIdIs("Ethernet2");
             parents(x, a2, "Ethernet2")->parentIntfIdDel("Ethernet2.7");
         },
         "acl2/mac/in is bound to Ethernet2.7 and Ethernet2 carries Ethernet2.7 but "
         "aclPhyIntfMapping[acl2/mac/in].phyIntfMapping[Ethernet2] lacks that parent"},
        {"an ACL under another table type",
         [](Index& x) { typeColl(x, "Ethernet1", Mirel::ipv4RouterAcl_)->aclKeyIs(a1); },
         "intfAclTypeMapping[Ethernet1].aclTableTypeMapping[2] holds acl1/ip/in, of table type 1"},
        {"a type entry without intfAcl",
         [](Index& x) { typeColl(x, "Ethernet2", Mirel::ipv4PortAcl_)->aclKeyIs(a1); },
         "intfAclTypeMapping[Ethernet2] holds acl1/ip/in but intfAclMapping[Ethernet2] lacks it"},
        {"intfAcl without its type entry",
         [](Index& x) { typeColl(x, "Ethernet1", Mirel::ipv6PortAcl_)->aclKeyDel(a3); },
         "intfAclMapping[Ethernet1] holds acl3/ipv6/in but "
         "intfAclTypeMapping[Ethernet1].aclTableTypeMapping[3] lacks it"},
        {"an outbound count off",
         [](Index& x) { typeColl(x, "Ethernet1", Mirel::ipv4PortAcl_)->outAclsIs(1); },
         "intfAclTypeMapping[Ethernet1].aclTableTypeMapping[1] has outAcls 1 but 0 of its ACLs "
         "are not inbound"},
    });
}

TEST(IndexEntity, VlanAclCollRefusesAnotherVlanInterfaceAndKeepsTheFirst) {
    auto ix = indexFactory("index");
    auto first = ix->vlanAclMappingIs(kVlanId10, "Vlan10");
    first->aclKeyIs(a1);
    EXPECT_EQ(ix->vlanAclMappingIs(kVlanId10, "Vlan10"), first);
    try {
        ix->vlanAclMappingIs(kVlanId10, "Vlan11");
        FAIL() << "expected ReinstantiationException";
    } catch (const Vorn::ReinstantiationException& e) {
        const std::string text = e.what();
        EXPECT_EQ(text.rfind("Reinstantiating the entity with fullName ", 0), 0u) << text;
        EXPECT_NE(text.find("where constructor parameter attribute 'vlanIntfId' has a different "
                            "value of Vlan11"),
                  std::string::npos)
            << text;
    }
    EXPECT_EQ(ix->vlanAclMapping(kVlanId10), first);
    EXPECT_EQ(first->aclKeys(), 1u);
}

}  // namespace
}  // namespace OvinMirel
