// The template reader: a template made here reads back as it was made, through every layer (the
// package, the compound file, the dir stream, the compressed sources); a template damaged in one
// place gives the error text of that place (tests/damaged_templates.txt), never a crash; the
// callbacks of the ribbon meet their procedures or say why not (tests/template_reader_cases.txt).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "doctor/template_reader.h"
#include "doctor/template_writer.h"
#include "golden.h"

namespace tabforge::doctor {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

Bytes Ascii(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

std::string Trim(std::string text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos)
    return "";
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

Bytes Hex(const std::string& text) {
  Bytes bytes;
  std::istringstream in(text);
  std::string byte;
  while (in >> byte)
    bytes.push_back(static_cast<unsigned char>(std::stoul(byte, nullptr, 16)));
  return bytes;
}

std::uint32_t U32At(const Bytes& bytes, std::size_t at) {
  return static_cast<std::uint32_t>(bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 |
                                    static_cast<std::uint32_t>(bytes[at + 3]) << 24);
}

// --- Reading back what was made -------------------------------------------------------------

TEST(TemplateReader, TheGoodTemplateReadsBackThroughEveryLayer) {
  const TemplateContent content = ReadTemplate(WriteTemplate(GoodTemplate()));
  EXPECT_EQ(content.customUiPart, "customUI/customUI14.xml");
  EXPECT_EQ(content.customUi, GoodTemplate().customUi);
  EXPECT_TRUE(content.hasMacros);
  EXPECT_FALSE(content.signedMacros);
  ASSERT_EQ(content.modules.size(), 2u);
  EXPECT_EQ(content.modules[0].offset, 37u);
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(content.modules[i].name, i == 0 ? "Tabforge" : "ThisDocument");
    EXPECT_EQ(content.modules[i].standard, i == 0);
    EXPECT_EQ(content.modules[i].source, GoodTemplate().modules[i].source);
  }
  EXPECT_TRUE(content.createsMain2);
  EXPECT_THAT(CallbackMismatches(content), IsEmpty());
  std::vector<std::string> callbacks;
  for (const Callback& callback : content.callbacks)
    callbacks.push_back(callback.element + " " + callback.attribute + " " + callback.name + " " +
                        std::to_string(callback.parameters));
  EXPECT_THAT(
      callbacks,
      ElementsAre("customUI onLoad Tabforge_OnLoad 1", "customUI loadImage Tabforge_LoadImage 2",
                  "tab getLabel Tabforge_GetLabel 2", "button onAction Tabforge_OnAction 1",
                  "button getEnabled Tabforge_GetEnabled 2",
                  "toggleButton onAction Tabforge_OnToggle 2",
                  "toggleButton getPressed Tabforge_GetPressed 2"));
}

TEST(TemplateReader, LargeModulesGoToRegularSectorsAndSeveralChunks) {
  // Text that compresses badly enough to leave the mini stream: a module stream of more than
  // 4096 bytes, in chunks of each kind.
  std::string source = "Attribute VB_Name = \"Big\"\r\n";
  unsigned seed = 12345;
  while (source.size() < 30000) {
    seed = seed * 1103515245 + 12345;
    source += static_cast<char>('!' + (seed >> 16) % 90);
    if ((seed >> 8) % 40 == 0)
      source += "\r\nPublic Sub Again(a, b, c)\r\nEnd Sub\r\n";
  }
  TemplatePlan plan;
  plan.modules = {{"Big", true, source}};
  const TemplateContent content = ReadTemplate(WriteTemplate(plan));
  ASSERT_EQ(content.modules.size(), 1u);
  EXPECT_EQ(content.modules[0].source, source);
  ASSERT_FALSE(content.procedures.empty());
  EXPECT_EQ(content.procedures[0].parameters, 3);
  EXPECT_TRUE(content.customUiPart.empty());
  EXPECT_THAT(content.callbacks, IsEmpty());
}

TEST(TemplateReader, CompressionRoundTripsRawAndRepeatingChunks) {
  Bytes random(4096 * 2 + 100);
  unsigned seed = 7;
  for (auto& byte : random) {
    seed = seed * 1103515245 + 12345;
    byte = static_cast<unsigned char>(seed >> 16);
  }
  // The random part does not compress: whole chunks go raw.
  for (std::size_t i = 4096 * 2; i < random.size(); ++i)
    random[i] = 'z';
  const Bytes packed = Compress(random);
  EXPECT_EQ(packed[1] | packed[2] << 8, 0x3FFF);
  EXPECT_EQ(Decompress(packed, 1 << 20), random);
  const Bytes text = Ascii(std::string(5000, 'a') + "abcabcabcabc" + std::string(300, 'q'));
  const Bytes small = Compress(text);
  EXPECT_LT(small.size(), 60u);
  EXPECT_EQ(Decompress(small, 1 << 20), text);
  EXPECT_THROW(Decompress(small, 1000), Damaged);
}

TEST(TemplateReader, TheLaterCustomUiPartWinsAndTheOlderOneIsRead) {
  TemplatePlan plan = GoodTemplate();
  plan.customUiPart = "customUI/customUI.xml";
  EXPECT_EQ(ReadTemplate(WriteTemplate(plan)).customUiPart, "customUI/customUI.xml");
  std::vector<ZipPart> parts = {
      {"customUI/customUI14.xml", Ascii("<customUI onLoad=\"A\"/>"), false},
      {"customUI/customUI.xml", Ascii("<customUI onLoad=\"B\"/>"), true},
  };
  const TemplateContent both = ReadTemplate(WriteZip(parts));
  EXPECT_EQ(both.customUiPart, "customUI/customUI14.xml");
  EXPECT_FALSE(both.hasMacros);
  std::swap(parts[0], parts[1]);
  EXPECT_EQ(ReadTemplate(WriteZip(parts)).customUiPart, "customUI/customUI14.xml");
  plan.signedMacros = true;
  EXPECT_TRUE(ReadTemplate(WriteTemplate(plan)).signedMacros);
}

TEST(TemplateReader, ARibbonPartTheRelationshipsDoNotNameIsNotRead) {
  TemplatePlan plan = GoodTemplate();
  plan.relateCustomUi = false;
  const TemplateContent unrelated = ReadTemplate(WriteTemplate(plan));
  EXPECT_EQ(unrelated.customUiPart, "");
  EXPECT_EQ(unrelated.unrelatedCustomUi, "customUI/customUI14.xml");
  EXPECT_THAT(unrelated.callbacks, IsEmpty());
}

// --- Procedures and callbacks ---------------------------------------------------------------

TEST(TemplateReader, OnActionTakesItsParametersFromItsElement) {
  const std::vector<Callback> found = FindCallbacks(
      "<mso:customUI xmlns:mso='x'><mso:button onAction='a'/><toggleButton onAction = 'b'/>"
      "<checkBox onAction=\"c\"/><dropDown onAction=\"d\" getItemLabel=\"e\"/>"
      "<gallery onAction=\"f\" getItemCount=\"g\"/><command idMso=\"Bold\" onAction=\"h\"/>"
      "<!-- <button onAction=\"hidden\"/> --><editBox onChange=\"i\" label=\"onAction\"/>"
      "<dynamicMenu getContent=\"j\"/></mso:customUI>");
  std::vector<std::string> text;
  for (const Callback& c : found)
    text.push_back(c.element + ":" + c.name + ":" + std::to_string(c.parameters));
  EXPECT_THAT(text, ElementsAre("button:a:1", "toggleButton:b:2", "checkBox:c:2", "dropDown:d:3",
                                "dropDown:e:3", "gallery:f:3", "gallery:g:2", "command:h:2",
                                "editBox:i:2", "dynamicMenu:j:2"));
}

// What the reader makes of a case of tests/template_reader_cases.txt, its input's lines given.
std::string Read(const std::string& kind, const std::vector<std::string>& lines) {
  std::string input;
  for (const std::string& line : lines)
    input += (input.empty() ? "" : "\r\n") + line;
  if (kind == "declaration") {
    const std::vector<Procedure> found = FindProcedures({"M", "M", 0, true, input});
    EXPECT_LE(found.size(), 1u) << input;
    std::string text;
    for (const Procedure& p : found)
      text = p.name + " " + std::to_string(p.parameters) + (p.isPublic ? " public" : " private") +
             (p.isSub ? " sub" : " function");
    return text;
  }
  if (kind == "creates")
    return CreatesMain2(input) ? "yes" : "no";
  if (kind == "callback") {
    TemplatePlan made;
    made.customUi = "<customUI>" + lines.at(0) + "</customUI>";
    std::string source;
    for (std::size_t i = 2; i < lines.size(); ++i)
      source += lines[i] + "\r\n";
    made.modules = {{lines.at(1), lines.at(1) == "M", source}};
    const std::vector<std::string> mismatches =
        CallbackMismatches(ReadTemplate(WriteTemplate(made)));
    EXPECT_LE(mismatches.size(), 1u) << input;
    return mismatches.empty() ? "" : mismatches[0];
  }
  EXPECT_EQ(kind, "relationships");
  std::string relationships = lines.at(0);
  if (!relationships.starts_with("<")) {
    relationships = "";
    for (const std::string& line : lines) {
      const std::string year = line.substr(0, 4);
      relationships += "<Relationship Id=\"r" + year +
                       "\" Type=\"http://schemas.microsoft.com/office/" + year +
                       "/relationships/ui/extensibility\" Target=\"" + line.substr(5) + "\"/>";
    }
    relationships =
        "<Relationships xmlns=\"http://schemas.openxmlformats.org/package/2006/"
        "relationships\">" +
        relationships + "</Relationships>";
  }
  try {
    return ReadTemplate(
               WriteZip({{"_rels/.rels", Ascii(relationships), true},
                         {"custom/ribbon.xml", Ascii("<customUI onLoad=\"A\"/>"), false},
                         {"customUI/customUI.xml", Ascii("<customUI onLoad=\"B\"/>"), false}}))
        .customUiPart;
  } catch (const Damaged& damaged) {
    return damaged.what();
  }
}

TEST(TemplateReader, EachSmallInputReadsAsItsCaseSays) {
  for (const auto& c : testing::ReadCases("tests/template_reader_cases.txt")) {
    const std::vector<std::string> fields = testing::Fields(c.header);
    std::vector<std::string> lines;
    std::istringstream body(c.body);
    for (std::string line; std::getline(body, line);)
      lines.push_back(line);
    EXPECT_EQ(Read(fields[0], lines), fields.size() > 1 ? fields[1] : "") << c.header << "\n"
                                                                          << c.body;
  }
}

// --- Damaged templates ----------------------------------------------------------------------

// Where AT points in `bytes`: a number, or a name of the layer with an offset.
std::size_t Position(const std::string& at, const Bytes& bytes, const std::string& layer) {
  const std::size_t plus = at.find('+');
  const std::size_t colon = at.find(':');
  if (layer == "file" && plus != std::string::npos) {
    const std::string base = at.substr(0, plus);
    const std::size_t offset = std::stoul(at.substr(plus + 1), nullptr, 0);
    std::size_t eocd = bytes.size() - 22;
    if (base == "eocd")
      return eocd + offset;
    if (base == "central")
      return U32At(bytes, eocd + 16) + offset;
    if (base == "local")
      return offset;
    ADD_FAILURE() << "unknown position " << at;
  }
  if (layer == "project" && colon != std::string::npos)
    return (std::stoul(at.substr(0, colon)) + 1) * 512 + std::stoul(at.substr(colon + 1));
  return std::stoul(at, nullptr, 0);
}

void Change(Bytes& bytes, const std::string& change, const std::string& layer) {
  std::istringstream in(change);
  std::string operation;
  std::string at;
  std::string value;
  in >> operation >> at >> value;
  if (operation == "cut") {
    bytes.resize(std::stoul(at));
    return;
  }
  if (operation == "cut-end") {
    bytes.resize(bytes.size() - std::stoul(at));
    return;
  }
  const std::size_t width = operation == "set8" ? 1 : operation == "set16" ? 2 : 4;
  ASSERT_TRUE(operation.rfind("set", 0) == 0) << change;
  const std::size_t where = Position(at, bytes, layer);
  const unsigned long number = std::stoul(value, nullptr, 0);
  ASSERT_LE(where + width, bytes.size()) << change;
  for (std::size_t i = 0; i < width; ++i)
    bytes[where + i] = static_cast<unsigned char>(number >> (8 * i));
}

// What the reader says of the case's input: "ok", "= expansion" or the error text.
std::string Read(const std::string& layer, const std::string& change) {
  try {
    if (layer == "container") {
      const Bytes out = Decompress(Hex(change), 1 << 20);
      return Trim("= " + std::string(out.begin(), out.end()));
    }
    if (layer == "dir") {
      ReadMacroProject(WriteCompoundFile(
          {{{"VBA", "_VBA_PROJECT"}, Bytes(7, 0)}, {{"VBA", "dir"}, Compress(Hex(change))}}));
      return "ok";
    }
    if (layer == "ribbon") {
      TemplatePlan plan = GoodTemplate();
      plan.customUi = change;
      ReadTemplate(WriteTemplate(plan));
      return "ok";
    }
    Bytes file;
    if (layer == "project") {
      Bytes project = WriteMacroProject(GoodTemplate().modules);
      Change(project, change, layer);
      file = WriteZip({{"word/vbaProject.bin", project, true}});
    } else {
      file = WriteTemplate(GoodTemplate());
      Change(file, change, layer);
    }
    ReadTemplate(file);
    return "ok";
  } catch (const Damaged& damaged) {
    return damaged.what();
  }
}

TEST(TemplateReader, EachDamageGivesItsOwnError) {
  std::istringstream in(testing::ReadSource("tests/damaged_templates.txt"));
  int cases = 0;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#')
      continue;
    const std::vector<std::string> fields = testing::Fields(line);
    ASSERT_EQ(fields.size(), 3u) << line;
    const std::string said = Read(fields[0], fields[1]);
    if (fields[2] == "ok" || fields[2][0] == '=')
      EXPECT_EQ(said, fields[2]) << line;
    else
      EXPECT_EQ(said.substr(0, fields[2].size()), fields[2]) << line;
    ++cases;
  }
  EXPECT_GE(cases, 60);
}

