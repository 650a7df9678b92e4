// Drives the registered Tabforge.dll the way its callers do: through the interface's order, by
// dispatch id and by name. Run under Wine after regsvr32; the Unregistered tests run after
// regsvr32 /u.
#include <windows.h>

#include <ole2.h>
#include <olectl.h>
#undef LoadImage

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Tabforge_h.h"
#include "server/com_ptr.h"
#include "server/windows_platform.h"

namespace {

using tabforge::com::ComPtr;
using tabforge::com::UniqueBstr;
using tabforge::com::UniqueVariant;

// {3F1E2B7C-8D4A-4E6B-9C21-5A7D0E4B8F13}: the recording error component of these tests.
constexpr CLSID kClsidRecorder = {
    0x3f1e2b7c, 0x8d4a, 0x4e6b, {0x9c, 0x21, 0x5a, 0x7d, 0x0e, 0x4b, 0x8f, 0x13}};

// COM interfaces have no virtual destructor by design; objects delete themselves in Release.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// A plain dispatch object that counts references, standing in for the template's objects.
class Counted : public IDispatch {
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
    calls.emplace_back(names[0]);
    ids[0] = static_cast<DISPID>(calls.size());
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT* result,
                                   EXCEPINFO*, UINT*) override {
    arguments.push_back(params != nullptr ? params->cArgs : 0);
    return OnInvoke(params, result);
  }
  virtual HRESULT OnInvoke(DISPPARAMS*, VARIANT*) { return S_OK; }

  ULONG references = 1;  // the test's own
  std::vector<std::wstring> calls;
  std::vector<UINT> arguments;
};

// The ribbon: answers IRibbonUI and records what is invalidated.
class FakeRibbon final : public IRibbonUI {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDispatch) ||
        IsEqualIID(riid, __uuidof(IRibbonUI))) {
      if (IsEqualIID(riid, __uuidof(IRibbonUI)))
        ++ribbonQueries;
      *out = static_cast<IRibbonUI*>(this);
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
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return DISP_E_UNKNOWNNAME;
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                                   UINT*) override {
    return DISP_E_MEMBERNOTFOUND;
  }
  HRESULT STDMETHODCALLTYPE Invalidate() override {
    ++invalidated;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE InvalidateControl(BSTR) override {
    ++invalidated;
    return S_OK;
  }

  ULONG references = 1;
  int ribbonQueries = 0;
  int invalidated = 0;
};

// The error component: records every member called and answers the handler with "leave".
class Recorder final : public Counted {
 public:
  HRESULT OnInvoke(DISPPARAMS* params, VARIANT* result) override {
    if (calls.back() == L"vbwErrorHandler" && params != nullptr && params->cArgs > 0) {
      // The failure number is the first argument, the last in DISPPARAMS, by reference.
      const VARIANT& number = params->rgvarg[params->cArgs - 1];
      if ((V_VT(&number) & VT_BYREF) != 0 && (V_VT(&number) & VT_TYPEMASK) == VT_I4)
        errorNumbers.push_back(*V_I4REF(&number));
      if (result != nullptr) {
        V_VT(result) = VT_I4;
        V_I4(result) = 7;
      }
    }
    return S_OK;
  }
  std::vector<LONG> errorNumbers;
};

class RecorderFactory final : public IClassFactory {
 public:
  explicit RecorderFactory(Recorder& recorder) : recorder_(recorder) {}
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IClassFactory)) {
      *out = static_cast<IClassFactory*>(this);
      return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown*, REFIID riid, void** out) override {
    ++created;
    return recorder_.QueryInterface(riid, out);
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }
  int created = 0;

 private:
  Recorder& recorder_;
};

#pragma GCC diagnostic pop

bool KeyExists(const std::wstring& key) {
  HKEY handle = nullptr;
  if (::RegOpenKeyExW(HKEY_CLASSES_ROOT, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS)
    return false;
  ::RegCloseKey(handle);
  return true;
}

std::wstring GuidText(REFGUID guid) {
  wchar_t text[40] = {};
  ::StringFromGUID2(guid, text, 40);
  return text;
}

class ComTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(SUCCEEDED(::CoInitialize(nullptr))); }
  void TearDown() override { ::CoUninitialize(); }
};

