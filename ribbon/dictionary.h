// The product-name-sensitive table: whole numbers to label templates, kept in the order of adding.
// Reading an item under a key that is not there adds the key with an empty item, as the
// platform's dictionary does.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "platform/object.h"
#include "platform/variant.h"

namespace tabforge {

class Dictionary final : public Object {
 public:
  // Fails when the key is already present.
  void Add(std::int32_t key, Utf16String item);
  // The item under `key`, added empty when missing.
  const Utf16String& Item(std::int32_t key);
  bool Exists(std::int32_t key) const;
  // All keys in the order in which they were added.
  std::vector<std::int32_t> Keys() const;
  std::int32_t Count() const { return static_cast<std::int32_t>(entries_.size()); }

  // Add, Item, Exists, Keys and Count by name, for whoever inspects the table in a dump.
  Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) override;

 private:
  // A handful of entries: a linear search beats any tree or hash here.
  std::vector<std::pair<std::int32_t, Utf16String>> entries_;
};

}  // namespace tabforge
