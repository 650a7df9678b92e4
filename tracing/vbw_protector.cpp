#include "tracing/vbw_protector.h"

#include <limits>
#include <utility>
#include <vector>

#include "tracing/call_by_name.h"
#include "tracing/run.h"
#include "tracing/runtime_objects.h"

namespace tabforge {
namespace {

using tracing::Body;
using tracing::DefineProcedure;
using tracing::Instrumentation;
using tracing::LocalReport;
using tracing::NoLocals;
using tracing::NoParameters;
using tracing::Run;

constexpr auto kUntracked = Instrumentation::kUntracked;

// Line numbers: a hundred per procedure, in the module's order, plus the statement's number.
constexpr auto kInitializeProtector =
    DefineProcedure(u"vbwProtector.vbwInitializeProtector", 100, kUntracked);
constexpr auto kExitThread = DefineProcedure(u"vbwProtector.vbwExitThread", 200, kUntracked);
constexpr auto kProcIn = DefineProcedure(u"vbwProtector.vbwProcIn", 300, kUntracked);
constexpr auto kReportParameter =
    DefineProcedure(u"vbwProtector.vbwReportParameter", 400, kUntracked);
constexpr auto kErrorHandler = DefineProcedure(u"vbwProtector.vbwErrorHandler", 500, kUntracked);
constexpr auto kHash = DefineProcedure(u"vbwProtector.hash", 600, kUntracked);
constexpr auto kAlwaysIgnore = DefineProcedure(u"vbwProtector.alwaysIgnore", 700, kUntracked);
constexpr auto kOpenDumpFile = DefineProcedure(u"vbwProtector.vbwOpenDumpFile", 800, kUntracked);
constexpr auto kCloseDumpFile = DefineProcedure(u"vbwProtector.vbwCloseDumpFile", 900, kUntracked);
constexpr auto kReportToFile =
    DefineProcedure(u"vbwProtector.vbwReportToFile", 1000, Instrumentation::kUntrackedNoDump);
constexpr auto kReportVariable =
    DefineProcedure(u"vbwProtector.vbwReportVariable", 1100, kUntracked);
constexpr auto kReportObject = DefineProcedure(u"vbwProtector.vbwReportObject", 1200, kUntracked);

}  // namespace

VbwProtector::VbwProtector(const Platform& platform) : platform_(platform) {}

VbwProtector::~VbwProtector() = default;

tracing::Module VbwProtector::Trace() noexcept {
  return tracing::Module(*this, *this);
}

std::vector<Utf16String> VbwProtector::StackNames() const {
  return mStackAllocated ? std::vector<Utf16String>(mStack.begin(), mStack.end())
                         : std::vector<Utf16String>{};
}

void VbwProtector::AdoptStack(const ArrayRef& stack, const std::vector<Utf16String>& handed) {
  if (!stack) {
    // Erased: a stack that stores no names until the apartment starts again.
    mStackAllocated = false;
    return;
  }
  const auto* names = std::get_if<std::vector<Utf16String>>(&stack->elements);
  if (names == nullptr)
    return;
  // Only the slots that the component changed are taken: a slot it left alone may have been
  // written by a call that ran while the component had the array.
  for (int k = 1; k <= kStackSlots; ++k) {
    const std::int64_t index = std::int64_t{k} - stack->lowerBound;
    const Utf16View now = index >= 0 && index < static_cast<std::int64_t>(names->size())
                              ? Utf16View((*names)[static_cast<std::size_t>(index)])
                              : Utf16View{};
    const Utf16View was = handed.empty() ? Utf16View{} : Utf16View(handed[k - 1]);
    if (now == was)
      continue;
    const auto slot = static_cast<std::size_t>(k - 1);
    writtenNames_[slot].assign(now);
    mStack[slot] = writtenNames_[slot];
  }
  mStackAllocated = true;
}

Utf16View VbwProtector::StackSlot(int k) const noexcept {
  return k >= 1 && k <= kStackSlots ? mStack[static_cast<std::size_t>(k - 1)] : Utf16View{};
}

// --- Start-up and switches ----------------------------------------------------------------------

bool VbwProtector::TracingRequested() {
  if (platform().host->CommandLine().find(kTraceSwitch) != Utf16String::npos)
    return true;
  return platform().host->GetSetting(kProjectName, kTraceSection, kTraceKey, u"") == kTraceOn;
}

void VbwProtector::vbwInitializeProtector() {
  Run(Trace(), kInitializeProtector, NoParameters, NoLocals, [&](Body& body) {
    TF_BEGIN(body)
    TF_STEP(1) vbwEmailRecipientAdress = Utf16String(kSupportMailbox);
    TF_STEP(2) vbwCatchException = kTrue;
    TF_STEP(3) vbwTraceLine = ToVariantBool(TracingRequested());
    TF_STEP(4) vbwTraceProc = ToVariantBool(TracingRequested());
    TF_STEP(5) vbwTraceParameters = vbwTraceProc;
    TF_STEP(6) vbwCallStack = kTrue;
    TF_STEP(7) vbwSystemInfo = kTrue;
    TF_STEP(8) vbwScreenshot = kTrue;
    TF_STEP(9) mOldTraceProc = vbwTraceProc;
    TF_STEP(10) if (IsTrue(vbwCallStack)) {
      TF_STEP(11) vbwTraceProc = kTrue;
    }
    TF_STEP(12) mStack.fill(Utf16View{});
    mStackAllocated = true;
    TF_END
  });
}

void VbwProtector::vbwExitThread() {
  // The component is let go however the call ends, also when it failed to end the thread.
  struct Release {
    Ref<Object>& component;
    ~Release() { component.reset(); }
  } release{mErrorParams};
  Run(Trace(), kExitThread, NoParameters, NoLocals, [&](Body& body) {
    TF_BEGIN(body)
    TF_PASS_OVER(1)
    TF_STEP(2) CallComponent(mErrorParams, u"vbwExitThread", CallKind::kMethod);
    TF_END
  });
}

// --- Procedure tracking -------------------------------------------------------------------------

void VbwProtector::InstrumentedProcIn(Utf16View lProc, Utf16View lParameters) {
  Run(
      Trace(), kProcIn, NoParameters,
      [&](LocalReport& l) {
        l.Add(u"lProc", lProc);
        l.Add(u"lParameters", lParameters);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) if (mStackCalls == std::numeric_limits<std::int16_t>::max()) {
          Raise(RunTimeError::kOverflow);
        }
        ++mStackCalls;
        TF_PASS_OVER(2)
        TF_STEP(3) if (!mStackAllocated || mStackCalls < 1 || mStackCalls > kStackSlots) {
          Raise(RunTimeError::kSubscriptOutOfRange);
        }
        mStack[static_cast<std::size_t>(mStackCalls - 1)] = lProc;
        TF_END
      });
}

