#pragma once
// Vorn::StateMachine: what every state machine shares.
//
//  - It is an entity: machines are kept in entity collections (per-chip machines in a
//    collection keyed by chip, declared with VORN_MACHINE_MAP) and name their type in errors.
//  - Life cycle: a machine is constructed with its references, then its owner runs
//    handleInitialized() once the inputs exist (the machine replays its whole input and from
//    then on reacts to changes), and handleDelete() before letting it go; a machine collection
//    runs handleDelete() itself when it deletes an entry. `initialized()` tells the phase;
//    handlers assert it. Overrides call the base (or initializedIs) to move the flag.
//  - References: `required(p, "attr")` refuses a null reference with the framework's
//    null-parameter text naming the machine and the attribute, before anything is built;
//    `requireSameReference` refuses re-creation of a machine with another reference than the
//    one it holds ("Reinstantiating the pointer interface where constructor parameter
//    attribute _<attr> has a different value of ...").
//  - Tracing: the module's trace handle, traceHandle().

#include <string_view>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Entity.h"
#include "platform/vorn/Exception.h"

namespace Vorn {

class StateMachine : public Entity {
  public:
    bool initialized() const { return initialized_; }
    virtual void handleInitialized() { initializedIs(true); }
    virtual void handleDelete() { initializedIs(false); }
    Flinq::Handle& traceHandle() const { return *th_; }

  protected:
    explicit StateMachine(Flinq::Handle& th) : th_(&th) {}
    void initializedIs(bool initialized) { initialized_ = initialized; }

    // Only from the constructor's member initializers of the concrete machine (its typeName
    // is in force there) or later.
    template <class T>
    const Ptr<T>& required(const Ptr<T>& p, std::string_view attr) const {
        requireNonNull(p, typeName(), attr);
        return p;
    }
    template <class T>
    void requireSameReference(std::string_view attr, const Ptr<T>& held,
                              const Ptr<T>& given) const {
        if (held != given)
            throwPointerReinstantiation(attr, given ? given->typeName() : "null");
    }

  private:
    Flinq::Handle* th_;
    bool initialized_ = false;
};

// A collection of machines (an instantiating collection whose entries are state machines):
// deleting an entry runs the machine's handleDelete() first, so the machine stops reacting
// even while someone else still holds a reference to it.
template <class K, class V, class Index = Ordered>
class MachineMapField : public EntityMapField<K, V, Index> {
    using Base = EntityMapField<K, V, Index>;

  public:
    using Base::Base;
    bool del(const K& k) {
        if (Ptr<V> machine = this->find(k))
            machine->handleDelete();
        return Base::del(k);
    }
    void delAll() {
        // A machine's deletion may drop the collection's last other reference.
        KeepAlive keep(this->signal_.owner());
        for (const K& k : this->keys())
            del(k);
    }
};

}  // namespace Vorn

// Ordered by key: machines are created, walked and deleted in key order.
#define VORN_MACHINE_MAP(K, V, name) \
    VORN_ENTITY_MAP_FIELD_(::Vorn::MachineMapField, K, V, ::Vorn::Ordered, name)
