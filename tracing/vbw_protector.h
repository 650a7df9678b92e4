// The tracing module of one apartment: trace switches, the procedure stack, the failure handler
// with its error component, and the reports that make up a dump. One instance exists per
// apartment; every object created in that apartment holds a reference to it.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "platform/flight_events.h"
#include "platform/object.h"
#include "platform/platform.h"
#include "platform/utf16.h"
#include "platform/variant.h"
#include "platform/variant_bool.h"
#include "tracing/call_budget.h"
#include "tracing/counted_platform.h"
#include "tracing/procedure.h"

namespace tabforge {

inline constexpr Utf16View kProjectName = u"Tabforge";
inline constexpr Utf16View kErrorComponentProgId = u"MorvelinError.Main2";
inline constexpr Utf16View kSupportMailbox = u"support@morvelin.com";

// The tracing request: kTraceSwitch anywhere in the host's command line, or kTraceOn exactly in
// the per-user setting kTraceKey of section kTraceSection, under the application kProjectName.
inline constexpr Utf16View kTraceSwitch = u"/trace";
inline constexpr Utf16View kTraceSection = u"Init";
inline constexpr Utf16View kTraceKey = u"vbwTrace";
inline constexpr Utf16View kTraceOn = u"1";

// Banners of the three dump sections, each with its own line ends.
inline constexpr Utf16View kLocalBanner =
    u"\r\n**************************\r\n* LOCAL LEVEL VARIABLES  *\r\n"
    u"**************************\r\n";
inline constexpr Utf16View kModuleBanner =
    u"\r\n**************************\r\n* MODULE LEVEL VARIABLES *\r\n"
    u"**************************\r\n";
inline constexpr Utf16View kGlobalBanner =
    u"\r\n**************************\r\n* GLOBAL LEVEL VARIABLES *\r\n"
    u"**************************\r\n";

// Handler results and what a failure tail does with them.
enum HandlerResult : std::int32_t {
  kEndThread = 3,
  kRetry = 4,
  kIgnoreOnce = 5,
  kIgnoreAlways = 6,
  kLeave = 7,
  kWriteDump = 8,
};

// Bounds that keep a misbehaving error component or host from hanging or overflowing the host.
// Whatever the failure path does is bounded by the budget of the outside call
// (tracing/call_budget.h); this is the one bound of its own that tracking keeps.
struct ProtectorLimits {
  // Tracked procedures active at once. A call back into the library that never stops (a macro
  // that presses its own button) would otherwise end in a stack overflow; a procedure entered
  // deeper than this fails at entry with "Out of stack space", as the run time would, and that
  // failure goes through the procedure's tail like any other.
  int maxNestedProcedures = 512;
};

class VbwProtector {
 public:
  static constexpr int kStackSlots = 64;

  explicit VbwProtector(const Platform& platform);
  ~VbwProtector();
  VbwProtector(const VbwProtector&) = delete;
  VbwProtector& operator=(const VbwProtector&) = delete;

  // The apartment's platform as the core is to call it: every call on a collaborator through it
  // is charged to the running outside call's budget (tracing/counted_platform.h).
  const Platform& platform() const noexcept { return platform_.View(); }

  // --- Start-up and switches -------------------------------------------------------------------

  // Sets the switches from the tracing request and allocates the stack. Runs once per apartment,
  // before the first object of the library exists there.
  void vbwInitializeProtector();
  // Asks the error component to end the thread, then lets go of it.
  void vbwExitThread();
  // True when "/trace" is on the command line or the settings say "1".
  bool TracingRequested();

  // The switches are module variables; the error component receives them by reference and may
  // change them.
  VariantBool vbwTraceProc = kFalse;
  VariantBool vbwTraceParameters = kFalse;
  VariantBool mOldTraceProc = kFalse;
  VariantBool vbwTraceLine = kFalse;
  VariantBool vbwCatchException = kFalse;
  VariantBool vbwCallStack = kFalse;
  VariantBool vbwSystemInfo = kFalse;
  VariantBool vbwScreenshot = kFalse;
  Utf16String vbwEmailRecipientAdress;

  // --- Procedure tracking ----------------------------------------------------------------------

  // Tracking a call copies no text and allocates nothing: the stack keeps a view of the caller's
  // name, which is one of the procedures' own constants.
  void vbwProcIn(Utf16View lProc, Utf16View lParameters) {
    if (injector_ == nullptr && mStackCalls >= 0 && mStackCalls < 32767) [[likely]] {
      // Depths past the last slot are counted without a name, as a failed store passed over.
      if (mStackAllocated && mStackCalls < kStackSlots) {
        mStack[static_cast<std::size_t>(mStackCalls)] = lProc;
      }
      ++mStackCalls;
      return;
    }
    InstrumentedProcIn(lProc, lParameters);
  }
  void vbwProcOut(Utf16View) noexcept {
    if (mStackCalls > 0)
      --mStackCalls;
  }
  Utf16String vbwReportParameter(Utf16View lName, const Variant& lValue);

