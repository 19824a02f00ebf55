// The ACL engine at switch scale: the cost of one update that edits one rule of one ACL and
// binds another ACL to one more port, with 500 and with 5,000 ACLs of 20 rules configured.
//  - BM_RuleEditAndBinding: the engine with this layer's helper, ACL store and mapping index
//    (the glue is not running, so the update ends at the commit kick).
//  - BM_RuleEditAndBindingWholeCycle: the test agent, through the glue's whole commit cycle on
//    the chip mocks until the agent is idle again.
//
// Each ACL is bound inbound and outbound on a port of its own (32 ports a chip). The cost of
// the change must not grow with the ACLs it does not touch: the "large/small" counter should
// stay near 1. Tracing is off.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "ovinmirel/acl/OvinMirelAclHelper.h"
#include "ovinmirel/glue/OvinMirelGlueConfig.h"
#include "ovinmirel/glue/OvinMirelGlueStatus.h"
#include "ovinmirel/index/OvinMirelIndexSm.h"
#include "ovinmirel/index/OvinMirelIndexTestWorld.h"
#include "ovinmirel/testagent/OvinMirelTestAgentRoot.h"
#include "platform/mirel/HwCapability.h"
#include "platform/ovin/AclRuleText.h"
#include "platform/ovin/OvinAclSm.h"

namespace {

using Zamu::IntfId;

constexpr uint32_t kRulesPerAcl = 20;
constexpr uint32_t kPortsPerChip = 32;

std::string aclName(uint32_t n) {
    return "acl" + std::to_string(n);
}

class Engine {
  public:
    explicit Engine(uint32_t acls) : acls_(acls) {
        indexSm_->handleInitialized();
        glueStatus_->initialize();
        helper_->ip6AclSupportedIs(true);
        helper_->permitDuringAclUpdateIs(true);
        // One more port than ACLs: the one the change binds.
        for (uint32_t p = 1; p <= acls + 1; ++p)
            in_.onChip(IntfId::ethernet(p), (p - 1) / kPortsPerChip);
        for (uint32_t a = 0; a < acls; ++a) {
            for (uint32_t r = 1; r <= kRulesPerAcl; ++r)
                rule(aclName(a), "permit tcp any any eq " + std::to_string(1000 + r), r * 10);
            bind(a + 1, aclName(a), Acl::aclDirectionIn);
            bind(a + 1, aclName(a), Acl::aclDirectionOut);
        }
        sm_->handleInitialized();
        wheel_.runUntilIdle();
    }
    ~Engine() { sm_->handleDelete(); }

    void rule(const std::string& name, const std::string& text, uint32_t seq) {
        const Acl::RuleTextResult r =
            Acl::parseRuleText(std::to_string(seq) + " " + text, Acl::aclTypeIpv4);
        config_->aclIs({name, Acl::aclTypeIpv4})->entryIs(r.rule->seq, r.rule->entry);
    }
    void bind(uint32_t port, const std::string& name, Acl::AclDirection dir) {
        intfConfig_->appliedAclIs({IntfId::ethernet(port), Acl::aclTypeIpv4, dir}, name);
    }
    // One rule of the first ACL edited and the second ACL bound to the spare port, in one
    // update; `undo` puts both back.
    void change(bool undo) {
        rule(aclName(0), undo ? "permit tcp any any eq 1001" : "deny udp any any eq 53", 10);
        if (undo) {
            intfConfig_->appliedAclDel(
                {IntfId::ethernet(acls_ + 1), Acl::aclTypeIpv4, Acl::aclDirectionIn});
        } else {
            bind(acls_ + 1, aclName(1), Acl::aclDirectionIn);
        }
        wheel_.runUntilIdle();
    }

