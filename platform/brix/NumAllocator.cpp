#include "platform/brix/NumAllocator.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/vorn/Assert.h"
#include "platform/vorn/Exception.h"

namespace Brix {

Range::Range(uint32_t first, uint32_t last) : first_(first), last_(last) {
    if (first > last)
        Vorn::throwRangeError("Range::first > Range::last not allowed");
}

std::ostream& operator<<(std::ostream& os, const Range& r) {
    return os << "[" << r.first() << ", " << r.last() << "]";
}

NumAllocatorConfig::NumAllocatorConfig(Range range, Vorn::Seconds expiry) : expiry_(expiry) {
    if (!(expiry >= 0))
        Vorn::throwRangeError("NumAllocatorConfig::expiry < 0 not allowed");
    rangeIs(range);
}

NumAllocator::NumAllocator(const Vorn::Ptr<NumAllocatorConfig>& config,
                           const Vorn::Ptr<NumAllocatorStatus>& status)
    : config_(config), status_(status) {
    Vorn::requireNonNull(config, "Brix::NumAllocator", "config");
    Vorn::requireNonNull(status, "Brix::NumAllocator", "status");
    rebuild();
    rangeSub_ = config_->rangeNotify([this] { rebuild(); });
}

void NumAllocator::rebuild() {
    const Range range = config_->range();
    free_.clear();
    freeCount_ = 0;
    heldBackQueue_.clear();
    std::vector<std::pair<Vorn::Seconds, uint32_t>> held;
    for (const auto& [n, at] : status_->heldBack())
        held.emplace_back(at, n);
    std::stable_sort(held.begin(), held.end());
    heldBackQueue_.assign(held.begin(), held.end());
    // Walk the range in gaps between the numbers that are taken (in use or held back).
    uint64_t next = range.first();
    // The free span [first, end), when not empty.
    auto addSpan = [&](uint64_t first, uint64_t end) {
        if (first >= end)
            return;
        free_.emplace(static_cast<uint32_t>(first), static_cast<uint32_t>(end - 1));
        freeCount_ += end - first;
    };
    auto taken = [&](uint32_t n) {
        if (!range.contains(n) || n < next)
            return;
        addSpan(next, n);
        next = uint64_t{n} + 1;
    };
    std::vector<uint32_t> all(status_->allocated().begin(), status_->allocated().end());
    for (const auto& [n, at] : status_->heldBack())
        all.push_back(n);
    std::sort(all.begin(), all.end());
    for (uint32_t n : all)
        taken(n);
    addSpan(next, uint64_t{range.last()} + 1);
}

void NumAllocator::reclaim() {
    if (heldBackQueue_.empty())
        return;
    const Vorn::Seconds now = Vorn::currentTime();
    while (!heldBackQueue_.empty() && now >= heldBackQueue_.front().first) {
        const uint32_t n = heldBackQueue_.front().second;
        heldBackQueue_.pop_front();
        status_->heldBackDel(n);
        if (config_->range().contains(n))
            addFree(n);
    }
}

bool NumAllocator::isFreeNow(uint32_t n) const {
    auto it = free_.upper_bound(n);
    if (it == free_.begin())
        return false;
    --it;
    return n <= it->second;
}

void NumAllocator::takeFree(uint32_t n) {
    auto it = std::prev(free_.upper_bound(n));
    const uint32_t first = it->first;
    const uint32_t last = it->second;
    VORN_ASSERT(first <= n && n <= last);
    if (first == last) {
        free_.erase(it);
    } else if (n == first) {
        // Re-key the node in place: no allocation on the common getNumber() path.
        auto node = free_.extract(it);
        node.key() = n + 1;
        free_.insert(std::move(node));
    } else if (n == last) {
        it->second = n - 1;
    } else {
        it->second = n - 1;
        free_.emplace(n + 1, last);
    }
    --freeCount_;
    status_->allocatedIs(n);
}

void NumAllocator::addFree(uint32_t n) {
    auto next = free_.upper_bound(n);
    const bool joinsNext = next != free_.end() && n != UINT32_MAX && next->first == n + 1;
    auto prev = next == free_.begin() ? free_.end() : std::prev(next);
    const bool joinsPrev = prev != free_.end() && n != 0 && prev->second == n - 1;
    VORN_ASSERT(prev == free_.end() || prev->second < n);
    if (joinsPrev && joinsNext) {
        prev->second = next->second;
        free_.erase(next);
    } else if (joinsPrev) {
        prev->second = n;
    } else if (joinsNext) {
        auto node = free_.extract(next);
        node.key() = n;
        free_.insert(std::move(node));
    } else {
        free_.emplace(n, n);
    }
    ++freeCount_;
}

std::optional<uint32_t> NumAllocator::getNumber() {
    reclaim();
    if (free_.empty())
        return std::nullopt;
    const uint32_t n = free_.begin()->first;
    takeFree(n);
    return n;
}

bool NumAllocator::reserveNumber(uint32_t n) {
    if (!config_->range().contains(n))
        return false;
    reclaim();
    if (!isFreeNow(n))
        return false;
    takeFree(n);
    return true;
}

void NumAllocator::releaseNumber(uint32_t n) {
    if (!status_->allocated(n)) {
        throw std::invalid_argument("Brix::NumAllocator::releaseNumber: " + std::to_string(n) +
                                    " is not allocated");
    }
    status_->allocatedDel(n);
    if (config_->expiry() == 0) {
        if (config_->range().contains(n))
            addFree(n);
        return;
    }
    const Vorn::Seconds freeAt = Vorn::currentTime() + config_->expiry();
    heldBackQueue_.emplace_back(freeAt, n);
    status_->heldBackIs(n, freeAt);
}

bool NumAllocator::isHeldBack(uint32_t n) const {
    const Vorn::Seconds* at = status_->heldBack(n);
    return at && Vorn::currentTime() < *at;
}

uint64_t NumAllocator::freeCount() {
    reclaim();
    return freeCount_;
}

}  // namespace Brix
