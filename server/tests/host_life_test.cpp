// The registered Tabforge.dll through a host's life: late-bound calls with their arguments by
// value that fail inside, apartments on threads that end, an unload and a load again, and a
// process that ends with an instance alive. Run under Wine with its heap checks on
// (scripts/run-under-wine.sh), so that a string or block freed twice fails the run even when
// every assertion here holds.
#include <windows.h>

#include <ole2.h>
#include <olectl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "server/com_ptr.h"
#include "server/tests/dispatch_double.h"

namespace {

using tabforge::com::ComPtr;
using tabforge::com::UniqueBstr;
using tabforge::com::UniqueVariant;

// {7A2C1E55-3B9D-4C1F-8E62-0D4B7A9F1C38}: the error component of these tests.
constexpr CLSID kClsidComponent = {
    0x7a2c1e55, 0x3b9d, 0x4c1f, {0x8e, 0x62, 0x0d, 0x4b, 0x7a, 0x9f, 0x1c, 0x38}};
constexpr wchar_t kProgId[] = L"Tabforge.Main2";
constexpr DWORD kThreadBound = 20000;  // milliseconds for a thread or a child process to end

// COM interfaces have no virtual destructor by design; objects delete themselves in Release.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// The error component: answers the handler from a list (the last answer for ever) and, when told
// to, keeps every object that a dump hands it.
class Component final : public DispatchDouble {
 public:
  HRESULT Answer(const std::wstring& member, DISPPARAMS* params, VARIANT* result) override {
    if (member == L"vbwErrorHandler" && result != nullptr) {
      V_VT(result) = VT_I4;
      V_I4(result) = answers.empty() ? 7 : answers[std::min(answered++, answers.size() - 1)];
    }
    if (keepObjects && params != nullptr) {
      for (UINT i = 0; i < params->cArgs; ++i) {
        const VARIANT& argument = params->rgvarg[i];
        IDispatch* object = V_VT(&argument) == VT_DISPATCH ? V_DISPATCH(&argument)
                            : V_VT(&argument) == (VT_BYREF | VT_DISPATCH)
                                ? *V_DISPATCHREF(&argument)
                                : nullptr;
        if (object != nullptr)
          kept.emplace_back(object);
      }
    }
    return S_OK;
  }
  std::vector<LONG> answers;
  std::size_t answered = 0;
  bool keepObjects = false;
  std::vector<ComPtr<IDispatch>> kept;
};

// The template's signalling object: runs every macro and answers every icon with a text instead of
// bytes.
class Signaller final : public DispatchDouble {
 public:
  HRESULT Answer(const std::wstring& member, DISPPARAMS*, VARIANT* result) override {
    if (member == L"getToolbarIconBits" && result != nullptr) {
      V_VT(result) = VT_BSTR;
      V_BSTR(result) = ::SysAllocString(L"not the bytes of a picture");
    }
    return S_OK;
  }
};

class ComponentFactory final : public IClassFactory {
 public:
  explicit ComponentFactory(Component& component) : component_(component) {}
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
    return component_.QueryInterface(riid, out);
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }
  int created = 0;

 private:
  Component& component_;
};

#pragma GCC diagnostic pop

std::wstring GuidText(REFGUID guid) {
  wchar_t text[40] = {};
  EXPECT_EQ(::StringFromGUID2(guid, text, 40), 39);
  return text;
}

// Makes `component` the error component "MorvelinError.Main2" for the life of this object.
class ComponentRegistration {
 public:
  explicit ComponentRegistration(Component& component) : factory_(component) {
    EXPECT_EQ(::CoRegisterClassObject(kClsidComponent, &factory_, CLSCTX_INPROC_SERVER,
                                      REGCLS_MULTIPLEUSE, &cookie_),
              S_OK);
    const std::wstring clsid = GuidText(kClsidComponent);
    EXPECT_EQ(
        ::RegSetKeyValueW(HKEY_CLASSES_ROOT, L"MorvelinError.Main2\\CLSID", nullptr, REG_SZ,
                          clsid.c_str(), static_cast<DWORD>((clsid.size() + 1) * sizeof(wchar_t))),
        ERROR_SUCCESS);
  }
  ~ComponentRegistration() {
    ::CoRevokeClassObject(cookie_);
    ::RegDeleteTreeW(HKEY_CLASSES_ROOT, L"MorvelinError.Main2");
  }
  ComponentRegistration(const ComponentRegistration&) = delete;
  ComponentRegistration& operator=(const ComponentRegistration&) = delete;
  int created() const { return factory_.created; }

