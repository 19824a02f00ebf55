#pragma once
// Brix::TaskSchedulerVornActivity: the agent's task scheduler. Work that must not run inside
// the call that asks for it (a handler that would otherwise re-enter itself, a burst of
// requests to be served once) is queued as a task and run later on the agent's one activity:
// the event loop that services the timer wheel.
//
// Tasks run on the next pass of the wheel after they were scheduled, in the order they were
// scheduled; a task scheduled while the queue runs waits for the pass after (the wheel's own
// rule for a timer armed during a pass), so a task that schedules itself cannot keep a pass
// going forever. Nothing runs before the wheel is serviced, and nothing runs once the scheduler
// is gone: destroying it drops the tasks still queued.
//
// A task that throws stops the run: the tasks queued behind it stay queued, in order, for the
// next pass, and the exception leaves the wheel's pass as any timer callback's would.
//
// Single-threaded, like everything on the event loop. Shared through Vorn::Ptr.

#include <cstddef>
#include <deque>
#include <functional>

#include "platform/brix/TimerWheel.h"
#include "platform/vorn/Ptr.h"

namespace Brix {

class TaskSchedulerVornActivity : public Vorn::PtrInterface {
  public:
    using Task = std::function<void()>;

    // REQUIRES: the wheel outlives the scheduler.
    explicit TaskSchedulerVornActivity(TimerWheel& timerWheel);
    TaskSchedulerVornActivity(const TaskSchedulerVornActivity&) = delete;
    TaskSchedulerVornActivity& operator=(const TaskSchedulerVornActivity&) = delete;

    TimerWheel& timerWheel() const { return timer_.wheel(); }
    // Queues a task for the next pass of the wheel. An empty task is refused
    // (std::invalid_argument).
    void schedule(Task task);
    // Tasks queued and not yet run.
    size_t pendingTasks() const { return queue_.size(); }

  private:
    void run();

    std::deque<Task> queue_;
    Timer timer_;
};

Vorn::Ptr<TaskSchedulerVornActivity> taskSchedulerVornActivityFactory(TimerWheel& timerWheel);

}  // namespace Brix
