#include "tools/sim/ScenarioReader.h"

#include <cmath>
#include <fstream>
#include <initializer_list>
#include <map>
#include <set>
#include <sstream>
#include <tuple>

#include <nlohmann/json.hpp>

#include "platform/ovin/AclRuleText.h"
#include "platform/vorn/Exception.h"

namespace Sim {

namespace {

using Json = nlohmann::ordered_json;

// Times beyond a day of virtual time are refused: the run visits every timer expiry up to its
// end, and the capacity poll alone expires every few seconds.
constexpr double kMaxSeconds = 86400.0;
constexpr uint32_t kMaxChipId = 0x7fffffff;  // the largest chip whose root ids fit in 32 bits

std::string join(const std::string& path, std::string_view field) {
    return path.empty() ? std::string(field) : path + "." + std::string(field);
}
std::string at(const std::string& path, size_t i) {
    return path + "[" + std::to_string(i) + "]";
}
std::string inQuotes(std::string_view s) {
    return "'" + std::string(s) + "'";
}
std::string name(const Zamu::IntfId& i) {
    return i.name();
}

// What the scenario has declared, followed through the steps in time order.
struct Declared {
    std::map<uint32_t, bool> chipPresent;                      // every chip seen: present now?
    std::map<Zamu::IntfId, std::optional<uint32_t>> portChip;  // every port seen: its chip now
    std::map<Bridging::VlanId, std::set<Zamu::IntfId>> vlans;  // declared VLANs: members
    std::map<Zamu::IntfId, std::set<Zamu::IntfId>> lags;       // declared LAGs: members
    std::map<Zamu::IntfId, Zamu::IntfId> lagOfPort;
    std::set<Zamu::IntfId> subIntfsSeen;
    std::set<Zamu::IntfId> subIntfs;            // present now
    std::map<AclRef, std::set<uint32_t>> acls;  // ACLs now: their sequences
    std::map<std::tuple<Zamu::IntfId, Acl::AclType, Acl::AclDirection>, std::string> bound;
};

class Reader {
  public:
    explicit Reader(std::string source) : source_(std::move(source)) {}

    ReadScenario read(const Json& root) {
        ReadScenario out;
        notes_ = &out.notes;
        Scenario& s = out.scenario;
        object(root, "");
        onlyFields(root, "",
                   {"name", "description", "routedPortRaclSharing", "tcpFlags",
                    "establishedSupported", "blockDuringUpdate", "end", "chips", "vlans", "lags",
                    "subInterfaces", "acls", "bindings", "steps"});
        if (const Json* v = field(root, "name"))
            s.name = string(*v, "name");
        if (const Json* v = field(root, "description"))
            s.description = string(*v, "description");
        if (const Json* v = field(root, "routedPortRaclSharing"))
            s.routedPortRaclSharing = boolean(*v, "routedPortRaclSharing");
        if (const Json* v = field(root, "tcpFlags"))
            s.tcpFlags = tcpFlags(*v, "tcpFlags");
        if (const Json* v = field(root, "establishedSupported"))
            s.establishedSupported = boolean(*v, "establishedSupported");
        if (const Json* v = field(root, "blockDuringUpdate"))
            s.blockDuringUpdate = boolean(*v, "blockDuringUpdate");
        if (const Json* v = field(root, "end"))
            s.end = seconds(*v, "end");

        forEach(root, "chips", [&](const Json& v, const std::string& p) {
            s.chips.push_back(chip(v, p));
            declareChip(s.chips.back(), p);
        });
        forEach(root, "vlans",
                [&](const Json& v, const std::string& p) { s.vlans.push_back(vlan(v, p)); });
        forEach(root, "lags",
                [&](const Json& v, const std::string& p) { s.lags.push_back(lag(v, p)); });
        forEach(root, "subInterfaces", [&](const Json& v, const std::string& p) {
            const Zamu::IntfId sub = newSubIntf(v, p);
            s.subInterfaces.push_back(sub);
        });
        forEach(root, "acls", [&](const Json& v, const std::string& p) {
            AclSpec a = acl(v, p);
            if (d_.acls.contains(a.ref))
                fail(join(p, "name"), "ACL " + str(a.ref) + " is declared twice");
            declareAcl(a);
            s.acls.push_back(std::move(a));
        });
        forEach(root, "bindings", [&](const Json& v, const std::string& p) {
            BindingSpec b = binding(v, p);
            const auto slot = std::make_tuple(b.intf, b.acl.type, b.direction);
            if (const auto it = d_.bound.find(slot); it != d_.bound.end()) {
                fail(join(p, "intf"), name(b.intf) + " already has " + it->second + " bound " +
                                          Acl::aclTypeName(b.acl.type) + " " +
                                          Acl::aclDirectionName(b.direction));
            }
            d_.bound[slot] = b.acl.name;
            s.bindings.push_back(std::move(b));
        });
        double last = 0.0;
        forEach(root, "steps", [&](const Json& v, const std::string& p) {
            TimedStep st = step(v, p, last);
            last = st.at;
            s.steps.push_back(std::move(st));
        });
        if (s.end && *s.end < last) {
            fail("end", "the run would end at " + number(*s.end) + " s, before the last step at " +
                            number(last) + " s");
        }
        return out;
    }

