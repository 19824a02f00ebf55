#include "tools/sim/Simulator.h"

#include <set>
#include <sstream>
#include <stdexcept>

#include "ovinmirel/testagent/OvinMirelTestAgentRoot.h"
#include "platform/brix/TimerWheel.h"
#include "platform/logging/Logging.h"
#include "platform/vorn/Clock.h"

namespace Sim {

namespace {

using OvinMirel::GlueSmState;
using OvinMirel::TestAgentRoot;

template <class... F>
struct Overloaded : F... {
    using F::operator()...;
};

const char* word(GlueSmState s) {
    const char* w = OvinMirel::glueSmStateWord(s);
    return w ? w : "?";
}

std::string seconds(double t) {
    std::ostringstream os;
    os << t << " s";
    return os.str();
}

// Follows the glue through its cycles and the log as messages arrive.
class Recorder {
  public:
    Recorder(TestAgentRoot& root, RunResult& out) : root_(root), out_(out) {
        stateSub_ = root.ovinMirelStatus()->glueStatus()->glueSmStateNotify([this] { onState(); });
    }

    // Stamps the messages logged since the last call with the current time.
    void collectLogs() {
        const std::vector<Logging::Record>& records = log_.records();
        for (; seen_ < records.size(); ++seen_)
            out_.logs.push_back(
                LogRecord{Vorn::currentTime(), records[seen_].id, records[seen_].text});
    }

    // While a cycle runs, the interfaces the driver holds blocked.
    void noteBlocked() {
        if (!open_)
            return;
        for (const Zamu::IntfId& i : root_.ovinMirelStatus()->pDConfig()->blockedIntf())
            blocked_.insert(i);
    }

  private:
    void onState() {
        const OvinMirel::GlueStatus& glue = *root_.ovinMirelStatus()->glueStatus();
        const GlueSmState s = glue.glueSmState();
        if (!open_) {
            // A cycle begins when the glue leaves idle for the id allocation.
            if (s != OvinMirel::aclIdAlloc_)
                return;
            CycleRecord c;
            c.number = uint32_t(out_.cycles.size() + 1);
            c.start = Vorn::currentTime();
            out_.cycles.push_back(std::move(c));
            open_ = true;
        }
        CycleRecord& c = out_.cycles.back();
        c.states.push_back(word(s));
        noteBlocked();
        if (s == OvinMirel::loading_ || s == OvinMirel::aborting_) {
            c.chips.clear();
            for (const auto& [chip, root] : glue.attemptRootSmId())
                c.chips.push_back(chip.value());
        }
        if (s == OvinMirel::idle_) {
            c.end = Vorn::currentTime();
            c.finished = true;
            c.outcome = word(glue.lastComputationResult());
            for (const auto& [chip, e] : glue.chipError()) {
                std::ostringstream os;
                os << e;
                c.chipErrors[chip.value()] = os.str();
            }
            for (const Zamu::IntfId& i : blocked_)
                c.blocked.push_back(i.name());
            blocked_.clear();
            open_ = false;
        }
    }

    TestAgentRoot& root_;
    RunResult& out_;
    Logging::Capture log_;
    size_t seen_ = 0;
    bool open_ = false;
    std::set<Zamu::IntfId> blocked_;
    Vorn::Subscription stateSub_;
};

OvinMirel::TestAgentChipCapability capabilityOf(const ChipSpec& c) {
    OvinMirel::TestAgentChipCapability cap;
    cap.chipRuleListIdMax = c.ruleListIdMax;
    cap.aclSplitOnProtocolSupported = c.splitOnProtocol;
    cap.hwAclIndexMax = c.hwAclIndexMax;
    cap.hwAclIndexReserved = c.hwAclIndexReserved;
    cap.tcamEntryMax = c.tcamEntries;
    cap.xformEntryMax = c.xformEntries;
    cap.aclTypeCombinations.assign(c.combinations.begin(), c.combinations.end());
    return cap;
}

// Applies the scenario's configuration and steps to the agent.
class Driver {
  public:
    explicit Driver(TestAgentRoot& root) : root_(root) {}

