#pragma once
// The hardware layer's test world: chips with their capability, configuration and PD status,
// the root collections and root machines, a timer wheel on a virtual clock. A test plays the
// glue (writes a root's action with a new kick and reads the root status back) and, unless
// the chip mocks are wired in, the driver. Header only; not part of the library.

#include <cstdint>
#include <string>
#include <vector>

#include "platform/brix/TimerWheel.h"
#include "platform/mirel/HwCapability.h"
#include "platform/mirel/PDConfig.h"
#include "platform/mirel/PDStatus.h"
#include "platform/mirel/Root.h"
#include "platform/mirel/RootSm.h"
#include "platform/vorn/Clock.h"

namespace Mirel {

struct RootSmTestWorld {
    Vorn::ScopedVirtualClock clock;
    Brix::TimerWheel wheel;
    // With the platform's global record, as the agent's status root inserts it at start-up.
    Vorn::Ptr<HwCapabilityColl> hwCapabilityColl = [] {
        Vorn::Ptr<HwCapabilityColl> coll = hwCapabilityCollFactory("HwCapabilityColl");
        coll->hwCapabilityIs("HwCapability");
        return coll;
    }();
    Vorn::Ptr<PDConfig> pdConfig = pdConfigFactory("PDConfig");
    Vorn::Ptr<PDStatus> pdStatus = pdStatusFactory("PDStatus");
    Vorn::Ptr<RootConfigColl> rootConfigColl = rootConfigCollFactory("RootConfigColl");
    Vorn::Ptr<RootStatusColl> rootStatusColl = rootStatusCollFactory("RootStatusColl");
    Vorn::Ptr<RootSmColl> rootSmColl = rootSmCollFactory("MirelRootSmColl");
    uint32_t kick = 0;  // the glue's activeRootKick

    RootSmTestWorld() = default;
    // The machines' timers go before the wheel.
    ~RootSmTestWorld() { rootSmColl->rootSmDelAll(); }
    RootSmTestWorld(const RootSmTestWorld&) = delete;
    RootSmTestWorld& operator=(const RootSmTestWorld&) = delete;

    // What the driver publishes for a present chip, and its initialized configuration.
    void addChip(ChipId chip, bool initializeConfig = true) {
        hwCapabilityColl->chipHwCapabilityIs(chip)->chipRuleListIdMaxIs(15);
        pdStatus->chipPDStatusIs(chip);
        Vorn::Ptr<ChipConfig> config = pdConfig->chipConfigIs(chip);
        if (initializeConfig)
            config->initialize();
    }
    Vorn::Ptr<ChipHwCapability> capability(ChipId chip) const {
        return hwCapabilityColl->chipHwCapability(chip);
    }
    Vorn::Ptr<ChipConfig> chipConfig(ChipId chip) const { return pdConfig->chipConfig(chip); }
    Vorn::Ptr<ChipPDStatus> chipPDStatus(ChipId chip) const { return pdStatus->chipPDStatus(chip); }

    // The root's configuration and status (initialized) and its running machine.
    Vorn::Ptr<RootSm> addRoot(uint32_t rootId) {
        const ChipId chip(rootId >> 1);
        Vorn::Ptr<RootConfig> config = rootConfigColl->rootConfigIs(rootId);
        config->initialize();
        Vorn::Ptr<RootStatus> status = rootStatusColl->rootStatusIs(rootId);
        status->initialize();
        Vorn::Ptr<RootSm> sm = rootSmColl->rootSmIs(rootId, config, status, capability(chip),
                                                    chipConfig(chip), chipPDStatus(chip), wheel);
        sm->handleInitialized();
        return sm;
    }
    Vorn::Ptr<RootConfig> config(uint32_t rootId) const {
        return rootConfigColl->rootConfig(rootId);
    }
    Vorn::Ptr<RootStatus> status(uint32_t rootId) const {
        return rootStatusColl->rootStatus(rootId);
    }

    // The glue's step: the action, then a new kick.
    uint32_t act(uint32_t rootId, RootAction action) {
        Vorn::Ptr<RootConfig> c = config(rootId);
        c->actionIs(action);
        c->mirelRootKickIs(++kick);
        return kick;
    }
    size_t pass() { return wheel.runPass(); }
    size_t settle() { return wheel.runUntilIdle(); }

    // Whether the status answers `kick` with `state`.
    bool answered(uint32_t rootId, uint32_t k, RootState state) const {
        Vorn::Ptr<RootStatus> s = status(rootId);
        return s && s->kickResponse() == k && s->rootState() == state;
    }
};

// Rule builders for roots.
inline AceIndex aceAt(uint32_t ruleNum) {
    AceIndex i;
    i.ruleNum = ruleNum;
    return i;
}

// An IPv4 rule matching a source prefix and, when given, a destination port range.
inline IpRuleConfig ipv4Rule(const std::string& src, int len, L4PortRange dstPort = {}) {
    IpRuleConfig r;
    r.filter.source = Zamu::IpAddrWithMask::prefix(src, len);
    r.destinationPort = dstPort;
    return r;
}

// A list of n IPv4 rules, rule i matching source 10.<i>.0.0/16.
inline AclRuleListPtr ipv4List(uint32_t n) {
    std::vector<AclRuleList::IpEntry> rules;
    for (uint32_t i = 0; i < n; ++i)
        rules.emplace_back(aceAt(i + 1), ipv4Rule("10." + std::to_string(i) + ".0.0", 16));
    return AclRuleList::ipList(std::move(rules));
}

inline AclId ipv4AclId(uint8_t chipRuleListId) {
    return AclId(ipv4PortAcl_, chipRuleListId, Acl::aclDirectionIn);
}

}  // namespace Mirel
