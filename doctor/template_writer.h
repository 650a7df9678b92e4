// Makes macro-enabled templates in memory: the ZIP package, the compound file of the macro
// project with its `dir` stream and compressed module sources. The machines of the case files and
// the tests describe their templates by content and get the bytes from here, so that no binary
// template is kept in the source tree.
#pragma once

#include <string>
#include <vector>

#include "doctor/template_reader.h"

namespace tabforge::doctor {

struct ZipPart {
  std::string name;
  Bytes content;
  bool deflate = false;
};
Bytes WriteZip(const std::vector<ZipPart>& parts);

// A compound file (512-byte sectors) holding `streams`, each named by its path: one name for a
// stream of the root storage, two for a stream below a storage of the root. Streams below 4096
// bytes go to the mini stream, as in every file the word processor writes.
struct CompoundStream {
  std::vector<std::string> path;
  Bytes content;
};
Bytes WriteCompoundFile(const std::vector<CompoundStream>& streams);

// The compressed container of `data`, with literal and copy tokens.
Bytes Compress(ByteSpan data);

struct ModuleText {
  std::string name;
  bool standard = true;
  std::string source;
};
// vbaProject.bin for these modules. Each module stream starts with `cacheBytes` bytes of
// compiled-code cache before its source, which readers skip through the module's offset.
Bytes WriteMacroProject(const std::vector<ModuleText>& modules, std::size_t cacheBytes = 37);

struct TemplatePlan {
  std::string customUiPart = "customUI/customUI14.xml";
  std::string customUi;        // no part when empty
  bool relateCustomUi = true;  // the package's relationships name the ribbon part
  std::vector<ModuleText> modules;
  bool macros = true;  // word/vbaProject.bin, even with no modules
  bool signedMacros = false;
};
Bytes WriteTemplate(const TemplatePlan& plan);

// A template whose ribbon and macros agree: the add-in's own, as the examples ship it.
TemplatePlan GoodTemplate();

}  // namespace tabforge::doctor
