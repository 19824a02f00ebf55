#pragma once
// Ovin::AclSm: the ACL engine. It turns the configured ACLs and their bindings into calls of
// the hardware layer's helper (OvinHelper::AclHelper), one update at a time, and tells its
// clients when the data plane has what they asked for.
//
// Watches: Acl::Config (ACLs, their entries and counters flags), Acl::IntfConfig (bindings),
//   the port-channel membership of Lag::Input::Config, and Acl::StatusDp.dpAclUpdateTime.
// Writes: the helper (through its operations; its dirty, cliWaiting and unit error
//   attributes), Acl::StatusDp.aclStatus. dpAclUpdateTime belongs to whoever knows when the
//   data plane is done: by default this engine, at once; a hardware layer's specialisation
//   overrides handleDpAclUpdateRequestTime() and writes it when its commit has finished.
// Timer: `updateTimer`, armed by the first change after an update for now plus
//   ParamConfig.updateDelay (0: the next pass of the event loop), so a burst of changes makes
//   one update.
// Owns: shared references to its fourteen inputs; the engine's record of what each applied
//   ACL was built from; what the configuration asks for per key (kept between updates); its
//   helper callback (installed at handleInitialized, removed at handleDelete).
//
// Incremental: the watchers note what changed (bindings, configured ACLs by key, port-channel
// membership); an update recomputes the desired state of the keys those touch only (a
// binding's old and new key, every key of a changed ACL, every key bound to a port-channel
// whose members changed or to a port that joined or left one) and compares those alone with
// what the helper holds. An update's cost follows the size of the change, not of the
// configuration. The first update after handleInitialized looks at everything. An interface
// the helper said it cannot take (intfSupportsAcl) is asked about again, and logged, when its
// key next changes.
//
// One update (runUpdate), over the keys that changed, helper calls in this order:
//   1. For each applied ACL (Ovin::AclKey, key order) that is new or whose rules changed:
//      precreateAcl with its interfaces, one creation call per subrule, createFinalAclRule.
//      The helper cannot delete one subrule, so an ACL whose rules changed is re-created:
//      removeIntfFromAcl for each interface it loses, removeAcl, destroyAcl, then the creation
//      above. The interfaces it keeps are not unbound first: precreateAcl binds them again
//      in one call, so each of them is written once instead of removed and added back.
//   2. Bindings of the other ACLs: removeIntfFromAcl for each interface that lost the ACL
//      (also every interface of an ACL no longer applied), then addIntfToAcl for each that
//      gained it. belongsToAnother says whether the interface keeps an ACL of the same type
//      and direction under another key.
//   3. blockIntf for every interface whose ACLs change, when the hardware does not keep
//      traffic flowing during an ACL update (!permitDuringAclUpdate, or
//      ignorePermitDuringAclUpdate); they are unblocked when the update completes.
//   4. prepareToCommit, once. 5. commitAcl for each ACL created, re-created or re-bound.
//   6. removeAcl then destroyAcl for each ACL no longer applied.
//   Then the update is stamped with its request time, the helper's dirty flag is set, its
//   unit errors cleared, the ACLs concerned are published as pending, and
//   handleDpAclUpdateRequestTime() runs.
//
// Rule expansion (the engine's own; subrules numbered from 0 within a rule, in this order):
//   - port matches become the spans the helper's port values can express: eq one exact port,
//     range one range, lt and gt one range each (0..P-1, P+1..65535), neq two ranges (one
//     when P is 0 or 65535); a rule makes one subrule per source span times destination
//     span, source outer; a rule without ports makes one;
//   - a rule with `fragments` goes to createIpFragRule as one subrule;
//   - MAC rules go to createMacAclRule, one each; remarks make nothing;
//   - every IPv6 ACL gets, when needToInstallIcmp6NeighborDiscoveryRules() answers true, two
//     implicit rules after the configured ones: permit icmpv6 any any 135 and 136 (neighbour
//     solicitation and advertisement), numbered kImplicitRuleNum and kImplicitRuleNum + 1;
//   - createFinalAclRule closes the ACL with rule number kFinalRuleNum.
//   Rule numbers are the configured sequence numbers. Unique ids are handed out per
//   configured rule and kept while the rule at that sequence number stays the same.
//
// Sub-interfaces: an ACL applied to sub-interface "P.N" is a router ACL keyed with VLAN N (its
// dot1q encapsulation), so it programs through the chip's router tables for that sub-interface;
// one ACL on sub-interfaces of different numbers is one key per number, and a VLAN interface
// and a sub-interface of the same number share the key. A MAC ACL, a number outside 1..4094,
// or any ACL without routerAclSupported cannot be applied there: published as failed under a
// key of its own (MAC with VLAN N; a number above 4094 with the sub-interface's name as the
// key's tag), so the ACL's other bindings stay installed.
//
// Port-channels: the helper's store knows Ethernet ports, VLAN interfaces and sub-interfaces
// only, so an ACL applied to a port-channel is bound to the port-channel's member Ethernet
// ports. A member port takes its port-channel's ACLs; an ACL applied to the port itself waits
// until the port leaves the port-channel (an interface must not carry two ACLs of one type
// and direction). Every membership change schedules an update, which recomputes the
// bindings and binds or unbinds the ports that joined or left. Sub-interfaces of a
// port-channel go to the store as they are (the index resolves them).
//
// Refusals: a subrule (or precreate, or final rule) the helper refuses makes that ACL fail
// with the helper's code, published with the rule's text; the partial ACL is unbound from
// each interface, removed and destroyed, so nothing of it stays. When the helper reverts
// incomplete ACLs (revertIncompleteAclSupported), the ACL's earlier version, if it had one,
// is re-created exactly as it was (same numbers and ids) on the ACL's current interfaces, so
// a bad edit leaves the last good rules in effect; otherwise the ACL is left out. A refused
// version is not tried again until the ACL's configuration changes.
// ACLs that cannot be applied at all (not configured, or a kind the hardware does not offer:
// MAC outbound, MAC on a VLAN interface or a sub-interface, IPv6 without ip6AclSupported, VLAN
// interfaces and sub-interfaces without routerAclSupported) are published as failed and not
// installed.
//
// Data-plane updates: each update is stamped with a request time (the clock's time; a later
// update within one clock tick is stamped just after the previous stamp, so stamps always
// grow). The update is complete once dpAclUpdateTime reaches its stamp: then clients waiting
// for it are released, blocked interfaces unblocked, and ACLs still pending (no outcome was
// reported for them) published as installed. Outcomes arrive through the helper's
// aclStatusUpdateCallback: 0 installs, anything else fails the ACL with the helper's unit
// errors in the text.
//
// Invariants:
//  1. After an update, the helper holds exactly the applied ACLs that could be installed,
//     each with the interfaces computed from the bindings and port-channel membership: the
//     same as an engine started afresh on the same configuration would (ids aside).
//  2. Helper calls within an update follow the order above; one update calls
//     prepareToCommit at most once.
//  3. Every ACL the helper refused is either absent from the helper or present in its earlier,
//     accepted version.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/bridging/BridgingConfig.h"
#include "platform/brix/TimerWheel.h"
#include "platform/errdisable/ErrdisableCauseStatus.h"
#include "platform/flinq/Flinq.h"
#include "platform/interface/SubIntf.h"
#include "platform/lag/LagInputConfig.h"
#include "platform/ovin/AclConfig.h"
#include "platform/ovin/AclConfigDir.h"
#include "platform/ovin/AclIntfConfig.h"
#include "platform/ovin/AclParamConfig.h"
#include "platform/ovin/AclStatusDp.h"
#include "platform/ovin/OvinCommonSmData.h"
#include "platform/ovin/OvinHelperAclHelper.h"
#include "platform/vorn/Clock.h"
#include "platform/vorn/EntryWatchers.h"
#include "platform/vorn/FlatSet.h"
#include "platform/vorn/StateMachine.h"

