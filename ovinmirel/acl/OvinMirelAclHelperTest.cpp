#include "ovinmirel/acl/OvinMirelAclHelper.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/flinq/Flinq.h"
#include "platform/ovin/AclRuleText.h"
#include "platform/vorn/Clock.h"
#include "platform/vorn/Exception.h"
#include "tests/TestSupport.h"

namespace OvinMirel {
namespace {

using TestSupport::aclKey;
using Zamu::IntfId;
using Zamu::IpAddrWithMask;

constexpr const char* kHandle = "OvinMirelAclHelper";

Ovin::AclData dataOf(const Ovin::AclKey& key, std::set<IntfId> intf = {},
                     bool countersEnabled = false) {
    Ovin::AclData d;
    d.key = key;
    d.intf = std::move(intf);
    d.countersEnabled = countersEnabled;
    return d;
}

IpAddrWithMask withMask(const char* addr, const char* mask) {
    return {Zamu::IpAddr(addr), Zamu::IpAddr(mask)};
}

// The port values of one subrule, in the engine's order.
struct Ports {
    uint16_t srcPort = 0, srcMask = 0, srcLow = 0, srcHigh = 0;
    uint16_t dstPort = 0, dstMask = 0, dstLow = 0, dstHigh = 0;
};

// Everything about one ACL entry of the store, for "nothing changed" checks.
struct StoreView {
    std::vector<std::pair<Mirel::AceIndex, Mirel::IpRuleConfig>> ipRules;
    std::vector<std::pair<Mirel::AceIndex, Mirel::MacRuleConfig>> macRules;
    std::map<uint64_t, uint32_t> ruleNums;
    std::map<int, uint32_t> counts;
    bool operator==(const StoreView&) const = default;
};

StoreView viewOf(const OvinMirelAcl& acl) {
    StoreView v;
    for (const auto& [k, r] : acl.ipRuleById())
        v.ipRules.emplace_back(k, r);
    for (const auto& [k, r] : acl.macRuleById())
        v.macRules.emplace_back(k, r);
    for (const auto& [id, n] : acl.ruleNum())
        v.ruleNums[id.value] = n;
    for (const auto& [p, n] : acl.ruleCountByProtocol())
        v.counts[p.value()] = n;
    return v;
}

// What a lookup found, if anything: compares with a value without dereferencing a null.
template <class T>
std::optional<T> valueOf(const T* found) {
    return found ? std::optional<T>(*found) : std::nullopt;
}

// Counts the notifications of an ACL entry's rule collections.
struct RuleWrites {
    explicit RuleWrites(const OvinMirelAcl& acl) {
        subs.push_back(acl.ipRuleByIdNotify([this](const Mirel::AceIndex&) { ++n; }));
        subs.push_back(acl.macRuleByIdNotify([this](const Mirel::AceIndex&) { ++n; }));
        subs.push_back(acl.ruleNumNotify([this](const Acl::UniqueId&) { ++n; }));
        subs.push_back(acl.ruleCountByProtocolNotify([this](const Zamu::IpProto&) { ++n; }));
        subs.push_back(acl.createdNotify([this] { ++n; }));
    }
    int n = 0;
    std::vector<Vorn::Subscription> subs;
};

class AclHelperTest : public ::testing::Test {
  protected:
    Ovin::AclCreateError createIp(const Ovin::AclData& data, const Acl::IpRuleConfig& rule,
                                  uint64_t id, uint32_t ruleNum, uint32_t subruleNum, Ports p = {},
                                  uint8_t tcpFlags = 0, bool l4 = false) {
        // The IP length, VLAN and hop-limit values are deliberately non-zero: the chips cannot
        // match them, so they must not show up anywhere.
        return helper_->createIpAclSubrule(data.key.type, rule, Acl::UniqueId{id}, data, ruleNum,
                                           subruleNum, p.srcPort, p.srcMask, p.srcLow, p.srcHigh,
                                           p.dstPort, p.dstMask, p.dstLow, p.dstHigh, 64, 1500, 100,
                                           0xfff, tcpFlags, l4, 64, 0xff);
    }
    // The store entry precreateAcl made; without one, a failure and a detached entry, so that
    // the test goes on failing instead of crashing.
    Vorn::Ptr<OvinMirelAcl> precreate(const Ovin::AclData& data) {
        Ovin::AclDataStatus status;
        EXPECT_EQ(helper_->precreateAcl(data, status), Ovin::aclCreateOk);
        Vorn::Ptr<OvinMirelAcl> acl = aclColl_->acl(data.key);
        EXPECT_TRUE(acl) << "no store entry for " << data.key;
        return acl ? acl : Vorn::make<OvinMirelAcl>(data.key);
    }
    // For table cases: a helper over a store of its own, its capabilities edited first.
    Vorn::Ptr<AclHelper> helperOver(const Vorn::Ptr<OvinMirelAclColl>& coll,
                                    const std::function<void(AclHelper&)>& setup) {
        auto h = aclHelperFactory(coll, glueConfig_, glueStatus_, hwCapabilityColl_, index_);
        if (setup)
            setup(*h);
        return h;
    }

