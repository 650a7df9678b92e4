// The add-in's controls, one row each: everything the library knows of a control stands in its
// row, and the id enumeration, the label templates, the catalogue, the image and macro tables and
// the document's order are views of the rows, checked when the library is compiled.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/utf16.h"
#include "platform/variant_bool.h"

namespace tabforge {

// Where the composer writes a control; within a place, controls stand in the order of their rows.
enum class DocumentPlace : std::uint8_t {
  kReferencesTab,     // the add-in's group on the word processor's References tab
  kSplitMenu,         // the menu of the first group's split button
  kCoreFeatures,      // the first group, behind the split button
  kStyles,            // the formatting group, ahead of its button group
  kHeadings,          // the formatting group's button group
  kNavigation,        // the navigation group
  kTablesAndFigures,  // the tables-and-figures group
  kLexoscope,         // the Lexoscope group
};

inline constexpr Utf16View kButton = u"button";
inline constexpr Utf16View kToggleButton = u"toggleButton";

// The image of the two controls that apply the product: 102 or 318, as the product name decides
// when the image table is filled.
inline constexpr std::int16_t kApplyImage = -1;

// Slots of the per-control tables: ids 0 to 26.
inline constexpr int kControlSlots = 27;

// The decimal text of every id, for the rows to refer to.
inline constexpr auto kDecimalIds = [] {
  std::array<std::array<char16_t, 2>, kControlSlots> texts{};
  for (int number = 0; number < kControlSlots; ++number) {
    texts[number] = number < 10 ? std::array<char16_t, 2>{char16_t(u'0' + number)}
                                : std::array<char16_t, 2>{char16_t(u'0' + number / 10),
                                                          char16_t(u'0' + number % 10)};
  }
  return texts;
}();

struct Control {
  std::int16_t number;
  // The macro that a press starts; the control's enumerator bears the same name.
  Utf16View macro;
  DocumentPlace place;
  // The values of the element writer's parameters. `tooltip` is without its closing mark; an
  // empty `label` makes the writer ask for the label and the image through callbacks.
  Utf16View label = u"";
  Utf16View tooltip;
  Utf16View shortCutKey = u"";
  Utf16View size = u"";
  VariantBool showLabel = kTrue;
  Utf16View imageMso = u"";
  Utf16View buttonType = kButton;
  // A label that follows the product name: "PN" stands wherever the name is to stand. `Initialize`
  // adds the templates in `templateOrder` (from 1), and a rename invalidates them in that order.
  Utf16View labelTemplate = u"";
  int templateOrder = 0;
  // The slot of the image table: a fixed image number, kApplyImage, or 0 for no picture.
  std::int16_t image = 0;

