// The platform for systems without COM: in-memory settings, registered object creators, and
// services that a host or a test configures.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "platform/portable/portable_pictures.h"

namespace tabforge {

class PortableHost final : public HostEnvironment {
 public:
  Bstr CommandLine() const override { return commandLine_; }
  Bstr GetSetting(BstrView appName, BstrView section, BstrView key,
                  BstrView defaultValue) const override;

  void SetCommandLine(Bstr commandLine) { commandLine_ = std::move(commandLine); }
  void SetSetting(BstrView appName, BstrView section, BstrView key, Bstr value);
  // Reads settings from a file of lines `App/Section/Key=Value`; blank lines and lines that start
  // with '#' are ignored. Returns false when the file cannot be read.
  bool LoadSettingsFile(const std::string& path);

 private:
  Bstr commandLine_;
  std::map<Bstr, Bstr> settings_;
};

// Creates objects from creators registered by program id. Nothing is registered by default, so
// creating the error component fails, as it does on a machine where it is not installed.
class PortableObjectFactory final : public ObjectFactory {
 public:
  using Creator = std::function<Ref<Object>()>;
  Ref<Object> CreateObject(BstrView progId) override;
  void Register(Bstr progId, Creator creator);
  void Unregister(BstrView progId);

 private:
  std::map<Bstr, Creator, std::less<>> creators_;
};

class PortableSystemFacts final : public SystemFacts {
 public:
  ScreenSize Screen() const override { return screen_; }
  std::optional<Bstr> DefaultPrinter() const override { return printer_; }
  void SetScreen(ScreenSize size) { screen_ = size; }
  void SetDefaultPrinter(std::optional<Bstr> printer) { printer_ = std::move(printer); }

 private:
  ScreenSize screen_{1024, 768};
  std::optional<Bstr> printer_;
};

// A queue of work items that one pass runs. Work posted during a pass waits for the next one.
class PortableMessageQueue final : public MessageQueue {
 public:
  void PumpOnce() override;
  void Post(std::function<void()> work) { pending_.push_back(std::move(work)); }
  // A callback that runs on every pass, before the posted work (for hosts that simulate a UI).
  void OnEveryPass(std::function<void()> work) { everyPass_ = std::move(work); }
  int passes() const { return passes_; }

 private:
  std::vector<std::function<void()>> pending_;
  std::function<void()> everyPass_;
  int passes_ = 0;
};

// Accessible objects of the portable platform list their children through this member, called
// by name with no arguments; it returns an array of tagged values.
inline constexpr BstrView kPortableChildrenMember = u"accChildren";

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
