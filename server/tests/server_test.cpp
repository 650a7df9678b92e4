// Drives the registered Tabforge.dll the way its callers do: through the interface's order, by
// dispatch id and by name. Run under Wine after regsvr32; the Unregistered tests run after
// regsvr32 /u.
#include <windows.h>

#include <ole2.h>
#include <oleacc.h>
#include <olectl.h>
#undef LoadImage

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Tabforge_h.h"
#include "accessibility/accessible_tree.h"
#include "server/accessible_object.h"
#include "server/com_ptr.h"
#include "server/windows_platform.h"

namespace {

using tabforge::AccessibleElement;
using tabforge::ParseAccessibleTree;
using tabforge::Ref;
using tabforge::SampleRibbonText;
using tabforge::com::AccessibleObject;
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
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params,
                                   VARIANT* result, EXCEPINFO*, UINT*) override {
    arguments.push_back(params != nullptr ? params->cArgs : 0);
    if (id < 1 || static_cast<std::size_t>(id) > calls.size())
      return DISP_E_MEMBERNOTFOUND;
    return OnInvoke(calls[static_cast<std::size_t>(id) - 1], params, result);
  }
  virtual HRESULT OnInvoke(const std::wstring&, DISPPARAMS*, VARIANT*) { return S_OK; }

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
    invalidated.emplace_back(L"Invalidate");
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE InvalidateControl(BSTR id) override {
    invalidated.push_back(L"InvalidateControl " + std::wstring(id, ::SysStringLen(id)));
    return S_OK;
  }
  std::vector<std::wstring> Take() { return std::exchange(invalidated, {}); }

  ULONG references = 1;
  int ribbonQueries = 0;
  std::vector<std::wstring> invalidated;
};

