// The ribbon document: the catalogue, the element writer and the composer.
#include "platform/failure.h"
#include "platform/flight_events.h"
#include "ribbon/controls.h"
#include "ribbon/main2.h"
#include "ribbon/piece_list.h"
#include "ribbon/procedure_names.h"
#include "ribbon/string_extensions.h"
#include "tracing/run.h"

namespace tabforge {

using namespace main2_procedures;
using tracing::Body;
using tracing::LocalReport;
using tracing::ParameterText;
using tracing::Run;

namespace {

constexpr Utf16View kCustomUiNamespace = u"http://schemas.microsoft.com/office/2006/01/customui";

// The largest lists: a button of nine attributes, and the document's longest part.
using ElementPieces = PieceList<24>;
using DocumentPieces = PieceList<32, OwnedPiece>;

// A tooltip, with room for the closing point that the element may give it.
Utf16String TooltipText(Utf16View text) {
  Utf16String tooltip;
  tooltip.reserve(text.size() + 1);
  tooltip = text;
  return tooltip;
}

}  // namespace

Utf16String Main2::AddButton(const Utf16String& id) {
  Utf16String result;
  const Control* row = nullptr;
  Run(
      Trace(), kAddButton, [&](ParameterText& p) { p.Add(u"id", id); },
      [&](LocalReport& l) { l.Add(u"id", id); },
      [&](Body& body) {
        TF_BEGIN(body)
        // The id is compared as text, exactly: "05" and "MVN5" match no row.
        TF_STEP(1) for (const Control& candidate : kControls) {
          if (InCatalogue(candidate) && candidate.DecimalId() == id) {
            row = &candidate;
            break;
          }
        }
        TF_STEP(2) if (row != nullptr) {
          TF_STEP(3) {
            Utf16String tooltip = TooltipText(row->tooltip);
            result = AddButtonImpl(id, row->label, tooltip, row->shortCutKey, row->size,
                                   row->showLabel, row->imageMso, row->buttonType);
          }
        }
        TF_END
      });
  return result;
}

Utf16String Main2::AddButtonImpl(Utf16View id, Utf16View label, Utf16String& tooltip,
                                 Utf16View shortCutKey, Utf16View size, VariantBool showLabel,
                                 Utf16View imageMso, Utf16View buttonType) {
  Utf16String result;
  ElementPieces strs;
  std::int16_t offset = 0;
  Run(
      Trace(), kAddButtonImpl,
      [&](ParameterText& p) {
        p.Add(u"id", id);
        p.Add(u"label", label);
        p.Add(u"tooltip", tooltip);
        p.Add(u"shortCutKey", shortCutKey);
        p.Add(u"size", size);
        p.Add(u"showLabel", showLabel);
        p.Add(u"imageMso", imageMso);
        p.Add(u"buttonType", buttonType);
      },
      [&](LocalReport& l) {
        l.Add(u"id", id);
        l.Add(u"label", label);
        l.Add(u"tooltip", tooltip);
        l.Add(u"shortCutKey", shortCutKey);
        l.Add(u"size", size);
        l.Add(u"showLabel", showLabel);
        l.Add(u"imageMso", imageMso);
        l.Add(u"buttonType", buttonType);
        l.Add(u"strs", strs);
        l.Add(u"offset", offset);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) if (!IsTrue(StringExtensions::endsWith(tooltip, u"!"))) {
          TF_STEP(2) tooltip += u".";
        }
        TF_STEP(3)
        strs.Assign({u"<", buttonType, u" id=\"", kIdPrefix, id, u"\" description=\"", tooltip,
                     u"\" supertip=\"", tooltip, u"\" getEnabled=\"GetEnabled\""});
        TF_STEP(4) offset = static_cast<std::int16_t>(strs.size() - 1);
        TF_STEP(5)
        strs.Resize(static_cast<std::size_t>(offset) + (buttonType == kToggleButton ? 8 : 7) + 1);
        TF_STEP(6) if (!IsTrue(showLabel)) {
          TF_STEP(7) strs.Slot(offset + 1) = u" showLabel=\"false\"";
        }
        TF_STEP(8) if (!size.empty()) {
          TF_STEP(9) strs.Slot(offset + 2) = Attribute(u" size=\"", size);
        }
        TF_STEP(10) if (!imageMso.empty()) {
          TF_STEP(11) strs.Slot(offset + 3) = Attribute(u" imageMso=\"", imageMso);
        }
        else {
          TF_STEP(12) if (!label.empty()) {
            // The bare decimal id, which the ribbon hands to the document's loadImage macro.
            TF_STEP(13) strs.Slot(offset + 3) = Attribute(u" image=\"", id);
          }
          else {
            TF_STEP(14) strs.Slot(offset + 3) = u" getImage=\"GetImage\"";
          }
        }
        TF_STEP(15) if (!label.empty()) {
          TF_STEP(16) strs.Slot(offset + 4) = Attribute(u" label=\"", label);
        }
        else {
          TF_STEP(17) strs.Slot(offset + 4) = u" getLabel=\"GetLabel\"";
        }
        TF_STEP(18) if (!shortCutKey.empty()) {
          TF_STEP(19) strs.Slot(offset + 5) = Attribute(u" keytip=\"", shortCutKey);
        }
        TF_STEP(20) if (buttonType == kButton) {
          TF_STEP(21) strs.Slot(offset + 6) = u" onAction=\"RibbonCallback\"";
        }
        else {
          TF_STEP(22) strs.Slot(offset + 6) = u" onAction=\"RibbonCallbackToggleButton\"";
        }
        TF_STEP(23) if (buttonType == kToggleButton) {
          TF_STEP(24)
          strs.Slot(offset + 7) = u" getPressed=\"GetPressed\" getScreentip=\"GetScreenTip\"";
        }
        TF_STEP(25) strs.Slot(strs.size() - 1) = u"/>";
        TF_STEP(26) result = Join(strs);
        TF_END
      });
  return result;
}

