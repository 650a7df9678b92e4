#include "server/accessible_object.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <vector>

#include "platform/failure.h"
#include "platform/variant.h"
#include "server/barrier.h"
#include "server/conversions.h"
#include "server/dispatch_parameters.h"
#include "server/object_bridge.h"

namespace tabforge::com {
namespace {

struct Member {
  const wchar_t* name;
  DISPID id;
};

constexpr Member kMembers[] = {
    {L"accParent", DISPID_ACC_PARENT},     {L"accChildCount", DISPID_ACC_CHILDCOUNT},
    {L"accChild", DISPID_ACC_CHILD},       {L"accName", DISPID_ACC_NAME},
    {L"accRole", DISPID_ACC_ROLE},         {L"accState", DISPID_ACC_STATE},
    {L"accNavigate", DISPID_ACC_NAVIGATE}, {L"accDoDefaultAction", DISPID_ACC_DODEFAULTACTION},
};

bool IsObject(const Variant& answer) {
  return answer.type() == VarType::VT_DISPATCH && answer.ObjectRef() != nullptr;
}

// The element's answer as an object for a caller: elements are handed out as accessible objects.
IDispatch* DispatchOf(const Variant& answer) {
  return AccessibleObject::Create(answer.ObjectRef()).Detach();
}

// The element's answer to `member`, looked through.
Variant Call(Object& element, const wchar_t* member, std::vector<Variant> arguments) {
  return element.Invoke(NameView(member), CallKind::kPropertyGet, arguments).Value();
}

// The element's answer to `member` about `child`, handed to the caller as a VARIANT.
HRESULT VariantAnswer(Object& element, const wchar_t* member, VARIANT child, VARIANT* out) {
  if (out == nullptr)
    return E_POINTER;
  ::VariantInit(out);
  return Barrier([&] {
    *out = ToAutomation(Call(element, member, {FromAutomation(child)})).Detach();
    return S_OK;
  });
}

}  // namespace

AccessibleObject::AccessibleObject(Ref<Object> element) : element_(std::move(element)) {}

ComPtr<IAccessible> AccessibleObject::Create(Ref<Object> element) {
  if (!element)
    return nullptr;
  auto* object = new (std::nothrow) AccessibleObject(std::move(element));
  if (object == nullptr)
    Raise(RunTimeError::kOutOfMemory);
  return ComPtr<IAccessible>::Attach(object);
}

HRESULT AccessibleObject::GetTypeInfoCount(UINT* count) {
  return NoTypeInfoCount(count);
}

HRESULT AccessibleObject::GetTypeInfo(UINT, LCID, ITypeInfo** out) {
  return NoTypeInfo(out);
}

HRESULT AccessibleObject::GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) {
  if (names == nullptr || ids == nullptr || count == 0)
    return E_INVALIDARG;
  std::fill(ids, ids + count, DISPID_UNKNOWN);
  if (!AllNamed(names, count))
    return DISP_E_UNKNOWNNAME;
  for (const Member& member : kMembers) {
    if (SameMemberName(NameView(names[0]), NameView(member.name))) {
      ids[0] = member.id;
      return count == 1 ? S_OK : DISP_E_UNKNOWNNAME;
    }
  }
  return DISP_E_UNKNOWNNAME;
}

HRESULT AccessibleObject::Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT* result,
                                 EXCEPINFO* exception, UINT*) {
  const CallHold hold(this);
  if (!WellFormed(params))
    return E_INVALIDARG;
  const auto member = std::find_if(std::begin(kMembers), std::end(kMembers),
                                   [id](const Member& m) { return m.id == id; });
  if (member == std::end(kMembers))
    return DISP_E_MEMBERNOTFOUND;
  if (params->cArgs > kMaxArguments)
    return DISP_E_BADPARAMCOUNT;
  return Barrier<FailurePolicy::kException>(
      [&] {
        // Arguments come last to first.
        std::vector<Variant> arguments;
        for (UINT i = params->cArgs; i > 0; --i)
          arguments.push_back(FromAutomation(params->rgvarg[i - 1]));
        const Variant answer =
            element_->Invoke(NameView(member->name), CallKind::kPropertyGet, arguments).Value();
        if (result != nullptr) {
          if (IsObject(answer)) {
            V_VT(result) = VT_DISPATCH;
            V_DISPATCH(result) = DispatchOf(answer);
          } else {
            *result = ToAutomation(answer).Detach();
          }
        }
        return S_OK;
      },
      exception);
}

