// The chip data-flow configuration: index range, the 2nd-level key's order and hash, and the
// comparison and clearing of the five mapping tables.

#include "platform/mirel/ChipDataFlowConfig.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

namespace Mirel {
namespace {

TEST(ChipDataFlowHwAclIndex, Range) {
    EXPECT_EQ(HwAclIndex(0).value(), 0);
    EXPECT_EQ(HwAclIndex(65535).value(), 65535);
    for (int64_t bad : {int64_t(-1), int64_t(65536), int64_t(1) << 32}) {
        SCOPED_TRACE(bad);
        try {
            HwAclIndex index(bad);
            ADD_FAILURE() << "accepted as " << index;
        } catch (const Vorn::RangeException& e) {
            EXPECT_STREQ(e.what(), "HwAclIndex::value < 0 or > 65535 not allowed");
        }
    }
}

TEST(ChipDataFlowRuleListKey, OrderHashAndPrinting) {
    struct Case {
        const char* name;
        ChipRuleListIdKey lower;
        ChipRuleListIdKey higher;
    };
    const Case cases[] = {
        {"index first", ChipRuleListIdKey(HwAclIndex(1), macAcl_, protocolAll_),
         ChipRuleListIdKey(HwAclIndex(2), ipv4PortAcl_, protocolTcp_)},
        {"index before everything else",
         ChipRuleListIdKey(HwAclIndex(1), macAcl_, protocolAll_, Acl::aclDirectionOut),
         ChipRuleListIdKey(HwAclIndex(2), invalid_, protocolTcp_, Acl::aclDirectionIn)},
        {"then table type",
         ChipRuleListIdKey(HwAclIndex(2), ipv4PortAcl_, protocolAll_, Acl::aclDirectionOut),
         ChipRuleListIdKey(HwAclIndex(2), ipv6PortAcl_, protocolTcp_)},
        {"then direction",
         ChipRuleListIdKey(HwAclIndex(2), ipv4PortAcl_, protocolAll_, Acl::aclDirectionIn),
         ChipRuleListIdKey(HwAclIndex(2), ipv4PortAcl_, protocolTcp_, Acl::aclDirectionOut)},
        {"then protocol", ChipRuleListIdKey(HwAclIndex(2), ipv4PortAcl_, protocolTcp_),
         ChipRuleListIdKey(HwAclIndex(2), ipv4PortAcl_, protocolNonTcp_)},
        {"index compares as a number", ChipRuleListIdKey(HwAclIndex(255), invalid_, protocolTcp_),
         ChipRuleListIdKey(HwAclIndex(256), invalid_, protocolTcp_)},
    };
    const std::hash<ChipRuleListIdKey> hash;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_LT(c.lower, c.higher);
        EXPECT_FALSE(c.higher < c.lower);
        EXPECT_NE(hash(c.lower), hash(c.higher));
        const ChipRuleListIdKey copy(c.lower.hwAclIndex(), c.lower.tableType(),
                                     c.lower.protocolType(), c.lower.direction());
        EXPECT_EQ(copy, c.lower);
        EXPECT_EQ(hash(copy), hash(c.lower));
    }
    // Every field reaches the hash: permuting small values must not collide.
    std::unordered_set<size_t> hashes;
    for (int i = 0; i < 3; ++i) {
        for (int t = 0; t < 3; ++t) {
            for (int p = 0; p < 3; ++p) {
                for (int d = 0; d < 2; ++d) {
                    hashes.insert(hash(ChipRuleListIdKey(HwAclIndex(i), TableType(t),
                                                         ProtocolType(p), Acl::AclDirection(d))));
                }
            }
        }
    }
    EXPECT_EQ(hashes.size(), 54u);
    // The direction defaults to inbound.
    EXPECT_EQ(ChipRuleListIdKey(HwAclIndex(1), macAcl_, protocolAll_).direction(),
              Acl::aclDirectionIn);

