// ACL keys: every field takes part in equality, order and hashing; the printed form is stable.

#include "platform/ovin/AclKey.h"

#include <gtest/gtest.h>

#include <compare>
#include <iterator>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/vorn/Exception.h"

namespace Ovin {
namespace {

AclKey key(std::string name, Acl::AclType type, Acl::AclDirection direction, bool flag,
           std::optional<int> vlan, const char* tag) {
    AclKey k;
    k.name = std::move(name);
    k.type = type;
    k.direction = direction;
    k.flag = flag;
    if (vlan)
        k.vlanId = Bridging::VlanId(*vlan);
    k.tag = Vorn::Name(tag);
    return k;
}

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

// The order between keys of one name, field by field: each key sorts after every key above
// it, so a field dominates those below it (VLANs across a byte boundary included).
TEST(AclKey, FieldsOrderByPrecedence) {
    const auto ip = Acl::aclTypeIpv4;
    const auto in = Acl::aclDirectionIn;
    const struct {
        const char* name;
        AclKey key;
    } ascending[] = {
        {"plain", key("acl", ip, in, false, {}, "")},
        {"tag only", key("acl", ip, in, false, {}, "z")},
        {"lowest VLAN", key("acl", ip, in, false, 1, "")},
        {"VLAN 255 with tag", key("acl", ip, in, false, 255, "z")},
        {"VLAN 256", key("acl", ip, in, false, 256, "")},
        {"highest VLAN", key("acl", ip, in, false, 4094, "z")},
        {"flag", key("acl", ip, in, true, {}, "")},
        {"flag and VLAN", key("acl", ip, in, true, 4094, "z")},
        {"out", key("acl", ip, Acl::aclDirectionOut, false, {}, "")},
        {"out, every lower field set", key("acl", ip, Acl::aclDirectionOut, true, 4094, "z")},
        {"ipv6", key("acl", Acl::aclTypeIpv6, in, false, {}, "")},
        {"mac", key("acl", Acl::aclTypeMac, in, false, {}, "")},
        {"mac, every lower field set",
         key("acl", Acl::aclTypeMac, Acl::aclDirectionOut, true, 4094, "z")},
        {"next name", key("acm", ip, in, false, {}, "")},
    };
    for (size_t i = 0; i < std::size(ascending); ++i) {
        SCOPED_TRACE(ascending[i].name);
        EXPECT_EQ(ascending[i].key <=> ascending[i].key, std::strong_ordering::equal);
        for (size_t j = i + 1; j < std::size(ascending); ++j) {
            EXPECT_EQ(ascending[i].key <=> ascending[j].key, std::strong_ordering::less)
                << ascending[j].name;
            EXPECT_EQ(ascending[j].key <=> ascending[i].key, std::strong_ordering::greater)
                << ascending[j].name;
        }
    }
}

TEST(AclKey, PrintedFormReadsBack) {
    const struct {
        const char* name;
        AclKey key;
    } cases[] = {
        {"default key", AclKey{}},
        {"every part", key("edge", Acl::aclTypeIpv6, Acl::aclDirectionOut, true, 4094, "agent")},
        {"mac with tag", key("m", Acl::aclTypeMac, Acl::aclDirectionIn, false, {}, "cli")},
        {"vlan without flag", key("r", Acl::aclTypeIpv4, Acl::aclDirectionOut, false, 1, "")},
        {"slashes in name and tag",
         key("a/b", Acl::aclTypeMac, Acl::aclDirectionOut, false, {}, "x/y")},
        {"tag that only starts like a VLAN",
         key("t", Acl::aclTypeIpv4, Acl::aclDirectionIn, false, {}, "vlanx")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(AclKey::fromStr(c.key.str()), c.key) << c.key.str();
    }
}

TEST(AclKey, MalformedTextIsRefused) {
    const struct {
        const char* text;
        const char* error;
    } cases[] = {
        {"", "invalid AclKey '': no /<ip|ipv6|mac>/<in|out> part"},
        {"edge", "invalid AclKey 'edge': no /<ip|ipv6|mac>/<in|out> part"},
        {"edge/ip", "invalid AclKey 'edge/ip': no /<ip|ipv6|mac>/<in|out> part"},
        {"edge/ipv5/in", "invalid AclKey 'edge/ipv5/in': no /<ip|ipv6|mac>/<in|out> part"},
        {"edge/ip/inward", "invalid AclKey 'edge/ip/inward': no /<ip|ipv6|mac>/<in|out> part"},
        {"edge/ip/in/", "invalid AclKey 'edge/ip/in/': empty tag"},
        {"edge/ip/in/vlan99999999999999999999",
         "invalid AclKey 'edge/ip/in/vlan99999999999999999999': VLAN number too large"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        try {
            AclKey k = AclKey::fromStr(c.text);
            ADD_FAILURE() << "accepted as " << k;
        } catch (const std::invalid_argument& e) {
            EXPECT_STREQ(e.what(), c.error);
        }
    }
    for (const char* text : {"edge/ip/in/vlan0", "edge/ip/in/vlan4095"}) {
        SCOPED_TRACE(text);
        try {
            AclKey k = AclKey::fromStr(text);
            ADD_FAILURE() << "accepted as " << k;
        } catch (const Vorn::RangeException& e) {
            EXPECT_STREQ(e.what(), "VlanId::value < 1 or > 4094 not allowed");
        }
    }
}

}  // namespace
}  // namespace Ovin
