#include "platform/brix/TaskSchedulerVornActivity.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/vorn/Clock.h"

namespace {

class BrixTaskScheduler : public ::testing::Test {
  protected:
    // A task that appends its name to the log.
    Brix::TaskSchedulerVornActivity::Task note(std::string name) {
        return [this, name = std::move(name)] { log_.push_back(name); };
    }
    std::vector<std::string> takeLog() { return std::exchange(log_, {}); }

    Vorn::ScopedVirtualClock clock_{10};
    Brix::TimerWheel wheel_;
    Vorn::Ptr<Brix::TaskSchedulerVornActivity> scheduler_ =
        Brix::taskSchedulerVornActivityFactory(wheel_);
    std::vector<std::string> log_;
};

TEST_F(BrixTaskScheduler, TasksRunOnTheNextPassInScheduleOrder) {
    scheduler_->schedule(note("a"));
    scheduler_->schedule(note("b"));
    scheduler_->schedule(note("c"));
    EXPECT_TRUE(log_.empty()) << "nothing runs inside schedule()";
    EXPECT_EQ(scheduler_->pendingTasks(), 3u);
    EXPECT_EQ(wheel_.runPass(), 1u) << "one timer serves the whole queue";
    EXPECT_EQ(takeLog(), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(scheduler_->pendingTasks(), 0u);
    EXPECT_EQ(wheel_.runPass(), 0u);
    EXPECT_EQ(Vorn::currentTime(), 10) << "no time passes";
}

TEST_F(BrixTaskScheduler, TaskScheduledDuringARunWaitsForTheNextPass) {
    int reschedules = 3;
    std::function<void()> again = [&] {
        log_.push_back("again");
        if (--reschedules > 0)
            scheduler_->schedule(again);
    };
    scheduler_->schedule(again);
    scheduler_->schedule(note("after"));
    EXPECT_EQ(wheel_.runPass(), 1u);
    EXPECT_EQ(takeLog(), (std::vector<std::string>{"again", "after"}));
    EXPECT_EQ(scheduler_->pendingTasks(), 1u);
    EXPECT_EQ(wheel_.runUntilIdle(), 2u);
    EXPECT_EQ(takeLog(), (std::vector<std::string>{"again", "again"}));
}

TEST_F(BrixTaskScheduler, ThrowingTaskKeepsTheRestQueuedInOrder) {
    scheduler_->schedule(note("a"));
    scheduler_->schedule([] { throw std::runtime_error("task failed"); });
    scheduler_->schedule(note("c"));
    scheduler_->schedule(note("d"));
    EXPECT_THROW(wheel_.runPass(), std::runtime_error);
    EXPECT_EQ(takeLog(), (std::vector<std::string>{"a"}));
    scheduler_->schedule(note("e"));
    EXPECT_EQ(scheduler_->pendingTasks(), 3u);
    wheel_.runUntilIdle();
    EXPECT_EQ(takeLog(), (std::vector<std::string>{"c", "d", "e"}));
}

TEST_F(BrixTaskScheduler, DroppedSchedulerRunsNothing) {
    scheduler_->schedule(note("never"));
    scheduler_ = nullptr;
    EXPECT_EQ(wheel_.armedCount(), 0u);
    wheel_.runUntilIdle();
    EXPECT_TRUE(log_.empty());
}

TEST_F(BrixTaskScheduler, TaskMayDropTheLastReference) {
    scheduler_->schedule([this] {
        log_.push_back("drop");
        scheduler_ = nullptr;
    });
    scheduler_->schedule(note("still runs"));
    wheel_.runUntilIdle();
    EXPECT_EQ(takeLog(), (std::vector<std::string>{"drop", "still runs"}));
}

TEST_F(BrixTaskScheduler, EmptyTaskIsRefused) {
    EXPECT_THROW(scheduler_->schedule({}), std::invalid_argument);
    EXPECT_EQ(scheduler_->pendingTasks(), 0u);
    EXPECT_EQ(wheel_.armedCount(), 0u);
}

}  // namespace
