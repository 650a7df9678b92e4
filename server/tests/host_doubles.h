// What the Wine clients hand the library in a host's place: an apartment, dispatch objects that
// record what they are asked, and the error component "MorvelinError.Main2" registered in this
// process; and what they do with Main2 as a host does: create it, connect it, call it by name, and
// ask the library whether it may be unloaded.
#pragma once

#include <windows.h>

#include <oaidl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Tabforge_h.h"
#include "server/com_ptr.h"
#include "server/registry_entries.h"

using tabforge::com::ComApartment;
using tabforge::com::ComPtr;
using tabforge::com::GuidText;
using tabforge::com::UniqueBstr;
using tabforge::com::UniqueKernelHandle;
using tabforge::com::UniqueVariant;

// The first apartment of this thread, for the life of the object.
struct Apartment : ComApartment {
  Apartment() { EXPECT_EQ(Result(), S_OK); }
};

struct ComTest : ::testing::Test {
  Apartment apartment;
};

constexpr UINT kUntouched = 0xDEADBEEF;  // an argument error that the callee has not written

// A value as the platform writes it as text, references followed; objects are not asked for theirs.
inline std::wstring TextOf(const VARIANT& value) {
  const VARTYPE type = V_VT(&value) & VT_TYPEMASK;
  UniqueVariant text;
  if (type == VT_DISPATCH || type == VT_UNKNOWN)
    return L"object";
  if (FAILED(::VariantChangeType(text.Put(), const_cast<VARIANT*>(&value), VARIANT_ALPHABOOL,
                                 VT_BSTR)))
    return L"?";
  return std::wstring(V_BSTR(text.Get()), ::SysStringLen(V_BSTR(text.Get())));
}

// A value of `type` as the platform reads it from `text` ("5", "2.5", "0" for false).
inline UniqueVariant Value(VARTYPE type, const wchar_t* text) {
  UniqueVariant string;
  UniqueVariant value;
  V_VT(string.Get()) = VT_BSTR;
  V_BSTR(string.Get()) = ::SysAllocString(text);
  if (type == VT_BSTR)
    return string;
  EXPECT_EQ(::VariantChangeType(value.Put(), string.Get(), 0, type), S_OK) << text;
  return value;
}

// Stands in for an object of the host: counts references without ever deleting itself, counts the
// questions for `Interface`, gives each name it is asked for an id of its own (of a list, the first
// name; the others are unknown), records every call as its member and arguments, and answers
// through `Answer`.
template <class Interface = IDispatch>
class DispatchDouble : public Interface {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    const bool own = IsEqualIID(riid, __uuidof(Interface));
    queried += own ? 1 : 0;
    *out = own || IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDispatch)
               ? static_cast<Interface*>(this)
               : nullptr;
    if (*out == nullptr)
      return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++references; }
  ULONG STDMETHODCALLTYPE Release() override { return --references; }
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
    *count = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID,
                                          DISPID* ids) override {
    if (names == nullptr || ids == nullptr || count == 0 || names[0] == nullptr)
      return E_INVALIDARG;
    const auto known = std::find(members.begin(), members.end(), names[0]);
    ids[0] = static_cast<DISPID>(known - members.begin()) + 1;
    if (known == members.end())
      members.emplace_back(names[0]);
    return count == 1 ? S_OK : DISP_E_UNKNOWNNAME;
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params,
                                   VARIANT* result, EXCEPINFO*, UINT*) override {
    if (id < 1 || static_cast<std::size_t>(id) > members.size())
      return DISP_E_MEMBERNOTFOUND;
    const std::wstring& member = members[static_cast<std::size_t>(id) - 1];
    invoked.push_back(member);
    for (UINT i = params != nullptr ? params->cArgs : 0; i-- > 0;)
      invoked.back() += L" " + TextOf(params->rgvarg[i]);
    return Answer(member, params, result);
  }
  virtual HRESULT Answer(const std::wstring&, DISPPARAMS*, VARIANT*) { return S_OK; }
  virtual ~DispatchDouble() = default;

  ULONG references = 1;  // the test's own
  int queried = 0;
  std::vector<std::wstring> members;
  std::vector<std::wstring> invoked;
};

