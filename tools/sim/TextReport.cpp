#include "tools/sim/TextReport.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

namespace Sim {

namespace {

std::string time(double t) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%9.3f", t);
    return buf;
}

std::string seconds(double t) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f s", t);
    return buf;
}

std::string plural(size_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

std::string joined(const std::vector<std::string>& v, const char* sep = " ") {
    std::string out;
    for (const std::string& s : v)
        out += (out.empty() ? "" : sep) + s;
    return out.empty() ? "none" : out;
}

std::string padded(std::string s, size_t width) {
    if (s.size() < width)
        s.append(width - s.size(), ' ');
    return s;
}

// The ACL table types by their number.
const char* tableName(uint32_t t) {
    static const char* const names[] = {"invalid", "v4 port",   "v4 router",
                                        "v6 port", "v6 router", "mac"};
    return t < std::size(names) ? names[t] : "?";
}

void summary(std::ostream& os, const Scenario& s) {
    size_t ports = 0;
    for (const ChipSpec& c : s.chips)
        ports += c.ports.size();
    os << "ovinmirel-sim: " << (s.name.empty() ? "scenario" : s.name) << "\n  "
       << plural(s.chips.size(), "chip", "chips") << ", " << plural(ports, "port", "ports") << ", "
       << plural(s.vlans.size(), "VLAN", "VLANs") << ", "
       << plural(s.lags.size(), "port-channel", "port-channels") << ", "
       << plural(s.subInterfaces.size(), "sub-interface", "sub-interfaces") << ", "
       << plural(s.acls.size(), "ACL", "ACLs") << ", "
       << plural(s.bindings.size(), "binding", "bindings") << ", "
       << plural(s.steps.size(), "step", "steps") << "\n\n";
}

void timeline(std::ostream& os, const RunResult& r) {
    // (time, kind, sequence, text): at one time, steps come before the cycles they start and
    // cycles before the messages logged in them.
    std::vector<std::tuple<double, int, size_t, std::string>> lines;
    for (const StepRecord& s : r.steps)
        lines.emplace_back(s.at, 0, s.index, "step " + std::to_string(s.index) + ": " + s.text);
    for (const CycleRecord& c : r.cycles) {
        std::string line = "cycle " + std::to_string(c.number) + ": " + joined(c.states);
        if (c.finished) {
            line += " -> " + c.outcome;
            if (c.end != c.start)
                line += " (ends at " + seconds(c.end) + ")";
        } else {
            line += " -> did not finish";
        }
        std::vector<std::string> chips;
        for (uint32_t chip : c.chips)
            chips.push_back(std::to_string(chip));
        if (!chips.empty())
            line += "; chips " + joined(chips, ", ");
        for (const auto& [chip, e] : c.chipErrors)
            line += "; chip " + std::to_string(chip) + " error " + e;
        if (!c.blocked.empty())
            line += "; blocked " + joined(c.blocked);
        lines.emplace_back(c.start, 1, c.number, line);
    }
    for (size_t i = 0; i < r.logs.size(); ++i)
        lines.emplace_back(r.logs[i].time, 2, i, "log " + r.logs[i].id + ": " + r.logs[i].text);
    std::stable_sort(lines.begin(), lines.end(), [](const auto& a, const auto& b) {
        return std::tie(std::get<0>(a), std::get<1>(a), std::get<2>(a)) <
               std::tie(std::get<0>(b), std::get<1>(b), std::get<2>(b));
    });
    os << "Timeline (virtual seconds)\n";
    os << time(0.0) << "  start\n";
    for (const auto& [t, kind, seq, text] : lines)
        os << time(t) << "  " << text << "\n";
    os << time(r.endTime) << "  end\n\n";
}

void chip(std::ostream& os, const ChipState& c) {
    os << "  chip " << c.id << ": " << (c.present ? "present" : "gone");
    if (c.activeRoot)
        os << ", active root " << *c.activeRoot;
    else
        os << ", no active root";
    if (c.error)
        os << ", error " << *c.error;
    if (c.ruleListIdsExhausted)
        os << ", chip rule list ids exhausted";
    os << "\n    ports: " << joined(c.ports) << "\n";
    if (!c.aclIds.empty()) {
        os << "    rule lists of the active root:\n"
           << "      list  table      dir  protocol  rules  ACL\n";
        for (const AclIdRow& r : c.aclIds) {
            os << "      " << padded(std::to_string(r.chipRuleListId), 5) << " "
               << padded(tableName(r.tableType), 10) << " " << padded(r.direction, 4) << " "
               << padded(r.protocol, 9) << " " << padded(std::to_string(r.rules), 6) << " " << r.acl
               << "\n";
        }
    }
    if (!c.indexes.empty()) {
        os << "    hardware ACL indexes (1st level: place -> index):\n"
           << "      pool    index  places\n";
        for (const IndexShare& s : c.indexes) {
            os << "      " << padded(s.pool, 7) << " " << padded(std::to_string(s.index), 6) << " "
               << joined(s.places);
            if (s.places.size() > 1)
                os << "   (shared by " << s.places.size() << ")";
            os << "\n";
        }
    }
    if (!c.secondLevel.empty()) {
        os << "    rule lists run per index (2nd level):\n"
           << "      index  table      dir  protocol  list  ACL\n";
        for (const SecondLevelRow& r : c.secondLevel) {
            os << "      " << padded(std::to_string(r.index), 6) << " "
               << padded(tableName(r.tableType), 10) << " " << padded(r.direction, 4) << " "
               << padded(r.protocol, 9) << " " << padded(std::to_string(r.chipRuleListId), 5) << " "
               << (r.acl.empty() ? "(no ACL of the active root)" : r.acl) << "\n";
        }
    }
    if (!c.contention.empty())
        os << "    ACLs left out by the policy on: " << joined(c.contention) << "\n";
    if (!c.waitingForIndex.empty())
        os << "    waiting for a hardware ACL index: " << joined(c.waitingForIndex) << "\n";
    os << "    blocked: " << joined(c.blocked) << "\n";
    const bool polled = std::any_of(c.capacity.begin(), c.capacity.end(),
                                    [](const TableUse& t) { return t.max > 0; });
    if (!c.capacity.empty() && !polled) {
        os << "    capacity: not polled since the chip's first root was loaded\n";
    } else if (!c.capacity.empty()) {
        std::vector<std::string> uses;
        for (const TableUse& t : c.capacity)
            uses.push_back(t.table + " " + std::to_string(t.used) + "/" + std::to_string(t.max));
        os << "    capacity: " << joined(uses, ", ") << "\n";
    }
}

void interfaces(std::ostream& os, const std::vector<IntfState>& intfs) {
    os << "Interfaces\n";
    if (intfs.empty())
        os << "  no ACL is bound\n";
    for (const IntfState& i : intfs) {
        os << "  " << i.intf << "\n";
        for (const AclVerdict& a : i.acls) {
            if (a.reason == Reason::none) {
                std::vector<std::string> ports;
                for (const PortVerdict& p : a.ports)
                    ports.push_back(p.port);
                os << "    in effect  " << padded(a.acl, 26) << " on " << joined(ports) << "\n";
            } else {
                os << "    left out   " << padded(a.acl, 26) << " " << reasonWord(a.reason) << ": "
                   << a.detail << "\n";
            }
        }
    }
    os << "\n";
}

void switchState(std::ostream& os, const SwitchState& s) {
    os << "Chips\n";
    for (const ChipState& c : s.chips)
        chip(os, c);
    os << "\n";
    interfaces(os, s.interfaces);
}

}  // namespace

