// Runs instrumented procedures; see tracing/procedure.h for how a body is written.
#pragma once

#include "tracing/procedure.h"
#include "tracing/vbw_protector.h"

namespace tabforge::tracing {

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

  // Entry: arms the tail, then tracks the entry behind the trace switches.
  void Enter(ParameterList parameters) {
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
      Raise(RunTimeError::kOutOfStackSpace);
    }
    if (info_.form != Instrumentation::kTracked || !IsTrue(protector_.vbwTraceProc))
      return;
    // A refused entry counts nothing and has no exit to balance, so a retry of it, however often
    // it is answered, leaves the depth as it was.
    if (protector_.Depth() >= protector_.limits.maxNestedProcedures) [[unlikely]] {
      Raise(RunTimeError::kOutOfStackSpace);
    }
    if (IsTrue(protector_.vbwTraceParameters)) [[unlikely]] {
      EnterWithParameterText(parameters);
    } else {
      protector_.vbwProcIn(info_.qualifiedName, {});
    }
    tracked_ = true;
  }

  // Deals with the failure in flight by the current mode; true when the body is to run again
  // from `body().Resume()`, false when the procedure leaves.
  bool Recover(LocalList locals) noexcept;

  // The last exit: exit tracking, for an entry that was tracked.
  void Leave() noexcept {
    if (tracked_)
      protector_.vbwProcOut(info_.qualifiedName);
  }

 private:
  enum class Resolution { kRetry, kContinue, kLeave };
  void EnterWithParameterText(ParameterList parameters);
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
    try {
      if (!frame.entered())
        frame.Enter(parameters);
      statements(frame.body());
      break;
    } catch (...) {
      if (!frame.Recover(locals))
        break;
    }
  }
  frame.Leave();
}

}  // namespace tabforge::tracing