// What a small file may claim or hold is bounded, so that reading it never takes long.
TEST(TemplateReader, WhatATemplateMayHoldIsBounded) {
  struct Case {
    const char* what;
    Bytes file;
    const char* error;
  };
  std::string ribbon = "<customUI>";
  for (int i = 0; i < 2001; ++i)
    ribbon += "<button onAction=\"A\"/>";
  std::string many = "Attribute VB_Name = \"M\"\r\n";
  for (int i = 0; i < 5001; ++i)
    many += "Sub P" + std::to_string(i) + "()\r\n";
  std::vector<ZipPart> parts;
  for (int i = 0; i < 5; ++i)
    parts.push_back({"part" + std::to_string(i), Bytes(15u << 20, 'x'), true});
  TemplatePlan callbacks;
  callbacks.customUi = ribbon + "</customUI>";
  TemplatePlan procedures;
  procedures.modules = {{"M", true, many}};
  Case cases[] = {
      {"a ribbon of 2001 callbacks", WriteTemplate(callbacks),
       "the ribbon document names more callbacks than a ribbon holds"},
      {"5001 procedures", WriteTemplate(procedures),
       "the macro project declares more procedures than a template holds"},
      {"parts of 75 MiB in all", WriteZip(parts),
       "the package's parts add up to more than a template's may"},
  };
  for (const Case& c : cases) {
    EXPECT_LT(c.file.size(), 1u << 20) << c.what;
    try {
      ReadTemplate(c.file);
      ADD_FAILURE() << c.what << " was read";
    } catch (const Damaged& damaged) {
      EXPECT_STREQ(damaged.what(), c.error) << c.what;
    }
  }
}

// Every prefix of a good template is refused with words or read; none crashes.
TEST(TemplateReader, EveryCutOfAGoodTemplateEndsInWordsOrAReading) {
  const Bytes good = WriteTemplate(GoodTemplate());
  const Bytes project = WriteMacroProject(GoodTemplate().modules);
  int refused = 0;
  for (std::size_t size = 0; size < good.size(); size += 7) {
    try {
      ReadTemplate(ByteSpan(good.data(), size));
    } catch (const Damaged&) {
      ++refused;
    }
  }
  EXPECT_EQ(refused, static_cast<int>((good.size() + 6) / 7));
  for (std::size_t size = 0; size < project.size(); size += 13) {
    try {
      ReadMacroProject(ByteSpan(project.data(), size));
    } catch (const Damaged& damaged) {
      EXPECT_THAT(damaged.what(), HasSubstr("macro project")) << size;
    }
  }
}

}  // namespace
}  // namespace tabforge::doctor
