// A dispatch object for the Wine tests, standing in for the objects a host hands the library: it
// counts references without ever deleting itself, knows each member by the name it was first asked
// for, records the members invoked, and answers through `Answer`.
#pragma once

#include <windows.h>

#include <oaidl.h>

#include <string>
#include <vector>

// COM interfaces have no virtual destructor by design; objects delete themselves in Release.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class DispatchDouble : public IDispatch {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDispatch)) {
      *out = static_cast<IDispatch*>(this);
      AddRef();
      return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++references; }
  ULONG STDMETHODCALLTYPE Release() override { return --references; }
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
    *count = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT, LCID,
                                          DISPID* ids) override {
    members.emplace_back(names[0]);
    ids[0] = static_cast<DISPID>(members.size());
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params,
                                   VARIANT* result, EXCEPINFO*, UINT*) override {
    if (id < 1 || static_cast<std::size_t>(id) > members.size())
      return DISP_E_MEMBERNOTFOUND;
    invoked.push_back(members[static_cast<std::size_t>(id) - 1]);
    return Answer(invoked.back(), params, result);
  }
  virtual HRESULT Answer(const std::wstring&, DISPPARAMS*, VARIANT*) { return S_OK; }

  ULONG references = 1;  // the test's own
  std::vector<std::wstring> members;
  std::vector<std::wstring> invoked;
};

#pragma GCC diagnostic pop
