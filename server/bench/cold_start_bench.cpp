// What a word processor pays when it opens a document with the add-in: in a fresh process, the
// registered "Tabforge.Main2" is created (which loads the DLL), initialised with a signalling
// object that hands out the icons' bytes, asked for its ribbon document, and then asked what the
// first paint needs: every control's GetEnabled, GetLabel, GetPressed and GetScreentip, and every
// picture (GetImage, and LoadImage for each image the document names). Beside it, the floor:
// creating the platform's "Scripting.Dictionary" the same way and decoding the same icons with bare
// GDI+, from the loading of gdiplus.dll to one bitmap handle each.
//
// Each measurement is a process of its own, so that nothing is warm but what the system keeps
// warm for every program. Run with the icons' folder, the program starts itself again and again,
// Tabforge and the floor taking turns, and reports the medians and the median of the rounds'
// ratios: the machines are shared and noisy, and a slow spell falls on both of a round alike.
//
//   cold_start_bench ICONS [ROUNDS]           the driver
//   cold_start_bench --tabforge ICONS         one Tabforge start: its parts in ms and its icons
//   cold_start_bench --floor ICONS N...       one floor start for the icons numbered N...
#include <windows.h>

#include <objidl.h>
#include <ole2.h>
#include <olectl.h>
#include <propidl.h>
#include <shellapi.h>

#include <gdiplus.h>
#undef LoadImage

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <map>
#include <string>
#include <vector>

#include "Tabforge_h.h"
#include "server/bench/bench_check.h"
#include "server/bench/stand_in_dispatch.h"
#include "server/com_ptr.h"

namespace {

using tabforge::com::ComApartment;
using tabforge::com::ComPtr;
using tabforge::com::OwnedOrEmpty;
using tabforge::com::UniqueBstr;
using tabforge::com::UniqueFile;
using tabforge::com::UniqueFind;
using tabforge::com::UniqueHBitmap;
using tabforge::com::UniqueKernelHandle;
using tabforge::com::UniqueLocal;
using tabforge::com::UniqueVariant;

constexpr int kDefaultRounds = 15;

bool Check(HRESULT hr, const char* what) {
  return CheckCall("cold_start_bench", hr, what);
}

double Now() {
  LARGE_INTEGER frequency;
  LARGE_INTEGER count;
  ::QueryPerformanceFrequency(&frequency);
  ::QueryPerformanceCounter(&count);
  return static_cast<double>(count.QuadPart) * 1e3 / static_cast<double>(frequency.QuadPart);
}

// The bytes of every icon in `folder` (N.png or N.gif), by number, read before any timing.
std::map<int, std::string> ReadIcons(const std::wstring& folder) {
  std::map<int, std::string> icons;
  for (const wchar_t* pattern : {L"\\*.png", L"\\*.gif"}) {
    WIN32_FIND_DATAW found;
    const UniqueFind search(OwnedOrEmpty(::FindFirstFileW((folder + pattern).c_str(), &found)));
    if (!search)
      continue;
    do {
      const UniqueFile file(
          OwnedOrEmpty(::CreateFileW((folder + L"\\" + found.cFileName).c_str(), GENERIC_READ,
                                     FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr)));
      if (!file)
        continue;
      std::string bytes(found.nFileSizeLow, '\0');
      DWORD read = 0;
      if (::ReadFile(file.Get(), bytes.data(), found.nFileSizeLow, &read, nullptr) &&
          read == found.nFileSizeLow)
        icons.emplace(_wtoi(found.cFileName), std::move(bytes));
    } while (::FindNextFileW(search.Get(), &found));
  }
  return icons;
}

// The template's signalling object: getToolbarIconBits(number) answers the icon's bytes as a
// byte array, and writes down which icons it handed out.
class Signaller final : public StandInDispatch {
 public:
  explicit Signaller(const std::map<int, std::string>& icons) : icons_(icons) {}

