// A hostile caller of the registered Tabforge.dll: thousands of seeded calls through IDispatch
// with every dispatch id and flag, argument counts past the declared ones, named arguments that
// name nothing, every kind of VARIANT (references to references, arrays whose tag lies about
// their elements, an array that holds itself, null and huge strings), and collaborators that
// fail, answer the wrong types, call back, or let go of the last reference to Main2 while it is
// running. After each call the caller's by-value strings are as they were, puArgErr names an
// argument or is untouched, the call came back within its bound and every VARIANT clears; at the
// end every object is released and the DLL unloads. Wine's heap checks (scripts/run-under-wine.sh)
// fail the run on any block freed twice.
//
//   adversary.exe [--seed N] [--calls N] [--only K] [--verbose 1]
//
// Each call is made by its own generator from the seed and its number, on a Main2 of its own, so
// that `--only K` replays call K alone.
#include <windows.h>

#include <ole2.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "Tabforge_h.h"
#include "platform/failure.h"
#include "server/conversions.h"
#include "server/dispatch_parameters.h"
#include "server/object_bridge.h"
#include "server/tests/host_doubles.h"
#include "server/windows_platform.h"

namespace {

long g_seed = 1;  // the options, each set by its name on the command line
long g_calls = 3000;
long g_only = -1;
long g_verbose = 0;
ULONGLONG g_slowest = 0;  // milliseconds, with the call's number
long g_slowestCall = -1;

constexpr ULONGLONG kCallBound = 5000;  // milliseconds: a call that takes longer holds the host
constexpr int kMaxDepth = 3;

using Random = std::mt19937;
unsigned Pick(Random& r, unsigned n) {
  return std::uniform_int_distribution<unsigned>(0, n - 1)(r);
}
bool Chance(Random& r, unsigned percent) {
  return Pick(r, 100) < percent;
}

constexpr DISPID kMembers[] = {0x60030007, 0x68030006, 0x60030009, 0x6003000C, 0x68030005,
                               0x68030004, 0x68030003, 0x68030002, 0x68030000, 0x6003000D,
                               0x6003000F, 0x60030010, 0x60030011, 0x60030013, 0x60030014};
constexpr const wchar_t* kTexts[] = {L"MVN5", L"MVN23", L"MVN0",     L"Quill",           L"True",
                                     L"5",    L"-1",    L"Morvelin", L"InsertReference", L""};

// What one call allocates for its arguments: the values that references point at, and arrays
// that hold themselves, whose loop is cut before they are freed.
struct Arena {
  std::deque<UniqueVariant> targets;
  std::vector<SAFEARRAY*> loops;
  ~Arena() { CutLoops(); }
  void CutLoops() {
    for (SAFEARRAY* array : loops)
      ::VariantInit(static_cast<VARIANT*>(array->pvData));
    loops.clear();
  }
};

class Hostile;

// A VARIANT of any kind in `v`. Only the caller's own arguments (`mayLoop`) may be an array that
// holds itself: nobody can copy or clear one, so it is never handed back to the library to free.
void Make(Random& r, VARIANT& v, Arena& arena, Hostile& object, int depth, bool mayLoop = false);

BSTR MakeText(Random& r) {
  switch (Pick(r, 8)) {
    case 0:
      return nullptr;
    case 1:
      return ::SysAllocStringLen(std::wstring(100000, L'M').c_str(), 100000);
    case 2:
      return ::SysAllocStringLen(L"MVN5\0MVN23", 10);
    default:
      return ::SysAllocString(kTexts[Pick(r, std::size(kTexts))]);
  }
}

SAFEARRAY* MakeArray(Random& r, VARTYPE element, Arena& arena, Hostile& object, int depth) {
  SAFEARRAYBOUND bounds[3];
  const UINT dims = Chance(r, 85) ? 1 : 2 + Pick(r, 2);
  for (SAFEARRAYBOUND& b : bounds)
    b = {Pick(r, 5), static_cast<LONG>(Pick(r, 7)) - 3};
  SAFEARRAY* array = ::SafeArrayCreate(element, dims, bounds);
  if (array == nullptr || dims != 1)
    return array;
  for (LONG i = 0; i < static_cast<LONG>(bounds[0].cElements); ++i) {
    LONG at = bounds[0].lLbound + i;
    UniqueVariant value;
    Make(r, *value.Get(), arena, object, depth + 1);
    UniqueVariant converted;
    void* slot = nullptr;
    if (element == VT_VARIANT) {
      slot = value.Get();
    } else if ((V_VT(value.Get()) & VT_BYREF) == 0 &&
               SUCCEEDED(::VariantChangeType(converted.Put(), value.Get(), 0, element))) {
      slot = element == VT_BSTR || element == VT_DISPATCH
                 ? V_BSTR(converted.Get())
                 : static_cast<void*>(&V_UI1(converted.Get()));
    }
    if (slot != nullptr)
      ::SafeArrayPutElement(array, &at, slot);
  }
  return array;
}

// A collaborator of the host's: the signalling object, the ribbon or the command bar. Each call
// gives it a way to behave, drawn from the call's generator: well, failing, with answers of the
// wrong types, letting go of Main2, calling back a little; or at the edges of a call's budget:
// calling back from every question (its default member and its interfaces included) for as long
// as it is let, answering with a tower of references, claiming two billion children, or keeping
// the message queue busy for ever.
class Hostile final : public DispatchDouble<IRibbonUI> {
 public:
  enum Mode {
    kWell,
    kFail,
    kWrongTypes,
    kLetGo,
    kCallBack,
    kRecurse,
    kTower,
    kHugeCount,
    kBusy,
    kModes
  };

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    if (mode == kRecurse && main && recursions < 100000) {
      ++recursions;
      Random again(random());
      CallBack(again);
    }
    return DispatchDouble::QueryInterface(riid, out);
  }

  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params,
                                   VARIANT* result, EXCEPINFO* exception, UINT*) override {
    const bool known = id >= 1 && static_cast<std::size_t>(id) <= members.size();
    const std::wstring member = known ? members[static_cast<std::size_t>(id) - 1] : L"";
    if (mode == kTower && result != nullptr) {
      tower.CopyTo(result);
      return S_OK;
    }
    if (mode == kHugeCount && result != nullptr) {
      V_VT(result) = VT_I4;
      V_I4(result) = Chance(random, 50) ? 2147483647 : 50000000;
      return S_OK;
    }
    if (mode == kBusy)
      ::PostMessageW(BusyWindow(), WM_APP, 0, 0);
    if (mode == kWell && member == L"getToolbarIconBits" && result != nullptr) {
      V_VT(result) = VT_ARRAY | VT_UI1;
      V_ARRAY(result) = ::SafeArrayCreateVector(VT_UI1, 0, 4);
      return S_OK;
    }
    if (mode == kWrongTypes) {
      for (UINT i = 0; params != nullptr && i < params->cArgs; ++i) {
        VARIANT& argument = params->rgvarg[i];
        if (V_VT(&argument) == (VT_BYREF | VT_VARIANT) && V_VARIANTREF(&argument) != nullptr) {
          ::VariantClear(V_VARIANTREF(&argument));
          Make(random, *V_VARIANTREF(&argument), *arena, *this, kMaxDepth - 1);
        }
      }
      if (result != nullptr)
        Make(random, *result, *arena, *this, 0);
    }
    return Behave(exception);
  }
  HRESULT STDMETHODCALLTYPE Invalidate() override { return Behave(nullptr); }
  HRESULT STDMETHODCALLTYPE InvalidateControl(BSTR) override { return Behave(nullptr); }

  HRESULT Behave(EXCEPINFO* exception) {
    if (mode == kLetGo && main) {
      main.Reset();
      aliveAfterLetGo = CanUnloadNow() == S_FALSE;
    }
    if (mode == kCallBack && main && depth < 2) {
      ++depth;
      Random again(random());
      CallBack(again);
      --depth;
    }
    if (mode == kRecurse && main && recursions < 100000) {
      ++recursions;
      Random again(random());
      CallBack(again);
    }
    if (mode != kFail)
      return S_OK;
    if (exception != nullptr && Chance(random, 50)) {
      exception->scode = static_cast<HRESULT>(0x800A0000 | Pick(random, 100));
      exception->bstrDescription = ::SysAllocString(L"refused");
      return DISP_E_EXCEPTION;
    }
    constexpr HRESULT kFailures[] = {E_FAIL, E_OUTOFMEMORY, static_cast<HRESULT>(0x800A0007),
                                     RPC_E_DISCONNECTED, DISP_E_TYPEMISMATCH};
    return kFailures[Pick(random, std::size(kFailures))];
  }

  // A well-formed call of a member of Main2, from inside a call of Main2; one that recurses hands
  // itself as the argument, to be asked again.
  void CallBack(Random& r) {
    UniqueVariant argument = Value(VT_BSTR, kTexts[Pick(r, 3)]);
    if (mode == kRecurse && Chance(r, 50)) {
      ::VariantClear(argument.Get());
      V_VT(argument.Get()) = VT_DISPATCH;
      V_DISPATCH(argument.Get()) = this;
      AddRef();
    }
    DISPPARAMS params{argument.Get(), nullptr, 1, 0};
    UniqueVariant result;
    main->Invoke(kMembers[Pick(r, std::size(kMembers))], IID_NULL, 0,
                 DISPATCH_METHOD | DISPATCH_PROPERTYGET, &params, result.Put(), nullptr, nullptr);
  }

  Mode mode = kWell;
  Random random;
  Arena* arena = nullptr;
  ComPtr<IDispatch> main;  // the reference it lets go of, or calls back into
  int depth = 0;
  int recursions = 0;
  bool aliveAfterLetGo = false;
  ReferenceTower tower;
};

