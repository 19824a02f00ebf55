#pragma once
// TestAgentRoot: one whole agent's ACL path, without hardware. It builds the status root, the
// ACL helper, the index builder, the glue and the agent ACL state machine exactly as an agent
// starts them, plays the environment around them (the chip driver through the chip mocks, the
// LAG manager, the interface and VLAN configuration, the user's ACL configuration), and runs
// the event loop on the virtual clock. Tests and the simulator drive it through the API below
// and read the results back from the entities it exposes.
//
// Start-up (the constructor), in this order:
//  1. the driver's root collections, then the status root, whose initStatus creates the ACL
//     store, the VLAN and LAG inputs, GlueConfig and GlueStatus (handed the root collections),
//     the capability collection with its global record, PDConfig, PDStatus and the Index;
//  2. the ACL helper (TestAclHelper): hwInit, verifyHwInit; it gets PDStatus for the counters;
//  3. the index builder, initialised: the Index is built from the inputs;
//  4. the glue state machine with its per-chip and root machines, initialised: it creates the
//     interface blocking loader and the records and machines of every present chip;
//  5. the agent ACL state machine, initialised: it applies the configuration on the next pass;
//  6. the environment: the chip mocks (their manager on PDConfig and PDStatus) and the LAG
//     manager (LagPhyIntfMappingSm on the LAG configuration);
//  7. the capacity machine, which reports from then on.
// Every machine is marked initialised by the root, its owner. The destructor stops them in
// the reverse order and clears the status root.
//
// REQUIRES: a Vorn::VirtualClock installed (Vorn::ScopedVirtualClock) for the root's whole
// life: the engine stamps its updates with it and the run operations move it. The timer wheel
// is the caller's (the process-wide one by default) and must outlive the root.
//
// Replaceable references (`x()`, `xIs(p)`, `xDel()`): ovinCommonSmData, ovinMirelConfig,
// ovinMirelAclHelper, vlanPhyIntfConfigLib, mockSmColl, ovinAclSm, lagPhyIntfMappingSm,
// indexSm, ovinMirelGlueSm, mockSmManager. Machines built at start-up keep the references they
// were given; replacing or deleting one is for a test that stops or swaps that piece, and
// deleting a machine's last reference stops it.
//
// The API (bad input throws with a clear text and changes nothing):
//  Chips and ports, as the driver publishes them
//    chipIs(chip, capability)   a present chip (capability and PD status); again: its new
//                               capability. chipDel(chip): its ports, PD status, capability go.
//    portIs(port, chip)         an Ethernet port on a present chip; on another chip: moved
//                               (removed, then added). portDel(port).
//  Interfaces and membership
//    vlanMemberIs(vlan, port, member)   VLAN membership (a VLAN goes with its last member).
//    lagMemberIs(port, lag) / lagMemberDel(port)   port-channel membership (channel group).
//    subIntfIs(intf) / subIntfDel(intf)            a configured, operationally up
//                                                  sub-interface.
//  ACL configuration and bindings: the engine's own inputs (Acl::Config, Acl::IntfConfig);
//  the helper is never called directly.
//    aclRuleIs(name, type, line)   one rule in the one-line text form (Acl::parseRuleText).
//    aclEntryIs(name, type, seq, entry), aclRuleDel(name, type, seq), aclDel(name, type),
//    aclCountersEnabledIs(name, type, on).
//    aclBindingIs(intf, type, direction, name) / aclBindingDel(intf, type, direction).
//    routedPortAclSharingIs(on)    the helper's routed-port sharing answer and the platform's
//                                  global capability, together.
//  The driver's faults and counters
//    faultPlan(), faultIs(chip, fault), faultDel(chip), allocMaxIs(n).
//    ruleCounterIs(chip, aclKey, seq, hits)   the driver's count for the rule on the chip.
//    ruleCounters(aclKey, seq), aclCountersAllocated(aclKey)   as the engine polls them.
//  The event loop, on the virtual clock
//    runPass(), runUntilIdle(), runUntil(t), runFor(dt); afterPassIs(f) runs f after every
//    pass; glueCheckIs(true) checks the glue's invariants after every pass (glueViolation()).
//  Reading back: ovinMirelStatus() (store, Index, GlueConfig, GlueStatus, capabilities,
//    PDConfig, PDStatus), statusDp() (the engine's per-ACL outcome), the helper's unit errors,
//    tableCapacity(), loadedDataFlow(chip), cycles(), passes().

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ovinmirel/acl/OvinMirelAclSm.h"
#include "ovinmirel/glue/OvinMirelGlueCheck.h"
#include "ovinmirel/glue/OvinMirelGlueSm.h"
#include "ovinmirel/index/OvinMirelIndexSm.h"
#include "ovinmirel/report/OvinMirelCapacity.h"
#include "ovinmirel/report/OvinMirelStatus.h"
#include "ovinmirel/testagent/OvinMirelLagPhyIntfMappingSm.h"
#include "ovinmirel/testagent/OvinMirelTestAclHelper.h"
#include "ovinmirel/testagent/OvinMirelTestAgentFaultPlan.h"
#include "ovinmirel/testagent/OvinMirelTestAgentMockSm.h"
#include "ovinmirel/testagent/OvinMirelTestAgentMockSmManager.h"
#include "platform/brix/TaskSchedulerVornActivity.h"
#include "platform/brix/TimerWheel.h"
#include "platform/capacity/TableCapacity.h"
#include "platform/errdisable/ErrdisableCauseStatus.h"
#include "platform/interface/SubIntf.h"
#include "platform/lag/LagInputConfig.h"
#include "platform/ovin/AclConfig.h"
#include "platform/ovin/AclConfigDir.h"
#include "platform/ovin/AclIntfConfig.h"
#include "platform/ovin/AclParamConfig.h"
#include "platform/ovin/AclStatusDp.h"
#include "platform/ovin/OvinCommonSmData.h"
#include "platform/vorn/Clock.h"
#include "platform/vorn/Entity.h"