  private:
    [[noreturn]] void fail(const std::string& path, const std::string& why) const {
        throw ScenarioError(source_, path, why);
    }
    static std::string number(double v) {
        std::ostringstream os;
        os << v;
        return os.str();
    }

    // ---- JSON shapes ----
    void object(const Json& v, const std::string& path) const {
        if (!v.is_object())
            fail(path, "must be an object");
    }
    void onlyFields(const Json& obj, const std::string& path,
                    std::initializer_list<std::string_view> known) const {
        for (const auto& [key, value] : obj.items()) {
            bool ok = false;
            for (std::string_view k : known)
                ok = ok || key == k;
            if (!ok) {
                std::string list;
                for (std::string_view k : known)
                    list += (list.empty() ? "" : ", ") + std::string(k);
                fail(join(path, key), "unknown field (this object has: " + list + ")");
            }
        }
    }
    static const Json* field(const Json& obj, const char* key) {
        const auto it = obj.find(key);
        return it == obj.end() ? nullptr : &*it;
    }
    const Json& required(const Json& obj, const std::string& path, const char* key) const {
        const Json* v = field(obj, key);
        if (!v)
            fail(path, std::string("missing field '") + key + "'");
        return *v;
    }
    template <class F>
    void forEach(const Json& obj, const char* key, F&& f) const {
        const Json* v = field(obj, key);
        if (!v)
            return;
        forEachElement(*v, key, std::forward<F>(f));
    }
    template <class F>
    void forEachElement(const Json& v, const std::string& path, F&& f) const {
        if (!v.is_array())
            fail(path, "must be an array");
        for (size_t i = 0; i < v.size(); ++i)
            f(v[i], at(path, i));
    }
    std::string string(const Json& v, const std::string& path) const {
        if (!v.is_string())
            fail(path, "must be a string");
        return v.get<std::string>();
    }
    bool boolean(const Json& v, const std::string& path) const {
        if (!v.is_boolean())
            fail(path, "must be true or false");
        return v.get<bool>();
    }
    uint32_t whole(const Json& v, const std::string& path, uint64_t max) const {
        if (!v.is_number_unsigned() || v.get<uint64_t>() > max)
            fail(path, "must be a whole number from 0 to " + std::to_string(max));
        return static_cast<uint32_t>(v.get<uint64_t>());
    }
    double seconds(const Json& v, const std::string& path) const {
        if (!v.is_number() || !std::isfinite(v.get<double>()) || v.get<double>() < 0.0 ||
            v.get<double>() > kMaxSeconds) {
            fail(path, "must be a number of seconds from 0 to " + number(kMaxSeconds));
        }
        return v.get<double>();
    }

    uint8_t tcpFlags(const Json& v, const std::string& path) const {
        std::istringstream words(string(v, path));
        uint8_t flags = 0;
        std::string w;
        while (words >> w) {
            const std::optional<uint8_t> bit = tcpFlagNamed(w);
            if (!bit)
                fail(path, "unknown TCP flag " + inQuotes(w) + " (ack, fin, psh, rst, syn, urg)");
            flags |= *bit;
        }
        return flags;
    }

