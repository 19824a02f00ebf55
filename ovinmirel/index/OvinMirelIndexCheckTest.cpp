// The Index entity's own rules and the consistency checker: a consistent index passes, and each
// kind of corruption is caught and described.

#include "ovinmirel/index/OvinMirelIndexCheck.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace OvinMirel {
namespace {

using Zamu::IntfId;

const Mirel::ChipId kChip0{0}, kChip1{1};
const IntfId kEth1("Ethernet1"), kEth2("Ethernet2"), kSub("Ethernet2.7"), kVlan10("Vlan10");

// acl1 on Ethernet1 directly and through Vlan10 (of which Ethernet1 is a member); Ethernet2
// carries sub-interface Ethernet2.7. Ethernet1 is on chip 0, Ethernet2 on chip 1.
Vorn::Ptr<Index> consistentIndex() {
    auto ix = indexFactory("index");
    const auto a = TestSupport::aclKey("acl1");
    ix->chipIntfMappingIs(kChip0)->intfIdIs(kEth1);
    ix->chipIntfMappingIs(kChip1)->intfIdIs(kEth2);
    auto m = ix->aclPhyIntfMappingIs(a)->phyIntfMappingIs(kEth1);
    m->parentIntfIdIs(kEth1);
    m->parentIntfIdIs(kVlan10);
    ix->intfAclMappingIs(kEth1)->aclKeyIs(a);
    ix->aclChipMappingIs(a)->chipIntfMappingIs(kChip0)->intfIdIs(kEth1);
    ix->chipAclMappingIs(kChip0)->aclIntfMappingIs(a)->intfIdIs(kEth1);
    ix->phyIntfVlanMappingIs(kEth1)->vlanIdIs(Bridging::VlanId(10));
    ix->chipVlanMappingIs(kChip0)->vlanPhyIntfCollIs(Bridging::VlanId(10))->phyIntfIdIs(kEth1);
    ix->vlanAclMappingIs(Bridging::VlanId(10), kVlan10)->aclKeyIs(a);
    ix->phySubIntfMappingIs(kEth2)->subIntfIdIs(kSub);
    ix->subPhyIntfMappingIs(kSub)->phyIntfIdIs(kEth2);
    ix->chipSubIntfMappingIs(kChip1)->subPhyIntfCollIs(kSub)->phyIntfIdIs(kEth2);
    ix->intfAclTypeMappingIs(kEth1)->aclTableTypeMappingIs(Mirel::ipv4PortAcl_)->aclKeyIs(a);
    return ix;
}

TEST(IndexCheck, ConsistentIndexPasses) {
    auto ix = consistentIndex();
    EXPECT_EQ(checkIndexConsistency(*ix), std::nullopt);
    EXPECT_EQ(checkIndexConsistency(*indexFactory("empty")), std::nullopt);
}

TEST(IndexCheck, EachCorruptionIsReported) {
    struct Case {
        const char* name;
        std::function<void(Index&)> corrupt;
        const char* expected;  // a fragment of the report
    };
    const auto a = TestSupport::aclKey("acl1");
    const std::vector<Case> cases = {
        {"empty entry left behind", [](Index& ix) { ix.intfAclMappingIs(IntfId("Ethernet9")); },
         "intfAclMapping[Ethernet9] is empty"},
        {"empty nested entry",
         [&](Index& ix) {
             ix.chipAclMapping(kChip0)->aclIntfMappingIs(TestSupport::aclKey("acl2"));
         },
         "chipAclMapping[0].aclIntfMapping[acl2/ip/in] is empty"},
        {"chip mappings out of step",
         [&](Index& ix) { ix.chipAclMapping(kChip0)->aclIntfMapping(a)->intfIdIs(kEth2); },
         "chipAclMapping has (acl1/ip/in, Ethernet2, chip 0) but aclChipMapping has not"},
        {"chip mapping without the interface on the chip",
         [&](Index& ix) {
             ix.chipIntfMapping(kChip0)->intfIdIs(kEth1, false);
             ix.chipIntfMappingDel(kChip0);
         },
         "is not on chip 0"},
        {"ACL reaches an interface on a chip but is not mapped there",
         [&](Index& ix) {
             ix.intfAclMapping(kEth2) ? void() : void(ix.intfAclMappingIs(kEth2)->aclKeyIs(a));
             ix.aclPhyIntfMapping(a)->phyIntfMappingIs(kEth2)->parentIntfIdIs(kEth2);
         },
         "reaches Ethernet2 on chip 1 but the chip mappings lack it"},
        {"intfAclMapping without a parent",
         [&](Index& ix) { ix.intfAclMapping(kEth1)->aclKeyIs(TestSupport::aclKey("acl2")); },
         "intfAclMapping[Ethernet1] holds acl2/ip/in but aclPhyIntfMapping[acl2/ip/in] lacks "
         "Ethernet1"},
        {"sub-interface carriers out of step", [&](Index& ix) { ix.subPhyIntfMappingDel(kSub); },
         "phySubIntfMapping[Ethernet2] holds Ethernet2.7 but subPhyIntfMapping[Ethernet2.7] lacks "
         "Ethernet2"},
        {"chip VLAN member without cause",
         [&](Index& ix) {
             ix.chipVlanMapping(kChip0)
                 ->vlanPhyIntfCollIs(Bridging::VlanId(20))
                 ->phyIntfIdIs(kEth1);
         },
         "chipVlanMapping[0] has Ethernet1 in vlan 20 without cause"},
        {"chip VLAN member missing",
         [&](Index& ix) { ix.phyIntfVlanMapping(kEth1)->vlanIdIs(Bridging::VlanId(30)); },
         "chipVlanMapping lacks 1 member(s)"},
        {"chip sub-interface carrier missing", [&](Index& ix) { ix.chipSubIntfMappingDel(kChip1); },
         "chipSubIntfMapping lacks 1 carrier(s)"},
        {"non-physical key",
         [&](Index& ix) { ix.phyIntfVlanMappingIs(kVlan10)->vlanIdIs(Bridging::VlanId(10)); },
         "phyIntfVlanMapping holds Vlan10, which is not a physical interface"},
        {"interface on two chips", [&](Index& ix) { ix.chipIntfMapping(kChip1)->intfIdIs(kEth1); },
         "Ethernet1 is on chip "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto ix = consistentIndex();
        c.corrupt(*ix);
        auto report = checkIndexConsistency(*ix);
        ASSERT_TRUE(report.has_value());
        EXPECT_NE(report->find(c.expected), std::string::npos) << *report;
    }
}

TEST(IndexEntity, ChipAclsIterateInKeyOrder) {
    auto ix = indexFactory("index");
    auto chip = ix->chipAclMappingIs(kChip0);
    for (const char* n : {"delta", "alpha", "charlie", "bravo"})
        chip->aclIntfMappingIs(TestSupport::aclKey(n))->intfIdIs(kEth1);
    chip->aclIntfMappingIs(TestSupport::aclKey("alpha", Acl::aclTypeMac))->intfIdIs(kEth1);
    std::vector<std::string> order;
    for (const auto& [k, e] : chip->aclIntfMapping())
        order.push_back(k.str());
    EXPECT_EQ(order, (std::vector<std::string>{"alpha/ip/in", "alpha/mac/in", "bravo/ip/in",
                                               "charlie/ip/in", "delta/ip/in"}));
}

TEST(IndexEntity, VlanAclCollRefusesAnotherVlanInterfaceAndKeepsTheFirst) {
    auto ix = indexFactory("index");
    auto first = ix->vlanAclMappingIs(Bridging::VlanId(10), kVlan10);
    first->aclKeyIs(TestSupport::aclKey("acl1"));
    EXPECT_EQ(ix->vlanAclMappingIs(Bridging::VlanId(10), kVlan10), first);
    try {
        ix->vlanAclMappingIs(Bridging::VlanId(10), IntfId("Vlan11"));
        FAIL() << "expected ReinstantiationException";
    } catch (const Vorn::ReinstantiationException& e) {
        const std::string text = e.what();
        EXPECT_EQ(text.rfind("Reinstantiating the entity with fullName ", 0), 0u) << text;
        EXPECT_NE(text.find("where constructor parameter attribute 'vlanIntfId' has a different "
                            "value of Vlan11"),
                  std::string::npos)
            << text;
    }
    EXPECT_EQ(ix->vlanAclMapping(Bridging::VlanId(10)), first);
    EXPECT_EQ(first->aclKeys(), 1u);
}

TEST(IndexEntity, VlanIdsOutsideTheRangeAreRefused) {
    for (int64_t bad : {0, 4095, -1, 70000}) {
        SCOPED_TRACE(bad);
        try {
            Bridging::VlanId v(bad);
            FAIL() << "accepted " << v;
        } catch (const Vorn::RangeException& e) {
            EXPECT_STREQ(e.what(), "VlanId::value < 1 or > 4094 not allowed");
        }
    }
    EXPECT_EQ(Bridging::VlanId(1).value(), 1);
    EXPECT_EQ(Bridging::VlanId(4094).value(), 4094);
    // A VLAN interface whose number is no VLAN id cannot give one.
    EXPECT_THROW(Zamu::VlanIntfId::vlanId(IntfId("Vlan4095")), Vorn::RangeException);
}

}  // namespace
}  // namespace OvinMirel
