// GetPlaneSegments: inclusive point ranges from the running counts.
#include <gtest/gtest.h>

#include "blend/blend_access.h"

namespace {

using Ranges = std::vector<unsigned int>;

TEST(PlaneSegmentsTest, RunningCountsBecomeInclusiveRanges) {
  const LuAfxsPlane plane = planeOf(line(10, 0, 1), {4, 7, 10});
  Ranges starts, ends;
  EXPECT_EQ(BlendAccess::GetPlaneSegments(&plane, starts, ends), 3u);
  EXPECT_EQ(starts, (Ranges{0, 4, 7}));
  EXPECT_EQ(ends, (Ranges{3, 6, 9}));
}

TEST(PlaneSegmentsTest, EmptySegmentsFieldGivesNoSegments) {
  const LuAfxsPlane plane = planeOf(line(5, 0, 1), {});
  Ranges starts, ends;
  EXPECT_EQ(BlendAccess::GetPlaneSegments(&plane, starts, ends), 0u);
  EXPECT_TRUE(starts.empty());
  EXPECT_TRUE(ends.empty());
}

TEST(PlaneSegmentsTest, ListsAreAppendedToAndStartsReadEndsAsTheyStand) {
  const LuAfxsPlane plane = planeOf(line(6, 0, 1), {2, 6});
  Ranges starts{100}, ends{50};
  BlendAccess::GetPlaneSegments(&plane, starts, ends);
  // Entry 1's start is read from ends[0] as it stood: the old 50.
  EXPECT_EQ(starts, (Ranges{100, 0, 51}));
  EXPECT_EQ(ends, (Ranges{50, 1, 5}));
}

TEST(PlaneSegmentsTest, EntryOfZeroWrapsTheEndToAllOnes) {
  const LuAfxsPlane plane = planeOf(line(3, 0, 1), {0, 3});
  Ranges starts, ends;
  BlendAccess::GetPlaneSegments(&plane, starts, ends);
  EXPECT_EQ(ends, (Ranges{0xFFFFFFFFu, 2}));
  EXPECT_EQ(starts, (Ranges{0, 0}));
}

}  // namespace
