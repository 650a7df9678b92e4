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
#include <cwctype>
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
#include "server/tests/dispatch_double.h"
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

// A plain dispatch object standing in for the template's objects.
using Counted = DispatchDouble;

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
  HRESULT Answer(const std::wstring& member, DISPPARAMS* params, VARIANT* result) override {
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
          stackSlot5.emplace_back(name.Get() != nullptr ? name.Get() : L"");
        const std::wstring text = L"Written " + std::to_wstring(stackSlot5.size());
        UniqueBstr written(::SysAllocString(text.c_str()));
        ::SafeArrayPutElement(*V_ARRAYREF(&stack), &slot, written.Get());
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
  HRESULT Answer(const std::wstring& member, DISPPARAMS* params, VARIANT* result) override {
    if (params == nullptr || params->cArgs != 1)
      return DISP_E_BADPARAMCOUNT;
    UniqueVariant argument;
    if (FAILED(::VariantCopyInd(argument.Get(), &params->rgvarg[0])))
      return DISP_E_TYPEMISMATCH;
    if (member == L"Run" && V_VT(argument.Get()) == VT_BSTR) {
      macros.emplace_back(V_BSTR(argument.Get()), ::SysStringLen(V_BSTR(argument.Get())));
      return S_OK;
    }
    if (member == L"getToolbarIconBits" && V_VT(argument.Get()) == VT_I2) {
      images.push_back(V_I2(argument.Get()));
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
  tabforge::com::UniqueHkey handle;
  return ::RegOpenKeyExW(HKEY_CLASSES_ROOT, key.c_str(), 0, KEY_READ, handle.Put()) ==
         ERROR_SUCCESS;
}

std::wstring GuidText(REFGUID guid) {
  wchar_t text[40] = {};
  EXPECT_EQ(::StringFromGUID2(guid, text, 40), 39);
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
    BSTR nameArgument = name.Get();
    EXPECT_EQ(main->Initialize(&signallerArgument, &nameArgument), S_OK);
    EXPECT_GT(signaller.references, 1u) << "Initialize holds the signalling object";

    IDispatch* ribbonArgument = &ribbon;
    EXPECT_EQ(main->put_ribbon(&ribbonArgument), S_OK);
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

// _Main2 as the registered type library describes the interface, whose members the vtable has,
// read apart from anything that the server answers.
ComPtr<ITypeInfo> TypeLibraryInterface() {
  ComPtr<ITypeLib> library;
  ComPtr<ITypeInfo> dispatch;
  HREFTYPE reference = 0;
  ComPtr<ITypeInfo> info;
  EXPECT_EQ(::LoadRegTypeLib(LIBID_Tabforge, 1, 0, 0, library.Put()), S_OK);
  if (library && SUCCEEDED(library->GetTypeInfoOfGuid(IID__Main2, dispatch.Put())) &&
      SUCCEEDED(dispatch->GetRefTypeOfImplType(static_cast<UINT>(-1), &reference))) {
    EXPECT_EQ(dispatch->GetRefTypeInfo(reference, info.Put()), S_OK);
  }
  return info;
}

// Every member's name maps to its id in any case of letters, and every name, the member's
// parameters and the inherited members included, maps as the type library maps it.
TEST_F(Registered, NamesMapAsTheTypeLibraryMapsThem) {
  ComPtr<_Main2> main = Create();
  ASSERT_TRUE(main);
  ComPtr<ITypeInfo> info = TypeLibraryInterface();
  ASSERT_TRUE(info);
  auto upper = [](std::wstring s) {
    for (wchar_t& c : s)
      c = static_cast<wchar_t>(std::towupper(c));
    return s;
  };
  std::vector<std::vector<std::wstring>> questions;
  for (const auto& [member, expected] : kDispatchIds) {
    std::wstring name(member);
    LPOLESTR names[] = {name.data()};
    DISPID id = 0;
    EXPECT_EQ(main->GetIDsOfNames(IID_NULL, names, 1, 0, &id), S_OK) << name;
    EXPECT_EQ(id, expected) << name;
    questions.push_back({name});
    questions.push_back({upper(name)});
  }
  questions.push_back({L"getlabel", L"IDSTR"});
  questions.push_back({L"Initialize", L"productName", L"eventSignaller"});
  questions.push_back({L"GetEnabled", L"result"});
  questions.push_back({L"RibbonCallback", L"isOn", L"noSuchParameter"});
  questions.push_back({L"NoSuchMember"});
  questions.push_back({L"NoSuchMember", L"idStr"});
  questions.push_back({L"QueryInterface"});
  questions.push_back({L"invoke"});
  questions.push_back({L"GetEnabled "});
  for (auto& question : questions) {
    std::vector<LPOLESTR> names;
    for (auto& name : question)
      names.push_back(name.data());
    const UINT count = static_cast<UINT>(names.size());
    std::vector<DISPID> ours(count, 0x5EED);
    std::vector<DISPID> theirs(count, 0x5EED);
    EXPECT_EQ(main->GetIDsOfNames(IID_NULL, names.data(), count, 0, ours.data()),
              ::DispGetIDsOfNames(info.Get(), names.data(), count, theirs.data()))
        << question[0];
    EXPECT_EQ(ours, theirs) << question[0];
  }
}

// Registers `recorder` as the error component "MorvelinError.Main2" for the life of the object.
class RecorderRegistration {
 public:
  explicit RecorderRegistration(Recorder& recorder) : factory_(recorder) {
    EXPECT_EQ(::CoRegisterClassObject(kClsidRecorder, &factory_, CLSCTX_INPROC_SERVER,
                                      REGCLS_MULTIPLEUSE, &cookie_),
              S_OK);
    tabforge::com::UniqueHkey key;
    EXPECT_EQ(::RegCreateKeyExW(HKEY_CLASSES_ROOT, L"MorvelinError.Main2\\CLSID", 0, nullptr, 0,
                                KEY_WRITE, nullptr, key.Put(), nullptr),
              ERROR_SUCCESS);
    const std::wstring clsid = GuidText(kClsidRecorder);
    ::RegSetValueExW(key.Get(), nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(clsid.c_str()),
                     static_cast<DWORD>((clsid.size() + 1) * sizeof(wchar_t)));
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
    BSTR nameArgument = name.Get();
    ASSERT_EQ(main->Initialize(&signallerArgument, &nameArgument), S_OK);
    IDispatch* ribbonArgument = &ribbon;
    ASSERT_EQ(main->put_ribbon(&ribbonArgument), S_OK);
  }
  void TearDown() override {
    main.Reset();
    registration_.reset();
    Registered::TearDown();
  }

  static UniqueBstr Bstr(const wchar_t* text) { return UniqueBstr(::SysAllocString(text)); }

  Signaller signaller;
  FakeRibbon ribbon;
  Recorder recorder;
  ComPtr<_Main2> main;

 private:
  std::unique_ptr<RecorderRegistration> registration_;
};

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

TEST_F(Members, ImagesAreRealPicturesOfTheTemplatesBytes) {
  UniqueBstr apply = Bstr(L"MVN0");
  ComPtr<IPictureDisp> image;
  ASSERT_EQ(main->get_GetImage(apply.InOut(), image.Put()), S_OK);
  ASSERT_TRUE(image);
  ComPtr<IPicture> picture = image.TryAs<IPicture>();
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
  EXPECT_NE(first.Get(), second.Get());
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
  ASSERT_EQ(::AccessibleChildren(client.Get(), 0, 3, raw, &got), S_OK);
  ASSERT_EQ(got, 3);
  for (int i = 0; i < 3; ++i)
    *children[i].Get() = raw[i];
  ASSERT_EQ(V_VT(children[0].Get()), VT_DISPATCH);
  EXPECT_EQ(V_VT(children[1].Get()), VT_I4);
  EXPECT_EQ(V_I4(children[1].Get()), 2);
  ASSERT_EQ(V_VT(children[2].Get()), VT_DISPATCH);

  VARIANT self;
  V_VT(&self) = VT_I4;
  V_I4(&self) = CHILDID_SELF;
  ComPtr<IAccessible> home = ComPtr<IDispatch>(V_DISPATCH(children[0].Get())).TryAs<IAccessible>();
  ASSERT_TRUE(home);
  UniqueBstr name;
  EXPECT_EQ(home->get_accName(self, name.Put()), S_OK);
  EXPECT_EQ(std::wstring(name.Get(), ::SysStringLen(name.Get())), L"Home");
  UniqueVariant state;
  EXPECT_EQ(home->get_accState(self, state.Get()), S_OK);
  EXPECT_EQ(V_I4(state.Get()), 2);
  ComPtr<IDispatch> parent;
  EXPECT_EQ(home->get_accParent(parent.Put()), S_OK);
  UniqueBstr parentName;
  EXPECT_EQ(parent.TryAs<IAccessible>()->get_accName(self, parentName.Put()), S_OK);
  EXPECT_EQ(std::wstring(parentName.Get(), ::SysStringLen(parentName.Get())), L"client");

  ComPtr<IAccessible> broken =
      ComPtr<IDispatch>(V_DISPATCH(children[2].Get())).TryAs<IAccessible>();
  UniqueBstr nothing;
  EXPECT_TRUE(FAILED(broken->get_accName(self, nothing.Put())));
  EXPECT_EQ(nothing.Get(), nullptr);
}

// --- Late binding: the server's own Invoke beside the type library's ---------------------------

// The type library's Invoke on the object's vtable, as the server answered before it had its own.
// The server has always taken a script's variable (VT_BYREF|VT_VARIANT) that holds the parameter's
// type as a reference to that type, which the type library's Invoke does not do by itself.
HRESULT InvokeThroughTypeLibrary(const ComPtr<_Main2>& main, DISPID id, WORD flags,
                                 DISPPARAMS* params, VARIANT* result, UINT* argumentError) {
  for (UINT i = 0; params != nullptr && i < params->cArgs; ++i) {
    VARIANT& argument = params->rgvarg[i];
    if (V_VT(&argument) != (VT_BYREF | VT_VARIANT))
      continue;
    VARIANT* variable = V_VARIANTREF(&argument);
    const VARTYPE type = V_VT(variable);
    if (type == VT_BSTR || type == VT_BOOL || type == VT_DISPATCH) {
      V_VT(&argument) = static_cast<VARTYPE>(VT_BYREF | type);
      V_BYREF(&argument) = &V_BSTR(variable);
    }
  }
  const ComPtr<ITypeInfo> info = TypeLibraryInterface();
  return ::DispInvoke(main.Get(), info.Get(), id, flags, params, result, nullptr, argumentError);
}

HRESULT InvokeThroughServer(const ComPtr<_Main2>& main, DISPID id, WORD flags, DISPPARAMS* params,
                            VARIANT* result, UINT* argumentError) {
  return main->Invoke(id, IID_NULL, 0, flags, params, result, nullptr, argumentError);
}

// How a caller passes one argument: by value, as a reference to the value's type, or as a
// reference to a VARIANT that holds it (a script's variable).
enum class Pass { kValue, kReference, kVariable };
// Which of a side's objects an object argument is.
enum class Party { kNone, kSignaller, kRibbon, kCommandBar };

struct Arg {
  VARTYPE type;
  Pass pass = Pass::kValue;
  const wchar_t* text = L"";
  double number = 0;
  Party party = Party::kNone;
};
Arg Str(const wchar_t* text, Pass pass = Pass::kValue) {
  return {VT_BSTR, pass, text};
}
Arg Truth(bool value, Pass pass = Pass::kValue) {
  return {VT_BOOL, pass, L"", value ? -1.0 : 0.0};
}
Arg Num(VARTYPE type, double value, Pass pass = Pass::kValue) {
  return {type, pass, L"", value};
}
Arg Obj(Party party, Pass pass = Pass::kValue, VARTYPE type = VT_DISPATCH) {
  return {type, pass, L"", 0, party};
}
Arg Missing() {
  return {VT_ERROR, Pass::kValue, L"", static_cast<double>(DISP_E_PARAMNOTFOUND)};
}
Arg Empty() {
  return {VT_EMPTY};
}
Arg Null() {
  return {VT_NULL};
}

constexpr UINT kUntouched = 0xDEADBEEF;
constexpr LONG kResultSentinel = 0x5EED;

// One late-bound call: the member by name (or a bare id), the kind of call, the arguments first to
// last, the names of the last arguments (rgdispidNamedArgs), and what both Invokes must answer.
struct LateCall {
  std::wstring_view member;
  WORD flags;
  std::vector<Arg> arguments;
  HRESULT expected;
  std::vector<DISPID> names = {};
  UINT argumentError = kUntouched;  // ours; the platform's may leave it untouched
  WORD typeLibraryFlags = 0;        // when the type library is asked otherwise
  DISPID id = DISPID_UNKNOWN;       // when `member` is empty
  bool withResult = true;
  bool withParams = true;
};

// A Main2 initialised with a signalling object and a ribbon of its own, the arguments of one call
// and what the call did, as text that the two sides compare.
class Side {
 public:
  explicit Side(const LateCall& call) {
    main_ = Create();
    IDispatch* signaller = &signaller_;
    UniqueBstr name(::SysAllocString(L"Morvelin"));
    BSTR nameArgument = name.Get();
    EXPECT_EQ(main_->Initialize(&signaller, &nameArgument), S_OK);
    IDispatch* ribbon = &ribbon_;
    EXPECT_EQ(main_->put_ribbon(&ribbon), S_OK);
    ribbon_.Take();
    ribbon_.ribbonQueries = 0;
    const std::size_t count = call.arguments.size();
    values_.resize(count);
    for (std::size_t i = 0; i < count; ++i)
      Fill(call.arguments[i], values_[count - 1 - i], variables_[count - 1 - i]);
    names_ = call.names;
  }
  Side(const Side&) = delete;
  Side& operator=(const Side&) = delete;
  ~Side() {
    for (VARIANT& value : values_)
      tabforge::com::ClearVariant(&value);
  }

  // Runs the call through `invoke` and tells what it answered and what it did.
  template <class Invoke>
  std::vector<std::wstring> Run(const LateCall& call, WORD flags, Invoke&& invoke,
                                Recorder& recorder) {
    const DISPID id = call.member.empty() ? call.id : DispatchId(call.member);
    DISPPARAMS params{values_.data(), names_.data(), static_cast<UINT>(values_.size()),
                      static_cast<UINT>(names_.size())};
    VARIANT result;
    V_VT(&result) = VT_I4;
    V_I4(&result) = kResultSentinel;
    const std::size_t failures = recorder.errorNumbers.size();
    hr = invoke(main_, id, flags, call.withParams ? &params : nullptr,
                call.withResult ? &result : nullptr, &argumentError);
    std::vector<std::wstring> log;
    log.push_back(L"result " + Describe(result));
    tabforge::com::ClearVariant(&result);
    for (std::size_t i = values_.size(); i-- > 0;) {
      const bool byReference = (V_VT(&values_[i]) & VT_BYREF) != 0;
      log.push_back(L"argument " +
                    (byReference ? Describe(*variables_[i].Get()) : Describe(values_[i])));
    }
    for (const auto& macro : signaller_.macros)
      log.push_back(L"Run " + macro);
    for (int image : signaller_.images)
      log.push_back(L"getToolbarIconBits " + std::to_wstring(image));
    for (const auto& line : ribbon_.Take())
      log.push_back(line);
    log.push_back(L"ribbon queried " + std::to_wstring(ribbon_.ribbonQueries));
    for (const auto& [name, presses] : tree_.Presses())
      log.push_back(L"pressed " + std::wstring(name.begin(), name.end()));
    for (std::size_t i = failures; i < recorder.errorNumbers.size(); ++i)
      log.push_back(L"failure " + std::to_wstring(recorder.errorNumbers[i]));
    // What the members answer now, read through the vtable.
    for (const wchar_t* control : {L"MVN0", L"MVN5", L"MVN16", L"MVN23"}) {
      UniqueBstr idStr(::SysAllocString(control));
      UniqueBstr label;
      VARIANT_BOOL enabled = 1;
      VARIANT_BOOL pressed = 1;
      main_->get_GetLabel(idStr.InOut(), label.Put());
      main_->get_GetEnabled(idStr.InOut(), &enabled);
      main_->get_GetPressed(idStr.InOut(), &pressed);
      log.push_back(std::wstring(control) + L" " +
                    std::wstring(label.Get(), ::SysStringLen(label.Get())) + L" " +
                    std::to_wstring(enabled) + L" " + std::to_wstring(pressed));
    }
    return log;
  }

  // After the last release, each object that the call handed in holds the references it held
  // before: none taken for good, none let go twice.
  std::wstring ReferencesLeft() {
    main_.Reset();
    for (VARIANT& value : values_)
      tabforge::com::ClearVariant(&value);
    for (UniqueVariant& variable : variables_)
      variable.Reset();
    return std::to_wstring(signaller_.references) + L" " + std::to_wstring(ribbon_.references);
  }

  HRESULT hr = E_FAIL;
  UINT argumentError = kUntouched;

 private:
  static ComPtr<_Main2> Create() {
    ComPtr<_Main2> main;
    EXPECT_EQ(
        ::CoCreateInstance(CLSID_Main2, nullptr, CLSCTX_INPROC_SERVER, IID__Main2, main.PutVoid()),
        S_OK);
    return main;
  }

  IDispatch* ObjectOf(Party party) {
    switch (party) {
      case Party::kSignaller:
        return &signaller_;
      case Party::kRibbon:
        return &ribbon_;
      case Party::kCommandBar:
        return tree_.commandBar.Get();
      case Party::kNone:
        break;
    }
    return nullptr;
  }

  // Puts the argument's value in `variable` and passes it in `slot` as `arg` says.
  void Fill(const Arg& arg, VARIANT& slot, UniqueVariant& variable) {
    VARIANT* value = variable.Get();
    V_VT(value) = arg.type;
    switch (arg.type) {
      case VT_BSTR:
        V_BSTR(value) = ::SysAllocString(arg.text);
        break;
      case VT_BOOL:
        V_BOOL(value) = arg.number != 0 ? VARIANT_TRUE : VARIANT_FALSE;
        break;
      case VT_I4:
        V_I4(value) = static_cast<LONG>(arg.number);
        break;
      case VT_R8:
        V_R8(value) = arg.number;
        break;
      case VT_ERROR:
        V_ERROR(value) = static_cast<SCODE>(static_cast<long long>(arg.number));
        break;
      case VT_DISPATCH:
      case VT_UNKNOWN:
        V_UNKNOWN(value) = ObjectOf(arg.party);
        V_UNKNOWN(value)->AddRef();
        break;
      default:
        break;
    }
    switch (arg.pass) {
      case Pass::kValue:
        slot = *value;
        ::VariantInit(value);
        break;
      case Pass::kReference:
        V_VT(&slot) = static_cast<VARTYPE>(VT_BYREF | arg.type);
        V_BYREF(&slot) = &V_BSTR(value);
        break;
      case Pass::kVariable:
        V_VT(&slot) = VT_BYREF | VT_VARIANT;
        V_VARIANTREF(&slot) = value;
        break;
    }
  }

  std::wstring Describe(const VARIANT& v) {
    switch (V_VT(&v)) {
      case VT_EMPTY:
        return L"empty";
      case VT_NULL:
        return L"null";
      case VT_BSTR:
        return V_BSTR(&v) == nullptr
                   ? L"string null"
                   : L"string \"" + std::wstring(V_BSTR(&v), ::SysStringLen(V_BSTR(&v))) + L"\"";
      case VT_BOOL:
        return L"truth " + std::to_wstring(V_BOOL(&v));
      case VT_I4:
        return L"long " + std::to_wstring(V_I4(&v));
      case VT_R8:
        return L"double " + std::to_wstring(V_R8(&v));
      case VT_ERROR:
        return L"error " + std::to_wstring(V_ERROR(&v));
      case VT_DISPATCH:
      case VT_UNKNOWN: {
        const std::wstring kind = V_VT(&v) == VT_DISPATCH ? L"object " : L"unknown ";
        IUnknown* object = V_UNKNOWN(&v);
        if (object == nullptr)
          return kind + L"nothing";
        for (Party party : {Party::kSignaller, Party::kRibbon, Party::kCommandBar}) {
          if (ComPtr<IUnknown>(object).TryAs<IDispatch>().Get() == ObjectOf(party))
            return kind + std::to_wstring(static_cast<int>(party));
        }
        ComPtr<IPicture> picture = ComPtr<IUnknown>(object).TryAs<IPicture>();
        OLE_XSIZE_HIMETRIC width = 0;
        if (picture)
          picture->get_Width(&width);
        return kind + (picture ? L"picture " + std::to_wstring(width) : L"other");
      }
      default:
        return L"type " + std::to_wstring(V_VT(&v));
    }
  }

  Signaller signaller_;
  FakeRibbon ribbon_;
  RibbonTree tree_;
  ComPtr<_Main2> main_;
  std::vector<VARIANT> values_;  // rgvarg: the last argument first
  UniqueVariant variables_[3];   // what the arguments passed by reference refer to
  std::vector<DISPID> names_;
};

const std::vector<LateCall>& LateCalls() {
  constexpr WORD kMethod = DISPATCH_METHOD;
  constexpr WORD kGet = DISPATCH_PROPERTYGET;
  constexpr WORD kScript = DISPATCH_METHOD | DISPATCH_PROPERTYGET;
  constexpr WORD kPut = DISPATCH_PROPERTYPUT;
  constexpr DISPID kPutName = DISPID_PROPERTYPUT;
  const Pass ref = Pass::kReference;
  const Pass var = Pass::kVariable;
  static const std::vector<LateCall> calls = {
      {L"Initialize", kMethod, {Obj(Party::kSignaller, var), Str(L"Quill", var)}, S_OK},
      {L"Initialize", kMethod, {Obj(Party::kSignaller), Str(L"Quill")}, S_OK},
      {L"Initialize", kMethod, {Obj(Party::kSignaller, ref), Str(L"Quill", ref)}, S_OK},
      {L"Initialize",
       kMethod,
       {Obj(Party::kSignaller, Pass::kValue, VT_UNKNOWN), Num(VT_I4, 7)},
       S_OK},
      {L"Initialize", kMethod, {Empty(), Str(L"Quill")}, DISP_E_TYPEMISMATCH, {}, 1},
      {L"Initialize", kMethod, {Obj(Party::kSignaller)}, DISP_E_BADPARAMCOUNT},
      {L"ribbon", kPut, {Obj(Party::kRibbon)}, S_OK, {kPutName}},
      {L"ribbon", kPut, {Obj(Party::kRibbon, var)}, S_OK, {kPutName}},
      {L"ribbon",
       DISPATCH_PROPERTYPUTREF,
       {Obj(Party::kRibbon)},
       S_OK,
       {kPutName},
       kUntouched,
       kPut},
      {L"ribbon", kPut, {Obj(Party::kSignaller, ref)}, S_OK, {kPutName}},
      {L"ribbon", kPut, {Obj(Party::kRibbon)}, DISP_E_PARAMNOTFOUND},
      {L"ribbon", kGet, {}, DISP_E_MEMBERNOTFOUND},
      {L"ribbon", kScript, {}, DISP_E_MEMBERNOTFOUND},
      {L"GetRibbonXML", kMethod, {}, S_OK},
      {L"GetRibbonXML", kScript, {}, S_OK},
      {L"GetRibbonXML", kGet, {}, DISP_E_MEMBERNOTFOUND},
      {L"GetRibbonXML", kMethod, {Str(L"MVN4")}, DISP_E_BADPARAMCOUNT},
      {L"productNameChanged", kMethod, {Str(L"Quill", var)}, S_OK},
      {L"productNameChanged", kMethod, {Num(VT_R8, 2.5)}, S_OK},
      {L"GetLabel", kGet, {Str(L"MVN4")}, S_OK},
      {L"GetLabel", kScript, {Str(L"MVN0", var)}, S_OK},
      {L"GetLabel", kGet, {Str(L"MVN26", ref)}, S_OK},
      {L"GetLabel", kGet, {}, DISP_E_BADPARAMCOUNT},
      {L"GetLabel", kGet, {Str(L"MVN4"), Str(L"MVN4")}, DISP_E_BADPARAMCOUNT},
      {L"GetLabel", kPut, {Str(L"MVN4"), Str(L"MVN4")}, DISP_E_MEMBERNOTFOUND, {kPutName}},
      {L"GetLabel", kPut, {Str(L"MVN4")}, DISP_E_MEMBERNOTFOUND, {kPutName}},
      {L"GetEnabled", kGet, {Str(L"MVN16")}, S_OK},
      {L"GetEnabled", kGet, {Str(L"MVN5", var)}, S_OK},
      {L"GetEnabled", kScript, {Str(L"MVN5", ref)}, S_OK},
      {L"GetEnabled", kGet, {Str(L"MVN5")}, S_OK, {}, kUntouched, 0, DISPID_UNKNOWN, false},
      {L"GetEnabled", kGet, {Num(VT_I4, 5)}, S_OK},
      {L"GetEnabled", kGet, {Num(VT_I4, 5, var)}, DISP_E_TYPEMISMATCH, {}, 0},
      {L"GetEnabled", kGet, {Num(VT_I4, 5, ref)}, DISP_E_TYPEMISMATCH, {}, 0},
      {L"GetEnabled", kGet, {Missing()}, DISP_E_TYPEMISMATCH, {}, 0},
      {L"GetEnabled", kGet, {Str(L"MVN5")}, DISP_E_BADPARAMCOUNT, {kPutName}},
      {L"GetPressed", kGet, {Str(L"MVN23", var)}, S_OK},
      {L"GetScreentip", kScript, {Str(L"MVN23")}, S_OK},
      {L"GetImage", kGet, {Str(L"MVN0", var)}, S_OK},
      {L"LoadImage", kMethod, {Str(L"5")}, S_OK},
      {L"LoadImage", kScript, {Str(L"2", var)}, S_OK},
      {L"LoadImage", kMethod, {Num(VT_I4, 5)}, S_OK},
      {L"RibbonCallback", kMethod, {Str(L"MVN5", var), Truth(false, var)}, S_OK},
      {L"RibbonCallback", kMethod, {Str(L"MVN23"), Truth(true)}, S_OK},
      {L"RibbonCallback", kMethod, {Str(L"MVN23", ref), Num(VT_I4, 3)}, S_OK},
      {L"RibbonCallback", kMethod, {Str(L"MVN5"), Str(L"maybe")}, DISP_E_TYPEMISMATCH, {}, 0},
      {L"RibbonCallback", kMethod, {Str(L"MVN5")}, DISP_E_BADPARAMCOUNT},
      {L"RibbonCallback", kMethod, {Truth(false), Str(L"MVN5")}, DISP_E_TYPEMISMATCH, {0}, 1},
      {L"RibbonCallback", kMethod, {Str(L"MVN5"), Truth(false)}, S_OK, {1}},
      {L"EnableGotoQuickBookmark", kMethod, {Truth(true, var)}, S_OK},
      {L"EnableGotoQuickBookmark", kMethod, {Truth(true, ref)}, S_OK},
      {L"EnableGotoQuickBookmark", kMethod, {Str(L"True")}, S_OK},
      {L"EnableGotoQuickBookmark", kMethod, {Num(VT_I4, 5)}, S_OK},
      {L"UpdateLexoscopeIcon", kScript, {Truth(true)}, S_OK},
      {L"UpdateLexoscopeIcon", kMethod, {Num(VT_R8, 0)}, S_OK},
      {L"EnableToolbar", kMethod, {Truth(false, var)}, S_OK},
      {L"EnableToolbar", kMethod, {Truth(false), Truth(true)}, S_OK},
      {L"EnableToolbar", kMethod, {Truth(false)}, S_OK, {kPutName}},
      {L"EnableToolbar", kMethod, {Null()}, DISP_E_TYPEMISMATCH, {}, 0},
      {L"EnableToolbar", kMethod, {Str(L"False", var)}, DISP_E_TYPEMISMATCH, {}, 0},
      {L"EnableToolbar", kMethod, {}, E_INVALIDARG, {kPutName}},
      {L"activateMorvelinTab", kMethod, {Obj(Party::kCommandBar, var)}, S_OK},
      {L"activateMorvelinTab", kMethod, {Obj(Party::kCommandBar)}, S_OK},
      {L"", kMethod, {}, DISP_E_MEMBERNOTFOUND, {}, kUntouched, 0, 0x60030008},
      {L"", kGet, {}, DISP_E_MEMBERNOTFOUND, {}, kUntouched, 0, DISPID_VALUE},
      {L"", kMethod, {}, DISP_E_MEMBERNOTFOUND, {}, kUntouched, 0, 0x60010003},
      {L"GetRibbonXML", kMethod, {}, E_INVALIDARG, {}, kUntouched, 0, DISPID_UNKNOWN, true, false},
  };
  return calls;
}

// Every member in every form a caller may use, through the server's Invoke and through the type
// library's on a second object in the same state: the same answer, the same error, the same
// arguments afterwards and the same effects. A type mismatch names its argument.
TEST_F(Members, InvokeAnswersAsTheTypeLibrary) {
  for (const LateCall& call : LateCalls()) {
    std::wstring what = std::wstring(call.member.empty() ? L"(id)" : call.member) + L" #" +
                        std::to_wstring(&call - LateCalls().data());
    Side ours(call);
    Side theirs(call);
    const auto oursLog = ours.Run(call, call.flags, InvokeThroughServer, recorder);
    const auto theirsLog =
        theirs.Run(call, call.typeLibraryFlags != 0 ? call.typeLibraryFlags : call.flags,
                   InvokeThroughTypeLibrary, recorder);
    EXPECT_EQ(ours.hr, call.expected) << what;
    EXPECT_EQ(theirs.hr, call.expected) << what;
    EXPECT_EQ(oursLog, theirsLog) << what;
    EXPECT_EQ(ours.argumentError, call.argumentError) << what;
    EXPECT_TRUE(theirs.argumentError == call.argumentError || theirs.argumentError == kUntouched)
        << what;
    EXPECT_EQ(ours.ReferencesLeft(), L"1 1") << what;
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
      EXPECT_EQ(main->put_ribbon(&argument), S_OK);
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