void Make(Random& r, VARIANT& v, Arena& arena, Hostile& object, int depth, bool mayLoop) {
  ::VariantInit(&v);
  const unsigned kind = Pick(r, depth < kMaxDepth ? 14 : 12);
  constexpr VARTYPE kScalars[] = {VT_R8,  VT_CY, VT_DATE, VT_DECIMAL, VT_I1,  VT_UI2,
                                  VT_UI4, VT_I8, VT_UI8,  VT_INT,     VT_UINT};
  constexpr VARTYPE kElements[] = {VT_UI1, VT_I2, VT_I4, VT_BSTR, VT_VARIANT, VT_DISPATCH, VT_BOOL};
  switch (kind) {
    case 0:
      break;
    case 1:
      V_VT(&v) = VT_NULL;
      break;
    case 2:
      V_VT(&v) = VT_I2;
      V_I2(&v) = static_cast<SHORT>(r());
      break;
    case 3:
      V_VT(&v) = VT_I4;
      V_I4(&v) = Chance(r, 50) ? static_cast<LONG>(Pick(r, 30)) : static_cast<LONG>(r());
      break;
    case 4:
    case 5:
      V_VT(&v) = VT_BSTR;
      V_BSTR(&v) = MakeText(r);
      break;
    case 6:
      V_VT(&v) = Chance(r, 50) ? VT_DISPATCH : VT_UNKNOWN;
      V_DISPATCH(&v) = Chance(r, 20) ? nullptr : &object;
      if (V_DISPATCH(&v) != nullptr)
        object.AddRef();
      break;
    case 7:
      V_VT(&v) = VT_BOOL;
      V_BOOL(&v) = static_cast<VARIANT_BOOL>(Chance(r, 70) ? -static_cast<int>(Pick(r, 2)) : r());
      break;
    case 8:
      V_VT(&v) = VT_I4;
      V_I4(&v) = static_cast<LONG>(r());
      ::VariantChangeType(&v, &v, 0, kScalars[Pick(r, std::size(kScalars))]);
      break;
    case 9:
      V_VT(&v) = VT_ERROR;
      V_ERROR(&v) = DISP_E_PARAMNOTFOUND;
      break;
    case 10:
      // No value of automation: a VARIANT by value, a type that is no type.
      V_VT(&v) = Chance(r, 50) ? VARTYPE{VT_VARIANT} : static_cast<VARTYPE>(0x0FFF & r());
      if (V_VT(&v) == VT_RECORD || V_VT(&v) >= VT_BSTR_BLOB || (V_VT(&v) & 0xF000) != 0)
        V_VT(&v) = VT_VARIANT;
      break;
    case 11: {
      // A reference: to a value, to a variant that may itself be a reference, or to nothing.
      UniqueVariant& target = arena.targets.emplace_back();
      Make(r, *target.Get(), arena, object, depth + 1);
      const VARTYPE held = V_VT(target.Get());
      if (Chance(r, 10)) {
        V_VT(&v) = VT_BYREF | (Chance(r, 50) ? VT_BSTR : VT_VARIANT);
        V_BYREF(&v) = nullptr;
      } else if (Chance(r, 50) || held == VT_EMPTY || held == VT_VARIANT || (held & VT_BYREF)) {
        V_VT(&v) = VT_BYREF | VT_VARIANT;
        V_VARIANTREF(&v) = target.Get();
      } else {
        V_VT(&v) = static_cast<VARTYPE>(VT_BYREF | held);
        V_BYREF(&v) = &V_UI1(target.Get());
      }
      break;
    }
    default: {
      // An array whose tag is its element type or, a time in three, another one.
      const VARTYPE element = kElements[Pick(r, std::size(kElements))];
      SAFEARRAY* array = MakeArray(r, element, arena, object, depth);
      V_VT(&v) = VT_ARRAY | (Chance(r, 33) ? kElements[Pick(r, std::size(kElements))] : element);
      V_ARRAY(&v) = array;
      if (mayLoop && array != nullptr && element == VT_VARIANT && array->cDims == 1 &&
          array->rgsabound[0].cElements > 0 && Chance(r, 20)) {
        // The first element is the array itself.
        auto* first = static_cast<VARIANT*>(array->pvData);
        ::VariantClear(first);
        V_VT(first) = VT_ARRAY | VT_VARIANT;
        V_ARRAY(first) = array;
        arena.loops.push_back(array);
      }
      break;
    }
  }
}

