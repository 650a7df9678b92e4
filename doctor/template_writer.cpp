#include "doctor/template_writer.h"

#include <zlib.h>

#include <algorithm>
#include <stdexcept>

namespace tabforge::doctor {
namespace {

void Put16(Bytes& out, std::uint32_t value) {
  out.push_back(static_cast<unsigned char>(value));
  out.push_back(static_cast<unsigned char>(value >> 8));
}

void Put32(Bytes& out, std::uint32_t value) {
  Put16(out, value & 0xFFFF);
  Put16(out, value >> 16);
}

void Set32(Bytes& out, std::size_t at, std::uint32_t value) {
  for (int i = 0; i < 4; ++i)
    out[at + static_cast<std::size_t>(i)] = static_cast<unsigned char>(value >> (8 * i));
}

Bytes Deflate(const Bytes& data) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) !=
      Z_OK)
    throw std::runtime_error("deflateInit2 failed");
  Bytes out(deflateBound(&stream, static_cast<uLong>(data.size())));
  stream.next_in = const_cast<unsigned char*>(data.data());
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  const int status = deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  if (status != Z_STREAM_END)
    throw std::runtime_error("deflate did not finish");
  return out;
}

Bytes Ascii(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

}  // namespace

Bytes WriteZip(const std::vector<ZipPart>& parts) {
  Bytes out;
  Bytes directory;
  for (const ZipPart& part : parts) {
    const Bytes data = part.deflate ? Deflate(part.content) : part.content;
    const auto crc = static_cast<std::uint32_t>(
        crc32(0, part.content.data(), static_cast<uInt>(part.content.size())));
    const auto offset = static_cast<std::uint32_t>(out.size());
    const std::uint32_t method = part.deflate ? 8 : 0;
    Put32(out, 0x04034b50);
    Put16(out, 20);
    Put16(out, 0);
    Put16(out, method);
    Put32(out, 0);  // time and date
    Put32(out, crc);
    Put32(out, static_cast<std::uint32_t>(data.size()));
    Put32(out, static_cast<std::uint32_t>(part.content.size()));
    Put16(out, static_cast<std::uint32_t>(part.name.size()));
    Put16(out, 0);
    out.insert(out.end(), part.name.begin(), part.name.end());
    out.insert(out.end(), data.begin(), data.end());

    Put32(directory, 0x02014b50);
    Put16(directory, 20);
    Put16(directory, 20);
    Put16(directory, 0);
    Put16(directory, method);
    Put32(directory, 0);
    Put32(directory, crc);
    Put32(directory, static_cast<std::uint32_t>(data.size()));
    Put32(directory, static_cast<std::uint32_t>(part.content.size()));
    Put16(directory, static_cast<std::uint32_t>(part.name.size()));
    Put32(directory, 0);  // extra and comment lengths
    Put32(directory, 0);  // disk, internal attributes
    Put32(directory, 0);  // external attributes
    Put32(directory, offset);
    directory.insert(directory.end(), part.name.begin(), part.name.end());
  }
  const auto start = static_cast<std::uint32_t>(out.size());
  out.insert(out.end(), directory.begin(), directory.end());
  Put32(out, 0x06054b50);
  Put32(out, 0);
  Put16(out, static_cast<std::uint32_t>(parts.size()));
  Put16(out, static_cast<std::uint32_t>(parts.size()));
  Put32(out, static_cast<std::uint32_t>(directory.size()));
  Put32(out, start);
  Put16(out, 0);
  return out;
}

