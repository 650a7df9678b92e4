#include "pictures/transparent_gif_loader.h"

#include <cstring>

#include "pictures/vb_language_extensions.h"
#include "platform/failure.h"
#include "tracing/run.h"

namespace tabforge {
namespace {

using tracing::Body;
using tracing::DefineProcedure;
using tracing::LocalReport;
using tracing::ParameterText;
using tracing::Run;

constexpr auto kClassInitialize = DefineProcedure(u"TransparentGifLoader.Class_Initialize", 100);
constexpr auto kLoadTransparentGif =
    DefineProcedure(u"TransparentGifLoader.LoadTransparentGif", 200);
constexpr auto kLoadResourceAsStream =
    DefineProcedure(u"TransparentGifLoader.LoadResourceAsStream", 300);
constexpr auto kBitmapToPicture = DefineProcedure(u"TransparentGifLoader.BitmapToPicture", 400);
constexpr auto kInitializeConversionStructs =
    DefineProcedure(u"TransparentGifLoader.initializeConversionStructs", 500);
constexpr auto kClassTerminate = DefineProcedure(u"TransparentGifLoader.Class_Terminate", 600);

constexpr std::uint32_t kGmemMoveable = 2;
constexpr std::uint32_t kPicTypeBitmap = 1;
constexpr std::uint32_t kPictDescSize = 20;

// Handles go into reports as the 32-bit integers that the module's variables are.
std::int32_t Reported(std::uintptr_t handle) {
  return static_cast<std::int32_t>(handle);
}

Variant ByteArray(const ArrayRef& array) {
  return Variant(VarType::VT_UI1, array);
}

// Upper bound + 1: the block size and copy length for an array whose first byte is element 0. An
// array without element 0 has no such size: its bounds are checked before any block is asked for,
// so that a lower bound near the top of the range cannot ask for gigabytes.
std::size_t ByteCount(const ArrayRef& bArr) {
  if (!bArr || bArr->lowerBound > 0)
    Raise(RunTimeError::kSubscriptOutOfRange);
  const std::int64_t count = bArr->UpperBound() + 1;
  if (count < 0)
    Raise(RunTimeError::kSubscriptOutOfRange);
  return static_cast<std::size_t>(count);
}

// RtlMoveMemory from element 0 of the array; an array without element 0 is out of bounds.
void CopyFromElementZero(void* target, const ArrayRef& bArr) {
  if (!bArr || target == nullptr)
    Raise(RunTimeError::kSubscriptOutOfRange);
  const auto* bytes = std::get_if<std::vector<std::uint8_t>>(&bArr->elements);
  if (bytes == nullptr)
    Raise(RunTimeError::kTypeMismatch);
  if (bArr->lowerBound > 0 || bArr->UpperBound() < 0)
    Raise(RunTimeError::kSubscriptOutOfRange);
  const auto first = static_cast<std::size_t>(-static_cast<std::int64_t>(bArr->lowerBound));
  std::memcpy(target, bytes->data() + first, ByteCount(bArr));
}

}  // namespace

TransparentGifLoader::TransparentGifLoader(VbwProtector& protector) : protector_(protector) {
  Run(Trace(), kClassInitialize, tracing::NoParameters, tracing::NoLocals, [&](Body& body) {
    TF_BEGIN(body)
    TF_STEP(1) initializeConversionStructs(mIguid, mPicConv);
    TF_STEP(2) mStartupInput.GdiplusVersion = 1;
    // A failing start leaves the token 0; the loader goes on and its conversions give nothing.
    TF_STEP(3) Api().GdiplusStartup(&mToken, mStartupInput);
    TF_END
  });
}

TransparentGifLoader::~TransparentGifLoader() {
  Run(Trace(), kClassTerminate, tracing::NoParameters, tracing::NoLocals, [&](Body& body) {
    TF_BEGIN(body)
    // Token 0 is no start of ours: shutting it down could only end another user's GDI+.
    TF_STEP(1) if (mToken != 0) {
      TF_STEP(2) Api().GdiplusShutdown(mToken);
    }
    TF_END
  });
}

tracing::Module TransparentGifLoader::Trace() const noexcept {
  return tracing::Module(protector_, *this);
}

PictureApi& TransparentGifLoader::Api() const {
  PictureApi* api = protector_.platform().pictures;
  if (api == nullptr)
    Raise(RunTimeError::kObjectNotSet);
  return *api;
}

Variant TransparentGifLoader::Invoke(Utf16View member, CallKind kind,
                                     std::span<Variant> arguments) {
  if (member != u"LoadTransparentGif" || kind != CallKind::kMethod)
    Raise(RunTimeError::kMemberNotFound);
  if (arguments.size() != 1)
    Raise(RunTimeError::kInvalidProcedureCall);
  // The parameter is a byte array by reference: the caller's own array where it passes one,
  // else a copy of the value; anything else does not fit the parameter.
  const Variant& argument = arguments[0];
  constexpr VarType kByteArray = VarType::VT_ARRAY | VarType::VT_UI1;
  if (ArrayRef* target = argument.RefArray();
      target != nullptr && argument.IsByRef() && ValueType(argument.type()) == kByteArray) {
    return Variant(LoadTransparentGif(*target));
  }
  const Variant value = argument.Value();
  if (value.type() != kByteArray)
    Raise(RunTimeError::kTypeMismatch);
  ArrayRef bArr = value.Array();
  return Variant(LoadTransparentGif(bArr));
}

Ref<Object> TransparentGifLoader::LoadTransparentGif(ArrayRef& bArr) {
  Ref<Object> result;
  std::uintptr_t gdipBmp = 0;
  std::uintptr_t gdihBmp = 0;
  Ref<Object> stream;
  Run(
      Trace(), kLoadTransparentGif, [&](ParameterText& p) { p.Add(u"bArr", ByteArray(bArr)); },
      [&](LocalReport& l) {
        l.Add(u"bArr", ByteArray(bArr));
        l.Add(u"gdipBmp", Reported(gdipBmp));
        l.Add(u"gdihBmp", Reported(gdihBmp));
        l.Add(u"stream", tracing::AsUnknown{stream});
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) stream = LoadResourceAsStream(bArr);
        TF_STEP(2) if (!stream) {
          TF_STEP(3) return;
        }
        TF_STEP(4) Api().GdipCreateBitmapFromStream(stream, &gdipBmp);
        TF_STEP(5) Api().GdipCreateHBITMAPFromBitmap(gdipBmp, &gdihBmp, kBackground);
        // The handle is a copy of its own; the GDI+ bitmap, and the stream it holds, would only
        // pile up until GDI+ shuts down.
        TF_STEP(6) if (gdipBmp != 0) {
          TF_STEP(7) Api().GdipDisposeImage(gdipBmp);
        }
        TF_STEP(8) result = BitmapToPicture(gdihBmp);
        TF_END
      });
  return result;
}

