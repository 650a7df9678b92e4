// The add-in's controls as the user sees them: labels, tips, keytips, sizes and images.
#pragma once

#include <array>

#include "platform/bstr.h"
#include "platform/variant_bool.h"
#include "ribbon/control_ids.h"

namespace tabforge {

// One control's values, in the order of the element writer's parameters. `tooltip` is without its
// closing mark; an empty `label` marks a control whose label and image follow the product name.
struct CatalogueRow {
  BstrView id;  // decimal text
  BstrView label;
  BstrView tooltip;
  BstrView shortCutKey;
  BstrView size;
  VariantBool showLabel;
  BstrView imageMso;
  BstrView buttonType;
};

inline constexpr BstrView kButton = u"button";
inline constexpr BstrView kToggleButton = u"toggleButton";

// Every control but 26, which the composer writes itself on the word processor's own tab.
inline constexpr std::array<CatalogueRow, 25> kCatalogue{{
    {u"0", u"", u"Apply a formatting template to this document", u"", u"", kTrue, u"", kButton},
    {u"1", u"", u"Configure the formatting template for this document", u"", u"", kTrue, u"",
     kButton},
    {u"2", u"Submit Paper for Grading or Editing",
     u"Submit this paper to Morvelin's resident editor for feedback that could improve your "
     u"grades",
     u"", u"", kTrue, u"", kButton},
    {u"4", u"", u"Show the About screen where you can login", u"", u"", kTrue, u"", kButton},
    {u"5", u"Insert Reference",
     u"Insert a reference and/or bibliography entry into your document (Ctrl+Shift+F)", u"I",
     u"large", kTrue, u"", kButton},
    {u"6", u"Paste Reference",
     u"Paste a reference and/or bibliography entry into your document (Alt+P)", u"R", u"", kTrue,
     u"", kButton},
    {u"7", u"Hunt for References",
     u"Hunt for references with Tomeshelf and Tomebase (Ctrl+Shift+F)", u"H", u"", kTrue, u"",
     kButton},
    {u"8", u"Start a new chapter", u"Insert a chapter heading at the cursor (Alt+C)", u"A", u"",
     kFalse, u"", kButton},
    {u"9", u"Set as Heading Level 1",
     u"Format the text at the cursor as a level 1 heading (Ctrl+1)", u"1", u"", kFalse, u"",
     kButton},
    {u"10", u"Set as Heading Level 2",
     u"Format the text at the cursor as a level 2 heading (Ctrl+2)", u"2", u"", kFalse, u"",
     kButton},
    {u"11", u"Set as Heading Level 3",
     u"Format the text at the cursor as a level 3 heading (Ctrl+3)", u"3", u"", kFalse, u"",
     kButton},
    {u"12", u"Set as Heading Level 4",
     u"Format the text at the cursor as a level 4 heading (Ctrl+4)", u"4", u"", kFalse, u"",
     kButton},
    {u"13", u"Set as Paragraph", u"Format the text at the cursor as a paragraph (Ctrl+Shift+P)",
     u"P", u"", kTrue, u"", kButton},
    {u"14", u"Set as Quotation", u"Format the text at the cursor as a quotation (Ctrl+Q)", u"Q",
     u"", kTrue, u"", kButton},
    {u"15", u"Update Document",
     u"Update pages, tables, figures, and table of contents in this document (Ctrl+Shift+U)", u"U",
     u"", kTrue, u"", kButton},
    {u"16", u"Go to Quick Bookmark",
     u"Go to the quick bookmark you have previously set in the document (F2)", u"B", u"large",
     kTrue, u"BookmarkInsert", kButton},
    {u"17", u"Set Quick Bookmark",
     u"Set the quick bookmark to the current cursor position (Ctrl+F2)", u"S", u"", kTrue,
     u"BookmarkInsert", kButton},
    {u"18", u"Go to Page", u"Go to a particular page in the document (Ctrl+G)", u"G", u"", kTrue,
     u"HeaderFooterPageNumberInsert", kButton},
    {u"19", u"Go to User Manual", u"Open the user manual", u"M", u"", kTrue, u"Help", kButton},
    {u"20", u"Insert Table", u"Insert a captioned table (Ctrl+Alt+T)", u"T", u"", kTrue,
     u"TableInsertGallery", kButton},
    {u"21", u"Insert Figure", u"Insert a captioned figure (Ctrl+Alt+F)", u"F", u"", kTrue,
     u"CaptionInsert", kButton},
    {u"22", u"Cross-reference",
     u"Insert a Cross-reference to a Table, Figure, or Heading (Ctrl+Shift+C)", u"X", u"", kTrue,
     u"CrossReferenceInsert", kButton},
    {u"23", u"Lexoscope",
     u"Show synonyms and dictionary definitions of any word in your document (Ctrl+Shift+X)", u"Y",
     u"large", kTrue, u"", kToggleButton},
    {u"24", u"Browse Helpdock", u"Browse the FAQ database, and log a support request", u"", u"",
     kTrue, u"", kButton},
    {u"25", u"Delete Hints from Professor Quillon",
     u"Deletes any remaining Hints from Professor Quillon.  Make sure you do this before handing "
     u"in your paper!",
     u"", u"", kTrue, u"", kButton},
}};

// Each id stands in one row, so a look-up may stop at the first match.
constexpr bool CatalogueIdsAreUnique() {
  for (std::size_t a = 0; a < kCatalogue.size(); ++a) {
    for (std::size_t b = a + 1; b < kCatalogue.size(); ++b) {
      if (kCatalogue[a].id == kCatalogue[b].id)
        return false;
    }
  }
  return true;
}
static_assert(CatalogueIdsAreUnique());

// The button on the word processor's References tab.
inline constexpr CatalogueRow kUseMorvelin{
    u"26", u"",    u"Use Morvelin to manage your references (Ctrl+Shift+F)", u"Z", u"large", kTrue,
    u"",   kButton};

inline constexpr BstrView kCustomUiNamespace =
    u"http://schemas.microsoft.com/office/2006/01/customui";

}  // namespace tabforge
