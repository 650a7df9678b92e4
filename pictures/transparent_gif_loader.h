// TransparentGifLoader: turns the bytes of a picture file into a picture object. GDI+ decodes the
// bytes and composites them over a background of alpha 0, OLE wraps the bitmap handle. GDI+ stays
// started for the loader's whole life.
#pragma once

#include <cstdint>

#include "platform/object.h"
#include "platform/platform.h"
#include "platform/variant.h"
#include "tracing/vbw_protector.h"

namespace tabforge {

class TransparentGifLoader final : public Object {
 public:
  // The id of IPicture, handed to OleCreatePictureIndirect.
  static constexpr PictureApi::Guid kIPicture{
      0x7BF80980, 0xBF32, 0x101A, {0x8B, 0xBB, 0x00, 0xAA, 0x00, 0x30, 0x0C, 0xAB}};
  // Alpha 0, red 0, green 0, blue 255.
  static constexpr std::uint32_t kBackground = 0x000000FF;

  // Class_Initialize: starts GDI+ on the apartment's picture services.
  explicit TransparentGifLoader(VbwProtector& protector);
  // Class_Terminate: shuts GDI+ down again.
  ~TransparentGifLoader() override;

  // The one member reached by name: LoadTransparentGif with a byte array.
  Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) override;

  // A picture of the bytes, or nothing. The caller owns the picture.
  Ref<Object> LoadTransparentGif(ArrayRef& bArr);

  // --- State, for tests ------------------------------------------------------------------------

  const PictureApi::Guid& iguid() const { return mIguid; }
  const PictureApi::PictureDescription& picConv() const { return mPicConv; }
  std::uintptr_t token() const { return mToken; }

 private:
  Ref<Object> LoadResourceAsStream(ArrayRef& bArr);
  Ref<Object> BitmapToPicture(std::uintptr_t hBmp);
  void initializeConversionStructs(PictureApi::Guid& IGuid,
                                   PictureApi::PictureDescription& tPicConv);
  void vbwReport_TransparentGifLoader_GUID(Utf16View lName, const PictureApi::Guid& record,
                                           std::int32_t lTab) const;
  // The module report is the tracing's to call.
  friend class tracing::Module;
  void vbwReportModuleVariables() const;
  tracing::Module Trace() const noexcept;
  // The apartment's picture services; none is "object not set".
  PictureApi& Api() const;

  VbwProtector& protector_;

  // Fields, in the order of the module report.
  PictureApi::Guid mIguid;
  PictureApi::PictureDescription mPicConv;
  PictureApi::GdiplusStartupInput mStartupInput;
  // The whole token, as wide as a pointer: a 64-bit process may be given one above 32 bits, and a
  // cut token would shut down the wrong start. The module report carries its low 32 bits (tag 3).
  // 0 is "not started".
  std::uintptr_t mToken = 0;
};

}  // namespace tabforge
