#include "tools/soak/AgentInvariants.h"

#include <sstream>

#include "ovinmirel/chip/OvinMirelMappingCheck.h"
#include "ovinmirel/index/OvinMirelIndexCheck.h"
#include "ovinmirel/index/OvinMirelIndexTestWorld.h"
#include "platform/mirel/ChipPresence.h"
#include "platform/vorn/Name.h"
#include "tools/soak/PdMappingOracle.h"

namespace OvinMirel::Reliability {

namespace {

using Vorn::words;

const char* const kI1 = "I1 all-or-nothing: ";
const char* const kI2 = "I2 blocking: ";
const char* const kI3 = "I3 ids and indexes: ";
const char* const kI4 = "I4 consistency: ";
const char* const kI5 = "I5 published errors: ";
const char* const kI6 = "I6 rule list ids: ";
const char* const kI7 = "I7 completion: ";

size_t tableEntries(const Mirel::ChipDataFlowConfig& t) {
    return t.intfToHwAclIndexs() + t.routedPortToHwAclIndexs() + t.vlanToHwAclIndexs() +
           t.subIntfToHwAclIndexs() + t.chipRuleListKeyToIds();
}

Vorn::Ptr<Mirel::RootConfig> activeRootOf(const GlueStatus& status, Mirel::ChipId chip) {
    const uint32_t* id = status.activeRootSmId(chip);
    return id ? status.rootConfigColl()->rootConfig(*id) : nullptr;
}

std::string rootText(const uint32_t* id) {
    return id ? std::to_string(*id) : std::string("none");
}

// Whether the ACL's rules go to two chip rule lists on a chip that can split: it has TCP
// rules and rules of other protocols than TCP and "any IP".
bool splits(const OvinMirelAcl* acl, const Ovin::AclKey& key, bool supported) {
    if (!supported || key.type == Acl::aclTypeMac || !acl)
        return false;
    const uint32_t* tcp = acl->ruleCountByProtocol(Zamu::IpProto(Zamu::IpProto::kTcp));
    const uint32_t* any = acl->ruleCountByProtocol(Zamu::IpProto(Zamu::IpProto::kAny));
    if (!tcp || *tcp == 0)
        return false;
    return uint64_t(*tcp) + (any ? *any : 0) != acl->ipRuleByIds();
}

}  // namespace

RuleListIdNeed ruleListIdNeed(const Status& status, Mirel::ChipId chip) {
    const Vorn::Ptr<Mirel::ChipHwCapability> cap =
        status.hwCapabilityColl()->chipHwCapability(chip);
    const uint64_t max = cap ? cap->chipRuleListIdMax() : 0;
    const uint64_t reserved = cap ? cap->chipRuleListIdReservedPermitAll() : 255;
    RuleListIdNeed n;
    n.available = max + 1 - (reserved <= max ? 1 : 0);
    if (const Vorn::Ptr<ChipAclColl> acls = status.index()->chipAclMapping(chip)) {
        for (const auto& [key, intfs] : acls->aclIntfMapping()) {
            const Vorn::Ptr<OvinMirelAcl> acl = status.aclColl()->acl(key);
            n.need += splits(acl.ptr(), key, cap && cap->aclSplitOnProtocolSupported()) ? 2 : 1;
        }
    }
    return n;
}

AgentInvariants::AgentInvariants(TestAgentRoot& root) : root_(root) {
    stateSub_ =
        root_.ovinMirelStatus()->glueStatus()->glueSmStateNotify([this] { handleGlueSmState(); });
}

bool AgentInvariants::present(Mirel::ChipId chip) const {
    const Status& s = *root_.ovinMirelStatus();
    return Mirel::ChipPresence::present(*s.hwCapabilityColl(), *s.pDStatus(), chip);
}

// ---- Following the cycle ----

void AgentInvariants::handleGlueSmState() {
    const GlueStatus& status = *root_.ovinMirelStatus()->glueStatus();
    const GlueSmState state = status.glueSmState();
    if (state == aclIdAlloc_) {
        // A cycle that started from inside the end of the last one (nested notifications)
        // is judged here, before its snapshot is replaced.
        if (start_)
            judgeCycle();
        startCycle();
        return;
    }
    if (allocationPending_)
        judgeAllocation(state);
    if (state == computing_)
        wish_ = rootWish();
    if (state == aborting_) {
        failedCompute_.clear();
        for (const auto& [chip, rootId] : status.attemptRootSmId()) {
            const Vorn::Ptr<Mirel::RootStatus> rs = status.rootStatusColl()->rootStatus(rootId);
            if (rs && rs->rootState() == Mirel::rootComputeFailed_)
                failedCompute_[chip] = rs->errorCode();
        }
    }
    if (state == idle_ && start_)
        judgeCycle();
}

void AgentInvariants::startCycle() {
    const Status& s = *root_.ovinMirelStatus();
    const GlueStatus& status = *s.glueStatus();
    CycleStart c;
    for (const auto& [chip, rootId] : status.activeRootSmId())
        c.activeRoot.emplace(chip, rootId);
    for (const auto& [chip, config] : s.pDConfig()->chipConfig()) {
        c.loaded.emplace(chip, Mirel::chipDataFlowTablesCopy(*config->chipDataFlowConfig()));
        c.config.emplace(chip, config);
    }
    for (const auto& [chip, code] : status.chipError())
        c.chipError.emplace(chip, code);
    start_ = std::move(c);
    allocationPending_ = true;
    wish_.reset();
    failedCompute_.clear();
}

void AgentInvariants::judgeAllocation(GlueSmState next) {
    allocationPending_ = false;
    const Status& s = *root_.ovinMirelStatus();
    bool anyShort = false;
    for (const auto& [chip, sm] : root_.ovinMirelGlueSm()->aclIdAllocSmColl()->chipAclIdAllocSm()) {
        const RuleListIdNeed n = ruleListIdNeed(s, chip);
        const bool shortOfIds = n.need > n.available;
        anyShort = anyShort || shortOfIds;
        if (sm->chipRuleListIdExhausted() != shortOfIds) {
            judged_.push_back(
                words(kI6, "Chip-", chip, shortOfIds ? " does not report" : " reports",
                      " exhaustion, but its ACLs need ", n.need, " of ", n.available, " ids"));
        }
    }
    const bool failedEarly = next != computing_;
    if (failedEarly != anyShort) {
        judged_.push_back(words(kI6, "the cycle went from aclIdAlloc to ", next, " although ",
                                anyShort ? "a chip is" : "no chip is", " short of ids"));
    }
}

AgentInvariants::RootWish AgentInvariants::rootWish() const {
    const Status& s = *root_.ovinMirelStatus();
    RootWish wish;
    for (const auto& [chip, cap] : s.hwCapabilityColl()->chipHwCapability()) {
        if (!present(chip))
            continue;
        auto& want = wish[chip];
        const Vorn::Ptr<ChipAclColl> acls = s.index()->chipAclMapping(chip);
        const Vorn::Ptr<AclIdResponse> response =
            s.glueStatus()->aclIdResponseColl()->chipAclIdResponse(chip);
        if (!acls || !response)
            continue;
        for (const auto& [key, intfs] : acls->aclIntfMapping()) {
            const Vorn::Ptr<Mirel::AclIdTypeSet> ids = response->response(key);
            if (intfs->intfIds() == 0 || !ids || ids->aclIdTypes() == 0)
                continue;
            for (const auto& [protocol, id] : ids->aclIdType())
                want[key][int(protocol)] = id;
        }
    }
    return wish;
}

std::optional<std::string> AgentInvariants::rootDiffers(
    Mirel::ChipId chip, const std::map<Ovin::AclKey, std::map<int, Mirel::AclId>>& want) const {
    const Vorn::Ptr<Mirel::RootConfig> root =
        activeRootOf(*root_.ovinMirelStatus()->glueStatus(), chip);
    std::map<Ovin::AclKey, std::map<int, Mirel::AclId>> have;
    if (root) {
        for (const auto& [key, ids] : root->aclKeyToAclIdTypeSet()) {
            for (const auto& [protocol, id] : ids->aclIdType())
                have[key][int(protocol)] = id;
        }
    }
    if (have == want)
        return std::nullopt;
    for (const auto& [key, ids] : want) {
        if (!have.contains(key))
            return words("Chip-", chip, " active root lacks ", key);
        if (have.at(key) != ids)
            return words("Chip-", chip, " active root holds other ids for ", key);
    }
    for (const auto& [key, ids] : have) {
        if (!want.contains(key))
            return words("Chip-", chip, " active root holds ", key, ", which is not asked for");
    }
    return words("Chip-", chip, " active root differs from the configuration");
}

void AgentInvariants::judgeCycle() {
    const CycleStart before = std::move(*start_);
    start_.reset();
    ++cyclesJudged_;
    const Status& s = *root_.ovinMirelStatus();
    const GlueStatus& status = *s.glueStatus();
    const GlueSmState result = status.lastComputationResult();
    const bool failed = result == fail_ || result == aclIdAllocFail_;

    for (const auto& [chip, config] : s.pDConfig()->chipConfig()) {
        auto same = before.config.find(chip);
        if (!present(chip) || same == before.config.end() || same->second.ptr() != config.ptr())
            continue;  // came (or came back) during the cycle
        const Mirel::ChipDataFlowConfig& loaded = *config->chipDataFlowConfig();
        const Vorn::Ptr<Mirel::ChipDataFlowConfig> pi = status.piChipDataFlowConfig(chip);
        if (failed) {
            auto was = before.activeRoot.find(chip);
            const uint32_t* now = status.activeRootSmId(chip);
            const uint32_t* then = was == before.activeRoot.end() ? nullptr : &was->second;
            if ((then == nullptr) != (now == nullptr) || (now && *now != *then)) {
                judged_.push_back(words(kI1, "Chip-", chip, " active root went from ",
                                        rootText(then), " to ", rootText(now),
                                        " in a failed cycle (", result, ")"));
            }
            auto tables = before.loaded.find(chip);
            const bool kept = loaded.mappingsEqual(*tables->second);
            const bool loaderWrote = result == aclIdAllocFail_ && pi && loaded.mappingsEqual(*pi);
            if (!kept && !loaderWrote) {
                judged_.push_back(words(kI1, "Chip-", chip,
                                        " loaded tables changed in a failed cycle (", result, ")"));
            }
        } else if (result == success_) {
            if (pi && !loaded.mappingsEqual(*pi)) {
                judged_.push_back(words(kI1, "Chip-", chip,
                                        " loaded tables are not its PD mapping after a successful "
                                        "cycle"));
            }
            if (wish_ && wish_->contains(chip)) {
                if (auto v = rootDiffers(chip, wish_->at(chip)))
                    judged_.push_back(kI1 + *v);
            }
        }
    }

    // I5: the published errors.
    std::map<Mirel::ChipId, Mirel::StageErrorCode> want;
    if (result == fail_) {
        for (const auto& [chip, code] : failedCompute_) {
            if (present(chip) && code >= 1 && code <= 7)
                want.emplace(chip, code);
        }
    } else if (result == aclIdAllocFail_) {
        want = before.chipError;
    }
    std::map<Mirel::ChipId, Mirel::StageErrorCode> have;
    for (const auto& [chip, code] : status.chipError())
        have.emplace(chip, code);
    if (have != want) {
        std::ostringstream os;
        os << kI5 << "after " << result << " published {";
        for (const auto& [chip, code] : have)
            os << " Chip-" << chip << ":" << code;
        os << " }, expected {";
        for (const auto& [chip, code] : want)
            os << " Chip-" << chip << ":" << code;
        os << " }";
        judged_.push_back(os.str());
    }
    wish_.reset();
    failedCompute_.clear();
}

// ---- Rules of every pass ----

void AgentInvariants::checkIndex(std::vector<std::string>& out) const {
    const Status& s = *root_.ovinMirelStatus();
    if (auto broken = checkIndexConsistency(*s.index()))
        out.push_back(kI4 + *broken);
    const Vorn::Ptr<Index> fresh = indexFactory("RebuiltIndex");
    const Vorn::Ptr<IndexSm> builder =
        indexSmFactory(s.aclColl(), s.pDStatus(), s.vlanPhyIntfConfigDir(), s.lagPhyIntfMapping(),
                       root_.subIntfConfigDir(), fresh);
    builder->handleInitialized();
    if (auto differs = IndexTest::indexDifference(*s.index(), *fresh, "running", "rebuilt"))
        out.push_back(kI4 + std::string("Index differs from a rebuild: ") + *differs);
    builder->handleDelete();
}

void AgentInvariants::checkChips(std::vector<std::string>& out) const {
    const Status& s = *root_.ovinMirelStatus();
    const GlueStatus& status = *s.glueStatus();
    const GlueSm& glue = *root_.ovinMirelGlueSm();
    const bool idle = status.glueSmState() == idle_;
    for (const auto& [chip, cap] : s.hwCapabilityColl()->chipHwCapability()) {
        if (!present(chip))
            continue;
        const Vorn::Ptr<Mirel::RootConfig> root = activeRootOf(status, chip);
        const Vorn::Ptr<Mirel::ChipDataFlowConfig> pi = status.piChipDataFlowConfig(chip);
        const Vorn::Ptr<AclPolicyStatus> policy = status.aclPolicyStatusColl()->status(chip);
        const Vorn::Ptr<MappingSm> sm = glue.mappingSmColl()->sm(chip);

        // I4: the machine's own check and the oracle.
        if (sm) {
            if (auto broken = checkMappingConsistency(*sm))
                out.push_back(words(kI4, "Chip-", chip, " MappingSm: ", *broken));
        }
        if (pi && policy) {
            const PdExpectation want = expectPdMapping(*policy, root.ptr());
            for (std::string& v : comparePdMapping(chip, want, root.ptr(), *cap, *pi))
                out.push_back(kI4 + std::string("PD mapping oracle: ") + v);
        }

        // I3: the active root's rule lists are the ones its ACLs name.
        if (root) {
            std::set<Mirel::AclId> named;
            size_t namings = 0;
            for (const auto& [key, ids] : root->aclKeyToAclIdTypeSet()) {
                for (const auto& [protocol, id] : ids->aclIdType()) {
                    named.insert(id);
                    ++namings;
                    if (id.chipRuleListId() > cap->chipRuleListIdMax() ||
                        id.chipRuleListId() == cap->chipRuleListIdReservedPermitAll()) {
                        out.push_back(words(kI3, "Chip-", chip, " active root gives ", key, " ", id,
                                            ", outside the chip's ids"));
                    }
                }
            }
            std::set<Mirel::AclId> lists;
            for (const auto& [id, acl] : root->acl())
                lists.insert(id);
            if (namings != named.size())
                out.push_back(words(kI3, "Chip-", chip, " active root names one id twice"));
            if (lists != named) {
                out.push_back(words(kI3, "Chip-", chip, " active root holds ", lists.size(),
                                    " rule lists but its ACLs name ", named.size()));
            }
        }
        // I3: per pool, the indexes in use are the ones the 1st level uses.
        if (sm && pi) {
            std::map<HwAclIndexAllocatorType, std::set<uint32_t>> used;
            for (const auto& [intf, index] : pi->intfToHwAclIndex())
                used[hwAclIndexAllocPaclMacl_].insert(index.value());
            for (const auto& [intf, index] : pi->routedPortToHwAclIndex())
                used[hwAclIndexAllocRacl_].insert(index.value());
            for (const auto& [vlan, index] : pi->vlanToHwAclIndex())
                used[hwAclIndexAllocRacl_].insert(index.value());
            for (const auto& [intf, index] : pi->subIntfToHwAclIndex())
                used[hwAclIndexAllocRacl_].insert(index.value());
            for (const auto& [type, allocator] : sm->hwAclIndexAllocator()) {
                std::set<uint32_t> inUse;
                if (allocator->status()) {
                    for (const uint32_t n : allocator->status()->allocated()) {
                        if (n != cap->hwAclIndexReserved())
                            inUse.insert(n);
                    }
                }
                if (inUse != used[type]) {
                    out.push_back(words(kI3, "Chip-", chip, " ", type, " has ", inUse.size(),
                                        " indexes in use but the 1st level uses ",
                                        used[type].size()));
                }
            }
        }
        // I3: once idle, the loaded 2nd level names rule lists of the active root only.
        const Vorn::Ptr<MappingLoaderSm> loader = glue.mappingLoaderSmColl()->mappingLoader(chip);
        const Vorn::Ptr<Mirel::ChipDataFlowConfig> loaded = root_.loadedDataFlow(chip);
        if (idle && loaded && !(loader && loader->queueProcessTimer().armed())) {
            for (const auto& [key, id] : loaded->chipRuleListKeyToId()) {
                if (!root || !root->acl(id)) {
                    out.push_back(words(kI3, "Chip-", chip, " loaded ", key, " -> ", id,
                                        ", which its active root ",
                                        rootText(status.activeRootSmId(chip)), " does not hold"));
                    break;
                }
            }
        }
    }
}

void AgentInvariants::checkBlocked(std::vector<std::string>& out) const {
    const Status& s = *root_.ovinMirelStatus();
    const Vorn::Ptr<BlockIntfLoaderSm> loader = root_.ovinMirelGlueSm()->blockIntfLoaderSm();
    if (s.glueStatus()->glueSmState() != idle_ || (loader && loader->blockIntfTimer().armed()))
        return;
    for (const Zamu::IntfId& intf : s.pDConfig()->blockedIntf()) {
        if (!s.glueConfig()->blockedIntf(intf))
            out.push_back(words(kI2, intf, " is blocked while idle and nobody asks for it"));
    }
}

std::vector<std::string> AgentInvariants::check() {
    std::vector<std::string> out = std::move(judged_);
    judged_.clear();
    checkIndex(out);
    checkChips(out);
    checkBlocked(out);
    return out;
}

std::vector<std::string> AgentInvariants::checkSettled() {
    std::vector<std::string> out = check();
    const Status& s = *root_.ovinMirelStatus();
    const GlueStatus& status = *s.glueStatus();
    const GlueSmState state = status.glueSmState();
    if (state != idle_ && !(state == unknown_ && root_.cycles() == 0))
        out.push_back(words(kI7, "the agent settled in ", state, ", not idle"));
    if (start_)
        out.push_back(words(kI7, "a cycle started and never reached idle"));
    if (status.computingRootSmIds() + status.loadingRootSmIds() + status.abortRootSmIds() > 0)
        out.push_back(words(kI7, "roots are still computing, loading or aborting"));
    if (const Vorn::Ptr<OvinMirelAclSm> engine = root_.ovinAclSm()) {
        if (engine->dpAclUpdateRequestPending())
            out.push_back(words(kI7, "the engine still waits for its update"));
        if (engine->dpAclUpdateWaiters() > 0) {
            out.push_back(
                words(kI7, engine->dpAclUpdateWaiters(), " clients still wait for the data plane"));
        }
    }
    for (const Zamu::IntfId& intf : s.pDConfig()->blockedIntf()) {
        if (!s.glueConfig()->blockedIntf(intf))
            out.push_back(words(kI2, intf, " is still blocked and nobody asks for it"));
    }
    const RootWish wish = rootWish();
    for (const auto& [chip, config] : s.pDConfig()->chipConfig()) {
        if (!present(chip))
            continue;
        const Vorn::Ptr<Mirel::ChipDataFlowConfig> pi = status.piChipDataFlowConfig(chip);
        if (pi && !config->chipDataFlowConfig()->mappingsEqual(*pi))
            out.push_back(words(kI1, "Chip-", chip, " settled with tables other than its mapping"));
        if (status.lastComputationResult() == success_ && wish.contains(chip)) {
            if (auto v = rootDiffers(chip, wish.at(chip)))
                out.push_back(kI1 + *v);
        }
    }
    return out;
}

std::vector<std::string> AgentInvariants::checkEmptied() {
    std::vector<std::string> out = checkSettled();
    const Status& s = *root_.ovinMirelStatus();
    const GlueStatus& status = *s.glueStatus();
    auto left = [&](const std::string& what) { out.push_back(kI3 + what + " is left"); };
    if (s.aclColl()->acls() > 0)
        left("an ACL in the store");
    if (s.index()->aclChipMappings() + s.index()->chipAclMappings() > 0)
        left("an ACL placement in the Index");
    if (s.glueConfig()->blockedIntfs() + s.pDConfig()->blockedIntfs() > 0)
        left("a blocked interface");
    for (const auto& [chip, cap] : s.hwCapabilityColl()->chipHwCapability()) {
        if (!present(chip))
            continue;
        const std::string who = words("Chip-", chip, " ");
        const Vorn::Ptr<AclIdResponse> response =
            status.aclIdResponseColl()->chipAclIdResponse(chip);
        if (response && response->responses() > 0)
            left(who + "ACL id");
        if (const Vorn::Ptr<Mirel::RootConfig> root = activeRootOf(status, chip)) {
            if (root->acls() + root->aclKeyToAclIdTypeSets() > 0)
                left(who + "rule list in the active root");
        }
        if (const auto pi = status.piChipDataFlowConfig(chip); pi && tableEntries(*pi) > 0)
            left(who + "PD mapping entry");
        if (const auto loaded = root_.loadedDataFlow(chip); loaded && tableEntries(*loaded) > 0)
            left(who + "loaded mapping entry");
        if (const auto policy = status.aclPolicyStatusColl()->status(chip)) {
            if (policy->intfAclMappings() + policy->routedPortSharedAclMappings() +
                    policy->vlanAclMappings() + policy->subIntfAclMappings() >
                0)
                left(who + "policy entry");
        }
        if (const auto sm = root_.ovinMirelGlueSm()->mappingSmColl()->sm(chip)) {
            for (const auto& [type, allocator] : sm->hwAclIndexAllocator()) {
                if (!allocator->status())
                    continue;
                for (const uint32_t n : allocator->status()->allocated()) {
                    if (n != cap->hwAclIndexReserved())
                        left(words(who, "hardware ACL index ", n, " of ", type));
                }
            }
        }
        if (const auto pd = s.pDStatus()->chipPDStatus(chip); pd && pd->ruleListIdsUsage().inUse)
            left(who + "rule list id in use by the driver");
    }
    return out;
}

}  // namespace OvinMirel::Reliability