Utf16String Main2::GetRibbonXML() {
  const flight::StepScope step(flight::Step::kGetRibbonXml);
  Utf16String result;
  // The pieces refer to the product name until the end; a report of change that arrives in
  // between (from a failure's report, say) must not pull it from under them.
  const Utf16String productName = mProductName;
  DocumentPieces strs;
  DocumentPieces strs2;
  DocumentPieces strs3;
  // The elements of a place's controls, one call each, in the order of their rows. The list is
  // filled aside and then taken whole, so that a dump on the way shows the array as it stood.
  const auto addControls = [&](DocumentPieces& pieces, DocumentPlace place) {
    for (const Control& control : kControls) {
      if (control.place != place)
        continue;
      if (InCatalogue(control)) {
        pieces.Append({AddButton(Utf16String(control.DecimalId()))});
      } else {
        Utf16String tooltip = TooltipText(control.tooltip);
        pieces.Append(
            {AddButtonImpl(control.DecimalId(), control.label, tooltip, control.shortCutKey,
                           control.size, control.showLabel, control.imageMso, control.buttonType)});
      }
    }
  };
  Run(
      Trace(), kGetRibbonXML, tracing::NoParameters,
      [&](LocalReport& l) {
        l.Add(u"strs", strs);
        l.Add(u"strs2", strs2);
        l.Add(u"strs3", strs3);
      },
      [&](Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) {
          DocumentPieces pieces;
          pieces.Append(
              {Piece::Concat({u"<customUI xmlns=\"", kCustomUiNamespace,
                              u"\" onLoad=\"ribbonLoaded\" loadImage=\"loadImage\">"
                              u"<ribbon><tabs>"}),
               Piece::Concat({u"<tab idMso=\"TabReferences\"><group "
                              u"id=\"GroupRedirectMorvelin\" "
                              u"insertAfterMso=\"GroupCitationsAndBibliography\" label=\"",
                              productName, u"\">"})});
          addControls(pieces, DocumentPlace::kReferencesTab);
          pieces.Append({u"</group></tab>", u"<tab id=\"Morvelin\" label=\"", productName,
                         u"\" keytip=\"Z\">", u"<group id=\"GroupMorvelin\" label=\"", productName,
                         u" Core Features\">",
                         u"<splitButton id=\"SplitApplyMorvelin\" size=\"large\">",
                         u"<menu id=\"SplitMenuApplyMorvelin\" itemSize=\"large\">"});
          addControls(pieces, DocumentPlace::kSplitMenu);
          pieces.Append({u"</menu>", u"</splitButton>"});
          addControls(pieces, DocumentPlace::kCoreFeatures);
          pieces.Append({u"</group>"});
          strs = std::move(pieces);
        }
        TF_STEP(2) {
          DocumentPieces pieces;
          pieces.Append({u"<group id=\"GroupMorvelinFormatting\" label=\"Styles and Headings\">"});
          addControls(pieces, DocumentPlace::kStyles);
          pieces.Append({u"<buttonGroup id=\"ButtonGroupMorvelinFormatting\">"});
          addControls(pieces, DocumentPlace::kHeadings);
          pieces.Append({u"</buttonGroup>", u"</group>"});
          strs2 = std::move(pieces);
        }
        TF_STEP(3) {
          DocumentPieces pieces;
          pieces.Append({u"<group id=\"GroupMorvelinNavigation\" label=\"Navigation\">"});
          addControls(pieces, DocumentPlace::kNavigation);
          pieces.Append({u"</group>",
                         u"<group id=\"GroupMorvelinTablesAndFigures\" "
                         u"label=\"Tables and Figures\">"});
          addControls(pieces, DocumentPlace::kTablesAndFigures);
          pieces.Append({u"</group>", u"<group id=\"GroupLexoscope\" label=\"Lexoscope\">"});
          addControls(pieces, DocumentPlace::kLexoscope);
          pieces.Append({u"</group>", u"</tab>", u"</tabs></ribbon></customUI>"});
          strs3 = std::move(pieces);
        }
        TF_STEP(4) result = Join(strs, strs2, strs3);
        TF_END
      });
  return result;
}

}  // namespace tabforge
