// The chip configuration: its data-flow configuration and its nine transforms.

#include "platform/mirel/PDConfig.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace Mirel {
namespace {

TEST(ChipDataFlowInChipConfig, OwnedForTheChipConfigsLife) {
    auto pd = pdConfigFactory("pdConfig");
    auto chip = pd->chipConfigIs(ChipId(4));
    const auto dataFlow = chip->chipDataFlowConfig();
    ASSERT_TRUE(dataFlow);
    EXPECT_EQ(dataFlow->chipId(), ChipId(4));
    chip->initialize();
    EXPECT_EQ(pd->chipConfigIs(ChipId(4))->chipDataFlowConfig(), dataFlow);
    EXPECT_NE(pd->chipConfigIs(ChipId(5))->chipDataFlowConfig(), dataFlow);
}

TEST(ChipDataFlowInChipConfig, InitializeCreatesEachTransformOnce) {
    auto chip = chipConfigFactory(ChipId(1));
    for (int t = 0; t < kXformTypeCount; ++t)
        EXPECT_FALSE(chip->xformConfig(XformType(t)));

    // A transform the hardware layer already set up survives initialization.
    auto kept = Vorn::make<XformConfig>(xformDstPortRange_);
    kept->attemptedXformIs("80-443", 1);
    chip->chipDstPortRangeConfigIs(kept);
    int created = 0;
    auto s1 = chip->chipSrcMacAddrConfigNotify([&] { ++created; });
    auto s2 = chip->chipDstPortRangeConfigNotify([&] { ++created; });
    chip->initialize();
    EXPECT_EQ(created, 1);
    EXPECT_TRUE(chip->initialized());
    EXPECT_EQ(chip->chipDstPortRangeConfig(), kept);

    for (int t = 0; t < kXformTypeCount; ++t) {
        SCOPED_TRACE(t);
        ASSERT_TRUE(chip->xformConfig(XformType(t)));
        EXPECT_EQ(chip->xformConfig(XformType(t))->xformType(), XformType(t));
    }
    EXPECT_EQ(chip->chipSrcIpV6PrefixConfig()->xformType(), xformSrcIpV6Prefix_);
    EXPECT_STREQ(xformConfigName(xformMacEtherType_), "chipMacEtherTypeConfig");
    EXPECT_EQ(xformConfigName(XformType(kXformTypeCount)), nullptr);

    const auto first = chip->chipSrcMacAddrConfig();
    chip->initialize();
    EXPECT_EQ(chip->chipSrcMacAddrConfig(), first);
    EXPECT_EQ(created, 1);
}

TEST(ChipDataFlowInChipConfig, TransformReferencesNotifyWithTheirType) {
    auto chip = chipConfigFactory(ChipId(1));
    std::vector<XformType> seen;
    auto subs = chip->xformConfigNotify([&](XformType t) { seen.push_back(t); });
    chip->initialize();
    std::vector<XformType> all;
    for (int t = 0; t < kXformTypeCount; ++t)
        all.push_back(XformType(t));
    EXPECT_EQ(seen, all);  // created in the order the driver services them
    seen.clear();
    chip->chipSrcPortRangeConfigDel();
    chip->chipMacEtherTypeConfigIs(Vorn::make<XformConfig>(xformMacEtherType_));
    EXPECT_EQ(seen, (std::vector<XformType>{xformSrcPortRange_, xformMacEtherType_}));
}

}  // namespace
}  // namespace Mirel
