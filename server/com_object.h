// The IUnknown half that the project's COM objects share: a reference count that starts at one
// (the creator's), deletion with the last reference, QueryInterface for IUnknown, IDispatch and
// the object's own interface, a hold on the module and the apartment for the object's life, and
// a hold on the object itself for the length of each call.
#pragma once

#include <windows.h>

#include <oaidl.h>

#include "server/apartment.h"

namespace tabforge::com {

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

  // The first line of every call from outside: the object's own reference for the length of the
  // call, the call's budget, and the object's apartment for a caller on another thread.
  //
  // Whatever the call lets run (a macro, a message, a collaborator that calls back) may let go of
  // the caller's last reference; the object, and with it its apartment, goes only when the call is
  // over. Every call from outside is the outermost scope of its own: the budget (calls on
  // collaborators, the library's own time, the stack) opens here, before any argument is looked
  // at, and the entry's barrier refuses the call when the stack is used up already.
  class CallHold {
   public:
    explicit CallHold(ComObject* object)
        : reference_(object),
          visit_(object->hold_.Apartment()),
          budget_(BudgetOf(object), TABFORGE_STACK_HERE(), SystemOf(object)) {}
    CallHold(const CallHold&) = delete;
    CallHold& operator=(const CallHold&) = delete;

   private:
    class Reference {
     public:
      explicit Reference(ComObject* object) : object_(object) { object_->AddRef(); }
      Reference(const Reference&) = delete;
      Reference& operator=(const Reference&) = delete;
      ~Reference() { object_->Release(); }

     private:
      ComObject* object_;
    };
    static CallBudget* BudgetOf(const ComObject* object) {
      VbwProtector* protector = object->hold_.Protector();
      return protector != nullptr ? &protector->budget : nullptr;
    }
    static const SystemFacts* SystemOf(const ComObject* object) {
      VbwProtector* protector = object->hold_.Protector();
      return protector != nullptr ? protector->platform().system : nullptr;
    }

    // Released last, after the budget has closed and the visit has ended.
    Reference reference_;
    ApartmentVisit visit_;
    CallBudget::Scope budget_;
  };

 private:
  ObjectHold hold_;
  LONG references_ = 1;
};

// QueryInterface of a class factory, which is nothing but its IUnknown and IClassFactory.
inline HRESULT QueryClassFactory(IClassFactory* factory, REFIID riid, void** out) {
  if (out == nullptr)
    return E_POINTER;
  if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IClassFactory)) {
    *out = factory;
    factory->AddRef();
    return S_OK;
  }
  *out = nullptr;
  return E_NOINTERFACE;
}

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

}  // namespace tabforge::com
