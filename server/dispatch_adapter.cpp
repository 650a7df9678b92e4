#include "server/dispatch_adapter.h"

#include <algorithm>
#include <new>
#include <unordered_set>

#include "platform/failure.h"
#include "platform/variant.h"
#include "server/barrier.h"
#include "server/conversions.h"

namespace tabforge::com {

namespace {

// The live adapters, by the address that callers hold. An adapter enters when it is made and
// leaves in its destructor, before its core object goes.
SRWLOCK g_adaptersLock = SRWLOCK_INIT;
std::unordered_set<const IDispatch*> g_adapters;

class ExclusiveLock {
 public:
  ExclusiveLock() { ::AcquireSRWLockExclusive(&g_adaptersLock); }
  ExclusiveLock(const ExclusiveLock&) = delete;
  ExclusiveLock& operator=(const ExclusiveLock&) = delete;
  ~ExclusiveLock() { ::ReleaseSRWLockExclusive(&g_adaptersLock); }
};

}  // namespace

DispatchAdapter::DispatchAdapter(Ref<Object> object) : object_(std::move(object)) {}

DispatchAdapter::~DispatchAdapter() {
  const ExclusiveLock lock;
  g_adapters.erase(this);
}

ComPtr<IDispatch> DispatchAdapter::Create(Ref<Object> object) {
  auto* adapter = new (std::nothrow) DispatchAdapter(std::move(object));
  if (adapter == nullptr)
    Raise(RunTimeError::kOutOfMemory);
  auto out = ComPtr<IDispatch>::Attach(adapter);
  const ExclusiveLock lock;
  g_adapters.insert(adapter);  // std::bad_alloc releases the adapter on the way out
  return out;
}

Ref<Object> DispatchAdapter::Unwrap(IDispatch* dispatch) {
  if (dispatch == nullptr)
    return nullptr;
  // While it is listed the adapter's core object is alive: the destructor waits for the lock.
  const ExclusiveLock lock;
  if (g_adapters.count(dispatch) == 0)
    return nullptr;
  return static_cast<DispatchAdapter*>(dispatch)->object_;
}

HRESULT DispatchAdapter::GetTypeInfoCount(UINT* count) {
  return NoTypeInfoCount(count);
}

HRESULT DispatchAdapter::GetTypeInfo(UINT, LCID, ITypeInfo** out) {
  return NoTypeInfo(out);
}

HRESULT DispatchAdapter::GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) {
  if (ids == nullptr || count == 0)
    return E_INVALIDARG;
  // The member name gets an id; named arguments are not supported.
  std::fill(ids, ids + count, DISPID_UNKNOWN);
  if (!AllNamed(names, count))
    return names == nullptr ? E_INVALIDARG : DISP_E_UNKNOWNNAME;
  return Barrier([&] {
    const Utf16String name(NameView(names[0]));
    auto found = std::find_if(names_.begin(), names_.end(), [&](const Utf16String& known) {
      return SameMemberName(known, name);
    });
    if (found == names_.end()) {
      if (names_.size() >= kMaxNames)
        return DISP_E_UNKNOWNNAME;
      names_.push_back(name);
      found = names_.end() - 1;
    }
    ids[0] = static_cast<DISPID>(found - names_.begin()) + 1;
    return count > 1 ? DISP_E_UNKNOWNNAME : S_OK;
  });
}

HRESULT DispatchAdapter::Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params,
                                VARIANT* result, EXCEPINFO* exception, UINT*) {
  const CallHold hold(this);
  if (!WellFormed(params))
    return E_INVALIDARG;
  if (id < 1 || static_cast<std::size_t>(id) > names_.size())
    return DISP_E_MEMBERNOTFOUND;
  if (params->cArgs > kMaxArguments)
    return DISP_E_BADPARAMCOUNT;
  return Barrier<FailurePolicy::kException>(
      [&] {
        const Utf16String member = names_[static_cast<std::size_t>(id) - 1];
        const UINT count = params->cArgs;
        // Arguments in declared order; a VARIANT passed by reference is written back after the
        // call.
        std::vector<Variant> values(count);
        std::vector<Variant> arguments(count);
        for (UINT i = 0; i < count; ++i) {
          const VARIANT& raw = params->rgvarg[count - 1 - i];
          values[i] = FromAutomation(raw);
          arguments[i] =
              V_VT(&raw) == (VT_BYREF | VT_VARIANT) ? Variant::ByRef(&values[i]) : values[i];
        }
        CallKind kind = CallKind::kMethod;
        if ((flags & DISPATCH_PROPERTYPUTREF) != 0)
          kind = CallKind::kPropertyPutRef;
        else if ((flags & DISPATCH_PROPERTYPUT) != 0)
          kind = CallKind::kPropertyPut;
        else if ((flags & DISPATCH_METHOD) == 0)
          kind = CallKind::kPropertyGet;
        Variant answer = object_->Invoke(member, kind, arguments);
        for (UINT i = 0; i < count; ++i) {
          VARIANT& raw = params->rgvarg[count - 1 - i];
          if (V_VT(&raw) == (VT_BYREF | VT_VARIANT) && V_VARIANTREF(&raw) != nullptr)
            Replace(V_VARIANTREF(&raw), ToAutomation(values[i]));
        }
        if (result != nullptr)
          *result = ToAutomation(answer).Detach();
        return S_OK;
      },
      exception);
}

}  // namespace tabforge::com