// One hostile call, made and checked.
void Attack(long number, ErrorComponent& component, Hostile (&parties)[3]) {
  Random r(static_cast<unsigned>(g_seed) * 1000003u + static_cast<unsigned>(number));
  SCOPED_TRACE(::testing::Message() << "--seed " << g_seed << " --only " << number);
  Arena arena;
  ComPtr<IDispatch> main = CreateMain2();
  ASSERT_TRUE(main);
  for (Hostile& party : parties) {
    party.mode = Hostile::kWell;
    party.random.seed(r());
    party.arena = &arena;
    party.members.clear();
    party.recursions = 0;
  }
  component.answers.clear();
  component.invoked.clear();
  for (unsigned i = Pick(r, 4); i > 0; --i)
    component.answers.push_back(static_cast<LONG>(4 + Pick(r, 5)));
  component.keepObjects = Chance(r, 20);
  component.failOpenDump = Chance(r, 20);
  component.failReports = Chance(r, 30);

  // Most calls meet a Main2 that knows its signalling object and its ribbon.
  if (Chance(r, 80))
    Connect(main.TryAs<_Main2>().Get(), &parties[0], &parties[1],
            Chance(r, 50) ? L"Morvelin" : L"Quill");
  for (Hostile& party : parties)
    party.mode = static_cast<Hostile::Mode>(Pick(r, Hostile::kModes));

  // The call: any id, any flags, any number of arguments of any kind, some named.
  const unsigned which = Pick(r, 20);
  const DISPID id = which < 15   ? kMembers[which]
                    : which < 17 ? (which == 15 ? DISPID_VALUE : DISPID_PROPERTYPUT)
                                 : static_cast<DISPID>(r());
  const WORD flags = static_cast<WORD>(Pick(r, 16));
  const UINT count = Pick(r, 5);
  std::vector<VARIANT> arguments(count);
  for (VARIANT& argument : arguments)
    Make(r, argument, arena, parties[Pick(r, 3)], 0, true);
  std::vector<DISPID> named(Pick(r, count + 1));
  for (DISPID& name : named)
    name = Chance(r, 40)   ? DISPID_PROPERTYPUT
           : Chance(r, 70) ? Pick(r, 3)
                           : static_cast<DISPID>(r());
  // The by-value strings as they went in.
  std::vector<BSTR> pointers(count);
  std::vector<std::wstring> texts(count);
  for (UINT i = 0; i < count; ++i) {
    pointers[i] = V_VT(&arguments[i]) == VT_BSTR ? V_BSTR(&arguments[i]) : nullptr;
    texts[i] = pointers[i] != nullptr ? TextOf(arguments[i]) : L"";
  }
  DISPPARAMS params{arguments.data(), named.data(), count, static_cast<UINT>(named.size())};
  UniqueVariant result;
  EXCEPINFO exception{};
  UINT argumentError = kUntouched;
  const bool withResult = Chance(r, 80);
  const bool withException = Chance(r, 50);
  const bool withError = Chance(r, 80);
  IDispatch* raw = main.Get();
  if (Chance(r, 30))
    parties[Pick(r, 3)].main = std::move(main);  // the only reference, which it may let go of
  else
    for (Hostile& party : parties)
      party.main = main;

  const ULONGLONG start = ::GetTickCount64();
  raw->Invoke(id, IID_NULL, 0, flags, &params, withResult ? result.Get() : nullptr,
              withException ? &exception : nullptr, withError ? &argumentError : nullptr);
  const ULONGLONG took = ::GetTickCount64() - start;
  EXPECT_LT(took, kCallBound) << "id " << id << " flags " << flags;
  // The component is called no more than one call's budget allows, and every dump it opened is
  // closed.
  EXPECT_LE(component.invoked.size(), 5000u + 64u);
  const auto calls = [&](const wchar_t* member) {
    return std::count_if(component.invoked.begin(), component.invoked.end(),
                         [&](const std::wstring& call) { return call.starts_with(member); });
  };
  EXPECT_EQ(calls(L"vbwCloseDumpFile"),
            component.failOpenDump ? calls(L"vbwCloseDumpFile") : calls(L"vbwOpenDumpFile"));
  if (g_verbose > 1)
    for (const std::wstring& call : component.invoked)
      std::fprintf(stderr, "    %ls\n", call.substr(0, 60).c_str());
  if (g_verbose) {
    std::fprintf(stderr, "  id %ld flags %u arguments %u named %zu modes %d%d%d", id, flags, count,
                 named.size(), parties[0].mode, parties[1].mode, parties[2].mode);
    std::fprintf(stderr, " component calls %zu dumps? %d reports fail %d: %llu ms\n",
                 component.invoked.size(), component.failOpenDump, component.failReports, took);
  }
  if (took > g_slowest) {
    g_slowest = took;
    g_slowestCall = number;
  }

  for (UINT i = 0; i < count; ++i)
    EXPECT_TRUE(pointers[i] == nullptr ||
                (V_VT(&arguments[i]) == VT_BSTR && V_BSTR(&arguments[i]) == pointers[i] &&
                 std::wstring(pointers[i], ::SysStringLen(pointers[i])) == texts[i]))
        << "argument " << i << " is not the caller's string as it went in";
  EXPECT_TRUE(argumentError == kUntouched || argumentError < count) << argumentError;
  for (BSTR text : {exception.bstrDescription, exception.bstrSource, exception.bstrHelpFile})
    ::SysFreeString(text);
  arena.CutLoops();
  for (VARIANT& argument : arguments)
    ::VariantClear(&argument);

  // Names: odd counts, missing names, names in any case.
  LPOLESTR names[3] = {const_cast<LPOLESTR>(L"getlabel"), nullptr, const_cast<LPOLESTR>(L"idStr")};
  DISPID ids[3] = {};
  if (ComPtr<IDispatch> again = CreateMain2())
    again->GetIDsOfNames(IID_NULL, Chance(r, 20) ? nullptr : names + Pick(r, 2), Pick(r, 4), 0,
                         Chance(r, 10) ? nullptr : ids);

  // The objects handed to the error component take the same arguments.
  for (const ComPtr<IDispatch>& kept : component.kept) {
    std::vector<VARIANT> more(Pick(r, 3));
    for (VARIANT& argument : more)
      Make(r, argument, arena, parties[0], 0);
    DISPPARAMS moreParams{more.data(), nullptr, static_cast<UINT>(more.size()), 0};
    UniqueVariant answer;
    kept->Invoke(static_cast<DISPID>(Pick(r, 6)), IID_NULL, 0, static_cast<WORD>(Pick(r, 16)),
                 &moreParams, answer.Put(), nullptr, nullptr);
    kept->GetIDsOfNames(IID_NULL, names + Pick(r, 2), Pick(r, 4), 0, ids);
    for (VARIANT& argument : more)
      ::VariantClear(&argument);
  }
  component.kept.clear();
  component.errors.clear();
  for (Hostile& party : parties)
    party.main.Reset();
  // A busy queue stays busy until the window's work is taken off it.
  for (MSG left; ::PeekMessageW(&left, BusyWindow(), WM_APP, WM_APP, PM_REMOVE);) {
  }
}

