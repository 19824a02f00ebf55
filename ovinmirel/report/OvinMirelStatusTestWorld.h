#pragma once
// A test world built the way the agent starts: a status root (its children made by
// initStatus, with the driver's root collections handed in), the chip mocks playing the
// driver on the status root's PDConfig and PDStatus, root machines on a timer wheel over a
// virtual clock, and a capacity reporter with readers for what it publishes. A test plays the
// glue (StatusTestWorld::attempt) until the glue state machine is built on the same world.
// Header only; not part of the library.

#include <cstdint>
#include <string>
#include <vector>

#include "ovinmirel/report/OvinMirelCapacity.h"
#include "ovinmirel/report/OvinMirelStatus.h"
#include "ovinmirel/testagent/OvinMirelTestAgentFaultPlan.h"
#include "ovinmirel/testagent/OvinMirelTestAgentMockSm.h"
#include "ovinmirel/testagent/OvinMirelTestAgentMockSmManager.h"
#include "platform/brix/TimerWheel.h"
#include "platform/capacity/TableCapacity.h"
#include "platform/mirel/RootSm.h"
#include "platform/vorn/Clock.h"

namespace OvinMirel {

struct StatusTestWorld {
    Vorn::ScopedVirtualClock clock;
    Brix::TimerWheel wheel;
    Vorn::Ptr<Mirel::RootConfigColl> rootConfigColl =
        Mirel::rootConfigCollFactory("RootConfigColl");
    Vorn::Ptr<Mirel::RootStatusColl> rootStatusColl =
        Mirel::rootStatusCollFactory("RootStatusColl");
    Vorn::Ptr<Status> status = statusFactory("OvinMirelStatus");
    // Destroyed before the wheel.
    Vorn::Ptr<Mirel::RootSmColl> rootSmColl = Mirel::rootSmCollFactory("MirelRootSmColl");
    Vorn::Ptr<TestAgentMockSmColl> mockSmColl = testAgentMockSmCollFactory("TestAgentMockSmColl");
    Vorn::Ptr<TestAgentMockSmManager> manager;
    uint32_t kick = 0;

    StatusTestWorld() {
        status->rootConfigCollIs(rootConfigColl);
        status->rootStatusCollIs(rootStatusColl);
        status->initStatus();
        manager = testAgentMockSmManagerFactory(status->pDConfig(), status->pDStatus(), mockSmColl,
                                                wheel);
        manager->handleInitialized();
    }
    ~StatusTestWorld() {
        rootSmColl->rootSmDelAll();
        manager->handleDelete();
    }
    StatusTestWorld(const StatusTestWorld&) = delete;
    StatusTestWorld& operator=(const StatusTestWorld&) = delete;

    TestAgentFaultPlan& faultPlan() { return *manager->faultPlan(); }
    Vorn::Ptr<Mirel::ChipHwCapability> capability(Mirel::ChipId chip) const {
        return status->hwCapabilityColl()->chipHwCapability(chip);
    }
    Vorn::Ptr<Mirel::ChipPDStatus> chipPDStatus(Mirel::ChipId chip) const {
        return status->pDStatus()->chipPDStatus(chip);
    }

    // What the driver publishes for a present chip, and its initialized configuration.
    void addChip(Mirel::ChipId chip) {
        status->hwCapabilityColl()->chipHwCapabilityIs(chip)->chipRuleListIdMaxIs(15);
        status->pDStatus()->chipPDStatusIs(chip);
        status->pDConfig()->chipConfigIs(chip)->initialize();
    }
    // The chip's root machines and roots, then what the driver published for it.
    void removeChip(Mirel::ChipId chip) {
        for (uint32_t slot = 0; slot < 2; ++slot) {
            const uint32_t rootId = chip.value() * 2 + slot;
            rootSmColl->rootSmDel(rootId);
            rootConfigColl->rootConfigDel(rootId);
            rootStatusColl->rootStatusDel(rootId);
        }
        status->pDStatus()->chipPDStatusDel(chip);
        status->pDConfig()->chipConfigDel(chip);
        status->hwCapabilityColl()->chipHwCapabilityDel(chip);
    }

