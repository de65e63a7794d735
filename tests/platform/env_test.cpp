#include <cstdlib>

#include "support/test_support.h"

using namespace lutest;

class EnvTest : public TempDirTest {};

TEST_F(EnvTest, SendErrorHandsOneReportToTheSink) {
  sendError(5, 120, L"LuAfxsCreateIface", L"Feb  4 2016", 0xc41b0001, L"/x/y.afxs");
  ASSERT_EQ(reports().size(), 1u);
  const LuErrorReport& r = reports()[0];
  EXPECT_EQ(r.severity, 5);
  EXPECT_EQ(r.line, 120);
  EXPECT_EQ(r.source, L"LuAfxsCreateIface");
  EXPECT_EQ(r.buildDate, L"Feb  4 2016");
  EXPECT_EQ(r.code, 0xc41b0001u);
  EXPECT_EQ(r.path, L"/x/y.afxs");
  EXPECT_FALSE(r.hasSystemText);
}

TEST_F(EnvTest, SystemTextTravelsOnlyWhenGiven) {
  sendError(5, 454, L"LuAfxsUserIface", L"d", 0xc41b0008, L"p", L"No such file or directory");
  ASSERT_EQ(reports().size(), 1u);
  EXPECT_TRUE(reports()[0].hasSystemText);
  EXPECT_EQ(reports()[0].systemText, L"No such file or directory");
}

TEST_F(EnvTest, WriteLogFAppliesTheFormat) {
  writeLogF(0, 7, L"LuAfxsUserIface", L"d", L"A = %d, B = %d, %s %u %%", -3, 42, L"wide", 7u);
  ASSERT_EQ(logs().size(), 1u);
  EXPECT_EQ(logs()[0].message, L"A = -3, B = 42, wide 7 %");
  EXPECT_EQ(logs()[0].level, 0);
  EXPECT_EQ(logs()[0].line, 7);
}

TEST_F(EnvTest, WriteLogFKeepsWidthsAndPrecision) {
  writeLogF(5, 1, L"s", L"d", L"[%5d][%-3d][%.2f][%08X]", 12, 4, 3.14159, 0xABCu);
  ASSERT_EQ(logs().size(), 1u);
  EXPECT_EQ(logs()[0].message, L"[   12][4  ][3.14][00000ABC]");
}

TEST_F(EnvTest, SetSinkReturnsThePreviousOne) {
  int calls = 0;
  LuLogSink previous = luEnvSetLogSink([&](const LuLogRecord&) { ++calls; });
  writeLogF(0, 1, L"s", L"d", L"x");
  LuLogSink mine = luEnvSetLogSink(std::move(previous));
  EXPECT_EQ(calls, 1);
  ASSERT_TRUE(static_cast<bool>(mine));
  writeLogF(0, 1, L"s", L"d", L"y");
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(capture().logged(L"y"));
}

TEST_F(EnvTest, LogEnvironmentVariableSendsEveryLevelToAFile) {
  LuLogSink mine = luEnvSetLogSink(nullptr);  // the default sink
  std::string file = path("log.txt").string();
  setEnv("LUANAF_LOG", file.c_str());
  writeLogF(0, 1, L"s", L"d", L"progress %d", 1);
  writeLogF(5, 1, L"s", L"d", L"failure %d", 2);
  unsetEnv("LUANAF_LOG");
  luEnvSetLogSink(std::move(mine));
  std::string text = readText(path("log.txt"));
  EXPECT_NE(text.find("progress 1"), std::string::npos);
  EXPECT_NE(text.find("failure 2"), std::string::npos);
}

TEST_F(EnvTest, BuildDateLooksLikeTheCompilerDate) {
  std::wstring date = luEnvBuildDate();
  ASSERT_EQ(date.size(), 11u);
  EXPECT_EQ(date[3], L' ');
  EXPECT_EQ(date[6], L' ');
}

