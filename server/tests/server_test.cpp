// Drives the registered Tabforge.dll the way its callers do: through the interface's order, by
// dispatch id and by name, and through a host's life. Run under Wine after regsvr32, a group at a
// time (--gtest_filter); the Unregistered tests run after regsvr32 /u.
#include <windows.h>

#include <ole2.h>
#include <oleacc.h>
#include <olectl.h>
#undef LoadImage

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Tabforge_h.h"
#include "accessibility/accessible_tree.h"
#include "server/accessible_object.h"
#include "server/main2_object.h"
#include "server/object_bridge.h"
#include "server/tests/host_doubles.h"
#include "server/windows_platform.h"

namespace {

using tabforge::AccessibleElement;
using tabforge::ParseAccessibleTree;
using tabforge::Ref;
using tabforge::com::AccessibleObject;

std::wstring Text(BSTR text) {
  return std::wstring(text, ::SysStringLen(text));
}

// The ribbon, which records what it is told to invalidate.
class FakeRibbon final : public DispatchDouble<IRibbonUI> {
 public:
  HRESULT STDMETHODCALLTYPE Invalidate() override {
    invoked.emplace_back(L"Invalidate");
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE InvalidateControl(BSTR id) override {
    invoked.push_back(L"InvalidateControl " + Text(id));
    return S_OK;
  }
};

// A 96 x 48 PNG of one translucent colour: 96 pixels are 2540 HIMETRIC at 96 dots an inch.
const std::string kIconPng = [] {
  std::ifstream file(TABFORGE_ICON_PNG, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}();

// The template's signalling object, which hands out the same icon for every image.
class Signaller final : public DispatchDouble<> {
 public:
  HRESULT Answer(const std::wstring& member, DISPPARAMS*, VARIANT* result) override {
    if (member != L"getToolbarIconBits" || result == nullptr)
      return S_OK;
    V_VT(result) = VT_ARRAY | VT_UI1;
    V_ARRAY(result) = ::SafeArrayCreateVector(VT_UI1, 0, kIconPng.size());
    std::memcpy(V_ARRAY(result)->pvData, kIconPng.data(), kIconPng.size());
    return S_OK;
  }
};

bool KeyExists(const std::wstring& key) {
  tabforge::com::UniqueHkey handle;
  return ::RegOpenKeyExW(HKEY_CLASSES_ROOT, key.c_str(), 0, KEY_READ, handle.Put()) ==
         ERROR_SUCCESS;
}

// The keys of the class, the program id, the interface and the type library.
std::vector<std::wstring> ServerKeys() {
  return {L"CLSID\\" + GuidText(CLSID_Main2), L"Tabforge.Main2",
          L"Interface\\" + GuidText(IID__Main2), L"TypeLib\\" + GuidText(LIBID_Tabforge)};
}

// _Main2 as the registered type library describes the interface whose members the vtable has,
// read apart from anything that the server answers.
ComPtr<ITypeInfo> TypeLibraryInterface() {
  ComPtr<ITypeLib> library;
  ComPtr<ITypeInfo> dispatch;
  HREFTYPE reference = 0;
  ComPtr<ITypeInfo> info;
  EXPECT_EQ(::LoadRegTypeLib(LIBID_Tabforge, 1, 0, 0, library.Put()), S_OK);
  if (library && SUCCEEDED(library->GetTypeInfoOfGuid(IID__Main2, dispatch.Put())) &&
      SUCCEEDED(dispatch->GetRefTypeOfImplType(static_cast<UINT>(-1), &reference)))
    dispatch->GetRefTypeInfo(reference, info.Put());
  return info;
}

using AccessibleTree = ComTest;
using Unregistered = ComTest;

// A parameter's type as the type library writes it: "BSTR*", "VARIANT_BOOL*", "IDispatch**".
std::wstring TypeText(ITypeInfo* info, const TYPEDESC& type) {
  switch (type.vt) {
    case VT_PTR:
      return TypeText(info, *type.lptdesc) + L"*";
    case VT_BSTR:
      return L"BSTR";
    case VT_BOOL:
      return L"VARIANT_BOOL";
    case VT_DISPATCH:
      return L"IDispatch*";
    case VT_USERDEFINED: {
      ComPtr<ITypeInfo> referred;
      UniqueBstr name;
      if (SUCCEEDED(info->GetRefTypeInfo(type.hreftype, referred.Put())))
        referred->GetDocumentation(MEMBERID_NIL, name.Put(), nullptr, nullptr, nullptr);
      return name ? Text(name.Get()) : L"?";
    }
    default:
      return L"vt" + std::to_wstring(type.vt);
  }
}

std::wstring SlotText(tabforge::com::Main2Member::Slot slot) {
  using tabforge::com::Main2Member;
  switch (slot) {
    case Main2Member::kText:
      return L"BSTR*";
    case Main2Member::kTruth:
      return L"VARIANT_BOOL*";
    case Main2Member::kObject:
      return L"IDispatch**";
    case Main2Member::kPicture:
      return L"IPictureDisp**";
    case Main2Member::kNone:
      break;
  }
  return L"";
}

// The server's one description of _Main2 is the type library's: the same members in the same
// slots, with the same ids, names, kinds, parameters ([in, out] by reference) and answers ([out,
// retval]).
TEST(Registered, TheServersMemberTableIsTheTypeLibrarys) {
  Apartment apartment;
  const ComPtr<ITypeInfo> info = TypeLibraryInterface();
  ASSERT_TRUE(info);
  TYPEATTR* attributes = nullptr;
  ASSERT_EQ(info->GetTypeAttr(&attributes), S_OK);
  const UINT functions = attributes->cFuncs;
  info->ReleaseTypeAttr(attributes);
  const auto members = tabforge::com::Main2Members();
  ASSERT_EQ(functions, members.size());
  for (UINT slot = 0; slot < functions; ++slot) {
    const auto& member = members[slot];
    const std::wstring name(member.name.begin(), member.name.end());
    FUNCDESC* function = nullptr;
    ASSERT_EQ(info->GetFuncDesc(slot, &function), S_OK);
    UniqueBstr declared;
    UINT named = 0;
    info->GetNames(function->memid, declared.Put(), 1, &named);
    EXPECT_EQ(Text(declared.Get()), name) << slot;
    EXPECT_EQ(function->memid, member.id) << name;
    EXPECT_EQ(function->invkind, member.kind) << name;
    std::vector<std::wstring> expected, actual;
    for (UINT i = 0; i < member.Inputs(); ++i)
      expected.push_back(SlotText(member.inputs[i]) + L" in out");
    if (member.answer != tabforge::com::Main2Member::kNone)
      expected.push_back(SlotText(member.answer) + L" out retval");
    for (SHORT i = 0; i < function->cParams; ++i) {
      const ELEMDESC& parameter = function->lprgelemdescParam[i];
      const USHORT flags = parameter.paramdesc.wParamFlags;
      actual.push_back(TypeText(info.Get(), parameter.tdesc) +
                       ((flags & PARAMFLAG_FIN) != 0 ? L" in" : L"") +
                       ((flags & PARAMFLAG_FOUT) != 0 ? L" out" : L"") +
                       ((flags & PARAMFLAG_FRETVAL) != 0 ? L" retval" : L""));
    }
    EXPECT_EQ(actual, expected) << name;
    info->ReleaseFuncDesc(function);
  }
}

TEST(Registered, RegistryHoldsTheClassProgIdInterfaceAndTypeLibrary) {
  const std::vector<std::wstring> keys = ServerKeys();
  for (const std::wstring& key : {keys[0] + L"\\InprocServer32", keys[0] + L"\\ProgID",
                                  keys[1] + L"\\CLSID", keys[2] + L"\\ProxyStubClsid32", keys[3]})
    EXPECT_TRUE(KeyExists(key)) << key;
  wchar_t model[32] = {};
  DWORD bytes = sizeof(model);
  EXPECT_EQ(::RegGetValueW(HKEY_CLASSES_ROOT, (keys[0] + L"\\InprocServer32").c_str(),
                           L"ThreadingModel", RRF_RT_REG_SZ, nullptr, model, &bytes),
            ERROR_SUCCESS);
  EXPECT_STREQ(model, L"Apartment");
}

TEST_F(Unregistered, NothingOfTheServerIsLeftInTheRegistry) {
  for (const std::wstring& key : ServerKeys())
    EXPECT_FALSE(KeyExists(key)) << key;
  EXPECT_FALSE(CreateMain2());
}

// An initialised Main2 with a ribbon, and the error component registered.
class Members : public ComTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(main = CreateMain2().TryAs<_Main2>());
    Connect(main.Get(), &signaller, &ribbon);
  }

