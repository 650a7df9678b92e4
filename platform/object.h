// Automation objects: what the core calls by member name, and the ribbon's own interface.
#pragma once

#include <span>

#include "platform/ref.h"
#include "platform/utf16.h"

namespace tabforge {

class Variant;
class RibbonUi;

// How a member is reached; the values are those of the dispatch flags.
enum class CallKind : std::uint16_t {
  kMethod = 1,
  kPropertyGet = 2,
  kPropertyPut = 4,
  kPropertyPutRef = 8,
};

// An object whose members are found by name at run time.
class Object : public RefCounted {
 public:
  // Calls `member` with `arguments` in their declared order, first argument first. An argument
  // that holds a reference lets the object write back into the caller's variable. A failing call
  // throws `Failure`; an unknown member is `RunTimeError::kMemberNotFound`.
  virtual Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) = 0;

  // The object's ribbon interface, or nothing when it has none.
  virtual Ref<RibbonUi> QueryRibbonUi();
};

// The word processor's ribbon: the two operations that invalidation needs. Both throw `Failure`
// when the ribbon refuses.
class RibbonUi : public Object {
 public:
  virtual void Invalidate() = 0;
  virtual void InvalidateControl(const Utf16String& controlId) = 0;

  Ref<RibbonUi> QueryRibbonUi() override { return Ref<RibbonUi>(this); }
};

inline Ref<RibbonUi> Object::QueryRibbonUi() {
  return nullptr;
}

}  // namespace tabforge