TEST(Adversary, SurvivesSeededHostileCalls) {
  HMODULE library = nullptr;
  Hostile parties[3];
  {
    Apartment apartment;
    ErrorComponent component;
    const long first = g_only >= 0 ? g_only : 0;
    const long last = g_only >= 0 ? g_only + 1 : g_calls;
    for (long number = first; number < last && !HasFatalFailure(); ++number) {
      if (g_verbose)
        std::fprintf(stderr, "call %ld\n", number);
      Attack(number, component, parties);
      if (library == nullptr)
        library = ::GetModuleHandleW(L"Tabforge.dll");
    }
    std::printf("slowest call: %llu ms (--only %ld)\n", g_slowest, g_slowestCall);
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(CanUnloadNow(), S_OK) << "an object of the library is still alive";
    ::CoFreeUnusedLibrariesEx(0, 0);
    EXPECT_EQ(::GetModuleHandleW(L"Tabforge.dll"), nullptr);
  }
  for (const Hostile& party : parties)
    EXPECT_EQ(party.references, 1u) << "a collaborator was not released";
}

// --- The smallest sequences that crashed the server before ---------------------------------------

using Review = ComTest;

// A member that lets a collaborator release the last reference to Main2 (a macro run by Run, the
// bytes of an icon, the ribbon told to invalidate) finds itself alive to the end of the call, the
// by-reference name still its caller's.
TEST_F(Review, Main2OutlivesTheLastReleaseInsideItsOwnCall) {
  ErrorComponent component;
  const struct {
    DISPID member;
    const wchar_t* argument;
    UINT count;
  } kCalls[] = {{kMembers[10], L"MVN5", 2}, {kMembers[9], L"5", 1}, {kMembers[13], L"0", 1}};
  for (const auto& call : kCalls) {
    Hostile party;
    Arena arena;
    party.arena = &arena;
    party.main = CreateMain2();
    ASSERT_TRUE(party.main);
    Connect(party.main.TryAs<_Main2>().Get(), &party, &party);
    UniqueVariant argument = Value(VT_BSTR, call.argument);
    VARIANT arguments[2];  // the macro's name by reference and a truth value, or a value
    arguments[0] = *argument.Get();
    if (call.count == 2) {
      V_VT(&arguments[1]) = VT_BYREF | VT_VARIANT;
      V_VARIANTREF(&arguments[1]) = argument.Get();
      arguments[0] = *Value(VT_BOOL, L"1").Get();
    }
    DISPPARAMS params{arguments, nullptr, call.count, 0};
    IDispatch* raw = party.main.Get();  // the party's reference is the only one
    party.mode = Hostile::kLetGo;
    raw->Invoke(call.member, IID_NULL, 0, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr);
    EXPECT_TRUE(party.aliveAfterLetGo) << call.member;
    EXPECT_EQ(std::wstring(V_BSTR(argument.Get())), call.argument);
    EXPECT_EQ(CanUnloadNow(), S_OK);
  }
}

