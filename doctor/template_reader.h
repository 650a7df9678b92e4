// Reads a word processor's macro-enabled template from its bytes: the ZIP package, the ribbon's
// custom-UI part, the macro project (a compound file holding the `VBA/dir` stream and the
// compressed module sources), the procedures those modules declare and the callbacks the ribbon
// names. Every file read here comes from the user's disk and may be anything: each size is capped,
// each index checked, each chain bounded, and a damaged file gives an error text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace tabforge::doctor {

using Bytes = std::vector<unsigned char>;
using ByteSpan = std::span<const unsigned char>;

// What is wrong with a file, in words for the user.
class Damaged : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// --- The package ----------------------------------------------------------------------------

struct ZipEntry {
  std::string name;
  std::uint16_t method = 0;  // 0 stored, 8 deflated
  std::uint32_t crc = 0;
  std::uint32_t compressedSize = 0;
  std::uint32_t size = 0;
  std::uint32_t localOffset = 0;
};

// The central directory of a ZIP archive. Throws Damaged.
std::vector<ZipEntry> ReadZipDirectory(ByteSpan zip);
// The entry's content, inflated and checked against its CRC; refused when it is larger than
// `cap`. Throws Damaged.
Bytes ReadZipEntry(ByteSpan zip, const ZipEntry& entry, std::size_t cap);

// --- The compound file ----------------------------------------------------------------------

// A compound file's streams, found by their path of storage names ("VBA", "dir"); names compare
// without regard to ASCII case.
class CompoundFile {
 public:
  explicit CompoundFile(ByteSpan file);  // throws Damaged
  // Throws Damaged when the stream is missing or its chain is broken.
  Bytes Stream(const std::vector<std::string>& path) const;
  bool Has(const std::vector<std::string>& path) const;

 private:
  struct Entry {
    std::string name;  // ASCII upper case; other characters as UTF-8
    std::uint8_t type = 0;
    std::uint32_t left = 0, right = 0, child = 0, start = 0;
    std::uint64_t size = 0;
  };
  Bytes Sector(std::uint32_t index) const;
  std::vector<std::uint32_t> Chain(std::uint32_t start, const std::vector<std::uint32_t>& table,
                                   const char* what) const;
  Bytes ReadChain(std::uint32_t start, std::uint64_t size) const;
  const Entry* Find(const std::vector<std::string>& path) const;

  ByteSpan file_;
  std::size_t sectorSize_ = 512;
  std::uint32_t sectorCount_ = 0;
  std::uint32_t miniCutoff_ = 4096;
  std::vector<std::uint32_t> fat_;
  std::vector<std::uint32_t> miniFat_;
  std::vector<Entry> entries_;
  Bytes miniStream_;
};

// Expands a compressed container of the macro project (a signature byte, then chunks of at most
// 4096 bytes each, raw or as literal and copy tokens). Throws Damaged.
Bytes Decompress(ByteSpan container, std::size_t cap);

// --- The macro project ----------------------------------------------------------------------

struct Module {
  std::string name;
  std::string streamName;
  std::uint32_t offset = 0;
  bool standard = true;  // false for class and document modules
  std::string source;
};

// The modules that the project's `VBA/dir` stream lists, with their sources. Throws Damaged.
std::vector<Module> ReadMacroProject(ByteSpan vbaProject);

struct Procedure {
  std::string module;
  std::string name;
  int parameters = 0;
  bool isPublic = true;
  bool isSub = true;  // false for a Function
  bool standardModule = true;
};

// The Sub and Function declarations of one module's source. Procedures without an access word
// are public.
std::vector<Procedure> FindProcedures(const Module& module);

// Whether the source creates the library's class, by name or with New.
bool CreatesMain2(const std::string& source);

// --- The ribbon document --------------------------------------------------------------------

struct Callback {
  std::string element;    // the element naming it, without a namespace prefix
  std::string attribute;  // onAction, getLabel, ...
  std::string name;       // as written: Procedure or Module.Procedure
  int parameters = 0;     // what the word processor passes
};

// Every callback attribute of the custom-UI document, with the parameter count the word processor
// calls it with. Throws Damaged on a tag that does not end.
std::vector<Callback> FindCallbacks(const std::string& customUi);

// --- The template as a whole ----------------------------------------------------------------

struct TemplateContent {
  std::string customUiPart;  // empty when the package has none, or its relationships name none
  // A part by a ribbon part's name that the package's relationships do not name: the word
  // processor never reads it.
  std::string unrelatedCustomUi;
  std::string customUi;
  bool hasMacros = false;
  bool signedMacros = false;
  std::vector<Module> modules;
  std::vector<Procedure> procedures;
  std::vector<Callback> callbacks;
  bool createsMain2 = false;
};

// Throws Damaged.
TemplateContent ReadTemplate(ByteSpan dotm);

// The callbacks that do not match a public Sub of a standard module with their parameter count,
// one text each.
std::vector<std::string> CallbackMismatches(const TemplateContent& content);

}  // namespace tabforge::doctor
