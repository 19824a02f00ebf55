// The ACL engine against a helper that keeps a small store of its own (what a hardware layer
// would hold) and refuses the rules a test tells it to: rule expansion, coalescing, re-creation
// on edit, refusals, port-channel expansion and the published outcomes, read back from that
// store and from Acl::StatusDp. Incremental updates against a full recomputation, under random
// edits, are checked through the whole agent in tests/RandomSequenceTest.cpp.

#include "platform/ovin/OvinAclSm.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/ovin/AclRuleText.h"
#include "platform/vorn/Exception.h"

namespace {

using Acl::PortSpan;
using Ovin::AclKey;
using Zamu::IntfId;

// A helper holding what it was given, like a hardware layer's store, with one fault: it
// refuses the rules `refuse` picks.
class StoreHelper : public OvinHelper::AclHelper {
  public:
    struct Entry {
        uint32_t ruleNum;
        uint32_t subruleNum;
        uint64_t id;
        char kind;  // 'i' IP subrule, 'f' fragment rule, 'm' MAC rule
        PortSpan source;
        PortSpan destination;
        bool operator==(const Entry&) const = default;
    };
    struct Held {
        std::vector<Entry> entries;
        std::set<IntfId> intf;
        bool created = false;
        bool inUse = true;
    };

    StoreHelper() {
        ip6AclSupportedIs(true);
        routerAclSupportedIs(true);
        permitDuringAclUpdateIs(true);
        revertIncompleteAclSupportedIs(true);
    }

    std::map<AclKey, Held> store;
    std::function<bool(const Acl::RuleConfig&)> refuse;
    bool nd = true;
    IntfId unsupported;
    std::vector<IntfId> logged;
    int kicks = 0;
    std::vector<std::string> blocking;  // "+Ethernet1", "-Ethernet1"
    std::vector<std::string> unbound;   // "Ethernet1 freed", "Ethernet1 to another"
    // ACLs destroyed while still bound, with those interfaces: only a re-creation may do
    // that, and its precreateAcl must bind every one of them again.
    std::map<AclKey, std::set<IntfId>> leftBound;

    Ovin::AclCreateError createIpAclSubrule(Acl::AclType, const Acl::RuleConfig& rule,
                                            Acl::UniqueId id, const Ovin::AclData& d,
                                            uint32_t ruleNum, uint32_t subruleNum, uint16_t sp,
                                            uint16_t spm, uint16_t spl, uint16_t sph, uint16_t dp,
                                            uint16_t dpm, uint16_t dpl, uint16_t dph, uint16_t,
                                            uint16_t, uint16_t, uint16_t, uint8_t, bool l4, uint8_t,
                                            uint8_t) override {
        if (refuse && refuse(rule))
            return Ovin::aclCreateNotSupportedByHw;
        store.at(d.key).entries.push_back({ruleNum, subruleNum, id.value, 'i',
                                           span(l4, sp, spm, spl, sph),
                                           span(l4, dp, dpm, dpl, dph)});
        return Ovin::aclCreateOk;
    }
    Ovin::AclCreateError createIpFragRule(const Ovin::AclData& d, const Acl::IpRuleConfig& rule,
                                          Acl::UniqueId id, uint32_t ruleNum,
                                          uint32_t subruleNum) override {
        if (refuse && refuse(rule))
            return Ovin::aclCreateNotSupportedByHw;
        store.at(d.key).entries.push_back({ruleNum, subruleNum, id.value, 'f', {}, {}});
        return Ovin::aclCreateOk;
    }
    Ovin::AclCreateError createMacAclRule(const Acl::MacRuleConfig&, Acl::UniqueId id,
                                          const Ovin::AclData& d, uint32_t ruleNum) override {
        store.at(d.key).entries.push_back({ruleNum, 0, id.value, 'm', {}, {}});
        return Ovin::aclCreateOk;
    }
    Ovin::AclCreateError createFinalAclRule(Acl::AclType, const Ovin::AclData& d,
                                            uint32_t) override {
        store.at(d.key).created = true;
        return Ovin::aclCreateFinalRuleDone;
    }
    bool needToInstallIcmp6NeighborDiscoveryRules() const override { return nd; }
    bool intfSupportsAcl(const IntfId& intf) const override { return intf != unsupported; }
    void logAclUnsupportedHardware(const Vorn::String&, const IntfId& intf) override {
        logged.push_back(intf);
    }
    Ovin::AclCreateError precreateAcl(const Ovin::AclData& d, Ovin::AclDataStatus&) override {
        EXPECT_FALSE(store.contains(d.key)) << "precreated twice: " << d.key;
        for (const IntfId& intf : leftBound[d.key])
            EXPECT_TRUE(d.intf.contains(intf)) << d.key << " left bound on " << intf;
        leftBound.erase(d.key);
        store[d.key].intf = d.intf;
        return Ovin::aclCreateOk;
    }
    void removeAcl(const Ovin::AclData& d) override { store.at(d.key).inUse = false; }
    void destroyAcl(const Ovin::AclData& d) override {
        EXPECT_FALSE(store.at(d.key).inUse) << "destroyed before removal: " << d.key;
        if (!store.at(d.key).intf.empty())
            leftBound[d.key] = store.at(d.key).intf;
        store.erase(d.key);
    }
    void prepareToCommit() override { ++kicks; }
    void blockIntf(const IntfId& intf, bool block, uint32_t) override {
        blocking.push_back((block ? "+" : "-") + intf.name());
    }
    bool addIntfToAcl(const IntfId& intf, const Ovin::AclData& d, Ovin::AclDataStatus&) override {
        return store.at(d.key).intf.insert(intf).second;
    }
    bool removeIntfFromAcl(const IntfId& intf, const Ovin::AclData& d,
                           bool belongsToAnother) override {
        unbound.push_back(intf.name() + (belongsToAnother ? " to another" : " freed"));
        return store.at(d.key).intf.erase(intf) > 0;
    }

