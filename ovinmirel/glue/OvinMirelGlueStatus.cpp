#include "ovinmirel/glue/OvinMirelGlueStatus.h"

#include <array>
#include <stdexcept>
#include <string>

#include "platform/vorn/Assert.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {

namespace {

constexpr std::array<const char*, kGlueSmStateCount> kGlueSmStateWords = {
    "unknown",  "idle",    "aclIdAlloc", "aclIdAllocFail", "computing",     "loading",
    "aborting", "success", "fail",       "blockIntf",      "mappingLoader", "unblockIntf",
};

}  // namespace

const char* glueSmStateWord(GlueSmState s) {
    return uint32_t(s) < kGlueSmStateCount ? kGlueSmStateWords[s] : nullptr;
}

GlueSmState glueSmStateFromWord(std::string_view word) {
    for (uint32_t v = 0; v < kGlueSmStateCount; ++v) {
        if (word == kGlueSmStateWords[v])
            return GlueSmState(v);
    }
    throw std::invalid_argument("invalid GlueSmState word '" + std::string(word) + "'");
}

std::ostream& operator<<(std::ostream& os, GlueSmState s) {
    if (const char* word = glueSmStateWord(s))
        return os << word;
    return os << "GlueSmState(" << uint32_t(s) << ")";
}

Vorn::Ptr<VlanAclKeySet> AclPolicyStatus::vlanAclMappingIs(const Zamu::IntfId& phyIntf,
                                                           int64_t vlanId) {
    // The VLAN id is checked before anything is written.
    const Bridging::VlanId vlan(vlanId);
    Vorn::Ptr<VlanAclKeySet> entry = vlanAclMapping_.is(vlan);
    entry->phyIntfIs(phyIntf);
    return entry;
}

GlueStatus::GlueStatus(const Vorn::Name& name) : name_(name) {
    rootConfigColl_.set(Vorn::make<Mirel::RootConfigColl>("RootConfigColl"));
    rootStatusColl_.set(Vorn::make<Mirel::RootStatusColl>("RootStatusColl"));
}

void AclIdResponseColl::reinstantiate(const Vorn::Name& name) const {
    if (name != name_)
        Vorn::throwReinstantiation("OvinMirel::AclIdResponseColl", "name", name.str(), name_.str());
}

void AclPolicyStatusColl::reinstantiate(const Vorn::Name& name) const {
    if (name != name_)
        Vorn::throwReinstantiation("OvinMirel::AclPolicyStatusColl", "name", name.str(),
                                   name_.str());
}

void GlueStatus::initialize() {
    aclIdResponseCollIs(kAclIdResponseCollName);
    aclPolicyStatusCollIs(kAclPolicyStatusCollName);
    initializedIs(true);
}

uint32_t rootSmIdOf(Mirel::ChipId chipId, uint32_t slot) {
    VORN_ASSERT(slot < 2);
    VORN_ASSERT(chipId.value() <= kMaxRootChipId);
    return chipId.value() * 2 + slot;
}

uint32_t getAttemptRootSmId(const GlueStatus& glueStatus, Mirel::ChipId chipId) {
    if (const uint32_t* active = glueStatus.activeRootSmId(chipId)) {
        VORN_ASSERT(rootSmIdToChipId(*active) == chipId);
        return *active ^ 1;
    }
    return rootSmIdOf(chipId, 0);
}

Vorn::Ptr<GlueStatus> glueStatusFactory(const Vorn::Name& name) {
    return Vorn::make<GlueStatus>(name);
}

Vorn::Ptr<AclIdResponseColl> aclIdResponseCollFactory(const Vorn::Name& name) {
    return Vorn::make<AclIdResponseColl>(name);
}

Vorn::Ptr<AclIdResponse> aclIdResponseFactory(Mirel::ChipId chipId) {
    return Vorn::make<AclIdResponse>(chipId);
}

Vorn::Ptr<AclPolicyStatusColl> aclPolicyStatusCollFactory(const Vorn::Name& name) {
    return Vorn::make<AclPolicyStatusColl>(name);
}

Vorn::Ptr<AclPolicyStatus> aclPolicyStatusFactory(Mirel::ChipId chipId) {
    return Vorn::make<AclPolicyStatus>(chipId);
}

}  // namespace OvinMirel
