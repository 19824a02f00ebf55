#pragma once
// Ovin::OvinCommonSmData: what the ACL engine's state machines share in one agent: its name
// and the timer wheel their deferred work runs on (the process-wide wheel unless the agent,
// or a test, gives another).

#include "platform/brix/TimerWheel.h"
#include "platform/vorn/Entity.h"

namespace Ovin {

class OvinCommonSmData : public Vorn::Entity {
    VORN_ENTITY("Ovin::OvinCommonSmData")
  public:
    // REQUIRES: the wheel outlives every machine that uses this data.
    explicit OvinCommonSmData(const Vorn::Name& name,
                              Brix::TimerWheel& timerWheel = Brix::timerWheel())
        : name_(name), timerWheel_(&timerWheel) {}
    const Vorn::Name& name() const { return name_; }
    Brix::TimerWheel& timerWheel() const { return *timerWheel_; }

  private:
    const Vorn::Name name_;
    Brix::TimerWheel* const timerWheel_;
};

Vorn::Ptr<OvinCommonSmData> ovinCommonSmDataFactory(
    const Vorn::Name& name, Brix::TimerWheel& timerWheel = Brix::timerWheel());

}  // namespace Ovin
