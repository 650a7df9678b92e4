// Any core object as an IDispatch: its members get dispatch ids by name on first request and are
// invoked by name. The error component reaches the dump's objects this way.
//
// An object that comes back in is known for an adapter by its address among the live adapters,
// never by asking the object: a foreign object could answer any question with itself.
#pragma once

#include <windows.h>

#include <oaidl.h>

#include <cstddef>
#include <vector>

#include "platform/object.h"
#include "platform/utf16.h"
#include "server/com_object.h"
#include "server/com_ptr.h"

namespace tabforge::com {

class DispatchAdapter final : public ComObject<DispatchAdapter, IDispatch> {
 public:
  static ComPtr<IDispatch> Create(Ref<Object> object);
  // The core object behind `dispatch` when it is one of these adapters, else nothing. Makes no
  // call on `dispatch`.
  static Ref<Object> Unwrap(IDispatch* dispatch);
  // The most names that one adapter gives ids to; later names are unknown.
  static constexpr std::size_t kMaxNames = 256;

  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override;
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID locale, ITypeInfo** out) override;
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID locale,
                                          DISPID* ids) override;
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID riid, LCID locale, WORD flags,
                                   DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,
                                   UINT* argumentError) override;

 private:
  friend class ComObject<DispatchAdapter, IDispatch>;
  explicit DispatchAdapter(Ref<Object> object);
  ~DispatchAdapter();

  Ref<Object> object_;
  // Names in the order they were asked for; a member's id is its index plus one.
  std::vector<Utf16String> names_;
};

}  // namespace tabforge::com
