// The IUnknown half that the project's COM objects share: a reference count that starts at one
// (the creator's), deletion with the last reference, QueryInterface for IUnknown, IDispatch and
// the object's own interface, a hold on the module and the apartment for the object's life, and
// a hold on the object itself for the length of each call.
#pragma once

#include <windows.h>

#include <oaidl.h>

#include "server/apartment.h"

namespace tabforge::com {

// COM interfaces have no virtual destructor by design; objects delete themselves in Release.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// `Derived` implements `Interface`, an interface derived from IDispatch. It may answer further
// identities by hiding `QueryMore`, which returns the pointer to hand out (counted by the caller's
// rules for that identity) or null.
template <class Derived, class Interface>
class ComObject : public Interface {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    if (out == nullptr)
      return E_POINTER;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDispatch) ||
        IsEqualIID(riid, __uuidof(Interface))) {
      *out = static_cast<Interface*>(this);
      AddRef();
      return S_OK;
    }
    *out = static_cast<Derived*>(this)->QueryMore(riid);
    return *out != nullptr ? S_OK : E_NOINTERFACE;
  }
  // Counted atomically: a caller that breaks the apartment rules must not free a live object.
  ULONG STDMETHODCALLTYPE AddRef() override {
    return static_cast<ULONG>(::InterlockedIncrement(&references_));
  }
  ULONG STDMETHODCALLTYPE Release() override {
    const LONG left = ::InterlockedDecrement(&references_);
    if (left == 0)
      delete static_cast<Derived*>(this);
    return static_cast<ULONG>(left);
  }

 protected:
  ComObject() = default;
  ~ComObject() = default;
  void* QueryMore(REFIID) { return nullptr; }

  // The object's own reference for the length of one call. Whatever the call lets run (a macro,
  // a message, a collaborator that calls back) may let go of the caller's last reference; the
  // object, and with it its apartment, goes only when the call is over.
  class CallHold {
   public:
    explicit CallHold(ComObject* object) : object_(object) { object_->AddRef(); }
    CallHold(const CallHold&) = delete;
    CallHold& operator=(const CallHold&) = delete;
    ~CallHold() { object_->Release(); }

   private:
    ComObject* object_;
  };

 private:
  ObjectHold hold_;
  LONG references_ = 1;
};

// GetTypeInfoCount and GetTypeInfo of an object without type information: its members are reached
// by name.
inline HRESULT NoTypeInfoCount(UINT* count) {
  if (count == nullptr)
    return E_POINTER;
  *count = 0;
  return S_OK;
}
inline HRESULT NoTypeInfo(ITypeInfo** out) {
  if (out != nullptr)
    *out = nullptr;
  return DISP_E_BADINDEX;
}

#pragma GCC diagnostic pop

}  // namespace tabforge::com
