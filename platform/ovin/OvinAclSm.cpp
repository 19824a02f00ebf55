#include "platform/ovin/OvinAclSm.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <tuple>

#include "platform/ovin/AclRuleText.h"
#include "platform/vorn/Assert.h"
#include "platform/vorn/Exception.h"

namespace Ovin {

static Flinq::Handle th("OvinAclSm");

namespace {

// ICMPv6 neighbour solicitation and advertisement: without them an IPv6 ACL ending in the
// implicit deny would cut the interface off from its neighbours.
constexpr uint8_t kNdTypes[] = {135, 136};

std::string problemText(const char* what, const AclKey& key) {
    return std::string(what) + " (" + key.str() + ")";
}

}  // namespace

AclKey aclKeyOfBinding(const Acl::AclBinding& binding, const Vorn::String& name) {
    AclKey key;
    key.name = name;
    key.type = binding.type;
    key.direction = binding.direction;
    const Zamu::IntfId& intf = binding.intf;
    if (Zamu::VlanIntfId::isVlanIntfId(intf))
        key.vlanId = Zamu::VlanIntfId::vlanId(intf);
    if (Zamu::SubIntfId::isSubIntfId(intf)) {
        // A sub-interface is a routed interface: its ACLs are router ACLs, keyed with the VLAN
        // its number names (the dot1q encapsulation of ".N"). A binding it cannot take must not
        // share a key with the ACL's port bindings, which its failure would take down: a MAC
        // ACL is keyed with the VLAN too (as on a VLAN interface), and a number that names no
        // VLAN gets the sub-interface as the key's tag.
        const uint32_t sub = intf.subNumber();
        if (sub <= Bridging::VlanId::kMax) {
            key.vlanId = Bridging::VlanId(sub);
        } else {
            key.tag = Vorn::Name(intf.name());
        }
    }
    return key;
}

AclSm::AclSm(const Vorn::Ptr<OvinCommonSmData>& commonSmData,
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
             const Vorn::Ptr<const Interface::SubIntfConfigDir>& subIntfConfigDir)
    : AclSm(th, commonSmData, aclConfig, paramConfig, configDir, intfConfig, intfConfigDir,
            statusDp, causeStatus, lagInputConfig, aclHelper, clock, bridgingConfig,
            subIntfStatusDir, subIntfConfigDir) {}

AclSm::AclSm(Flinq::Handle& handle, const Vorn::Ptr<OvinCommonSmData>& commonSmData,
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
             const Vorn::Ptr<const Interface::SubIntfConfigDir>& subIntfConfigDir)
    : Vorn::StateMachine(handle),
      commonSmData_(required(commonSmData, "commonSmData")),
      aclConfig_(required(aclConfig, "aclConfig")),
      paramConfig_(required(paramConfig, "paramConfig")),
      configDir_(required(configDir, "configDir")),
      intfConfig_(required(intfConfig, "intfConfig")),
      intfConfigDir_(required(intfConfigDir, "intfConfigDir")),
      statusDp_(required(statusDp, "statusDp")),
      causeStatus_(required(causeStatus, "causeStatus")),
      lagInputConfig_(required(lagInputConfig, "lagInputConfig")),
      aclHelper_(required(aclHelper, "aclHelper")),
      clock_(&clock),
      bridgingConfig_(required(bridgingConfig, "bridgingConfig")),
      subIntfStatusDir_(required(subIntfStatusDir, "subIntfStatusDir")),
      subIntfConfigDir_(required(subIntfConfigDir, "subIntfConfigDir")),
      updateTimer_(commonSmData_->timerWheel(), [this] { handleUpdateTimer(); }) {}

AclSm::~AclSm() {
    if (callback_ && aclHelper_->aclStatusUpdateCallback() == callback_)
        aclHelper_->aclStatusUpdateCallbackIs(OvinHelper::AclStatusUpdateCallback());
}

void AclSm::handleInitialized() {
    FLINQ(th, 8, "AclSm::handleInitialized");
    Vorn::StateMachine::handleInitialized();
    callback_ = OvinHelper::AclStatusUpdateCallback(
        [this](const AclKey& key, AclCreateError result) { handleAclStatusUpdate(key, result); });
    aclHelper_->aclStatusUpdateCallbackIs(callback_);
    // Everything is new to this start: the first update compares the whole configuration
    // with what the helper holds.
    allDirty_ = true;
    intfConfigSub_ = intfConfig_->appliedAclNotify([this](const Acl::AclBinding& b) {
        dirtyBindings_.insert(b);
        scheduleUpdate();
    });
    auto configChanged = [this](const Acl::AclConfigKey& ck, const auto&...) {
        dirtyConfigs_.insert(ck);
        scheduleUpdate();
    };
    auto lagChanged = [this](const auto&...) {
        lagsDirty_ = true;
        scheduleUpdate();
    };
    dpAclUpdateTimeSub_ = statusDp_->dpAclUpdateTimeNotify([this] { handleDpAclUpdateTime(); });
    aclWatchers_ = std::make_unique<decltype(aclWatchers_)::element_type>(
        aclConfig_->acl(),
        decltype(aclWatchers_)::element_type::Hooks{
            .make =
                [configChanged](const Acl::AclConfigKey& ck, const Vorn::Ptr<Acl::AclConfig>& acl) {
                    auto w = std::make_unique<AclWatcher>();
                    w->entries =
                        acl->entryNotify([configChanged, ck](uint32_t) { configChanged(ck); });
                    w->counters =
                        acl->countersEnabledNotify([configChanged, ck] { configChanged(ck); });
                    return w;
                },
            .added = configChanged,
            .gone = configChanged});
    lagWatchers_ = std::make_unique<decltype(lagWatchers_)::element_type>(
        lagInputConfig_->lagPhyIntfMapping()->lagPhyIntfConfig(),
        decltype(lagWatchers_)::element_type::Hooks{
            .make =
                [lagChanged](const Zamu::IntfId&, const Vorn::Ptr<Lag::LagPhyIntfConfig>& lag) {
                    auto w = std::make_unique<LagWatcher>();
                    w->members = lag->phyIntfNotify(lagChanged);
                    return w;
                },
            .added = lagChanged,
            .gone = lagChanged});
    scheduleUpdate();
}

void AclSm::handleDelete() {
    FLINQ(th, 8, "AclSm::handleDelete");
    lagWatchers_.reset();
    aclWatchers_.reset();
    dpAclUpdateTimeSub_.reset();
    intfConfigSub_.reset();
    updateTimer_.expiryIs(Vorn::kInfinity);
    if (callback_ && aclHelper_->aclStatusUpdateCallback() == callback_)
        aclHelper_->aclStatusUpdateCallbackIs(OvinHelper::AclStatusUpdateCallback());
    callback_ = OvinHelper::AclStatusUpdateCallback();
    Vorn::StateMachine::handleDelete();
}

void AclSm::scheduleUpdate() {
    if (!initialized() || updateTimer_.armed())
        return;
    // Counted from the first change, so a steady trickle of changes cannot postpone the update
    // forever.
    updateTimer_.expiryIs(clock_->now() + paramConfig_->updateDelay());
}

void AclSm::handleUpdateTimer() {
    FLINQ(th, 8, "AclSm::handleUpdateTimer");
    VORN_ASSERT(initialized());
    runUpdate();
}

// ---- What the configuration asks for ----

std::string AclSm::keyProblem(const AclKey& key, const Zamu::IntfId& intf) const {
    // First, so that what a sub-interface cannot take is named as such.
    if (Zamu::SubIntfId::isSubIntfId(intf)) {
        if (key.type == Acl::aclTypeMac)
            return problemText("MAC ACLs cannot be applied to a sub-interface", key);
        if (!key.vlanId)
            return problemText("a sub-interface number outside 1..4094 cannot carry an ACL", key);
        if (!aclHelper_->routerAclSupported())
            return problemText("ACLs on sub-interfaces are not supported by this hardware", key);
    }
    const bool vlanIntf = Zamu::VlanIntfId::isVlanIntfId(intf);
    if (key.type == Acl::aclTypeMac && vlanIntf)
        return problemText("MAC ACLs cannot be applied to a VLAN interface", key);
    if (key.type == Acl::aclTypeMac && key.direction == Acl::aclDirectionOut &&
        !aclHelper_->macEgressAclSupported()) {
        return problemText("MAC ACLs cannot be applied outbound on this hardware", key);
    }
    if (key.type == Acl::aclTypeIpv6 && !aclHelper_->ip6AclSupported())
        return problemText("IPv6 ACLs are not supported by this hardware", key);
    if (vlanIntf && !aclHelper_->routerAclSupported())
        return problemText("ACLs on VLAN interfaces are not supported by this hardware", key);
    return {};
}

AclSm::Desired AclSm::desiredOf(const AclKey& key,
                                const Vorn::FlatSet<Acl::AclBinding>& bindings) const {
    Desired d;
    for (const Acl::AclBinding& binding : bindings) {
        const Zamu::IntfId& intf = binding.intf;
        d.configKey = {key.name, binding.type};
        if (d.problem.empty())
            d.problem = keyProblem(key, intf);
        if (Zamu::PortChannelIntfId::isPortChannelIntfId(intf)) {
            if (auto lag = lagMembers_.find(intf); lag != lagMembers_.end()) {
                for (const Zamu::IntfId& member : lag->second)
                    d.intf.insert(member);
            }
        } else if (Zamu::EthIntfId::isEthIntfId(intf)) {
            // A member port takes its port-channel's ACLs; its own wait until it leaves.
            if (!lagOfPort_.contains(intf))
                d.intf.insert(intf);
        } else {
            d.intf.insert(intf);  // VLAN interface or sub-interface
        }
    }
    if (d.problem.empty() && !aclConfig_->acl(d.configKey))
        d.problem = problemText("no such ACL is configured", key);
    return d;
}

void AclSm::refreshLags(std::set<Zamu::IntfId>& changed) {
    // Port-channel membership, both ways; walked in key order so that a port listed by two
    // port-channels goes with the first, whatever the hashing.
    const Lag::LagPhyIntfMapping& lags = *lagInputConfig_->lagPhyIntfMapping();
    std::map<Zamu::IntfId, std::set<Zamu::IntfId>> members;
    std::map<Zamu::IntfId, Zamu::IntfId> lagOfPort;
    for (const Zamu::IntfId& lag : lags.lagPhyIntfConfig().sortedKeys()) {
        std::set<Zamu::IntfId>& m = members[lag];
        for (const Zamu::IntfId& port : lags.lagPhyIntfConfig(lag)->phyIntf()) {
            m.insert(port);
            lagOfPort.emplace(port, lag);
        }
    }
    auto diff = [&changed](const auto& before, const auto& after) {
        for (const auto& [k, v] : before) {
            auto it = after.find(k);
            if (it == after.end() || it->second != v)
                changed.insert(k);
        }
        for (const auto& [k, v] : after) {
            if (!before.contains(k))
                changed.insert(k);
        }
    };
    diff(lagMembers_, members);   // port-channels whose members changed
    diff(lagOfPort_, lagOfPort);  // ports that joined, left or moved
    lagMembers_ = std::move(members);
    lagOfPort_ = std::move(lagOfPort);
}

std::set<AclKey> AclSm::refreshDesired() {
    if (allDirty_) {
        for (const auto& [b, name] : intfConfig_->appliedAcl())
            dirtyBindings_.insert(b);
        for (const auto& [b, key] : keyOfBinding_)
            dirtyBindings_.insert(b);
        for (const auto& [ck, acl] : aclConfig_->acl())
            dirtyConfigs_.insert(ck);
        for (const auto& [ck, keys] : keysOfConfig_)
            dirtyConfigs_.insert(ck);
        lagsDirty_ = true;
        allDirty_ = false;
    }
    std::set<AclKey> dirty;
    if (lagsDirty_) {
        std::set<Zamu::IntfId> changed;
        refreshLags(changed);
        lagsDirty_ = false;
        // The bindings of those interfaces (ordered by interface first: one range each).
        for (const Zamu::IntfId& intf : changed) {
            for (auto it = keyOfBinding_.lower_bound({intf, Acl::AclType(0), Acl::AclDirection(0)});
                 it != keyOfBinding_.end() && it->first.intf == intf; ++it)
                dirty.insert(it->second);
        }
    }
    for (const Acl::AclConfigKey& ck : dirtyConfigs_) {
        if (auto it = keysOfConfig_.find(ck); it != keysOfConfig_.end())
            dirty.insert(it->second.begin(), it->second.end());
    }
    for (const Acl::AclBinding& b : dirtyBindings_) {
        if (auto old = keyOfBinding_.find(b); old != keyOfBinding_.end()) {
            dirty.insert(old->second);
            auto& bound = bindingsOfKey_[old->second];
            bound.erase(b);
            if (bound.empty())
                bindingsOfKey_.erase(old->second);
            keyOfBinding_.erase(old);
        }
        if (const std::string* name = intfConfig_->appliedAcl(b)) {
            const AclKey key = aclKeyOfBinding(b, *name);
            keyOfBinding_.emplace(b, key);
            bindingsOfKey_[key].insert(b);
            dirty.insert(key);
        }
    }
    dirtyBindings_.clear();
    for (const AclKey& key : dirty) {
        if (auto old = desired_.find(key); old != desired_.end()) {
            if (old->second.problem.empty()) {
                for (const Zamu::IntfId& intf : old->second.intf) {
                    auto s = slot_.find({intf, key.type, key.direction});
                    VORN_ASSERT(s != slot_.end());
                    s->second.erase(key);
                    if (s->second.empty())
                        slot_.erase(s);
                }
            }
            auto keys = keysOfConfig_.find(old->second.configKey);
            VORN_ASSERT(keys != keysOfConfig_.end());
            keys->second.erase(key);
            if (keys->second.empty())
                keysOfConfig_.erase(keys);
            desired_.erase(old);
        }
        auto bound = bindingsOfKey_.find(key);
        if (bound == bindingsOfKey_.end())
            continue;  // no longer applied
        Desired d = desiredOf(key, bound->second);
        keysOfConfig_[d.configKey].insert(key);
        if (d.problem.empty()) {
            for (const Zamu::IntfId& intf : d.intf)
                slot_[{intf, key.type, key.direction}].insert(key);
        }
        desired_.emplace(key, std::move(d));
    }
    return dirty;
}

Acl::UniqueId AclSm::uniqueIdFor(const Version* last, uint32_t ruleNum,
                                 const Acl::AclEntry& entry) {
    if (last) {
        auto it = std::lower_bound(last->rules.begin(), last->rules.end(), ruleNum,
                                   [](const VersionRule& r, uint32_t n) { return r.ruleNum < n; });
        if (it != last->rules.end() && it->ruleNum == ruleNum && it->entry == entry)
            return it->id;
    }
    return Acl::UniqueId{nextUniqueId_++};
}

AclSm::VersionPtr AclSm::versionOf(const Acl::AclConfigKey& ck,
                                   std::map<Acl::AclConfigKey, VersionPtr>& cache) {
    auto [it, inserted] = cache.try_emplace(ck);
    if (!inserted)
        return it->second;
    const Vorn::Ptr<Acl::AclConfig> acl = aclConfig_->acl(ck);
    if (!acl)
        return nullptr;
    VersionPtr& last = lastVersion_[ck];
    Version v;
    v.countersEnabled = acl->countersEnabled();
    const bool ndRules =
        ck.type == Acl::aclTypeIpv6 && aclHelper_->needToInstallIcmp6NeighborDiscoveryRules();
    // The version keeps what it reserves for as long as it is installed.
    v.rules.reserve(acl->entrys() + (ndRules ? std::size(kNdTypes) : 0));
    for (const auto& [seq, entry] : acl->entry()) {
        if (entry.isRemark())
            continue;
        v.rules.push_back({seq, uniqueIdFor(last.get(), seq, entry), entry});
    }
    if (ndRules) {
        uint32_t ruleNum = kImplicitRuleNum;
        for (uint8_t type : kNdTypes) {
            Acl::Ip6Filter f;
            f.protocolIs(Zamu::IpProto::kIcmp6);
            f.icmpTypeIs(type);
            const Acl::AclEntry entry = Acl::AclEntry::ip(Acl::IpRuleConfig(f));
            v.rules.push_back({ruleNum, uniqueIdFor(last.get(), ruleNum, entry), entry});
            ++ruleNum;
        }
    }
    if (!last || !(*last == v))
        last = std::make_shared<const Version>(std::move(v));
    it->second = last;
    return last;
}

std::vector<AclSm::Subrule> AclSm::expand(const Version& v) {
    std::vector<Subrule> out;
    out.reserve(v.rules.size());
    for (const VersionRule& r : v.rules) {
        if (r.entry.isMac()) {
            out.push_back({Subrule::Kind::mac, r.ruleNum, 0, r.id, &r.entry, {}, {}});
            continue;
        }
        if (r.entry.ipRule().filter().fragments()) {
            out.push_back({Subrule::Kind::frag, r.ruleNum, 0, r.id, &r.entry, {}, {}});
            continue;
        }
        uint32_t subrule = 0;
        const std::vector<Acl::PortSpan> destinations = r.entry.destinationPort().spans();
        for (const Acl::PortSpan& s : r.entry.sourcePort().spans()) {
            for (const Acl::PortSpan& d : destinations)
                out.push_back({Subrule::Kind::ip, r.ruleNum, subrule++, r.id, &r.entry, s, d});
        }
    }
    return out;
}

AclData AclSm::aclDataOf(const AclKey& key, const Version& v, const std::vector<Subrule>& subrules,
                         const std::set<Zamu::IntfId>& intf) {
    AclData data;
    data.key = key;
    data.intf = intf;
    data.countersEnabled = v.countersEnabled;
    data.rules.reserve(subrules.size());
    for (const Subrule& s : subrules)
        data.rules.push_back({s.ruleNum, s.subruleNum, s.id});
    return data;
}

// ---- Helper calls ----

namespace {

// The helper's port values for one span: an exact port under the full mask, everything as
// all zeros, anything else as low..high (0..0 would read as everything, hence the exact form
// for single ports).
struct PortValues {
    uint16_t port = 0, mask = 0, low = 0, high = 0;
};
PortValues portValues(const Acl::PortSpan& s) {
    if (s.low == s.high)
        return {s.low, 0xffff, 0, 0};
    if (s.isFull())
        return {};
    return {0, 0, s.low, s.high};
}

}  // namespace

std::optional<AclSm::Failure> AclSm::createSubrules(const AclKey& key, const Version& v,
                                                    const AclData& data,
                                                    const std::vector<Subrule>& subrules) {
    // The entry keeps its rule packed: unpacked once for the subrules it makes.
    const Acl::AclEntry* unpacked = nullptr;
    Acl::IpRuleConfig ipRule;
    for (const Subrule& s : subrules) {
        AclCreateError r = aclCreateOk;
        if (s.kind != Subrule::Kind::mac && s.entry != unpacked) {
            ipRule = s.entry->ipRule();
            unpacked = s.entry;
        }
        if (s.kind == Subrule::Kind::mac) {
            r = aclHelper_->createMacAclRule(s.entry->macRule(), s.id, data, s.ruleNum);
        } else if (s.kind == Subrule::Kind::frag) {
            r = aclHelper_->createIpFragRule(data, ipRule, s.id, s.ruleNum, s.subruleNum);
        } else {
            const PortValues src = portValues(s.source);
            const PortValues dst = portValues(s.destination);
            r = aclHelper_->createIpAclSubrule(
                key.type, ipRule, s.id, data, s.ruleNum, s.subruleNum, src.port, src.mask, src.low,
                src.high, dst.port, dst.mask, dst.low, dst.high, 0, 0, 0, 0,
                ipRule.filter().tcpFlags(), ipRule.filter().protocol().hasPorts(), 0, 0);
        }
        if (r == aclCreateOk)
            continue;
        auto rule = std::find_if(v.rules.begin(), v.rules.end(),
                                 [&](const VersionRule& vr) { return vr.ruleNum == s.ruleNum; });
        VORN_ASSERT(rule != v.rules.end());
        const bool implicit = s.ruleNum >= kImplicitRuleNum;
        const std::string text = implicit ? Acl::ruleText(0, rule->entry).substr(2)
                                          : Acl::ruleText(rule->ruleNum, rule->entry);
        FLINQ(th, 2,
              "AclSm::createSubrules " << key << " rule# " << s.ruleNum << " subrule# "
                                       << s.subruleNum << " refused: " << uint32_t(r));
        return Failure{r, std::string(implicit ? "implicit rule '" : "rule '") + text +
                              "' cannot be expressed by the hardware (error " +
                              std::to_string(uint32_t(r)) + ", subrule " +
                              std::to_string(s.subruleNum) + ")"};
    }
    return std::nullopt;
}

void AclSm::tearDown(const AclData& data, const std::set<Zamu::IntfId>& rebound) {
    for (const Zamu::IntfId& intf : data.intf) {
        if (!rebound.contains(intf))
            aclHelper_->removeIntfFromAcl(intf, data, false);
    }
    aclHelper_->removeAcl(data);
    aclHelper_->destroyAcl(data);
}

std::optional<AclSm::Failure> AclSm::build(const AclKey& key, const VersionPtr& v,
                                           const std::set<Zamu::IntfId>& intf, Installed& out) {
    const std::vector<Subrule> subrules = expand(*v);
    AclData data = aclDataOf(key, *v, subrules, intf);
    AclDataStatus status;
    std::optional<Failure> failure;
    try {
        const AclCreateError pre = aclHelper_->precreateAcl(data, status);
        if (pre != aclCreateOk) {
            failure = Failure{pre, "the hardware refused to create the ACL (error " +
                                       std::to_string(uint32_t(pre)) + ")"};
        } else if (auto bad = createSubrules(key, *v, data, subrules)) {
            failure = bad;
        } else {
            const AclCreateError fin =
                aclHelper_->createFinalAclRule(key.type, data, kFinalRuleNum);
            if (fin != aclCreateOk && fin != aclCreateFinalRuleDone) {
                failure = Failure{fin, "the hardware refused to complete the ACL (error " +
                                           std::to_string(uint32_t(fin)) + ")"};
            }
        }
    } catch (const Vorn::RangeException& e) {
        failure =
            Failure{aclCreateFailed, std::string("the hardware refused a value: ") + e.what()};
    }
    if (failure) {
        FLINQ(th, 2, "AclSm::build " << key << " failed: " << failure->error);
        tearDown(data);
        return failure;
    }
    out = Installed{v, std::move(data), nullptr};
    return std::nullopt;
}

std::set<Zamu::IntfId> AclSm::supportedIntfs(const AclKey& key,
                                             const Vorn::FlatSet<Zamu::IntfId>& want,
                                             const std::set<Zamu::IntfId>& have) {
    std::set<Zamu::IntfId> out;
    for (const Zamu::IntfId& intf : want) {
        if (have.contains(intf) || aclHelper_->intfSupportsAcl(intf)) {
            out.insert(intf);
        } else {
            aclHelper_->logAclUnsupportedHardware(key.name, intf);
        }
    }
    return out;
}

bool AclSm::blockDuringUpdate() const {
    return !aclHelper_->permitDuringAclUpdate() || aclHelper_->ignorePermitDuringAclUpdate();
}

void AclSm::statusIs(const AclKey& key, Acl::AclDpState state, AclCreateError result,
                     const std::string& error) {
    statusIs(*statusDp_->aclStatusIs(key), state, result, error);
}

void AclSm::statusIs(Acl::AclStatus& status, Acl::AclDpState state, AclCreateError result,
                     const std::string& error) {
    status.stateIs(state);
    status.resultIs(result);
    status.errorIs(error);
}

// ---- One update ----

void AclSm::runUpdate() {
    FLINQ(th, 8, "AclSm::runUpdate");
    // Only the keys whose bindings, port-channel members or configured ACL changed can differ
    // from what the helper holds: the others are not looked at, whatever their size.
    const std::set<AclKey> dirty = refreshDesired();
    const std::set<Acl::AclConfigKey> configs = std::move(dirtyConfigs_);
    dirtyConfigs_.clear();
    const std::map<AclKey, Desired>& desired = desired_;
    std::map<Acl::AclConfigKey, VersionPtr> versions;
    auto same = [](const VersionPtr& a, const VersionPtr& b) { return a == b || *a == *b; };

    // Who holds each interface's slot (type and direction) after this update: slot_.
    auto belongsToAnother = [&](const Zamu::IntfId& intf, const AclKey& key) {
        auto it = slot_.find({intf, key.type, key.direction});
        return it != slot_.end() && (it->second.size() > 1 || !it->second.contains(key));
    };

    std::set<AclKey> built;      // created or re-created in step 1
    std::set<AclKey> committed;  // built or re-bound: committed in step 5
    std::set<AclKey> refusalCleared;
    std::set<Zamu::IntfId> touched;  // interfaces whose ACLs change
    bool changed = false;

    // 1. ACLs that are new or whose rules changed.
    for (const AclKey& key : dirty) {
        auto di = desired.find(key);
        if (di == desired.end() || !di->second.problem.empty())
            continue;
        const Desired& d = di->second;
        const VersionPtr v = versionOf(d.configKey, versions);
        VORN_ASSERT(v);
        auto inst = installed_.find(key);
        if (inst != installed_.end() && same(inst->second.version, v)) {
            if (refused_.erase(key))
                refusalCleared.insert(key);  // the configuration is back to what is installed
            continue;
        }
        auto ref = refused_.find(key);
        if (ref != refused_.end() && same(ref->second.version, v))
            continue;  // refused already: wait for the configuration to change
        changed = true;
        std::optional<Installed> old;
        std::set<Zamu::IntfId> intf;  // where the hardware can take it
        if (inst != installed_.end()) {
            intf = supportedIntfs(key, d.intf, inst->second.data.intf);
            touched.insert(inst->second.data.intf.begin(), inst->second.data.intf.end());
            // Unbinding an interface the new version binds again at once would ripple through
            // the store's readers twice for nothing: precreateAcl binds it back.
            tearDown(inst->second.data, intf);
            old = std::move(inst->second);
            installed_.erase(inst);
        } else {
            intf = supportedIntfs(key, d.intf, {});
        }
        touched.insert(intf.begin(), intf.end());
        Installed made;
        if (auto failure = build(key, v, intf, made)) {
            std::string error = failure->error;
            if (old && aclHelper_->revertIncompleteAclSupported()) {
                Installed again;
                if (!build(key, old->version, intf, again)) {
                    installed_.emplace(key, std::move(again));
                    built.insert(key);
                    committed.insert(key);
                    error += "; its earlier version stays in effect";
                }
            }
            refused_[key] = Refused{v, failure->code, error};
            awaitingOutcome_.erase(key);
            statusIs(key, Acl::aclDpFailed, failure->code, error);
            continue;
        }
        refused_.erase(key);
        installed_.emplace(key, std::move(made));
        built.insert(key);
        committed.insert(key);
    }

    // 2. Bindings: what an ACL lost first, so that an interface never carries two ACLs of one
    // slot in the helper; then what it gained.
    std::vector<AclKey> gone;
    for (const AclKey& key : dirty) {
        auto it = installed_.find(key);
        if (it == installed_.end())
            continue;
        Installed& inst = it->second;
        auto d = desired.find(key);
        const bool applied = d != desired.end() && d->second.problem.empty();
        if (!applied)
            gone.push_back(key);
        if (built.contains(key))
            continue;
        for (const Zamu::IntfId& intf : std::set<Zamu::IntfId>(inst.data.intf)) {
            if (applied && d->second.intf.contains(intf))
                continue;
            aclHelper_->removeIntfFromAcl(intf, inst.data, belongsToAnother(intf, key));
            inst.data.intf.erase(intf);
            touched.insert(intf);
            if (applied)
                committed.insert(key);
        }
    }
    for (const AclKey& key : dirty) {
        auto it = installed_.find(key);
        if (it == installed_.end())
            continue;
        Installed& inst = it->second;
        auto d = desired.find(key);
        if (built.contains(key) || d == desired.end() || !d->second.problem.empty())
            continue;
        Vorn::FlatSet<Zamu::IntfId> more;
        for (const Zamu::IntfId& intf : d->second.intf) {
            if (!inst.data.intf.contains(intf))
                more.insert(intf);
        }
        for (const Zamu::IntfId& intf : supportedIntfs(key, more, {})) {
            AclDataStatus status;
            aclHelper_->addIntfToAcl(intf, inst.data, status);
            inst.data.intf.insert(intf);
            touched.insert(intf);
            committed.insert(key);
        }
    }
    changed = changed || !committed.empty() || !gone.empty();

    // 3. Hold the interfaces whose ACLs change, where traffic would otherwise pass unchecked.
    if (changed && blockDuringUpdate()) {
        for (const Zamu::IntfId& intf : touched) {
            if (blocked_.insert(intf).second)
                aclHelper_->blockIntf(intf, true, 1);
        }
    }

    // Published before the kick: a hardware layer may answer within it.
    for (const AclKey& key : dirty) {
        auto di = desired.find(key);
        if (di == desired.end())
            continue;
        const Desired& d = di->second;
        if (!d.problem.empty()) {
            awaitingOutcome_.erase(key);
            statusIs(key, Acl::aclDpFailed, aclCreateFailed, d.problem);
        } else if (refused_.contains(key)) {
            continue;  // published when it was refused
        } else if (committed.contains(key)) {
            awaitingOutcome_.insert(key);
            statusIs(key, Acl::aclDpPending, aclCreateOk, "");
        } else if (refusalCleared.contains(key)) {
            statusIs(key, Acl::aclDpInstalled, aclCreateOk, "");
        }
    }
    if (changed) {
        // The unit errors are the last commit's; a new one starts.
        aclHelper_->unitErrorDelAll();
        aclHelper_->publishUnitErrorDelAll();
        aclHelper_->dirtyIs(true);
        // 4., 5.
        aclHelper_->prepareToCommit();
        for (const AclKey& key : committed) {
            if (auto inst = installed_.find(key); inst != installed_.end())
                aclHelper_->commitAcl(inst->second.data);
        }
    }
    // 6. ACLs no longer applied (already unbound from every interface).
    for (const AclKey& key : gone) {
        AclData data = std::move(installed_.at(key).data);
        installed_.erase(key);
        awaitingOutcome_.erase(key);
        aclHelper_->removeAcl(data);
        aclHelper_->destroyAcl(data);
    }

    // Forget what no longer exists.
    for (const AclKey& key : dirty) {
        auto d = desired.find(key);
        if (d == desired.end() || !d->second.problem.empty())
            refused_.erase(key);
        if (d == desired.end() && !installed_.contains(key))
            statusDp_->aclStatusDel(key);
    }
    for (const Acl::AclConfigKey& ck : configs) {
        if (!aclConfig_->acl(ck))
            lastVersion_.erase(ck);
    }

    if (changed) {
        ++updates_;
        requestDpAclUpdate();
    }
}

// ---- Data-plane updates ----

void AclSm::requestDpAclUpdate() {
    // Stamps always grow, also within one clock tick, so that a completed earlier update never
    // reads as completing this one.
    const Vorn::Seconds floor = std::max(requestTime_, statusDp_->dpAclUpdateTime());
    Vorn::Seconds t = clock_->now();
    if (!(t > floor))
        t = std::nextafter(floor, Vorn::kInfinity);
    requestTime_ = t;
    requestPending_ = true;
    FLINQ(th, 2, "AclSm::requestDpAclUpdate requestTime " << t);
    handleDpAclUpdateRequestTime();
}

void AclSm::handleDpAclUpdateRequestTime() {
    FLINQ(th, 8, "AclSm::handleDpAclUpdateRequestTime");
    if (requestPending_)
        statusDp_->dpAclUpdateTimeIs(requestTime_);
}

void AclSm::dpAclUpdateWaiterIs(std::function<void()> done) {
    if (!requestPending_) {
        done();
        return;
    }
    waiters_.emplace_back(requestTime_, std::move(done));
    aclHelper_->cliWaitingIs(true);
}

void AclSm::handleDpAclUpdateTime() {
    const Vorn::Seconds done = statusDp_->dpAclUpdateTime();
    FLINQ(th, 8, "AclSm::handleDpAclUpdateTime " << done);
    if (requestPending_ && done >= requestTime_) {
        requestPending_ = false;
        // No outcome reported means nothing went wrong.
        for (const AclKey& key : awaitingOutcome_)
            statusIs(key, Acl::aclDpInstalled, aclCreateOk, "");
        awaitingOutcome_.clear();
        for (const Zamu::IntfId& intf : blocked_)
            aclHelper_->blockIntf(intf, false, 0);
        blocked_.clear();
    }
    std::vector<std::function<void()>> ready;
    auto keep = std::stable_partition(waiters_.begin(), waiters_.end(),
                                      [&](const auto& w) { return w.first > done; });
    for (auto it = keep; it != waiters_.end(); ++it)
        ready.push_back(std::move(it->second));
    waiters_.erase(keep, waiters_.end());
    aclHelper_->cliWaitingIs(!waiters_.empty());
    for (auto& fn : ready)
        fn();
}

void AclSm::handleAclStatusUpdate(const AclKey& key, AclCreateError result) {
    FLINQ(th, 8, "AclSm::handleAclStatusUpdate " << key << " result " << uint32_t(result));
    // An ACL whose configured version was refused keeps that refusal published: it is what the
    // user has to act on.
    auto inst = installed_.find(key);
    if (inst == installed_.end() || refused_.contains(key))
        return;
    awaitingOutcome_.erase(key);
    Vorn::Ptr<Acl::AclStatus>& status = inst->second.status;
    if (!status)
        status = statusDp_->aclStatusIs(key);
    if (result == aclCreateOk) {
        statusIs(*status, Acl::aclDpInstalled, result, {});
        return;
    }
    std::string error = "not in effect in the data plane";
    std::string units;
    for (const auto& [unit, code] : aclHelper_->unitError())
        units += (units.empty() ? "" : ", ") + unit + " error " + std::to_string(code);
    if (!units.empty())
        error += " (" + units + ")";
    statusIs(*status, Acl::aclDpFailed, result, error);
}

Vorn::Ptr<AclSm> aclSmFactory(
    const Vorn::Ptr<OvinCommonSmData>& commonSmData, const Vorn::Ptr<const Acl::Config>& aclConfig,
    const Vorn::Ptr<const Acl::ParamConfig>& paramConfig,
    const Vorn::Ptr<const Acl::ConfigDir>& configDir,
    const Vorn::Ptr<const Acl::IntfConfig>& intfConfig,
    const Vorn::Ptr<const Acl::ConfigDir>& intfConfigDir, const Vorn::Ptr<Acl::StatusDp>& statusDp,
    const Vorn::Ptr<Errdisable::CauseStatus>& causeStatus,
    const Vorn::Ptr<const Lag::Input::Config>& lagInputConfig,
    const Vorn::Ptr<OvinHelper::AclHelper>& aclHelper, Vorn::Clock& clock,
    const Vorn::Ptr<const Bridging::Config>& bridgingConfig,
    const Vorn::Ptr<const Interface::SubIntfStatusDir>& subIntfStatusDir,
    const Vorn::Ptr<const Interface::SubIntfConfigDir>& subIntfConfigDir) {
    return Vorn::make<AclSm>(commonSmData, aclConfig, paramConfig, configDir, intfConfig,
                             intfConfigDir, statusDp, causeStatus, lagInputConfig, aclHelper, clock,
                             bridgingConfig, subIntfStatusDir, subIntfConfigDir);
}

}  // namespace Ovin
