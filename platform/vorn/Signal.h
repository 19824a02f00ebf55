#pragma once
// Signal and Subscription: the typed, synchronous change notification every entity field uses.
//
// Invariants, kept whatever the slots do while they are being called:
//  1. An emission calls exactly the slots connected when it started, in connection order,
//     each at most once. A slot connected during an emission is first called by the next one.
//  2. A slot disconnected during an emission (its own or another's, at any nesting depth) is
//     not called afterwards; its storage is freed only once no emission is running, so a slot
//     may drop its own Subscription from inside its call.
//  3. A Subscription that outlives its Signal is inert; destroying it is safe.
// Emitting never allocates. Disconnecting costs the same whatever the number of slots: a
// slot leaves a hole, and holes are closed in bulk once they outnumber the live slots. The owner
// keeps the Signal alive during an emission (entity fields hold a reference to their entity while
// they notify).

#include <cstddef>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace Vorn {

class Subscription;

class SignalBase {
  public:
    SignalBase() = default;
    SignalBase(const SignalBase&) = delete;
    SignalBase& operator=(const SignalBase&) = delete;
    ~SignalBase();

    size_t slots() const { return live_; }

  protected:
    struct Node {
        virtual ~Node() = default;
        SignalBase* signal = nullptr;
        Subscription* owner = nullptr;
        size_t index = 0;  // in nodes_
        bool live = true;
    };
    Subscription attach(Node* node);
    void beginEmit() { ++emitting_; }
    void endEmit() {
        if (--emitting_ == 0 && dead_ != 0)
            compact();
    }
    // Connection order; null where a slot was freed outside an emission (a hole).
    std::vector<Node*> nodes_;

  private:
    friend class Subscription;
    void detach(Node* node);
    void compact();
    size_t live_ = 0;
    size_t dead_ = 0;   // disconnected during an emission, not freed yet
    size_t holes_ = 0;  // null entries of nodes_
    int emitting_ = 0;
};

// Owns one connection; disconnects when destroyed or reset. Movable, not copyable.
class Subscription {
  public:
    Subscription() = default;
    Subscription(Subscription&& o) noexcept : node_(std::exchange(o.node_, nullptr)) {
        if (node_)
            node_->owner = this;
    }
    Subscription& operator=(Subscription&& o) noexcept {
        if (this != &o) {
            reset();
            node_ = std::exchange(o.node_, nullptr);
            if (node_)
                node_->owner = this;
        }
        return *this;
    }
    ~Subscription() { reset(); }

    void reset();
    bool connected() const { return node_ != nullptr; }

  private:
    friend class SignalBase;
    explicit Subscription(SignalBase::Node* n) : node_(n) { node_->owner = this; }
    SignalBase::Node* node_ = nullptr;
};

template <class... Args>
class Signal : public SignalBase {
  public:
    template <class F>
    [[nodiscard]] Subscription connect(F&& f) {
        auto* n = new Slot;
        n->fn = std::forward<F>(f);
        return attach(n);
    }

    void emit(const Args&... args) {
        if (nodes_.empty())
            return;
        beginEmit();
        const size_t n = nodes_.size();
        for (size_t i = 0; i < n; ++i) {
            Node* node = nodes_[i];
            if (node && node->live)
                static_cast<Slot*>(node)->fn(args...);
        }
        endEmit();
    }

  private:
    struct Slot : Node {
        std::function<void(const Args&...)> fn;
    };
};

}  // namespace Vorn