  private:
    // How the hardware layer reads the engine's port values.
    static PortSpan span(bool l4, uint16_t port, uint16_t mask, uint16_t low, uint16_t high) {
        if (!l4 || (mask != 0xffff && low == 0 && high == 0))
            return {};
        if (mask == 0xffff)
            return {port, port};
        return {low, high};
    }
};

// One held entry as "rule.subrule kind source>destination", e.g. "10.1i 0-4>81-65535".
std::string entryText(const StoreHelper::Entry& e) {
    std::ostringstream os;
    os << e.ruleNum << "." << e.subruleNum << e.kind << " " << e.source.low << "-" << e.source.high
       << ">" << e.destination.low << "-" << e.destination.high;
    return os.str();
}

class OvinAclSmTest : public ::testing::Test {
  protected:
    OvinAclSmTest() { sm_->handleInitialized(); }
    ~OvinAclSmTest() override { sm_->handleDelete(); }

    // Writes one rule from its text into the ACL of that name and type.
    void rule(const std::string& name, Acl::AclType type, const std::string& text) {
        const Acl::RuleTextResult r = Acl::parseRuleText(text, type);
        ASSERT_TRUE(r.ok()) << r.error;
        config_->aclIs({name, type})->entryIs(r.rule->seq, r.rule->entry);
    }
    void bind(const char* intf, const std::string& name, Acl::AclType type = Acl::aclTypeIpv4,
              Acl::AclDirection dir = Acl::aclDirectionIn) {
        intfConfig_->appliedAclIs({IntfId(intf), type, dir}, name);
    }
    void unbind(const char* intf, Acl::AclType type = Acl::aclTypeIpv4,
                Acl::AclDirection dir = Acl::aclDirectionIn) {
        intfConfig_->appliedAclDel({IntfId(intf), type, dir});
    }
    void run() {
        wheel_.runUntilIdle();
        for (const auto& [k, intf] : helper_->leftBound)
            ADD_FAILURE() << "destroyed while still bound: " << k;
    }
    static AclKey key(const std::string& name, Acl::AclType type = Acl::aclTypeIpv4,
                      std::optional<int> vlan = std::nullopt) {
        AclKey k;
        k.name = name;
        k.type = type;
        if (vlan)
            k.vlanId = Bridging::VlanId(*vlan);
        return k;
    }
    const StoreHelper::Held* held(const AclKey& k) const {
        auto it = helper_->store.find(k);
        return it == helper_->store.end() ? nullptr : &it->second;
    }
    Vorn::Ptr<Acl::AclStatus> status(const AclKey& k) const { return statusDp_->aclStatus(k); }
    // What is published for the key: "-" for nothing, else "state/result: error".
    std::string published(const AclKey& k) const {
        const Vorn::Ptr<Acl::AclStatus> s = status(k);
        if (!s)
            return "-";
        std::ostringstream os;
        os << s->state() << "/" << int(s->result()) << ": " << s->error();
        return os.str();
    }
    // Each ACL the helper holds, with its interfaces.
    using Holds = std::map<AclKey, std::set<IntfId>>;
    Holds holds() const {
        Holds out;
        for (const auto& [k, h] : helper_->store)
            out.emplace(k, h.intf);
        return out;
    }

