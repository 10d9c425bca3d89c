#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"

#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace {

std::vector<std::string> ChildNames(const KEELComponent& component) {
  std::vector<std::string> names;
  for (const auto& child : component.GetChildren()) {
    names.push_back(child->GetName());
  }
  return names;
}

// root
//   a
//     x (value "deep")
//   x (value "direct")
KEELComponent* BuildSample() {
  KEELComponent* root = new KEELComponent("root", "");
  KEELComponent* a = new KEELComponent("a", "");
  root->AddChild(a);
  a->AddChild("x", "deep");
  root->AddChild("x", "direct");
  return root;
}

}  // namespace

TEST(KEELAttribute, HoldsNameAndValue) {
  KEELAttribute empty;
  EXPECT_EQ(empty.GetName(), "");
  EXPECT_EQ(empty.GetValue(), "");
  KEELAttribute attribute("id", "7");
  EXPECT_EQ(attribute.GetName(), "id");
  EXPECT_EQ(attribute.GetValue(), "7");
  attribute.SetValue("8");
  EXPECT_EQ(attribute.GetValue(), "8");
  KEELAttribute copy(attribute);
  EXPECT_FALSE(copy != attribute);
  copy.SetValue("9");
  EXPECT_TRUE(copy != attribute);
  KEELAttribute assigned;
  assigned = attribute;
  EXPECT_FALSE(assigned != attribute);
  EXPECT_TRUE(KEELAttribute("a", "1") != KEELAttribute("b", "1"));
}

TEST(KEELComponent, DefaultBuiltIsAnEmptyLeafOfCountZero) {
  KEELComponent component;
  EXPECT_EQ(component.GetName(), "");
  EXPECT_EQ(component.GetValue(), "");
  EXPECT_TRUE(component.IsLeaf());
  EXPECT_EQ(component.GetCount(), 0u);
  EXPECT_EQ(component.GetParent(), nullptr);
  EXPECT_TRUE(component.GetChildren().empty());
  EXPECT_TRUE(component.GetAttributes().empty());
}

TEST(KEELComponent, NamedIsALeafOfCountOne) {
  KEELComponent component("n", "v");
  EXPECT_EQ(component.GetName(), "n");
  EXPECT_EQ(component.GetValue(), "v");
  EXPECT_TRUE(component.IsLeaf());
  EXPECT_EQ(component.GetCount(), 1u);
  component.SetName("m");
  component.SetValue("w");
  component.AppendToValue("+");
  EXPECT_EQ(component.GetName(), "m");
  EXPECT_EQ(component.GetValue(), "w+");
}

TEST(KEELComponent, AddChildLinksAppendsAndCountsUpTheChain) {
  KEELComponent root("root", "");
  KEELComponent* a = new KEELComponent("a", "");
  root.AddChild(a);
  EXPECT_EQ(a->GetParent(), &root);
  EXPECT_FALSE(root.IsLeaf());
  EXPECT_EQ(root.GetCount(), 2u);
  a->AddChild("b", "1");
  a->AddChild("c", "2");
  EXPECT_EQ(a->GetCount(), 3u);
  EXPECT_EQ(root.GetCount(), 4u);
  EXPECT_EQ(ChildNames(*a), (std::vector<std::string>{"b", "c"}));
  // A subtree of three goes in with its count.
  KEELComponent* subtree = new KEELComponent("s", "");
  subtree->AddChild("t", "");
  subtree->AddChild("u", "");
  root.AddChild(subtree);
  EXPECT_EQ(root.GetCount(), 7u);
  EXPECT_EQ(ChildNames(root), (std::vector<std::string>{"a", "s"}));
}

TEST(KEELComponent, DefaultBuiltChildIsIgnoredAndTheCallerKeepsIt) {
  KEELComponent root("root", "");
  auto orphan = std::make_unique<KEELComponent>();
  root.AddChild(orphan.get());
  EXPECT_TRUE(root.GetChildren().empty());
  EXPECT_TRUE(root.IsLeaf());
  EXPECT_EQ(root.GetCount(), 1u);
  EXPECT_EQ(orphan->GetParent(), nullptr);
  root.AddChild(static_cast<KEELComponent*>(nullptr));
  EXPECT_TRUE(root.GetChildren().empty());
}