Utf16String VbwProtector::vbwReportParameter(Utf16View lName, const Variant& lValue) {
  Utf16String result;
  Run(Trace(), kReportParameter, NoParameters, NoLocals, [&](Body& body) {
    TF_BEGIN(body)
    TF_PASS_OVER(1)
    // Without a component the call would fail and be passed over; asking first is the same
    // result without the cost of a failure for every parameter of every traced call.
    TF_STEP(2) if (mErrorParams) {
      Utf16String name(lName);
      Variant value = lValue;
      result = ToBstr(CallComponent(mErrorParams, u"vbwReportParameter", CallKind::kMethod,
                                    Variant::ByRef(&name), Variant::ByRef(&value)));
    }
    TF_END
  });
  return result;
}

// --- Failure handling ---------------------------------------------------------------------------

std::int32_t VbwProtector::vbwErrorHandler(std::int32_t errNumber, Utf16String ErrDescription,
                                           Utf16String ErrProject, Utf16String ErrSource,
                                           Utf16String ErrProcedure, std::int32_t errLine) {
  std::int32_t result = 0;
  // However the handler leaves, a component that is not kept for a dump or for the end of the
  // thread is let go: no component lives on between failures.
  struct Release {
    Ref<Object>& component;
    const std::int32_t& result;
    ~Release() {
      if (result != kWriteDump && result != kEndThread)
        component.reset();
    }
  } release{mErrorParams, result};
  handlerOutcome = mErrorParams ? flight::Answer::kNoAnswer : flight::Answer::kNoComponent;
  Run(
      Trace(), kErrorHandler, NoParameters,
      [&](LocalReport& l) {
        l.Add(u"errNumber", errNumber);
        l.Add(u"ErrDescription", ErrDescription);
        l.Add(u"ErrProject", ErrProject);
        l.Add(u"ErrSource", ErrSource);
        l.Add(u"ErrProcedure", ErrProcedure);
        l.Add(u"errLine", errLine);
        l.Add(u"StrRememberErrors", StrRememberErrors_);
        l.Add(u"strLastError", strLastError_);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) if (errNumber != -1) {
          TF_STEP(2) strLastError_ = hash(ErrSource, errNumber, errLine);
        }
        TF_STEP(3) if (IsTrue(alwaysIgnore(StrRememberErrors_, strLastError_))) {
          TF_STEP(4) result = kIgnoreOnce;
          handlerOutcome = flight::Answer::kRemembered;
          TF_STEP(5) mErrorParams.reset();
          TF_STEP(6) return;
        }
        // From here a failure goes straight to the release of the component.
        TF_EXIT_ON_FAILURE(7)
        TF_STEP(8) if (!mErrorParams) {
          TF_STEP(9) {
            const ComponentCall onComponent;
            mErrorParams = platform().objects->CreateObject(kErrorComponentProgId);
            handlerOutcome = flight::Answer::kNoAnswer;
          }
          TF_STEP(10)
          CallComponent(mErrorParams, u"vbwInitializeProtector", CallKind::kMethod,
                        Variant::ByRef(&vbwCatchException), Variant::ByRef(&vbwTraceLine),
                        Variant::ByRef(&mOldTraceProc), Variant::ByRef(&vbwCallStack),
                        Variant::ByRef(&vbwSystemInfo), Variant::ByRef(&vbwScreenshot));
        }
        TF_STEP(11) {
          // The stack goes by reference: the array that the component may write into is taken
          // back as the stack when the call returns.
          const std::vector<Utf16String> handed = StackNames();
          ArrayRef stack = mStackAllocated ? MakeArray(handed, 1) : nullptr;
          const Variant answer = CallComponent(
              mErrorParams, u"vbwErrorHandler", CallKind::kMethod, Variant::ByRef(&errNumber),
              Variant::ByRef(&ErrDescription), Variant::ByRef(&ErrProject),
              Variant::ByRef(&ErrSource), Variant::ByRef(&ErrProcedure), Variant::ByRef(&errLine),
              Variant::ByRef(&mStackCalls), Variant::ByRef(VarType::VT_BSTR, &stack));
          AdoptStack(stack, handed);
          result = ToLong(answer);
          handlerOutcome = flight::Answer::kAnswered;
        }
        TF_STEP(12) if (result == kIgnoreAlways) {
          TF_STEP(13) StrRememberErrors_ += strLastError_;
          TF_STEP(14) result = kIgnoreOnce;
        }
        TF_END
      });
  return result;
}