    void addChip(const ChipSpec& c) {
        const Mirel::ChipId id(c.id);
        root_.chipIs(id, capabilityOf(c));
        // Before the first cycle reads it: the allocator takes the reserved id from the
        // capability whenever it numbers.
        root_.ovinMirelStatus()
            ->hwCapabilityColl()
            ->chipHwCapability(id)
            ->chipRuleListIdReservedPermitAllIs(uint8_t(c.ruleListIdReserved));
        for (const Zamu::IntfId& p : c.ports)
            root_.portIs(p, id);
        allocMax(c.id, c.allocMax);
    }
    void allocMax(uint32_t chip, std::optional<uint32_t> max) {
        const auto mock = root_.mockSmColl()->mockSm(Mirel::ChipId(chip));
        if (!mock)
            throw std::invalid_argument("chip " + std::to_string(chip) + " has no chip mock");
        mock->allocMaxIs(max ? *max : OvinMirel::TestAgentMockSm::kAllocUnlimited);
    }
    // The ACL holds exactly these rules afterwards (an ACL without rules exists, empty).
    void setAcl(const AclSpec& a) {
        const Acl::AclConfigKey key{a.ref.name, a.ref.type};
        if (const auto existing = root_.aclConfig()->acl(key)) {
            std::set<uint32_t> keep;
            for (const RuleSpec& r : a.rules)
                keep.insert(r.seq);
            for (uint32_t seq : existing->entry().keys()) {
                if (!keep.contains(seq))
                    root_.aclRuleDel(a.ref.name, a.ref.type, seq);
            }
        } else if (a.rules.empty()) {
            root_.aclConfig()->aclIs(key);
        }
        for (const RuleSpec& r : a.rules)
            root_.aclEntryIs(a.ref.name, a.ref.type, r.seq, r.entry);
    }
    void bind(const BindingSpec& b) {
        root_.aclBindingIs(b.intf, b.acl.type, b.direction, b.acl.name);
    }

    void start(const Scenario& s) {
        root_.routedPortAclSharingIs(s.routedPortRaclSharing);
        // Before the engine's first update, which creates every rule.
        root_.ovinMirelAclHelper()->supportedTcpFlagsIs(s.tcpFlags);
        root_.ovinMirelAclHelper()->establishedSupportedIs(s.establishedSupported);
        root_.ovinMirelAclHelper()->ignorePermitDuringAclUpdateIs(s.blockDuringUpdate);
        for (const ChipSpec& c : s.chips)
            addChip(c);
        for (const VlanSpec& v : s.vlans) {
            for (const Zamu::IntfId& p : v.members)
                root_.vlanMemberIs(v.id.value(), p, true);
        }
        for (const LagSpec& l : s.lags) {
            for (const Zamu::IntfId& p : l.members)
                root_.lagMemberIs(p, l.lag);
        }
        for (const Zamu::IntfId& i : s.subInterfaces)
            root_.subIntfIs(i);
        for (const AclSpec& a : s.acls)
            setAcl(a);
        for (const BindingSpec& b : s.bindings)
            bind(b);
    }

    void apply(const Action& a) {
        std::visit(
            Overloaded{
                [&](const Step::SetAcl& s) { setAcl(s.acl); },
                [&](const Step::RemoveAcl& s) { root_.aclDel(s.acl.name, s.acl.type); },
                [&](const Step::SetRule& s) {
                    root_.aclEntryIs(s.acl.name, s.acl.type, s.rule.seq, s.rule.entry);
                },
                [&](const Step::RemoveRule& s) { root_.aclRuleDel(s.acl.name, s.acl.type, s.seq); },
                [&](const Step::Bind& s) { bind(s.binding); },
                [&](const Step::Unbind& s) { root_.aclBindingDel(s.intf, s.type, s.direction); },
                [&](const Step::AddChip& s) { addChip(s.chip); },
                [&](const Step::RemoveChip& s) { root_.chipDel(Mirel::ChipId(s.chip)); },
                [&](const Step::MovePort& s) {
                    if (s.chip)
                        root_.portIs(s.port, Mirel::ChipId(*s.chip));
                    else
                        root_.portDel(s.port);
                },
                [&](const Step::VlanMember& s) {
                    root_.vlanMemberIs(s.vlan.value(), s.port, s.join);
                },
                [&](const Step::LagMember& s) {
                    if (s.join)
                        root_.lagMemberIs(s.port, s.lag);
                    else
                        root_.lagMemberDel(s.port);
                },
                [&](const Step::SubIntf& s) {
                    if (s.add)
                        root_.subIntfIs(s.intf);
                    else
                        root_.subIntfDel(s.intf);
                },
                [&](const Step::Fault& s) {
                    if (s.fault == OvinMirel::TestAgentFault{})
                        root_.faultDel(Mirel::ChipId(s.chip));
                    else
                        root_.faultIs(Mirel::ChipId(s.chip), s.fault);
                },
                [&](const Step::AllocMax& s) { allocMax(s.chip, s.max); }, [&](const Step::Run&) {},
                [&](const Step::Snapshot&) {},  // the run records it
            },
            a);
    }