    // ---- Names ----
    Zamu::IntfId intfName(const Json& v, const std::string& path) const {
        const std::string text = string(v, path);
        try {
            const Zamu::IntfId id(text);
            if (Zamu::VlanIntfId::isVlanIntfId(id))
                Zamu::VlanIntfId::vlanId(id);  // the VLAN range
            return id;
        } catch (const std::exception& e) {
            fail(path, e.what());
        }
    }
    Zamu::IntfId portName(const Json& v, const std::string& path) const {
        const Zamu::IntfId id = intfName(v, path);
        if (!Zamu::EthIntfId::isEthIntfId(id))
            fail(path, name(id) + " is not an Ethernet port");
        return id;
    }
    Zamu::IntfId knownPort(const Json& v, const std::string& path) const {
        const Zamu::IntfId id = portName(v, path);
        if (!d_.portChip.contains(id))
            fail(path, "unknown interface " + inQuotes(name(id)) + " (no chip has had it)");
        return id;
    }
    Zamu::IntfId lagName(const Json& v, const std::string& path) const {
        const Zamu::IntfId id = intfName(v, path);
        if (!Zamu::PortChannelIntfId::isPortChannelIntfId(id))
            fail(path, name(id) + " is not a port-channel");
        return id;
    }
    Bridging::VlanId vlanId(const Json& v, const std::string& path) const {
        if (!v.is_number_integer())
            fail(path, "must be a VLAN number");
        try {
            return Bridging::VlanId(v.get<int64_t>());
        } catch (const Vorn::RangeException& e) {
            fail(path, e.what());
        }
    }
    uint32_t chipId(const Json& v, const std::string& path) const {
        return whole(v, path, kMaxChipId);
    }
    uint32_t knownChip(const Json& v, const std::string& path) const {
        const uint32_t c = chipId(v, path);
        if (!d_.chipPresent.contains(c))
            fail(path, "unknown chip " + std::to_string(c));
        return c;
    }
    uint32_t presentChip(const Json& v, const std::string& path) const {
        const uint32_t c = knownChip(v, path);
        if (!d_.chipPresent.at(c))
            fail(path, "chip " + std::to_string(c) + " is not present");
        return c;
    }
    // The interface a binding names: known to the scenario by now.
    Zamu::IntfId bindable(const Json& v, const std::string& path) const {
        const Zamu::IntfId id = intfName(v, path);
        const std::string unknown = "unknown interface " + inQuotes(name(id));
        if (Zamu::SubIntfId::isSubIntfId(id)) {
            if (!d_.subIntfsSeen.contains(id))
                fail(path, unknown + " (no such sub-interface is declared)");
        } else if (Zamu::EthIntfId::isEthIntfId(id)) {
            if (!d_.portChip.contains(id))
                fail(path, unknown + " (no chip has had it)");
        } else if (Zamu::PortChannelIntfId::isPortChannelIntfId(id)) {
            if (!d_.lags.contains(id))
                fail(path, unknown + " (no such port-channel is declared)");
        } else if (Zamu::VlanIntfId::isVlanIntfId(id)) {
            if (!d_.vlans.contains(Zamu::VlanIntfId::vlanId(id))) {
                fail(path, unknown + " (VLAN " + std::to_string(id.first()) + " is not declared)");
            }
        } else {
            fail(path, name(id) + " cannot carry an ACL");
        }
        return id;
    }

