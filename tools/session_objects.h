// The host objects of a replayed session: a signalling object and a ribbon that record every call
// the library makes on them.
#pragma once

#include <string>
#include <vector>

#include "platform/object.h"
#include "platform/variant.h"
#include "tools/session.h"

namespace tabforge::cli {

// Runs macros by recording them, and hands out icons as the bytes of DIR/N.png or DIR/N.gif; a
// number without a file gets a never-dimensioned array.
class SessionSignaller final : public Object {
 public:
  SessionSignaller(CallLog& log, std::string iconDirectory)
      : log_(log), iconDirectory_(std::move(iconDirectory)) {}
  Variant Invoke(BstrView member, CallKind kind, std::span<Variant> arguments) override;

 private:
  CallLog& log_;
  std::string iconDirectory_;
};

class SessionRibbon final : public RibbonUi {
 public:
  explicit SessionRibbon(CallLog& log) : log_(log) {}
  void Invalidate() override;
  void InvalidateControl(const Bstr& controlId) override;
  Variant Invoke(BstrView member, CallKind kind, std::span<Variant> arguments) override;

 private:
  CallLog& log_;
};

}  // namespace tabforge::cli
