// The ACL engine at switch scale: the cost of one update that edits one rule of one ACL and
// binds another ACL to one more port, with 500 and with 5,000 ACLs of 20 rules configured.
// The engine runs with this layer's helper, ACL store and mapping index (the glue is not
// running, so the update ends at the commit kick).
//
// Each ACL is bound inbound and outbound on a port of its own (64 ports a chip). The cost of
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
#include "platform/mirel/HwCapability.h"
#include "platform/ovin/AclRuleText.h"
#include "platform/ovin/OvinAclSm.h"

namespace {

using Zamu::IntfId;

constexpr uint32_t kRulesPerAcl = 20;
constexpr uint32_t kPortsPerChip = 64;

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

// Both scales in the same loop, timed one after the other, so that noise from the shared
// machine hits both alike; the undo is not timed.
void BM_RuleEditAndBinding(benchmark::State& state) {
    Engine small(500);
    Engine large(5000);
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
BENCHMARK(BM_RuleEditAndBinding)->Unit(benchmark::kMillisecond);

}  // namespace
