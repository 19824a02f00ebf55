#pragma once
// Entities: typed attributes and keyed collections with change notification.
//
// An entity declaration reads like its data-model table; the machinery is written once here:
//
//   class OvinMirelAcl : public Vorn::Entity {
//       VORN_ENTITY("OvinMirel::OvinMirelAcl")
//       VORN_ATTR(bool, created, false)                      // created(), createdIs(b)
//       VORN_ORDERED_MAP(Mirel::AceIndex, Mirel::IpRuleConfig, ipRuleById)
//       VORN_SET(Zamu::IntfId, ethIntf)                      // ethIntfIs(i), ethIntfDel(i)
//   };
//
// Each declaration generates the accessors of the framework's one pattern: `x()` reads (for a
// collection: the collection, iterable, with `find`/`contains`), `x(key)` looks one key up,
// `xs()` is the number of entries, `xIs(...)` sets or adds, `xDel(key)` deletes one entry,
// `xDelAll()` empties, `xNotify(f)` subscribes `f` to changes and returns the Subscription.
// A collection of entities also has `xDelMember(key, remove)`: remove a member from the
// entry, and delete the entry when it has none left; and `xPut(key, entity)`: publish an
// entity built and filled beforehand, so that watchers of the collection see it appear whole
// (one notification) rather than empty and then once per member.
// The macros only supply names; every rule lives in the field templates below:
//  - writing a value equal to the stored one changes nothing and notifies nobody;
//  - a real change notifies synchronously, in write order: attributes with no argument,
//    collections with the changed key (on insert, on change of the value, on delete);
//  - `xDelAll()` removes the entries one at a time, notifying each key;
//  - while a field notifies it holds a reference to its entity, so a watcher may delete the
//    entity (or the entry it is told about) without anything dangling.
// Declarations leave the class in public access.
//
// Containers. A hashed collection is a std::unordered_set/map. An ordered map is a std::map;
// an ordered set is a FlatSet, a sorted array: most hold one to a few members, where a tree
// costs a node per member. So, unlike every other collection, an ordered set's iterators and
// references to its members do not survive a write to the set: a walk during which the set may
// change (through a watcher, say) walks `keys()`, a copy. An ordered map keeps its entries in place
// (some hold thousands, and `find` hands out pointers to values). The containers' nodes and
// arrays come from the framework's pool (Pool.h), as entities and signal slots do: a change
// drops and makes many of the same sizes at once.

#include <algorithm>
#include <cstddef>
#include <map>
#include <set>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/vorn/Assert.h"
#include "platform/vorn/Exception.h"
#include "platform/vorn/FlatSet.h"
#include "platform/vorn/Name.h"
#include "platform/vorn/Pool.h"
#include "platform/vorn/Ptr.h"
#include "platform/vorn/Signal.h"

namespace Vorn {

class Entity : public PtrInterface {
  public:
    // The qualified type name ("OvinMirel::Index"), used in error texts.
    virtual std::string_view typeName() const = 0;
};

// Holds a reference to a reference-counted entity for the duration of a walk that notifies more
// than once. An entity that is not (yet) owned by any Ptr is left alone.
class KeepAlive {
  public:
    explicit KeepAlive(const PtrInterface* e) : e_(e && e->references() ? e : nullptr) {
        if (e_)
            e_->newRef();
    }
    ~KeepAlive() {
        if (e_)
            e_->deleteRef();
    }
    KeepAlive(const KeepAlive&) = delete;
    KeepAlive& operator=(const KeepAlive&) = delete;

