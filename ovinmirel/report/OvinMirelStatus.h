#pragma once
// OvinMirel::Status: the root under which this layer publishes what it owns: the ACL store,
// the VLAN and LAG inputs, the glue configuration and status, the hardware capability
// collection, the driver configuration and status, and the mapping index. The agent makes
// it (statusFactory), sets the driver's root collections, calls initStatus() once before it
// builds any helper or state machine (they are given these children), and clearHubraData()
// at shutdown once they are gone.
//
// OvinMirel::Config is the matching configuration root: a name and nothing else, since all
// configuration comes from the ACL engine's own entities.

#include "ovinmirel/acl/OvinMirelAcl.h"
#include "ovinmirel/glue/OvinMirelGlueConfig.h"
#include "ovinmirel/glue/OvinMirelGlueStatus.h"
#include "ovinmirel/index/OvinMirelIndex.h"
#include "platform/lag/LagPhyIntfMapping.h"
#include "platform/mirel/HwCapability.h"
#include "platform/mirel/PDConfig.h"
#include "platform/mirel/PDStatus.h"
#include "platform/mirel/Root.h"
#include "platform/vlan/VlanPhyIntfConfig.h"
#include "platform/vorn/Entity.h"

namespace OvinMirel {

class Status : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::Status")
  public:
    // The children's names, as the state database shows them.
    static constexpr const char* kAclCollName = "OvinMirelAclColl";
    static constexpr const char* kVlanPhyIntfConfigDirName = "VlanPhyIntfConfigDir";
    static constexpr const char* kLagPhyIntfMappingName = "LagPhyIntfMapping";
    static constexpr const char* kGlueConfigName = "GlueConfig";
    static constexpr const char* kGlueStatusName = "GlueStatus";
    static constexpr const char* kHwCapabilityCollName = "HwCapabilityColl";
    static constexpr const char* kHwCapabilityName = "HwCapability";
    static constexpr const char* kPDConfigName = "PDConfig";
    static constexpr const char* kPDStatusName = "PDStatus";
    static constexpr const char* kIndexName = "OvinMirelIndex";

    explicit Status(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    // The driver's root collections (inputs), set by the agent before initStatus().
    VORN_PTR_ATTR(Mirel::RootConfigColl, rootConfigColl)
    VORN_PTR_ATTR(Mirel::RootStatusColl, rootStatusColl)

    // The children, made by initStatus() and dropped by clearHubraData() (or one at a time by
    // their ...Del()). Null before initStatus().
    Vorn::Ptr<OvinMirelAclColl> aclColl() const { return aclColl_.get(); }
    Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir> vlanPhyIntfConfigDir() const {
        return vlanPhyIntfConfigDir_.get();
    }
    Vorn::Ptr<Lag::LagPhyIntfMapping> lagPhyIntfMapping() const { return lagPhyIntfMapping_.get(); }
    Vorn::Ptr<GlueConfig> glueConfig() const { return glueConfig_.get(); }
    Vorn::Ptr<GlueStatus> glueStatus() const { return glueStatus_.get(); }
    Vorn::Ptr<Mirel::HwCapabilityColl> hwCapabilityColl() const { return hwCapabilityColl_.get(); }
    Vorn::Ptr<Mirel::PDConfig> pDConfig() const { return pDConfig_.get(); }
    Vorn::Ptr<Mirel::PDStatus> pDStatus() const { return pDStatus_.get(); }
    Vorn::Ptr<Index> index() const { return index_.get(); }
    void aclCollDel() { aclColl_.set(nullptr); }
    void vlanPhyIntfConfigDirDel() { vlanPhyIntfConfigDir_.set(nullptr); }
    void lagPhyIntfMappingDel() { lagPhyIntfMapping_.set(nullptr); }
    void glueConfigDel() { glueConfig_.set(nullptr); }
    void glueStatusDel() { glueStatus_.set(nullptr); }
    void hwCapabilityCollDel() { hwCapabilityColl_.set(nullptr); }
    void pDConfigDel() { pDConfig_.set(nullptr); }
    void pDStatusDel() { pDStatus_.set(nullptr); }
    void indexDel() { index_.set(nullptr); }

    // Creates the children in this order, each under its name: the ACL store, the VLAN
    // physical-interface configuration, the LAG physical-interface mapping, GlueConfig,
    // GlueStatus (initialised, then given the root collections that are set), the hardware
    // capability collection with its global record "HwCapability", PDConfig, PDStatus, the
    // index. A child that already exists is kept: a second call makes only what is missing.
    void initStatus();
    // Deletes the children in the same order.
    void clearHubraData();

    // The children's storage: they are created only by initStatus, so only their reads,
    // deletes and subscriptions (aclCollNotify, ...) are public.
    VORN_ATTR_STORAGE(Vorn::Ptr<OvinMirelAclColl>, aclColl)
    VORN_ATTR_STORAGE(Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir>, vlanPhyIntfConfigDir)
    VORN_ATTR_STORAGE(Vorn::Ptr<Lag::LagPhyIntfMapping>, lagPhyIntfMapping)
    VORN_ATTR_STORAGE(Vorn::Ptr<GlueConfig>, glueConfig)
    VORN_ATTR_STORAGE(Vorn::Ptr<GlueStatus>, glueStatus)
    VORN_ATTR_STORAGE(Vorn::Ptr<Mirel::HwCapabilityColl>, hwCapabilityColl)
    VORN_ATTR_STORAGE(Vorn::Ptr<Mirel::PDConfig>, pDConfig)
    VORN_ATTR_STORAGE(Vorn::Ptr<Mirel::PDStatus>, pDStatus)
    VORN_ATTR_STORAGE(Vorn::Ptr<Index>, index)

  private:
    const Vorn::Name name_;
};

class Config : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::Config")
  public:
    explicit Config(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<Status> statusFactory(const Vorn::Name& name);
Vorn::Ptr<Config> configFactory(const Vorn::Name& name);

}  // namespace OvinMirel
