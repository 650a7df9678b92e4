// The object bridge: the library's objects seen from outside and foreign objects seen from inside,
// and the values that carry them across the automation boundary.
//
// Every VARIANT that comes in is read here and nowhere else: call results, by-reference
// write-backs, the component's stack, AccessibleChildren, the arguments of the objects we hand out
// and those of Main2's Invoke. An array is read by the type and size of elements it really holds,
// not by the type its tag claims.
//
// Any core object goes out as an IDispatch adapter whose members get dispatch ids by name on
// first request and are invoked by name (the error component reaches the dump's objects this way).
// An object that comes back in is known for an adapter by its address among the live adapters,
// never by asking the object: a foreign object could answer any question with itself.
#pragma once

#include <windows.h>

#include <oaidl.h>

#include <cstddef>
#include <optional>
#include <vector>

#include "platform/object.h"
#include "platform/utf16.h"
#include "platform/variant.h"
#include "server/com_object.h"
#include "server/com_ptr.h"

// The word processor's ribbon interface. Only the first two of its members are called here;
// the ones after them are left undeclared.
MIDL_INTERFACE("000C03A7-0000-0000-C000-000000000046")
IRibbonUI : public IDispatch {
 public:
  virtual HRESULT STDMETHODCALLTYPE Invalidate() = 0;
  virtual HRESULT STDMETHODCALLTYPE InvalidateControl(BSTR controlId) = 0;
};
#ifdef __CRT_UUID_DECL
__CRT_UUID_DECL(IRibbonUI, 0x000C03A7, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                0x46)
#endif

namespace tabforge::com {

// An object handed in by a caller, as the core holds it; nothing for a null pointer. Asking the
// object for an interface runs its code: a collaborator call of the running call from outside.
Ref<Object> WrapDispatch(IDispatch* dispatch);
Ref<Object> WrapUnknown(IUnknown* unknown);
// A core object for a caller: the caller's own interface when the object came from outside,
// otherwise an adapter that lets the caller reach its members by name.
ComPtr<IDispatch> ToDispatch(const Ref<Object>& object);
ComPtr<IUnknown> ToUnknown(const Ref<Object>& object);

// A VARIANT from outside as a core value; references are followed. Throws `Failure` (type mismatch)
// for a type the core does not know, an array that does not hold what its tag says, a reference to
// nothing, or nesting past a fixed depth; "out of memory" past one read's allowance of values and
// bytes.
Variant FromAutomation(const VARIANT& value);
// A core value as an owned VARIANT; references are followed. Throws `Failure` for what has no
// automation form.
UniqueVariant ToAutomation(const Variant& value);

// One argument of Main2's Invoke as its member receives it: a pointer to a value of the
// parameter's type. The caller's own storage is lent when it holds that type, by reference (also
// inside a referenced VARIANT, as scripts pass their variables) or by value. A value of another
// type is coerced into a copy owned here, as the platform coerces it; an object's coercion runs its
// default member, a collaborator call. The members only read their parameters, so nothing is ever
// written back: a caller's by-value argument is never touched.
class BoundArgument {
 public:
  BoundArgument() = default;
  BoundArgument(const BoundArgument&) = delete;
  BoundArgument& operator=(const BoundArgument&) = delete;

  // S_OK, or the status of a type that the parameter cannot take.
  HRESULT Bind(VARIANT& source, VARTYPE type);
  void* Value() const { return value_; }

 private:
  void* value_ = nullptr;
  std::optional<UniqueVariant> copy_;  // made only when needed: most calls lend
};

// An object from outside, called by member name through its IDispatch.
class WindowsObject : public Object {
 public:
  explicit WindowsObject(ComPtr<IUnknown> unknown);

  Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) override;
  Ref<RibbonUi> QueryRibbonUi() override;

  const ComPtr<IDispatch>& Dispatch() const { return dispatch_; }
  const ComPtr<IUnknown>& Unknown() const { return unknown_; }

 private:
  DISPID FindMember(Utf16View member);

  ComPtr<IUnknown> unknown_;
  ComPtr<IDispatch> dispatch_;
};

// The same object through its IRibbonUI.
class WindowsRibbonUi final : public RibbonUi {
 public:
  WindowsRibbonUi(Ref<WindowsObject> object, ComPtr<IRibbonUI> ribbon);

  Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) override;
  void Invalidate() override;
  void InvalidateControl(const Utf16String& controlId) override;

 private:
  Ref<WindowsObject> object_;
  ComPtr<IRibbonUI> ribbon_;
};

class DispatchAdapter final : public ComObject<DispatchAdapter, IDispatch> {
 public:
  static ComPtr<IDispatch> Create(Ref<Object> object);
  // The core object behind `dispatch` when it is one of these adapters, else nothing. Makes no
  // call on `dispatch`.
  static Ref<Object> Unwrap(IDispatch* dispatch);
  // The most names that one adapter gives ids to; later names are unknown.
  static constexpr std::size_t kMaxNames = 256;

  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override;
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID locale, ITypeInfo** out) override;
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID locale,
                                          DISPID* ids) override;
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID riid, LCID locale, WORD flags,
                                   DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,
                                   UINT* argumentError) override;

 private:
  friend class ComObject<DispatchAdapter, IDispatch>;
  explicit DispatchAdapter(Ref<Object> object);
  ~DispatchAdapter();

  Ref<Object> object_;
  // Names in the order they were asked for; a member's id is its index plus one.
  std::vector<Utf16String> names_;
};

}  // namespace tabforge::com
