#include "server/main2_object.h"

#include <new>
#include <string>

#include "server/apartment.h"
#include "server/conversions.h"
#include "server/windows_platform.h"

namespace tabforge::com {

namespace {

long g_moduleReferences = 0;

// Runs one member's body; whatever happens inside, the caller sees success.
template <class Body>
HRESULT Boundary(Body&& body) noexcept {
  try {
    body();
  } catch (...) {
  }
  return S_OK;
}

Bstr InString(const BSTR* value) {
  return value != nullptr ? FromBstr(*value) : Bstr();
}

Ref<Object> InObject(IDispatch* const* value) {
  return value != nullptr ? WrapDispatch(*value) : nullptr;
}

VariantBool InBool(const VARIANT_BOOL* value) {
  return value != nullptr ? FromVariantBool(*value) : kFalse;
}

// Clears a result slot before the body runs, so that a failure leaves the zero value.
template <class T>
void ClearResult(T** result) {
  if (result != nullptr)
    *result = nullptr;
}
void ClearResult(VARIANT_BOOL* result) {
  if (result != nullptr)
    *result = VARIANT_FALSE;
}

void SetResult(BSTR* result, const Bstr& value) {
  if (result != nullptr)
    *result = MakeBstr(value).Detach();
}
void SetResult(VARIANT_BOOL* result, VariantBool value) {
  if (result != nullptr)
    *result = ToVariantBoolValue(value);
}
void SetResult(IPictureDisp** result, const Ref<Object>& picture) {
  if (result != nullptr)
    *result = ToDispatch(picture).As<IPictureDisp>().Detach();
}

HMODULE ThisModule() {
  HMODULE module = nullptr;
  ::GetModuleHandleExW(
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
      reinterpret_cast<LPCWSTR>(&ThisModule), &module);
  return module;
}

// Script engines pass a variable as VT_BYREF|VT_VARIANT. DispInvoke binds a typed [in, out]
// parameter only to the matching VT_BYREF|<type>, so point straight into the caller's VARIANT;
// the member then writes back into the script's variable.
void UnwrapByRefVariants(DISPPARAMS* params) {
  if (params == nullptr)
    return;
  for (UINT i = 0; i < params->cArgs; ++i) {
    VARIANT& argument = params->rgvarg[i];
    if (V_VT(&argument) != (VT_BYREF | VT_VARIANT) || V_VARIANTREF(&argument) == nullptr)
      continue;
    VARIANT* target = V_VARIANTREF(&argument);
    switch (V_VT(target)) {
      case VT_BSTR:
        V_VT(&argument) = VT_BYREF | VT_BSTR;
        V_BSTRREF(&argument) = &V_BSTR(target);
        break;
      case VT_BOOL:
        V_VT(&argument) = VT_BYREF | VT_BOOL;
        V_BOOLREF(&argument) = &V_BOOL(target);
        break;
      case VT_DISPATCH:
        V_VT(&argument) = VT_BYREF | VT_DISPATCH;
        V_DISPATCHREF(&argument) = &V_DISPATCH(target);
        break;
      default:
        break;  // DispInvoke's own coercion handles the rest
    }
  }
}

}  // namespace

void ModuleAddRef() {
  ::InterlockedIncrement(&g_moduleReferences);
}
void ModuleRelease() {
  ::InterlockedDecrement(&g_moduleReferences);
}
bool ModuleInUse() {
  return ::InterlockedCompareExchange(&g_moduleReferences, 0, 0) != 0;
}

ComPtr<ITypeInfo> LoadMain2TypeInfo() {
  wchar_t path[MAX_PATH * 2] = {};
  ::GetModuleFileNameW(ThisModule(), path, static_cast<DWORD>(std::size(path)));
  ComPtr<ITypeLib> library;
  if (FAILED(::LoadTypeLibEx(path, REGKIND_NONE, library.Put())))
    return nullptr;
  ComPtr<ITypeInfo> info;
  if (FAILED(library->GetTypeInfoOfGuid(IID__Main2, info.Put())))
    return nullptr;
  // For a dual interface that is the dispatch view; DispInvoke needs the interface it describes.
  HREFTYPE vtableRef = 0;
  ComPtr<ITypeInfo> vtable;
  if (FAILED(info->GetRefTypeOfImplType(static_cast<UINT>(-1), &vtableRef)) ||
      FAILED(info->GetRefTypeInfo(vtableRef, vtable.Put())))
    return nullptr;
  return vtable;
}

HRESULT Main2Object::Create(REFIID riid, void** out) {
  if (out == nullptr)
    return E_POINTER;
  *out = nullptr;
  try {
    ComPtr<ITypeInfo> typeInfo = LoadMain2TypeInfo();
    if (!typeInfo)
      return TYPE_E_CANTLOADLIBRARY;
    // The apartment's tracing module starts before its first object exists.
    VbwProtector& protector = ApartmentProtector();
    auto* object = new (std::nothrow) Main2Object(protector, std::move(typeInfo));
    if (object == nullptr)
      return E_OUTOFMEMORY;
    const HRESULT hr = object->QueryInterface(riid, out);
    object->Release();
    return hr;
  } catch (...) {
    return E_UNEXPECTED;
  }
}

Main2Object::Main2Object(VbwProtector& protector, ComPtr<ITypeInfo> typeInfo)
    : typeInfo_(std::move(typeInfo)), core_(protector) {
  ModuleAddRef();
}

Main2Object::~Main2Object() {
  ModuleRelease();
}

HRESULT Main2Object::GetTypeInfoCount(UINT* count) {
  if (count == nullptr)
    return E_POINTER;
  *count = 1;
  return S_OK;
}

HRESULT Main2Object::GetTypeInfo(UINT index, LCID, ITypeInfo** out) {
  if (out == nullptr)
    return E_POINTER;
  *out = nullptr;
  if (index != 0)
    return DISP_E_BADINDEX;
  *out = ComPtr<ITypeInfo>(typeInfo_).Detach();
  return S_OK;
}

HRESULT Main2Object::GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) {
  return ::DispGetIDsOfNames(typeInfo_.get(), names, count, ids);
}