TEST_F(EnvTest, FileExistAndDelete) {
  writeBytes(path("a"), {1, 2, 3});
  EXPECT_TRUE(LuFileExist(wpath("a").c_str()));
  EXPECT_TRUE(LuDeleteFile(wpath("a").c_str()));
  EXPECT_FALSE(LuFileExist(wpath("a").c_str()));
  EXPECT_FALSE(LuDeleteFile(wpath("a").c_str()));
}

TEST_F(EnvTest, DeleteRefusesAReadOnlyFile) {
  writeBytes(path("ro"), {9});
  setReadOnly(path("ro"), true);
  EXPECT_FALSE(LuDeleteFile(wpath("ro").c_str()));
  EXPECT_EQ(readBytes(path("ro")), std::vector<uint8_t>{9});
}

TEST_F(EnvTest, MoveFailsWhenTheTargetExists) {
  writeBytes(path("from"), {1});
  writeBytes(path("to"), {2});
  EXPECT_FALSE(LuMoveFile(wpath("from").c_str(), wpath("to").c_str(), 0));
  EXPECT_EQ(readBytes(path("to")), std::vector<uint8_t>{2});
  EXPECT_TRUE(LuFileExist(wpath("from").c_str()));
  EXPECT_TRUE(LuMoveFile(wpath("from").c_str(), wpath("to").c_str(), LU_MOVEFILE_REPLACE_EXISTING));
  EXPECT_EQ(readBytes(path("to")), std::vector<uint8_t>{1});
}

TEST_F(EnvTest, MoveToAFreeName) {
  writeBytes(path("from"), {1});
  EXPECT_TRUE(LuMoveFile(wpath("from").c_str(), wpath("new").c_str(), 0));
  EXPECT_FALSE(LuFileExist(wpath("from").c_str()));
  EXPECT_TRUE(LuFileExist(wpath("new").c_str()));
}

TEST_F(EnvTest, NonAsciiPathsWork) {
  std::wstring p = m_dir.wstring() + L"/\u00e9chantillon-\u65e5\u672c.afxs";
#if defined(_WIN32)
  writeBytes(fs::path(p), {5});
#else
  // The library's own conversion to UTF-8, checked against the narrow name.
  writeBytes(m_dir / "\xc3\xa9" "chantillon-\xe6\x97\xa5\xe6\x9c\xac.afxs", {5});
#endif
  EXPECT_TRUE(LuFileExist(p.c_str()));
  EXPECT_TRUE(LuDeleteFile(p.c_str()));
}

TEST(FileNameTest, XSFileFormsNameUnderscoreXSNumber) {
  wchar_t buffer[64];
  ASSERT_TRUE(LuFileName::XSFile(L"/data/scan", 7, 1, buffer, 64));
  EXPECT_EQ(std::wstring(buffer), L"/data/scan_XS7.afxs");
}

TEST(FileNameTest, XSFileRefusesWhatDoesNotFit) {
  wchar_t buffer[8];
  EXPECT_FALSE(LuFileName::XSFile(L"/data/scan", 7, 1, buffer, 8));
  EXPECT_EQ(buffer[0], L'\0');
}

TEST(FileNameTest, XSFileKnowsOnlyKindOne) {
  wchar_t buffer[64];
  EXPECT_FALSE(LuFileName::XSFile(L"scan", 7, 2, buffer, 64));
}

TEST(StrFrmtTest, FormatsLikePrintf) {
  EXPECT_EQ(LuStrFrmt::format("VER %d\n", 2), "VER 2\n");
  EXPECT_EQ(LuStrFrmt::format("%f", 0.5), "0.500000");
  EXPECT_EQ(LuStrFrmt::format("0x%.8X", 0xB3u), "0x000000B3");
}

TEST(StrFrmtTest, LongOutputIsNotCut) {
  std::string big(1000, 'a');
  EXPECT_EQ(LuStrFrmt::format("%s!", big.c_str()), big + "!");
}
