#include "tracing/call_budget.h"

#include <algorithm>
#include <utility>

#include "platform/failure.h"
#include "platform/platform.h"

namespace tabforge {
namespace {

// The budget of the outside call that runs on this thread. A plain pointer that each outermost
// entry sets and puts back as it returns, so nothing of it is left for the thread's end to clear.
thread_local CallBudget* activeBudget = nullptr;

}  // namespace

CallBudget* CallBudget::Active() noexcept {
  return activeBudget;
}

void CallBudget::Open(std::uintptr_t stackBase, std::uintptr_t stackFloor) noexcept {
  if (openProcedures_++ > 0)
    return;
  frame_ = {};
  totalCalls_ = 0;
  totalTreeCalls_ = 0;
  totalComponentCalls_ = 0;
  nestedOwnTime_ = {};
  interruptedOwnTime_ = {};
  treeNext_ = false;
  componentNext_ = false;
  closingNext_ = false;
  closesKept_ = 0;
  stackBase_ = stackBase;
  stackFloor_ = stackFloor;
  outer_ = activeBudget;
  activeBudget = this;
}

void CallBudget::Close() noexcept {
  if (openProcedures_ == 0 || --openProcedures_ > 0)
    return;
  activeBudget = outer_;
  outer_ = nullptr;
}

void CallBudget::StartClock() noexcept {
  if (frame_.clockStarted)
    return;
  frame_.clockStarted = true;
  frame_.clockStart = Clock::now();
}

CallBudget::Clock::duration CallBudget::OwnTime(Clock::time_point now) const noexcept {
  if (!frame_.clockStarted)
    return {};
  Clock::duration elsewhere = frame_.inCollaborators;
  if (frame_.collaboratorDepth > 0)
    elsewhere += now - frame_.collaboratorStart;
  return now - frame_.clockStart - elsewhere;
}

bool CallBudget::Spent() noexcept {
  if (frame_.spent || !IsOpen())
    return frame_.spent;
  StartClock();
  const Clock::duration own = OwnTime(Clock::now());
  frame_.spent = own > limits.maxOwnTime ||
                 interruptedOwnTime_ + nestedOwnTime_ + own > limits.maxOwnTime * 2 ||
                 totalCalls_ >= limits.maxCollaboratorCalls * limits.nestedShare ||
                 totalComponentCalls_ + closesKept_ >= limits.maxCollaboratorCalls;
  return frame_.spent;
}

bool CallBudget::StackExhausted(std::uintptr_t here, std::size_t slack) const noexcept {
  if (!IsOpen())
    return false;
  // The stack grows down on every platform the library runs on; an address above the base is a
  // frame of the host's, not ours.
  if (here < stackBase_ && stackBase_ - here > limits.maxStackBytes + slack)
    return true;
  const std::size_t reserve = limits.stackReserveBytes - std::min(slack, limits.stackReserveBytes);
  return stackFloor_ != 0 && (here < stackFloor_ || here - stackFloor_ < reserve);
}

std::int64_t CallBudget::TreeCallsLeft() const noexcept {
  if (!IsOpen())
    return limits.maxTreeCalls;
  const std::int64_t own = std::int64_t{limits.maxTreeCalls} - frame_.treeCalls;
  const std::int64_t whole =
      std::int64_t{limits.maxTreeCalls} * limits.nestedShare - totalTreeCalls_;
  return std::max<std::int64_t>(0, std::min(own, whole));
}

bool CallBudget::BeginCollaboratorCall() noexcept {
  const bool closing = std::exchange(closingNext_, false);
  if (Spent() && !closing)
    return false;
  const bool onTree = std::exchange(treeNext_, false);
  const bool onComponent = std::exchange(componentNext_, false);
  bool over = false;
  if (onTree) {
    over = ++frame_.treeCalls > limits.maxTreeCalls;
    over = ++totalTreeCalls_ > limits.maxTreeCalls * limits.nestedShare || over;
  } else {
    // The room kept for the closes of open dumps is theirs alone.
    const int kept = closing ? 0 : closesKept_;
    over = ++frame_.calls + kept > limits.maxCollaboratorCalls;
    over = ++totalCalls_ + kept > limits.maxCollaboratorCalls * limits.nestedShare || over;
    if (onComponent)
      over = ++totalComponentCalls_ + kept > limits.maxCollaboratorCalls || over;
  }
  if (over && !closing) {
    frame_.spent = true;
    return false;
  }
  if (frame_.collaboratorDepth++ == 0)
    frame_.collaboratorStart = Clock::now();
  return true;
}

void CallBudget::EndCollaboratorCall() noexcept {
  if (frame_.collaboratorDepth > 0 && --frame_.collaboratorDepth == 0)
    frame_.inCollaborators += Clock::now() - frame_.collaboratorStart;
}

CallBudget::Scope::Scope(CallBudget* budget, std::uintptr_t here,
                         const SystemFacts* system) noexcept
    : budget_(budget) {
  if (budget_ == nullptr)
    return;
  if (!budget_->IsOpen()) {
    budget_->Open(here, system != nullptr ? system->StackFloor() : 0);
    return;
  }
  ++budget_->openProcedures_;
  // An outside call that arrives while a collaborator runs starts counting afresh; the call it
  // interrupts gets its own counts back when it returns.
  if (budget_->frame_.collaboratorDepth > 0) {
    nested_ = true;
    interruptedOwn_ = budget_->OwnTime(Clock::now());
    budget_->interruptedOwnTime_ += interruptedOwn_;
    interrupted_ = std::exchange(budget_->frame_, Frame{});
    budget_->treeNext_ = false;
    budget_->componentNext_ = false;
    budget_->closingNext_ = false;
  }
}

CallBudget::Scope::~Scope() {
  if (budget_ == nullptr)
    return;
  if (nested_) {
    const Clock::duration own = budget_->OwnTime(Clock::now());
    budget_->nestedOwnTime_ += own;
    const bool wholeSpent = budget_->totalCalls_ >= budget_->limits.maxCollaboratorCalls *
                                                        budget_->limits.nestedShare ||
                            budget_->nestedOwnTime_ > budget_->limits.maxOwnTime * 2 ||
                            budget_->totalComponentCalls_ + budget_->closesKept_ >=
                                budget_->limits.maxCollaboratorCalls;
    budget_->interruptedOwnTime_ -= interruptedOwn_;
    budget_->frame_ = interrupted_;
    budget_->frame_.spent = budget_->frame_.spent || wholeSpent;
  }
  budget_->Close();
}

CallBudget::OwnWork::OwnWork() noexcept : budget_(CallBudget::Active()) {
  if (budget_ == nullptr || budget_->frame_.collaboratorDepth == 0)
    return;
  Frame& frame = budget_->frame_;
  frame.inCollaborators += Clock::now() - frame.collaboratorStart;
  depth_ = std::exchange(frame.collaboratorDepth, 0);
}

CallBudget::OwnWork::~OwnWork() {
  if (depth_ == 0)
    return;
  budget_->frame_.collaboratorDepth = depth_;
  budget_->frame_.collaboratorStart = Clock::now();
}

CollaboratorCall::CollaboratorCall() : budget_(CallBudget::Active()) {
  if (budget_ != nullptr && !budget_->BeginCollaboratorCall()) {
    budget_ = nullptr;
    Raise(RunTimeError::kCannotPerformOperation);
  }
}

CollaboratorCall::~CollaboratorCall() {
  if (budget_ != nullptr)
    budget_->EndCollaboratorCall();
}

}  // namespace tabforge