namespace Ovin {

// The key under which the engine applies ACL `name` bound as `binding` (see Sub-interfaces
// above); for whoever reads the engine's results per binding.
AclKey aclKeyOfBinding(const Acl::AclBinding& binding, const Vorn::String& name);

class AclSm : public Vorn::StateMachine {
    VORN_ENTITY("Ovin::AclSm")
  public:
    // Rule numbers of the engine's own rules: above every configurable sequence number.
    static constexpr uint32_t kImplicitRuleNum = Acl::kMaxSequence + 1;
    static constexpr uint32_t kFinalRuleNum = 0xffffffff;

    // Every reference is required (Vorn::NullPointerException naming it). The clock stamps
    // update requests and arms the timer; it must be the clock the common data's timer wheel
    // runs on, and outlive the machine.
    AclSm(const Vorn::Ptr<OvinCommonSmData>& commonSmData,
          const Vorn::Ptr<const Acl::Config>& aclConfig,
          const Vorn::Ptr<const Acl::ParamConfig>& paramConfig,
          const Vorn::Ptr<const Acl::ConfigDir>& configDir,
          const Vorn::Ptr<const Acl::IntfConfig>& intfConfig,
          const Vorn::Ptr<const Acl::ConfigDir>& intfConfigDir,
          const Vorn::Ptr<Acl::StatusDp>& statusDp,
          const Vorn::Ptr<Errdisable::CauseStatus>& causeStatus,
          const Vorn::Ptr<const Lag::Input::Config>& lagInputConfig,
          const Vorn::Ptr<OvinHelper::AclHelper>& aclHelper, Vorn::Clock& clock,
          const Vorn::Ptr<const Bridging::Config>& bridgingConfig,
          const Vorn::Ptr<const Interface::SubIntfStatusDir>& subIntfStatusDir,
          const Vorn::Ptr<const Interface::SubIntfConfigDir>& subIntfConfigDir);
    ~AclSm() override;

