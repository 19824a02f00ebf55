#pragma once
// OvinMirel::Index: the derived view of which ACL applies to which physical interface on which
// chip, kept equal to its inputs by the index state machines (their writers are named below).
// Per-chip consumers only read it and watch its collections.
//
// Invariants (checked by checkIndexConsistency in OvinMirelIndexCheck.h):
//  1. No empty entries: the writer that removes the last member of a value entity deletes it,
//     then the entry above it if that became empty.
//  2. aclChipMapping[a].chipIntfMapping[c] holds i exactly when chipAclMapping[c]
//     .aclIntfMapping[a] holds i.
//  3. (a, i, c) is in the chip mappings exactly when a is in intfAclMapping[i] and i is in
//     chipIntfMapping[c].
//  4. a is in intfAclMapping[i] exactly when aclPhyIntfMapping[a].phyIntfMapping[i] exists.
//  5. phySubIntfMapping[p] holds s exactly when subPhyIntfMapping[s] holds p.
//  6. chipVlanMapping[c].vlanPhyIntfColl[v] holds p exactly when p is in chipIntfMapping[c] and
//     v in phyIntfVlanMapping[p]; likewise for chipSubIntfMapping and phySubIntfMapping.
//  7. Only physical (Ethernet) interface ids key intfAclMapping, phyIntfVlanMapping,
//     phySubIntfMapping, intfAclTypeMapping and PhyIntfMapping, and fill every set of
//     physical interface ids.

#include <string>

#include "platform/bridging/VlanId.h"
#include "platform/mirel/ChipId.h"
#include "platform/mirel/TableType.h"
#include "platform/ovin/AclKey.h"
#include "platform/vorn/Entity.h"
#include "platform/zamu/IntfId.h"

namespace OvinMirel {

// A value entity constructed from its key, which it also stores under `keyName`.
#define OVINMIREL_INDEX_VALUE_(Type, K, keyName) \
    VORN_ENTITY("OvinMirel::" #Type)             \
  public:                                        \
    explicit Type(const K& k) : keyName##_(k) {} \
    const K& keyName() const {                   \
        return keyName##_;                       \
    }                                            \
                                                 \
  private:                                       \
    const K keyName##_;                          \
                                                 \
  public:

class IntfAclColl : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(IntfAclColl, Zamu::IntfId, intfId)
    VORN_ORDERED_SET(Ovin::AclKey, aclKey)
};

class PhyIntfMapping : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(PhyIntfMapping, Zamu::IntfId, intfId)
    // The configured interfaces (the port itself, a sub-interface, a VLAN interface) through
    // which the owning ACL reaches this physical interface.
    VORN_ORDERED_SET(Zamu::IntfId, parentIntfId)
};

class AclPhyIntfColl : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(AclPhyIntfColl, Ovin::AclKey, aclKey)
    VORN_ENTITY_MAP(Zamu::IntfId, PhyIntfMapping, phyIntfMapping)
};

class AclIntfColl : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(AclIntfColl, Ovin::AclKey, aclKey)
    VORN_ORDERED_SET(Zamu::IntfId, intfId)
};

class ChipIntfMapping : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(ChipIntfMapping, Mirel::ChipId, chipId)
    VORN_ORDERED_SET(Zamu::IntfId, intfId)

  private:
    // Under aclChipMapping[acl] only: its mirror chipAclMapping[chip].aclIntfMapping[acl],
    // which holds the same interfaces. IndexSmBase, their writer, links them when it creates
    // the pair and unlinks them when one goes, so that a change of one ACL on one chip reaches
    // the second entry without a search of the chip's ACLs. Null when not known.
    friend class IndexSmBase;
    friend class IndexChecker;  // verifies that a link names the entry filed there
    Vorn::Ptr<AclIntfColl> mirror_;
};

class AclChipColl : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(AclChipColl, Ovin::AclKey, aclKey)
    VORN_ENTITY_MAP(Mirel::ChipId, ChipIntfMapping, chipIntfMapping)
};

class ChipAclColl : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(ChipAclColl, Mirel::ChipId, chipId)
    // Ordered: consumers walk a chip's ACLs in key order.
    VORN_ORDERED_ENTITY_MAP(Ovin::AclKey, AclIntfColl, aclIntfMapping)
};

class VlanPhyIntfColl : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(VlanPhyIntfColl, Bridging::VlanId, vlanId)
    VORN_ORDERED_SET(Zamu::IntfId, phyIntfId)
};

class ChipVlanColl : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(ChipVlanColl, Mirel::ChipId, chipId)
    VORN_ENTITY_MAP(Bridging::VlanId, VlanPhyIntfColl, vlanPhyIntfColl)
};

class SubPhyIntfColl : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(SubPhyIntfColl, Zamu::IntfId, subIntfId)
    VORN_ORDERED_SET(Zamu::IntfId, phyIntfId)
};