  std::vector<int> handedOut;

  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID,
                                          DISPID* ids) override {
    for (UINT i = 0; i < count; ++i)
      ids[i] = _wcsicmp(names[i], L"getToolbarIconBits") == 0 ? 1 : DISPID_UNKNOWN;
    return count == 1 && ids[0] == 1 ? S_OK : DISP_E_UNKNOWNNAME;
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params,
                                   VARIANT* result, EXCEPINFO*, UINT*) override {
    if (id != 1)
      return DISP_E_MEMBERNOTFOUND;
    if (params == nullptr || params->cArgs != 1)
      return DISP_E_BADPARAMCOUNT;
    UniqueVariant number;
    if (FAILED(::VariantCopyInd(number.Get(), &params->rgvarg[0])) ||
        FAILED(::VariantChangeType(number.Get(), number.Get(), 0, VT_I4)))
      return DISP_E_TYPEMISMATCH;
    const auto icon = icons_.find(V_I4(number.Get()));
    if (icon == icons_.end())
      return DISP_E_BADINDEX;
    handedOut.push_back(icon->first);
    if (result == nullptr)
      return S_OK;
    SAFEARRAY* bytes = ::SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(icon->second.size()));
    if (bytes == nullptr)
      return E_OUTOFMEMORY;
    std::copy(icon->second.begin(), icon->second.end(), static_cast<char*>(bytes->pvData));
    V_VT(result) = VT_ARRAY | VT_UI1;
    V_ARRAY(result) = bytes;
    return S_OK;
  }

 private:
  const std::map<int, std::string>& icons_;
};

// What the first paint asks about one element of the document.
struct Control {
  std::wstring id;
  bool enabled = false;
  bool label = false;
  bool picture = false;
  bool pressed = false;
  bool screentip = false;
  std::wstring image;  // the number of image="N", for LoadImage
};

// The value of attribute `name` in the start tag `tag`, or nothing.
std::wstring Attribute(const std::wstring& tag, const wchar_t* name) {
  const std::wstring key = std::wstring(L" ") + name + L"=\"";
  const std::size_t start = tag.find(key);
  if (start == std::wstring::npos)
    return {};
  const std::size_t from = start + key.size();
  return tag.substr(from, tag.find(L'"', from) - from);
}

// The elements of the document that ask for anything, in document order.
std::vector<Control> Controls(const std::wstring& document) {
  std::vector<Control> controls;
  for (std::size_t at = document.find(L'<'); at != std::wstring::npos;
       at = document.find(L'<', at + 1)) {
    const std::wstring tag = document.substr(at, document.find(L'>', at) - at);
    Control control{Attribute(tag, L"id"),
                    !Attribute(tag, L"getEnabled").empty(),
                    !Attribute(tag, L"getLabel").empty(),
                    !Attribute(tag, L"getImage").empty(),
                    !Attribute(tag, L"getPressed").empty(),
                    !Attribute(tag, L"getScreentip").empty(),
                    Attribute(tag, L"image")};
    if (control.enabled || control.label || control.picture || control.pressed ||
        control.screentip || !control.image.empty())
      controls.push_back(std::move(control));
  }
  return controls;
}

// One Tabforge start: its parts in milliseconds, the pictures asked for and made, and the numbers
// of the icons that the signaller handed out.
struct TabforgeTimes {
  double create = -1;  // CLSIDFromProgID and CoCreateInstance, which loads the DLL
  double initialize = 0;
  double document = 0;  // GetRibbonXML
  double paint = 0;
  int requests = 0;
  int pictures = 0;
  std::vector<int> icons;
};

