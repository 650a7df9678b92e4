// The pieces of the one mechanism that runs every instrumented procedure (tracing/run.h runs it):
// entry and exit tracking, the three failure modes, statement-level retry and continue, and the
// failure tail.
//
// A procedure body is written as its list of statements, each behind TF_STEP with its number in
// text order. The body is a switch over the statement to start at, so that after a failure the
// runner can start the body again at the failing statement (retry) or at the next one in text
// order (continue, pass-over) - also when that statement sits inside a branch or a loop whose head
// failed. Locals therefore live outside the body lambda, and every statement that leaves the
// procedure (a `return`) is a statement of its own. A change of failure mode is a numbered
// statement too (TF_PASS_OVER, TF_EXIT_ON_FAILURE), so no resume point lies behind a change that
// has not run.
//
//   std::int16_t id = 0;
//   VariantBool result = kFalse;
//   tracing::Run(Trace(), kGetEnabled,
//       [&](tracing::ParameterText& p) { p.Add(u"idStr", idStr); },
//       [&](tracing::LocalReport& l) { l.Add(u"idStr", idStr); l.Add(u"id", id); },
//       [&](tracing::Body& body) {
//         TF_BEGIN(body)
//         TF_STEP(1) id = ...;
//         TF_STEP(2) if (id == 19) {
//           TF_STEP(3) result = kTrue;
//           TF_STEP(4) return;
//         }
//         TF_END
//       });
#pragma once

#include <cstdint>
#include <limits>

#include "platform/failure.h"
#include "platform/utf16.h"
#include "tracing/function_ref.h"
#include "tracing/report_values.h"

namespace tabforge {
class VbwProtector;
}

namespace tabforge::tracing {

// How a procedure is instrumented.
enum class Instrumentation : std::uint8_t {
  // Entry and exit tracking, parameter text, the usual failure tail.
  kTracked,
  // The tracing module's own procedures: no tracking; the tail reports the tracing module.
  kUntracked,
  // As kUntracked, but an answer "write a dump" writes none (the report procedure that the dump
  // itself is made of).
  kUntrackedNoDump,
};

struct ProcedureInfo {
  Utf16View qualifiedName;  // module, point, procedure, as in "Main2.GetEnabled[Get]"
  Utf16View module;         // the half before the first point
  Utf16View procedure;      // the half behind it, with its accessor suffix
  std::int32_t firstLine;   // a failing statement reports firstLine + its number
  Instrumentation form;
};

constexpr ProcedureInfo DefineProcedure(Utf16View qualifiedName, std::int32_t firstLine,
                                        Instrumentation form = Instrumentation::kTracked) {
  const auto point = qualifiedName.find(u'.');
  return {qualifiedName, qualifiedName.substr(0, point), qualifiedName.substr(point + 1), firstLine,
          form};
}

enum class FailureMode : std::uint8_t { kArmed, kPassOver, kGoTo };

// Lets a test make any statement fail without touching the procedure.
class FaultInjector {
 public:
  virtual ~FaultInjector() = default;
  // Called before each statement runs, with the failure mode that will deal with a failure of it;
  // throws `Failure` to make that statement fail.
  virtual void OnStatement(const ProcedureInfo& procedure, int step, FailureMode mode) = 0;
};

// The resume point that runs no statement: the body's end, where the last exit is.
inline constexpr int kEndOfBody = std::numeric_limits<int>::max();

// The running body's view of the runner: where to start, which statement runs, which mode holds.
class Body {
 public:
  int Resume() const noexcept { return resume_; }

  // Records that statement `step` starts. The fault injector may make it fail here.
  void At(int step) {
    step_ = step;
    lastInLoop_ = false;
    if (injector_ != nullptr) [[unlikely]] {
      injector_->OnStatement(*info_, step, mode_);
    }
  }
  // As `At`, for the last statement in the text of a loop's body: the statement after it in text
  // order is the loop's end, which goes round again, not the statement behind the loop.
  void AtLastInLoop(int step) {
    step_ = step;
    lastInLoop_ = true;
    if (injector_ != nullptr) [[unlikely]] {
      injector_->OnStatement(*info_, step, mode_);
    }
  }

  // Statement `step` changes the failure mode; reached only through TF_PASS_OVER and
  // TF_EXIT_ON_FAILURE. In kGoTo a failing statement goes on at `target` without the tail.
  void ChangeMode(int step, FailureMode mode, int target = kEndOfBody) noexcept {
    step_ = step;
    lastInLoop_ = false;
    mode_ = mode;
    target_ = target;
  }

  FailureMode mode() const noexcept { return mode_; }
  int step() const noexcept { return step_; }
  // Where a continue or a pass-over after the running statement goes on: the next statement in
  // text order, or the end of the loop whose body the statement closes.
  int Next() const noexcept { return lastInLoop_ ? LoopEnd(step_) : step_ + 1; }

  // The resume point at the end of the loop whose body statement `last` closes.
  static constexpr int LoopEnd(int last) noexcept { return -last; }

