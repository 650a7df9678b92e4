// A recording error component: every call that reaches it is logged as one line of text, and its
// answers to failures come from a script. Every component created in a test shares one script, so
// a test sees the whole conversation however often the component is created and dropped.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/object.h"
#include "platform/portable/portable_platform.h"
#include "platform/variant.h"

namespace tabforge::testing {

// A value as a log shows it: tag and value, references looked through, control characters
// escaped (\0, \1, \r, \n).
std::string LogText(const Variant& value);

struct ComponentScript {
  std::vector<std::string> log;
  // Answers to vbwErrorHandler, in order; `fallback` once they run out.
  std::deque<Variant> answers;
  Variant fallback = std::int32_t{7};
  int created = 0;
  // The string arrays that dumps reported, by name, element by element. (Only texts are kept: a
  // kept object would outlive the library that made it.)
  std::vector<std::pair<std::string, std::vector<std::string>>> stringArrays;
  // The "Err" and "VB.App" objects that dumps reported: "Err NUMBER ERL SOURCE" and
  // "VB.App TITLE MAJOR.MINOR".
  std::vector<std::string> objects;
  bool failOpenDump = false;
  bool failInitialize = false;
  // Runs inside vbwInitializeProtector with its arguments (the switches, by reference).
  std::function<void(std::span<Variant>)> onInitialize;
  // Runs inside vbwErrorHandler before it answers; may call back into the library.
  std::function<void(std::span<Variant>)> onFailure;

  // Only the names of the members called, in order, between blanks.
  std::string Members() const;
  // The log lines of calls to `member`.
  std::vector<std::string> CallsTo(const std::string& member) const;
};

class RecordingComponent final : public Object {
 public:
  explicit RecordingComponent(std::shared_ptr<ComponentScript> script)
      : script_(std::move(script)) {}
  Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) override;

 private:
  std::shared_ptr<ComponentScript> script_;
};

// Registers the component's program id on `factory`; returns the shared script.
std::shared_ptr<ComponentScript> InstallRecordingComponent(PortableObjectFactory& factory);

}  // namespace tabforge::testing