TabforgeTimes TabforgeStart(const std::map<int, std::string>& iconBytes) {
  TabforgeTimes times;
  TabforgeTimes failed;
  Signaller signaller(iconBytes);
  ComPtr<_Main2> main;
  UniqueBstr document;
  const double start = Now();
  CLSID clsid{};
  if (!Check(::CLSIDFromProgID(L"Tabforge.Main2", &clsid), "CLSIDFromProgID") ||
      !Check(::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID__Main2, main.PutVoid()),
             "CoCreateInstance of Tabforge.Main2"))
    return failed;
  const double created = Now();
  IDispatch* handed = &signaller;
  UniqueBstr name(::SysAllocString(L"Morvelin"));
  if (!Check(main->Initialize(&handed, name.InOut()), "Initialize"))
    return failed;
  const double initialized = Now();
  if (!Check(main->GetRibbonXML(document.Put()), "GetRibbonXML"))
    return failed;
  const double asked = Now();
  // Reading the document is the word processor's work, left out of the time.
  const std::vector<Control> controls =
      Controls(std::wstring(document.Get(), ::SysStringLen(document.Get())));
  std::vector<ComPtr<IPictureDisp>> made;
  const double paint = Now();
  for (const Control& control : controls) {
    UniqueBstr id(::SysAllocString(control.id.c_str()));
    VARIANT_BOOL enabled = VARIANT_FALSE;
    if (control.enabled && !Check(main->get_GetEnabled(id.InOut(), &enabled), "GetEnabled"))
      return failed;
    UniqueBstr label;
    if (control.label && !Check(main->get_GetLabel(id.InOut(), label.Put()), "GetLabel"))
      return failed;
    VARIANT_BOOL pressed = VARIANT_FALSE;
    if (control.pressed && !Check(main->get_GetPressed(id.InOut(), &pressed), "GetPressed"))
      return failed;
    UniqueBstr tip;
    if (control.screentip && !Check(main->get_GetScreentip(id.InOut(), tip.Put()), "GetScreentip"))
      return failed;
    if (control.picture) {
      made.emplace_back();
      if (!Check(main->get_GetImage(id.InOut(), made.back().Put()), "GetImage"))
        return failed;
    }
    if (!control.image.empty()) {
      UniqueBstr number(::SysAllocString(control.image.c_str()));
      made.emplace_back();
      if (!Check(main->LoadImage(number.InOut(), made.back().Put()), "LoadImage"))
        return failed;
    }
  }
  const double end = Now();
  times.create = created - start;
  times.initialize = initialized - created;
  times.document = asked - initialized;
  times.paint = end - paint;
  times.requests = static_cast<int>(made.size());
  times.pictures = static_cast<int>(
      std::count_if(made.begin(), made.end(), [](const auto& picture) { return picture.Get(); }));
  times.icons = signaller.handedOut;
  return times;
}

