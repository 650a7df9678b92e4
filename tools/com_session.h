// The session's target on Windows: the registered "Tabforge.Main2", reached by late binding the
// way the template's macros reach it, with the session's signalling object and ribbon as COM
// objects of this process.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tools/session.h"

struct IDispatch;

namespace tabforge::cli {

// The library reads the host's command line for "/trace": the option "--trace" is written over
// with it in this process's own command line. Call before the first instance is created.
void AskForTracingOnTheCommandLine();

// A new instance of the registered class; throws `std::runtime_error` naming the step that
// failed when it cannot be created.
std::unique_ptr<SessionTarget> MakeLateBoundTarget(CallLog& log, const SessionOptions& options);

// The document of a new registered instance after Initialize with no signalling object and
// `productName`; throws `std::runtime_error` when a call cannot be made.
Utf16String LateBoundRibbonXml(Utf16View productName);

// Its two calls one at a time, on an instance created by the caller: Initialize with no signalling
// object, and the document; each throws `std::runtime_error` naming the call that failed.
void LateBoundInitialize(IDispatch* main2, Utf16View productName);
Utf16String LateBoundGetRibbonXml(IDispatch* main2);

}  // namespace tabforge::cli