TEST(KEELComponent, RemovingTheLastChildLeavesTheLeafFlagFalse) {
  KEELComponent root("root", "");
  root.AddChild("only", "");
  KEELComponent* only = root.GetChildren().front().get();
  root.RemoveChild(only);
  EXPECT_TRUE(root.GetChildren().empty());
  EXPECT_FALSE(root.IsLeaf());
  EXPECT_EQ(root.GetCount(), 1u);
}

TEST(KEELComponent, RemoveChildTakesOnlyThatDirectChild) {
  std::unique_ptr<KEELComponent> root(BuildSample());
  ASSERT_EQ(root->GetCount(), 4u);
  KEELComponent* a = root->GetChildren().front().get();
  KEELComponent* deep = a->GetChildren().front().get();
  // A grandchild is not a direct child: nothing happens.
  root->RemoveChild(deep);
  EXPECT_EQ(root->GetCount(), 4u);
  EXPECT_EQ(a->GetChildren().size(), 1u);
  // Null and foreign pointers do nothing either.
  KEELComponent foreign("a", "");
  root->RemoveChild(&foreign);
  root->RemoveChild(nullptr);
  EXPECT_EQ(root->GetCount(), 4u);
  // Removing a subtree subtracts its count up the chain.
  root->RemoveChild(a);
  EXPECT_EQ(root->GetCount(), 2u);
  EXPECT_EQ(ChildNames(*root), (std::vector<std::string>{"x"}));
}

TEST(KEELComponent, RemoveFromInnerNodeCorrectsEveryAncestor) {
  std::unique_ptr<KEELComponent> root(BuildSample());
  KEELComponent* a = root->GetChildren().front().get();
  a->RemoveChild(a->GetChildren().front().get());
  EXPECT_EQ(a->GetCount(), 1u);
  EXPECT_EQ(root->GetCount(), 3u);
  EXPECT_FALSE(a->IsLeaf());
}

TEST(KEELComponent, FindChildNeverComparesTheStartComponent) {
  KEELComponent keel("keel", "");
  keel.AddChild("os", "");
  EXPECT_EQ(keel.FindChild("keel"), nullptr);
  KEELComponent* os = keel.GetChildren().front().get();
  os->AddChild("keel", "inner");
  KEELComponent* found = keel.FindChild("keel");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->GetValue(), "inner");
}

TEST(KEELComponent, FindChildPrefersADeepMatchInAnEarlierChild) {
  std::unique_ptr<KEELComponent> root(BuildSample());
  KEELComponent* found = root->FindChild("x");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->GetValue(), "deep");
}

TEST(KEELComponent, FindChildComparesExactly) {
  std::unique_ptr<KEELComponent> root(BuildSample());
  EXPECT_EQ(root->FindChild("X"), nullptr);
  EXPECT_EQ(root->FindChild("x "), nullptr);
  EXPECT_EQ(root->FindChild(""), nullptr);
  EXPECT_EQ(root->FindChild(std::string("x\0", 2)), nullptr);
  EXPECT_EQ(KEELComponent("leaf", "").FindChild("leaf"), nullptr);
}

TEST(KEELComponent, RemoveChildByNameOfAGrandchildLeavesTheTree) {
  std::unique_ptr<KEELComponent> root(BuildSample());
  // The first "x" in pre-order is the grandchild, which is no direct child.
  root->RemoveChildByName("x");
  EXPECT_EQ(root->GetCount(), 4u);
  EXPECT_EQ(ChildNames(*root), (std::vector<std::string>{"a", "x"}));
  root->RemoveChildByName("a");
  EXPECT_EQ(root->GetCount(), 2u);
  EXPECT_EQ(ChildNames(*root), (std::vector<std::string>{"x"}));
  root->RemoveChildByName("nothing");
  EXPECT_EQ(root->GetCount(), 2u);
}