    const Vorn::Ptr<OvinCommonSmData>& commonSmData() const { return commonSmData_; }
    const Vorn::Ptr<const Acl::Config>& aclConfig() const { return aclConfig_; }
    const Vorn::Ptr<const Acl::ParamConfig>& paramConfig() const { return paramConfig_; }
    const Vorn::Ptr<const Acl::ConfigDir>& configDir() const { return configDir_; }
    const Vorn::Ptr<const Acl::IntfConfig>& intfConfig() const { return intfConfig_; }
    const Vorn::Ptr<const Acl::ConfigDir>& intfConfigDir() const { return intfConfigDir_; }
    const Vorn::Ptr<Acl::StatusDp>& statusDp() const { return statusDp_; }
    const Vorn::Ptr<Errdisable::CauseStatus>& causeStatus() const { return causeStatus_; }
    const Vorn::Ptr<const Lag::Input::Config>& lagInputConfig() const { return lagInputConfig_; }
    const Vorn::Ptr<OvinHelper::AclHelper>& aclHelper() const { return aclHelper_; }
    Vorn::Clock& clock() const { return *clock_; }
    const Vorn::Ptr<const Bridging::Config>& bridgingConfig() const { return bridgingConfig_; }
    const Vorn::Ptr<const Interface::SubIntfStatusDir>& subIntfStatusDir() const {
        return subIntfStatusDir_;
    }
    const Vorn::Ptr<const Interface::SubIntfConfigDir>& subIntfConfigDir() const {
        return subIntfConfigDir_;
    }

    // Installs the helper callback, starts watching, and schedules the first update, which
    // applies the whole configuration.
    void handleInitialized() override;
    // Stops watching, disarms the timer and removes the helper callback; what is installed
    // stays installed.
    void handleDelete() override;

