#include "tools/soak/RandomSequence.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <tuple>

#include "ovinmirel/chip/OvinMirelMappingCheck.h"
#include "ovinmirel/index/OvinMirelIndexCheck.h"
#include "ovinmirel/index/OvinMirelIndexSm.h"
#include "ovinmirel/index/OvinMirelIndexTestWorld.h"
#include "ovinmirel/testagent/OvinMirelTestAgentRoot.h"
#include "tools/sim/ScenarioBuilders.h"
#include "tools/sim/ScenarioReader.h"
#include "tools/sim/ScenarioWriter.h"
#include "tools/soak/AgentInvariants.h"

namespace RandomSequence {

namespace {

using Sim::AclRef;
using Zamu::IntfId;

// ---- Rules ----

const std::vector<std::string> kBuiltinIp = {
    "permit ip any any",
    "deny ip host 10.1.1.1 any",
    "permit tcp 10.0.0.0/8 any eq 80",
    "permit tcp any range 1024 2047 any gt 1023 established",
    "deny tcp any any eq 22 syn",
    "permit udp any any eq 53 dscp 46",
    "permit icmp any any 8 0",
    "deny 47 192.168.0.0/16 any",
    "permit tcp any any eq 443 urg",
    "permit udp 172.16.0.0/12 range 100 200 any",
};
const std::vector<std::string> kBuiltinIpv6 = {
    "permit ipv6 any any",
    "permit tcp 2001:db8::/32 any eq 22",
    "deny udp any 2001:db8:1::/48 eq 53",
    "permit icmpv6 any any 128 0",
    "deny tcp any any established",
};
const std::vector<std::string> kBuiltinMac = {
    "permit any any",
    "deny 0200.0000.0001 0000.0000.0000 any",
    "permit any any 0x0806",
    "deny any 0200.0000.0000 00ff.ffff.ffff 0x0800",
};

std::vector<std::string>& listOf(RulePool& p, Acl::AclType t) {
    return t == Acl::aclTypeIpv4 ? p.ip : t == Acl::aclTypeIpv6 ? p.ipv6 : p.mac;
}

// The rule line without its sequence number; empty for a line that has none.
std::string bodyOf(const std::string& line) {
    const size_t blank = line.find(' ');
    if (blank == std::string::npos || blank == 0)
        return {};
    for (size_t i = 0; i < blank; ++i) {
        if (line[i] < '0' || line[i] > '9')
            return {};
    }
    return line.substr(blank + 1);
}

std::string trimmed(std::string s) {
    while (!s.empty() && (s.back() == ' ' || s.back() == '\r' || s.back() == '\t'))
        s.pop_back();
    return s;
}

// ---- Drawing ----

// splitmix64: small, fast, and the same on every platform.
class Draw {
  public:
    // The seed goes through the mixer first: neighbouring seeds would otherwise walk the same
    // sequence one draw apart.
    explicit Draw(uint64_t seed) : state_(seed) { state_ = next(); }
    uint64_t next() {
        uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    }
    size_t below(size_t n) { return n == 0 ? 0 : size_t(next() % n); }
    bool chance(size_t num, size_t den) { return below(den) < num; }
    template <class T>
    const T& pick(const std::vector<T>& v) {
        return v[below(v.size())];
    }
    template <class T>
    T pickOf(const std::set<T>& s) {
        auto it = s.begin();
        std::advance(it, below(s.size()));
        return *it;
    }

  private:
    uint64_t state_;
};

// ---- The generator's picture of the switch ----

using Slot = std::tuple<IntfId, Acl::AclType, Acl::AclDirection>;

const std::vector<AclRef> kAcls = {
    {"ipa", Acl::aclTypeIpv4}, {"ipb", Acl::aclTypeIpv4}, {"ipc", Acl::aclTypeIpv4},
    {"v6a", Acl::aclTypeIpv6}, {"v6b", Acl::aclTypeIpv6}, {"maca", Acl::aclTypeMac},
    {"macb", Acl::aclTypeMac},
};
const std::vector<uint16_t> kVlans = {10, 20, 30};
const std::vector<IntfId> kLags = {IntfId("Port-Channel1"), IntfId("Port-Channel2")};
const std::vector<IntfId> kSubIntfs = {IntfId("Ethernet1.10"), IntfId("Ethernet5.20"),
                                       IntfId("Ethernet9.30"), IntfId("Port-Channel1.5"),
                                       IntfId("Port-Channel2.7")};
constexpr uint32_t kSeqs = 9;  // rules 10, 20, ... 90

class Generator {
  public:
    Generator(uint64_t seed, const RulePool& pool) : d_(seed), pool_(pool) {}

