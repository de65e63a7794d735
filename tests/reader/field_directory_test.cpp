// The field directory of a record: an ordered map of identifier -> offset,
// flat for the identifiers of the field table, with a sorted list beside
// for any other identifier.
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <luAnaf/luAnaf.h>

namespace {

using Entries = std::vector<std::pair<uint32_t, uint32_t>>;

Entries entriesOf(const LuAfxsFieldDirectory& directory) {
  Entries out;
  for (const auto& [id, offset] : directory) out.push_back({id, offset});
  return out;
}

TEST(FieldDirectoryTest, StartsEmpty) {
  LuAfxsFieldDirectory directory;
  EXPECT_TRUE(directory.empty());
  EXPECT_EQ(directory.size(), 0u);
  EXPECT_EQ(directory.begin(), directory.end());
  EXPECT_EQ(directory.find(0), directory.end());
  EXPECT_EQ(directory.count(4), 0u);
}

TEST(FieldDirectoryTest, WalksEveryIdentifierInAscendingOrderWhateverTheOrderEntered) {
  LuAfxsFieldDirectory directory;
  // As a record and its results record list them, with identifiers the
  // field table lacks among them.
  for (auto [id, offset] : Entries{{0, 20},
                                   {12, 30},
                                   {1, 40},
                                   {9, 50},
                                   {3, 60},
                                   {4, 70},
                                   {0xFFFFFFFE, 80},
                                   {10, 90},
                                   {6, 100},
                                   {5, 110}})
    directory.emplace(id, offset);
  EXPECT_EQ(directory.size(), 10u);
  EXPECT_FALSE(directory.empty());
  EXPECT_EQ(entriesOf(directory), (Entries{{0, 20},
                                           {1, 40},
                                           {3, 60},
                                           {4, 70},
                                           {5, 110},
                                           {6, 100},
                                           {9, 50},
                                           {10, 90},
                                           {12, 30},
                                           {0xFFFFFFFE, 80}}));
}

TEST(FieldDirectoryTest, AnIdentifierKeepsItsFirstOffset) {
  LuAfxsFieldDirectory directory;
  EXPECT_TRUE(directory.emplace(2, 100).second);
  EXPECT_FALSE(directory.emplace(2, 200).second);
  EXPECT_TRUE(directory.emplace(17, 300).second);
  auto again = directory.emplace(17, 400);
  EXPECT_FALSE(again.second);
  EXPECT_EQ(again.first->second, 300u);
  EXPECT_EQ(directory.size(), 2u);
  EXPECT_EQ(directory.at(2), 100u);
  EXPECT_EQ(directory.at(17), 300u);
}

TEST(FieldDirectoryTest, FindsCountsAndRefusesWhatIsAbsent) {
  LuAfxsFieldDirectory directory;
  directory.emplace(4, 44);
  directory.emplace(11, 111);
  auto it = directory.find(4);
  ASSERT_NE(it, directory.end());
  EXPECT_EQ(it->first, 4u);
  EXPECT_EQ((*it).second, 44u);
  EXPECT_EQ(directory.find(11)->second, 111u);
  EXPECT_EQ(directory.count(11), 1u);
  EXPECT_TRUE(directory.contains(4));
  EXPECT_EQ(directory.find(5), directory.end());
  EXPECT_EQ(directory.find(12), directory.end());
  EXPECT_EQ(directory.count(0), 0u);
  EXPECT_THROW(directory.at(5), std::out_of_range);
  EXPECT_THROW(directory.at(10), std::out_of_range);
}

TEST(FieldDirectoryTest, ClearEmptiesItAndCopiesAreIndependent) {
  LuAfxsFieldDirectory directory;
  directory.emplace(0, 8);
  directory.emplace(20, 16);
  LuAfxsFieldDirectory copy = directory;
  directory.clear();
  EXPECT_TRUE(directory.empty());
  EXPECT_EQ(directory.count(0) + directory.count(20), 0u);
  EXPECT_EQ(entriesOf(copy), (Entries{{0, 8}, {20, 16}}));
  directory.emplace(0, 24);
  EXPECT_EQ(directory.at(0), 24u);
  EXPECT_EQ(copy.at(0), 8u);
}

}  // namespace

namespace {

TEST(FieldDirectoryTest, ReadsAndComparesLikeTheOrderedMapItStandsFor) {
  LuAfxsFieldDirectory directory;
  directory.insert({9, 90});
  directory.emplace(2, 20);
  directory.emplace(31, 310);
  directory.insert({2, 99});  // kept: the first position wins
  const std::map<uint32_t, uint32_t> asMap = directory;
  EXPECT_EQ(asMap, (std::map<uint32_t, uint32_t>{{2, 20}, {9, 90}, {31, 310}}));
  EXPECT_TRUE(directory == asMap);
  EXPECT_FALSE(directory == (std::map<uint32_t, uint32_t>{{2, 20}, {9, 90}}));
  EXPECT_FALSE(directory == (std::map<uint32_t, uint32_t>{{2, 21}, {9, 90}, {31, 310}}));
  LuAfxsFieldDirectory same;
  for (const auto& [id, offset] : asMap) same.emplace(id, offset);
  EXPECT_TRUE(directory == same);
  same.emplace(3, 30);
  EXPECT_FALSE(directory == same);
}

}  // namespace