    // ---- Data-plane updates ----
    bool dpAclUpdateRequestPending() const { return requestPending_; }
    // The stamp of the latest update requested (0 before the first).
    Vorn::Seconds dpAclUpdateRequestTime() const { return requestTime_; }
    // Called when an update has been requested of the data plane. Here nothing below the
    // helper reports completion, so the request is complete at once: dpAclUpdateTime is set
    // to its stamp. A hardware layer overrides it to write the stamp once its commit is done.
    virtual void handleDpAclUpdateRequestTime();
    // A client asking to be told once the data plane has every update requested so far: runs
    // `done` then (at once when nothing is pending). Clients are released in the order they
    // asked.
    void dpAclUpdateWaiterIs(std::function<void()> done);
    size_t dpAclUpdateWaiters() const { return waiters_.size(); }

    // ---- Updates ----
    const Brix::Timer& updateTimer() const { return updateTimer_; }
    void handleUpdateTimer();
    // Updates that changed something in the helper (and so requested a data-plane update).
    uint64_t updates() const { return updates_; }

  protected:
    // For a specialisation: its trace handle for the state machine base.
    AclSm(Flinq::Handle& th, const Vorn::Ptr<OvinCommonSmData>& commonSmData,
          const Vorn::Ptr<const Acl::Config>& aclConfig,
          const Vorn::Ptr<const Acl::ParamConfig>& paramConfig,
          const Vorn::Ptr<const Acl::ConfigDir>& configDir,
          const Vorn::Ptr<const Acl::IntfConfig>& intfConfig,
          const Vorn::Ptr<const Acl::ConfigDir>& intfConfigDir,
          const Vorn::Ptr<Acl::StatusDp>& statusDp,
          const Vorn::Ptr<Errdisable::CauseStatus>& causeStatus,
          const Vorn::Ptr<const Lag::Input::Config>& lagInputConfig,
          const Vorn::Ptr<OvinHelper::AclHelper>& aclHelper, Vorn::Clock& clock,
          const Vorn::Ptr<const Bridging::Config>& bridgingConfig,
          const Vorn::Ptr<const Interface::SubIntfStatusDir>& subIntfStatusDir,
          const Vorn::Ptr<const Interface::SubIntfConfigDir>& subIntfConfigDir);

  private:
    // What one applied ACL is built from: its rules with their numbers and ids (the configured
    // ones, then the implicit ones) and its counters flag.
    struct VersionRule {
        uint32_t ruleNum;
        Acl::UniqueId id;
        Acl::AclEntry entry;
        bool operator==(const VersionRule&) const = default;
    };
    struct Version {
        std::vector<VersionRule> rules;  // ascending rule numbers
        bool countersEnabled = false;
        bool operator==(const Version&) const = default;
    };
    // Immutable once made: the keys of one configured ACL share its version.
    using VersionPtr = std::shared_ptr<const Version>;
    // One helper creation call.
    struct Subrule {
        enum class Kind : uint8_t { ip, frag, mac };
        Kind kind;
        uint32_t ruleNum;
        uint32_t subruleNum;
        Acl::UniqueId id;
        const Acl::AclEntry* entry;  // the version's, which outlives the subrule
        Acl::PortSpan source;
        Acl::PortSpan destination;
    };
    // An ACL as the helper holds it.
    struct Installed {
        VersionPtr version;
        AclData data;  // data.intf: the interfaces bound in the helper
        // Its entry of statusDp.aclStatus, found by the first outcome reported for it, so that
        // later ones (one per commit cycle) write it without a look-up. The entry is deleted
        // only for a key that is not installed.
        Vorn::Ptr<Acl::AclStatus> status;
    };
    struct Refused {
        VersionPtr version;
        AclCreateError code;
        std::string error;
    };
    // Where the bindings say an ACL belongs, or why it cannot be installed.
    struct Desired {
        Acl::AclConfigKey configKey;
        Vorn::FlatSet<Zamu::IntfId> intf;
        std::string problem;
    };
    struct Failure {
        AclCreateError code;
        std::string error;
    };
    struct AclWatcher {
        Vorn::Subscription entries;
        Vorn::Subscription counters;
    };
    struct LagWatcher {
        Vorn::Subscription members;
    };

