// Root configurations: what counts as content when a new attempt is compared with the active
// root, and the status's starting answer.

#include "platform/mirel/Root.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/vorn/Exception.h"

namespace Mirel {
namespace {

using TestSupport::aclKey;

AceIndex ace(uint32_t ruleNum, uint32_t subruleNum) {
    AceIndex i;
    i.ruleNum = ruleNum;
    i.subruleNum = subruleNum;
    return i;
}

const Ovin::AclKey kIpAcl = aclKey("ip1");
const Ovin::AclKey kMacAcl = aclKey("mac1", Acl::aclTypeMac);
const AclId kTcpId(ipv4PortAcl_, 0, Acl::aclDirectionIn);
const AclId kRestId(ipv4PortAcl_, 1, Acl::aclDirectionIn);
const AclId kMacId(macAcl_, 2, Acl::aclDirectionIn);

IpRuleConfig ipRule(uint8_t proto, AceAction action) {
    IpRuleConfig r;
    r.filter.protocol = Zamu::IpProto(proto);
    r.filter.matchProtocol = true;
    r.action = action;
    return r;
}

MacRuleConfig macRule(uint16_t etherType) {
    MacRuleConfig r;
    r.etherType = etherType;
    r.matchEtherType = true;
    return r;
}

AclRuleListPtr ipList(std::vector<AclRuleList::IpEntry> rules) {
    return AclRuleList::ipList(std::move(rules));
}

// The sample's lists: TCP permitted at 10.0, UDP denied at 20.0.
AclRuleListPtr tcpList(AceAction action = AceAction::permit, AceIndex at = ace(10, 0)) {
    return ipList({{at, ipRule(Zamu::IpProto::kTcp, action)}});
}
AclRuleListPtr udpList(AceAction action = AceAction::deny, AceIndex at = ace(20, 0)) {
    return ipList({{at, ipRule(Zamu::IpProto::kUdp, action)}});
}

// One split IP ACL and one MAC ACL, each rule at its own index. Every call builds new lists:
// two samples are equal in content, never in identity.
Vorn::Ptr<RootConfig> sample(uint32_t rootId) {
    auto root = rootConfigFactory(rootId);
    auto ids = root->aclKeyToAclIdTypeSetIs(kIpAcl);
    ids->aclIdTypeIs(protocolTcp_, kTcpId);
    ids->aclIdTypeIs(protocolNonTcp_, kRestId);
    root->aclKeyToAclIdTypeSetIs(kMacAcl)->aclIdTypeIs(protocolAll_, kMacId);
    root->aclIs(kTcpId)->ruleListIs(tcpList());
    root->aclIs(kRestId)->ruleListIs(udpList());
    root->aclIs(kMacId)->ruleListIs(AclRuleList::macList({{ace(10, 0), macRule(0x0800)}}));
    return root;
}

TEST(RootConfig, EqualityComparesContentOnly) {
    struct Case {
        const char* name;
        std::function<void(RootConfig&)> change;
        bool equal;
    };
    const Case cases[] = {
        {"control fields are not content",
         [](RootConfig& r) {
             r.actionIs(rootActionLoad_);
             r.mirelRootKickIs(17);
             r.activeIs(true);
             r.initialize();
         },
         true},
        {"a rebuilt list with the same rules",
         [](RootConfig& r) { r.acl(kTcpId)->ruleListIs(tcpList()); }, true},
        {"one rule's action differs",
         [](RootConfig& r) { r.acl(kRestId)->ruleListIs(udpList(AceAction::permit)); }, false},
        {"a rule moves to another index",
         [](RootConfig& r) { r.acl(kRestId)->ruleListIs(udpList(AceAction::deny, ace(20, 1))); },
         false},
        {"an extra rule",
         [](RootConfig& r) {
             r.acl(kTcpId)->ruleListIs(
                 ipList({{ace(10, 0), ipRule(Zamu::IpProto::kTcp, AceAction::permit)},
                         {ace(30, 0), ipRule(Zamu::IpProto::kTcp, AceAction::deny)}}));
         },
         false},
        {"a MAC rule differs",
         [](RootConfig& r) {
             r.acl(kMacId)->ruleListIs(AclRuleList::macList({{ace(10, 0), macRule(0x86dd)}}));
         },
         false},
        {"a list emptied",
         [](RootConfig& r) { r.acl(kMacId)->ruleListIs(AclRuleList::emptyList()); }, false},
        {"a rule list is missing", [](RootConfig& r) { r.aclDel(kMacId); }, false},
        {"an empty extra rule list",
         [](RootConfig& r) { r.aclIs(AclId(macAcl_, 3, Acl::aclDirectionOut)); }, false},
        {"an ACL's id differs",
         [](RootConfig& r) {
             r.aclKeyToAclIdTypeSet(kMacAcl)->aclIdTypeIs(protocolAll_,
                                                          AclId(macAcl_, 2, Acl::aclDirectionOut));
         },
         false},
        {"an ACL without ids", [](RootConfig& r) { r.aclKeyToAclIdTypeSetIs(aclKey("x")); }, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto active = sample(4);
        auto attempt = sample(5);
        c.change(*attempt);
        EXPECT_EQ(attempt->isEqual(*active), c.equal);
        EXPECT_EQ(active->isEqual(*attempt), c.equal);
    }
    EXPECT_TRUE(rootConfigFactory(0)->isEqual(*rootConfigFactory(1)));
    EXPECT_FALSE(rootConfigFactory(0)->isEqual(*sample(1)));
}

TEST(HwAcl, RefusesANullListOrOneOfTheOtherKind) {
    auto ipAcl = Vorn::make<HwAcl>(kRestId);
    auto macAcl = Vorn::make<HwAcl>(kMacId);
    EXPECT_EQ(ipAcl->ruleList(), AclRuleList::emptyList());
    const AclRuleListPtr ip = ipList({{ace(1, 0), ipRule(Zamu::IpProto::kUdp, AceAction::deny)}});
    const AclRuleListPtr mac = AclRuleList::macList({{ace(1, 0), macRule(0x0800)}});
    ipAcl->ruleListIs(ip);
    macAcl->ruleListIs(mac);
    try {
        ipAcl->ruleListIs(nullptr);
        ADD_FAILURE() << "null accepted";
    } catch (const Vorn::NullPointerException& e) {
        EXPECT_STREQ(e.what(),
                     "null _ruleList parameter to mutator for Mirel::HwAcl::ruleList not allowed");
    }
    EXPECT_THROW(ipAcl->ruleListIs(mac), std::invalid_argument);
    EXPECT_THROW(macAcl->ruleListIs(ip), std::invalid_argument);
    EXPECT_EQ(ipAcl->ruleList(), ip);
    EXPECT_EQ(macAcl->ruleList(), mac);
    // The empty list fits every table.
    macAcl->ruleListIs(AclRuleList::emptyList());
    EXPECT_TRUE(macAcl->ruleList()->empty());
}

TEST(RootStatus, InitializeStartsOver) {
    auto coll = rootStatusCollFactory("RootStatusColl");
    auto status = coll->rootStatusIs(3);
    status->rootStateIs(rootComputeFailed_);
    status->kickResponseIs(9);
    status->errorCodeIs(stageTcamFull_);
    int changes = 0;
    auto s1 = status->rootStateNotify([&] { ++changes; });
    auto s2 = status->kickResponseNotify([&] { ++changes; });
    auto s3 = status->errorCodeNotify([&] { ++changes; });
    status->initialize();
    EXPECT_EQ(changes, 3);
    EXPECT_EQ(status->rootState(), rootComputePending_);
    EXPECT_EQ(status->kickResponse(), 0u);
    EXPECT_EQ(status->errorCode(), stageSuccess_);
    EXPECT_TRUE(status->initialized());
    EXPECT_EQ(status->rootStatusId(), 3u);
}

}  // namespace
}  // namespace Mirel