TEST(KEELComponent, DuplicateAttributesAreAcceptedAndTheFirstIsFound) {
  KEELComponent component("c", "");
  component.AddAttribute("id", "1");
  component.AddAttribute(new KEELAttribute("id", "2"));
  component.AddAttribute(static_cast<KEELAttribute*>(nullptr));
  ASSERT_EQ(component.GetAttributes().size(), 2u);
  ASSERT_NE(component.FindAttribute("id"), nullptr);
  EXPECT_EQ(component.FindAttribute("id")->GetValue(), "1");
  EXPECT_EQ(component.FindAttribute("ID"), nullptr);
  EXPECT_EQ(component.FindAttribute("i"), nullptr);
  component.RemoveAttribute("id");
  ASSERT_EQ(component.GetAttributes().size(), 1u);
  EXPECT_EQ(component.FindAttribute("id")->GetValue(), "2");
}

TEST(KEELComponent, AttributesKeepOrderAndGoByPointer) {
  KEELComponent component("c", "");
  component.AddAttribute("a", "1");
  component.AddAttribute("b", "2");
  component.AddAttribute("c", "3");
  std::vector<std::string> names;
  for (const auto& attribute : component.GetAttributes()) {
    names.push_back(attribute->GetName() + "=" + attribute->GetValue());
  }
  EXPECT_EQ(names, (std::vector<std::string>{"a=1", "b=2", "c=3"}));
  KEELAttribute foreign("b", "2");
  component.RemoveAttribute(&foreign);
  EXPECT_EQ(component.GetAttributes().size(), 3u);
  component.RemoveAttribute(component.FindAttribute("b"));
  EXPECT_EQ(component.GetAttributes().size(), 2u);
  EXPECT_EQ(component.FindAttribute("b"), nullptr);
  component.RemoveAttribute(static_cast<KEELAttribute*>(nullptr));
  component.RemoveAttribute("missing");
  EXPECT_EQ(component.GetAttributes().size(), 2u);
  component.ClearAttributes();
  EXPECT_TRUE(component.GetAttributes().empty());
}

TEST(KEELComponent, LookupPointersStayValidWhileOthersChange) {
  KEELComponent root("root", "");
  for (int i = 0; i < 50; ++i) {
    root.AddChild("c" + std::to_string(i), "");
    root.AddAttribute("a" + std::to_string(i), std::to_string(i));
  }
  KEELComponent* c10 = root.FindChild("c10");
  KEELAttribute* a10 = root.FindAttribute("a10");
  for (int i = 50; i < 500; ++i) {
    root.AddChild("c" + std::to_string(i), "");
    root.AddAttribute("a" + std::to_string(i), "");
  }
  root.RemoveChildByName("c3");
  root.RemoveAttribute("a3");
  EXPECT_EQ(root.FindChild("c10"), c10);
  EXPECT_EQ(c10->GetName(), "c10");
  EXPECT_EQ(root.FindAttribute("a10"), a10);
  EXPECT_EQ(a10->GetValue(), "10");
}

TEST(KEELComponent, ClearChildrenKeepsCountsAndFlag) {
  std::unique_ptr<KEELComponent> root(BuildSample());
  root->ClearChildren();
  EXPECT_TRUE(root->GetChildren().empty());
  EXPECT_FALSE(root->IsLeaf());
  // Counts are the business of the add and remove operations only.
  EXPECT_EQ(root->GetCount(), 4u);
}

TEST(KEELComponent, CountArithmeticIsUnsignedUpTheChain) {
  KEELComponent root("root", "");
  root.AddChild("a", "");
  KEELComponent* a = root.GetChildren().front().get();
  a->AddToCount(5);
  EXPECT_EQ(a->GetCount(), 6u);
  EXPECT_EQ(root.GetCount(), 7u);
  a->SubtractFromCount(10);
  EXPECT_EQ(a->GetCount(), static_cast<uint32_t>(-4));
  EXPECT_EQ(root.GetCount(), static_cast<uint32_t>(-3));
}

