// The mock manager keeps one mock per chip that has both a configuration and a PD status,
// holding those very entities, through additions, replacements and removals.

#include "ovinmirel/testagent/OvinMirelTestAgentMockSmManager.h"
#include "ovinmirel/testagent/OvinMirelTestAgentTestWorld.h"

#include <gtest/gtest.h>

#include <vector>

namespace OvinMirel {
namespace {

using Mirel::ChipId;

std::vector<uint32_t> mockedChips(const TestAgentMockSmColl& coll) {
    std::vector<uint32_t> chips;
    for (const auto& [chip, mock] : coll.mockSm())
        chips.push_back(chip.value());
    return chips;
}

TEST(TestAgentMockSmManager, FollowsTheConfiguredChips) {
    TestAgentTestWorld w;
    w.addChip(ChipId(3));
    w.addChip(ChipId(1));
    EXPECT_EQ(mockedChips(*w.mockSmColl), (std::vector<uint32_t>{1, 3}));
    auto mock = w.mock(ChipId(3));
    ASSERT_TRUE(mock);
    EXPECT_EQ(mock->chipConfig(), w.chipConfig(ChipId(3)));
    EXPECT_EQ(mock->chipPDStatus(), w.chipPDStatus(ChipId(3)));
    EXPECT_TRUE(mock->initialized());

    // The chip's configuration goes: so does its mock, which stops answering.
    auto config = w.chipConfig(ChipId(3));
    w.pdConfig->chipConfigDel(ChipId(3));
    EXPECT_EQ(mockedChips(*w.mockSmColl), (std::vector<uint32_t>{1}));
    EXPECT_FALSE(mock->initialized());
    config->chipSrcMacAddrConfig()->attemptedRequestIdIs(5);
    EXPECT_EQ(w.chipPDStatus(ChipId(3))->srcMacXformStatus().requestId, 0u);

    // Back with a new configuration: a new mock holding it.
    auto again = w.pdConfig->chipConfigIs(ChipId(3));
    again->initialize();
    ASSERT_TRUE(w.mock(ChipId(3)));
    EXPECT_NE(w.mock(ChipId(3)), mock);
    EXPECT_EQ(w.mock(ChipId(3))->chipConfig(), again);
    again->chipSrcMacAddrConfig()->attemptedRequestIdIs(5);
    EXPECT_EQ(w.chipPDStatus(ChipId(3))->srcMacXformStatus().requestId, 5u);

    // Without a PD status there is no one to answer in: no mock.
    w.pdStatus->chipPDStatusDel(ChipId(1));
    EXPECT_EQ(mockedChips(*w.mockSmColl), (std::vector<uint32_t>{3}));
    w.pdStatus->chipPDStatusIs(ChipId(1));
    EXPECT_EQ(mockedChips(*w.mockSmColl), (std::vector<uint32_t>{1, 3}));
}

TEST(TestAgentMockSmManager, StartsWithTheChipsAlreadyThereAndRemovesItsMocksAtTheEnd) {
    Mirel::RootSmTestWorld hw;
    hw.addChip(ChipId(2));
    hw.addChip(ChipId(4));
    auto coll = testAgentMockSmCollFactory("TestAgentMockSmColl");
    auto manager = testAgentMockSmManagerFactory(hw.pdConfig, hw.pdStatus, coll, hw.wheel);
    manager->allocMaxIs(7);
    EXPECT_EQ(coll->mockSms(), 0u);  // nothing before it is initialized
    manager->handleInitialized();
    EXPECT_EQ(mockedChips(*coll), (std::vector<uint32_t>{2, 4}));
    ASSERT_TRUE(coll->mockSm(ChipId(4)));
    EXPECT_EQ(coll->mockSm(ChipId(4))->allocMax(), 7u);
    manager->allocMaxIs(9);
    EXPECT_EQ(coll->mockSm(ChipId(2))->allocMax(), 9u);
    manager->handleDelete();
    EXPECT_EQ(coll->mockSms(), 0u);
    hw.addChip(ChipId(5));
    EXPECT_EQ(coll->mockSms(), 0u);
}

}  // namespace
}  // namespace OvinMirel
