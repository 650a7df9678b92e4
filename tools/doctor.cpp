#include "tools/doctor.h"

#include <windows.h>

#include <ole2.h>
#include <softpub.h>
#include <wintrust.h>

#include <cstdio>
#include <cwchar>
#include <fstream>
#include <initializer_list>
#include <iostream>
#include <stdexcept>

#include "Tabforge_h.h"
#include "doctor/case_machine.h"
#include "doctor/checks.h"
#include "platform/utf16.h"
#include "server/com_ptr.h"
#include "server/object_bridge.h"
#include "server/registry_entries.h"
#include "server/registry_values.h"
#include "server/windows_platform.h"
#include "server/windows_text.h"
#include "tabforge_version.h"
#include "tools/classes_key.h"
#include "tools/com_session.h"
#include "tools/log_command.h"
#include "tools/windows_machine.h"
#include "tracing/vbw_protector.h"

namespace tabforge::cli {
namespace {

using com::HresultText;
using com::Wide;

constexpr const char* kDoctorUsage =
    "usage: tabforge doctor [--bits 32|64] [--template PATH] [--json] [--fix] [--trace]\n"
    "\n"
    "Tells why the add-in's tab is missing, from Word's start to the first callback. The first\n"
    "line is the verdict: the first cause found in the order Word meets them (installed Word,\n"
    "Startup folder, template file, disabled or blocked, macro security, registration, creation,\n"
    "document) and its fix, or that nothing found would hide the tab. Then one line per check,\n"
    "ok, warning or problem with the reason and the fix: every installed Word (12.0 to 16.0) and\n"
    "its bitness; the Startup folders and the add-in's template in them; the template's ribbon\n"
    "document, macros and callbacks; Word's disabled items and the managed add-in list; trusted\n"
    "locations, the macro setting, the mark of the web and signed add-ins; Click-to-Run's own\n"
    "registry; then, for Word's bitness, the program id, the class and its in-process server\n"
    "(the file, its bitness, the threading model), the type library and the interface, entries\n"
    "of the user's classes over the machine's, the class in the other registry view, the file's\n"
    "version record and signature, the tracing request; then creates the class, calls\n"
    "Initialize and asks for the document, as the template does. A tabforge.exe of the other\n"
    "bitness cannot load the DLL, and says so instead of creating it.\n"
    "\n"
    "  --bits 32|64     the registration's bitness (default: the installed Word's, else this\n"
    "                   tabforge.exe's own)\n"
    "  --template PATH  the add-in's template (default: every template of the Startup folders\n"
    "                   whose macros create Tabforge.Main2)\n"
    "  --json           an array of {\"check\", \"status\", \"detail\", \"fix\"} in place of the "
    "lines\n"
    "  --fix            first carries out the repairs that are safe and the user's own, one line\n"
    "                   each: removes the template's entry from Word's disabled items (only while\n"
    "                   Word is closed), removes the template's mark of the web, registers the\n"
    "                   DLL of Word's bitness for the user; never writes a policy key\n"
    "  --trace          this command line asks for tracing (\"/trace\"), as a word processor's "
    "may\n"
    "\n"
    "tabforge doctor --write-template PATH [CHANGE...] writes the add-in's test template, as the\n"
    "doctor's case files describe it, for a machine that a script sets up.\n"
    "\n"
    "Exit status 0 when the class can be created and nothing before the registration would hide\n"
    "the tab, 1 when not, 2 on bad usage.\n";

constexpr const char* kTraceUsage =
    "usage: tabforge trace on|off|show\n"
    "\n"
    "Switches the library's tracing request of the current user on or off, or shows it. With it\n"
    "on, every Tabforge.dll that the user's word processors load from then on builds the\n"
    "parameter texts of its procedures for the error component's reports.\n";

constexpr int kOwnBits = sizeof(void*) * 8;

bool SameText(const std::wstring& a, const std::wstring& b) {
  return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(),
                                static_cast<int>(b.size()), TRUE) == CSTR_EQUAL;
}

std::string Bitness(WORD machine) {
  return machine == IMAGE_FILE_MACHINE_I386    ? "a 32-bit (x86) DLL"
         : machine == IMAGE_FILE_MACHINE_AMD64 ? "a 64-bit (x64) DLL"
                                               : "a DLL for another processor";
}

// --- The report -----------------------------------------------------------------------------

enum class Status { kOk, kWarning, kProblem };

struct Finding {
  std::string check;
  Status status;
  std::string detail;
  std::string fix;
};

class Report {
 public:
  void Ok(std::string check, std::string detail) {
    findings_.push_back({std::move(check), Status::kOk, std::move(detail), {}});
  }
  void Warning(std::string check, std::string detail, std::string fix) {
    findings_.push_back({std::move(check), Status::kWarning, std::move(detail), std::move(fix)});
  }
  void Problem(std::string check, std::string detail, std::string fix) {
    findings_.push_back({std::move(check), Status::kProblem, std::move(detail), std::move(fix)});
  }