void VbwProtector::NoteFailure(Utf16View procedure, const ActiveFailure& failure, bool asked,
                               std::int32_t answer) noexcept {
  if (!flight::Installed())
    return;
  flight::Answer how = handlerOutcome;
  if (!asked)
    how = budget.Spent() ? flight::Answer::kBudgetSpent : flight::Answer::kStackSpent;
  flight::NoteFailure(procedure, failure.line, failure.number, failure.description, how, answer);
}

Utf16String VbwProtector::hash(const Utf16String& ErrSource, std::int32_t errNumber,
                               std::int32_t errLine) {
  Utf16String key;
  Run(
      Trace(), kHash, NoParameters,
      [&](LocalReport& l) {
        l.Add(u"ErrSource", ErrSource);
        l.Add(u"errNumber", errNumber);
        l.Add(u"errLine", errLine);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1)
        key = Utf16String(1, u'\0') + ErrSource + u'\1' + DecimalText(errNumber) + u'\1' +
              DecimalText(errLine) + u'\0';
        TF_END
      });
  return key;
}

VariantBool VbwProtector::alwaysIgnore(const Utf16String& StrRememberErrors,
                                       const Utf16String& strLastError) {
  VariantBool result = kFalse;
  Run(
      Trace(), kAlwaysIgnore, NoParameters,
      [&](LocalReport& l) {
        l.Add(u"StrRememberErrors", StrRememberErrors);
        l.Add(u"strLastError", strLastError);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        // No key is empty, so an empty one (a first failure numbered -1) is never remembered.
        TF_STEP(1)
        result = ToVariantBool(!strLastError.empty() &&
                               StrRememberErrors.find(strLastError) != Utf16String::npos);
        TF_END
      });
  return result;
}

// --- Dump reports -------------------------------------------------------------------------------

bool VbwProtector::vbwOpenDumpFile() {
  bool opened = false;
  Run(Trace(), kOpenDumpFile, NoParameters, NoLocals, [&](Body& body) {
    TF_BEGIN(body)
    // A dump that the component has opened is owed its close.
    TF_STEP(1) {
      CallComponent(mErrorParams, u"vbwOpenDumpFile", CallKind::kMethod);
      opened = true;
    }
    TF_END
  });
  return opened;
}

void VbwProtector::vbwCloseDumpFile() {
  Run(Trace(), kCloseDumpFile, NoParameters, NoLocals, [&](Body& body) {
    TF_BEGIN(body)
    TF_STEP(1) CallComponent(mErrorParams, u"vbwCloseDumpFile", CallKind::kMethod);
    TF_END
  });
}