namespace OvinMirel {

// What the driver publishes about one chip. The defaults describe a mid-sized chip that holds
// every ACL kind on one interface.
struct TestAgentChipCapability {
    uint32_t chipRuleListIdMax = 63;
    bool aclSplitOnProtocolSupported = false;
    uint32_t hwAclIndexMax = 1023;
    uint32_t hwAclIndexReserved = 0;
    uint32_t tcamEntryMax = 4096;
    uint32_t xformEntryMax = 1024;
    // The combinations of ACL kinds one interface can hold (Mirel::AclTypeCombinationBitMask
    // values), preferred first; they get the priorities 1, 2, ...
    std::vector<uint32_t> aclTypeCombinations = {Mirel::AclTypeCombinationBitMask::kMax};
};

class TestAgentRoot : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::TestAgentRoot")
  public:
    // The largest chip id the glue can give root ids to.
    static constexpr uint32_t kMaxChipId = kMaxRootChipId;

    // Starts the agent (see the start-up order above). Throws std::logic_error "TestAgentRoot:
    // the installed clock is not a Vorn::VirtualClock" when no virtual clock is installed.
    TestAgentRoot(const Vorn::Name& name, Brix::TimerWheel& timerWheel);
    ~TestAgentRoot() override;
    TestAgentRoot(const TestAgentRoot&) = delete;
    TestAgentRoot& operator=(const TestAgentRoot&) = delete;

    const Vorn::Name& name() const { return name_; }

    // ---- Replaceable references ----
    VORN_PTR_ATTR(Ovin::OvinCommonSmData, ovinCommonSmData)
    VORN_PTR_ATTR(Config, ovinMirelConfig)
    VORN_PTR_ATTR(TestAclHelper, ovinMirelAclHelper)
    VORN_PTR_ATTR(VlanPhyIntfConfigLib::VlanPhyIntfConfigDir, vlanPhyIntfConfigLib)
    VORN_PTR_ATTR(TestAgentMockSmColl, mockSmColl)
    VORN_PTR_ATTR(OvinMirelAclSm, ovinAclSm)
    VORN_PTR_ATTR(LagPhyIntfMappingSm, lagPhyIntfMappingSm)
    VORN_PTR_ATTR(IndexSm, indexSm)
    VORN_PTR_ATTR(GlueSm, ovinMirelGlueSm)
    VORN_PTR_ATTR(TestAgentMockSmManager, mockSmManager)

