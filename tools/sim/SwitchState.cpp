#include "tools/sim/SwitchState.h"

#include <map>
#include <sstream>
#include <utility>

#include "tools/sim/Scenario.h"

namespace Sim {

namespace {

using OvinMirel::GlueStatus;
using OvinMirel::TestAgentRoot;

template <class T>
std::string text(const T& v) {
    std::ostringstream os;
    os << v;
    return os.str();
}

std::string chipText(Mirel::ChipId c) {
    return "chip " + std::to_string(c.value());
}

const char* protocolText(Mirel::ProtocolType p) {
    const char* n = Mirel::protocolTypeName(p);
    return n ? n : "?";
}

const char* stateWord(OvinMirel::GlueSmState s) {
    const char* w = OvinMirel::glueSmStateWord(s);
    return w ? w : "?";
}

// Everything captureState reads, looked up once.
struct View {
    const TestAgentRoot& root;
    const OvinMirel::Status& status;
    const GlueStatus& glue;
    const OvinMirel::GlueSm& glueSm;

    explicit View(const TestAgentRoot& r)
        : root(r),
          status(*r.ovinMirelStatus()),
          glue(*r.ovinMirelStatus()->glueStatus()),
          glueSm(*r.ovinMirelGlueSm()) {}

    bool present(Mirel::ChipId c) const {
        return status.hwCapabilityColl()->chipHwCapability(c) && status.pDStatus()->chipPDStatus(c);
    }
    std::optional<Mirel::ChipId> chipOf(const Zamu::IntfId& port) const {
        if (const auto m = status.pDStatus()->intfMapping(port))
            return m->chipId();
        return std::nullopt;
    }
    Vorn::Ptr<Mirel::RootConfig> activeRootConfig(Mirel::ChipId c) const {
        const uint32_t* id = glue.activeRootSmId(c);
        return id ? glue.rootConfigColl()->rootConfig(*id) : Vorn::Ptr<Mirel::RootConfig>();
    }
    Vorn::Ptr<OvinMirel::AclPolicySm> policy(Mirel::ChipId c) const {
        return glueSm.aclPolicySmColl() ? glueSm.aclPolicySmColl()->sm(c)
                                        : Vorn::Ptr<OvinMirel::AclPolicySm>();
    }
    Vorn::Ptr<OvinMirel::MappingSm> mapping(Mirel::ChipId c) const {
        return glueSm.mappingSmColl() ? glueSm.mappingSmColl()->sm(c)
                                      : Vorn::Ptr<OvinMirel::MappingSm>();
    }
};

// ---- Chips ----

ChipState chipState(const View& v, Mirel::ChipId c) {
    ChipState out;
    out.id = c.value();
    out.present = v.present(c);
    for (const Zamu::IntfId& port : v.status.pDStatus()->intfMapping().sortedKeys()) {
        if (v.chipOf(port) == c)
            out.ports.push_back(port.name());
    }
    if (const uint32_t* id = v.glue.activeRootSmId(c))
        out.activeRoot = *id;
    if (const Mirel::StageErrorCode* e = v.glue.chipError(c))
        out.error = text(*e);
    if (v.glueSm.aclIdAllocSmColl()) {
        if (const auto alloc = v.glueSm.aclIdAllocSmColl()->chipAclIdAllocSm(c))
            out.ruleListIdsExhausted = alloc->chipRuleListIdExhausted();
    }

    // The ids programmed: the active root's, and which ACL each id belongs to.
    std::map<Mirel::AclId, std::string> aclOfId;
    if (const auto cfg = v.activeRootConfig(c)) {
        for (const auto& [key, ids] : cfg->aclKeyToAclIdTypeSet()) {
            for (const auto& [protocol, id] : ids->aclIdType()) {
                const auto list = cfg->acl(id);
                out.aclIds.push_back(AclIdRow{key.str(), protocolText(protocol),
                                              uint32_t(id.tableType()), id.chipRuleListId(),
                                              Acl::aclDirectionName(id.direction()),
                                              list ? uint32_t(list->ruleList()->size()) : 0});
                aclOfId.emplace(id, key.str());
            }
        }
    }

    if (const auto flow = v.root.loadedDataFlow(c)) {
        std::map<std::pair<std::string, uint32_t>, std::vector<std::string>> share;
        auto first = [&](const char* kind, const std::string& place, Mirel::HwAclIndex i,
                         const char* pool) {
            out.firstLevel.push_back(FirstLevelRow{kind, place, i.value()});
            share[{pool, i.value()}].push_back(place);
        };
        for (const auto& [intf, i] : flow->intfToHwAclIndex())
            first("intf", intf.name(), i, "port");
        for (const auto& [intf, i] : flow->routedPortToHwAclIndex())
            first("routedPort", intf.name(), i, "router");
        for (const auto& [vlan, i] : flow->vlanToHwAclIndex())
            first("vlan", Zamu::IntfId::vlan(vlan.value()).name(), i, "router");
        for (const auto& [intf, i] : flow->subIntfToHwAclIndex())
            first("subIntf", intf.name(), i, "router");
        for (auto& [poolIndex, places] : share)
            out.indexes.push_back(IndexShare{poolIndex.first, poolIndex.second, std::move(places)});
        for (const auto& [key, id] : flow->chipRuleListKeyToId()) {
            const auto owner = aclOfId.find(id);
            out.secondLevel.push_back(SecondLevelRow{
                key.hwAclIndex().value(), uint32_t(key.tableType()),
                Acl::aclDirectionName(key.direction()), protocolText(key.protocolType()),
                id.chipRuleListId(), owner == aclOfId.end() ? "" : owner->second});
        }
    }

    if (const auto policy = v.policy(c)) {
        for (const Zamu::IntfId& i : policy->errIntf())
            out.contention.push_back(i.name());
    }
    if (const auto mapping = v.mapping(c)) {
        for (const Zamu::IntfId& i : mapping->intfWaitingForHwAclIndex())
            out.waitingForIndex.push_back(i.name());
        for (const Zamu::IntfId& i : mapping->routedPortWaitingForHwAclIndex())
            out.waitingForIndex.push_back(i.name());
        for (const Bridging::VlanId& vlan : mapping->vlanWaitingForHwAclIndex())
            out.waitingForIndex.push_back(Zamu::IntfId::vlan(vlan.value()).name());
        for (const Zamu::IntfId& i : mapping->subIntfWaitingForHwAclIndex())
            out.waitingForIndex.push_back(i.name());
    }
    for (const Zamu::IntfId& i : v.status.pDConfig()->blockedIntf()) {
        if (v.chipOf(i) == c)
            out.blocked.push_back(i.name());
    }
    for (int t = 0; t < OvinMirel::kCapacityTableCount; ++t) {
        const auto table = static_cast<OvinMirel::CapacityTableNames>(t);
        const OvinCapacity::TableKey key{OvinMirel::capacityTableName(table),
                                         OvinMirel::chipToName(c)};
        if (const OvinCapacity::CapacityEntry* e = v.root.tableCapacity()->capacityEntry(key))
            out.capacity.push_back(TableUse{key.tableName, e->used, e->free, e->committed, e->max});
    }
    return out;
}

// ---- Interfaces ----

// The 1st-level index of the place through which an ACL reaches `port` from `parent`.
std::optional<Mirel::HwAclIndex> placeIndex(const Mirel::ChipDataFlowConfig& flow,
                                            const Zamu::IntfId& port, const Zamu::IntfId& parent) {
    const Mirel::HwAclIndex* i = nullptr;
    if (Zamu::VlanIntfId::isVlanIntfId(parent)) {
        i = flow.vlanToHwAclIndex(Zamu::VlanIntfId::vlanId(parent));
    } else if (Zamu::SubIntfId::isSubIntfId(parent)) {
        i = flow.subIntfToHwAclIndex(parent);
    } else {
        i = flow.intfToHwAclIndex(port);
        if (!i)
            i = flow.routedPortToHwAclIndex(port);
    }
    return i ? std::optional<Mirel::HwAclIndex>(*i) : std::nullopt;
}

bool waitingForIndex(const View& v, Mirel::ChipId c, const Zamu::IntfId& port,
                     const Zamu::IntfId& parent) {
    const auto m = v.mapping(c);
    if (!m)
        return false;
    if (Zamu::VlanIntfId::isVlanIntfId(parent))
        return m->vlanWaitingForHwAclIndex().contains(Zamu::VlanIntfId::vlanId(parent));
    if (Zamu::SubIntfId::isSubIntfId(parent))
        return m->subIntfWaitingForHwAclIndex().contains(parent);
    return m->intfWaitingForHwAclIndex().contains(port) ||
           m->routedPortWaitingForHwAclIndex().contains(port);
}

// Whether the ACL reaches the port from `parent` on its chip, and if not, why not.
PortVerdict portVerdict(const View& v, const Ovin::AclKey& key, const Zamu::IntfId& port,
                        const Zamu::IntfId& parent) {
    PortVerdict out;
    out.port = port.name();
    const std::optional<Mirel::ChipId> c = v.chipOf(port);
    if (!c) {
        out.reason = Reason::notReady;
        out.detail = port.name() + " is on no chip";
        return out;
    }
    out.chip = c->value();
    const std::string where = port.name() + " (" + chipText(*c) + ")";

    // The policy: has the chip put the ACL in effect on the port, through this parent?
    const auto policy = v.policy(*c);
    bool admitted = false;
    if (policy) {
        if (const auto status = policy->intfAclStatus(port)) {
            if (const auto parents = status->aclKey(key))
                admitted = parents->parentIntfId().contains(parent);
        }
    }
    if (!admitted) {
        if (policy && policy->errIntf().contains(port)) {
            const auto asked = policy->getIntfAclTypeCombination(port);
            const auto held = policy->getBestAclTypeCombinationMatch(asked);
            out.reason = Reason::contention;
            out.detail = "lost to a higher-priority combination on " + where + ": asks for " +
                         aclKindWords(asked.value()) + ", the chip holds " +
                         aclKindWords(held.value());
        } else {
            out.reason = Reason::notReady;
            out.detail = "not admitted by the policy of " + chipText(*c) + " on " + port.name();
        }
        return out;
    }

    // The programmed root.
    const auto cfg = v.activeRootConfig(*c);
    const auto ids = cfg ? cfg->aclKeyToAclIdTypeSet(key) : Vorn::Ptr<Mirel::AclIdTypeSet>();
    if (!ids) {
        const GlueStatus& g = v.glue;
        const bool lastFailed = g.lastComputationResult() == OvinMirel::fail_ ||
                                g.lastComputationResult() == OvinMirel::aclIdAllocFail_;
        if (const Mirel::StageErrorCode* e = g.chipError(*c)) {
            out.reason = Reason::chipFailed;
            out.detail = chipText(*c) + " failed with " + text(*e) +
                         ": the commit that carried it was aborted on every chip";
        } else if (lastFailed) {
            std::string failed;
            for (const auto& [chip, e] : g.chipError())
                failed += (failed.empty() ? "" : ", ") + chipText(chip) + " " + text(e);
            out.reason = Reason::chipFailed;
            out.detail = g.lastComputationResult() == OvinMirel::aclIdAllocFail_
                             ? "the last commit ran out of chip rule list ids and changed no chip"
                             : "the last commit failed (" + failed +
                                   ") and was aborted on every chip, " + chipText(*c) + " included";
        } else {
            out.reason = Reason::notReady;
            out.detail = "not yet committed to " + chipText(*c);
        }
        return out;
    }

    // The mappings loaded into the chip.
    const auto flow = v.root.loadedDataFlow(*c);
    const std::optional<Mirel::HwAclIndex> index =
        flow ? placeIndex(*flow, port, parent) : std::nullopt;
    if (!index) {
        const bool routerPlace =
            Zamu::VlanIntfId::isVlanIntfId(parent) || Zamu::SubIntfId::isSubIntfId(parent);
        const Mirel::TableType t = ids->tableType();
        const bool routerKind = t == Mirel::ipv4RouterAcl_ || t == Mirel::ipv6RouterAcl_;
        if (waitingForIndex(v, *c, port, parent)) {
            out.reason = Reason::noIndex;
            out.detail = "no hardware ACL index free for " + parent.name() + " on " + chipText(*c);
        } else if (routerPlace && !routerKind) {
            // The index of a VLAN or sub-interface selects router ACLs only.
            out.reason = Reason::unmapped;
            out.detail = parent.name() + " takes router ACLs only and " + key.str() +
                         " is of table type " + text(uint32_t(t)) + ": " + chipText(*c) +
                         " programs it nowhere";
        } else {
            out.reason = Reason::notReady;
            out.detail = chipText(*c) + " has no mapping for " + parent.name() + " yet";
        }
        return out;
    }
    for (const auto& [protocol, id] : ids->aclIdType()) {
        const Mirel::ChipRuleListIdKey k(*index, id.tableType(), protocol, id.direction());
        const Mirel::AclId* loaded = flow->chipRuleListKeyToId(k);
        if (!loaded || *loaded != id) {
            out.reason = Reason::notReady;
            out.detail = chipText(*c) + " does not run its rule list at index " +
                         text(index->value()) + " yet";
            return out;
        }
    }
    return out;
}

// The ports an interface's ACLs reach, each with the parent the index records for it: the
// interface itself, except for a port-channel, whose members carry its ACLs as their own.
std::vector<std::pair<Zamu::IntfId, Zamu::IntfId>> reachedPorts(const View& v,
                                                                const Zamu::IntfId& intf) {
    std::vector<std::pair<Zamu::IntfId, Zamu::IntfId>> out;
    auto lagMembers = [&](const Zamu::IntfId& lag) {
        std::vector<Zamu::IntfId> members;
        if (const auto l = v.status.lagPhyIntfMapping()->lagPhyIntfConfig(lag))
            members = l->phyIntf().sortedKeys();
        return members;
    };
    if (Zamu::PortChannelIntfId::isPortChannelIntfId(intf)) {
        for (const Zamu::IntfId& p : lagMembers(intf))
            out.emplace_back(p, p);
    } else if (Zamu::VlanIntfId::isVlanIntfId(intf)) {
        if (const auto vlan = v.status.vlanPhyIntfConfigDir()->vlanPhyIntfConfig(
                Zamu::VlanIntfId::vlanId(intf))) {
            for (const Zamu::IntfId& p : vlan->phyIntf().sortedKeys())
                out.emplace_back(p, intf);
        }
    } else if (Zamu::SubIntfId::isSubIntfId(intf)) {
        if (v.root.subIntfConfigDir()->intfConfig(intf)) {
            const Zamu::IntfId parent = Zamu::SubIntfId::parentIntfId(intf);
            if (Zamu::PortChannelIntfId::isPortChannelIntfId(parent)) {
                for (const Zamu::IntfId& p : lagMembers(parent))
                    out.emplace_back(p, intf);
            } else {
                out.emplace_back(parent, intf);
            }
        }
    } else {
        out.emplace_back(intf, intf);
    }
    return out;
}

std::optional<Zamu::IntfId> lagOf(const View& v, const Zamu::IntfId& port) {
    const auto& lags = v.status.lagPhyIntfMapping()->lagPhyIntfConfig();
    for (const Zamu::IntfId& lag : lags.sortedKeys()) {
        if (lags.find(lag)->phyIntf().contains(port))
            return lag;
    }
    return std::nullopt;
}

AclVerdict aclVerdict(const View& v, const Acl::AclBinding& b, const std::string& name) {
    Ovin::AclKey key;
    key.name = name;
    key.type = b.type;
    key.direction = b.direction;
    if (Zamu::VlanIntfId::isVlanIntfId(b.intf))
        key.vlanId = Zamu::VlanIntfId::vlanId(b.intf);
    AclVerdict out;
    out.acl = key.str();

    const auto stored = v.status.aclColl()->acl(key);
    if (!stored || !stored->created()) {
        const auto s = v.root.statusDp()->aclStatus(key);
        if (s && s->state() == Acl::aclDpFailed) {
            out.reason = Reason::refused;
            out.detail = s->error();
        } else {
            out.reason = Reason::notReady;
            out.detail = "the engine has not installed it yet";
        }
        return out;
    }
    if (Zamu::EthIntfId::isEthIntfId(b.intf)) {
        if (const auto lag = lagOf(v, b.intf)) {
            out.reason = Reason::notReady;
            out.detail = b.intf.name() + " is a member of " + lag->name() +
                         ": its own ACLs wait until it leaves";
            return out;
        }
    }
    for (const auto& [port, parent] : reachedPorts(v, b.intf))
        out.ports.push_back(portVerdict(v, key, port, parent));
    if (out.ports.empty()) {
        out.reason = Reason::notReady;
        out.detail = b.intf.name() + " reaches no port";
        return out;
    }
    for (const PortVerdict& p : out.ports) {
        if (p.reason != Reason::none) {
            out.reason = p.reason;
            out.detail = out.ports.size() > 1 ? "on " + p.port + ": " + p.detail : p.detail;
            break;
        }
    }
    return out;
}

}  // namespace

const char* reasonWord(Reason r) {
    switch (r) {
        case Reason::none:
            return "";
        case Reason::refused:
            return "refused";
        case Reason::notReady:
            return "notReady";
        case Reason::contention:
            return "contention";
        case Reason::chipFailed:
            return "chipFailed";
        case Reason::noIndex:
            return "noIndex";
        case Reason::unmapped:
            return "unmapped";
    }
    return "?";
}

SwitchState captureState(const TestAgentRoot& root, const std::set<uint32_t>& chips) {
    const View v(root);
    SwitchState out;
    out.time = Vorn::currentTime();
    out.glueState = stateWord(v.glue.glueSmState());
    out.lastResult = stateWord(v.glue.lastComputationResult());

    std::set<uint32_t> ids = chips;
    for (const Mirel::ChipId& c : v.status.hwCapabilityColl()->chipHwCapability().sortedKeys())
        ids.insert(c.value());
    for (uint32_t id : ids)
        out.chips.push_back(chipState(v, Mirel::ChipId(id)));

    for (const auto& [binding, name] : root.intfConfig()->appliedAcl()) {
        if (out.interfaces.empty() || out.interfaces.back().intf != binding.intf.name())
            out.interfaces.push_back(IntfState{binding.intf.name(), {}});
        out.interfaces.back().acls.push_back(aclVerdict(v, binding, name));
    }
    for (const auto& [key, s] : root.statusDp()->aclStatus()) {
        out.acls.push_back(AclOutcome{key.str(), Acl::aclDpStateName(s->state()),
                                      uint32_t(s->result()), s->error()});
    }
    for (const Zamu::IntfId& i : v.status.pDConfig()->blockedIntf())
        out.blocked.push_back(i.name());
    return out;
}

}  // namespace Sim
