#include "platform/ovin/AclConfigDir.h"

namespace Acl {

Vorn::Ptr<ConfigDir> configDirFactory(const Vorn::Name& name) {
    return Vorn::make<ConfigDir>(name);
}

}  // namespace Acl
