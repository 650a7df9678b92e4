#include "tracing/runtime_objects.h"

#include <algorithm>

#include "platform/failure.h"
#include "tracing/vbw_protector.h"

namespace tabforge {
namespace {

char16_t Lower(char16_t c) {
  return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + 32) : c;
}

bool SameName(Utf16View a, Utf16View b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(),
                    [](char16_t x, char16_t y) { return Lower(x) == Lower(y); });
}

}  // namespace

Variant PropertyObject::Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) {
  if ((kind == CallKind::kPropertyGet || kind == CallKind::kMethod) && arguments.empty()) {
    for (const auto& [name, value] : properties_) {
      if (SameName(name, member))
        return value;
    }
  }
  Raise(RunTimeError::kMemberNotFound);
}

Ref<Object> MakeAppObject() {
  return MakeRef<PropertyObject>(std::vector<std::pair<Utf16String, Variant>>{
      {u"Title", Utf16String(kProjectName)},
      {u"EXEName", Utf16String(kProjectName)},
      {u"Major", std::int32_t{1}},
      {u"Minor", std::int32_t{0}},
      {u"Revision", std::int32_t{0}},
  });
}

Ref<Object> MakeErrObject(std::int32_t number, Utf16View description, std::int32_t line) {
  return MakeRef<PropertyObject>(std::vector<std::pair<Utf16String, Variant>>{
      {u"Number", number},
      {u"Description", Utf16String(description)},
      {u"Source", Utf16String(kProjectName)},
      {u"Erl", line},
  });
}

Ref<Object> MakeScreenObject(const SystemFacts& system) {
  const auto size = system.Screen();
  return MakeRef<PropertyObject>(std::vector<std::pair<Utf16String, Variant>>{
      {u"Width", size.width},
      {u"Height", size.height},
  });
}

Ref<Object> MakePrinterObject(const SystemFacts& system) {
  auto printer = system.DefaultPrinter();
  if (!printer)
    return nullptr;
  return MakeRef<PropertyObject>(std::vector<std::pair<Utf16String, Variant>>{
      {u"DeviceName", std::move(*printer)},
  });
}

}  // namespace tabforge
