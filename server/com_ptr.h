// Owners of COM and graphics resources: interface references, strings, variants, memory blocks,
// bitmap handles and GDI+ bitmaps. Nothing else in the server calls Release, SysFreeString,
// VariantClear, GlobalFree, DeleteObject or GdipDisposeImage.
#pragma once

#include <windows.h>

#include <objidl.h>
#include <oleauto.h>
#include <propidl.h>

// GDI+ needs the property ids of <propidl.h>, which WIN32_LEAN_AND_MEAN leaves out.
#include <gdiplus.h>

#include <cstddef>
#include <utility>

namespace tabforge::com {

// A counted interface reference.
template <class T>
class ComPtr {
 public:
  ComPtr() = default;
  ComPtr(std::nullptr_t) {}  // NOLINT(google-explicit-constructor)
  // Takes a reference of its own.
  explicit ComPtr(T* p) : p_(p) {
    if (p_ != nullptr)
      p_->AddRef();
  }
  ComPtr(const ComPtr& other) : ComPtr(other.p_) {}
  ComPtr(ComPtr&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
  ~ComPtr() { reset(); }
  ComPtr& operator=(ComPtr other) noexcept {
    std::swap(p_, other.p_);
    return *this;
  }

  // Takes over a reference that the caller already owns.
  static ComPtr Attach(T* p) noexcept {
    ComPtr result;
    result.p_ = p;
    return result;
  }
  [[nodiscard]] T* Detach() noexcept { return std::exchange(p_, nullptr); }
  void reset() noexcept {
    if (T* old = std::exchange(p_, nullptr))
      old->Release();
  }
  // For out-parameters: lets go of the current reference first.
  T** Put() noexcept {
    reset();
    return &p_;
  }
  void** PutVoid() noexcept { return reinterpret_cast<void**>(Put()); }

  template <class U>
  ComPtr<U> As() const noexcept {
    ComPtr<U> result;
    if (p_ != nullptr)
      p_->QueryInterface(__uuidof(U), result.PutVoid());
    return result;
  }

  T* get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

 private:
  T* p_ = nullptr;
};

// An owned BSTR.
class UniqueBstr {
 public:
  UniqueBstr() = default;
  explicit UniqueBstr(BSTR s) noexcept : s_(s) {}
  UniqueBstr(const wchar_t* text, UINT length) : s_(::SysAllocStringLen(text, length)) {}
  UniqueBstr(UniqueBstr&& other) noexcept : s_(std::exchange(other.s_, nullptr)) {}
  UniqueBstr& operator=(UniqueBstr&& other) noexcept {
    if (this != &other)
      Reset(std::exchange(other.s_, nullptr));
    return *this;
  }
  UniqueBstr(const UniqueBstr&) = delete;
  UniqueBstr& operator=(const UniqueBstr&) = delete;
  ~UniqueBstr() { Reset(); }

  void Reset(BSTR s = nullptr) noexcept {
    if (BSTR old = std::exchange(s_, s))
      ::SysFreeString(old);
  }
  [[nodiscard]] BSTR Detach() noexcept { return std::exchange(s_, nullptr); }
  BSTR* Put() noexcept {
    Reset();
    return &s_;
  }
  // For [in, out] parameters: the callee reads the string and may replace it.
  BSTR* InOut() noexcept { return &s_; }
  BSTR get() const noexcept { return s_; }
  UINT Length() const noexcept { return ::SysStringLen(s_); }

 private:
  BSTR s_ = nullptr;
};

// Frees the string that a caller's BSTR variable holds and stores a new one in it; the helper
// for [in, out] string parameters.
inline void ReplaceBstr(BSTR* slot, UniqueBstr value) noexcept {
  UniqueBstr old(*slot);
  *slot = value.Detach();
}

// An owned VARIANT, cleared on destruction.
class UniqueVariant {
 public:
  UniqueVariant() noexcept { ::VariantInit(&v_); }
  UniqueVariant(UniqueVariant&& other) noexcept : v_(other.v_) { ::VariantInit(&other.v_); }
  UniqueVariant& operator=(UniqueVariant&& other) noexcept {
    if (this != &other) {
      Clear();
      v_ = other.v_;
      ::VariantInit(&other.v_);
    }
    return *this;
  }
  UniqueVariant(const UniqueVariant&) = delete;
  UniqueVariant& operator=(const UniqueVariant&) = delete;
  ~UniqueVariant() { Clear(); }

  void Clear() noexcept { ::VariantClear(&v_); }
  // Hands the contents over to a VARIANT the caller owns (which must be empty or uninitialised).
  void DetachTo(VARIANT* target) noexcept {
    *target = v_;
    ::VariantInit(&v_);
  }
  VARIANT* get() noexcept { return &v_; }
  const VARIANT* get() const noexcept { return &v_; }
  VARIANT* operator->() noexcept { return &v_; }
  const VARIANT* operator->() const noexcept { return &v_; }

 private:
  VARIANT v_;
};

// Clears a VARIANT owned elsewhere (a caller's out-slot) through the one place that may.
inline void ClearVariant(VARIANT* v) noexcept {
  ::VariantClear(v);
}

// Handles that the core holds as numbers come back here to be released, so that each release
// function has exactly one caller. Each answers as the function it wraps.
inline HGLOBAL FreeGlobal(HGLOBAL block) noexcept {
  return ::GlobalFree(block);
}
inline bool DeleteBitmap(HBITMAP bitmap) noexcept {
  return ::DeleteObject(bitmap) != FALSE;
}
inline Gdiplus::GpStatus DisposeGdiplusImage(Gdiplus::GpImage* image) noexcept {
  return Gdiplus::DllExports::GdipDisposeImage(image);
}

// An owned handle of one of the kinds above, released unless it is handed on with Detach.
template <class Handle, auto release>
class UniqueHandle {
 public:
  UniqueHandle() = default;
  explicit UniqueHandle(Handle h) noexcept : h_(h) {}
  UniqueHandle(UniqueHandle&& other) noexcept : h_(std::exchange(other.h_, nullptr)) {}
  UniqueHandle& operator=(UniqueHandle&& other) noexcept {
    if (this != &other)
      Reset(std::exchange(other.h_, nullptr));
    return *this;
  }
  UniqueHandle(const UniqueHandle&) = delete;
  UniqueHandle& operator=(const UniqueHandle&) = delete;
  ~UniqueHandle() { Reset(); }

  void Reset(Handle h = nullptr) noexcept {
    if (Handle old = std::exchange(h_, h))
      release(old);
  }
  [[nodiscard]] Handle Detach() noexcept { return std::exchange(h_, nullptr); }
  Handle* Put() noexcept {
    Reset();
    return &h_;
  }
  Handle get() const noexcept { return h_; }
  explicit operator bool() const noexcept { return h_ != nullptr; }

 private:
  Handle h_ = nullptr;
};

using UniqueGlobal = UniqueHandle<HGLOBAL, FreeGlobal>;
using UniqueHBitmap = UniqueHandle<HBITMAP, DeleteBitmap>;
using UniqueGdiplusBitmap = UniqueHandle<Gdiplus::GpBitmap*, [](Gdiplus::GpBitmap* bitmap) {
  DisposeGdiplusImage(bitmap);
}>;

}  // namespace tabforge::com
