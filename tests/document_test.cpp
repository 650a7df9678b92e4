// The ribbon document where it changes: an element whose writer fails, and the product's name. The
// whole document for one name is in every_control.golden, and the custom-UI check's tests hold it
// against the published schema.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "apartment.h"
#include "ribbon/main2.h"

namespace tabforge::testing {
namespace {

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

TEST(Document, FollowsTheProductNameInThreePlacesOnly) {
  const std::string empty = RibbonDocument(u"", /*initialize=*/false);
  EXPECT_NE(empty.find(R"(<tab id="Morvelin" label="" keytip="Z">)"), std::string::npos);
  EXPECT_NE(empty.find(R"(label=" Core Features")"), std::string::npos);
  EXPECT_EQ(RibbonDocument(u"", true), empty);
  const std::string quill = RibbonDocument(u"Quill PN");
  EXPECT_NE(quill.find(R"(label="Quill PN Core Features")"), std::string::npos);
  std::size_t count = 0;
  for (auto at = quill.find("Quill PN"); at != std::string::npos;
       at = quill.find("Quill PN", at + 1))
    ++count;
  EXPECT_EQ(count, 3u);
}

}  // namespace
}  // namespace tabforge::testing