  bool HasProblem(std::initializer_list<const char*> checks) const {
    for (const auto& finding : findings_) {
      for (const char* check : checks) {
        if (finding.status == Status::kProblem && finding.check == check)
          return true;
      }
    }
    return false;
  }

  const std::vector<Finding>& Findings() const { return findings_; }

 private:
  std::vector<Finding> findings_;
};

// --- What a word processor of one bitness reads ---------------------------------------------

// The classes root as Windows merges it for a program of one bitness: a key of the user's
// classes stands in for the machine's key of the same name, values and all.
struct ClassesRoot {
  ClassesKey user;
  ClassesKey machine;

  const ClassesKey* Owner(const std::wstring& key) const {
    return user.Exists(key) ? &user : machine.Exists(key) ? &machine : nullptr;
  }
  // The value from the key that owns it; `where` names that key.
  bool Read(const std::wstring& key, const std::wstring& value, std::wstring& text,
            std::string* where = nullptr) const {
    const ClassesKey* owner = Owner(key);
    if (owner == nullptr)
      return false;
    if (where != nullptr)
      *where = owner->Describe(key);
    return owner->Read(key, value, text);
  }
};

struct Context {
  int bits;
  ClassesRoot own;
  ClassesRoot other;
  std::wstring server;  // the in-process server's path, when one is registered
  bool serverIsDll = false;
  std::string registerHint;  // how to register the right DLL
};

std::string OtherBits(int bits) {
  return bits == 64 ? "32" : "64";
}

// --- The checks -----------------------------------------------------------------------------

bool CheckRegistered(Context& c, Report& report) {
  const std::wstring classKey = com::ClassKey();
  if (c.own.Owner(com::kProgId) != nullptr || c.own.Owner(classKey) != nullptr)
    return true;
  std::string detail = "neither the program id Tabforge.Main2 nor the class " + Narrow(classKey) +
                       " is in the user's or the machine's classes of the " +
                       std::to_string(c.bits) + "-bit registry view";
  if (const ClassesKey* elsewhere = c.other.Owner(classKey))
    detail += "; " + elsewhere->Describe(classKey) + " has the class: it is registered for " +
              OtherBits(c.bits) + "-bit word processors only";
  report.Problem("not-registered", detail + ".", c.registerHint);
  return false;
}

void CheckProgId(const Context& c, Report& report) {
  const std::wstring wanted = com::GuidText(CLSID_Main2);
  const std::wstring key = std::wstring(com::kProgId) + L"\\CLSID";
  std::wstring clsid;
  std::string where;
  if (!c.own.Read(key, L"", clsid, &where)) {
    report.Problem("progid",
                   "the program id Tabforge.Main2 has no class id (" + Narrow(key) +
                       " is missing), so creating it by name fails.",
                   c.registerHint);
  } else if (!SameText(clsid, wanted)) {
    report.Problem(
        "progid",
        where + " names the class " + Narrow(clsid) + ", not Main2's " + Narrow(wanted) + ".",
        c.registerHint);
  } else {
    report.Ok("progid", "Tabforge.Main2 -> " + Narrow(clsid) + " (" + where + ").");
  }
  // Creation by name follows CurVer to another program id; the registration writes none.
  std::wstring current;
  if (!c.own.Read(std::wstring(com::kProgId) + L"\\CurVer", L"", current, &where))
    return;
  std::wstring target;
  const bool leads = c.own.Read(current + L"\\CLSID", L"", target) && SameText(target, wanted);
  const std::string fix = "delete " + where + "; Tabforge.dll's registration writes no CurVer.";
  if (leads)
    report.Warning(
        "curver",
        where + " sends creation to " + Narrow(current) + ", which still names Main2's class.",
        fix);
  else
    report.Problem("curver",
                   where + " sends creation to " + Narrow(current) + ", which " +
                       (target.empty() ? "has no class id" : "names " + Narrow(target)) +
                       ", so Tabforge.Main2 does not create Main2.",
                   fix);
}

bool CheckClass(Context& c, Report& report) {
  const std::wstring key = com::ClassKey();
  const ClassesKey* owner = c.own.Owner(key);
  if (owner == nullptr) {
    std::string detail = Narrow(key) + " is not in the " + std::to_string(c.bits) +
                         "-bit registry view of the user's or the machine's classes";
    if (const ClassesKey* elsewhere = c.other.Owner(key))
      detail += ", only in " + elsewhere->Describe(key);
    report.Problem("class", detail + ".", c.registerHint);
    return false;
  }
  report.Ok("class", owner->Describe(key) + ".");
  return true;
}

void CheckServer(Context& c, Report& report) {
  const std::wstring key = com::ClassKey() + L"\\InprocServer32";
  std::string where;
  if (!c.own.Read(key, L"", c.server, &where) || c.server.empty()) {
    report.Problem("server-path",
                   "the class has no in-process server (" + Narrow(key) + " has no path).",
                   c.registerHint);
    return;
  }
  const std::string path = Narrow(c.server);
  const bool absolute = c.server.size() > 2 && (c.server[1] == L':' || c.server[0] == L'\\');
  if (absolute)
    report.Ok("server-path", where + " = " + path + ".");
  else
    report.Warning("server-path",
                   where + " = " + path + ", a path without its folder, which the loader looks " +
                       "for along the search path.",
                   "register the DLL again by its full path.");

  const DWORD attributes = ::GetFileAttributesW(c.server.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    report.Problem(
        "server-file", path + " does not exist (moved, deleted or never copied).",
        "put Tabforge.dll back at " + path + ", or register it where it is now: " + c.registerHint);
    return;
  }
  const PeHeader header = ReadPeHeader(c.server);
  if (header.machine == 0 || !header.IsDll()) {
    report.Problem("server-file", path + " is not a Windows DLL.", c.registerHint);
    return;
  }
  c.serverIsDll = true;
  report.Ok("server-file", path + " exists and is a DLL.");
  const WORD wanted = c.bits == 64 ? IMAGE_FILE_MACHINE_AMD64 : IMAGE_FILE_MACHINE_I386;
  if (header.machine != wanted)
    report.Problem("server-bitness",
                   path + " is " + Bitness(header.machine) + ", which a " + std::to_string(c.bits) +
                       "-bit word processor cannot load.",
                   "register the " + std::to_string(c.bits) + "-bit Tabforge.dll (" +
                       (c.bits == 64 ? "x64" : "x86") + ") for " + std::to_string(c.bits) +
                       "-bit word processors: " + c.registerHint);
  else
    report.Ok("server-bitness", path + " is " + Bitness(header.machine) + ".");
}

void CheckThreadingModel(const Context& c, Report& report) {
  const std::wstring key = com::ClassKey() + L"\\InprocServer32";
  std::wstring model;
  std::string where;
  const std::string fix = "set ThreadingModel to Apartment: register the DLL again.";
  if (!c.own.Read(key, L"ThreadingModel", model, &where)) {
    report.Problem("threading-model",
                   (where.empty() ? Narrow(key) : where) +
                       " has no ThreadingModel: COM then creates every instance in the "
                       "process's first apartment and calls it from there, not on the word "
                       "processor's thread.",
                   fix);
  } else if (!SameText(model, com::kThreadingModel)) {
    report.Problem("threading-model",
                   where + " has ThreadingModel " + Narrow(model) +
                       ", but Tabforge.dll is apartment-threaded (Apartment): its state is kept "
                       "per apartment and must only be called on the thread that created it.",
                   fix);
  } else {
    report.Ok("threading-model", "Apartment (" + where + ").");
  }
}

void CheckTypeLibrary(const Context& c, Report& report) {
  const std::wstring versionKey = com::TypeLibraryVersionKey();
  // A 64-bit program takes the win64 entry and falls back to win32.
  std::vector<std::wstring> platforms = {L"0\\win32"};
  if (c.bits == 64)
    platforms.insert(platforms.begin(), L"0\\win64");
  std::wstring file;
  std::string where;
  for (const auto& platform : platforms) {
    if (c.own.Read(versionKey + L"\\" + platform, L"", file, &where))
      break;
  }
  const std::string fix = "register the DLL again, which enters its type library.";
  if (file.empty()) {
    const std::wstring libraryKey = versionKey.substr(0, versionKey.find_last_of(L'\\'));
    const std::string missing =
        c.own.Owner(libraryKey) == nullptr ? Narrow(libraryKey)
        : c.own.Owner(versionKey) == nullptr
            ? Narrow(versionKey)
            : Narrow(versionKey) + "\\0\\" + (c.bits == 64 ? "win64" : "win32");
    report.Problem("typelib-entry",
                   "the type library is not registered (" + missing +
                       " is missing): the template's reference to Tabforge fails, and "
                       "_Main2 cannot be marshalled between apartments.",
                   fix);
    return;
  }
  report.Ok("typelib-entry", where + " = " + Narrow(file) + ".");

  if (::GetFileAttributesW(file.c_str()) == INVALID_FILE_ATTRIBUTES) {
    report.Problem("typelib-load", "the type library's file " + Narrow(file) + " does not exist.",
                   fix);
    return;
  }
  com::ComPtr<ITypeLib> library;
  const HRESULT hr = ::LoadTypeLibEx(file.c_str(), REGKIND_NONE, library.Put());
  TLIBATTR* attributes = nullptr;
  if (FAILED(hr) || FAILED(library->GetLibAttr(&attributes))) {
    report.Problem("typelib-load",
                   "the type library " + Narrow(file) + " does not load: " + HresultText(hr) + ".",
                   fix);
    return;
  }
  const bool same = ::IsEqualGUID(attributes->guid, LIBID_Tabforge) &&
                    attributes->wMajorVerNum == TABFORGE_VERSION_MAJOR &&
                    attributes->wMinorVerNum == TABFORGE_VERSION_MINOR;
  library->ReleaseTLibAttr(attributes);
  if (!same)
    report.Problem(
        "typelib-load",
        Narrow(file) + " holds another type library than Tabforge " + TABFORGE_VERSION_TEXT + ".",
        fix);
  else if (!c.server.empty() && !SameText(file, c.server))
    report.Warning("typelib-load",
                   "the type library loads from " + Narrow(file) + ", not from the class's " +
                       Narrow(c.server) + ": a leftover of another installation.",
                   fix);
  else
    report.Ok("typelib-load", Narrow(file) + " loads, Tabforge " + TABFORGE_VERSION_TEXT + ".");
}

void CheckInterface(const Context& c, Report& report) {
  const std::wstring key = com::InterfaceKey();
  const ClassesKey* owner = c.own.Owner(key);
  const std::string fix = "register the DLL again, which enters the interface.";
  if (owner == nullptr) {
    report.Problem("interface",
                   Narrow(key) + " is not in the " + std::to_string(c.bits) +
                       "-bit registry view: calls on _Main2 from another apartment fail.",
                   fix);
    return;
  }
  for (const auto& entry : com::ServerEntries(c.server)) {
    if (entry.key.rfind(key + L"\\", 0) != 0)
      continue;
    std::wstring value;
    const std::string name =
        owner->Describe(entry.key) + (entry.name.empty() ? "" : " value " + Narrow(entry.name));
    if (!owner->Read(entry.key, entry.name, value)) {
      report.Problem("interface", name + " is missing.", fix);
      return;
    }
    if (!SameText(value, entry.value)) {
      report.Problem("interface",
                     name + " is " + Narrow(value) + ", not " + Narrow(entry.value) + ".", fix);
      return;
    }
  }
  report.Ok("interface", owner->Describe(key) +
                             ": the automation marshaller, Tabforge's type "
                             "library.");
}

// The key that a registration adds below the classes root: CLSID\{...} for any key below it.
std::wstring TopKey(const std::wstring& key) {
  std::size_t end = key.find(L'\\');
  const std::wstring first = key.substr(0, end);
  if (end != std::wstring::npos &&
      (first == L"CLSID" || first == L"Interface" || first == L"TypeLib"))
    end = key.find(L'\\', end + 1);
  return key.substr(0, end);
}

// On Windows a key of the user's classes hides the machine's key of the same name: a user's
// registration left over from an older installation wins over a good machine one.
void CheckUserShadow(const Context& c, Report& report) {
  std::vector<com::RegistryEntry> entries = com::ServerEntries(L"");
  for (const wchar_t* platform : {L"\\0\\win32", L"\\0\\win64"})
    entries.push_back({com::TypeLibraryVersionKey() + platform, L"", L""});
  bool inUser = false;
  bool inBoth = false;
  for (const auto& entry : entries) {
    if (!c.own.user.Exists(entry.key))
      continue;
    inUser = true;
    if (!c.own.machine.Exists(entry.key))
      continue;
    inBoth = true;
    std::wstring user;
    std::wstring machine;
    const bool hasUser = c.own.user.Read(entry.key, entry.name, user);
    const bool hasMachine = c.own.machine.Read(entry.key, entry.name, machine);
    if (hasUser == hasMachine && SameText(user, machine))
      continue;
    const std::string value = entry.name.empty() ? "" : " value " + Narrow(entry.name);
    report.Problem(
        "user-shadow",
        c.own.user.Describe(entry.key) + value + " = " +
            (hasUser ? "\"" + Narrow(user) + "\"" : "nothing") + " hides the machine's " +
            (hasMachine ? "\"" + Narrow(machine) + "\"" : "nothing") +
            ": on Windows the word processor takes the user's entry.",
        "remove the user's registration (tabforge register --user --unregister PATH, or delete " +
            c.own.user.Describe(TopKey(entry.key)) + "), or register the right DLL for this user.");
    return;
  }
  report.Ok("user-shadow", inBoth   ? "the user's classes register Tabforge.Main2 too, and agree "
                                      "with the machine's."
                           : inUser ? "registered under the user's classes, and not the machine's."
                                    : "nothing of Tabforge.Main2 under the user's classes.");
}

void CheckOtherView(const Context& c, Report& report) {
  const std::wstring key = com::ClassKey();
  const ClassesKey* owner = c.other.Owner(key);
  const std::string others = OtherBits(c.bits) + "-bit word processors";
  if (owner == nullptr) {
    report.Ok("other-view", "the class is not registered for " + others + ".");
    return;
  }
  std::wstring path;
  c.other.Read(key + L"\\InprocServer32", L"", path);
  const PeHeader header = ReadPeHeader(path);
  const WORD wanted = c.bits == 64 ? IMAGE_FILE_MACHINE_I386 : IMAGE_FILE_MACHINE_AMD64;
  if (header.machine != wanted)
    report.Warning("other-view",
                   owner->Describe(key) + " names " + (path.empty() ? "no file" : Narrow(path)) +
                       ", which is not " + Bitness(wanted) + " that exists: " + others +
                       " cannot create the class.",
                   "register the " + OtherBits(c.bits) +
                       "-bit Tabforge.dll as well, or "
                       "unregister the stale entry.");
  else
    report.Ok("other-view", "registered for " + others + " too: " + Narrow(path) + ".");
}

void CheckVersionRecord(const Context& c, Report& report) {
  DWORD ignored = 0;
  const DWORD size = ::GetFileVersionInfoSizeW(c.server.c_str(), &ignored);
  std::vector<unsigned char> record(size);
  const std::string path = Narrow(c.server);
  if (size == 0 || !::GetFileVersionInfoW(c.server.c_str(), 0, size, record.data())) {
    report.Problem("version-record", path + " has no version record: it is not a Tabforge.dll.",
                   c.registerHint);
    return;
  }
  struct Translation {
    WORD language;
    WORD codePage;
  }* translation = nullptr;
  UINT length = 0;
  wchar_t table[64] = L"040904b0";
  if (::VerQueryValueW(record.data(), L"\\VarFileInfo\\Translation",
                       reinterpret_cast<void**>(&translation), &length) &&
      length >= sizeof *translation)
    std::swprintf(table, 64, L"%04x%04x", translation->language, translation->codePage);
  auto field = [&](const wchar_t* name) {
    const std::wstring query = std::wstring(L"\\StringFileInfo\\") + table + L"\\" + name;
    wchar_t* text = nullptr;
    UINT chars = 0;
    if (!::VerQueryValueW(record.data(), query.c_str(), reinterpret_cast<void**>(&text), &chars) ||
        text == nullptr)
      return std::wstring();
    return std::wstring(text);
  };
  const std::wstring product = field(L"ProductName");
  const std::wstring version = field(L"FileVersion");
  if (product != Wide(kProjectName)) {
    report.Problem("version-record",
                   path + " is \"" + Narrow(product) + "\" " + Narrow(version) + " (" +
                       Narrow(field(L"OriginalFilename")) + "), not Tabforge.",
                   c.registerHint);
  } else if (Narrow(version) != TABFORGE_VERSION_TEXT) {
    report.Warning("version-record",
                   path + " is Tabforge " + Narrow(version) + ", this tabforge.exe belongs to " +
                       TABFORGE_VERSION_TEXT + ".",
                   "use the tabforge.exe of the same release, or install this release's DLL.");
  } else {
    report.Ok("version-record", path + " is Tabforge " + Narrow(version) + ".");
  }
}

void CheckSignature(const Context& c, Report& report) {
  WINTRUST_FILE_INFO file{};
  file.cbStruct = sizeof file;
  file.pcwszFilePath = c.server.c_str();
  WINTRUST_DATA data{};
  data.cbStruct = sizeof data;
  data.dwUIChoice = WTD_UI_NONE;
  data.fdwRevocationChecks = WTD_REVOKE_NONE;
  data.dwUnionChoice = WTD_CHOICE_FILE;
  data.pFile = &file;
  data.dwStateAction = WTD_STATEACTION_VERIFY;
  GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
  const auto window = static_cast<HWND>(INVALID_HANDLE_VALUE);  // no window: never ask the user
  const LONG status = ::WinVerifyTrust(window, &action, &data);
  data.dwStateAction = WTD_STATEACTION_CLOSE;
  ::WinVerifyTrust(window, &action, &data);
  const std::string path = Narrow(c.server);
  // Only a policy of the word processor's refuses an unsigned library; COM loads it.
  if (status == ERROR_SUCCESS)
    report.Ok("signature", path + " is signed, and the signature is trusted.");
  else if (status == TRUST_E_NOSIGNATURE || status == TRUST_E_SUBJECT_FORM_UNKNOWN ||
           status == TRUST_E_PROVIDER_UNKNOWN)
    report.Warning("signature",
                   path +
                       " is not signed: a word processor that allows only add-ins signed by a "
                       "trusted publisher refuses it.",
                   "install a signed release, or sign the DLL with osslsigncode.");
  else
    report.Warning("signature",
                   path + " is signed, but the signature is not trusted here: " +
                       HresultText(static_cast<HRESULT>(status)) + ".",
                   "trust the publisher's certificate on this machine, or install a release "
                   "signed by a trusted publisher.");
}

std::string SettingName() {
  return "HKEY_CURRENT_USER\\" + Narrow(com::SettingsKey(kProjectName, kTraceSection)) + " value " +
         ToUtf8(kTraceKey);
}

void CheckTrace(Report& report) {
  const std::wstring key = com::SettingsKey(kProjectName, kTraceSection);
  const std::wstring name = Wide(kTraceKey);
  DWORD type = 0;
  const bool present = ::RegGetValueW(HKEY_CURRENT_USER, key.c_str(), name.c_str(), RRF_RT_ANY,
                                      &type, nullptr, nullptr) == ERROR_SUCCESS;
  const Utf16String value =
      com::WindowsHost().GetSetting(kProjectName, kTraceSection, kTraceKey, u"");
  const std::string setting = SettingName();
  if (!present)
    report.Ok("trace-setting", setting + " is not set: no tracing request from the settings.");
  else if (value == kTraceOn)
    report.Ok("trace-setting", setting +
                                   " = \"1\": tracing requested; the library builds "
                                   "parameter texts for its reports.");
  else
    report.Warning("trace-setting",
                   setting + " = " +
                       (type == REG_SZ ? "\"" + ToUtf8(value) + "\""
                                       : std::string("a value that is not text")) +
                       ", which is not the text \"1\": no tracing request.",
                   "tabforge trace on, or tabforge trace off.");

  const wchar_t* line = ::GetCommandLineW();
  const bool asked = line != nullptr && std::wcsstr(line, Wide(kTraceSwitch).c_str()) != nullptr;
  report.Ok("trace-command-line",
            asked ? "this command line has \"/trace\": the instance created below is asked for "
                    "tracing, as in a word processor started with /trace."
                  : "this command line has no \"/trace\" (--trace adds it); a word processor "
                    "started with /trace in its command line asks for tracing whatever the "
                    "setting.");
}

// The file that the process loaded for the class, among the entries that could have named it.
std::string LoadedFrom(const Context& c) {
  const std::wstring key = com::ClassKey() + L"\\InprocServer32";
  for (const ClassesKey* classes : {&c.own.user, &c.own.machine}) {
    std::wstring path;
    if (classes->Read(key, L"", path) && ::GetModuleHandleW(path.c_str()) != nullptr)
      return " from " + Narrow(path) + " (" + classes->Describe(key) + ")";
  }
  return "";
}

bool CheckCreation(const Context& c, Report& report) {
  if (c.bits != kOwnBits) {
    report.Warning("create",
                   "not tried: this tabforge.exe is " + std::to_string(kOwnBits) +
                       "-bit and cannot load a " + std::to_string(c.bits) + "-bit DLL.",
                   "run the " + std::to_string(c.bits) + "-bit tabforge.exe (tabforge-" +
                       (c.bits == 64 ? "x64" : "x86") + ".exe) doctor for a real creation.");
    return !report.HasProblem({"not-registered", "progid", "curver", "class", "server-path",
                               "server-file", "server-bitness", "version-record"});
  }
  // Wine's classes root is the machine's alone: a registration for the user is not seen there.
  auto failed = [&](const std::string& call, HRESULT hr, const std::wstring& key) {
    const bool userOnly = (hr == REGDB_E_CLASSNOTREG || hr == CO_E_CLASSSTRING) &&
                          c.own.user.Exists(key) && !c.own.machine.Exists(key);
    report.Problem(
        "create",
        call + " failed: " + HresultText(hr) +
            (userOnly ? "; " + Narrow(key) +
                            " is registered under the user's classes only, which this "
                            "system's COM does not read"
                      : "") +
            ".",
        userOnly ? "register it for the machine: " + c.registerHint : "see the problems above.");
    return false;
  };
  CLSID clsid{};
  HRESULT hr = ::CLSIDFromProgID(com::kProgId, &clsid);
  if (FAILED(hr))
    return failed("CLSIDFromProgID(\"Tabforge.Main2\")", hr, com::kProgId);
  com::ComPtr<IDispatch> main2;
  hr = ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, main2.PutVoid());
  if (FAILED(hr))
    return failed("CoCreateInstance of " + Narrow(com::GuidText(clsid)), hr, com::ClassKey());
  report.Ok("create", "created Tabforge.Main2" + LoadedFrom(c) + ".");
  try {
    LateBoundInitialize(main2.Get(), u"Morvelin");
    report.Ok("initialize", "Initialize with no signalling object and \"Morvelin\" returned.");
  } catch (const std::runtime_error& failure) {
    report.Problem("initialize", std::string(failure.what()) + ".",
                   "report this with the version record above.");
    return true;
  }
  try {
    const Utf16String document = LateBoundGetRibbonXml(main2.Get());
    if (document.empty())
      report.Problem("document", "GetRibbonXML gave an empty document.",
                     "report this with the version record above.");
    else
      report.Ok("document", "GetRibbonXML gave a document of " + std::to_string(document.size()) +
                                " characters.");
  } catch (const std::runtime_error& failure) {
    report.Problem("document", std::string(failure.what()) + ".",
                   "report this with the version record above.");
  }
  return true;
}