    // The root's configuration holding these rule lists (by chip rule list id), its status
    // and its running machine; a root that exists is refilled.
    void rootIs(uint32_t rootId, const std::vector<Mirel::AclRuleListPtr>& lists) {
        const Mirel::ChipId chip(rootId >> 1);
        Vorn::Ptr<Mirel::RootConfig> config = rootConfigColl->rootConfigIs(rootId);
        config->initialize();
        config->aclDelAll();
        for (size_t i = 0; i < lists.size(); ++i) {
            config->aclIs(Mirel::AclId(Mirel::ipv4PortAcl_, uint8_t(i), Acl::aclDirectionIn))
                ->ruleListIs(lists[i]);
        }
        Vorn::Ptr<Mirel::RootStatus> rootStatus = rootStatusColl->rootStatusIs(rootId);
        rootStatus->initialize();
        Vorn::Ptr<Mirel::RootSm> sm =
            rootSmColl->rootSmIs(rootId, config, rootStatus, capability(chip),
                                 status->pDConfig()->chipConfig(chip), chipPDStatus(chip), wheel);
        sm->handleInitialized();
    }
    // The glue's step: the action, then a new kick; then the wheel until nothing is due now.
    Mirel::RootState act(uint32_t rootId, Mirel::RootAction action) {
        Vorn::Ptr<Mirel::RootConfig> c = rootConfigColl->rootConfig(rootId);
        c->actionIs(action);
        c->mirelRootKickIs(++kick);
        wheel.runUntilIdle();
        return rootStatusColl->rootStatus(rootId)->rootState();
    }
    // One attempt as the glue makes it: compute, then load when it computed and abort when
    // it failed (or when `abort` asks for it, as for another chip's failure). Returns the
    // state the root ends in.
    Mirel::RootState attempt(uint32_t rootId, const std::vector<Mirel::AclRuleListPtr>& lists,
                             bool abort = false) {
        rootIs(rootId, lists);
        const Mirel::RootState computed = act(rootId, Mirel::rootActionCompute_);
        if (computed == Mirel::rootComputed_ && !abort)
            return act(rootId, Mirel::rootActionLoad_);
        return act(rootId, Mirel::rootActionAbort_);
    }
};

// A capacity reporter on a status root's driver entities, with readers for what it
// publishes. Declared after the world it reads, so it goes first.
struct CapacityProbe {
    Vorn::Ptr<OvinCapacity::TableCapacity> tableCapacity =
        OvinCapacity::tableCapacityFactory("TableCapacity");
    Vorn::Ptr<CapacitySm> sm;

    CapacityProbe(const Status& status, Vorn::Clock& clock, Brix::TimerWheel& wheel)
        : sm(capacitySmFactory(tableCapacity, clock, status.glueStatus()->rootConfigColl(),
                               status.glueStatus()->rootStatusColl(), status.hwCapabilityColl(),
                               status.pDStatus(), wheel)) {}
    ~CapacityProbe() { sm->handleDelete(); }
    CapacityProbe(const CapacityProbe&) = delete;
    CapacityProbe& operator=(const CapacityProbe&) = delete;

    static OvinCapacity::TableKey key(CapacityTableNames t, Mirel::ChipId chip) {
        return {capacityTableName(t), chipToName(chip)};
    }
    const OvinCapacity::CapacityEntry* record(CapacityTableNames t, Mirel::ChipId chip) const {
        return tableCapacity->capacityEntry(key(t, chip));
    }
    // The chips that have a record of the table, in chip-name order.
    std::vector<std::string> chipsOf(CapacityTableNames t) const {
        std::vector<std::string> out;
        for (const auto& [k, entry] : tableCapacity->capacityEntry()) {
            if (k.tableName == capacityTableName(t))
                out.push_back(k.chipName);
        }
        return out;
    }
    // The table's features, empty when the table has no mapping.
    std::vector<std::string> features(CapacityTableNames t) const {
        std::vector<std::string> out;
        if (auto mapping = tableCapacity->featureMapping(capacityTableName(t))) {
            for (const std::string& f : mapping->feature())
                out.push_back(f);
        }
        return out;
    }
};

}  // namespace OvinMirel