    // ---- What it built and owns for its life ----
    const Vorn::Ptr<Status>& ovinMirelStatus() const { return status_; }
    const Vorn::Ptr<Acl::Config>& aclConfig() const { return aclConfig_; }
    const Vorn::Ptr<Acl::IntfConfig>& intfConfig() const { return intfConfig_; }
    const Vorn::Ptr<Acl::ParamConfig>& aclParamConfig() const { return aclParamConfig_; }
    const Vorn::Ptr<Acl::StatusDp>& statusDp() const { return statusDp_; }
    const Vorn::Ptr<Interface::SubIntfConfigDir>& subIntfConfigDir() const {
        return subIntfConfigDir_;
    }
    const Vorn::Ptr<Interface::SubIntfStatusDir>& subIntfStatusDir() const {
        return subIntfStatusDir_;
    }
    const Vorn::Ptr<TestAgentLagConfig>& lagConfig() const { return lagConfig_; }
    const Vorn::Ptr<OvinCapacity::TableCapacity>& tableCapacity() const { return tableCapacity_; }
    const Vorn::Ptr<CapacitySm>& capacitySm() const { return capacitySm_; }
    Brix::TimerWheel& timerWheel() const { return *timerWheel_; }
    Vorn::VirtualClock& clock() const { return *clock_; }

    // ---- Chips and ports ----
    // Refuses a chip id above kMaxChipId ("TestAgentRoot::chip > 2147483647 not allowed"), a
    // chipRuleListIdMax above 255 ("TestAgentRoot::chipRuleListIdMax > 255 not allowed"), a
    // hwAclIndexMax above 65535 ("TestAgentRoot::hwAclIndexMax > 65535 not allowed") and a
    // combination above 0x3ff (its range error), before anything is written.
    void chipIs(Mirel::ChipId chip, const TestAgentChipCapability& capability = {});
    // Nothing when the chip is not there.
    void chipDel(Mirel::ChipId chip);
    // Present: the driver publishes its capability and PD status.
    bool chip(Mirel::ChipId chip) const;
    // std::invalid_argument "TestAgentRoot::port: <intf> is not an Ethernet interface" or
    // "TestAgentRoot::port: Chip-<n> is not present".
    void portIs(const Zamu::IntfId& port, Mirel::ChipId chip);
    void portDel(const Zamu::IntfId& port);

    // ---- Interfaces and membership ----
    // A VLAN id outside 1..4094 is the range error "VlanId::value < 1 or > 4094 not allowed";
    // a port that is not Ethernet: std::invalid_argument.
    void vlanMemberIs(int64_t vlan, const Zamu::IntfId& port, bool member = true);
    void lagMemberIs(const Zamu::IntfId& port, const Zamu::IntfId& lag);
    void lagMemberDel(const Zamu::IntfId& port);
    // std::invalid_argument when intf is not a sub-interface id.
    void subIntfIs(const Zamu::IntfId& intf);
    void subIntfDel(const Zamu::IntfId& intf);

    // ---- ACL configuration and bindings (the engine's inputs) ----
    // std::invalid_argument with the reader's error ("rule '<text>': <why> (column <n>)"), or
    // AclConfig's own refusals; the ACL is created only once its first rule is accepted.
    void aclRuleIs(const std::string& name, Acl::AclType type, std::string_view line);
    void aclEntryIs(const std::string& name, Acl::AclType type, int64_t seq,
                    const Acl::AclEntry& entry);
    void aclRuleDel(const std::string& name, Acl::AclType type, uint32_t seq);
    void aclDel(const std::string& name, Acl::AclType type);
    void aclCountersEnabledIs(const std::string& name, Acl::AclType type, bool enabled);
    void aclBindingIs(const Zamu::IntfId& intf, Acl::AclType type, Acl::AclDirection direction,
                      const std::string& name);
    void aclBindingDel(const Zamu::IntfId& intf, Acl::AclType type, Acl::AclDirection direction);
    void routedPortAclSharingIs(bool share);

