#include "platform/variant.h"

#include <limits>

#include "platform/failure.h"

namespace tabforge {
namespace {

template <class... F>
struct Overloaded : F... {
  using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

bool IsBlank(char16_t c) {
  return c == u' ' || c == u'\t';
}

std::int64_t ParseWhole(Utf16View text, std::int64_t lowest, std::int64_t highest) {
  std::size_t i = 0;
  std::size_t end = text.size();
  while (i < end && IsBlank(text[i]))
    ++i;
  while (end > i && IsBlank(text[end - 1]))
    --end;
  bool negative = false;
  if (i < end && (text[i] == u'-' || text[i] == u'+'))
    negative = text[i++] == u'-';
  if (i == end)
    Raise(RunTimeError::kTypeMismatch);
  std::int64_t value = 0;
  bool overflow = false;
  for (; i < end; ++i) {
    if (text[i] < u'0' || text[i] > u'9')
      Raise(RunTimeError::kTypeMismatch);
    if (!overflow)
      value = value * 10 + (text[i] - u'0');
    overflow = overflow || value > std::numeric_limits<std::int32_t>::max() + std::int64_t{1};
  }
  if (negative)
    value = -value;
  if (overflow || value < lowest || value > highest)
    Raise(RunTimeError::kOverflow);
  return value;
}

std::int64_t WholeValue(const Variant& v) {
  switch (v.type()) {
    case VarType::VT_EMPTY:
      return 0;
    case VarType::VT_NULL:
      Raise(RunTimeError::kInvalidUseOfNull);
    case VarType::VT_I2:
    case VarType::VT_I4:
    case VarType::VT_BOOL:
    case VarType::VT_UI1:
      return v.Number();
    case VarType::VT_BSTR:
      return ParseWhole(v.String(), std::numeric_limits<std::int32_t>::min(),
                        std::numeric_limits<std::int32_t>::max());
    default:
      Raise(RunTimeError::kTypeMismatch);
  }
}

}  // namespace

Variant Variant::Null() {
  Variant v;
  v.type_ = VarType::VT_NULL;
  return v;
}

Variant Variant::Byte(std::uint8_t value) {
  Variant v;
  v.type_ = VarType::VT_UI1;
  v.value_ = std::int32_t{value};
  return v;
}

Variant Variant::Unknown(Ref<Object> value) {
  Variant v(std::move(value));
  v.type_ = VarType::VT_UNKNOWN;
  return v;
}

Variant Variant::Value() const {
  if (!IsByRef())
    return *this;
  void* target = std::get<void*>(value_);
  const VarType t = ValueType(type_);
  if (IsArrayType(t))
    return Variant(BaseType(t), *static_cast<ArrayRef*>(target));
  switch (t) {
    case VarType::VT_I2:
      return Variant(*static_cast<std::int16_t*>(target));
    case VarType::VT_I4:
      return Variant(*static_cast<std::int32_t*>(target));
    case VarType::VT_BOOL:
      return Variant(*static_cast<VariantBool*>(target));
    case VarType::VT_BSTR:
      return Variant(*static_cast<Utf16String*>(target));
    case VarType::VT_DISPATCH:
      return Variant(*static_cast<Ref<Object>*>(target));
    case VarType::VT_VARIANT:
      return static_cast<Variant*>(target)->Value();
    default:
      Raise(RunTimeError::kTypeMismatch);
  }
}

std::int32_t Variant::Number() const {
  if (const auto* n = std::get_if<std::int32_t>(&value_))
    return *n;
  Raise(RunTimeError::kTypeMismatch);
}

const Utf16String& Variant::String() const {
  if (const auto* s = std::get_if<Utf16String>(&value_))
    return *s;
  Raise(RunTimeError::kTypeMismatch);
}

const Ref<Object>& Variant::ObjectRef() const {
  if (const auto* o = std::get_if<Ref<Object>>(&value_))
    return *o;
  Raise(RunTimeError::kTypeMismatch);
}

const ArrayRef& Variant::Array() const {
  if (const auto* a = std::get_if<ArrayRef>(&value_))
    return *a;
  Raise(RunTimeError::kTypeMismatch);
}

bool operator==(const Variant& a, const Variant& b) {
  if (a.type_ != b.type_)
    return false;
  if (const auto* x = std::get_if<ArrayRef>(&a.value_)) {
    const auto& y = std::get<ArrayRef>(b.value_);
    if (!*x || !y)
      return *x == y;
    return (*x)->lowerBound == y->lowerBound && (*x)->elements == y->elements;
  }
  return a.value_ == b.value_;
}

VarType VariantArray::ElementType() const {
  return std::visit(Overloaded{
                        [](const std::vector<std::int16_t>&) { return VarType::VT_I2; },
                        [](const std::vector<std::int32_t>&) { return VarType::VT_I4; },
                        [](const std::vector<Utf16String>&) { return VarType::VT_BSTR; },
                        [](const std::vector<Ref<Object>>&) { return VarType::VT_DISPATCH; },
                        [](const std::vector<Variant>&) { return VarType::VT_VARIANT; },
                        [](const std::vector<std::uint8_t>&) { return VarType::VT_UI1; },
                    },
                    elements);
}

std::int64_t VariantArray::Count() const {
  return std::visit([](const auto& v) { return static_cast<std::int64_t>(v.size()); }, elements);
}

std::int32_t ParseLong(Utf16View text) {
  return static_cast<std::int32_t>(ParseWhole(text, std::numeric_limits<std::int32_t>::min(),
                                              std::numeric_limits<std::int32_t>::max()));
}

std::int16_t ParseInteger(Utf16View text) {
  return static_cast<std::int16_t>(ParseWhole(text, std::numeric_limits<std::int16_t>::min(),
                                              std::numeric_limits<std::int16_t>::max()));
}

std::int32_t ToLong(const Variant& value) {
  return static_cast<std::int32_t>(WholeValue(value.Value()));
}

std::int16_t ToInteger(const Variant& value) {
  const std::int64_t whole = WholeValue(value.Value());
  if (whole < std::numeric_limits<std::int16_t>::min() ||
      whole > std::numeric_limits<std::int16_t>::max()) {
    Raise(RunTimeError::kOverflow);
  }
  return static_cast<std::int16_t>(whole);
}

Utf16String ToBstr(const Variant& value) {
  const Variant v = value.Value();
  switch (v.type()) {
    case VarType::VT_EMPTY:
      return {};
    case VarType::VT_NULL:
      Raise(RunTimeError::kInvalidUseOfNull);
    case VarType::VT_BSTR:
      return v.String();
    case VarType::VT_BOOL:
      return v.Number() != 0 ? u"True" : u"False";
    case VarType::VT_I2:
    case VarType::VT_I4:
    case VarType::VT_UI1:
      return DecimalText(v.Number());
    default:
      Raise(RunTimeError::kTypeMismatch);
  }
}

VariantBool ToVariantBool(const Variant& value) {
  const Variant v = value.Value();
  if (v.type() == VarType::VT_BSTR) {
    if (v.String() == u"True")
      return kTrue;
    if (v.String() == u"False")
      return kFalse;
  }
  return ToVariantBool(WholeValue(v) != 0);
}

bool HoldsObject(const Variant& value) {
  const Variant v = value.Value();
  return v.type() == VarType::VT_DISPATCH || v.type() == VarType::VT_UNKNOWN;
}

Ref<Object> ToObject(const Variant& value) {
  const Variant v = value.Value();
  if (!HoldsObject(v))
    Raise(RunTimeError::kObjectRequired);
  return v.ObjectRef();
}

void AssignThrough(const Variant& reference, const Variant& value) {
  if (auto* i2 = reference.RefI2()) {
    *i2 = ToInteger(value);
  } else if (auto* i4 = reference.RefI4()) {
    *i4 = ToLong(value);
  } else if (auto* truth = reference.RefBool()) {
    *truth = ToVariantBool(value);
  } else if (auto* text = reference.RefString()) {
    *text = ToBstr(value);
  } else if (auto* object = reference.RefObject()) {
    *object = value.type() == VarType::VT_EMPTY ? nullptr : ToObject(value);
  } else if (auto* variant = reference.RefVariant()) {
    *variant = value.Value();
  } else if (auto* array = reference.RefArray()) {
    const Variant v = value.Value();
    if (v.type() != ValueType(reference.type()))
      Raise(RunTimeError::kTypeMismatch);
    *array = v.Array();
  } else {
    Raise(RunTimeError::kTypeMismatch);
  }
}

std::string Describe(const Variant& value) {
  const Variant v = value.Value();
  std::string prefix = value.IsByRef() ? "&" : "";
  const VarType t = v.type();
  if (IsArrayType(t)) {
    const ArrayRef& a = v.Array();
    const char* element = "?";
    switch (BaseType(t)) {
      case VarType::VT_I2:
        element = "I2";
        break;
      case VarType::VT_I4:
        element = "I4";
        break;
      case VarType::VT_BSTR:
        element = "BSTR";
        break;
      case VarType::VT_DISPATCH:
        element = "DISPATCH";
        break;
      case VarType::VT_VARIANT:
        element = "VARIANT";
        break;
      case VarType::VT_UI1:
        element = "UI1";
        break;
      default:
        break;
    }
    if (!a)
      return prefix + "ARRAY(" + element + ") undimensioned";
    return prefix + "ARRAY(" + element + ") " + std::to_string(a->Count());
  }
  switch (t) {
    case VarType::VT_EMPTY:
      return prefix + "EMPTY";
    case VarType::VT_NULL:
      return prefix + "NULL";
    case VarType::VT_I2:
      return prefix + "I2 " + std::to_string(v.Number());
    case VarType::VT_I4:
      return prefix + "I4 " + std::to_string(v.Number());
    case VarType::VT_UI1:
      return prefix + "UI1 " + std::to_string(v.Number());
    case VarType::VT_BOOL:
      return prefix + "BOOL " + std::to_string(v.Number());
    case VarType::VT_BSTR:
      return prefix + "BSTR \"" + ToUtf8(v.String()) + "\"";
    case VarType::VT_DISPATCH:
      return prefix + (v.ObjectRef() ? "DISPATCH" : "DISPATCH nothing");
    case VarType::VT_UNKNOWN:
      return prefix + (v.ObjectRef() ? "UNKNOWN" : "UNKNOWN nothing");
    default:
      return prefix + "VT " + std::to_string(static_cast<int>(t));
  }
}

}  // namespace tabforge
