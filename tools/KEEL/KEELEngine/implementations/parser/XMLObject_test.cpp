#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace {

std::vector<std::string> Values(const KEELComponentPtrList& components) {
  std::vector<std::string> values;
  for (const KEELComponent* component : components) {
    values.push_back(component->GetValue());
  }
  return values;
}

// keel
//   a "1"
//     b "2"
//       keel "3"
//   b "4"
//     c "5"
//   protocol
//     url "u"
void BuildSample(XMLObject& document) {
  document.SetRoot(new KEELComponent("keel", "0"));
  KEELComponent* root = document.GetRoot();
  KEELComponent* a = new KEELComponent("a", "1");
  document.AddChild(root, a);
  KEELComponent* b = new KEELComponent("b", "2");
  document.AddChild(a, b);
  document.AddChild(b, "keel", "3");
  KEELComponent* b2 = new KEELComponent("b", "4");
  document.AddChild(root, b2);
  document.AddChild(b2, "c", "5");
  KEELComponent* protocol = new KEELComponent("protocol", "");
  document.AddChild(root, protocol);
  document.AddChild(protocol, "url", "u");
}

// The sample tree above in a document of its own; `root` is its "keel".
class XMLObjectSample : public ::testing::Test {
 protected:
  XMLObjectSample() {
    BuildSample(document);
    root = document.GetRoot();
  }
  XMLObject document;
  KEELComponent* root = nullptr;
};

}  // namespace

TEST(XMLObject, DefaultIsEmpty) {
  XMLObject document;
  EXPECT_EQ(document.GetRoot(), nullptr);
  EXPECT_EQ(document.GetCount(), 0u);
  EXPECT_EQ(document.GetName(), "");
  EXPECT_EQ(document.GetValue(), "");
  document.SetValue("ignored");
  document.SetName("ignored");
  EXPECT_EQ(document.GetRoot(), nullptr);
  EXPECT_EQ(document.GetCount(), 0u);
}

TEST(XMLObject, NamedHasARootOfCountOne) {
  XMLObject document("summary", "v");
  ASSERT_NE(document.GetRoot(), nullptr);
  EXPECT_EQ(document.GetCount(), 1u);
  EXPECT_EQ(document.GetName(), "summary");
  EXPECT_EQ(document.GetValue(), "v");
  document.SetName("s");
  document.SetValue("w");
  EXPECT_EQ(document.GetRoot()->GetName(), "s");
  EXPECT_EQ(document.GetRoot()->GetValue(), "w");
}

TEST_F(XMLObjectSample, CountsFollowTheDocumentsOwnOperations) {
  EXPECT_EQ(document.GetCount(), 8u);
  EXPECT_EQ(document.GetRoot()->GetCount(), 8u);
  document.AddToCount(2);
  EXPECT_EQ(document.GetCount(), 10u);
  document.SubtractFromCount(2);
  EXPECT_EQ(document.GetCount(), 8u);
  // A child added straight to a component is not seen by the document.
  document.GetRoot()->AddChild("quiet", "");
  EXPECT_EQ(document.GetCount(), 8u);
  EXPECT_EQ(document.GetRoot()->GetCount(), 9u);
}

TEST(XMLObject, AddChildWithNullParentSetsTheRoot) {
  XMLObject document;
  KEELComponent* root = new KEELComponent("r", "");
  root->AddChild("c", "");
  document.AddChild(nullptr, root);
  EXPECT_EQ(document.GetRoot(), root);
  EXPECT_EQ(document.GetCount(), 2u);
  document.AddChild(nullptr, static_cast<KEELComponent*>(nullptr));
  document.AddChild(root, static_cast<KEELComponent*>(nullptr));
  EXPECT_EQ(document.GetRoot(), root);
  EXPECT_EQ(document.GetCount(), 2u);
}

TEST(XMLObject, AddChildByNameWithNullParentNamesTheRoot) {
  XMLObject empty;
  empty.AddChild(nullptr, "root", "v");
  ASSERT_NE(empty.GetRoot(), nullptr);
  EXPECT_EQ(empty.GetName(), "root");
  EXPECT_EQ(empty.GetValue(), "v");
  EXPECT_EQ(empty.GetCount(), 1u);
  // The root made this way is default-built: its own count stays 0.
  EXPECT_EQ(empty.GetRoot()->GetCount(), 0u);
  // With a root, the same call renames it and the count stays.
  empty.AddChild(nullptr, "again", "w");
  EXPECT_EQ(empty.GetName(), "again");
  EXPECT_EQ(empty.GetCount(), 1u);
}