// An array is read by what it holds, whatever its tag claims; a reference to nothing, an array of
// more dimensions and an array that holds itself are type mismatches too.
TEST_F(Review, IncomingArraysAreReadByWhatTheyHold) {
  // The run-time error number of reading a VARIANT of `type` that holds `pointer`, 0 for none.
  const auto number = [](VARTYPE type, void* pointer) {
    VARIANT v;
    V_VT(&v) = type;
    V_BYREF(&v) = pointer;
    try {
      tabforge::com::FromAutomation(v);
      return 0;
    } catch (const tabforge::Failure& failure) {
      return static_cast<int>(failure.number);
    }
  };
  SAFEARRAY* bytes = ::SafeArrayCreateVector(VT_UI1, 0, 64);
  SAFEARRAY* variants = ::SafeArrayCreateVector(VT_VARIANT, 1, 3);
  SAFEARRAYBOUND square[2] = {{2, 0}, {2, 0}};
  SAFEARRAY* grid = ::SafeArrayCreate(VT_I4, 2, square);
  EXPECT_EQ(number(VT_ARRAY | VT_BSTR, bytes), 13);
  EXPECT_EQ(number(VT_ARRAY | VT_UI1, variants), 13);
  EXPECT_EQ(number(VT_ARRAY | VT_VARIANT, variants), 0);
  auto* first = static_cast<VARIANT*>(variants->pvData);
  V_VT(first) = VT_ARRAY | VT_VARIANT;
  V_ARRAY(first) = variants;
  EXPECT_EQ(number(VT_ARRAY | VT_VARIANT, variants), 13);
  ::VariantInit(first);
  EXPECT_EQ(number(VT_ARRAY | VT_I4, grid), 13);
  EXPECT_EQ(number(VT_BYREF | VT_BSTR, nullptr), 13);
  for (SAFEARRAY* array : {bytes, variants, grid})
    ::SafeArrayDestroy(array);
}

