// The ribbon's hot members beside their floors: the document beside copying the finished text,
// the callbacks beside a plain map look-up.
#include <benchmark/benchmark.h>

#include <map>
#include <vector>

#include "allocation_counter.h"
#include "platform/failure.h"
#include "platform/portable/portable_platform.h"
#include "ribbon/main2.h"

namespace tabforge {
namespace {

// A signalling object whose macros do nothing, so that a press measures the library alone.
class QuietSignaller final : public Object {
 public:
  Variant Invoke(Utf16View member, CallKind, std::span<Variant>) override {
    if (member == u"Run")
      return {};
    Raise(RunTimeError::kMemberNotFound);
  }
};

struct Host {
  PortablePlatform platform;
  VbwProtector protector{platform.View()};
  Main2 main2{protector};
  Host() {
    protector.vbwInitializeProtector();
    main2.Initialize(MakeRef<QuietSignaller>(), u"Morvelin");
  }
};

std::map<std::int32_t, Utf16String> PlainMap() {
  std::map<std::int32_t, Utf16String> map;
  for (std::int32_t id = 0; id < 27; ++id)
    map[id] = u"label " + DecimalText(id);
  return map;
}

void GetRibbonXml(benchmark::State& state) {
  Host host;
  for (auto _ : state)
    benchmark::DoNotOptimize(host.main2.GetRibbonXML());
}
BENCHMARK(GetRibbonXml)->Name("Op/GetRibbonXML");
BENCHMARK(GetRibbonXml)->Name("Op/GetRibbonXML from pieces");

void CopyDocument(benchmark::State& state) {
  Host host;
  const Utf16String document = host.main2.GetRibbonXML();
  for (auto _ : state) {
    Utf16String copy = document;
    benchmark::DoNotOptimize(copy.data());
  }
}
BENCHMARK(CopyDocument)->Name("Floor/GetRibbonXML");

// The document is composed of small pieces (an attribute's opening, its value, its closing quote),
// and composing means copying each. This floor cuts the finished document before every quote and
// every '<', which gives about as many pieces as the composer joins, and joins them again: what
// any composition of those pieces costs, however quick the rest.
void JoinDocumentPieces(benchmark::State& state) {
  Host host;
  const Utf16String document = host.main2.GetRibbonXML();
  std::vector<Utf16View> pieces;
  std::size_t start = 0;
  for (std::size_t at = 1; at < document.size(); ++at) {
    if (document[at] == u'"' || document[at] == u'<') {
      pieces.push_back(Utf16View(document).substr(start, at - start));
      start = at;
    }
  }
  pieces.push_back(Utf16View(document).substr(start));
  for (auto _ : state) {
    std::size_t length = 0;
    for (Utf16View piece : pieces)
      length += piece.size();
    Utf16String joined(length, u'\0');
    char16_t* out = joined.data();
    for (Utf16View piece : pieces)
      out = CopyChars(piece.data(), piece.size(), out);
    benchmark::DoNotOptimize(joined.data());
  }
  state.counters["pieces"] = static_cast<double>(pieces.size());
}
BENCHMARK(JoinDocumentPieces)->Name("Floor/GetRibbonXML from pieces");

void MapLookUp(benchmark::State& state) {
  const auto map = PlainMap();
  std::int32_t id = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(map.find(id)->second.data());
    id = (id + 5) % 27;
  }
}
BENCHMARK(MapLookUp)->Name("Floor/GetLabel");
BENCHMARK(MapLookUp)->Name("Floor/GetEnabled");
BENCHMARK(MapLookUp)->Name("Floor/RibbonCallback");
BENCHMARK(MapLookUp)->Name("Floor/GetPressed");
BENCHMARK(MapLookUp)->Name("Floor/GetScreentip");

// One question of the ribbon about control `id`, asked over and over, with the heap allocations
// that each answer costs.
template <class Answer>
void Ask(benchmark::State& state, Answer (Main2::*question)(const Utf16String&),
         const char16_t* id) {
  Host host;
  const Utf16String control = id;
  const auto before = bench::Allocations();
  for (auto _ : state)
    benchmark::DoNotOptimize((host.main2.*question)(control));
  state.counters["allocs/call"] = benchmark::Counter(
      static_cast<double>(bench::Allocations() - before), benchmark::Counter::kAvgIterations);
}
BENCHMARK_CAPTURE(Ask, GetLabel, &Main2::GetLabel, u"MVN4")->Name("Op/GetLabel");
BENCHMARK_CAPTURE(Ask, GetEnabled, &Main2::GetEnabled, u"MVN16")->Name("Op/GetEnabled");
BENCHMARK_CAPTURE(Ask, GetPressed, &Main2::GetPressed, u"MVN23")->Name("Op/GetPressed");
// The one control with a tip of its own, so the tip is composed on every call.
BENCHMARK_CAPTURE(Ask, GetScreentip, &Main2::GetScreentip, u"MVN23")->Name("Op/GetScreentip");

void RibbonCallback(benchmark::State& state) {
  Host host;
  const Utf16String id = u"MVN5";
  for (auto _ : state)
    host.main2.RibbonCallback(id, kFalse);
}
BENCHMARK(RibbonCallback)->Name("Op/RibbonCallback");

}  // namespace
}  // namespace tabforge