  std::int16_t Depth() const noexcept { return mStackCalls; }
  bool StackAllocated() const noexcept { return mStackAllocated; }
  // The name in slot `k`, 1 to 64; empty for a slot never written.
  Utf16View StackSlot(int k) const noexcept;

  // --- Failure handling ------------------------------------------------------------------------

  std::int32_t vbwErrorHandler(std::int32_t errNumber, Utf16String ErrDescription,
                               Utf16String ErrProject, Utf16String ErrSource,
                               Utf16String ErrProcedure, std::int32_t errLine);
  Utf16String hash(const Utf16String& ErrSource, std::int32_t errNumber, std::int32_t errLine);
  VariantBool alwaysIgnore(const Utf16String& StrRememberErrors, const Utf16String& strLastError);

  // How the last question to the handler ended, for the flight log.
  flight::Answer handlerOutcome = flight::Answer::kNoComponent;

  const Ref<Object>& ErrorComponent() const noexcept { return mErrorParams; }
  void ReleaseErrorComponent() noexcept { mErrorParams.reset(); }
  // Gives the component back for one more call: the close of the dump it opened, after a tail
  // inside the dump has let it go.
  void RestoreErrorComponent(Ref<Object> component) noexcept {
    if (!mErrorParams)
      mErrorParams = std::move(component);
  }
  const Utf16String& RememberedErrors() const noexcept { return StrRememberErrors_; }
  const Utf16String& LastError() const noexcept { return strLastError_; }

  // --- Dump reports ----------------------------------------------------------------------------

  // True when the component opened its dump.
  bool vbwOpenDumpFile();
  void vbwCloseDumpFile();
  void vbwReportToFile(const Utf16String& lText);
  void vbwReportVariable(Utf16View lName, const Variant& lValue, std::int32_t lTab);
  void vbwReportObject(const Utf16String& lName, const Ref<Object>& lObject, std::int32_t lTab);
  void vbwReportModuleVariables();
  void vbwReportGlobalVariables();

  // --- For the runner and the tests ------------------------------------------------------------

  tracing::Module Trace() noexcept;
  void SetFaultInjector(tracing::FaultInjector* injector) noexcept { injector_ = injector; }
  tracing::FaultInjector* faultInjector() const noexcept { return injector_; }
  ProtectorLimits limits;
  // What one outside call may spend; its outermost procedure opens it, and from then on it is the
  // thread's running budget, which is how the rest of the library reaches it (CallBudget::Active).
  CallBudget budget;

  // The failure that the innermost active tail handles; the dump's "Err" object describes it.
  struct ActiveFailure {
    std::int32_t number = 0;
    Utf16View description;
    std::int32_t line = 0;
    const ActiveFailure* outer = nullptr;
  };
  // Writes a tail's failure to the flight log, with the handler's answer when it was `asked`.
  void NoteFailure(Utf16View procedure, const ActiveFailure& failure, bool asked,
                   std::int32_t answer) noexcept;
  // Tail bookkeeping; a tail opens a scope for the failure it handles.
  class TailScope {
   public:
    TailScope(VbwProtector& protector, ActiveFailure& failure) noexcept;
    ~TailScope();
    TailScope(const TailScope&) = delete;
    TailScope& operator=(const TailScope&) = delete;

   private:
    VbwProtector& protector_;
    ActiveFailure& failure_;
  };

 private:
  // The names of the 64 slots; none for a stack that was never allocated.
  std::vector<Utf16String> StackNames() const;
  // Takes back the stack that the component received by reference: the slots it changed from
  // `handed` hold its names from now on, and an array it erased is no stack.
  void AdoptStack(const ArrayRef& stack, const std::vector<Utf16String>& handed);
  // vbwProcIn in full, with its failure tail: for the cases where a statement can fail.
  void InstrumentedProcIn(Utf16View lProc, Utf16View lParameters);
  Ref<Object> RuntimeObject(Utf16View name);

  const CountedPlatform platform_;
  std::int16_t mStackCalls = 0;
  std::array<Utf16View, kStackSlots> mStack{};
  bool mStackAllocated = false;
  // Names that the error component wrote into the stack; slots that hold them view them here.
  std::array<Utf16String, kStackSlots> writtenNames_{};

  // The handler's own variables, kept between its calls.
  Utf16String StrRememberErrors_;
  Utf16String strLastError_;
  Ref<Object> mErrorParams;

  tracing::FaultInjector* injector_ = nullptr;
  const ActiveFailure* currentFailure_ = nullptr;
};

}  // namespace tabforge
