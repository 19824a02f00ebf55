#pragma once
// Verifies from outside what the glue state machine promises about commit cycles, and reports
// the first violation in words. Usable after any pass of the event loop (randomized and
// scenario runs call it after every pass); it walks every chip and root, so it is not for the
// event loop itself.
//
// Some rules are about one cycle: they compare with a snapshot of the active roots and the
// loaded configurations taken when the cycle left idle (GlueChecker takes it at aclIdAlloc).
// The rules, in the order they are checked:
//  1. Once idle after a failed cycle (fail or aclIdAllocFail), every chip present all through
//     the cycle has the active root it had when the cycle started, and its loaded configuration
//     (the data-flow tables of its chip configuration) is the one it had then, or exactly its PD
//     mapping's (piChipDataFlowConfig), which follows the active root only: the loader's kept write
//     after a CRLI exhaustion, or mapping changes that arrived while the cycle ran. A chip that
//     left during the cycle took its roots and tables with it, whether or not it came back.
//  2. Once idle after a successful cycle, every chip whose active root changed in it has
//     loaded exactly its PD mapping's tables, and every 2nd-level entry it loaded names an ACL
//     id of its active root. A chip whose loader has work queued is skipped: it writes on the
//     next pass.
//  3. Once idle, no interface is blocked without a request, unless the blocking loader has
//     its timer armed (it releases on the next pass).
//  4. Every root id in use (a root configuration, a root status, a root machine, an entry of
//     the computing, loading, failed or abort set, an active or attempt entry) belongs to a
//     present chip and is that chip's active or attempt root; an active root has its
//     configuration and status.
// Rules 1 and 2 need the snapshot; without one they are skipped.

#include <map>
#include <optional>
#include <string>

#include "ovinmirel/glue/OvinMirelGlueSm.h"
#include "platform/mirel/ChipDataFlowConfig.h"
#include "platform/vorn/Entity.h"

namespace OvinMirel {

// What a cycle must not disturb: per chip, its active root and a copy of its loaded tables.
struct GlueSnapshot {
    std::map<Mirel::ChipId, uint32_t> activeRootSmId;
    std::map<Mirel::ChipId, Vorn::Ptr<Mirel::ChipDataFlowConfig>> loaded;
    // Each chip's configuration entity, held so that a chip that leaves and comes back gets
    // another object: the cycle owes such a chip nothing.
    std::map<Mirel::ChipId, Vorn::Ptr<Mirel::ChipConfig>> config;

    // Whether the chip had this configuration entity when the snapshot was taken.
    bool stayed(Mirel::ChipId chip, const Vorn::Ptr<Mirel::ChipConfig>& now) const;
};

GlueSnapshot takeGlueSnapshot(const GlueStatus& glueStatus, const Mirel::PDConfig& pDConfig);

// nullopt when every rule holds; otherwise the first violation, in words.
std::optional<std::string> checkGlueInvariants(const GlueSm& glueSm,
                                               const GlueSnapshot* cycleStart);

// Follows the glue state and keeps the snapshot of the cycle in progress (or of the last one):
// taken when a cycle enters aclIdAlloc, before anything of the cycle changed.
class GlueChecker {
  public:
    explicit GlueChecker(const Vorn::Ptr<GlueSm>& glueSm);
    GlueChecker(const GlueChecker&) = delete;
    GlueChecker& operator=(const GlueChecker&) = delete;

    std::optional<std::string> check() const;
    const std::optional<GlueSnapshot>& cycleStart() const { return cycleStart_; }

  private:
    const Vorn::Ptr<GlueSm> glueSm_;
    std::optional<GlueSnapshot> cycleStart_;
    Vorn::Subscription stateSub_;
};

}  // namespace OvinMirel