    Vorn::ScopedVirtualClock clock_{100.0};
    Brix::TimerWheel wheel_;
    Vorn::Ptr<Acl::Config> config_ = Acl::configFactory("Config");
    Vorn::Ptr<Acl::IntfConfig> intfConfig_ = Acl::intfConfigFactory("IntfConfig");
    Vorn::Ptr<Acl::ParamConfig> param_ = Acl::paramConfigFactory("ParamConfig");
    Vorn::Ptr<Acl::StatusDp> statusDp_ = Acl::statusDpFactory("StatusDp");
    Vorn::Ptr<Lag::LagPhyIntfMapping> lags_ = Lag::lagPhyIntfMappingFactory("LagPhyIntfMapping");
    Vorn::Ptr<StoreHelper> helper_ = Vorn::make<StoreHelper>();
    Vorn::Ptr<Ovin::AclSm> sm_ = Ovin::aclSmFactory(
        Ovin::ovinCommonSmDataFactory("common", wheel_), config_, param_,
        Acl::configDirFactory("aclConfigDir"), intfConfig_, Acl::configDirFactory("intfConfigDir"),
        statusDp_, Errdisable::causeStatusFactory("CauseStatus"),
        Lag::Input::configFactory("LagInputConfig", lags_), helper_, *clock_,
        Bridging::configFactory("BridgingConfig"), Interface::subIntfStatusDirFactory("status"),
        Interface::subIntfConfigDirFactory("config"));
};

TEST_F(OvinAclSmTest, RulesExpandIntoTheSubrulesTheHardwareCanMatch) {
    const struct {
        Acl::AclType type;
        const char* rule;
        const char* entries;
    } cases[] = {
        {Acl::aclTypeIpv4, "10 permit ip any any", "10.0i 0-65535>0-65535"},
        {Acl::aclTypeIpv4, "10 permit tcp any any eq 0", "10.0i 0-65535>0-0"},
        {Acl::aclTypeIpv4, "10 permit tcp any any neq 65535", "10.0i 0-65535>0-65534"},
        {Acl::aclTypeIpv4, "10 permit tcp any neq 5 any neq 80",
         "10.0i 0-4>0-79 10.1i 0-4>81-65535 10.2i 6-65535>0-79 10.3i 6-65535>81-65535"},
        {Acl::aclTypeIpv4, "10 permit ip 1.1.1.0/30 any fragments", "10.0f 0-65535>0-65535"},
        {Acl::aclTypeMac, "10 permit any any 0x0806", "10.0m 0-65535>0-65535"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rule);
        config_->aclDelAll();
        intfConfig_->appliedAclDelAll();
        run();
        rule("x", c.type, c.rule);
        bind("Ethernet1", "x", c.type);
        run();
        const StoreHelper::Held* h = held(key("x", c.type));
        ASSERT_NE(h, nullptr);
        EXPECT_TRUE(h->created);
        std::string got;
        for (const StoreHelper::Entry& e : h->entries)
            got += (got.empty() ? "" : " ") + entryText(e);
        EXPECT_EQ(got, c.entries);
    }
}

TEST_F(OvinAclSmTest, EveryIpv6AclEndsWithTheNeighbourDiscoveryPermitsWhenAsked) {
    rule("v6", Acl::aclTypeIpv6, "10 deny ipv6 any any");
    bind("Ethernet1", "v6", Acl::aclTypeIpv6);
    run();
    const StoreHelper::Held* h = held(key("v6", Acl::aclTypeIpv6));
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(h->entries.size(), 3u);
    EXPECT_EQ(h->entries[1].ruleNum, Ovin::AclSm::kImplicitRuleNum);
    EXPECT_EQ(h->entries[2].ruleNum, Ovin::AclSm::kImplicitRuleNum + 1);

    // The helper's answer is part of the ACL: when it changes, the ACL is rebuilt without them.
    helper_->nd = false;
    rule("v6", Acl::aclTypeIpv6, "20 permit ipv6 any any");
    run();
    h = held(key("v6", Acl::aclTypeIpv6));
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(h->entries.size(), 2u);
    EXPECT_EQ(h->entries[1].ruleNum, 20u);
}

TEST_F(OvinAclSmTest, ABurstOfChangesIsOneUpdate) {
    rule("a", Acl::aclTypeIpv4, "10 permit tcp any any eq 22");
    rule("b", Acl::aclTypeIpv4, "10 deny ip any any");
    bind("Ethernet1", "a");
    bind("Ethernet2", "b");
    run();
    ASSERT_EQ(sm_->updates(), 1u);
    ASSERT_EQ(helper_->kicks, 1);

    // Rule edits, one ACL unbound and another bound where it was: still one update.
    helper_->unbound.clear();
    rule("a", Acl::aclTypeIpv4, "20 permit udp any any eq 53");
    rule("a", Acl::aclTypeIpv4, "30 permit icmp any any 8");
    unbind("Ethernet2");
    bind("Ethernet2", "a");
    bind("Ethernet3", "a");
    EXPECT_TRUE(sm_->updateTimer().armed());
    run();
    EXPECT_EQ(sm_->updates(), 2u);
    EXPECT_EQ(helper_->kicks, 2);
    ASSERT_EQ(holds(), (Holds{{key("a"), {"Ethernet1", "Ethernet2", "Ethernet3"}}}));
    EXPECT_EQ(held(key("a"))->entries.size(), 3u);
    // a's re-creation keeps Ethernet1 bound; Ethernet2 passes from b to a.
    EXPECT_EQ(helper_->unbound, (std::vector<std::string>{"Ethernet2 to another"}));

    // A pass with nothing new calls nothing.
    sm_->handleUpdateTimer();
    EXPECT_EQ(sm_->updates(), 2u);
    EXPECT_EQ(helper_->kicks, 2);
}

TEST_F(OvinAclSmTest, ChangesGatherForTheUpdateDelayFromTheFirstOne) {
    run();  // the start-up pass, with nothing configured
    param_->updateDelayIs(0.5);
    rule("a", Acl::aclTypeIpv4, "10 permit ip any any");
    bind("Ethernet1", "a");
    run();
    EXPECT_EQ(sm_->updates(), 0u);
    wheel_.runFor(0.25);
    bind("Ethernet2", "a");  // does not push the update back
    wheel_.runFor(0.125);
    EXPECT_EQ(sm_->updates(), 0u);
    wheel_.runFor(0.125);
    EXPECT_EQ(sm_->updates(), 1u);
    EXPECT_EQ(holds(), (Holds{{key("a"), {"Ethernet1", "Ethernet2"}}}));
}

TEST_F(OvinAclSmTest, AnEditedAclIsRecreatedWithItsBindingsAndKeepsUnchangedRuleIds) {
    rule("a", Acl::aclTypeIpv4, "10 permit tcp any any eq 22");
    rule("a", Acl::aclTypeIpv4, "20 permit udp any any eq 53");
    bind("Ethernet1", "a");
    bind("Vlan10", "a");
    bind("Ethernet1.5", "a");
    run();
    // One configured ACL, three keys: the port's, the VLAN interface's and the sub-interface's.
    const Holds bound = {
        {key("a"), {"Ethernet1"}},
        {key("a", Acl::aclTypeIpv4, 10), {"Vlan10"}},
        {key("a", Acl::aclTypeIpv4, 5), {"Ethernet1.5"}},
    };
    ASSERT_EQ(helper_->store.size(), bound.size());
    ASSERT_NE(held(key("a")), nullptr);
    const StoreHelper::Entry kept = held(key("a"))->entries[0];

    rule("a", Acl::aclTypeIpv4, "20 permit udp any any eq 54");
    run();
    EXPECT_EQ(helper_->store.size(), bound.size());
    for (const auto& [k, intf] : bound) {
        SCOPED_TRACE(k.str());
        ASSERT_NE(held(k), nullptr);
        ASSERT_EQ(held(k)->entries.size(), 2u);
        EXPECT_EQ(held(k)->entries[0], kept);  // same rule, same unique id
        EXPECT_NE(held(k)->entries[1].id, kept.id);
        EXPECT_EQ(held(k)->entries[1].destination, (PortSpan{54, 54}));
        EXPECT_EQ(held(k)->intf, intf);  // re-created where it was
        EXPECT_EQ(published(k), "installed/0: ");
    }

    // Edited while losing a binding: that interface alone is unbound, the kept one is not.
    bind("Ethernet2", "a");
    run();
    helper_->unbound.clear();
    rule("a", Acl::aclTypeIpv4, "20 permit udp any any eq 55");
    unbind("Ethernet1");
    run();
    ASSERT_NE(held(key("a")), nullptr);
    EXPECT_EQ(held(key("a"))->intf, std::set<IntfId>{IntfId("Ethernet2")});
    EXPECT_EQ(helper_->unbound, std::vector<std::string>{"Ethernet1 freed"});
}

TEST_F(OvinAclSmTest, ARefusedRuleFailsItsAclAloneAndTheEarlierVersionStays) {
    helper_->refuse = [](const Acl::RuleConfig& r) {
        auto* ip = dynamic_cast<const Acl::IpRuleConfig*>(&r);
        return ip && ip->filter().matchDscp();
    };
    rule("good", Acl::aclTypeIpv4, "10 permit ip any any");
    rule("edited", Acl::aclTypeIpv4, "10 permit tcp any any eq 22");
    rule("new", Acl::aclTypeIpv4, "10 permit ip any any");
    rule("new", Acl::aclTypeIpv4, "20 deny ip any any dscp 46");
    bind("Ethernet1", "good");
    bind("Ethernet2", "edited");
    bind("Ethernet3", "new");
    run();
    EXPECT_EQ(held(key("new")), nullptr);
    EXPECT_EQ(published(key("new")),
              "failed/14: rule '20 deny ip any any dscp 46' cannot be expressed by the hardware "
              "(error 14, subrule 0)");
    EXPECT_EQ(published(key("good")), "installed/0: ");
    ASSERT_NE(held(key("edited")), nullptr);
    const StoreHelper::Held before = *held(key("edited"));

    // A bad edit: the ACL is back as it was, and says so.
    rule("edited", Acl::aclTypeIpv4, "5 permit ip any any dscp 10");
    run();
    ASSERT_NE(held(key("edited")), nullptr);
    EXPECT_EQ(held(key("edited"))->entries, before.entries);
    EXPECT_EQ(held(key("edited"))->intf, before.intf);
    EXPECT_EQ(published(key("edited")),
              "failed/14: rule '5 permit ip any any dscp 10' cannot be expressed by the hardware "
              "(error 14, subrule 0); its earlier version stays in effect");

    // Not tried again while the configuration stays as it is.
    const uint64_t updates = sm_->updates();
    bind("Ethernet4", "good");
    run();
    EXPECT_EQ(sm_->updates(), updates + 1);
    EXPECT_EQ(held(key("edited"))->entries, before.entries);

    // Fixing the rule installs it.
    rule("edited", Acl::aclTypeIpv4, "5 permit ip any any");
    run();
    ASSERT_NE(held(key("edited")), nullptr);
    EXPECT_EQ(held(key("edited"))->entries.size(), 2u);
    EXPECT_EQ(published(key("edited")), "installed/0: ");

    // Without revert, a refused edit leaves the ACL out.
    helper_->revertIncompleteAclSupportedIs(false);
    rule("edited", Acl::aclTypeIpv4, "20 permit ip any any dscp 1");
    run();
    EXPECT_EQ(held(key("edited")), nullptr);
    EXPECT_EQ(status(key("edited"))->state(), Acl::aclDpFailed);
}

TEST_F(OvinAclSmTest, APortChannelsAclFollowsItsMembers) {
    rule("lag", Acl::aclTypeIpv4, "10 permit ip any any");
    rule("own", Acl::aclTypeIpv4, "10 deny ip any any");
    lags_->lagPhyIntfConfigIs("Port-Channel1")->phyIntfIs("Ethernet1");
    lags_->lagPhyIntfConfigIs("Port-Channel1")->phyIntfIs("Ethernet2");
    bind("Port-Channel1", "lag");
    bind("Ethernet2", "own");  // suspended while Ethernet2 is a member
    bind("Port-Channel1.7", "lag");
    run();
    // The sub-interface's router ACL goes to the helper as it is, whatever the members do.
    const AclKey lagSub = key("lag", Acl::aclTypeIpv4, 7);
    EXPECT_EQ(holds(), (Holds{{key("lag"), {"Ethernet1", "Ethernet2"}},
                              {key("own"), {}},
                              {lagSub, {"Port-Channel1.7"}}}));

    struct Step {
        const char* name;
        std::function<void()> change;
        std::set<IntfId> lag;
        std::set<IntfId> own;
    };
    const Step steps[] = {
        {"a port joins",
         [&] { lags_->lagPhyIntfConfigIs("Port-Channel1")->phyIntfIs("Ethernet3"); },
         {"Ethernet1", "Ethernet2", "Ethernet3"},
         {}},
        {"a port with its own ACL leaves",
         [&] { lags_->lagPhyIntfConfigIs("Port-Channel1")->phyIntfDel("Ethernet2"); },
         {"Ethernet1", "Ethernet3"},
         {"Ethernet2"}},
        {"the port-channel goes",
         [&] { lags_->lagPhyIntfConfigDel("Port-Channel1"); },
         {},
         {"Ethernet2"}},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.name);
        s.change();
        run();
        EXPECT_EQ(holds(),
                  (Holds{{key("lag"), s.lag}, {key("own"), s.own}, {lagSub, {"Port-Channel1.7"}}}));
    }
}

