// The custom-UI check: hand-written documents for each rule, and a corpus of mutated ribbon
// documents on which it must refuse exactly what the published schema refuses.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlschemas.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "apartment.h"
#include "ribbon/main2.h"
#include "tools/custom_ui_check.h"

namespace tabforge::cli {
namespace {

using ::testing::HasSubstr;
using Kind = Finding::Kind;

std::string Document(BstrView productName) {
  testing::Apartment apartment;
  Main2 main2(apartment.protector);
  main2.Initialize(nullptr, Bstr(productName));
  return ToUtf8(main2.GetRibbonXML());
}

// A document whose one group holds `controls`.
std::string InGroup(const std::string& controls, const std::string& groupAttributes = "") {
  return R"(<customUI xmlns="http://schemas.microsoft.com/office/2006/01/customui"><ribbon><tabs>)"
         R"(<tab id="t" label="T"><group id="g" label="G")" +
         groupAttributes + ">" + controls + "</group></tab></tabs></ribbon></customUI>";
}

std::string Lines(const std::vector<Finding>& findings) {
  std::string text;
  for (const auto& f : findings)
    text += FormatFinding(f) + "\n";
  return text;
}

TEST(CustomUiCheck, TakesTheComposedDocumentAndFindsTheEmptyProductName) {
  EXPECT_EQ(Lines(CheckCustomUi(Document(u"Morvelin"))), "");
  EXPECT_EQ(Lines(CheckCustomUi(Document(u"Ä"))), "");

  const std::string empty = Document(u"");
  const auto findings = CheckCustomUi(empty);
  ASSERT_EQ(findings.size(), 2u) << Lines(findings);
  const auto first = empty.find(R"(label="")");
  const auto second = empty.find(R"(label="")", first + 1);
  EXPECT_EQ(findings[0].line, 1);
  EXPECT_EQ(findings[0].column, static_cast<int>(first) + 1);
  EXPECT_EQ(findings[1].column, static_cast<int>(second) + 1);
  EXPECT_EQ(findings[0].kind, Kind::kValue);
  EXPECT_THAT(findings[0].message, HasSubstr("<group> label=\"\""));
  EXPECT_THAT(findings[1].message, HasSubstr("<tab> label=\"\""));
  EXPECT_THAT(findings[1].message, HasSubstr("1 to 1024 characters"));
}

TEST(CustomUiCheck, RefusesValuesOutsideTheirTypesAtTheirBounds) {
  struct Case {
    std::string button;   // attributes of one button in a group
    std::string refusal;  // part of the message, or empty when taken
  };
  const std::string label1024(1024, 'x');
  const std::string long4096(4096, 'y');
  const Case cases[] = {
      {R"(id="b" keytip="ABC")", ""},
      {R"(id="b" keytip=" AB ")", ""},  // a keytip is a token: blanks around do not count
      {R"(id="b" keytip="ABCD")", "keytip=\"ABCD\": the value must be a text of 1 to 3"},
      {R"(id="b" keytip="")", "keytip=\"\""},
      {R"(id="b" size="large")", ""},
      {R"(id="b" size="huge")", "size=\"huge\": the value must be normal or large"},
      {R"(id="b" size=" large")", "must be normal or large"},
      {R"(id="5b")", "id=\"5b\": the value must be a name"},
      {R"(id="a:b")", "must be a name"},
      {R"(id=" b ")", ""},
      {R"(id="b" label=")" + label1024 + "\"", ""},
      {R"(id="b" label=")" + label1024 + "z\"", "must be a text of 1 to 1024 characters"},
      {R"(id="b" description=")" + long4096 + "\"", ""},
      {R"(id="b" description=")" + long4096 + "y\"", "of 1 to 4096 characters"},
      {R"(id="b" label="ÄÖÜ")", ""},
      {R"(id="b" enabled=" true ")", ""},
      {R"(id="b" enabled="yes")", "must be true, false, 1 or 0"},
      {R"(id="b" onAction="")", "onAction=\"\""},
      {R"(idQ="x:b" xmlns:x="urn:x")", ""},
      {R"(idQ="y:b")", "undeclared prefix 'y'"},
  };
  for (const auto& c : cases) {
    const auto findings = CheckCustomUi(InGroup("<button " + c.button + "/>"));
    if (c.refusal.empty()) {
      EXPECT_EQ(Lines(findings), "") << c.button;
    } else {
      ASSERT_EQ(findings.size(), 1u) << c.button << "\n" << Lines(findings);
      EXPECT_THAT(findings[0].message, HasSubstr(c.refusal)) << c.button;
      EXPECT_EQ(findings[0].kind, Kind::kValue);
    }
  }
  EXPECT_THAT(Lines(CheckCustomUi(InGroup(R"(<editBox id="e" maxLength="1025"/>)"))),
              HasSubstr("whole number from 1 to 1024"));
  EXPECT_EQ(Lines(CheckCustomUi(InGroup(R"(<editBox id="e" maxLength="+01024"/>)"))), "");
}

