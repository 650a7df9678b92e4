// The per-apartment state of the library: the Windows platform and the tracing module. An
// apartment-threaded server has one apartment per thread, so the state lives in the thread.
#pragma once

#include "tracing/vbw_protector.h"

namespace tabforge::com {

// The tracing module of the calling thread's apartment. The first call in a thread builds the
// platform and the module and runs the start-up routine, once, before the first object exists.
VbwProtector& ApartmentProtector();

}  // namespace tabforge::com