    Vorn::ScopedVirtualClock clock_{100.0};
    Vorn::Ptr<OvinMirelAclColl> aclColl_ = ovinMirelAclCollFactory("aclColl");
    Vorn::Ptr<GlueConfig> glueConfig_ = glueConfigFactory("glueConfig");
    Vorn::Ptr<GlueStatus> glueStatus_ = glueStatusFactory("glueStatus");
    Vorn::Ptr<Mirel::HwCapabilityColl> hwCapabilityColl_ =
        Mirel::hwCapabilityCollFactory("hwCapabilityColl");
    Vorn::Ptr<Index> index_ = indexFactory("index");
    Vorn::Ptr<AclHelper> helper_ =
        aclHelperFactory(aclColl_, glueConfig_, glueStatus_, hwCapabilityColl_, index_);
    Flinq::Capture cap_;

    const Ovin::AclData v4_ = dataOf(aclKey("v4", Acl::aclTypeIpv4));
    const Ovin::AclData v6_ = dataOf(aclKey("v6", Acl::aclTypeIpv6));
};

// ---- createPortRange ----

TEST(AclHelperPortRange, CreatePortRange) {
    struct Case {
        const char* name;
        bool l4;
        uint16_t port, mask, low, high;
        uint16_t start, end;  // ignored when an error is expected
        const char* error = nullptr;
    };
    const char* backward = "L4PortRange::rangeStart > L4PortRange::rangeEnd not allowed";
    const Case cases[] = {
        {"noL4IgnoresEverything", false, 80, 65535, 200, 300, 0, 65535},
        {"noL4IgnoresABackwardRange", false, 0, 0, 200, 100, 0, 65535},
        {"exactPort", true, 80, 65535, 0, 0, 80, 80},
        {"exactPortWinsOverRange", true, 80, 65535, 100, 200, 80, 80},
        {"zeroRangeIsEverything", true, 0, 0, 0, 0, 0, 65535},
        {"range", true, 0, 0, 1000, 2000, 1000, 2000},
        {"partialMaskUsesRange", true, 80, 0xff00, 10, 20, 10, 20},
        {"onlyHighZeroIsBackward", true, 0, 0, 200, 0, 0, 0, backward},
        {"backward", true, 0, 0, 200, 100, 0, 0, backward},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        try {
            const Mirel::L4PortRange r =
                AclHelper::createPortRange(c.l4, c.port, c.mask, c.low, c.high);
            if (c.error)
                ADD_FAILURE() << "gave " << r << " instead of \"" << c.error << "\"";
            EXPECT_EQ(r, Mirel::L4PortRange(c.start, c.end));
        } catch (const Vorn::RangeException& e) {
            EXPECT_STREQ(e.what(), c.error);
        }
    }
}

// ---- Refusals: 14, the exact trace, and nothing stored ----

// Rules and hardware rules built by editing the defaults (which match everything).
template <class F>
Acl::IpRuleConfig ip4(F edit) {
    Acl::IpFilter f;
    edit(f);
    return Acl::IpRuleConfig(f);
}
template <class F>
Acl::IpRuleConfig ip6(F edit) {
    Acl::Ip6Filter f;
    edit(f);
    return Acl::IpRuleConfig(f);
}
const auto kNoEdit = [](auto&) {};
const auto kTcp = [](Acl::IpFilter& f) { f.protocolIs(Zamu::IpProto::kTcp); };

// A refusal leaves the rule collections without a single write. ECN is checked before the mask
// shape: a full-byte mask alone would be refused as partial. Every refusal, its trace and the
// switch left as it was: tests/BadInputTest.cpp (BadSubruleTest).
TEST_F(AclHelperTest, ARefusedSubruleWritesNothing) {
    const Vorn::Ptr<OvinMirelAcl> acl = precreate(v6_);
    // A rule already held must survive the refusal untouched.
    ASSERT_EQ(createIp(v6_, ip6(kNoEdit), 1, 5, 0), Ovin::aclCreateOk);
    const StoreView before = viewOf(*acl);
    RuleWrites writes(*acl);
    cap_.clear();
    EXPECT_EQ(createIp(v6_, ip6([](auto& f) { f.trafficClassIs(0xba, 0xff); }), 7, 10, 2),
              Ovin::aclCreateNotSupportedByHw);
    EXPECT_TRUE(cap_.has("createIpAclSubruleHelper failed. ECN bits set in rule with AclType " +
                         std::to_string(int(Acl::aclTypeIpv6)) +
                         " aclRuleId 7 ruleNum 10 subruleNum 2"))
        << ::testing::PrintToString(cap_.texts(kHandle));
    EXPECT_EQ(viewOf(*acl), before);
    EXPECT_EQ(writes.n, 0);
}

// ---- Translation ----

// A rule from its one-line text.
Acl::IpRuleConfig text(const char* line, Acl::AclType type = Acl::aclTypeIpv4) {
    const Acl::RuleTextResult r = Acl::parseRuleText(line, type);
    EXPECT_TRUE(r.ok()) << r.error;
    return r.ok() ? r.rule->entry.ipRule() : Acl::IpRuleConfig();
}

// The stored entry is read back in its printed form, the one the translation traces.
TEST_F(AclHelperTest, TranslatesAcceptedSubrules) {
    struct Case {
        const char* name;
        Acl::IpRuleConfig rule;
        const char* expected;
        std::function<void(AclHelper&)> setup = {};
        bool countersEnabled = false;
        Ports ports = {};
        uint8_t tcpFlags = 0;
        bool l4 = false;
    };
    auto denyLogged = [](Acl::IpRuleConfig r) {
        r.actionIs(Acl::aclActionDeny);
        r.logIs(true);
        return r;
    };
    const Case cases[] = {
        {"tcB8UnderDscpMaskMatchesDscp46", text("10 permit ipv6 any any dscp 46", Acl::aclTypeIpv6),
         "permit ipv6 src ::/0 dst ::/0 dscp 46"},
        {"tcMaskZeroIsNoMatchEvenWithEcnBits", ip6([](auto& f) { f.trafficClassIs(0x03, 0); }),
         "permit ipv6 src ::/0 dst ::/0"},
        {"v6AddressesBecomeSubnets",
         ip6([](auto& f) { f.sourceIs(IpAddrWithMask::prefix("2001:db8:1::5", 48)); }),
         "permit ipv6 src 2001:db8:1::/48 dst ::/0"},
        {"v4NonContiguousMaskWhenSupported",
         ip4([](auto& f) { f.sourceIs(withMask("10.0.1.0", "255.0.255.0")); }),
         "permit ip src 10.0.1.0/255.0.255.0 dst 0.0.0.0/0",
         [](AclHelper& h) { h.nonContiguousIpMaskSupportedIs(true); }},
        {"tcpWithPortsFlagsDscpAndActions",
         denyLogged(text("10 permit tcp 10.1.0.0/16 any dscp 10")),
         "deny ip src 10.1.0.0/16 dst 0.0.0.0/0 proto 6 dscp 10 tcpFlags 0x12 sport 80-80 dport "
         "1000-2000 log",
         [](AclHelper& h) { h.supportedTcpFlagsIs(Acl::kTcpSyn | Acl::kTcpAck | Acl::kTcpRst); },
         false, Ports{80, 0xffff, 0, 0, 0, 0, 1000, 2000}, Acl::kTcpSyn | Acl::kTcpAck, true},
        {"portsIgnoredWithoutL4",
         text("10 permit icmp any any 3 4"),
         "permit ip src 0.0.0.0/0 dst 0.0.0.0/0 proto 1 icmpType 3 icmpCode 4",
         {},
         false,
         Ports{80, 0xffff, 0, 0, 0, 0, 1000, 2000}},
        {"establishedWhenSupported", text("10 permit tcp any any established"),
         "permit ip src 0.0.0.0/0 dst 0.0.0.0/0 proto 6 established",
         [](AclHelper& h) { h.establishedSupportedIs(true); }},
        {"aclCountersCountEveryEntry",
         text("10 permit ip any any"),
         "permit ip src 0.0.0.0/0 dst 0.0.0.0/0 count",
         {},
         true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Vorn::Ptr<OvinMirelAclColl> coll = ovinMirelAclCollFactory("aclColl");
        const Vorn::Ptr<AclHelper> helper = helperOver(coll, c.setup);
        const Acl::AclType type = c.rule.isIp6() ? Acl::aclTypeIpv6 : Acl::aclTypeIpv4;
        const Ovin::AclData data = dataOf(aclKey("acl", type), {}, c.countersEnabled);
        Ovin::AclDataStatus status;
        helper->precreateAcl(data, status);
        const Ports& p = c.ports;
        ASSERT_EQ(helper->createIpAclSubrule(type, c.rule, Acl::UniqueId{7}, data, 10, 2, p.srcPort,
                                             p.srcMask, p.srcLow, p.srcHigh, p.dstPort, p.dstMask,
                                             p.dstLow, p.dstHigh, 64, 1500, 100, 0xfff, c.tcpFlags,
                                             c.l4, 64, 0xff),
                  Ovin::aclCreateOk);
        const Vorn::Ptr<OvinMirelAcl> acl = coll->acl(data.key);
        ASSERT_TRUE(acl);
        const Mirel::IpRuleConfig* stored = acl->ipRuleById(Mirel::AceIndex{10, 2, {7}});
        ASSERT_NE(stored, nullptr);
        EXPECT_EQ(::testing::PrintToString(*stored), c.expected);
        EXPECT_EQ(acl->ipRuleByIds(), 1u);
        EXPECT_EQ(valueOf(acl->ruleNum(Acl::UniqueId{7})), 10u);
        EXPECT_EQ(valueOf(acl->ruleCountByProtocol(stored->filter.protocol)), 1u);
        EXPECT_TRUE(cap_.has(std::string("  Mirel::IpRuleConfig : ") + c.expected));
    }
}

// Subrules of one rule share its number and count their protocol once each, also when created
// again; a subrule created again with another protocol moves its count.
TEST_F(AclHelperTest, SubrulesShareTheRuleNumberAndCountTheirProtocolOnce) {
    const Vorn::Ptr<OvinMirelAcl> acl = precreate(v4_);
    const auto udp = ip4([](Acl::IpFilter& f) { f.protocolIs(Zamu::IpProto::kUdp); });
    const Ports http{0, 0, 80, 80}, https{0, 0, 443, 443};
    ASSERT_EQ(createIp(v4_, ip4(kTcp), 7, 10, 0, http, 0, true), Ovin::aclCreateOk);
    ASSERT_EQ(createIp(v4_, ip4(kTcp), 7, 10, 1, https, 0, true), Ovin::aclCreateOk);
    ASSERT_EQ(createIp(v4_, ip4(kTcp), 7, 10, 1, https, 0, true), Ovin::aclCreateOk);
    EXPECT_EQ(acl->ipRuleByIds(), 2u);
    EXPECT_EQ(acl->ruleNums(), 1u);
    EXPECT_EQ(valueOf(acl->ruleNum(Acl::UniqueId{7})), 10u);
    EXPECT_EQ(valueOf(acl->ruleCountByProtocol(Zamu::IpProto::kTcp)), 2u);

    ASSERT_EQ(createIp(v4_, udp, 7, 10, 1), Ovin::aclCreateOk);
    EXPECT_EQ(valueOf(acl->ruleCountByProtocol(Zamu::IpProto::kTcp)), 1u);
    EXPECT_EQ(valueOf(acl->ruleCountByProtocol(Zamu::IpProto::kUdp)), 1u);
    ASSERT_EQ(createIp(v4_, udp, 7, 10, 0), Ovin::aclCreateOk);
    EXPECT_EQ(acl->ruleCountByProtocol(Zamu::IpProto::kTcp), nullptr);
    EXPECT_EQ(valueOf(acl->ruleCountByProtocol(Zamu::IpProto::kUdp)), 2u);
    EXPECT_EQ(acl->ipRuleByIds(), 2u);
}

// Ports and flags stay open; ACL-wide counting applies to expanded subrules, not to this entry.
TEST_F(AclHelperTest, FragmentRuleMatchesNonInitialFragmentsOnly) {
    const Ovin::AclData data = dataOf(aclKey("v4", Acl::aclTypeIpv4), {}, true);
    const Vorn::Ptr<OvinMirelAcl> acl = precreate(data);
    const Acl::IpRuleConfig rule = text("10 deny udp any 10.0.0.0/8");
    ASSERT_EQ(helper_->createIpFragRule(data, rule, Acl::UniqueId{4}, 40, 3), Ovin::aclCreateOk);
    const Mirel::IpRuleConfig* stored = acl->ipRuleById(Mirel::AceIndex{40, 3, Acl::UniqueId{4}});
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(::testing::PrintToString(*stored),
              "deny ip src 0.0.0.0/0 dst 10.0.0.0/8 proto 17 fragments");
    EXPECT_EQ(valueOf(acl->ruleCountByProtocol(Zamu::IpProto::kUdp)), 1u);
    EXPECT_FALSE(rule.filter().fragments());  // the engine's rule is left as it was
}

TEST_F(AclHelperTest, CallsOnAnUnknownAclCreateAndChangeNothing) {
    int writes = 0;
    Vorn::Subscription sub = aclColl_->aclNotify([&](const Ovin::AclKey&) { ++writes; });
    EXPECT_EQ(helper_->createIpFragRule(v4_, Acl::IpRuleConfig(), Acl::UniqueId{4}, 40, 0),
              Ovin::aclCreateOk);
    EXPECT_TRUE(cap_.has("There is no acl for v4/ip/in"));
    EXPECT_FALSE(helper_->removeIntfFromAcl("Ethernet1", v4_, true));
    EXPECT_TRUE(cap_.has("    ACL not present"));
    EXPECT_FALSE(cap_.has("    chipAclMapping changed as a result"));
    EXPECT_EQ(aclColl_->acls(), 0u);
    EXPECT_EQ(writes, 0);
}

// The entry counts when the rule asks for it or when the ACL has counters enabled.
TEST_F(AclHelperTest, MacRuleIsStoredUnderSubruleZeroWithItsCounter) {
    struct Case {
        const char* name;
        bool ruleCounts, aclCounts;
        const char* stored;
    };
    const char* rule =
        "deny mac src 00:11:22:33:44:55/ff:ff:ff:00:00:00 dst "
        "00:00:00:00:00:00/00:00:00:00:00:00 etherType 0x800";
    const Case cases[] = {{"rule counts", true, false, " count"},
                          {"ACL counts", false, true, " count"},
                          {"neither", false, false, ""}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Ovin::AclData data = dataOf(aclKey(c.name, Acl::aclTypeMac), {}, c.aclCounts);
        const Vorn::Ptr<OvinMirelAcl> acl = precreate(data);
        Acl::MacRuleConfig config(Acl::aclActionDeny);
        config.sourceIs(Zamu::EthAddr("00:11:22:33:44:55"), Zamu::EthAddr("ff:ff:ff:00:00:00"));
        config.etherTypeIs(0x0800);
        config.countIs(c.ruleCounts);
        EXPECT_EQ(helper_->createMacAclRule(config, Acl::UniqueId{12}, data, 50),
                  Ovin::aclCreateOk);
        const Mirel::MacRuleConfig* stored =
            acl->macRuleById(Mirel::AceIndex{50, 0, Acl::UniqueId{12}});
        ASSERT_NE(stored, nullptr);
        EXPECT_EQ(::testing::PrintToString(*stored), std::string(rule) + c.stored);
        EXPECT_EQ(valueOf(acl->ruleNum(Acl::UniqueId{12})), 50u);
        EXPECT_EQ(acl->ipRuleByIds(), 0u);
    }
}

TEST_F(AclHelperTest, EveryCommitKickChangesTheKickTime) {
    int kicks = 0;
    Vorn::Subscription kickSub = glueConfig_->prepareCommitKickTimeNotify([&] { ++kicks; });
    helper_->prepareToCommit();
    EXPECT_EQ(glueConfig_->prepareCommitKickTime(), 100.0);
    helper_->prepareToCommit();  // same clock reading: still a change
    EXPECT_DOUBLE_EQ(glueConfig_->prepareCommitKickTime(), 100.1);
    helper_->prepareToCommit();
    EXPECT_EQ(glueConfig_->prepareCommitKickTime(), 100.0);
    clock_->advance(5.0);
    helper_->prepareToCommit();
    EXPECT_EQ(glueConfig_->prepareCommitKickTime(), 105.0);
    EXPECT_EQ(kicks, 4);
}

// How the answer follows the real index machines: tests/AclHelperIndexTest.cpp.

// ---- Verification, show, counters, traces ----

// Each own operation first writes its name and arguments.
TEST_F(AclHelperTest, EachOperationFirstTracesItsNameAndArguments) {
    const Ovin::AclData mac = dataOf(aclKey("m", Acl::aclTypeMac));
    Ovin::AclDataStatus status;
    const struct {
        const char* line;
        std::function<void()> call;
    } ops[] = {
        {"AclHelper::precreateAcl acl=v4/ip/in", [&] { helper_->precreateAcl(v4_, status); }},
        {"AclHelper::createPortRange( l4=1, port/mask=80/65535, low=0, high 0",
         [] { AclHelper::createPortRange(true, 80, 65535, 0, 0); }},
        {"AclHelper::createMacAclRule acl=m/mac/in, rule# 50, aclRuleId=12",
         [&] {
             helper_->precreateAcl(mac, status);
             cap_.clear();
             helper_->createMacAclRule(Acl::MacRuleConfig(), Acl::UniqueId{12}, mac, 50);
         }},
        {"AclHelper::createFinalAclRule acl=v4/ip/in, ruleNum# 99",
         [&] { helper_->createFinalAclRule(Acl::aclTypeIpv4, v4_, 99); }},
        {"AclHelper::addIntfToAcl intf=Ethernet2 acl=v4/ip/in",
         [&] { helper_->addIntfToAcl("Ethernet2", v4_, status); }},
        {"AclHelper::removeIntfFromAcl intf=Ethernet2 acl=v4/ip/in belongsToAnother=1",
         [&] { helper_->removeIntfFromAcl("Ethernet2", v4_, true); }},
        {"AclHelper::updateAclPorts acl=v4/ip/in active=1",
         [&] { helper_->updateAclPorts(v4_, true); }},
        {"AclHelper::blockIntf intf=Ethernet4 block=0",
         [&] { helper_->blockIntf("Ethernet4", false, 3); }},
    };
    for (const auto& op : ops) {
        SCOPED_TRACE(op.line);
        cap_.clear();
        op.call();
        const std::vector<std::string> lines = cap_.texts(kHandle);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.front(), op.line);
    }
}

// Rule hits summed over the chips the Index places the ACL on, under each of a chip's ids.
TEST_F(AclHelperTest, RuleCountersAddUpOverTheChipsOfTheAcl) {
    precreate(v4_);
    const Acl::UniqueId rule{7};
    const Mirel::AclId id1(Mirel::ipv4PortAcl_, 1, Acl::aclDirectionIn);
    const Mirel::AclId tcp3(Mirel::ipv4PortAcl_, 3, Acl::aclDirectionIn);
    const Mirel::AclId rest3(Mirel::ipv4PortAcl_, 4, Acl::aclDirectionIn);
    const Vorn::Ptr<Mirel::PDStatus> pd = Mirel::pdStatusFactory("pdStatus");
    glueStatus_->initialize();
    auto place = [&](uint32_t chip) {
        index_->aclChipMappingIs(v4_.key)
            ->chipIntfMappingIs(Mirel::ChipId(chip))
            ->intfIdIs(Zamu::IntfId::ethernet(chip));
    };
    // The chip's active root holds the ACL's ids.
    auto ids = [&](uint32_t chip) {
        glueStatus_->activeRootSmIdIs(Mirel::ChipId(chip), chip * 2 + 1);
        return glueStatus_->rootConfigColl()
            ->rootConfigIs(chip * 2 + 1)
            ->aclKeyToAclIdTypeSetIs(v4_.key);
    };
    auto hits = [&](uint32_t chip, const Mirel::AclId& id, Acl::UniqueId u, uint64_t n) {
        pd->chipPDStatusIs(Mirel::ChipId(chip))->ruleCounterIs(Mirel::RuleCounterKey{id, u}, n);
    };
    auto poll = [&] { return helper_->aclRuleCountersSinceLastPoll(v4_, 10, rule); };

    // Chip 1: one id; chip 3: split in two; chip 2: placed, counted, but without an id; chip 4:
    // an id and counts, but the ACL is not placed there.
    place(1);
    place(2);
    place(3);
    ids(1)->aclIdTypeIs(Mirel::protocolAll_, id1);
    ids(3)->aclIdTypeIs(Mirel::protocolTcp_, tcp3);
    ids(3)->aclIdTypeIs(Mirel::protocolNonTcp_, rest3);
    ids(4)->aclIdTypeIs(Mirel::protocolAll_, id1);
    hits(1, id1, rule, 5);
    hits(1, id1, Acl::UniqueId{8}, 1000);  // another rule
    hits(2, id1, rule, 1000);              // no id on chip 2
    hits(3, tcp3, rule, 20);
    hits(3, rest3, rule, 300);
    hits(4, id1, rule, 1000);  // not placed on chip 4
    EXPECT_EQ(poll(), 0u) << "no driver status handed in yet";
    helper_->pDStatusIs(pd);
    EXPECT_EQ(poll(), 325u);
    EXPECT_TRUE(cap_.hasSubstring("    Chip-3 AclId{tableType=1, chipRuleListId=4"));

    pd->chipPDStatusDel(Mirel::ChipId(3));  // a chip the driver no longer reports on adds 0
    EXPECT_EQ(poll(), 5u);
    index_->aclChipMappingDel(v4_.key);  // on no chip
    EXPECT_EQ(poll(), 0u);
}

TEST_F(AclHelperTest, TraceAclDataWritesKeyAndRules) {
    Ovin::AclData data = dataOf(aclKey("racl", Acl::aclTypeIpv6, 100, Acl::aclDirectionOut));
    data.rules.push_back({10, 0, Acl::UniqueId{7}});
    data.rules.push_back({20, 1, Acl::UniqueId{8}});
    traceAclData(data);
    EXPECT_EQ(cap_.texts(kHandle),
              std::vector<std::string>{"aclData: racl/ipv6/out/vlan100, dir: out, vlan: 100, "
                                       "rule# 10, subrule# 0, aclRuleId=7, rule# 20, subrule# 1, "
                                       "aclRuleId=8"});
}

// ---- Invariant violations ----

std::string regexEscaped(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (std::string_view("()[]{}.*+?^$|\\").find(c) != std::string_view::npos)
            out += '\\';
        out += c;
    }
    return out;
}

using AclHelperDeathTest = AclHelperTest;

TEST_F(AclHelperDeathTest, VerifyHwInitAssertsEachCapabilityInOrder) {
    struct Capability {
        const char* expression;
        std::function<void(AclHelper&, bool good)> set;
    };
    const std::vector<Capability> caps = {
        {"revertIncompleteAclSupported()",
         [](AclHelper& h, bool g) { h.revertIncompleteAclSupportedIs(g); }},
        {"aclBatchCommitSupported()", [](AclHelper& h, bool g) { h.aclBatchCommitSupportedIs(g); }},
        {"routerAclSupported()", [](AclHelper& h, bool g) { h.routerAclSupportedIs(g); }},
        {"dscpFilterSupported()", [](AclHelper& h, bool g) { h.dscpFilterSupportedIs(g); }},
        {"ip6AclSupported()", [](AclHelper& h, bool g) { h.ip6AclSupportedIs(g); }},
        {"permitDuringAclUpdate()", [](AclHelper& h, bool g) { h.permitDuringAclUpdateIs(g); }},
        {"!macEgressAclSupported()", [](AclHelper& h, bool g) { h.macEgressAclSupportedIs(!g); }},
        {"!mirroringAclSupported()", [](AclHelper& h, bool g) { h.mirroringAclSupportedIs(!g); }},
        {"!configurableImplicitIcmp6RulesSupported()",
         [](AclHelper& h, bool g) { h.configurableImplicitIcmp6RulesSupportedIs(!g); }},
    };
    for (const Capability& c : caps)
        c.set(*helper_, true);
    helper_->verifyHwInit();  // all hold: returns

    // Breaking every capability from the i-th on must report the i-th: each is asserted, and
    // before all that follow it.
    for (size_t i = 0; i < caps.size(); ++i) {
        SCOPED_TRACE(caps[i].expression);
        for (const Capability& c : caps)
            c.set(*helper_, true);
        for (size_t j = i; j < caps.size(); ++j)
            caps[j].set(*helper_, false);
        EXPECT_DEATH(helper_->verifyHwInit(),
                     regexEscaped(std::string("virtual void OvinMirel::AclHelper::verifyHwInit() "
                                              "const: Assertion `") +
                                  caps[i].expression + "' failed"));
    }
}

// The engine's mistakes: an interface of no ACL kind, rules of an ACL it never created.
TEST_F(AclHelperDeathTest, EngineMistakesAreInternalErrors) {
    const Ovin::AclData lag = dataOf(aclKey("lag", Acl::aclTypeIpv4), {"Port-Channel10"});
    Ovin::AclDataStatus status;
    EXPECT_DEATH(helper_->precreateAcl(lag, status),
                 regexEscaped("Assertion `false && \"Internal Error\"' failed"));
    EXPECT_DEATH(helper_->createFinalAclRule(Acl::aclTypeIpv4, v4_, 10),
                 regexEscaped("Assertion `acl' failed"));
    // An IPv6 ACL handed an IPv4 filter is the engine's mistake, not a rule to refuse.
    precreate(v6_);
    EXPECT_DEATH(createIp(v6_, Acl::IpRuleConfig(Acl::IpFilter()), 1, 10, 0),
                 regexEscaped("Assertion `ruleFamilyMatchesType' failed"));
}

}  // namespace
}  // namespace OvinMirel
