// The picture loader's platform calls on Windows: GDI+ through its flat API, global memory,
// streams on global memory and OLE pictures. Handles cross the seam as numbers; the core decides
// when each is released and comes back here to release it.
#pragma once

#include "platform/platform.h"

namespace tabforge::com {

class WindowsPictureApi final : public PictureApi {
 public:
  std::int32_t GdiplusStartup(std::uintptr_t* token, const GdiplusStartupInput& input) override;
  void GdiplusShutdown(std::uintptr_t token) override;
  std::uintptr_t GlobalAlloc(std::uint32_t flags, std::size_t size) override;
  void* GlobalLock(std::uintptr_t block) override;
  void GlobalUnlock(std::uintptr_t block) override;
  std::uintptr_t GlobalFree(std::uintptr_t block) override;
  Ref<Object> CreateStreamOnHGlobal(std::uintptr_t block, bool deleteOnRelease) override;
  std::int32_t GdipCreateBitmapFromStream(const Ref<Object>& stream,
                                          std::uintptr_t* bitmap) override;
  std::int32_t GdipCreateHBITMAPFromBitmap(std::uintptr_t bitmap, std::uintptr_t* hbitmap,
                                           std::uint32_t background) override;
  std::int32_t GdipDisposeImage(std::uintptr_t bitmap) override;
  bool DeleteObject(std::uintptr_t hbitmap) override;
  // The picture is asked for `iid` and then for IPictureDisp, and reaches the core as the object
  // around that IPictureDisp, so that a member handing it back gives the caller the real picture.
  Ref<Object> OleCreatePictureIndirect(const PictureDescription& description, const Guid& iid,
                                       bool own) override;
};

}  // namespace tabforge::com