  // The control's id as decimal text, the form the catalogue and the `image` attribute use.
  constexpr Utf16View DecimalId() const {
    return Utf16View(kDecimalIds[number].data(), number < 10 ? 1 : 2);
  }
};

inline constexpr std::array<Control, 26> kControls{{
    {.number = 0,
     .macro = u"ApplyMorvelin",
     .place = DocumentPlace::kSplitMenu,
     .tooltip = u"Apply a formatting template to this document",
     .labelTemplate = u"Apply PN",
     .templateOrder = 1,
     .image = kApplyImage},
    {.number = 1,
     .macro = u"ConfigureMorvelin",
     .place = DocumentPlace::kSplitMenu,
     .tooltip = u"Configure the formatting template for this document",
     .labelTemplate = u"Configure PN",
     .templateOrder = 3},
    {.number = 2,
     .macro = u"SubmitPaperForEditing",
     .place = DocumentPlace::kSplitMenu,
     .label = u"Submit Paper for Grading or Editing",
     .tooltip = u"Submit this paper to Morvelin's resident editor for feedback that could improve "
                u"your grades"},
    {.number = 4,
     .macro = u"ShowAbout",
     .place = DocumentPlace::kSplitMenu,
     .tooltip = u"Show the About screen where you can login",
     .labelTemplate = u"About PN / Login to PN",
     .templateOrder = 2},
    {.number = 5,
     .macro = u"InsertReference",
     .place = DocumentPlace::kCoreFeatures,
     .label = u"Insert Reference",
     .tooltip = u"Insert a reference and/or bibliography entry into your document (Ctrl+Shift+F)",
     .shortCutKey = u"I",
     .size = u"large",
     .image = 303},
    {.number = 6,
     .macro = u"ToolbarPasteReference",
     .place = DocumentPlace::kCoreFeatures,
     .label = u"Paste Reference",
     .tooltip = u"Paste a reference and/or bibliography entry into your document (Alt+P)",
     .shortCutKey = u"R",
     .image = 204},
    {.number = 7,
     .macro = u"Tomeseek",
     .place = DocumentPlace::kCoreFeatures,
     .label = u"Hunt for References",
     .tooltip = u"Hunt for references with Tomeshelf and Tomebase (Ctrl+Shift+F)",
     .shortCutKey = u"H",
     .image = 205},
    // 8 to 12 stand side by side in a button group and show only their images.
    {.number = 8,
     .macro = u"StartNewChapter",
     .place = DocumentPlace::kHeadings,
     .label = u"Start a new chapter",
     .tooltip = u"Insert a chapter heading at the cursor (Alt+C)",
     .shortCutKey = u"A",
     .showLabel = kFalse,
     .image = 206},
    {.number = 9,
     .macro = u"ApplyHeading1Format",
     .place = DocumentPlace::kHeadings,
     .label = u"Set as Heading Level 1",
     .tooltip = u"Format the text at the cursor as a level 1 heading (Ctrl+1)",
     .shortCutKey = u"1",
     .showLabel = kFalse,
     .image = 207},
    {.number = 10,
     .macro = u"ApplyHeading2Format",
     .place = DocumentPlace::kHeadings,
     .label = u"Set as Heading Level 2",
     .tooltip = u"Format the text at the cursor as a level 2 heading (Ctrl+2)",
     .shortCutKey = u"2",
     .showLabel = kFalse,
     .image = 208},
    {.number = 11,
     .macro = u"ApplyHeading3Format",
     .place = DocumentPlace::kHeadings,
     .label = u"Set as Heading Level 3",
     .tooltip = u"Format the text at the cursor as a level 3 heading (Ctrl+3)",
     .shortCutKey = u"3",
     .showLabel = kFalse,
     .image = 209},
    {.number = 12,
     .macro = u"ApplyHeading4Format",
     .place = DocumentPlace::kHeadings,
     .label = u"Set as Heading Level 4",
     .tooltip = u"Format the text at the cursor as a level 4 heading (Ctrl+4)",
     .shortCutKey = u"4",
     .showLabel = kFalse,
     .image = 210},
    // The image numbers do not run in the order of the ids: 13 has 212, 14 has 213, 15 has 211.
    {.number = 13,
     .macro = u"ApplyParagraphFormat",
     .place = DocumentPlace::kStyles,
     .label = u"Set as Paragraph",
     .tooltip = u"Format the text at the cursor as a paragraph (Ctrl+Shift+P)",
     .shortCutKey = u"P",
     .image = 212},
    {.number = 14,
     .macro = u"ApplyQuotationFormat",
     .place = DocumentPlace::kStyles,
     .label = u"Set as Quotation",
     .tooltip = u"Format the text at the cursor as a quotation (Ctrl+Q)",
     .shortCutKey = u"Q",
     .image = 213},
    {.number = 15,
     .macro = u"UpdateFrontMatter",
     .place = DocumentPlace::kCoreFeatures,
     .label = u"Update Document",
     .tooltip = u"Update pages, tables, figures, and table of contents in this document "
                u"(Ctrl+Shift+U)",
     .shortCutKey = u"U",
     .image = 211},
    {.number = 16,
     .macro = u"GoToQuickBookmark",
     .place = DocumentPlace::kNavigation,
     .label = u"Go to Quick Bookmark",
     .tooltip = u"Go to the quick bookmark you have previously set in the document (F2)",
     .shortCutKey = u"B",
     .size = u"large",
     .imageMso = u"BookmarkInsert"},
    {.number = 17,
     .macro = u"SetQuickBookmark",
     .place = DocumentPlace::kNavigation,
     .label = u"Set Quick Bookmark",
     .tooltip = u"Set the quick bookmark to the current cursor position (Ctrl+F2)",
     .shortCutKey = u"S",
     .imageMso = u"BookmarkInsert"},
    {.number = 18,
     .macro = u"GotoPage",
     .place = DocumentPlace::kNavigation,
     .label = u"Go to Page",
     .tooltip = u"Go to a particular page in the document (Ctrl+G)",
     .shortCutKey = u"G",
     .imageMso = u"HeaderFooterPageNumberInsert"},
    // A built-in image in the document, and still a number of its own in the image table.
    {.number = 19,
     .macro = u"OpenUserManual",
     .place = DocumentPlace::kNavigation,
     .label = u"Go to User Manual",
     .tooltip = u"Open the user manual",
     .shortCutKey = u"M",
     .imageMso = u"Help",
     .image = 215},
    {.number = 20,
     .macro = u"InsertTable",
     .place = DocumentPlace::kTablesAndFigures,
     .label = u"Insert Table",
     .tooltip = u"Insert a captioned table (Ctrl+Alt+T)",
     .shortCutKey = u"T",
     .imageMso = u"TableInsertGallery"},
    {.number = 21,
     .macro = u"InsertFigure",
     .place = DocumentPlace::kTablesAndFigures,
     .label = u"Insert Figure",
     .tooltip = u"Insert a captioned figure (Ctrl+Alt+F)",
     .shortCutKey = u"F",
     .imageMso = u"CaptionInsert"},
    {.number = 22,
     .macro = u"InsertCrossReference",
     .place = DocumentPlace::kTablesAndFigures,
     .label = u"Cross-reference",
     .tooltip = u"Insert a Cross-reference to a Table, Figure, or Heading (Ctrl+Shift+C)",
     .shortCutKey = u"X",
     .imageMso = u"CrossReferenceInsert"},
    {.number = 23,
     .macro = u"ToggleLexoscope",
     .place = DocumentPlace::kLexoscope,
     .label = u"Lexoscope",
     .tooltip = u"Show synonyms and dictionary definitions of any word in your document "
                u"(Ctrl+Shift+X)",
     .shortCutKey = u"Y",
     .size = u"large",
     .buttonType = kToggleButton,
     .image = 314},
    {.number = 24,
     .macro = u"BrowseHelpdock",
     .place = DocumentPlace::kSplitMenu,
     .label = u"Browse Helpdock",
     .tooltip = u"Browse the FAQ database, and log a support request"},
    // The only tip that ends in "!", which the writer leaves without a full stop.
    {.number = 25,
     .macro = u"DeleteEditingHints",
     .place = DocumentPlace::kSplitMenu,
     .label = u"Delete Hints from Professor Quillon",
     .tooltip =
         u"Deletes any remaining Hints from Professor Quillon.  Make sure you do this before "
         u"handing in your paper!"},
    {.number = 26,
     .macro = u"UseMorvelin",
     .place = DocumentPlace::kReferencesTab,
     .tooltip = u"Use Morvelin to manage your references (Ctrl+Shift+F)",
     .shortCutKey = u"Z",
     .size = u"large",
     .labelTemplate = u"Use PN",
     .templateOrder = 4,
     .image = kApplyImage},
}};

// The number of the control that starts `macro`; a name that no row bears does not compile.
consteval std::int16_t NumberOfMacro(Utf16View macro) {
  for (const Control& control : kControls) {
    if (control.macro == macro)
      return control.number;
  }
  throw "no control starts this macro";
}

// The add-in's controls by name. Each enumerator bears the name of the macro that the control
// starts and takes its number from that control's row.
enum class ControlId : std::int16_t {
  ApplyMorvelin = NumberOfMacro(u"ApplyMorvelin"),
  ConfigureMorvelin = NumberOfMacro(u"ConfigureMorvelin"),
  SubmitPaperForEditing = NumberOfMacro(u"SubmitPaperForEditing"),
  ShowAbout = NumberOfMacro(u"ShowAbout"),
  InsertReference = NumberOfMacro(u"InsertReference"),
  ToolbarPasteReference = NumberOfMacro(u"ToolbarPasteReference"),
  Tomeseek = NumberOfMacro(u"Tomeseek"),
  StartNewChapter = NumberOfMacro(u"StartNewChapter"),
  ApplyHeading1Format = NumberOfMacro(u"ApplyHeading1Format"),
  ApplyHeading2Format = NumberOfMacro(u"ApplyHeading2Format"),
  ApplyHeading3Format = NumberOfMacro(u"ApplyHeading3Format"),
  ApplyHeading4Format = NumberOfMacro(u"ApplyHeading4Format"),
  ApplyParagraphFormat = NumberOfMacro(u"ApplyParagraphFormat"),
  ApplyQuotationFormat = NumberOfMacro(u"ApplyQuotationFormat"),
  UpdateFrontMatter = NumberOfMacro(u"UpdateFrontMatter"),
  GoToQuickBookmark = NumberOfMacro(u"GoToQuickBookmark"),
  SetQuickBookmark = NumberOfMacro(u"SetQuickBookmark"),
  GotoPage = NumberOfMacro(u"GotoPage"),
  OpenUserManual = NumberOfMacro(u"OpenUserManual"),
  InsertTable = NumberOfMacro(u"InsertTable"),
  InsertFigure = NumberOfMacro(u"InsertFigure"),
  InsertCrossReference = NumberOfMacro(u"InsertCrossReference"),
  ToggleLexoscope = NumberOfMacro(u"ToggleLexoscope"),
  BrowseHelpdock = NumberOfMacro(u"BrowseHelpdock"),
  DeleteEditingHints = NumberOfMacro(u"DeleteEditingHints"),
  UseMorvelin = NumberOfMacro(u"UseMorvelin"),
};

// A control's number: its id, the slot of the per-control tables, and what callers compare ids
// with.
constexpr std::int16_t Number(ControlId id) {
  return static_cast<std::int16_t>(id);
}

// The prefix of an id text: "MVN5" is the id text of control 5.
inline constexpr Utf16View kIdPrefix = u"MVN";

// The id text of a control number.
Utf16String IdText(std::int32_t id);

inline constexpr Utf16View kProductNameToken = u"PN";

// --- The views -----------------------------------------------------------------------------------

struct LabelTemplate {
  std::int32_t id;
  Utf16View labelTemplate = u"";
};

// In the order in which `Initialize` adds them, which is the order of invalidation after a rename.
inline constexpr auto kLabelTemplates = [] {
  constexpr std::size_t count = [] {
    std::size_t templates = 0;
    for (const Control& control : kControls)
      templates += control.templateOrder != 0;
    return templates;
  }();
  std::array<LabelTemplate, count> templates{};
  for (const Control& control : kControls) {
    if (control.templateOrder != 0)
      templates.at(static_cast<std::size_t>(control.templateOrder - 1)) = {control.number,
                                                                           control.labelTemplate};
  }
  return templates;
}();

// The macro that each control starts, by control id; a number without a control has none.
inline constexpr auto kMacroNames = [] {
  std::array<Utf16View, kControlSlots> names{};
  for (Utf16View& name : names)
    name = u"";
  for (const Control& control : kControls)
    names[static_cast<std::size_t>(control.number)] = control.macro;
  return names;
}();

// The catalogue of the element writer: every control but the one that the composer writes itself
// on the References tab.
constexpr bool InCatalogue(const Control& control) {
  return control.place != DocumentPlace::kReferencesTab;
}

// --- What the code relies on ---------------------------------------------------------------------

constexpr bool RowsRunInTheOrderOfTheirIds() {
  for (std::size_t at = 0; at < kControls.size(); ++at) {
    if (kControls[at].number < 0 || kControls[at].number >= kControlSlots)
      return false;
    if (at > 0 && kControls[at - 1].number >= kControls[at].number)
      return false;
  }
  return true;
}
static_assert(RowsRunInTheOrderOfTheirIds(), "ids unique, in order, and within the tables");

constexpr bool EveryControlStartsAMacroOfItsOwn() {
  for (std::size_t a = 0; a < kControls.size(); ++a) {
    if (kControls[a].macro.empty())
      return false;
    for (std::size_t b = a + 1; b < kControls.size(); ++b) {
      if (kControls[a].macro == kControls[b].macro)
        return false;
    }
  }
  return true;
}
static_assert(EveryControlStartsAMacroOfItsOwn());

// The writer asks GetLabel for the label of a control without a fixed one, and only the label
// templates answer it. The order numbers run from 1 without a gap or a repeat: one past the end
// does not compile (`at`), and a repeat leaves a template unfilled.
constexpr bool LabelsFollowTheNameExactlyWhereThereIsATemplate() {
  for (const Control& control : kControls) {
    if (control.label.empty() != (control.templateOrder != 0) ||
        control.labelTemplate.empty() != (control.templateOrder == 0))
      return false;
  }
  for (const LabelTemplate& entry : kLabelTemplates) {
    if (entry.labelTemplate.empty())
      return false;
  }
  return true;
}
static_assert(LabelsFollowTheNameExactlyWhereThereIsATemplate());

// GetImage serves these two alone, and LoadImage fills their slots with the apply number.
constexpr bool OnlyTheApplyControlsTakeTheApplyImage() {
  for (const Control& control : kControls) {
    const bool apply = control.number == Number(ControlId::ApplyMorvelin) ||
                       control.number == Number(ControlId::UseMorvelin);
    if ((control.image == kApplyImage) != apply || control.image < kApplyImage)
      return false;
  }
  return true;
}
static_assert(OnlyTheApplyControlsTakeTheApplyImage());

// GetPressed and GetScreentip answer for the Lexoscope toggle alone.
constexpr bool TheLexoscopeIsTheOnlyToggle() {
  for (const Control& control : kControls) {
    if (control.buttonType != kButton && control.buttonType != kToggleButton)
      return false;
    if ((control.buttonType == kToggleButton) !=
        (control.number == Number(ControlId::ToggleLexoscope)))
      return false;
  }
  return true;
}
static_assert(TheLexoscopeIsTheOnlyToggle());

// The composer writes the References tab's control itself, and only that one.
constexpr bool UseMorvelinAloneOnTheReferencesTab() {
  for (const Control& control : kControls) {
    if ((control.place == DocumentPlace::kReferencesTab) !=
        (control.number == Number(ControlId::UseMorvelin)))
      return false;
  }
  return true;
}
static_assert(UseMorvelinAloneOnTheReferencesTab());

}  // namespace tabforge
