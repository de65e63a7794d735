// The unification registry: its starting state and the two switches.
#include <gtest/gtest.h>

#include "blend/blend_access.h"

namespace {

// Each test runs in its own process under ctest, so this sees the state the
// library starts with.
TEST(RegistryTest, StartsEmptyWithIdZeroAndBlendingOff) {
  EXPECT_TRUE(BlendAccess::m_MapXSId2DataSet.empty());
  EXPECT_TRUE(BlendAccess::m_VecCurrDataSets.empty());
  EXPECT_TRUE(BlendAccess::m_VecOutputsOIDVec.empty());
  EXPECT_EQ(BlendAccess::m_CurrXsId, 0u);
  EXPECT_FALSE(BlendAccess::m_bSupportXSBlending);
}

TEST(RegistryTest, BlendingScratchStartsEmpty) {
  EXPECT_TRUE(BlendAccess::m_VectResultedSegmentsStart.empty());
  EXPECT_TRUE(BlendAccess::m_MapPointIndx2PrjctdPoint.empty());
  EXPECT_TRUE(BlendAccess::m_MapPointIndx2Category.empty());
  EXPECT_TRUE(BlendAccess::m_BlendedQPointsVector.empty());
  EXPECT_TRUE(BlendAccess::m_VectQUsedSegmentsStart.empty());
}

TEST(RegistryTest, SetCurrentXSIdChangesOnlyTheId) {
  LuAfxsUserLink link(L"unused.afxs");
  LuAfxsUserDataSet set(link);
  BlendAccess::SetCurrentXSId(4);
  BlendAccess::m_MapXSId2DataSet[4] = {&set};
  BlendAccess::m_VecCurrDataSets = {&set};

  BlendAccess::SetCurrentXSId(9);

  EXPECT_EQ(BlendAccess::m_CurrXsId, 9u);
  ASSERT_EQ(BlendAccess::m_MapXSId2DataSet.count(4), 1u);
  EXPECT_EQ(BlendAccess::m_MapXSId2DataSet[4].front(), &set);
  EXPECT_EQ(BlendAccess::m_MapXSId2DataSet.count(9), 0u);
  EXPECT_EQ(BlendAccess::m_VecCurrDataSets.size(), 1u);
  BlendAccess::m_MapXSId2DataSet.clear();
  BlendAccess::m_VecCurrDataSets.clear();
}

TEST(RegistryTest, SupportXSectionBlendingSwitchesBlendingOnAndOff) {
  BlendAccess::SupportXSectionBlending(true);
  EXPECT_TRUE(BlendAccess::m_bSupportXSBlending);
  BlendAccess::SupportXSectionBlending(false);
  EXPECT_FALSE(BlendAccess::m_bSupportXSBlending);
}

}  // namespace