  ErrorComponent recorder;
  Signaller signaller;
  FakeRibbon ribbon;
  ComPtr<_Main2> main;
};

// The objects handed in are held until the last release; the pictures are real ones, a new one
// for each load, and none where the table has none.
TEST_F(Members, HoldsItsObjectsAndMakesRealPicturesOfTheTemplatesBytes) {
  EXPECT_EQ(ribbon.queried, 1);
  EXPECT_GT(signaller.references, 1u);
  EXPECT_GT(ribbon.references, 1u);
  UniqueBstr ids[] = {UniqueBstr(::SysAllocString(L"MVN0")), UniqueBstr(::SysAllocString(L"5")),
                      UniqueBstr(::SysAllocString(L"2"))};
  ComPtr<IPictureDisp> image, first, second, nothing;
  EXPECT_EQ(main->get_GetImage(ids[0].InOut(), image.Put()), S_OK);
  EXPECT_EQ(main->LoadImage(ids[1].InOut(), first.Put()), S_OK);
  EXPECT_EQ(main->LoadImage(ids[1].InOut(), second.Put()), S_OK);
  EXPECT_EQ(main->LoadImage(ids[2].InOut(), nothing.Put()), S_OK);
  const ComPtr<IPicture> picture = image.TryAs<IPicture>();
  SHORT type = 0;
  OLE_XSIZE_HIMETRIC width = 0, height = 0;
  ASSERT_TRUE(picture && first && second);
  EXPECT_TRUE(SUCCEEDED(picture->get_Type(&type)) && SUCCEEDED(picture->get_Width(&width)) &&
              SUCCEEDED(picture->get_Height(&height)));
  EXPECT_EQ(std::vector<LONG>({type, width, height}),
            (std::vector<LONG>{PICTYPE_BITMAP, 2540, 1270}));
  EXPECT_NE(first.Get(), second.Get());
  EXPECT_FALSE(nothing);
  EXPECT_EQ(signaller.invoked.size(), 3u) << "nothing fetched for an image without a picture";
  EXPECT_TRUE(recorder.errors.empty());
  EXPECT_EQ(main->Initialize(nullptr, nullptr), S_OK) << "null pointers are nothing";
  main.Reset();
  EXPECT_EQ(signaller.references + ribbon.references, 2u) << "each let go of";
}

// A failure inside reaches a component of its own and never the caller; the component writes into
// the library's own stack; a failed dump opening does not end the dump.
TEST_F(Members, FailuresReachTheErrorComponentAndNeverTheCaller) {
  DispatchDouble<> notARibbon;
  IDispatch* argument = &notARibbon;
  EXPECT_EQ(main->put_ribbon(&argument), S_OK);
  UniqueBstr pastTheTable(::SysAllocString(L"27"));
  ComPtr<IPictureDisp> nothing;
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(main->LoadImage(pastTheTable.InOut(), nothing.Put()), S_OK);
  EXPECT_FALSE(nothing);
  EXPECT_EQ(recorder.errors, (std::vector<LONG>{13, 9, 9}));
  EXPECT_EQ(recorder.created, 3);
  // Slot 5 lies above the depth, so only the component's own write can be there.
  ASSERT_EQ(recorder.stackSlot5.size(), 3u);
  EXPECT_EQ(recorder.stackSlot5[2], L"Written 2");

  recorder.answers = {8, 7};
  recorder.failOpenDump = true;
  recorder.errors.clear();
  EXPECT_EQ(main->LoadImage(pastTheTable.InOut(), nothing.Put()), S_OK);
  // The opening's answer let the component go; the dump goes on, and each of its calls that
  // needs the component (three banners, four objects, the close) fails and is told; then -1.
  EXPECT_EQ(recorder.errors, (std::vector<LONG>{9, 75, 91, 91, 91, 91, 91, 91, 91, 91, -1}));
}

// A tree's elements as oleacc and a caller see them: children as objects or, for a simple child,
// as its id; names, states and parents; a failing member fails and names nothing.
TEST_F(AccessibleTree, ElementsAnswerThroughOleacc) {
  const auto root = ParseAccessibleTree(
                        "10 \"client\"\n  37 \"Home\" state=0x2\n  37 \"\" simple\n"
                        "  37 \"Broken\" fail=accName\n")
                        .root;
  ComPtr<IAccessible> client = AccessibleObject::Create(Ref<tabforge::Object>(root));
  LONG count = 0;
  VARIANT raw[3];
  ASSERT_EQ(client->get_accChildCount(&count), S_OK);
  ASSERT_EQ(::AccessibleChildren(client.Get(), 0, 3, raw, &count), S_OK);
  UniqueVariant children[3];
  for (LONG i = 0; i < count; ++i)
    *children[i].Get() = raw[i];
  ASSERT_EQ(count, 3);
  EXPECT_TRUE(V_VT(children[1].Get()) == VT_I4 && V_I4(children[1].Get()) == 2);
  UniqueVariant self = Value(VT_I4, L"0");  // CHILDID_SELF
  // The name, or whether the call failed and left the name empty.
  const auto nameOf = [&](IDispatch* element) {
    UniqueBstr name;
    const ComPtr<IAccessible> accessible = ComPtr<IDispatch>(element).TryAs<IAccessible>();
    const HRESULT hr = accessible ? accessible->get_accName(*self.Get(), name.Put()) : E_POINTER;
    return SUCCEEDED(hr) ? Text(name.Get()) : name ? L"failed, named" : L"failed";
  };
  ComPtr<IAccessible> home = ComPtr<IDispatch>(V_DISPATCH(children[0].Get())).TryAs<IAccessible>();
  ComPtr<IDispatch> parent;
  UniqueVariant state;
  ASSERT_TRUE(home && V_VT(children[2].Get()) == VT_DISPATCH);
  EXPECT_EQ(home->get_accParent(parent.Put()), S_OK);
  EXPECT_EQ(home->get_accState(*self.Get(), state.Get()), S_OK);
  EXPECT_EQ(TextOf(*state.Get()), L"2");
  EXPECT_EQ(nameOf(home.Get()) + L"," + nameOf(parent.Get()) + L"," +
                nameOf(V_DISPATCH(children[2].Get())),
            L"Home,client,failed");
}

// --- A host's life: late-bound calls with their arguments by value that fail inside, apartments on
// threads that end, an unload and a load again, and a process that ends with instances alive.
// Wine's heap checks (scripts/run-under-wine.sh) fail the run on a string or block freed twice even
// when every assertion here holds.

constexpr DWORD kBound = 20000;  // milliseconds for a thread or a child process to end

bool GivesADocument(IDispatch* main) {
  UniqueVariant xml;
  return main != nullptr && SUCCEEDED(CallByName(main, L"GetRibbonXML", {}, xml.Put())) &&
         V_VT(xml.Get()) == VT_BSTR && std::wcsncmp(V_BSTR(xml.Get()), L"<customUI ", 10) == 0;
}

DWORD WINAPI UseInASecondApartment(void*) {
  const ComApartment apartment;
  if (!apartment)
    return 1;
  return GivesADocument(CreateMain2().Get()) ? 0 : 2;
}

DWORD WINAPI LoadALibrary(void*) {
  HMODULE library = ::LoadLibraryW(L"msxml3.dll");
  return library != nullptr && ::FreeLibrary(library) ? 0 : 1;
}

// True when a thread or a process ends within the bound and succeeds; one still running then is
// left behind.
bool EndsWell(const UniqueKernelHandle& handle,
              BOOL(WINAPI* exitCode)(HANDLE, DWORD*) = ::GetExitCodeThread) {
  DWORD code = 99;
  return handle && ::WaitForSingleObject(handle.Get(), kBound) == WAIT_OBJECT_0 &&
         exitCode(handle.Get(), &code) && code == 0;
}

UniqueKernelHandle Start(LPTHREAD_START_ROUTINE routine) {
  return UniqueKernelHandle(::CreateThread(nullptr, 0, routine, nullptr, 0, nullptr));
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

// Calls `member` of `main` by name with an id that fails (a bad id text, an image past the table)
// and, for RibbonCallback, a truth value, both by value.
void CallFailing(IDispatch* main, const wchar_t* member) {
  const wchar_t* text = std::wcscmp(member, L"LoadImage") == 0 ? L"27" : L"MVNx";
  UniqueVariant arguments[] = {Value(VT_BSTR, text), Value(VT_BOOL, L"0")};
  const VARIANT passed[] = {*arguments[0].Get(), *arguments[1].Get()};
  const int count = std::wcscmp(member, L"RibbonCallback") == 0 ? 2 : 1;
  UniqueVariant result;
  EXPECT_EQ(CallByName(main, member, {passed, passed + count}, result.Put()), S_OK);
  EXPECT_EQ(TextOf(*arguments[0].Get()), text) << "the caller's own string";
}
using HostLife = Members;

// Calls that fail inside, answered 7 (leave) or 8 (a dump first), free each string once: Wine's
// heap checks, not these assertions, catch one freed twice. Then, while the component holds an
// object that a dump handed it, the library stays loaded.
TEST_F(HostLife, FailingCallsFreeEachStringOnceAndKeptObjectsKeepTheLibrary) {
  for (LONG answer : {7, 8})
    for (const wchar_t* member : {L"RibbonCallback", L"LoadImage", L"GetLabel"}) {
      recorder.answers = {answer};
      recorder.errors.clear();
      CallFailing(main.Get(), member);
      EXPECT_FALSE(recorder.errors.empty()) << member << " answered " << answer;
    }
  recorder.answers = {8, 7};
  recorder.keepObjects = true;
  CallFailing(main.Get(), L"RibbonCallback");
  ASSERT_FALSE(recorder.kept.empty());
  main.Reset();
  HMODULE library = ::GetModuleHandleW(L"Tabforge.dll");
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(CanUnloadNow(), S_FALSE);
  ::CoFreeUnusedLibrariesEx(0, 0);
  EXPECT_EQ(::GetModuleHandleW(L"Tabforge.dll"), library);
  for (const ComPtr<IDispatch>& object : recorder.kept) {
    UINT count = 99;
    EXPECT_EQ(object->GetTypeInfoCount(&count), S_OK) << "a kept object still answers";
  }
  recorder.kept.clear();
  EXPECT_EQ(CanUnloadNow(), S_OK);
}

constexpr wchar_t kLiveInstanceSwitch[] = L"--end-with-a-live-instance";

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
  const bool started = static_cast<bool>(Start(HoldAnInstanceForEver));
  IDispatch* leaked = CreateMain2().Detach();
  if (!started || !GivesADocument(leaked))
    return 3;
  ::Sleep(200);
  return 0;
}

TEST(HostLifeModule, AProcessWithALiveInstanceEnds) {
  wchar_t self[MAX_PATH] = {};
  ASSERT_GT(::GetModuleFileNameW(nullptr, self, MAX_PATH), 0u);
  std::wstring commandLine = std::wstring(L"child ") + kLiveInstanceSwitch;
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION process{};
  ASSERT_TRUE(::CreateProcessW(self, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr,
                               nullptr, &startup, &process));
  const UniqueKernelHandle thread(process.hThread);
  EXPECT_TRUE(EndsWell(UniqueKernelHandle(process.hProcess), ::GetExitCodeProcess));
}

// --- Late binding: the server's own Invoke beside the type library's ----------------------------

// Flags of the table alone, numbered there too: the call has no result, or no DISPPARAMS at all;
// or the server answers as Windows does where Wine's type library does not (it writes back into
// by-value arguments, takes arguments that nothing binds and binds named ones by position).
constexpr WORD kNoResult = 0x4000;
constexpr WORD kNoParams = 0x2000;
constexpr WORD kAsWindows = 0x1000;

// One late-bound call of late_calls.txt: the names whose ids are asked, the member's first (or a
// bare `id` when there are none), the kind of call, the arguments first to last as `Side::Fill`
// reads them, what both Invokes answer, the argument that the server names for a type mismatch,
// and the ids of the named arguments, the last ones.
struct LateCall {
  std::vector<std::wstring> names;
  WORD flags = 0;
  std::wstring arguments;
  HRESULT expected = E_FAIL;
  UINT argumentError = kUntouched;
  std::vector<DISPID> named;
  DISPID id = DISPID_UNKNOWN;
};

std::vector<LateCall> LateCalls() {
  std::vector<LateCall> calls;
  std::map<std::string, unsigned long> words;
  std::ifstream file(TABFORGE_LATE_CALLS);
  for (std::string line; std::getline(file, line);) {
    std::istringstream in(line.substr(std::min<std::size_t>(3, line.size())));
    std::string word, number;
    if (line.starts_with("#= ") && in >> word >> number)  // a word and the number it stands for
      words[word] = std::stoul(number, nullptr, 0);
    if (!line.starts_with("## "))
      continue;
    std::vector<std::vector<std::string>> fields;  // the words of each
    for (std::string field; std::getline(in, field, '|');) {
      std::istringstream split(field);
      fields.emplace_back(std::istream_iterator<std::string>(split),
                          std::istream_iterator<std::string>());
    }
    fields.resize(6);
    LateCall& call = calls.emplace_back();
    for (std::string name : fields[0]) {
      if (name.ends_with("\\s"))  // a name that ends in a blank
        name.replace(name.size() - 2, 2, " ");
      if (name.starts_with("="))
        call.id = static_cast<DISPID>(std::stoul(name.substr(1), nullptr, 0));
      else
        call.names.emplace_back(name.begin(), name.end());
    }
    for (const std::string& flag : fields[1])
      call.flags |= static_cast<WORD>(words.at(flag));
    for (const std::string& argument : fields[2])
      call.arguments += std::wstring(argument.begin(), argument.end()) + L" ";
    call.expected = static_cast<HRESULT>(words.at(fields[3].at(0)));
    if (!fields[4].empty() && fields[4][0] != "-")
      call.argumentError = static_cast<UINT>(std::stoul(fields[4][0]));
    for (const std::string& id : fields[5])
      call.named.push_back(id == "put" ? DISPID_PROPERTYPUT : std::stol(id));
  }
  return calls;
}

// The type library's Invoke on the object's vtable, as the server answered before it had its own.
// The server has always taken a script's variable that holds the parameter's type as a reference
// to that type, and `Set obj.ribbon = r`, neither of which the type library's Invoke does itself.
HRESULT InvokeThroughTypeLibrary(ITypeInfo* info, _Main2* main, DISPID id, WORD flags,
                                 DISPPARAMS* params, VARIANT* result, UINT* argumentError) {
  for (UINT i = 0; params != nullptr && i < params->cArgs; ++i) {
    VARIANT& argument = params->rgvarg[i];
    VARIANT* variable =
        V_VT(&argument) == (VT_BYREF | VT_VARIANT) ? V_VARIANTREF(&argument) : &argument;
    const VARTYPE held = V_VT(variable);
    if (variable != &argument && (held == VT_BSTR || held == VT_BOOL || held == VT_DISPATCH)) {
      V_BYREF(&argument) = &V_BSTR(variable);
      V_VT(&argument) = VT_BYREF | held;
    }
  }
  return ::DispInvoke(main, info, id,
                      flags == DISPATCH_PROPERTYPUTREF ? DISPATCH_PROPERTYPUT : flags, params,
                      result, nullptr, argumentError);
}

// A Main2 connected to a signalling object and a ribbon of its own, one call's arguments, and
// what the call did, as text that the two sides compare.
struct Side {
  explicit Side(const LateCall& call) : named(call.named) {
    main = CreateMain2().TryAs<_Main2>();
    Connect(main.Get(), &signaller, &ribbon);
    ribbon.invoked.clear();
    ribbon.queried = 0;
    std::wistringstream in(call.arguments);
    for (std::wstring argument; in >> argument;) {
      VARIANT& slot = slots.emplace_back();
      Fill(argument, slot, variables[slots.size() - 1]);
      before.push_back(Describe(V_ISBYREF(&slot) ? *variables[slots.size() - 1].Get() : slot));
    }
    std::reverse(slots.begin(), slots.end());
  }