// An object that answers every interface id with itself is a foreign object like any other, and
// its references balance; an adapter answers no id it does not have.
TEST_F(Review, AdaptersAreKnownByTheirAddressAlone) {
  class YesToAll final : public DispatchDouble<> {
   public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** out) override {
      *out = this;
      AddRef();
      return S_OK;
    }
  } yes;
  {
    tabforge::Ref<tabforge::Object> wrapped = tabforge::com::WrapDispatch(&yes);
    EXPECT_EQ(tabforge::com::ToDispatch(wrapped).Get(), &yes);
  }
  EXPECT_EQ(yes.references, 1u);
  ComPtr<IDispatch> adapter = tabforge::com::DispatchAdapter::Create(
      tabforge::com::WrapDispatch(static_cast<IDispatch*>(&yes)));
  void* out = &yes;
  EXPECT_EQ(adapter->QueryInterface(__uuidof(IRibbonUI), &out), E_NOINTERFACE);
  EXPECT_EQ(out, nullptr);
  EXPECT_NE(tabforge::com::DispatchAdapter::Unwrap(adapter.Get()), nullptr);
  adapter.Reset();
  EXPECT_EQ(yes.references, 1u);
}

// Names: none, a null list, a null name, and more names than an adapter keeps.
TEST_F(Review, GetIDsOfNamesReadsOnlyTheNamesItIsGiven) {
  ComPtr<IDispatch> main = CreateMain2();
  ASSERT_TRUE(main);
  ComPtr<IDispatch> adapter = tabforge::com::DispatchAdapter::Create(
      tabforge::com::WrapDispatch(static_cast<IDispatch*>(main.Get())));
  LPOLESTR names[2] = {nullptr, const_cast<LPOLESTR>(L"idStr")};
  DISPID ids[2] = {};
  for (IDispatch* object : {main.Get(), adapter.Get()}) {
    EXPECT_EQ(object->GetIDsOfNames(IID_NULL, names, 0, 0, ids), E_INVALIDARG);
    EXPECT_EQ(object->GetIDsOfNames(IID_NULL, nullptr, 1, 0, ids), E_INVALIDARG);
    EXPECT_EQ(object->GetIDsOfNames(IID_NULL, names, 2, 0, ids), DISP_E_UNKNOWNNAME);
    EXPECT_EQ(ids[0], DISPID_UNKNOWN);
  }
  HRESULT last = S_OK;
  for (int i = 0; i <= static_cast<int>(tabforge::com::DispatchAdapter::kMaxNames); ++i) {
    const std::wstring name = L"name" + std::to_wstring(i);
    names[0] = const_cast<LPOLESTR>(name.c_str());
    last = adapter->GetIDsOfNames(IID_NULL, names, 1, 0, ids);
  }
  EXPECT_EQ(last, DISP_E_UNKNOWNNAME);
}

// Unlocks and releases of the class factory that were never taken leave a live object's module
// loaded.
TEST_F(Review, TheModuleCountHasAFloor) {
  ComPtr<IDispatch> main = CreateMain2();
  ComPtr<IClassFactory> factory;
  ASSERT_EQ(::CoGetClassObject(CLSID_Main2, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                               factory.PutVoid()),
            S_OK);
  for (int i = 0; i < 3; ++i) {
    factory->LockServer(FALSE);
    factory->Release();
  }
  EXPECT_EQ(CanUnloadNow(), S_FALSE);
  static_cast<void>(factory.Detach());  // released above, more than once
  main.Reset();
  EXPECT_EQ(CanUnloadNow(), S_OK);
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  const std::map<std::string_view, long*> options = {
      {"--seed", &g_seed}, {"--calls", &g_calls}, {"--only", &g_only}, {"--verbose", &g_verbose}};
  for (int i = 1; i + 1 < argc; i += 2)
    if (options.contains(argv[i]))
      *options.at(argv[i]) = std::strtol(argv[i + 1], nullptr, 10);
  return RUN_ALL_TESTS();
}