void VbwProtector::vbwReportToFile(const Utf16String& lText) {
  Run(Trace(), kReportToFile, NoParameters, NoLocals, [&](Body& body) {
    TF_BEGIN(body)
    TF_STEP(1) {
      Utf16String text = lText;
      CallComponent(mErrorParams, u"vbwReportToFile", CallKind::kMethod, Variant::ByRef(&text));
    }
    TF_END
  });
}

void VbwProtector::vbwReportVariable(Utf16View lName, const Variant& lValue, std::int32_t lTab) {
  Run(Trace(), kReportVariable, NoParameters, NoLocals, [&](Body& body) {
    TF_BEGIN(body)
    TF_PASS_OVER(1)
    TF_STEP(2) if (mErrorParams) {
      Utf16String name(lName);
      Variant value = lValue;
      std::int32_t tab = lTab;
      CallComponent(mErrorParams, u"vbwReportVariable", CallKind::kMethod, Variant::ByRef(&name),
                    Variant::ByRef(&value), Variant::ByRef(&tab));
    }
    TF_END
  });
}

void VbwProtector::vbwReportObject(const Utf16String& lName, const Ref<Object>& lObject,
                                   std::int32_t lTab) {
  Run(
      Trace(), kReportObject, NoParameters,
      [&](LocalReport& l) {
        l.Add(u"lName", lName);
        l.Add(u"lTab", lTab);
        l.Add(u"lObject", lObject);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) {
          Utf16String name = lName;
          Ref<Object> object = lObject;
          std::int32_t tab = lTab;
          CallComponent(mErrorParams, u"vbwReportObject", CallKind::kMethod, Variant::ByRef(&name),
                        Variant::ByRef(&object), Variant::ByRef(&tab));
        }
        TF_END
      });
}

void VbwProtector::vbwReportModuleVariables() {
  vbwReportVariable(u"mOldTraceProc", mOldTraceProc, 0);
  vbwReportVariable(u"vbwEmailRecipientAdress", vbwEmailRecipientAdress, 0);
  vbwReportVariable(u"vbwCatchException", vbwCatchException, 0);
  vbwReportVariable(u"vbwTraceLine", vbwTraceLine, 0);
  vbwReportVariable(u"vbwCallStack", vbwCallStack, 0);
  vbwReportVariable(u"vbwSystemInfo", vbwSystemInfo, 0);
  vbwReportVariable(u"vbwScreenshot", vbwScreenshot, 0);
  vbwReportVariable(u"mStackCalls", mStackCalls, 0);
  if (!budget.Spent()) {
    vbwReportVariable(
        u"mStack",
        Variant(VarType::VT_BSTR, mStackAllocated ? MakeArray(StackNames(), 1) : nullptr), 0);
  }
  vbwReportVariable(u"mErrorParams", Variant(mErrorParams), 0);
}

void VbwProtector::vbwReportGlobalVariables() {
  vbwReportVariable(u"vbwProtector.vbwTraceProc", vbwTraceProc, 0);
  vbwReportVariable(u"vbwProtector.vbwTraceParameters", vbwTraceParameters, 0);
  // The run time's objects are made only while their report can still reach the component: the
  // printer's name is a question to the spooler, and a failure deep in nested dumps may ask it
  // once for every dump.
  constexpr std::pair<const char16_t*, const char16_t*> kObjects[] = {{u"VB.App", u"App"},
                                                                      {u"Err", u"Err"},
                                                                      {u"VB.Screen", u"Screen"},
                                                                      {u"VB.Printer", u"Printer"}};
  for (const auto& [label, name] : kObjects) {
    if (!budget.Spent())
      vbwReportObject(label, RuntimeObject(name), 0);
  }
}

Ref<Object> VbwProtector::RuntimeObject(Utf16View name) {
  if (name == u"App")
    return MakeAppObject();
  if (name == u"Err") {
    return currentFailure_ == nullptr
               ? MakeErrObject(0, {}, 0)
               : MakeErrObject(currentFailure_->number, currentFailure_->description,
                               currentFailure_->line);
  }
  if (name == u"Screen")
    return MakeScreenObject(*platform().system);
  return MakePrinterObject(*platform().system);
}

// --- Tail bookkeeping ---------------------------------------------------------------------------

VbwProtector::TailScope::TailScope(VbwProtector& protector, ActiveFailure& failure) noexcept
    : protector_(protector), failure_(failure) {
  failure_.outer = protector_.currentFailure_;
  protector_.currentFailure_ = &failure_;
}

VbwProtector::TailScope::~TailScope() {
  protector_.currentFailure_ = failure_.outer;
}

}  // namespace tabforge
