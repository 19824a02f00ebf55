#include "platform/errdisable/ErrdisableCauseStatus.h"

namespace Errdisable {

Vorn::Ptr<CauseStatus> causeStatusFactory(const Vorn::Name& name) {
    return Vorn::make<CauseStatus>(name);
}

}  // namespace Errdisable
