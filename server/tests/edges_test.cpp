// Calls at the edges of a call's budget, each the smallest sequence of its kind: work that a call
// does before its first procedure runs, a host that has used most of its stack, an answer that
// describes far more than it holds, a message queue that never empties or is asked to quit, counts
// from outside that would size gigabytes, and a caller on a second thread. The adversary makes
// more of each kind. Run under Wine after regsvr32, with its heap checks on.
#include <windows.h>

#include <ole2.h>
#undef LoadImage

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "Tabforge_h.h"
#include "server/tests/host_doubles.h"

namespace {

constexpr DISPID kGetLabel = 0x68030005;
constexpr DWORD kCallBound = 5000;  // milliseconds: a call that takes longer holds the host

using FakeDispatch = DispatchDouble<>;

DISPPARAMS Arguments(VARIANT* arguments, UINT count) {
  return DISPPARAMS{arguments, nullptr, count, 0};
}

VARIANT ObjectArgument(IDispatch* object) {
  VARIANT argument;
  V_VT(&argument) = VT_DISPATCH;
  V_DISPATCH(&argument) = object;
  return argument;
}

// An object whose default member, asked when the library makes text of it, asks Main2 for the
// label of itself again; and whose every question for an interface initialises Main2 with itself.
class CallsBack final : public DispatchDouble<> {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    if (main != nullptr && initializeOnQuery && ++queries < 100000) {
      IDispatch* self = this;
      UniqueBstr name(::SysAllocString(L"Morvelin"));
      main->Initialize(&self, name.InOut());
    }
    return DispatchDouble::QueryInterface(riid, out);
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID riid, LCID locale, WORD flags,
                                   DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,
                                   UINT* argumentError) override {
    if (id != DISPID_VALUE)
      return DispatchDouble::Invoke(id, riid, locale, flags, params, result, exception,
                                    argumentError);
    if (++defaults < 100000) {
      VARIANT self = ObjectArgument(this);
      DISPPARAMS again = Arguments(&self, 1);
      UniqueVariant label;
      main->Invoke(kGetLabel, IID_NULL, 0, DISPATCH_PROPERTYGET, &again, label.Put(), nullptr,
                   nullptr);
    }
    if (result != nullptr) {
      V_VT(result) = VT_BSTR;
      V_BSTR(result) = ::SysAllocString(L"MVN5");
    }
    return S_OK;
  }
  _Main2* main = nullptr;
  bool initializeOnQuery = false;
  int queries = 0;
  int defaults = 0;
};

using Edges = ComTest;

ULONGLONG Timed(auto&& call) {
  const ULONGLONG start = ::GetTickCount64();
  call();
  return ::GetTickCount64() - start;
}

// Coercing an object argument runs its default member and wrapping one asks it for an interface:
// both count against the call's budget and nest on its stack, so a caller that answers by calling
// again ends, long before the thread's stack would.
TEST_F(Edges, WorkBeforeTheFirstProcedureCountsAndEnds) {
  ErrorComponent component;
  ComPtr<_Main2> main = CreateMain2().TryAs<_Main2>();
  ASSERT_TRUE(main);
  CallsBack object;
  object.main = main.Get();
  VARIANT argument = ObjectArgument(&object);
  DISPPARAMS params = Arguments(&argument, 1);
  UniqueVariant label;
  EXPECT_LT(Timed([&] {
              EXPECT_EQ(main->Invoke(kGetLabel, IID_NULL, 0, DISPATCH_PROPERTYGET, &params,
                                     label.Put(), nullptr, nullptr),
                        S_OK);
            }),
            kCallBound);
  EXPECT_GT(object.defaults, 1);
  EXPECT_LT(object.defaults, 5001);

  object.initializeOnQuery = true;
  IDispatch* self = &object;
  UniqueBstr name(::SysAllocString(L"Morvelin"));
  EXPECT_LT(Timed([&] { EXPECT_EQ(main->Initialize(&self, name.InOut()), S_OK); }), kCallBound);
  EXPECT_GT(object.queries, 1);
  EXPECT_LT(object.queries, 5001);
  main = nullptr;
}

// --- A host that has used most of its stack ------------------------------------------------------