  private:
    TestAgentRoot& root_;
};

// Thrown from the pass hook to end a run at its first broken invariant; not a std::exception,
// so that the step's error wrapping lets it through.
struct StopRun {};

}  // namespace

int RunResult::exitStatus() const {
    if (cycles.empty())
        return 0;
    const CycleRecord& last = cycles.back();
    return !last.finished || last.failed() ? 1 : 0;
}

RunResult simulate(const Scenario& scenario, const SimOptions& options) {
    RunResult out;
    out.scenario = scenario.name;
    std::set<uint32_t> chips;
    for (const ChipSpec& c : scenario.chips)
        chips.insert(c.id);

    // Declared in this order so that the agent goes first, then the wheel, then the clock.
    Vorn::ScopedVirtualClock clock;
    Brix::TimerWheel wheel;
    const Vorn::Ptr<TestAgentRoot> root = OvinMirel::testAgentRootFactory("ovinmirel-sim", wheel);
    Recorder recorder(*root, out);
    size_t applied = 0;
    // Declared after the agent: gone before it.
    const RunChecks checks = options.makeChecks ? options.makeChecks(*root) : RunChecks{};
    auto note = [&](const std::optional<std::string>& found) {
        if (!found)
            return;
        std::ostringstream os;
        os << "at " << Vorn::currentTime() << ": " << *found;
        out.violation = os.str();
        out.violationStep = applied;
    };
    root->afterPassIs([&] {
        recorder.collectLogs();
        recorder.noteBlocked();
        if (out.violationStep)
            return;
        if (root->glueViolation()) {
            out.violation = root->glueViolation();
            out.violationStep = applied;
        }
        if (!out.violationStep && options.passCheck)
            note(options.passCheck(*root));
        if (!out.violationStep && checks.afterPass)
            note(checks.afterPass(*root));
        if (out.violationStep && options.stopOnViolation)
            throw StopRun{};
    });
    if (options.checkInvariants)
        root->glueCheckIs(true);
    Driver driver(*root);

    const size_t total = scenario.steps.size();
    auto report = [&](size_t done) {
        if (options.progress)
            options.progress(done, total, Vorn::currentTime(), out.cycles.size());
    };
    try {
        driver.start(scenario);
        recorder.collectLogs();
    } catch (const std::exception& e) {
        throw std::runtime_error(std::string("start: ") + e.what());
    }
    try {
        for (size_t i = 0; i < total; ++i) {
            const TimedStep& st = scenario.steps[i];
            report(i);
            std::string where = "step " + std::to_string(i) + " (" + actionWord(st.action) +
                                " at " + seconds(st.at) + ")";
            try {
                // Steps at one time go in together, as one burst of configuration: the event loop
                // runs only before the first of them.
                if (i == 0 || st.at > scenario.steps[i - 1].at)
                    root->runUntil(st.at);
                driver.apply(st.action);
                recorder.collectLogs();
                if (const auto* snap = std::get_if<Step::Snapshot>(&st.action))
                    out.snapshots.push_back(
                        SnapshotRecord{st.at, snap->label, captureState(*root, chips)});
            } catch (const std::exception& e) {
                throw std::runtime_error(where + ": " + e.what());
            }
            if (const auto* add = std::get_if<Step::AddChip>(&st.action))
                chips.insert(add->chip.id);
            out.steps.push_back(StepRecord{i, st.at, actionWord(st.action), describe(st.action)});
            applied = i + 1;
        }
        try {
            if (scenario.end) {
                root->runUntil(*scenario.end);
            } else {
                root->runUntilIdle();
                // One more poll, so the capacity published is that of the last commit.
                root->runFor(root->capacitySm()->pollingInterval());
            }
            recorder.collectLogs();
        } catch (const std::exception& e) {
            throw std::runtime_error(std::string("end of the run: ") + e.what());
        }
        if (!out.violationStep && checks.atEnd)
            note(checks.atEnd(*root));
    } catch (const StopRun&) {
        // The run ends at its first broken invariant; what it recorded so far stands.
    }
    report(total);
    out.endTime = Vorn::currentTime();
    if (!out.violation)
        out.violation = root->glueViolation();
    out.state = captureState(*root, chips);
    root->afterPassIs(nullptr);
    return out;
}

}  // namespace Sim