TEST_F(OvinAclSmTest, ASubInterfacesAclIsARouterAclOfTheVlanItsNumberNames) {
    rule("a", Acl::aclTypeIpv4, "10 permit ip any any");
    rule("v6", Acl::aclTypeIpv6, "10 deny ipv6 any any");
    bind("Ethernet1", "a");       // the port's own: a port ACL beside its sub-interface's
    bind("Ethernet1.100", "a");   //
    bind("Vlan100", "a");         // the same number: the same key
    bind("Ethernet3.1", "a");     // the lowest and the highest VLAN
    bind("Ethernet2.4094", "a");  //
    bind("Port-Channel1.5", "a");
    bind("Ethernet1.100", "v6", Acl::aclTypeIpv6);
    run();
    Holds want = {
        {key("a"), {"Ethernet1"}},
        {key("a", Acl::aclTypeIpv4, 1), {"Ethernet3.1"}},
        {key("a", Acl::aclTypeIpv4, 5), {"Port-Channel1.5"}},
        {key("a", Acl::aclTypeIpv4, 100), {"Ethernet1.100", "Vlan100"}},
        {key("a", Acl::aclTypeIpv4, 4094), {"Ethernet2.4094"}},
        {key("v6", Acl::aclTypeIpv6, 100), {"Ethernet1.100"}},
    };
    EXPECT_EQ(holds(), want);
    for (const auto& [k, intf] : want)
        EXPECT_EQ(published(k), "installed/0: ") << k;

    // A number's key goes with its last binding; the others stay as they are.
    unbind("Ethernet1.100");
    unbind("Port-Channel1.5");
    run();
    want[key("a", Acl::aclTypeIpv4, 100)] = {"Vlan100"};
    want.erase(key("a", Acl::aclTypeIpv4, 5));
    EXPECT_EQ(holds(), want);
    EXPECT_EQ(published(key("a", Acl::aclTypeIpv4, 5)), "-");
}

