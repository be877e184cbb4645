#include <mvda/platform/error.h>
#include <mvda/validation/cv_groups.h>
#include <mvda/validation/significance.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(DefaultGroups, DealsElementsOutInTurnWithMultiplesInGroupZero) {
  // 1 mod 3 = 1, 2 mod 3 = 2, 3 mod 3 = 0, ...
  const auto codes = GetDeafultCVGroupsVector(7, 3);
  const std::vector<int> expected = {1, 2, 0, 1, 2, 0, 1};
  ASSERT_EQ(codes.Size(), 7);
  for (int i = 1; i <= 7; ++i) EXPECT_EQ(codes[i], expected[i - 1]) << "element " << i;

  // More groups than elements: every element in a group of its own, none in group 0.
  const auto few = GetDeafultCVGroupsVector(5, 7);
  for (int i = 1; i <= 5; ++i) EXPECT_EQ(few[i], i);

  EXPECT_EQ(GetDeafultCVGroupsVector(0, 7).Size(), 0);
  EXPECT_THROW(GetDeafultCVGroupsVector(5, 0), NCError);
  EXPECT_THROW(GetDeafultCVGroupsVector(-1, 7), NCError);
}

TEST(Significance, NamesAndKeepingCodesFollowTheTable) {
  struct Case {
    int code;
    const char* name;
    bool significant;
  };
  const Case cases[] = {{0, "R1", true},  {1, "R2", true},  {2, "R5", true},   {3, "NS", false},
                        {4, "N3", false}, {5, "N4", false}, {6, "U", false},   {7, "NA", false},
                        {8, "RB1", true}, {9, "RB2", true}, {10, "NB1", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(std::string(SignificanceE::GetSignificance(c.code)), c.name);
    EXPECT_EQ(SignificanceE::IsSignificant(c.code), c.significant);
  }
  // Codes from outside the table are named, never read past it, and never keep a component.
  for (int code : {-1, 11, 1000}) {
    EXPECT_EQ(std::string(SignificanceE::GetSignificance(code)), "?");
    EXPECT_FALSE(SignificanceE::IsSignificant(code));
  }
}

}  // namespace