 private:
  ComponentFactory factory_;
  DWORD cookie_ = 0;
};

ComPtr<IDispatch> CreateMain2() {
  CLSID clsid{};
  ComPtr<IDispatch> main;
  if (FAILED(::CLSIDFromProgID(kProgId, &clsid)) ||
      FAILED(
          ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, main.PutVoid())))
    return nullptr;
  return main;
}

UniqueVariant Text(const wchar_t* text) {
  UniqueVariant v;
  V_VT(v.Get()) = VT_BSTR;
  V_BSTR(v.Get()) = ::SysAllocString(text);
  return v;
}
UniqueVariant Truth(bool value) {
  UniqueVariant v;
  V_VT(v.Get()) = VT_BOOL;
  V_BOOL(v.Get()) = value ? VARIANT_TRUE : VARIANT_FALSE;
  return v;
}
UniqueVariant Object(IDispatch* object) {
  UniqueVariant v;
  V_VT(v.Get()) = VT_DISPATCH;
  V_DISPATCH(v.Get()) = object;
  object->AddRef();
  return v;
}

// A late-bound call by name, as a script host makes it: every argument by value, the member a
// method that may also be read.
HRESULT CallByName(IDispatch* object, const wchar_t* member, std::vector<VARIANT*> arguments,
                   VARIANT* result = nullptr, WORD flags = DISPATCH_METHOD | DISPATCH_PROPERTYGET) {
  LPOLESTR names[] = {const_cast<LPOLESTR>(member)};
  DISPID id = DISPID_UNKNOWN;
  const HRESULT found = object->GetIDsOfNames(IID_NULL, names, 1, 0, &id);
  if (FAILED(found))
    return found;
  std::vector<VARIANT> slots(arguments.size());
  for (std::size_t i = 0; i < arguments.size(); ++i)
    slots[arguments.size() - 1 - i] = *arguments[i];  // a view; the caller keeps ownership
  DISPID put = DISPID_PROPERTYPUT;
  const bool isPut = (flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF)) != 0;
  DISPPARAMS params{slots.data(), isPut ? &put : nullptr, static_cast<UINT>(slots.size()),
                    isPut ? 1u : 0u};
  EXCEPINFO exception{};
  const HRESULT hr = object->Invoke(id, IID_NULL, 0, flags, &params, result, &exception, nullptr);
  ::SysFreeString(exception.bstrDescription);
  ::SysFreeString(exception.bstrSource);
  ::SysFreeString(exception.bstrHelpFile);
  return hr;
}

std::wstring RibbonXml(IDispatch* main) {
  UniqueVariant xml;
  if (FAILED(CallByName(main, L"GetRibbonXML", {}, xml.Get())) || V_VT(xml.Get()) != VT_BSTR)
    return {};
  return std::wstring(V_BSTR(xml.Get()), ::SysStringLen(V_BSTR(xml.Get())));
}

bool IsDocument(const std::wstring& xml) {
  return xml.rfind(L"<customUI ", 0) == 0;
}