class Registered : public ComTest {
 protected:
  ComPtr<_Main2> Create() {
    CLSID clsid{};
    EXPECT_EQ(::CLSIDFromProgID(L"Tabforge.Main2", &clsid), S_OK);
    EXPECT_TRUE(IsEqualCLSID(clsid, CLSID_Main2));
    ComPtr<_Main2> main;
    EXPECT_EQ(::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID__Main2, main.PutVoid()),
              S_OK);
    return main;
  }
};

TEST_F(Registered, RegistryHoldsTheClassProgIdAndInterface) {
  const std::wstring clsid = L"CLSID\\" + GuidText(CLSID_Main2);
  EXPECT_TRUE(KeyExists(clsid + L"\\InprocServer32"));
  EXPECT_TRUE(KeyExists(clsid + L"\\ProgID"));
  EXPECT_TRUE(KeyExists(L"Tabforge.Main2\\CLSID"));
  EXPECT_TRUE(KeyExists(L"Interface\\" + GuidText(IID__Main2) + L"\\ProxyStubClsid32"));
  EXPECT_TRUE(KeyExists(L"TypeLib\\" + GuidText(LIBID_Tabforge)));
  wchar_t model[32] = {};
  DWORD bytes = sizeof(model);
  EXPECT_EQ(::RegGetValueW(HKEY_CLASSES_ROOT, (clsid + L"\\InprocServer32").c_str(),
                           L"ThreadingModel", RRF_RT_REG_SZ, nullptr, model, &bytes),
            ERROR_SUCCESS);
  EXPECT_EQ(std::wstring(model), L"Apartment");
}

TEST_F(Registered, InitializeAndRibbonThroughTheInterface) {
  Counted signaller;
  FakeRibbon ribbon;
  {
    ComPtr<_Main2> main = Create();
    ASSERT_TRUE(main);
    IDispatch* signallerArgument = &signaller;
    UniqueBstr name(::SysAllocString(L"Morvelin"));
    BSTR nameArgument = name.get();
    EXPECT_EQ(main->Initialize(&signallerArgument, &nameArgument), S_OK);
    EXPECT_GT(signaller.references, 1u) << "Initialize holds the signalling object";

    IDispatch* ribbonArgument = &ribbon;
    EXPECT_EQ(main->putref_ribbon(&ribbonArgument), S_OK);
    EXPECT_EQ(ribbon.ribbonQueries, 1);
    EXPECT_GT(ribbon.references, 1u) << "ribbon holds the ribbon object";

    // Null pointers are nothing, not a crash.
    EXPECT_EQ(main->Initialize(nullptr, nullptr), S_OK);
  }
  EXPECT_EQ(signaller.references, 1u) << "the last release lets go of the signalling object";
  EXPECT_EQ(ribbon.references, 1u) << "the last release lets go of the ribbon";
}

TEST_F(Registered, NamesMapToTheirDispatchIds) {
  ComPtr<_Main2> main = Create();
  ASSERT_TRUE(main);
  const struct {
    const wchar_t* name;
    DISPID id;
  } members[] = {
      {L"Initialize", 0x60030007},
      {L"ribbon", 0x68030006},
      {L"GetRibbonXML", 0x60030009},
      {L"productNameChanged", 0x6003000C},
      {L"GetLabel", 0x68030005},
      {L"GetEnabled", 0x68030004},
      {L"GetPressed", 0x68030003},
      {L"GetScreentip", 0x68030002},
      {L"GetImage", 0x68030000},
      {L"LoadImage", 0x6003000D},
      {L"RibbonCallback", 0x6003000F},
      {L"EnableGotoQuickBookmark", 0x60030010},
      {L"UpdateLexoscopeIcon", 0x60030011},
      {L"EnableToolbar", 0x60030013},
      {L"activateMorvelinTab", 0x60030014},
  };
  for (const auto& member : members) {
    std::wstring name = member.name;
    LPOLESTR names[] = {name.data()};
    DISPID id = 0;
    EXPECT_EQ(main->GetIDsOfNames(IID_NULL, names, 1, 0, &id), S_OK) << member.name;
    EXPECT_EQ(id, member.id) << member.name;
  }
}