    void scheduleUpdate();
    void runUpdate();
    // Brings desired_ (and its indexes) up to date with what changed since the last update;
    // returns the keys whose desired state may differ from what the helper holds.
    std::set<AclKey> refreshDesired();
    void refreshLags(std::set<Zamu::IntfId>& changed);
    Desired desiredOf(const AclKey& key, const Vorn::FlatSet<Acl::AclBinding>& bindings) const;
    std::string keyProblem(const AclKey& key, const Zamu::IntfId& intf) const;
    // Null when the ACL is not configured. A version equal to the last one computed for the
    // ACL is that one.
    VersionPtr versionOf(const Acl::AclConfigKey& ck,
                         std::map<Acl::AclConfigKey, VersionPtr>& cache);
    Acl::UniqueId uniqueIdFor(const Version* last, uint32_t ruleNum, const Acl::AclEntry& entry);
    static std::vector<Subrule> expand(const Version& v);
    static AclData aclDataOf(const AclKey& key, const Version& v,
                             const std::vector<Subrule>& subrules,
                             const std::set<Zamu::IntfId>& intf);
    // Creates the ACL in the helper; on a refusal, takes the partial ACL out again.
    std::optional<Failure> build(const AclKey& key, const VersionPtr& v,
                                 const std::set<Zamu::IntfId>& intf, Installed& out);
    std::optional<Failure> createSubrules(const AclKey& key, const Version& v, const AclData& data,
                                          const std::vector<Subrule>& subrules);
    // Takes the ACL out of the helper: unbinds it from its interfaces other than `rebound`
    // (those the version re-created next binds again), then removeAcl and destroyAcl.
    void tearDown(const AclData& data, const std::set<Zamu::IntfId>& rebound = {});
    std::set<Zamu::IntfId> supportedIntfs(const AclKey& key,
                                          const Vorn::FlatSet<Zamu::IntfId>& want,
                                          const std::set<Zamu::IntfId>& have);
    void requestDpAclUpdate();
    void handleDpAclUpdateTime();
    void handleAclStatusUpdate(const AclKey& key, AclCreateError result);
    void statusIs(const AclKey& key, Acl::AclDpState state, AclCreateError result,
                  const std::string& error);
    static void statusIs(Acl::AclStatus& status, Acl::AclDpState state, AclCreateError result,
                         const std::string& error);
    bool blockDuringUpdate() const;

    const Vorn::Ptr<OvinCommonSmData> commonSmData_;
    const Vorn::Ptr<const Acl::Config> aclConfig_;
    const Vorn::Ptr<const Acl::ParamConfig> paramConfig_;
    const Vorn::Ptr<const Acl::ConfigDir> configDir_;
    const Vorn::Ptr<const Acl::IntfConfig> intfConfig_;
    const Vorn::Ptr<const Acl::ConfigDir> intfConfigDir_;
    const Vorn::Ptr<Acl::StatusDp> statusDp_;
    const Vorn::Ptr<Errdisable::CauseStatus> causeStatus_;
    const Vorn::Ptr<const Lag::Input::Config> lagInputConfig_;
    const Vorn::Ptr<OvinHelper::AclHelper> aclHelper_;
    Vorn::Clock* const clock_;
    const Vorn::Ptr<const Bridging::Config> bridgingConfig_;
    const Vorn::Ptr<const Interface::SubIntfStatusDir> subIntfStatusDir_;
    const Vorn::Ptr<const Interface::SubIntfConfigDir> subIntfConfigDir_;

