#include "platform/vorn/Signal.h"

#include <algorithm>

namespace Vorn {

SignalBase::~SignalBase() {
    for (Node* n : nodes_) {
        if (n->owner)
            n->owner->node_ = nullptr;
        delete n;
    }
}

Subscription SignalBase::attach(Node* node) {
    node->signal = this;
    nodes_.push_back(node);
    ++live_;
    return Subscription(node);
}

void SignalBase::detach(Node* node) {
    node->live = false;
    node->owner = nullptr;
    --live_;
    if (emitting_ == 0) {
        nodes_.erase(std::find(nodes_.begin(), nodes_.end(), node));
        delete node;
    } else {
        ++dead_;  // freed by compact() once the outermost emission is over
    }
}

void SignalBase::compact() {
    auto keep =
        std::stable_partition(nodes_.begin(), nodes_.end(), [](Node* n) { return n->live; });
    for (auto it = keep; it != nodes_.end(); ++it)
        delete *it;
    nodes_.erase(keep, nodes_.end());
    dead_ = 0;
}

void Subscription::reset() {
    if (node_) {
        SignalBase::Node* n = std::exchange(node_, nullptr);
        n->signal->detach(n);
    }
}

}  // namespace Vorn
