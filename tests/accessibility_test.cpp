// The accessibility walker: the search by role and name, the listing with its filters and levels,
// the bounds on trees that lead back into themselves, and the in-memory tree it is tested on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "accessibility/accessibility.h"
#include "accessibility/accessible_tree.h"
#include "apartment.h"
#include "golden.h"
#include "tracing/call_by_name.h"

namespace tabforge::testing {
namespace {

using ::testing::ElementsAre;

class Walker : public ::testing::Test {
 protected:
  Apartment apartment;
  Accessibility walker{apartment.protector};

  Ref<Object> Find(const Ref<AccessibleElement>& root, std::int32_t role, const Utf16String& name,
                   VariantBool getClient = kFalse) {
    return walker.GetAccessible(Ref<Object>(root), role, name, getClient);
  }
  ChildList List(const Ref<AccessibleElement>& root, VariantBool descendents, VariantBool& isOK) {
    return walker.GetListOfChildren(Ref<Object>(root), descendents, isOK);
  }
  static std::vector<Utf16String> Names(const ChildList& list) {
    std::vector<Utf16String> names;
    for (const auto& child : list.Children)
      names.push_back(static_cast<AccessibleElement*>(child.get())->name());
    return names;
  }
};

// Each case of walker.txt on a tree of its own, with nothing reported.
TEST_F(Walker, AnswersEachCaseOfTheTable) {
  for (const auto& [header, text] : ReadCases("tests/walker.txt")) {
    const std::vector<std::string> f = Fields(header);  // what, answer, calls
    const auto root = Tree(text);
    std::istringstream what(f[0]);
    std::string verb, name;
    std::int32_t role = 0;
    what >> verb >> role;
    std::getline(what >> std::ws, name);
    std::string answer;
    if (verb.starts_with("find")) {
      const Ref<Object> found =
          Find(root, role, FromUtf8(name), ToVariantBool(verb == "find-client"));
      const auto* element = static_cast<AccessibleElement*>(found.get());
      answer = element == nullptr
                   ? "nothing"
                   : std::to_string(element->role()) + " " + ToUtf8(element->name()) + " " +
                         std::to_string(element->state());
    } else {
      VariantBool isOK = kFalse;
      const ChildList list = List(root, ToVariantBool(verb == "list-all"), isOK);
      answer = isOK == kTrue ? "ok" : "failed";
      for (std::size_t i = 0; i < list.Children.size(); ++i)
        answer += (i == 0 ? ": " : ", ") + ToUtf8(Names(list)[i]) + "@" +
                  std::to_string(list.Levels.at(i));
      answer += " selected=" + std::to_string(list.SelectedChild);
    }
    EXPECT_EQ(answer, f[1]) << header;
    std::istringstream calls(f.size() > 2 ? f[2] : "");
    for (std::string call; std::getline(calls >> std::ws, call, ',');) {
      const auto dot = call.rfind('.'), equals = call.find('=');
      AccessibleElement* element = root->Find(FromUtf8(call.substr(0, dot)));
      ASSERT_NE(element, nullptr) << header << ": " << call;
      EXPECT_EQ(element->Calls(FromUtf8(call.substr(dot + 1, equals - dot - 1))),
                std::stoi(call.substr(equals + 1)))
          << header << ": " << call;
    }
  }
  apartment.ExpectQuiet();
}

TEST_F(Walker, TreesThatLeadBackOrGoTooDeepEnd) {
  auto root = Tree(
      "22 \"bar\"\n"
      "  10 \"loop\"\n"
      "    43 \"leaf\"\n");
  AccessibleElement& loop = *root->Find(u"loop");
  loop.AddLink(*root);
  loop.AddLink(loop);
  EXPECT_FALSE(Find(root, 38, u"Ribbon"));
  EXPECT_EQ(root->Calls(kPortableChildrenMember), 1);

  // In a listing the entries that lead back fail their own level; the rest of the list stays.
  VariantBool isOK = kFalse;
  ChildList list = List(root, kTrue, isOK);
  EXPECT_EQ(isOK, kTrue);
  EXPECT_THAT(Names(list), ElementsAre(u"leaf"));
  EXPECT_THAT(list.Levels, ElementsAre(1));

  // A chain deeper than the depth bound hides what lies at its bottom.
  auto chain = MakeRef<AccessibleElement>(10, u"top");
  AccessibleElement* bottom = chain.get();
  for (int i = 0; i < 300; ++i)
    bottom = &bottom->Add(10, u"");
  bottom->Add(38, u"Ribbon");
  // The walk's own bounds are under test, not the stack's (the sanitizers' frames are larger).
  apartment.protector.budget.limits.maxStackBytes = std::size_t{16} << 20;
  EXPECT_FALSE(Find(chain, 38, u"Ribbon"));
  walker.SetWalkLimits({.maxDepth = 400, .maxElements = 1000});
  EXPECT_TRUE(Find(chain, 38, u"Ribbon"));
  walker.SetWalkLimits({.maxDepth = 400, .maxElements = 100});
  EXPECT_FALSE(Find(chain, 38, u"Ribbon"));
  apartment.ExpectQuiet();
}

// A child count is the element's word: past what the outside call may still visit it is out of
// memory before room is made for it (2,147,483,647 children would ask for gigabytes), and the
// search goes on with the next element.
TEST_F(Walker, CountsPastTheBudgetAreRefusedBeforeAnythingIsMade) {
  auto root = Tree(
      "22 \"bar\"\n"
      "  10 \"huge\" count=2147483647\n"
      "    38 \"Ribbon\"\n"
      "  10 \"over\" count=150000\n"
      "    38 \"Ribbon\"\n"
      "  38 \"Ribbon\"\n");
  const Ref<Object> found = Find(root, 38, u"Ribbon");
  ASSERT_TRUE(found);
  EXPECT_EQ(static_cast<AccessibleElement*>(found.get())->parent(), root.get());
  EXPECT_EQ(root->Find(u"huge")->Calls(u"accChildren"), 0);
  EXPECT_EQ(root->Find(u"over")->Calls(u"accChildren"), 0);
  const auto told = apartment.script->CallsTo("vbwErrorHandler");
  ASSERT_EQ(told.size(), 2u);
  for (const std::string& call : told)
    EXPECT_THAT(call, ::testing::HasSubstr("I4 7, BSTR \"Out of memory\""));
}

TEST(AccessibleTree, RejectsMalformedLinesWithTheirNumbers) {
  for (const auto& c : testing::ReadCases("tests/tree_errors.txt")) {
    const std::vector<std::string> fields = testing::Fields(c.header);  // line, error
    ParsedTree tree = ParseAccessibleTree(c.body);
    EXPECT_FALSE(tree.root) << c.body;
    EXPECT_EQ(tree.error, fields[1]) << c.body;
    EXPECT_EQ(std::to_string(tree.errorLine), fields[0]) << c.body;
  }
}

TEST(AccessibleTree, FieldsSetStateCountFailuresAndSimpleChildIds) {
  const auto root = Tree(
      "10 \"a\" state=0x8001 count=-2 fail=accRole,accParent\n"
      "  43 \"x\" simple\n"
      "  43 \"y\" simple\n");
  EXPECT_EQ(root->state(), 0x8001);
  EXPECT_EQ(ToLong(CallByName(root, u"accChildCount", CallKind::kPropertyGet)), -2);
  root->SetFailing(u"accRole");  // failing twice is failing
  EXPECT_THROW(CallByName(root, u"accRole", CallKind::kPropertyGet, kChildIdSelf), Failure);
  EXPECT_THROW(CallByName(root, u"accParent", CallKind::kPropertyGet), Failure);
  root->SetFailing(u"accRole", false);  // un-failing undoes it
  EXPECT_EQ(ToLong(CallByName(root, u"accRole", CallKind::kPropertyGet, kChildIdSelf)), 10);
  const Variant children = CallByName(root, kPortableChildrenMember, CallKind::kPropertyGet);
  const auto& entries = std::get<std::vector<Variant>>(children.Array()->elements);
  EXPECT_THAT(entries, ElementsAre(Variant(std::int32_t{1}), Variant(std::int32_t{2})));

  // Hexadecimal after 0x or 0X; a leading zero alone is still decimal.
  const auto other = Tree("10 \"b\" state=0X10 count=012\n");
  EXPECT_EQ(other->state(), 16);
  EXPECT_EQ(ToLong(CallByName(other, u"accChildCount", CallKind::kPropertyGet)), 12);
}

TEST(AccessibleTree, ChildByIdIsTheElementOrNothingForASimpleChild) {
  const auto root = Tree(
      "10 \"a\"\n"
      "  43 \"x\"\n"
      "  43 \"y\" simple\n");
  auto child = [&](std::int32_t id) {
    return CallByName(root, u"accChild", CallKind::kPropertyGet, id);
  };
  EXPECT_EQ(child(1), Variant(Ref<Object>(root->Find(u"x"))));
  EXPECT_EQ(child(2).type(), VarType::VT_EMPTY);
  EXPECT_THROW(child(0), Failure);
  EXPECT_THROW(CallByName(root, u"accChild", CallKind::kPropertyGet), Failure);  // no id
  // Navigation starts from the element itself only.
  const auto navigate = [&](std::int32_t start) {
    return CallByName(root, u"accNavigate", CallKind::kMethod, kNavDirFirstChild, start);
  };
  EXPECT_EQ(navigate(kChildIdSelf), child(1));
  EXPECT_THROW(navigate(1), Failure);
  for (const char16_t* member : {u"accRole", u"accName", u"accState"})
    EXPECT_THROW(CallByName(root, member, CallKind::kPropertyGet, std::int32_t{1}), Failure);
  EXPECT_THROW(CallByName(root, u"accDoDefaultAction", CallKind::kMethod, std::int32_t{1}),
               Failure);
  EXPECT_THROW(child(3), Failure);
}

TEST(AccessibleTree, ChildOutlivingItsParentNoLongerPointsAtIt) {
  auto parent = MakeRef<AccessibleElement>(10, u"p");
  Ref<AccessibleElement> child(&parent->Add(37, u"c"));
  parent = nullptr;
  EXPECT_EQ(child->parent(), nullptr);
  EXPECT_EQ(CallByName(Ref<Object>(child), u"accParent", CallKind::kPropertyGet).type(),
            VarType::VT_EMPTY);
}

}  // namespace
}  // namespace tabforge::testing