Bytes WriteCompoundFile(const std::vector<CompoundStream>& streams) {
  constexpr std::uint32_t kSector = 512;
  constexpr std::uint32_t kEnd = 0xFFFFFFFE;
  constexpr std::uint32_t kFree = 0xFFFFFFFF;
  constexpr std::uint32_t kNone = 0xFFFFFFFF;
  struct Entry {
    std::string name;
    std::uint8_t type;
    std::uint32_t right = kNone, child = kNone, start = kEnd;
    std::uint32_t size = 0;
    const Bytes* content = nullptr;
  };
  std::vector<Entry> entries = {{"Root Entry", 5}};
  // The storages of the root, then every stream below its storage, each chain of siblings
  // hanging to the right.
  auto add = [&](std::uint32_t parent, const std::string& name, std::uint8_t type) {
    std::uint32_t* link = &entries[parent].child;
    while (*link != kNone) {
      if (entries[*link].name == name)
        return *link;
      link = &entries[*link].right;
    }
    entries.push_back({name, type});
    const auto id = static_cast<std::uint32_t>(entries.size() - 1);
    // `link` may point into the vector before it grew.
    std::uint32_t at = parent;
    if (entries[at].child == kNone) {
      entries[at].child = id;
      return id;
    }
    at = entries[at].child;
    while (entries[at].right != kNone)
      at = entries[at].right;
    entries[at].right = id;
    return id;
  };
  for (const CompoundStream& stream : streams) {
    if (stream.path.empty() || stream.path.size() > 2)
      throw std::invalid_argument("a stream is named by one or two names");
    std::uint32_t parent = 0;
    if (stream.path.size() == 2)
      parent = add(0, stream.path[0], 1);
    const std::uint32_t id = add(parent, stream.path.back(), 2);
    entries[id].content = &stream.content;
    entries[id].size = static_cast<std::uint32_t>(stream.content.size());
  }

  // The mini stream and its FAT; then the big streams.
  Bytes mini;
  std::vector<std::uint32_t> miniFat;
  std::vector<Entry*> big;
  for (Entry& entry : entries) {
    if (entry.type != 2 || entry.size == 0)
      continue;
    if (entry.size >= 4096) {
      big.push_back(&entry);
      continue;
    }
    const auto first = static_cast<std::uint32_t>(mini.size() / 64);
    entry.start = first;
    mini.insert(mini.end(), entry.content->begin(), entry.content->end());
    mini.resize((mini.size() + 63) / 64 * 64, 0);
    const auto last = static_cast<std::uint32_t>(mini.size() / 64);
    for (std::uint32_t i = first; i < last; ++i)
      miniFat.push_back(i + 1 == last ? kEnd : i + 1);
  }
  auto sectors = [](std::size_t bytes) { return static_cast<std::uint32_t>((bytes + 511) / 512); };
  const std::uint32_t directorySectors = sectors(entries.size() * 128);
  const std::uint32_t miniFatSectors = sectors(miniFat.size() * 4);
  const std::uint32_t miniSectors = sectors(mini.size());
  std::uint32_t bigSectors = 0;
  for (const Entry* entry : big)
    bigSectors += sectors(entry->size);
  const std::uint32_t others = directorySectors + miniFatSectors + miniSectors + bigSectors;
  std::uint32_t fatSectors = 1;
  while (fatSectors * 128 < fatSectors + others)
    ++fatSectors;
  if (fatSectors > 109)
    throw std::invalid_argument("too large for a compound file without DIFAT sectors");

  std::vector<std::uint32_t> fat(fatSectors * 128, kFree);
  std::uint32_t next = 0;
  for (std::uint32_t i = 0; i < fatSectors; ++i)
    fat[next++] = 0xFFFFFFFD;
  auto chain = [&](std::uint32_t count) {
    const std::uint32_t first = next;
    for (std::uint32_t i = 0; i < count; ++i, ++next)
      fat[next] = i + 1 == count ? kEnd : next + 1;
    return count == 0 ? kEnd : first;
  };
  const std::uint32_t firstDirectory = chain(directorySectors);
  const std::uint32_t firstMiniFat = chain(miniFatSectors);
  entries[0].start = chain(miniSectors);
  entries[0].size = static_cast<std::uint32_t>(mini.size());
  for (Entry* entry : big)
    entry->start = chain(sectors(entry->size));

  Bytes out(512, 0);
  const unsigned char signature[] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
  std::copy(std::begin(signature), std::end(signature), out.begin());
  out[0x18] = 0x3E;
  out[0x1A] = 3;
  out[0x1C] = 0xFE;
  out[0x1D] = 0xFF;
  out[0x1E] = 9;
  out[0x20] = 6;
  Set32(out, 0x2C, fatSectors);
  Set32(out, 0x30, firstDirectory);
  Set32(out, 0x38, 4096);
  Set32(out, 0x3C, firstMiniFat);
  Set32(out, 0x40, miniFatSectors);
  Set32(out, 0x44, kEnd);
  for (std::uint32_t i = 0; i < 109; ++i)
    Set32(out, 0x4C + 4 * i, i < fatSectors ? i : kFree);

  for (const std::uint32_t value : fat)
    Put32(out, value);
  Bytes directory;
  for (const Entry& entry : entries) {
    Bytes record(128, 0);
    for (std::size_t i = 0; i < entry.name.size() && i < 31; ++i)
      record[2 * i] = static_cast<unsigned char>(entry.name[i]);
    record[64] = static_cast<unsigned char>((std::min<std::size_t>(entry.name.size(), 31) + 1) * 2);
    record[66] = entry.type;
    record[67] = 1;  // black
    Set32(record, 68, kNone);
    Set32(record, 72, entry.right);
    Set32(record, 76, entry.child);
    Set32(record, 116, entry.type == 1 ? 0 : entry.start);
    Set32(record, 120, entry.size);
    directory.insert(directory.end(), record.begin(), record.end());
  }
  auto append = [&](const Bytes& bytes) {
    out.insert(out.end(), bytes.begin(), bytes.end());
    out.resize(out.size() + (kSector - out.size() % kSector) % kSector, 0);
  };
  append(directory);
  Bytes miniFatBytes;
  for (const std::uint32_t value : miniFat)
    Put32(miniFatBytes, value);
  append(miniFatBytes);
  append(mini);
  for (const Entry* entry : big)
    append(*entry->content);
  return out;
}

