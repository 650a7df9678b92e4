// The benchmarks' stand-ins for the host's objects: an IDispatch that lives for the whole run,
// answers IUnknown and IDispatch with itself, counts its references for form's sake only, and has
// no type information. A stand-in names its members and answers its calls.
#pragma once

#include <windows.h>

#include <oaidl.h>

class StandInDispatch : public IDispatch {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    if (object == nullptr)
      return E_POINTER;
    if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IDispatch)) {
      *object = nullptr;
      return E_NOINTERFACE;
    }
    *object = static_cast<IDispatch*>(this);
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++references_; }
  ULONG STDMETHODCALLTYPE Release() override { return --references_; }
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
    *count = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }

 protected:
  ~StandInDispatch() = default;

 private:
  ULONG references_ = 1;
};