// --- tabforge trace -------------------------------------------------------------------------

// Deletes `path` below HKEY_CURRENT_USER when it holds no value and no key.
// Today's registration and creation checks for one bitness, into `report`; true when the class
// was created (or, for the other bitness, when nothing that creation needs has a problem).
bool CheckRegistration(int bits, Report& report) {
  const Views views = ViewsOf(bits == 64 ? IMAGE_FILE_MACHINE_AMD64 : IMAGE_FILE_MACHINE_I386);
  Context c{
      bits,
      {ClassesKey(HKEY_CURRENT_USER, views.own), ClassesKey(HKEY_LOCAL_MACHINE, views.own)},
      {ClassesKey(HKEY_CURRENT_USER, views.other), ClassesKey(HKEY_LOCAL_MACHINE, views.other)},
      {},
      false,
      "tabforge register --machine PATH\\" + std::string(bits == 64 ? "x64" : "x86") +
          "\\Tabforge.dll (or --user), regsvr32 of that DLL, or install Tabforge-" +
          (bits == 64 ? "x64" : "x86") + ".msi."};
  if (CheckRegistered(c, report)) {
    CheckProgId(c, report);
    if (CheckClass(c, report)) {
      CheckServer(c, report);
      if (c.own.Owner(com::ClassKey() + L"\\InprocServer32") != nullptr)
        CheckThreadingModel(c, report);
    }
    CheckTypeLibrary(c, report);
    CheckInterface(c, report);
    CheckUserShadow(c, report);
  }
  CheckOtherView(c, report);
  if (c.serverIsDll) {
    CheckVersionRecord(c, report);
    CheckSignature(c, report);
  }
  CheckTrace(report);
  return CheckCreation(c, report);
}

