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

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
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

// The rules of a list as its readers walk them: a whole shared vector of entries, or the
// entries at some of its positions (ascending). A list that holds one protocol class of a split
// ACL picks its rules out of the store's storage instead of copying them.
template <class Entry>
class RuleSpan {
  public:
    class iterator {
      public:
        using value_type = Entry;
        using difference_type = std::ptrdiff_t;
        iterator() = default;
        iterator(const Entry* rules, const uint32_t* picked, size_t i)
            : rules_(rules), picked_(picked), i_(i) {}
        const Entry& operator*() const { return rules_[picked_ ? picked_[i_] : i_]; }
        const Entry* operator->() const { return &**this; }
        iterator& operator++() {
            ++i_;
            return *this;
        }
        iterator operator++(int) {
            iterator old = *this;
            ++i_;
            return old;
        }
        bool operator==(const iterator& o) const { return i_ == o.i_; }

      private:
        const Entry* rules_ = nullptr;
        const uint32_t* picked_ = nullptr;  // null: every entry in turn
        size_t i_ = 0;
    };

    // picked: positions in rules, or null for all of them.
    RuleSpan(const std::vector<Entry>& rules, const std::vector<uint32_t>* picked)
        : rules_(rules), picked_(picked) {}
    size_t size() const { return picked_ ? picked_->size() : rules_.size(); }
    bool empty() const { return size() == 0; }
    iterator begin() const { return {rules_.data(), picked(), 0}; }
    iterator end() const { return {rules_.data(), picked(), size()}; }
    const Entry& operator[](size_t i) const { return *iterator(rules_.data(), picked(), i); }
    bool operator==(const RuleSpan& o) const {
        return size() == o.size() && std::equal(begin(), end(), o.begin());
    }

  private:
    const uint32_t* picked() const { return picked_ ? picked_->data() : nullptr; }
    const std::vector<Entry>& rules_;
    const std::vector<uint32_t>* picked_;
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
    // The entries of shared rules at the positions picked, without a copy. REQUIRES: rules not
    // null, picked strictly ascending and within rules (asserted).
    static Vorn::Ptr<const AclRuleList> sharedIpList(IpRules rules, std::vector<uint32_t> picked);
    // The one shared empty list (kind none).
    static const Vorn::Ptr<const AclRuleList>& emptyList();

    uint64_t version() const { return version_; }
    // none only for an empty list.
    Kind kind() const { return kind_; }
    RuleSpan<IpEntry> ipRules() const { return {*ipRules_, picked_ ? &*picked_ : nullptr}; }
    RuleSpan<MacEntry> macRules() const { return {*macRules_, nullptr}; }
    size_t size() const { return ipRules().size() + macRules_->size(); }
    bool empty() const { return size() == 0; }

    // Same rules at the same indexes. The same object is equal without a look at the rules.
    bool sameRules(const AclRuleList& other) const;
    // Computed on first use, then cached for the list's life.
    const AclRuleListNeeds& needs() const;

  private:
    AclRuleList(Kind kind, IpRules ipRules, MacRules macRules,
                std::optional<std::vector<uint32_t>> picked = std::nullopt);

    const uint64_t version_;
    const Kind kind_;
    const IpRules ipRules_;  // never null
    const MacRules macRules_;
    // The positions of ipRules_ the list holds; none: all of them.
    const std::optional<std::vector<uint32_t>> picked_;
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
