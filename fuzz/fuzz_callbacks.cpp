// Every ribbon callback of an initialised, connected Main2 with id texts from the input. Whatever
// the texts, the error component's answers or the failing statements, every call returns, leaves
// no tracked procedure on the stack, and calls the component no more often than one outside call's
// budget allows.
//
// Input, front to back: the mode byte; with a scripted component the number of answers, the answers
// and the fallback answer (one byte each), and for a faulty one a byte of flags; with injected
// faults their number, the statement positions (two bytes each) and the failure; the length of
// the icon bytes (two bytes) and the icon bytes; the rest is id texts, one a line, in UTF-8 or as
// raw UTF-16 units.
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "doubles/recording_component.h"
#include "doubles/recording_ribbon.h"
#include "doubles/recording_signaller.h"
#include "fuzz/input_bytes.h"
#include "platform/failure.h"
#include "platform/portable/portable_platform.h"
#include "ribbon/main2.h"
#include "tracing/procedure.h"
#include "tracing/vbw_protector.h"

namespace tabforge::fuzzing {
namespace {

// The mode byte.
constexpr std::uint8_t kComponentMask = 0x03;  // 0 none, 1 answers 7, 2 scripted, 3 scripted+faulty
constexpr std::uint8_t kTracing = 0x04;
constexpr std::uint8_t kRibbonFails = 0x08;
constexpr std::uint8_t kSignallerFails = 0x10;
constexpr std::uint8_t kInjectFaults = 0x20;
constexpr std::uint8_t kUtf16 = 0x40;
constexpr std::uint8_t kToggles = 0x80;

// Fails the statements at the chosen positions in the order statements start.
class VisitFaults final : public tracing::FaultInjector {
 public:
  void OnStatement(const tracing::ProcedureInfo&, int, tracing::FailureMode) override {
    if (failAt.count(visits++) != 0)
      Raise(number, u"injected");
  }
  std::set<std::uint32_t> failAt;
  std::int32_t number = 5;
  std::uint32_t visits = 0;
};

// At most this many id texts an input: each costs a dozen outside calls, and each of those may
// spend its whole budget on a component that answers "retry" or "write a dump" for ever. Sixteen
// ids with the product's budget took 34 s under the sanitizers (the input dump-forever), each call
// within its bound; so an input has fewer calls, and each a tenth of the budget, which exercises
// the same mechanism and keeps an input far below the unit time limit.
constexpr std::size_t kMaxIds = 6;

std::vector<Utf16String> IdTexts(InputBytes& input, bool utf16) {
  const std::vector<std::uint8_t> bytes = input.Rest();
  Utf16String all;
  if (utf16) {
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2)
      all.push_back(static_cast<char16_t>(bytes[i] | (bytes[i + 1] << 8)));
  } else {
    all = FromUtf8(std::string(bytes.begin(), bytes.end()));
  }
  std::vector<Utf16String> ids;
  for (std::size_t start = 0, end = 0; end != Utf16String::npos && ids.size() < kMaxIds;
       start = end + 1) {
    end = all.find(u'\n', start);
    ids.push_back(all.substr(start, end - start));
  }
  return ids;
}

void RunOne(InputBytes& input) {
  const std::uint8_t mode = input.Byte();

  PortablePlatform platform;
  if ((mode & kTracing) != 0)
    platform.host.SetSetting(kProjectName, u"Init", u"vbwTrace", u"1");
  std::shared_ptr<testing::ComponentScript> script;
  if ((mode & kComponentMask) != 0) {
    script = testing::InstallRecordingComponent(platform.objects);
    if ((mode & kComponentMask) >= 2) {
      const int count = input.Below(13);
      for (int i = 0; i < count; ++i)
        script->answers.emplace_back(kAnswers[input.Below(8)]);
      script->fallback = kAnswers[input.Below(8)];
    }
    if ((mode & kComponentMask) == 3) {
      const std::uint8_t flags = input.Byte();
      script->failOpenDump = (flags & 1) != 0;
      script->failInitialize = (flags & 2) != 0;
    }
  }
  VbwProtector protector(platform.View());
  protector.budget.limits = {.maxCollaboratorCalls = 500,
                             .maxOwnTime = std::chrono::milliseconds(25)};
  protector.vbwInitializeProtector();
  VisitFaults faults;
  if ((mode & kInjectFaults) != 0) {
    const int count = 1 + input.Below(4);
    for (int i = 0; i < count; ++i)
      faults.failAt.insert(input.Word() % 3000u);
    faults.number = kAnswers[input.Below(8)] + 4;
    protector.SetFaultInjector(&faults);
  }
  std::vector<std::string> log;
  auto signaller = MakeRef<testing::RecordingSignaller>(&log);
  const std::vector<std::uint8_t> iconBits = input.Take(input.Word());
  if (!iconBits.empty())
    signaller->fallback = Variant(VarType::VT_UI1, MakeArray(iconBits));
  signaller->fail = (mode & kSignallerFails) != 0;
  auto ribbon = MakeRef<testing::RecordingRibbon>(&log);
  ribbon->fail = (mode & kRibbonFails) != 0;

  auto check = [&](const char* member) {
    Expect(protector.Depth() == 0, "%s left depth %d", member, protector.Depth());
    const std::size_t componentCalls = script ? script->log.size() : 0;
    Expect(componentCalls <= static_cast<std::size_t>(protector.budget.limits.maxCollaboratorCalls),
           "%s called the component %zu times", member, componentCalls);
    log.clear();
    signaller->asked.clear();
    if (script)
      script->log.clear();
  };

  Main2 main2(protector);
  main2.Initialize(signaller, u"Morvelin");
  check("Initialize");
  main2.ribbon(ribbon);
  check("ribbon");

  bool on = false;
  const bool toggles = (mode & kToggles) != 0;
  for (const Utf16String& id : IdTexts(input, (mode & kUtf16) != 0)) {
    on = !on;
    const VariantBool state = on ? kTrue : kFalse;
    // The member, whether it is one of the toggles that the mode byte may leave out, the call.
    const std::tuple<const char*, bool, std::function<void()>> calls[] = {
        {"GetLabel", false, [&] { main2.GetLabel(id); }},
        {"GetEnabled", false, [&] { main2.GetEnabled(id); }},
        {"GetPressed", false, [&] { main2.GetPressed(id); }},
        {"GetScreentip", false, [&] { main2.GetScreentip(id); }},
        {"GetImage", false, [&] { main2.GetImage(id); }},
        {"LoadImage", false, [&] { main2.LoadImage(id); }},
        {"RibbonCallback", false, [&] { main2.RibbonCallback(id, state); }},
        {"EnableToolbar", true, [&] { main2.EnableToolbar(on ? kFalse : kTrue); }},
        {"EnableGotoQuickBookmark", true, [&] { main2.EnableGotoQuickBookmark(state); }},
        {"UpdateLexoscopeIcon", true, [&] { main2.UpdateLexoscopeIcon(state); }},
        {"productNameChanged", false, [&] { main2.productNameChanged(id); }},
        {"Initialize", false, [&] { main2.Initialize(signaller, id); }},
        {"GetRibbonXML", false, [&] { main2.GetRibbonXML(); }}};
    for (const auto& [member, toggle, call] : calls) {
      if (toggles || !toggle) {
        call();
        check(member);
      }
    }
  }
}

}  // namespace
}  // namespace tabforge::fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tabforge::fuzzing::InputBytes input({data, size});
  tabforge::fuzzing::RunOne(input);
  return 0;
}
