#include "tracing/run.h"

#include <new>
#include <utility>

#include "tracing/vbw_protector.h"

namespace tabforge::tracing {
namespace {

// The failure in flight, whatever was thrown: the core throws `Failure`, and anything else that
// reaches the runner becomes a failure too, so that nothing leaves a procedure as an exception.
Failure CurrentFailure() noexcept {
  try {
    throw;
  } catch (const Failure& failure) {
    return failure;
  } catch (const std::bad_alloc&) {
    return Failure{static_cast<std::int32_t>(RunTimeError::kOutOfMemory), {}};
  } catch (...) {
    return Failure{static_cast<std::int32_t>(RunTimeError::kInternalError), {}};
  }
}

}  // namespace

void ParameterText::Separate() {
  text_ += any_ ? u", " : u"(";
  any_ = true;
}

void ParameterText::AddPiece(Utf16View name, const Variant& value) {
  Separate();
  text_ += protector_.vbwReportParameter(name, value);
}

void ParameterText::AddRecord(Utf16View name) {
  Separate();
  text_ += name;
  text_ += u" = {User Defined Type}";
}

Utf16String ParameterText::Finish() && {
  if (!any_)
    return u"()";
  text_ += u") ";
  return std::move(text_);
}

void LocalReport::AddVariable(Utf16View name, const Variant& value) {
  if (!protector_.budget.Spent())
    protector_.vbwReportVariable(name, value, 0);
}

void LocalReport::AddText(Utf16View text) {
  protector_.vbwReportToFile(Utf16String(text));
}

void Frame::EnterWithParameterText(ParameterList parameters) {
  ParameterText text(protector_);
  parameters(text);
  protector_.vbwProcIn(info_.qualifiedName, std::move(text).Finish());
}

bool Frame::Recover(LocalList locals) noexcept {
  const Failure failure = CurrentFailure();
  switch (body_.mode_) {
    case FailureMode::kPassOver:
      body_.resume_ = body_.Next();
      return true;
    case FailureMode::kGoTo:
      // A failure at or behind the target would come back to it for ever: leave instead.
      body_.resume_ = body_.step_ < body_.target_ ? body_.target_ : kEndOfBody;
      return true;
    case FailureMode::kArmed:
      break;
  }
  switch (Tail(failure, locals)) {
    case Resolution::kRetry:
      body_.resume_ = body_.step_;
      entered_ = body_.step_ != 0;  // a failed entry is entered again
      return true;
    case Resolution::kContinue:
      body_.resume_ = body_.Next();
      return true;
    case Resolution::kLeave:
      break;
  }
  return false;
}

Frame::Resolution Frame::Tail(const Failure& failure, LocalList locals) noexcept {
  VbwProtector& protector = protector_;
  VbwProtector::ActiveFailure active{failure.number, failure.description,
                                     info_.firstLine + body_.step_};
  VbwProtector::TailScope scope(protector, active);
  // However the tail ends, the component that answered it is let go, also when the budget ends it
  // after an answer that had kept the component: the next failure creates and starts a new one. A
  // tail that may not ask leaves the component to the tails that did.
  struct LetGo {
    VbwProtector& protector;
    bool asked = false;
    ~LetGo() {
      if (asked)
        protector.ReleaseErrorComponent();
    }
  } letGo{protector};
  try {
    for (;;) {
      // Once the outside call's budget is spent, or the stack is, a tail gets no answer, as if no
      // component could be created, and its procedure leaves.
      const bool mayAsk = !protector.budget.Spent() &&
                          !protector.budget.StackExhausted(TABFORGE_STACK_HERE(),
                                                           protector.budget.limits.tailStackBytes);
      letGo.asked = letGo.asked || mayAsk;
      const std::int32_t result =
          mayAsk ? protector.vbwErrorHandler(active.number, failure.description,
                                             Utf16String(kProjectName), Utf16String(info_.module),
                                             Utf16String(info_.procedure), active.line)
                 : 0;
      protector.NoteFailure(info_.qualifiedName, active, mayAsk, result);
      switch (result) {
        case kEndThread:
          protector.vbwExitThread();
          return Resolution::kLeave;
        case kRetry:
          return Resolution::kRetry;
        case kIgnoreOnce:
          return Resolution::kContinue;
        case kWriteDump:
          if (info_.form != Instrumentation::kUntrackedNoDump)
            DumpStep(locals);
          // From here the failure is numbered -1, for the handler and for a later dump's "Err".
          active.number = -1;
          break;
        default:
          return Resolution::kLeave;
      }
    }
  } catch (...) {
    // Only running out of memory gets here; the procedure leaves as with no answer.
    return Resolution::kLeave;
  }
}

// Each section starts with its banner, written here so that no module's report has to.
void Frame::DumpStep(LocalList locals) noexcept {
  VbwProtector& protector = protector_;
  // The close's call is kept before the opening is asked, so that an opening that the budget
  // allows always leaves room for its close.
  protector.budget.KeepRoomForClose();
  const bool opened = protector.vbwOpenDumpFile();
  if (!opened)
    protector.budget.ReleaseRoomForClose();
  const Ref<Object> opener = opened ? protector.ErrorComponent() : nullptr;
  // The reports of a section have no failure handling of their own. A failure in one (a platform
  // object that the machine lacks, say) costs the rest of that section; the dump goes on with the
  // next section and is always closed, so the component is never left with an open file. Once the
  // outside call's budget is spent no report can reach the component and each would fail unheard,
  // so the sections left are left out, at every level of dumps nested in failures, and only the
  // close is made.
  const auto section = [&](Utf16View banner, FunctionRef<void()> reports) {
    if (protector.budget.Spent())
      return;
    protector.vbwReportToFile(Utf16String(banner));
    try {
      reports();
    } catch (...) {
    }
  };
  section(kLocalBanner, [&] {
    LocalReport report(protector);
    locals(report);
  });
  section(kModuleBanner, [&] { module_.ReportModuleVariables(); });
  section(kGlobalBanner, [&] { protector.vbwReportGlobalVariables(); });
  // A dump that the component opened is closed even when the budget ran out while it was written:
  // the one call the spent budget still allows.
  // The close goes to the component that opened the dump, also when a failing report's tail has
  // let it go meanwhile.
  if (opened) {
    protector.budget.ReleaseRoomForClose();
    protector.RestoreErrorComponent(opener);
  }
  protector.budget.AllowNextCallWhenSpent(opened);
  protector.vbwCloseDumpFile();
  protector.budget.AllowNextCallWhenSpent(false);
}

}  // namespace tabforge::tracing
