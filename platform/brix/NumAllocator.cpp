#include "platform/brix/NumAllocator.h"

#include <cmath>
#include <iterator>
#include <stdexcept>
#include <string>

#include "platform/vorn/Assert.h"

namespace Brix {

NumAllocatorConfig::NumAllocatorConfig(uint32_t min, uint32_t max, Vorn::Seconds expiry)
    : min_(min), max_(max), expiry_(expiry) {
    if (min > max) {
        throw std::invalid_argument("Brix::NumAllocatorConfig: min " + std::to_string(min) +
                                    " > max " + std::to_string(max));
    }
    if (!(expiry >= 0)) {
        throw std::invalid_argument("Brix::NumAllocatorConfig: expiry " + std::to_string(expiry) +
                                    " is negative or NaN");
    }
}

NumAllocatorStatus::NumAllocatorStatus(const NumAllocatorConfig& config)
    : config_(config), freeCount_(config.size()) {
    free_.emplace(config.min(), config.max());
}

void NumAllocatorStatus::reclaim() {
    if (heldBackQueue_.empty())
        return;
    const Vorn::Seconds now = Vorn::currentTime();
    while (!heldBackQueue_.empty() && now >= heldBackQueue_.front().first) {
        const uint32_t n = heldBackQueue_.front().second;
        heldBackQueue_.pop_front();
        heldBack_.erase(n);
        addFree(n);
    }
}

bool NumAllocatorStatus::isFreeNow(uint32_t n) const {
    auto it = free_.upper_bound(n);
    if (it == free_.begin())
        return false;
    --it;
    return n <= it->second;
}

void NumAllocatorStatus::takeFree(uint32_t n) {
    auto it = std::prev(free_.upper_bound(n));
    const uint32_t first = it->first;
    const uint32_t last = it->second;
    VORN_ASSERT(first <= n && n <= last);
    if (first == last) {
        free_.erase(it);
    } else if (n == first) {
        // Re-key the node in place: no allocation on the common get() path.
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
}

void NumAllocatorStatus::addFree(uint32_t n) {
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

std::optional<uint32_t> NumAllocatorStatus::get() {
    reclaim();
    if (free_.empty())
        return std::nullopt;
    const uint32_t n = free_.begin()->first;
    takeFree(n);
    ++allocated_;
    return n;
}

bool NumAllocatorStatus::reserve(uint32_t n) {
    if (!config_.contains(n))
        return false;
    reclaim();
    if (!isFreeNow(n))
        return false;
    takeFree(n);
    ++allocated_;
    return true;
}

void NumAllocatorStatus::release(uint32_t n) {
    if (!config_.contains(n)) {
        throw std::invalid_argument("Brix::NumAllocatorStatus::release: " + std::to_string(n) +
                                    " is out of range [" + std::to_string(config_.min()) + ", " +
                                    std::to_string(config_.max()) + "]");
    }
    if (!isAllocated(n)) {
        throw std::invalid_argument("Brix::NumAllocatorStatus::release: " + std::to_string(n) +
                                    " is not allocated");
    }
    --allocated_;
    if (config_.expiry() == 0) {
        addFree(n);
        return;
    }
    const Vorn::Seconds freeAt = Vorn::currentTime() + config_.expiry();
    heldBackQueue_.emplace_back(freeAt, n);
    heldBack_.emplace(n, freeAt);
}

bool NumAllocatorStatus::isHeldBack(uint32_t n) const {
    auto it = heldBack_.find(n);
    return it != heldBack_.end() && Vorn::currentTime() < it->second;
}

bool NumAllocatorStatus::isAllocated(uint32_t n) const {
    return config_.contains(n) && !isFreeNow(n) && !heldBack_.contains(n);
}

uint64_t NumAllocatorStatus::freeCount() {
    reclaim();
    return freeCount_;
}

}  // namespace Brix
