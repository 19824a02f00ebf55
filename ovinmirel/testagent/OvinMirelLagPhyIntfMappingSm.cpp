#include "ovinmirel/testagent/OvinMirelLagPhyIntfMappingSm.h"

#include <stdexcept>
#include <string>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"

namespace OvinMirel {

static Flinq::Handle th("OvinMirelLagPhyIntfMappingSm");

void TestAgentLagConfig::channelGroupIs(const Zamu::IntfId& phyIntf, const Zamu::IntfId& lagIntf) {
    if (!Zamu::EthIntfId::isEthIntfId(phyIntf)) {
        throw std::invalid_argument("TestAgentLagConfig::channelGroup: " + phyIntf.name() +
                                    " is not an Ethernet interface");
    }
    if (!Zamu::PortChannelIntfId::isPortChannelIntfId(lagIntf)) {
        throw std::invalid_argument("TestAgentLagConfig::channelGroup: " + lagIntf.name() +
                                    " is not a port-channel interface");
    }
    channelGroup_.is(phyIntf, lagIntf);
}

LagPhyIntfMappingSm::LagPhyIntfMappingSm(const Vorn::Ptr<const TestAgentLagConfig>& lagConfig,
                                         const Vorn::Ptr<Lag::LagPhyIntfMapping>& lagPhyIntfMapping)
    : Vorn::StateMachine(th),
      lagConfig_(required(lagConfig, "lagConfig")),
      lagPhyIntfMapping_(required(lagPhyIntfMapping, "lagPhyIntfMapping")) {}

void LagPhyIntfMappingSm::handleInitialized() {
    FLINQ(th, 8, "LagPhyIntfMappingSm::handleInitialized");
    StateMachine::handleInitialized();
    // Memberships nobody configured (left by an earlier writer) go first.
    for (const Zamu::IntfId& lag : lagPhyIntfMapping_->lagPhyIntfConfig().sortedKeys()) {
        const Vorn::Ptr<Lag::LagPhyIntfConfig> members = lagPhyIntfMapping_->lagPhyIntfConfig(lag);
        for (const Zamu::IntfId& port : members->phyIntf().sortedKeys()) {
            const Zamu::IntfId* configured = lagConfig_->channelGroup(port);
            if (!configured || *configured != lag)
                removeMember(port, configured);
        }
    }
    for (const Zamu::IntfId& port : lagConfig_->channelGroup().keys())
        handleChannelGroup(port);
    channelGroupSub_ = lagConfig_->channelGroupNotify(
        [this](const Zamu::IntfId& port) { handleChannelGroup(port); });
}

void LagPhyIntfMappingSm::handleDelete() {
    FLINQ(th, 8, "LagPhyIntfMappingSm::handleDelete");
    channelGroupSub_.reset();
    StateMachine::handleDelete();
}

void LagPhyIntfMappingSm::handleChannelGroup(const Zamu::IntfId& phyIntf) {
    VORN_ASSERT(initialized());
    const Zamu::IntfId* lag = lagConfig_->channelGroup(phyIntf);
    FLINQ(th, 8,
          "LagPhyIntfMappingSm::handleChannelGroup "
              << phyIntf << " lag=" << (lag ? lag->name() : std::string("none")));
    removeMember(phyIntf, lag);
    if (lag)
        lagPhyIntfMapping_->lagPhyIntfConfigIs(*lag)->phyIntfIs(phyIntf);
}

void LagPhyIntfMappingSm::removeMember(const Zamu::IntfId& phyIntf, const Zamu::IntfId* keep) {
    // A port is in one port-channel at most; the walk also finds a stale second membership.
    for (const Zamu::IntfId& lag : lagPhyIntfMapping_->lagPhyIntfConfig().sortedKeys()) {
        if (keep && *keep == lag)
            continue;
        lagPhyIntfMapping_->lagPhyIntfConfigDelMember(lag, [&](Lag::LagPhyIntfConfig& members) {
            if (members.phyIntf(phyIntf)) {
                FLINQ(th, 8, "  " << phyIntf << " leaves " << lag);
                members.phyIntfDel(phyIntf);
            }
            return members.phyIntfs();
        });
    }
}

Vorn::Ptr<TestAgentLagConfig> testAgentLagConfigFactory(const Vorn::Name& name) {
    return Vorn::make<TestAgentLagConfig>(name);
}

Vorn::Ptr<LagPhyIntfMappingSm> lagPhyIntfMappingSmFactory(
    const Vorn::Ptr<const TestAgentLagConfig>& lagConfig,
    const Vorn::Ptr<Lag::LagPhyIntfMapping>& lagPhyIntfMapping) {
    return Vorn::make<LagPhyIntfMappingSm>(lagConfig, lagPhyIntfMapping);
}

}  // namespace OvinMirel
