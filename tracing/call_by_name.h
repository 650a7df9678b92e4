// Late-bound calls: a member reached by name, with arguments in declared order.
#pragma once

#include <array>
#include <utility>

#include "platform/failure.h"
#include "platform/object.h"
#include "platform/variant.h"
#include "tracing/call_budget.h"

namespace tabforge {

// Calls `member` of `target`. An empty reference is "object variable not set". The call holds its
// own reference for its whole length, so a nested call that empties the caller's field cannot
// destroy the object under it. The call counts against the budget of the running outside call.
template <class... Args>
Variant CallByName(Ref<Object> target, Utf16View member, CallKind kind, Args&&... arguments) {
  if (!target)
    Raise(RunTimeError::kObjectNotSet);
  std::array<Variant, sizeof...(Args)> list{Variant(std::forward<Args>(arguments))...};
  CollaboratorCall counted;
  return target->Invoke(member, kind, list);
}

// A call on an element of an accessibility tree, counted apart from other collaborator calls.
template <class... Args>
Variant CallOnTree(Ref<Object> element, Utf16View member, CallKind kind, Args&&... arguments) {
  const TreeCall onTree;
  return CallByName(std::move(element), member, kind, std::forward<Args>(arguments)...);
}

// A call on the error component, counted as one within the whole outside call's share of them.
template <class... Args>
Variant CallComponent(Ref<Object> component, Utf16View member, CallKind kind, Args&&... arguments) {
  const ComponentCall onComponent;
  return CallByName(std::move(component), member, kind, std::forward<Args>(arguments)...);
}

// The object behind a reference that a statement needs: an empty one is "object variable not set".
template <class T>
T& Required(const Ref<T>& reference) {
  if (!reference)
    Raise(RunTimeError::kObjectNotSet);
  return *reference;
}

}  // namespace tabforge
