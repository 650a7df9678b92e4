// Accessible trees from the input handed to activateMorvelinTab with tiny search bounds: every
// search ends, presses at most one element, and leaves no tracked procedure on the stack.
//
// Input: the tree in the text format up to the first NUL byte. Behind it a mode byte (bit 0: an
// error component is registered; bits 1-3: its answer) and then operations of three bytes each
// (operation, element a, value b) that the text format cannot write: links that close cycles,
// parent pointers that lie, failing members, wrong child counts, simple children, renames, states.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string_view>
#include <vector>

#include "accessibility/accessible_tree.h"
#include "doubles/recording_component.h"
#include "fuzz/input_bytes.h"
#include "platform/portable/portable_platform.h"
#include "ribbon/main2.h"
#include "tracing/vbw_protector.h"

namespace tabforge::fuzzing {
namespace {

using namespace std::chrono_literals;

constexpr Utf16View kMembers[] = {u"accRole",       u"accName",           u"accState",
                                  u"accChildCount", u"accChildren",       u"accParent",
                                  u"accNavigate",   u"accDoDefaultAction"};
constexpr Utf16View kNames[] = {u"Morvelin", u"Ribbon", u"Ribbon Tabs", u"", u"Home", u"morvelin"};
constexpr std::int32_t kRoles[] = {kRolePropertyPage, kRolePageTab,  kRolePageTabList, kRoleClient,
                                   kRoleToolBar,      kRoleGrouping, kRolePushButton,  0};
constexpr std::size_t kMaxOperations = 64;

void Apply(std::vector<AccessibleElement*>& elements, InputBytes& input) {
  const std::uint8_t operation = input.Byte();
  AccessibleElement& a = *elements[input.Byte() % elements.size()];
  const std::uint8_t b = input.Byte();
  AccessibleElement& other = *elements[b % elements.size()];
  switch (operation % 9) {
    case 0:
      a.AddLink(other);
      break;
    case 1:
      a.SetParent(&other);
      break;
    case 2:
      a.SetParent(nullptr);
      break;
    case 3:
      a.SetFailing(kMembers[b % std::size(kMembers)]);
      break;
    case 4:
      a.SetReportedChildCount(static_cast<std::int32_t>(b) - 16);
      break;
    case 5:
      a.AddSimpleChild(b);
      break;
    case 6:
      a.SetName(Utf16String(kNames[b % std::size(kNames)]));
      break;
    case 7:
      a.SetState(static_cast<std::int32_t>(b) << (operation % 4 * 8));
      break;
    default: {
      auto child = MakeRef<AccessibleElement>(kRoles[b % std::size(kRoles)],
                                              Utf16String(kNames[(b / 8) % std::size(kNames)]));
      elements.push_back(child.get());
      a.Add(std::move(child));
      break;
    }
  }
}

void RunOne(std::string_view data) {
  const std::size_t end = std::min(data.find('\0'), data.size());
  ParsedTree tree = ParseAccessibleTree(data.substr(0, end));
  if (!tree.root)
    return;
  const std::string_view tail = end < data.size() ? data.substr(end + 1) : std::string_view();
  InputBytes input({reinterpret_cast<const std::uint8_t*>(tail.data()), tail.size()});

  PortablePlatform platform;
  const std::uint8_t mode = input.Byte();
  if ((mode & 1) != 0) {
    auto script = testing::InstallRecordingComponent(platform.objects);
    script->fallback = kAnswers[(mode >> 1) % std::size(kAnswers)];
  }
  VbwProtector protector(platform.View());
  protector.vbwInitializeProtector();

  std::vector<AccessibleElement*> elements;
  tree.root->VisitAll([&](AccessibleElement& element) { elements.push_back(&element); });
  for (std::size_t i = 0; i < kMaxOperations && 3 * i + 3 < tail.size(); ++i)
    Apply(elements, input);

  Main2 main2(protector);
  main2.Initialize(nullptr, u"Morvelin");
  main2.SetTabSearchLimits({.timeBudget = 20ms,
                            .maxAttemptsPerStage = 5,
                            .walk = {.maxDepth = 32, .maxElements = 2000}});
  main2.activateMorvelinTab(Ref<Object>(tree.root));
  Expect(protector.Depth() == 0, "activateMorvelinTab left depth %d", protector.Depth());
  // A press that failed may be tried again; it is still the one element.
  const auto pressed =
      std::count_if(elements.begin(), elements.end(),
                    [](AccessibleElement* element) { return element->presses() > 0; });
  Expect(pressed <= 1, "activateMorvelinTab pressed %d elements", static_cast<int>(pressed));
}

}  // namespace
}  // namespace tabforge::fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tabforge::fuzzing::RunOne({reinterpret_cast<const char*>(data), size});
  return 0;
}