 private:
  friend class Frame;
  const ProcedureInfo* info_ = nullptr;
  FaultInjector* injector_ = nullptr;
  int resume_ = 0;
  int step_ = 0;
  int target_ = kEndOfBody;
  FailureMode mode_ = FailureMode::kArmed;
  bool lastInLoop_ = false;
};

// The tracing context of a module: its apartment's protector and its module-variable report, which
// is the member `vbwReportModuleVariables` of the module's object (given the protector when it
// takes one: a module of plain procedures has no object of its own to hold it).
class Module {
 public:
  template <class Owner>
  Module(VbwProtector& protector, Owner& owner) noexcept
      : protector_(&protector),
        // Erased here and restored with its own constness by the reporter below.
        owner_(const_cast<void*>(static_cast<const void*>(&owner))),
        report_([](void* self, VbwProtector& p) {
          Owner& module = *static_cast<Owner*>(self);
          if constexpr (requires { module.vbwReportModuleVariables(p); })
            module.vbwReportModuleVariables(p);
          else
            module.vbwReportModuleVariables();
        }) {}

  VbwProtector& protector() const noexcept { return *protector_; }
  void ReportModuleVariables() const { report_(owner_, *protector_); }

 private:
  VbwProtector* protector_;
  void* owner_;
  void (*report_)(void* owner, VbwProtector& protector);
};

// Builds a procedure's parameter text; only asked for when parameter tracing is on.
class ParameterText {
 public:
  explicit ParameterText(VbwProtector& protector) noexcept : protector_(protector) {}

  template <class T>
  void Add(Utf16View name, const T& value) {
    AddPiece(name, ToVariant(value));
  }
  // A record contributes its name and a fixed text; no value is read.
  void AddRecord(Utf16View name);
  // "()" without parameters, else "(" pieces joined by ", " and ") ".
  Utf16String Finish() &&;

 private:
  void AddPiece(Utf16View name, const Variant& value);
  void Separate();
  VbwProtector& protector_;
  Utf16String text_;
  bool any_ = false;
};

// Sends a procedure's local list to the dump.
class LocalReport {
 public:
  explicit LocalReport(VbwProtector& protector) noexcept : protector_(protector) {}

  template <class T>
  void Add(Utf16View name, const T& value) {
    AddVariable(name, ToVariant(value));
  }
  // A record goes through its record type's own report procedure.
  void AddRecord(FunctionRef<void()> reportRecord) { reportRecord(); }
  // A fixed text, sent as it stands.
  void AddText(Utf16View text);

 private:
  void AddVariable(Utf16View name, const Variant& value);
  VbwProtector& protector_;
};

using ParameterList = FunctionRef<void(ParameterText&)>;
using LocalList = FunctionRef<void(LocalReport&)>;

// For procedures without parameters or locals.
inline constexpr auto NoParameters = [](ParameterText&) {};
inline constexpr auto NoLocals = [](LocalReport&) {};

}  // namespace tabforge::tracing

// The statement switch. TF_BEGIN opens it on the body's resume point, TF_STEP(n) marks statement n
// (numbered from 1 in text order, without gaps), TF_END closes it.
#define TF_BEGIN(body)                          \
  ::tabforge::tracing::Body& tf_body_ = (body); \
  switch (tf_body_.Resume()) {                  \
    case 0:
#define TF_STEP(n) \
  [[fallthrough]]; \
  case n:          \
    tf_body_.At(n);
#define TF_END     \
  [[fallthrough]]; \
  default:         \
    break;         \
    }
// The last statement in the text of a loop's body, and the loop's end, which closes that body just
// before its brace: a statement that fails there and is continued or passed over goes on at the
// loop's end, and so round the loop again, as the next statement in the procedure's text would.
//   TF_STEP(3) for (ndx = 0; ndx < keys.size(); ++ndx) {
//     TF_STEP(4) id = At(keys, ndx);
//     TF_LAST_IN_LOOP(5) Invalidate(id);
//     TF_LOOP_END(5)
//   }
#define TF_LAST_IN_LOOP(n) \
  [[fallthrough]];         \
  case n:                  \
    tf_body_.AtLastInLoop(n);
#define TF_LOOP_END(n) \
  [[fallthrough]];     \
  case ::tabforge::tracing::Body::LoopEnd(n):;
// A change of failure mode is a statement of its own, numbered in text order like the others, so
// that a continue or a pass-over after the statement before it lands on the change and never
// skips it. It cannot fail. TF_PASS_OVER: failing statements from here on are given up and the
// next one runs. TF_EXIT_ON_FAILURE: a failing statement from here on leaves through the last
// exit, without the tail.
#define TF_PASS_OVER(n) \
  [[fallthrough]];      \
  case n:               \
    tf_body_.ChangeMode(n, ::tabforge::tracing::FailureMode::kPassOver);
#define TF_EXIT_ON_FAILURE(n) \
  [[fallthrough]];            \
  case n:                     \
    tf_body_.ChangeMode(n, ::tabforge::tracing::FailureMode::kGoTo);
