// The ribbon document: the catalogue, the element writer and the composer.
#include "platform/failure.h"
#include "ribbon/catalogue.h"
#include "ribbon/main2.h"
#include "ribbon/procedures.h"
#include "ribbon/string_extensions.h"
#include "tracing/run.h"

namespace tabforge {

using namespace main2_procedures;
using tracing::Body;
using tracing::LocalReport;
using tracing::ParameterText;
using tracing::Run;

namespace {

Bstr Join(const std::vector<Bstr>& pieces) {
  std::size_t length = 0;
  for (const auto& piece : pieces)
    length += piece.size();
  Bstr joined;
  joined.reserve(length);
  for (const auto& piece : pieces)
    joined += piece;
  return joined;
}

Bstr Attribute(BstrView name, BstrView value) {
  Bstr text(u" ");
  text.reserve(name.size() + value.size() + 4);
  text += name;
  text += u"=\"";
  text += value;
  text += u'"';
  return text;
}

std::vector<Bstr>::reference Slot(std::vector<Bstr>& array, std::size_t index) {
  if (index >= array.size())
    Raise(RunTimeError::kSubscriptOutOfRange);
  return array[index];
}

}  // namespace

Bstr Main2::AddButton(const Bstr& id) {
  Bstr result;
  const CatalogueRow* row = nullptr;
  Run(
      Trace(), kAddButton, [&](ParameterText& p) { p.Add(u"id", id); },
      [&](LocalReport& l) { l.Add(u"id", id); },
      [&](Body& body) {
        TF_BEGIN(body)
        // The id is compared as text, exactly: "05" and "MVN5" match no row.
        TF_STEP(1) for (const auto& candidate : kCatalogue) {
          if (candidate.id == id)
            row = &candidate;
        }
        TF_STEP(2) if (row != nullptr) {
          TF_STEP(3) {
            Bstr tooltip(row->tooltip);
            result = AddButtonImpl(id, Bstr(row->label), tooltip, Bstr(row->shortCutKey),
                                   Bstr(row->size), row->showLabel, Bstr(row->imageMso),
                                   Bstr(row->buttonType));
          }
        }
        TF_END
      });
  return result;
}

Bstr Main2::AddButtonImpl(const Bstr& id, const Bstr& label, Bstr& tooltip, const Bstr& shortCutKey,
                          const Bstr& size, VariantBool showLabel, const Bstr& imageMso,
                          const Bstr& buttonType) {
  Bstr result;
  std::vector<Bstr> strs;
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
        StringExtensions::stringArray(
            strs, {u"<", buttonType, u" id=\"", Bstr(kIdPrefix), id, u"\" description=\"", tooltip,
                   u"\" supertip=\"", tooltip, u"\" getEnabled=\"GetEnabled\""});
        TF_STEP(4) offset = static_cast<std::int16_t>(strs.size() - 1);
        TF_STEP(5)
        strs.resize(static_cast<std::size_t>(offset) + (buttonType == kToggleButton ? 8 : 7) + 1);
        TF_STEP(6) if (!IsTrue(showLabel)) {
          TF_STEP(7) Slot(strs, offset + 1) = u" showLabel=\"false\"";
        }
        TF_STEP(8) if (!size.empty()) {
          TF_STEP(9) Slot(strs, offset + 2) = Attribute(u"size", size);
        }
        TF_STEP(10) if (!imageMso.empty()) {
          TF_STEP(11) Slot(strs, offset + 3) = Attribute(u"imageMso", imageMso);
        }
        else {
          TF_STEP(12) if (!label.empty()) {
            // The bare decimal id, which the ribbon hands to the document's loadImage macro.
            TF_STEP(13) Slot(strs, offset + 3) = Attribute(u"image", id);
          }
          else {
            TF_STEP(14) Slot(strs, offset + 3) = u" getImage=\"GetImage\"";
          }
        }
        TF_STEP(15) if (!label.empty()) {
          TF_STEP(16) Slot(strs, offset + 4) = Attribute(u"label", label);
        }
        else {
          TF_STEP(17) Slot(strs, offset + 4) = u" getLabel=\"GetLabel\"";
        }
        TF_STEP(18) if (!shortCutKey.empty()) {
          TF_STEP(19) Slot(strs, offset + 5) = Attribute(u"keytip", shortCutKey);
        }
        TF_STEP(20) if (buttonType == kButton) {
          TF_STEP(21) Slot(strs, offset + 6) = u" onAction=\"RibbonCallback\"";
        }
        else {
          TF_STEP(22) Slot(strs, offset + 6) = u" onAction=\"RibbonCallbackToggleButton\"";
        }
        TF_STEP(23) if (buttonType == kToggleButton) {
          TF_STEP(24)
          Slot(strs, offset + 7) = u" getPressed=\"GetPressed\" getScreentip=\"GetScreenTip\"";
        }
        TF_STEP(25) Slot(strs, strs.size() - 1) = u"/>";
        TF_STEP(26) result = Join(strs);
        TF_END
      });
  return result;
}

