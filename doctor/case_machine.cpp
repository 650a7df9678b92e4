#include "doctor/case_machine.h"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <stdexcept>

#include "doctor/checks.h"
#include "doctor/template_writer.h"

namespace tabforge::doctor {
namespace {

std::string Lower(std::string text) {
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string Trim(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos)
    return "";
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// A path as the file map keys it: lower case, backslashes, no trailing separator.
std::string PathKey(std::string path) {
  std::replace(path.begin(), path.end(), '/', '\\');
  while (path.size() > 1 && path.back() == '\\')
    path.pop_back();
  return Lower(path);
}

std::string FolderKeyOf(const std::string& path) {
  const std::string key = PathKey(path);
  const std::size_t slash = key.rfind('\\');
  return slash == std::string::npos ? "" : key.substr(0, slash);
}

Bytes ExecutableHeader(int bits) {
  Bytes header(0x200, 0);
  header[0] = 'M';
  header[1] = 'Z';
  header[0x3C] = 0x80;
  header[0x80] = 'P';
  header[0x81] = 'E';
  header[0x84] = bits == 64 ? 0x64 : 0x4C;
  header[0x85] = bits == 64 ? 0x86 : 0x01;
  return header;
}

}  // namespace

std::string CaseMachine::KeyId(Hive hive, View view, const std::string& key) {
  return std::string(hive == Hive::kCurrentUser ? "u" : "m") + (view == View::k32 ? "32" : "64") +
         ":" + PathKey(key);
}

RegistryValue CaseMachine::Value(Hive hive, View view, const std::string& key,
                                 const std::string& name) const {
  const auto found = keys_.find(KeyId(hive, view, key));
  if (found == keys_.end())
    return {};
  const auto value = found->second.values.find(Lower(name));
  return value == found->second.values.end() ? RegistryValue{} : value->second.second;
}

bool CaseMachine::KeyExists(Hive hive, View view, const std::string& key) const {
  const std::string id = KeyId(hive, view, key);
  const auto at = keys_.lower_bound(id);
  return at != keys_.end() &&
         (at->first == id || (at->first.compare(0, id.size(), id) == 0 &&
                              at->first.size() > id.size() && at->first[id.size()] == '\\'));
}

std::vector<std::string> CaseMachine::ValueNames(Hive hive, View view,
                                                 const std::string& key) const {
  std::vector<std::string> names;
  const auto found = keys_.find(KeyId(hive, view, key));
  if (found != keys_.end()) {
    for (const auto& [lower, value] : found->second.values)
      names.push_back(value.first);
  }
  return names;
}

std::vector<std::string> CaseMachine::Subkeys(Hive hive, View view, const std::string& key) const {
  const std::string id = KeyId(hive, view, key) + "\\";
  const std::size_t length = PathKey(key).size() + 1;
  std::vector<std::string> names;
  for (auto at = keys_.lower_bound(id);
       at != keys_.end() && at->first.compare(0, id.size(), id) == 0; ++at) {
    // The child's name as first written; only the case of a key's path differs from its id.
    const std::string tail = PathKey(at->second.path).size() == at->second.path.size()
                                 ? at->second.path.substr(length)
                                 : at->first.substr(id.size());
    const std::string child = tail.substr(0, tail.find('\\'));
    if (std::none_of(names.begin(), names.end(),
                     [&](const std::string& n) { return Lower(n) == Lower(child); }))
      names.push_back(child);
  }
  return names;
}

bool CaseMachine::FileExists(const std::string& path) const {
  return files_.count(PathKey(path)) != 0;
}

std::optional<Bytes> CaseMachine::ReadFile(const std::string& path, std::size_t cap) const {
  const auto found = files_.find(PathKey(path));
  if (found == files_.end())
    return std::nullopt;
  const Bytes& content = found->second.content;
  return Bytes(content.begin(),
               content.begin() + static_cast<std::ptrdiff_t>(std::min(cap, content.size())));
}

std::optional<std::string> CaseMachine::ReadStream(const std::string& path,
                                                   const std::string& name) const {
  const auto found = files_.find(PathKey(path));
  if (found == files_.end())
    return std::nullopt;
  const auto stream = found->second.streams.find(Lower(name));
  if (stream == found->second.streams.end())
    return std::nullopt;
  return stream->second;
}

std::vector<std::string> CaseMachine::ListFiles(const std::string& folder) const {
  const std::string wanted = PathKey(folder);
  std::vector<std::string> names;
  for (const auto& [key, file] : files_) {
    if (FolderKeyOf(key) == wanted)
      names.push_back(file.path.substr(file.path.find_last_of("\\/") + 1));
  }
  return names;
}

std::string CaseMachine::Environment(const std::string& name) const {
  const auto found = environment_.find(Lower(name));
  return found == environment_.end() ? "" : found->second;
}

bool CaseMachine::ProcessRunning(const std::string& executable) const {
  return std::any_of(processes_.begin(), processes_.end(),
                     [&](const std::string& p) { return Lower(p) == Lower(executable); });
}

bool CaseMachine::DeleteValue(Hive hive, View view, const std::string& key, const std::string& name,
                              std::string& error) {
  bool deleted = false;
  // A key of the user's that both views share goes from both.
  for (const View each : {view, view == View::k64 ? View::k32 : View::k64}) {
    const auto found = keys_.find(KeyId(hive, each, key));
    if (found != keys_.end() && found->second.values.erase(Lower(name)) != 0)
      deleted = true;
  }
  if (!deleted)
    error = "no such value";
  return deleted;
}

bool CaseMachine::DeleteStream(const std::string& path, const std::string& name,
                               std::string& error) {
  const auto found = files_.find(PathKey(path));
  if (found == files_.end() || found->second.streams.erase(Lower(name)) == 0) {
    error = "no such stream";
    return false;
  }
  return true;
}

bool CaseMachine::RegisterForUser(const std::string& dll, int bits, std::string& error) {
  if (!FileExists(dll)) {
    error = dll + " does not exist";
    return false;
  }
  const View view = bits == 64 ? View::k64 : View::k32;
  const std::string classKey = std::string("Software\\Classes\\CLSID\\") + kClassId;
  RegistryValue text;
  text.kind = RegistryValue::Kind::kText;
  text.text = dll;
  SetValue(Hive::kCurrentUser, view, classKey + "\\InprocServer32", "", text);
  text.text = "Apartment";
  SetValue(Hive::kCurrentUser, view, classKey + "\\InprocServer32", "ThreadingModel", text);
  text.text = kProgId;
  SetValue(Hive::kCurrentUser, view, classKey + "\\ProgID", "", text);
  text.text = kClassId;
  for (const View each : {View::k32, View::k64})
    SetValue(Hive::kCurrentUser, each, std::string("Software\\Classes\\") + kProgId + "\\CLSID", "",
             text);
  return true;
}

void CaseMachine::SetValue(Hive hive, View view, const std::string& key, const std::string& name,
                           const RegistryValue& value) {
  Key& entry = keys_[KeyId(hive, view, key)];
  if (entry.path.empty())
    entry.path = key;
  entry.values[Lower(name)] = {name, value};
}

void CaseMachine::AddKey(Hive hive, View view, const std::string& key) {
  Key& entry = keys_[KeyId(hive, view, key)];
  if (entry.path.empty())
    entry.path = key;
}

void CaseMachine::SetFile(const std::string& path, Bytes content) {
  File& file = files_[PathKey(path)];
  file.path = path;
  file.content = std::move(content);
}

void CaseMachine::SetStream(const std::string& path, const std::string& name,
                            const std::string& text) {
  files_[PathKey(path)].streams[Lower(name)] = text;
}

void CaseMachine::DropKey(Hive hive, View view, const std::string& key) {
  const std::string id = KeyId(hive, view, key);
  for (auto at = keys_.lower_bound(id);
       at != keys_.end() && at->first.compare(0, id.size(), id) == 0;)
    at = at->first.size() == id.size() || at->first[id.size()] == '\\' ? keys_.erase(at)
                                                                       : std::next(at);
}

void CaseMachine::DropFile(const std::string& path) {
  files_.erase(PathKey(path));
}

void CaseMachine::SetEnvironment(const std::string& name, const std::string& value) {
  environment_[Lower(name)] = value;
}

Bytes TemplateFromChanges(const std::vector<std::string>& changes) {
  TemplatePlan plan = GoodTemplate();
  bool damaged = false;
  for (const std::string& change : changes) {
    std::string& source = plan.modules[0].source;
    if (change == "no-ui") {
      plan.customUi.clear();
    } else if (change == "unrelated-ui") {
      plan.relateCustomUi = false;
    } else if (change == "old-ui") {
      plan.customUiPart = "customUI/customUI.xml";
    } else if (change == "no-macros") {
      plan.macros = false;
      plan.modules.clear();
    } else if (change == "no-main2") {
      source.replace(source.find("CreateObject(\"Tabforge.Main2\")"), 30,
                     "CreateObject(\"Other.Main2\")");
    } else if (change == "toggle-one-parameter") {
      source.replace(source.find("Tabforge_OnToggle(control As IRibbonControl, pressed As "
                                 "Boolean)"),
                     63, "Tabforge_OnToggle(control As IRibbonControl)");
    } else if (change == "class-module") {
      plan.modules[0].standard = false;
    } else if (change == "private-callback") {
      source.replace(source.find("Public Sub Tabforge_OnAction"), 10, "Private Sub");
    } else if (change == "signed") {
      plan.signedMacros = true;
    } else if (change == "damaged") {
      damaged = true;
    } else {
      throw std::runtime_error("unknown template change " + change);
    }
  }
  Bytes bytes = WriteTemplate(plan);
  if (damaged)
    bytes.resize(bytes.size() * 2 / 3);
  return bytes;
}

namespace {

bool ReadHive(const std::string& word, Hive& hive, std::vector<View>& views) {
  const std::string upper = Lower(word);
  const std::string base = upper.substr(0, 4);
  if (base != "hkcu" && base != "hklm")
    return false;
  hive = base == "hkcu" ? Hive::kCurrentUser : Hive::kLocalMachine;
  const std::string bits = upper.substr(4);
  if (bits == "32")
    views = {View::k32};
  else if (bits == "64")
    views = {View::k64};
  else if (bits.empty())
    views = hive == Hive::kCurrentUser ? std::vector<View>{View::k32, View::k64}
                                       : std::vector<View>{View::k64};
  else
    return false;
  return true;
}

std::set<std::string> WordSet(std::istringstream& in) {
  std::set<std::string> words;
  std::string word;
  while (in >> word)
    words.insert(word);
  return words;
}

std::string Unescape(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == 'n') {
      out += "\r\n";
      ++i;
    } else {
      out += text[i];
    }
  }
  return out;
}

}  // namespace