HRESULT Main2Object::Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params,
                            VARIANT* result, EXCEPINFO* exception, UINT* argumentError) {
  UnwrapByRefVariants(params);
  return ::DispInvoke(static_cast<_Main2*>(this), typeInfo_.get(), id, flags, params, result,
                      exception, argumentError);
}

// --- The members --------------------------------------------------------------------------------

HRESULT Main2Object::Initialize(IDispatch** eventSignaller, BSTR* productName) {
  return Boundary([&] { core_.Initialize(InObject(eventSignaller), InString(productName)); });
}

HRESULT Main2Object::putref_ribbon(IDispatch** value) {
  return Boundary([&] { core_.ribbon(InObject(value)); });
}

HRESULT Main2Object::GetRibbonXML(BSTR* result) {
  ClearResult(result);
  return Boundary([&] { SetResult(result, core_.GetRibbonXML()); });
}

HRESULT Main2Object::productNameChanged(BSTR* productName) {
  return Boundary([&] { core_.productNameChanged(InString(productName)); });
}

HRESULT Main2Object::get_GetLabel(BSTR* idStr, BSTR* result) {
  ClearResult(result);
  return Boundary([&] { SetResult(result, core_.GetLabel(InString(idStr))); });
}

HRESULT Main2Object::get_GetEnabled(BSTR* idStr, VARIANT_BOOL* result) {
  ClearResult(result);
  return Boundary([&] { SetResult(result, core_.GetEnabled(InString(idStr))); });
}

HRESULT Main2Object::get_GetPressed(BSTR* idStr, VARIANT_BOOL* result) {
  ClearResult(result);
  return Boundary([&] { SetResult(result, core_.GetPressed(InString(idStr))); });
}

HRESULT Main2Object::get_GetScreentip(BSTR* idStr, BSTR* result) {
  ClearResult(result);
  return Boundary([&] { SetResult(result, core_.GetScreentip(InString(idStr))); });
}

HRESULT Main2Object::get_GetImage(BSTR* idStr, IPictureDisp** result) {
  ClearResult(result);
  return Boundary([&] { SetResult(result, core_.GetImage(InString(idStr))); });
}

HRESULT Main2Object::LoadImage(BSTR* id, IPictureDisp** result) {
  ClearResult(result);
  return Boundary([&] { SetResult(result, core_.LoadImage(InString(id))); });
}

HRESULT Main2Object::RibbonCallback(BSTR* idStr, VARIANT_BOOL* isOn) {
  return Boundary([&] { core_.RibbonCallback(InString(idStr), InBool(isOn)); });
}

HRESULT Main2Object::EnableGotoQuickBookmark(VARIANT_BOOL* value) {
  return Boundary([&] { core_.EnableGotoQuickBookmark(InBool(value)); });
}

HRESULT Main2Object::UpdateLexoscopeIcon(VARIANT_BOOL* enable) {
  return Boundary([&] { core_.UpdateLexoscopeIcon(InBool(enable)); });
}

HRESULT Main2Object::EnableToolbar(VARIANT_BOOL* value) {
  return Boundary([&] { core_.EnableToolbar(InBool(value)); });
}

HRESULT Main2Object::activateMorvelinTab(IDispatch** RibbonCommandBar) {
  return Boundary([&] { core_.activateMorvelinTab(InObject(RibbonCommandBar)); });
}

}  // namespace tabforge::com
