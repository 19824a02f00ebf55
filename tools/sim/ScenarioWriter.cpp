#include "tools/sim/ScenarioWriter.h"

#include <sstream>

#include <nlohmann/json.hpp>

#include "platform/ovin/AclRuleText.h"

namespace Sim {

namespace {

using Json = nlohmann::ordered_json;

template <class... F>
struct Overloaded : F... {
    using F::operator()...;
};
// Spelt out for compilers without aggregate deduction (clang before 17, used by the fuzz build).
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

Json names(const std::vector<Zamu::IntfId>& ids) {
    Json out = Json::array();
    for (const Zamu::IntfId& i : ids)
        out.push_back(i.name());
    return out;
}

Json chip(const ChipSpec& c) {
    const ChipSpec d;
    Json out = Json::object();
    out["id"] = c.id;
    if (c.ruleListIdMax != d.ruleListIdMax)
        out["ruleListIdMax"] = c.ruleListIdMax;
    if (c.ruleListIdReserved != d.ruleListIdReserved)
        out["ruleListIdReserved"] = c.ruleListIdReserved;
    if (c.splitOnProtocol != d.splitOnProtocol)
        out["splitOnProtocol"] = c.splitOnProtocol;
    if (c.hwAclIndexMax != d.hwAclIndexMax)
        out["hwAclIndexMax"] = c.hwAclIndexMax;
    if (c.hwAclIndexReserved != d.hwAclIndexReserved)
        out["hwAclIndexReserved"] = c.hwAclIndexReserved;
    if (c.combinations != d.combinations) {
        Json combos = Json::array();
        for (uint16_t m : c.combinations)
            combos.push_back(aclKindWords(m));
        out["combinations"] = combos;
    }
    if (c.tcamEntries != d.tcamEntries)
        out["tcamEntries"] = c.tcamEntries;
    if (c.xformEntries != d.xformEntries)
        out["xformEntries"] = c.xformEntries;
    if (c.allocMax)
        out["allocMax"] = *c.allocMax;
    out["ports"] = names(c.ports);
    return out;
}

Json rules(const std::vector<RuleSpec>& rs) {
    Json out = Json::array();
    for (const RuleSpec& r : rs)
        out.push_back(Acl::ruleText(r.seq, r.entry));
    return out;
}

void aclFields(Json& out, const AclSpec& a) {
    out["name"] = a.ref.name;
    out["type"] = Acl::aclTypeName(a.ref.type);
    out["rules"] = rules(a.rules);
}

void bindingFields(Json& out, const BindingSpec& b) {
    out["intf"] = b.intf.name();
    out["acl"] = b.acl.name;
    out["type"] = Acl::aclTypeName(b.acl.type);
    out["direction"] = Acl::aclDirectionName(b.direction);
}

std::string faultText(const OvinMirel::TestAgentFault& f) {
    std::ostringstream os;
    os << f;
    return os.str();
}

Json step(const TimedStep& st) {
    Json out = Json::object();
    out["at"] = st.at;
    out["do"] = actionWord(st.action);
    std::visit(Overloaded{
                   [&](const Step::SetAcl& s) { aclFields(out, s.acl); },
                   [&](const Step::RemoveAcl& s) {
                       out["acl"] = s.acl.name;
                       out["type"] = Acl::aclTypeName(s.acl.type);
                   },
                   [&](const Step::SetRule& s) {
                       out["acl"] = s.acl.name;
                       out["type"] = Acl::aclTypeName(s.acl.type);
                       out["rule"] = Acl::ruleText(s.rule.seq, s.rule.entry);
                   },
                   [&](const Step::RemoveRule& s) {
                       out["acl"] = s.acl.name;
                       out["type"] = Acl::aclTypeName(s.acl.type);
                       out["seq"] = s.seq;
                   },
                   [&](const Step::Bind& s) { bindingFields(out, s.binding); },
                   [&](const Step::Unbind& s) {
                       out["intf"] = s.intf.name();
                       out["type"] = Acl::aclTypeName(s.type);
                       out["direction"] = Acl::aclDirectionName(s.direction);
                   },
                   [&](const Step::AddChip& s) { out["chip"] = chip(s.chip); },
                   [&](const Step::RemoveChip& s) { out["chip"] = s.chip; },
                   [&](const Step::MovePort& s) {
                       out["port"] = s.port.name();
                       out["chip"] = s.chip ? Json(*s.chip) : Json(nullptr);
                   },
                   [&](const Step::VlanMember& s) {
                       out["vlan"] = s.vlan.value();
                       out["port"] = s.port.name();
                   },
                   [&](const Step::LagMember& s) {
                       out["lag"] = s.lag.name();
                       out["port"] = s.port.name();
                   },
                   [&](const Step::SubIntf& s) { out["intf"] = s.intf.name(); },
                   [&](const Step::Fault& s) {
                       out["chip"] = s.chip;
                       out["fault"] = faultText(s.fault);
                   },
                   [&](const Step::AllocMax& s) {
                       out["chip"] = s.chip;
                       out["max"] = s.max ? Json(*s.max) : Json(nullptr);
                   },
                   [&](const Step::Run&) {},
                   [&](const Step::Snapshot& s) { out["label"] = s.label; },
               },
               st.action);
    return out;
}

}  // namespace

std::string writeScenario(const Scenario& s) {
    Json out = Json::object();
    if (!s.name.empty())
        out["name"] = s.name;
    if (!s.description.empty())
        out["description"] = s.description;
    if (s.routedPortRaclSharing)
        out["routedPortRaclSharing"] = true;
    if (s.tcpFlags != Acl::kAllTcpFlags)
        out["tcpFlags"] = tcpFlagWords(s.tcpFlags);
    if (!s.establishedSupported)
        out["establishedSupported"] = false;
    if (s.blockDuringUpdate)
        out["blockDuringUpdate"] = true;
    if (s.end)
        out["end"] = *s.end;
    out["chips"] = Json::array();
    for (const ChipSpec& c : s.chips)
        out["chips"].push_back(chip(c));
    out["vlans"] = Json::array();
    for (const VlanSpec& v : s.vlans)
        out["vlans"].push_back(Json{{"id", v.id.value()}, {"members", names(v.members)}});
    out["lags"] = Json::array();
    for (const LagSpec& l : s.lags)
        out["lags"].push_back(Json{{"name", l.lag.name()}, {"members", names(l.members)}});
    out["subInterfaces"] = names(s.subInterfaces);
    out["acls"] = Json::array();
    for (const AclSpec& a : s.acls) {
        Json acl = Json::object();
        aclFields(acl, a);
        out["acls"].push_back(acl);
    }
    out["bindings"] = Json::array();
    for (const BindingSpec& b : s.bindings) {
        Json binding = Json::object();
        bindingFields(binding, b);
        out["bindings"].push_back(binding);
    }
    out["steps"] = Json::array();
    for (const TimedStep& st : s.steps)
        out["steps"].push_back(step(st));
    return out.dump(2) + "\n";
}

}  // namespace Sim
