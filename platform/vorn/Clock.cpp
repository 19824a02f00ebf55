#include "platform/vorn/Clock.h"

#include <chrono>

#include "platform/vorn/Assert.h"

namespace Vorn {

namespace {
RealClock realClock;
Clock* current = &realClock;
}  // namespace

Seconds RealClock::now() const {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

void VirtualClock::nowIs(Seconds t) {
    VORN_ASSERT(t >= now_);
    now_ = t;
}

Clock& clock() {
    return *current;
}
void clockIs(Clock* c) {
    current = c ? c : &realClock;
}
Seconds currentTime() {
    return current->now();
}

}  // namespace Vorn
