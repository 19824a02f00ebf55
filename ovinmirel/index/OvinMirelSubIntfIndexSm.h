#pragma once
// SubIntfIndexSm: resolves sub-interfaces to the physical ports that carry them. A
// sub-interface of an Ethernet port is carried by that port; one of a port-channel by every
// current member port of the LAG. Ripples each carrier change to the chip-sub-interface
// mapping and to the ACLs bound to the sub-interface, through IndexSmBase.
//
// Watches: SubIntfConfigDir.intfConfig (which sub-interfaces exist); LagPhyIntfMapping, one
//          watcher per LAG on its member set (from handleInitialized on).
// Reads:   PDStatus.intfMapping (a carrier's chip), Index.subIntfAclMapping (the ACLs bound to
//          a sub-interface).
// Writes:  Index.lagSubIntfMapping, subPhyIntfMapping, phySubIntfMapping; through the base,
//          chipSubIntfMapping and the sub-interface's ACLs on each carrier (the sub-interface
//          is the parent).
// Invariants:
//  1. p is in subPhyIntfMapping[s] exactly when s is in phySubIntfMapping[p], exactly when s
//     is configured and p is its parent port or a member of its parent LAG.
//  2. s is in lagSubIntfMapping[l] exactly when s is a configured sub-interface of LAG l.
//  3. A LAG entry that disappears with members still listed is treated as every one of them
//     leaving.
// Owns: the sub-interface subscription and the per-LAG watchers; the LAG membership and
// sub-interface configuration references, besides those of IndexSmBase.

#include <memory>

#include "ovinmirel/index/OvinMirelIndexSmBase.h"
#include "platform/interface/SubIntf.h"
#include "platform/lag/LagPhyIntfMapping.h"
#include "platform/vorn/EntryWatchers.h"

namespace OvinMirel {

class SubIntfIndexSm : public IndexSmBase {
  public:
    SubIntfIndexSm(const Vorn::Ptr<OvinMirelAclColl>& aclColl,
                   const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
                   const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
                   const Vorn::Ptr<Lag::LagPhyIntfMapping>& lagMapping,
                   const Vorn::Ptr<Interface::SubIntfConfigDir>& subIntfConfig,
                   const Vorn::Ptr<Index>& index);

    const Vorn::Ptr<Lag::LagPhyIntfMapping>& lagPhyIntfMapping() const { return lagMapping_; }
    const Vorn::Ptr<Interface::SubIntfConfigDir>& subIntfConfigDir() const {
        return subIntfConfig_;
    }

    // Drops phySubIntfMapping and chipSubIntfMapping (it rebuilds both completely), replays
    // every configured sub-interface, then follows both inputs.
    void handleInitialized();
    // Dispatches on the kind of sub-interface. REQUIRES: a sub-interface id.
    void handleSubIntf(const Zamu::IntfId& intfId);
    // Each brings the Index in line with whether the sub-interface is configured now.
    // REQUIRES: initialized(); a sub-interface of a port (of a port-channel).
    void handleEthSubIntf(const Zamu::IntfId& subIntf);
    void handleLagSubIntf(const Zamu::IntfId& intfId);
    // Brings the Index in line with whether ethIntf is a member of lagIntf now.
    void handleLagMember(const Zamu::IntfId& lagIntf, const Zamu::IntfId& ethIntf);
    // phyIntf starts or stops carrying subIntf.
    void updateSubIntfMappingAdded(const Zamu::IntfId& phyIntf, const Zamu::IntfId& subIntf);
    void updateSubIntfMappingDeleted(const Zamu::IntfId& phyIntf, const Zamu::IntfId& subIntf);

  private:
    class LagWatcher;
    using LagField = Vorn::EntityMapField<Zamu::IntfId, Lag::LagPhyIntfConfig>;

    const Vorn::Ptr<Lag::LagPhyIntfMapping> lagMapping_;
    const Vorn::Ptr<Interface::SubIntfConfigDir> subIntfConfig_;
    Vorn::Subscription subIntfConfigSub_;
    std::unique_ptr<Vorn::EntryWatchers<LagField, LagWatcher>> lagPhyIntfConfig_;
};

Vorn::Ptr<SubIntfIndexSm> subIntfIndexSmFactory(
    const Vorn::Ptr<OvinMirelAclColl>& aclColl, const Vorn::Ptr<Mirel::PDStatus>& pdStatus,
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>& vlanConfig,
    const Vorn::Ptr<Lag::LagPhyIntfMapping>& lagMapping,
    const Vorn::Ptr<Interface::SubIntfConfigDir>& subIntfConfig, const Vorn::Ptr<Index>& index);

}  // namespace OvinMirel