  private:
    const uint32_t acls_;
    Vorn::ScopedVirtualClock clock_{10.0};
    Brix::TimerWheel wheel_;
    OvinMirel::IndexTest::World in_;
    Vorn::Ptr<OvinMirel::IndexSm> indexSm_ =
        OvinMirel::indexSmFactory(in_.acls, in_.pd, in_.vlans, in_.lags, in_.subs, in_.index);
    Vorn::Ptr<OvinMirel::GlueConfig> glueConfig_ = OvinMirel::glueConfigFactory("glueConfig");
    Vorn::Ptr<OvinMirel::GlueStatus> glueStatus_ = OvinMirel::glueStatusFactory("glueStatus");
    Vorn::Ptr<OvinMirel::AclHelper> helper_ = OvinMirel::aclHelperFactory(
        in_.acls, glueConfig_, glueStatus_, Mirel::hwCapabilityCollFactory("hw"), in_.index);
    Vorn::Ptr<Acl::Config> config_ = Acl::configFactory("Config");
    Vorn::Ptr<Acl::IntfConfig> intfConfig_ = Acl::intfConfigFactory("IntfConfig");
    Vorn::Ptr<Ovin::AclSm> sm_ = Ovin::aclSmFactory(
        Ovin::ovinCommonSmDataFactory("common", wheel_), config_,
        Acl::paramConfigFactory("ParamConfig"), Acl::configDirFactory("aclConfigDir"), intfConfig_,
        Acl::configDirFactory("intfConfigDir"), Acl::statusDpFactory("StatusDp"),
        Errdisable::causeStatusFactory("CauseStatus"),
        Lag::Input::configFactory("LagInputConfig", in_.lags), helper_, *clock_,
        Bridging::configFactory("BridgingConfig"), Interface::subIntfStatusDirFactory("status"),
        in_.subs);
};

// The same configuration and change on the test agent: the whole path down to the chip mocks.
class Agent {
  public:
    explicit Agent(uint32_t acls) : acls_(acls) {
        for (uint32_t p = 1; p <= acls + 1; ++p) {
            const Mirel::ChipId chip((p - 1) / kPortsPerChip + 1);
            if (!root_->chip(chip))
                root_->chipIs(chip);
            root_->portIs(IntfId::ethernet(p), chip);
        }
        for (uint32_t a = 0; a < acls; ++a) {
            for (uint32_t r = 1; r <= kRulesPerAcl; ++r) {
                root_->aclRuleIs(
                    aclName(a), Acl::aclTypeIpv4,
                    std::to_string(r * 10) + " permit tcp any any eq " + std::to_string(1000 + r));
            }
            for (Acl::AclDirection dir : {Acl::aclDirectionIn, Acl::aclDirectionOut})
                root_->aclBindingIs(IntfId::ethernet(a + 1), Acl::aclTypeIpv4, dir, aclName(a));
        }
        root_->runUntilIdle();
    }
    void change(bool undo) {
        root_->aclRuleIs(aclName(0), Acl::aclTypeIpv4,
                         undo ? "10 permit tcp any any eq 1001" : "10 deny udp any any eq 53");
        if (undo) {
            root_->aclBindingDel(IntfId::ethernet(acls_ + 1), Acl::aclTypeIpv4,
                                 Acl::aclDirectionIn);
        } else {
            root_->aclBindingIs(IntfId::ethernet(acls_ + 1), Acl::aclTypeIpv4, Acl::aclDirectionIn,
                                aclName(1));
        }
        root_->runUntilIdle();
    }

  private:
    const uint32_t acls_;
    Vorn::ScopedVirtualClock clock_{10.0};
    Brix::TimerWheel wheel_;
    Vorn::Ptr<OvinMirel::TestAgentRoot> root_ =
        OvinMirel::testAgentRootFactory("TestAgentRoot", wheel_);
};

// Both scales in the same loop, timed one after the other, so that noise from the shared
// machine hits both alike; the undo is not timed.
template <class World>
void BM_Change(benchmark::State& state) {
    World small(500);
    World large(5000);
    using Clock = std::chrono::steady_clock;
    Clock::duration tSmall{}, tLarge{};
    for (auto _ : state) {
        const auto t0 = Clock::now();
        small.change(false);
        const auto t1 = Clock::now();
        large.change(false);
        const auto t2 = Clock::now();
        tSmall += t1 - t0;
        tLarge += t2 - t1;
        small.change(true);
        large.change(true);
    }
    const double n = static_cast<double>(state.iterations());
    const double smallUs = std::chrono::duration<double, std::micro>(tSmall).count() / n;
    const double largeUs = std::chrono::duration<double, std::micro>(tLarge).count() / n;
    state.counters["small_us"] = smallUs;
    state.counters["large_us"] = largeUs;
    state.counters["large/small"] = largeUs / smallUs;
}
void BM_RuleEditAndBinding(benchmark::State& state) {
    BM_Change<Engine>(state);
}
BENCHMARK(BM_RuleEditAndBinding)->Unit(benchmark::kMillisecond);
void BM_RuleEditAndBindingWholeCycle(benchmark::State& state) {
    BM_Change<Agent>(state);
}
BENCHMARK(BM_RuleEditAndBindingWholeCycle)->Unit(benchmark::kMillisecond);

}  // namespace
