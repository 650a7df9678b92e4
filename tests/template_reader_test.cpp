// The template reader: a template made here reads back as it was made, through every layer (the
// package, the compound file, the dir stream, the compressed sources); a template damaged in one
// place gives the error text of that place (tests/damaged_templates.txt), never a crash; the
// callbacks of the ribbon meet their procedures or say why not.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "doctor/template_reader.h"
#include "doctor/template_writer.h"

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
  EXPECT_EQ(content.modules[0].name, "Tabforge");
  EXPECT_TRUE(content.modules[0].standard);
  EXPECT_EQ(content.modules[0].offset, 37u);
  EXPECT_EQ(content.modules[0].source, GoodTemplate().modules[0].source);
  EXPECT_EQ(content.modules[1].name, "ThisDocument");
  EXPECT_FALSE(content.modules[1].standard);
  EXPECT_EQ(content.modules[1].source, GoodTemplate().modules[1].source);
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

std::string Rels(const std::string& relationships) {
  return "<Relationships xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\">" +
         relationships + "</Relationships>";
}

std::string UiRelationship(const char* year, const std::string& target) {
  return std::string("<Relationship Id=\"r") + year +
         "\" Type=\"http://schemas.microsoft.com/office/" + year +
         "/relationships/ui/extensibility\" Target=\"" + target + "\"/>";
}

TEST(TemplateReader, TheRibbonPartIsTheOneTheRelationshipsName) {
  TemplatePlan plan = GoodTemplate();
  plan.relateCustomUi = false;
  const TemplateContent unrelated = ReadTemplate(WriteTemplate(plan));
  EXPECT_EQ(unrelated.customUiPart, "");
  EXPECT_EQ(unrelated.unrelatedCustomUi, "customUI/customUI14.xml");
  EXPECT_THAT(unrelated.callbacks, IsEmpty());

  const Bytes ui = Ascii("<customUI onLoad=\"A\"/>");
  const Bytes old = Ascii("<customUI onLoad=\"B\"/>");
  struct Case {
    const char* what;
    std::string relationships;
    const char* part;  // the ribbon part read, or the error's start
  } cases[] = {
      {"a part of any name", Rels(UiRelationship("2007", "/custom/ribbon.xml")),
       "custom/ribbon.xml"},
      {"the 2010 part over the 2007 one",
       Rels(UiRelationship("2006", "customUI/customUI.xml") +
            UiRelationship("2007", "custom/ribbon.xml")),
       "custom/ribbon.xml"},
      {"the 2010 part over the 2007 one that follows it",
       Rels(UiRelationship("2007", "custom/ribbon.xml") +
            UiRelationship("2006", "customUI/customUI.xml")),
       "custom/ribbon.xml"},
      {"the 2007 part alone", Rels(UiRelationship("2006", "customUI/customUI.xml")),
       "customUI/customUI.xml"},
      {"a part that is not there", Rels(UiRelationship("2007", "customUI/gone.xml")),
       "the package's relationships name the ribbon part customUI/gone.xml, which the package "
       "does not hold"},
      {"relationships that do not end", "<Relationships><Relationship Id=\"x\"",
       "the package's relationships has a tag that does not end: <Relationship"},
  };
  for (const Case& c : cases) {
    const Bytes zip = WriteZip({{"_rels/.rels", Ascii(c.relationships), true},
                                {"custom/ribbon.xml", ui, false},
                                {"customUI/customUI.xml", old, false}});
    std::string read;
    try {
      read = ReadTemplate(zip).customUiPart;
    } catch (const Damaged& damaged) {
      read = damaged.what();
    }
    EXPECT_EQ(read, c.part) << c.what;
  }
}

// --- Procedures and callbacks ---------------------------------------------------------------

TEST(TemplateReader, DeclarationsGiveTheirNameAccessAndParameterCount) {
  struct Case {
    const char* line;
    const char* found;  // "name parameters public sub", or "" for no declaration
  } cases[] = {
      {"Public Sub A(control As IRibbonControl)", "A 1 public sub"},
      {"Sub B(control As IRibbonControl, ByRef label)", "B 2 public sub"},
      {"Private Sub C()", "C 0 private sub"},
      {"Friend Sub D( )", "D 0 public sub"},
      {"Public Static Sub E(a, b(), Optional c As Integer = 3)", "E 3 public sub"},
      {"Public Function F(x As Variant) As String", "F 1 public function"},
      {"  sub g (a As Long)", "g 1 public sub"},
      {"Public Sub H(a, _\r\n  b, _\r\n  c)", "H 3 public sub"},
      {"Public Sub I(a) ' (b, c)", "I 1 public sub"},
      {"End Sub", ""},
      {"Exit Sub", ""},
      {"' Public Sub J(a)", ""},
      {"Public Declare PtrSafe Sub K Lib \"k32\" (ByVal a As Long)", ""},
      {"Call Sub_L(a)", ""},
      {"Dim subtotal(3)", ""},
  };
  for (const Case& c : cases) {
    const std::vector<Procedure> found = FindProcedures({"M", "M", 0, true, c.line});
    std::string text;
    for (const Procedure& p : found)
      text = p.name + " " + std::to_string(p.parameters) + (p.isPublic ? " public" : " private") +
             (p.isSub ? " sub" : " function");
    EXPECT_EQ(text, c.found) << c.line;
    EXPECT_LE(found.size(), 1u) << c.line;
  }
}