    // ---- The switch ----
    ChipSpec chip(const Json& v, const std::string& p) const {
        object(v, p);
        onlyFields(v, p,
                   {"id", "ruleListIdMax", "ruleListIdReserved", "splitOnProtocol", "hwAclIndexMax",
                    "hwAclIndexReserved", "combinations", "tcamEntries", "xformEntries", "allocMax",
                    "ports"});
        ChipSpec c;
        c.id = chipId(required(v, p, "id"), join(p, "id"));
        if (const Json* f = field(v, "ruleListIdMax"))
            c.ruleListIdMax = whole(*f, join(p, "ruleListIdMax"), 255);
        if (const Json* f = field(v, "ruleListIdReserved"))
            c.ruleListIdReserved = whole(*f, join(p, "ruleListIdReserved"), 255);
        if (const Json* f = field(v, "splitOnProtocol"))
            c.splitOnProtocol = boolean(*f, join(p, "splitOnProtocol"));
        if (const Json* f = field(v, "hwAclIndexMax"))
            c.hwAclIndexMax = whole(*f, join(p, "hwAclIndexMax"), 65535);
        if (const Json* f = field(v, "hwAclIndexReserved"))
            c.hwAclIndexReserved = whole(*f, join(p, "hwAclIndexReserved"), 65535);
        if (const Json* f = field(v, "combinations")) {
            c.combinations.clear();
            forEachElement(*f, join(p, "combinations"), [&](const Json& e, const std::string& ep) {
                c.combinations.push_back(combination(e, ep));
            });
            if (c.combinations.empty())
                fail(join(p, "combinations"), "a chip needs at least one combination");
        }
        if (const Json* f = field(v, "tcamEntries"))
            c.tcamEntries = whole(*f, join(p, "tcamEntries"), UINT32_MAX);
        if (const Json* f = field(v, "xformEntries"))
            c.xformEntries = whole(*f, join(p, "xformEntries"), UINT32_MAX);
        if (const Json* f = field(v, "allocMax"); f && !f->is_null())
            c.allocMax = whole(*f, join(p, "allocMax"), UINT32_MAX - 1);
        std::set<Zamu::IntfId> seen;
        if (const Json* f = field(v, "ports")) {
            forEachElement(*f, join(p, "ports"), [&](const Json& e, const std::string& ep) {
                const Zamu::IntfId port = portName(e, ep);
                if (!seen.insert(port).second)
                    fail(ep, name(port) + " is listed twice");
                c.ports.push_back(port);
            });
        }
        return c;
    }
    uint16_t combination(const Json& v, const std::string& path) const {
        std::istringstream words(string(v, path));
        uint16_t mask = 0;
        std::string w;
        while (words >> w) {
            const std::optional<uint16_t> bit = aclKindMask(w);
            if (!bit) {
                fail(path, "unknown ACL kind " + inQuotes(w) + " (the kinds are " +
                               aclKindWordList() + ")");
            }
            mask |= *bit;
        }
        if (mask == 0)
            fail(path, "a combination names at least one ACL kind");
        return mask;
    }
    // A chip that arrives: present, its ports on it (each on no other present chip).
    void declareChip(const ChipSpec& c, const std::string& p) {
        if (const auto it = d_.chipPresent.find(c.id); it != d_.chipPresent.end() && it->second)
            fail(join(p, "id"), "chip " + std::to_string(c.id) + " is already present");
        for (size_t i = 0; i < c.ports.size(); ++i) {
            const auto it = d_.portChip.find(c.ports[i]);
            if (it != d_.portChip.end() && it->second) {
                fail(at(join(p, "ports"), i),
                     name(c.ports[i]) + " is already on chip " + std::to_string(*it->second));
            }
        }
        d_.chipPresent[c.id] = true;
        for (const Zamu::IntfId& port : c.ports)
            d_.portChip[port] = c.id;
    }
    VlanSpec vlan(const Json& v, const std::string& p) {
        object(v, p);
        onlyFields(v, p, {"id", "members"});
        VlanSpec out;
        out.id = vlanId(required(v, p, "id"), join(p, "id"));
        if (d_.vlans.contains(out.id))
            fail(join(p, "id"), "VLAN " + std::to_string(out.id.value()) + " is declared twice");
        std::set<Zamu::IntfId>& members = d_.vlans[out.id];
        if (const Json* f = field(v, "members")) {
            forEachElement(*f, join(p, "members"), [&](const Json& e, const std::string& ep) {
                const Zamu::IntfId port = knownPort(e, ep);
                if (!members.insert(port).second)
                    fail(ep, name(port) + " is listed twice");
                out.members.push_back(port);
            });
        }
        return out;
    }
    LagSpec lag(const Json& v, const std::string& p) {
        object(v, p);
        onlyFields(v, p, {"name", "members"});
        LagSpec out;
        out.lag = lagName(required(v, p, "name"), join(p, "name"));
        if (d_.lags.contains(out.lag))
            fail(join(p, "name"), name(out.lag) + " is declared twice");
        d_.lags[out.lag];
        if (const Json* f = field(v, "members")) {
            forEachElement(*f, join(p, "members"), [&](const Json& e, const std::string& ep) {
                const Zamu::IntfId port = knownPort(e, ep);
                joinLag(out.lag, port, ep);
                out.members.push_back(port);
            });
        }
        return out;
    }
    void joinLag(const Zamu::IntfId& lag, const Zamu::IntfId& port, const std::string& path) {
        if (const auto it = d_.lagOfPort.find(port); it != d_.lagOfPort.end())
            fail(path, name(port) + " is already a member of " + name(it->second));
        d_.lags[lag].insert(port);
        d_.lagOfPort[port] = lag;
    }
    Zamu::IntfId newSubIntf(const Json& v, const std::string& path) {
        const Zamu::IntfId id = intfName(v, path);
        if (!Zamu::SubIntfId::isSubIntfId(id))
            fail(path, name(id) + " is not a sub-interface");
        const Zamu::IntfId parent = Zamu::SubIntfId::parentIntfId(id);
        const bool known = Zamu::PortChannelIntfId::isPortChannelIntfId(parent)
                               ? d_.lags.contains(parent)
                               : d_.portChip.contains(parent);
        if (!known)
            fail(path,
                 "unknown interface " + inQuotes(name(parent)) + ", the parent of " + name(id));
        if (d_.subIntfs.contains(id))
            fail(path, name(id) + " is already declared");
        d_.subIntfs.insert(id);
        d_.subIntfsSeen.insert(id);
        return id;
    }

