// The custom-UI check refuses exactly what the published schema refuses, on the composed document
// mutated every way and on edges the mutations do not reach; each kind of finding says where it
// stands and why.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlschemas.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "apartment.h"
#include "ribbon/main2.h"
#include "tools/custom_ui_check.h"

namespace tabforge::cli {
namespace {

using Kind = Finding::Kind;
using Xml = std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)>;

std::string Document(Utf16View productName) {
  testing::Apartment apartment;
  Main2 main2(apartment.protector);
  main2.Initialize(nullptr, Utf16String(productName));
  return ToUtf8(main2.GetRibbonXML());
}

std::string Ribbon(const std::string& inside) {
  return R"(<customUI xmlns="http://schemas.microsoft.com/office/2006/01/customui"><ribbon>)" +
         inside + "</ribbon></customUI>";
}

std::string InGroup(const std::string& controls) {
  return Ribbon(R"(<tabs><tab id="t" label="T"><group id="g" label="G">)" + controls +
                "</group></tab></tabs>");
}

std::string Lines(const std::vector<Finding>& findings) {
  std::string text;
  for (const auto& f : findings)
    text += FormatFinding(f) + "\n";
  return text;
}

Xml Parse(const std::string& text) {
  return {xmlReadMemory(text.data(), static_cast<int>(text.size()), "corpus.xml", nullptr,
                        XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING),
          &xmlFreeDoc};
}

// The published schema's validator; null where the schema is not beside the source tree.
xmlSchemaValidCtxt* Schema() {
  static const std::unique_ptr<xmlSchemaParserCtxt, decltype(&xmlSchemaFreeParserCtxt)> parser(
      xmlSchemaNewParserCtxt(TABFORGE_CUSTOM_UI_SCHEMA), &xmlSchemaFreeParserCtxt);
  static const std::unique_ptr<xmlSchema, decltype(&xmlSchemaFree)> schema(
      std::filesystem::exists(TABFORGE_CUSTOM_UI_SCHEMA) ? xmlSchemaParse(parser.get()) : nullptr,
      &xmlSchemaFree);
  static const std::unique_ptr<xmlSchemaValidCtxt, decltype(&xmlSchemaFreeValidCtxt)> validator(
      schema ? xmlSchemaNewValidCtxt(schema.get()) : nullptr, &xmlSchemaFreeValidCtxt);
  if (validator)
    xmlSchemaSetValidStructuredErrors(
        validator.get(), [](void*, xmlError*) {}, nullptr);
  return validator.get();
}

enum Verdict { kTaken, kRefused, kExclusivePair };

// What the check says of `text`, failing the test where the schema says otherwise. No schema of
// the language can say that two attributes exclude each other, so it takes what the check refuses
// for that alone.
Verdict Judge(const std::string& text) {
  const auto findings = CheckCustomUi(text);
  const bool pairs =
      !findings.empty() && std::all_of(findings.begin(), findings.end(),
                                       [](auto& f) { return f.kind == Kind::kExclusive; });
  const Verdict verdict = findings.empty() ? kTaken : pairs ? kExclusivePair : kRefused;
  if (auto* schema = Schema(); schema != nullptr) {
    const Xml doc = Parse(text);
    const bool accepted = doc != nullptr && xmlSchemaValidateDoc(schema, doc.get()) == 0;
    EXPECT_EQ(accepted, verdict != kRefused) << "the check and the schema differ on\n"
                                             << Lines(findings) << text;
  }
  return verdict;
}

TEST(CustomUiCheck, SaysWhereEachKindOfFindingStandsAndWhy) {
  const struct {
    std::string document;
    Kind kind;
    std::string first;  // the start of the first finding
  } cases[] = {
      {"<customUI>\n  <ribbon>\n</customUI>", Kind::kNotWellFormed, "3:"},
      {R"(<customUI xmlns="urn:wrong"/>)", Kind::kNamespace,
       R"(1:1: <customUI>: the element is in the namespace "urn:wrong", not in "http)"},
      {InGroup("\n<dialogBoxLauncher><button id=\"b\"/></dialogBoxLauncher><button id=\"c\"/>"),
       Kind::kElement,
       "2:56: <button>: the element may not stand after the elements before it in <group>"},
      {InGroup("\n<menu id=\"m\"><button id=\"b\" size=\"large\"/></menu>"), Kind::kAttribute,
       "2:29: <button> size: the attribute may not stand on <button> here"},
      {InGroup("\n<button id=\"b\" label=\"" + std::string(1025, 'x') + "\"/>"), Kind::kValue,
       "2:16: <button> label=\"" + std::string(32, 'x') +
           "... (1025 characters)\": the value must be a text of 1 to 1024 characters"},
      {InGroup("\n<button id=\"b\"/>\n<toggleButton id=\"b\"/>"), Kind::kRepeatedId,
       "3:15: <toggleButton> id=\"b\": the id repeats the one at 2:9; ids must be unique"},
      {InGroup("\n<button id=\"b\" imageMso=\"H\" image=\"5\"/>"), Kind::kExclusive,
       "2:16: <button> image and imageMso: at most one of them may stand on an element"},
  };
  for (const auto& c : cases) {
    Judge(c.document);
    const auto findings = CheckCustomUi(c.document);
    ASSERT_EQ(findings.size(), 1u) << c.document << "\n" << Lines(findings);
    EXPECT_EQ(findings[0].kind, c.kind) << Lines(findings);
    EXPECT_THAT(Lines(findings), ::testing::StartsWith(c.first));
  }
}

TEST(CustomUiCheck, JudgesEdgesTheMutationsMissAsTheSchemaDoes) {
  const std::string x1024(1024, 'x'), y4096(4096, 'y');
  std::string umlauts;
  for (int i = 0; i < 1024; ++i)
    umlauts += "Ä";
  const std::pair<Verdict, std::string> cases[] = {
      {kTaken, R"(<button id=" b " keytip=" ABC " enabled=" true "/>)"},
      {kRefused, R"(<button id="b" size=" large"/>)"},
      {kRefused, R"(<button id="a:b"/>)"},
      {kTaken, R"(<button id="b" label=")" + x1024 + R"(" description=")" + y4096 + "\"/>"},
      {kTaken, R"(<button id="b" label=")" + umlauts + "\"/>"},
      {kTaken, R"(<button idQ="x:b" xmlns:x="urn:x"/>)"},
      {kRefused, R"(<button idQ="y:b"/>)"},
      {kTaken, R"(<editBox id="e" maxLength="+01024"/>)"},
      {kRefused, R"(<editBox id="e" maxLength="1025"/>)"},
      {kRefused, R"(<button id="b" xmlns:x="urn:x" x:label="L"/>)"},
      {kRefused, R"(<x:button xmlns:x="urn:other" id="b"/>)"},
      {kRefused, R"(<button id="b">text</button>)"},
      {kRefused, R"(<dynamicMenu id="d"/>)"},
      {kRefused, R"(<dialogBoxLauncher/>)"},
      {kRefused, R"(<labelControl id="l" imageMso="Help"/>)"},
      {kRefused, R"(<checkBox id="c" showLabel="false"/>)"},
      {kTaken, R"(<box id="x" boxStyle="vertical"><labelControl id="l"/></box>)"},
      {kTaken, R"(<menu id="m"><menuSeparator id="s" title="T"/></menu>)"},
      {kTaken, R"(<splitButton id="s"/>)"},
      {kTaken, R"(<splitButton id="s"><button id="b"/><menu id="m"/></splitButton>)"},
      {kRefused, R"(<splitButton id="s"><button id="b"/></splitButton>)"},
      {kRefused, R"(<splitButton id="s"><menu id="m"/><menu id="n"/></splitButton>)"},
      {kRefused, R"(<splitButton id="s"><button id="b" visible="1"/><menu id="m"/></splitButton>)"},
      {kExclusivePair, R"(<button id="b" label="L" getLabel="G"/>)"},
      {kExclusivePair, R"(<button id="b" idMso="H"/>)"},
      {kExclusivePair, R"(<button id="b" insertAfterMso="A" insertBeforeQ="B"/>)"},
  };
  for (const auto& [verdict, controls] : cases)
    EXPECT_EQ(Judge(InGroup(controls)), verdict) << controls;
  EXPECT_EQ(Judge(Ribbon("<tabs/>")), kRefused);
  EXPECT_EQ(Judge(Ribbon(R"(<qat><sharedControls><control idMso="S"/></sharedControls></qat>)")),
            kTaken);
}