TEST(KEELComponent, CopyIsDeepWithTheSameCountsAndFlag) {
  std::unique_ptr<KEELComponent> root(BuildSample());
  root->AddAttribute("k", "v");
  KEELComponent copy(*root);
  EXPECT_EQ(copy.GetName(), "root");
  EXPECT_EQ(copy.GetCount(), 4u);
  EXPECT_FALSE(copy.IsLeaf());
  ASSERT_EQ(copy.GetChildren().size(), 2u);
  EXPECT_NE(copy.GetChildren().front().get(), root->GetChildren().front().get());
  EXPECT_NE(copy.FindAttribute("k"), root->FindAttribute("k"));
  EXPECT_EQ(copy.FindAttribute("k")->GetValue(), "v");
  EXPECT_EQ(copy.FindChild("x")->GetValue(), "deep");
  // Changing the source leaves the copy as it was.
  root->FindChild("x")->SetValue("changed");
  EXPECT_EQ(copy.FindChild("x")->GetValue(), "deep");
}

TEST(KEELComponent, CopyKeepsStaleParentLinks) {
  std::unique_ptr<KEELComponent> root(BuildSample());
  KEELComponent* a = root->GetChildren().front().get();
  KEELComponent copyOfA(*a);
  // The copy's root keeps the source's parent...
  EXPECT_EQ(copyOfA.GetParent(), root.get());
  // ...and an inner node still points at its parent in the source.
  EXPECT_EQ(copyOfA.GetChildren().front()->GetParent(), a);
  KEELComponent copyOfRoot(*root);
  EXPECT_EQ(copyOfRoot.GetParent(), nullptr);
  EXPECT_EQ(copyOfRoot.GetChildren().front()->GetParent(), root.get());
}

TEST(KEELComponent, AssignmentReplacesEverythingDeeply) {
  std::unique_ptr<KEELComponent> source(BuildSample());
  KEELComponent target("old", "value");
  target.AddChild("gone", "");
  target.AddAttribute("gone", "");
  target = *source;
  EXPECT_EQ(target.GetName(), "root");
  EXPECT_EQ(target.GetValue(), "");
  EXPECT_EQ(target.GetCount(), 4u);
  EXPECT_EQ(ChildNames(target), (std::vector<std::string>{"a", "x"}));
  EXPECT_EQ(target.FindAttribute("gone"), nullptr);
  EXPECT_EQ(target.FindChild("gone"), nullptr);
  // Assigning a leaf back makes a leaf again.
  target = KEELComponent("leaf", "");
  EXPECT_TRUE(target.IsLeaf());
  EXPECT_TRUE(target.GetChildren().empty());
  EXPECT_EQ(target.GetCount(), 1u);
}

TEST(KEELComponent, AssignmentToItselfDoesNothing) {
  std::unique_ptr<KEELComponent> root(BuildSample());
  KEELComponent* a = root->GetChildren().front().get();
  KEELComponent& alias = *root;
  *root = alias;
  EXPECT_EQ(root->GetCount(), 4u);
  EXPECT_EQ(root->GetChildren().front().get(), a);
}

TEST(KEELComponent, AssignmentFromOwnSubtreeIsSafe) {
  std::unique_ptr<KEELComponent> root(BuildSample());
  KEELComponent* a = root->GetChildren().front().get();
  *root = *a;
  EXPECT_EQ(root->GetName(), "a");
  EXPECT_EQ(root->GetCount(), 2u);
  ASSERT_EQ(root->GetChildren().size(), 1u);
  EXPECT_EQ(root->GetChildren().front()->GetValue(), "deep");
}

TEST(KEELComponent, InequalityComparesFieldsAndPointers) {
  KEELComponent one("n", "v");
  KEELComponent two("n", "v");
  EXPECT_FALSE(one != two);
  two.SetValue("w");
  EXPECT_TRUE(one != two);
  two.SetValue("v");
  two.AddAttribute("k", "v");
  one.AddAttribute("k", "v");
  // Same contents, different attribute pointers.
  EXPECT_TRUE(one != two);
  std::unique_ptr<KEELComponent> root(BuildSample());
  KEELComponent copy(*root);
  // A deep copy has other child pointers.
  EXPECT_TRUE(copy != *root);
  EXPECT_FALSE(*root != *root);
  KEELComponent leafA("n", "");
  KEELComponent leafB("n", "");
  leafB.AddChild("c", "");
  leafB.ClearChildren();
  // Only the leaf flag differs now.
  EXPECT_TRUE(leafA != leafB);
}
