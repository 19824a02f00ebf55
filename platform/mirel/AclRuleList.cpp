#include "platform/mirel/AclRuleList.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <set>
#include <sstream>

#include "platform/vorn/Assert.h"

namespace Mirel {

namespace {

uint64_t nextVersion = 1;

bool matchesEveryAddress(const Zamu::IpAddr& mask) {
    return std::ranges::all_of(mask.bytes(), [](uint8_t b) { return b == 0; });
}

bool matchesEveryAddress(const Zamu::EthAddr& mask) {
    return std::ranges::all_of(mask.bytes(), [](uint8_t b) { return b == 0; });
}

template <class Entry>
bool strictlyAscending(const std::vector<Entry>& rules) {
    return std::ranges::adjacent_find(rules, [](const Entry& a, const Entry& b) {
               return !(a.first < b.first);
           }) == rules.end();
}

using ValueSets = std::array<std::set<std::string>, kXformTypeCount>;

void addIpValues(const IpRuleConfig& rule, ValueSets& values) {
    const IpRuleFilter& f = rule.filter;
    if (!matchesEveryAddress(f.source.mask))
        values[f.ipv6 ? xformSrcIpV6Prefix_ : xformSrcIpV4Prefix_].insert(xformText(f.source));
    if (!matchesEveryAddress(f.destination.mask)) {
        values[f.ipv6 ? xformDstIpV6Prefix_ : xformDstIpV4Prefix_].insert(xformText(f.destination));
    }
    if (!rule.sourcePort.isFull())
        values[xformSrcPortRange_].insert(xformText(rule.sourcePort));
    if (!rule.destinationPort.isFull())
        values[xformDstPortRange_].insert(xformText(rule.destinationPort));
}

void addMacValues(const MacRuleConfig& rule, ValueSets& values) {
    if (!matchesEveryAddress(rule.sourceMask))
        values[xformSrcMacAddr_].insert(xformText(rule.source, rule.sourceMask));
    if (!matchesEveryAddress(rule.destinationMask))
        values[xformDstMacAddr_].insert(xformText(rule.destination, rule.destinationMask));
    if (rule.matchEtherType)
        values[xformMacEtherType_].insert(etherTypeXformText(rule.etherType));
}

}  // namespace

AclRuleList::AclRuleList(Kind kind, IpRules ipRules, MacRules macRules,
                         std::optional<std::vector<uint32_t>> picked)
    : version_(nextVersion++),
      kind_(kind),
      ipRules_(std::move(ipRules)),
      macRules_(std::move(macRules)),
      picked_(std::move(picked)) {}

namespace {

template <class Entry>
const std::shared_ptr<const std::vector<Entry>>& noRules() {
    static const auto kNone = std::make_shared<const std::vector<Entry>>();
    return kNone;
}

}  // namespace

Vorn::Ptr<const AclRuleList> AclRuleList::ipList(std::vector<IpEntry> rules) {
    VORN_ASSERT(strictlyAscending(rules));
    if (rules.empty())
        return emptyList();
    return Vorn::Ptr<const AclRuleList>(
        new AclRuleList(Kind::ip, std::make_shared<const std::vector<IpEntry>>(std::move(rules)),
                        noRules<MacEntry>()));
}

Vorn::Ptr<const AclRuleList> AclRuleList::macList(std::vector<MacEntry> rules) {
    VORN_ASSERT(strictlyAscending(rules));
    if (rules.empty())
        return emptyList();
    return Vorn::Ptr<const AclRuleList>(
        new AclRuleList(Kind::mac, noRules<IpEntry>(),
                        std::make_shared<const std::vector<MacEntry>>(std::move(rules))));
}

Vorn::Ptr<const AclRuleList> AclRuleList::sharedIpList(IpRules rules) {
    VORN_ASSERT(rules && strictlyAscending(*rules));
    if (rules->empty())
        return emptyList();
    return Vorn::Ptr<const AclRuleList>(
        new AclRuleList(Kind::ip, std::move(rules), noRules<MacEntry>()));
}

Vorn::Ptr<const AclRuleList> AclRuleList::sharedIpList(IpRules rules,
                                                       std::vector<uint32_t> picked) {
    VORN_ASSERT(rules && strictlyAscending(*rules));
    VORN_ASSERT(std::ranges::adjacent_find(picked, std::greater_equal<>()) == picked.end() &&
                (picked.empty() || picked.back() < rules->size()));
    if (picked.empty())
        return emptyList();
    picked.shrink_to_fit();  // the list keeps it as long as it lives
    return Vorn::Ptr<const AclRuleList>(
        new AclRuleList(Kind::ip, std::move(rules), noRules<MacEntry>(), std::move(picked)));
}

Vorn::Ptr<const AclRuleList> AclRuleList::sharedMacList(MacRules rules) {
    VORN_ASSERT(rules && strictlyAscending(*rules));
    if (rules->empty())
        return emptyList();
    return Vorn::Ptr<const AclRuleList>(
        new AclRuleList(Kind::mac, noRules<IpEntry>(), std::move(rules)));
}

const Vorn::Ptr<const AclRuleList>& AclRuleList::emptyList() {
    static const Vorn::Ptr<const AclRuleList> empty(
        new AclRuleList(Kind::none, noRules<IpEntry>(), noRules<MacEntry>()));
    return empty;
}

bool AclRuleList::sameRules(const AclRuleList& other) const {
    if (this == &other ||
        (ipRules_ == other.ipRules_ && macRules_ == other.macRules_ && picked_ == other.picked_))
        return true;
    return ipRules() == other.ipRules() && macRules() == other.macRules();
}

const AclRuleListNeeds& AclRuleList::needs() const {
    if (needs_)
        return *needs_;
    auto needs = std::make_unique<AclRuleListNeeds>();
    ValueSets values;
    for (const auto& [index, rule] : ipRules()) {
        needs->tcamEntries += rule.filter.ipv6 ? 2 : 1;
        addIpValues(rule, values);
    }
    for (const auto& [index, rule] : macRules()) {
        needs->tcamEntries += 1;
        addMacValues(rule, values);
    }
    for (int t = 0; t < kXformTypeCount; ++t)
        needs->xformValues[t].assign(values[t].begin(), values[t].end());
    needs_ = std::move(needs);
    return *needs_;
}

bool isTcpRule(const IpRuleConfig& rule) {
    return rule.filter.matchProtocol && rule.filter.protocol == Zamu::IpProto(Zamu::IpProto::kTcp);
}

namespace {

// What a value prints as. One stream serves every call: setting a stream up (its locale) costs
// more than the printing, and a new list's needs print each of its rules' values.
template <class T>
std::string printed(const T& value) {
    static thread_local std::ostringstream os;
    os.str({});
    os.clear();
    os << value;
    return os.str();
}

}  // namespace

std::string xformText(const Zamu::IpAddrWithMask& prefix) {
    // Host bits do not select anything: 10.1.2.3/16 and 10.1.0.0/16 are one class.
    return printed(prefix.subnet());
}

std::string xformText(const L4PortRange& range) {
    return printed(range);
}

std::string xformText(const Zamu::EthAddr& addr, const Zamu::EthAddr& mask) {
    char text[18];
    const auto& a = addr.bytes();
    const auto& m = mask.bytes();
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", a[0] & m[0], a[1] & m[1],
                  a[2] & m[2], a[3] & m[3], a[4] & m[4], a[5] & m[5]);
    return std::string(text) + "/" + mask.str();
}

std::string etherTypeXformText(uint16_t etherType) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%04x", etherType);
    return text;
}

std::ostream& operator<<(std::ostream& os, const AclRuleList& list) {
    os << "AclRuleList{version=" << list.version() << ", ";
    switch (list.kind()) {
        case AclRuleList::Kind::none:
            os << "empty";
            break;
        case AclRuleList::Kind::ip:
            os << "ip";
            break;
        case AclRuleList::Kind::mac:
            os << "mac";
            break;
    }
    return os << ", " << list.size() << " rules}";
}

}  // namespace Mirel