    Sim::Scenario run(size_t events) {
        Sim::Scenario& s = s_;
        s.name = "random";
        start();
        for (size_t e = 0; e < events; ++e) {
            if (pending_ && (e >= pending_->second || d_.chance(1, 3)))
                removeChip(pending_->first);
            else
                event();
            // Time moves in quarter seconds: exact in binary, so the file reads back equal.
            static const std::vector<uint32_t> kGaps = {0, 0, 0, 1, 1, 2, 2, 5, 5, 10, 20};
            quarters_ += d_.pick(kGaps);
        }
        if (pending_)
            removeChip(pending_->first);
        return s;
    }

  private:
    double now() const { return quarters_ / 4.0; }
    void add(Sim::Action a) { s_.steps.push_back(Sim::TimedStep{now(), std::move(a)}); }

    // ---- The switch at start ----
    void start() {
        s_.tcpFlags = d_.chance(1, 3) ? uint8_t(Acl::kAllTcpFlags & ~Acl::kTcpUrg)
                                      : uint8_t(Acl::kAllTcpFlags);
        s_.establishedSupported = !d_.chance(1, 4);
        s_.blockDuringUpdate = d_.chance(1, 2);
        s_.routedPortRaclSharing = d_.chance(1, 2);
        const bool third = d_.chance(2, 3);
        for (uint32_t id = 1; id <= 3; ++id) {
            Sim::ChipSpec c;
            c.id = id;
            for (uint32_t p = 1; p <= 4; ++p)
                c.ports.emplace_back("Ethernet" + std::to_string((id - 1) * 4 + p));
            if (id == 2) {
                // Small: its rule list ids, hardware ACL indexes or transform entries run out.
                c.ruleListIdMax = uint32_t(1 + d_.below(4));
                c.hwAclIndexMax = uint32_t(1 + d_.below(4));
                if (d_.chance(1, 2))
                    c.allocMax = uint32_t(2 + d_.below(6));
            }
            if (id == 3) {
                c.splitOnProtocol = true;
                c.ruleListIdMax = uint32_t(4 + d_.below(12));
                c.combinations = {Sim::combination("v4pacl-in v4racl-in v6pacl-in v6racl-in "
                                                   "v4pacl-out v4racl-out v6pacl-out v6racl-out"),
                                  Sim::combination("macacl-in macacl-out v4pacl-in")};
            }
            spec_[id] = c;
            if (id < 3 || third) {
                s_.chips.push_back(c);
                declareChip(c);
            }
        }
        Sim::VlanSpec v{Bridging::VlanId(10), {IntfId("Ethernet2"), IntfId("Ethernet6")}};
        s_.vlans.push_back(v);
        vlans_[10] = {v.members.begin(), v.members.end()};
        Sim::LagSpec l{kLags[0], {IntfId("Ethernet4"), IntfId("Ethernet8")}};
        s_.lags.push_back(l);
        for (const IntfId& p : l.members)
            lagOf_[p] = l.lag;
        lags_.insert(l.lag);
        for (const IntfId& i : {kSubIntfs[0], kSubIntfs[3]}) {
            s_.subInterfaces.push_back(i);
            subIntfs_.insert(i);
            subIntfsSeen_.insert(i);
        }
        for (size_t i = 0; i < 3; ++i) {
            Sim::AclSpec a = aclSpec(kAcls[d_.below(kAcls.size())]);
            if (acls_.contains(a.ref))
                continue;
            noteAcl(a);
            s_.acls.push_back(a);
        }
        for (size_t i = 0; i < 3 && !acls_.empty(); ++i) {
            const Sim::BindingSpec b = binding();
            if (bound_.contains({b.intf, b.acl.type, b.direction}))
                continue;
            bound_[{b.intf, b.acl.type, b.direction}] = b.acl.name;
            s_.bindings.push_back(b);
        }
    }
    void declareChip(const Sim::ChipSpec& c) {
        present_[c.id] = true;
        for (const IntfId& p : c.ports)
            portChip_[p] = c.id;
    }

