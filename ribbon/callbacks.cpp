// The ribbon's questions and the template's reports of change: labels, screentips, enabled and
// pressed states, invalidation, and the press of a control.
#include "platform/checked_access.h"
#include "platform/failure.h"
#include "platform/flight_events.h"
#include "ribbon/main2.h"
#include "ribbon/procedure_names.h"
#include "ribbon/string_extensions.h"
#include "tracing/call_by_name.h"
#include "tracing/run.h"

namespace tabforge {

using namespace main2_procedures;
using tracing::Body;
using tracing::LocalReport;
using tracing::ParameterText;
using tracing::Run;

namespace {

// A control id narrowed to 16 bits, as most callers hold it.
std::int16_t ToControlId(std::int32_t id) {
  if (id < -32768 || id > 32767)
    Raise(RunTimeError::kOverflow);
  return static_cast<std::int16_t>(id);
}

}  // namespace

Utf16String Main2::GetLabel(const Utf16String& idStr) {
  const flight::StepScope step(flight::Step::kFirstCallback);
  Utf16String result;
  std::int32_t id = 0;
  Run(
      Trace(), kGetLabel, [&](ParameterText& p) { p.Add(u"idStr", idStr); },
      [&](LocalReport& l) {
        l.Add(u"idStr", idStr);
        l.Add(u"id", id);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) id = convertToId(idStr);
        // Reading a missing key adds it with an empty template, so the next rename invalidates
        // that control too.
        TF_STEP(2)
        result = StringExtensions::replaceText(Required(mProductNameSensitiveControls).Item(id),
                                               kProductNameToken, mProductName, 1, -1, 0);
        TF_END
      });
  return result;
}

Utf16String Main2::GetScreentip(const Utf16String& idStr) {
  const flight::StepScope step(flight::Step::kFirstCallback);
  Utf16String result;
  std::int16_t id = 0;
  Utf16String isOn;
  Run(
      Trace(), kGetScreentip, [&](ParameterText& p) { p.Add(u"idStr", idStr); },
      [&](LocalReport& l) {
        l.Add(u"idStr", idStr);
        l.Add(u"id", id);
        l.Add(u"isOn", isOn);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) id = ToControlId(convertToId(idStr));
        TF_STEP(2) if (id != Number(ControlId::ToggleLexoscope)) {
          TF_STEP(3) return;
        }
        // The tip names what a press would do next.
        TF_STEP(4) isOn = IsTrue(mLexoscopeOn) ? u"off" : u"on";
        TF_STEP(5) result = u"Turn Lexoscope " + isOn;
        TF_END
      });
  return result;
}

void Main2::productNameChanged(const Utf16String& productName) {
  std::vector<std::int32_t> keys;
  std::size_t ndx = 0;
  Variant id;
  Run(
      Trace(), kProductNameChanged, [&](ParameterText& p) { p.Add(u"productName", productName); },
      [&](LocalReport& l) {
        l.Add(u"productName", productName);
        l.Add(u"id", id);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        // The name is stored before the first invalidation, so every question that an
        // invalidation brings about already finds it.
        TF_STEP(1) mProductName = productName;
        TF_STEP(2) keys = Required(mProductNameSensitiveControls).Keys();
        TF_STEP(3) for (ndx = 0; ndx < keys.size(); ++ndx) {
          TF_STEP(4) id = At(keys, static_cast<std::int64_t>(ndx));
          TF_LAST_IN_LOOP(5) InvalidateRibbonControl(ToInteger(id));
          TF_LOOP_END(5)
        }
        TF_END
      });
}

VariantBool Main2::GetEnabled(const Utf16String& idStr) {
  const flight::StepScope step(flight::Step::kFirstCallback);
  VariantBool result = kFalse;
  std::int16_t id = 0;
  Run(
      Trace(), kGetEnabled, [&](ParameterText& p) { p.Add(u"idStr", idStr); },
      [&](LocalReport& l) {
        l.Add(u"idStr", idStr);
        l.Add(u"id", id);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) id = ToControlId(convertToId(idStr));
        TF_STEP(2) if (id == Number(ControlId::OpenUserManual)) {
          TF_STEP(3) result = kTrue;
          TF_STEP(4) return;
        }
        TF_STEP(5) result = mEnabled;
        TF_STEP(6) if (id == Number(ControlId::GoToQuickBookmark)) {
          TF_STEP(7) result = ToVariantBool(IsTrue(mEnabled) && IsTrue(mQuickBookmarkEnabled));
        }
        TF_END
      });
  return result;
}

