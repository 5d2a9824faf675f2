// Counted objects: the base every platform-held object derives from, and the
// counted reference that holds them.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>

namespace Pelinor {

class ObjectImpl {
  public:
    ObjectImpl() = default;
    ObjectImpl(const ObjectImpl&) = delete;
    ObjectImpl& operator=(const ObjectImpl&) = delete;

    void IncRef() const noexcept { refCount.fetch_add(1, std::memory_order_relaxed); }
    void DecRef() const noexcept {
        if (refCount.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }
    virtual std::string ToString() const;

  protected:
    virtual ~ObjectImpl() = default;

  private:
    mutable std::atomic<int32_t> refCount{0};
};

// Holds one reference to a counted object (or none).
template <typename T>
class Ref {
  public:
    Ref() noexcept = default;
    Ref(std::nullptr_t) noexcept {}
    explicit Ref(T* p) noexcept : ptr(p) {
        if (ptr) ptr->IncRef();
    }
    Ref(const Ref& o) noexcept : Ref(o.ptr) {}
    Ref(Ref&& o) noexcept : ptr(std::exchange(o.ptr, nullptr)) {}
    template <typename U>
    Ref(const Ref<U>& o) noexcept : Ref(o.Get()) {}
    template <typename U>
    Ref(Ref<U>&& o) noexcept : ptr(o.Detach()) {}
    ~Ref() { Reset(); }

    Ref& operator=(Ref o) noexcept {
        std::swap(ptr, o.ptr);
        return *this;
    }

    void Reset() noexcept {
        if (T* p = std::exchange(ptr, nullptr)) p->DecRef();
    }
    // Gives up the reference without releasing it; the caller now owns it.
    T* Detach() noexcept { return std::exchange(ptr, nullptr); }

    T* Get() const noexcept { return ptr; }
    T* operator->() const noexcept { return ptr; }
    T& operator*() const noexcept { return *ptr; }
    explicit operator bool() const noexcept { return ptr != nullptr; }
    friend bool operator==(const Ref& a, const Ref& b) noexcept { return a.ptr == b.ptr; }

  private:
    T* ptr = nullptr;
};

// The one place counted objects are allocated; the last DecRef deletes them.
template <typename T, typename... Args>
Ref<T> MakeRef(Args&&... args) {
    return Ref<T>(new T(std::forward<Args>(args)...));
}

}  // namespace Pelinor
