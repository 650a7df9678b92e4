#include "tracing/counted_platform.h"

#include <utility>

#include "tracing/call_budget.h"

namespace tabforge {

Ref<Object> CountedObjectFactory::CreateObject(Utf16View progId) {
  const CollaboratorCall counted;
  return real_.CreateObject(progId);
}

bool CountedMessageQueue::PumpOnce(std::chrono::steady_clock::time_point deadline) {
  const CollaboratorCall counted;
  return real_.PumpOnce(deadline);
}

std::int32_t CountedAccessibility::AccessibleChildren(const Ref<Object>& container,
                                                      std::int32_t firstChild, std::int32_t count,
                                                      Variant* children, std::int32_t* obtained) {
  const TreeCall onTree;
  const CollaboratorCall counted;
  return real_.AccessibleChildren(container, firstChild, count, children, obtained);
}

void CountedRibbonUi::Invalidate() {
  const CollaboratorCall counted;
  real_->Invalidate();
}

void CountedRibbonUi::InvalidateControl(const Utf16String& controlId) {
  const CollaboratorCall counted;
  real_->InvalidateControl(controlId);
}

Variant CountedRibbonUi::Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) {
  return real_->Invoke(member, kind, arguments);
}

CountedPlatform::CountedPlatform(const Platform& real) : view_(real) {
  if (real.objects != nullptr)
    view_.objects = &objects_.emplace(*real.objects);
  if (real.messages != nullptr)
    view_.messages = &messages_.emplace(*real.messages);
  if (real.accessibility != nullptr)
    view_.accessibility = &accessibility_.emplace(*real.accessibility);
}

}  // namespace tabforge
