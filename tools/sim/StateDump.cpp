#include "tools/sim/StateDump.h"

#include <nlohmann/json.hpp>

namespace Sim {

namespace {

// std::map underneath: fields come out sorted.
using Json = nlohmann::json;

template <class T>
Json optional(const std::optional<T>& v) {
    return v ? Json(*v) : Json(nullptr);
}

Json strings(const std::vector<std::string>& v) {
    Json out = Json::array();
    for (const std::string& s : v)
        out.push_back(s);
    return out;
}

Json reason(Reason r) {
    return r == Reason::none ? Json(nullptr) : Json(reasonWord(r));
}

Json chip(const ChipState& c) {
    Json out;
    out["id"] = c.id;
    out["present"] = c.present;
    out["ports"] = strings(c.ports);
    out["activeRoot"] = optional(c.activeRoot);
    out["error"] = optional(c.error);
    out["ruleListIdsExhausted"] = c.ruleListIdsExhausted;
    out["aclIds"] = Json::array();
    for (const AclIdRow& r : c.aclIds) {
        out["aclIds"].push_back({{"acl", r.acl},
                                 {"protocol", r.protocol},
                                 {"tableType", r.tableType},
                                 {"chipRuleListId", r.chipRuleListId},
                                 {"direction", r.direction},
                                 {"rules", r.rules}});
    }
    out["firstLevel"] = Json::array();
    for (const FirstLevelRow& r : c.firstLevel)
        out["firstLevel"].push_back({{"kind", r.kind}, {"place", r.place}, {"index", r.index}});
    out["secondLevel"] = Json::array();
    for (const SecondLevelRow& r : c.secondLevel) {
        out["secondLevel"].push_back({{"index", r.index},
                                      {"tableType", r.tableType},
                                      {"direction", r.direction},
                                      {"protocol", r.protocol},
                                      {"chipRuleListId", r.chipRuleListId},
                                      {"acl", r.acl.empty() ? Json(nullptr) : Json(r.acl)}});
    }
    out["hwAclIndexes"] = Json::array();
    for (const IndexShare& s : c.indexes) {
        out["hwAclIndexes"].push_back({{"pool", s.pool},
                                       {"index", s.index},
                                       {"places", strings(s.places)},
                                       {"shared", s.places.size() > 1}});
    }
    out["contention"] = strings(c.contention);
    out["waitingForIndex"] = strings(c.waitingForIndex);
    out["blocked"] = strings(c.blocked);
    out["capacity"] = Json::array();
    for (const TableUse& t : c.capacity) {
        out["capacity"].push_back({{"table", t.table},
                                   {"used", t.used},
                                   {"free", t.free},
                                   {"committed", t.committed},
                                   {"max", t.max}});
    }
    return out;
}

Json interface(const IntfState& i) {
    Json acls = Json::array();
    for (const AclVerdict& a : i.acls) {
        Json ports = Json::array();
        for (const PortVerdict& p : a.ports) {
            ports.push_back({{"port", p.port},
                             {"chip", optional(p.chip)},
                             {"inEffect", p.reason == Reason::none},
                             {"reason", reason(p.reason)},
                             {"detail", p.detail}});
        }
        acls.push_back({{"acl", a.acl},
                        {"inEffect", a.reason == Reason::none},
                        {"reason", reason(a.reason)},
                        {"detail", a.detail},
                        {"ports", ports}});
    }
    return {{"intf", i.intf}, {"acls", acls}};
}

Json cycle(const CycleRecord& c) {
    Json errors = Json::array();
    for (const auto& [chip, e] : c.chipErrors)
        errors.push_back({{"chip", chip}, {"error", e}});
    return {{"number", c.number},
            {"start", c.start},
            {"end", c.finished ? Json(c.end) : Json(nullptr)},
            {"finished", c.finished},
            {"states", strings(c.states)},
            {"outcome", c.finished ? Json(c.outcome) : Json(nullptr)},
            {"chips", c.chips},
            {"chipErrors", errors},
            {"blocked", strings(c.blocked)}};
}

// The switch's state: the fields of the dump's top level, and of each snapshot's "state".
void state(Json& out, const SwitchState& s) {
    out["glue"] = {{"state", s.glueState}, {"lastResult", s.lastResult}};
    out["chips"] = Json::array();
    for (const ChipState& c : s.chips)
        out["chips"].push_back(chip(c));
    out["interfaces"] = Json::array();
    for (const IntfState& i : s.interfaces)
        out["interfaces"].push_back(interface(i));
    out["acls"] = Json::array();
    for (const AclOutcome& a : s.acls) {
        out["acls"].push_back(
            {{"acl", a.acl}, {"state", a.state}, {"result", a.result}, {"error", a.error}});
    }
    out["blocked"] = strings(s.blocked);
}

}  // namespace

std::string writeDump(const RunResult& r) {
    Json out;
    out["format"] = kDumpFormat;
    out["scenario"] = r.scenario;
    out["endTime"] = r.endTime;
    out["exitStatus"] = r.exitStatus();
    out["violation"] = optional(r.violation);
    out["steps"] = Json::array();
    for (const StepRecord& s : r.steps)
        out["steps"].push_back(
            {{"index", s.index}, {"at", s.at}, {"do", s.word}, {"what", s.text}});
    out["cycles"] = Json::array();
    for (const CycleRecord& c : r.cycles)
        out["cycles"].push_back(cycle(c));
    out["logs"] = Json::array();
    for (const LogRecord& l : r.logs)
        out["logs"].push_back({{"time", l.time}, {"id", l.id}, {"text", l.text}});
    out["snapshots"] = Json::array();
    for (const SnapshotRecord& s : r.snapshots) {
        Json snap = {{"at", s.at}, {"label", s.label}};
        state(snap["state"], s.state);
        out["snapshots"].push_back(snap);
    }
    state(out, r.state);
    return out.dump(2) + "\n";
}

}  // namespace Sim