const xmlChar* X(const char* s) {
  return reinterpret_cast<const xmlChar*>(s);
}

// Elements and their attributes in document order.
void Collect(xmlNode* node, std::vector<xmlNode*>& elements, std::vector<xmlAttr*>& attributes) {
  for (; node != nullptr; node = node->next) {
    if (node->type != XML_ELEMENT_NODE)
      continue;
    elements.push_back(node);
    for (xmlAttr* a = node->properties; a != nullptr; a = a->next)
      attributes.push_back(a);
    Collect(node->children, elements, attributes);
  }
}

// Makes the i-th change of one way to the elements `e` and attributes `a` of a fresh copy: an
// attribute dropped, renamed, emptied, lengthened past a bound (3, 1024, 4096) or copied; an
// element other than the root dropped, doubled, renamed or moved. False where it does not apply.
bool Change(int way, std::size_t i, const std::vector<xmlNode*>& e,
            const std::vector<xmlAttr*>& a) {
  static const char* const kAttributes[] = {
      "label",    "getLabel",   "size",      "imageMso",   "image",           "getImage",
      "visible",  "idMso",      "idQ",       "title",      "description",     "itemSize",
      "keytip",   "screentip",  "boxStyle",  "getContent", "insertBeforeMso", "showImage",
      "getTitle", "getPressed", "maxLength", "enabled",    "startFromScratch"};
  static const char* const kElements[] = {
      "box",          "buttonGroup", "button",      "toggleButton",      "checkBox",
      "labelControl", "menu",        "splitButton", "separator",         "menuSeparator",
      "gallery",      "editBox",     "group",       "dialogBoxLauncher", "dynamicMenu",
      "item",         "control",     "comboBox",    "dropDown",          "tab",
      "tabs",         "qat",         "command",     "officeMenu"};
  const auto value = [](xmlAttr* attribute) {
    xmlChar* text = xmlGetProp(attribute->parent, attribute->name);
    std::string copy = reinterpret_cast<const char*>(text);
    xmlFree(text);
    return copy;
  };
  switch (way) {
    case 0:
      return xmlRemoveProp(a[i * 3]) == 0;
    case 1: {
      const xmlChar* name = X(kAttributes[i % std::size(kAttributes)]);
      if (xmlHasProp(a[i]->parent, name) != nullptr)
        return false;
      xmlNodeSetName(reinterpret_cast<xmlNode*>(a[i]), name);
      return true;
    }
    case 2:
      return xmlSetProp(a[i * 2 + 1]->parent, a[i * 2 + 1]->name, X("")) != nullptr;
    case 3: {
      std::string longer = value(a[i * 2]);
      const std::size_t to = i % 3 == 0 ? 4 : i % 3 == 1 ? 1025 : 4097;
      while (longer.size() < to)
        longer += longer.empty() ? "x" : longer;
      longer.resize(to);
      return xmlSetProp(a[i * 2]->parent, a[i * 2]->name, X(longer.c_str())) != nullptr;
    }
    case 4: {
      xmlAttr* from = a[i * 7 % a.size()];
      xmlNode* to = e[(i * 5 + 3) % e.size()];
      return xmlHasProp(to, from->name) == nullptr &&
             xmlSetProp(to, from->name, X(value(from).c_str())) != nullptr;
    }
    case 5:
      xmlUnlinkNode(e[i]);
      xmlFreeNode(e[i]);
      return true;
    case 6:
      return xmlAddNextSibling(e[i], xmlCopyNode(e[i], 1)) != nullptr;
    case 7:
      xmlNodeSetName(e[i / 3], X(kElements[i * 7 % std::size(kElements)]));
      return true;
    default: {
      xmlNode* to = e[(i * 11 + 5) % e.size()];
      for (xmlNode* n = to; n != nullptr; n = n->parent) {
        if (n == e[i / 2])  // not into itself
          return false;
      }
      xmlUnlinkNode(e[i / 2]);
      return xmlAddChild(to, e[i / 2]) != nullptr;
    }
  }
}

