// The list of cases and the choice of cases by -t and -x.
#include "cases/CaseRegistry.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

namespace check {
namespace {

std::vector<int> Ids(const std::vector<const CaseInfo*>& cases) {
  std::vector<int> ids;
  for (const CaseInfo* c : cases) ids.push_back(c->id);
  return ids;
}

TEST(CaseRegistry, NumbersAreUniqueOrderedAndGroupedByArea) {
  const std::vector<CaseInfo>& all = AllCases();
  std::map<int, unsigned> per_area;
  std::set<int> seen;
  int last = 0;
  for (const CaseInfo& c : all) {
    EXPECT_TRUE(seen.insert(c.id).second) << c.id;
    EXPECT_GT(c.id, last);
    last = c.id;
    EXPECT_FALSE(c.name.empty()) << c.id;
    EXPECT_TRUE(static_cast<bool>(c.run)) << c.id;
    ++per_area[c.id / 1000];
  }
  // 25 rows twice; 2 special; 3 generate; 2 delete; 6 mnemonic; 3 PIN;
  // 8 argument cases; 1 + 5 own-seed cases.
  EXPECT_EQ(per_area, (std::map<int, unsigned>{{1, 50}, {2, 2}, {3, 3}, {4, 2}, {5, 6}, {6, 3},
                                                {7, 8}, {8, 6}}));
}

TEST(CaseRegistry, OnlyCasesThatLeaveTheWalletAloneRunWithoutAllowWipe) {
  for (const CaseInfo& c : AllCases()) {
    const int area = c.id / 1000;
    EXPECT_EQ(c.destructive, area != 5 && area != 7) << c.id << " " << c.name;
    EXPECT_EQ(c.needsOwnSeed, area == 8) << c.id;
  }
}

TEST(CaseRegistry, AreasAreNamed) {
  EXPECT_STREQ(AreaName(1001), "seed and keys");
  EXPECT_STREQ(AreaName(2002), "special transactions");
  EXPECT_STREQ(AreaName(3001), "generate");
  EXPECT_STREQ(AreaName(4001), "delete");
  EXPECT_STREQ(AreaName(5001), "check mnemonic");
  EXPECT_STREQ(AreaName(6001), "PIN");
  EXPECT_STREQ(AreaName(7001), "arguments");
  EXPECT_STREQ(AreaName(8001), "own seed");
  EXPECT_STREQ(AreaName(9001), "other");
}

TEST(CaseRegistry, PatternsMatchTheNumberTheNameOrTheListedLine) {
  const CaseInfo info{6003, "PIN: locked after 5 mismatches", true, false, nullptr};
  EXPECT_TRUE(Matches("6003", info));
  EXPECT_TRUE(Matches("6*", info));
  EXPECT_TRUE(Matches("600?", info));
  EXPECT_TRUE(Matches("60[0-1][3]", info));
  EXPECT_TRUE(Matches("*locked*", info));
  EXPECT_TRUE(Matches("pin:*", info)) << "the name's letter case does not matter";
  EXPECT_TRUE(Matches("6003 PIN*", info));
  EXPECT_FALSE(Matches("600", info));
  EXPECT_FALSE(Matches("5*", info));
  EXPECT_FALSE(Matches("*unlocked*", info));
}

TEST(CaseRegistry, SelectTakesTheUnionOfIncludesLessEveryExclude) {
  const std::vector<CaseInfo> all = {{1001, "a", true, false, nullptr},
                                     {1101, "b", true, false, nullptr},
                                     {5001, "c", false, false, nullptr},
                                     {6003, "d lockout", true, false, nullptr}};
  EXPECT_EQ(Ids(Select(all, {}, {})), (std::vector<int>{1001, 1101, 5001, 6003}));
  EXPECT_EQ(Ids(Select(all, {"5*", "1001"}, {})), (std::vector<int>{1001, 5001}));
  EXPECT_EQ(Ids(Select(all, {}, {"11??", "*lockout"})), (std::vector<int>{1001, 5001}));
  EXPECT_EQ(Ids(Select(all, {"1*"}, {"1101"})), (std::vector<int>{1001}));
  EXPECT_TRUE(Select(all, {"9*"}, {}).empty());
}

}  // namespace
}  // namespace check
