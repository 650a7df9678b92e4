// Owners of COM and system resources: interface references, strings, variants, arrays, registry
// keys, memory blocks, kernel handles, bitmap handles, GDI+ bitmaps and a thread's apartment.
// Nothing else in the server or the tools calls Release, SysFreeString, VariantClear,
// SafeArrayDestroy, RegCloseKey, GlobalFree, LocalFree, CloseHandle, DeleteObject,
// GdipDisposeImage or CoUninitialize.
//
// Every owner has the same methods: Get, Reset, Detach, Put (for out-parameters: lets go of the
// current value first) and InOut (for [in, out] parameters).
#pragma once

#include <windows.h>

#include <objidl.h>
#include <oleauto.h>
#include <propidl.h>

// GDI+ needs the property ids of <propidl.h>, which WIN32_LEAN_AND_MEAN leaves out.
#include <gdiplus.h>

#include <cstddef>
#include <type_traits>
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
  ~ComPtr() { Reset(); }
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
  void Reset() noexcept {
    if (T* old = std::exchange(p_, nullptr))
      old->Release();
  }
  T** Put() noexcept {
    Reset();
    return &p_;
  }
  void** PutVoid() noexcept { return reinterpret_cast<void**>(Put()); }

  // Asks for another interface of the same object and reports the answer; `out` is null unless
  // it succeeds.
  template <class U>
  HRESULT As(ComPtr<U>* out) const noexcept {
    out->Reset();
    if (p_ == nullptr)
      return E_POINTER;
    return p_->QueryInterface(__uuidof(U), out->PutVoid());
  }
  // The same question for callers to whom an object without the interface is an ordinary case:
  // null when it has none.
  template <class U>
  ComPtr<U> TryAs() const noexcept {
    ComPtr<U> result;
    As(&result);
    return result;
  }

  T* Get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

 private:
  T* p_ = nullptr;
};

// An owned value of type `T`, released with `release` unless it is handed on with Detach. `T` is
// a handle, empty when it is the type's zero value, or a VARIANT, empty when VT_EMPTY; a VARIANT
// is reached through its address, as every automation call takes it.
template <class T, auto release>
class UniqueHandle {
  static constexpr bool kByAddress = std::is_class_v<T>;

 public:
  UniqueHandle() noexcept = default;
  explicit UniqueHandle(T value) noexcept : value_(value) {}
  UniqueHandle(UniqueHandle&& other) noexcept : value_(std::exchange(other.value_, T{})) {}
  UniqueHandle& operator=(UniqueHandle&& other) noexcept {
    if (this != &other)
      Reset(std::exchange(other.value_, T{}));
    return *this;
  }
  UniqueHandle(const UniqueHandle&) = delete;
  UniqueHandle& operator=(const UniqueHandle&) = delete;
  ~UniqueHandle() { Reset(); }

  void Reset(T value = T{}) noexcept {
    T old = std::exchange(value_, value);
    if (!IsEmpty(old))
      release(old);
  }
  [[nodiscard]] T Detach() noexcept { return std::exchange(value_, T{}); }
  T* Put() noexcept {
    Reset();
    return &value_;
  }
  // The callee reads the value and may replace it, releasing the old one itself.
  T* InOut() noexcept { return &value_; }

  auto Get() const noexcept {
    if constexpr (kByAddress)
      return &value_;
    else
      return value_;
  }
  T* Get() noexcept requires kByAddress { return &value_; }
  const T* operator->() const noexcept requires kByAddress { return &value_; }
  T* operator->() noexcept requires kByAddress { return &value_; }
  explicit operator bool() const noexcept { return !IsEmpty(value_); }

 private:
  static bool IsEmpty(const T& value) noexcept {
    if constexpr (std::is_same_v<T, VARIANT>)
      return V_VT(&value) == VT_EMPTY;
    else
      return value == T{};
  }

  T value_{};
};

// Handles that the core holds as numbers come back here to be released, so that each release
// function has exactly one caller. Each answers as the function it wraps.
inline HGLOBAL FreeGlobal(HGLOBAL block) noexcept {
  return ::GlobalFree(block);
}
inline HLOCAL FreeLocal(HLOCAL block) noexcept {
  return ::LocalFree(block);
}
inline bool DeleteBitmap(HBITMAP bitmap) noexcept {
  return ::DeleteObject(bitmap) != FALSE;
}
inline Gdiplus::GpStatus DisposeGdiplusImage(Gdiplus::GpImage* image) noexcept {
  return Gdiplus::DllExports::GdipDisposeImage(image);
}

