#pragma once
// IndexSm: owns the five index state machines and starts them in a fixed order, so that the
// Index is rebuilt from its inputs in one pass and then kept equal to them.
//
// Watches: nothing itself; its machines watch the inputs (and the Index, for the table types).
// Writes:  at handleInitialized, empties the Index collections that no single machine clears;
//          then through its machines, the whole Index.
// Order (deliberate): chip placement, VLAN membership, ACL bindings, sub-interface carriers,
// and the per-type grouping last, once intfAclMapping is complete.
// Owns: the five machines; shared references to the inputs (read only) and the Index.

#include "ovinmirel/acl/OvinMirelAcl.h"
#include "ovinmirel/index/OvinMirelAclPhyIntfIndexSm.h"
#include "ovinmirel/index/OvinMirelChipIntfIndexSm.h"
#include "ovinmirel/index/OvinMirelIndex.h"
#include "ovinmirel/index/OvinMirelIntfAclTypeIndexSm.h"
#include "ovinmirel/index/OvinMirelPhyIntfVlanIndexSm.h"
#include "ovinmirel/index/OvinMirelSubIntfIndexSm.h"
#include "platform/interface/SubIntf.h"
#include "platform/lag/LagPhyIntfMapping.h"
#include "platform/mirel/PDStatus.h"
#include "platform/vlan/VlanPhyIntfConfig.h"
#include "platform/vorn/Ptr.h"

namespace OvinMirel {

class IndexSm : public Vorn::PtrInterface {
  public:
    // Every reference is required: a null one throws Vorn::NullPointerException.
    IndexSm(const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
            const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
            const Vorn::Ptr<Lag::LagPhyIntfMapping>& lagMapping,
            const Vorn::Ptr<Interface::SubIntfConfigDir>& subIntfConfig,
            const Vorn::Ptr<Index>& index);

    bool initialized() const { return initialized_; }
    const Vorn::Ptr<Index>& index() const { return index_; }

    // Empties the Index and creates and initialises the machines in order (replacing any
    // from an earlier initialisation).
    void handleInitialized();
    // Marks the builder as no longer initialised; the machines run on until deleted.
    void handleDelete();

    const Vorn::Ptr<ChipIntfIndexSm>& chipIntfIndexSm() const { return chipIntfIndexSm_; }
    const Vorn::Ptr<PhyIntfVlanIndexSm>& phyIntfVlanIndexSm() const { return phyIntfVlanIndexSm_; }
    const Vorn::Ptr<AclPhyIntfIndexSm>& aclPhyIntfIndexSm() const { return aclPhyIntfIndexSm_; }
    const Vorn::Ptr<SubIntfIndexSm>& subIntfIndexSm() const { return subIntfIndexSm_; }
    const Vorn::Ptr<IntfAclTypeIndexSm>& intfAclTypeIndexSm() const { return intfAclTypeIndexSm_; }
    // Each stops one machine; what it wrote stays in the Index.
    void chipIntfIndexSmDel() { chipIntfIndexSm_ = nullptr; }
    void phyIntfVlanIndexSmDel() { phyIntfVlanIndexSm_ = nullptr; }
    void aclPhyIntfIndexSmDel() { aclPhyIntfIndexSm_ = nullptr; }
    void subIntfIndexSmDel() { subIntfIndexSm_ = nullptr; }
    void intfAclTypeIndexSmDel() { intfAclTypeIndexSm_ = nullptr; }

  private:
    const Vorn::Ptr<OvinMirelAclColl> aclColl_;
    const Vorn::Ptr<Mirel::PDStatus> pdStatus_;
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir> vlanConfig_;
    const Vorn::Ptr<Lag::LagPhyIntfMapping> lagMapping_;
    const Vorn::Ptr<Interface::SubIntfConfigDir> subIntfConfig_;
    const Vorn::Ptr<Index> index_;
    bool initialized_ = false;
    Vorn::Ptr<ChipIntfIndexSm> chipIntfIndexSm_;
    Vorn::Ptr<PhyIntfVlanIndexSm> phyIntfVlanIndexSm_;
    Vorn::Ptr<AclPhyIntfIndexSm> aclPhyIntfIndexSm_;
    Vorn::Ptr<SubIntfIndexSm> subIntfIndexSm_;
    Vorn::Ptr<IntfAclTypeIndexSm> intfAclTypeIndexSm_;
};

Vorn::Ptr<IndexSm> indexSmFactory(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
    const Vorn::Ptr<Lag::LagPhyIntfMapping>& lagMapping,
    const Vorn::Ptr<Interface::SubIntfConfigDir>& subIntfConfig, const Vorn::Ptr<Index>& index);

}  // namespace OvinMirel
