// The accessibility walker: the search by role and name, the listing with its filters and levels,
// the bounds on trees that lead back into themselves, and the in-memory tree it is tested on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "accessibility/accessibility.h"
#include "accessibility/accessible_tree.h"
#include "apartment.h"
#include "platform/call_by_name.h"

namespace tabforge::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

Ref<AccessibleElement> Parse(std::string_view text) {
  ParsedTree tree = ParseAccessibleTree(text);
  EXPECT_EQ(tree.error, "") << "line " << tree.errorLine;
  return tree.root;
}

class Walker : public ::testing::Test {
 protected:
  Apartment apartment;
  Accessibility walker{apartment.protector};

  // Only the start-up call reached the error component: nothing was reported.
  void ExpectNothingReported() {
    EXPECT_THAT(apartment.script->CallsTo("vbwErrorHandler"), IsEmpty());
    EXPECT_EQ(apartment.protector.Depth(), 0);
  }
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

TEST_F(Walker, MatchAtTheStartIsReturnedWithoutListingItsChildren) {
  auto root = Parse(
      "38 \"Ribbon\"\n"
      "  10 \"first\"\n"
      "  10 \"second\"\n");
  EXPECT_EQ(Find(root, 38, u"Ribbon"), Ref<Object>(root));
  EXPECT_EQ(root->Calls(u"accChildCount"), 0);
  EXPECT_EQ(root->Calls(kPortableChildrenMember), 0);

  // With GetClient the first child of the match comes back, still without a listing.
  EXPECT_EQ(Find(root, 38, u"Ribbon", kTrue), Ref<Object>(root->Find(u"first")));
  EXPECT_EQ(root->Calls(u"accChildCount"), 0);
  ExpectNothingReported();
}

TEST_F(Walker, RoleAndNameMustBothMatchExactlyAndTheFirstInDepthFirstOrderWins) {
  auto root = Parse(
      "22 \"bar\"\n"
      "  38 \"Other\"\n"
      "    40 \"leaf\"\n"
      "  10 \"Ribbon\"\n"
      "    38 \"ribbon\"\n"
      "    10 \"deep\"\n"
      "      38 \"Ribbon\" state=0x2\n"
      "  38 \"Ribbon\"\n");
  auto found = Find(root, 38, u"Ribbon");
  ASSERT_TRUE(found);
  // The deep match in the second child beats the shallow match in the third.
  EXPECT_EQ(static_cast<AccessibleElement*>(found.get())->state(), 0x2);
  // A role alone or a name alone is no match: their children were searched.
  EXPECT_EQ(root->Find(u"Other")->Calls(u"accChildCount"), 1);
  EXPECT_EQ(root->Find(u"leaf")->Calls(u"accName"), 1);
  // The name differing only in case is no match either.
  EXPECT_FALSE(Find(root, 38, u"RIBBON"));
  ExpectNothingReported();
}

TEST_F(Walker, CountsOfZeroOrLessAndSimpleChildrenGiveNothingToSearch) {
  auto root = Parse(
      "22 \"bar\"\n"
      "  10 \"zero\" count=0\n"
      "    38 \"Ribbon\"\n"
      "  10 \"negative\" count=-3\n"
      "    38 \"Ribbon\"\n"
      "  10 \"simple\"\n"
      "    38 \"Ribbon\" simple\n"
      "    38 \"Ribbon\" simple\n");
  EXPECT_FALSE(Find(root, 38, u"Ribbon"));
  EXPECT_EQ(root->Find(u"zero")->Calls(kPortableChildrenMember), 0);
  EXPECT_EQ(root->Find(u"negative")->Calls(kPortableChildrenMember), 0);
  EXPECT_EQ(root->Find(u"simple")->Calls(kPortableChildrenMember), 1);
  EXPECT_TRUE(walker.GetChildren(Ref<Object>(root->Find(u"negative"))).empty());
  ExpectNothingReported();
}

TEST_F(Walker, GetClientFallsBackToTheMatchAndNothingStaysNothing) {
  auto root = Parse(
      "22 \"bar\"\n"
      "  60 \"Ribbon Tabs\"\n"
      "  60 \"Simple first\"\n"
      "    37 \"tab\" simple\n");
  // No match: nothing, and navigating from nothing is given up quietly.
  EXPECT_FALSE(Find(root, 60, u"Missing", kTrue));
  // A match without a first child, or with a simple first child, comes back itself.
  EXPECT_EQ(Find(root, 60, u"Ribbon Tabs", kTrue), Ref<Object>(root->Find(u"Ribbon Tabs")));
  EXPECT_EQ(Find(root, 60, u"Simple first", kTrue), Ref<Object>(root->Find(u"Simple first")));
  EXPECT_FALSE(walker.GetAccessible(nullptr, 60, u"Ribbon Tabs", kTrue));
  ExpectNothingReported();
}

TEST_F(Walker, UnreadableRoleEndsTheSearchOnThatElementWithoutReadingItsName) {
  auto root = Parse(
      "22 \"bar\"\n"
      "  10 \"refuses\" fail=accRole\n"
      "  38 \"Ribbon\"\n");
  EXPECT_EQ(Find(root, 38, u"Ribbon"), Ref<Object>(root->Find(u"refuses")));
  EXPECT_EQ(root->Find(u"refuses")->Calls(u"accName"), 0);
  ExpectNothingReported();
}

TEST_F(Walker, ListingKeepsLeavesWithTheirLevelsAndDropsFilteredSubtrees) {
  auto root = Parse(
      "10 \"client\"\n"
      "  37 \"A\"\n"
      "    20 \"A1\"\n"
      "      43 \"A1a\"\n"
      "    43 \"A2\"\n"
      "  37 \"hidden\" state=0x8000\n"
      "    43 \"under hidden\"\n"
      "  37 \"unavailable\" state=0x1\n"
      "  40 \"graphic\"\n"
      "  41 \"text\"\n"
      "  37 \"B\"\n");
  VariantBool isOK = kFalse;
  ChildList list = List(root, kTrue, isOK);
  EXPECT_EQ(isOK, kTrue);
  EXPECT_THAT(Names(list), ElementsAre(u"A1a", u"A2", u"B"));
  EXPECT_THAT(list.Levels, ElementsAre(2, 1, 0));
  EXPECT_EQ(root->Find(u"under hidden")->Calls(u"accRole"), 0);
  // Each level of a nested listing adds the element, and reads its state, once more.
  EXPECT_EQ(root->Find(u"A1a")->Calls(u"accState"), 1 + 3);

  // Without descendents the direct children that pass the filters come, all at level 0.
  ChildList direct = List(root, kFalse, isOK);
  EXPECT_THAT(Names(direct), ElementsAre(u"A", u"B"));
  EXPECT_THAT(direct.Levels, ElementsAre(0, 0));
  EXPECT_EQ(direct.SelectedChild, 0);  // none selected
  ExpectNothingReported();

  // The selected child is the last one selected; an empty or fully filtered listing succeeds.
  auto two =
      Parse("10 \"c\"\n  37 \"a\"\n  37 \"b\" state=0x2\n  37 \"c\"\n  37 \"d\" state=0x2\n");
  EXPECT_EQ(List(two, kFalse, isOK).SelectedChild, 3);
  for (const char* text : {"10 \"client\"\n  40 \"graphic\"\n", "10 \"empty\"\n"}) {
    isOK = kFalse;
    EXPECT_THAT(List(Parse(text), kTrue, isOK).Children, IsEmpty());
    EXPECT_EQ(isOK, kTrue);
  }
}

TEST_F(Walker, SimpleChildFailsItsOwnLevelOnly) {
  auto first = Parse(
      "10 \"client\"\n"
      "  37 \"A\"\n"
      "  37 \"simple\" simple\n");
  VariantBool isOK = kFalse;
  ChildList list = List(first, kTrue, isOK);
  EXPECT_THAT(list.Children, IsEmpty());
  EXPECT_THAT(list.Levels, IsEmpty());
  EXPECT_EQ(isOK, kFalse);

  auto deeper = Parse(
      "10 \"client\"\n"
      "  37 \"A\"\n"
      "    43 \"A1\"\n"
      "    43 \"simple\" simple\n"
      "  37 \"B\"\n");
  list = List(deeper, kTrue, isOK);
  EXPECT_EQ(isOK, kTrue);
  EXPECT_THAT(Names(list), ElementsAre(u"B"));
  ExpectNothingReported();
}

TEST_F(Walker, TreesThatLeadBackOrGoTooDeepEnd) {
  auto root = Parse(
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
  ExpectNothingReported();
}

TEST(AccessibleTree, RejectsMalformedLinesWithTheirNumbers) {
  struct Case {
    const char* text;
    int line;
    const char* error;
  } cases[] = {
      {"10 \"a\"\n   10 \"b\"\n", 2, "indentation must be a multiple of two blanks"},
      {"10 \"a\"\n    10 \"b\"\n", 2, "indented more than one level"},
      {"10 \"a\"\n  10 \"b\" simple\n    10 \"c\"\n", 3, "a simple child has nothing below it"},
      {"10 \"a\"\n10 \"b\"\n", 2, "a tree has exactly one root"},
      {"# only a comment\n\n10 \"a\" colour=red\n", 3, "unknown field 'colour=red'"},
      {"ten \"a\"\n", 1, "role must be a number"},
      {"10 \"a\n", 1, "name has no closing quote"},
      {"10 \"a\" state=zero\n", 1, "state must be a number"},
      {"# nothing\n", 1, "no element"},
  };
  for (const auto& c : cases) {
    ParsedTree tree = ParseAccessibleTree(c.text);
    EXPECT_FALSE(tree.root) << c.text;
    EXPECT_EQ(tree.error, c.error) << c.text;
    EXPECT_EQ(tree.errorLine, c.line) << c.text;
  }
}

TEST(AccessibleTree, FieldsSetStateCountFailuresAndSimpleChildIds) {
  ParsedTree tree = ParseAccessibleTree(
      "10 \"a\" state=0x8001 count=-2 fail=accRole,accParent\n"
      "  43 \"x\" simple\n"
      "  43 \"y\" simple\n");
  ASSERT_EQ(tree.error, "");
  Ref<Object> root(tree.root);
  EXPECT_EQ(tree.root->state(), 0x8001);
  EXPECT_EQ(ToLong(CallByName(root, u"accChildCount", CallKind::kPropertyGet)), -2);
  tree.root->SetFailing(u"accRole");  // failing twice is failing
  EXPECT_THROW(CallByName(root, u"accRole", CallKind::kPropertyGet, kChildIdSelf), Failure);
  EXPECT_THROW(CallByName(root, u"accParent", CallKind::kPropertyGet), Failure);
  tree.root->SetFailing(u"accRole", false);  // un-failing undoes it
  EXPECT_EQ(ToLong(CallByName(root, u"accRole", CallKind::kPropertyGet, kChildIdSelf)), 10);
  const Variant children = CallByName(root, kPortableChildrenMember, CallKind::kPropertyGet);
  const auto& entries = std::get<std::vector<Variant>>(children.Array()->elements);
  EXPECT_THAT(entries, ElementsAre(Variant(std::int32_t{1}), Variant(std::int32_t{2})));

  // Hexadecimal after 0x or 0X; a leading zero alone is still decimal.
  ParsedTree other = ParseAccessibleTree("10 \"b\" state=0X10 count=012\n");
  ASSERT_EQ(other.error, "");
  EXPECT_EQ(other.root->state(), 16);
  EXPECT_EQ(ToLong(CallByName(Ref<Object>(other.root), u"accChildCount", CallKind::kPropertyGet)),
            12);
}

TEST(AccessibleTree, ChildByIdIsTheElementOrNothingForASimpleChild) {
  ParsedTree tree = ParseAccessibleTree(
      "10 \"a\"\n"
      "  43 \"x\"\n"
      "  43 \"y\" simple\n");
  ASSERT_EQ(tree.error, "");
  Ref<Object> root(tree.root);
  auto child = [&](std::int32_t id) {
    return CallByName(root, u"accChild", CallKind::kPropertyGet, id);
  };
  EXPECT_EQ(child(1), Variant(Ref<Object>(tree.root->Find(u"x"))));
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
