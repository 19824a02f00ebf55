#include "platform/vorn/Signal.h"

#include <algorithm>
#include <new>
#include <span>

namespace Vorn {

SignalBase::Storage* SignalBase::allocateStorage(uint32_t capacity) {
    void* block = Pool::allocate(storageBytes(capacity));
    return new (block) Storage;
}

void SignalBase::freeStorage(Storage* s) {
    Pool::release(s, storageBytes(s->capacity));  // trivially destructible
}

SignalBase::~SignalBase() {
    Storage* s = storage();
    if (!s)
        return;
    for (Node* n : std::span(s->nodes(), s->size)) {
        if (!n)
            continue;
        if (n->owner)
            n->owner->node_ = nullptr;
        delete n;
    }
    freeStorage(s);
}

SignalBase::Storage* SignalBase::grow() {
    Storage* old = storage();
    const uint32_t capacity = old ? old->capacity * 2 : 1;
    Storage* s = allocateStorage(capacity);
    if (old) {
        *s = *old;
        std::copy_n(old->nodes(), old->size, s->nodes());
        freeStorage(old);
    } else {
        s->owner = owner();
    }
    s->capacity = capacity;
    word_ = reinterpret_cast<uintptr_t>(s);
    return s;
}

Subscription SignalBase::attach(Node* node) {
    Storage* s = storage();
    if (!s || s->size == s->capacity)
        s = grow();
    node->signal = this;
    node->index = s->size;
    s->nodes()[s->size++] = node;
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
    s->nodes()[node->index] = nullptr;
    delete node;
    if (++s->holes > s->live)
        compact();
}

// Only when no emission runs. A signal left with no slot gives its storage back.
void SignalBase::compact() {
    Storage* s = storage();
    if (s->live == 0) {
        for (Node* n : std::span(s->nodes(), s->size))
            delete n;  // only dead ones are left
        word_ = reinterpret_cast<uintptr_t>(s->owner) | kNoSlots;
        freeStorage(s);
        return;
    }
    uint32_t kept = 0;
    for (Node* n : std::span(s->nodes(), s->size)) {
        if (!n)
            continue;
        if (!n->live) {
            delete n;
            continue;
        }
        n->index = kept;
        s->nodes()[kept++] = n;
    }
    s->size = kept;
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
