#include "server/dispatch_adapter.h"

#include <algorithm>
#include <new>

#include "platform/failure.h"
#include "platform/variant.h"
#include "server/barrier.h"
#include "server/conversions.h"

namespace tabforge::com {

namespace {

// Identifies our own adapters behind an IDispatch; answered only by DispatchAdapter.
// {6A3D8F0E-52B1-4C77-9E4B-1F0C2D7A9B31}
constexpr IID kIidDispatchAdapter = {
    0x6a3d8f0e, 0x52b1, 0x4c77, {0x9e, 0x4b, 0x1f, 0x0c, 0x2d, 0x7a, 0x9b, 0x31}};

}  // namespace

DispatchAdapter::DispatchAdapter(Ref<Object> object) : object_(std::move(object)) {}
DispatchAdapter::~DispatchAdapter() = default;

ComPtr<IDispatch> DispatchAdapter::Create(Ref<Object> object) {
  auto* adapter = new (std::nothrow) DispatchAdapter(std::move(object));
  if (adapter == nullptr)
    Raise(RunTimeError::kOutOfMemory);
  return ComPtr<IDispatch>::Attach(adapter);
}

Ref<Object> DispatchAdapter::Unwrap(IDispatch* dispatch) {
  void* raw = nullptr;
  if (dispatch == nullptr || FAILED(dispatch->QueryInterface(kIidDispatchAdapter, &raw)))
    return nullptr;
  // The query handed out no reference; see QueryInterface.
  return static_cast<DispatchAdapter*>(raw)->object_;
}

void* DispatchAdapter::QueryMore(REFIID riid) {
  return IsEqualIID(riid, kIidDispatchAdapter) ? this : nullptr;
}

HRESULT DispatchAdapter::GetTypeInfoCount(UINT* count) {
  return NoTypeInfoCount(count);
}

HRESULT DispatchAdapter::GetTypeInfo(UINT, LCID, ITypeInfo** out) {
  return NoTypeInfo(out);
}

HRESULT DispatchAdapter::GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) {
  if (names == nullptr || ids == nullptr)
    return E_POINTER;
  return Barrier([&] {
    // The member name gets an id; named arguments are not supported.
    for (UINT i = 1; i < count; ++i)
      ids[i] = DISPID_UNKNOWN;
    const Utf16String name(reinterpret_cast<const char16_t*>(names[0]));
    auto found = std::find_if(names_.begin(), names_.end(), [&](const Utf16String& known) {
      return SameMemberName(known, name);
    });
    if (found == names_.end()) {
      names_.push_back(name);
      found = names_.end() - 1;
    }
    ids[0] = static_cast<DISPID>(found - names_.begin()) + 1;
    return count > 1 ? DISP_E_UNKNOWNNAME : S_OK;
  });
}

HRESULT DispatchAdapter::Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params,
                                VARIANT* result, EXCEPINFO* exception, UINT*) {
  if (id < 1 || static_cast<std::size_t>(id) > names_.size())
    return DISP_E_MEMBERNOTFOUND;
  return Barrier<FailurePolicy::kException>(
      [&] {
        const Utf16String member = names_[static_cast<std::size_t>(id) - 1];
        const UINT count = params != nullptr ? params->cArgs : 0;
        // Arguments in declared order; a VARIANT passed by reference is written back after the
        // call.
        std::vector<Variant> values(count);
        std::vector<Variant> arguments(count);
        for (UINT i = 0; i < count; ++i) {
          const VARIANT& raw = params->rgvarg[count - 1 - i];
          values[i] = FromAutomation(raw);
          arguments[i] =
              V_VT(&raw) == (VT_BYREF | VT_VARIANT) ? Variant::ByRef(&values[i]) : values[i];
        }
        CallKind kind = CallKind::kMethod;
        if ((flags & DISPATCH_PROPERTYPUTREF) != 0)
          kind = CallKind::kPropertyPutRef;
        else if ((flags & DISPATCH_PROPERTYPUT) != 0)
          kind = CallKind::kPropertyPut;
        else if ((flags & DISPATCH_METHOD) == 0)
          kind = CallKind::kPropertyGet;
        Variant answer = object_->Invoke(member, kind, arguments);
        for (UINT i = 0; i < count; ++i) {
          VARIANT& raw = params->rgvarg[count - 1 - i];
          if (V_VT(&raw) == (VT_BYREF | VT_VARIANT) && V_VARIANTREF(&raw) != nullptr)
            Replace(V_VARIANTREF(&raw), ToAutomation(values[i]));
        }
        if (result != nullptr)
          *result = ToAutomation(answer).Detach();
        return S_OK;
      },
      exception);
}

}  // namespace tabforge::com
