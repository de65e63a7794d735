#include <cmath>
#include <type_traits>

#include "support/test_support.h"

TEST(Vec3Test, LayoutIsThreeDoubles) {
  EXPECT_EQ(sizeof(LuVec3), 24u);
  EXPECT_TRUE(std::is_standard_layout_v<LuVec3>);
  EXPECT_TRUE(std::is_trivially_copyable_v<LuVec3>);
}

TEST(Vec3Test, Arithmetic) {
  LuVec3 a{1, 2, 3}, b{4, 5, 6};
  EXPECT_EQ(a + b, (LuVec3{5, 7, 9}));
  EXPECT_EQ(b - a, (LuVec3{3, 3, 3}));
  EXPECT_EQ(a * 2.0, (LuVec3{2, 4, 6}));
  EXPECT_DOUBLE_EQ(a.dot(b), 32.0);
  EXPECT_EQ(a.cross(b), (LuVec3{-3, 6, -3}));
  EXPECT_DOUBLE_EQ((LuVec3{3, 4, 0}).length(), 5.0);
  EXPECT_EQ(a[0], 1.0);
  EXPECT_EQ(a[1], 2.0);
  EXPECT_EQ(a[2], 3.0);
}

TEST(BBoxTest, EmptyBoxIntersectsAndContainsNothing) {
  LuBBox empty;
  LuBBox box(std::vector<LuVec3>{{0, 0, 0}, {1, 1, 1}});
  EXPECT_FALSE(empty.intersect(box));
  EXPECT_FALSE(box.intersect(empty));
  EXPECT_FALSE(empty.inside({0, 0, 0}));
  EXPECT_FALSE(box.intersection(empty).inside({0, 0, 0}));
  EXPECT_TRUE(LuBBox(std::vector<LuVec3>{}).empty());
}

TEST(BBoxTest, TouchingBoxesIntersect) {
  LuBBox a(std::vector<LuVec3>{{0, 0, 0}, {1, 1, 1}});
  LuBBox b(std::vector<LuVec3>{{1, 1, 1}, {2, 2, 2}});
  LuBBox c(std::vector<LuVec3>{{1.5, 0, 0}, {2, 1, 1}});
  EXPECT_TRUE(a.intersect(b));
  EXPECT_FALSE(a.intersect(c));
  LuBBox x = a.intersection(b);
  EXPECT_TRUE(x.inside({1, 1, 1}));
  EXPECT_FALSE(x.inside({0.5, 0.5, 0.5}));
}

TEST(BBoxTest, PointOnAFaceIsInside) {
  LuBBox a(std::vector<LuVec3>{{0, 0, 0}, {2, 2, 2}});
  EXPECT_TRUE(a.inside({0, 1, 2}));
  EXPECT_FALSE(a.inside({0, 1, 2.0000001}));
  LuBBox copy;
  copy = a;
  EXPECT_TRUE(copy.inside({1, 1, 1}));
}

TEST(MathTest, AcosClampsItsArgument) {
  EXPECT_DOUBLE_EQ(luAcos(1.5), 0.0);
  EXPECT_DOUBLE_EQ(luAcos(-2.0), std::acos(-1.0));
  EXPECT_DOUBLE_EQ(luAcos(0.0), std::acos(0.0));
}

TEST(MathTest, PointTrianglePositionIsTheFootAlongTheEdge) {
  double t = -1, u = 7, v = 7;
  luMathPointTrianglePosition({1, 5, 0}, {0, 0, 0}, {4, 0, 0}, {0, 0, 1}, t, u, v);
  EXPECT_DOUBLE_EQ(t, 0.25);
  EXPECT_EQ(u, 0.0);
  EXPECT_EQ(v, 0.0);
}

TEST(MathTest, PointTrianglePositionWithCoincidentEndsIsZero) {
  double t = -1, u = 1, v = 1;
  luMathPointTrianglePosition({1, 5, 0}, {2, 2, 2}, {2, 2, 2}, {2, 2, 3}, t, u, v);
  EXPECT_EQ(t, 0.0);
}