  // Reads one argument: a type and a value ("s:MVN4", "b:1", "i:5", "d:2.5"), an object
  // ("o:signaller", "o:ribbon", "o:bar", or "u:..." as IUnknown), "m" missing, "e" empty or "n"
  // null; by value, after "&" by reference to its type, after "*" as a script's variable.
  void Fill(std::wstring_view text, VARIANT& slot, UniqueVariant& variable) {
    const wchar_t pass = text[0];
    if (pass == L'&' || pass == L'*')
      text.remove_prefix(1);
    const std::wstring value(text.substr(std::min<std::size_t>(2, text.size())));
    constexpr VARTYPE kTypes[] = {VT_BSTR,    VT_BOOL,  VT_I4,    VT_R8,  VT_DISPATCH,
                                  VT_UNKNOWN, VT_ERROR, VT_EMPTY, VT_NULL};
    const std::size_t kind = std::min<std::size_t>(std::wstring_view(L"sbidoume").find(text[0]), 8);
    VARIANT* v = variable.Get();
    if (kind < 4) {
      variable = Value(kTypes[kind], value.c_str());
    } else {
      V_VT(v) = kTypes[kind];
      V_ERROR(v) = DISP_E_PARAMNOTFOUND;  // what a missing argument holds
      if (kind < 6)
        (V_DISPATCH(v) = Party(value))->AddRef();
    }
    if (pass == L'&') {
      V_VT(&slot) = static_cast<VARTYPE>(VT_BYREF | V_VT(v));
      V_BYREF(&slot) = &V_BSTR(v);
    } else if (pass == L'*') {
      V_VT(&slot) = VT_BYREF | VT_VARIANT;
      V_VARIANTREF(&slot) = v;
    } else {
      slot = variable.Detach();
    }
  }

