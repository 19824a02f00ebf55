#include "ovinmirel/report/OvinMirelStatus.h"

#include "platform/flinq/Flinq.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelStatus");

// Creates the child under `name` unless the attribute holds one already.
template <class T, class Make>
void makeChild(Vorn::Attr<Vorn::Ptr<T>>& child, const char* name, Make&& make) {
    if (child.get())
        return;
    FLINQ(th, 8, "  creating " << name);
    child.set(make(Vorn::Name(name)));
}

}  // namespace

void Status::initStatus() {
    FLINQ(th, 2, "initStatus " << name_);
    makeChild(aclColl_, kAclCollName, ovinMirelAclCollFactory);
    makeChild(vlanPhyIntfConfigDir_, kVlanPhyIntfConfigDirName,
              VlanPhyIntfConfigLib::vlanPhyIntfConfigDirFactory);
    makeChild(lagPhyIntfMapping_, kLagPhyIntfMappingName, Lag::lagPhyIntfMappingFactory);
    makeChild(glueConfig_, kGlueConfigName, glueConfigFactory);
    makeChild(glueStatus_, kGlueStatusName, glueStatusFactory);
    const Vorn::Ptr<GlueStatus> glue = glueStatus_.get();
    glue->initialize();
    if (const Vorn::Ptr<Mirel::RootConfigColl> roots = rootConfigColl())
        glue->rootConfigCollIs(roots);
    if (const Vorn::Ptr<Mirel::RootStatusColl> roots = rootStatusColl())
        glue->rootStatusCollIs(roots);
    makeChild(hwCapabilityColl_, kHwCapabilityCollName, Mirel::hwCapabilityCollFactory);
    hwCapabilityColl_.get()->hwCapabilityIs(kHwCapabilityName);
    makeChild(pDConfig_, kPDConfigName, Mirel::pdConfigFactory);
    makeChild(pDStatus_, kPDStatusName, Mirel::pdStatusFactory);
    makeChild(index_, kIndexName, indexFactory);
}

void Status::clearHubraData() {
    FLINQ(th, 2, "clearHubraData " << name_);
    aclCollDel();
    vlanPhyIntfConfigDirDel();
    lagPhyIntfMappingDel();
    glueConfigDel();
    glueStatusDel();
    hwCapabilityCollDel();
    pDConfigDel();
    pDStatusDel();
    indexDel();
}

Vorn::Ptr<Status> statusFactory(const Vorn::Name& name) {
    return Vorn::make<Status>(name);
}

Vorn::Ptr<Config> configFactory(const Vorn::Name& name) {
    return Vorn::make<Config>(name);
}

}  // namespace OvinMirel