  private:
    const PtrInterface* e_;
};

// Container choice for a collection: hash, or ordered by the key's operator<. A hashed
// collection iterates in an order that is repeatable for a given sequence of writes but
// depends on that history; walk it through sortedKeys() wherever the order shows.
// Nodes come from the framework's pool (Pool.h).
struct Hashed {
    template <class K>
    using Set = std::unordered_set<K, std::hash<K>, std::equal_to<K>, PoolAllocator<K>>;
    template <class K, class V>
    using Map = std::unordered_map<K, V, std::hash<K>, std::equal_to<K>,
                                   PoolAllocator<std::pair<const K, V>>>;
};
struct Ordered {
    template <class K>
    using Set = FlatSet<K>;
    template <class K, class V>
    using Map = std::map<K, V, std::less<K>, PoolAllocator<std::pair<const K, V>>>;
};

// A field keeps no pointer to its entity of its own: its signal records it (see Signal.h) and
// holds a reference to it while it notifies.
template <class T>
class Attr {
  public:
    explicit Attr(const Entity& owner, T initial = T{})
        : signal_(&owner), value_(std::move(initial)) {}
    const T& get() const { return value_; }
    bool set(const T& v) {
        if (value_ == v)
            return false;
        value_ = v;
        signal_.emit();
        return true;
    }
    template <class F>
    [[nodiscard]] Subscription notify(F&& f) const {
        return signal_.connect(std::forward<F>(f));
    }
    const Entity& owner() const { return *static_cast<const Entity*>(signal_.owner()); }

  private:
    mutable Signal<> signal_;
    T value_;
};

// A reference attribute: a mutator given a null reference throws NullPointerException; `del`
// clears it.
template <class T>
class PtrAttr {
  public:
    PtrAttr(const Entity& owner, const char* name) : attr_(owner), name_(name) {}
    const Ptr<T>& get() const { return attr_.get(); }
    bool set(const Ptr<T>& p) {
        requireNonNull(p, attr_.owner().typeName(), name_);
        return attr_.set(p);
    }
    bool del() { return attr_.set(nullptr); }
    template <class F>
    [[nodiscard]] Subscription notify(F&& f) const {
        return attr_.notify(std::forward<F>(f));
    }

  private:
    Attr<Ptr<T>> attr_;
    const char* name_;
};

// A single owned child entity, instantiated on demand: `is(args...)` returns the held child,
// creating it as T(args...) when there is none. Like an instantiating collection, a child type
// that checks its constructor parameters on re-creation defines `reinstantiate(args...)`.
template <class T>
class ChildAttr {
  public:
    explicit ChildAttr(const Entity& owner) : attr_(owner) {}
    const Ptr<T>& get() const { return attr_.get(); }
    template <class... A>
    Ptr<T> is(A&&... args) {
        if (const Ptr<T>& held = attr_.get()) {
            if constexpr (sizeof...(A) > 0)
                held->reinstantiate(args...);
            return held;
        }
        Ptr<T> child = make<T>(std::forward<A>(args)...);
        attr_.set(child);
        return child;
    }
    bool del() { return attr_.set(nullptr); }
    template <class F>
    [[nodiscard]] Subscription notify(F&& f) const {
        return attr_.notify(std::forward<F>(f));
    }

  private:
    Attr<Ptr<T>> attr_;
};

// Shared part of the three collection kinds: the container, iteration, size and the signal.
template <class K, class Container>
class CollectionBase {
  public:
    using key_type = K;
    using const_iterator = typename Container::const_iterator;

    explicit CollectionBase(const Entity& owner) : signal_(&owner) {}
    size_t size() const { return items_.size(); }
    bool empty() const { return items_.empty(); }
    bool contains(const K& k) const { return items_.find(k) != items_.end(); }
    const_iterator begin() const { return items_.begin(); }
    const_iterator end() const { return items_.end(); }
    // An ordered collection's first entry whose key is not less than k: where a walk over a
    // range of adjacent keys starts.
    const_iterator lowerBound(const K& k) const
        requires requires(const Container& c, const K& key) { c.lower_bound(key); }
    {
        return items_.lower_bound(k);
    }
    // A copy of the keys, for walks during which the collection may change.
    std::vector<K> keys() const {
        std::vector<K> out;
        out.reserve(items_.size());
        for (const auto& e : items_)
            out.push_back(keyOf(e));
        return out;
    }
    // The keys in ascending order: the walk to use wherever the order shows (numbers handed
    // out, traces, published results). A hashed collection's own order depends on the history
    // of its writes, not only on its contents.
    std::vector<K> sortedKeys() const {
        std::vector<K> out = keys();
        if constexpr (!kIsOrdered)
            std::sort(out.begin(), out.end());
        return out;
    }
    bool del(const K& k) {
        auto it = items_.find(k);
        if (it == items_.end())
            return false;
        // The erased value (maybe the last reference to a child entity) lives until the
        // watchers have been told. They are told the extracted key: `k` may be a reference
        // into a flat set, which the erase has moved.
        auto node = items_.extract(it);
        signal_.emit(keyOf(node));
        return true;
    }
    void delAll() {
        KeepAlive keep(signal_.owner());
        while (!items_.empty()) {
            auto node = items_.extract(items_.begin());
            signal_.emit(keyOf(node));
        }
    }
    template <class F>
    [[nodiscard]] Subscription notify(F&& f) const {
        return signal_.connect(std::forward<F>(f));
    }

