// Failures as automation statuses and back: a run-time failure's number and the HRESULT that
// stands for it, and a failed status of a call we made as the failure it is.
#pragma once

#include <windows.h>

#include <oaidl.h>

#include <cstdint>

namespace tabforge::com {

// The automation status that stands for a failure number: HRESULTs pass as they are, run-time
// numbers get the run time's facility.
HRESULT ScodeOf(std::int32_t number);
// The failure number for an automation status, the reverse of `ScodeOf`.
std::int32_t NumberOf(HRESULT scode);

// Throws `Failure` for a failed status; a dispatch exception carries its own number and text.
void ThrowIfFailed(HRESULT hr, EXCEPINFO* exception = nullptr);

}  // namespace tabforge::com