VariantBool Main2::GetPressed(const Utf16String& idStr) {
  const flight::StepScope step(flight::Step::kFirstCallback);
  VariantBool result = kFalse;
  std::int16_t id = 0;
  Run(
      Trace(), kGetPressed, [&](ParameterText& p) { p.Add(u"idStr", idStr); },
      [&](LocalReport& l) {
        l.Add(u"idStr", idStr);
        l.Add(u"id", id);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) id = ToControlId(convertToId(idStr));
        TF_STEP(2) if (id == Number(ControlId::ToggleLexoscope)) {
          TF_STEP(3) result = mLexoscopeOn;
        }
        TF_END
      });
  return result;
}

void Main2::EnableToolbar(VariantBool value) {
  Run(
      Trace(), kEnableToolbar, [&](ParameterText& p) { p.Add(u"value", value); },
      [&](LocalReport& l) { l.Add(u"value", value); },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) if (value == mEnabled) {
          TF_STEP(2) return;
        }
        TF_STEP(3) mEnabled = value;
        TF_STEP(4) if (!mRibbon) {
          TF_STEP(5) return;
        }
        // The ribbon's refusal is nobody's concern: the flag has changed, and the ribbon reads
        // it when it next asks.
        TF_PASS_OVER(6)
        // Held for the call: the ribbon may set a new ribbon object while it invalidates.
        TF_STEP(7) Required(Ref<RibbonUi>(mRibbon)).Invalidate();
        TF_END
      });
}

void Main2::EnableGotoQuickBookmark(VariantBool value) {
  Run(
      Trace(), kEnableGotoQuickBookmark, [&](ParameterText& p) { p.Add(u"value", value); },
      [&](LocalReport& l) { l.Add(u"value", value); },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) if (value == mQuickBookmarkEnabled) {
          TF_STEP(2) return;
        }
        TF_STEP(3) mQuickBookmarkEnabled = value;
        TF_STEP(4) InvalidateRibbonControl(Number(ControlId::GoToQuickBookmark));
        TF_END
      });
}

void Main2::UpdateLexoscopeIcon(VariantBool enable) {
  Run(
      Trace(), kUpdateLexoscopeIcon, [&](ParameterText& p) { p.Add(u"enable", enable); },
      [&](LocalReport& l) { l.Add(u"enable", enable); },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) mLexoscopeOn = enable;
        TF_STEP(2) InvalidateRibbonControl(Number(ControlId::ToggleLexoscope));
        TF_END
      });
}

void Main2::InvalidateRibbonControl(std::int32_t id) {
  Utf16String idText;
  Run(
      Trace(), kInvalidateRibbonControl, [&](ParameterText& p) { p.Add(u"id", id); },
      [&](LocalReport& l) { l.Add(u"id", id); },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) if (!mRibbon) {
          TF_STEP(2) return;
        }
        TF_PASS_OVER(3)
        TF_STEP(4) idText = IdText(id);
        TF_STEP(5) Required(Ref<RibbonUi>(mRibbon)).InvalidateControl(idText);
        TF_END
      });
}

void Main2::RibbonCallback(const Utf16String& idStr, VariantBool isOn) {
  const flight::StepScope step(flight::Step::kFirstCallback);
  std::int16_t id = 0;
  Run(
      Trace(), kRibbonCallback,
      [&](ParameterText& p) {
        p.Add(u"idStr", idStr);
        p.Add(u"isOn", isOn);
      },
      [&](LocalReport& l) {
        l.Add(u"idStr", idStr);
        l.Add(u"isOn", isOn);
        l.Add(u"index", macroIndex_);
        l.Add(u"id", id);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) if (At(macroIndex_, 0).empty()) {
          TF_STEP(2) macroIndex_.assign(kMacroNames.begin(), kMacroNames.end());
        }
        TF_STEP(3) id = ToControlId(convertToId(idStr));
        // Neither the id nor isOn goes to the macro; the toggle's state comes back through
        // UpdateLexoscopeIcon.
        // The table's slot goes by reference, as an element of an array does.
        TF_STEP(4)
        CallByName(mEventSignaller, u"Run", CallKind::kMethod,
                   Variant::ByRef(&At(macroIndex_, id)));
        TF_END
      });
}

}  // namespace tabforge
