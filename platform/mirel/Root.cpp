#include "platform/mirel/Root.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace Mirel {

namespace {

// Two ordered entity maps hold the same keys, and the children under each key are equal by
// their own isEqual.
template <class Field>
bool sameChildren(const Field& a, const Field& b) {
    return std::ranges::equal(a, b, [](const auto& x, const auto& y) {
        return x.first == y.first && x.second->isEqual(*y.second);
    });
}

}  // namespace

const char* rootActionName(RootAction a) {
    switch (a) {
        case rootActionCompute_:
            return "compute";
        case rootActionLoad_:
            return "load";
        case rootActionAbort_:
            return "abort";
    }
    return nullptr;
}

const char* rootStateName(RootState s) {
    switch (s) {
        case rootComputePending_:
            return "computePending";
        case rootComputing_:
            return "computing";
        case rootComputed_:
            return "computed";
        case rootComputeFailed_:
            return "computeFailed";
        case rootLoading_:
            return "loading";
        case rootLoaded_:
            return "loaded";
        case rootAborting_:
            return "aborting";
        case rootAborted_:
            return "aborted";
    }
    return nullptr;
}

std::ostream& operator<<(std::ostream& os, RootAction a) {
    if (const char* name = rootActionName(a))
        return os << name;
    return os << "rootAction(" << uint32_t(a) << ")";
}

std::ostream& operator<<(std::ostream& os, RootState s) {
    if (const char* name = rootStateName(s))
        return os << name;
    return os << "rootState(" << uint32_t(s) << ")";
}

void HwAcl::ruleListIs(const AclRuleListPtr& list) {
    Vorn::requireNonNull(list, typeName(), "ruleList");
    const TableType table = aclId_.tableType();
    const bool contradicts =
        (list->kind() == AclRuleList::Kind::mac && table != macAcl_ && table != invalid_) ||
        (list->kind() == AclRuleList::Kind::ip && table == macAcl_);
    if (contradicts) {
        std::ostringstream os;
        os << "Mirel::HwAcl::ruleList: " << *list << " does not fit " << aclId_;
        throw std::invalid_argument(os.str());
    }
    ruleList_.set(list);
}

bool HwAcl::holdsRules(const AclRuleList& list) const {
    return ruleList()->sameRules(list);
}

bool RootConfig::isEqual(const RootConfig& other) const {
    if (this == &other)
        return true;
    return sameChildren(aclKeyToAclIdTypeSet(), other.aclKeyToAclIdTypeSet()) &&
           sameChildren(acl(), other.acl());
}

void RootStatus::initialize() {
    rootStateIs(rootComputePending_);
    kickResponseIs(0);
    errorCodeIs(stageSuccess_);
    initializedIs(true);
}

Vorn::Ptr<RootConfigColl> rootConfigCollFactory(const Vorn::Name& name) {
    return Vorn::make<RootConfigColl>(name);
}

Vorn::Ptr<RootStatusColl> rootStatusCollFactory(const Vorn::Name& name) {
    return Vorn::make<RootStatusColl>(name);
}

Vorn::Ptr<RootConfig> rootConfigFactory(uint32_t rootConfigId) {
    return Vorn::make<RootConfig>(rootConfigId);
}

Vorn::Ptr<RootStatus> rootStatusFactory(uint32_t rootStatusId) {
    return Vorn::make<RootStatus>(rootStatusId);
}

}  // namespace Mirel