// The template's signalling object, whose macro presses the add-in's button again.
class PressesAgain final : public DispatchDouble<> {
 public:
  HRESULT Answer(const std::wstring& member, DISPPARAMS*, VARIANT*) override {
    if (member != L"Run" || main == nullptr || presses >= 100000)
      return S_OK;
    ++presses;
    UniqueBstr id(::SysAllocString(L"MVN5"));
    VARIANT_BOOL on = VARIANT_FALSE;
    main->RibbonCallback(id.InOut(), &on);
    return S_OK;
  }
  _Main2* main = nullptr;
  int presses = 0;
};

struct StackRun {
  std::size_t used = 0;
  int presses = 0;
};

// Uses `bytes` of the thread's stack, then presses the button once.
DWORD WINAPI PressWithLittleStackLeft(void* parameter) {
  auto& run = *static_cast<StackRun*>(parameter);
  const ComApartment apartment;
  if (!apartment)
    return 1;
  volatile char* used = static_cast<char*>(__builtin_alloca(run.used));
  used[0] = 1;
  ErrorComponent component;
  ComPtr<_Main2> main = CreateMain2().TryAs<_Main2>();
  PressesAgain signaller;
  signaller.main = main.Get();
  FakeDispatch ribbon;
  if (!main)
    return 2;
  Connect(main.Get(), &signaller, &ribbon);
  UniqueBstr id(::SysAllocString(L"MVN5"));
  VARIANT_BOOL on = VARIANT_FALSE;
  const HRESULT pressed = main->RibbonCallback(id.InOut(), &on);
  run.presses = signaller.presses;
  return pressed == S_OK ? 0 : 3;
}

// The stack bound is the room the thread has: a host that has used 700 KB of a 1 MB stack before
// it presses a button whose macro presses it again ends its presses early and well.
TEST(EdgesStack, AHostThatUsedMostOfItsStackIsSafe) {
  std::vector<int> presses;
  for (const std::size_t used : {std::size_t{0}, std::size_t{700} * 1024}) {
    StackRun run{used, 0};
    const UniqueKernelHandle thread(::CreateThread(nullptr, 1024 * 1024, PressWithLittleStackLeft,
                                                   &run, STACK_SIZE_PARAM_IS_A_RESERVATION,
                                                   nullptr));
    ASSERT_TRUE(thread);
    ASSERT_EQ(::WaitForSingleObject(thread.Get(), 60000), WAIT_OBJECT_0);
    DWORD code = 99;
    EXPECT_TRUE(::GetExitCodeThread(thread.Get(), &code));
    EXPECT_EQ(code, 0u) << used;
    presses.push_back(run.presses);
  }
  EXPECT_GT(presses[0], 10);
  EXPECT_LT(presses[1], presses[0]);
}

// --- An answer that describes more than it holds -------------------------------------------------

class AnswersATower final : public DispatchDouble<> {
 public:
  HRESULT Answer(const std::wstring& member, DISPPARAMS*, VARIANT* result) override {
    if (member == L"getToolbarIconBits" && result != nullptr)
      tower.CopyTo(result);
    return S_OK;
  }
  ReferenceTower tower;
};

TEST_F(Edges, AnAnswerIsReadWithinOneAllowance) {
  ErrorComponent component;
  ComPtr<_Main2> main = CreateMain2().TryAs<_Main2>();
  ASSERT_TRUE(main);
  AnswersATower signaller;
  FakeDispatch ribbon;
  Connect(main.Get(), &signaller, &ribbon);
  ComPtr<IPictureDisp> picture;
  UniqueBstr id(::SysAllocString(L"5"));
  EXPECT_LT(Timed([&] { EXPECT_EQ(main->LoadImage(id.InOut(), picture.Put()), S_OK); }), 1000u);
  EXPECT_FALSE(picture);
  EXPECT_FALSE(component.errors.empty());  // the failure was reported, not swallowed
}

// --- The message pass ----------------------------------------------------------------------------

// A command bar with nothing below it: the search waits, passing messages, until its bound.
void Activate(_Main2* main) {
  FakeDispatch commandBar;
  IDispatch* bar = &commandBar;
  EXPECT_EQ(main->activateMorvelinTab(&bar), S_OK);
}

