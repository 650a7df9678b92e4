#include "ribbon/dictionary.h"

#include <algorithm>

#include "platform/failure.h"

namespace tabforge {
namespace {

constexpr std::int32_t kKeyAlreadyPresent = 457;

}  // namespace

void Dictionary::Add(std::int32_t key, Utf16String item) {
  if (Exists(key))
    Raise(kKeyAlreadyPresent, u"This key is already associated with an element of this collection");
  entries_.emplace_back(key, std::move(item));
}

const Utf16String& Dictionary::Item(std::int32_t key) {
  for (const auto& entry : entries_) {
    if (entry.first == key)
      return entry.second;
  }
  return entries_.emplace_back(key, Utf16String{}).second;
}

bool Dictionary::Exists(std::int32_t key) const {
  return std::any_of(entries_.begin(), entries_.end(),
                     [key](const auto& entry) { return entry.first == key; });
}

std::vector<std::int32_t> Dictionary::Keys() const {
  std::vector<std::int32_t> keys;
  keys.reserve(entries_.size());
  for (const auto& entry : entries_)
    keys.push_back(entry.first);
  return keys;
}

Variant Dictionary::Invoke(Utf16View member, CallKind, std::span<Variant> arguments) {
  if (member == u"Add" && arguments.size() == 2) {
    Add(ToLong(arguments[0]), ToBstr(arguments[1]));
    return {};
  }
  if (member == u"Item" && arguments.size() == 1)
    return Variant(Item(ToLong(arguments[0])));
  if (member == u"Exists" && arguments.size() == 1) {
    return Variant(ToVariantBool(Exists(ToLong(arguments[0]))));
  }
  if (member == u"Count" && arguments.empty())
    return Variant(Count());
  if (member == u"Keys" && arguments.empty()) {
    std::vector<Variant> keys;
    for (std::int32_t key : Keys())
      keys.emplace_back(key);
    return Variant(VarType::VT_VARIANT, MakeArray(std::move(keys)));
  }
  Raise(RunTimeError::kMemberNotFound);
}

}  // namespace tabforge