TEST(CustomUiCheck, KnowsWhichAttributesAndElementsStandWhere) {
  struct Case {
    std::string controls;
    std::string refusal;
  };
  const Case cases[] = {
      // A size only where the control sits in a group.
      {R"(<button id="b" size="large"/>)", ""},
      {R"(<menu id="m"><button id="b" size="large"/></menu>)",
       "<button> size: the attribute may not stand on <button> here"},
      {R"(<buttonGroup id="bg"><toggleButton id="b" size="large"/></buttonGroup>)",
       "<toggleButton> size"},
      // A split button's parts.
      {R"(<splitButton id="s"><button id="b"/><menu id="m"/></splitButton>)", ""},
      {R"(<splitButton id="s"/>)", ""},
      {R"(<splitButton id="s"><button id="b"/></splitButton>)",
       "<splitButton>: the element needs at least 1 <menu>"},
      {R"(<splitButton id="s" label="S"><menu id="m"/></splitButton>)", "<splitButton> label"},
      {R"(<splitButton id="s"><button id="b" visible="true"/><menu id="m"/></splitButton>)",
       "<button> visible"},
      {R"(<splitButton id="s"><menu id="m"/><button id="b"/></splitButton>)",
       "<button>: the element may not stand after the elements before it"},
      // Order and place in a group.
      {R"(<dialogBoxLauncher><button id="b"/></dialogBoxLauncher><button id="c"/>)",
       "<button>: the element may not stand after"},
      {R"(<dialogBoxLauncher/>)", "<dialogBoxLauncher>: the element needs at least 1 <button>"},
      {R"(<group id="h"/>)", "<group>: the element may not stand inside <group>"},
      {R"(<menuSeparator id="s"/>)", "<menuSeparator>: the element may not stand inside <group>"},
      {R"(<menu id="m"><menuSeparator id="s" title="T"/></menu>)", ""},
      {R"(<dynamicMenu id="d"/>)", "<dynamicMenu> getContent: the attribute is required"},
      {R"(<box id="x" boxStyle="vertical"><labelControl id="l" label="L"/></box>)", ""},
      {R"(<labelControl id="l" imageMso="Help"/>)", "<labelControl> imageMso"},
      {R"(<checkBox id="c" showLabel="false"/>)", "<checkBox> showLabel"},
      {R"(<button id="b">text</button>)", "<button>: the element may not hold text"},
      {R"(<button id="b" xml:lang="en"/>)", "<button> xml:lang: the attribute may not stand"},
      {R"(<x:button xmlns:x="urn:other" id="b"/>)", "in the namespace \"urn:other\""},
  };
  for (const auto& c : cases) {
    const std::string lines = Lines(CheckCustomUi(InGroup(c.controls)));
    if (c.refusal.empty()) {
      EXPECT_EQ(lines, "") << c.controls;
    } else {
      EXPECT_THAT(lines, HasSubstr(c.refusal)) << c.controls;
    }
  }
  EXPECT_THAT(
      Lines(CheckCustomUi(
          R"(<customUI xmlns="http://schemas.microsoft.com/office/2006/01/customui"><ribbon><tabs/></ribbon></customUI>)")),
      HasSubstr("<tabs>: the element needs at least 1 <tab>"));
  EXPECT_THAT(Lines(CheckCustomUi(R"(<customUI xmlns="urn:wrong"/>)")),
              HasSubstr("1:1: <customUI>: the element is in the namespace \"urn:wrong\""));
  EXPECT_EQ(
      Lines(CheckCustomUi(
          R"(<customUI xmlns="http://schemas.microsoft.com/office/2006/01/customui"><ribbon><qat><sharedControls><control idMso="Save"/></sharedControls></qat><tabs><tab idMso="TabHome"/></tabs></ribbon></customUI>)")),
      "");
}

TEST(CustomUiCheck, FindsRepeatedIdsExclusivePairsAndBrokenDocumentsWhereTheyStand) {
  const std::string twice = InGroup("<button id=\"b\"/>\n  <toggleButton id=\"b\"/>");
  const auto findings = CheckCustomUi(twice);
  ASSERT_EQ(findings.size(), 1u) << Lines(findings);
  EXPECT_EQ(findings[0].kind, Kind::kRepeatedId);
  EXPECT_EQ(FormatFinding(findings[0]),
            "2:17: <toggleButton> id=\"b\": the id repeats the one at 1:" +
                std::to_string(twice.find("id=\"b\"") + 1) + "; ids must be unique");

  for (const std::string attributes :
       {R"(id="b" label="L" getLabel="GetLabel")", R"(id="b" image="5" getImage="GetImage")",
        R"(id="b" imageMso="Help" image="5")", R"(id="b" idMso="Help")",
        R"(id="b" insertAfterMso="A" insertBeforeQ="B")"}) {
    const auto pair = CheckCustomUi(InGroup("<button " + attributes + "/>"));
    ASSERT_EQ(pair.size(), 1u) << attributes << "\n" << Lines(pair);
    EXPECT_EQ(pair[0].kind, Kind::kExclusive);
    EXPECT_THAT(pair[0].message, HasSubstr("at most one of them may stand")) << attributes;
  }

  const auto broken = CheckCustomUi("<customUI>\n  <ribbon>\n</customUI>");
  ASSERT_EQ(broken.size(), 1u);
  EXPECT_EQ(broken[0].kind, Kind::kNotWellFormed);
  EXPECT_EQ(broken[0].line, 3);
  EXPECT_THAT(broken[0].message, HasSubstr("not well-formed"));
  EXPECT_EQ(CheckCustomUi("")[0].kind, Kind::kNotWellFormed);
}

// --- The corpus
// ------------------------------------------------------------------------------------

struct Schema {
  xmlSchemaParserCtxt* parser = nullptr;
  xmlSchema* schema = nullptr;
  xmlSchemaValidCtxt* validator = nullptr;

  explicit Schema(const char* path) {
    parser = xmlSchemaNewParserCtxt(path);
    schema = xmlSchemaParse(parser);
    if (schema != nullptr) {
      validator = xmlSchemaNewValidCtxt(schema);
      xmlSchemaSetValidStructuredErrors(
          validator, [](void*, xmlError*) {}, nullptr);
    }
  }
  ~Schema() {
    xmlSchemaFreeValidCtxt(validator);
    xmlSchemaFree(schema);
    xmlSchemaFreeParserCtxt(parser);
  }

  bool Accepts(const std::string& text) const {
    xmlDoc* doc = xmlReadMemory(text.data(), static_cast<int>(text.size()), "corpus.xml", nullptr,
                                XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    if (doc == nullptr)
      return false;
    const bool accepted = xmlSchemaValidateDoc(validator, doc) == 0;
    xmlFreeDoc(doc);
    return accepted;
  }
};

struct Mutant {
  std::string what;
  std::string text;
};

std::vector<xmlNode*> ElementsOf(xmlNode* node) {
  std::vector<xmlNode*> out;
  std::function<void(xmlNode*)> walk = [&](xmlNode* n) {
    for (; n != nullptr; n = n->next) {
      if (n->type == XML_ELEMENT_NODE) {
        out.push_back(n);
        walk(n->children);
      }
    }
  };
  walk(node);
  return out;
}

std::string Serialize(xmlDoc* doc) {
  xmlChar* bytes = nullptr;
  int size = 0;
  xmlDocDumpMemory(doc, &bytes, &size);
  std::string text(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
  xmlFree(bytes);
  return text;
}

const xmlChar* X(const char* s) {
  return reinterpret_cast<const xmlChar*>(s);
}

// Applies `mutate` to a fresh copy of `base` for each of `count` targets.
void Mutate(const std::string& base, std::vector<Mutant>& out, const std::string& what, int count,
            const std::function<bool(xmlDoc*, std::vector<xmlNode*>&, int)>& mutate) {
  for (int i = 0; i < count; ++i) {
    xmlDoc* doc = xmlReadMemory(base.data(), static_cast<int>(base.size()), "base.xml", nullptr,
                                XML_PARSE_NONET);
    auto elements = ElementsOf(xmlDocGetRootElement(doc));
    if (mutate(doc, elements, i))
      out.push_back({what + " #" + std::to_string(i), Serialize(doc)});
    xmlFreeDoc(doc);
  }
}

std::vector<Mutant> Corpus() {
  const std::string base = Document(u"Morvelin");
  std::vector<Mutant> out{{"as composed", base}, {"empty product name", Document(u"")}};
  const std::vector<const char*> attributeNames{
      "label",    "getLabel",   "size",      "imageMso",   "image",           "getImage",
      "visible",  "idMso",      "idQ",       "title",      "description",     "itemSize",
      "keytip",   "screentip",  "boxStyle",  "getContent", "insertBeforeMso", "showImage",
      "getTitle", "getPressed", "maxLength", "enabled",    "startFromScratch"};
  const std::vector<const char*> elementNames{
      "box",          "buttonGroup", "button",      "toggleButton",      "checkBox",
      "labelControl", "menu",        "splitButton", "separator",         "menuSeparator",
      "gallery",      "editBox",     "group",       "dialogBoxLauncher", "dynamicMenu",
      "item",         "control",     "comboBox",    "dropDown",          "tab",
      "tabs",         "qat",         "command",     "officeMenu"};
  auto attributesOf = [](std::vector<xmlNode*>& elements) {
    std::vector<xmlAttr*> all;
    for (auto* e : elements) {
      for (xmlAttr* a = e->properties; a != nullptr; a = a->next)
        all.push_back(a);
    }
    return all;
  };
  int attributes = 0;
  int elementCount = 0;
  {
    xmlDoc* doc = xmlReadMemory(base.data(), static_cast<int>(base.size()), "b", nullptr, 0);
    auto elements = ElementsOf(xmlDocGetRootElement(doc));
    attributes = static_cast<int>(attributesOf(elements).size());
    elementCount = static_cast<int>(elements.size());
    xmlFreeDoc(doc);
  }

  // Attributes dropped, renamed, emptied and lengthened.
  Mutate(base, out, "drop attribute", attributes / 3, [&](xmlDoc*, auto& e, int i) {
    xmlRemoveProp(attributesOf(e)[static_cast<std::size_t>(i * 3)]);
    return true;
  });
  Mutate(base, out, "rename attribute", attributes, [&](xmlDoc*, auto& e, int i) {
    xmlAttr* a = attributesOf(e)[static_cast<std::size_t>(i)];
    const char* name = attributeNames[static_cast<std::size_t>(i) % attributeNames.size()];
    if (xmlHasProp(a->parent, X(name)) != nullptr)
      return false;
    xmlNodeSetName(reinterpret_cast<xmlNode*>(a), X(name));
    return true;
  });
  Mutate(base, out, "empty value", attributes / 2, [&](xmlDoc*, auto& e, int i) {
    xmlAttr* a = attributesOf(e)[static_cast<std::size_t>(i * 2 + 1)];
    xmlSetProp(a->parent, a->name, X(""));
    return true;
  });
  Mutate(base, out, "lengthen value", attributes / 2, [&](xmlDoc*, auto& e, int i) {
    xmlAttr* a = attributesOf(e)[static_cast<std::size_t>(i * 2)];
    xmlChar* value = xmlGetProp(a->parent, a->name);
    std::string longer = reinterpret_cast<const char*>(value);
    xmlFree(value);
    // Past each bound that a value can have: 3, 1024, 4096.
    const std::size_t to = i % 3 == 0 ? 4 : i % 3 == 1 ? 1025 : 4097;
    while (longer.size() < to)
      longer += longer.empty() ? "x" : longer;
    longer.resize(to);
    xmlSetProp(a->parent, a->name, X(longer.c_str()));
    return true;
  });
  // Attributes copied onto other elements.
  Mutate(base, out, "copy attribute", attributes / 2, [&](xmlDoc*, auto& e, int i) {
    auto all = attributesOf(e);
    xmlAttr* a = all[static_cast<std::size_t>(i * 7) % all.size()];
    xmlNode* to = e[static_cast<std::size_t>(i * 5 + 3) % e.size()];
    if (xmlHasProp(to, a->name) != nullptr)
      return false;
    xmlChar* value = xmlGetProp(a->parent, a->name);
    xmlSetProp(to, a->name, value);
    xmlFree(value);
    return true;
  });
  Mutate(base, out, "drop element", elementCount, [&](xmlDoc*, auto& e, int i) {
    if (static_cast<std::size_t>(i) >= e.size() || i == 0)
      return false;
    xmlUnlinkNode(e[static_cast<std::size_t>(i)]);
    xmlFreeNode(e[static_cast<std::size_t>(i)]);
    return true;
  });
  Mutate(base, out, "duplicate element", elementCount, [&](xmlDoc*, auto& e, int i) {
    if (static_cast<std::size_t>(i) >= e.size() || i == 0)
      return false;
    xmlAddNextSibling(e[static_cast<std::size_t>(i)],
                      xmlCopyNode(e[static_cast<std::size_t>(i)], 1));
    return true;
  });
  Mutate(base, out, "rename element", elementCount * 3, [&](xmlDoc*, auto& e, int i) {
    const auto at = static_cast<std::size_t>(i / 3);
    if (at >= e.size() || at == 0)
      return false;
    xmlNodeSetName(e[at], X(elementNames[static_cast<std::size_t>(i * 7) % elementNames.size()]));
    return true;
  });
  Mutate(base, out, "move element", elementCount * 2, [&](xmlDoc*, auto& e, int i) {
    const auto from = static_cast<std::size_t>(i / 2);
    const auto to = static_cast<std::size_t>(i * 11 + 5) % e.size();
    if (from == 0 || from >= e.size())
      return false;
    for (xmlNode* n = e[to]; n != nullptr; n = n->parent) {
      if (n == e[from])
        return false;
    }
    xmlUnlinkNode(e[from]);
    xmlAddChild(e[to], e[from]);
    return true;
  });
  return out;
}

TEST(CustomUiCheck, RefusesWhatThePublishedSchemaRefusesOnMutatedDocuments) {
  const char* path = TABFORGE_CUSTOM_UI_SCHEMA;
  if (!std::filesystem::exists(path))
    GTEST_SKIP() << "no published schema at " << path << "; the comparison needs it";
  Schema schema(path);
  ASSERT_NE(schema.schema, nullptr) << "libxml2 cannot read " << path;

  const auto corpus = Corpus();
  int refusedByBoth = 0;
  int takenByBoth = 0;
  int exclusiveOnly = 0;
  for (const auto& mutant : corpus) {
    const bool schemaAccepts = schema.Accepts(mutant.text);
    const auto findings = CheckCustomUi(mutant.text);
    bool beyondTheSchema = !findings.empty();
    for (const auto& f : findings)
      beyondTheSchema = beyondTheSchema && f.kind == Kind::kExclusive;
    if (!schemaAccepts && findings.empty()) {
      ADD_FAILURE() << mutant.what << ": the schema refuses, the check takes it\n" << mutant.text;
    } else if (schemaAccepts && !findings.empty() && !beyondTheSchema) {
      ADD_FAILURE() << mutant.what << ": the schema takes it, the check refuses\n"
                    << Lines(findings) << mutant.text;
    }
    refusedByBoth += !schemaAccepts && !findings.empty();
    takenByBoth += schemaAccepts && findings.empty();
    exclusiveOnly += schemaAccepts && beyondTheSchema;
  }
  EXPECT_GE(corpus.size(), 400u);
  // Both sides of the comparison must be exercised for it to mean anything.
  EXPECT_GE(refusedByBoth, 100);
  EXPECT_GE(takenByBoth, 50);
  EXPECT_GE(exclusiveOnly, 3);
  std::cout << corpus.size() << " documents: " << refusedByBoth << " refused by both, "
            << takenByBoth << " taken by both, " << exclusiveOnly
            << " refused only for an exclusive pair\n";
}

}  // namespace
}  // namespace tabforge::cli
