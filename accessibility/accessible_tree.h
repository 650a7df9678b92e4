// An accessibility tree held in memory, for tests, benchmarks and the command-line tool: elements
// that answer the accessibility members by name the way the word processor's elements do, and a
// small text format to write such trees down.
//
// Text format, one element a line:
//
//   ROLE "NAME" [state=0xBITS] [count=N] [simple] [fail=MEMBER,MEMBER...]
//
// - ROLE is the role number, decimal or 0x-hexadecimal; NAME is the name between double quotes
//   ("" for an unnamed element; a name holds no double quote).
// - Two blanks of indentation per level put an element below the nearest line one level up. The
//   first line, at no indentation, is the root; there is exactly one root.
// - state= gives the state bits (default 0); count= makes accChildCount answer N whatever the
//   children are; simple makes the line a simple child of its parent (a child id, no object), which
//   has nothing below it; fail= makes each listed member fail when called.
// - Blank lines and lines whose first non-blank character is '#' are ignored.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "accessibility/roles.h"
#include "platform/object.h"
#include "platform/variant.h"

namespace tabforge {

class AccessibleElement final : public Object {
 public:
  AccessibleElement(std::int32_t role, Utf16String name, std::int32_t state = 0);
  ~AccessibleElement() override;

  Variant Invoke(Utf16View member, CallKind kind, std::span<Variant> arguments) override;

  // Adopts `child` as the next child; the element holds it, the child points back without holding.
  AccessibleElement& Add(Ref<AccessibleElement> child);
  AccessibleElement& Add(std::int32_t role, Utf16String name, std::int32_t state = 0);
  // A simple child: an entry that is a child id, not an object.
  void AddSimpleChild(std::int32_t childId);
  // An entry that leads to an element that lives elsewhere in the same tree, without holding it:
  // the way to build a tree that leads back to itself. `target` must outlive this element's use.
  void AddLink(AccessibleElement& target);
  // Points accParent at `parent` without holding it; nothing for a root without parent.
  void SetParent(AccessibleElement* parent) { parent_ = parent; }

  void SetName(Utf16String name) { name_ = std::move(name); }
  void SetState(std::int32_t state) { state_ = state; }
  // accChildCount answers `count` instead of the number of entries.
  void SetReportedChildCount(std::optional<std::int32_t> count) { reportedCount_ = count; }
  // `member` fails from now on, or works again.
  void SetFailing(Utf16View member, bool failing = true);

  std::int32_t role() const { return role_; }
  const Utf16String& name() const { return name_; }
  std::int32_t state() const { return state_; }
  AccessibleElement* parent() const { return parent_; }
  // How often `member` was called on this element, failed calls included.
  int Calls(Utf16View member) const;
  int presses() const { return Calls(u"accDoDefaultAction"); }

  // The first element, depth-first from here, with that name; null if none. Links are not followed.
  AccessibleElement* Find(Utf16View name);
  // Calls `visit` on this element and every element below it, depth-first; links not followed.
  template <class Visit>
  void VisitAll(Visit&& visit) {
    visit(*this);
    for (auto& entry : children_) {
      if (auto* child = std::get_if<Ref<AccessibleElement>>(&entry))
        (*child)->VisitAll(visit);
    }
  }
  // Entries below this element: objects, links and simple children.
  std::size_t EntryCount() const { return children_.size(); }
  // Elements from here, links and simple children not counted.
  std::size_t CountElements() const;

 private:
  using Entry = std::variant<Ref<AccessibleElement>, AccessibleElement*, std::int32_t>;
  static Variant EntryValue(const Entry& entry);
  Variant Answer(Utf16View member, std::span<Variant> arguments);

  std::int32_t role_;
  Utf16String name_;
  std::int32_t state_;
  AccessibleElement* parent_ = nullptr;
  std::vector<Entry> children_;
  std::optional<std::int32_t> reportedCount_;
  std::vector<Utf16String> failing_;
  std::map<Utf16String, int, std::less<>> calls_;
};

// A parsed tree, or the first error with its 1-based line number.
struct ParsedTree {
  Ref<AccessibleElement> root;
  std::string error;
  int errorLine = 0;
};

ParsedTree ParseAccessibleTree(std::string_view text);

// The word processor's ribbon in the text format: the command bar, the "Ribbon" property page,
// the "Ribbon Tabs" page tab list with its client and tabs, and the lower ribbon with groups.
std::string SampleRibbonText(std::u16string_view productName = u"Morvelin");

}  // namespace tabforge
