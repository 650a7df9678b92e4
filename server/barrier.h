// The exception barrier of every COM entry point: nothing thrown inside the server crosses a
// vtable call, and a failure reaches the caller the same way from every object.
#pragma once

#include <windows.h>

#include <oaidl.h>

#include <new>
#include <type_traits>

#include "platform/failure.h"
#include "server/conversions.h"
#include "server/status.h"
#include "tracing/call_budget.h"
#include "tracing/vbw_protector.h"

namespace tabforge::com {

// What the caller of an entry point learns of a failure caught there.
enum class FailurePolicy {
  // The failure's own status: a run-time failure's automation status, E_OUTOFMEMORY when memory
  // ran out, E_UNEXPECTED for anything else.
  kStatus,
  // IDispatch::Invoke: a run-time failure fills the caller's EXCEPINFO and answers
  // DISP_E_EXCEPTION (a member that is not there answers DISP_E_MEMBERNOTFOUND); anything else
  // as kStatus.
  kException,
  // The members of _Main2, which the product requires to succeed whatever happens: their
  // failures have been reported to the user already by the tracing layer.
  kAlwaysSucceed,
};

// Fills `exception` with `failure` as every Invoke of the server describes it.
inline void FillException(EXCEPINFO& exception, const Failure& failure) {
  exception = EXCEPINFO{};
  exception.scode = ScodeOf(failure.number);
  // A description that cannot be made leaves only the status; the caller still has the number.
  try {
    exception.bstrSource = MakeBstr(kProjectName).Detach();
    exception.bstrDescription = MakeBstr(failure.description).Detach();
  } catch (...) {
  }
}

// The status for the failure being handled; called only inside a catch block.
inline HRESULT CaughtStatus(FailurePolicy policy, EXCEPINFO* exception) noexcept {
  if (policy == FailurePolicy::kAlwaysSucceed)
    return S_OK;
  try {
    throw;
  } catch (const Failure& failure) {
    if (policy == FailurePolicy::kStatus)
      return ScodeOf(failure.number);
    if (failure.number == static_cast<std::int32_t>(RunTimeError::kMemberNotFound))
      return DISP_E_MEMBERNOTFOUND;
    if (exception != nullptr)
      FillException(*exception, failure);
    return DISP_E_EXCEPTION;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_UNEXPECTED;
  }
}

// Runs an entry point's body, which answers an HRESULT (or nothing, for S_OK), and turns whatever
// it throws into the entry point's answer under `policy`. `exception` is the caller's EXCEPINFO
// of an Invoke.
// True when the call from outside that runs may not go on: the stack is used up already.
inline bool EntryRefused() noexcept {
  const CallBudget* budget = CallBudget::Active();
  return budget != nullptr && budget->StackExhausted(TABFORGE_STACK_HERE());
}

template <FailurePolicy policy = FailurePolicy::kStatus, class Body>
HRESULT Barrier(Body&& body, EXCEPINFO* exception = nullptr) noexcept {
  try {
    if (EntryRefused()) [[unlikely]] {
      Raise(RunTimeError::kOutOfStackSpace);
    }
    if constexpr (std::is_void_v<decltype(body())>) {
      body();
      return S_OK;
    } else {
      return body();
    }
  } catch (...) {
    return CaughtStatus(policy, exception);
  }
}

}  // namespace tabforge::com