    // ---- Pieces ----
    Sim::RuleSpec rule(Acl::AclType t, uint32_t seq) {
        const std::vector<std::string>& lines = pool_.of(t);
        return Sim::rule(t, std::to_string(seq) + " " + d_.pick(lines));
    }
    Sim::AclSpec aclSpec(const AclRef& ref) {
        Sim::AclSpec a;
        a.ref = ref;
        std::set<uint32_t> seqs;
        const size_t n = d_.below(5);
        for (size_t i = 0; i < n; ++i)
            seqs.insert(uint32_t(10 * (1 + d_.below(kSeqs))));
        for (uint32_t seq : seqs)
            a.rules.push_back(rule(ref.type, seq));
        return a;
    }
    void noteAcl(const Sim::AclSpec& a) {
        std::set<uint32_t>& seqs = acls_[a.ref];
        seqs.clear();
        for (const Sim::RuleSpec& r : a.rules)
            seqs.insert(r.seq);
    }
    std::vector<IntfId> bindable() const {
        std::vector<IntfId> out;
        for (const auto& [port, chip] : portChip_)
            out.push_back(port);
        out.insert(out.end(), lags_.begin(), lags_.end());
        for (const auto& [vlan, members] : vlans_)
            out.emplace_back("Vlan" + std::to_string(vlan));
        out.insert(out.end(), subIntfsSeen_.begin(), subIntfsSeen_.end());
        return out;
    }
    Sim::BindingSpec binding() {
        std::vector<AclRef> refs;
        for (const auto& [ref, seqs] : acls_)
            refs.push_back(ref);
        return Sim::BindingSpec{d_.pick(bindable()), d_.pick(refs),
                                d_.chance(1, 2) ? Acl::aclDirectionIn : Acl::aclDirectionOut};
    }
    std::vector<uint32_t> chips(bool present) const {
        std::vector<uint32_t> out;
        for (const auto& [id, p] : present_) {
            if (p == present)
                out.push_back(id);
        }
        return out;
    }
    std::vector<IntfId> ports() const {
        std::vector<IntfId> out;
        for (const auto& [port, chip] : portChip_)
            out.push_back(port);
        return out;
    }

    // ---- Events ----
    void event() {
        // Weights of the event kinds, in the order of the cases below.
        static const std::vector<size_t> kWeights = {8, 3, 10, 4, 14, 6, 6, 4, 4,
                                                     4, 3, 3,  5, 4,  1, 2, 2};
        size_t total = 0;
        for (size_t w : kWeights)
            total += w;
        for (int attempt = 0; attempt < 20; ++attempt) {
            size_t r = d_.below(total);
            size_t kind = 0;
            while (r >= kWeights[kind])
                r -= kWeights[kind++];
            if (tryEvent(kind))
                return;
        }
        add(Sim::Step::Run{});
    }

