// ClearXSBlendingInfo: the data sets of one cross-section are destroyed and
// its registry entry dropped.
#include <gtest/gtest.h>

#include "blend/blend_access.h"

namespace {

// A data set that counts its destructions.
class CountedSet : public LuAfxsUserDataSet {
public:
  CountedSet(LuAfxsUserLink& link, int& destroyed)
      : LuAfxsUserDataSet(link), m_destroyed(destroyed) {}
  ~CountedSet() override { ++m_destroyed; }

private:
  int& m_destroyed;
};

class BlendingStateTest : public ::testing::Test {
protected:
  void TearDown() override { BlendAccess::m_MapXSId2DataSet.clear(); }
  LuAfxsUserLink m_link{L"unused.afxs"};
  int m_destroyed = 0;
};

TEST_F(BlendingStateTest, ClearDestroysEveryDataSetOfTheIdAndDropsTheEntry) {
  BlendAccess::m_MapXSId2DataSet[5] = {new CountedSet(m_link, m_destroyed), nullptr,
                                       new CountedSet(m_link, m_destroyed)};

  BlendAccess::ClearXSBlendingInfo(5);

  EXPECT_EQ(m_destroyed, 2);
  EXPECT_EQ(BlendAccess::m_MapXSId2DataSet.count(5), 0u);
}

TEST_F(BlendingStateTest, ClearLeavesOtherIdsAlone) {
  CountedSet kept(m_link, m_destroyed);
  BlendAccess::m_MapXSId2DataSet[1] = {&kept};
  BlendAccess::m_MapXSId2DataSet[2] = {new CountedSet(m_link, m_destroyed)};

  BlendAccess::ClearXSBlendingInfo(2);

  EXPECT_EQ(m_destroyed, 1);
  ASSERT_EQ(BlendAccess::m_MapXSId2DataSet.count(1), 1u);
  EXPECT_EQ(BlendAccess::m_MapXSId2DataSet[1].front(), &kept);
}

TEST_F(BlendingStateTest, ClearOfAnUnknownIdChangesNothing) {
  CountedSet kept(m_link, m_destroyed);
  BlendAccess::m_MapXSId2DataSet[1] = {&kept};

  BlendAccess::ClearXSBlendingInfo(77);

  EXPECT_EQ(m_destroyed, 0);
  EXPECT_EQ(BlendAccess::m_MapXSId2DataSet.size(), 1u);
}

TEST_F(BlendingStateTest, ClearKeepsTheBlendingScratchState) {
  BlendAccess::resetScratch();
  BlendAccess::addStretch(1, 5, 0);
  BlendAccess::m_MapXSId2DataSet[3] = {new CountedSet(m_link, m_destroyed)};

  BlendAccess::ClearXSBlendingInfo(3);

  EXPECT_EQ(BlendAccess::m_VectResultedSegmentsStart.size(), 1u);
  BlendAccess::resetScratch();
}

}  // namespace
