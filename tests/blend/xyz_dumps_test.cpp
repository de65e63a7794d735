// Diagnostic XYZ dumps: where they go, what they are called and what they hold.
#include <gtest/gtest.h>

#include <filesystem>

#include "blend/blend_access.h"

namespace {

namespace fs = std::filesystem;

class XyzDumpsTest : public BlendTest {
protected:
  LuAfxsPlane plane() {
    LuAfxsPlane p = planeOf({{1.0, 2.0, 3.0}, {-0.5, 0.0004, 12345.6789}}, {2}, 3, 1);
    p.resPoints = {{9.0, 8.0, 7.0}, {6.0, 5.0, 4.0}};
    return p;
  }
  void dump(const LuAfxsPlane& p, unsigned id, bool org, bool res, const std::wstring& suffix) {
    BlendAccess::FlushPlanes2XYZ(&p, id, org, res, suffix);
  }
};

TEST_F(XyzDumpsTest, PlaneDumpIsNamedAfterPlaneSubsetIdAndKinds) {
  dump(plane(), 7, false, false, L"_BlendOnly");
  EXPECT_TRUE(fs::exists(path("P3_S1_Id7_BLND_COP_BlendOnly.xyz")));
}

TEST_F(XyzDumpsTest, OrgAndResultFlagsNameTheFile) {
  dump(plane(), 2, true, true, L"x");
  EXPECT_TRUE(fs::exists(path("P3_S1_Id2_ORG_RESx.xyz")));
}

TEST_F(XyzDumpsTest, LinesHoldFixedThreeDecimalsTabSeparatedWithLineFeeds) {
  dump(plane(), 7, false, false, L"_BlendOnly");
  EXPECT_EQ(lutest::readText(path("P3_S1_Id7_BLND_COP_BlendOnly.xyz")),
            lutest::platformLines("1.000\t2.000\t3.000\n-0.500\t0.000\t12345.679\n"));
}

TEST_F(XyzDumpsTest, ResultPointDumpWritesTheResultPoints) {
  dump(plane(), 7, false, true, L"");
  EXPECT_EQ(lutest::readText(path("P3_S1_Id7_BLND_RES.xyz")),
            lutest::platformLines("9.000\t8.000\t7.000\n6.000\t5.000\t4.000\n"));
}

TEST_F(XyzDumpsTest, ResultPointDumpWithFewerResultPointsStillWritesOneLinePerPoint) {
  LuAfxsPlane p = plane();
  p.resPoints.resize(1);
  dump(p, 7, false, true, L"");
  EXPECT_EQ(lutest::readText(path("P3_S1_Id7_BLND_RES.xyz")),
            lutest::platformLines("9.000\t8.000\t7.000\n-0.500\t0.000\t12345.679\n"));
}

TEST_F(XyzDumpsTest, PlaneWithNoPointsProducesAnEmptyFile) {
  LuAfxsPlane empty = planeOf({}, {});
  dump(empty, 1, false, false, L"_BlendOnly");
  ASSERT_TRUE(fs::exists(path("P3_S1_Id1_BLND_COP_BlendOnly.xyz")));
  EXPECT_EQ(fs::file_size(path("P3_S1_Id1_BLND_COP_BlendOnly.xyz")), 0u);
}

TEST_F(XyzDumpsTest, SecondDumpOfTheSamePlaneOverwritesTheFirst) {
  dump(plane(), 7, false, false, L"_BlendOnly");
  LuAfxsPlane shorter = planeOf({{4.0, 4.0, 4.0}}, {1}, 3, 1);
  dump(shorter, 7, false, false, L"_BlendOnly");
  EXPECT_EQ(lutest::readText(path("P3_S1_Id7_BLND_COP_BlendOnly.xyz")), lutest::platformLines("4.000\t4.000\t4.000\n"));
}

TEST_F(XyzDumpsTest, MissingDirectoryWritesNothingAndIsNotCreated) {
  const fs::path missing = path("absent");
  LuAfxsUserDataSet::SetXYZDumpDirectory(missing.wstring().c_str());
  dump(plane(), 7, false, false, L"_BlendOnly");
  EXPECT_FALSE(fs::exists(missing));
  EXPECT_TRUE(reports().empty());
  EXPECT_TRUE(logs().empty());
}

TEST_F(XyzDumpsTest, QStarDumpWritesProjectionsInKeyOrder) {
  std::map<int, LuAfxsUserDataSet::Vec3PNT_INDX> projected;
  projected[5] = {{5.0, 0.0, 0.0}, 1};
  projected[-1] = {{-1.0, 0.25, 0.0}, 2};
  BlendAccess::FlushCurrPlaneQStar(projected, 9, 4);
  EXPECT_EQ(lutest::readText(path("QStar_P4_Id9.xyz")),
            lutest::platformLines("-1.000\t0.250\t0.000\n5.000\t0.000\t0.000\n"));
}

TEST_F(XyzDumpsTest, OverrideWinsOverTheEnvironment) {
  const fs::path other = path("env");
  fs::create_directories(other);
  lutest::setEnv("LUANAF_XYZ_DIR", other.string().c_str());
  dump(plane(), 7, false, false, L"_BlendOnly");
  lutest::unsetEnv("LUANAF_XYZ_DIR");
  EXPECT_TRUE(fs::exists(path("P3_S1_Id7_BLND_COP_BlendOnly.xyz")));
  EXPECT_FALSE(fs::exists(other / "P3_S1_Id7_BLND_COP_BlendOnly.xyz"));
}

TEST_F(XyzDumpsTest, EnvironmentIsReadAtEachDumpWhenNotOverridden) {
  LuAfxsUserDataSet::SetXYZDumpDirectory(nullptr);
  const fs::path first = path("first");
  const fs::path second = path("second");
  fs::create_directories(first);
  fs::create_directories(second);
  lutest::setEnv("LUANAF_XYZ_DIR", first.string().c_str());
  dump(plane(), 7, false, false, L"_BlendOnly");
  lutest::setEnv("LUANAF_XYZ_DIR", second.string().c_str());
  dump(plane(), 8, false, false, L"_BlendOnly");
  lutest::unsetEnv("LUANAF_XYZ_DIR");
  EXPECT_TRUE(fs::exists(first / "P3_S1_Id7_BLND_COP_BlendOnly.xyz"));
  EXPECT_TRUE(fs::exists(second / "P3_S1_Id8_BLND_COP_BlendOnly.xyz"));
}

TEST_F(XyzDumpsTest, DefaultDirectoryIsTheFixedOneWithItsSeparator) {
  LuAfxsUserDataSet::SetXYZDumpDirectory(nullptr);
  lutest::unsetEnv("LUANAF_XYZ_DIR");
#if defined(_WIN32)
  EXPECT_EQ(BlendAccess::XYZDumpDirectory(), L"c:\\Temp\\XYZ\\");
#else
  EXPECT_EQ(BlendAccess::XYZDumpDirectory(), L"/tmp/XYZ/");
#endif
}

}  // namespace