TEST_F(Registered, InitializeAndRibbonByDispatchWithScriptStyleArguments) {
  Counted signaller;
  FakeRibbon ribbon;
  {
    ComPtr<_Main2> main = Create();
    ASSERT_TRUE(main);
    // A script passes its variables as VT_BYREF|VT_VARIANT.
    UniqueVariant name;
    V_VT(name.get()) = VT_BSTR;
    V_BSTR(name.get()) = ::SysAllocString(L"Morvelin");
    UniqueVariant object;
    V_VT(object.get()) = VT_DISPATCH;
    V_DISPATCH(object.get()) = ComPtr<IDispatch>(&signaller).Detach();
    VARIANT arguments[2];
    V_VT(&arguments[0]) = VT_BYREF | VT_VARIANT;  // last argument first
    V_VARIANTREF(&arguments[0]) = name.get();
    V_VT(&arguments[1]) = VT_BYREF | VT_VARIANT;
    V_VARIANTREF(&arguments[1]) = object.get();
    DISPPARAMS params{arguments, nullptr, 2, 0};
    EXPECT_EQ(
        main->Invoke(0x60030007, IID_NULL, 0, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr),
        S_OK);
    EXPECT_GT(signaller.references, 2u);

    // Set obj.ribbon = x
    VARIANT value;
    V_VT(&value) = VT_DISPATCH;
    V_DISPATCH(&value) = &ribbon;
    DISPID put = DISPID_PROPERTYPUT;
    DISPPARAMS putParams{&value, &put, 1, 1};
    EXPECT_EQ(main->Invoke(0x68030006, IID_NULL, 0, DISPATCH_PROPERTYPUTREF, &putParams, nullptr,
                           nullptr, nullptr),
              S_OK);
    EXPECT_EQ(ribbon.ribbonQueries, 1);

    // The property has no reader.
    UniqueVariant result;
    DISPPARAMS none{nullptr, nullptr, 0, 0};
    EXPECT_NE(main->Invoke(0x68030006, IID_NULL, 0, DISPATCH_PROPERTYGET, &none, result.get(),
                           nullptr, nullptr),
              S_OK);
  }
  EXPECT_EQ(ribbon.references, 1u);
}

TEST_F(Registered, AFailureReachesTheErrorComponentAndNeverTheCaller) {
  Recorder recorder;
  RecorderFactory factory(recorder);
  DWORD cookie = 0;
  ASSERT_EQ(::CoRegisterClassObject(kClsidRecorder, &factory, CLSCTX_INPROC_SERVER,
                                    REGCLS_MULTIPLEUSE, &cookie),
            S_OK);
  HKEY key = nullptr;
  ASSERT_EQ(::RegCreateKeyExW(HKEY_CLASSES_ROOT, L"MorvelinError.Main2\\CLSID", 0, nullptr, 0,
                              KEY_WRITE, nullptr, &key, nullptr),
            ERROR_SUCCESS);
  const std::wstring clsid = GuidText(kClsidRecorder);
  ::RegSetValueExW(key, nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(clsid.c_str()),
                   static_cast<DWORD>((clsid.size() + 1) * sizeof(wchar_t)));
  ::RegCloseKey(key);
  {
    ComPtr<_Main2> main = Create();
    ASSERT_TRUE(main);
    // An object without the ribbon interface is a type mismatch inside `ribbon`.
    Counted notARibbon;
    IDispatch* argument = &notARibbon;
    EXPECT_EQ(main->putref_ribbon(&argument), S_OK);
  }
  ::CoRevokeClassObject(cookie);
  ::RegDeleteTreeW(HKEY_CLASSES_ROOT, L"MorvelinError.Main2");
  ::RegDeleteKeyW(HKEY_CLASSES_ROOT, L"MorvelinError.Main2");
  EXPECT_EQ(factory.created, 1);
  ASSERT_FALSE(recorder.errorNumbers.empty());
  EXPECT_EQ(recorder.errorNumbers.front(), 13);
}

class Unregistered : public ComTest {};

TEST_F(Unregistered, NothingOfTheServerIsLeftInTheRegistry) {
  CLSID clsid{};
  EXPECT_NE(::CLSIDFromProgID(L"Tabforge.Main2", &clsid), S_OK);
  EXPECT_FALSE(KeyExists(L"CLSID\\" + GuidText(CLSID_Main2)));
  EXPECT_FALSE(KeyExists(L"Tabforge.Main2"));
  EXPECT_FALSE(KeyExists(L"Interface\\" + GuidText(IID__Main2)));
  EXPECT_FALSE(KeyExists(L"TypeLib\\" + GuidText(LIBID_Tabforge)));
  ComPtr<IUnknown> object;
  EXPECT_NE(::CoCreateInstance(CLSID_Main2, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown,
                               object.PutVoid()),
            S_OK);
}

}  // namespace
