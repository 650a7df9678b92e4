// Main2, the library's one public class: the state the add-in's ribbon depends on, and every
// member that the add-in's template calls.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <vector>

#include "accessibility/accessibility.h"
#include "platform/object.h"
#include "platform/utf16.h"
#include "platform/variant_bool.h"
#include "ribbon/controls.h"
#include "ribbon/dictionary.h"
#include "tracing/counted_platform.h"
#include "tracing/vbw_protector.h"

namespace tabforge {

// Bounds of the search for the add-in's tab. The word processor's ribbon builds its tree while it
// starts up, so the search waits for each stage; these bounds keep a tab that never appears from
// holding the word processor's thread. When one is hit the search ends quietly and nothing is
// pressed. The time budget covers all stages of one search together; the attempt cap applies to
// each stage on its own, with one message pass between attempts.
struct TabSearchLimits {
  std::chrono::steady_clock::duration timeBudget = std::chrono::seconds(3);
  int maxAttemptsPerStage = 200;
  // Bounds of every tree walk of the search (see accessibility/accessibility.h).
  WalkLimits walk;
};

class Main2 {
 public:
  // The instance belongs to the apartment whose tracing module `protector` is.
  explicit Main2(VbwProtector& protector);
  Main2(const Main2&) = delete;
  Main2& operator=(const Main2&) = delete;

  // --- The members of the public interface, in its order. No failure ever leaves one. ---------

  void Initialize(const Ref<Object>& eventSignaller, const Utf16String& productName);
  // The write-only property: holds the object's ribbon interface.
  void ribbon(const Ref<Object>& ribbon);
  Utf16String GetRibbonXML();
  void productNameChanged(const Utf16String& productName);
  Utf16String GetLabel(const Utf16String& idStr);
  VariantBool GetEnabled(const Utf16String& idStr);
  VariantBool GetPressed(const Utf16String& idStr);
  Utf16String GetScreentip(const Utf16String& idStr);
  // A picture, or nothing for a control without one.
  Ref<Object> GetImage(const Utf16String& idStr);
  Ref<Object> LoadImage(const Utf16String& id);
  void RibbonCallback(const Utf16String& idStr, VariantBool isOn);
  void EnableGotoQuickBookmark(VariantBool value);
  void UpdateLexoscopeIcon(VariantBool enable);
  void EnableToolbar(VariantBool value);
  void activateMorvelinTab(const Ref<Object>& RibbonCommandBar);

  void SetTabSearchLimits(const TabSearchLimits& limits);

  // --- State, for hosts and tests ----------------------------------------------------------------

  VariantBool enabled() const { return mEnabled; }
  VariantBool quickBookmarkEnabled() const { return mQuickBookmarkEnabled; }
  const Utf16String& productName() const { return mProductName; }
  VariantBool lexoscopeOn() const { return mLexoscopeOn; }
  // The ribbon object that the host handed over.
  Ref<RibbonUi> ribbonUi() const { return mRibbon ? mRibbon->real() : nullptr; }
  const Ref<Object>& eventSignaller() const { return mEventSignaller; }
  const Ref<Dictionary>& productNameSensitiveControls() const {
    return mProductNameSensitiveControls;
  }

 private:
  void initProductNameSensitiveControl(std::int32_t id, const Utf16String& labelTemplate);
  Utf16String AddButton(const Utf16String& id);
  Utf16String AddButtonImpl(Utf16View id, Utf16View label, Utf16String& tooltip,
                            Utf16View shortCutKey, Utf16View size, VariantBool showLabel,
                            Utf16View imageMso, Utf16View buttonType);
  std::int16_t getApplyMorvelinImageIndex();
  std::int32_t convertToId(Utf16View idStr);
  void InvalidateRibbonControl(std::int32_t id);
  Ref<Object> getMorvelinTab(const Ref<Object>& RibbonCommandBar);
  std::int16_t TabIndex(const ChildList& Info, const Utf16String& tabName);
  void clickWidget(const Ref<Object>& widget);
  // The module report is the tracing's to call.
  friend class tracing::Module;
  void vbwReportModuleVariables() const;
  // Defined here so that a procedure's runner sees the module's parts, not a returned record.
  tracing::Module Trace() const noexcept { return tracing::Module(protector_, *this); }

  VbwProtector& protector_;
  Accessibility accessibility_{protector_};
  TabSearchLimits tabSearchLimits_;

  // Fields, in the order of the module report.
  VariantBool mEnabled = kFalse;
  VariantBool mQuickBookmarkEnabled = kFalse;
  Utf16String mProductName;
  VariantBool mLexoscopeOn = kFalse;
  // Kept behind the counting ribbon, so that every invalidation is charged to the budget.
  Ref<CountedRibbonUi> mRibbon;
  Ref<Object> mTransparentGifLoader;
  Ref<Object> mEventSignaller;
  Ref<Dictionary> mProductNameSensitiveControls;

  // Per-control tables, filled on first use; an empty slot 0 says the table is not filled yet.
  std::array<std::int16_t, kControlSlots> imageIndex_{};
  std::vector<Utf16String> macroIndex_ = std::vector<Utf16String>(kControlSlots);
};

}  // namespace tabforge