TEST_F(OvinAclSmTest, WhatASubInterfaceCannotTakeFailsAloneAndTheAclStaysOnItsPort) {
    auto tagged = [](AclKey k, const char* tag) {
        k.tag = Vorn::Name(tag);
        return k;
    };
    const struct Case {
        const char* name;
        Acl::AclType type;
        const char* subIntf;
        bool routerAcl;
        AclKey failed;
        const char* error;
    } cases[] = {
        {"MAC", Acl::aclTypeMac, "Ethernet1.5", true, key("a", Acl::aclTypeMac, 5),
         "MAC ACLs cannot be applied to a sub-interface (a/mac/in/vlan5)"},
        {"a number just above the VLANs", Acl::aclTypeIpv4, "Ethernet1.4095", true,
         tagged(key("a"), "Ethernet1.4095"),
         "a sub-interface number outside 1..4094 cannot carry an ACL (a/ip/in/Ethernet1.4095)"},
        {"the highest number, of a port-channel", Acl::aclTypeIpv6, "Port-Channel1.8388607", true,
         tagged(key("a", Acl::aclTypeIpv6), "Port-Channel1.8388607"),
         "a sub-interface number outside 1..4094 cannot carry an ACL "
         "(a/ipv6/in/Port-Channel1.8388607)"},
        {"no router ACLs", Acl::aclTypeIpv4, "Ethernet1.5", false, key("a", Acl::aclTypeIpv4, 5),
         "ACLs on sub-interfaces are not supported by this hardware (a/ip/in/vlan5)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        config_->aclDelAll();
        intfConfig_->appliedAclDelAll();
        run();
        helper_->routerAclSupportedIs(c.routerAcl);
        rule("a", c.type,
             c.type == Acl::aclTypeMac    ? "10 permit any any"
             : c.type == Acl::aclTypeIpv6 ? "10 permit ipv6 any any"
                                          : "10 permit ip any any");
        bind("Ethernet1", "a", c.type);
        bind(c.subIntf, "a", c.type);
        run();
        EXPECT_EQ(published(c.failed), std::string("failed/17: ") + c.error);
        // The port binding is another key, untouched by the refusal.
        EXPECT_EQ(holds(), (Holds{{key("a", c.type), {"Ethernet1"}}}));
        EXPECT_EQ(published(key("a", c.type)), "installed/0: ");
    }
}

TEST_F(OvinAclSmTest, RemovingAnAppliedAclUnbindsRemovesAndDestroysIt) {
    rule("a", Acl::aclTypeIpv4, "10 permit ip any any");
    bind("Ethernet1", "a");
    bind("Ethernet2", "a");
    run();
    ASSERT_NE(held(key("a")), nullptr);
    ASSERT_NE(status(key("a")), nullptr);
    // The configuration goes first: the binding now names nothing.
    config_->aclDel({"a", Acl::aclTypeIpv4});
    run();
    EXPECT_EQ(held(key("a")), nullptr);  // the helper checks unbind, remove, destroy in order
    EXPECT_EQ(published(key("a")), "failed/17: no such ACL is configured (a/ip/in)");
    unbind("Ethernet1");
    unbind("Ethernet2");
    run();
    EXPECT_EQ(published(key("a")), "-");
}

// Each outcome lands in the status of the ACL as it is installed now: not in the entry of an
// earlier installation, and nowhere for an ACL no longer installed.
TEST_F(OvinAclSmTest, AnOutcomeIsPublishedForTheAclAsInstalledNow) {
    rule("a", Acl::aclTypeIpv4, "10 permit ip any any");
    bind("Ethernet1", "a");
    run();
    const OvinHelper::AclStatusUpdateCallback report = helper_->aclStatusUpdateCallback();
    const std::string failed = "failed/17: not in effect in the data plane (Chip-1 error 3)";
    const struct Step {
        const char* what;
        std::function<void()> change;
        Ovin::AclCreateError result;
        std::string published;
    } steps[] = {
        {"fails", [] {}, Ovin::aclCreateFailed, failed},
        {"installs", [] {}, Ovin::aclCreateOk, "installed/0: "},
        {"removed", [&] { unbind("Ethernet1"); }, Ovin::aclCreateFailed, "-"},
        {"applied again", [&] { bind("Ethernet1", "a"); }, Ovin::aclCreateFailed, failed},
        {"re-created", [&] { rule("a", Acl::aclTypeIpv4, "20 deny ip any any"); },
         Ovin::aclCreateOk, "installed/0: "},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.what);
        step.change();
        run();
        helper_->unitErrorIs("Chip-1", 3);
        report(key("a"), step.result);
        EXPECT_EQ(published(key("a")), step.published);
    }
}

