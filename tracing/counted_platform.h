// The platform as the core sees it: every call on a collaborator that the platform's interfaces
// make goes through one of these, which charges it to the budget of the running outside call
// before the real one runs. The tracing module keeps one of each over its apartment's platform and
// hands the core only these (VbwProtector::platform()), and the ribbon that Main2 keeps is wrapped
// the same way, so that a new call at one of these seams is counted without anyone remembering to.
// A spent budget refuses the call with "Can't perform requested operation", which even the
// accessibility interface, that otherwise reports by status only, throws.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>

#include "platform/object.h"
#include "platform/platform.h"
#include "platform/utf16.h"
#include "platform/variant.h"

namespace tabforge {

// Object creation: the error component, the one object the core creates by program id.
class CountedObjectFactory final : public ObjectFactory {
 public:
  explicit CountedObjectFactory(ObjectFactory& real) : real_(real) {}
  Ref<Object> CreateObject(Utf16View progId) override;

 private:
  ObjectFactory& real_;
};

// One message pass of the tab search: the host's code runs in it.
class CountedMessageQueue final : public MessageQueue {
 public:
  explicit CountedMessageQueue(MessageQueue& real) : real_(real) {}
  bool PumpOnce(std::chrono::steady_clock::time_point deadline) override;

 private:
  MessageQueue& real_;
};

// The children of an accessible element: a call on the tree, counted with the tree's calls.
class CountedAccessibility final : public AccessibilityApi {
 public:
  explicit CountedAccessibility(AccessibilityApi& real) : real_(real) {}
  std::int32_t AccessibleChildren(const Ref<Object>& container, std::int32_t firstChild,
                                  std::int32_t count, Variant* children,
                                  std::int32_t* obtained) override;

 private:
  AccessibilityApi& real_;
};

// The word processor's ribbon: each invalidation is a collaborator call. A call by name goes
// through as it is (CallByName counts those wherever they are made).
class CountedRibbonUi final : public RibbonUi {
 public:
  explicit CountedRibbonUi(Ref<RibbonUi> real) : real_(std::move(real)) {}

  void Invalidate() override;
  void InvalidateControl(const Utf16String& controlId) override;
  Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) override;

  // The host's own ribbon object, for whatever reports or compares it.
  const Ref<RibbonUi>& real() const noexcept { return real_; }

 private:
  Ref<RibbonUi> real_;
};

// The counting copy of one apartment's platform. The interfaces that are no collaborator's (the
// host's settings, the system's facts, the picture calls) are passed on as they are; an interface
// that the apartment lacks stays missing.
class CountedPlatform {
 public:
  explicit CountedPlatform(const Platform& real);
  CountedPlatform(const CountedPlatform&) = delete;
  CountedPlatform& operator=(const CountedPlatform&) = delete;

  const Platform& View() const noexcept { return view_; }

 private:
  std::optional<CountedObjectFactory> objects_;
  std::optional<CountedMessageQueue> messages_;
  std::optional<CountedAccessibility> accessibility_;
  Platform view_;
};

}  // namespace tabforge
