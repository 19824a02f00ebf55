#include "platform/ovin/OvinCommonSmData.h"

namespace Ovin {

Vorn::Ptr<OvinCommonSmData> ovinCommonSmDataFactory(const Vorn::Name& name,
                                                    Brix::TimerWheel& timerWheel) {
    return Vorn::make<OvinCommonSmData>(name, timerWheel);
}

}  // namespace Ovin
