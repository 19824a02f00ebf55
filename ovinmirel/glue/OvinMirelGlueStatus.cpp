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

// Gets the child held in `field`, creating it under `name` when there is none. The child's
// name is its only constructor parameter, so another name is a re-creation with a different
// value: refused, and the held child is kept.
template <class T>
Vorn::Ptr<T> childIs(Vorn::Attr<Vorn::Ptr<T>>& field, const Vorn::Name& name, const char* attr) {
    if (const Vorn::Ptr<T>& held = field.get()) {
        if (held->name() == name)
            return held;
        throw Vorn::ReinstantiationException(
            std::string("Reinstantiating the entity with fullName OvinMirel::GlueStatus::") + attr +
            " where constructor parameter attribute 'name' has a different value of " + name.str() +
            " (it holds " + held->name().str() + ")");
    }
    Vorn::Ptr<T> child = Vorn::make<T>(name);
    field.set(child);
    return child;
}

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

GlueStatus::GlueStatus(const Vorn::Name& name)
    : name_(name),
      rootConfigColl_(Vorn::make<Mirel::RootConfigColl>("RootConfigColl")),
      rootStatusColl_(Vorn::make<Mirel::RootStatusColl>("RootStatusColl")) {}

Vorn::Ptr<AclIdResponseColl> GlueStatus::aclIdResponseCollIs(const Vorn::Name& name) {
    return childIs(aclIdResponseColl_, name, "aclIdResponseColl");
}

Vorn::Ptr<AclPolicyStatusColl> GlueStatus::aclPolicyStatusCollIs(const Vorn::Name& name) {
    return childIs(aclPolicyStatusColl_, name, "aclPolicyStatusColl");
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
