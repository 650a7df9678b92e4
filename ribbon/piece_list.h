// The string arrays that the ribbon document is assembled from, held as references to their
// pieces instead of as copies.
//
// The document is a few hundred pieces: constants, the caller's own strings, and the text of each
// button. A `Piece` refers to up to three texts, so an element such as ` size="large"` is three
// references and no allocation; a `PieceList` keeps its pieces in place, without heap memory. The
// document is then measured once and written once. A piece becomes a string of its own only when a
// dump reports the array.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

#include "platform/failure.h"
#include "platform/utf16.h"
#include "tracing/report_values.h"

namespace tabforge {

// One element of a piece list: the referenced texts, joined in order.
//
// A piece refers to the texts it is made of, so those texts must outlive it: constants, or the
// strings of the procedure that holds the list. A temporary string would not, and is refused; an
// `OwnedPiece` takes it.
class Piece {
 public:
  static constexpr std::size_t kMaxParts = 3;

  Piece() noexcept {}
  // A constant, measured by the compiler.
  template <std::size_t N>
  Piece(const char16_t (&constant)[N]) noexcept {
    Add(Utf16View(constant, N - 1));
  }
  Piece(Utf16View text) noexcept { Add(text); }
  Piece(const Utf16String& text) noexcept { Add(text); }
  Piece(Utf16String&& text) = delete;

  // The texts joined, without joining them.
  static Piece Concat(std::initializer_list<Utf16View> parts) {
    if (parts.size() > kMaxParts)
      Raise(RunTimeError::kSubscriptOutOfRange);
    Piece piece;
    for (Utf16View part : parts)
      piece.Add(part);
    return piece;
  }

  std::size_t size() const noexcept {
    std::size_t length = 0;
    for (std::size_t at = 0; at < count_; ++at)
      length += sizes_[at];
    return length;
  }

  // Writes the text at `out`, which has room for size() characters, and returns its end.
  char16_t* CopyTo(char16_t* out) const noexcept {
    for (std::size_t at = 0; at < count_; ++at)
      out = CopyChars(texts_[at], sizes_[at], out);
    return out;
  }

 private:
  // The referenced texts. Places behind `count_` are left unset and copied as they are: a list
  // holds many pieces, and clearing them all would cost more than the rest of the element. The
  // sizes are held in 32 bits (no piece comes near that) to keep a piece small enough to be copied
  // in a few moves.
  void Add(Utf16View text) noexcept {
    texts_[count_] = text.data();
    sizes_[count_] = static_cast<std::uint32_t>(text.size());
    ++count_;
  }

  const char16_t* texts_[kMaxParts];
  std::uint32_t sizes_[kMaxParts];
  std::uint32_t count_ = 0;
};

// A piece that may also own a text, which stands before the referenced ones: the text of a
// procedure's result, say.
class OwnedPiece {
 public:
  OwnedPiece() noexcept = default;
  template <std::size_t N>
  OwnedPiece(const char16_t (&constant)[N]) noexcept : piece_(constant) {}
  OwnedPiece(Piece piece) noexcept : piece_(piece) {}
  OwnedPiece(Utf16View text) noexcept : piece_(text) {}
  OwnedPiece(const Utf16String& text) noexcept : piece_(text) {}
  OwnedPiece(Utf16String&& text) noexcept : owned_(std::move(text)) {}

  std::size_t size() const noexcept { return owned_.size() + piece_.size(); }
  char16_t* CopyTo(char16_t* out) const noexcept {
    return piece_.CopyTo(CopyChars(owned_.data(), owned_.size(), out));
  }

 private:
  Utf16String owned_;
  Piece piece_;
};

// The attribute ` name="value"`, from its opening ` name="` and the value, referring to both.
template <std::size_t N>
Piece Attribute(const char16_t (&opening)[N], Utf16View value) {
  return Piece::Concat({Utf16View(opening, N - 1), value, Utf16View(u"\"", 1)});
}

// The text of a piece, for a dump.
template <class PieceType>
Utf16String TextOf(const PieceType& piece) {
  Utf16String text(piece.size(), u'\0');
  piece.CopyTo(text.data());
  return text;
}

// A string array of at most `Capacity` pieces, lower bound 0.
template <std::size_t Capacity, class PieceType = Piece>
class PieceList {
 public:
  std::size_t size() const noexcept { return size_; }

  // Fills the list with one element for each piece, in order. The pieces come as a braced list,
  // which C++ evaluates left to right: they are made in the order they stand.
  template <std::size_t Count>
  void Assign(PieceType (&&pieces)[Count]) {
    static_assert(Count <= Capacity, "the list is too small for these pieces");
    for (std::size_t at = 0; at < Count; ++at)
      pieces_[at] = std::move(pieces[at]);
    Clear(Count);
  }

  // Adds the pieces at the end, in the same way and order as Assign. Beyond the bound it fails as
  // a subscript out of range would, and the list is as it was.
  template <std::size_t Count>
  void Append(PieceType (&&pieces)[Count]) {
    static_assert(Count <= Capacity, "the list is too small for these pieces");
    if (size_ + Count > Capacity)
      Raise(RunTimeError::kSubscriptOutOfRange);
    for (std::size_t at = 0; at < Count; ++at)
      pieces_[size_ + at] = std::move(pieces[at]);
    size_ += Count;
  }

  // Keeps the first pieces; new places are empty (places behind the end always are). The bound is
  // fixed, so a size beyond it fails as a subscript out of range would.
  void Resize(std::size_t size) {
    if (size > Capacity)
      Raise(RunTimeError::kSubscriptOutOfRange);
    Clear(size);
  }

  // The element at `index`, failing with "Subscript out of range" outside the list.
  PieceType& Slot(std::size_t index) {
    if (index >= size_)
      Raise(RunTimeError::kSubscriptOutOfRange);
    return pieces_[index];
  }
  const PieceType& operator[](std::size_t index) const noexcept { return pieces_[index]; }

  std::size_t TextSize() const noexcept {
    std::size_t length = 0;
    for (std::size_t at = 0; at < size_; ++at)
      length += pieces_[at].size();
    return length;
  }

  char16_t* CopyTo(char16_t* out) const noexcept {
    for (std::size_t at = 0; at < size_; ++at)
      out = pieces_[at].CopyTo(out);
    return out;
  }

 private:
  // Ends the list at `size`, emptying the places behind it, so that they are empty when the list
  // grows again.
  void Clear(std::size_t size) {
    for (std::size_t at = size; at < size_; ++at)
      pieces_[at] = PieceType();
    size_ = size;
  }

  std::array<PieceType, Capacity> pieces_;
  std::size_t size_ = 0;
};

// The lists' texts joined into one string, allocated once.
template <class... Lists>
Utf16String Join(const Lists&... lists) {
  Utf16String joined((lists.TextSize() + ...), u'\0');
  char16_t* out = joined.data();
  ((out = lists.CopyTo(out)), ...);
  return joined;
}

// A dump reports a list as the string array it stands for.
template <std::size_t Capacity, class PieceType>
Variant ToVariant(const PieceList<Capacity, PieceType>& list) {
  std::vector<Utf16String> texts;
  texts.reserve(list.size());
  for (std::size_t at = 0; at < list.size(); ++at)
    texts.push_back(TextOf(list[at]));
  return tracing::ToVariant(texts);
}

}  // namespace tabforge