struct Examination {
  doctor::Diagnosis diagnosis;
  std::vector<doctor::Finding> findings;  // the doctor's checks, then the registration's
  bool created = false;
};

Examination Examine(const WindowsMachine& machine, const doctor::Options& options, int bits) {
  Examination e;
  // The log as the word processor left it, before the creation below adds a start of its own.
  std::vector<doctor::Finding> logFindings = LogFindings();
  e.diagnosis = doctor::Diagnose(machine, options);
  const int registrationBits = options.bits != 0           ? options.bits
                               : e.diagnosis.wordBits != 0 ? e.diagnosis.wordBits
                                                           : bits;
  Report report;
  e.created = CheckRegistration(registrationBits, report);
  e.findings = e.diagnosis.findings;
  for (const Finding& f : report.Findings())
    e.findings.push_back({f.check,
                          f.status == Status::kOk        ? doctor::Status::kOk
                          : f.status == Status::kWarning ? doctor::Status::kWarning
                                                         : doctor::Status::kProblem,
                          f.detail, f.fix});
  // Last, what the flight log says of the last start: evidence that the checks above cannot see
  // (a start that never reached the document, or took too long), which the verdict names when
  // nothing before it would hide the tab.
  for (doctor::Finding& finding : logFindings)
    e.findings.push_back(std::move(finding));
  // The registration of Word's bitness is one of --fix's repairs.
  if (report.HasProblem(
          {"not-registered", "progid", "class", "server-path", "server-file", "server-bitness"}))
    e.diagnosis.repairs.push_back(
        {doctor::Repairable::Kind::kRegistration, "", "", "", "", registrationBits});
  return e;
}

