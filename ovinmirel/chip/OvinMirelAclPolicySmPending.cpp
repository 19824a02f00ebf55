#include "ovinmirel/chip/OvinMirelAclPolicySmPending.h"

#include <algorithm>
#include <utility>

namespace OvinMirel {

std::vector<AclPolicySmPending::Entry>::iterator AclPolicySmPending::find(
    const Zamu::IntfId& intf) {
    // Mostly at the end: a burst schedules its interfaces in order, often one several times.
    if (!entries_.empty() && !(intf < entries_.back().intf))
        return entries_.back().intf == intf ? entries_.end() - 1 : entries_.end();
    return std::lower_bound(entries_.begin(), entries_.end(), intf,
                            [](const Entry& e, const Zamu::IntfId& i) { return e.intf < i; });
}

AclPolicySmPending::Entry& AclPolicySmPending::entry(const Zamu::IntfId& intf) {
    auto it = find(intf);
    if (it == entries_.end() || it->intf != intf)
        it = entries_.insert(it, Entry{intf, Review()});
    return *it;
}

void AclPolicySmPending::all(const Zamu::IntfId& intf) {
    Review& review = entry(intf).review;
    review.all = true;
    review.acls = AclKeys();
}

void AclPolicySmPending::acl(const Zamu::IntfId& intf, const Ovin::AclKey& key) {
    Review& review = entry(intf).review;
    if (!review.all)
        review.acls.insert(key);
}

AclPolicySmPending::Review AclPolicySmPending::take(const Zamu::IntfId& intf) {
    Review out;
    const auto it = find(intf);
    if (it == entries_.end() || it->intf != intf) {
        out.all = true;
        return out;
    }
    out = std::move(it->review);
    entries_.erase(it);
    return out;
}

AclPolicySmPending::Run AclPolicySmPending::takeAll() {
    std::vector<Entry> out;
    out.swap(entries_);
    entries_.swap(spare_);
    return Run(*this, std::move(out));
}

AclPolicySmPending::Run::~Run() {
    // A burst's worth of room is kept, not the room of the largest burst ever (a full review
    // of every interface): that goes.
    constexpr size_t kKept = 64;
    entries_.clear();
    if (entries_.capacity() <= kKept && entries_.capacity() > owner_.spare_.capacity())
        owner_.spare_.swap(entries_);
}

AclPolicySmPending::Review AclPolicySmPending::Run::take(const Zamu::IntfId& intf) {
    // Walking forward: an interface passed over had its entry taken some other way before.
    while (next_ < entries_.size() && entries_[next_].intf < intf)
        ++next_;
    if (next_ < entries_.size() && entries_[next_].intf == intf)
        return std::move(entries_[next_++].review);
    Review out;
    out.all = true;
    return out;
}

}  // namespace OvinMirel
