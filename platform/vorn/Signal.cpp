#include "platform/vorn/Signal.h"

namespace Vorn {

SignalBase::~SignalBase() {
    Storage* s = storage();
    if (!s)
        return;
    for (Node* n : s->nodes) {
        if (!n)
            continue;
        if (n->owner)
            n->owner->node_ = nullptr;
        delete n;
    }
    delete s;
}

Subscription SignalBase::attach(Node* node) {
    Storage* s = storage();
    if (!s) {
        s = new Storage{owner(), {}};
        word_ = reinterpret_cast<uintptr_t>(s);
    }
    node->signal = this;
    node->index = uint32_t(s->nodes.size());
    s->nodes.push_back(node);
    ++s->live;
    return Subscription(node);
}

void SignalBase::endEmit() {
    Storage* s = storage();
    if (--s->emitting == 0 && s->dead != 0)
        compact();
}

void SignalBase::detach(Node* node) {
    Storage* s = storage();
    node->live = false;
    node->owner = nullptr;
    --s->live;
    if (s->emitting != 0) {
        ++s->dead;  // freed by compact() once the outermost emission is over
        return;
    }
    // Freed now, so what the slot holds goes with it; the hole stays until there are enough
    // of them to close in one walk (a machine going away drops thousands of slots).
    s->nodes[node->index] = nullptr;
    delete node;
    if (++s->holes > s->live)
        compact();
}

// Only when no emission runs. A signal left with no slot gives its storage back.
void SignalBase::compact() {
    Storage* s = storage();
    if (s->live == 0) {
        for (Node* n : s->nodes)
            delete n;  // only dead ones are left
        word_ = reinterpret_cast<uintptr_t>(s->owner) | kNoSlots;
        delete s;
        return;
    }
    uint32_t kept = 0;
    for (Node* n : s->nodes) {
        if (!n)
            continue;
        if (!n->live) {
            delete n;
            continue;
        }
        n->index = kept;
        s->nodes[kept++] = n;
    }
    s->nodes.resize(kept);
    s->dead = 0;
    s->holes = 0;
}

void Subscription::reset() {
    if (node_) {
        SignalBase::Node* n = std::exchange(node_, nullptr);
        n->signal->detach(n);
    }
}

}  // namespace Vorn