void printReport(std::ostream& os, const Scenario& scenario, const RunResult& r) {
    summary(os, scenario);
    timeline(os, r);
    for (const SnapshotRecord& s : r.snapshots) {
        os << "==== Snapshot '" << s.label << "' at " << s.at << " s ====\n";
        switchState(os, s.state);
    }
    if (!r.snapshots.empty())
        os << "==== At the end, " << r.endTime << " s ====\n";
    switchState(os, r.state);
    os << "ACL outcomes reported to the engine\n";
    if (r.state.acls.empty())
        os << "  none\n";
    for (const AclOutcome& a : r.state.acls) {
        os << "  " << padded(a.acl, 28) << " " << a.state;
        if (a.state == "failed")
            os << " (" << a.result << "): " << a.error;
        os << "\n";
    }
    os << "\n";
    if (r.violation)
        os << "Invariant violation: " << *r.violation << "\n";
    if (r.cycles.empty()) {
        os << "Result: no commit cycle ran; exit status " << r.exitStatus() << "\n";
    } else {
        const CycleRecord& last = r.cycles.back();
        os << "Result: last cycle " << last.number << " "
           << (last.finished ? last.outcome : std::string("did not finish")) << "; glue "
           << r.state.glueState << "; exit status " << r.exitStatus() << "\n";
    }
}

}  // namespace Sim