TEST(XMLObject, SetRootDoesNotFreeTheOldRoot) {
  XMLObject document("first", "");
  std::unique_ptr<KEELComponent> first(document.GetRoot());  // the caller keeps it
  KEELComponent* second = new KEELComponent("second", "");
  second->AddChild("c", "");
  document.SetRoot(second);
  EXPECT_EQ(document.GetRoot(), second);
  EXPECT_EQ(document.GetCount(), 2u);
  EXPECT_EQ(first->GetName(), "first");
  // A null root empties the document but keeps the count.
  std::unique_ptr<KEELComponent> keep(document.GetRoot());
  document.SetRoot(static_cast<KEELComponent*>(nullptr));
  EXPECT_EQ(document.GetRoot(), nullptr);
  EXPECT_EQ(document.GetCount(), 2u);
}

TEST(XMLObject, SetNameMakesAZeroCountOne) {
  XMLObject document;
  document.SetRoot(new KEELComponent());
  EXPECT_EQ(document.GetCount(), 0u);
  document.SetName("n");
  EXPECT_EQ(document.GetCount(), 1u);
  EXPECT_EQ(document.GetName(), "n");
}

TEST_F(XMLObjectSample, RemoveChildSubtractsThenRemoves) {
  KEELComponent* a = root->FindChild("a");
  document.RemoveChild(root, a);
  EXPECT_EQ(document.GetCount(), 5u);
  EXPECT_EQ(root->GetCount(), 5u);
  EXPECT_EQ(root->FindChild("a"), nullptr);
  document.RemoveChild(nullptr, root->FindChild("b"));
  document.RemoveChild(root, nullptr);
  EXPECT_EQ(document.GetCount(), 5u);
}

TEST_F(XMLObjectSample, RemoveChildByNameOfAGrandchildLowersOnlyTheDocumentCount) {
  // The first "b" in pre-order stands below "a": it is found, its count (2)
  // is taken off the document, but the root can't remove it.
  document.RemoveChildByName(root, "b");
  EXPECT_EQ(document.GetCount(), 6u);
  EXPECT_EQ(root->GetCount(), 8u);
  ASSERT_NE(root->FindChild("b"), nullptr);
  EXPECT_EQ(root->FindChild("b")->GetValue(), "2");
  EXPECT_EQ(root->GetChildren().size(), 3u);
}

TEST_F(XMLObjectSample, RemoveChildByNameOfADirectChildRemovesIt) {
  document.RemoveChildByName(root, "protocol");
  EXPECT_EQ(document.GetCount(), 6u);
  EXPECT_EQ(root->GetCount(), 6u);
  EXPECT_EQ(root->FindChild("url"), nullptr);
  document.RemoveChildByName(root, "nothing");
  document.RemoveChildByName(nullptr, "a");
  EXPECT_EQ(document.GetCount(), 6u);
}

TEST_F(XMLObjectSample, FindChildForwardsAndSkipsTheStart) {
  KEELComponent* found = document.FindChild(document.GetRoot(), "keel");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->GetValue(), "3");
  EXPECT_EQ(document.FindChild(nullptr, "a"), nullptr);
  EXPECT_EQ(document.FindChild(document.GetRoot(), "b")->GetValue(), "2");
}

TEST(XMLObject, FindChildOfTheRootNameIsNullWithoutADeeperOne) {
  XMLObject document;
  document.SetRoot(new KEELComponent("keel", ""));
  document.AddChild(document.GetRoot(), "os", "");
  EXPECT_EQ(document.FindChild(document.GetRoot(), "keel"), nullptr);
}

TEST_F(XMLObjectSample, FindAllIsPreOrderWithTheStartIncluded) {
  KEELComponentPtrList found;
  document.FindAll(document.GetRoot(), "keel", found);
  EXPECT_EQ(Values(found), (std::vector<std::string>{"0", "3"}));
  found.clear();
  document.FindAll(document.GetRoot(), "b", found);
  EXPECT_EQ(Values(found), (std::vector<std::string>{"2", "4"}));
  // Appends to what the list held.
  document.FindAll(document.GetRoot()->FindChild("a"), "a", found);
  EXPECT_EQ(Values(found), (std::vector<std::string>{"2", "4", "1"}));
  document.FindAll(nullptr, "a", found);
  EXPECT_EQ(found.size(), 3u);
}