Bstr Main2::GetRibbonXML() {
  Bstr result;
  std::vector<Bstr> strs;
  std::vector<Bstr> strs2;
  std::vector<Bstr> strs3;
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
          Bstr tooltip26(kUseMorvelin.tooltip);
          StringExtensions::stringArray(
              strs, {u"<customUI xmlns=\"" + Bstr(kCustomUiNamespace) +
                         u"\" onLoad=\"ribbonLoaded\" loadImage=\"loadImage\"><ribbon><tabs>",
                     u"<tab idMso=\"TabReferences\"><group id=\"GroupRedirectMorvelin\" "
                     u"insertAfterMso=\"GroupCitationsAndBibliography\" label=\"" +
                         mProductName + u"\">",
                     AddButtonImpl(Bstr(kUseMorvelin.id), Bstr(kUseMorvelin.label), tooltip26,
                                   Bstr(kUseMorvelin.shortCutKey), Bstr(kUseMorvelin.size),
                                   kUseMorvelin.showLabel, Bstr(kUseMorvelin.imageMso),
                                   Bstr(kUseMorvelin.buttonType)),
                     u"</group></tab>",
                     u"<tab id=\"Morvelin\" label=\"",
                     mProductName,
                     u"\" keytip=\"Z\">",
                     u"<group id=\"GroupMorvelin\" label=\"",
                     mProductName,
                     u" Core Features\">",
                     u"<splitButton id=\"SplitApplyMorvelin\" size=\"large\">",
                     u"<menu id=\"SplitMenuApplyMorvelin\" itemSize=\"large\">",
                     AddButton(u"0"),
                     AddButton(u"1"),
                     AddButton(u"2"),
                     AddButton(u"4"),
                     AddButton(u"24"),
                     AddButton(u"25"),
                     u"</menu>",
                     u"</splitButton>",
                     AddButton(u"5"),
                     AddButton(u"6"),
                     AddButton(u"7"),
                     AddButton(u"15"),
                     u"</group>"});
        }
        TF_STEP(2)
        StringExtensions::stringArray(
            strs2, {u"<group id=\"GroupMorvelinFormatting\" label=\"Styles and Headings\">",
                    AddButton(u"13"), AddButton(u"14"),
                    u"<buttonGroup id=\"ButtonGroupMorvelinFormatting\">", AddButton(u"8"),
                    AddButton(u"9"), AddButton(u"10"), AddButton(u"11"), AddButton(u"12"),
                    u"</buttonGroup>", u"</group>"});
        TF_STEP(3)
        StringExtensions::stringArray(
            strs3,
            {u"<group id=\"GroupMorvelinNavigation\" label=\"Navigation\">", AddButton(u"16"),
             AddButton(u"17"), AddButton(u"18"), AddButton(u"19"), u"</group>",
             u"<group id=\"GroupMorvelinTablesAndFigures\" label=\"Tables and Figures\">",
             AddButton(u"20"), AddButton(u"21"), AddButton(u"22"), u"</group>",
             u"<group id=\"GroupLexoscope\" label=\"Lexoscope\">", AddButton(u"23"), u"</group>",
             u"</tab>", u"</tabs></ribbon></customUI>"});
        TF_STEP(4) result = Join(strs) + Join(strs2) + Join(strs3);
        TF_END
      });
  return result;
}

}  // namespace tabforge