  protected:
    static constexpr bool kIsMap = requires { typename Container::mapped_type; };
    static constexpr bool kIsOrdered = requires { typename Container::key_compare; };
    static const K& keyOf(const typename Container::value_type& e) {
        if constexpr (kIsMap) {
            return e.first;
        } else {
            return e;
        }
    }
    static const K& keyOf(const typename Container::node_type& n) {
        if constexpr (kIsMap) {
            return n.key();
        } else {
            return n.value();
        }
    }
    void changed(const K& k) { signal_.emit(k); }
    Container items_;
    mutable Signal<K> signal_;
};

// A set: a key is a member or not (the data model's "key with the value true").
template <class K, class Index = Hashed>
class SetField : public CollectionBase<K, typename Index::template Set<K>> {
    using Base = CollectionBase<K, typename Index::template Set<K>>;

  public:
    using Base::Base;
    // Adds k when `member` is true, removes it when false.
    bool is(const K& k, bool member = true) {
        if (!member)
            return this->del(k);
        if (!this->items_.insert(k).second)
            return false;
        this->changed(k);
        return true;
    }
    // The same, for a set that admits only some keys: `check(k)` throws for a refused key
    // before anything changes.
    template <class Check>
    bool is(const K& k, bool member, Check&& check) {
        if (member)
            check(k);
        return is(k, member);
    }
};

// A map from keys to plain values.
template <class K, class V, class Index = Hashed>
class MapField : public CollectionBase<K, typename Index::template Map<K, V>> {
    using Base = CollectionBase<K, typename Index::template Map<K, V>>;

  public:
    using mapped_type = V;
    using Base::Base;
    const V* find(const K& k) const {
        auto it = this->items_.find(k);
        return it == this->items_.end() ? nullptr : &it->second;
    }
    // Insert or replace; nothing happens when an equal value is already stored.
    bool is(const K& k, const V& v) {
        auto [it, inserted] = this->items_.try_emplace(k, v);
        if (!inserted) {
            if (it->second == v)
                return false;
            it->second = v;
        }
        this->changed(k);
        return true;
    }
    // The same, taking over a value built for the purpose (a set, say) instead of copying it.
    bool is(const K& k, V&& v) {
        auto it = this->items_.find(k);
        if (it != this->items_.end()) {
            if (it->second == v)
                return false;
            it->second = std::move(v);
        } else {
            this->items_.emplace(k, std::move(v));
        }
        this->changed(k);
        return true;
    }
    // Adds delta to the value (created at V{} when absent); notifies only on a change.
    V inc(const K& k, const V& delta) {
        auto [it, inserted] = this->items_.try_emplace(k, V{});
        if (delta == V{} && !inserted)
            return it->second;
        it->second += delta;
        V result = it->second;
        this->changed(k);
        return result;
    }
};

// An instantiating collection: `is(key, args...)` returns the child entity for the key,
// creating it as V(key, args...) when absent. A child type that checks its other constructor
// parameters on re-creation defines `reinstantiate(args...)`.
template <class K, class V, class Index = Hashed>
class EntityMapField : public CollectionBase<K, typename Index::template Map<K, Ptr<V>>> {
    using Base = CollectionBase<K, typename Index::template Map<K, Ptr<V>>>;