TEST_F(OvinAclSmTest, AclsTheHardwareCannotTakeArePublishedAndLeftOut) {
    rule("m", Acl::aclTypeMac, "10 permit any any");
    rule("v6", Acl::aclTypeIpv6, "10 permit ipv6 any any");
    bind("Ethernet1", "m", Acl::aclTypeMac, Acl::aclDirectionOut);
    bind("Vlan5", "m", Acl::aclTypeMac);
    helper_->ip6AclSupportedIs(false);
    bind("Ethernet1", "v6", Acl::aclTypeIpv6);
    run();
    AclKey macOut = key("m", Acl::aclTypeMac);
    macOut.direction = Acl::aclDirectionOut;
    const struct {
        AclKey key;
        const char* error;
    } cases[] = {
        {macOut, "MAC ACLs cannot be applied outbound on this hardware (m/mac/out)"},
        {key("m", Acl::aclTypeMac, 5),
         "MAC ACLs cannot be applied to a VLAN interface (m/mac/in/vlan5)"},
        {key("v6", Acl::aclTypeIpv6), "IPv6 ACLs are not supported by this hardware (v6/ipv6/in)"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(published(c.key), std::string("failed/17: ") + c.error) << c.key;
    EXPECT_TRUE(helper_->store.empty());
}

TEST_F(OvinAclSmTest, RequestsAreStampedAfterEachOtherAndClientsReleasedWhenDone) {
    rule("a", Acl::aclTypeIpv4, "10 permit ip any any");
    bind("Ethernet1", "a");
    run();
    const Vorn::Seconds first = sm_->dpAclUpdateRequestTime();
    EXPECT_EQ(first, 100.0);
    // Without a hardware layer waiting, the request is complete at once.
    EXPECT_FALSE(sm_->dpAclUpdateRequestPending());
    EXPECT_EQ(statusDp_->dpAclUpdateTime(), first);
    bool released = false;
    sm_->dpAclUpdateWaiterIs([&] { released = true; });
    EXPECT_TRUE(released);
    // A second update within the same clock tick still gets a later stamp.
    bind("Ethernet2", "a");
    run();
    EXPECT_GT(sm_->dpAclUpdateRequestTime(), first);
    EXPECT_EQ(statusDp_->dpAclUpdateTime(), sm_->dpAclUpdateRequestTime());
}

TEST_F(OvinAclSmTest, InterfacesAreHeldWhileTrafficWouldPassUnchecked) {
    helper_->permitDuringAclUpdateIs(false);
    rule("a", Acl::aclTypeIpv4, "10 permit ip any any");
    bind("Ethernet1", "a");
    bind("Ethernet2", "a");
    run();
    // Held for the update, released when it completed (here at once).
    EXPECT_EQ(helper_->blocking,
              (std::vector<std::string>{"+Ethernet1", "+Ethernet2", "-Ethernet1", "-Ethernet2"}));
}

TEST(OvinAclSm, NullReferencesAreRefusedByName) {
    Vorn::ScopedVirtualClock clock;
    try {
        Ovin::aclSmFactory(Ovin::ovinCommonSmDataFactory("common"), Acl::configFactory("c"),
                           Acl::paramConfigFactory("p"), Acl::configDirFactory("d"),
                           Acl::intfConfigFactory("i"), Acl::configDirFactory("d2"),
                           Acl::statusDpFactory("s"), Errdisable::causeStatusFactory("e"),
                           Lag::Input::configFactory("l", Lag::lagPhyIntfMappingFactory("m")),
                           nullptr, *clock, Bridging::configFactory("b"),
                           Interface::subIntfStatusDirFactory("ss"),
                           Interface::subIntfConfigDirFactory("sc"));
        ADD_FAILURE() << "no error";
    } catch (const Vorn::NullPointerException& e) {
        EXPECT_STREQ(e.what(),
                     "null _aclHelper parameter to mutator for Ovin::AclSm::aclHelper not allowed");
    }
}

}  // namespace