// The error component "MorvelinError.Main2", registered in this process while it lives. It answers
// the handler from `answers` in turn, the last for ever (7, leave, when there are none), records
// each failure's number, and reads then writes slot 5 of the stack it is handed. When told to, it
// keeps every object handed to it, fails the dump's opening and fails every report.
class ErrorComponent final : public DispatchDouble<>, public IClassFactory {
 public:
  ErrorComponent() {
    EXPECT_EQ(::CoRegisterClassObject(kClsid, static_cast<IClassFactory*>(this),
                                      CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &cookie_),
              S_OK);
    EXPECT_EQ(::RegSetValueW(HKEY_CLASSES_ROOT, L"MorvelinError.Main2\\CLSID", REG_SZ,
                             GuidText(kClsid).c_str(), 0),
              ERROR_SUCCESS);
  }
  ~ErrorComponent() override {
    ::CoRevokeClassObject(cookie_);
    ::RegDeleteTreeW(HKEY_CLASSES_ROOT, L"MorvelinError.Main2");
  }
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    if (!IsEqualIID(riid, IID_IClassFactory))
      return DispatchDouble::QueryInterface(riid, out);
    *out = static_cast<IClassFactory*>(this);
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return DispatchDouble::AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override { return DispatchDouble::Release(); }
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown*, REFIID riid, void** out) override {
    ++created;
    return DispatchDouble::QueryInterface(riid, out);
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

  HRESULT Answer(const std::wstring& member, DISPPARAMS* params, VARIANT* result) override {
    if (params == nullptr)
      return S_OK;
    for (UINT i = 0; keepObjects && i < params->cArgs; ++i) {
      const VARIANT& argument = params->rgvarg[i];
      IDispatch* object = V_VT(&argument) == VT_DISPATCH                ? V_DISPATCH(&argument)
                          : V_VT(&argument) == (VT_BYREF | VT_DISPATCH) ? *V_DISPATCHREF(&argument)
                                                                        : nullptr;
      if (object != nullptr)
        kept.emplace_back(object);
    }
    if (member == L"vbwOpenDumpFile" && failOpenDump)
      return static_cast<HRESULT>(0x800A004B);  // run-time error 75, path/file access
    if (member.starts_with(L"vbwReport") && failReports)
      return static_cast<HRESULT>(0x800A0005);  // run-time error 5, invalid call
    if (member != L"vbwErrorHandler" || params->cArgs == 0)
      return S_OK;
    // The number comes first, the last in rgvarg; the stack last, both by reference.
    const VARIANT& number = params->rgvarg[params->cArgs - 1];
    if (V_VT(&number) == (VT_BYREF | VT_I4))
      errors.push_back(*V_I4REF(&number));
    VARIANT& stack = params->rgvarg[0];
    LONG slot = 5;
    UniqueBstr name;
    if (V_VT(&stack) == (VT_BYREF | VT_ARRAY | VT_BSTR) && *V_ARRAYREF(&stack) != nullptr &&
        SUCCEEDED(::SafeArrayGetElement(*V_ARRAYREF(&stack), &slot, name.Put()))) {
      stackSlot5.emplace_back(name ? name.Get() : L"");
      name.Reset(::SysAllocString((L"Written " + std::to_wstring(stackSlot5.size())).c_str()));
      ::SafeArrayPutElement(*V_ARRAYREF(&stack), &slot, name.Get());
    }
    if (result != nullptr) {
      V_VT(result) = VT_I4;
      V_I4(result) = answers.empty() ? 7 : answers.front();
    }
    if (answers.size() > 1)
      answers.erase(answers.begin());
    return S_OK;
  }
  std::vector<LONG> answers;
  std::vector<LONG> errors;
  std::vector<std::wstring> stackSlot5;
  bool keepObjects = false;
  bool failOpenDump = false;
  bool failReports = false;
  std::vector<ComPtr<IDispatch>> kept;
  int created = 0;

 private:
  // {7A2C1E55-3B9D-4C1F-8E62-0D4B7A9F1C38}
  static constexpr CLSID kClsid = {
      0x7a2c1e55, 0x3b9d, 0x4c1f, {0x8e, 0x62, 0x0d, 0x4b, 0x7a, 0x9f, 0x1c, 0x38}};
  DWORD cookie_ = 0;
};

