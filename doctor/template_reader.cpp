#include "doctor/template_reader.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <limits>
#include <string_view>

namespace tabforge::doctor {
namespace {

// Nothing in a template of ours comes near these; a file that claims more is refused rather than
// allocated.
constexpr std::size_t kPartCap = 16u << 20;
constexpr std::size_t kStreamCap = 16u << 20;
constexpr std::size_t kSourceCap = 4u << 20;
constexpr std::size_t kMaxModules = 1000;
// What all the parts of a package, or all the module streams of a project, may add up to; a
// small file that claims many large parts is refused before it costs minutes.
constexpr std::size_t kPackageCap = 64u << 20;
// A ribbon document of ours names a few dozen callbacks and a project holds a few hundred
// procedures; matching each callback against each procedure stays quick within these.
constexpr std::size_t kMaxCallbacks = 2000;
constexpr std::size_t kMaxProcedures = 5000;

std::uint16_t U16(ByteSpan bytes, std::size_t at) {
  if (at > bytes.size() || bytes.size() - at < 2)
    throw Damaged("a field runs past the end of its data");
  return static_cast<std::uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

std::uint32_t U32(ByteSpan bytes, std::size_t at) {
  if (at > bytes.size() || bytes.size() - at < 4)
    throw Damaged("a field runs past the end of its data");
  return static_cast<std::uint32_t>(bytes[at]) | static_cast<std::uint32_t>(bytes[at + 1]) << 8 |
         static_cast<std::uint32_t>(bytes[at + 2]) << 16 |
         static_cast<std::uint32_t>(bytes[at + 3]) << 24;
}

std::string Upper(std::string text) {
  for (char& c : text)
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

std::string Lower(std::string text) {
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool SameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

// --- ZIP --------------------------------------------------------------------------------------

constexpr std::uint32_t kEndOfDirectory = 0x06054b50;
constexpr std::uint32_t kDirectoryEntry = 0x02014b50;
constexpr std::uint32_t kLocalHeader = 0x04034b50;

Bytes Inflate(ByteSpan compressed, std::size_t expected) {
  Bytes out(expected);
  z_stream stream{};
  if (inflateInit2(&stream, -MAX_WBITS) != Z_OK)
    throw Damaged("the decompressor cannot start");
  stream.next_in = const_cast<unsigned char*>(compressed.data());
  stream.avail_in = static_cast<uInt>(compressed.size());
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  int status = inflate(&stream, Z_FINISH);
  const std::size_t produced = stream.total_out;
  // One byte more tells a stream that would inflate past its declared size from one that ends.
  unsigned char extra = 0;
  if (status == Z_BUF_ERROR && stream.avail_out == 0) {
    stream.next_out = &extra;
    stream.avail_out = 1;
    status = inflate(&stream, Z_FINISH);
  }
  const bool more = stream.total_out > produced;
  inflateEnd(&stream);
  if (more)
    throw Damaged("a part inflates past its declared size");
  if (status != Z_STREAM_END)
    throw Damaged("a part's deflated data is damaged or cut short");
  if (produced != expected)
    throw Damaged("a part inflates to fewer bytes than its declared size");
  return out;
}

}  // namespace

std::vector<ZipEntry> ReadZipDirectory(ByteSpan zip) {
  if (zip.size() < 22)
    throw Damaged("not a ZIP package: too short");
  // The end record sits at the end, behind a comment of up to 65535 bytes.
  std::size_t end = zip.size() - 22;
  const std::size_t lowest = zip.size() > 22 + 65535 ? zip.size() - 22 - 65535 : 0;
  while (U32(zip, end) != kEndOfDirectory) {
    if (end == lowest)
      throw Damaged("not a ZIP package: no end of central directory");
    --end;
  }
  const std::uint16_t count = U16(zip, end + 10);
  const std::uint32_t size = U32(zip, end + 12);
  const std::uint32_t offset = U32(zip, end + 16);
  if (count == 0xFFFF || size == 0xFFFFFFFF || offset == 0xFFFFFFFF)
    throw Damaged("a ZIP64 package, which a template never is");
  if (offset > end || size > end - offset)
    throw Damaged("the ZIP central directory lies outside the file");
  std::vector<ZipEntry> entries;
  std::size_t at = offset;
  for (std::uint16_t i = 0; i < count; ++i) {
    if (U32(zip, at) != kDirectoryEntry)
      throw Damaged("the ZIP central directory is damaged at entry " + std::to_string(i + 1));
    ZipEntry entry;
    const std::uint16_t flags = U16(zip, at + 8);
    entry.method = U16(zip, at + 10);
    entry.crc = U32(zip, at + 16);
    entry.compressedSize = U32(zip, at + 20);
    entry.size = U32(zip, at + 24);
    const std::uint16_t nameLength = U16(zip, at + 28);
    const std::uint16_t extraLength = U16(zip, at + 30);
    const std::uint16_t commentLength = U16(zip, at + 32);
    entry.localOffset = U32(zip, at + 42);
    if (at + 46 + nameLength > zip.size())
      throw Damaged("a ZIP entry's name runs past the end of the file");
    entry.name.assign(reinterpret_cast<const char*>(zip.data() + at + 46), nameLength);
    if ((flags & 1) != 0)
      throw Damaged("the ZIP entry " + entry.name + " is encrypted");
    entries.push_back(std::move(entry));
    at += 46u + nameLength + extraLength + commentLength;
  }
  return entries;
}

Bytes ReadZipEntry(ByteSpan zip, const ZipEntry& entry, std::size_t cap) {
  if (entry.size > cap)
    throw Damaged("the part " + entry.name + " claims " + std::to_string(entry.size) +
                  " bytes, more than a template's part may hold");
  const std::size_t local = entry.localOffset;
  if (U32(zip, local) != kLocalHeader)
    throw Damaged("the part " + entry.name + " has no local header where the directory says");
  const std::size_t data = local + 30u + U16(zip, local + 26) + U16(zip, local + 28);
  if (data > zip.size() || zip.size() - data < entry.compressedSize)
    throw Damaged("the part " + entry.name + " runs past the end of the file");
  const ByteSpan stored = zip.subspan(data, entry.compressedSize);
  Bytes content;
  if (entry.method == 0) {
    if (entry.compressedSize != entry.size)
      throw Damaged("the stored part " + entry.name + " has two different sizes");
    content.assign(stored.begin(), stored.end());
  } else if (entry.method == 8) {
    try {
      content = Inflate(stored, entry.size);
    } catch (const Damaged& failure) {
      throw Damaged(std::string(failure.what()) + " (" + entry.name + ")");
    }
  } else {
    throw Damaged("the part " + entry.name + " uses compression method " +
                  std::to_string(entry.method) + ", not stored or deflated");
  }
  const auto crc =
      static_cast<std::uint32_t>(crc32(0, content.data(), static_cast<uInt>(content.size())));
  if (crc != entry.crc)
    throw Damaged("the part " + entry.name + " does not match its checksum");
  return content;
}

// --- Compound file --------------------------------------------------------------------------

namespace {
constexpr std::uint32_t kEndOfChain = 0xFFFFFFFE;
constexpr std::uint32_t kFreeSector = 0xFFFFFFFF;
constexpr std::uint32_t kMaxRegular = 0xFFFFFFFA;
constexpr std::uint32_t kNoStream = 0xFFFFFFFF;
constexpr std::array<unsigned char, 8> kSignature = {0xD0, 0xCF, 0x11, 0xE0,
                                                     0xA1, 0xB1, 0x1A, 0xE1};
constexpr std::size_t kMiniSector = 64;
}  // namespace

CompoundFile::CompoundFile(ByteSpan file) : file_(file) {
  if (file.size() < 512 || !std::equal(kSignature.begin(), kSignature.end(), file.begin()))
    throw Damaged("the macro project is not a compound file");
  if (U16(file, 0x1C) != 0xFFFE)
    throw Damaged("the macro project's compound file has a wrong byte order mark");
  const std::uint16_t shift = U16(file, 0x1E);
  if (shift != 9 && shift != 12)
    throw Damaged("the macro project's compound file has a sector size of 2^" +
                  std::to_string(shift));
  if (U16(file, 0x20) != 6)
    throw Damaged("the macro project's compound file has a mini sector size other than 64");
  sectorSize_ = std::size_t{1} << shift;
  sectorCount_ = static_cast<std::uint32_t>((file.size() - 1) / sectorSize_);  // header is one
  const std::uint32_t fatSectors = U32(file, 0x2C);
  const std::uint32_t firstDirectory = U32(file, 0x30);
  miniCutoff_ = U32(file, 0x38);
  const std::uint32_t firstMiniFat = U32(file, 0x3C);
  std::uint32_t difatSector = U32(file, 0x44);
  const std::uint32_t difatSectors = U32(file, 0x48);
  if (fatSectors > sectorCount_ || difatSectors > sectorCount_)
    throw Damaged("the macro project's compound file claims more sectors than it has");

  // Where the FAT's own sectors are: 109 in the header, the rest in a chain of DIFAT sectors.
  std::vector<std::uint32_t> fatLocations;
  for (std::size_t i = 0; i < 109 && fatLocations.size() < fatSectors; ++i)
    fatLocations.push_back(U32(file, 0x4C + 4 * i));
  std::vector<bool> seen(sectorCount_, false);
  for (std::uint32_t n = 0; n < difatSectors && fatLocations.size() < fatSectors; ++n) {
    if (difatSector >= sectorCount_ || seen[difatSector])
      throw Damaged("the macro project's compound file has a broken DIFAT chain");
    seen[difatSector] = true;
    const Bytes sector = Sector(difatSector);
    const std::size_t perSector = sectorSize_ / 4 - 1;
    for (std::size_t i = 0; i < perSector && fatLocations.size() < fatSectors; ++i)
      fatLocations.push_back(U32(sector, 4 * i));
    difatSector = U32(sector, 4 * perSector);
  }
  if (fatLocations.size() < fatSectors)
    throw Damaged("the macro project's compound file lists fewer FAT sectors than it claims");
  for (const std::uint32_t location : fatLocations) {
    if (location >= sectorCount_)
      throw Damaged("a FAT sector of the macro project lies outside the file");
    const Bytes sector = Sector(location);
    for (std::size_t i = 0; i < sectorSize_ / 4; ++i)
      fat_.push_back(U32(sector, 4 * i));
  }

  const Bytes directory = ReadChain(firstDirectory, std::numeric_limits<std::uint64_t>::max());
  const bool version3 = sectorSize_ == 512;
  for (std::size_t at = 0; at + 128 <= directory.size(); at += 128) {
    Entry entry;
    const std::size_t nameBytes = std::min<std::size_t>(U16(directory, at + 64), 64);
    for (std::size_t i = 0; i + 1 < nameBytes; i += 2) {
      const std::uint16_t c = U16(directory, at + i);
      if (c == 0)
        break;
      if (c < 0x80) {
        entry.name += static_cast<char>(std::toupper(c));
      } else {
        entry.name += '?';  // names of ours are ASCII; others only need to differ from them
      }
    }
    entry.type = directory[at + 66];
    entry.left = U32(directory, at + 68);
    entry.right = U32(directory, at + 72);
    entry.child = U32(directory, at + 76);
    entry.start = U32(directory, at + 116);
    entry.size = U32(directory, at + 120);
    if (!version3)
      entry.size |= static_cast<std::uint64_t>(U32(directory, at + 124)) << 32;
    entries_.push_back(std::move(entry));
  }
  if (entries_.empty() || entries_[0].type != 5)
    throw Damaged("the macro project's compound file has no root entry");
  if (firstMiniFat != kEndOfChain && firstMiniFat != kFreeSector) {
    const Bytes miniFat = ReadChain(firstMiniFat, std::numeric_limits<std::uint64_t>::max());
    for (std::size_t i = 0; i + 4 <= miniFat.size(); i += 4)
      miniFat_.push_back(U32(miniFat, i));
  }
  if (entries_[0].start != kEndOfChain && entries_[0].size > 0)
    miniStream_ = ReadChain(entries_[0].start, entries_[0].size);
}

Bytes CompoundFile::Sector(std::uint32_t index) const {
  const std::size_t at = (static_cast<std::size_t>(index) + 1) * sectorSize_;
  if (index >= sectorCount_ || at >= file_.size())
    throw Damaged("a sector of the macro project lies outside the file");
  // The last sector may be cut short; what is missing reads as zeros.
  Bytes sector(sectorSize_, 0);
  std::copy_n(file_.begin() + static_cast<std::ptrdiff_t>(at),
              std::min(sectorSize_, file_.size() - at), sector.begin());
  return sector;
}

std::vector<std::uint32_t> CompoundFile::Chain(std::uint32_t start,
                                               const std::vector<std::uint32_t>& table,
                                               const char* what) const {
  std::vector<std::uint32_t> chain;
  std::vector<bool> seen(table.size(), false);
  for (std::uint32_t at = start; at != kEndOfChain; at = table[at]) {
    if (at > kMaxRegular || at >= table.size())
      throw Damaged(std::string("a ") + what + " chain of the macro project is broken");
    if (seen[at])
      throw Damaged(std::string("a ") + what + " chain of the macro project runs in a circle");
    seen[at] = true;
    chain.push_back(at);
  }
  return chain;
}

Bytes CompoundFile::ReadChain(std::uint32_t start, std::uint64_t size) const {
  Bytes out;
  for (const std::uint32_t sector : Chain(start, fat_, "sector")) {
    const Bytes bytes = Sector(sector);
    out.insert(out.end(), bytes.begin(), bytes.end());
    if (out.size() > kStreamCap)
      throw Damaged("a stream of the macro project is larger than a template's may be");
  }
  if (size != std::numeric_limits<std::uint64_t>::max()) {
    if (out.size() < size)
      throw Damaged("a stream of the macro project is shorter than its entry says");
    out.resize(static_cast<std::size_t>(size));
  }
  return out;
}

const CompoundFile::Entry* CompoundFile::Find(const std::vector<std::string>& path) const {
  const Entry* storage = &entries_[0];
  for (const std::string& wanted : path) {
    const std::string name = Upper(wanted);
    // The children of a storage hang in a tree of siblings below its child.
    std::vector<std::uint32_t> pending = {storage->child};
    std::vector<bool> seen(entries_.size(), false);
    const Entry* found = nullptr;
    while (!pending.empty() && found == nullptr) {
      const std::uint32_t id = pending.back();
      pending.pop_back();
      if (id == kNoStream)
        continue;
      if (id >= entries_.size() || seen[id])
        throw Damaged("the macro project's directory tree is broken");
      seen[id] = true;
      const Entry& entry = entries_[id];
      if (entry.name == name)
        found = &entry;
      pending.push_back(entry.left);
      pending.push_back(entry.right);
    }
    if (found == nullptr)
      return nullptr;
    storage = found;
  }
  return storage;
}

bool CompoundFile::Has(const std::vector<std::string>& path) const {
  const Entry* entry = Find(path);
  return entry != nullptr && entry->type == 2;
}

Bytes CompoundFile::Stream(const std::vector<std::string>& path) const {
  std::string name;
  for (const std::string& part : path)
    name += (name.empty() ? "" : "/") + part;
  const Entry* entry = Find(path);
  if (entry == nullptr || entry->type != 2)
    throw Damaged("the macro project has no stream " + name);
  if (entry->size > kStreamCap)
    throw Damaged("the macro project's stream " + name + " is larger than a template's may be");
  if (entry->size >= miniCutoff_)
    return ReadChain(entry->start, entry->size);
  Bytes out;
  for (const std::uint32_t mini : Chain(entry->start, miniFat_, "mini sector")) {
    const std::size_t at = static_cast<std::size_t>(mini) * kMiniSector;
    if (at >= miniStream_.size())
      throw Damaged("the stream " + name + " lies outside the macro project's mini stream");
    const std::size_t take = std::min(kMiniSector, miniStream_.size() - at);
    out.insert(out.end(), miniStream_.begin() + static_cast<std::ptrdiff_t>(at),
               miniStream_.begin() + static_cast<std::ptrdiff_t>(at + take));
  }
  if (out.size() < entry->size)
    throw Damaged("the stream " + name + " is shorter than its entry says");
  out.resize(static_cast<std::size_t>(entry->size));
  return out;
}

// --- Compressed containers ------------------------------------------------------------------

Bytes Decompress(ByteSpan container, std::size_t cap) {
  if (container.empty() || container[0] != 0x01)
    throw Damaged("a compressed container does not start with its signature byte");
  Bytes out;
  std::size_t at = 1;
  while (at < container.size()) {
    const std::uint16_t header = U16(container, at);
    const std::size_t chunkSize = (header & 0x0FFFu) + 3;
    if (((header >> 12) & 0x7) != 0x3)
      throw Damaged("a compressed chunk has a wrong signature");
    const std::size_t chunkEnd = std::min(container.size(), at + chunkSize);
    const std::size_t chunkStart = out.size();
    at += 2;
    if ((header & 0x8000) == 0) {
      // A raw chunk: 4096 bytes as they are.
      if (container.size() - at < 4096)
        throw Damaged("a raw chunk of a compressed container is cut short");
      out.insert(out.end(), container.begin() + static_cast<std::ptrdiff_t>(at),
                 container.begin() + static_cast<std::ptrdiff_t>(at + 4096));
      at += 4096;
    } else {
      while (at < chunkEnd) {
        const unsigned char flags = container[at++];
        for (int bit = 0; bit < 8 && at < chunkEnd; ++bit) {
          if ((flags & (1 << bit)) == 0) {
            out.push_back(container[at++]);
          } else {
            if (chunkEnd - at < 2)
              throw Damaged("a copy token of a compressed container is cut short");
            const std::uint16_t token = U16(container, at);
            at += 2;
            const std::size_t difference = out.size() - chunkStart;
            unsigned bitCount = 4;
            while ((std::size_t{1} << bitCount) < difference)
              ++bitCount;
            if (bitCount > 12)
              throw Damaged("a compressed chunk grows past 4096 bytes");
            const unsigned lengthMask = 0xFFFFu >> bitCount;
            const std::size_t length = (token & lengthMask) + 3u;
            const std::size_t offset = (static_cast<unsigned>(token) >> (16 - bitCount)) + 1u;
            if (offset > difference)
              throw Damaged("a copy token of a compressed container reaches before its chunk");
            for (std::size_t i = 0; i < length; ++i)
              out.push_back(out[out.size() - offset]);
          }
          if (out.size() - chunkStart > 4096)
            throw Damaged("a compressed chunk grows past 4096 bytes");
        }
      }
    }
    if (out.size() > cap)
      throw Damaged("a compressed container expands past " + std::to_string(cap) + " bytes");
  }
  return out;
}

// --- The macro project ----------------------------------------------------------------------

namespace {

// Record ids of the `dir` stream that the reading below needs.
constexpr std::uint16_t kProjectVersion = 0x0009;
constexpr std::uint16_t kModuleName = 0x0019;
constexpr std::uint16_t kModuleStreamName = 0x001A;
constexpr std::uint16_t kModuleOffset = 0x0031;
constexpr std::uint16_t kModuleProcedural = 0x0021;
constexpr std::uint16_t kModuleOther = 0x0022;
constexpr std::uint16_t kModuleTerminator = 0x002B;
constexpr std::uint16_t kDirTerminator = 0x0010;

std::string Text(ByteSpan bytes) {
  return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

}  // namespace

std::vector<Module> ReadMacroProject(ByteSpan vbaProject) {
  const CompoundFile file(vbaProject);
  const Bytes dir = Decompress(file.Stream({"VBA", "dir"}), kStreamCap);
  std::vector<Module> modules;
  Module current;
  bool inModule = false;
  std::size_t at = 0;
  // Every record is an id, a 32-bit size and that many bytes, except the project's version,
  // whose size field says 4 and which holds 6.
  while (at < dir.size()) {
    const std::uint16_t id = U16(dir, at);
    const std::uint32_t size = U32(dir, at + 2);
    const std::size_t length = id == kProjectVersion ? 6 : size;
    at += 6;
    if (length > dir.size() - at)
      throw Damaged("the macro project's dir stream has a record that runs past its end");
    const ByteSpan data = ByteSpan(dir).subspan(at, length);
    at += length;
    switch (id) {
      case kModuleName:
        if (modules.size() >= kMaxModules)
          throw Damaged("the macro project lists more modules than a template holds");
        current = Module{};
        current.name = Text(data);
        inModule = true;
        break;
      case kModuleStreamName:
        current.streamName = Text(data);
        break;
      case kModuleOffset:
        current.offset = U32(data, 0);
        break;
      case kModuleProcedural:
        current.standard = true;
        break;
      case kModuleOther:
        current.standard = false;
        break;
      case kModuleTerminator:
        if (!inModule)
          throw Damaged("the macro project's dir stream ends a module it did not begin");
        modules.push_back(std::move(current));
        current = Module{};
        inModule = false;
        break;
      default:
        break;
    }
    if (id == kDirTerminator)
      break;
  }
  if (inModule)
    throw Damaged("the macro project's dir stream ends inside the module " + current.name);
  std::size_t total = 0;
  for (Module& module : modules) {
    if (module.streamName.empty())
      module.streamName = module.name;
    const Bytes stream = file.Stream({"VBA", module.streamName});
    total += stream.size();
    if (total > kPackageCap)
      throw Damaged("the macro project's modules add up to more than a template's may");
    if (module.offset > stream.size())
      throw Damaged("the module " + module.name + "'s source begins past the end of its stream");
    try {
      const Bytes source = Decompress(ByteSpan(stream).subspan(module.offset), kSourceCap);
      module.source = Text(source);
    } catch (const Damaged& failure) {
      throw Damaged("the module " + module.name + "'s source: " + failure.what());
    }
  }
  return modules;
}

namespace {

// The source's logical lines: continuations (" _" at the end) joined, comments dropped.
std::vector<std::string> LogicalLines(const std::string& source) {
  std::vector<std::string> lines;
  std::string line;
  std::size_t begin = 0;
  while (begin <= source.size()) {
    std::size_t end = source.find_first_of("\r\n", begin);
    if (end == std::string::npos)
      end = source.size();
    std::string physical = source.substr(begin, end - begin);
    // A quote outside a string starts a comment.
    bool inString = false;
    for (std::size_t i = 0; i < physical.size(); ++i) {
      if (physical[i] == '"')
        inString = !inString;
      else if (physical[i] == '\'' && !inString) {
        physical.resize(i);
        break;
      }
    }
    while (!physical.empty() && std::isspace(static_cast<unsigned char>(physical.back())))
      physical.pop_back();
    const bool continues = physical.size() >= 2 && physical.back() == '_' &&
                           std::isspace(static_cast<unsigned char>(physical[physical.size() - 2]));
    if (continues)
      physical.resize(physical.size() - 1);
    line += physical;
    if (!continues) {
      lines.push_back(line);
      line.clear();
    }
    if (end == source.size())
      break;
    begin = end + 1;
    if (source[end] == '\r' && begin < source.size() && source[begin] == '\n')
      ++begin;
  }
  if (!line.empty())
    lines.push_back(line);
  return lines;
}

std::vector<std::string> Words(const std::string& line, std::size_t& rest) {
  std::vector<std::string> words;
  std::size_t at = 0;
  while (words.size() < 4) {
    while (at < line.size() && std::isspace(static_cast<unsigned char>(line[at])))
      ++at;
    const std::size_t start = at;
    while (at < line.size() && (std::isalnum(static_cast<unsigned char>(line[at])) ||
                                line[at] == '_' || static_cast<unsigned char>(line[at]) >= 0x80))
      ++at;
    if (at == start)
      break;
    words.push_back(line.substr(start, at - start));
  }
  rest = at;
  return words;
}

}  // namespace

std::vector<Procedure> FindProcedures(const Module& module) {
  std::vector<Procedure> procedures;
  for (const std::string& line : LogicalLines(module.source)) {
    std::size_t rest = 0;
    const std::vector<std::string> words = Words(line, rest);
    std::size_t i = 0;
    Procedure procedure;
    procedure.module = module.name;
    procedure.standardModule = module.standard;
    if (i < words.size() && (SameName(words[i], "Public") || SameName(words[i], "Private") ||
                             SameName(words[i], "Friend"))) {
      procedure.isPublic = !SameName(words[i], "Private");
      ++i;
    }
    if (i < words.size() && SameName(words[i], "Static"))
      ++i;
    if (i + 1 >= words.size() || !(SameName(words[i], "Sub") || SameName(words[i], "Function")))
      continue;
    procedure.isSub = SameName(words[i], "Sub");
    procedure.name = words[i + 1];
    // The words read stop at the name only when it is the last word read.
    if (i + 2 != words.size())
      continue;
    const std::size_t open = line.find_first_not_of(" \t", rest);
    if (open == std::string::npos || line[open] != '(')
      continue;
    int depth = 0;
    int commas = 0;
    bool any = false;
    for (std::size_t at = open; at < line.size(); ++at) {
      const char c = line[at];
      if (c == '(') {
        ++depth;
      } else if (c == ')') {
        if (--depth == 0)
          break;
      } else if (c == ',' && depth == 1) {
        ++commas;
      } else if (depth >= 1 && !std::isspace(static_cast<unsigned char>(c))) {
        any = true;
      }
    }
    procedure.parameters = any ? commas + 1 : 0;
    procedures.push_back(std::move(procedure));
  }
  return procedures;
}

bool CreatesMain2(const std::string& source) {
  for (const std::string& raw : LogicalLines(source)) {
    std::string squeezed;
    for (const char c : Lower(raw)) {
      if (!std::isspace(static_cast<unsigned char>(c)))
        squeezed += c;
    }
    if (squeezed.find("createobject(\"tabforge.main2\"") != std::string::npos)
      return true;
    // "New Tabforge.Main2" as a whole word.
    std::size_t rest = 0;
    const std::string line = Lower(raw);
    for (std::size_t at = line.find("new"); at != std::string::npos;
         at = line.find("new", at + 1)) {
      const bool wordStart = at == 0 || !(std::isalnum(static_cast<unsigned char>(line[at - 1])) ||
                                          line[at - 1] == '_');
      rest = line.find_first_not_of(" \t", at + 3);
      if (wordStart && rest != at + 3 && rest != std::string::npos &&
          line.compare(rest, 14, "tabforge.main2") == 0 &&
          (rest + 14 == line.size() ||
           !(std::isalnum(static_cast<unsigned char>(line[rest + 14])) || line[rest + 14] == '_')))
        return true;
    }
  }
  return false;
}

// --- The ribbon document --------------------------------------------------------------------

namespace {

// The parameters each callback receives. onAction depends on its element: a button passes the
// control, a toggle button and a check box also the pressed state, a drop-down and a gallery the
// selected item's id and index; a repurposed command also passes the cancel flag.
struct CallbackShape {
  const char* attribute;
  int parameters;
};
constexpr CallbackShape kCallbacks[] = {
    {"onLoad", 1},          {"loadImage", 2},         {"getImage", 2},
    {"getLabel", 2},        {"getEnabled", 2},        {"getPressed", 2},
    {"getScreentip", 2},    {"getSupertip", 2},       {"getKeytip", 2},
    {"getVisible", 2},      {"getSize", 2},           {"getDescription", 2},
    {"getShowImage", 2},    {"getShowLabel", 2},      {"getText", 2},
    {"onChange", 2},        {"getItemCount", 2},      {"getItemID", 3},
    {"getItemLabel", 3},    {"getItemImage", 3},      {"getItemScreentip", 3},
    {"getItemSupertip", 3}, {"getSelectedItemID", 2}, {"getSelectedItemIndex", 2},
    {"getContent", 2},      {"getTitle", 2},          {"getHelperText", 2},
    {"getAltText", 2},
};

int OnActionParameters(const std::string& element) {
  if (element == "toggleButton" || element == "checkBox" || element == "command")
    return 2;
  if (element == "dropDown" || element == "gallery")
    return 3;
  return 1;
}

}  // namespace

namespace {

struct Tag {
  std::string element;  // without a namespace prefix
  std::vector<std::pair<std::string, std::string>> attributes;
};

// The start tags of an XML text with their attributes, for `onTag`; `document` names the text in
// errors. Comments, end tags, declarations and processing instructions are passed over.
template <class OnTag>
void ScanTags(const std::string& xml, const std::string& document, OnTag onTag) {
  std::size_t at = 0;
  while ((at = xml.find('<', at)) != std::string::npos) {
    if (xml.compare(at, 4, "<!--") == 0) {
      const std::size_t end = xml.find("-->", at + 4);
      if (end == std::string::npos)
        throw Damaged(document + " has a comment that does not end");
      at = end + 3;
      continue;
    }
    ++at;
    if (at < xml.size() && (xml[at] == '/' || xml[at] == '?' || xml[at] == '!'))
      continue;
    std::size_t nameEnd = at;
    while (nameEnd < xml.size() && !std::isspace(static_cast<unsigned char>(xml[nameEnd])) &&
           xml[nameEnd] != '>' && xml[nameEnd] != '/')
      ++nameEnd;
    Tag tag;
    tag.element = xml.substr(at, nameEnd - at);
    if (const std::size_t colon = tag.element.find(':'); colon != std::string::npos)
      tag.element.erase(0, colon + 1);
    at = nameEnd;
    // The attributes, up to the end of the tag.
    for (;;) {
      while (at < xml.size() && std::isspace(static_cast<unsigned char>(xml[at])))
        ++at;
      if (at >= xml.size())
        throw Damaged(document + " has a tag that does not end: <" + tag.element);
      if (xml[at] == '>' || xml[at] == '/')
        break;
      std::size_t equals = at;
      while (equals < xml.size() && xml[equals] != '=' && xml[equals] != '>' &&
             xml[equals] != '/' && !std::isspace(static_cast<unsigned char>(xml[equals])))
        ++equals;
      std::string attribute = xml.substr(at, equals - at);
      while (equals < xml.size() && std::isspace(static_cast<unsigned char>(xml[equals])))
        ++equals;
      if (equals >= xml.size() || xml[equals] != '=')
        throw Damaged(document + " has an attribute without a value in <" + tag.element);
      std::size_t quote = equals + 1;
      while (quote < xml.size() && std::isspace(static_cast<unsigned char>(xml[quote])))
        ++quote;
      if (quote >= xml.size() || (xml[quote] != '"' && xml[quote] != '\''))
        throw Damaged(document + " has an attribute value without quotes in <" + tag.element);
      const std::size_t close = xml.find(xml[quote], quote + 1);
      if (close == std::string::npos)
        throw Damaged(document + " has an attribute value that does not end in <" + tag.element);
      tag.attributes.emplace_back(std::move(attribute), xml.substr(quote + 1, close - quote - 1));
      at = close + 1;
    }
    onTag(tag);
  }
}

}  // namespace

std::vector<Callback> FindCallbacks(const std::string& customUi) {
  std::vector<Callback> callbacks;
  ScanTags(customUi, "the ribbon document", [&](const Tag& tag) {
    for (const auto& [attribute, value] : tag.attributes) {
      if (attribute == "onAction")
        callbacks.push_back({tag.element, attribute, value, OnActionParameters(tag.element)});
      for (const CallbackShape& shape : kCallbacks) {
        if (attribute == shape.attribute)
          callbacks.push_back({tag.element, attribute, value, shape.parameters});
      }
      if (callbacks.size() > kMaxCallbacks)
        throw Damaged("the ribbon document names more callbacks than a ribbon holds");
    }
  });
  return callbacks;
}

// --- The template ---------------------------------------------------------------------------

namespace {

// The ribbon part that the package's relationships name: the 2010 one over the 2007 one.
struct Related {
  bool present = false;  // the package has _rels/.rels
  std::string target;
};

Related RelatedCustomUi(ByteSpan dotm, const std::vector<ZipEntry>& entries) {
  Related related;
  for (const ZipEntry& entry : entries) {
    if (!SameName(entry.name, "_rels/.rels"))
      continue;
    related.present = true;
    const Bytes xml = ReadZipEntry(dotm, entry, kPartCap);
    bool newer = false;
    ScanTags(std::string(xml.begin(), xml.end()), "the package's relationships",
             [&](const Tag& tag) {
               if (tag.element != "Relationship")
                 return;
               std::string type;
               std::string target;
               for (const auto& [name, value] : tag.attributes) {
                 if (name == "Type")
                   type = value;
                 else if (name == "Target")
                   target = value;
               }
               const std::string suffix = "/relationships/ui/extensibility";
               if (type.size() < suffix.size() ||
                   type.compare(type.size() - suffix.size(), suffix.size(), suffix) != 0)
                 return;
               const bool isNewer = type.find("/office/2007/") != std::string::npos;
               if (related.target.empty() || (isNewer && !newer)) {
                 related.target = target.rfind('/', 0) == 0 ? target.substr(1) : target;
                 newer = isNewer;
               }
             });
  }
  return related;
}

bool IsCustomUiName(const std::string& name) {
  return SameName(name, "customUI/customUI14.xml") || SameName(name, "customUI/customUI.xml");
}

}  // namespace

TemplateContent ReadTemplate(ByteSpan dotm) {
  TemplateContent content;
  const std::vector<ZipEntry> entries = ReadZipDirectory(dotm);
  const ZipEntry* customUi = nullptr;
  const ZipEntry* macros = nullptr;
  std::size_t total = 0;
  for (const ZipEntry& entry : entries) {
    // Each part's own claim is refused first, by its name.
    if (entry.size <= kPartCap)
      total += entry.size;
    if (total > kPackageCap)
      throw Damaged("the package's parts add up to more than a template's may");
    // The word processor refuses a package with any part damaged, not only the parts read here.
    ReadZipEntry(dotm, entry, kPartCap);
    if (SameName(entry.name, "word/vbaProject.bin"))
      macros = &entry;
    else if (SameName(entry.name, "word/vbaProjectSignature.bin") ||
             SameName(entry.name, "word/vbaProjectSignatureAgile.bin"))
      content.signedMacros = true;
  }
  // The word processor finds the ribbon part through the package's relationships; a package
  // without them (which it would not open at all) is read by the parts' usual names.
  const Related related = RelatedCustomUi(dotm, entries);
  for (const ZipEntry& entry : entries) {
    if (related.present) {
      if (!related.target.empty() && SameName(entry.name, related.target))
        customUi = &entry;
      else if (IsCustomUiName(entry.name) && content.unrelatedCustomUi.empty())
        content.unrelatedCustomUi = entry.name;
    } else if (SameName(entry.name, "customUI/customUI14.xml") ||
               (customUi == nullptr && SameName(entry.name, "customUI/customUI.xml"))) {
      customUi = &entry;
    }
  }
  if (related.present && !related.target.empty() && customUi == nullptr)
    throw Damaged("the package's relationships name the ribbon part " + related.target +
                  ", which the package does not hold");
  if (customUi != nullptr) {
    content.customUiPart = customUi->name;
    const Bytes xml = ReadZipEntry(dotm, *customUi, kPartCap);
    content.customUi.assign(xml.begin(), xml.end());
    content.callbacks = FindCallbacks(content.customUi);
  }
  if (macros != nullptr) {
    content.hasMacros = true;
    const Bytes project = ReadZipEntry(dotm, *macros, kPartCap);
    content.modules = ReadMacroProject(project);
    for (const Module& module : content.modules) {
      const std::vector<Procedure> found = FindProcedures(module);
      content.procedures.insert(content.procedures.end(), found.begin(), found.end());
      if (content.procedures.size() > kMaxProcedures)
        throw Damaged("the macro project declares more procedures than a template holds");
      content.createsMain2 = content.createsMain2 || CreatesMain2(module.source);
    }
  }
  return content;
}

std::vector<std::string> CallbackMismatches(const TemplateContent& content) {
  std::vector<std::string> mismatches;
  for (const Callback& callback : content.callbacks) {
    std::string module;
    std::string name = callback.name;
    if (const std::size_t dot = name.rfind('.'); dot != std::string::npos) {
      module = name.substr(0, dot);
      if (const std::size_t before = module.rfind('.'); before != std::string::npos)
        module.erase(0, before + 1);
      name.erase(0, dot + 1);
    }
    const Procedure* match = nullptr;
    for (const Procedure& procedure : content.procedures) {
      if (SameName(procedure.name, name) && (module.empty() || SameName(procedure.module, module)))
        match = match == nullptr || (procedure.isSub && procedure.isPublic) ? &procedure : match;
    }
    const std::string what =
        callback.attribute + "=\"" + callback.name + "\" of <" + callback.element + ">";
    const std::string wanted =
        std::to_string(callback.parameters) + " parameter" + (callback.parameters == 1 ? "" : "s");
    if (match == nullptr)
      mismatches.push_back(what + ": no such procedure in the template's macros");
    else if (!match->standardModule)
      mismatches.push_back(what + ": " + match->name + " is in the class or document module " +
                           match->module + ", not a standard module");
    else if (!match->isPublic)
      mismatches.push_back(what + ": " + match->module + "." + match->name + " is Private");
    else if (!match->isSub)
      mismatches.push_back(what + ": " + match->module + "." + match->name +
                           " is a Function, not a Sub");
    else if (match->parameters != callback.parameters)
      mismatches.push_back(what + ": " + match->module + "." + match->name + " takes " +
                           std::to_string(match->parameters) + ", the callback passes " + wanted);
  }
  return mismatches;
}

}  // namespace tabforge::doctor