Bytes Compress(ByteSpan data) {
  Bytes out = {0x01};
  for (std::size_t chunkStart = 0; chunkStart < data.size(); chunkStart += 4096) {
    const std::size_t n = std::min<std::size_t>(4096, data.size() - chunkStart);
    const unsigned char* chunk = data.data() + chunkStart;
    Bytes tokens;
    std::size_t pos = 0;
    while (pos < n) {
      const std::size_t flagAt = tokens.size();
      tokens.push_back(0);
      for (int bit = 0; bit < 8 && pos < n; ++bit) {
        unsigned bitCount = 4;
        while ((std::size_t{1} << bitCount) < pos)
          ++bitCount;
        const std::size_t maxLength = (0xFFFFu >> bitCount) + 3;
        const std::size_t maxOffset = std::size_t{1} << bitCount;
        std::size_t bestLength = 0;
        std::size_t bestOffset = 0;
        for (std::size_t offset = 1; offset <= pos && offset <= maxOffset; ++offset) {
          std::size_t length = 0;
          while (pos + length < n && length < maxLength &&
                 chunk[pos + length - offset] == chunk[pos + length])
            ++length;
          if (length > bestLength) {
            bestLength = length;
            bestOffset = offset;
          }
        }
        if (bestLength >= 3) {
          tokens[flagAt] = static_cast<unsigned char>(tokens[flagAt] | (1 << bit));
          Put16(tokens, static_cast<std::uint32_t>(((bestOffset - 1) << (16 - bitCount)) |
                                                   (bestLength - 3)));
          pos += bestLength;
        } else {
          tokens.push_back(chunk[pos++]);
        }
      }
    }
    if (tokens.size() + 2 <= 4098) {
      Put16(out, static_cast<std::uint32_t>(0xB000 | (tokens.size() + 2 - 3)));
      out.insert(out.end(), tokens.begin(), tokens.end());
    } else if (n == 4096) {
      Put16(out, 0x3FFF);
      out.insert(out.end(), chunk, chunk + n);
    } else {
      throw std::invalid_argument("an incompressible last chunk");
    }
  }
  return out;
}

