// The template's signalling object: answers getToolbarIconBits with the bytes set for an image
// number and records every number it is asked for; given a log, records each Run and may call back
// into the library from the macro, and without one lacks every macro.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/failure.h"
#include "platform/object.h"
#include "platform/variant.h"

namespace tabforge::testing {

class RecordingSignaller final : public Object {
 public:
  explicit RecordingSignaller(std::vector<std::string>* log = nullptr) : log_(log) {}
  Variant Invoke(Utf16View member, CallKind, std::span<Variant> arguments) override {
    if (member == u"Run" && arguments.size() == 1 && log_ != nullptr) {
      if (fail)
        Raise(5, u"template failed");
      log_->push_back("signaller.Run " + ToUtf8(ToBstr(arguments[0])));
      if (onRun)
        onRun(ToBstr(arguments[0]));
      return {};
    }
    if (member != u"getToolbarIconBits" || arguments.size() != 1)
      Raise(RunTimeError::kMemberNotFound);
    // The number comes by reference; anything else is recorded as -1.
    const std::int16_t* number = arguments[0].RefI2();
    asked.push_back(number != nullptr ? *number : std::int16_t{-1});
    if (fail)
      Raise(5, u"template failed");
    auto it = answers.find(asked.back());
    return it != answers.end() ? it->second : fallback;
  }

  std::vector<std::int16_t> asked;
  std::map<std::int16_t, Variant> answers;
  // A byte array that was never dimensioned, as the template gives for a number it lacks.
  Variant fallback{VarType::VT_UI1, ArrayRef()};
  bool fail = false;
  std::function<void(const Utf16String&)> onRun;

 private:
  std::vector<std::string>* log_;
};

}  // namespace tabforge::testing
