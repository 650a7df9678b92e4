// The platform seam: everything the core needs of the operating system, as small interfaces.
// Windows implementations live in server/, portable ones in platform/portable/.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/bstr.h"
#include "platform/object.h"
#include "platform/variant.h"

namespace tabforge {

// The process that hosts the library, and its per-user settings store.
class HostEnvironment {
 public:
  virtual ~HostEnvironment() = default;
  virtual Bstr CommandLine() const = 0;
  // The value under application, section and key, or `defaultValue` when there is none.
  virtual Bstr GetSetting(BstrView appName, BstrView section, BstrView key,
                          BstrView defaultValue) const = 0;
};

// Creates automation objects by program id. A class that cannot be created throws `Failure`.
class ObjectFactory {
 public:
  virtual ~ObjectFactory() = default;
  virtual Ref<Object> CreateObject(BstrView progId) = 0;
};

// Facts about the machine that the run-time objects of a dump report.
class SystemFacts {
 public:
  struct ScreenSize {
    std::int32_t width = 0;
    std::int32_t height = 0;
  };
  virtual ~SystemFacts() = default;
  virtual ScreenSize Screen() const = 0;
  // The default printer's name, or nothing on a machine without printers.
  virtual std::optional<Bstr> DefaultPrinter() const = 0;
};

// One pass over the thread's message queue: dispatch what is pending, then return at once.
class MessageQueue {
 public:
  virtual ~MessageQueue() = default;
  virtual void PumpOnce() = 0;
};

// The one entry point that lists an accessible element's children. Like the platform function it
// stands for, it reports by status and count only and never throws: `children` has room for
// `count` entries, and `*obtained` is set to how many were filled.
class AccessibilityApi {
 public:
  virtual ~AccessibilityApi() = default;
  virtual std::int32_t AccessibleChildren(const Ref<Object>& container, std::int32_t firstChild,
                                          std::int32_t count, Variant* children,
                                          std::int32_t* obtained) = 0;
};

// What one apartment is given of the platform. The pointers are not owned and outlive every
// object of the apartment.
struct Platform {
  HostEnvironment* host = nullptr;
  ObjectFactory* objects = nullptr;
  SystemFacts* system = nullptr;
  MessageQueue* messages = nullptr;
  AccessibilityApi* accessibility = nullptr;
};

}  // namespace tabforge
