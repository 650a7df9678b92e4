// The ribbon document: exact elements and structure, checked with a real XML parser.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <regex>
#include <string>

#include "apartment.h"
#include "ribbon/main2.h"

namespace tabforge::testing {
namespace {

std::string Document(Utf16View productName, bool initialize = true) {
  Apartment apartment;
  Main2 main2(apartment.protector);
  if (initialize)
    main2.Initialize(nullptr, Utf16String(productName));
  return ToUtf8(main2.GetRibbonXML());
}

TEST(Document, WritesEachKindOfElementExactly) {
  const std::string xml = Document(u"Morvelin");
  for (
      const char* element : {
          R"(<button id="MVN0" description="Apply a formatting template to this document." supertip="Apply a formatting template to this document." getEnabled="GetEnabled" getImage="GetImage" getLabel="GetLabel" onAction="RibbonCallback"/>)",
          R"(<button id="MVN5" description="Insert a reference and/or bibliography entry into your document (Ctrl+Shift+F)." supertip="Insert a reference and/or bibliography entry into your document (Ctrl+Shift+F)." getEnabled="GetEnabled" size="large" image="5" label="Insert Reference" keytip="I" onAction="RibbonCallback"/>)",
          R"(<button id="MVN9" description="Format the text at the cursor as a level 1 heading (Ctrl+1)." supertip="Format the text at the cursor as a level 1 heading (Ctrl+1)." getEnabled="GetEnabled" showLabel="false" image="9" label="Set as Heading Level 1" keytip="1" onAction="RibbonCallback"/>)",
          R"(<toggleButton id="MVN23" description="Show synonyms and dictionary definitions of any word in your document (Ctrl+Shift+X)." supertip="Show synonyms and dictionary definitions of any word in your document (Ctrl+Shift+X)." getEnabled="GetEnabled" size="large" image="23" label="Lexoscope" keytip="Y" onAction="RibbonCallbackToggleButton" getPressed="GetPressed" getScreentip="GetScreenTip"/>)",
          R"(<button id="MVN16" description="Go to the quick bookmark you have previously set in the document (F2)." supertip="Go to the quick bookmark you have previously set in the document (F2)." getEnabled="GetEnabled" size="large" imageMso="BookmarkInsert" label="Go to Quick Bookmark" keytip="B" onAction="RibbonCallback"/>)",
          R"(description="Deletes any remaining Hints from Professor Quillon.  Make sure you do this before handing in your paper!" )",
          R"(description="Open the user manual." )",
      }) {
    EXPECT_NE(xml.find(element), std::string::npos) << element;
  }
}

// A failure at the very end of an element's writer: the dump shows the element's pieces as the
// strings they stand for, and the document goes on without that element.
TEST(Document, FailedElementDumpsItsPiecesAndIsLeftOut) {
  Apartment apartment;
  Main2 main2(apartment.protector);
  main2.Initialize(nullptr, u"Morvelin");
  apartment.faults.FailAt(u"Main2.AddButtonImpl", 26);  // the References tab's button, first
  apartment.script->answers = {std::int32_t{8}, std::int32_t{5}};
  const std::string xml = ToUtf8(main2.GetRibbonXML());

  const auto& arrays = apartment.script->stringArrays;
  auto strs =
      std::find_if(arrays.begin(), arrays.end(), [](const auto& a) { return a.first == "strs"; });
  ASSERT_NE(strs, arrays.end());
  const std::vector<std::string>& texts = strs->second;
  EXPECT_THAT(texts,
              ::testing::ElementsAre(
                  "<", "button", " id=\"", "MVN", "26", "\" description=\"",
                  "Use Morvelin to manage your references (Ctrl+Shift+F).", "\" supertip=\"",
                  "Use Morvelin to manage your references (Ctrl+Shift+F).",
                  "\" getEnabled=\"GetEnabled\"", "", " size=\"large\"", " getImage=\"GetImage\"",
                  " getLabel=\"GetLabel\"", " keytip=\"Z\"", " onAction=\"RibbonCallback\"", "/>"));
  EXPECT_NE(xml.find(R"(label="Morvelin"></group></tab>)"), std::string::npos);
  EXPECT_NE(xml.find(R"(<button id="MVN0" )"), std::string::npos);
}

TEST(Document, OpensAndClosesAsComposed) {
  const std::string xml = Document(u"Morvelin");
  EXPECT_EQ(
      xml.rfind(
          R"(<customUI xmlns="http://schemas.microsoft.com/office/2006/01/customui" onLoad="ribbonLoaded" loadImage="loadImage"><ribbon><tabs><tab idMso="TabReferences"><group id="GroupRedirectMorvelin" insertAfterMso="GroupCitationsAndBibliography" label="Morvelin"><button id="MVN26" )",
          0),
      0u);
  EXPECT_NE(
      xml.find(
          R"(</group></tab><tab id="Morvelin" label="Morvelin" keytip="Z"><group id="GroupMorvelin" label="Morvelin Core Features"><splitButton id="SplitApplyMorvelin" size="large"><menu id="SplitMenuApplyMorvelin" itemSize="large"><button id="MVN0" description=)"),
      std::string::npos);
  const std::string tail = R"(</group></tab></tabs></ribbon></customUI>)";
  EXPECT_EQ(xml.substr(xml.size() - tail.size()), tail);
  EXPECT_EQ(xml.find('\n'), std::string::npos);
  EXPECT_EQ(xml.find("> <"), std::string::npos);
}

TEST(Document, FollowsTheProductNameInThreePlacesOnly) {
  const std::string empty = Document(u"", /*initialize=*/false);
  EXPECT_NE(empty.find(R"(<tab id="Morvelin" label="" keytip="Z">)"), std::string::npos);
  EXPECT_NE(empty.find(R"(label=" Core Features")"), std::string::npos);
  EXPECT_EQ(Document(u"", true), empty);
  const std::string quill = Document(u"Quill PN");
  EXPECT_NE(quill.find(R"(label="Quill PN Core Features")"), std::string::npos);
  std::size_t count = 0;
  for (auto at = quill.find("Quill PN"); at != std::string::npos;
       at = quill.find("Quill PN", at + 1)) {
    ++count;
  }
  EXPECT_EQ(count, 3u);
}

// Well-formed for any name, with the controls in the order the ribbon shows them. Which attributes
// may stand together is the custom-UI check's to say (its tests take this document).
TEST(Document, IsWellFormedWithItsControlsInOrder) {
  for (Utf16View name : {u"Morvelin", u"Quill Pro", u"A"}) {
    const std::string xml = Document(name);
    xmlDoc* doc = xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "ribbon.xml", nullptr,
                                XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    EXPECT_NE(doc, nullptr) << "not well-formed";
    xmlFreeDoc(doc);
    std::vector<std::string> order;
    const std::regex id(R"re( id="(MVN\d+)")re");
    for (std::sregex_iterator it(xml.begin(), xml.end(), id), end; it != end; ++it)
      order.push_back((*it)[1]);
    EXPECT_THAT(order,
                ::testing::ElementsAre("MVN26", "MVN0", "MVN1", "MVN2", "MVN4", "MVN24", "MVN25",
                                       "MVN5", "MVN6", "MVN7", "MVN15", "MVN13", "MVN14", "MVN8",
                                       "MVN9", "MVN10", "MVN11", "MVN12", "MVN16", "MVN17", "MVN18",
                                       "MVN19", "MVN20", "MVN21", "MVN22", "MVN23"));
  }
}

}  // namespace
}  // namespace tabforge::testing