// The error component: records every member called and answers the handler from `answers`, then
// with "leave".
class Recorder final : public Counted {
 public:
  HRESULT OnInvoke(const std::wstring& member, DISPPARAMS* params, VARIANT* result) override {
    if (member == L"vbwErrorHandler" && params != nullptr && params->cArgs > 0) {
      // The failure number is the first argument, the last in DISPPARAMS, by reference.
      const VARIANT& number = params->rgvarg[params->cArgs - 1];
      if ((V_VT(&number) & VT_BYREF) != 0 && (V_VT(&number) & VT_TYPEMASK) == VT_I4)
        errorNumbers.push_back(*V_I4REF(&number));
      // The stack, the last argument, goes by reference: read slot 5 as it comes, then write it.
      VARIANT& stack = params->rgvarg[0];
      if (V_VT(&stack) == (VT_BYREF | VT_ARRAY | VT_BSTR) && *V_ARRAYREF(&stack) != nullptr) {
        LONG slot = 5;
        UniqueBstr name;
        if (SUCCEEDED(::SafeArrayGetElement(*V_ARRAYREF(&stack), &slot, name.Put())))
          stackSlot5.emplace_back(name.get() != nullptr ? name.get() : L"");
        const std::wstring text = L"Written " + std::to_wstring(stackSlot5.size());
        UniqueBstr written(::SysAllocString(text.c_str()));
        ::SafeArrayPutElement(*V_ARRAYREF(&stack), &slot, written.get());
      }
      if (result != nullptr) {
        V_VT(result) = VT_I4;
        V_I4(result) = 7;
        if (!answers.empty()) {
          V_I4(result) = answers.front();
          answers.erase(answers.begin());
        }
      }
    }
    if (member == L"vbwOpenDumpFile" && failOpenDump)
      return static_cast<HRESULT>(0x800A004B);  // run-time error 75, path/file access
    return S_OK;
  }
  std::vector<LONG> errorNumbers;
  std::vector<std::wstring> stackSlot5;
  std::vector<LONG> answers;  // then 7, leave
  bool failOpenDump = false;
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

// A 96 x 48 PNG of one translucent colour: 96 pixels are 2540 HIMETRIC at 96 dots an inch.
constexpr unsigned char kIconPng[] = {
    0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A, 0x00, 0x00, 0x00, 0x0D, 0x49, 0x48, 0x44, 0x52,
    0x00, 0x00, 0x00, 0x60, 0x00, 0x00, 0x00, 0x30, 0x08, 0x06, 0x00, 0x00, 0x00, 0xEE, 0x16, 0x7F,
    0xCF, 0x00, 0x00, 0x00, 0x5F, 0x49, 0x44, 0x41, 0x54, 0x78, 0xDA, 0xED, 0xD1, 0x31, 0x01, 0x00,
    0x00, 0x04, 0x00, 0x41, 0x51, 0x44, 0x15, 0x4D, 0x33, 0x22, 0x18, 0x2D, 0x37, 0x7C, 0x81, 0xBF,
    0xC8, 0xEA, 0xD1, 0x5F, 0x61, 0x02, 0x00, 0x00, 0x02, 0x00, 0x40, 0x00, 0x00, 0x08, 0x00, 0x00,
    0x01, 0x00, 0x20, 0x00, 0x00, 0x04, 0x00, 0x80, 0x00, 0x00, 0x10, 0x00, 0x00, 0x02, 0x00, 0x40,
    0x00, 0x00, 0x08, 0x00, 0x00, 0x01, 0x00, 0x20, 0x00, 0x00, 0x04, 0x00, 0x80, 0x00, 0x00, 0x10,
    0x00, 0x00, 0x02, 0x00, 0x40, 0x00, 0x00, 0x08, 0x00, 0x00, 0x01, 0x00, 0x20, 0x00, 0x00, 0x04,
    0x00, 0x80, 0xEE, 0x16, 0x1A, 0x07, 0xB0, 0x77, 0xCB, 0x4D, 0x63, 0xD8, 0x00, 0x00, 0x00, 0x00,
    0x49, 0x45, 0x4E, 0x44, 0xAE, 0x42, 0x60, 0x82};

// The template's signalling object: records the macros it is asked to run and hands out the
// same icon for every image number it is asked for.
class Signaller final : public Counted {
 public:
  HRESULT OnInvoke(const std::wstring& member, DISPPARAMS* params, VARIANT* result) override {
    if (params == nullptr || params->cArgs != 1)
      return DISP_E_BADPARAMCOUNT;
    UniqueVariant argument;
    if (FAILED(::VariantCopyInd(argument.get(), &params->rgvarg[0])))
      return DISP_E_TYPEMISMATCH;
    if (member == L"Run" && V_VT(argument.get()) == VT_BSTR) {
      macros.emplace_back(V_BSTR(argument.get()), ::SysStringLen(V_BSTR(argument.get())));
      return S_OK;
    }
    if (member == L"getToolbarIconBits" && V_VT(argument.get()) == VT_I2) {
      images.push_back(V_I2(argument.get()));
      SAFEARRAY* bytes = ::SafeArrayCreateVector(VT_UI1, 0, sizeof kIconPng);
      void* data = nullptr;
      ::SafeArrayAccessData(bytes, &data);
      std::memcpy(data, kIconPng, sizeof kIconPng);
      ::SafeArrayUnaccessData(bytes);
      V_VT(result) = VT_ARRAY | VT_UI1;
      V_ARRAY(result) = bytes;
      return S_OK;
    }
    return DISP_E_MEMBERNOTFOUND;
  }
  std::vector<std::wstring> macros;
  std::vector<int> images;
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

// The interface's members and their dispatch ids, which the template's compiled calls rely on.
constexpr std::pair<std::wstring_view, DISPID> kDispatchIds[] = {
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

DISPID DispatchId(std::wstring_view member) {
  for (const auto& [name, id] : kDispatchIds) {
    if (name == member)
      return id;
  }
  ADD_FAILURE() << "no such member";
  return DISPID_UNKNOWN;
}

TEST_F(Registered, NamesMapToTheirDispatchIds) {
  ComPtr<_Main2> main = Create();
  ASSERT_TRUE(main);
  for (const auto& [member, expected] : kDispatchIds) {
    std::wstring name(member);
    LPOLESTR names[] = {name.data()};
    DISPID id = 0;
    EXPECT_EQ(main->GetIDsOfNames(IID_NULL, names, 1, 0, &id), S_OK) << name;
    EXPECT_EQ(id, expected) << name;
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
    EXPECT_EQ(main->Invoke(DispatchId(L"Initialize"), IID_NULL, 0, DISPATCH_METHOD, &params,
                           nullptr, nullptr, nullptr),
              S_OK);
    EXPECT_GT(signaller.references, 2u);

    // Set obj.ribbon = x
    VARIANT value;
    V_VT(&value) = VT_DISPATCH;
    V_DISPATCH(&value) = &ribbon;
    DISPID put = DISPID_PROPERTYPUT;
    DISPPARAMS putParams{&value, &put, 1, 1};
    EXPECT_EQ(main->Invoke(DispatchId(L"ribbon"), IID_NULL, 0, DISPATCH_PROPERTYPUTREF, &putParams,
                           nullptr, nullptr, nullptr),
              S_OK);
    EXPECT_EQ(ribbon.ribbonQueries, 1);

    // The property has no reader.
    UniqueVariant result;
    DISPPARAMS none{nullptr, nullptr, 0, 0};
    EXPECT_NE(main->Invoke(DispatchId(L"ribbon"), IID_NULL, 0, DISPATCH_PROPERTYGET, &none,
                           result.get(), nullptr, nullptr),
              S_OK);
  }
  EXPECT_EQ(ribbon.references, 1u);
}

// Registers `recorder` as the error component "MorvelinError.Main2" for the life of the object.
class RecorderRegistration {
 public:
  explicit RecorderRegistration(Recorder& recorder) : factory_(recorder) {
    EXPECT_EQ(::CoRegisterClassObject(kClsidRecorder, &factory_, CLSCTX_INPROC_SERVER,
                                      REGCLS_MULTIPLEUSE, &cookie_),
              S_OK);
    HKEY key = nullptr;
    EXPECT_EQ(::RegCreateKeyExW(HKEY_CLASSES_ROOT, L"MorvelinError.Main2\\CLSID", 0, nullptr, 0,
                                KEY_WRITE, nullptr, &key, nullptr),
              ERROR_SUCCESS);
    const std::wstring clsid = GuidText(kClsidRecorder);
    ::RegSetValueExW(key, nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(clsid.c_str()),
                     static_cast<DWORD>((clsid.size() + 1) * sizeof(wchar_t)));
    ::RegCloseKey(key);
  }
  ~RecorderRegistration() {
    ::CoRevokeClassObject(cookie_);
    ::RegDeleteTreeW(HKEY_CLASSES_ROOT, L"MorvelinError.Main2");
    ::RegDeleteKeyW(HKEY_CLASSES_ROOT, L"MorvelinError.Main2");
  }
  int created() const { return factory_.created; }

 private:
  RecorderFactory factory_;
  DWORD cookie_ = 0;
};

// Every member of an initialised Main2 with a ribbon, as the template and the ribbon call them.
class Members : public Registered {
 protected:
  void SetUp() override {
    Registered::SetUp();
    registration_ = std::make_unique<RecorderRegistration>(recorder);
    main = Create();
    ASSERT_TRUE(main);
    IDispatch* signallerArgument = &signaller;
    UniqueBstr name(::SysAllocString(L"Morvelin"));
    BSTR nameArgument = name.get();
    ASSERT_EQ(main->Initialize(&signallerArgument, &nameArgument), S_OK);
    IDispatch* ribbonArgument = &ribbon;
    ASSERT_EQ(main->putref_ribbon(&ribbonArgument), S_OK);
  }
  void TearDown() override {
    main.reset();
    registration_.reset();
    Registered::TearDown();
  }

  static UniqueBstr Bstr(const wchar_t* text) { return UniqueBstr(::SysAllocString(text)); }
  static std::wstring Text(const UniqueBstr& s) { return std::wstring(s.get(), s.Length()); }
  std::wstring Label(const wchar_t* id) {
    UniqueBstr idStr = Bstr(id);
    UniqueBstr result;
    EXPECT_EQ(main->get_GetLabel(idStr.InOut(), result.Put()), S_OK);
    return Text(result);
  }
  bool Enabled(const wchar_t* id) {
    UniqueBstr idStr = Bstr(id);
    VARIANT_BOOL result = 1;
    EXPECT_EQ(main->get_GetEnabled(idStr.InOut(), &result), S_OK);
    EXPECT_TRUE(result == VARIANT_TRUE || result == VARIANT_FALSE);
    return result == VARIANT_TRUE;
  }

  // Calls a member the way a late-bound caller does once it has the member's id: every argument a
  // variable passed by reference, the result in a VARIANT.
  HRESULT CallById(DISPID id, WORD flags, std::vector<VARIANT*> variables, VARIANT* result) {
    std::vector<VARIANT> arguments(variables.size());
    for (std::size_t i = 0; i < variables.size(); ++i) {
      VARIANT& slot = arguments[variables.size() - 1 - i];
      V_VT(&slot) = VT_BYREF | VT_VARIANT;
      V_VARIANTREF(&slot) = variables[i];
    }
    DISPPARAMS params{arguments.data(), nullptr, static_cast<UINT>(arguments.size()), 0};
    return main->Invoke(id, IID_NULL, 0, flags, &params, result, nullptr, nullptr);
  }
  static UniqueVariant Str(const wchar_t* text) {
    UniqueVariant v;
    V_VT(v.get()) = VT_BSTR;
    V_BSTR(v.get()) = ::SysAllocString(text);
    return v;
  }
  static UniqueVariant Bool(bool value) {
    UniqueVariant v;
    V_VT(v.get()) = VT_BOOL;
    V_BOOL(v.get()) = value ? VARIANT_TRUE : VARIANT_FALSE;
    return v;
  }

  Signaller signaller;
  FakeRibbon ribbon;
  Recorder recorder;
  ComPtr<_Main2> main;

 private:
  std::unique_ptr<RecorderRegistration> registration_;
};

constexpr wchar_t kCustomUiStart[] =
    L"<customUI xmlns=\"http://schemas.microsoft.com/office/2006/01/customui\"";

std::size_t Count(const std::wstring& text, const std::wstring& part) {
  std::size_t n = 0;
  for (auto at = text.find(part); at != std::wstring::npos; at = text.find(part, at + 1))
    ++n;
  return n;
}

// The word processor's ribbon as an accessibility tree, its elements reachable through IAccessible
// and by name, as the word processor's own are.
struct RibbonTree {
  explicit RibbonTree(std::u16string_view productName = u"Morvelin")
      : root(ParseAccessibleTree(SampleRibbonText(productName)).root),
        commandBar(ComPtr<IDispatch>::Attach(
            AccessibleObject::Create(Ref<tabforge::Object>(root)).Detach())) {}
  // The presses of every element, by name.
  std::map<std::u16string, int> Presses() {
    std::map<std::u16string, int> presses;
    root->VisitAll([&](AccessibleElement& element) {
      if (element.presses() > 0)
        presses[element.name()] += element.presses();
    });
    return presses;
  }
  Ref<AccessibleElement> root;
  ComPtr<IDispatch> commandBar;
};

TEST_F(Members, DocumentAndAnswersThroughTheInterface) {
  UniqueBstr xml;
  ASSERT_EQ(main->GetRibbonXML(xml.Put()), S_OK);
  const std::wstring document = Text(xml);
  EXPECT_EQ(document.rfind(kCustomUiStart, 0), 0u) << document.substr(0, 80);
  EXPECT_EQ(Count(document, L" id=\"MVN"), 26u);

  EXPECT_EQ(Label(L"MVN4"), L"About Morvelin / Login to Morvelin");
  EXPECT_EQ(Label(L"MVN26"), L"Use Morvelin");
  EXPECT_EQ(Label(L"MVN5"), L"");
  EXPECT_FALSE(Enabled(L"MVN16"));
  EXPECT_TRUE(Enabled(L"MVN5"));

  UniqueBstr id = Bstr(L"MVN23");
  VARIANT_BOOL pressed = VARIANT_TRUE;
  EXPECT_EQ(main->get_GetPressed(id.InOut(), &pressed), S_OK);
  EXPECT_EQ(pressed, VARIANT_FALSE);
  UniqueBstr tip;
  EXPECT_EQ(main->get_GetScreentip(id.InOut(), tip.Put()), S_OK);
  EXPECT_EQ(Text(tip), L"Turn Lexoscope on");
  EXPECT_EQ(Text(id), L"MVN23") << "the caller's variable keeps its text";
  EXPECT_TRUE(recorder.errorNumbers.empty());
}

TEST_F(Members, ChangesInvalidateOnlyWhatTheyChange) {
  VARIANT_BOOL off = VARIANT_FALSE;
  VARIANT_BOOL on = VARIANT_TRUE;
  EXPECT_EQ(main->EnableToolbar(&off), S_OK);
  EXPECT_EQ(main->EnableToolbar(&off), S_OK);
  EXPECT_EQ(main->EnableGotoQuickBookmark(&on), S_OK);
  EXPECT_EQ(main->EnableGotoQuickBookmark(&on), S_OK);
  EXPECT_EQ(main->UpdateLexoscopeIcon(&on), S_OK);
  EXPECT_EQ(main->UpdateLexoscopeIcon(&on), S_OK);
  EXPECT_EQ(ribbon.Take(),
            (std::vector<std::wstring>{L"Invalidate", L"InvalidateControl MVN16",
                                       L"InvalidateControl MVN23", L"InvalidateControl MVN23"}));
  EXPECT_FALSE(Enabled(L"MVN5"));

  UniqueBstr name = Bstr(L"Morvelin Pro");
  EXPECT_EQ(main->productNameChanged(name.InOut()), S_OK);
  EXPECT_EQ(ribbon.Take(),
            (std::vector<std::wstring>{L"InvalidateControl MVN0", L"InvalidateControl MVN4",
                                       L"InvalidateControl MVN1", L"InvalidateControl MVN26"}));
  EXPECT_EQ(Label(L"MVN0"), L"Apply Morvelin Pro");
  EXPECT_TRUE(recorder.errorNumbers.empty());
}

TEST_F(Members, RibbonCallbackRunsTheControlsMacro) {
  UniqueBstr reference = Bstr(L"MVN5");
  UniqueBstr toggle = Bstr(L"MVN23");
  VARIANT_BOOL off = VARIANT_FALSE;
  VARIANT_BOOL on = VARIANT_TRUE;
  EXPECT_EQ(main->RibbonCallback(reference.InOut(), &off), S_OK);
  EXPECT_EQ(main->RibbonCallback(toggle.InOut(), &on), S_OK);
  EXPECT_EQ(signaller.macros, (std::vector<std::wstring>{L"InsertReference", L"ToggleLexoscope"}));
}

TEST_F(Members, ImagesAreRealPicturesOfTheTemplatesBytes) {
  UniqueBstr apply = Bstr(L"MVN0");
  ComPtr<IPictureDisp> image;
  ASSERT_EQ(main->get_GetImage(apply.InOut(), image.Put()), S_OK);
  ASSERT_TRUE(image);
  ComPtr<IPicture> picture = image.As<IPicture>();
  ASSERT_TRUE(picture);
  SHORT type = 0;
  OLE_XSIZE_HIMETRIC width = 0;
  OLE_YSIZE_HIMETRIC height = 0;
  EXPECT_EQ(picture->get_Type(&type), S_OK);
  EXPECT_EQ(type, PICTYPE_BITMAP);
  EXPECT_EQ(picture->get_Width(&width), S_OK);
  EXPECT_EQ(picture->get_Height(&height), S_OK);
  EXPECT_EQ(width, 2540);
  EXPECT_EQ(height, 1270);
  EXPECT_EQ(signaller.images, std::vector<int>{102});

  // Two loads of the same bytes are two pictures.
  UniqueBstr five = Bstr(L"5");
  ComPtr<IPictureDisp> first;
  ComPtr<IPictureDisp> second;
  EXPECT_EQ(main->LoadImage(five.InOut(), first.Put()), S_OK);
  EXPECT_EQ(main->LoadImage(five.InOut(), second.Put()), S_OK);
  ASSERT_TRUE(first && second);
  EXPECT_NE(first.get(), second.get());
  EXPECT_EQ(signaller.images, (std::vector<int>{102, 303, 303}));

  // Slot 2 has no picture: nothing is fetched and the answer is null.
  UniqueBstr none = Bstr(L"2");
  ComPtr<IPictureDisp> nothing;
  EXPECT_EQ(main->LoadImage(none.InOut(), nothing.Put()), S_OK);
  EXPECT_FALSE(nothing);
  EXPECT_EQ(signaller.images.size(), 3u);
  EXPECT_TRUE(recorder.errorNumbers.empty());
}

TEST_F(Members, AFailureInsideReachesTheErrorComponentAndTheCallSucceeds) {
  UniqueBstr pastTheTable = Bstr(L"27");
  ComPtr<IPictureDisp> nothing;
  EXPECT_EQ(main->LoadImage(pastTheTable.InOut(), nothing.Put()), S_OK);
  EXPECT_FALSE(nothing);
  EXPECT_EQ(recorder.errorNumbers, std::vector<LONG>{9});
}

TEST_F(Members, TheComponentWritesIntoTheLibrarysOwnStack) {
  for (int i = 0; i < 2; ++i) {
    UniqueBstr pastTheTable = Bstr(L"27");
    ComPtr<IPictureDisp> nothing;
    EXPECT_EQ(main->LoadImage(pastTheTable.InOut(), nothing.Put()), S_OK);
  }
  // Slot 5 lies above the depth, so only the component's own write can have changed it.
  ASSERT_EQ(recorder.stackSlot5.size(), 2u);
  EXPECT_EQ(recorder.stackSlot5[1], L"Written 1");
}

TEST_F(Members, AFailedDumpOpeningDoesNotEndTheDump) {
  recorder.answers = {8, 7};
  recorder.failOpenDump = true;
  UniqueBstr pastTheTable = Bstr(L"27");
  ComPtr<IPictureDisp> nothing;
  EXPECT_EQ(main->LoadImage(pastTheTable.InOut(), nothing.Put()), S_OK);
  // The opening's answer let the component go; the dump step goes on, and each of its calls that
  // needs the component (three banners, four objects, the close) fails and is told; then -1.
  EXPECT_EQ(recorder.errorNumbers, (std::vector<LONG>{9, 75, 91, 91, 91, 91, 91, 91, 91, 91, -1}));
}

// A tree's elements as oleacc and a caller see them: children as objects or, for a simple child,
// as its id; names, states and parents; a failing member fails.
class AccessibleTree : public ComTest {};

TEST_F(AccessibleTree, ElementsAnswerThroughOleacc) {
  const auto root = ParseAccessibleTree(
                        "10 \"client\"\n"
                        "  37 \"Home\" state=0x2\n"
                        "  37 \"\" simple\n"
                        "  37 \"Broken\" fail=accName\n")
                        .root;
  ASSERT_TRUE(root);
  ComPtr<IAccessible> client = AccessibleObject::Create(Ref<tabforge::Object>(root));
  LONG count = 0;
  ASSERT_EQ(client->get_accChildCount(&count), S_OK);
  EXPECT_EQ(count, 3);

  UniqueVariant children[3];
  VARIANT raw[3];
  LONG got = 0;
  ASSERT_EQ(::AccessibleChildren(client.get(), 0, 3, raw, &got), S_OK);
  ASSERT_EQ(got, 3);
  for (int i = 0; i < 3; ++i)
    *children[i].get() = raw[i];
  ASSERT_EQ(V_VT(children[0].get()), VT_DISPATCH);
  EXPECT_EQ(V_VT(children[1].get()), VT_I4);
  EXPECT_EQ(V_I4(children[1].get()), 2);
  ASSERT_EQ(V_VT(children[2].get()), VT_DISPATCH);

  VARIANT self;
  V_VT(&self) = VT_I4;
  V_I4(&self) = CHILDID_SELF;
  ComPtr<IAccessible> home = ComPtr<IDispatch>(V_DISPATCH(children[0].get())).As<IAccessible>();
  ASSERT_TRUE(home);
  UniqueBstr name;
  EXPECT_EQ(home->get_accName(self, name.Put()), S_OK);
  EXPECT_EQ(std::wstring(name.get(), name.Length()), L"Home");
  UniqueVariant state;
  EXPECT_EQ(home->get_accState(self, state.get()), S_OK);
  EXPECT_EQ(V_I4(state.get()), 2);
  ComPtr<IDispatch> parent;
  EXPECT_EQ(home->get_accParent(parent.Put()), S_OK);
  UniqueBstr parentName;
  EXPECT_EQ(parent.As<IAccessible>()->get_accName(self, parentName.Put()), S_OK);
  EXPECT_EQ(std::wstring(parentName.get(), parentName.Length()), L"client");

  ComPtr<IAccessible> broken = ComPtr<IDispatch>(V_DISPATCH(children[2].get())).As<IAccessible>();
  UniqueBstr nothing;
  EXPECT_TRUE(FAILED(broken->get_accName(self, nothing.Put())));
  EXPECT_EQ(nothing.get(), nullptr);
}

TEST_F(Members, ActivateTabPressesTheProductsTab) {
  RibbonTree tree;
  IDispatch* commandBar = tree.commandBar.get();
  EXPECT_EQ(main->activateMorvelinTab(&commandBar), S_OK);
  EXPECT_EQ(tree.Presses(), (std::map<std::u16string, int>{{u"Morvelin", 1}}));
  EXPECT_TRUE(recorder.errorNumbers.empty());
}

// The same members as a late-bound caller reaches them: by dispatch id through Invoke, the
// arguments by reference. (Names map to these ids above; scripts and tabforge.exe call by name.)
TEST_F(Members, EveryMemberThroughInvoke) {
  {
    ASSERT_TRUE(main = Create());
    UniqueVariant signallerVariable;
    V_VT(signallerVariable.get()) = VT_DISPATCH;
    V_DISPATCH(signallerVariable.get()) = ComPtr<IDispatch>(&signaller).Detach();
    UniqueVariant product = Str(L"Morvelin");
    ASSERT_EQ(CallById(DispatchId(L"Initialize"), DISPATCH_METHOD,
                       {signallerVariable.get(), product.get()}, nullptr),
              S_OK);
    VARIANT ribbonValue;
    V_VT(&ribbonValue) = VT_DISPATCH;
    V_DISPATCH(&ribbonValue) = &ribbon;
    DISPID put = DISPID_PROPERTYPUT;
    DISPPARAMS putParams{&ribbonValue, &put, 1, 1};
    ASSERT_EQ(main->Invoke(DispatchId(L"ribbon"), IID_NULL, 0, DISPATCH_PROPERTYPUTREF, &putParams,
                           nullptr, nullptr, nullptr),
              S_OK);
    signaller.macros.clear();
    signaller.images.clear();
    ribbon.Take();

    auto call = [&](const wchar_t* member, WORD flags, std::vector<VARIANT*> variables) {
      UniqueVariant result;
      EXPECT_EQ(CallById(DispatchId(member), flags, std::move(variables), result.get()), S_OK)
          << std::wstring(member);
      return result;
    };
    auto text = [](const UniqueVariant& v) {
      return V_VT(v.get()) == VT_BSTR
                 ? std::wstring(V_BSTR(v.get()), ::SysStringLen(V_BSTR(v.get())))
                 : std::wstring(L"<not a string>");
    };

    UniqueVariant xml = call(L"GetRibbonXML", DISPATCH_METHOD, {});
    EXPECT_EQ(text(xml).rfind(kCustomUiStart, 0), 0u);

    UniqueVariant about = Str(L"MVN4");
    EXPECT_EQ(text(call(L"GetLabel", DISPATCH_PROPERTYGET, {about.get()})),
              L"About Morvelin / Login to Morvelin");
    EXPECT_EQ(text(about), L"MVN4");
    UniqueVariant toggle = Str(L"MVN23");
    EXPECT_EQ(text(call(L"GetScreentip", DISPATCH_PROPERTYGET, {toggle.get()})),
              L"Turn Lexoscope on");
    UniqueVariant enabled = call(L"GetEnabled", DISPATCH_PROPERTYGET, {about.get()});
    EXPECT_EQ(V_VT(enabled.get()), VT_BOOL);
    EXPECT_EQ(V_BOOL(enabled.get()), VARIANT_TRUE);
    UniqueVariant pressed = call(L"GetPressed", DISPATCH_PROPERTYGET, {toggle.get()});
    EXPECT_EQ(V_VT(pressed.get()), VT_BOOL);
    EXPECT_EQ(V_BOOL(pressed.get()), VARIANT_FALSE);

    UniqueVariant apply = Str(L"MVN0");
    UniqueVariant image = call(L"GetImage", DISPATCH_PROPERTYGET, {apply.get()});
    ASSERT_EQ(V_VT(image.get()), VT_DISPATCH);
    ASSERT_NE(V_DISPATCH(image.get()), nullptr);
    EXPECT_TRUE(ComPtr<IDispatch>(V_DISPATCH(image.get())).As<IPicture>());
    UniqueVariant slotTwo = Str(L"2");
    UniqueVariant none = call(L"LoadImage", DISPATCH_METHOD, {slotTwo.get()});
    EXPECT_TRUE(V_VT(none.get()) == VT_EMPTY ||
                (V_VT(none.get()) == VT_DISPATCH && V_DISPATCH(none.get()) == nullptr));
    EXPECT_EQ(signaller.images, std::vector<int>{102});

    UniqueVariant reference = Str(L"MVN5");
    UniqueVariant off = Bool(false);
    UniqueVariant on = Bool(true);
    call(L"RibbonCallback", DISPATCH_METHOD, {reference.get(), off.get()});
    EXPECT_EQ(signaller.macros, std::vector<std::wstring>{L"InsertReference"});

    call(L"EnableToolbar", DISPATCH_METHOD, {off.get()});
    call(L"EnableGotoQuickBookmark", DISPATCH_METHOD, {on.get()});
    call(L"UpdateLexoscopeIcon", DISPATCH_METHOD, {on.get()});
    UniqueVariant renamed = Str(L"Quill");
    call(L"productNameChanged", DISPATCH_METHOD, {renamed.get()});
    EXPECT_EQ(ribbon.Take(),
              (std::vector<std::wstring>{L"Invalidate", L"InvalidateControl MVN16",
                                         L"InvalidateControl MVN23", L"InvalidateControl MVN0",
                                         L"InvalidateControl MVN4", L"InvalidateControl MVN1",
                                         L"InvalidateControl MVN26"}));

    // The tab is found by the name the product has now.
    RibbonTree tree(u"Quill");
    UniqueVariant commandBar;
    V_VT(commandBar.get()) = VT_DISPATCH;
    V_DISPATCH(commandBar.get()) = ComPtr<IDispatch>(tree.commandBar).Detach();
    call(L"activateMorvelinTab", DISPATCH_METHOD, {commandBar.get()});
    EXPECT_EQ(tree.Presses(), (std::map<std::u16string, int>{{u"Quill", 1}}));
    EXPECT_TRUE(recorder.errorNumbers.empty());
  }
}

TEST_F(Registered, AFailureReachesTheErrorComponentAndNeverTheCaller) {
  Recorder recorder;
  int created = 0;
  {
    RecorderRegistration registration(recorder);
    {
      ComPtr<_Main2> main = Create();
      ASSERT_TRUE(main);
      // An object without the ribbon interface is a type mismatch inside `ribbon`.
      Counted notARibbon;
      IDispatch* argument = &notARibbon;
      EXPECT_EQ(main->putref_ribbon(&argument), S_OK);
    }
    created = registration.created();
  }
  EXPECT_EQ(created, 1);
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
