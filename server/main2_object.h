// The COM object of class Main2: the _Main2 interface over the core's Main2.
#pragma once

#include <windows.h>

#include <ole2.h>
#include <olectl.h>
// <windows.h> names LoadImageW as LoadImage; the member of _Main2 keeps its own name.
#undef LoadImage

#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <utility>

#include "Tabforge_h.h"
#include "platform/recording.h"
#include "ribbon/main2.h"
#include "server/apartment.h"
#include "server/barrier.h"
#include "server/com_object.h"
#include "server/com_ptr.h"

namespace tabforge::com {

// The type information of the _Main2 interface in the library's own type library.
ComPtr<ITypeInfo> LoadMain2TypeInfo();

// One member of _Main2: its name, dispatch id, kind, parameters and answer as the type library
// declares them, and the one call it makes on the core. Every argument is [in, out] by reference,
// the answer [out, retval]; objects, pictures included, travel as IDispatch.
struct Main2Member {
  enum Slot : std::uint8_t { kNone, kText, kTruth, kObject, kPicture };
  static constexpr std::size_t kMaxInputs = 2;
  // A member's answer, owned until the caller's result takes it.
  struct Answer {
    UniqueBstr text;
    VARIANT_BOOL truth = VARIANT_FALSE;
    ComPtr<IPictureDisp> picture;
  };
  // Where a member's call goes: the core, and the apartment's recording while one is made.
  struct Target {
    Main2& core;
    recording::Recorder* recorder;
    // The caller's object as the core should see it: every call on it recorded while recording.
    Ref<Object> ObjectOf(void* value, std::string_view role) const;
  };
  // Each input is a pointer to the caller's value of the parameter's type, or null.
  using Call = void (*)(const Target& target, void* const* inputs, Answer& answer);

  Utf16View name;
  DISPID id;
  INVOKEKIND kind;
  std::array<Slot, kMaxInputs> inputs;
  Slot answer;
  Call call;

  UINT Inputs() const {
    return static_cast<UINT>(
        std::count_if(inputs.begin(), inputs.end(), [](Slot s) { return s != kNone; }));
  }
};

// The members of _Main2 in slot order: the one description from which Invoke, GetIDsOfNames and
// the vtable come.
std::span<const Main2Member> Main2Members();

class Main2Object final : public ComObject<Main2Object, _Main2> {
 public:
  static HRESULT Create(REFIID riid, void** out);

  // IDispatch. Invoke and GetIDsOfNames answer as the type library's own would, without it on the
  // way of a call.
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override;
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID locale, ITypeInfo** out) override;
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID locale,
                                          DISPID* ids) override;
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID riid, LCID locale, WORD flags,
                                   DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,
                                   UINT* argumentError) override;

  // _Main2
  HRESULT STDMETHODCALLTYPE Initialize(IDispatch** eventSignaller, BSTR* productName) override;
  HRESULT STDMETHODCALLTYPE put_ribbon(IDispatch** value) override;
  HRESULT STDMETHODCALLTYPE GetRibbonXML(BSTR* result) override;
  HRESULT STDMETHODCALLTYPE productNameChanged(BSTR* productName) override;
  HRESULT STDMETHODCALLTYPE get_GetLabel(BSTR* idStr, BSTR* result) override;
  HRESULT STDMETHODCALLTYPE get_GetEnabled(BSTR* idStr, VARIANT_BOOL* result) override;
  HRESULT STDMETHODCALLTYPE get_GetPressed(BSTR* idStr, VARIANT_BOOL* result) override;
  HRESULT STDMETHODCALLTYPE get_GetScreentip(BSTR* idStr, BSTR* result) override;
  HRESULT STDMETHODCALLTYPE get_GetImage(BSTR* idStr, IPictureDisp** result) override;
  HRESULT STDMETHODCALLTYPE LoadImage(BSTR* id, IPictureDisp** result) override;
  HRESULT STDMETHODCALLTYPE RibbonCallback(BSTR* idStr, VARIANT_BOOL* isOn) override;
  HRESULT STDMETHODCALLTYPE EnableGotoQuickBookmark(VARIANT_BOOL* value) override;
  HRESULT STDMETHODCALLTYPE UpdateLexoscopeIcon(VARIANT_BOOL* enable) override;
  HRESULT STDMETHODCALLTYPE EnableToolbar(VARIANT_BOOL* value) override;
  HRESULT STDMETHODCALLTYPE activateMorvelinTab(IDispatch** RibbonCommandBar) override;

  // The core object, for tests in the same process.
  Main2& core() { return core_; }

 private:
  friend class ComObject<Main2Object, _Main2>;
  Main2Object(const ApartmentHold& apartment, ComPtr<ITypeInfo> typeInfo);
  ~Main2Object() = default;

  // Makes the row's call on the core, recorded while the apartment records.
  void Call(const Main2Member& row, void* const* in, Main2Member::Answer& answer);
  template <class Result>
  HRESULT Member(const Main2Member& row, std::initializer_list<void*> in, Result* result);
  HRESULT Member(const Main2Member& row, std::initializer_list<void*> in);

  // Runs a member's body with the object held for the call; the member succeeds whatever happens.
  template <class Body>
  HRESULT Guarded(Body&& body) {
    const CallHold hold(this);
    return Barrier<FailurePolicy::kAlwaysSucceed>(std::forward<Body>(body));
  }

  ComPtr<ITypeInfo> typeInfo_;
  Main2 core_;
  recording::Recorder* recorder_;  // the apartment's, which outlives the object
};

}  // namespace tabforge::com
