#pragma once
// The glue state machine's test world: the whole path from the ACL store to the chip
// configurations, wired from the real modules on a virtual clock. The ACL store (written as
// the ACL helper writes it), the VLAN, LAG and sub-interface inputs, the real index machines
// and Index, GlueConfig and GlueStatus, the hardware capabilities, PDConfig and PDStatus, the
// GlueSm with its per-chip machines and the root machines, and the chip mocks with their fault
// plan playing the driver (TestAgentTestWorld). A state log records every glue state a watcher
// saw, and a GlueChecker can run after every pass.
//
// Later tests (test agent, scenarios, randomized runs) build on it. Header only; not part of
// the library.

#include <algorithm>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "ovinmirel/acl/OvinMirelAcl.h"
#include "ovinmirel/glue/OvinMirelGlueCheck.h"
#include "ovinmirel/glue/OvinMirelGlueConfig.h"
#include "ovinmirel/glue/OvinMirelGlueSm.h"
#include "ovinmirel/glue/OvinMirelGlueStatus.h"
#include "ovinmirel/index/OvinMirelIndex.h"
#include "ovinmirel/index/OvinMirelIndexSm.h"
#include "ovinmirel/testagent/OvinMirelTestAgentTestWorld.h"
#include "platform/brix/TaskSchedulerVornActivity.h"
#include "platform/interface/SubIntf.h"
#include "platform/lag/LagPhyIntfMapping.h"
#include "platform/mirel/AclRule.h"
#include "platform/ovin/AclParamConfig.h"
#include "platform/vlan/VlanPhyIntfConfig.h"
#include "tests/TestSupport.h"

namespace OvinMirel::GlueTest {

using TestSupport::aclKey;

// Rules as the ACL helper stores them.
struct Rule {
    uint32_t ruleNum = 0;
    std::optional<Mirel::IpRuleConfig> ip;
    std::optional<Mirel::MacRuleConfig> mac;
};
// An IPv4 rule on a source prefix, matching one IP protocol when given (6 is TCP).
inline Rule ipRule(uint32_t ruleNum, const std::string& src, int len,
                   std::optional<uint8_t> protocol = std::nullopt) {
    Mirel::IpRuleConfig r;
    r.filter.source = Zamu::IpAddrWithMask::prefix(src, len);
    if (protocol) {
        r.filter.protocol = Zamu::IpProto(*protocol);
        r.filter.matchProtocol = true;
    }
    return Rule{ruleNum, r, std::nullopt};
}
inline Rule macRule(uint32_t ruleNum, const std::string& src) {
    Mirel::MacRuleConfig r;
    r.source = Zamu::EthAddr(src);
    r.sourceMask = Zamu::EthAddr("ff:ff:ff:ff:ff:ff");
    return Rule{ruleNum, std::nullopt, r};
}

inline Zamu::IntfId eth(int n) {
    return Zamu::IntfId("Ethernet" + std::to_string(n));
}

struct World : TestAgentTestWorld {
    // Every ACL kind and direction on one interface: the policy leaves nothing out.
    static constexpr uint32_t kEveryKind = Mirel::AclTypeCombinationBitMask::kMax;

    Vorn::Ptr<OvinMirelAclColl> acls = ovinMirelAclCollFactory("OvinMirelAclColl");
    Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir> vlans =
        VlanPhyIntfConfigLib::vlanPhyIntfConfigDirFactory("VlanPhyIntfConfigDir");
    Vorn::Ptr<Lag::LagPhyIntfMapping> lags = Lag::lagPhyIntfMappingFactory("LagPhyIntfMapping");
    Vorn::Ptr<Interface::SubIntfConfigDir> subs =
        Interface::subIntfConfigDirFactory("SubIntfConfigDir");
    Vorn::Ptr<Index> index = indexFactory("OvinMirelIndex");
    Vorn::Ptr<IndexSm> indexSm = indexSmFactory(acls, pdStatus, vlans, lags, subs, index);
    Vorn::Ptr<GlueConfig> glueConfig = glueConfigFactory("glueConfig");
    Vorn::Ptr<GlueStatus> glueStatus = initializedGlueStatus();
    Vorn::Ptr<Acl::ParamConfig> aclParamConfig = Acl::paramConfigFactory("aclParamConfig");
    Vorn::Ptr<Brix::TaskSchedulerVornActivity> scheduler =
        Brix::taskSchedulerVornActivityFactory(wheel);
    Vorn::Ptr<GlueSm> glue = glueSmFactory(index, acls, glueConfig, glueStatus, hwCapabilityColl,
                                           pdStatus, pdConfig, aclParamConfig, &wheel, scheduler);
    // Every glue state, in the order a watcher saw them.
    std::vector<GlueSmState> states;
    // Run after every pass of the wheel (tests: the checker).
    std::function<void()> afterPass;
    std::unique_ptr<GlueChecker> checker;

    World() {
        indexSm->handleInitialized();
        stateSub_ =
            glueStatus->glueSmStateNotify([this] { states.push_back(glueStatus->glueSmState()); });
        // The hardware layer here has no root machines of its own.
        glue->instantiateRootSmIs(true);
    }
    ~World() {
        glue->handleDelete();
        indexSm->handleDelete();
    }

    // Marks the glue initialized, with a checker that follows it; `check` runs it after every
    // pass and fails the pass with its words.
    void start(bool instantiatePerChipSm = true) {
        glue->instantiatePerChipSmIs(instantiatePerChipSm);
        glue->handleInitialized();
        checker = std::make_unique<GlueChecker>(glue);
    }