    bool tryEvent(size_t kind) {
        switch (kind) {
            case 0: {  // an ACL created, or all its rules replaced
                const Sim::AclSpec a = aclSpec(d_.pick(kAcls));
                noteAcl(a);
                add(Sim::Step::SetAcl{a});
                return true;
            }
            case 1: {  // an ACL removed (its bindings stay)
                if (acls_.empty())
                    return false;
                const AclRef ref = pickAcl();
                acls_.erase(ref);
                add(Sim::Step::RemoveAcl{ref});
                return true;
            }
            case 2: {  // a rule added or edited
                if (acls_.empty())
                    return false;
                const AclRef ref = pickAcl();
                const Sim::RuleSpec r = rule(ref.type, uint32_t(10 * (1 + d_.below(kSeqs))));
                acls_[ref].insert(r.seq);
                add(Sim::Step::SetRule{ref, r});
                return true;
            }
            case 3: {  // a rule removed
                std::vector<AclRef> withRules;
                for (const auto& [ref, seqs] : acls_) {
                    if (!seqs.empty())
                        withRules.push_back(ref);
                }
                if (withRules.empty())
                    return false;
                const AclRef ref = d_.pick(withRules);
                const uint32_t seq = d_.pickOf(acls_[ref]);
                acls_[ref].erase(seq);
                add(Sim::Step::RemoveRule{ref, seq});
                return true;
            }
            case 4: {  // a binding, replacing what its slot held
                if (acls_.empty())
                    return false;
                const Sim::BindingSpec b = binding();
                bound_[{b.intf, b.acl.type, b.direction}] = b.acl.name;
                add(Sim::Step::Bind{b});
                return true;
            }
            case 5: {
                if (bound_.empty())
                    return false;
                std::set<Slot> slots;
                for (const auto& [slot, name] : bound_)
                    slots.insert(slot);
                const Slot slot = d_.pickOf(slots);
                bound_.erase(slot);
                add(Sim::Step::Unbind{std::get<0>(slot), std::get<1>(slot), std::get<2>(slot)});
                return true;
            }
            case 6: {  // VLAN membership
                const uint16_t vlan = d_.pick(kVlans);
                const IntfId port = d_.pick(ports());
                std::set<IntfId>& members = vlans_[vlan];
                const bool join = !members.contains(port);
                if (join)
                    members.insert(port);
                else
                    members.erase(port);
                add(Sim::Step::VlanMember{Bridging::VlanId(vlan), port, join});
                return true;
            }
            case 7: {  // port-channel membership
                const IntfId port = d_.pick(ports());
                if (const auto it = lagOf_.find(port); it != lagOf_.end()) {
                    add(Sim::Step::LagMember{it->second, port, false});
                    lagOf_.erase(it);
                    return true;
                }
                const IntfId lag = d_.pick(kLags);
                lagOf_[port] = lag;
                lags_.insert(lag);
                add(Sim::Step::LagMember{lag, port, true});
                return true;
            }
            case 8: {  // a sub-interface comes or goes
                const IntfId sub = d_.pick(kSubIntfs);
                if (subIntfs_.contains(sub)) {
                    subIntfs_.erase(sub);
                    add(Sim::Step::SubIntf{sub, false});
                    return true;
                }
                const IntfId parent = Zamu::SubIntfId::parentIntfId(sub);
                if (!portChip_.contains(parent) && !lags_.contains(parent))
                    return false;
                subIntfs_.insert(sub);
                subIntfsSeen_.insert(sub);
                add(Sim::Step::SubIntf{sub, true});
                return true;
            }
            case 9: {  // a port moves to another chip, or off every chip
                const IntfId port = d_.pick(ports());
                const std::vector<uint32_t> present = chips(true);
                std::optional<uint32_t> to;
                if (!present.empty() && !d_.chance(1, 4))
                    to = d_.pick(present);
                if (to == portChip_[port])
                    return false;
                portChip_[port] = to;
                add(Sim::Step::MovePort{port, to});
                return true;
            }
            case 10: {  // a chip leaves
                const std::vector<uint32_t> present = chips(true);
                if (present.empty() || (pending_ && present.size() == 1))
                    return false;
                const uint32_t chip = d_.pick(present);
                if (pending_ && pending_->first == chip)
                    return false;
                removeChip(chip);
                return true;
            }
            case 11: {  // a chip arrives, with those of its ports no other chip took
                std::vector<uint32_t> absent = chips(false);
                for (const auto& [id, c] : spec_) {
                    if (!present_.contains(id))
                        absent.push_back(id);
                }
                if (absent.empty())
                    return false;
                Sim::ChipSpec c = spec_[d_.pick(absent)];
                std::vector<IntfId> free;
                for (const IntfId& p : c.ports) {
                    const auto it = portChip_.find(p);
                    if (it == portChip_.end() || !it->second)
                        free.push_back(p);
                }
                c.ports = free;
                declareChip(c);
                add(Sim::Step::AddChip{c});
                return true;
            }
            case 12: {  // a computation fails, with any stage error code
                const std::vector<uint32_t> present = chips(true);
                if (present.empty())
                    return false;
                const uint32_t chip = d_.pick(present);
                if (pending_ && pending_->first == chip)
                    return false;
                OvinMirel::TestAgentFault f =
                    OvinMirel::TestAgentFault::failing(Mirel::StageErrorCode(1 + d_.below(8)))
                        .times(uint32_t(1 + d_.below(3)));
                if (d_.chance(1, 3))
                    f = f.onXform(Mirel::XformType(d_.below(Mirel::kXformTypeCount)));
                if (d_.chance(1, 4))
                    f = f.alsoLate(0.25 * double(1 + d_.below(8)));
                add(Sim::Step::Fault{chip, f});
                return true;
            }
            case 13: {  // late or doubled answers
                const std::vector<uint32_t> present = chips(true);
                if (present.empty())
                    return false;
                const uint32_t chip = d_.pick(present);
                if (pending_ && pending_->first == chip)
                    return false;
                OvinMirel::TestAgentFault f =
                    d_.chance(1, 2)
                        ? OvinMirel::TestAgentFault::twice()
                        : OvinMirel::TestAgentFault::late(0.25 * double(1 + d_.below(12)));
                if (d_.chance(1, 3))
                    f = f.alsoTwice();
                add(Sim::Step::Fault{chip, f.times(uint32_t(1 + d_.below(4)))});
                return true;
            }
            case 14:    // a lost answer: its chip must go soon after
            case 15: {  // a late answer, its chip leaving before it comes
                const std::vector<uint32_t> present = chips(true);
                if (pending_ || present.empty())
                    return false;
                const uint32_t chip = d_.pick(present);
                const OvinMirel::TestAgentFault f =
                    kind == 14 ? OvinMirel::TestAgentFault::losing().times(1)
                               : OvinMirel::TestAgentFault::late(2.0 + d_.below(3)).times(1);
                add(Sim::Step::Fault{chip, f});
                pending_ = {chip, s_.steps.size() + 1 + d_.below(4)};
                return true;
            }
            case 16: {  // the transform entry limit of a chip mock
                const std::vector<uint32_t> present = chips(true);
                if (present.empty())
                    return false;
                std::optional<uint32_t> max;
                if (!d_.chance(1, 3))
                    max = uint32_t(1 + d_.below(6));
                add(Sim::Step::AllocMax{d_.pick(present), max});
                return true;
            }
        }
        return false;
    }