class ChipSubIntfColl : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(ChipSubIntfColl, Mirel::ChipId, chipId)
    VORN_ENTITY_MAP(Zamu::IntfId, SubPhyIntfColl, subPhyIntfColl)
};

class PhyIntfVlanColl : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(PhyIntfVlanColl, Zamu::IntfId, intfId)
    VORN_ORDERED_SET(Bridging::VlanId, vlanId)
};

class PhySubIntfColl : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(PhySubIntfColl, Zamu::IntfId, intfId)
    VORN_ORDERED_SET(Zamu::IntfId, subIntfId)
};

class LagSubIntfColl : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(LagSubIntfColl, Zamu::IntfId, lagIntfId)
    VORN_ORDERED_SET(Zamu::IntfId, subIntfId)
};

class SubIntfAclColl : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(SubIntfAclColl, Zamu::IntfId, subIntfId)
    VORN_ORDERED_SET(Ovin::AclKey, aclKey)
};

// Keyed by VLAN id; also carries the VLAN interface it was created for. Re-creating it for the
// same VLAN with another VLAN interface id is refused (ReinstantiationException).
class VlanAclColl : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::VlanAclColl")
  public:
    VlanAclColl(const Bridging::VlanId& vlanId, const Zamu::IntfId& vlanIntfId)
        : vlanId_(vlanId), vlanIntfId_(vlanIntfId) {}
    const Bridging::VlanId& vlanId() const { return vlanId_; }
    const Zamu::IntfId& vlanIntfId() const { return vlanIntfId_; }
    void reinstantiate(const Zamu::IntfId& vlanIntfId) const;
    VORN_ORDERED_SET(Ovin::AclKey, aclKey)

  private:
    const Bridging::VlanId vlanId_;
    const Zamu::IntfId vlanIntfId_;
};

class AclTableTypeMapping : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(AclTableTypeMapping, Mirel::TableType, aclTableType)
    VORN_ORDERED_SET(Ovin::AclKey, aclKey)
    // How many of those ACLs are not inbound: the directions present, without a walk.
    VORN_ATTR(uint32_t, outAcls)
};

class IntfAclTableTypeColl : public Vorn::Entity {
    OVINMIREL_INDEX_VALUE_(IntfAclTableTypeColl, Zamu::IntfId, intfId)
    VORN_ORDERED_ENTITY_MAP(Mirel::TableType, AclTableTypeMapping, aclTableTypeMapping)
};

#undef OVINMIREL_INDEX_VALUE_

// The top-level collections and the per-ACL and per-chip maps are hashed: they are looked up by
// key, and walked only by the replays, which walk them in key order (sortedKeys). Every set of
// physical interfaces is ordered, since the ripples walk them and their order shows in traces.
class Index : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::Index")
  public:
    explicit Index(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    VORN_ENTITY_MAP(Zamu::IntfId, IntfAclColl, intfAclMapping)               // IndexSmBase
    VORN_ENTITY_MAP(Ovin::AclKey, AclPhyIntfColl, aclPhyIntfMapping)         // IndexSmBase
    VORN_ENTITY_MAP(Ovin::AclKey, AclChipColl, aclChipMapping)               // IndexSmBase
    VORN_ENTITY_MAP(Mirel::ChipId, ChipAclColl, chipAclMapping)              // IndexSmBase
    VORN_ENTITY_MAP(Mirel::ChipId, ChipIntfMapping, chipIntfMapping)         // ChipIntfIndexSm
    VORN_ENTITY_MAP(Mirel::ChipId, ChipVlanColl, chipVlanMapping)            // IndexSmBase
    VORN_ENTITY_MAP(Mirel::ChipId, ChipSubIntfColl, chipSubIntfMapping)      // IndexSmBase
    VORN_ENTITY_MAP(Zamu::IntfId, PhyIntfVlanColl, phyIntfVlanMapping)       // PhyIntfVlanIndexSm
    VORN_ENTITY_MAP(Zamu::IntfId, PhySubIntfColl, phySubIntfMapping)         // SubIntfIndexSm
    VORN_ENTITY_MAP(Zamu::IntfId, SubPhyIntfColl, subPhyIntfMapping)         // SubIntfIndexSm
    VORN_ENTITY_MAP(Zamu::IntfId, LagSubIntfColl, lagSubIntfMapping)         // SubIntfIndexSm
    VORN_ENTITY_MAP(Zamu::IntfId, SubIntfAclColl, subIntfAclMapping)         // AclPhyIntfIndexSm
    VORN_ENTITY_MAP(Bridging::VlanId, VlanAclColl, vlanAclMapping)           // AclPhyIntfIndexSm
    VORN_ENTITY_MAP(Zamu::IntfId, IntfAclTableTypeColl, intfAclTypeMapping)  // IntfAclTypeIndexSm

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<Index> indexFactory(const Vorn::Name& name);

}  // namespace OvinMirel