template <class F>
F Export(HMODULE module, const char* name) {
  return reinterpret_cast<F>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

// One floor start for the icons numbered `icons`, in milliseconds (negative on a failure).
double FloorStart(const std::map<int, std::string>& iconBytes, const std::vector<int>& icons) {
  for (int number : icons) {
    if (iconBytes.count(number) == 0) {
      std::fprintf(stderr, "cold_start_bench: no icon numbered %d\n", number);
      return -1;
    }
  }
  ComPtr<IDispatch> dictionary;
  std::vector<UniqueHBitmap> bitmaps;
  const double start = Now();
  CLSID clsid{};
  if (!Check(::CLSIDFromProgID(L"Scripting.Dictionary", &clsid), "CLSIDFromProgID") ||
      !Check(::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch,
                                dictionary.PutVoid()),
             "CoCreateInstance of Scripting.Dictionary"))
    return -1;
  HMODULE gdiplus = ::LoadLibraryW(L"gdiplus.dll");
  const auto startup = Export<decltype(&Gdiplus::GdiplusStartup)>(gdiplus, "GdiplusStartup");
  const auto fromStream = Export<decltype(&Gdiplus::DllExports::GdipCreateBitmapFromStream)>(
      gdiplus, "GdipCreateBitmapFromStream");
  const auto toBitmap = Export<decltype(&Gdiplus::DllExports::GdipCreateHBITMAPFromBitmap)>(
      gdiplus, "GdipCreateHBITMAPFromBitmap");
  const auto dispose =
      Export<decltype(&Gdiplus::DllExports::GdipDisposeImage)>(gdiplus, "GdipDisposeImage");
  const auto shutdown = Export<decltype(&Gdiplus::GdiplusShutdown)>(gdiplus, "GdiplusShutdown");
  Gdiplus::GdiplusStartupInput input;
  ULONG_PTR token = 0;
  if (!startup || !fromStream || !toBitmap || !dispose || !shutdown ||
      startup(&token, &input, nullptr) != Gdiplus::Ok) {
    std::fprintf(stderr, "cold_start_bench: GDI+ did not start\n");
    return -1;
  }
  for (int number : icons) {
    const std::string& bytes = iconBytes.at(number);
    HGLOBAL block = ::GlobalAlloc(GMEM_MOVEABLE, bytes.size());
    if (block == nullptr)
      return -1;
    std::copy(bytes.begin(), bytes.end(), static_cast<char*>(::GlobalLock(block)));
    ::GlobalUnlock(block);
    ComPtr<IStream> stream;
    if (!Check(::CreateStreamOnHGlobal(block, TRUE, stream.Put()), "CreateStreamOnHGlobal"))
      return -1;
    Gdiplus::GpBitmap* bitmap = nullptr;
    HBITMAP handle = nullptr;
    const bool decoded = fromStream(stream.Get(), &bitmap) == Gdiplus::Ok &&
                         toBitmap(bitmap, &handle, 0) == Gdiplus::Ok;
    if (bitmap != nullptr)
      dispose(bitmap);
    if (!decoded) {
      std::fprintf(stderr, "cold_start_bench: GDI+ could not decode icon %d\n", number);
      return -1;
    }
    bitmaps.emplace_back(handle);
  }
  const double end = Now();
  bitmaps.clear();
  shutdown(token);
  return end - start;
}