DWORD WINAPI UseInASecondApartment(void* document) {
  if (FAILED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
    return 1;
  {
    ComPtr<IDispatch> main = CreateMain2();
    if (main)
      *static_cast<std::wstring*>(document) = RibbonXml(main.Get());
  }
  ::CoUninitialize();
  return 0;
}

DWORD WINAPI LoadALibrary(void*) {
  HMODULE library = ::LoadLibraryW(L"msxml3.dll");
  if (library == nullptr)
    return 1;
  ::FreeLibrary(library);
  return 0;
}

// Waits for a thread with a bound; a thread still running then is left behind, and says so.
bool Ends(LPTHREAD_START_ROUTINE routine, void* argument) {
  HANDLE thread = ::CreateThread(nullptr, 0, routine, argument, 0, nullptr);
  if (thread == nullptr)
    return false;
  const bool ended = ::WaitForSingleObject(thread, kThreadBound) == WAIT_OBJECT_0;
  ::CloseHandle(thread);
  return ended;
}

// A thread that creates, uses, releases and uninitialises ends, and leaves the loader free: first
// as the only thread that ever used the library (its apartment loads the library and frees it
// again as it ends), then beside an apartment of this thread that keeps an instance.
TEST(HostLifeThreads, ASecondApartmentThreadEnds) {
  for (int round = 0; round < 2; ++round) {
    std::wstring document;
    EXPECT_TRUE(Ends(UseInASecondApartment, &document)) << "alone, round " << round;
    EXPECT_TRUE(IsDocument(document)) << "alone, round " << round;
    EXPECT_TRUE(Ends(LoadALibrary, nullptr)) << "alone, round " << round;
  }
  ASSERT_EQ(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
  ComPtr<IDispatch> mine = CreateMain2();
  ASSERT_TRUE(mine);
  std::wstring document;
  EXPECT_TRUE(Ends(UseInASecondApartment, &document)) << "beside";
  EXPECT_TRUE(IsDocument(document)) << "beside";
  EXPECT_TRUE(Ends(LoadALibrary, nullptr)) << "beside";
  EXPECT_TRUE(IsDocument(RibbonXml(mine.Get())));
  mine.Reset();
  ::CoFreeUnusedLibrariesEx(0, 0);
  ::CoUninitialize();
}

// An initialised Main2 in the test's apartment, with its error component registered.
class HostLife : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
    registration_ = std::make_unique<ComponentRegistration>(component);
    ASSERT_TRUE(main = CreateMain2());
    UniqueVariant signallerValue = Object(&signaller);
    UniqueVariant name = Text(L"Morvelin");
    ASSERT_EQ(CallByName(main.Get(), L"Initialize", {signallerValue.Get(), name.Get()}), S_OK);
  }
  void TearDown() override {
    main.Reset();
    component.kept.clear();
    registration_.reset();
    ::CoUninitialize();
  }

  Component component;
  Signaller signaller;
  ComPtr<IDispatch> main;

 private:
  std::unique_ptr<ComponentRegistration> registration_;
};

// Calls that fail inside, each with its arguments by value; the component answers them in turn.
// Wine's heap checks, not these assertions, catch a string freed twice.
TEST_F(HostLife, FailingCallsWithArgumentsByValueFreeEachStringOnce) {
  struct Case {
    const wchar_t* member;
    std::vector<LONG> answers;  // 7 leaves the procedure, 8 asks for a dump first
  };
  const Case cases[] = {
      {L"RibbonCallback", {7}}, {L"LoadImage", {7}}, {L"GetLabel", {7}},
      {L"RibbonCallback", {8}}, {L"LoadImage", {8}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << std::string(c.member, c.member + std::wcslen(c.member))
                                      << " answered " << c.answers.front());
    component.answers = c.answers;
    component.answered = 0;
    component.invoked.clear();
    UniqueVariant id = Text(std::wstring(c.member) == L"LoadImage" ? L"5" : L"MVNx");
    UniqueVariant off = Truth(false);
    UniqueVariant result;
    std::vector<VARIANT*> arguments{id.Get()};
    if (std::wstring(c.member) == L"RibbonCallback")
      arguments.push_back(off.Get());
    EXPECT_EQ(CallByName(main.Get(), c.member, arguments, result.Get()), S_OK);
    // The caller's own string is untouched.
    ASSERT_EQ(V_VT(id.Get()), VT_BSTR);
    EXPECT_NE(V_BSTR(id.Get()), nullptr);
    EXPECT_NE(std::count(component.invoked.begin(), component.invoked.end(), L"vbwErrorHandler"),
              0);
  }
}