Ref<Object> TransparentGifLoader::LoadResourceAsStream(ArrayRef& bArr) {
  Ref<Object> result;
  std::uintptr_t hMem = 0;
  void* lpMem = nullptr;
  bool released = false;
  Run(
      Trace(), kLoadResourceAsStream, [&](ParameterText& p) { p.Add(u"bArr", ByteArray(bArr)); },
      [&](LocalReport& l) {
        l.Add(u"bArr", ByteArray(bArr));
        l.Add(u"hMem", Reported(hMem));
        l.Add(u"lpMem", Reported(reinterpret_cast<std::uintptr_t>(lpMem)));
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) if (IsTrue(vb_language_extensions::isEmptyArrayByte(protector_, bArr))) {
          TF_STEP(2) return;
        }
        TF_STEP(3) hMem = Api().GlobalAlloc(kGmemMoveable, ByteCount(bArr));
        TF_STEP(4) if (hMem == 0) {
          TF_STEP(5) return;
        }
        TF_STEP(6) lpMem = Api().GlobalLock(hMem);
        TF_STEP(7) if (lpMem == nullptr) {
          TF_STEP(8) released = Api().GlobalFree(hMem) == 0;
          TF_STEP(9) return;
        }
        TF_STEP(10) CopyFromElementZero(lpMem, bArr);
        TF_STEP(11) result = Api().CreateStreamOnHGlobal(hMem, true);
        TF_STEP(12) Api().GlobalUnlock(hMem);
        TF_END
      });
  // Only a stream takes the block over. One that never became a stream - no stream was made, or
  // the procedure left through its tail after the allocation - would be lost, so it goes here.
  if (hMem != 0 && !result && !released)
    protector_.platform().pictures->GlobalFree(hMem);
  return result;
}