  IDispatch* Party(std::wstring_view name) {
    return name == L"signaller" ? &signaller : name == L"ribbon" ? &ribbon : bar.Get();
  }

  std::wstring Describe(const VARIANT& v) {
    const std::wstring type = std::to_wstring(V_VT(&v)) + L" ";
    if (V_VT(&v) == VT_BSTR && V_BSTR(&v) == nullptr)
      return type + L"null";
    if (V_VT(&v) != VT_DISPATCH && V_VT(&v) != VT_UNKNOWN)
      return type + TextOf(v);
    IUnknown* object = V_UNKNOWN(&v);
    for (const wchar_t* party : {L"signaller", L"ribbon", L"bar"})
      if (object != nullptr && object == Party(party))
        return type + party;
    OLE_XSIZE_HIMETRIC width = -1;
    if (const auto picture = ComPtr<IUnknown>(object).TryAs<IPicture>())
      picture->get_Width(&width);
    return type + (object != nullptr ? L"picture " + std::to_wstring(width) : L"nothing");
  }

  // Asks for the ids and makes the call through the server's own GetIDsOfNames and Invoke or the
  // type library's, and tells what they answered and what the call did.
  std::vector<std::wstring> Run(const LateCall& call, ITypeInfo* info, bool throughTypeLibrary,
                                const ErrorComponent& recorder) {
    std::vector<LPOLESTR> names;
    for (const std::wstring& name : call.names)
      names.push_back(const_cast<LPOLESTR>(name.c_str()));
    const UINT count = static_cast<UINT>(names.size());
    std::vector<DISPID> ids(count, 0x5EED);
    const HRESULT found = count == 0 ? S_OK
                          : throughTypeLibrary
                              ? ::DispGetIDsOfNames(info, names.data(), count, ids.data())
                              : main->GetIDsOfNames(IID_NULL, names.data(), count, 0, ids.data());
    const DISPID id = count == 0 ? call.id : ids[0];
    const WORD flags = call.flags & ~(kNoResult | kNoParams | kAsWindows);
    DISPPARAMS params{slots.data(), named.data(), static_cast<UINT>(slots.size()),
                      static_cast<UINT>(named.size())};
    DISPPARAMS* passed = (call.flags & kNoParams) != 0 ? nullptr : &params;
    VARIANT result;
    V_VT(&result) = VT_I4;
    V_I4(&result) = 0x5EED;
    VARIANT* answer = (call.flags & kNoResult) != 0 ? nullptr : &result;
    const std::size_t failures = recorder.errors.size();
    hr = throughTypeLibrary
             ? InvokeThroughTypeLibrary(info, main.Get(), id, flags, passed, answer, &argumentError)
             : main->Invoke(id, IID_NULL, 0, flags, passed, answer, nullptr, &argumentError);
    std::vector<std::wstring> log{L"names " + std::to_wstring(found),
                                  L"result " + Describe(result)};
    for (DISPID each : ids)
      log.push_back(L"id " + std::to_wstring(each));
    tabforge::com::ClearVariant(&result);
    for (std::size_t i = 0; i < slots.size(); ++i) {
      const VARIANT& slot = slots[slots.size() - 1 - i];
      log.push_back(L"argument " + Describe(V_ISBYREF(&slot) ? *variables[i].Get() : slot));
    }
    log.insert(log.end(), signaller.invoked.begin(), signaller.invoked.end());
    log.insert(log.end(), ribbon.invoked.begin(), ribbon.invoked.end());
    log.push_back(L"ribbon queried " + std::to_wstring(ribbon.queried));
    root->VisitAll([&](AccessibleElement& element) {
      if (element.presses() > 0)
        log.push_back(L"pressed " + std::wstring(element.name().begin(), element.name().end()));
    });
    for (std::size_t i = failures; i < recorder.errors.size(); ++i)
      log.push_back(L"failure " + std::to_wstring(recorder.errors[i]));
    // What the members answer now, read through the vtable.
    for (const wchar_t* control : {L"MVN0", L"MVN5", L"MVN16", L"MVN23"}) {
      UniqueBstr idStr(::SysAllocString(control));
      UniqueBstr label;
      VARIANT_BOOL enabled = 1;
      VARIANT_BOOL pressed = 1;
      main->get_GetLabel(idStr.InOut(), label.Put());
      main->get_GetEnabled(idStr.InOut(), &enabled);
      main->get_GetPressed(idStr.InOut(), &pressed);
      log.push_back(Text(label.Get()) + L" " + std::to_wstring(enabled) + L" " +
                    std::to_wstring(pressed));
    }
    return log;
  }