TEST_F(XMLObjectSample, FindChildUnderTriesEachOuterInTurn) {
  // The first "b" has no "c"; the second has.
  KEELComponent* found = document.FindChildUnder("b", "c");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->GetValue(), "5");
  EXPECT_EQ(document.FindChildUnder("protocol", "url")->GetValue(), "u");
  EXPECT_EQ(document.FindChildUnder("protocol", "missing"), nullptr);
  EXPECT_EQ(document.FindChildUnder("missing", "url"), nullptr);
  // The outer may be the root; the inner is never the outer itself.
  EXPECT_EQ(document.FindChildUnder("keel", "keel")->GetValue(), "3");
  XMLObject empty;
  EXPECT_EQ(empty.FindChildUnder("a", "b"), nullptr);
}

TEST(XMLObject, AttributeOperationsForwardAndIgnoreNull) {
  XMLObject document("r", "");
  KEELComponent* root = document.GetRoot();
  document.AddAttribute(root, "a", "1");
  auto kept = std::make_unique<KEELAttribute>("b", "2");
  document.AddAttribute(nullptr, kept.get());  // refused: the caller keeps it
  document.AddAttribute(root, new KEELAttribute("b", "2"));
  document.AddAttribute(nullptr, "c", "3");
  EXPECT_EQ(root->GetAttributes().size(), 2u);
  EXPECT_EQ(document.FindAttribute(root, "b")->GetValue(), "2");
  EXPECT_EQ(document.FindAttribute(nullptr, "b"), nullptr);
  document.RemoveAttribute(root, document.FindAttribute(root, "b"));
  document.RemoveAttribute(nullptr, "a");
  EXPECT_EQ(root->GetAttributes().size(), 1u);
  document.RemoveAttribute(root, "a");
  EXPECT_TRUE(root->GetAttributes().empty());
}

TEST_F(XMLObjectSample, ComponentConstructorCopiesASubtree) {
  KEELComponent* a = document.GetRoot()->FindChild("a");
  XMLObject cut(a);
  ASSERT_NE(cut.GetRoot(), nullptr);
  EXPECT_NE(cut.GetRoot(), a);
  EXPECT_EQ(cut.GetName(), "a");
  EXPECT_EQ(cut.GetCount(), 3u);
  EXPECT_EQ(cut.FindChild(cut.GetRoot(), "keel")->GetValue(), "3");
  // The cut's root keeps the source's parent link.
  EXPECT_EQ(cut.GetRoot()->GetParent(), document.GetRoot());
  XMLObject none(static_cast<const KEELComponent*>(nullptr));
  EXPECT_EQ(none.GetRoot(), nullptr);
  EXPECT_EQ(none.GetCount(), 0u);
}

TEST_F(XMLObjectSample, CopyIsDeep) {
  XMLObject copy(document);
  EXPECT_EQ(copy.GetCount(), 8u);
  EXPECT_NE(copy.GetRoot(), document.GetRoot());
  EXPECT_EQ(copy.FindChildUnder("b", "c")->GetValue(), "5");
  EXPECT_NE(copy.FindChildUnder("b", "c"), document.FindChildUnder("b", "c"));
  XMLObject empty;
  XMLObject emptyCopy(empty);
  EXPECT_EQ(emptyCopy.GetRoot(), nullptr);
}

TEST_F(XMLObjectSample, AssignmentFromAnEmptyDocumentEmptiesTheTarget) {
  document = XMLObject();
  EXPECT_EQ(document.GetRoot(), nullptr);
  EXPECT_EQ(document.GetCount(), 0u);
  EXPECT_EQ(document.GetName(), "");
}

TEST_F(XMLObjectSample, AssignmentCopiesIntoANewOrExistingRoot) {
  const XMLObject& source = document;
  XMLObject noRoot;
  noRoot = source;
  ASSERT_NE(noRoot.GetRoot(), nullptr);
  EXPECT_EQ(noRoot.GetCount(), 8u);
  EXPECT_EQ(noRoot.FindChildUnder("protocol", "url")->GetValue(), "u");
  XMLObject withRoot("old", "");
  KEELComponent* oldRoot = withRoot.GetRoot();
  withRoot = source;
  EXPECT_EQ(withRoot.GetRoot(), oldRoot);
  EXPECT_EQ(withRoot.GetName(), "keel");
  EXPECT_EQ(withRoot.GetCount(), 8u);
  XMLObject& alias = withRoot;
  withRoot = alias;
  EXPECT_EQ(withRoot.GetRoot(), oldRoot);
  EXPECT_EQ(withRoot.GetCount(), 8u);
}
