// The add-in's controls: their numeric ids and the three forms an id takes.
#pragma once

#include <array>
#include <cstdint>

#include "platform/bstr.h"

namespace tabforge {

// Each enumerator bears the name of the macro that the control starts. 3 is not assigned.
enum class ControlId : std::int16_t {
  ApplyMorvelin = 0,
  ConfigureMorvelin = 1,
  SubmitPaperForEditing = 2,
  ShowAbout = 4,
  InsertReference = 5,
  ToolbarPasteReference = 6,
  Tomeseek = 7,
  StartNewChapter = 8,
  ApplyHeading1Format = 9,
  ApplyHeading2Format = 10,
  ApplyHeading3Format = 11,
  ApplyHeading4Format = 12,
  ApplyParagraphFormat = 13,
  ApplyQuotationFormat = 14,
  UpdateFrontMatter = 15,
  GoToQuickBookmark = 16,
  SetQuickBookmark = 17,
  GotoPage = 18,
  OpenUserManual = 19,
  InsertTable = 20,
  InsertFigure = 21,
  InsertCrossReference = 22,
  ToggleLexoscope = 23,
  BrowseHelpdock = 24,
  DeleteEditingHints = 25,
  UseMorvelin = 26,
};

// Slots of the per-control tables: ids 0 to 26.
inline constexpr int kControlSlots = 27;

// The prefix of an id text: "MVN5" is the id text of control 5.
inline constexpr BstrView kIdPrefix = u"MVN";

constexpr std::int32_t ToNumber(ControlId id) {
  return static_cast<std::int32_t>(id);
}

// The id text of a control number.
Bstr IdText(std::int32_t id);

// A control whose label follows the product name: its label template holds "PN" wherever the
// name is to stand.
struct LabelTemplate {
  std::int32_t id;
  BstrView labelTemplate;
};

inline constexpr BstrView kProductNameToken = u"PN";

// In the order in which they are added, which is the order of invalidation after a rename.
inline constexpr std::array<LabelTemplate, 4> kLabelTemplates{{
    {ToNumber(ControlId::ApplyMorvelin), u"Apply PN"},
    {ToNumber(ControlId::ShowAbout), u"About PN / Login to PN"},
    {ToNumber(ControlId::ConfigureMorvelin), u"Configure PN"},
    {ToNumber(ControlId::UseMorvelin), u"Use PN"},
}};

// The macro that each control starts, by control id; 3 is assigned to no control.
inline constexpr std::array<BstrView, kControlSlots> kMacroNames{
    u"ApplyMorvelin",
    u"ConfigureMorvelin",
    u"SubmitPaperForEditing",
    u"",
    u"ShowAbout",
    u"InsertReference",
    u"ToolbarPasteReference",
    u"Tomeseek",
    u"StartNewChapter",
    u"ApplyHeading1Format",
    u"ApplyHeading2Format",
    u"ApplyHeading3Format",
    u"ApplyHeading4Format",
    u"ApplyParagraphFormat",
    u"ApplyQuotationFormat",
    u"UpdateFrontMatter",
    u"GoToQuickBookmark",
    u"SetQuickBookmark",
    u"GotoPage",
    u"OpenUserManual",
    u"InsertTable",
    u"InsertFigure",
    u"InsertCrossReference",
    u"ToggleLexoscope",
    u"BrowseHelpdock",
    u"DeleteEditingHints",
    u"UseMorvelin",
};

}  // namespace tabforge