// The output of one fresh process of this program with `arguments`, and the process's own time
// from creation to its end in `wall`; empty when it failed.
std::string RunChild(const std::wstring& arguments, double& wall) {
  wchar_t self[MAX_PATH * 2] = {};
  ::GetModuleFileNameW(nullptr, self, MAX_PATH * 2);
  std::wstring command = L"\"" + std::wstring(self) + L"\" " + arguments;
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  UniqueKernelHandle readEnd;
  UniqueKernelHandle writeEnd;
  if (!::CreatePipe(readEnd.Put(), writeEnd.Put(), &inherit, 0))
    return {};
  ::SetHandleInformation(readEnd.Get(), HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = writeEnd.Get();
  startup.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
  startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
  PROCESS_INFORMATION process{};
  const double start = Now();
  const bool created = ::CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                        nullptr, &startup, &process);
  // The child holds its own copy of the write end: the reads below end when the child does.
  writeEnd.Reset();
  if (!created)
    return {};
  const UniqueKernelHandle thread(process.hThread);
  const UniqueKernelHandle child(process.hProcess);
  std::string output;
  char buffer[4096];
  DWORD read = 0;
  while (::ReadFile(readEnd.Get(), buffer, sizeof buffer, &read, nullptr) && read > 0)
    output.append(buffer, read);
  ::WaitForSingleObject(child.Get(), INFINITE);
  wall = Now() - start;
  DWORD status = 1;
  ::GetExitCodeProcess(child.Get(), &status);
  if (status != 0)
    output.clear();
  return output;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

int Drive(const std::wstring& icons, int rounds) {
  // Tabforge's parts (create, Initialize, GetRibbonXML, paint) and whole time, and the floor's.
  std::vector<std::vector<double>> parts(4);
  std::vector<double> ours;
  std::vector<double> floors;
  std::vector<double> ratios;
  std::vector<double> oursWall;
  std::vector<double> floorsWall;
  std::wstring numbers;
  int requests = 0;
  int pictures = 0;
  int iconCount = 0;
  for (int round = 0; round < rounds; ++round) {
    double wall = 0;
    const std::string answer = RunChild(L"--tabforge \"" + icons + L"\"", wall);
    double part[4] = {};
    int offset = 0;
    if (std::sscanf(answer.c_str(), "%lf %lf %lf %lf %d %d%n", &part[0], &part[1], &part[2],
                    &part[3], &requests, &pictures, &offset) != 6) {
      std::fprintf(stderr, "cold_start_bench: a Tabforge start failed\n");
      return 1;
    }
    if (round == 0) {
      // The icons of the first start, the same in every start, are the floor's to decode.
      const char* rest = answer.c_str() + offset;
      for (int number = 0, used = 0; std::sscanf(rest, "%d%n", &number, &used) == 1;
           rest += used, ++iconCount)
        numbers += L" " + std::to_wstring(number);
    }
    for (int p = 0; p < 4; ++p)
      parts[p].push_back(part[p]);
    ours.push_back(part[0] + part[1] + part[2] + part[3]);
    oursWall.push_back(wall);
    const std::string floorAnswer = RunChild(L"--floor \"" + icons + L"\"" + numbers, wall);
    double floor = 0;
    if (std::sscanf(floorAnswer.c_str(), "%lf", &floor) != 1) {
      std::fprintf(stderr, "cold_start_bench: a floor start failed\n");
      return 1;
    }
    floors.push_back(floor);
    floorsWall.push_back(wall);
    ratios.push_back(ours.back() / floors.back());
  }
  std::printf(
      "%d rounds of one fresh process each, taking turns; medians in ms, and of the rounds' "
      "ratios\n",
      rounds);
  std::printf(
      "Tabforge: create Main2, Initialize, GetRibbonXML, first paint (%d picture requests, %d "
      "pictures, %d icons)\n",
      requests, pictures, iconCount);
  std::printf(
      "floor:    create Scripting.Dictionary, load and start GDI+, decode the same %d icons\n",
      iconCount);
  std::printf("%-18s %12s %12s %7s\n", "", "Tabforge", "floor", "ratio");
  std::printf("%-18s %9.2f ms %9.2f ms %7.2f\n", "cold start", Median(ours), Median(floors),
              Median(ratios));
  std::printf("%-18s %9.2f ms %9.2f ms\n", "whole process", Median(oursWall), Median(floorsWall));
  const char* names[] = {"  create Main2", "  Initialize", "  GetRibbonXML", "  first paint"};
  for (int p = 0; p < 4; ++p)
    std::printf("%-18s %9.2f ms\n", names[p], Median(parts[p]));
  return 0;
}

}  // namespace

int main() {
  int count = 0;
  LPWSTR* args = ::CommandLineToArgvW(::GetCommandLineW(), &count);
  const UniqueLocal argsBlock(args);
  if (args == nullptr || count < 2) {
    std::fprintf(stderr, "usage: cold_start_bench ICONS [ROUNDS]\n");
    return 2;
  }
  const std::wstring mode = args[1];
  if (mode != L"--tabforge" && mode != L"--floor") {
    const int rounds = count > 2 ? _wtoi(args[2]) : kDefaultRounds;
    return Drive(args[1], std::max(rounds, 1));
  }
  if (count < 3)
    return 2;
  const std::map<int, std::string> iconBytes = ReadIcons(args[2]);
  std::vector<int> icons;
  for (int i = 3; i < count; ++i)
    icons.push_back(_wtoi(args[i]));
  const ComApartment apartment;
  if (!Check(apartment.Result(), "CoInitialize"))
    return 1;
  int status = 1;
  if (mode == L"--floor") {
    const double ms = FloorStart(iconBytes, icons);
    if (ms >= 0) {
      std::printf("%.3f\n", ms);
      status = 0;
    }
  } else {
    const TabforgeTimes times = TabforgeStart(iconBytes);
    if (times.create >= 0) {
      std::printf("%.3f %.3f %.3f %.3f %d %d", times.create, times.initialize, times.document,
                  times.paint, times.requests, times.pictures);
      for (int number : times.icons)
        std::printf(" %d", number);
      std::printf("\n");
      status = 0;
    }
  }
  return status;
}
