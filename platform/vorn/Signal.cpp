#include "platform/vorn/Signal.h"

namespace Vorn {

SignalBase::~SignalBase() {
    for (Node* n : nodes_) {
        if (!n)
            continue;
        if (n->owner)
            n->owner->node_ = nullptr;
        delete n;
    }
}

Subscription SignalBase::attach(Node* node) {
    node->signal = this;
    node->index = nodes_.size();
    nodes_.push_back(node);
    ++live_;
    return Subscription(node);
}

void SignalBase::detach(Node* node) {
    node->live = false;
    node->owner = nullptr;
    --live_;
    if (emitting_ != 0) {
        ++dead_;  // freed by compact() once the outermost emission is over
        return;
    }
    // Freed now, so what the slot holds goes with it; the hole stays until there are enough
    // of them to close in one walk (a machine going away drops thousands of slots).
    nodes_[node->index] = nullptr;
    delete node;
    if (++holes_ > live_)
        compact();
}

void SignalBase::compact() {
    size_t kept = 0;
    for (Node* n : nodes_) {
        if (!n)
            continue;
        if (!n->live) {
            delete n;
            continue;
        }
        n->index = kept;
        nodes_[kept++] = n;
    }
    nodes_.resize(kept);
    dead_ = 0;
    holes_ = 0;
}

void Subscription::reset() {
    if (node_) {
        SignalBase::Node* n = std::exchange(node_, nullptr);
        n->signal->detach(n);
    }
}

}  // namespace Vorn
