// The run time's objects that a dump hands to the error component: the application, the current
// failure, the screen and the printer. Small automation objects of the library's own, whose
// properties the component reads by name.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "platform/object.h"
#include "platform/platform.h"
#include "platform/variant.h"

namespace tabforge {

// An object of read-only properties, found by name without regard to case.
class PropertyObject final : public Object {
 public:
  explicit PropertyObject(std::vector<std::pair<Utf16String, Variant>> properties)
      : properties_(std::move(properties)) {}
  Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) override;

 private:
  std::vector<std::pair<Utf16String, Variant>> properties_;
};

// Title, EXEName, Major, Minor, Revision.
Ref<Object> MakeAppObject();
// Number, Description, Source, Erl.
Ref<Object> MakeErrObject(std::int32_t number, Utf16View description, std::int32_t line);
// Width and Height in pixels.
Ref<Object> MakeScreenObject(const SystemFacts& system);
// DeviceName of the default printer; nothing on a machine without one.
Ref<Object> MakePrinterObject(const SystemFacts& system);

}  // namespace tabforge