TEST(TemplateReader, CreationOfTheClassIsFoundByNameOrWithNew) {
  struct Case {
    const char* source;
    bool creates;
  } cases[] = {
      {"Set m = CreateObject(\"Tabforge.Main2\")", true},
      {"Set m = createobject ( \"TABFORGE.MAIN2\" )", true},
      {"Dim m As New Tabforge.Main2", true},
      {"Set m = New   Tabforge.Main2", true},
      {"Set m = CreateObject(\"Tabforge.Main3\")", false},
      {"Set m = CreateObject(\"Tabforge.Main2x\")", false},
      {"' Set m = CreateObject(\"Tabforge.Main2\")", false},
      {"Dim m As Tabforge.Main2", false},
      {"Set m = Renew Tabforge.Main2", false},
      {"Set m = New Tabforge.Main22", false},
      {"MsgBox \"use New Tabforge.Main2\"", true},  // a text is not told from code here
  };
  for (const Case& c : cases)
    EXPECT_EQ(CreatesMain2(c.source), c.creates) << c.source;
}

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

TEST(TemplateReader, EachCallbackThatWordCannotCallSaysWhy) {
  struct Case {
    const char* ribbon;
    ModuleText module;
    const char* mismatch;  // "" when the callback matches
  } cases[] = {
      {"<button onAction=\"Go\"/>", {"M", true, "Sub Go(c)\r\n"}, ""},
      {"<button onAction=\"M.Go\"/>", {"M", true, "Public Sub Go(c)\r\n"}, ""},
      {"<button onAction=\"Project.M.Go\"/>", {"M", true, "Public Sub Go(c)\r\n"}, ""},
      {"<button onAction=\"N.Go\"/>",
       {"M", true, "Public Sub Go(c)\r\n"},
       "onAction=\"N.Go\" of <button>: no such procedure in the template's macros"},
      {"<button onAction=\"Gone\"/>",
       {"M", true, "Public Sub Go(c)\r\n"},
       "onAction=\"Gone\" of <button>: no such procedure in the template's macros"},
      {"<button onAction=\"Go\"/>",
       {"M", true, "Public Sub Go(c, pressed)\r\n"},
       "onAction=\"Go\" of <button>: M.Go takes 2, the callback passes 1 parameter"},
      {"<toggleButton onAction=\"Go\"/>",
       {"M", true, "Public Sub Go(c)\r\n"},
       "onAction=\"Go\" of <toggleButton>: M.Go takes 1, the callback passes 2 parameters"},
      {"<button getLabel=\"Go\"/>",
       {"M", true, "Private Sub Go(c, ByRef label)\r\n"},
       "getLabel=\"Go\" of <button>: M.Go is Private"},
      {"<button getLabel=\"Go\"/>",
       {"M", true, "Public Function Go(c, ByRef label)\r\n"},
       "getLabel=\"Go\" of <button>: M.Go is a Function, not a Sub"},
      {"<button getLabel=\"Go\"/>",
       {"C", false, "Public Sub Go(c, ByRef label)\r\n"},
       "getLabel=\"Go\" of <button>: Go is in the class or document module C, not a standard "
       "module"},
  };
  for (const Case& c : cases) {
    TemplatePlan plan;
    plan.customUi = std::string("<customUI>") + c.ribbon + "</customUI>";
    plan.modules = {c.module};
    const std::vector<std::string> mismatches =
        CallbackMismatches(ReadTemplate(WriteTemplate(plan)));
    if (*c.mismatch == '\0')
      EXPECT_THAT(mismatches, IsEmpty()) << c.ribbon << " " << c.module.source;
    else
      EXPECT_THAT(mismatches, ElementsAre(c.mismatch)) << c.ribbon << " " << c.module.source;
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
  std::ifstream in(TABFORGE_SOURCE_DIR "/tests/damaged_templates.txt");
  ASSERT_TRUE(in) << "tests/damaged_templates.txt";
  std::string line;
  int cases = 0;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    if (line.empty() || line[0] == '#')
      continue;
    const std::size_t first = line.find(" | ");
    const std::size_t last = line.rfind(" | ");
    ASSERT_TRUE(first != std::string::npos && last != first) << "line " << number;
    const std::string layer = line.substr(0, first);
    // An empty change leaves the two separators overlapping: "container | | ...".
    const std::string change = last < first + 3 ? "" : line.substr(first + 3, last - first - 3);
    const std::string expected = Trim(line.substr(last + 3));
    const std::string said = Read(layer, change);
    if (expected == "ok" || expected[0] == '=')
      EXPECT_EQ(said, expected) << "line " << number << ": " << line;
    else
      EXPECT_EQ(said.substr(0, expected.size()), expected) << "line " << number << ": " << line;
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
