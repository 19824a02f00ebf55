#include "ovinmirel/index/OvinMirelIndex.h"

namespace OvinMirel {

void VlanAclColl::reinstantiate(const Zamu::IntfId& vlanIntfId) const {
    if (vlanIntfId == vlanIntfId_)
        return;
    Vorn::throwReinstantiation(
        "OvinMirel::Index::vlanAclMapping[" + std::to_string(vlanId_.value()) + "]", "vlanIntfId",
        vlanIntfId.name(), vlanIntfId_.name());
}

Vorn::Ptr<Index> indexFactory(const Vorn::Name& name) {
    return Vorn::make<Index>(name);
}

}  // namespace OvinMirel