  public:
    using mapped_type = V;
    using Base::Base;
    Ptr<V> find(const K& k) const {
        auto it = this->items_.find(k);
        return it == this->items_.end() ? Ptr<V>() : it->second;
    }
    template <class... A>
    Ptr<V> is(const K& k, A&&... args) {
        auto it = this->items_.find(k);
        if (it != this->items_.end()) {
            if constexpr (sizeof...(A) > 0)
                it->second->reinstantiate(std::forward<A>(args)...);
            return it->second;
        }
        Ptr<V> child = make<V>(k, std::forward<A>(args)...);
        this->items_.emplace(k, child);
        this->changed(k);
        return child;
    }
    // Publishes `entity`, built and filled beforehand, under k: inserted, or replacing the one
    // held, with the one notification of an insert; nothing happens when k holds it already.
    // REQUIRES: `entity` is not null (asserted).
    bool put(const K& k, Ptr<V> entity) {
        VORN_ASSERT(entity);
        auto [it, inserted] = this->items_.try_emplace(k, entity);
        if (!inserted) {
            if (it->second == entity)
                return false;
            // The replaced entity lives until the watchers have been told.
            std::swap(it->second, entity);
        }
        this->changed(k);
        return true;
    }
    // "Remove a member, and the entry when it has none left": runs `remove(entry)` on the
    // entry of k when there is one; `remove` returns how many members the entry has left, and
    // an entry left with none is deleted. Returns true when the entry went.
    template <class Remove>
    bool delMember(const K& k, Remove&& remove) {
        Ptr<V> entry = find(k);
        if (!entry || remove(*entry) != 0)
            return false;
        return this->del(k);
    }
};

}  // namespace Vorn

#define VORN_ENTITY(qualifiedName)               \
  public:                                        \
    std::string_view typeName() const override { \
        return qualifiedName;                    \
    }

#define VORN_SUBSCRIBE_(name)                                      \
    template <class F>                                             \
    [[nodiscard]] ::Vorn::Subscription name##Notify(F&& f) const { \
        return name##_.notify(std::forward<F>(f));                 \
    }

#define VORN_ATTR(T, name, ...)                                \
  public:                                                      \
    const T& name() const {                                    \
        return name##_.get();                                  \
    }                                                          \
    void name##Is(const T& v) {                                \
        name##_.set(v);                                        \
    }                                                          \
    VORN_SUBSCRIBE_(name)                                      \
  private:                                                     \
    ::Vorn::Attr<T> name##_{*this __VA_OPT__(, ) __VA_ARGS__}; \
                                                               \
  public:

#define VORN_PTR_ATTR(T, name)                \
  public:                                     \
    ::Vorn::Ptr<T> name() const {             \
        return name##_.get();                 \
    }                                         \
    void name##Is(const ::Vorn::Ptr<T>& p) {  \
        name##_.set(p);                       \
    }                                         \
    void name##Del() {                        \
        name##_.del();                        \
    }                                         \
    VORN_SUBSCRIBE_(name)                     \
  private:                                    \
    ::Vorn::PtrAttr<T> name##_{*this, #name}; \
                                              \
  public:

// An owned child entity, created by `nameIs(args...)` (get-or-create), dropped by `nameDel()`.
#define VORN_CHILD_ATTR(T, name)                     \
  public:                                            \
    ::Vorn::Ptr<T> name() const {                    \
        return name##_.get();                        \
    }                                                \
    template <class... A>                            \
    ::Vorn::Ptr<T> name##Is(A&&... args) {           \
        return name##_.is(std::forward<A>(args)...); \
    }                                                \
    void name##Del() {                               \
        name##_.del();                               \
    }                                                \
    VORN_SUBSCRIBE_(name)                            \
  private:                                           \
    ::Vorn::ChildAttr<T> name##_{*this};             \
                                                     \
  public:

// Only the storage and the subscription of an attribute, for the rare attribute whose reader
// or writer is a hand-written (for example virtual) operation.
#define VORN_ATTR_STORAGE(T, name, ...)                        \
  public:                                                      \
    VORN_SUBSCRIBE_(name)                                      \
  protected:                                                   \
    ::Vorn::Attr<T> name##_{*this __VA_OPT__(, ) __VA_ARGS__}; \
                                                               \
  public:

#define VORN_COLLECTION_COMMON_(Field, K, name) \
  public:                                       \
    const Field& name() const {                 \
        return name##_;                         \
    }                                           \
    size_t name##s() const {                    \
        return name##_.size();                  \
    }                                           \
    void name##Del(const K& k) {                \
        name##_.del(k);                         \
    }                                           \
    void name##DelAll() {                       \
        name##_.delAll();                       \
    }                                           \
    VORN_SUBSCRIBE_(name)

