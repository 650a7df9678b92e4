// Runs instrumented procedures; see tracing/procedure.h for how a body is written.
#pragma once

#include "tracing/procedure.h"
#include "tracing/vbw_protector.h"

namespace tabforge::tracing {

// The failure in flight, whatever was thrown: the core throws `Failure`, and anything else that
// reaches the runner becomes a failure too, so that nothing leaves a procedure as an exception.
Failure CurrentFailure() noexcept;

// Runner state of one run of one procedure.
class Frame {
 public:
  Frame(const Module& module, const ProcedureInfo& info) noexcept
      : module_(module),
        protector_(module.protector()),
        budget_(&protector_.budget, TABFORGE_STACK_HERE(), protector_.platform().system),
        info_(info) {
    body_.info_ = &info;
    body_.injector_ = protector_.faultInjector();
  }
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;

  Body& body() noexcept { return body_; }
  bool entered() const noexcept { return entered_; }

  // Entry: arms the tail, then tracks the entry behind the trace switches. False, with the
  // failure in `refused`, when the entry is refused: that is said without an exception, since a
  // host deep in its stack may have every report of a dump refused, and each throw costs more
  // than the rest of the refusal together.
  bool Enter(ParameterList parameters, Failure& refused) {
    entered_ = true;
    body_.mode_ = FailureMode::kArmed;
    body_.step_ = 0;
    // Calls back into the library from a collaborator, or failures inside failures, nest on the
    // host's stack; past the bound a procedure fails at entry as the run time would. The tracing
    // module's own procedures have the tails' slack beyond it, so that such a refusal can still be
    // reported.
    const std::size_t slack =
        info_.form == Instrumentation::kTracked ? 0 : protector_.budget.limits.tailStackBytes;
    if (protector_.budget.StackExhausted(TABFORGE_STACK_HERE(), slack)) [[unlikely]] {
      return Refuse(refused);
    }
    if (info_.form != Instrumentation::kTracked || !IsTrue(protector_.vbwTraceProc))
      return true;
    // A refused entry counts nothing and has no exit to balance, so a retry of it, however often
    // it is answered, leaves the depth as it was.
    if (protector_.Depth() >= protector_.limits.maxNestedProcedures) [[unlikely]] {
      return Refuse(refused);
    }
    if (IsTrue(protector_.vbwTraceParameters)) [[unlikely]] {
      EnterWithParameterText(parameters);
    } else {
      protector_.vbwProcIn(info_.qualifiedName, {});
    }
    tracked_ = true;
    return true;
  }

  // Deals with `failure` by the current mode; true when the body is to run again from
  // `body().Resume()`, false when the procedure leaves.
  bool Recover(const Failure& failure, LocalList locals) noexcept;

  // The last exit: exit tracking, for an entry that was tracked.
  void Leave() noexcept {
    if (tracked_)
      protector_.vbwProcOut(info_.qualifiedName);
  }

 private:
  enum class Resolution { kRetry, kContinue, kLeave };
  void EnterWithParameterText(ParameterList parameters);
  static bool Refuse(Failure& refused);
  Resolution Tail(const Failure& failure, LocalList locals) noexcept;
  void DumpStep(LocalList locals) noexcept;

  Module module_;
  VbwProtector& protector_;
  CallBudget::Scope budget_;
  const ProcedureInfo& info_;
  Body body_;
  bool entered_ = false;
  bool tracked_ = false;
};

// Runs one instrumented procedure. `parameters` and `locals` are only called when parameter
// tracing is on or a dump is written, so a failure-free run builds neither.
template <class Parameters, class Locals, class Statements>
void Run(const Module& module, const ProcedureInfo& info, Parameters&& parameters, Locals&& locals,
         Statements&& statements) noexcept {
  Frame frame(module, info);
  for (;;) {
    // The failure is caught by its type, not read back by throwing it again: a failure costs
    // one throw.
    Failure failure;
    try {
      if (frame.entered() || frame.Enter(parameters, failure)) {
        statements(frame.body());
        break;
      }
    } catch (Failure& thrown) {
      failure = std::move(thrown);
    } catch (...) {
      failure = CurrentFailure();
    }
    if (!frame.Recover(failure, locals))
      break;
  }
  frame.Leave();
}

}  // namespace tabforge::tracing