// The test template of the case files, for a Wine prefix set up by a script.
int WriteTestTemplate(const std::string& path, const std::vector<std::string>& changes) {
  try {
    const doctor::Bytes bytes = doctor::TemplateFromChanges(changes);
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    if (out)
      return 0;
    std::cerr << "tabforge doctor: cannot write " << path << "\n";
    return 1;
  } catch (const std::runtime_error& error) {
    std::cerr << "tabforge doctor: " << error.what() << "\n";
    return 2;
  }
}

}  // namespace

int Doctor(const std::vector<std::string>& args) {
  doctor::Options options;
  options.registration = false;
  bool json = false;
  bool fix = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--help" || args[i] == "-h") {
      std::cout << kDoctorUsage;
      return 0;
    }
    if (args[i] == "--bits" && i + 1 < args.size() &&
        (args[i + 1] == "32" || args[i + 1] == "64")) {
      options.bits = args[++i] == "32" ? 32 : 64;
    } else if (args[i] == "--write-template" && i + 1 < args.size()) {
      return WriteTestTemplate(args[i + 1],
                               {args.begin() + static_cast<std::ptrdiff_t>(i) + 2, args.end()});
    } else if (args[i] == "--template" && i + 1 < args.size()) {
      options.templatePath = args[++i];
    } else if (args[i] == "--json") {
      json = true;
    } else if (args[i] == "--fix") {
      fix = true;
    } else if (args[i] == "--trace" || args[i] == "/trace") {
      AskForTracingOnTheCommandLine();
    } else {
      std::cerr << "tabforge doctor: unexpected argument '" << args[i] << "'\n" << kDoctorUsage;
      return 2;
    }
  }
  com::ComApartment apartment;
  WindowsMachine machine;
  Examination e = Examine(machine, options, kOwnBits);
  if (fix) {
    for (const std::string& line : doctor::Repair(machine, e.diagnosis))
      (json ? std::cerr : std::cout) << "fix: " << line << "\n";
    e = Examine(machine, options, kOwnBits);
  }
  std::cout << doctor::Report(e.findings, json);
  // As before, a problem of the registration that creation survives leaves the status 0.
  return e.created && doctor::FirstProblem(e.diagnosis.findings) == nullptr ? 0 : 1;
}

