#include "ovinmirel/index/OvinMirelIndex.h"

namespace OvinMirel {

void VlanAclColl::reinstantiate(const Zamu::IntfId& vlanIntfId) const {
    if (vlanIntfId == vlanIntfId_)
        return;
    throw Vorn::ReinstantiationException(
        "Reinstantiating the entity with fullName OvinMirel::Index::vlanAclMapping[" +
        std::to_string(vlanId_.value()) +
        "] where constructor parameter attribute 'vlanIntfId' has a different value of " +
        vlanIntfId.name() + " (it holds " + vlanIntfId_.name() + ")");
}

Vorn::Ptr<Index> indexFactory(const Vorn::Name& name) {
    return Vorn::make<Index>(name);
}

}  // namespace OvinMirel
