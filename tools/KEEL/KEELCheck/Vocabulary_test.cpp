#include "tools/KEEL/KEELCheck/Vocabulary.h"

#include <gtest/gtest.h>

namespace keelcheck {
namespace {

TEST(EditDistance, CountsInsertionsDeletionsSubstitutionsAndSwaps) {
  EXPECT_EQ(EditDistance("default", "default"), 0u);
  EXPECT_EQ(EditDistance("defualt", "default"), 1u);   // swap
  EXPECT_EQ(EditDistance("tmp_out", "temp_out"), 1u);  // insertion
  EXPECT_EQ(EditDistance("locs", "loc"), 1u);          // deletion
  EXPECT_EQ(EditDistance("pith", "path"), 1u);         // substitution
  EXPECT_EQ(EditDistance("", "args"), 4u);
}

TEST(CloseName, SlipsOfThePenAreClose) {
  EXPECT_TRUE(IsCloseName("defualt", "default"));
  EXPECT_TRUE(IsCloseName("tmp_out", "temp_out"));
  EXPECT_TRUE(IsCloseName("gatherNewest", "gather_newest"));  // case and underscore
  EXPECT_TRUE(IsCloseName("Default", "default"));
  EXPECT_TRUE(IsCloseName("argss", "args"));
}

TEST(CloseName, ShortNamesAllowOneEditAndOthersAreFar) {
  EXPECT_FALSE(IsCloseName("default", "default"));  // the same name is no slip
  EXPECT_FALSE(IsCloseName("ar", "args"));          // two edits on a short name
  EXPECT_FALSE(IsCloseName("remark", "keel"));
  EXPECT_FALSE(IsCloseName("description", "directoryName"));
}

TEST(ClosestName, PicksTheNearestAndNothingForAnExactName) {
  const std::vector<std::string> names = {"path", "plugin", "args", "temp_out", "stdout"};
  EXPECT_EQ(ClosestName("tmp_out", names), "temp_out");
  EXPECT_EQ(ClosestName("stdot", names), "stdout");
  EXPECT_EQ(ClosestName("args", names), "");
  EXPECT_EQ(ClosestName("note", names), "");
}

TEST(Places, TheToolsNamesByPlace) {
  EXPECT_EQ(PlaceOfChild(Place::kRoot, "fileGroup"), Place::kFileGroup);
  EXPECT_EQ(PlaceOfChild(Place::kFileGroup, "file"), Place::kFile);
  EXPECT_EQ(PlaceOfChild(Place::kFile, "keel"), Place::kKeel);
  EXPECT_EQ(PlaceOfChild(Place::kKeel, "os"), Place::kOs);
  EXPECT_EQ(PlaceOfChild(Place::kOs, "use_extern_action"), Place::kGroup);
  EXPECT_EQ(PlaceOfChild(Place::kOs, "other_action"), Place::kOther);
  EXPECT_EQ(ChildNamesAt(Place::kDirectoryAction), (std::vector<std::string>{"loc", "pattern"}));
  EXPECT_EQ(AttributeNamesOf("loc"), (std::vector<std::string>{"gather_newest"}));
  EXPECT_TRUE(IsKnownElementName("regis64"));
  EXPECT_FALSE(IsKnownElementName("action"));  // its name is never read
}

}  // namespace
}  // namespace keelcheck
