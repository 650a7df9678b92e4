// What one late-bound call costs a macro: GetEnabled on the registered "Tabforge.Main2" beside an
// Item read on the platform's own "Scripting.Dictionary", in the four forms that callers use: the
// member by a dispatch id resolved once or by its name at every call, the argument by value (a
// literal, or an expression in parentheses) or by reference (a variable, as VT_BYREF|VT_VARIANT).
// Each measurement is repeated and the median reported, so that one slow round (a page fault, the
// wineserver waking up) does not decide the result.
#include <windows.h>

#include <ole2.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "Tabforge_h.h"
#include "server/bench/bench_check.h"
#include "server/com_ptr.h"

namespace {

using tabforge::com::ComPtr;
using tabforge::com::UniqueVariant;

constexpr int kRounds = 15;
constexpr int kCallsPerRound = 20000;

bool Check(HRESULT hr, const char* what) {
  return CheckCall("late_binding_bench", hr, what);
}

ComPtr<IDispatch> Create(const wchar_t* progId) {
  CLSID clsid{};
  ComPtr<IDispatch> object;
  if (Check(::CLSIDFromProgID(progId, &clsid), "CLSIDFromProgID"))
    Check(::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, object.PutVoid()),
          "CoCreateInstance");
  return object;
}

DISPID IdOf(const ComPtr<IDispatch>& object, const wchar_t* member) {
  std::wstring name = member;
  LPOLESTR names[] = {name.data()};
  DISPID id = DISPID_UNKNOWN;
  Check(object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id), "GetIDsOfNames");
  return id;
}

UniqueVariant Text(const wchar_t* text) {
  UniqueVariant value;
  V_VT(value.Get()) = VT_BSTR;
  V_BSTR(value.Get()) = ::SysAllocString(text);
  return value;
}

// How a call names its member and passes its argument.
struct Form {
  const char* name;
  bool byName;
  bool byReference;
};
constexpr Form kForms[] = {
    {"by id, argument by value", false, false},
    {"by id, argument by reference", false, true},
    {"by name, argument by value", true, false},
    {"by name, argument by reference", true, true},
};

// `object.member(argument)` read as a property in the given form; false on a failure.
bool Get(const ComPtr<IDispatch>& object, const wchar_t* member, DISPID id, const Form& form,
         VARIANT& argument, VARIANT_BOOL& answer) {
  if (form.byName) {
    LPOLESTR names[] = {const_cast<LPOLESTR>(member)};
    if (FAILED(object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id)))
      return false;
  }
  VARIANT reference;
  V_VT(&reference) = VT_BYREF | VT_VARIANT;
  V_VARIANTREF(&reference) = &argument;
  DISPPARAMS params{form.byReference ? &reference : &argument, nullptr, 1, 0};
  UniqueVariant result;
  if (FAILED(object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYGET, &params,
                            result.Get(), nullptr, nullptr)) ||
      FAILED(::VariantChangeType(result.Get(), result.Get(), 0, VT_BOOL)))
    return false;
  answer = V_BOOL(result.Get());
  return true;
}

