// ACL id allocation through a real Index built by the index machines and a GlueStatus whose
// state the test moves to aclIdAlloc: dense numbering in key order around the reserved id,
// exhaustion, protocol splitting, the 8-bit wrap and the machine's life cycle.

#include "ovinmirel/chip/OvinMirelAclIdAllocSm.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "ovinmirel/index/OvinMirelIndexSm.h"
#include "ovinmirel/index/OvinMirelIndexTestWorld.h"
#include "platform/flinq/Flinq.h"
#include "tests/TestSupport.h"

namespace OvinMirel {
namespace {

using IndexTest::aclKey;
using Strings = std::vector<std::string>;

const Mirel::ChipId kChip1(1);
const Mirel::ChipId kChip2(2);

struct Capability {
    uint32_t max = 10;
    uint8_t reserved = 255;
    bool split = false;
};

class AclIdAllocSmTest : public ::testing::Test {
  protected:
    AclIdAllocSmTest() {
        w.onChip("Ethernet1", 1);
        w.onChip("Ethernet2", 2);
        indexSm->handleInitialized();
        glueStatus->initialize();
    }

    // The chip's allocator, created and initialised as the glue does, in place of any earlier
    // one; no capability record when `cap` is empty.
    Vorn::Ptr<AclIdAllocSm> allocator(Mirel::ChipId chip, std::optional<Capability> cap) {
        coll->chipAclIdAllocSmDel(chip);
        hwCaps->chipHwCapabilityDel(chip);
        Vorn::Ptr<Mirel::ChipHwCapability> hw;
        if (cap) {
            hw = hwCaps->chipHwCapabilityIs(chip);
            hw->chipRuleListIdMaxIs(cap->max);
            hw->chipRuleListIdReservedPermitAllIs(cap->reserved);
            hw->aclSplitOnProtocolSupportedIs(cap->split);
        }
        Vorn::Ptr<AclIdAllocSm> sm =
            coll->chipAclIdAllocSmIs(chip, hw, w.acls, glueStatus, w.index, response(chip));
        sm->handleInitialized();
        return sm;
    }
    Vorn::Ptr<AclIdResponse> response(Mirel::ChipId chip) {
        return glueStatus->aclIdResponseColl()->chipAclIdResponseIs(chip);
    }
    // One commit cycle's allocation phase.
    void cycle() {
        glueStatus->glueSmStateIs(idle_);
        glueStatus->glueSmStateIs(aclIdAlloc_);
    }
    // An IP rule matching `proto`, recorded as the helper records it.
    void ipRule(const Ovin::AclKey& key, uint8_t proto) {
        Vorn::Ptr<OvinMirelAcl> acl = w.acls->aclIs(key);
        const uint32_t n = static_cast<uint32_t>(acl->ipRuleByIds());
        Mirel::IpRuleConfig rule;
        rule.filter.protocol = Zamu::IpProto(proto);
        rule.filter.matchProtocol = proto != 0;
        acl->ipRuleByIdIs(Mirel::AceIndex{n + 1, 0, Acl::UniqueId{n + 1}}, rule);
        acl->ruleCountByProtocolInc(Zamu::IpProto(proto), 1);
    }
    // "<key> <protocol class>:<chip rule list id> ..." per response entry, in key order; an
    // entry with no id reads "<key> -".
    Strings ids(Mirel::ChipId chip) {
        Strings out;
        for (const auto& [key, set] : response(chip)->response()) {
            std::string line = key.str();
            for (const auto& [proto, id] : set->aclIdType())
                line += " " + TestSupport::str(proto) + ":" + std::to_string(id.chipRuleListId());
            out.push_back(set->aclIdTypes() == 0 ? line + " -" : line);
        }
        return out;
    }