    // ---- ACLs ----
    Acl::AclType aclType(const Json& v, const std::string& path) const {
        const std::string word = string(v, path);
        const std::optional<Acl::AclType> t = aclTypeNamed(word);
        if (!t)
            fail(path, "unknown ACL type " + inQuotes(word) + " (ip, ipv6 or mac)");
        return *t;
    }
    Acl::AclDirection direction(const Json& v, const std::string& path) const {
        const std::string word = string(v, path);
        const std::optional<Acl::AclDirection> d = aclDirectionNamed(word);
        if (!d)
            fail(path, "unknown direction " + inQuotes(word) + " (in or out)");
        return *d;
    }
    std::string aclName(const Json& v, const std::string& path) const {
        const std::string n = string(v, path);
        try {
            Acl::checkAclName(n);
        } catch (const std::exception& e) {
            fail(path, e.what());
        }
        return n;
    }
    RuleSpec rule(const Json& v, const std::string& path, Acl::AclType type) const {
        const std::string text = string(v, path);
        Acl::RuleTextResult r;
        try {
            r = Acl::parseRuleText(text, type);
        } catch (const std::exception& e) {
            fail(path, "rule " + inQuotes(text) + ": " + e.what());
        }
        if (!r.ok())
            fail(path, r.error);
        for (const std::string& note : r.rule->notes)
            notes_->push_back(path + ": " + note);
        return RuleSpec{r.rule->seq, r.rule->entry};
    }
    std::vector<RuleSpec> rules(const Json& v, const std::string& path, Acl::AclType type) const {
        std::map<uint32_t, RuleSpec> bySeq;
        forEachElement(v, path, [&](const Json& e, const std::string& ep) {
            RuleSpec r = rule(e, ep, type);
            if (bySeq.contains(r.seq))
                fail(ep, "sequence number " + std::to_string(r.seq) + " is used twice");
            bySeq.emplace(r.seq, std::move(r));
        });
        std::vector<RuleSpec> out;
        for (auto& [seq, r] : bySeq)
            out.push_back(std::move(r));
        return out;
    }
    AclSpec acl(const Json& v, const std::string& p) const {
        object(v, p);
        onlyFields(v, p, {"name", "type", "rules"});
        AclSpec a;
        a.ref.name = aclName(required(v, p, "name"), join(p, "name"));
        a.ref.type = aclType(required(v, p, "type"), join(p, "type"));
        if (const Json* f = field(v, "rules"))
            a.rules = rules(*f, join(p, "rules"), a.ref.type);
        return a;
    }
    void declareAcl(const AclSpec& a) {
        std::set<uint32_t>& seqs = d_.acls[a.ref];
        seqs.clear();
        for (const RuleSpec& r : a.rules)
            seqs.insert(r.seq);
    }
    // An ACL named by `nameKey` (and "type" when the name alone is ambiguous) that exists now.
    AclRef existingAcl(const Json& obj, const std::string& p, const char* nameKey) const {
        const std::string path = join(p, nameKey);
        const std::string n = aclName(required(obj, p, nameKey), path);
        if (const Json* t = field(obj, "type")) {
            const AclRef ref{n, aclType(*t, join(p, "type"))};
            if (!d_.acls.contains(ref))
                fail(path, "no ACL " + str(ref));
            return ref;
        }
        std::vector<AclRef> named;
        for (const auto& [ref, seqs] : d_.acls) {
            if (ref.name == n)
                named.push_back(ref);
        }
        if (named.empty())
            fail(path, "no ACL named " + inQuotes(n));
        if (named.size() > 1)
            fail(path, "ACL name " + inQuotes(n) + " is used by several types: give its 'type'");
        return named.front();
    }
    // `v` is a binding of the bindings list, or a step whose own fields were checked.
    BindingSpec binding(const Json& v, const std::string& p, bool inStep = false) const {
        object(v, p);
        if (!inStep)
            onlyFields(v, p, {"intf", "acl", "type", "direction"});
        BindingSpec b;
        b.intf = bindable(required(v, p, "intf"), join(p, "intf"));
        b.acl = existingAcl(v, p, "acl");
        b.direction = direction(required(v, p, "direction"), join(p, "direction"));
        return b;
    }

