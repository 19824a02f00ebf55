#include "platform/brix/TaskSchedulerVornActivity.h"

#include <stdexcept>
#include <utility>

namespace Brix {

TaskSchedulerVornActivity::TaskSchedulerVornActivity(TimerWheel& timerWheel)
    : timer_(timerWheel, [this] { run(); }) {}

void TaskSchedulerVornActivity::schedule(Task task) {
    if (!task)
        throw std::invalid_argument("Brix::TaskSchedulerVornActivity::schedule: empty task");
    queue_.push_back(std::move(task));
    // The absolute time 0, deliberately: always due, so the queue runs on the next pass.
    if (!timer_.armed())
        timer_.expiryIs(0.0);
}

void TaskSchedulerVornActivity::run() {
    // Only the tasks queued before this run; later ones re-arm the timer for the next pass.
    std::deque<Task> batch;
    batch.swap(queue_);
    // A task may drop the last reference to the scheduler; keep it alive for the run.
    const Vorn::Ptr<TaskSchedulerVornActivity> self(references() ? this : nullptr);
    while (!batch.empty()) {
        Task task = std::move(batch.front());
        batch.pop_front();
        try {
            task();
        } catch (...) {
            // The rest keep their order, ahead of anything scheduled meanwhile.
            queue_.insert(queue_.begin(), std::make_move_iterator(batch.begin()),
                          std::make_move_iterator(batch.end()));
            if (!queue_.empty())
                timer_.expiryIs(0.0);
            throw;
        }
    }
}

Vorn::Ptr<TaskSchedulerVornActivity> taskSchedulerVornActivityFactory(TimerWheel& timerWheel) {
    return Vorn::make<TaskSchedulerVornActivity>(timerWheel);
}

}  // namespace Brix