    // ---- Faults and counters ----
    TestAgentFaultPlan& faultPlan() const;
    void faultIs(Mirel::ChipId chip, const TestAgentFault& fault);
    void faultDel(Mirel::ChipId chip);
    // The most entries one transform request of any chip may hold (the mocks' allocMax).
    void allocMaxIs(uint32_t allocMax);
    // The driver's hits for rule `seq` of the ACL on the chip, under the chip's ACL id that
    // holds the rule (the TCP or the other half of a split ACL). std::invalid_argument
    // "TestAgentRoot::ruleCounter: ..." when the chip has no mock, the store has no such rule,
    // or the chip has no ACL id for the ACL.
    void ruleCounterIs(Mirel::ChipId chip, const Ovin::AclKey& aclKey, uint32_t seq, uint64_t hits);
    // What the engine's poll of the rule reads through the helper (0 for a rule the store does
    // not know).
    uint64_t ruleCounters(const Ovin::AclKey& aclKey, uint32_t seq);
    bool aclCountersAllocated(const Ovin::AclKey& aclKey) const;

    // ---- The event loop ----
    // One pass of the wheel at the current time, then the after-pass work. Returns how many
    // timers fired.
    size_t runPass();
    // Passes, moving virtual time to each next expiry, until nothing is due and no timer is
    // armed but the capacity poll (which re-arms while chips exist). Throws std::runtime_error
    // "TestAgentRoot: the event loop does not settle" when timers keep coming.
    void runUntilIdle();
    // Every timer due by `until` fires (time moves to each expiry); the clock ends at `until`.
    // Throws std::invalid_argument for a time before now.
    void runUntil(Vorn::Seconds until);
    void runFor(Vorn::Seconds dt);
    size_t passes() const { return passes_; }
    // Runs after every pass (nullptr: nothing).
    void afterPassIs(std::function<void()> f) { afterPass_ = std::move(f); }
    // From now on, checkGlueInvariants after every pass; the first violation is kept, with the
    // time of its pass ("at 12.5: <violation>").
    void glueCheckIs(bool on);
    const std::optional<std::string>& glueViolation() const { return glueViolation_; }

    // ---- Reading back ----
    // Commit cycles started (the glue entering aclIdAlloc) since start-up.
    uint64_t cycles() const { return cycles_; }
    // The data-flow tables programmed into the chip's configuration; null without one.
    Vorn::Ptr<Mirel::ChipDataFlowConfig> loadedDataFlow(Mirel::ChipId chip) const;

  private:
    Vorn::Ptr<Acl::AclConfig> aclOf(const std::string& name, Acl::AclType type) const;
    void stop();

    const Vorn::Name name_;
    Brix::TimerWheel* const timerWheel_;
    Vorn::VirtualClock* const clock_;

    Vorn::Ptr<Status> status_;
    Vorn::Ptr<Acl::Config> aclConfig_;
    Vorn::Ptr<Acl::IntfConfig> intfConfig_;
    Vorn::Ptr<Acl::ParamConfig> aclParamConfig_;
    Vorn::Ptr<Acl::StatusDp> statusDp_;
    Vorn::Ptr<Interface::SubIntfConfigDir> subIntfConfigDir_;
    Vorn::Ptr<Interface::SubIntfStatusDir> subIntfStatusDir_;
    Vorn::Ptr<TestAgentLagConfig> lagConfig_;
    Vorn::Ptr<Brix::TaskSchedulerVornActivity> scheduler_;
    Vorn::Ptr<OvinCapacity::TableCapacity> tableCapacity_;
    Vorn::Ptr<CapacitySm> capacitySm_;

    size_t passes_ = 0;
    uint64_t cycles_ = 0;
    std::function<void()> afterPass_;
    std::unique_ptr<GlueChecker> glueChecker_;
    std::optional<std::string> glueViolation_;
    // Declared last: gone before what it watches.
    Vorn::Subscription glueSmStateSub_;
};

// Starts a test agent on the given wheel (see TestAgentRoot).
Vorn::Ptr<TestAgentRoot> testAgentRootFactory(const Vorn::Name& name,
                                              Brix::TimerWheel& timerWheel = Brix::timerWheel());

}  // namespace OvinMirel