    // ---- Steps ----
    TimedStep step(const Json& v, const std::string& p, double previous) {
        object(v, p);
        TimedStep st;
        st.at = seconds(required(v, p, "at"), join(p, "at"));
        if (st.at < previous) {
            fail(join(p, "at"), number(st.at) + " s is before the previous step (" +
                                    number(previous) + " s): steps go in time order");
        }
        const std::string word = string(required(v, p, "do"), join(p, "do"));
        st.action = action(word, v, p);
        return st;
    }
    Action action(const std::string& word, const Json& v, const std::string& p) {
        if (word == "acl") {
            onlyFields(v, p, {"at", "do", "name", "type", "rules"});
            Json a = Json::object();
            for (const char* k : {"name", "type", "rules"}) {
                if (const Json* f = field(v, k))
                    a[k] = *f;
            }
            Step::SetAcl s{acl(a, p)};
            declareAcl(s.acl);
            return s;
        }
        if (word == "removeAcl") {
            onlyFields(v, p, {"at", "do", "acl", "type"});
            Step::RemoveAcl s{existingAcl(v, p, "acl")};
            d_.acls.erase(s.acl);
            return s;
        }
        if (word == "rule") {
            onlyFields(v, p, {"at", "do", "acl", "type", "rule"});
            Step::SetRule s;
            s.acl = existingAcl(v, p, "acl");
            s.rule = rule(required(v, p, "rule"), join(p, "rule"), s.acl.type);
            d_.acls[s.acl].insert(s.rule.seq);
            return s;
        }
        if (word == "removeRule") {
            onlyFields(v, p, {"at", "do", "acl", "type", "seq"});
            Step::RemoveRule s;
            s.acl = existingAcl(v, p, "acl");
            s.seq = whole(required(v, p, "seq"), join(p, "seq"), Acl::kMaxSequence);
            if (!d_.acls[s.acl].erase(s.seq)) {
                fail(join(p, "seq"), "ACL " + str(s.acl) + " has no rule " + std::to_string(s.seq));
            }
            return s;
        }
        if (word == "bind") {
            onlyFields(v, p, {"at", "do", "intf", "acl", "type", "direction"});
            Step::Bind s{binding(v, p, true)};
            d_.bound[{s.binding.intf, s.binding.acl.type, s.binding.direction}] =
                s.binding.acl.name;
            return s;
        }
        if (word == "unbind") {
            onlyFields(v, p, {"at", "do", "intf", "acl", "type", "direction"});
            Step::Unbind s;
            s.intf = intfName(required(v, p, "intf"), join(p, "intf"));
            if (field(v, "acl"))
                s.type = existingAcl(v, p, "acl").type;
            else
                s.type = aclType(required(v, p, "type"), join(p, "type"));
            s.direction = direction(required(v, p, "direction"), join(p, "direction"));
            if (!d_.bound.erase({s.intf, s.type, s.direction})) {
                fail(join(p, "intf"), "nothing is bound " + std::string(Acl::aclTypeName(s.type)) +
                                          " " + Acl::aclDirectionName(s.direction) + " on " +
                                          name(s.intf));
            }
            return s;
        }
        if (word == "addChip") {
            onlyFields(v, p, {"at", "do", "chip"});
            Step::AddChip s{chip(required(v, p, "chip"), join(p, "chip"))};
            declareChip(s.chip, join(p, "chip"));
            return s;
        }
        if (word == "removeChip") {
            onlyFields(v, p, {"at", "do", "chip"});
            Step::RemoveChip s{presentChip(required(v, p, "chip"), join(p, "chip"))};
            d_.chipPresent[s.chip] = false;
            for (auto& [port, c] : d_.portChip) {
                if (c == s.chip)
                    c.reset();
            }
            return s;
        }
        if (word == "movePort") {
            onlyFields(v, p, {"at", "do", "port", "chip"});
            Step::MovePort s;
            s.port = knownPort(required(v, p, "port"), join(p, "port"));
            if (const Json* c = field(v, "chip"); c && !c->is_null())
                s.chip = presentChip(*c, join(p, "chip"));
            d_.portChip[s.port] = s.chip;
            return s;
        }
        if (word == "vlanJoin" || word == "vlanLeave") {
            onlyFields(v, p, {"at", "do", "vlan", "port"});
            Step::VlanMember s;
            s.join = word == "vlanJoin";
            s.vlan = vlanId(required(v, p, "vlan"), join(p, "vlan"));
            s.port = knownPort(required(v, p, "port"), join(p, "port"));
            std::set<Zamu::IntfId>& members = d_.vlans[s.vlan];
            if (s.join && !members.insert(s.port).second)
                fail(join(p, "port"),
                     name(s.port) + " is already in VLAN " + number(s.vlan.value()));
            if (!s.join && !members.erase(s.port))
                fail(join(p, "port"), name(s.port) + " is not in VLAN " + number(s.vlan.value()));
            return s;
        }
        if (word == "lagJoin" || word == "lagLeave") {
            onlyFields(v, p, {"at", "do", "lag", "port"});
            Step::LagMember s;
            s.join = word == "lagJoin";
            s.lag = lagName(required(v, p, "lag"), join(p, "lag"));
            s.port = knownPort(required(v, p, "port"), join(p, "port"));
            if (s.join) {
                joinLag(s.lag, s.port, join(p, "port"));
            } else {
                if (!d_.lags[s.lag].erase(s.port))
                    fail(join(p, "port"), name(s.port) + " is not a member of " + name(s.lag));
                d_.lagOfPort.erase(s.port);
            }
            return s;
        }
        if (word == "addSubIntf" || word == "removeSubIntf") {
            onlyFields(v, p, {"at", "do", "intf"});
            Step::SubIntf s;
            s.add = word == "addSubIntf";
            if (s.add) {
                s.intf = newSubIntf(required(v, p, "intf"), join(p, "intf"));
            } else {
                s.intf = intfName(required(v, p, "intf"), join(p, "intf"));
                if (!d_.subIntfs.erase(s.intf))
                    fail(join(p, "intf"), "no sub-interface " + name(s.intf) + " is declared");
            }
            return s;
        }
        if (word == "fault") {
            onlyFields(v, p, {"at", "do", "chip", "fault"});
            Step::Fault s;
            s.chip = knownChip(required(v, p, "chip"), join(p, "chip"));
            const std::string text = string(required(v, p, "fault"), join(p, "fault"));
            try {
                s.fault = OvinMirel::TestAgentFault::parse(text);
            } catch (const std::exception& e) {
                fail(join(p, "fault"), e.what());
            }
            return s;
        }
        if (word == "allocMax") {
            onlyFields(v, p, {"at", "do", "chip", "max"});
            Step::AllocMax s;
            s.chip = presentChip(required(v, p, "chip"), join(p, "chip"));
            if (const Json& m = required(v, p, "max"); !m.is_null())
                s.max = whole(m, join(p, "max"), UINT32_MAX - 1);
            return s;
        }
        if (word == "run") {
            onlyFields(v, p, {"at", "do"});
            return Step::Run{};
        }
        if (word == "snapshot") {
            onlyFields(v, p, {"at", "do", "label"});
            return Step::Snapshot{string(required(v, p, "label"), join(p, "label"))};
        }
        fail(join(p, "do"),
             "unknown step " + inQuotes(word) +
                 " (acl, removeAcl, rule, removeRule, bind, unbind, addChip, removeChip, "
                 "movePort, vlanJoin, vlanLeave, lagJoin, lagLeave, addSubIntf, removeSubIntf, "
                 "fault, allocMax, run, snapshot)");
    }