std::vector<MachineCase> ReadMachineCases(const std::string& text, const std::string& fileName) {
  std::vector<MachineCase> cases;
  std::istringstream lines(text);
  std::string line;
  int number = 0;
  auto current = [&]() -> MachineCase& {
    if (cases.empty()) {
      cases.emplace_back();
      cases.back().name = fileName;
      cases.back().line = number;
    }
    return cases.back();
  };
  while (std::getline(lines, line)) {
    ++number;
    line = Trim(line);
    if (line.empty() || line[0] == '#')
      continue;
    auto fail = [&](const std::string& why) {
      return std::runtime_error(fileName + ":" + std::to_string(number) + ": " + why);
    };
    std::istringstream in(line);
    std::string word;
    in >> word;
    std::string rest;
    std::getline(in, rest);
    rest = Trim(rest);
    if (word == "machine") {
      const std::size_t colon = rest.find(" : ");
      MachineCase next;
      next.name = Trim(rest.substr(0, colon));
      next.line = number;
      if (colon != std::string::npos) {
        const std::string base = Trim(rest.substr(colon + 3));
        const auto found = std::find_if(cases.begin(), cases.end(),
                                        [&](const MachineCase& m) { return m.name == base; });
        if (found == cases.end())
          throw fail("no machine " + base + " before this line");
        next.machine = found->machine;
        next.templatePath = found->templatePath;
        next.bits = found->bits;
      }
      cases.push_back(std::move(next));
      continue;
    }
    MachineCase& c = current();
    bool drop = false;
    if (word == "drop") {
      drop = true;
      std::istringstream again(rest);
      again >> word;
      std::getline(again, rest);
      rest = Trim(rest);
      if (word == "file") {
        c.machine.DropFile(rest);
        continue;
      }
      if (word != "reg" && word != "key")
        throw fail("drop reg, drop key or drop file");
    }
    if (word == "option") {
      std::istringstream what(rest);
      std::string kind;
      what >> kind;
      std::string value;
      std::getline(what, value);
      value = Trim(value);
      if (kind == "template")
        c.templatePath = value;
      else if (kind == "bits" && (value == "32" || value == "64"))
        c.bits = std::stoi(value);
      else
        throw fail("option template PATH or option bits 32|64");
      continue;
    }
    if (word == "reg" || word == "key") {
      std::istringstream words(rest);
      std::string hiveWord;
      words >> hiveWord;
      Hive hive = Hive::kCurrentUser;
      std::vector<View> views;
      if (!ReadHive(hiveWord, hive, views))
        throw fail("a hive is HKCU or HKLM, with 32 or 64 or neither: " + hiveWord);
      std::string body;
      std::getline(words, body);
      body = Trim(body);
      if (word == "key") {
        for (const View view : views) {
          if (drop)
            c.machine.DropKey(hive, view, body);
          else
            c.machine.AddKey(hive, view, body);
        }
        continue;
      }
      const std::size_t bar = body.find(" | ");
      if (drop && bar != std::string::npos) {
        std::string name = Trim(body.substr(bar + 3));
        std::string ignored;
        for (const View view : views)
          c.machine.DeleteValue(hive, view, Trim(body.substr(0, bar)), name == "@" ? "" : name,
                                ignored);
        continue;
      }
      const std::size_t equals = body.find(" = ", bar == std::string::npos ? 0 : bar);
      if (drop || bar == std::string::npos || equals == std::string::npos)
        throw fail("reg HIVE KEY | NAME = TYPE DATA, or drop reg HIVE KEY | NAME");
      const std::string key = Trim(body.substr(0, bar));
      std::string name = Trim(body.substr(bar + 3, equals - bar - 3));
      if (name == "@")
        name.clear();
      std::istringstream data(body.substr(equals + 3));
      std::string type;
      data >> type;
      std::string payload;
      std::getline(data, payload);
      payload = Trim(payload);
      RegistryValue value;
      if (type == "sz") {
        value.kind = RegistryValue::Kind::kText;
        value.text = payload;
      } else if (type == "dword") {
        value.kind = RegistryValue::Kind::kNumber;
        value.number = static_cast<std::uint32_t>(std::stoul(payload, nullptr, 0));
      } else if (type == "hex") {
        value.kind = RegistryValue::Kind::kBinary;
        std::istringstream bytes(payload);
        std::string byte;
        while (bytes >> byte)
          value.binary.push_back(static_cast<unsigned char>(std::stoul(byte, nullptr, 16)));
      } else if (type == "disabled") {
        std::istringstream item(payload);
        DisabledItem record;
        item >> record.type;
        std::getline(item, record.path);
        record.path = Lower(Trim(record.path));
        record.name = record.path.substr(record.path.find_last_of('\\') + 1);
        value.kind = RegistryValue::Kind::kBinary;
        value.binary = EncodeDisabledItem(record);
      } else {
        throw fail("a value's type is sz, dword, hex or disabled: " + type);
      }
      for (const View view : views)
        c.machine.SetValue(hive, view, key, name, value);
    } else if (word == "env") {
      const std::size_t equals = rest.find(" = ");
      if (equals == std::string::npos)
        throw fail("env NAME = VALUE");
      c.machine.SetEnvironment(rest.substr(0, equals), rest.substr(equals + 3));
    } else if (word == "file") {
      const std::size_t equals = rest.find(" = ");
      if (equals == std::string::npos)
        throw fail("file PATH = KIND");
      const std::string path = rest.substr(0, equals);
      std::istringstream kind(rest.substr(equals + 3));
      std::string what;
      kind >> what;
      if (what == "template") {
        std::vector<std::string> changes;
        std::string change;
        while (kind >> change)
          changes.push_back(change);
        try {
          c.machine.SetFile(path, TemplateFromChanges(changes));
        } catch (const std::runtime_error& error) {
          throw fail(error.what());
        }
      } else if (what == "dotx") {
        TemplatePlan plan = GoodTemplate();
        plan.macros = false;
        plan.modules.clear();
        c.machine.SetFile(path, WriteTemplate(plan));
      } else if (what == "pe32" || what == "pe64") {
        c.machine.SetFile(path, ExecutableHeader(what == "pe64" ? 64 : 32));
      } else if (what == "text") {
        std::string content;
        std::getline(kind, content);
        content = Unescape(Trim(content));
        c.machine.SetFile(path, Bytes(content.begin(), content.end()));
      } else {
        throw fail("a file is a template, dotx, pe32, pe64 or text: " + what);
      }
    } else if (word == "stream") {
      const std::size_t bar = rest.find(" | ");
      const std::size_t equals = rest.find(" = ", bar == std::string::npos ? 0 : bar);
      if (bar == std::string::npos || equals == std::string::npos)
        throw fail("stream PATH | NAME = TEXT");
      c.machine.SetStream(rest.substr(0, bar), rest.substr(bar + 3, equals - bar - 3),
                          Unescape(rest.substr(equals + 3)));
    } else if (word == "process") {
      c.machine.AddProcess(rest);
    } else if (word == "tool") {
      c.machine.SetToolFolder(rest);
    } else if (word == "expect") {
      std::istringstream what(rest);
      std::string kind;
      what >> kind;
      if (kind == "verdict") {
        std::string check;
        what >> check;
        c.verdict = check;
      } else if (kind == "problems") {
        c.problems = WordSet(what);
      } else if (kind == "warnings") {
        c.warnings = WordSet(what);
      } else if (kind == "after-fix") {
        c.afterFix = WordSet(what);
      } else if (kind == "repair") {
        std::string start;
        std::getline(what, start);
        c.repairs.push_back(Trim(start));
      } else {
        throw fail("expect verdict, problems, warnings, repair or after-fix: " + kind);
      }
    } else {
      throw fail("unknown line: " + word);
    }
  }
  return cases;
}

}  // namespace tabforge::doctor
