#pragma once
// LagPhyIntfMappingSm: plays the LAG manager for the test agent. The user configures which
// port-channel each Ethernet port belongs to (TestAgentLagConfig, one "channel group" per
// port); the machine publishes the resolved membership the ACL path reads
// (Lag::LagPhyIntfMapping: each port-channel with its member ports).
//
// Watches: TestAgentLagConfig.channelGroup (a port's port-channel set, changed or removed).
// Writes:  Lag::LagPhyIntfMapping, and nothing else. It is the mapping's only writer.
// Invariants:
//  1. After every handler the mapping holds exactly the configured memberships: a port is a
//     member of its configured port-channel and of no other (a move is a removal from the old
//     port-channel, then an addition to the new one).
//  2. A port-channel has an entry exactly while it has a member: the last member leaving takes
//     the entry with it, so no empty port-channel lingers for the index to walk.
// Timers: none. Owns: shared references to the configuration (read) and the mapping (written).

#include <utility>

#include "platform/lag/LagPhyIntfMapping.h"
#include "platform/vorn/Entity.h"
#include "platform/vorn/StateMachine.h"
#include "platform/zamu/IntfId.h"

namespace OvinMirel {

class TestAgentLagConfig : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::TestAgentLagConfig")
  public:
    explicit TestAgentLagConfig(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    // Ethernet port -> the port-channel it is configured in. channelGroupIs refuses, changing
    // nothing, with std::invalid_argument: a port that is not an Ethernet interface
    // ("TestAgentLagConfig::channelGroup: Port-Channel2 is not an Ethernet interface"), a
    // port-channel that is not one ("TestAgentLagConfig::channelGroup: Vlan2 is not a
    // port-channel interface").
    using ChannelGroupField = Vorn::MapField<Zamu::IntfId, Zamu::IntfId, Vorn::Ordered>;
    const ChannelGroupField& channelGroup() const { return channelGroup_; }
    const Zamu::IntfId* channelGroup(const Zamu::IntfId& phyIntf) const {
        return channelGroup_.find(phyIntf);
    }
    size_t channelGroups() const { return channelGroup_.size(); }
    void channelGroupIs(const Zamu::IntfId& phyIntf, const Zamu::IntfId& lagIntf);
    void channelGroupDel(const Zamu::IntfId& phyIntf) { channelGroup_.del(phyIntf); }
    void channelGroupDelAll() { channelGroup_.delAll(); }
    template <class F>
    [[nodiscard]] Vorn::Subscription channelGroupNotify(F&& f) const {
        return channelGroup_.notify(std::forward<F>(f));
    }

  private:
    const Vorn::Name name_;
    ChannelGroupField channelGroup_{*this};
};

class LagPhyIntfMappingSm : public Vorn::StateMachine {
    VORN_ENTITY("OvinMirel::LagPhyIntfMappingSm")
  public:
    // Both references are required (Vorn::NullPointerException naming it).
    LagPhyIntfMappingSm(const Vorn::Ptr<const TestAgentLagConfig>& lagConfig,
                        const Vorn::Ptr<Lag::LagPhyIntfMapping>& lagPhyIntfMapping);

    const Vorn::Ptr<const TestAgentLagConfig>& lagConfig() const { return lagConfig_; }
    const Vorn::Ptr<Lag::LagPhyIntfMapping>& lagPhyIntfMapping() const {
        return lagPhyIntfMapping_;
    }

    // Makes the mapping equal to the configuration (dropping memberships nobody configured),
    // then follows the configuration.
    void handleInitialized() override;
    void handleDelete() override;
    // Puts the port where its configuration says: in its port-channel, or in none.
    // REQUIRES: initialized().
    void handleChannelGroup(const Zamu::IntfId& phyIntf);

  private:
    // Takes the port out of every port-channel but `keep`, dropping emptied entries.
    void removeMember(const Zamu::IntfId& phyIntf, const Zamu::IntfId* keep);

    const Vorn::Ptr<const TestAgentLagConfig> lagConfig_;
    const Vorn::Ptr<Lag::LagPhyIntfMapping> lagPhyIntfMapping_;
    Vorn::Subscription channelGroupSub_;
};

Vorn::Ptr<TestAgentLagConfig> testAgentLagConfigFactory(const Vorn::Name& name);
Vorn::Ptr<LagPhyIntfMappingSm> lagPhyIntfMappingSmFactory(
    const Vorn::Ptr<const TestAgentLagConfig>& lagConfig,
    const Vorn::Ptr<Lag::LagPhyIntfMapping>& lagPhyIntfMapping);

}  // namespace OvinMirel
