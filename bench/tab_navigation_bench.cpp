// What bringing the add-in's tab to the front costs on a ribbon of realistic size, beside a plain
// untracked walk that makes the same calls by name.
#include <benchmark/benchmark.h>

#include "accessibility/accessible_tree.h"
#include "platform/portable/portable_platform.h"
#include "ribbon/main2.h"
#include "tracing/call_by_name.h"
#include "tracing/vbw_protector.h"

namespace tabforge {
namespace {

constexpr int kElements = 10000;

// A quick access toolbar, the lower ribbon with its groups of controls, then the tab list, as the
// word processor lays them out: the searches for the page and the tab list pass the lower ribbon.
Ref<AccessibleElement> BuildRibbon() {
  auto commandBar = MakeRef<AccessibleElement>(kRoleToolBar, u"Ribbon");
  AccessibleElement& quickAccess = commandBar->Add(kRoleToolBar, u"Quick Access Toolbar");
  for (int i = 0; i < 40; ++i)
    quickAccess.Add(kRolePushButton, FromUtf8("Quick " + std::to_string(i)));
  AccessibleElement& page = commandBar->Add(kRolePropertyPage, u"Ribbon");
  AccessibleElement& lower = page.Add(kRoleGrouping, u"Lower Ribbon");
  AccessibleElement& tabList = page.Add(kRolePageTabList, u"Ribbon Tabs");
  AccessibleElement& client = tabList.Add(kRoleClient, u"");
  for (const char16_t* name : {u"Home", u"Insert", u"Page Layout", u"References", u"Mailings",
                               u"Review", u"View", u"Developer", u"Add-Ins"})
    client.Add(kRolePageTab, name);
  client.Add(kRolePageTab, u"Morvelin");
  AccessibleElement& lowerClient = lower.Add(kRoleClient, u"");
  int group = 0;
  while (commandBar->CountElements() < kElements) {
    AccessibleElement& g =
        lowerClient.Add(kRoleGrouping, FromUtf8("Group " + std::to_string(group++)));
    for (int i = 0; i < 24 && commandBar->CountElements() < kElements; ++i) {
      AccessibleElement& button = g.Add(kRolePushButton, FromUtf8("Button " + std::to_string(i)));
      if (i % 6 == 0)
        button.Add(kRoleGraphic, u"");
    }
  }
  return commandBar;
}

void ActivateTab(benchmark::State& state) {
  PortablePlatform platform;
  VbwProtector protector(platform.View());
  protector.vbwInitializeProtector();
  Main2 main2(protector);
  main2.Initialize(nullptr, u"Morvelin");
  const Ref<AccessibleElement> ribbon = BuildRibbon();
  const Ref<Object> commandBar(ribbon);
  for (auto _ : state)
    main2.activateMorvelinTab(commandBar);
  if (ribbon->Find(u"Morvelin")->presses() != static_cast<int>(state.iterations()))
    state.SkipWithError("the tab was not pressed on every run");
  state.counters["elements"] = static_cast<double>(ribbon->CountElements());
}
BENCHMARK(ActivateTab)
    ->Name("Op/activateMorvelinTab 10000 elements")
    ->Unit(benchmark::kMicrosecond);

// The same search without tracking: by role and name through the children, then the press.
Ref<Object> Search(AccessibilityApi& api, const Ref<Object>& element, std::int32_t role,
                   const Utf16String& name) {
  if (ToLong(CallByName(element, u"accRole", CallKind::kPropertyGet, std::int32_t{0})) == role &&
      ToBstr(CallByName(element, u"accName", CallKind::kPropertyGet, std::int32_t{0})) == name)
    return element;
  const std::int32_t count = ToLong(CallByName(element, u"accChildCount", CallKind::kPropertyGet));
  if (count <= 0)
    return nullptr;
  std::vector<Variant> children(static_cast<std::size_t>(count));
  std::int32_t obtained = 0;
  api.AccessibleChildren(element, 0, count, children.data(), &obtained);
  for (const Variant& child : children) {
    if (HoldsObject(child)) {
      if (Ref<Object> found = Search(api, ToObject(child), role, name))
        return found;
    }
  }
  return nullptr;
}

void PlainWalk(benchmark::State& state) {
  PortableAccessibilityApi api;
  const Ref<AccessibleElement> ribbon = BuildRibbon();
  const Ref<Object> commandBar(ribbon);
  for (auto _ : state) {
    Ref<Object> page = Search(api, commandBar, 38, u"Ribbon");
    Ref<Object> tabs = Search(api, page, 60, u"Ribbon Tabs");
    Ref<Object> tab = Search(api, tabs, 37, u"Morvelin");
    CallByName(tab, u"accDoDefaultAction", CallKind::kMethod, std::int32_t{0});
  }
}
BENCHMARK(PlainWalk)
    ->Name("Floor/activateMorvelinTab 10000 elements")
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace tabforge