    AclRef pickAcl() {
        std::vector<AclRef> refs;
        for (const auto& [ref, seqs] : acls_)
            refs.push_back(ref);
        return d_.pick(refs);
    }

    // The chip leaves with its ports; its fault goes with it, so that a lost answer planned
    // for it cannot stall a cycle after it comes back.
    void removeChip(uint32_t chip) {
        if (!present_[chip])
            return;
        present_[chip] = false;
        for (auto& [port, c] : portChip_) {
            if (c == chip)
                c.reset();
        }
        add(Sim::Step::RemoveChip{chip});
        add(Sim::Step::Fault{chip, OvinMirel::TestAgentFault{}});
        if (pending_ && pending_->first == chip)
            pending_.reset();
    }

    Draw d_;
    const RulePool& pool_;
    Sim::Scenario s_;
    uint64_t quarters_ = 0;
    std::map<uint32_t, Sim::ChipSpec> spec_;
    std::map<uint32_t, bool> present_;
    std::map<IntfId, std::optional<uint32_t>> portChip_;
    std::map<uint16_t, std::set<IntfId>> vlans_;
    std::set<IntfId> lags_;
    std::map<IntfId, IntfId> lagOf_;
    std::set<IntfId> subIntfs_;
    std::set<IntfId> subIntfsSeen_;
    std::map<AclRef, std::set<uint32_t>> acls_;
    std::map<Slot, std::string> bound_;
    // A chip that must leave by the given step count (a lost or late answer planned).
    std::optional<std::pair<uint32_t, size_t>> pending_;
};

// The check's name and, where the text names a chip, the first words after it ("I1 Chip
// settled with tables"), so that a shrunk scenario keeps the failure it started from.
std::string kindOf(const std::string& text) {
    std::string kind = "glue";
    static const std::vector<std::string> kNames = {"index", "rebuild", "mapping", "agent"};
    if (text.size() >= 2 && text[0] == 'I' && text[1] >= '1' && text[1] <= '9') {
        kind = text.substr(0, text.find(' '));
    } else {
        for (const std::string& n : kNames) {
            if (text.rfind(n, 0) == 0)
                kind = n;
        }
    }
    const size_t chip = text.find("Chip-");
    if (chip == std::string::npos)
        return kind;
    std::istringstream words(text.substr(chip));
    std::string w;
    words >> w;  // the chip itself
    for (int i = 0; i < 3 && words >> w; ++i)
        kind += " " + w;
    return kind;
}

}  // namespace

// ---- RulePool ----

const std::vector<std::string>& RulePool::of(Acl::AclType t) const {
    return t == Acl::aclTypeIpv4 ? ip : t == Acl::aclTypeIpv6 ? ipv6 : mac;
}

RulePool RulePool::builtin() {
    RulePool p;
    p.ip = kBuiltinIp;
    p.ipv6 = kBuiltinIpv6;
    p.mac = kBuiltinMac;
    return p;
}

void RulePool::addCorpusFile(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    std::optional<Acl::AclType> type;
    while (std::getline(in, line)) {
        if (line.rfind("acl ", 0) == 0) {
            const std::string word = trimmed(line.substr(line.rfind(' ') + 1));
            type = Sim::aclTypeNamed(word);
            continue;
        }
        if (!type)
            continue;
        const std::string body = trimmed(bodyOf(trimmed(line.substr(0, line.find('#')))));
        if (body.empty())
            continue;
        try {
            Sim::rule(*type, "10 " + body);
        } catch (const std::exception&) {
            continue;  // the reader refuses it; the parser's own tests look at why
        }
        std::vector<std::string>& list = listOf(*this, *type);
        if (std::find(list.begin(), list.end(), body) == list.end()) {
            list.push_back(body);
            ++fromCorpus;
        }
    }
}

const RulePool& RulePool::standard() {
    static const RulePool pool = [] {
        namespace fs = std::filesystem;
        RulePool p = builtin();
        std::vector<fs::path> dirs;
        if (const char* env = std::getenv("OVINMIREL_CORPUS"))
            dirs.emplace_back(env);
        dirs.push_back(fs::path(OVINMIREL_SOURCE_DIR) / ".." / "shared" / "corpus");
        dirs.emplace_back("/work/shared/corpus");
        for (const fs::path& d : dirs) {
            std::error_code ec;
            if (!fs::is_directory(d / "real-acls", ec))
                continue;
            // Sorted, so that the pool (and so every seed's scenario) does not depend on the
            // order the directory lists its files in.
            std::vector<fs::path> files;
            for (const auto& e : fs::directory_iterator(d / "real-acls", ec)) {
                if (e.path().extension() == ".acl")
                    files.push_back(e.path());
            }
            std::sort(files.begin(), files.end());
            for (const fs::path& f : files)
                p.addCorpusFile(f.string());
            break;
        }
        return p;
    }();
    return pool;
}

// ---- Generating ----

Sim::Scenario generate(uint64_t seed, size_t events, const RulePool& pool) {
    Sim::Scenario s = Generator(seed, pool).run(events);
    s.description = "seed " + std::to_string(seed) + ", " + std::to_string(events) + " events";
    return s;
}

// ---- Checking ----

std::optional<std::string> checkAgent(const OvinMirel::TestAgentRoot& root) {
    const OvinMirel::Status& status = *root.ovinMirelStatus();
    if (std::optional<std::string> broken = OvinMirel::checkIndexConsistency(*status.index()))
        return "index: " + *broken;
    // The running index equals one built afresh from the same inputs.
    const Vorn::Ptr<OvinMirel::Index> fresh = OvinMirel::indexFactory("rebuilt");
    const Vorn::Ptr<OvinMirel::IndexSm> builder = OvinMirel::indexSmFactory(
        status.aclColl(), status.pDStatus(), status.vlanPhyIntfConfigDir(),
        status.lagPhyIntfMapping(), root.subIntfConfigDir(), fresh);
    builder->handleInitialized();
    if (auto differs =
            OvinMirel::IndexTest::indexDifference(*status.index(), *fresh, "running", "rebuilt"))
        return "rebuild: " + *differs;
    for (const auto& [chip, sm] : root.ovinMirelGlueSm()->mappingSmColl()->sm()) {
        if (std::optional<std::string> broken = OvinMirel::checkMappingConsistency(*sm)) {
            std::ostringstream os;
            os << "mapping Chip-" << chip.value() << ": " << *broken;
            return os.str();
        }
    }
    return std::nullopt;
}

namespace {

std::optional<std::string> firstOf(const std::vector<std::string>& lines) {
    if (lines.empty())
        return std::nullopt;
    return lines.front();
}

std::optional<Failure> runWith(const Sim::Scenario& s, Sim::SimOptions options) {
    options.stopOnViolation = true;
    Sim::RunResult r;
    try {
        r = Sim::simulate(s, options);
    } catch (const std::exception& e) {
        return Failure{e.what(), s.steps.size(), "error"};
    }
    if (r.violation) {
        const std::string& v = *r.violation;
        const size_t colon = v.find(": ");
        const std::string text = colon == std::string::npos ? v : v.substr(colon + 2);
        return Failure{v, r.violationStep.value_or(r.steps.size()), kindOf(text)};
    }
    for (const Sim::CycleRecord& c : r.cycles) {
        if (!c.finished) {
            std::ostringstream os;
            os << "cycle " << c.number << ", started at " << c.start
               << " s, never reached idle (states:";
            for (const std::string& st : c.states)
                os << " " << st;
            os << ")";
            return Failure{os.str(), r.steps.size(), "stalled"};
        }
    }
    return std::nullopt;
}

}  // namespace

std::optional<Failure> runChecked(const Sim::Scenario& s) {
    Sim::SimOptions options;
    options.makeChecks = [](OvinMirel::TestAgentRoot& root) {
        const auto inv = std::make_shared<OvinMirel::Reliability::AgentInvariants>(root);
        return Sim::RunChecks{
            [inv](const OvinMirel::TestAgentRoot&) { return firstOf(inv->check()); },
            [inv](const OvinMirel::TestAgentRoot&) { return firstOf(inv->checkSettled()); }};
    };
    return runWith(s, options);
}

std::optional<Failure> runChecked(const Sim::Scenario& s, const Sim::PassCheck& check) {
    Sim::SimOptions options;
    options.passCheck = check;
    return runWith(s, options);
}

bool replayable(const Sim::Scenario& s) {
    try {
        Sim::readScenario(Sim::writeScenario(s), "candidate");
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

ShrinkResult shrink(const Sim::Scenario& s, const Failure& failure, size_t maxRuns,
                    const FailsFn& fails) {
    ShrinkResult out{s, failure, 0};
    auto attempt = [&](std::vector<Sim::TimedStep> steps) {
        Sim::Scenario candidate = out.scenario;
        candidate.steps = std::move(steps);
        if (out.runs >= maxRuns || !replayable(candidate))
            return false;
        ++out.runs;
        const std::optional<Failure> f = fails(candidate);
        if (!f || f->kind != failure.kind)
            return false;
        out.scenario = std::move(candidate);
        out.failure = *f;
        return true;
    };
    // The steps after the failure showed never ran: drop them first (a stall shows at the end,
    // so it keeps them).
    if (out.failure.step < out.scenario.steps.size()) {
        attempt(std::vector<Sim::TimedStep>(
            out.scenario.steps.begin(),
            out.scenario.steps.begin() + std::ptrdiff_t(out.failure.step + 1)));
    }
    size_t parts = 2;
    while (out.runs < maxRuns && !out.scenario.steps.empty()) {
        const std::vector<Sim::TimedStep>& steps = out.scenario.steps;
        const size_t chunk = (steps.size() + parts - 1) / parts;
        bool cut = false;
        for (size_t start = 0; start < steps.size() && out.runs < maxRuns; start += chunk) {
            std::vector<Sim::TimedStep> rest(steps.begin(), steps.begin() + std::ptrdiff_t(start));
            rest.insert(rest.end(),
                        steps.begin() + std::ptrdiff_t(std::min(start + chunk, steps.size())),
                        steps.end());
            if (attempt(std::move(rest))) {
                cut = true;
                break;
            }
        }
        if (cut) {
            parts = std::max<size_t>(parts - 1, 2);
            continue;
        }
        if (chunk <= 1)
            break;
        parts = std::min(parts * 2, out.scenario.steps.size());
    }
    return out;
}

// ---- Plans and messages ----

namespace {
std::optional<uint64_t> envNumber(const char* name) {
    const char* v = std::getenv(name);
    if (!v || !*v)
        return std::nullopt;
    char* end = nullptr;
    const unsigned long long n = std::strtoull(v, &end, 10);
    if (*end != '\0')
        throw std::invalid_argument(std::string(name) + " must be a whole number, not '" + v + "'");
    return n;
}
}  // namespace

RunPlan runPlan(size_t defaultSeeds, size_t defaultEvents) {
    RunPlan plan;
    const std::optional<uint64_t> one = envNumber("OVINMIREL_RANDOM_SEED");
    const std::optional<uint64_t> seeds = envNumber("OVINMIREL_RANDOM_SEEDS");
    const std::optional<uint64_t> events = envNumber("OVINMIREL_RANDOM_EVENTS");
    plan.fromEnvironment = one || seeds || events;
    plan.events = events ? size_t(*events) : defaultEvents;
    if (one) {
        plan.seeds.push_back(*one);
    } else {
        const uint64_t n = seeds ? *seeds : defaultSeeds;
        for (uint64_t s = 1; s <= n; ++s)
            plan.seeds.push_back(s);
    }
    return plan;
}

std::optional<SeedFailure> soakSeed(uint64_t seed, size_t events, const RulePool& pool,
                                    size_t shrinkRuns, const std::filesystem::path& outDir,
                                    const FailsFn& fails) {
    const Sim::Scenario s = generate(seed, events, pool);
    std::optional<Failure> f = fails(s);
    if (!f)
        return std::nullopt;
    SeedFailure out{*f, shrink(s, *f, shrinkRuns, fails),
                    outDir / ("ovinmirel-random-seed-" + std::to_string(seed) + ".json"), ""};
    std::ofstream(out.file) << Sim::writeScenario(out.shrunk.scenario);
    std::ostringstream r;
    r << "seed " << seed << " (" << events << " events) fails at step " << f->step << ": "
      << f->what << "\nsteps so far:\n"
      << listSteps(s, f->step + 1) << "shrunk to " << out.shrunk.scenario.steps.size()
      << " steps in " << out.shrunk.runs << " runs: " << out.shrunk.failure.what << "\n"
      << listSteps(out.shrunk.scenario, out.shrunk.scenario.steps.size())
      << "replay: ovinmirel-sim " << out.file.string() << "\n";
    out.report = r.str();
    return out;
}

std::string listSteps(const Sim::Scenario& s, size_t upTo) {
    std::ostringstream os;
    for (size_t i = 0; i < s.steps.size() && i < upTo; ++i)
        os << "  " << i << " @ " << s.steps[i].at << " s: " << Sim::describe(s.steps[i].action)
           << "\n";
    return os.str();
}

}  // namespace RandomSequence