    IndexTest::World w;
    Vorn::Ptr<IndexSm> indexSm = indexSmFactory(w.acls, w.pd, w.vlans, w.lags, w.subs, w.index);
    Vorn::Ptr<GlueStatus> glueStatus = glueStatusFactory("glueStatus");
    Vorn::Ptr<Mirel::HwCapabilityColl> hwCaps = Mirel::hwCapabilityCollFactory("hwCapabilityColl");
    Vorn::Ptr<AclIdAllocSmColl> coll = aclIdAllocSmCollFactory("AclIdAllocSmColl");
};

TEST_F(AclIdAllocSmTest, WithoutCapabilityOneIdFitsAndTheRestAreExhausted) {
    auto sm = allocator(kChip1, std::nullopt);
    std::vector<bool> seen;
    Vorn::Subscription sub =
        sm->chipRuleListIdExhaustedNotify([&] { seen.push_back(sm->chipRuleListIdExhausted()); });
    for (const char* name : {"a", "b", "c"})
        w.bind(aclKey(name), "Ethernet1");
    Flinq::Capture cap;
    cycle();
    // The counter is past the maximum before b and c get an entry; the walk still visits
    // (and reports) each of them.
    EXPECT_EQ(ids(kChip1), Strings{"a/ip/in all:0"});
    EXPECT_TRUE(sm->chipRuleListIdExhausted());
    Strings exhausted;
    for (const Flinq::Line& l : cap.lines()) {
        if (l.text.find("range exhausted") != std::string::npos && l.level == 0)
            exhausted.push_back(l.text);
    }
    EXPECT_EQ(exhausted, (Strings{"    Acl key: b/ip/in range exhausted.",
                                  "    Acl key: c/ip/in range exhausted."}));
    // The next cycle starts clean: with nothing left on the chip, nothing is exhausted.
    for (const char* name : {"a", "b", "c"})
        w.bind(aclKey(name), "Ethernet1", false);
    cycle();
    EXPECT_EQ(ids(kChip1), Strings{});
    EXPECT_FALSE(sm->chipRuleListIdExhausted());
    EXPECT_EQ(seen, (std::vector<bool>{true, false}));
}

TEST_F(AclIdAllocSmTest, AnAclThatRunsOutAfterItsEntryWasMadeKeepsIt) {
    struct Case {
        const char* name;
        Capability cap;
        Strings want;
    };
    // "a" mixes TCP and UDP (split when the chip can), "b" and "c" have no rules.
    const Case cases[] = {
        // c finds the counter at 2, within range; skipping the reserved 2 gives 3, above it.
        {"reserved id skipped past the maximum",
         {.max = 2, .reserved = 2},
         {"a/ip/in all:0", "b/ip/in all:1", "c/ip/in -"}},
        // a's second half (id 1) no longer fits; b and c find the counter past the maximum
        // and get no entry.
        {"split ACL cut in half", {.max = 0, .reserved = 255, .split = true}, {"a/ip/in tcp:0"}},
        // Both halves fit exactly; the rest is out of range.
        {"split ACL fills the range",
         {.max = 1, .reserved = 255, .split = true},
         {"a/ip/in tcp:0 nonTcp:1"}},
    };
    ipRule(aclKey("a"), Zamu::IpProto::kTcp);
    ipRule(aclKey("a"), Zamu::IpProto::kUdp);
    for (const char* name : {"a", "b", "c"})
        w.bind(aclKey(name), "Ethernet1");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto sm = allocator(kChip1, c.cap);
        cycle();
        EXPECT_EQ(ids(kChip1), c.want);
        EXPECT_TRUE(sm->chipRuleListIdExhausted());
    }
}

TEST_F(AclIdAllocSmTest, SplittingOnProtocol) {
    const char* candidate = "  acl is candidate for splitting on protocol";
    const char* onlyTcp = "  acl contains only tcp or ip rules, not splitting";
    struct Case {
        const char* name;
        Acl::AclType type;
        std::vector<uint8_t> protocols;
        bool chipSplits;
        const char* trace;
    };
    const uint8_t tcp = Zamu::IpProto::kTcp, udp = Zamu::IpProto::kUdp, ip = Zamu::IpProto::kAny;
    const Case cases[] = {
        {"TCP and UDP", Acl::aclTypeIpv4, {tcp, udp, tcp}, true, candidate},
        {"IPv6 TCP and UDP", Acl::aclTypeIpv6, {udp, tcp}, true, candidate},
        {"only TCP", Acl::aclTypeIpv4, {tcp, tcp}, true, onlyTcp},
        {"TCP and any IP", Acl::aclTypeIpv4, {tcp, ip}, true, onlyTcp},
        {"no TCP", Acl::aclTypeIpv4, {udp, ip}, true, "  acl contains no tcp rules, not splitting"},
        {"chip cannot",
         Acl::aclTypeIpv4,
         {tcp, udp},
         false,
         "  splitting on protocol not supported"},
        {"MAC ACL", Acl::aclTypeMac, {}, true, "  splitting on protocol not supported on mac acls"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        // The previous case's ACLs go as the agent removes them: unbound, then destroyed.
        for (const Ovin::AclKey& old : w.acls->acl().keys())
            w.bind(old, "Ethernet1", false);
        w.acls->aclDelAll();
        const Ovin::AclKey a = aclKey("a", c.type);
        for (uint8_t proto : c.protocols)
            ipRule(a, proto);
        if (c.type == Acl::aclTypeMac) {
            // Counts that would split an IP ACL: a MAC ACL is refused before they are read.
            w.acls->aclIs(a)->ruleCountByProtocolInc(Zamu::IpProto(tcp), 1);
        }
        w.bind(a, "Ethernet1");
        w.bind(aclKey("b"), "Ethernet1");
        allocator(kChip1, Capability{.split = c.chipSplits});
        Flinq::Capture cap;
        cycle();
        // Split, a takes ids 0 and 1 and b 2; whole, a takes 0 and b 1.
        const std::string k = a.str();
        EXPECT_EQ(ids(kChip1), c.trace == candidate
                                   ? (Strings{k + " tcp:0 nonTcp:1", "b/ip/in all:2"})
                                   : (Strings{k + " all:0", "b/ip/in all:1"}));
        bool traced = false;
        for (const Flinq::Line& l : cap.lines())
            traced |= l.handle == "OvinMirelAclIdAllocSm" && l.level == 2 && l.text == c.trace;
        EXPECT_TRUE(traced) << c.trace;
    }
}

TEST_F(AclIdAllocSmTest, StoredIdsWrapPastEightBits) {
    struct Case {
        const char* name;
        uint32_t max;
        int acls;
        std::vector<std::pair<int, const char*>> want;  // ACL number -> stored id
    };
    // The counter skips 255 once and is stored modulo 256; the range tests compare the full
    // counter before an ACL and the stored id after it.
    const Case cases[] = {
        // Counter 255 is skipped to 256, stored as 0 (which is within 255): acl255 gets 0
        // again; then the counter (257) is past the maximum.
        {"maximum 255", 255, 257, {{254, "254"}, {255, "0"}, {256, "no entry"}}},
        // Above 255 the stored-id test cannot fail; counter 511 is stored as 255, the
        // reserved id.
        {"maximum 520",
         520,
         522,
         {{254, "254"},
          {255, "0"},
          {510, "255"},
          {511, "0"},
          {519, "8"},
          {520, "no entry"},
          {521, "no entry"}}},
    };
    auto name = [](int i) {
        char buf[16];
        std::snprintf(buf, sizeof buf, "acl%03d", i);
        return std::string(buf);
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto sm = allocator(kChip1, Capability{.max = c.max, .reserved = 255});
        for (int i = 0; i < c.acls; ++i)
            w.bind(aclKey(name(i)), "Ethernet1");
        cycle();
        for (const auto& [i, want] : c.want) {
            SCOPED_TRACE(name(i));
            Vorn::Ptr<Mirel::AclIdTypeSet> set = response(kChip1)->response(aclKey(name(i)));
            const Mirel::AclId* id = set ? set->aclIdType(Mirel::protocolAll_) : nullptr;
            EXPECT_EQ(!set ? "no entry" : id ? std::to_string(id->chipRuleListId()) : "-", want);
        }
        EXPECT_TRUE(sm->chipRuleListIdExhausted());
    }
}

TEST_F(AclIdAllocSmTest, EachChipNumbersItsOwnAclsAndEachCycleStartsFromScratch) {
    auto sm1 = allocator(kChip1, Capability{});
    auto sm2 = allocator(kChip2, Capability{});
    for (const char* name : {"a", "b", "c"})
        w.bind(aclKey(name), "Ethernet1");
    w.bind(aclKey("b"), "Ethernet2");
    w.bind(aclKey("d"), "Ethernet2");
    cycle();
    EXPECT_EQ(ids(kChip1), (Strings{"a/ip/in all:0", "b/ip/in all:1", "c/ip/in all:2"}));
    EXPECT_EQ(ids(kChip2), (Strings{"b/ip/in all:0", "d/ip/in all:1"}));
    // Changes outside aclIdAlloc leave the response as it is ...
    w.bind(aclKey("a"), "Ethernet1", false);
    glueStatus->glueSmStateIs(computing_);
    EXPECT_EQ(ids(kChip1), (Strings{"a/ip/in all:0", "b/ip/in all:1", "c/ip/in all:2"}));
    // ... and the next cycle renumbers what is there.
    cycle();
    EXPECT_EQ(ids(kChip1), (Strings{"b/ip/in all:0", "c/ip/in all:1"}));
    EXPECT_EQ(ids(kChip2), (Strings{"b/ip/in all:0", "d/ip/in all:1"}));
    // A chip whose entry comes and goes is followed.
    w.bind(aclKey("b"), "Ethernet1", false);
    w.bind(aclKey("c"), "Ethernet1", false);
    EXPECT_FALSE(sm1->chipAclColl());
    w.bind(aclKey("e"), "Ethernet1");
    ASSERT_TRUE(sm1->chipAclColl());
    EXPECT_EQ(sm1->chipAclColl(), Vorn::Ptr<const ChipAclColl>(w.index->chipAclMapping(kChip1)));
    cycle();
    EXPECT_EQ(ids(kChip1), Strings{"e/ip/in all:0"});
}

// Each cycle numbers from scratch, but writes only the entries whose ids come out different:
// the rest of the response, and everyone reading it, is left alone.
TEST_F(AclIdAllocSmTest, ACycleWritesOnlyTheIdsThatDiffer) {
    auto sm = allocator(kChip1, Capability{.max = 3, .split = true});
    for (const char* name : {"a", "c", "e", "f"})
        w.bind(aclKey(name), "Ethernet1");
    cycle();
    ASSERT_EQ(ids(kChip1),
              (Strings{"a/ip/in all:0", "c/ip/in all:1", "e/ip/in all:2", "f/ip/in all:3"}));
    // Every write from here on: an entry added or deleted, or an id of an entry changed.
    Strings writes;
    std::vector<Vorn::Subscription> subs;
    auto watch = [&](const Ovin::AclKey& key) {
        Vorn::Ptr<Mirel::AclIdTypeSet> entry = response(kChip1)->response(key);
        if (entry) {
            subs.push_back(entry->aclIdTypeNotify([&writes, key](Mirel::ProtocolType p) {
                writes.push_back(key.str() + " " + TestSupport::str(p));
            }));
        }
    };
    Vorn::Subscription entries = response(kChip1)->responseNotify([&](const Ovin::AclKey& key) {
        writes.push_back(key.str());
        watch(key);
    });
    for (const char* name : {"a", "c", "e", "f"})
        watch(aclKey(name));

    cycle();
    EXPECT_EQ(writes, Strings{}) << "nothing changed";

    // b takes c's id; c and e move up one, f out of range: never reached, its entry goes.
    w.bind(aclKey("b"), "Ethernet1");
    cycle();
    EXPECT_EQ(ids(kChip1),
              (Strings{"a/ip/in all:0", "b/ip/in all:1", "c/ip/in all:2", "e/ip/in all:3"}));
    EXPECT_EQ(writes, (Strings{"b/ip/in", "b/ip/in all", "c/ip/in all", "e/ip/in all", "f/ip/in"}));
    EXPECT_TRUE(sm->chipRuleListIdExhausted());

    // c becomes split: its one id becomes two, which use up the range: e's entry goes too.
    writes.clear();
    ipRule(aclKey("c"), Zamu::IpProto::kTcp);
    ipRule(aclKey("c"), Zamu::IpProto::kUdp);
    cycle();
    EXPECT_EQ(ids(kChip1), (Strings{"a/ip/in all:0", "b/ip/in all:1", "c/ip/in tcp:2 nonTcp:3"}));
    EXPECT_EQ(writes, (Strings{"c/ip/in all", "c/ip/in tcp", "c/ip/in nonTcp", "e/ip/in"}));

    // An ACL that leaves the chip takes its entry with it; the rest move down.
    writes.clear();
    w.bind(aclKey("a"), "Ethernet1", false);
    w.bind(aclKey("b"), "Ethernet1", false);
    cycle();
    EXPECT_EQ(ids(kChip1), (Strings{"c/ip/in tcp:0 nonTcp:1", "e/ip/in all:2", "f/ip/in all:3"}));
    EXPECT_FALSE(sm->chipRuleListIdExhausted());

    // ACLs going before, coming between and going after one that stays, in one cycle.
    writes.clear();
    w.bind(aclKey("c"), "Ethernet1", false);
    w.bind(aclKey("d"), "Ethernet1");
    w.bind(aclKey("f"), "Ethernet1", false);
    cycle();
    EXPECT_EQ(ids(kChip1), (Strings{"d/ip/in all:0", "e/ip/in all:1"}));
    EXPECT_EQ(writes, (Strings{"c/ip/in", "d/ip/in", "d/ip/in all", "e/ip/in all", "f/ip/in"}));
}

// The allocator keeps the store's records between cycles; an ACL destroyed and made anew
// (as the agent does, unbound first) is read afresh.
TEST_F(AclIdAllocSmTest, AnAclMadeAnewIsReadAfresh) {
    allocator(kChip1, Capability{.split = true});
    for (const char* name : {"a", "b"})
        w.bind(aclKey(name), "Ethernet1");
    cycle();
    ASSERT_EQ(ids(kChip1), (Strings{"a/ip/in all:0", "b/ip/in all:1"}));
    w.bind(aclKey("a"), "Ethernet1", false);
    w.acls->aclDel(aclKey("a"));
    ipRule(aclKey("a"), Zamu::IpProto::kTcp);
    ipRule(aclKey("a"), Zamu::IpProto::kUdp);
    w.bind(aclKey("a"), "Ethernet1");
    cycle();
    EXPECT_EQ(ids(kChip1), (Strings{"a/ip/in tcp:0 nonTcp:1", "b/ip/in all:2"}));
}

TEST_F(AclIdAllocSmTest, ADeletedMachineNoLongerAllocates) {
    allocator(kChip1, Capability{});
    w.bind(aclKey("a"), "Ethernet1");
    cycle();
    Vorn::Ptr<AclIdAllocSm> held = coll->chipAclIdAllocSm(kChip1);
    ASSERT_TRUE(held);
    coll->chipAclIdAllocSmDel(kChip1);
    EXPECT_FALSE(held->initialized());
    w.bind(aclKey("b"), "Ethernet1");
    cycle();
    EXPECT_EQ(ids(kChip1), Strings{"a/ip/in all:0"});
}

TEST_F(AclIdAllocSmTest, BrokenInvariantsStopTheProcess) {
    auto early =
        aclIdAllocSmFactory(kChip1, nullptr, w.acls, glueStatus, w.index, response(kChip1));
    EXPECT_DEATH(early->allocateAclId(), "initialized\\(\\)");
    auto sm = allocator(kChip1, Capability{});
    w.bind(aclKey("a"), "Ethernet1");
    EXPECT_DEATH(sm->allocateAclId(aclKey("b")), "chipAclColl\\(\\)->aclIntfMapping\\( key \\)");
    // An Index that names an ACL the store does not hold.
    Vorn::Ptr<Index> stale = indexFactory("stale");
    stale->chipAclMappingIs(kChip1)->aclIntfMappingIs(aclKey("z"))->intfIdIs("Ethernet1");
    auto blind = aclIdAllocSmFactory(kChip1, nullptr, w.acls, glueStatus, stale, response(kChip1));
    blind->handleInitialized();
    EXPECT_DEATH(blind->allocateAclId(), "ovinMirelAclColl\\(\\)->aclHas\\( key \\)");
}

}  // namespace
}  // namespace OvinMirel
