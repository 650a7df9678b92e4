#include "ribbon/main2.h"

#include "pictures/transparent_gif_loader.h"
#include "platform/failure.h"
#include "platform/flight_events.h"
#include "platform/variant.h"
#include "ribbon/procedure_names.h"
#include "ribbon/string_extensions.h"
#include "tracing/run.h"

namespace tabforge {

using namespace main2_procedures;
using tracing::Body;
using tracing::LocalReport;
using tracing::ParameterText;
using tracing::Run;

Utf16String IdText(std::int32_t id) {
  return Utf16String(kIdPrefix) + DecimalText(id);
}

Main2::Main2(VbwProtector& protector) : protector_(protector) {}

void Main2::vbwReportModuleVariables() const {
  protector_.vbwReportVariable(u"mEnabled", mEnabled, 0);
  protector_.vbwReportVariable(u"mQuickBookmarkEnabled", mQuickBookmarkEnabled, 0);
  protector_.vbwReportVariable(u"mProductName", mProductName, 0);
  protector_.vbwReportVariable(u"mLexoscopeOn", mLexoscopeOn, 0);
  protector_.vbwReportVariable(u"mRibbon", Variant(Ref<Object>(ribbonUi())), 0);
  protector_.vbwReportVariable(u"mTransparentGifLoader", Variant(mTransparentGifLoader), 0);
  protector_.vbwReportVariable(u"mEventSignaller", Variant(mEventSignaller), 0);
  protector_.vbwReportVariable(u"mProductNameSensitiveControls",
                               Variant(Ref<Object>(mProductNameSensitiveControls)), 0);
}

void Main2::Initialize(const Ref<Object>& eventSignaller, const Utf16String& productName) {
  const flight::StepScope step(flight::Step::kInitialize);
  static_assert(kLabelTemplates.size() == 4, "one statement for each label template");
  Run(
      Trace(), kInitialize,
      [&](ParameterText& p) {
        p.Add(u"eventSignaller", eventSignaller);
        p.Add(u"productName", productName);
      },
      [&](LocalReport& l) {
        l.Add(u"productName", productName);
        l.Add(u"eventSignaller", eventSignaller);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) mProductName = productName;
        TF_STEP(2) mEnabled = kTrue;
        TF_STEP(3) mQuickBookmarkEnabled = kFalse;
        // The new loader starts before the old one lets go, so GDI+ never stops in between.
        TF_STEP(4) mTransparentGifLoader = MakeRef<TransparentGifLoader>(protector_);
        TF_STEP(5) mEventSignaller = eventSignaller;
        TF_STEP(6) mProductNameSensitiveControls = MakeRef<Dictionary>();
        TF_STEP(7)
        initProductNameSensitiveControl(kLabelTemplates[0].id,
                                        Utf16String(kLabelTemplates[0].labelTemplate));
        TF_STEP(8)
        initProductNameSensitiveControl(kLabelTemplates[1].id,
                                        Utf16String(kLabelTemplates[1].labelTemplate));
        TF_STEP(9)
        initProductNameSensitiveControl(kLabelTemplates[2].id,
                                        Utf16String(kLabelTemplates[2].labelTemplate));
        TF_STEP(10)
        initProductNameSensitiveControl(kLabelTemplates[3].id,
                                        Utf16String(kLabelTemplates[3].labelTemplate));
        TF_END
      });
}

void Main2::ribbon(const Ref<Object>& ribbon) {
  const flight::StepScope step(flight::Step::kRibbonHandedOver);
  Run(
      Trace(), kRibbon, [&](ParameterText& p) { p.Add(u"ribbon", ribbon); },
      [&](LocalReport& l) { l.Add(u"ribbon", ribbon); },
      [&](Body& body) {
        TF_BEGIN(body)
        // Nothing empties the field; an object without the ribbon interface is a type mismatch
        // and leaves the field as it was.
        TF_STEP(1) {
          Ref<RibbonUi> ribbonUi = ribbon ? ribbon->QueryRibbonUi() : nullptr;
          if (ribbon && !ribbonUi)
            Raise(RunTimeError::kTypeMismatch);
          mRibbon = ribbonUi ? MakeRef<CountedRibbonUi>(std::move(ribbonUi)) : nullptr;
        }
        TF_END
      });
}

void Main2::initProductNameSensitiveControl(std::int32_t id, const Utf16String& labelTemplate) {
  Run(
      Trace(), kInitProductNameSensitiveControl,
      [&](ParameterText& p) {
        p.Add(u"id", id);
        p.Add(u"labelTemplate", labelTemplate);
      },
      [&](LocalReport& l) {
        l.Add(u"id", id);
        l.Add(u"labelTemplate", labelTemplate);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) if (!mProductNameSensitiveControls) Raise(RunTimeError::kObjectNotSet);
        mProductNameSensitiveControls->Add(id, labelTemplate);
        TF_END
      });
}

std::int32_t Main2::convertToId(Utf16View idStr) {
  std::int32_t result = 0;
  Run(
      Trace(), kConvertToId, [&](ParameterText& p) { p.Add(u"idStr", idStr); },
      [&](LocalReport& l) { l.Add(u"idStr", idStr); },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) StringExtensions::stripPrefix(idStr, kIdPrefix);
        TF_STEP(2) result = ParseInteger(idStr);
        TF_END
      });
  return result;
}

}  // namespace tabforge