// Times of one call, in nanoseconds, for each call given: kRounds rounds of kCallsPerRound calls,
// the calls taking turns round by round so that a slow spell of the machine falls on all of them
// alike. Empty when a call failed.
std::vector<std::vector<double>> RoundTimes(const std::vector<std::function<bool()>>& calls) {
  LARGE_INTEGER frequency;
  ::QueryPerformanceFrequency(&frequency);
  for (const auto& call : calls) {
    for (int i = 0; i < 1000; ++i) {  // warm caches, and the first-call paths out of the way
      if (!call())
        return {};
    }
  }
  std::vector<std::vector<double>> times(calls.size());
  for (int round = 0; round < kRounds; ++round) {
    for (std::size_t c = 0; c < calls.size(); ++c) {
      LARGE_INTEGER start;
      LARGE_INTEGER end;
      ::QueryPerformanceCounter(&start);
      for (int i = 0; i < kCallsPerRound; ++i) {
        if (!calls[c]())
          return {};
      }
      ::QueryPerformanceCounter(&end);
      times[c].push_back(static_cast<double>(end.QuadPart - start.QuadPart) * 1e9 /
                         static_cast<double>(frequency.QuadPart) / kCallsPerRound);
    }
  }
  return times;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

int Run() {
  ComPtr<IDispatch> main2 = Create(L"Tabforge.Main2");
  ComPtr<IDispatch> dictionary = Create(L"Scripting.Dictionary");
  if (!main2 || !dictionary)
    return 1;

  // The state of a running add-in: initialised, with the control's answer known.
  {
    UniqueVariant nothing;
    V_VT(nothing.Get()) = VT_DISPATCH;
    V_DISPATCH(nothing.Get()) = nullptr;
    UniqueVariant name = Text(L"Morvelin");
    VARIANT references[2];
    V_VT(&references[0]) = VT_BYREF | VT_VARIANT;
    V_VARIANTREF(&references[0]) = name.Get();
    V_VT(&references[1]) = VT_BYREF | VT_VARIANT;
    V_VARIANTREF(&references[1]) = nothing.Get();
    DISPPARAMS params{references, nullptr, 2, 0};
    if (!Check(main2->Invoke(IdOf(main2, L"Initialize"), IID_NULL, LOCALE_USER_DEFAULT,
                             DISPATCH_METHOD, &params, nullptr, nullptr, nullptr),
               "Initialize"))
      return 1;
  }
  {
    UniqueVariant key = Text(L"MVN16");
    VARIANT item;
    V_VT(&item) = VT_BOOL;
    V_BOOL(&item) = VARIANT_TRUE;
    VARIANT arguments[2] = {item, *key.Get()};  // last argument first
    DISPPARAMS params{arguments, nullptr, 2, 0};
    if (!Check(dictionary->Invoke(IdOf(dictionary, L"Add"), IID_NULL, LOCALE_USER_DEFAULT,
                                  DISPATCH_METHOD, &params, nullptr, nullptr, nullptr),
               "Dictionary.Add"))
      return 1;
  }

  const DISPID getEnabled = IdOf(main2, L"GetEnabled");
  const DISPID item = IdOf(dictionary, L"Item");
  UniqueVariant id = Text(L"MVN16");
  VARIANT_BOOL answer = VARIANT_FALSE;
  VARIANT_BOOL found = VARIANT_FALSE;
  ComPtr<_Main2> direct = main2.TryAs<_Main2>();
  if (!direct)
    return 1;
  BSTR idText = V_BSTR(id.Get());
  // Each form on both objects, in turns, and last the same member through the interface's own
  // slot: what is left of a late-bound call without the dispatch machinery, that is the member's
  // body and its string and truth-value conversions.
  std::vector<std::function<bool()>> calls;
  for (const Form& form : kForms) {
    calls.push_back([&] { return Get(main2, L"GetEnabled", getEnabled, form, *id.Get(), answer); });
    calls.push_back([&] { return Get(dictionary, L"Item", item, form, *id.Get(), found); });
  }
  calls.push_back([&] {
    VARIANT_BOOL enabled = VARIANT_FALSE;
    return SUCCEEDED(direct->get_GetEnabled(&idText, &enabled));
  });
  const auto times = RoundTimes(calls);
  if (times.empty()) {
    std::fprintf(stderr, "late_binding_bench: a measured call failed\n");
    return 1;
  }
  // A key the dictionary does not find answers Empty, which reads as False: the cheaper miss
  // path would have been measured instead of the lookup.
  if (found != VARIANT_TRUE) {
    std::fprintf(stderr, "late_binding_bench: the dictionary did not find its key\n");
    return 1;
  }
  std::printf(
      "%d rounds of %d calls each, taking turns; medians in ns per call, and of the "
      "rounds' ratios\n",
      kRounds, kCallsPerRound);
  std::printf("%-32s %12s %12s %7s\n", "form", "GetEnabled", "Item", "ratio");
  for (std::size_t f = 0; f < std::size(kForms); ++f) {
    const auto& ours = times[2 * f];
    const auto& theirs = times[2 * f + 1];
    // The ratio of each round's pair, whose median a slow round cannot move.
    std::vector<double> ratios;
    for (std::size_t r = 0; r < ours.size(); ++r)
      ratios.push_back(ours[r] / theirs[r]);
    std::printf("%-32s %9.1f ns %9.1f ns %7.2f\n", kForms[f].name, Median(ours), Median(theirs),
                Median(ratios));
  }
  std::printf("GetEnabled by its vtable slot    %9.1f ns\n", Median(times.back()));
  return 0;
}

}  // namespace

int main() {
  const tabforge::com::ComApartment apartment;
  if (!Check(apartment.Result(), "CoInitialize"))
    return 1;
  return Run();
}
