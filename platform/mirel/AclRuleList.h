#pragma once
// Mirel::AclRuleList: the rules of one chip rule list as an immutable value, shared by the ACL
// store and every root that programs them.
//
// A list holds the (AceIndex, rule) pairs of one ACL (or of one protocol class of a split ACL)
// in AceIndex order, IP rules or MAC rules, never both. The pairs may be shared with the
// store, whose rule collection hands out its storage as an immutable snapshot. It is built once and
// shared through Vorn::Ptr<const AclRuleList>; nothing changes it afterwards, so a root that holds
// it holds exactly the rules it was built with, and a commit cycle that leaves an ACL alone passes
// the same list on without copying a rule.
//
// Identity and version: every list built gets the next version number of the process (build
// order, so runs are repeatable). Two lists are the same list when they are the same object;
// equal lists (sameRules) may have different identities.
//
// What a root computation needs of a list (its TCAM entries and the distinct values of each
// field transform) is derived on first use and cached with the list.

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/mirel/AclRule.h"
#include "platform/mirel/PDConfig.h"
#include "platform/vorn/Ptr.h"

namespace Mirel {

// What one list asks of a chip.
struct AclRuleListNeeds {
    // TCAM entries: one per IPv4 or MAC rule, two per IPv6 rule (its key is twice as wide).
    // Port ranges and prefixes go through the field transforms, so no rule expands.
    uint32_t tcamEntries = 0;
    // Per transform, the distinct field values the rules match on, as the transform's text
    // ("10.1.0.0/16", "80-443", "0x0800", "00:11:22:00:00:00/ff:ff:ff:00:00:00"), sorted.
    // A field a rule does not match (a zero mask, a full port range) needs no value.
    std::array<std::vector<std::string>, kXformTypeCount> xformValues;
};

class AclRuleList : public Vorn::PtrInterface {
  public:
    using IpEntry = std::pair<AceIndex, IpRuleConfig>;
    using MacEntry = std::pair<AceIndex, MacRuleConfig>;
    enum class Kind : uint8_t { none, ip, mac };

    using IpRules = std::shared_ptr<const std::vector<IpEntry>>;
    using MacRules = std::shared_ptr<const std::vector<MacEntry>>;

    // REQUIRES: the entries are in strictly ascending AceIndex order (asserted).
    static Vorn::Ptr<const AclRuleList> ipList(std::vector<IpEntry> rules);
    static Vorn::Ptr<const AclRuleList> macList(std::vector<MacEntry> rules);
    // The same, holding rules that something else holds too (the store's snapshot of its
    // rules), without a copy. REQUIRES: not null.
    static Vorn::Ptr<const AclRuleList> sharedIpList(IpRules rules);
    static Vorn::Ptr<const AclRuleList> sharedMacList(MacRules rules);
    // The one shared empty list (kind none).
    static const Vorn::Ptr<const AclRuleList>& emptyList();

    uint64_t version() const { return version_; }
    // none only for an empty list.
    Kind kind() const { return kind_; }
    const std::vector<IpEntry>& ipRules() const { return *ipRules_; }
    const std::vector<MacEntry>& macRules() const { return *macRules_; }
    size_t size() const { return ipRules_->size() + macRules_->size(); }
    bool empty() const { return size() == 0; }

    // Same rules at the same indexes. The same object is equal without a look at the rules.
    bool sameRules(const AclRuleList& other) const;
    // Computed on first use, then cached for the list's life.
    const AclRuleListNeeds& needs() const;

  private:
    AclRuleList(Kind kind, IpRules ipRules, MacRules macRules);

    const uint64_t version_;
    const Kind kind_;
    const IpRules ipRules_;  // never null
    const MacRules macRules_;
    // A cache of values derived from the constant rules, not state: filling it changes nothing
    // a reader can see.
    mutable std::unique_ptr<const AclRuleListNeeds> needs_;
};

using AclRuleListPtr = Vorn::Ptr<const AclRuleList>;

// A rule that belongs in the TCP list of an ACL split by protocol: it matches protocol 6.
bool isTcpRule(const IpRuleConfig& rule);

// The transform texts of single field values, as AclRuleListNeeds lists them.
std::string xformText(const Zamu::IpAddrWithMask& prefix);
std::string xformText(const L4PortRange& range);
std::string xformText(const Zamu::EthAddr& addr, const Zamu::EthAddr& mask);
std::string etherTypeXformText(uint16_t etherType);

// "AclRuleList{version=4, ip, 3 rules}"
std::ostream& operator<<(std::ostream& os, const AclRuleList& list);

}  // namespace Mirel
