// What one call from outside may spend: calls on collaborators (the host's objects, the error
// component, the accessibility tree, the message queue), the library's own time, and stack.
//
// Every bound of the failure path on its own (answers "retry" or "write a dump", failures inside
// failures, dumps whose reports fail) is finite, but their product is not: a component that dumps
// on every failure while each report fails makes a tree of calls that grows with every level. So
// the bound is on the whole outside call instead. Inside it every answer is carried out as given;
// once it is spent, no collaborator is called again, every such call fails at once, and a failure
// tail leaves its procedure as with no answer, so the outside call returns success with whatever
// it had assigned.
//
// The budget belongs to an apartment (one thread) and lives in its tracing module, which sets its
// limits. Only the module and those that open it name it: the runner of each procedure and each
// entry of the server, from the tracing module they hold (`Scope`). The outermost of them makes it
// the thread's running budget, and everything else reaches it that way alone (`Active()`): the
// counted seams, the calls by name and the object bridge, which charge it, and whatever asks what
// is left. A call back into the library from a collaborator opens it again and shares it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace tabforge {

class SystemFacts;

struct CallBudgetLimits {
  // Calls on collaborators in one outside call. Under Wine with its heap checks a call on a simple
  // recording component costs about a fifth of a millisecond all told, so this is about a second at
  // the very most, and a fraction of it with an instant one; a dump takes about forty calls, so a
  // failure may still be dumped and retried a hundred times over. The tab search over a ribbon of
  // ten thousand elements needs this much room: two thousand cut it short.
  int maxCollaboratorCalls = 5000;
  // Calls on the elements of an accessibility tree, counted apart: a walk of a ribbon of ten
  // thousand elements takes more than twenty thousand. The tab search's own time bounds them too.
  int maxTreeCalls = 100000;
  // The library's own time in one outside call, from its first collaborator call or failure on;
  // time spent inside collaborators is not counted (a macro may show a dialog for minutes).
  std::chrono::milliseconds maxOwnTime{250};
  // A call from outside that arrives while a collaborator runs (the host's own calls while a
  // component's dialog is up, or a collaborator calling back) gets the bounds above for itself,
  // so that it cannot spend the budget of the failure that waits for the dialog. All the calls
  // nested in one outermost call together may take this many times those bounds, except the calls
  // on the error component: those of the whole outermost call together stay within
  // `maxCollaboratorCalls`, and the library's own time, of which the whole may take twice one
  // call's, so that even a collaborator that calls back at every turn gets its answer within a
  // second or so.
  int nestedShare = 4;
  // Stack that nested procedures, failures inside failures and calls back into the library may
  // take below the outermost entry: a thread of a 32-bit host may have no more than 1 MB in all.
  // Past it a procedure is refused at entry; a failure tail may still ask the component within
  // `tailStackBytes` more, so that the refusal itself is reported.
  std::size_t maxStackBytes = 384 * 1024;
  std::size_t tailStackBytes = 64 * 1024;
  // Room kept free above the lowest address that the thread's stack can reach, whatever the host
  // used before it called: a procedure is refused within it, and a tail within all but
  // `tailStackBytes` of it, which leaves the rest to the component and the system.
  std::size_t stackReserveBytes = 256 * 1024;
};

class CallBudget {
 public:
  using Clock = std::chrono::steady_clock;

 private:
  // What one outside call, outermost or nested, has counted itself.
  struct Frame {
    int calls = 0;
    int treeCalls = 0;
    bool spent = false;
    bool clockStarted = false;
    Clock::time_point clockStart{};
    Clock::time_point collaboratorStart{};
    Clock::duration inCollaborators{};
    int collaboratorDepth = 0;
  };

 public:
  CallBudgetLimits limits;

  // The outermost procedure of an outside call opens the budget; procedures inside it nest.
  // `stackFloor` is the lowest address the thread's stack can reach, 0 when unknown.
  void Open(std::uintptr_t stackBase, std::uintptr_t stackFloor = 0) noexcept;
  void Close() noexcept;
  bool IsOpen() const noexcept { return openProcedures_ > 0; }

  // True once the outside call may call no collaborator again.
  bool Spent() noexcept;
  // True when the stack below the outermost entry, with `slack` more, is used up at `here`, or
  // the thread's own stack is within its reserve (less `slack`).
  bool StackExhausted(std::uintptr_t here, std::size_t slack = 0) const noexcept;

  // A collaborator call begins: false (and the budget spent) when it may not be made.
  bool BeginCollaboratorCall() noexcept;
  void EndCollaboratorCall() noexcept;

