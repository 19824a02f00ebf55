#include "ovinmirel/index/OvinMirelIndexSm.h"

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelIndexSm");

template <class T>
const Vorn::Ptr<T>& required(const Vorn::Ptr<T>& p, const char* attr) {
    Vorn::requireNonNull(p, "OvinMirel::IndexSm", attr);
    return p;
}

}  // namespace

IndexSm::IndexSm(const Vorn::Ptr<OvinMirelAclColl>& aclColl,
                 const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
                 const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
                 const Vorn::Ptr<Lag::LagPhyIntfMapping>& lagMapping,
                 const Vorn::Ptr<Interface::SubIntfConfigDir>& subIntfConfig,
                 const Vorn::Ptr<Index>& index)
    : aclColl_(required(aclColl, "aclColl")),
      pdStatus_(required(pdStatus, "pdStatus")),
      vlanConfig_(required(vlanConfig, "vlanConfig")),
      lagMapping_(required(lagMapping, "lagMapping")),
      subIntfConfig_(required(subIntfConfig, "subIntfConfig")),
      index_(required(index, "index")) {}

void IndexSm::handleInitialized() {
    FLINQ(th, 2, "handleInitialized");
    // Machines from an earlier initialisation must not react to the clearing below.
    chipIntfIndexSm_ = nullptr;
    phyIntfVlanIndexSm_ = nullptr;
    aclPhyIntfIndexSm_ = nullptr;
    subIntfIndexSm_ = nullptr;
    intfAclTypeIndexSm_ = nullptr;
    initialized_ = true;
    index_->intfAclMappingDelAll();
    index_->chipIntfMappingDelAll();
    index_->vlanAclMappingDelAll();
    index_->chipAclMappingDelAll();
    index_->aclChipMappingDelAll();
    index_->aclPhyIntfMappingDelAll();
    index_->subPhyIntfMappingDelAll();
    index_->lagSubIntfMappingDelAll();

    chipIntfIndexSm_ = chipIntfIndexSmFactory(aclColl_, pdStatus_, vlanConfig_, index_);
    chipIntfIndexSm_->handleInitialized();
    phyIntfVlanIndexSm_ = phyIntfVlanIndexSmFactory(aclColl_, pdStatus_, vlanConfig_, index_);
    phyIntfVlanIndexSm_->handleInitialized();
    aclPhyIntfIndexSm_ = aclPhyIntfIndexSmFactory(aclColl_, pdStatus_, vlanConfig_, index_);
    aclPhyIntfIndexSm_->handleInitialized();
    subIntfIndexSm_ = subIntfIndexSmFactory(aclColl_, pdStatus_, vlanConfig_, lagMapping_,
                                            subIntfConfig_, index_);
    subIntfIndexSm_->handleInitialized();
    intfAclTypeIndexSm_ = intfAclTypeIndexSmFactory(index_);
    intfAclTypeIndexSm_->handleInitialized();
    FLINQ(th, 2, "handleInitialized done");
}

void IndexSm::handleDelete() {
    FLINQ(th, 2, "handleDelete");
    initialized_ = false;
}

Vorn::Ptr<IndexSm> indexSmFactory(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
    const Vorn::Ptr<Lag::LagPhyIntfMapping>& lagMapping,
    const Vorn::Ptr<Interface::SubIntfConfigDir>& subIntfConfig, const Vorn::Ptr<Index>& index) {
    return Vorn::make<IndexSm>(aclColl, pdStatus, vlanConfig, lagMapping, subIntfConfig, index);
}

}  // namespace OvinMirel
