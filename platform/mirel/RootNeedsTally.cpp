#include "platform/mirel/RootNeedsTally.h"

#include "platform/mirel/Root.h"
#include "platform/vorn/Assert.h"

namespace Mirel {

RootNeeds RootNeedsTally::update(const RootConfig& root) {
    auto counted = lists_.begin();
    for (const auto& [aclId, hwAcl] : root.acl()) {
        const AclRuleListPtr& list = hwAcl->ruleList();
        while (counted != lists_.end() && counted->first < aclId) {
            count(*counted->second, -1);
            counted = lists_.erase(counted);
        }
        if (counted != lists_.end() && counted->first == aclId) {
            // The same object has the same values: nothing moves.
            if (counted->second != list) {
                count(*counted->second, -1);
                count(*list, +1);
                counted->second = list;
            }
            ++counted;
            continue;
        }
        count(*list, +1);
        lists_.emplace_hint(counted, aclId, list);
    }
    while (counted != lists_.end()) {
        count(*counted->second, -1);
        counted = lists_.erase(counted);
    }

    RootNeeds needs;
    needs.tcamEntries = tcamEntries_;
    needs.ruleLists = uint32_t(lists_.size());
    for (int t = 0; t < kXformTypeCount; ++t) {
        std::vector<std::string>& out = needs.xformValues[t];
        out.reserve(values_[t].size());
        for (const auto& entry : values_[t])
            out.push_back(entry.first);
        needs.xformEntries += uint32_t(out.size());
    }
    return needs;
}

uint32_t RootNeedsTally::listsMatching(XformType t, const std::string& value) const {
    const auto it = values_[t].find(value);
    return it == values_[t].end() ? 0 : it->second;
}

void RootNeedsTally::count(const AclRuleList& list, int delta) {
    const AclRuleListNeeds& needs = list.needs();
    if (delta > 0) {
        tcamEntries_ += needs.tcamEntries;
    } else {
        VORN_ASSERT(tcamEntries_ >= needs.tcamEntries);
        tcamEntries_ -= needs.tcamEntries;
    }
    for (int t = 0; t < kXformTypeCount; ++t) {
        std::map<std::string, uint32_t, std::less<>>& values = values_[t];
        for (const std::string& value : needs.xformValues[t]) {
            if (delta > 0) {
                ++values[value];
                continue;
            }
            const auto it = values.find(value);
            VORN_ASSERT(it != values.end() && it->second > 0);
            if (--it->second == 0)
                values.erase(it);
        }
    }
}

}  // namespace Mirel