  // How many more calls on an accessibility tree the outside call may make.
  std::int64_t TreeCallsLeft() const noexcept;
  // The next collaborator call, and only that one, is a call on an accessibility tree.
  void NextCallIsOnTree(bool onTree) noexcept { treeNext_ = onTree; }
  // The next collaborator call, and only that one, is a call on the error component.
  void NextCallIsOnComponent(bool onComponent) noexcept { componentNext_ = onComponent; }
  // The next collaborator call, and only that one, is made even when the budget is spent: the
  // close of a dump whose opening reached the component.
  void AllowNextCallWhenSpent(bool allow) noexcept { closingNext_ = allow; }
  // Room for the close of a dump, kept from before its opening is asked until the close: other
  // calls may not take it, so that the close too stays within the calls on the component.
  void KeepRoomForClose() noexcept { ++closesKept_; }
  void ReleaseRoomForClose() noexcept { closesKept_ -= closesKept_ > 0 ? 1 : 0; }

  // The budget of the outside call running on this thread, or none outside any.
  static CallBudget* Active() noexcept;

  // One entry from outside: the outermost opens the budget (reading the thread's stack floor
  // only then), and one that arrives while a collaborator runs gets bounds of its own until it
  // returns. Every procedure and every entry of the server holds one for its length.
  class Scope {
   public:
    // `system` tells the thread's stack floor; none leaves only the bound below the entry.
    Scope(CallBudget* budget, std::uintptr_t here, const SystemFacts* system) noexcept;
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    CallBudget* budget_;
    bool nested_ = false;
    Frame interrupted_;  // what the call that this one interrupts had counted
    Clock::duration interruptedOwn_{};
  };

  // Work of the library's own done while a collaborator call is open (reading its answer): the
  // time counts as the library's, not the collaborator's.
  class OwnWork {
   public:
    OwnWork() noexcept;
    ~OwnWork();
    OwnWork(const OwnWork&) = delete;
    OwnWork& operator=(const OwnWork&) = delete;

   private:
    CallBudget* budget_;
    int depth_ = 0;
  };

 private:
  void StartClock() noexcept;
  Clock::duration OwnTime(Clock::time_point now) const noexcept;

  int openProcedures_ = 0;
  Frame frame_;
  // The whole outermost call, nested calls included.
  int totalCalls_ = 0;
  int totalTreeCalls_ = 0;
  int totalComponentCalls_ = 0;
  // The library's own time in nested calls that have returned, and in the calls that the running
  // one interrupts, up to their interruption.
  Clock::duration nestedOwnTime_{};
  Clock::duration interruptedOwnTime_{};
  bool treeNext_ = false;
  bool componentNext_ = false;
  bool closingNext_ = false;
  int closesKept_ = 0;
  std::uintptr_t stackBase_ = 0;
  std::uintptr_t stackFloor_ = 0;
  CallBudget* outer_ = nullptr;
};

// Marks a call on a collaborator for the budget of the running outside call: throws the failure
// "Can't perform requested operation" instead when the budget is spent. Outside any outside call
// (a test driving a procedure directly) nothing is counted.
class CollaboratorCall {
 public:
  CollaboratorCall();
  ~CollaboratorCall();
  CollaboratorCall(const CollaboratorCall&) = delete;
  CollaboratorCall& operator=(const CollaboratorCall&) = delete;

 private:
  CallBudget* budget_;
};

// Marks the collaborator call made next, in its scope, as one of a kind that the budget counts
// apart; calls that the collaborator's own code makes meanwhile count as usual.
template <void (CallBudget::*mark)(bool) noexcept>
class NextCallMark {
 public:
  NextCallMark() : budget_(CallBudget::Active()) {
    if (budget_ != nullptr)
      (budget_->*mark)(true);
  }
  ~NextCallMark() {
    if (budget_ != nullptr)
      (budget_->*mark)(false);
  }
  NextCallMark(const NextCallMark&) = delete;
  NextCallMark& operator=(const NextCallMark&) = delete;

 private:
  CallBudget* budget_;
};

// A call on an element of an accessibility tree, and one on the error component.
using TreeCall = NextCallMark<&CallBudget::NextCallIsOnTree>;
using ComponentCall = NextCallMark<&CallBudget::NextCallIsOnComponent>;

// The address of the caller's frame, for the stack bound.
#define TABFORGE_STACK_HERE() (reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)))

}  // namespace tabforge