// Eight levels of eight-element arrays of variants, each element a reference to the next level:
// sixty-four values that describe sixteen million, for any answer. Nothing is owned twice.
class ReferenceTower {
 public:
  ReferenceTower() {
    for (int level = kLevels - 1; level >= 0; --level) {
      SAFEARRAY* array = ::SafeArrayCreateVector(VT_VARIANT, 0, kWidth);
      auto* elements = static_cast<VARIANT*>(array->pvData);
      for (int i = 0; i < kWidth; ++i) {
        V_VT(&elements[i]) = level == kLevels - 1 ? VARTYPE{VT_I4} : VARTYPE{VT_BYREF | VT_VARIANT};
        if (level == kLevels - 1)
          V_I4(&elements[i]) = i;
        else
          V_VARIANTREF(&elements[i]) = holders_[level + 1].Get();
      }
      V_VT(holders_[level].Get()) = VT_ARRAY | VT_VARIANT;
      V_ARRAY(holders_[level].Get()) = array;
    }
  }
  // The top level, owned by whoever takes it.
  void CopyTo(VARIANT* out) { ::VariantCopy(out, holders_[0].Get()); }

 private:
  static constexpr int kLevels = 8;
  static constexpr int kWidth = 8;
  UniqueVariant holders_[kLevels];
};

inline LRESULT CALLBACK PostsItselfWork(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  if (message == WM_APP) {
    ::PostMessageW(window, WM_APP, 0, 0);
    return 0;
  }
  return ::DefWindowProcW(window, message, wParam, lParam);
}

// A window that, once started, posts itself work for as long as it lives.
inline HWND BusyWindow() {
  static const HWND window = [] {
    WNDCLASSW type{};
    type.lpfnWndProc = PostsItselfWork;
    type.hInstance = ::GetModuleHandleW(nullptr);
    type.lpszClassName = L"TabforgeAdversaryBusy";
    ::RegisterClassW(&type);
    return ::CreateWindowExW(0, type.lpszClassName, L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                             type.hInstance, nullptr);
  }();
  return window;
}

// Tabforge.Main2 as a host creates it, through its program id; null when it cannot be.
inline ComPtr<IDispatch> CreateMain2() {
  CLSID clsid{};
  ComPtr<IDispatch> main;
  if (FAILED(::CLSIDFromProgID(L"Tabforge.Main2", &clsid)) ||
      FAILED(
          ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, main.PutVoid())))
    return nullptr;
  return main;
}

// Hands `main` the signalling object, the product's name and the ribbon through the vtable, as the
// template's early-bound calls do.
inline void Connect(_Main2* main, IDispatch* signaller, IDispatch* ribbon,
                    const wchar_t* product = L"Morvelin") {
  UniqueBstr name(::SysAllocString(product));
  EXPECT_EQ(main->Initialize(&signaller, name.InOut()), S_OK);
  EXPECT_EQ(main->put_ribbon(&ribbon), S_OK);
}

// A late-bound call by name as a script host makes it: the arguments in order, as they stand, the
// member a method that may also be read.
inline HRESULT CallByName(IDispatch* object, const wchar_t* member, std::vector<VARIANT> arguments,
                          VARIANT* result = nullptr) {
  LPOLESTR name = const_cast<LPOLESTR>(member);
  DISPID id = DISPID_UNKNOWN;
  const HRESULT found = object->GetIDsOfNames(IID_NULL, &name, 1, 0, &id);
  if (FAILED(found))
    return found;
  std::reverse(arguments.begin(), arguments.end());
  DISPPARAMS params{arguments.data(), nullptr, static_cast<UINT>(arguments.size()), 0};
  return object->Invoke(id, IID_NULL, 0, DISPATCH_METHOD | DISPATCH_PROPERTYGET, &params, result,
                        nullptr, nullptr);
}

// What the library answers DllCanUnloadNow; S_OK also when it is not loaded.
inline HRESULT CanUnloadNow() {
  HMODULE library = ::GetModuleHandleW(L"Tabforge.dll");
  const auto answer = reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(
      library != nullptr ? reinterpret_cast<void*>(::GetProcAddress(library, "DllCanUnloadNow"))
                         : nullptr);
  return answer != nullptr ? answer() : S_OK;
}
