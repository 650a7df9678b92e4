#include "server/windows_pictures.h"

#include <windows.h>

#include <objidl.h>
#include <ole2.h>
#include <olectl.h>

#include "platform/failure.h"
#include "server/com_ptr.h"
#include "server/object_bridge.h"
#include "server/status.h"
#include "server/windows_platform.h"

namespace tabforge::com {

namespace {

template <class Handle>
Handle FromNumber(std::uintptr_t number) {
  return reinterpret_cast<Handle>(number);
}

template <class Handle>
std::uintptr_t ToNumber(Handle handle) {
  return reinterpret_cast<std::uintptr_t>(handle);
}

GUID ToGuid(const PictureApi::Guid& id) {
  GUID guid{id.Data1, id.Data2, id.Data3, {}};
  for (std::size_t i = 0; i < id.Data4.size(); ++i)
    guid.Data4[i] = id.Data4[i];
  return guid;
}

}  // namespace

std::int32_t WindowsPictureApi::GdiplusStartup(std::uintptr_t* token,
                                               const GdiplusStartupInput& input) {
  Gdiplus::GdiplusStartupInput startup;
  startup.GdiplusVersion = input.GdiplusVersion;
  startup.DebugEventCallback = FromNumber<Gdiplus::DebugEventProc>(input.DebugEventCallback);
  startup.SuppressBackgroundThread = input.SuppressBackgroundThread;
  startup.SuppressExternalCodecs = input.SuppressExternalCodecs;
  ULONG_PTR started = *token;
  const Gdiplus::Status status = Gdiplus::GdiplusStartup(&started, &startup, nullptr);
  *token = started;
  return static_cast<std::int32_t>(status);
}

void WindowsPictureApi::GdiplusShutdown(std::uintptr_t token) {
  Gdiplus::GdiplusShutdown(token);
}

std::uintptr_t WindowsPictureApi::GlobalAlloc(std::uint32_t flags, std::size_t size) {
  return ToNumber(::GlobalAlloc(flags, size));
}

void* WindowsPictureApi::GlobalLock(std::uintptr_t block) {
  return ::GlobalLock(FromNumber<HGLOBAL>(block));
}

void WindowsPictureApi::GlobalUnlock(std::uintptr_t block) {
  ::GlobalUnlock(FromNumber<HGLOBAL>(block));
}

std::uintptr_t WindowsPictureApi::GlobalFree(std::uintptr_t block) {
  return ToNumber(FreeGlobal(FromNumber<HGLOBAL>(block)));
}

Ref<Object> WindowsPictureApi::CreateStreamOnHGlobal(std::uintptr_t block, bool deleteOnRelease) {
  ComPtr<IStream> stream;
  // A failed call leaves the block with the caller, who knows whether it is still needed.
  if (FAILED(::CreateStreamOnHGlobal(FromNumber<HGLOBAL>(block), deleteOnRelease ? TRUE : FALSE,
                                     stream.Put())) ||
      !stream)
    return nullptr;
  return MakeRef<WindowsObject>(ComPtr<IUnknown>(stream.Get()));
}

std::int32_t WindowsPictureApi::GdipCreateBitmapFromStream(const Ref<Object>& stream,
                                                           std::uintptr_t* bitmap) {
  *bitmap = 0;
  const auto* object = dynamic_cast<const WindowsObject*>(stream.get());
  ComPtr<IStream> source = object != nullptr ? object->Unknown().TryAs<IStream>() : nullptr;
  if (!source)
    return Gdiplus::InvalidParameter;
  UniqueGdiplusBitmap created;
  const Gdiplus::Status status =
      Gdiplus::DllExports::GdipCreateBitmapFromStream(source.Get(), created.Put());
  if (status == Gdiplus::Ok)
    *bitmap = ToNumber(created.Detach());
  return static_cast<std::int32_t>(status);
}

std::int32_t WindowsPictureApi::GdipCreateHBITMAPFromBitmap(std::uintptr_t bitmap,
                                                            std::uintptr_t* hbitmap,
                                                            std::uint32_t background) {
  *hbitmap = 0;
  if (bitmap == 0)
    return Gdiplus::InvalidParameter;
  UniqueHBitmap created;
  const Gdiplus::Status status = Gdiplus::DllExports::GdipCreateHBITMAPFromBitmap(
      FromNumber<Gdiplus::GpBitmap*>(bitmap), created.Put(), background);
  if (status == Gdiplus::Ok)
    *hbitmap = ToNumber(created.Detach());
  return static_cast<std::int32_t>(status);
}

std::int32_t WindowsPictureApi::GdipDisposeImage(std::uintptr_t bitmap) {
  return static_cast<std::int32_t>(DisposeGdiplusImage(FromNumber<Gdiplus::GpImage*>(bitmap)));
}

bool WindowsPictureApi::DeleteObject(std::uintptr_t hbitmap) {
  return DeleteBitmap(FromNumber<HBITMAP>(hbitmap));
}

Ref<Object> WindowsPictureApi::OleCreatePictureIndirect(const PictureDescription& description,
                                                        const Guid& iid, bool own) {
  PICTDESC picture{};
  // The loader describes the 32-bit record (20 bytes); the platform is told the size of its own
  // record, which is that on 32-bit Windows and larger on 64-bit Windows.
  picture.cbSizeofstruct =
      description.cbSizeofstruct == 20 ? sizeof(PICTDESC) : description.cbSizeofstruct;
  picture.picType = description.picType;
  picture.bmp.hbitmap = FromNumber<HBITMAP>(description.hbitmap);
  picture.bmp.hpal = FromNumber<HPALETTE>(description.hpal);
  const GUID interfaceId = ToGuid(iid);
  ComPtr<IUnknown> created;
  ThrowIfFailed(
      ::OleCreatePictureIndirect(&picture, interfaceId, own ? TRUE : FALSE, created.PutVoid()));
  ComPtr<IPictureDisp> dispatch;
  ThrowIfFailed(created.As(&dispatch));
  return MakeRef<WindowsObject>(ComPtr<IUnknown>(dispatch.Get()));
}

}  // namespace tabforge::com
