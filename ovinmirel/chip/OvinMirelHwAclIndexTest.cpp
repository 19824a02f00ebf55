// Hardware ACL index keys (equality, order, emptiness, hashing apart, copies, string form), and
// the allocator whose number allocator exists only with both config and status.

#include "ovinmirel/chip/OvinMirelHwAclIndex.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/vorn/Exception.h"

namespace OvinMirel {
namespace {

using TestSupport::aclKey;

HwAclIndexKey keyWith(HwAclIndexKey::Field f, const Ovin::AclKey& acl) {
    HwAclIndexKey k;
    k.fieldIs(f, acl);
    return k;
}

HwAclIndexKey::Field fieldAt(int i) {
    return HwAclIndexKey::Field(i);
}

TEST(HwAclIndexKey, EveryFieldCountsInEqualityOrderEmptinessAndHash) {
    const auto a = aclKey("a"), b = aclKey("b");
    EXPECT_TRUE(!HwAclIndexKey());
    std::unordered_set<uint32_t> hashes = {HwAclIndexKey().hash()};
    for (int i = 0; i < HwAclIndexKey::kFieldCount; ++i) {
        SCOPED_TRACE(HwAclIndexKey::fieldName(fieldAt(i)));
        const HwAclIndexKey ka = keyWith(fieldAt(i), a), kb = keyWith(fieldAt(i), b);
        EXPECT_FALSE(!ka);
        EXPECT_FALSE(ka == kb);
        EXPECT_TRUE(ka < kb);
        EXPECT_FALSE(kb < ka);
        EXPECT_TRUE(ka == keyWith(fieldAt(i), a));
        EXPECT_EQ(std::hash<HwAclIndexKey>()(ka), keyWith(fieldAt(i), a).hash());
        // A default field sorts first, so a key with only this field set sorts after empty.
        EXPECT_TRUE(HwAclIndexKey() < ka);
        hashes.insert(ka.hash());
    }
    EXPECT_EQ(hashes.size(), size_t(HwAclIndexKey::kFieldCount + 1)) << "each field hashes apart";
}

TEST(HwAclIndexKey, EarlierFieldsDecideTheOrder) {
    const auto a = aclKey("a"), b = aclKey("b");
    // b in v4PAclIn outweighs anything in later fields.
    HwAclIndexKey low = keyWith(HwAclIndexKey::v4PAclIn_, a);
    low.fieldIs(HwAclIndexKey::macAclOut_, b);
    HwAclIndexKey high = keyWith(HwAclIndexKey::v4PAclIn_, b);
    EXPECT_TRUE(low < high);
    // The first nine equal: macAclOut decides.
    HwAclIndexKey x = keyWith(HwAclIndexKey::v6RAclOut_, a), y = x;
    x.fieldIs(HwAclIndexKey::macAclOut_, a);
    y.fieldIs(HwAclIndexKey::macAclOut_, b);
    EXPECT_TRUE(x < y);
    EXPECT_FALSE(x == y);
    // The ten-argument constructor puts its arguments in field order.
    const HwAclIndexKey all(aclKey("0"), aclKey("1"), aclKey("2"), aclKey("3"), aclKey("4"),
                            aclKey("5"), aclKey("6"), aclKey("7"), aclKey("8"), aclKey("9"));
    for (int i = 0; i < HwAclIndexKey::kFieldCount; ++i)
        EXPECT_EQ(all.field(fieldAt(i)).name, std::to_string(i));
}

TEST(HwAclIndexKey, FieldOfTableTypeAndDirection) {
    struct Case {
        Mirel::TableType tableType;
        Acl::AclDirection direction;
        int field;
    };
    const Case cases[] = {
        {Mirel::ipv4PortAcl_, Acl::aclDirectionIn, HwAclIndexKey::v4PAclIn_},
        {Mirel::ipv6PortAcl_, Acl::aclDirectionIn, HwAclIndexKey::v6PAclIn_},
        {Mirel::ipv4RouterAcl_, Acl::aclDirectionIn, HwAclIndexKey::v4RAclIn_},
        {Mirel::ipv6RouterAcl_, Acl::aclDirectionIn, HwAclIndexKey::v6RAclIn_},
        {Mirel::macAcl_, Acl::aclDirectionIn, HwAclIndexKey::macAclIn_},
        {Mirel::ipv4PortAcl_, Acl::aclDirectionOut, HwAclIndexKey::v4PAclOut_},
        {Mirel::ipv6PortAcl_, Acl::aclDirectionOut, HwAclIndexKey::v6PAclOut_},
        {Mirel::ipv4RouterAcl_, Acl::aclDirectionOut, HwAclIndexKey::v4RAclOut_},
        {Mirel::ipv6RouterAcl_, Acl::aclDirectionOut, HwAclIndexKey::v6RAclOut_},
        {Mirel::macAcl_, Acl::aclDirectionOut, HwAclIndexKey::macAclOut_},
        {Mirel::invalid_, Acl::aclDirectionIn, HwAclIndexKey::kFieldCount},
        {Mirel::TableType(6), Acl::aclDirectionOut, HwAclIndexKey::kFieldCount},
        {Mirel::macAcl_, Acl::AclDirection(2), HwAclIndexKey::kFieldCount},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << int(c.tableType) << "/" << int(c.direction));
        EXPECT_EQ(HwAclIndexKey::fieldOf(c.tableType, c.direction), c.field);
    }
}

TEST(HwAclIndexKey, AnyAttributeOfAnAclKeyMakesAFieldUsed) {
    std::vector<Ovin::AclKey> variants(5);
    variants[0].type = Acl::aclTypeMac;
    variants[1].direction = Acl::aclDirectionOut;
    variants[2].flag = true;
    variants[3].vlanId = Bridging::VlanId(1);
    variants[4].tag = Vorn::Name("t");
    for (const Ovin::AclKey& v : variants) {
        SCOPED_TRACE(v.str());
        const HwAclIndexKey key = keyWith(HwAclIndexKey::macAclOut_, v);
        EXPECT_FALSE(!key);
        EXPECT_FALSE(key == HwAclIndexKey());
        EXPECT_NE(key.hash(), HwAclIndexKey().hash());
    }
    // The default ACL key empties a field again.
    HwAclIndexKey key = keyWith(HwAclIndexKey::v6RAclIn_, aclKey("a"));
    key.fieldIs(HwAclIndexKey::v6RAclIn_, Ovin::AclKey{});
    EXPECT_TRUE(!key);
    EXPECT_TRUE(key == HwAclIndexKey());
    EXPECT_EQ(key.hash(), HwAclIndexKey().hash());
}

TEST(HwAclIndexKey, CopiesStayApartWhenOneChanges) {
    HwAclIndexKey original = keyWith(HwAclIndexKey::v4PAclIn_, aclKey("a"));
    const uint32_t hashBefore = original.hash();
    HwAclIndexKey copy = original;
    EXPECT_TRUE(copy == original);
    copy.fieldIs(HwAclIndexKey::v4PAclIn_, aclKey("b"));
    EXPECT_EQ(original.v4PAclIn().name, "a");
    EXPECT_EQ(copy.v4PAclIn().name, "b");
    EXPECT_EQ(original.hash(), hashBefore);
    // A changed field is hashed again, not served from before.
    EXPECT_NE(copy.hash(), hashBefore);
    EXPECT_EQ(copy.hash(), keyWith(HwAclIndexKey::v4PAclIn_, aclKey("b")).hash());
    // A field given a shared ACL key is the same as one given the ACL key, and keys sharing
    // one stay apart too.
    const AclKeyRef b = sharedAclKeyFactory(aclKey("b"));
    EXPECT_EQ(b->fieldHash(), HwAclIndexKey::fieldHash(aclKey("b")));
    HwAclIndexKey shared, other;
    shared.fieldIs(HwAclIndexKey::v4PAclIn_, b);
    other.fieldIs(HwAclIndexKey::v4PAclIn_, b);
    EXPECT_TRUE(shared == copy);
    EXPECT_EQ(shared.hash(), copy.hash());
    other.fieldIs(HwAclIndexKey::v6PAclIn_, b);
    EXPECT_FALSE(other == shared);
    // A shared default key leaves the field unused, like the default key itself.
    other.fieldIs(HwAclIndexKey::v6PAclIn_, sharedAclKeyFactory(Ovin::AclKey{}));
    EXPECT_TRUE(other == shared);
    EXPECT_EQ(other.hash(), shared.hash());
    other.fieldIs(HwAclIndexKey::v4PAclIn_, nullptr);
    EXPECT_TRUE(!other);
}

TEST(HwAclIndexKey, StringFormReadsBack) {
    HwAclIndexKey key;
    key.fieldIs(HwAclIndexKey::v4PAclIn_, aclKey("p4"));
    key.fieldIs(HwAclIndexKey::macAclOut_, aclKey("m", Acl::aclTypeMac, {}, Acl::aclDirectionOut));
    EXPECT_EQ(valueToStrep(key),
              "Value('OvinMirel::HwAclIndexKey', ** {'v4PAclIn': p4/ip/in, 'v6PAclIn': /ip/in, "
              "'v4RAclIn': /ip/in, 'v6RAclIn': /ip/in, 'macAclIn': /ip/in, 'v4PAclOut': /ip/in, "
              "'v6PAclOut': /ip/in, 'v4RAclOut': /ip/in, 'v6RAclOut': /ip/in, "
              "'macAclOut': m/mac/out})");
    EXPECT_EQ(TestSupport::str(key), valueToStrep(key));

    Ovin::AclKey tagged = aclKey("r6", Acl::aclTypeIpv6, 4094, Acl::aclDirectionOut);
    tagged.flag = true;
    tagged.tag = Vorn::Name("cli");
    const HwAclIndexKey keys[] = {
        HwAclIndexKey(),
        key,
        HwAclIndexKey(aclKey("0"), aclKey("1", Acl::aclTypeIpv6), aclKey("2", Acl::aclTypeIpv4, 2),
                      aclKey("3", Acl::aclTypeIpv6, 3), aclKey("4", Acl::aclTypeMac), aclKey("5"),
                      aclKey("6"), aclKey("7"), tagged, aclKey("9")),
    };
    for (const HwAclIndexKey& k : keys) {
        SCOPED_TRACE(valueToStrep(k));
        EXPECT_EQ(HwAclIndexKey(valueToStrep(k)), k);
    }
}

TEST(HwAclIndexKey, MalformedTextIsRefused) {
    const std::string good = valueToStrep(keyWith(HwAclIndexKey::v6PAclIn_, aclKey("x")));
    auto replaced = [&](const std::string& from, const std::string& to) {
        std::string s = good;
        s.replace(s.find(from), from.size(), to);
        return s;
    };
    const struct {
        const char* name;
        std::string text;
        const char* error;
    } cases[] = {
        {"empty", "", "invalid HwAclIndexKey text: does not start with"},
        {"no closing", good.substr(0, good.size() - 1),
         "invalid HwAclIndexKey text: does not end with \"})\""},
        {"fields swapped", replaced("'v4PAclIn'", "'v6PAclIn'"),
         "invalid HwAclIndexKey text: expected \"'v4PAclIn': \""},
        {"field missing", replaced(", 'v6RAclOut': /ip/in", ""),
         "invalid HwAclIndexKey text: no \", 'v6RAclOut': \" after field v4RAclOut"},
        {"bad ACL key", replaced("x/ip/in", "x/ip"), "invalid AclKey 'x/ip'"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        try {
            HwAclIndexKey k(c.text);
            ADD_FAILURE() << "accepted as " << k;
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(std::string(e.what()).find(c.error), 0u) << e.what();
        }
    }
}

TEST(HwAclIndexAllocator, NumberAllocatorExistsOnlyWithConfigAndStatus) {
    using Step = std::function<void(HwAclIndexAllocator&)>;
    const Step config = [](HwAclIndexAllocator& a) { a.configIs(Brix::Range(0, 3)); };
    const Step status = [](HwAclIndexAllocator& a) { a.statusIs(); };
    const Step allocator = [](HwAclIndexAllocator& a) { a.numAllocatorIs(); };
    const Step noConfig = [](HwAclIndexAllocator& a) { a.configDel(); };
    const Step noStatus = [](HwAclIndexAllocator& a) { a.statusDel(); };
    struct Case {
        const char* name;
        std::vector<Step> steps;
        bool hasAllocator;
    };
    const Case cases[] = {
        {"both, then the allocator", {config, status, allocator}, true},
        {"config dropped", {config, status, allocator, noConfig}, false},
        {"status dropped", {config, status, allocator, noStatus}, false},
        {"status renewed after a drop", {config, status, allocator, noStatus, status}, false},
        {"rebuilt after a drop", {config, status, allocator, noStatus, status, allocator}, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto a = hwAclIndexAllocatorFactory(hwAclIndexAllocRacl_);
        for (const Step& s : c.steps)
            s(*a);
        EXPECT_EQ(a->numAllocator() != nullptr, c.hasAllocator);
    }

    // Asked for without a config: refused, nothing built.
    auto a = hwAclIndexAllocatorFactory(hwAclIndexAllocPaclMacl_);
    a->statusIs();
    EXPECT_THROW(a->numAllocatorIs(), Vorn::NullPointerException);
    EXPECT_EQ(a->numAllocator(), nullptr);
}

TEST(HwAclIndexAllocator, RangeFollowsConfigWhileInUse) {
    auto a = hwAclIndexAllocatorFactory(hwAclIndexAllocPaclMacl_);
    a->configIs(Brix::Range(0, 1));
    a->statusIs();
    Brix::NumAllocator* numbers = a->numAllocatorIs();
    ASSERT_NE(numbers, nullptr);
    EXPECT_EQ(a->numAllocatorIs(), numbers);  // kept while config and status stay
    EXPECT_TRUE(numbers->reserveNumber(0));
    EXPECT_EQ(numbers->getNumber(), 1u);
    EXPECT_EQ(numbers->getNumber(), std::nullopt);
    a->configIs(Brix::Range(0, 2));  // the same config, a wider range
    EXPECT_EQ(a->numAllocator(), numbers);
    EXPECT_EQ(numbers->getNumber(), 2u);
    EXPECT_EQ(a->status()->allocateds(), 3u);
}

}  // namespace
}  // namespace OvinMirel