std::vector<std::string> Corpus() {
  const std::string base = Document(u"Morvelin");
  std::vector<std::string> out{base, Document(u""), Document(u"Ä")};
  std::vector<xmlNode*> e;
  std::vector<xmlAttr*> a;
  const Xml original = Parse(base);
  Collect(xmlDocGetRootElement(original.get()), e, a);
  // How many changes each way makes, and the first one that applies (elements skip the root).
  const std::size_t counts[] = {a.size() / 3, a.size(), a.size() / 2, a.size() / 2, a.size() / 2,
                                e.size(),     e.size(), e.size() * 3, e.size() * 2};
  const std::size_t firsts[] = {0, 0, 0, 0, 0, 1, 1, 3, 2};
  for (int way = 0; way < 9; ++way) {
    for (std::size_t i = firsts[way]; i < counts[way]; ++i) {
      const Xml doc = Parse(base);
      e.clear();
      a.clear();
      Collect(xmlDocGetRootElement(doc.get()), e, a);
      if (!Change(way, i, e, a))
        continue;
      xmlChar* bytes = nullptr;
      int size = 0;
      xmlDocDumpMemory(doc.get(), &bytes, &size);
      out.emplace_back(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
      xmlFree(bytes);
    }
  }
  return out;
}

TEST(CustomUiCheck, RefusesWhatThePublishedSchemaRefusesOnMutatedDocuments) {
  if (!std::filesystem::exists(TABFORGE_CUSTOM_UI_SCHEMA))
    GTEST_SKIP() << "no published schema at " << TABFORGE_CUSTOM_UI_SCHEMA;
  ASSERT_NE(Schema(), nullptr) << "libxml2 cannot read " << TABFORGE_CUSTOM_UI_SCHEMA;
  int counts[3] = {};
  const auto corpus = Corpus();
  for (const auto& text : corpus)
    ++counts[Judge(text)];
  // Both sides of the comparison must be exercised for it to mean anything.
  EXPECT_GE(corpus.size(), 400u);
  EXPECT_GE(counts[kRefused], 100);
  EXPECT_GE(counts[kTaken], 50);
  EXPECT_GE(counts[kExclusivePair], 3);
  std::cout << corpus.size() << " documents: " << counts[kRefused] << " refused by both, "
            << counts[kTaken] << " taken by both, " << counts[kExclusivePair]
            << " refused only for an exclusive pair\n";
}

}  // namespace
}  // namespace tabforge::cli
