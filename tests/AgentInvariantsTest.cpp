// The checker over the test agent: silent on a healthy switch through a whole configuration,
// its failure paths and its removal, and naming the rule when the state is corrupted.

#include "tools/soak/AgentInvariants.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "ovinmirel/testagent/OvinMirelTestAgentRootTestWorld.h"
#include "tools/soak/PdMappingOracle.h"

namespace OvinMirel::Reliability {
namespace {

using TestAgentTest::World;
using Zamu::IntfId;
using Lines = std::vector<std::string>;

// Two chips: Ethernet1, 2 on chip 1, Ethernet3, 4 on chip 2; VLAN 20 has Ethernet2 and
// Ethernet3; Port-Channel10 has Ethernet1 and Ethernet4; Ethernet4.7 is a sub-interface.
struct Switch {
    World w;
    AgentInvariants inv{*w.root};
    Lines seen;

    Switch() {
        w.root->afterPassIs([this] {
            for (std::string& v : inv.check())
                seen.push_back(std::move(v));
        });
        // Chip 1 splits TCP rules into a list of their own; chip 2's four rule list ids are
        // exactly what its four ACLs need (the sub-interface's racl is an ACL of its own).
        TestAgentChipCapability splitting;
        splitting.aclSplitOnProtocolSupported = true;
        w.chip(1, splitting);
        TestAgentChipCapability tight;
        tight.chipRuleListIdMax = 3;
        w.chip(2, tight);
        for (uint32_t i = 1; i <= 4; ++i)
            w.root->portIs(IntfId::ethernet(i), Mirel::ChipId((i + 1) / 2));
        w.root->vlanMemberIs(20, "Ethernet2");
        w.root->vlanMemberIs(20, "Ethernet3");
        w.root->lagMemberIs("Ethernet1", "Port-Channel10");
        w.root->lagMemberIs("Ethernet4", "Port-Channel10");
        w.root->subIntfIs("Ethernet4.7");
        // Interfaces are held while their ACLs change, so the blocking paths run too.
        w.root->ovinMirelAclHelper()->ignorePermitDuringAclUpdateIs(true);
    }
    void configure() {
        w.rule("web", Acl::aclTypeIpv4, "10 permit tcp any any eq 443");
        w.rule("web", Acl::aclTypeIpv4, "20 deny udp any any");
        w.rule("racl", Acl::aclTypeIpv4, "10 deny udp any any range 1000 2000");
        w.rule("macs", Acl::aclTypeMac, "10 deny 0000.1111.2222 0000.0000.0000 any 0x0806");
        w.rule("v6", Acl::aclTypeIpv6, "10 deny ipv6 2001:db8::/32 any");
        w.bind("Port-Channel10", "web");
        w.bind("Ethernet2", "web");
        w.bind("Ethernet3", "web");
        w.bind("Vlan20", "racl");
        w.bind("Ethernet4.7", "racl");
        w.bind("Ethernet2", "macs", Acl::aclTypeMac);
        w.bind("Ethernet3", "v6", Acl::aclTypeIpv6, Acl::aclDirectionOut);
    }
    void unconfigure() {
        w.unbind("Port-Channel10");
        w.unbind("Ethernet2");
        w.unbind("Ethernet3");
        w.unbind("Vlan20");
        w.unbind("Ethernet4.7");
        w.unbind("Ethernet2", Acl::aclTypeMac);
        w.unbind("Ethernet3", Acl::aclTypeIpv6, Acl::aclDirectionOut);
        for (const char* name : {"web", "racl"})
            w.root->aclDel(name, Acl::aclTypeIpv4);
        w.root->aclDel("macs", Acl::aclTypeMac);
        w.root->aclDel("v6", Acl::aclTypeIpv6);
    }
    Lines settled() {
        w.settle();
        Lines out = std::move(seen);
        seen.clear();
        for (std::string& v : inv.checkSettled())
            out.push_back(std::move(v));
        return out;
    }
};

TEST(AgentInvariantsTest, AHealthySwitchBreaksNoRuleThroughFailuresAndRemoval) {
    Switch s;
    s.configure();
    EXPECT_EQ(s.settled(), Lines{});
    EXPECT_EQ(s.w.glueStatus()->lastComputationResult(), success_);

    // A failed computation on chip 2, then a change that succeeds.
    s.w.root->faultIs(Mirel::ChipId(2), TestAgentFault::failing(Mirel::stageTcamFull_).times(1));
    s.w.rule("web", Acl::aclTypeIpv4, "30 deny tcp any any eq 22");
    EXPECT_EQ(s.settled(), Lines{});
    EXPECT_EQ(s.w.glueStatus()->lastComputationResult(), fail_);
    s.w.rule("web", Acl::aclTypeIpv4, "40 deny tcp any any eq 23");
    EXPECT_EQ(s.settled(), Lines{});
    EXPECT_EQ(s.w.glueStatus()->lastComputationResult(), success_);

    s.unconfigure();
    EXPECT_EQ(s.settled(), Lines{});
    EXPECT_EQ(s.inv.checkEmptied(), Lines{});
    EXPECT_GE(s.inv.cyclesJudged(), 4u);
}

// Whether some line starts with the text.
bool names(const Lines& lines, const std::string& start) {
    for (const std::string& l : lines) {
        if (l.rfind(start, 0) == 0)
            return true;
    }
    return false;
}

std::string joined(const Lines& lines) {
    std::string out;
    for (const std::string& l : lines)
        out += l + "\n";
    return out;
}

Vorn::Ptr<Mirel::ChipDataFlowConfig> pdMapping(Switch& s, uint32_t chip) {
    return s.w.glueStatus()->piChipDataFlowConfig(Mirel::ChipId(chip));
}

// The state of a settled, configured switch corrupted in one place: the checker names the
// rule that broke.
struct Corruption {
    const char* name;
    std::function<void(Switch&)> corrupt;
    std::string expected;  // the start of a line of check()
};

class AgentInvariantsCorruptionTest : public ::testing::TestWithParam<Corruption> {};

TEST_P(AgentInvariantsCorruptionTest, TheCheckerNamesTheBrokenRule) {
    const Corruption& c = GetParam();
    Switch s;
    s.configure();
    ASSERT_EQ(s.settled(), Lines{});
    c.corrupt(s);
    const Lines lines = s.inv.checkSettled();
    EXPECT_TRUE(names(lines, c.expected)) << joined(lines);
}

INSTANTIATE_TEST_SUITE_P(
    AgentInvariants, AgentInvariantsCorruptionTest,
    ::testing::Values(
        Corruption{"blockedWithoutRequest",
                   [](Switch& s) { s.w.status()->pDConfig()->blockedIntfIs("Ethernet1"); },
                   "I2 blocking: Ethernet1 is still blocked and nobody asks for it"},
        Corruption{"indexNumberLeaked",
                   [](Switch& s) {
                       const auto sm =
                           s.w.root->ovinMirelGlueSm()->mappingSmColl()->sm(Mirel::ChipId(1));
                       ASSERT_TRUE(sm);
                       const auto alloc = sm->hwAclIndexAllocator(hwAclIndexAllocPaclMacl_);
                       ASSERT_TRUE(alloc && alloc->numAllocator());
                       alloc->numAllocator()->reserveNumber(1000);
                   },
                   "I3 ids and indexes: Chip-1 hwAclIndexAllocPaclMacl has 3 indexes in use but "
                   "the 1st level uses 2"},
        Corruption{"ruleListWithoutAcl",
                   [](Switch& s) {
                       const uint32_t* id = s.w.glueStatus()->activeRootSmId(Mirel::ChipId(2));
                       ASSERT_TRUE(id);
                       const auto root = s.w.glueStatus()->rootConfigColl()->rootConfig(*id);
                       ASSERT_TRUE(root);
                       root->aclIs(Mirel::AclId(Mirel::ipv4PortAcl_, 9, Acl::aclDirectionIn));
                   },
                   "I3 ids and indexes: Chip-2 active root holds 5 rule lists but its ACLs name "
                   "4"},
        Corruption{"placeMappedTwice",
                   [](Switch& s) {
                       // Ethernet1 (web) and Ethernet2 (web, macs) carry different ACL sets.
                       const auto pi = pdMapping(s, 1);
                       ASSERT_TRUE(pi && pi->intfToHwAclIndex("Ethernet2"));
                       pi->intfToHwAclIndexIs("Ethernet1", *pi->intfToHwAclIndex("Ethernet2"));
                   },
                   "I4 consistency: PD mapping oracle: Chip-1 index"},
        Corruption{"secondLevelEntryLost",
                   [](Switch& s) {
                       const auto pi = pdMapping(s, 2);
                       ASSERT_TRUE(pi && pi->chipRuleListKeyToIds() > 0);
                       pi->chipRuleListKeyToIdDel(pi->chipRuleListKeyToId().begin()->first);
                   },
                   "I4 consistency: PD mapping oracle: Chip-2 lacks 2nd-level entry"},
        Corruption{"indexEntryLost",
                   [](Switch& s) {
                       const auto acls = s.w.status()->index()->chipAclMapping(Mirel::ChipId(1));
                       ASSERT_TRUE(acls);
                       acls->aclIntfMappingDel(TestSupport::aclKey("macs", Acl::aclTypeMac));
                   },
                   "I4 consistency: "},
        Corruption{"loadedTablesDiffer",
                   [](Switch& s) {
                       const auto loaded = s.w.loaded(1);
                       ASSERT_TRUE(loaded);
                       loaded->intfToHwAclIndexDel("Ethernet1");
                   },
                   "I1 all-or-nothing: Chip-1 settled with tables other than its mapping"}),
    [](const ::testing::TestParamInfo<Corruption>& info) { return std::string(info.param.name); });

// Faults injected inside a cycle: the cycle's outcome is judged when it ends.
TEST(AgentInvariantsTest, AFailedCycleThatChangedALoadedTableOrPublishedAnErrorIsNamed) {
    struct Case {
        const char* name;
        std::function<void(Switch&)> corrupt;
        std::string expected;
    };
    const Case cases[] = {
        {"loaded table written", [](Switch& s) { s.w.loaded(1)->intfToHwAclIndexDel("Ethernet1"); },
         "I1 all-or-nothing: Chip-1 loaded tables changed in a failed cycle (fail)"},
        {"error of a good chip",
         [](Switch& s) { s.w.glueStatus()->chipErrorIs(Mirel::ChipId(1), Mirel::stageHwError_); },
         "I5 published errors: after fail published { Chip-1:hwError Chip-2:tcamFull }, "
         "expected { Chip-2:tcamFull }"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Switch s;
        s.configure();
        ASSERT_EQ(s.settled(), Lines{});
        s.w.root->faultIs(Mirel::ChipId(2),
                          TestAgentFault::failing(Mirel::stageTcamFull_).alsoLate(1.0).times(1));
        s.w.rule("web", Acl::aclTypeIpv4, "30 deny tcp any any eq 22");
        while (s.w.glueStatus()->glueSmState() != computing_)
            s.w.root->runPass();
        c.corrupt(s);
        EXPECT_TRUE(names(s.settled(), c.expected));
        EXPECT_EQ(s.w.glueStatus()->lastComputationResult(), fail_);
    }
}

// A chip that leaves and comes back while a cycle fails starts afresh: the cycle owes it
// neither its old active root nor its old tables.
TEST(AgentInvariantsTest, AChipBackDuringAFailedCycleIsNotHeldToItsOldState) {
    Switch s;
    s.configure();
    ASSERT_EQ(s.settled(), Lines{});
    s.w.root->faultIs(Mirel::ChipId(2),
                      TestAgentFault::failing(Mirel::stageTcamFull_).alsoLate(1.0).times(1));
    s.w.rule("web", Acl::aclTypeIpv4, "30 deny tcp any any eq 22");
    while (s.w.glueStatus()->glueSmState() != computing_)
        s.w.root->runPass();
    s.w.root->chipDel(Mirel::ChipId(1));
    s.w.chip(1);
    s.w.port("Ethernet1", 1);
    s.w.port("Ethernet2", 1);
    EXPECT_EQ(s.settled(), Lines{});
    EXPECT_EQ(s.w.glueStatus()->lastComputationResult(), success_) << "the retry succeeds";
}

TEST(AgentInvariantsTest, ACycleThatNeverEndsIsNamedOnceTheAgentSettles) {
    Switch s;
    s.configure();
    ASSERT_EQ(s.settled(), Lines{});
    s.w.root->faultIs(Mirel::ChipId(1), TestAgentFault::losing());
    s.w.rule("web", Acl::aclTypeIpv4, "30 deny tcp any any eq 22");
    const Lines lines = s.settled();
    EXPECT_EQ(s.w.glueStatus()->glueSmState(), computing_);
    EXPECT_TRUE(names(lines, "I7 completion: a cycle started and never reached idle"))
        << joined(lines);
    EXPECT_TRUE(names(lines, "I7 completion: roots are still computing, loading or aborting"));
    EXPECT_TRUE(names(lines, "I7 completion: the engine still waits for its update"));
}

// The independent count behind rule I6.
TEST(AgentInvariantsTest, RuleListIdsNeededFollowSplittingAndTheReservedId) {
    struct Case {
        const char* name;
        bool split;
        uint32_t max;
        uint8_t reserved;
        uint64_t need, available;
    };
    // Chip 1 carries web (TCP and UDP rules), macs and Vlan20's racl.
    const Case cases[] = {
        {"no splitting", false, 63, 255, 3, 64},
        {"web splits, the MAC ACL never", true, 63, 255, 4, 64},
        {"reserved id inside the range", false, 3, 2, 3, 3},
        {"reserved id above the range", false, 3, 200, 3, 4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Switch s;
        TestAgentChipCapability cap;
        cap.aclSplitOnProtocolSupported = c.split;
        cap.chipRuleListIdMax = c.max;
        s.w.chip(1, cap);
        s.w.status()
            ->hwCapabilityColl()
            ->chipHwCapability(Mirel::ChipId(1))
            ->chipRuleListIdReservedPermitAllIs(c.reserved);
        s.configure();
        s.w.settle();
        const RuleListIdNeed n = ruleListIdNeed(*s.w.status(), Mirel::ChipId(1));
        EXPECT_EQ(n.need, c.need);
        EXPECT_EQ(n.available, c.available);
    }
}

// The oracle compares up to the index numbers: renaming two indexes everywhere is the same
// mapping; giving two places of one ACL set different indexes is not.
TEST(PdMappingOracleTest, IndexNumbersMayBeRenamedButNotSplit) {
    Switch s;
    s.configure();
    ASSERT_EQ(s.settled(), Lines{});
    const Mirel::ChipId chip(1);
    const auto gs = s.w.glueStatus();
    const auto root = gs->rootConfigColl()->rootConfig(*gs->activeRootSmId(chip));
    const auto policy = gs->aclPolicyStatusColl()->status(chip);
    const auto cap = s.w.status()->hwCapabilityColl()->chipHwCapability(chip);
    ASSERT_TRUE(root && policy && cap);
    const PdExpectation want = expectPdMapping(*policy, root.ptr());
    ASSERT_EQ(want.groups.at(PdPool::paclMacl).size(), 2u) << "web; web and macs";

    // A copy of the PD mapping with the port pool's indexes renamed 1 <-> 2 everywhere.
    const auto pi = gs->piChipDataFlowConfig(chip);
    auto renamed = Mirel::chipDataFlowConfigFactory(chip);
    auto rename = [](Mirel::HwAclIndex i) {
        return Mirel::HwAclIndex(i.value() == 1 ? 2 : i.value() == 2 ? 1 : i.value());
    };
    for (const auto& [intf, index] : pi->intfToHwAclIndex())
        renamed->intfToHwAclIndexIs(intf, rename(index));
    for (const auto& [vlan, index] : pi->vlanToHwAclIndex())
        renamed->vlanToHwAclIndexIs(vlan, index);
    for (const auto& [key, id] : pi->chipRuleListKeyToId()) {
        const bool port = key.tableType() != Mirel::ipv4RouterAcl_;
        renamed->chipRuleListKeyToIdIs(
            Mirel::ChipRuleListIdKey(port ? rename(key.hwAclIndex()) : key.hwAclIndex(),
                                     key.tableType(), key.protocolType(), key.direction()),
            id);
    }
    ASSERT_EQ(pi->intfToHwAclIndexs(), renamed->intfToHwAclIndexs());
    EXPECT_EQ(comparePdMapping(chip, want, root.ptr(), *cap, *pi), Lines{});
    EXPECT_EQ(comparePdMapping(chip, want, root.ptr(), *cap, *renamed), Lines{});

    // Ethernet1 alone moved to a number of its own: its ACL set now has two indexes.
    renamed->intfToHwAclIndexIs("Ethernet1", Mirel::HwAclIndex(7));
    const Lines split = comparePdMapping(chip, want, root.ptr(), *cap, *renamed);
    EXPECT_FALSE(split.empty());
}

}  // namespace
}  // namespace OvinMirel::Reliability
