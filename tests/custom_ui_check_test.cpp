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
#include "golden.h"
#include "tools/custom_ui_check.h"

namespace tabforge::cli {
namespace {

using Xml = std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)>;

// `controls` in a group of a tab of a ribbon.
std::string InGroup(const std::string& controls) {
  return R"(<customUI xmlns="http://schemas.microsoft.com/office/2006/01/customui"><ribbon><tabs>)"
         R"(<tab id="t" label="T"><group id="g" label="G">)" +
         controls + "</group></tab></tabs></ribbon></customUI>";
}

std::string Lines(const std::vector<Finding>& findings) {
  std::string text;
  for (const auto& f : findings)
    text += FormatFinding(f) + "\n";
  return text;
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
                                       [](auto& f) { return f.kind == Finding::Kind::kExclusive; });
  const Verdict verdict = findings.empty() ? kTaken : pairs ? kExclusivePair : kRefused;
  if (auto* schema = Schema(); schema != nullptr) {
    const Xml doc(xmlReadMemory(text.data(), static_cast<int>(text.size()), "corpus.xml", nullptr,
                                XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING),
                  &xmlFreeDoc);
    const bool accepted = doc != nullptr && xmlSchemaValidateDoc(schema, doc.get()) == 0;
    EXPECT_EQ(accepted, verdict != kRefused) << "the check and the schema differ on\n"
                                             << Lines(findings) << text;
  }
  return verdict;
}

// Each case of custom_ui_cases.txt: the verdict, and where a single finding stands and why.
TEST(CustomUiCheck, JudgesEachCaseAsTheSchemaDoesAndSaysWhereAndWhy) {
  for (auto [header, document] : testing::ReadCases("tests/custom_ui_cases.txt")) {
    document.erase(document.find_last_not_of('\n') + 1);
    const std::string text =
        document.starts_with("<customUI") ? document : InGroup("\n" + document);
    const std::vector<std::string> fields = testing::Fields(header);
    EXPECT_EQ(Judge(text), fields[0] == "taken"  ? kTaken
                           : fields[0] == "pair" ? kExclusivePair
                                                 : kRefused)
        << text;
    if (fields.size() < 3)
      continue;
    const auto findings = CheckCustomUi(text);
    ASSERT_EQ(findings.size(), 1u) << text << "\n" << Lines(findings);
    EXPECT_EQ(static_cast<int>(findings[0].kind), std::stoi(fields[1])) << Lines(findings);
    EXPECT_THAT(Lines(findings), ::testing::StartsWith(fields[2]));
  }
}

// The composed documents for three names, and the changes of custom_ui_corpus.txt to the first.
std::vector<std::string> Corpus() {
  using testing::RibbonDocument;
  std::vector<std::string> out{RibbonDocument(u"Morvelin"), RibbonDocument(u""),
                               RibbonDocument(u"Ä")};
  const std::vector<testing::Case> cases = testing::ReadCases("tests/custom_ui_corpus.txt");
  const std::string& document = cases.at(0).body;
  for (const auto& [header, text] : cases) {
    const std::vector<std::string> at = testing::Fields(header);
    if (at.size() == 2)
      out.push_back(document.substr(0, std::stoul(at[0])) +
                    text.substr(0, text.size() - !text.empty()) +
                    document.substr(std::stoul(at[0]) + std::stoul(at[1])));
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