// While the component holds an object that a dump handed it, the library must stay loaded.
TEST_F(HostLife, TheLibraryStaysWhileTheComponentHoldsADumpsObject) {
  component.answers = {8, 7};
  component.keepObjects = true;
  UniqueVariant id = Text(L"MVNx");
  UniqueVariant off = Truth(false);
  EXPECT_EQ(CallByName(main.Get(), L"RibbonCallback", {id.Get(), off.Get()}), S_OK);
  ASSERT_FALSE(component.kept.empty());
  main.Reset();

  HMODULE library = ::GetModuleHandleW(L"Tabforge.dll");
  ASSERT_NE(library, nullptr);
  using CanUnload = HRESULT(STDAPICALLTYPE*)();
  auto canUnloadNow = reinterpret_cast<CanUnload>(
      reinterpret_cast<void*>(::GetProcAddress(library, "DllCanUnloadNow")));
  ASSERT_NE(canUnloadNow, nullptr);
  EXPECT_EQ(canUnloadNow(), S_FALSE);
  ::CoFreeUnusedLibrariesEx(0, 0);
  EXPECT_EQ(::GetModuleHandleW(L"Tabforge.dll"), library);
  // The kept objects still answer.
  for (const ComPtr<IDispatch>& object : component.kept) {
    UINT count = 99;
    EXPECT_EQ(object->GetTypeInfoCount(&count), S_OK);
  }
  component.kept.clear();
  EXPECT_EQ(canUnloadNow(), S_OK);
}

// With the last object gone the library may be unloaded; created again, it starts afresh.
TEST(HostLifeModule, UnloadsAfterTheLastReleaseAndLoadsAgain) {
  ASSERT_EQ(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
  {
    ComPtr<IDispatch> first = CreateMain2();
    ASSERT_TRUE(first);
    EXPECT_TRUE(IsDocument(RibbonXml(first.Get())));
  }
  ::CoFreeUnusedLibrariesEx(0, 0);
  EXPECT_EQ(::GetModuleHandleW(L"Tabforge.dll"), nullptr);
  {
    ComPtr<IDispatch> again = CreateMain2();
    ASSERT_TRUE(again);
    EXPECT_NE(::GetModuleHandleW(L"Tabforge.dll"), nullptr);
    EXPECT_TRUE(IsDocument(RibbonXml(again.Get())));
  }
  ::CoFreeUnusedLibrariesEx(0, 0);
  ::CoUninitialize();
}

constexpr char kLiveInstanceSwitch[] = "--end-with-a-live-instance";

DWORD WINAPI HoldAnInstanceForEver(void*) {
  ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  IDispatch* leaked = CreateMain2().Detach();
  ::Sleep(INFINITE);
  return leaked != nullptr ? 0 : 1;
}

// The child's part: an instance alive, on this thread and on another, when the process ends.
int EndWithALiveInstance() {
  if (FAILED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
    return 2;
  HANDLE other = ::CreateThread(nullptr, 0, HoldAnInstanceForEver, nullptr, 0, nullptr);
  IDispatch* leaked = CreateMain2().Detach();
  if (leaked == nullptr || other == nullptr || !IsDocument(RibbonXml(leaked)))
    return 3;
  ::Sleep(200);
  return 0;  // no release, no CoUninitialize: the run time ends the process
}

TEST(HostLifeModule, AProcessWithALiveInstanceEnds) {
  wchar_t self[MAX_PATH] = {};
  ASSERT_GT(::GetModuleFileNameW(nullptr, self, MAX_PATH), 0u);
  std::wstring commandLine =
      L"\"" + std::wstring(self) + L"\" " +
      std::wstring(kLiveInstanceSwitch, kLiveInstanceSwitch + std::strlen(kLiveInstanceSwitch));
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION process{};
  ASSERT_TRUE(::CreateProcessW(self, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr,
                               nullptr, &startup, &process));
  const DWORD waited = ::WaitForSingleObject(process.hProcess, kThreadBound);
  DWORD code = 99;
  ::GetExitCodeProcess(process.hProcess, &code);
  if (waited != WAIT_OBJECT_0)
    ::TerminateProcess(process.hProcess, 1);
  ::CloseHandle(process.hThread);
  ::CloseHandle(process.hProcess);
  EXPECT_EQ(waited, WAIT_OBJECT_0);
  EXPECT_EQ(code, 0u);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], kLiveInstanceSwitch) == 0)
    return EndWithALiveInstance();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
