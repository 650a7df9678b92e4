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
// The budget belongs to an apartment (one thread); the outermost procedure of an outside call opens
// it and a call back into the library from a collaborator shares it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace tabforge {

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
  // Stack that nested procedures, failures inside failures and calls back into the library may
  // take below the outermost procedure: a thread of a 32-bit host may have no more than 1 MB in
  // all. Past it a procedure is refused at entry; a failure tail may still ask the component
  // within `tailStackBytes` more, so that the refusal itself is reported.
  std::size_t maxStackBytes = 384 * 1024;
  std::size_t tailStackBytes = 64 * 1024;
};

class CallBudget {
 public:
  using Clock = std::chrono::steady_clock;

  CallBudgetLimits limits;

  // The outermost procedure of an outside call opens the budget; procedures inside it nest.
  void Open(std::uintptr_t stackBase) noexcept;
  void Close() noexcept;
  bool IsOpen() const noexcept { return openProcedures_ > 0; }

  // True once the outside call may call no collaborator again.
  bool Spent() noexcept;
  // True when the stack below the outermost procedure, with `slack` more, is used up at `here`.
  bool StackExhausted(std::uintptr_t here, std::size_t slack = 0) const noexcept;

  // A collaborator call begins: false (and the budget spent) when it may not be made.
  bool BeginCollaboratorCall() noexcept;
  void EndCollaboratorCall() noexcept;

  int CollaboratorCalls() const noexcept { return calls_; }
  // The next collaborator call, and only that one, is a call on an accessibility tree.
  void NextCallIsOnTree(bool onTree) noexcept { treeNext_ = onTree; }

  // The budget of the outside call running on this thread, or none outside any.
  static CallBudget* Active() noexcept;

 private:
  void StartClock() noexcept;

  int openProcedures_ = 0;
  int calls_ = 0;
  int treeCalls_ = 0;
  bool treeNext_ = false;
  int collaboratorDepth_ = 0;
  bool spent_ = false;
  bool clockStarted_ = false;
  Clock::time_point clockStart_{};
  Clock::time_point collaboratorStart_{};
  Clock::duration inCollaborators_{};
  std::uintptr_t stackBase_ = 0;
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

// Marks the collaborator call made next, in its scope, as one on an accessibility tree; calls that
// the element's own code makes meanwhile count as usual.
class TreeCall {
 public:
  TreeCall() : budget_(CallBudget::Active()) {
    if (budget_ != nullptr)
      budget_->NextCallIsOnTree(true);
  }
  ~TreeCall() {
    if (budget_ != nullptr)
      budget_->NextCallIsOnTree(false);
  }
  TreeCall(const TreeCall&) = delete;
  TreeCall& operator=(const TreeCall&) = delete;

 private:
  CallBudget* budget_;
};

// The address of the caller's frame, for the stack bound.
#define TABFORGE_STACK_HERE() (reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)))

}  // namespace tabforge