inline BOOL CloseKernelHandle(HANDLE handle) noexcept {
  return ::CloseHandle(handle);
}

// Clears a copy of a VARIANT: its contents are what the owner held. (A named function rather
// than a lambda, so that the owner is the same type in every file.)
inline void ClearVariantCopy(VARIANT v) noexcept {
  ::VariantClear(&v);
}
inline void DisposeGdiplusBitmap(Gdiplus::GpBitmap* bitmap) noexcept {
  DisposeGdiplusImage(bitmap);
}

using UniqueBstr = UniqueHandle<BSTR, ::SysFreeString>;
using UniqueVariant = UniqueHandle<VARIANT, ClearVariantCopy>;
using UniqueSafeArray = UniqueHandle<SAFEARRAY*, ::SafeArrayDestroy>;
// Never one of the predefined roots (HKEY_CLASSES_ROOT and the like), which nobody owns.
using UniqueHkey = UniqueHandle<HKEY, ::RegCloseKey>;
// Blocks that the system allocates for its caller with LocalAlloc (FormatMessageW's text,
// CommandLineToArgvW's list).
using UniqueLocal = UniqueHandle<HLOCAL, FreeLocal>;
// Threads, processes and pipe ends: CreateThread, CreateProcessW and CreatePipe answer null, or
// leave the slot null, when they fail.
using UniqueKernelHandle = UniqueHandle<HANDLE, CloseKernelHandle>;
// Files, snapshots and searches: a failed CreateFileW, CreateToolhelp32Snapshot or FindFirstFileW
// answers INVALID_HANDLE_VALUE, which is never owned (OwnedOrEmpty).
using UniqueFile = UniqueKernelHandle;
using UniqueFind = UniqueHandle<HANDLE, ::FindClose>;
inline HANDLE OwnedOrEmpty(HANDLE handle) noexcept {
  return handle == INVALID_HANDLE_VALUE ? nullptr : handle;
}
using UniqueHBitmap = UniqueHandle<HBITMAP, DeleteBitmap>;
using UniqueGdiplusBitmap = UniqueHandle<Gdiplus::GpBitmap*, DisposeGdiplusBitmap>;

// Stores `value` in a slot that a caller owns and releases what the slot held: the helper for
// [in, out] parameters and for slots handed over by reference.
template <class T, auto release>
void Replace(T* slot, UniqueHandle<T, release> value) noexcept {
  UniqueHandle<T, release> old(std::exchange(*slot, value.Detach()));
}

// Empties a VARIANT owned elsewhere (a caller's slot).
inline void ClearVariant(VARIANT* v) noexcept {
  Replace(v, UniqueVariant());
}

// COM on the calling thread for the life of the object, in the apartment that `model` names. Only
// an initialisation that succeeded (S_FALSE too: the thread already had this apartment) is
// matched with CoUninitialize; every COM object of the thread must be gone before the owner is.
class ComApartment {
 public:
  explicit ComApartment(DWORD model = COINIT_APARTMENTTHREADED) noexcept
      : result_(::CoInitializeEx(nullptr, model)) {}
  ComApartment(const ComApartment&) = delete;
  ComApartment& operator=(const ComApartment&) = delete;
  ~ComApartment() {
    if (SUCCEEDED(result_))
      ::CoUninitialize();
  }

  // What CoInitializeEx answered.
  HRESULT Result() const noexcept { return result_; }
  explicit operator bool() const noexcept { return SUCCEEDED(result_); }

 private:
  HRESULT result_;
};

// Holds an SRW lock exclusively for its scope.
class ExclusiveLock {
 public:
  explicit ExclusiveLock(SRWLOCK& lock) : lock_(lock) { ::AcquireSRWLockExclusive(&lock_); }
  ExclusiveLock(const ExclusiveLock&) = delete;
  ExclusiveLock& operator=(const ExclusiveLock&) = delete;
  ~ExclusiveLock() { ::ReleaseSRWLockExclusive(&lock_); }

 private:
  SRWLOCK& lock_;
};

}  // namespace tabforge::com