int Trace(const std::vector<std::string>& args) {
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    std::cout << kTraceUsage;
    return 0;
  }
  if (args.size() != 1 || (args[0] != "on" && args[0] != "off" && args[0] != "show")) {
    std::cerr << "tabforge trace: say on, off or show\n" << kTraceUsage;
    return 2;
  }
  const std::wstring key = com::SettingsKey(kProjectName, kTraceSection);
  const std::wstring name = Wide(kTraceKey);
  if (args[0] == "on") {
    const std::wstring on = Wide(kTraceOn);
    if (::RegSetKeyValueW(HKEY_CURRENT_USER, key.c_str(), name.c_str(), REG_SZ, on.c_str(),
                          static_cast<DWORD>((on.size() + 1) * sizeof(wchar_t))) != ERROR_SUCCESS) {
      std::cerr << "tabforge trace: cannot write " << SettingName() << "\n";
      return 1;
    }
  } else if (args[0] == "off") {
    const LSTATUS status = ::RegDeleteKeyValueW(HKEY_CURRENT_USER, key.c_str(), name.c_str());
    if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
      std::cerr << "tabforge trace: cannot remove " << SettingName() << "\n";
      return 1;
    }
    com::DeleteKeyIfEmpty(HKEY_CURRENT_USER, key);
    com::DeleteKeyIfEmpty(HKEY_CURRENT_USER, key.substr(0, key.find_last_of(L'\\')));
  }
  const Utf16String value =
      com::WindowsHost().GetSetting(kProjectName, kTraceSection, kTraceKey, u"");
  std::cout << "tracing " << (value == kTraceOn ? "on" : "off") << ": " << SettingName()
            << (value.empty() ? " is not set" : " = \"" + ToUtf8(value) + "\"") << "\n";
  return 0;
}

}  // namespace tabforge::cli
