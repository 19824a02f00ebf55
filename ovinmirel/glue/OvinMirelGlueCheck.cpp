#include "ovinmirel/glue/OvinMirelGlueCheck.h"

#include <set>

#include "platform/mirel/ChipPresence.h"
#include "platform/vorn/Name.h"

namespace OvinMirel {

namespace {

using Vorn::words;

struct Presence {
    const GlueSm& sm;
    bool present(Mirel::ChipId chip) const {
        return Mirel::ChipPresence::present(*sm.hwCapabilityColl(), *sm.pDStatus(), chip);
    }
};

// Whether the chip's loader still has mappings queued for its next pass.
bool loaderBusy(const GlueSm& sm, Mirel::ChipId chip) {
    const Vorn::Ptr<MappingLoaderSm> loader = sm.mappingLoaderSmColl()->mappingLoader(chip);
    return loader && loader->queueProcessTimer().armed();
}

std::optional<std::string> checkFailedCycle(const GlueSm& sm, const GlueSnapshot& before,
                                            const Presence& presence) {
    const GlueStatus& status = *sm.glueStatus();
    const std::string result = words(status.lastComputationResult());
    std::set<Mirel::ChipId> chips;
    for (const auto& entry : before.activeRootSmId)
        chips.insert(entry.first);
    for (const auto& entry : status.activeRootSmId())
        chips.insert(entry.first);
    for (const Mirel::ChipId chip : chips) {
        if (!presence.present(chip) || !before.stayed(chip, sm.pDConfig()->chipConfig(chip)))
            continue;  // a chip that went took its roots with it, even if it is back
        auto was = before.activeRootSmId.find(chip);
        const uint32_t* now = status.activeRootSmId(chip);
        const bool wasSet = was != before.activeRootSmId.end();
        if (wasSet != (now != nullptr) || (now && *now != was->second)) {
            return words("Chip-", chip, " active root changed from ",
                         wasSet ? std::to_string(was->second) : std::string("none"), " to ",
                         now ? std::to_string(*now) : std::string("none"), " in a failed cycle (",
                         result, ")");
        }
    }
    for (const auto& [chip, tables] : before.loaded) {
        const Vorn::Ptr<Mirel::ChipConfig> config = sm.pDConfig()->chipConfig(chip);
        if (!presence.present(chip) || !before.stayed(chip, config))
            continue;
        // Keys the abort dropped are loaded once idle, over several passes in the safe order:
        // judged once the loader has nothing queued.
        if (loaderBusy(sm, chip))
            continue;
        const Mirel::ChipDataFlowConfig& loaded = *config->chipDataFlowConfig();
        if (loaded.mappingsEqual(*tables))
            continue;
        const Vorn::Ptr<Mirel::ChipDataFlowConfig> pi = status.piChipDataFlowConfig(chip);
        if (pi && loaded.mappingsEqual(*pi))
            continue;
        return words("Chip-", chip, " loaded configuration changed in a failed cycle (", result,
                     "), and is not its PD mapping either");
    }
    return std::nullopt;
}

std::optional<std::string> checkSuccessfulCycle(const GlueSm& sm, const GlueSnapshot& before,
                                                const Presence& presence) {
    const GlueStatus& status = *sm.glueStatus();
    for (const auto& [chip, rootId] : status.activeRootSmId()) {
        auto was = before.activeRootSmId.find(chip);
        if (was != before.activeRootSmId.end() && was->second == rootId)
            continue;  // not loaded in this cycle
        if (!presence.present(chip) || loaderBusy(sm, chip))
            continue;
        const Vorn::Ptr<Mirel::ChipConfig> config = sm.pDConfig()->chipConfig(chip);
        const Vorn::Ptr<Mirel::ChipDataFlowConfig> pi = status.piChipDataFlowConfig(chip);
        const Vorn::Ptr<Mirel::RootConfig> root = status.rootConfigColl()->rootConfig(rootId);
        if (!config || !pi || !root)
            continue;  // rule 4 names what is missing
        const Mirel::ChipDataFlowConfig& loaded = *config->chipDataFlowConfig();
        if (!loaded.mappingsEqual(*pi)) {
            return words("Chip-", chip, " loaded configuration is not its PD mapping after the ",
                         "successful cycle that loaded root ", rootId);
        }
        for (const auto& [key, aclId] : loaded.chipRuleListKeyToId()) {
            if (!root->acl(aclId)) {
                return words("Chip-", chip, " loaded 2nd-level entry ", key, " names ", aclId,
                             ", which active root ", rootId, " does not hold");
            }
        }
    }
    return std::nullopt;
}

std::optional<std::string> checkBlocked(const GlueSm& sm) {
    const Vorn::Ptr<BlockIntfLoaderSm> loader = sm.blockIntfLoaderSm();
    if (loader && loader->blockIntfTimer().armed())
        return std::nullopt;
    for (const Zamu::IntfId& intf : sm.pDConfig()->blockedIntf()) {
        if (!sm.glueConfig()->blockedIntf(intf))
            return words(intf, " is blocked while idle without a request");
    }
    return std::nullopt;
}

std::optional<std::string> checkRootIds(const GlueSm& sm, const Presence& presence) {
    const GlueStatus& status = *sm.glueStatus();
    auto owned = [&](uint32_t rootId, const char* what) -> std::optional<std::string> {
        const Mirel::ChipId chip = rootSmIdToChipId(rootId);
        if (!presence.present(chip)) {
            return words("root ", rootId, " (", what, ") belongs to Chip-", chip,
                         ", which is not present");
        }
        const uint32_t* active = status.activeRootSmId(chip);
        const uint32_t* attempt = status.attemptRootSmId(chip);
        if ((active && *active == rootId) || (attempt && *attempt == rootId))
            return std::nullopt;
        return words("root ", rootId, " (", what, ") is neither the active nor the attempt root",
                     " of Chip-", chip);
    };
    for (const auto& [chip, rootId] : status.activeRootSmId()) {
        if (rootSmIdToChipId(rootId) != chip)
            return words("Chip-", chip, " has active root ", rootId, " of another chip");
        if (const auto v = owned(rootId, "active"))
            return v;
        if (!status.rootConfigColl()->rootConfig(rootId) ||
            !status.rootStatusColl()->rootStatus(rootId)) {
            return words("Chip-", chip, " active root ", rootId,
                         " has no configuration or no status");
        }
    }
    for (const auto& [chip, rootId] : status.attemptRootSmId()) {
        if (rootSmIdToChipId(rootId) != chip)
            return words("Chip-", chip, " has attempt root ", rootId, " of another chip");
        const uint32_t* active = status.activeRootSmId(chip);
        if (active && *active == rootId)
            return words("Chip-", chip, " attempts on its active root ", rootId);
        if (const auto v = owned(rootId, "attempt"))
            return v;
    }
    for (const uint32_t rootId : status.rootConfigColl()->rootConfig().keys()) {
        if (const auto v = owned(rootId, "configuration"))
            return v;
    }
    for (const uint32_t rootId : status.rootStatusColl()->rootStatus().keys()) {
        if (const auto v = owned(rootId, "status"))
            return v;
    }
    for (const uint32_t rootId : sm.mirelRootSmColl()->rootSm().keys()) {
        if (const auto v = owned(rootId, "machine"))
            return v;
    }
    const std::pair<const char*, const Vorn::SetField<uint32_t, Vorn::Ordered>*> sets[] = {
        {"computing", &status.computingRootSmId()},
        {"loading", &status.loadingRootSmId()},
        {"failed", &status.failedRootSmId()},
        {"abort", &status.abortRootSmId()},
    };
    for (const auto& [name, set] : sets) {
        for (const uint32_t rootId : *set) {
            if (const auto v = owned(rootId, name))
                return v;
        }
    }
    return std::nullopt;
}

}  // namespace

GlueSnapshot takeGlueSnapshot(const GlueStatus& glueStatus, const Mirel::PDConfig& pDConfig) {
    GlueSnapshot s;
    for (const auto& [chip, rootId] : glueStatus.activeRootSmId())
        s.activeRootSmId.emplace(chip, rootId);
    for (const auto& [chip, config] : pDConfig.chipConfig()) {
        s.loaded.emplace(chip, Mirel::chipDataFlowTablesCopy(*config->chipDataFlowConfig()));
        s.config.emplace(chip, config);
    }
    return s;
}

bool GlueSnapshot::stayed(Mirel::ChipId chip, const Vorn::Ptr<Mirel::ChipConfig>& now) const {
    auto was = config.find(chip);
    return now && was != config.end() && was->second.ptr() == now.ptr();
}

std::optional<std::string> checkGlueInvariants(const GlueSm& glueSm,
                                               const GlueSnapshot* cycleStart) {
    const Presence presence{glueSm};
    const GlueStatus& status = *glueSm.glueStatus();
    if (status.glueSmState() == idle_) {
        if (cycleStart) {
            const GlueSmState result = status.lastComputationResult();
            if (result == fail_ || result == aclIdAllocFail_) {
                if (auto v = checkFailedCycle(glueSm, *cycleStart, presence))
                    return v;
            } else if (result == success_) {
                if (auto v = checkSuccessfulCycle(glueSm, *cycleStart, presence))
                    return v;
            }
        }
        if (auto v = checkBlocked(glueSm))
            return v;
    }
    return checkRootIds(glueSm, presence);
}

GlueChecker::GlueChecker(const Vorn::Ptr<GlueSm>& glueSm) : glueSm_(glueSm) {
    Vorn::requireNonNull(glueSm_, "OvinMirel::GlueChecker", "glueSm");
    stateSub_ = glueSm_->glueStatus()->glueSmStateNotify([this] {
        if (glueSm_->glueStatus()->glueSmState() == aclIdAlloc_)
            cycleStart_ = takeGlueSnapshot(*glueSm_->glueStatus(), *glueSm_->pDConfig());
    });
}

std::optional<std::string> GlueChecker::check() const {
    return checkGlueInvariants(*glueSm_, cycleStart_ ? &*cycleStart_ : nullptr);
}

}  // namespace OvinMirel