Bytes WriteMacroProject(const std::vector<ModuleText>& modules, std::size_t cacheBytes) {
  Bytes dir;
  auto record = [&](std::uint16_t id, const Bytes& data) {
    Put16(dir, id);
    Put32(dir, static_cast<std::uint32_t>(data.size()));
    dir.insert(dir.end(), data.begin(), data.end());
  };
  auto number = [](std::uint32_t value, int bytes) {
    Bytes data;
    for (int i = 0; i < bytes; ++i)
      data.push_back(static_cast<unsigned char>(value >> (8 * i)));
    return data;
  };
  auto unicode = [](const std::string& text) {
    Bytes data;
    for (const char c : text)
      Put16(data, static_cast<unsigned char>(c));
    return data;
  };
  record(0x0001, number(1, 4));  // 32-bit Windows
  record(0x0002, number(0x409, 4));
  record(0x0014, number(0x409, 4));
  record(0x0003, number(1252, 2));
  record(0x0004, Ascii("TemplateProject"));
  record(0x0005, {});
  record(0x0040, {});
  record(0x0006, {});
  record(0x003D, {});
  record(0x0007, number(0, 4));
  record(0x0008, number(0, 4));
  // The version record's size says 4 and six bytes follow.
  Put16(dir, 0x0009);
  Put32(dir, 4);
  Put32(dir, 1);
  Put16(dir, 2);
  record(0x000C, {});
  record(0x003C, {});
  record(0x000F, number(static_cast<std::uint32_t>(modules.size()), 2));
  record(0x0013, number(0xFFFF, 2));
  std::vector<CompoundStream> streams = {
      {{"VBA", "_VBA_PROJECT"}, {0xCC, 0x61, 0xFF, 0xFF, 0x00, 0x00, 0x00}}};
  for (const ModuleText& module : modules) {
    record(0x0019, Ascii(module.name));
    record(0x0047, unicode(module.name));
    record(0x001A, Ascii(module.name));
    record(0x0032, unicode(module.name));
    record(0x001C, {});
    record(0x0048, {});
    record(0x0031, number(static_cast<std::uint32_t>(cacheBytes), 4));
    record(0x001E, number(0, 4));
    record(0x002C, number(0xFFFF, 2));
    record(module.standard ? 0x0021 : 0x0022, {});
    record(0x002B, {});
    Bytes stream(cacheBytes, 0xA5);
    const Bytes source = Compress(Ascii(module.source));
    stream.insert(stream.end(), source.begin(), source.end());
    streams.push_back({{"VBA", module.name}, std::move(stream)});
  }
  record(0x0010, {});
  streams.push_back({{"VBA", "dir"}, Compress(dir)});
  streams.push_back({{"PROJECT"}, Ascii("ID=\"{00000000-0000-0000-0000-000000000000}\"\r\n")});
  return WriteCompoundFile(streams);
}

Bytes WriteTemplate(const TemplatePlan& plan) {
  std::vector<ZipPart> parts = {
      {"[Content_Types].xml",
       Ascii("<?xml version=\"1.0\"?><Types xmlns=\"http://schemas.openxmlformats.org/package/"
             "2006/content-types\"/>"),
       true},
      {"word/document.xml", Ascii("<?xml version=\"1.0\"?><w:document/>"), false},
  };
  std::string relationships =
      "<?xml version=\"1.0\"?>\n<Relationships "
      "xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\">"
      "<Relationship Id=\"rId1\" Type=\"http://schemas.openxmlformats.org/officeDocument/2006/"
      "relationships/officeDocument\" Target=\"word/document.xml\"/>";
  if (!plan.customUi.empty() && plan.relateCustomUi) {
    // The 2010 part has a relationship type of its own.
    const bool newer = plan.customUiPart.find("customUI14") != std::string::npos;
    relationships += std::string(
                         "<Relationship Id=\"rUi\" Type=\"http://schemas.microsoft.com/"
                         "office/") +
                     (newer ? "2007" : "2006") + "/relationships/ui/extensibility\" Target=\"" +
                     plan.customUiPart + "\"/>";
  }
  parts.push_back({"_rels/.rels", Ascii(relationships + "</Relationships>\n"), false});
  if (!plan.customUi.empty())
    parts.push_back({plan.customUiPart, Ascii(plan.customUi), false});
  if (plan.macros)
    parts.push_back({"word/vbaProject.bin", WriteMacroProject(plan.modules), true});
  if (plan.signedMacros)
    parts.push_back({"word/vbaProjectSignature.bin", Bytes(64, 0x30), false});
  return WriteZip(parts);
}

