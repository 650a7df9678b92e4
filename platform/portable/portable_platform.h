// The platform for systems without COM: in-memory settings, registered object creators, and
// services that a host or a test configures.
#pragma once

#include <pthread.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "platform/portable/portable_pictures.h"

namespace tabforge {

class PortableHost final : public HostEnvironment {
 public:
  Utf16String CommandLine() const override { return commandLine_; }
  Utf16String GetSetting(Utf16View appName, Utf16View section, Utf16View key,
                         Utf16View defaultValue) const override;

  void SetCommandLine(Utf16String commandLine) { commandLine_ = std::move(commandLine); }
  void SetSetting(Utf16View appName, Utf16View section, Utf16View key, Utf16String value);
  // Reads settings from a file of lines `App/Section/Key=Value`; blank lines and lines that start
  // with '#' are ignored. Returns false when the file cannot be read.
  bool LoadSettingsFile(const std::string& path);

 private:
  Utf16String commandLine_;
  std::map<Utf16String, Utf16String> settings_;
};

// Creates objects from creators registered by program id. Nothing is registered by default, so
// creating the error component fails, as it does on a machine where it is not installed.
class PortableObjectFactory final : public ObjectFactory {
 public:
  using Creator = std::function<Ref<Object>()>;
  Ref<Object> CreateObject(Utf16View progId) override;
  void Register(Utf16String progId, Creator creator);
  void Unregister(Utf16View progId);

 private:
  std::map<Utf16String, Creator, std::less<>> creators_;
};

class PortableSystemFacts final : public SystemFacts {
 public:
  ScreenSize Screen() const override { return screen_; }
  std::optional<Utf16String> DefaultPrinter() const override {
    ++printerQuestions_;
    return printer_;
  }
  // How often the printer was asked for: a question to the spooler on a real machine.
  int printerQuestions() const { return printerQuestions_; }
  // The thread's own floor, unless a test has set one to stand for a host that has used most of
  // its stack before it called.
  std::uintptr_t StackFloor() const override;
  void SetStackFloor(std::uintptr_t floor) { stackFloor_ = floor; }

 private:
  ScreenSize screen_{1024, 768};
  std::optional<Utf16String> printer_;
  mutable int printerQuestions_ = 0;
  std::uintptr_t stackFloor_ = 0;
  mutable pthread_t cachedThread_{};
  mutable std::uintptr_t cachedFloor_ = 0;
  mutable bool cachedValid_ = false;
};

// A message queue with no messages: it counts its passes, and a host that simulates a UI can have
// each pass run its work, or ask the thread to quit.
class PortableMessageQueue final : public MessageQueue {
 public:
  bool PumpOnce(std::chrono::steady_clock::time_point deadline) override;
  // A callback that runs on every pass.
  void OnEveryPass(std::function<void()> work) { everyPass_ = std::move(work); }
  // A quit request, which stays in the queue: every pass from now on reports it.
  void PostQuit() { quit_ = true; }
  int passes() const { return passes_; }

 private:
  std::function<void()> everyPass_;
  int passes_ = 0;
  bool quit_ = false;
};

// Accessible objects of the portable platform list their children through this member, called
// by name with no arguments; it returns an array of tagged values.
inline constexpr Utf16View kPortableChildrenMember = u"accChildren";

// Lists children by asking the element for `accChildren`; any failure is a failing status.
class PortableAccessibilityApi final : public AccessibilityApi {
 public:
  std::int32_t AccessibleChildren(const Ref<Object>& container, std::int32_t firstChild,
                                  std::int32_t count, Variant* children,
                                  std::int32_t* obtained) override;
};

// All portable services in one place, for the command-line tool and the tests.
class PortablePlatform {
 public:
  PortableHost host;
  PortableObjectFactory objects;
  PortableSystemFacts system;
  PortableMessageQueue messages;
  PortableAccessibilityApi accessibility;
  PortablePictureApi pictures;

  Platform View() { return {&host, &objects, &system, &messages, &accessibility, &pictures}; }
};

}  // namespace tabforge
