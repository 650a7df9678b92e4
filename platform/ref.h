// Counted references to objects, the way automation objects are held.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace tabforge {

// Base of everything that is held by counted reference. Not thread-safe on purpose: every object
// lives in one apartment and is only ever touched on that apartment's thread.
class RefCounted {
 public:
  RefCounted(const RefCounted&) = delete;
  RefCounted& operator=(const RefCounted&) = delete;

  void AddRef() const noexcept { ++references_; }
  void Release() const noexcept {
    if (--references_ == 0)
      delete this;
  }

 protected:
  RefCounted() = default;
  virtual ~RefCounted() = default;

 private:
  mutable std::uint32_t references_ = 0;
};

// A counted reference; empty is the "nothing" of the automation world.
template <class T>
class Ref {
 public:
  Ref() = default;
  Ref(std::nullptr_t) {}  // NOLINT(google-explicit-constructor): nothing converts implicitly
  explicit Ref(T* object) : object_(object) {
    if (object_ != nullptr)
      object_->AddRef();
  }
  Ref(const Ref& other) : Ref(other.object_) {}
  Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ref(const Ref<U>& other) : Ref(other.get()) {}  // NOLINT(google-explicit-constructor)
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ref(Ref<U>&& other) noexcept : object_(other.Detach()) {}  // NOLINT(google-explicit-constructor)
  ~Ref() { reset(); }

  Ref& operator=(Ref other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  // Lets go of the object. The release runs after the field is already empty, so an object whose
  // destruction calls back finds the reference gone.
  void reset() noexcept {
    if (T* old = std::exchange(object_, nullptr))
      old->Release();
  }

  // Hands the reference over without releasing it.
  [[nodiscard]] T* Detach() noexcept { return std::exchange(object_, nullptr); }

  T* get() const noexcept { return object_; }
  T* operator->() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }

  friend bool operator==(const Ref& a, const Ref& b) noexcept { return a.object_ == b.object_; }
  friend bool operator==(const Ref& a, std::nullptr_t) noexcept { return a.object_ == nullptr; }

 private:
  T* object_ = nullptr;
};

template <class T, class... Args>
Ref<T> MakeRef(Args&&... args) {
  return Ref<T>(new T(std::forward<Args>(args)...));
}

}  // namespace tabforge