    // ---- Chips and ports, as the driver publishes them ----
    // A present chip: its capability (chip rule list ids 0..ruleListIdMax, every ACL kind
    // admitted, indexes 1..100) and its PD status.
    Vorn::Ptr<Mirel::ChipHwCapability> addChip(uint32_t id, uint32_t ruleListIdMax = 15,
                                               bool splitOnProtocol = false) {
        const Mirel::ChipId chip(id);
        Vorn::Ptr<Mirel::ChipHwCapability> cap = hwCapabilityColl->chipHwCapabilityIs(chip);
        cap->chipRuleListIdMaxIs(ruleListIdMax);
        cap->aclSplitOnProtocolSupportedIs(splitOnProtocol);
        cap->hwAclIndexMaxIs(100);
        cap->hwAclIndexReservedIs(0);
        cap->aclTypeCombinationByPriorityIs(Mirel::AclTypePriority{1},
                                            Mirel::AclTypeCombinationBitMask(kEveryKind));
        pdStatus->chipPDStatusIs(chip);
        return cap;
    }
    void dropPDStatus(uint32_t id) { pdStatus->chipPDStatusDel(Mirel::ChipId(id)); }
    void dropCapability(uint32_t id) { hwCapabilityColl->chipHwCapabilityDel(Mirel::ChipId(id)); }
    // The port sits on the chip (the driver's interface mapping).
    void port(const Zamu::IntfId& intf, uint32_t chip) {
        pdStatus->intfMappingIs(intf, Mirel::ChipId(chip));
    }

    // ---- ACLs, as the ACL helper writes the store ----
    void acl(const Ovin::AclKey& key, std::initializer_list<Rule> rules) {
        const Vorn::Ptr<OvinMirelAcl> a = acls->aclIs(key);
        for (const Rule& r : rules) {
            const Mirel::AceIndex index{r.ruleNum, 0, Acl::UniqueId{r.ruleNum}};
            if (r.ip) {
                a->ipRuleByIdIs(index, *r.ip);
                a->ruleCountByProtocolInc(r.ip->filter.protocol, 1);
            } else {
                a->macRuleByIdIs(index, *r.mac);
            }
            a->ruleNumIs(index.uniqueId, r.ruleNum);
        }
        a->createdIs(true);
    }
    void bind(const Ovin::AclKey& key, const Zamu::IntfId& intf, bool member = true) {
        acls->aclIs(key)->intfIs(intf, member);
    }
    // A prepare-commit kick: a fresh stamp, as the helper's prepareToCommit writes.
    void kick() { glueConfig->prepareCommitKickTimeIs(glueConfig->prepareCommitKickTime() + 1); }

    // ---- Time ----
    Vorn::Seconds now() const { return Vorn::currentTime(); }
    // One pass of the wheel at the current time.
    size_t pass() {
        const size_t fired = wheel.runPass();
        if (afterPass)
            afterPass();
        return fired;
    }
    // Passes until nothing is due, moving virtual time to each next expiry up to `until`.
    // Throws when the passes do not stop (a timer re-arming itself for ever).
    void runUntil(Vorn::Seconds until) {
        for (int i = 0; i < 100000; ++i) {
            if (wheel.nextExpiry() <= now()) {
                pass();
                continue;
            }
            const Vorn::Seconds next = wheel.nextExpiry();
            if (next == Vorn::kInfinity || next > until) {
                if (until > now() && until != Vorn::kInfinity)
                    clock->nowIs(until);
                return;
            }
            clock->nowIs(next);
        }
        throw std::runtime_error("GlueTest::World: the wheel does not settle");
    }
    void runFor(Vorn::Seconds dt) { runUntil(now() + dt); }
    // Until nothing is armed: every cycle that was asked for has run.
    void settle() { runUntil(Vorn::kInfinity); }

    // ---- Reading back ----
    std::vector<GlueSmState> takeStates() { return std::exchange(states, {}); }
    GlueSmState state() const { return glueStatus->glueSmState(); }
    std::optional<uint32_t> activeRoot(uint32_t chip) const {
        const uint32_t* r = glueStatus->activeRootSmId(Mirel::ChipId(chip));
        return r ? std::optional<uint32_t>(*r) : std::nullopt;
    }
    std::optional<uint32_t> attemptRoot(uint32_t chip) const {
        const uint32_t* r = glueStatus->attemptRootSmId(Mirel::ChipId(chip));
        return r ? std::optional<uint32_t>(*r) : std::nullopt;
    }
    // The data-flow tables loaded into the chip's configuration (null: no configuration).
    Vorn::Ptr<Mirel::ChipDataFlowConfig> loaded(uint32_t chip) const {
        const Vorn::Ptr<Mirel::ChipConfig> c = pdConfig->chipConfig(Mirel::ChipId(chip));
        return c ? c->chipDataFlowConfig() : Vorn::Ptr<Mirel::ChipDataFlowConfig>();
    }
    // The chip's PD mapping, before the loader.
    Vorn::Ptr<Mirel::ChipDataFlowConfig> pi(uint32_t chip) const {
        return glueStatus->piChipDataFlowConfig(Mirel::ChipId(chip));
    }
    std::optional<std::string> check() const {
        return checker ? checker->check() : std::optional<std::string>();
    }

  private:
    static Vorn::Ptr<GlueStatus> initializedGlueStatus() {
        Vorn::Ptr<GlueStatus> s = glueStatusFactory("glueStatus");
        s->initialize();
        return s;
    }
    Vorn::Subscription stateSub_;
};

}  // namespace OvinMirel::GlueTest
