// The registered Tabforge.dll through a host's life: late-bound calls with their arguments by
// value that fail inside, apartments on threads that end, an unload and a load again, and a
// process that ends with instances alive. Run under Wine with its heap checks on
// (scripts/run-under-wine.sh), so that a string or block freed twice fails the run even when
// every assertion here holds.
#include <windows.h>

#include <ole2.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <string>
#include <vector>

#include "server/tests/host_doubles.h"

namespace {

constexpr DWORD kBound = 20000;  // milliseconds for a thread or a child process to end

// A late-bound call by name as a script host makes it: the arguments by value (views of the
// caller's own), the member a method that may also be read.
HRESULT CallByName(IDispatch* object, const wchar_t* member, std::vector<VARIANT> arguments,
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

bool GivesADocument(IDispatch* main) {
  UniqueVariant xml;
  return main != nullptr && SUCCEEDED(CallByName(main, L"GetRibbonXML", {}, xml.Put())) &&
         V_VT(xml.Get()) == VT_BSTR && std::wcsncmp(V_BSTR(xml.Get()), L"<customUI ", 10) == 0;
}

DWORD WINAPI UseInASecondApartment(void*) {
  if (FAILED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
    return 1;
  const bool used = GivesADocument(CreateMain2().Get());
  ::CoUninitialize();
  return used ? 0 : 2;
}

DWORD WINAPI LoadALibrary(void*) {
  HMODULE library = ::LoadLibraryW(L"msxml3.dll");
  return library != nullptr && ::FreeLibrary(library) ? 0 : 1;
}

// True when a thread or a process ends within the bound and succeeds; one still running then is
// left behind.
bool EndsWell(HANDLE handle, BOOL(WINAPI* exitCode)(HANDLE, DWORD*) = ::GetExitCodeThread) {
  DWORD code = 99;
  const bool well = handle != nullptr && ::WaitForSingleObject(handle, kBound) == WAIT_OBJECT_0 &&
                    exitCode(handle, &code) && code == 0;
  if (handle != nullptr)
    ::CloseHandle(handle);
  return well;
}

HANDLE Start(LPTHREAD_START_ROUTINE routine) {
  return ::CreateThread(nullptr, 0, routine, nullptr, 0, nullptr);
}

// A thread that creates, uses, releases and uninitialises ends, and leaves the loader free: twice
// as the only apartment that uses the library, which it loads and frees again as it ends, then
// beside an apartment of this thread that keeps an instance. After the last release the library
// can be unloaded, and a new creation loads it again.
TEST(HostLifeModule, ApartmentThreadsEndAndTheLibraryUnloadsAndLoadsAgain) {
  Apartment apartment;
  for (int round = 0; round < 3; ++round) {
    ComPtr<IDispatch> mine = round == 2 ? CreateMain2() : nullptr;
    EXPECT_TRUE(EndsWell(Start(UseInASecondApartment))) << round;
    EXPECT_TRUE(EndsWell(Start(LoadALibrary))) << round;
    EXPECT_EQ(GivesADocument(mine.Get()), round == 2);
  }
  ::CoFreeUnusedLibrariesEx(0, 0);
  EXPECT_EQ(::GetModuleHandleW(L"Tabforge.dll"), nullptr);
  EXPECT_TRUE(GivesADocument(CreateMain2().Get()));
  EXPECT_NE(::GetModuleHandleW(L"Tabforge.dll"), nullptr);
  ::CoFreeUnusedLibrariesEx(0, 0);
}

// The template's signalling object, which answers every icon with a text instead of bytes.
class Signaller final : public DispatchDouble<> {
 public:
  HRESULT Answer(const std::wstring& member, DISPPARAMS*, VARIANT* result) override {
    if (member == L"getToolbarIconBits" && result != nullptr)
      *result = Value(VT_BSTR, L"not the bytes of a picture").Detach();
    return S_OK;
  }
};

// An initialised Main2 in the test's apartment, with its error component registered.
class HostLife : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(main = CreateMain2());
    UniqueVariant name = Value(VT_BSTR, L"Morvelin");
    VARIANT signallerArgument;
    V_VT(&signallerArgument) = VT_DISPATCH;
    V_DISPATCH(&signallerArgument) = &signaller;
    ASSERT_EQ(CallByName(main.Get(), L"Initialize", {signallerArgument, *name.Get()}), S_OK);
  }
  // Calls `member` by name with an id and, for RibbonCallback, a truth value, both by value.
  void CallFailing(const wchar_t* member) {
    const bool loads = std::wcscmp(member, L"LoadImage") == 0;
    UniqueVariant id = Value(VT_BSTR, loads ? L"5" : L"MVNx");
    UniqueVariant off = Value(VT_BOOL, L"0");
    std::vector<VARIANT> arguments{*id.Get(), *off.Get()};
    arguments.resize(std::wcscmp(member, L"RibbonCallback") == 0 ? 2 : 1);
    UniqueVariant result;
    EXPECT_EQ(CallByName(main.Get(), member, arguments, result.Put()), S_OK);
    EXPECT_EQ(TextOf(*id.Get()), loads ? L"5" : L"MVNx") << "the caller's own string";
  }

  Apartment apartment;
  ErrorComponent component;
  Signaller signaller;
  ComPtr<IDispatch> main;
};

// Calls that fail inside, answered 7 (leave) or 8 (a dump first), free each string once: Wine's
// heap checks, not these assertions, catch one freed twice. Then, while the component holds an
// object that a dump handed it, the library stays loaded.
TEST_F(HostLife, FailingCallsFreeEachStringOnceAndKeptObjectsKeepTheLibrary) {
  for (LONG answer : {7, 8}) {
    for (const wchar_t* member : {L"RibbonCallback", L"LoadImage", L"GetLabel"}) {
      component.answers = {answer};
      component.errors.clear();
      CallFailing(member);
      EXPECT_FALSE(component.errors.empty()) << member << " answered " << answer;
    }
  }
  component.answers = {8, 7};
  component.keepObjects = true;
  CallFailing(L"RibbonCallback");
  ASSERT_FALSE(component.kept.empty());
  main.Reset();
  HMODULE library = ::GetModuleHandleW(L"Tabforge.dll");
  const auto canUnloadNow = reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(
      reinterpret_cast<void*>(::GetProcAddress(library, "DllCanUnloadNow")));
  ASSERT_NE(canUnloadNow, nullptr);
  EXPECT_EQ(canUnloadNow(), S_FALSE);
  ::CoFreeUnusedLibrariesEx(0, 0);
  EXPECT_EQ(::GetModuleHandleW(L"Tabforge.dll"), library);
  for (const ComPtr<IDispatch>& object : component.kept) {
    UINT count = 99;
    EXPECT_EQ(object->GetTypeInfoCount(&count), S_OK) << "a kept object still answers";
  }
  component.kept.clear();
  EXPECT_EQ(canUnloadNow(), S_OK);
}

constexpr char kLiveInstanceSwitch[] = "--end-with-a-live-instance";

DWORD WINAPI HoldAnInstanceForEver(void*) {
  ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  IDispatch* leaked = CreateMain2().Detach();
  ::Sleep(INFINITE);
  return leaked != nullptr ? 0 : 1;
}

// The child's part: instances alive on this thread and on another when the process ends, with no
// release and no CoUninitialize.
int EndWithALiveInstance() {
  if (FAILED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
    return 2;
  HANDLE other = Start(HoldAnInstanceForEver);
  IDispatch* leaked = CreateMain2().Detach();
  if (other == nullptr || !GivesADocument(leaked))
    return 3;
  ::Sleep(200);
  return 0;
}

TEST(HostLifeModule, AProcessWithALiveInstanceEnds) {
  wchar_t self[MAX_PATH] = {};
  ASSERT_GT(::GetModuleFileNameW(nullptr, self, MAX_PATH), 0u);
  std::wstring commandLine = L"\"" + std::wstring(self) + L"\" " +
                             std::wstring(kLiveInstanceSwitch, std::end(kLiveInstanceSwitch) - 1);
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION process{};
  ASSERT_TRUE(::CreateProcessW(self, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr,
                               nullptr, &startup, &process));
  ::CloseHandle(process.hThread);
  EXPECT_TRUE(EndsWell(process.hProcess, ::GetExitCodeProcess));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], kLiveInstanceSwitch) == 0)
    return EndWithALiveInstance();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