TemplatePlan GoodTemplate() {
  TemplatePlan plan;
  plan.customUi =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<customUI xmlns=\"http://schemas.microsoft.com/office/2009/07/customui\"\n"
      "          onLoad=\"Tabforge_OnLoad\" loadImage=\"Tabforge_LoadImage\">\n"
      "  <ribbon><tabs><tab id=\"Morvelin\" getLabel=\"Tabforge_GetLabel\">\n"
      "    <group id=\"Main\" label=\"Main\">\n"
      "      <button id=\"Go\" onAction=\"Tabforge_OnAction\" "
      "getEnabled=\"Tabforge_GetEnabled\"/>\n"
      "      <toggleButton id=\"Mark\" onAction=\"Tabforge_OnToggle\"\n"
      "                    getPressed=\"Tabforge_GetPressed\"/>\n"
      "    </group>\n"
      "  </tab></tabs></ribbon>\n"
      "</customUI>\n";
  plan.modules = {
      {"Tabforge", true,
       "Attribute VB_Name = \"Tabforge\"\r\n"
       "Option Explicit\r\n"
       "Private main As Object\r\n"
       "\r\n"
       "Public Sub Tabforge_OnLoad(ribbon As IRibbonUI)\r\n"
       "    Set main = CreateObject(\"Tabforge.Main2\")\r\n"
       "    main.Initialize ribbon, \"Morvelin\"\r\n"
       "End Sub\r\n"
       "\r\n"
       "Public Sub Tabforge_LoadImage(imageId As String, ByRef image)\r\n"
       "    Set image = main.LoadImage(imageId)\r\n"
       "End Sub\r\n"
       "\r\n"
       "Sub Tabforge_GetLabel(control As IRibbonControl, ByRef label)\r\n"
       "    label = main.GetLabel(control.ID)\r\n"
       "End Sub\r\n"
       "\r\n"
       "Public Sub Tabforge_OnAction(control As IRibbonControl)\r\n"
       "    main.OnAction control.ID\r\n"
       "End Sub\r\n"
       "\r\n"
       "Public Sub Tabforge_GetEnabled(control As IRibbonControl, _\r\n"
       "                              ByRef enabled)\r\n"
       "    enabled = main.GetEnabled(control.ID)\r\n"
       "End Sub\r\n"
       "\r\n"
       "Public Sub Tabforge_OnToggle(control As IRibbonControl, pressed As Boolean)\r\n"
       "    main.OnToggle control.ID, pressed ' the pressed state, as Word gives it\r\n"
       "End Sub\r\n"
       "\r\n"
       "Public Sub Tabforge_GetPressed(control As IRibbonControl, ByRef pressed)\r\n"
       "    pressed = main.GetPressed(control.ID)\r\n"
       "End Sub\r\n"},
      {"ThisDocument", false,
       "Attribute VB_Name = \"ThisDocument\"\r\n"
       "Attribute VB_Base = \"1Normal.ThisDocument\"\r\n"
       "Private Sub Document_New()\r\n"
       "End Sub\r\n"},
  };
  return plan;
}

}  // namespace tabforge::doctor
