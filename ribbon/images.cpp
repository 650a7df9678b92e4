// Main2's control images: which image number belongs to a control, and the picture of it that the
// template's bytes give.
#include <array>
#include <utility>

#include "platform/failure.h"
#include "platform/flight_events.h"
#include "platform/variant.h"
#include "ribbon/main2.h"
#include "ribbon/procedure_names.h"
#include "tracing/call_by_name.h"
#include "tracing/run.h"

namespace tabforge {
namespace {

using namespace main2_procedures;
using tracing::Body;
using tracing::LocalReport;
using tracing::ParameterText;
using tracing::Run;

constexpr std::int16_t kMorvelinImage = 102;
constexpr std::int16_t kOtherProductImage = 318;

// The template's bytes for `number`, made into a picture by the loader: both calls by name, the
// tagged value passed on as it came.
Ref<Object> FetchPicture(const Ref<Object>& signaller, const Ref<Object>& loader,
                         std::int16_t& number) {
  Variant bits =
      CallByName(signaller, u"getToolbarIconBits", CallKind::kMethod, Variant::ByRef(&number));
  return ToObject(CallByName(loader, u"LoadTransparentGif", CallKind::kMethod, std::move(bits)));
}

// The slot of the image table that a decimal id names; a number outside the table is out of
// bounds.
std::int16_t& SlotOf(std::array<std::int16_t, kControlSlots>& table, const Utf16String& id) {
  const std::int32_t number = ParseLong(id);
  if (number < 0 || number >= static_cast<std::int32_t>(table.size()))
    Raise(RunTimeError::kSubscriptOutOfRange);
  return table[static_cast<std::size_t>(number)];
}

}  // namespace

std::int16_t Main2::getApplyMorvelinImageIndex() {
  std::int16_t result = 0;
  Run(Trace(), kGetApplyMorvelinImageIndex, tracing::NoParameters, tracing::NoLocals,
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) result = mProductName == u"Morvelin" ? kMorvelinImage : kOtherProductImage;
        TF_END
      });
  return result;
}

Ref<Object> Main2::GetImage(const Utf16String& idStr) {
  const flight::StepScope step(flight::Step::kFirstPicture);
  Ref<Object> result;
  std::int32_t id = 0;
  std::int16_t index = 0;
  Run(
      Trace(), kGetImage, [&](ParameterText& p) { p.Add(u"idStr", idStr); },
      [&](LocalReport& l) {
        l.Add(u"idStr", idStr);
        l.Add(u"id", id);
        l.Add(u"index", index);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) id = convertToId(idStr);
        TF_STEP(2)
        if (id != Number(ControlId::ApplyMorvelin) && id != Number(ControlId::UseMorvelin)) {
          TF_STEP(3) return;
        }
        // Asked on every call, so that the picture follows the product name.
        TF_STEP(4) index = getApplyMorvelinImageIndex();
        TF_STEP(5) result = FetchPicture(mEventSignaller, mTransparentGifLoader, index);
        TF_END
      });
  return result;
}

Ref<Object> Main2::LoadImage(const Utf16String& id) {
  const flight::StepScope step(flight::Step::kFirstPicture);
  Ref<Object> result;
  Run(
      Trace(), kLoadImage, [&](ParameterText& p) { p.Add(u"id", id); },
      [&](LocalReport& l) {
        l.Add(u"id", id);
        l.Add(u"index", imageIndex_);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        // The apply number is never 0, so slot 0 tells whether the table is filled; it keeps the
        // apply number of this moment for good.
        TF_STEP(1) if (imageIndex_[Number(ControlId::ApplyMorvelin)] == 0) {
          TF_STEP(2) imageIndex_[Number(ControlId::ApplyMorvelin)] = getApplyMorvelinImageIndex();
          // The fixed numbers; slots 0 and 26 take the apply number in the statements around.
          TF_STEP(3) for (const Control& control : kControls) {
            if (control.image > 0)
              imageIndex_[control.number] = control.image;
          }
          TF_STEP(4) imageIndex_[Number(ControlId::UseMorvelin)] = getApplyMorvelinImageIndex();
        }
        TF_STEP(5) if (SlotOf(imageIndex_, id) <= 0) {
          TF_STEP(6) return;
        }
        TF_STEP(7)
        result = FetchPicture(mEventSignaller, mTransparentGifLoader, SlotOf(imageIndex_, id));
        TF_END
      });
  return result;
}

}  // namespace tabforge