#define VORN_SET_(K, name, Ix)                                           \
    VORN_COLLECTION_COMMON_(::Vorn::SetField<K VORN_COMMA_ Ix>, K, name) \
    bool name(const K& k) const {                                        \
        return name##_.contains(k);                                      \
    }                                                                    \
    void name##Is(const K& k, bool member = true) {                      \
        name##_.is(k, member);                                           \
    }                                                                    \
                                                                         \
  private:                                                               \
    ::Vorn::SetField<K, Ix> name##_{*this};                              \
                                                                         \
  public:

// An ordered set whose new members must pass `check`, a callable that throws for a refused key.
#define VORN_CHECKED_SET(K, name, check)                                              \
    VORN_COLLECTION_COMMON_(::Vorn::SetField<K VORN_COMMA_ ::Vorn::Ordered>, K, name) \
    bool name(const K& k) const {                                                     \
        return name##_.contains(k);                                                   \
    }                                                                                 \
    void name##Is(const K& k, bool member = true) {                                   \
        name##_.is(k, member, check);                                                 \
    }                                                                                 \
                                                                                      \
  private:                                                                            \
    ::Vorn::SetField<K, ::Vorn::Ordered> name##_{*this};                              \
                                                                                      \
  public:

#define VORN_MAP_(K, V, name, Ix)                                                      \
    VORN_COLLECTION_COMMON_(::Vorn::MapField<K VORN_COMMA_ V VORN_COMMA_ Ix>, K, name) \
    const V* name(const K& k) const {                                                  \
        return name##_.find(k);                                                        \
    }                                                                                  \
    void name##Is(const K& k, const V& v) {                                            \
        name##_.is(k, v);                                                              \
    }                                                                                  \
                                                                                       \
  private:                                                                             \
    ::Vorn::MapField<K, V, Ix> name##_{*this};                                         \
                                                                                       \
  public:

// Tmpl<K, V, Ix> is the field type: EntityMapField, or a subclass such as MachineMapField.
#define VORN_ENTITY_MAP_FIELD_(Tmpl, K, V, Ix, name)                       \
    VORN_COLLECTION_COMMON_(Tmpl<K VORN_COMMA_ V VORN_COMMA_ Ix>, K, name) \
    ::Vorn::Ptr<V> name(const K& k) const {                                \
        return name##_.find(k);                                            \
    }                                                                      \
    template <class... A>                                                  \
    ::Vorn::Ptr<V> name##Is(const K& k, A&&... args) {                     \
        return name##_.is(k, std::forward<A>(args)...);                    \
    }                                                                      \
    template <class Remove>                                                \
    bool name##DelMember(const K& k, Remove&& remove) {                    \
        return name##_.delMember(k, std::forward<Remove>(remove));         \
    }                                                                      \
                                                                           \
  private:                                                                 \
    Tmpl<K, V, Ix> name##_{*this};                                         \
                                                                           \
  public:

// Machines are made by their collection (they are initialised there): only a collection of
// plain entities takes one built elsewhere (`xPut`).
#define VORN_ENTITY_MAP_(K, V, name, Ix)                           \
    VORN_ENTITY_MAP_FIELD_(::Vorn::EntityMapField, K, V, Ix, name) \
    bool name##Put(const K& k, const ::Vorn::Ptr<V>& entity) {     \
        return name##_.put(k, entity);                             \
    }

#define VORN_COMMA_ ,
#define VORN_SET(K, name) VORN_SET_(K, name, ::Vorn::Hashed)
#define VORN_ORDERED_SET(K, name) VORN_SET_(K, name, ::Vorn::Ordered)
#define VORN_MAP(K, V, name) VORN_MAP_(K, V, name, ::Vorn::Hashed)
#define VORN_ORDERED_MAP(K, V, name) VORN_MAP_(K, V, name, ::Vorn::Ordered)
#define VORN_ENTITY_MAP(K, V, name) VORN_ENTITY_MAP_(K, V, name, ::Vorn::Hashed)
#define VORN_ORDERED_ENTITY_MAP(K, V, name) VORN_ENTITY_MAP_(K, V, name, ::Vorn::Ordered)
