#pragma once
// A checker over a running test agent: what must hold of the whole ACL path after every pass
// of the event loop, whatever faults the chip mocks inject. Each violation is one readable
// line that starts with the rule's name ("I3 ids and indexes: Chip-2 ..."); an empty list
// means every rule holds.
//
//   AgentInvariants inv(*root);
//   root->afterPassIs([&] { for (auto& v : inv.check()) ADD_FAILURE() << v; });
//   ... drive the agent ...
//   root->runUntilIdle();
//   EXPECT_EQ(inv.checkSettled(), std::vector<std::string>{});
//
// It watches the glue state and keeps, from the moment a cycle enters aclIdAlloc, what the
// cycle must not disturb (each chip's active root, loaded tables and published errors); what
// the allocation must report is computed right after it ran, what each chip's new root must
// hold right before the roots are built, and which chips failed when the cycle starts
// aborting. Rules about a cycle's outcome are judged once, when the cycle ends, and reported
// by the next check().
//
// The rules:
//  I1 all-or-nothing: after a failed cycle every present chip has the active root and the
//     loaded tables it had when the cycle started (after a rule list id exhaustion the
//     tables may instead be the chip's PD mapping: the loader writes what it held); after a
//     successful one every chip's active root holds exactly the ACL ids the configuration
//     asked for, and each chip has loaded exactly its PD mapping.
//  I2 once idle (the interface blocking loader with nothing due), no interface is blocked
//     unless the agent asks for it.
//  I3 per chip: the active root's rule lists are exactly the ones its ACLs name, with
//     distinct ids inside the chip's range; per pool, the hardware ACL indexes in use are
//     the ones the PD mapping's 1st level uses (besides the reserved one); once idle, every
//     loaded 2nd-level entry names a rule list of the active root. checkEmptied(): after all
//     configuration is deleted, nothing is left anywhere.
//  I4 the Index equals one rebuilt from scratch from the same inputs and passes its own
//     check; each chip's MappingSm passes its check; each chip's PD mapping is what the
//     independent oracle (PdMappingOracle.h) expects from its policy and active root.
//  I5 after a failed cycle exactly the chips whose computation failed with a code from 1 to 7
//     have that code published (a rule list id exhaustion publishes nothing new); after a
//     successful cycle none has.
//  I6 a chip reports rule list id exhaustion exactly when its ACLs (split or not, counted
//     from the store's rules) need more ids than its capability holds, and the cycle fails
//     early exactly when some chip does.
//  I7 checkSettled(), once the agent is idle: the last cycle reached idle, no root is still
//     computing, loading or aborting, and the engine has no request pending and no waiting
//     client; plus I1's loaded-equals-mapping and I2 for every chip.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ovinmirel/testagent/OvinMirelTestAgentRoot.h"

namespace OvinMirel::Reliability {

class AgentInvariants {
  public:
    // Watches the agent's glue state from now on; the agent must outlive the checker.
    explicit AgentInvariants(TestAgentRoot& root);
    AgentInvariants(const AgentInvariants&) = delete;
    AgentInvariants& operator=(const AgentInvariants&) = delete;

    // After any pass: the rules that hold at every pass, and the cycle outcomes judged since
    // the last call.
    std::vector<std::string> check();
    // Once runUntilIdle() returned: check() plus I7 and the settled forms of I1 and I2.
    std::vector<std::string> checkSettled();
    // Once every ACL and binding is deleted and the agent settled: I3's empty form.
    std::vector<std::string> checkEmptied();

    // Cycles whose outcome was judged.
    uint64_t cyclesJudged() const { return cyclesJudged_; }

  private:
    struct CycleStart {
        std::map<Mirel::ChipId, uint32_t> activeRoot;
        std::map<Mirel::ChipId, Vorn::Ptr<Mirel::ChipDataFlowConfig>> loaded;
        std::map<Mirel::ChipId, Mirel::StageErrorCode> chipError;
        // Each chip's configuration entity (held, so that a new one is another object): another
        // one at the end means the chip left and came back, and the cycle owes it nothing.
        std::map<Mirel::ChipId, Vorn::Ptr<Mirel::ChipConfig>> config;
    };
    // Per chip, per ACL key, the ACL ids (by protocol class) its new root must hold.
    using RootWish = std::map<Mirel::ChipId, std::map<Ovin::AclKey, std::map<int, Mirel::AclId>>>;

    void handleGlueSmState();
    void startCycle();
    void judgeAllocation(GlueSmState next);
    void judgeCycle();

    void checkIndex(std::vector<std::string>& out) const;
    void checkChips(std::vector<std::string>& out) const;
    void checkBlocked(std::vector<std::string>& out) const;
    RootWish rootWish() const;
    std::optional<std::string> rootDiffers(
        Mirel::ChipId chip, const std::map<Ovin::AclKey, std::map<int, Mirel::AclId>>& want) const;
    bool present(Mirel::ChipId chip) const;

    TestAgentRoot& root_;
    std::vector<std::string> judged_;  // outcomes judged since the last check()
    std::optional<CycleStart> start_;  // of the cycle in progress
    bool allocationPending_ = false;
    std::optional<RootWish> wish_;
    std::map<Mirel::ChipId, Mirel::StageErrorCode> failedCompute_;
    uint64_t cyclesJudged_ = 0;
    Vorn::Subscription stateSub_;  // last: gone before what it uses
};

// Per chip, how many chip rule list ids its ACLs need and how many its capability holds: the
// independent count behind I6.
struct RuleListIdNeed {
    uint64_t need = 0;
    uint64_t available = 0;
};
RuleListIdNeed ruleListIdNeed(const Status& status, Mirel::ChipId chip);

}  // namespace OvinMirel::Reliability
