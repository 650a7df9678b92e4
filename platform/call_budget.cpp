#include "platform/call_budget.h"

#include <utility>

#include "platform/failure.h"

namespace tabforge {
namespace {

thread_local CallBudget* activeBudget = nullptr;

}  // namespace

CallBudget* CallBudget::Active() noexcept {
  return activeBudget;
}

void CallBudget::Open(std::uintptr_t stackBase) noexcept {
  if (openProcedures_++ > 0)
    return;
  calls_ = 0;
  treeCalls_ = 0;
  treeNext_ = false;
  collaboratorDepth_ = 0;
  spent_ = false;
  clockStarted_ = false;
  inCollaborators_ = {};
  stackBase_ = stackBase;
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
  if (clockStarted_)
    return;
  clockStarted_ = true;
  clockStart_ = Clock::now();
}

bool CallBudget::Spent() noexcept {
  if (spent_ || !IsOpen())
    return spent_;
  StartClock();
  const Clock::time_point now = Clock::now();
  Clock::duration elsewhere = inCollaborators_;
  if (collaboratorDepth_ > 0)
    elsewhere += now - collaboratorStart_;
  spent_ = now - clockStart_ - elsewhere > limits.maxOwnTime;
  return spent_;
}

bool CallBudget::StackExhausted(std::uintptr_t here, std::size_t slack) const noexcept {
  // The stack grows down on every platform the library runs on; an address above the base is a
  // frame of the host's, not ours.
  return IsOpen() && here < stackBase_ && stackBase_ - here > limits.maxStackBytes + slack;
}

bool CallBudget::BeginCollaboratorCall() noexcept {
  if (Spent())
    return false;
  const bool onTree = std::exchange(treeNext_, false);
  if (onTree ? ++treeCalls_ > limits.maxTreeCalls : ++calls_ > limits.maxCollaboratorCalls) {
    spent_ = true;
    return false;
  }
  if (collaboratorDepth_++ == 0)
    collaboratorStart_ = Clock::now();
  return true;
}

void CallBudget::EndCollaboratorCall() noexcept {
  if (collaboratorDepth_ > 0 && --collaboratorDepth_ == 0)
    inCollaborators_ += Clock::now() - collaboratorStart_;
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