HRESULT AccessibleObject::get_accParent(IDispatch** parent) {
  if (parent == nullptr)
    return E_POINTER;
  *parent = nullptr;
  const CallHold hold(this);
  return Barrier([&] {
    const Variant answer = Call(*element_, L"accParent", {});
    if (!IsObject(answer))
      return S_FALSE;
    *parent = DispatchOf(answer);
    return S_OK;
  });
}

HRESULT AccessibleObject::get_accChildCount(LONG* count) {
  if (count == nullptr)
    return E_POINTER;
  *count = 0;
  const CallHold hold(this);
  return Barrier([&] {
    *count = ToLong(Call(*element_, L"accChildCount", {}));
    return S_OK;
  });
}

// A simple child has no object of its own: S_FALSE, as the platform answers for one.
HRESULT AccessibleObject::get_accChild(VARIANT child, IDispatch** out) {
  if (out == nullptr)
    return E_POINTER;
  *out = nullptr;
  const CallHold hold(this);
  return Barrier([&] {
    const Variant answer = Call(*element_, L"accChild", {FromAutomation(child)});
    if (!IsObject(answer))
      return S_FALSE;
    *out = DispatchOf(answer);
    return S_OK;
  });
}

HRESULT AccessibleObject::get_accName(VARIANT child, BSTR* name) {
  if (name == nullptr)
    return E_POINTER;
  *name = nullptr;
  const CallHold hold(this);
  return Barrier([&] {
    *name = MakeBstr(ToBstr(Call(*element_, L"accName", {FromAutomation(child)}))).Detach();
    return S_OK;
  });
}

HRESULT AccessibleObject::get_accRole(VARIANT child, VARIANT* role) {
  const CallHold hold(this);
  return VariantAnswer(*element_, L"accRole", child, role);
}

HRESULT AccessibleObject::get_accState(VARIANT child, VARIANT* state) {
  const CallHold hold(this);
  return VariantAnswer(*element_, L"accState", child, state);
}

HRESULT AccessibleObject::accNavigate(LONG direction, VARIANT start, VARIANT* end) {
  if (end == nullptr)
    return E_POINTER;
  ::VariantInit(end);
  const CallHold hold(this);
  return Barrier([&] {
    const Variant answer = Call(*element_, L"accNavigate",
                                {static_cast<std::int32_t>(direction), FromAutomation(start)});
    if (IsObject(answer)) {
      V_VT(end) = VT_DISPATCH;
      V_DISPATCH(end) = DispatchOf(answer);
      return S_OK;
    }
    if (answer.type() == VarType::VT_EMPTY)
      return S_FALSE;
    *end = ToAutomation(answer).Detach();
    return S_OK;
  });
}

HRESULT AccessibleObject::accDoDefaultAction(VARIANT child) {
  const CallHold hold(this);
  return Barrier([&] {
    Call(*element_, L"accDoDefaultAction", {FromAutomation(child)});
    return S_OK;
  });
}

HRESULT AccessibleObject::get_accValue(VARIANT, BSTR*) {
  return E_NOTIMPL;
}
HRESULT AccessibleObject::get_accDescription(VARIANT, BSTR*) {
  return E_NOTIMPL;
}
HRESULT AccessibleObject::get_accHelp(VARIANT, BSTR*) {
  return E_NOTIMPL;
}
HRESULT AccessibleObject::get_accHelpTopic(BSTR*, VARIANT, LONG*) {
  return E_NOTIMPL;
}
HRESULT AccessibleObject::get_accKeyboardShortcut(VARIANT, BSTR*) {
  return E_NOTIMPL;
}
HRESULT AccessibleObject::get_accFocus(VARIANT*) {
  return E_NOTIMPL;
}
HRESULT AccessibleObject::get_accSelection(VARIANT*) {
  return E_NOTIMPL;
}
HRESULT AccessibleObject::get_accDefaultAction(VARIANT, BSTR*) {
  return E_NOTIMPL;
}
HRESULT AccessibleObject::accSelect(LONG, VARIANT) {
  return E_NOTIMPL;
}
HRESULT AccessibleObject::accLocation(LONG*, LONG*, LONG*, LONG*, VARIANT) {
  return E_NOTIMPL;
}
HRESULT AccessibleObject::accHitTest(LONG, LONG, VARIANT*) {
  return E_NOTIMPL;
}
HRESULT AccessibleObject::put_accName(VARIANT, BSTR) {
  return E_NOTIMPL;
}
HRESULT AccessibleObject::put_accValue(VARIANT, BSTR) {
  return E_NOTIMPL;
}

}  // namespace tabforge::com
