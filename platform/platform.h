// The platform seam: everything the core needs of the operating system, as small interfaces.
// Windows implementations live in server/, portable ones in platform/portable/.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/object.h"
#include "platform/utf16.h"
#include "platform/variant.h"

namespace tabforge {

// The process that hosts the library, and its per-user settings store.
class HostEnvironment {
 public:
  virtual ~HostEnvironment() = default;
  virtual Utf16String CommandLine() const = 0;
  // The value under application, section and key, or `defaultValue` when there is none.
  virtual Utf16String GetSetting(Utf16View appName, Utf16View section, Utf16View key,
                                 Utf16View defaultValue) const = 0;
};

// Creates automation objects by program id. A class that cannot be created throws `Failure`.
class ObjectFactory {
 public:
  virtual ~ObjectFactory() = default;
  virtual Ref<Object> CreateObject(Utf16View progId) = 0;
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
  virtual std::optional<Utf16String> DefaultPrinter() const = 0;
  // The lowest address that the calling thread's stack can reach, or 0 when it cannot be told.
  virtual std::uintptr_t StackFloor() const { return 0; }
};

// One pass over the thread's message queue: dispatch what was pending when the pass began, and no
// more, then return at once, or at `deadline`. False when the thread has been asked to quit: the
// request stays in the queue for the host's own loop, and whoever waits gives up.
class MessageQueue {
 public:
  virtual ~MessageQueue() = default;
  virtual bool PumpOnce(std::chrono::steady_clock::time_point deadline) = 0;
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

// The graphics, memory and OLE calls that turn a picture file's bytes into a picture object. Each
// member stands for one platform function, with its arguments and results, so that the Windows
// side is a thin wrapper; handles are opaque numbers and 0 is "no handle". Statuses follow GDI+
// (0 is Ok). Only OleCreatePictureIndirect throws: the loader treats its failing status as a
// failure of the statement.
class PictureApi {
 public:
  struct GdiplusStartupInput {
    std::uint32_t GdiplusVersion = 0;
    std::uintptr_t DebugEventCallback = 0;
    std::int32_t SuppressBackgroundThread = 0;
    std::int32_t SuppressExternalCodecs = 0;
  };
  struct PictureDescription {
    std::uint32_t cbSizeofstruct = 0;
    std::uint32_t picType = 0;
    std::uintptr_t hbitmap = 0;
    std::uintptr_t hpal = 0;
  };
  struct Guid {
    std::uint32_t Data1 = 0;
    std::uint16_t Data2 = 0;
    std::uint16_t Data3 = 0;
    std::array<std::uint8_t, 8> Data4{};
    friend bool operator==(const Guid&, const Guid&) = default;
  };

  virtual ~PictureApi() = default;

  virtual std::int32_t GdiplusStartup(std::uintptr_t* token, const GdiplusStartupInput& input) = 0;
  virtual void GdiplusShutdown(std::uintptr_t token) = 0;

  // A block of `size` bytes, or 0. A moveable block of 0 bytes has no memory behind it, so it
  // locks to null.
  virtual std::uintptr_t GlobalAlloc(std::uint32_t flags, std::size_t size) = 0;
  virtual void* GlobalLock(std::uintptr_t block) = 0;
  virtual void GlobalUnlock(std::uintptr_t block) = 0;
  // 0 when the block was released, else the handle itself.
  virtual std::uintptr_t GlobalFree(std::uintptr_t block) = 0;

  // A stream over the block's bytes, or nothing. With `deleteOnRelease` the stream owns the block
  // and releases it with its last reference.
  virtual Ref<Object> CreateStreamOnHGlobal(std::uintptr_t block, bool deleteOnRelease) = 0;

  // A failing status leaves `*bitmap` 0.
  virtual std::int32_t GdipCreateBitmapFromStream(const Ref<Object>& stream,
                                                  std::uintptr_t* bitmap) = 0;
  // The bitmap composited over `background` (ARGB); a failing status leaves `*hbitmap` 0.
  virtual std::int32_t GdipCreateHBITMAPFromBitmap(std::uintptr_t bitmap, std::uintptr_t* hbitmap,
                                                   std::uint32_t background) = 0;
  virtual std::int32_t GdipDisposeImage(std::uintptr_t bitmap) = 0;
  // Releases a bitmap handle; false when there was none.
  virtual bool DeleteObject(std::uintptr_t hbitmap) = 0;

  // A picture object over `description.hbitmap`; with `own` the picture deletes the handle when
  // it goes. A failing status throws `Failure` with that status as the number.
  virtual Ref<Object> OleCreatePictureIndirect(const PictureDescription& description,
                                               const Guid& iid, bool own) = 0;
};

// What one apartment is given of the platform. The pointers are not owned and outlive every
// object of the apartment.
struct Platform {
  HostEnvironment* host = nullptr;
  ObjectFactory* objects = nullptr;
  SystemFacts* system = nullptr;
  MessageQueue* messages = nullptr;
  AccessibilityApi* accessibility = nullptr;
  PictureApi* pictures = nullptr;
};

}  // namespace tabforge