    std::ostringstream os;
    os << ChipRuleListIdKey(HwAclIndex(7), ipv4RouterAcl_, protocolNonTcp_, Acl::aclDirectionOut);
    EXPECT_EQ(os.str(),
              "ChipRuleListIdKey{hwAclIndex=7, tableType=2, direction=out, protocolType=nonTcp}");
}

// A configuration with one entry in each table.
Vorn::Ptr<ChipDataFlowConfig> filled() {
    auto c = chipDataFlowConfigFactory(ChipId(1));
    c->intfToHwAclIndexIs(Zamu::IntfId("Ethernet1"), HwAclIndex(1));
    c->routedPortToHwAclIndexIs(Zamu::IntfId("Ethernet2"), HwAclIndex(2));
    c->vlanToHwAclIndexIs(Bridging::VlanId(10), HwAclIndex(2));
    c->subIntfToHwAclIndexIs(Zamu::IntfId("Ethernet3.5"), HwAclIndex(2));
    c->chipRuleListKeyToIdIs(ChipRuleListIdKey(HwAclIndex(1), ipv4PortAcl_, protocolAll_),
                             AclId(ipv4PortAcl_, 0, Acl::aclDirectionIn));
    return c;
}

TEST(ChipDataFlowConfig, MappingsEqualLooksAtEveryTable) {
    struct Case {
        const char* name;
        std::function<void(ChipDataFlowConfig&)> change;
        bool equal;
    };
    const Case cases[] = {
        {"unchanged", [](ChipDataFlowConfig&) {}, true},
        {"control is not a mapping", [](ChipDataFlowConfig& c) { c.globalAclControlIs(1); }, true},
        {"intf index",
         [](ChipDataFlowConfig& c) {
             c.intfToHwAclIndexIs(Zamu::IntfId("Ethernet1"), HwAclIndex(3));
         },
         false},
        {"routed port removed",
         [](ChipDataFlowConfig& c) { c.routedPortToHwAclIndexDel(Zamu::IntfId("Ethernet2")); },
         false},
        {"vlan added",
         [](ChipDataFlowConfig& c) { c.vlanToHwAclIndexIs(Bridging::VlanId(11), HwAclIndex(2)); },
         false},
        {"sub-interface moved",
         [](ChipDataFlowConfig& c) {
             c.subIntfToHwAclIndexDel(Zamu::IntfId("Ethernet3.5"));
             c.subIntfToHwAclIndexIs(Zamu::IntfId("Ethernet3.6"), HwAclIndex(2));
         },
         false},
        {"rule list id",
         [](ChipDataFlowConfig& c) {
             c.chipRuleListKeyToIdIs(ChipRuleListIdKey(HwAclIndex(1), ipv4PortAcl_, protocolAll_),
                                     AclId(ipv4PortAcl_, 1, Acl::aclDirectionIn));
         },
         false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto base = filled();
        auto other = filled();
        c.change(*other);
        EXPECT_EQ(base->mappingsEqual(*other), c.equal);
        EXPECT_EQ(other->mappingsEqual(*base), c.equal);
    }
}

TEST(ChipDataFlowConfig, MappingsDelAllEmptiesTheTablesOnlyAndLeavesACopyWhole) {
    auto c = filled();
    c->globalAclControlIs(globalAclControlRewrite_);
    const auto copy = chipDataFlowTablesCopy(*c);
    int removed = 0;
    auto s1 = c->intfToHwAclIndexNotify([&](const Zamu::IntfId&) { ++removed; });
    auto s2 = c->vlanToHwAclIndexNotify([&](const Bridging::VlanId&) { ++removed; });
    auto s3 = c->chipRuleListKeyToIdNotify([&](const ChipRuleListIdKey&) { ++removed; });
    c->mappingsDelAll();
    EXPECT_EQ(removed, 3);
    EXPECT_TRUE(c->mappingsEqual(*chipDataFlowConfigFactory(ChipId(2))));
    EXPECT_EQ(c->globalAclControl(), uint32_t(globalAclControlRewrite_));
    EXPECT_EQ(c->chipId(), ChipId(1));
    EXPECT_TRUE(copy->mappingsEqual(*filled()));
    EXPECT_EQ(copy->chipId(), ChipId(1));
}

}  // namespace
}  // namespace Mirel