    // What the configuration asks for, kept between updates and refreshed for what changed:
    // the key of each binding, the bindings of each key, the keys of each configured ACL, the
    // desired state per key (interfaces before the hardware's per-interface check), who holds
    // each interface's slot, and the port-channel membership it was computed with. The inner
    // sets are flat: they are kept per binding and per interface, and most hold one member.
    using Slot = std::tuple<Zamu::IntfId, Acl::AclType, Acl::AclDirection>;
    std::map<Acl::AclBinding, AclKey> keyOfBinding_;
    std::map<AclKey, Vorn::FlatSet<Acl::AclBinding>> bindingsOfKey_;
    std::map<Acl::AclConfigKey, Vorn::FlatSet<AclKey>> keysOfConfig_;
    std::map<AclKey, Desired> desired_;
    std::map<Slot, Vorn::FlatSet<AclKey>> slot_;
    std::map<Zamu::IntfId, std::set<Zamu::IntfId>> lagMembers_;
    std::map<Zamu::IntfId, Zamu::IntfId> lagOfPort_;
    // What changed since the last update (from the watchers).
    std::set<Acl::AclBinding> dirtyBindings_;
    std::set<Acl::AclConfigKey> dirtyConfigs_;
    bool lagsDirty_ = false;
    bool allDirty_ = false;

    // Looked up by key, never walked: their hashed order shows nowhere.
    std::unordered_map<AclKey, Installed> installed_;
    std::unordered_map<AclKey, Refused> refused_;
    // Per configured ACL: the version last computed. A rule that stays the same at its
    // sequence number keeps its unique id from it.
    std::map<Acl::AclConfigKey, VersionPtr> lastVersion_;
    uint64_t nextUniqueId_ = 1;
    std::set<AclKey> awaitingOutcome_;
    std::set<Zamu::IntfId> blocked_;
    bool requestPending_ = false;
    Vorn::Seconds requestTime_ = 0.0;
    std::vector<std::pair<Vorn::Seconds, std::function<void()>>> waiters_;
    uint64_t updates_ = 0;
    OvinHelper::AclStatusUpdateCallback callback_;

    // Declared last: stopped before anything they use.
    Brix::Timer updateTimer_;
    Vorn::Subscription intfConfigSub_;
    Vorn::Subscription dpAclUpdateTimeSub_;
    std::unique_ptr<Vorn::EntryWatchers<
        Vorn::EntityMapField<Acl::AclConfigKey, Acl::AclConfig, Vorn::Ordered>, AclWatcher>>
        aclWatchers_;
    std::unique_ptr<
        Vorn::EntryWatchers<Vorn::EntityMapField<Zamu::IntfId, Lag::LagPhyIntfConfig>, LagWatcher>>
        lagWatchers_;
};

Vorn::Ptr<AclSm> aclSmFactory(const Vorn::Ptr<OvinCommonSmData>& commonSmData,
                              const Vorn::Ptr<const Acl::Config>& aclConfig,
                              const Vorn::Ptr<const Acl::ParamConfig>& paramConfig,
                              const Vorn::Ptr<const Acl::ConfigDir>& configDir,
                              const Vorn::Ptr<const Acl::IntfConfig>& intfConfig,
                              const Vorn::Ptr<const Acl::ConfigDir>& intfConfigDir,
                              const Vorn::Ptr<Acl::StatusDp>& statusDp,
                              const Vorn::Ptr<Errdisable::CauseStatus>& causeStatus,
                              const Vorn::Ptr<const Lag::Input::Config>& lagInputConfig,
                              const Vorn::Ptr<OvinHelper::AclHelper>& aclHelper, Vorn::Clock& clock,
                              const Vorn::Ptr<const Bridging::Config>& bridgingConfig,
                              const Vorn::Ptr<const Interface::SubIntfStatusDir>& subIntfStatusDir,
                              const Vorn::Ptr<const Interface::SubIntfConfigDir>& subIntfConfigDir);

}  // namespace Ovin
