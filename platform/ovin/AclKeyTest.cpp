// ACL keys: every field takes part in equality, order and hashing; the printed form is stable.

#include "platform/ovin/AclKey.h"

#include <gtest/gtest.h>

#include <set>
#include <unordered_set>

namespace Ovin {
namespace {

TEST(AclKey, EveryFieldDistinguishesKeys) {
    AclKey base;
    base.name = "acl";
    std::vector<AclKey> keys = {base};
    auto vary = [&](auto change) {
        AclKey k = base;
        change(k);
        keys.push_back(k);
    };
    vary([](AclKey& k) { k.name = "acm"; });
    vary([](AclKey& k) { k.type = Acl::aclTypeIpv6; });
    vary([](AclKey& k) { k.direction = Acl::aclDirectionOut; });
    vary([](AclKey& k) { k.flag = true; });
    vary([](AclKey& k) { k.vlanId = Bridging::VlanId(10); });
    vary([](AclKey& k) { k.tag = Vorn::Name("agent"); });
    std::set<AclKey> ordered(keys.begin(), keys.end());
    std::unordered_set<AclKey> hashed(keys.begin(), keys.end());
    EXPECT_EQ(ordered.size(), keys.size());
    EXPECT_EQ(hashed.size(), keys.size());
    // A key without VLAN sorts before the same key with one; names dominate.
    EXPECT_LT(base, keys[5]);
    EXPECT_LT(keys[6], keys[1]);
}

TEST(AclKey, PrintedForm) {
    AclKey k;
    k.name = "edge";
    EXPECT_EQ(k.str(), "edge/ip/in");
    k.type = Acl::aclTypeMac;
    k.direction = Acl::aclDirectionOut;
    EXPECT_EQ(k.str(), "edge/mac/out");
    k.type = Acl::aclTypeIpv6;
    k.vlanId = Bridging::VlanId(100);
    k.flag = true;
    EXPECT_EQ(k.str(), "edge/ipv6/out/vlan100/flag");
}

}  // namespace
}  // namespace Ovin
