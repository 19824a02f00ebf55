// AclKeySet: order, uniqueness, equality by value and the move, whatever the set's size.

#include "ovinmirel/chip/OvinMirelAclKeySet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "ovinmirel/chip/OvinMirelMappingSmTestWorld.h"

namespace OvinMirel {
namespace {

using namespace MappingTest;

const Ovin::AclKey kP4 = pacl("p4"), kP4Out = pacl("p4out", Acl::aclDirectionOut);
const Ovin::AclKey kMac = macl("mac"), kMacOut = macl("macout", Acl::aclDirectionOut);
const Ovin::AclKey kR4Out = racl("r4out", 1, Acl::aclDirectionOut);
const Ovin::AclKey kR6 = racl("r6", 1, Acl::aclDirectionIn, Acl::aclTypeIpv6);
const Ovin::AclKey kR4b = racl("r4b", 2);

TEST(AclKeySet, HoldsEachAclOnceInKeyOrderWhateverItsSize) {
    // Up to three ACLs are held in the set itself, more in a vector: both read alike.
    const std::vector<Ovin::AclKey> acls = {kR4b, kMac, kP4Out, kR6, kP4, kMacOut};
    for (size_t n = 0; n <= acls.size(); ++n) {
        SCOPED_TRACE(testing::Message() << n << " ACLs");
        const std::vector<Ovin::AclKey> some(acls.begin(), acls.begin() + std::ptrdiff_t(n));
        AclKeySet set;
        for (const Ovin::AclKey& k : some)
            EXPECT_TRUE(set.insert(k));
        for (const Ovin::AclKey& k : some)
            EXPECT_FALSE(set.insert(k)) << k;  // again: no change
        std::vector<Ovin::AclKey> sorted = some;
        std::sort(sorted.begin(), sorted.end());
        EXPECT_EQ(std::vector<Ovin::AclKey>(set.begin(), set.end()), sorted);
        EXPECT_EQ(set.size(), n);
        for (const Ovin::AclKey& k : acls)
            EXPECT_EQ(set.contains(k), std::find(some.begin(), some.end(), k) != some.end()) << k;
        // Equal by value to a set built in another order from other shared keys; a copy stays
        // equal, a move leaves the source empty.
        AclKeySet reversed;
        for (auto k = some.rbegin(); k != some.rend(); ++k)
            reversed.insert(sharedAclKeyFactory(*k));
        EXPECT_EQ(reversed, set);
        AclKeySet copy = set;
        EXPECT_EQ(copy, set);
        AclKeySet moved = std::move(copy);
        EXPECT_EQ(moved, set);
        EXPECT_TRUE(copy.empty());
        EXPECT_EQ(copy.begin(), copy.end());
        if (n > 0) {
            EXPECT_FALSE(AclKeySet{kR4Out} == set);
            moved.insert(kR4Out);
            EXPECT_FALSE(moved == set);
        }
    }
}

}  // namespace
}  // namespace OvinMirel