Ref<Object> TransparentGifLoader::BitmapToPicture(std::uintptr_t hBmp) {
  Ref<Object> result;
  Ref<Object> oNewPic;
  Run(
      Trace(), kBitmapToPicture, [&](ParameterText& p) { p.Add(u"hBmp", Reported(hBmp)); },
      [&](LocalReport& l) {
        l.Add(u"hBmp", Reported(hBmp));
        l.AddText(u"oNewPic = {Unknown Type}");
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) if (hBmp == 0) {
          TF_STEP(2) return;
        }
        TF_STEP(3) mPicConv.hbitmap = hBmp;
        TF_STEP(4) oNewPic = Api().OleCreatePictureIndirect(mPicConv, mIguid, true);
        TF_STEP(5) result = oNewPic;
        TF_END
      });
  // A handle that no picture took over has no other owner.
  if (hBmp != 0 && !oNewPic)
    protector_.platform().pictures->DeleteObject(hBmp);
  return result;
}

void TransparentGifLoader::initializeConversionStructs(PictureApi::Guid& IGuid,
                                                       PictureApi::PictureDescription& tPicConv) {
  Run(
      Trace(), kInitializeConversionStructs,
      [&](ParameterText& p) {
        p.AddRecord(u"IGuid");
        p.AddRecord(u"tPicConv");
      },
      tracing::NoLocals,
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) tPicConv.cbSizeofstruct = kPictDescSize;
        TF_STEP(2) tPicConv.picType = kPicTypeBitmap;
        TF_STEP(3) IGuid.Data1 = kIPicture.Data1;
        TF_STEP(4) IGuid.Data2 = kIPicture.Data2;
        TF_STEP(5) IGuid.Data3 = kIPicture.Data3;
        TF_STEP(6) IGuid.Data4 = kIPicture.Data4;
        TF_END
      });
}

void TransparentGifLoader::vbwReport_TransparentGifLoader_GUID(Utf16View lName,
                                                               const PictureApi::Guid& record,
                                                               std::int32_t lTab) const {
  const Utf16String name(lName);
  protector_.vbwReportVariable(name + u".Data1", static_cast<std::int32_t>(record.Data1), lTab);
  protector_.vbwReportVariable(name + u".Data2", static_cast<std::int16_t>(record.Data2), lTab);
  protector_.vbwReportVariable(name + u".Data3", static_cast<std::int16_t>(record.Data3), lTab);
  protector_.vbwReportVariable(
      name + u".Data4",
      Variant(VarType::VT_UI1,
              MakeArray(std::vector<std::uint8_t>(record.Data4.begin(), record.Data4.end()))),
      lTab);
}

void TransparentGifLoader::vbwReportModuleVariables() const {
  vbwReport_TransparentGifLoader_GUID(u"mIguid", mIguid, 0);
  protector_.vbwReportVariable(u"mToken", static_cast<std::int32_t>(mToken), 0);
}

}  // namespace tabforge
