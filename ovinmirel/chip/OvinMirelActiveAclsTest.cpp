// ActiveAcls: lookups by key, the shared keys taken over from the table before, and whether a
// table still holds the ACLs of an earlier one (what lets the PD mapping keep its places).

#include "ovinmirel/chip/OvinMirelActiveAcls.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

#include "ovinmirel/chip/OvinMirelMappingSmTestWorld.h"

namespace OvinMirel {
namespace {

using namespace MappingTest;

const Ovin::AclKey kP4 = pacl("p4"), kMac = macl("mac"), kR4 = racl("r4");

// Root configurations, and tables made one after the other over them.
struct Tables {
    // Root `id` holding `acls`, each with one id for all protocols, ids from `firstId`.
    Vorn::Ptr<Mirel::RootConfig> root(uint32_t id, const std::vector<Ovin::AclKey>& acls,
                                      uint8_t firstId = 1) {
        auto r = roots->rootConfigIs(id);
        r->aclKeyToAclIdTypeSetDelAll();
        for (const Ovin::AclKey& k : acls) {
            r->aclKeyToAclIdTypeSetIs(k)->aclIdTypeIs(
                Mirel::protocolAll_,
                Mirel::AclId(IntfAclTypeIndexSm::getTableType(k), firstId++, k.direction));
        }
        return r;
    }
    // The next table, for root `id`, made after the last one.
    const ActiveAcls& table(uint32_t id) {
        const ActiveAcls* previous = tables.empty() ? nullptr : tables.back().get();
        tables.push_back(std::make_unique<ActiveAcls>(*roots, roots->rootConfig(id), previous,
                                                      tables.size() + 1));
        return *tables.back();
    }

    Vorn::Ptr<Mirel::RootConfigColl> roots = Mirel::rootConfigCollFactory("roots");
    std::vector<std::unique_ptr<ActiveAcls>> tables;
};

TEST(ActiveAcls, FindsEachAclWithItsIdsAndTheSharedKeyOfTheTableBefore) {
    Tables t;
    t.root(0, {kP4, kR4});
    const ActiveAcls& first = t.table(0);
    t.root(1, {kP4, kMac}, 20);
    const ActiveAcls& second = t.table(1);
    const ActiveAcl* p4 = second.find(kP4);
    ASSERT_NE(p4, nullptr);
    EXPECT_EQ(p4->ids->aclIdType(Mirel::protocolAll_)->chipRuleListId(), 20);
    ASSERT_NE(first.find(kP4), nullptr);
    EXPECT_EQ(p4->acl, first.find(kP4)->acl);
    EXPECT_EQ(second.find(kR4), nullptr);
    ASSERT_NE(second.find(kMac), nullptr);
    EXPECT_EQ(second.find(kMac)->acl->aclKey(), kMac);
}

TEST(ActiveAcls, HoldsTheAclsOfAnEarlierTableOnlyWhileEveryTableBetweenHeldThem) {
    struct Case {
        const char* name;
        std::function<void(Tables&)> run;  // makes the tables
        uint64_t earlier;                  // asked of the last table
        bool holds;
    };
    const Case cases[] = {
        {"itself",
         [](Tables& t) {
             t.root(0, {kP4});
             t.table(0);
         },
         1, true},
        {"no table",
         [](Tables& t) {
             t.root(0, {kP4});
             t.table(0);
         },
         0, false},
        {"same ACLs, other ids, through a run of tables",
         [](Tables& t) {
             t.root(0, {kP4, kR4});
             t.table(0);
             t.root(1, {kP4, kR4}, 9);
             t.table(1);
             t.root(0, {kP4, kR4}, 5);
             t.table(0);
         },
         1, true},
        {"one ACL more",
         [](Tables& t) {
             t.root(0, {kP4});
             t.table(0);
             t.root(1, {kP4, kR4});
             t.table(1);
         },
         1, false},
        {"one ACL other",
         [](Tables& t) {
             t.root(0, {kP4});
             t.table(0);
             t.root(1, {kMac});
             t.table(1);
         },
         1, false},
        {"a run broken in the middle",
         [](Tables& t) {
             t.root(0, {kP4});
             t.table(0);
             t.root(1, {kMac});
             t.table(1);
             t.root(0, {kP4});
             t.table(0);
         },
         1, false},
        {"the earlier root changed before the next table",
         [](Tables& t) {
             t.root(0, {kP4, kR4});
             t.table(0);
             t.root(0, {kP4, kR4}, 3);
             t.tables.back()->find(kP4);  // a lookup since: the table follows the change
             t.root(1, {kP4, kR4});
             t.table(1);
         },
         1, false},
        {"the last root changed after its table",
         [](Tables& t) {
             t.root(0, {kP4});
             t.table(0);
             t.root(1, {kP4});
             t.table(1);
             t.root(1, {kP4}, 7);
         },
         2, false},
        {"the last root's configuration replaced under its id",
         [](Tables& t) {
             t.root(0, {kP4});
             t.table(0);
             t.root(1, {kP4});
             t.table(1);
             t.roots->rootConfigDel(1);
             t.root(1, {kP4});
         },
         2, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Tables t;
        c.run(t);
        ASSERT_FALSE(t.tables.empty());
        EXPECT_EQ(t.tables.back()->holdsAclsOf(c.earlier), c.holds);
    }
}

}  // namespace
}  // namespace OvinMirel
