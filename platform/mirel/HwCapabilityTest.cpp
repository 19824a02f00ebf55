#include "platform/mirel/HwCapability.h"

#include <gtest/gtest.h>

#include <vector>

#include "platform/vorn/Exception.h"

namespace Mirel {
namespace {

TEST(HwCapabilityTest, AclTypeCombinationBitMaskRange) {
    struct Case {
        const char* name;
        uint32_t value;
        bool accepted;
    };
    const Case cases[] = {
        {"empty", 0, true},
        {"everyKind", 0x3ff, true},
        {"elevenBits", 0x400, false},
        {"huge", 0x100003ff, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.accepted) {
            EXPECT_EQ(AclTypeCombinationBitMask(c.value).value(), c.value);
            continue;
        }
        try {
            AclTypeCombinationBitMask m(c.value);
            ADD_FAILURE() << "accepted " << m;
        } catch (const Vorn::RangeException& e) {
            EXPECT_STREQ(e.what(), "AclTypeCombinationBitMask::value > 0x3ff not allowed");
        }
    }
}

TEST(HwCapabilityTest, AclTypeCombinationBitMaskOperations) {
    using M = AclTypeCombinationBitMask;
    const M portIn(M::kV4PaclIn | M::kV6PaclIn);
    const M all(M::kMax);
    EXPECT_TRUE(all.contains(portIn));
    EXPECT_FALSE(portIn.contains(all));
    EXPECT_EQ((portIn & M(M::kV4PaclIn | M::kMacIn)).value(), M::kV4PaclIn);
    EXPECT_EQ((portIn | M(M::kMacOut)).value(), 0x205);
    EXPECT_TRUE((portIn & M(M::kMacIn)).empty());
}

TEST(HwCapabilityTest, TheGlobalRecordIsInsertedByName) {
    const Vorn::Ptr<HwCapabilityColl> coll = hwCapabilityCollFactory("HwCapabilityColl");
    EXPECT_FALSE(coll->hwCapability());
    const Vorn::Ptr<HwCapability> global = coll->hwCapabilityIs("HwCapability");
    ASSERT_TRUE(global);
    EXPECT_EQ(coll->hwCapabilityIs("HwCapability"), global);  // get-or-create
    EXPECT_THROW(coll->hwCapabilityIs("Other"), Vorn::ReinstantiationException);
    // One record, whatever happens to the chips.
    coll->chipHwCapabilityIs(ChipId(1));
    coll->chipHwCapabilityDelAll();
    EXPECT_EQ(coll->hwCapability(), global);
}

TEST(HwCapabilityTest, RuleListIdsARootMayUse) {
    struct Case {
        uint32_t max;
        uint8_t reserved;
        uint32_t count;
    };
    const Case cases[] = {
        {0, 255, 1}, {3, 255, 4},     {3, 3, 3},       {3, 0, 3},
        {3, 4, 4},   {255, 255, 255}, {300, 255, 255}, {300, 7, 255},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "max " << c.max << " reserved " << int(c.reserved));
        ChipHwCapability chip(ChipId(0));
        chip.chipRuleListIdMaxIs(c.max);
        chip.chipRuleListIdReservedPermitAllIs(c.reserved);
        EXPECT_EQ(chip.ruleListIdCount(), c.count);
    }
}

}  // namespace
}  // namespace Mirel
