// AclId's order and hash, and the id set of one ACL.

#include "platform/mirel/AclId.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <unordered_set>
#include <vector>

namespace Mirel {
namespace {

using TestSupport::aclKey;

TEST(AclId, OrderedByTableTypeThenIdThenDirection) {
    struct Case {
        const char* name;
        AclId lower;
        AclId higher;
    };
    const Case cases[] = {
        {"table type decides before the id", AclId(ipv4PortAcl_, 9, Acl::aclDirectionOut),
         AclId(ipv4RouterAcl_, 0, Acl::aclDirectionIn)},
        {"id decides before the direction", AclId(macAcl_, 1, Acl::aclDirectionOut),
         AclId(macAcl_, 2, Acl::aclDirectionIn)},
        {"direction last", AclId(macAcl_, 2, Acl::aclDirectionIn),
         AclId(macAcl_, 2, Acl::aclDirectionOut)},
        {"id compares as a number", AclId(macAcl_, 127, Acl::aclDirectionIn),
         AclId(macAcl_, 128, Acl::aclDirectionIn)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_LT(c.lower, c.higher);
        EXPECT_FALSE(c.higher < c.lower);
        EXPECT_NE(c.lower, c.higher);
    }
}

TEST(AclId, HashSeparatesEveryField) {
    std::unordered_set<size_t> hashes;
    std::set<AclId> ids;
    for (TableType t : {ipv4PortAcl_, ipv6PortAcl_, macAcl_}) {
        for (uint8_t crli : {0, 1, 255}) {
            for (Acl::AclDirection d : {Acl::aclDirectionIn, Acl::aclDirectionOut}) {
                AclId id(t, crli, d);
                EXPECT_EQ(std::hash<AclId>()(id), std::hash<AclId>()(AclId(t, crli, d)));
                hashes.insert(std::hash<AclId>()(id));
                ids.insert(id);
            }
        }
    }
    EXPECT_EQ(ids.size(), 18u);
    EXPECT_EQ(hashes.size(), 18u);
}

TEST(AclIdTypeSet, TableTypeAndEquality) {
    const Ovin::AclKey key = aclKey("a");
    auto a = aclIdTypeSetFactory(key);
    auto b = aclIdTypeSetFactory(aclKey("b"));
    EXPECT_EQ(a->tableType(), invalid_);
    EXPECT_TRUE(a->isEqual(*b));  // both empty; the key is not content
    a->aclIdTypeIs(protocolTcp_, AclId(ipv6PortAcl_, 4, Acl::aclDirectionIn));
    a->aclIdTypeIs(protocolNonTcp_, AclId(ipv6PortAcl_, 5, Acl::aclDirectionIn));
    EXPECT_EQ(a->tableType(), ipv6PortAcl_);
    EXPECT_FALSE(a->isEqual(*b));
    b->aclIdTypeIs(protocolTcp_, AclId(ipv6PortAcl_, 4, Acl::aclDirectionIn));
    b->aclIdTypeIs(protocolAll_, AclId(ipv6PortAcl_, 5, Acl::aclDirectionIn));
    EXPECT_FALSE(a->isEqual(*b));  // same ids, different protocol class
    EXPECT_EQ(a->aclKey(), key);
}

TEST(AclIdTypeSet, CopyFromWritesOnlyTheDifference) {
    auto from = aclIdTypeSetFactory(aclKey("a"));
    auto to = aclIdTypeSetFactory(aclKey("a"));
    const AclId tcp(ipv4PortAcl_, 1, Acl::aclDirectionIn);
    const AclId rest(ipv4PortAcl_, 2, Acl::aclDirectionIn);
    from->aclIdTypeIs(protocolTcp_, tcp);
    from->aclIdTypeIs(protocolNonTcp_, rest);
    to->aclIdTypeIs(protocolTcp_, tcp);                                          // kept
    to->aclIdTypeIs(protocolAll_, AclId(ipv4PortAcl_, 9, Acl::aclDirectionIn));  // dropped

    std::vector<ProtocolType> changed;
    auto s = to->aclIdTypeNotify([&](ProtocolType p) { changed.push_back(p); });
    to->copyFrom(*from);
    EXPECT_TRUE(to->isEqual(*from));
    EXPECT_EQ(changed, (std::vector<ProtocolType>{protocolAll_, protocolNonTcp_}));
    changed.clear();
    to->copyFrom(*to);
    to->copyFrom(*from);
    EXPECT_TRUE(changed.empty());
}

}  // namespace
}  // namespace Mirel
