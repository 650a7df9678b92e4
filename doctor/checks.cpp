#include "doctor/checks.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "platform/utf16.h"

namespace tabforge::doctor {
namespace {

constexpr const char* kVersions[] = {"16.0", "15.0", "14.0", "12.0"};
constexpr std::size_t kTemplateCap = 64u << 20;

std::string Lower(std::string text) {
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool Same(const std::string& a, const std::string& b) {
  return Lower(a) == Lower(b);
}

// A folder as compared: lower case, forward slashes as backslashes, no trailing separator.
std::string FolderKey(std::string folder) {
  std::replace(folder.begin(), folder.end(), '/', '\\');
  while (folder.size() > 1 && folder.back() == '\\')
    folder.pop_back();
  return Lower(folder);
}

std::string Join(const std::string& folder, const std::string& name) {
  if (folder.empty() || folder.back() == '\\')
    return folder + name;
  return folder + "\\" + name;
}

std::string FolderOf(const std::string& path) {
  const std::size_t slash = path.find_last_of("\\/");
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

std::string FileNameOf(const std::string& path) {
  const std::size_t slash = path.find_last_of("\\/");
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Extension(const std::string& path) {
  const std::string name = FileNameOf(path);
  const std::size_t dot = name.rfind('.');
  return dot == std::string::npos ? "" : Lower(name.substr(dot));
}

bool InFolder(const std::string& path, const std::string& folder, bool subfolders) {
  const std::string parent = FolderKey(FolderOf(path));
  const std::string location = FolderKey(folder);
  if (location.empty())
    return false;
  if (parent == location)
    return true;
  return subfolders && parent.size() > location.size() &&
         parent.compare(0, location.size(), location) == 0 && parent[location.size()] == '\\';
}

std::string Expand(const MachineView& machine, const std::string& text) {
  std::string out;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t open = text.find('%', at);
    const std::size_t close = open == std::string::npos ? open : text.find('%', open + 1);
    if (close == std::string::npos) {
      out += text.substr(at);
      break;
    }
    const std::string name = text.substr(open + 1, close - open - 1);
    const std::string value = machine.Environment(name);
    out += text.substr(at, open - at) + (value.empty() ? "%" + name + "%" : value);
    at = close + 1;
  }
  return out;
}

std::string HiveName(Hive hive) {
  return hive == Hive::kCurrentUser ? "HKEY_CURRENT_USER" : "HKEY_LOCAL_MACHINE";
}

std::string KeyName(Hive hive, View view, const std::string& key) {
  return HiveName(hive) + "\\" + key +
         (hive == Hive::kLocalMachine && view == View::k32 ? " (32-bit view)" : "");
}

std::string ValueName(Hive hive, const std::string& key, const std::string& name) {
  return HiveName(hive) + "\\" + key + " value " + name;
}

std::string OfficeKey(const std::string& version) {
  return "Software\\Microsoft\\Office\\" + version;
}

std::string PolicyKey(const std::string& version) {
  return "Software\\Policies\\Microsoft\\Office\\" + version;
}

std::optional<std::uint32_t> Number(const RegistryValue& value) {
  if (value.kind == RegistryValue::Kind::kNumber)
    return value.number;
  if (value.kind == RegistryValue::Kind::kText && !value.text.empty() &&
      std::all_of(value.text.begin(), value.text.end(),
                  [](char c) { return std::isdigit(static_cast<unsigned char>(c)); }) &&
      value.text.size() < 10)
    return static_cast<std::uint32_t>(std::stoul(value.text));
  return std::nullopt;
}

std::string Text(const RegistryValue& value) {
  if (value.kind == RegistryValue::Kind::kNumber)
    return std::to_string(value.number);
  return value.kind == RegistryValue::Kind::kText ? value.text : "";
}

// --- The installed word processors ----------------------------------------------------------

struct Word {
  std::string version;
  bool clickToRun = false;
  int bits = 0;
  std::string programFolder;
  std::string from;  // where that was read
};

class Checks {
 public:
  Checks(const MachineView& machine, const Options& options)
      : machine_(machine), options_(options) {}

  Diagnosis Run() {
    FindWords();
    if (words_.empty()) {
      Problem("word-installed",
              "no Word of versions 12.0 to 16.0 is installed: neither Click-to-Run's "
              "configuration (HKEY_LOCAL_MACHINE\\Software\\Microsoft\\Office\\ClickToRun\\"
              "Configuration value Platform) nor a Word InstallRoot in either registry view.",
              "install Word, or run the doctor as the user who has it.");
    }
    for (const Word& word : words_)
      CheckVersion(word);
    const int bits = options_.bits != 0 ? options_.bits : words_.empty() ? 0 : words_[0].bits;
    diagnosis_.wordBits = words_.empty() ? 0 : words_[0].bits;
    if (bits != 0 && options_.registration)
      CheckRegistration(bits);
    if (bits != 0)
      CheckElevation(bits);
    CheckClickToRunClasses();
    return std::move(diagnosis_);
  }

 private:
  void Add(const std::string& check, Status status, const std::string& detail,
           const std::string& fix = "") {
    diagnosis_.findings.push_back({check, status, detail, fix});
  }
  void Ok(const std::string& check, const std::string& detail) { Add(check, Status::kOk, detail); }
  void Warning(const std::string& check, const std::string& detail, const std::string& fix) {
    Add(check, Status::kWarning, detail, fix);
  }
  void Problem(const std::string& check, const std::string& detail, const std::string& fix) {
    Add(check, Status::kProblem, detail, fix);
  }

  int BitsOfFile(const std::string& path) const {
    const std::optional<Bytes> header = machine_.ReadFile(path, 4096);
    return header ? ExecutableBits(*header) : 0;
  }

  void FindWords() {
    const std::string configuration = "Software\\Microsoft\\Office\\ClickToRun\\Configuration";
    for (const View view : {View::k64, View::k32}) {
      const RegistryValue platform =
          machine_.Value(Hive::kLocalMachine, view, configuration, "Platform");
      if (!platform.Present())
        continue;
      Word word{"16.0", true, Same(platform.text, "x64") ? 64 : 32, "", ""};
      const std::string installed =
          Text(machine_.Value(Hive::kLocalMachine, view, configuration, "InstallationPath"));
      if (!installed.empty())
        word.programFolder = Join(installed, "root\\Office16");
      word.from = ValueName(Hive::kLocalMachine, configuration, "Platform") + " = " + platform.text;
      words_.push_back(word);
      break;
    }
    for (const char* version : kVersions) {
      for (const View view : {View::k64, View::k32}) {
        if (!words_.empty() && words_[0].clickToRun && std::string(version) == "16.0")
          break;
        const std::string key = OfficeKey(version) + "\\Word\\InstallRoot";
        const std::string path = Text(machine_.Value(Hive::kLocalMachine, view, key, "Path"));
        if (path.empty())
          continue;
        Word word{version, false, view == View::k64 ? 64 : 32, path, ""};
        const int machineBits = BitsOfFile(Join(path, "WINWORD.EXE"));
        word.from =
            KeyName(Hive::kLocalMachine, view, key) + " Path = " + path + ", " +
            (machineBits != 0 ? "WINWORD.EXE there is " + std::to_string(machineBits) + "-bit"
                              : "no WINWORD.EXE there to read; the registry view says");
        if (machineBits != 0)
          word.bits = machineBits;
        words_.push_back(word);
        break;
      }
    }
    for (const Word& word : words_)
      Ok("word-installed", "Word " + word.version + ", " +
                               (word.clickToRun ? "Click-to-Run" : "Windows Installer") + ", " +
                               std::to_string(word.bits) + "-bit (" + word.from + ").");
  }

  // --- Startup folders and the add-in's template --------------------------------------------

  struct StartupFolders {
    std::string user;
    std::string userFrom;
    std::string userDefault;
    std::string program;
  };

  StartupFolders FoldersOf(const Word& word) const {
    StartupFolders folders;
    folders.userDefault = Join(machine_.Environment("APPDATA"), "Microsoft\\Word\\STARTUP");
    const RegistryValue policy = machine_.Value(
        Hive::kCurrentUser, View::k64, PolicyKey(word.version) + "\\Word\\Options", "startup-path");
    const RegistryValue own = machine_.Value(
        Hive::kCurrentUser, View::k64, OfficeKey(word.version) + "\\Word\\Options", "STARTUP-PATH");
    if (!Text(policy).empty()) {
      folders.user = Expand(machine_, Text(policy));
      folders.userFrom =
          "the policy " + ValueName(Hive::kCurrentUser, PolicyKey(word.version) + "\\Word\\Options",
                                    "startup-path");
    } else if (!Text(own).empty()) {
      folders.user = Expand(machine_, Text(own));
      folders.userFrom = "the user's setting " +
                         ValueName(Hive::kCurrentUser, OfficeKey(word.version) + "\\Word\\Options",
                                   "STARTUP-PATH");
    } else {
      folders.user = folders.userDefault;
      folders.userFrom = "the default";
    }
    if (!word.programFolder.empty())
      folders.program = Join(word.programFolder, "STARTUP");
    return folders;
  }

  struct Template {
    std::string path;
    std::optional<TemplateContent> content;
    std::string damage;
  };

  Template Load(const std::string& path) const {
    Template loaded{path, std::nullopt, ""};
    const std::optional<Bytes> bytes = machine_.ReadFile(path, kTemplateCap);
    if (!bytes) {
      loaded.damage = "the file cannot be read";
      return loaded;
    }
    try {
      loaded.content = ReadTemplate(*bytes);
    } catch (const Damaged& damaged) {
      loaded.damage = damaged.what();
    }
    return loaded;
  }

  void CheckVersion(const Word& word) {
    const std::string w = "Word " + word.version + ": ";
    const StartupFolders folders = FoldersOf(word);
    Ok("startup-folder",
       w + "the user's Startup folder is " + folders.user + " (" + folders.userFrom + ")" +
           (folders.program.empty() ? "" : ", the program's " + folders.program) + ".");
    std::vector<std::string> searched = {folders.user};
    if (!folders.program.empty())
      searched.push_back(folders.program);
    std::vector<Template> templates;
    if (!options_.templatePath.empty()) {
      const std::string& path = options_.templatePath;
      if (!machine_.FileExists(path)) {
        Problem("template-file", w + path + " does not exist.",
                "give the add-in's template with --template, or copy it to " + folders.user + ".");
        return;
      }
      if (std::none_of(searched.begin(), searched.end(),
                       [&](const std::string& f) { return InFolder(path, f, false); }))
        Problem("startup-folder",
                w + path + " is not in a Startup folder (" + Joined(searched) +
                    "): Word loads the templates of those folders alone.",
                "copy it to " + folders.user + ".");
      if (Extension(path) != ".dotm") {
        Problem("template-type",
                w + path + " is a " + Extension(path) +
                    (Extension(path) == ".dotx" ? ", which holds no macros" : "") +
                    ": the add-in's template is a macro-enabled template (.dotm).",
                "use the add-in's .dotm.");
        return;
      }
      templates.push_back(Load(path));
    } else {
      std::vector<std::string> dotx;
      std::vector<Template> damaged;
      for (const std::string& folder : searched) {
        for (const std::string& name : machine_.ListFiles(folder)) {
          const std::string path = Join(folder, name);
          if (Extension(name) == ".dotx" && Lower(name).find("tabforge") != std::string::npos)
            dotx.push_back(path);
          if (Extension(name) != ".dotm")
            continue;
          Template loaded = Load(path);
          if (loaded.content && loaded.content->createsMain2)
            templates.push_back(std::move(loaded));
          else if (!loaded.content)
            damaged.push_back(std::move(loaded));
        }
      }
      if (templates.empty()) {
        if (!dotx.empty()) {
          Problem("template-type",
                  w + Joined(dotx) +
                      " is a .dotx, which holds no macros: nothing in it can create "
                      "Tabforge.Main2.",
                  "use the add-in's .dotm (a macro-enabled template) in its place.");
        } else if (!damaged.empty()) {
          for (const Template& t : damaged)
            Problem("template-content", w + t.path + ": " + t.damage + ".",
                    "copy the add-in's template again from the release.");
        } else {
          std::string elsewhere;
          if (FolderKey(folders.userDefault) != FolderKey(folders.user)) {
            for (const std::string& name : machine_.ListFiles(folders.userDefault)) {
              const Template t = Load(Join(folders.userDefault, name));
              if (Extension(name) == ".dotm" && t.content && t.content->createsMain2)
                elsewhere = " " + t.path + " creates it, but Word uses " + folders.user + " (" +
                            folders.userFrom + ").";
            }
          }
          Problem("startup-folder",
                  w + "no template in " + Joined(searched) + " creates Tabforge.Main2." + elsewhere,
                  "copy the add-in's .dotm to " + folders.user + ".");
        }
      }
    }
    for (const Template& t : templates)
      CheckTemplate(word, folders, t);
    CheckDisabled(word, templates);
    const std::string general = OfficeKey(word.version) + "\\Common\\General";
    if (Number(machine_.Value(Hive::kCurrentUser, View::k64, general,
                              "ReportAddinCustomUIErrors")) == 1u)
      Ok("addin-ui-errors",
         w + "Word shows why it refuses a ribbon document (" +
             ValueName(Hive::kCurrentUser, general, "ReportAddinCustomUIErrors = 1") + ").");
    else
      Ok("addin-ui-errors",
         w +
             "Word says nothing when it refuses a ribbon document; for a tab that is still "
             "missing, turn on File > Options > Advanced > Show add-in user interface errors (" +
             ValueName(Hive::kCurrentUser, general, "ReportAddinCustomUIErrors = 1") + ").");
  }

  static std::string Joined(const std::vector<std::string>& items) {
    std::string text;
    for (const std::string& item : items)
      text += (text.empty() ? "" : ", ") + item;
    return text;
  }

  void CheckTemplate(const Word& word, const StartupFolders& folders, const Template& t) {
    const std::string w = "Word " + word.version + ": ";
    if (!t.content) {
      Problem("template-content", w + t.path + ": " + t.damage + ".",
              "copy the add-in's template again from the release.");
      CheckSecurity(word, folders, t);
      return;
    }
    const TemplateContent& c = *t.content;
    Ok("template-file", w + t.path + " is a package with " + std::to_string(c.modules.size()) +
                            " macro module" + (c.modules.size() == 1 ? "" : "s") + ".");
    if (c.customUiPart.empty() && !c.unrelatedCustomUi.empty())
      Problem("custom-ui",
              w + t.path + " holds " + c.unrelatedCustomUi +
                  ", but no relationship of the package (_rels/.rels) names it: Word never "
                  "reads it.",
              "use the add-in's template from the release.");
    else if (c.customUiPart.empty())
      Problem("custom-ui",
              w + t.path +
                  " has no ribbon document (customUI/customUI14.xml or customUI/customUI.xml).",
              "use the add-in's template from the release.");
    else
      Ok("custom-ui", w + t.path + " has " + c.customUiPart + " naming " +
                          std::to_string(c.callbacks.size()) + " callbacks.");
    if (!c.hasMacros)
      Problem("macros", w + t.path + " has no macro project (word/vbaProject.bin).",
              "use the add-in's template from the release.");
    else if (!c.createsMain2)
      Problem("creates-main2",
              w + t.path + "'s macros never create Tabforge.Main2 (CreateObject or New).",
              "use the add-in's template from the release.");
    else
      Ok("creates-main2", w + t.path + " creates Tabforge.Main2.");
    const std::vector<std::string> mismatches = CallbackMismatches(c);
    if (!mismatches.empty()) {
      const bool reported = Number(machine_.Value(Hive::kCurrentUser, View::k64,
                                                  OfficeKey(word.version) + "\\Common\\General",
                                                  "ReportAddinCustomUIErrors")) == 1u;
      Problem("callbacks", w + "Word cannot call " + Joined(mismatches) + ".",
              "correct the template's macros to the callbacks' signatures" +
                  std::string(reported ? "; Word shows its own message for each (add-in user "
                                         "interface errors are on)."
                                       : "; to see Word's own message, turn on File > Options > "
                                         "Advanced > Show add-in user interface errors "
                                         "(HKEY_CURRENT_USER\\" +
                                             OfficeKey(word.version) +
                                             "\\Common\\General value ReportAddinCustomUIErrors "
                                             "= 1)."));
    } else if (!c.customUiPart.empty()) {
      Ok("callbacks", w + "every callback of the ribbon document is a public Sub of a standard "
                          "module with its parameters.");
    }
    CheckSecurity(word, folders, t);
  }

  // --- Disabled or blocked ------------------------------------------------------------------

  std::vector<std::string> RegisteredServers() const {
    std::vector<std::string> servers;
    for (const Hive hive : {Hive::kCurrentUser, Hive::kLocalMachine}) {
      for (const View view : {View::k64, View::k32}) {
        const std::string path = Text(machine_.Value(
            hive, view, std::string("Software\\Classes\\CLSID\\") + kClassId + "\\InprocServer32",
            ""));
        if (!path.empty())
          servers.push_back(path);
      }
    }
    return servers;
  }

  void CheckDisabled(const Word& word, const std::vector<Template>& templates) {
    const std::string w = "Word " + word.version + ": ";
    const std::string key = OfficeKey(word.version) + "\\Word\\Resiliency\\DisabledItems";
    std::vector<std::string> ours;
    for (const Template& t : templates)
      ours.push_back(t.path);
    if (!options_.templatePath.empty() && templates.empty())
      ours.push_back(options_.templatePath);
    for (const std::string& server : RegisteredServers())
      ours.push_back(server);
    bool disabled = false;
    for (const std::string& name : machine_.ValueNames(Hive::kCurrentUser, View::k64, key)) {
      const RegistryValue value = machine_.Value(Hive::kCurrentUser, View::k64, key, name);
      if (value.kind != RegistryValue::Kind::kBinary)
        continue;
      const std::optional<DisabledItem> item = DecodeDisabledItem(value.binary);
      if (!item)
        continue;
      for (const std::string& path : ours) {
        if (Lower(item->path) != Lower(path))
          continue;
        disabled = true;
        Problem("disabled-items",
                w + "Word has disabled " + path + " (" + ValueName(Hive::kCurrentUser, key, name) +
                    ", " + TypeName(item->type) + ").",
                "tabforge doctor --fix removes the entry while Word is closed; or in Word: File > "
                "Options > Add-ins > Manage: Disabled Items > Enable.");
        diagnosis_.repairs.push_back(
            {Repairable::Kind::kDisabledItem, word.version, key, name, path, 0});
      }
    }
    if (!disabled)
      Ok("disabled-items", w + "nothing of the add-in's among Word's disabled items.");
    const std::string starting = OfficeKey(word.version) + "\\Word\\Resiliency\\StartupItems";
    const std::vector<std::string> left =
        machine_.ValueNames(Hive::kCurrentUser, View::k64, starting);
    if (!left.empty())
      Warning("startup-items",
              w + KeyName(Hive::kCurrentUser, View::k64, starting) + " holds " +
                  std::to_string(left.size()) +
                  " entries: a start of Word did not finish, and the next start may offer to "
                  "disable what it was loading.",
              "start Word once and let it finish; answer No if it offers to disable the add-in.");

    // The managed add-in list: 0 always off, 1 always on, 2 the user's choice.
    const std::string policy = PolicyKey(word.version) + "\\Word\\Resiliency\\AddinList";
    bool listed = false;
    for (const Hive hive : {Hive::kCurrentUser, Hive::kLocalMachine}) {
      for (const std::string& name : machine_.ValueNames(hive, View::k64, policy)) {
        const bool names = Same(name, kProgId) ||
                           std::any_of(templates.begin(), templates.end(), [&](const Template& t) {
                             return Same(name, t.path) || Same(name, FileNameOf(t.path));
                           });
        if (!names)
          continue;
        listed = true;
        const std::string setting = Text(machine_.Value(hive, View::k64, policy, name));
        const std::string where = ValueName(hive, policy, name);
        if (setting == "0") {
          Problem("addin-list", w + "the policy " + where + " = 0 turns the add-in off.",
                  "ask your administrator to set " + where +
                      " to 1 (always on) or 2, or to "
                      "remove it.");
          diagnosis_.policies.push_back("ask your administrator to set " + where +
                                        " to 1 or to remove it (the managed add-in list).");
        } else {
          Ok("addin-list", w + "the policy " + where + " = " + setting + " lets the add-in load.");
        }
      }
    }
    if (!listed)
      Ok("addin-list", w + "no managed add-in list names the add-in.");
  }

  static std::string TypeName(std::uint32_t type) {
    switch (type) {
      case 1:
        return "type 1, an add-in";
      case 2:
        return "type 2, a document";
      case 3:
        return "type 3, a task pane";
      default:
        return "type " + std::to_string(type);
    }
  }

  // --- Macro security -----------------------------------------------------------------------

  struct Location {
    std::string path;
    bool subfolders = false;
    std::string from;
  };

  std::vector<Location> Locations(const Word& word, std::string& off) const {
    const std::string policyKey = PolicyKey(word.version) + "\\Word\\Security\\Trusted Locations";
    if (Number(machine_.Value(Hive::kCurrentUser, View::k64, policyKey, "AllLocationsDisabled")) ==
        1u) {
      off = "the policy " + ValueName(Hive::kCurrentUser, policyKey, "AllLocationsDisabled = 1") +
            " turns every trusted location off";
      return {};
    }
    std::vector<Location> locations;
    auto read = [&](const std::string& key, const std::string& from) {
      for (const std::string& sub : machine_.Subkeys(Hive::kCurrentUser, View::k64, key)) {
        const std::string entry = key + "\\" + sub;
        const std::string path =
            Expand(machine_, Text(machine_.Value(Hive::kCurrentUser, View::k64, entry, "Path")));
        if (path.empty())
          continue;
        locations.push_back(
            {path,
             Number(machine_.Value(Hive::kCurrentUser, View::k64, entry, "AllowSubfolders")) == 1u,
             from + " " + sub});
      }
    };
    read(policyKey, "the policy's location");
    const std::string mixKey = PolicyKey(word.version) + "\\Common\\Security\\Trusted Locations";
    if (Number(machine_.Value(Hive::kCurrentUser, View::k64, mixKey, "Allow User Locations")) ==
        0u) {
      off = "the policy " + ValueName(Hive::kCurrentUser, mixKey, "Allow User Locations = 0") +
            " turns the user's trusted locations off";
      return locations;
    }
    const std::string userKey = OfficeKey(word.version) + "\\Word\\Security\\Trusted Locations";
    if (machine_.Subkeys(Hive::kCurrentUser, View::k64, userKey).empty()) {
      // Word writes its own locations at its first start; before that they hold all the same.
      const std::string appData = machine_.Environment("APPDATA");
      locations.push_back({Join(appData, "Microsoft\\Word\\Startup"), false, "Word's default"});
      locations.push_back({Join(appData, "Microsoft\\Templates"), false, "Word's default"});
      if (!word.programFolder.empty())
        locations.push_back({Join(word.programFolder, "STARTUP"), false, "Word's default"});
    }
    read(userKey, "the user's location");
    return locations;
  }

  void CheckSecurity(const Word& word, const StartupFolders& folders, const Template& t) {
    const std::string w = "Word " + word.version + ": ";
    std::string off;
    const std::vector<Location> locations = Locations(word, off);
    const Location* trusted = nullptr;
    for (const Location& location : locations) {
      if (InFolder(t.path, location.path, location.subfolders)) {
        trusted = &location;
        break;
      }
    }
    if (trusted != nullptr)
      Ok("trusted-location", w + FolderOf(t.path) + " is a trusted location (" + trusted->from +
                                 ": " + trusted->path +
                                 (trusted->subfolders ? ", with subfolders" : "") +
                                 "): its macros run under every macro setting.");
    else
      Warning("trusted-location",
              w + FolderOf(t.path) + " is not a trusted location" +
                  (off.empty() ? "" : " (" + off + ")") +
                  ": the macro setting decides whether its macros run.",
              "keep the template in the user's Startup folder, or add its folder to Trust "
              "Center > Trusted Locations.");

    // The macro setting, the policy's over the user's.
    const std::string securityPolicy = PolicyKey(word.version) + "\\Word\\Security";
    const std::string securityUser = OfficeKey(word.version) + "\\Word\\Security";
    const std::optional<std::uint32_t> policyWarnings =
        Number(machine_.Value(Hive::kCurrentUser, View::k64, securityPolicy, "VBAWarnings"));
    const std::optional<std::uint32_t> userWarnings =
        Number(machine_.Value(Hive::kCurrentUser, View::k64, securityUser, "VBAWarnings"));
    const std::uint32_t warnings = policyWarnings.value_or(userWarnings.value_or(2));
    const std::string setting =
        policyWarnings ? "the policy " + ValueName(Hive::kCurrentUser, securityPolicy,
                                                   "VBAWarnings = " + std::to_string(warnings))
        : userWarnings ? ValueName(Hive::kCurrentUser, securityUser,
                                   "VBAWarnings = " + std::to_string(warnings))
                       : "VBAWarnings is not set (2, the default)";
    const std::string moveFix =
        "move the template to a trusted location (" + folders.userDefault + " by default)" +
        (policyWarnings ? "; the setting is a policy: only your administrator may change it."
                        : ", or set Trust Center > Macro Settings.");
    const bool signedMacros = t.content && t.content->signedMacros;
    if (trusted != nullptr) {
      Ok("vba-warnings", w + setting + "; the trusted location runs the macros whatever it says.");
    } else if (warnings == 4) {
      Problem("vba-warnings",
              w + setting + ": every macro outside a trusted location is off, without a word.",
              moveFix);
    } else if (warnings == 3 && !signedMacros) {
      Problem("vba-warnings",
              w + setting +
                  ": only signed macros run outside a trusted location, and the template's are "
                  "not signed.",
              moveFix);
    } else if (warnings == 3 || warnings == 2) {
      Warning("vba-warnings",
              w + setting +
                  (warnings == 2 ? ": Word turns the template's macros off and asks the user."
                                 : ": the template's signed macros run if the user trusts the "
                                   "publisher."),
              moveFix);
    } else {
      Ok("vba-warnings", w + setting + ": every macro runs.");
    }
    if (policyWarnings && trusted == nullptr && warnings >= 3)
      diagnosis_.policies.push_back("ask your administrator for a trusted location for " +
                                    FolderOf(t.path) + ", or for a change of " +
                                    ValueName(Hive::kCurrentUser, securityPolicy, "VBAWarnings"));

    // The mark of the web.
    const std::optional<std::string> zone = machine_.ReadStream(t.path, "Zone.Identifier");
    const int zoneId = zone ? ZoneOf(*zone) : 0;
    if (zoneId >= 3) {
      const RegistryValue block = machine_.Value(Hive::kCurrentUser, View::k64, securityPolicy,
                                                 "blockcontentexecutionfrominternet");
      const std::optional<std::uint32_t> blockValue = Number(block);
      const bool blocked = blockValue ? *blockValue == 1 : word.version == "16.0";
      const std::string mark =
          t.path + " has the mark of the web (Zone.Identifier ZoneId=" + std::to_string(zoneId) +
          (zoneId == 3 ? ", the Internet" : ", restricted sites") + ")";
      const std::string why =
          blockValue ? "the policy " + ValueName(Hive::kCurrentUser, securityPolicy,
                                                 "blockcontentexecutionfrominternet = " +
                                                     std::to_string(*blockValue))
                     : std::string(blocked ? "Word 16.0 blocks such macros by default"
                                           : "no policy blocks such macros");
      if (trusted != nullptr)
        Ok("mark-of-the-web", w + mark + ", but a trusted location runs it all the same.");
      else if (blocked)
        Problem("mark-of-the-web", w + mark + ", and " + why + ".",
                "tabforge doctor --fix removes the mark; or the file's Properties > Unblock.");
      else
        Warning("mark-of-the-web", w + mark + "; " + why + ".",
                "tabforge doctor --fix removes the mark; or the file's Properties > Unblock.");
      if (trusted == nullptr)
        diagnosis_.repairs.push_back(
            {Repairable::Kind::kMarkOfTheWeb, word.version, "", "", t.path, 0});
    } else {
      Ok("mark-of-the-web", w + t.path + " has no mark of the web.");
    }

    // Add-ins signed by a trusted publisher only.
    if (Number(machine_.Value(Hive::kCurrentUser, View::k64, securityPolicy, "requireaddinsig")) ==
        1u) {
      const std::string where =
          ValueName(Hive::kCurrentUser, securityPolicy, "requireaddinsig = 1");
      if (signedMacros) {
        Warning("require-signature",
                w + "the policy " + where +
                    " takes only add-ins signed by a trusted publisher; the template's macros "
                    "are signed, and the publisher must be trusted.",
                "trust the publisher's certificate.");
      } else {
        Problem("require-signature",
                w + "the policy " + where +
                    " takes only add-ins signed by a trusted publisher; the template's macros "
                    "are not signed.",
                "use a template whose macros are signed by a publisher the administrator "
                "trusts, or ask the administrator about " +
                    where + ".");
        diagnosis_.policies.push_back("ask your administrator about " + where +
                                      ": the template's macros are not signed.");
      }
    } else {
      Ok("require-signature", w + "no policy requires signed add-ins.");
    }
  }

  static int ZoneOf(const std::string& stream) {
    const std::string text = Lower(stream);
    const std::size_t at = text.find("zoneid=");
    if (at == std::string::npos)
      return 0;
    std::size_t digit = at + 7;
    int zone = 0;
    while (digit < text.size() && std::isdigit(static_cast<unsigned char>(text[digit])) &&
           zone < 100)
      zone = zone * 10 + (text[digit++] - '0');
    return zone;
  }

  // --- Registration -------------------------------------------------------------------------

  void CheckRegistration(int bits) {
    const View view = bits == 64 ? View::k64 : View::k32;
    const View other = bits == 64 ? View::k32 : View::k64;
    const std::string classKey = std::string("Software\\Classes\\CLSID\\") + kClassId;
    const std::string serverKey = classKey + "\\InprocServer32";
    const bool user = machine_.KeyExists(Hive::kCurrentUser, view, classKey);
    const bool machine = machine_.KeyExists(Hive::kLocalMachine, view, classKey);
    const std::string of = "for " + std::to_string(bits) + "-bit Word: ";
    const std::string fix = "tabforge doctor --fix registers the " + std::to_string(bits) +
                            "-bit Tabforge.dll for you, or tabforge register --user PATH\\" +
                            (bits == 64 ? "x64" : "x86") + "\\Tabforge.dll.";
    if (!user && !machine) {
      const bool elsewhere = machine_.KeyExists(Hive::kCurrentUser, other, classKey) ||
                             machine_.KeyExists(Hive::kLocalMachine, other, classKey);
      Problem("registration",
              of + "the class " + std::string(kClassId) + " is not registered in the " +
                  std::to_string(bits) + "-bit registry view" +
                  (elsewhere ? "; it is registered for " + std::to_string(96 - bits) +
                                   "-bit programs only"
                             : "") +
                  ".",
              fix);
      diagnosis_.repairs.push_back({Repairable::Kind::kRegistration, "", "", "", "", bits});
      return;
    }
    const Hive owner = user ? Hive::kCurrentUser : Hive::kLocalMachine;
    const std::string server = Text(machine_.Value(owner, view, serverKey, ""));
    const std::string where = KeyName(owner, view, serverKey);
    const std::string progIdKey = std::string("Software\\Classes\\") + kProgId + "\\CLSID";
    std::string named = Text(machine_.Value(Hive::kCurrentUser, view, progIdKey, ""));
    if (named.empty())
      named = Text(machine_.Value(Hive::kLocalMachine, view, progIdKey, ""));
    const int serverBits = server.empty() ? 0 : BitsOfFile(server);
    if (server.empty()) {
      Problem("registration", of + where + " names no DLL.", fix);
    } else if (!machine_.FileExists(server)) {
      Problem("registration", of + where + " = " + server + ", which does not exist.", fix);
    } else if (serverBits != bits) {
      Problem("registration",
              of + where + " = " + server + ", a " +
                  (serverBits == 0 ? std::string("file that is no Windows DLL")
                                   : std::to_string(serverBits) + "-bit DLL") +
                  ", which " + std::to_string(bits) + "-bit Word cannot load.",
              fix);
    } else if (!Same(named, kClassId)) {
      Problem("registration",
              of + "the program id Tabforge.Main2 " +
                  (named.empty() ? "is not registered" : "names the class " + named) + ".",
              fix);
    } else {
      Ok("registration", of + "Tabforge.Main2 -> " + std::string(kClassId) + " -> " + server +
                             " (" + (user ? "the user's" : "the machine's") + " registration), a " +
                             std::to_string(bits) + "-bit DLL.");
      return;
    }
    diagnosis_.repairs.push_back({Repairable::Kind::kRegistration, "", "", "", "", bits});
  }

  // A Word run as administrator reads the machine's classes alone.
  void CheckElevation(int bits) {
    const View view = bits == 64 ? View::k64 : View::k32;
    const std::string classKey = std::string("Software\\Classes\\CLSID\\") + kClassId;
    if (!machine_.KeyExists(Hive::kCurrentUser, view, classKey) ||
        machine_.KeyExists(Hive::kLocalMachine, view, classKey))
      return;
    Warning("elevation",
            "for " + std::to_string(bits) +
                "-bit Word: registered for this user alone: a Word run as administrator reads "
                "the machine's classes and does not see it.",
            "tabforge register --machine PATH\\" + std::string(bits == 64 ? "x64" : "x86") +
                "\\Tabforge.dll as an administrator, or do not run Word as administrator.");
  }

  void CheckClickToRunClasses() {
    const std::string root =
        "Software\\Microsoft\\Office\\ClickToRun\\REGISTRY\\MACHINE\\Software\\Classes\\";
    const std::string keys[] = {std::string("CLSID\\") + kClassId, kProgId,
                                std::string("TypeLib\\") + kTypeLibraryId};
    bool found = false;
    for (const View view : {View::k64, View::k32}) {
      for (const std::string& key : keys) {
        if (!machine_.KeyExists(Hive::kLocalMachine, view, root + key))
          continue;
        found = true;
        const std::string name = KeyName(Hive::kLocalMachine, view, root + key);
        Problem("click-to-run-classes",
                name +
                    " is in Click-to-Run's own registry, which Word reads before the real "
                    "one: a stale entry there hides Tabforge's registration.",
                "ask your administrator to delete " + name + ".");
        diagnosis_.policies.push_back("ask your administrator to delete " + name + ".");
      }
    }
    if (!found)
      Ok("click-to-run-classes", "nothing of Tabforge's in Click-to-Run's own registry.");
  }

  const MachineView& machine_;
  const Options& options_;
  std::vector<Word> words_;
  Diagnosis diagnosis_;
};

// Where each check stands in the order the word processor meets them.
struct StageOf {
  const char* check;
  int stage;
};
constexpr StageOf kStages[] = {
    {"word-installed", 0},
    {"startup-folder", 1},
    {"template-type", 1},
    {"template-file", 2},
    {"template-content", 2},
    {"custom-ui", 2},
    {"macros", 2},
    {"creates-main2", 2},
    {"disabled-items", 3},
    {"addin-list", 3},
    {"startup-items", 3},
    {"trusted-location", 4},
    {"vba-warnings", 4},
    {"mark-of-the-web", 4},
    {"require-signature", 4},
    {"click-to-run-classes", 5},
    {"registration", 5},
    {"elevation", 5},
    {"create", 6},
    {"initialize", 6},
    {"document", 7},
    {"callbacks", 7},
    {"addin-ui-errors", 7},
};
constexpr int kRegistrationStage = 5;

std::string Quoted(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
      out += escape;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

}  // namespace

Diagnosis Diagnose(const MachineView& machine, const Options& options) {
  return Checks(machine, options).Run();
}

int Stage(const std::string& check) {
  for (const StageOf& s : kStages) {
    if (check == s.check)
      return s.stage;
  }
  return kRegistrationStage;
}

std::string Report(const std::vector<Finding>& findings, bool json) {
  if (json)
    return FindingsJson(findings);
  std::string text = Verdict(findings) + "\n";
  for (const Finding& f : findings)
    text += FindingLine(f) + "\n";
  return text;
}

std::string StatusName(Status status) {
  return status == Status::kOk ? "ok" : status == Status::kWarning ? "warning" : "problem";
}

std::string FindingLine(const Finding& f) {
  std::string name = StatusName(f.status);
  name.resize(8, ' ');
  return name + f.check + ": " + f.detail + (f.fix.empty() ? "" : " Fix: " + f.fix);
}

std::string FindingsJson(const std::vector<Finding>& findings) {
  std::string out = "[\n";
  for (std::size_t i = 0; i < findings.size(); ++i) {
    const Finding& f = findings[i];
    out += "  {\"check\": " + Quoted(f.check) + ", \"status\": " + Quoted(StatusName(f.status)) +
           ", \"detail\": " + Quoted(f.detail) + ", \"fix\": " + Quoted(f.fix) + "}" +
           (i + 1 < findings.size() ? ",\n" : "\n");
  }
  return out + "]\n";
}

const Finding* FirstProblem(const std::vector<Finding>& findings) {
  const Finding* first = nullptr;
  for (const Finding& f : findings) {
    if (f.status == Status::kProblem && (first == nullptr || Stage(f.check) < Stage(first->check)))
      first = &f;
  }
  return first;
}

std::string Verdict(const std::vector<Finding>& findings) {
  const Finding* first = FirstProblem(findings);
  if (first == nullptr)
    return "verdict: nothing found would hide the tab.";
  return "verdict: " + first->check + ": " + first->detail +
         (first->fix.empty() ? "" : " Fix: " + first->fix);
}

std::vector<std::string> Repair(MachineView& machine, const Diagnosis& diagnosis) {
  std::vector<std::string> done;
  bool wordRunning = false;
  bool askedRunning = false;
  for (const Repairable& r : diagnosis.repairs) {
    std::string error;
    switch (r.kind) {
      case Repairable::Kind::kDisabledItem:
        if (!askedRunning) {
          wordRunning = machine.ProcessRunning("WINWORD.EXE");
          askedRunning = true;
        }
        if (wordRunning)
          done.push_back(
              "not done: Word is running, and it writes its disabled items back when "
              "it closes; close Word and run tabforge doctor --fix again to enable " +
              r.path + ".");
        else if (machine.DeleteValue(Hive::kCurrentUser, View::k64, r.key, r.name, error))
          done.push_back("enabled " + r.path + ": removed " +
                         ValueName(Hive::kCurrentUser, r.key, r.name) + ".");
        else
          done.push_back("not done: removing " + ValueName(Hive::kCurrentUser, r.key, r.name) +
                         " failed: " + error + ".");
        break;
      case Repairable::Kind::kMarkOfTheWeb:
        if (machine.DeleteStream(r.path, "Zone.Identifier", error))
          done.push_back("removed the mark of the web from " + r.path + ".");
        else
          done.push_back("not done: removing the mark of the web from " + r.path +
                         " failed: " + error + ".");
        break;
      case Repairable::Kind::kRegistration: {
        const std::string folder = machine.ToolFolder();
        const std::string arch = r.bits == 64 ? "x64" : "x86";
        const std::vector<std::string> candidates = {
            Join(Join(folder, arch), "Tabforge.dll"), Join(folder, "Tabforge.dll"),
            Join(Join(Join(folder, ".."), arch), "Tabforge.dll")};
        std::string dll;
        for (const std::string& candidate : candidates) {
          const std::optional<Bytes> header = machine.ReadFile(candidate, 4096);
          if (header && ExecutableBits(*header) == r.bits) {
            dll = candidate;
            break;
          }
        }
        if (dll.empty())
          done.push_back("not done: no " + std::to_string(r.bits) + "-bit Tabforge.dll in " +
                         candidates[0] +
                         " or beside tabforge.exe; register it with tabforge "
                         "register --user PATH.");
        else if (machine.RegisterForUser(dll, r.bits, error))
          done.push_back("registered " + dll + " for this user, for " + std::to_string(r.bits) +
                         "-bit Word.");
        else
          done.push_back("not done: registering " + dll + " failed: " + error + ".");
        break;
      }
    }
  }
  for (const std::string& policy : diagnosis.policies)
    done.push_back("left to the administrator: " + policy);
  if (done.empty())
    done.push_back("nothing to repair.");
  return done;
}

std::optional<DisabledItem> DecodeDisabledItem(ByteSpan value) {
  if (value.size() < 12)
    return std::nullopt;
  auto u32 = [&](std::size_t at) {
    return static_cast<std::uint32_t>(value[at] | value[at + 1] << 8 | value[at + 2] << 16 |
                                      static_cast<std::uint32_t>(value[at + 3]) << 24);
  };
  DisabledItem item;
  item.type = u32(0);
  const std::uint32_t pathBytes = u32(4);
  const std::uint32_t nameBytes = u32(8);
  if (pathBytes % 2 != 0 || nameBytes % 2 != 0 || pathBytes > value.size() - 12 ||
      nameBytes > value.size() - 12 - pathBytes)
    return std::nullopt;
  auto text = [&](std::size_t at, std::size_t bytes) {
    Utf16String wide;
    for (std::size_t i = 0; i < bytes; i += 2) {
      const auto c = static_cast<char16_t>(value[at + i] | value[at + i + 1] << 8);
      if (c == 0)
        break;
      wide += c;
    }
    return ToUtf8(wide);
  };
  item.path = text(12, pathBytes);
  item.name = text(12 + pathBytes, nameBytes);
  return item;
}

Bytes EncodeDisabledItem(const DisabledItem& item) {
  Bytes out;
  auto put32 = [&](std::uint32_t v) {
    for (int i = 0; i < 4; ++i)
      out.push_back(static_cast<unsigned char>(v >> (8 * i)));
  };
  const Utf16String path = FromUtf8(item.path) + u'\0';
  const Utf16String name = FromUtf8(item.name) + u'\0';
  put32(item.type);
  put32(static_cast<std::uint32_t>(path.size() * 2));
  put32(static_cast<std::uint32_t>(name.size() * 2));
  for (const Utf16String* text : {&path, &name}) {
    for (const char16_t c : *text) {
      out.push_back(static_cast<unsigned char>(c));
      out.push_back(static_cast<unsigned char>(c >> 8));
    }
  }
  return out;
}

int ExecutableBits(ByteSpan header) {
  if (header.size() < 0x40 || header[0] != 'M' || header[1] != 'Z')
    return 0;
  const std::size_t pe = header[0x3C] | header[0x3D] << 8 | header[0x3E] << 16 |
                         static_cast<std::size_t>(header[0x3F]) << 24;
  if (pe > header.size() || header.size() - pe < 6 || header[pe] != 'P' || header[pe + 1] != 'E' ||
      header[pe + 2] != 0 || header[pe + 3] != 0)
    return 0;
  const unsigned machine = header[pe + 4] | header[pe + 5] << 8;
  return machine == 0x014C ? 32 : machine == 0x8664 ? 64 : 0;
}

}  // namespace tabforge::doctor