    const std::string source_;
    Declared d_;
    std::vector<std::string>* notes_ = nullptr;
};

// Refuses duplicate fields while parsing (the JSON library would keep the last one silently),
// naming the path of the duplicate.
class DuplicateFieldCheck {
  public:
    explicit DuplicateFieldCheck(std::string source) : source_(std::move(source)) {}

    bool operator()(int /*depth*/, Json::parse_event_t event, Json& parsed) {
        switch (event) {
            case Json::parse_event_t::object_start:
                elementStarts();
                frames_.push_back(Frame{true, {}, {}, 0});
                break;
            case Json::parse_event_t::array_start:
                elementStarts();
                frames_.push_back(Frame{false, {}, {}, 0});
                break;
            case Json::parse_event_t::object_end:
            case Json::parse_event_t::array_end:
                frames_.pop_back();
                break;
            case Json::parse_event_t::key: {
                const std::string key = parsed.get<std::string>();
                Frame& top = frames_.back();
                top.key = key;
                if (!top.keys.insert(key).second)
                    throw ScenarioError(source_, path(), "the field is given twice");
                break;
            }
            case Json::parse_event_t::value:
                elementStarts();
                break;
        }
        return true;
    }

  private:
    struct Frame {
        bool object;
        std::set<std::string> keys;
        std::string key;  // objects: the latest key
        size_t count;     // arrays: elements begun
    };
    void elementStarts() {
        if (!frames_.empty() && !frames_.back().object)
            ++frames_.back().count;
    }
    std::string path() const {
        std::string out;
        for (const Frame& f : frames_)
            out = f.object ? join(out, f.key) : at(out, f.count - 1);
        return out;
    }
    const std::string source_;
    std::vector<Frame> frames_;
};

}  // namespace

ScenarioError::ScenarioError(std::string source, std::string path, std::string why)
    : std::runtime_error(path.empty() ? source + ": " + why : source + ": " + path + ": " + why),
      source_(std::move(source)),
      path_(std::move(path)),
      why_(std::move(why)) {}

ReadScenario readScenario(std::string_view text, std::string_view source) {
    const std::string src(source);
    Json root;
    try {
        root = Json::parse(text.begin(), text.end(), DuplicateFieldCheck(src));
    } catch (const Json::exception& e) {
        // "[json.exception.parse_error.101] parse error at line 2, column 3: ..." without the
        // library's tag; a number too large for a double is an out_of_range error.
        std::string why = e.what();
        if (const size_t tag = why.find("] ");
            why.starts_with("[json.") && tag != std::string::npos)
            why.erase(0, tag + 2);
        throw ScenarioError(src, "", why);
    }
    return Reader(src).read(root);
}

ReadScenario readScenarioFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw ScenarioError(path, "", "cannot open the file");
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad())
        throw ScenarioError(path, "", "cannot read the file");
    return readScenario(text.str(), path);
}

}  // namespace Sim
