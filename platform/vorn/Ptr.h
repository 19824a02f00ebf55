#pragma once
// Intrusive reference counting. Entities and state machines derive from PtrInterface and are
// shared through Ptr<T>; the object is deleted when the last Ptr lets go. Single-threaded by
// design (the agent runs on one event loop), so the count is a plain integer.
// Objects are allocated from the framework's pool (Pool.h): many are made and dropped together.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

#include "platform/vorn/Pool.h"

namespace Vorn {

class PtrInterface {
  public:
    PtrInterface() = default;
    PtrInterface(const PtrInterface&) : refs_(0) {}
    PtrInterface& operator=(const PtrInterface&) { return *this; }
    virtual ~PtrInterface() = default;

    // The virtual destructor hands the dynamic type's size to the delete.
    static void* operator new(size_t bytes) { return Pool::allocate(bytes); }
    static void operator delete(void* p, size_t bytes) { Pool::release(p, bytes); }

    uint32_t references() const { return refs_; }
    void newRef() const { ++refs_; }
    void deleteRef() const {
        if (--refs_ == 0)
            delete this;
    }

  private:
    mutable uint32_t refs_ = 0;
};

template <class T>
class Ptr {
  public:
    Ptr() = default;
    Ptr(std::nullptr_t) {}
    Ptr(T* p) : p_(p) { acquire(); }
    Ptr(const Ptr& o) : p_(o.p_) { acquire(); }
    Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
    template <class U>
    Ptr(const Ptr<U>& o) : p_(o.ptr()) {
        acquire();
    }
    ~Ptr() { release(); }

    Ptr& operator=(const Ptr& o) {
        Ptr(o).swap(*this);
        return *this;
    }
    Ptr& operator=(Ptr&& o) noexcept {
        Ptr(std::move(o)).swap(*this);
        return *this;
    }
    void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

    T* ptr() const { return p_; }
    T* operator->() const { return p_; }
    T& operator*() const { return *p_; }
    explicit operator bool() const { return p_ != nullptr; }
    bool operator==(const Ptr& o) const { return p_ == o.p_; }
    bool operator==(std::nullptr_t) const { return p_ == nullptr; }

  private:
    void acquire() {
        if (p_)
            p_->newRef();
    }
    void release() {
        if (p_)
            std::exchange(p_, nullptr)->deleteRef();
    }
    T* p_ = nullptr;
};

template <class T, class... Args>
Ptr<T> make(Args&&... args) {
    return Ptr<T>(new T(std::forward<Args>(args)...));
}

template <class T, class U>
Ptr<T> ptrCast(const Ptr<U>& p) {
    return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

}  // namespace Vorn
