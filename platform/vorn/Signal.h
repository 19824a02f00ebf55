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
// Emitting never allocates; connecting allocates one node, which holds the handler itself.
// Disconnecting costs the same whatever the number of slots: a slot leaves a hole, and holes
// are closed in bulk once they outnumber the live slots.
//
// Most signals never get a slot (an entity has a signal per field), so an unconnected signal
// is one word, its owner, and emitting on it is a single test. The first connection allocates
// the slots' storage (one block: counts and node pointers), which records the owner; the
// storage goes again with the last slot. Nodes and storage come from the framework's pool.
// The owner, when there is one, is the reference-counted object holding the signal: an
// emission holds a reference to it, so a slot may drop the owner's last other reference
// without anything dangling. A signal without an owner is kept alive by whoever emits.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/vorn/Pool.h"
#include "platform/vorn/Ptr.h"

namespace Vorn {

class Subscription;

class SignalBase {
  public:
    explicit SignalBase(const PtrInterface* owner = nullptr)
        : word_(reinterpret_cast<uintptr_t>(owner) | kNoSlots) {}
    SignalBase(const SignalBase&) = delete;
    SignalBase& operator=(const SignalBase&) = delete;
    ~SignalBase();

    size_t slots() const { return storage() ? storage()->live : 0; }
    const PtrInterface* owner() const {
        const Storage* s = storage();
        return s ? s->owner : reinterpret_cast<const PtrInterface*>(word_ & ~kNoSlots);
    }

  protected:
    struct Node {
        virtual ~Node() = default;
        static void* operator new(size_t bytes) { return Pool::allocate(bytes); }
        static void operator delete(void* p, size_t bytes) { Pool::release(p, bytes); }
        SignalBase* signal = nullptr;
        Subscription* owner = nullptr;
        uint32_t index = 0;  // in Storage::nodes
        bool live = true;
    };
    // One allocation: these counts, then room for `capacity` node pointers. It moves when it
    // grows (an emission reads it again after every slot it calls).
    struct Storage {
        const PtrInterface* owner;
        uint32_t live = 0;
        uint32_t dead = 0;   // disconnected during an emission, not freed yet
        uint32_t holes = 0;  // null entries of nodes
        uint32_t emitting = 0;
        uint32_t size = 0;  // nodes in use
        uint32_t capacity = 0;
        // Connection order; null where a slot was freed outside an emission (a hole).
        Node** nodes() { return reinterpret_cast<Node**>(this + 1); }
    };
    static_assert(sizeof(Storage) % alignof(Node*) == 0 && std::is_trivially_destructible_v<Storage>);
    // Pins the storage and the owner for one emission.
    class Emission {
      public:
        explicit Emission(SignalBase& s) : signal_(s), owner_(s.storage()->owner) {
            if (owner_ && owner_->references())
                owner_->newRef();
            else
                owner_ = nullptr;  // not (yet) owned by any Ptr: left alone
            ++s.storage()->emitting;
        }
        ~Emission() {
            signal_.endEmit();
            if (owner_)
                owner_->deleteRef();  // may destroy the signal: nothing follows
        }
        Emission(const Emission&) = delete;
        Emission& operator=(const Emission&) = delete;

      private:
        SignalBase& signal_;
        const PtrInterface* owner_;
    };

    Storage* storage() const {
        return (word_ & kNoSlots) ? nullptr : reinterpret_cast<Storage*>(word_);
    }
    Subscription attach(Node* node);

  private:
    friend class Subscription;
    // The low bit tells an owner (or none) from the storage: both are aligned pointers.
    static constexpr uintptr_t kNoSlots = 1;
    static_assert(alignof(PtrInterface) > 1 && alignof(Storage) > 1);

    void endEmit();
    void detach(Node* node);
    void compact();
    // Room for one more node: the storage made, or moved to twice the room.
    Storage* grow();
    static size_t storageBytes(uint32_t capacity) {
        return sizeof(Storage) + capacity * sizeof(Node*);
    }
    static Storage* allocateStorage(uint32_t capacity);
    static void freeStorage(Storage* s);
    uintptr_t word_;
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
    using SignalBase::SignalBase;

    template <class F>
    [[nodiscard]] Subscription connect(F&& f) {
        return attach(new Slot<std::decay_t<F>>(std::forward<F>(f)));
    }

    void emit(const Args&... args) {
        if (!storage())
            return;
        Emission pin(*this);
        // Slots connected while it runs go past n. Nothing frees the storage while an emission
        // runs, but a connection may move it.
        const size_t n = storage()->size;
        for (size_t i = 0; i < n; ++i) {
            Node* node = storage()->nodes()[i];
            if (node && node->live)
                static_cast<Callable*>(node)->call(args...);
        }
    }

  private:
    struct Callable : Node {
        virtual void call(const Args&... args) = 0;
    };
    // The handler lives in its node: one allocation per connection, whatever it captures.
    template <class F>
    struct Slot final : Callable {
        explicit Slot(F&& f) : fn(std::move(f)) {}
        explicit Slot(const F& f) : fn(f) {}
        void call(const Args&... args) override { fn(args...); }
        F fn;
    };
};

}  // namespace Vorn
