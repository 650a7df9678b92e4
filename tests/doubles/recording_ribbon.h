// Recording doubles of the host's objects: a ribbon that logs its calls, and an object that is
// none.
#pragma once

#include <string>
#include <vector>

#include "platform/failure.h"
#include "platform/object.h"
#include "platform/variant.h"

namespace tabforge::testing {

class RecordingRibbon final : public RibbonUi {
 public:
  explicit RecordingRibbon(std::vector<std::string>* log) : log_(log) {}
  void Invalidate() override {
    log_->push_back("ribbon.Invalidate");
    if (fail)
      Raise(-2147467259, u"ribbon refused");
  }
  void InvalidateControl(const Utf16String& controlId) override {
    log_->push_back("ribbon.InvalidateControl " + ToUtf8(controlId));
    if (fail)
      Raise(-2147467259, u"ribbon refused");
  }
  Variant Invoke(Utf16View, CallKind, std::span<Variant>) override {
    Raise(RunTimeError::kMemberNotFound);
  }
  bool fail = false;

 private:
  std::vector<std::string>* log_;
};

// An object that is no ribbon: it answers nothing by name and has no ribbon interface.
class PlainObject final : public Object {
 public:
  Variant Invoke(Utf16View, CallKind, std::span<Variant>) override {
    Raise(RunTimeError::kMemberNotFound);
  }
};

}  // namespace tabforge::testing
