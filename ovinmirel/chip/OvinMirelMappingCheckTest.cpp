// The mapping checker as an oracle: each kind of corruption, made through the machine's or the
// data-flow configuration's public mutators, is caught and described. (Its silence over a
// machine's own state is what every mapping machine test shows, running it after each step.)

#include "ovinmirel/chip/OvinMirelMappingCheck.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ovinmirel/chip/OvinMirelMappingSmTestWorld.h"

namespace OvinMirel {
namespace {

using namespace MappingTest;

const IntfId kEth1("Ethernet1"), kEth2("Ethernet2"), kEth3("Ethernet3"), kEth4("Ethernet4");
const IntfId kEth9("Ethernet9"), kSub("Ethernet5.1");
const Ovin::AclKey kP4 = pacl("p4"), kMac = macl("mac");
const Ovin::AclKey kP6 = pacl("p6", Acl::aclDirectionIn, Acl::aclTypeIpv6);
const Ovin::AclKey kR4 = racl("r4"), kR6 = racl("r6", 1, Acl::aclDirectionIn, Acl::aclTypeIpv6);

// Ethernet1 and Ethernet2 share index 1 ({p4, mac}), Ethernet3 has 2 ({p6}); routed port
// Ethernet4 and VLAN 10 share router index 1 ({r4}); sub-interface Ethernet5.1 has router
// index 2 ({r6}). The policy result is written by hand: the checker is tested against the
// mapping machine alone.
std::unique_ptr<World> mappedWorld(uint32_t hwAclIndexMax = 100) {
    auto w = std::make_unique<World>(hwAclIndexMax, 0, PolicySource::direct);
    w->rootIs(0, {kP4, kMac, kP6, kR4, kR6});
    w->activate(0);
    w->start();
    w->intf(kEth1, {kP4, kMac});
    w->intf(kEth2, {kP4, kMac});
    w->intf(kEth3, {kP6});
    w->routedPort(kEth4, {kR4});
    w->vlan(10, {kR4});
    w->subIntf(kSub, {kR6});
    return w;
}

HwAclIndexKey keyOf(const World& w, const IntfId& intf) {
    const HwAclIndexKey* key = w.sm->intfToHwAclIndexKey(intf);
    return key ? *key : HwAclIndexKey();
}

TEST(MappingCheck, EachCorruptionIsReported) {
    struct Case {
        const char* name;
        std::function<void(World&)> corrupt;
        std::string expected;  // a fragment of the report
        uint32_t hwAclIndexMax = 100;
    };
    const std::vector<Case> cases = {
        // 1. internal mapping
        {"internal mapping with the wrong ACLs",
         [](World& w) { w.sm->intfAclMappingIs(kEth3, {kP4}); },
         "intfAclMapping[Ethernet3] holds {p4/ip/in} but the policy and the active root give "
         "{p6/ipv6/in}"},
        {"empty internal entry", [](World& w) { w.sm->vlanAclMappingIs(Bridging::VlanId(20), {}); },
         "vlanAclMapping[20] is empty"},
        {"internal entry missing", [](World& w) { w.sm->subIntfAclMappingDel(kSub); },
         "subIntfAclMapping lacks Ethernet5.1, which the policy and the active root give "
         "{r6/ipv6/in/vlan1}"},
        // 2. place to key
        {"place with another place's key",
         [](World& w) { w.sm->intfToHwAclIndexKeyIs(kEth3, keyOf(w, kEth1)); },
         "intfToHwAclIndexKey[Ethernet3] is Value('OvinMirel::HwAclIndexKey', ** {'v4PAclIn': "
         "p4/ip/in"},
        {"place with ACLs and no key", [](World& w) { w.sm->intfToHwAclIndexKeyDel(kEth3); },
         "intf Ethernet3 has ACLs of its kinds but neither a key nor a wait for an index"},
        {"key without index", [](World& w) { w.sm->keyToHwAclIndexDel(keyOf(w, kEth3)); },
         "p6/ipv6/in, 'v4RAclIn': /ip/in, 'v6RAclIn': /ip/in, 'macAclIn': /ip/in, 'v4PAclOut': "
         "/ip/in, 'v6PAclOut': /ip/in, 'v4RAclOut': /ip/in, 'v6RAclOut': /ip/in, 'macAclOut': "
         "/ip/in}), which has no index"},
        // 3. sets and keys
        {"set member without the key",
         [](World& w) { w.sm->keyToIntfSet(keyOf(w, kEth1))->intfIdIs(kEth9); },
         "holds Ethernet9, whose key is another"},
        {"index of a key nobody uses",
         [](World& w) {
             HwAclIndexKey unused;
             unused.fieldIs(HwAclIndexKey::macAclOut_, kMac);
             w.sm->keyToHwAclIndexIs(unused, Mirel::HwAclIndex(7));
         },
         "is 7 but no place uses the key"},
        // 4. numbers and 2nd-level indexes
        {"number taken behind the machine's back",
         [](World& w) {
             w.sm->hwAclIndexAllocator(hwAclIndexAllocPaclMacl_)->numAllocator()->getNumber();
         },
         "pool hwAclIndexAllocPaclMacl has numbers {0, 1, 2, 3} in use but its keys and the "
         "reserved index hold {0, 1, 2}"},
        {"2nd-level entry of an index not in use",
         [](World& w) {
             w.dataFlow->chipRuleListKeyToIdIs(
                 Mirel::ChipRuleListIdKey(Mirel::HwAclIndex(9), Mirel::ipv4PortAcl_,
                                          Mirel::protocolAll_),
                 Mirel::AclId(Mirel::ipv4PortAcl_, 1, Acl::aclDirectionIn));
         },
         "chipRuleListKeyToId[ChipRuleListIdKey{hwAclIndex=9, tableType=1, direction=in, "
         "protocolType=all}] names an index pool hwAclIndexAllocPaclMacl does not use"},
        // 5. data-flow tables
        {"1st-level entry changed",
         [](World& w) { w.dataFlow->intfToHwAclIndexIs(kEth1, Mirel::HwAclIndex(5)); },
         "intfToHwAclIndex[Ethernet1] is 5 but its key has 1"},
        {"1st-level entry lost",
         [](World& w) { w.dataFlow->vlanToHwAclIndexDel(Bridging::VlanId(10)); },
         "vlanToHwAclIndex lacks 10 -> 1"},
        {"2nd-level entry with another id",
         [](World& w) {
             w.dataFlow->chipRuleListKeyToIdIs(
                 Mirel::ChipRuleListIdKey(Mirel::HwAclIndex(2), Mirel::ipv6RouterAcl_,
                                          Mirel::protocolAll_),
                 Mirel::AclId(Mirel::ipv6RouterAcl_, 9, Acl::aclDirectionIn));
         },
         "chipRuleListKeyToId[ChipRuleListIdKey{hwAclIndex=2, tableType=4, direction=in, "
         "protocolType=all}] is AclId{tableType=4, chipRuleListId=9, direction=in} but the key "
         "gives AclId{tableType=4, chipRuleListId=5, direction=in}"},
        // 6. waiting places
        {"mapped place marked waiting", [](World& w) { w.sm->intfWaitingForHwAclIndexIs(kEth3); },
         "intf Ethernet3 waits for an index but has a key"},
        {"place waiting while its pool has room",
         [](World& w) {
             // Ethernet9 waits in a full pool; then the pool grows behind the machine's back.
             w.intf(kEth9, {kP4, kP6});
             w.capability->hwAclIndexMaxIs(3);
             for (auto pool : {hwAclIndexAllocPaclMacl_, hwAclIndexAllocRacl_})
                 w.sm->hwAclIndexAllocator(pool)->configIs(Brix::Range(0, 3));
         },
         "intf Ethernet9 waits for an index while pool hwAclIndexAllocPaclMacl has 1 free", 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto w = mappedWorld(c.hwAclIndexMax);
        ASSERT_EQ(checkMappingConsistency(*w->sm), std::nullopt);
        c.corrupt(*w);
        const std::optional<std::string> report = checkMappingConsistency(*w->sm);
        ASSERT_TRUE(report.has_value());
        EXPECT_NE(report->find(c.expected), std::string::npos) << *report;
    }
}

}  // namespace
}  // namespace OvinMirel