// A window that posts itself work while handling it cannot hold the search past its own bound, and
// a word processor asked to quit while the search waits still finds its quit request.
TEST_F(Edges, TheMessagePassEndsAndLeavesAQuitWhereItWas) {
  ComPtr<_Main2> main = CreateMain2().TryAs<_Main2>();
  ASSERT_TRUE(main);
  HWND busy = BusyWindow();
  ASSERT_NE(busy, nullptr);
  ::PostMessageW(busy, WM_APP, 0, 0);
  EXPECT_LT(Timed([&] { Activate(main.Get()); }), kCallBound);
  for (MSG left; ::PeekMessageW(&left, busy, WM_APP, WM_APP, PM_REMOVE);) {
  }

  ::PostQuitMessage(42);
  EXPECT_LT(Timed([&] { Activate(main.Get()); }), 1000u);
  MSG quit{};
  ASSERT_TRUE(::PeekMessageW(&quit, nullptr, 0, 0, PM_REMOVE));
  EXPECT_EQ(quit.message, static_cast<UINT>(WM_QUIT));
  EXPECT_EQ(quit.wParam, 42u);
}

// --- Counts from outside -------------------------------------------------------------------------

// A ribbon command bar that claims `count` children and lists none.
class ClaimsChildren final : public DispatchDouble<> {
 public:
  explicit ClaimsChildren(LONG count) : count_(count) {}
  HRESULT Answer(const std::wstring& member, DISPPARAMS*, VARIANT* result) override {
    if (result == nullptr)
      return S_OK;
    if (member == L"accChildCount") {
      V_VT(result) = VT_I4;
      V_I4(result) = count_;
    } else if (member == L"accName") {
      V_VT(result) = VT_BSTR;
      V_BSTR(result) = ::SysAllocString(L"bar");
    }
    return S_OK;
  }

 private:
  LONG count_;
};

TEST_F(Edges, ACountFromOutsideSizesNothingPastTheBudget) {
  ErrorComponent component;
  ComPtr<_Main2> main = CreateMain2().TryAs<_Main2>();
  ASSERT_TRUE(main);
  for (const LONG count : {LONG{2147483647}, LONG{50000000}}) {
    ClaimsChildren commandBar(count);
    IDispatch* bar = &commandBar;
    EXPECT_LT(Timed([&] { EXPECT_EQ(main->activateMorvelinTab(&bar), S_OK); }), kCallBound);
    EXPECT_EQ(commandBar.references, 1u) << count;
  }
}

// --- A caller on another thread ------------------------------------------------------------------

struct SecondThread {
  _Main2* main = nullptr;
  ErrorComponent* component = nullptr;
};

// Breaks the apartment rule: calls the first thread's Main2 directly from an apartment of its own,
// with an error component of its own that keeps every object the dump hands it.
DWORD WINAPI FailInAnotherThreadsMain2(void* parameter) {
  auto& second = *static_cast<SecondThread*>(parameter);
  const ComApartment apartment(COINIT_MULTITHREADED);
  if (!apartment)
    return 1;
  second.component = new ErrorComponent;
  second.component->keepObjects = true;
  second.component->answers = {8, 7};
  UniqueBstr id(::SysAllocString(L"MVNx"));
  UniqueBstr label;
  return second.main->get_GetLabel(id.InOut(), label.Put()) == S_OK ? 0 : 2;
}

// Objects that the library hands a component during a call from another thread keep the called
// object's apartment: they outlive Main2 and can still be called and released.
TEST(EdgesThreads, ObjectsHandedOutToAnotherThreadKeepTheirApartment) {
  Apartment mine;
  ComPtr<_Main2> main = CreateMain2().TryAs<_Main2>();
  ASSERT_TRUE(main);
  SecondThread second{main.Get(), nullptr};
  const UniqueKernelHandle thread(
      ::CreateThread(nullptr, 0, FailInAnotherThreadsMain2, &second, 0, nullptr));
  ASSERT_TRUE(thread);
  ASSERT_EQ(::WaitForSingleObject(thread.Get(), 20000), WAIT_OBJECT_0);
  DWORD code = 99;
  ::GetExitCodeThread(thread.Get(), &code);
  EXPECT_EQ(code, 0u);
  ASSERT_NE(second.component, nullptr);
  main = nullptr;  // the kept objects hold what they need
  EXPECT_FALSE(second.component->kept.empty());
  for (const ComPtr<IDispatch>& kept : second.component->kept) {
    UniqueVariant answer;
    CallByName(kept.Get(), L"Title", {}, answer.Put());
    CallByName(kept.Get(), L"Number", {}, answer.Put());
  }
  second.component->kept.clear();
  delete second.component;
}

}  // namespace