  // After the last release, each object handed in holds the test's own reference alone.
  std::wstring ReferencesLeft() {
    main.Reset();
    for (VARIANT& slot : slots)
      tabforge::com::ClearVariant(&slot);
    for (UniqueVariant& variable : variables)
      variable.Reset();
    return std::to_wstring(signaller.references) + L" " + std::to_wstring(ribbon.references);
  }

  Signaller signaller;
  FakeRibbon ribbon;
  Ref<AccessibleElement> root = ParseAccessibleTree(tabforge::SampleRibbonText()).root;
  ComPtr<IDispatch> bar =
      ComPtr<IDispatch>::Attach(AccessibleObject::Create(Ref<tabforge::Object>(root)).Detach());
  std::vector<std::wstring> before;  // the arguments as the call got them, first to last
  UniqueVariant variables[3];        // what the arguments passed by reference refer to
  std::vector<VARIANT> slots;        // rgvarg: the last argument first
  std::vector<DISPID> named;
  ComPtr<_Main2> main;
  HRESULT hr = E_FAIL;
  UINT argumentError = kUntouched;
};

// Every call of late_calls.txt through the server's GetIDsOfNames and Invoke and through the type
// library's, on two objects in the same state: the same ids, the same answer, the same error, the
// same arguments afterwards and the same effects, except where the server answers as Windows does.
// A type mismatch names its argument; a by-value argument is never changed.
TEST_F(Members, InvokeAnswersAsTheTypeLibrary) {
  const ComPtr<ITypeInfo> info = TypeLibraryInterface();
  ASSERT_TRUE(info);
  const std::vector<LateCall> calls = LateCalls();
  ASSERT_GE(calls.size(), 50u) << TABFORGE_LATE_CALLS;
  for (const LateCall& call : calls) {
    SCOPED_TRACE(::testing::Message() << (call.names.empty() ? L"" : call.names[0]) << " "
                                      << call.arguments << " #" << (&call - calls.data()));
    Side ours(call);
    Side theirs(call);
    const auto ourLog = ours.Run(call, info.Get(), false, recorder);
    const auto theirLog = theirs.Run(call, info.Get(), true, recorder);
    EXPECT_EQ(ours.hr, call.expected);
    EXPECT_EQ(ours.argumentError, call.argumentError);
    for (std::size_t i = 0; i < ours.before.size(); ++i)
      EXPECT_EQ(ourLog[2 + call.names.size() + i], L"argument " + ours.before[i]);
    if ((call.flags & kAsWindows) == 0) {
      EXPECT_EQ(theirs.hr, call.expected);
      EXPECT_EQ(ourLog, theirLog);
      EXPECT_TRUE(theirs.argumentError == call.argumentError || theirs.argumentError == kUntouched);
    }
    EXPECT_EQ(ours.ReferencesLeft(), L"1 1");
    theirs.ReferencesLeft();  // Wine's own keeps a reference when the count is wrong
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (std::wcsstr(::GetCommandLineW(), kLiveInstanceSwitch) != nullptr)
    return EndWithALiveInstance();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
