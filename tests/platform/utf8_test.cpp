#include <luAnaf/luUtf8.h>

#include <fstream>
#include <string>

#include "support/test_support.h"

using namespace lutest;

namespace {

std::string bytes(std::initializer_list<int> list) {
  std::string out;
  for (int b : list) out += static_cast<char>(b);
  return out;
}

}  // namespace

TEST(Utf8Test, WellFormedTextDecodesToItsCodePoints) {
  const std::wstring wide = luUtf8ToWide("a\xC3\xBC\xE2\x82\xAC");  // a, u-umlaut, euro
  ASSERT_EQ(wide.size(), 3u);
  EXPECT_EQ(wide[0], L'a');
  EXPECT_EQ(static_cast<uint32_t>(wide[1]), 0xFCu);
  EXPECT_EQ(static_cast<uint32_t>(wide[2]), 0x20ACu);
}

TEST(Utf8Test, FourByteSequencesRoundTrip) {
  const std::string text = "\xF0\x9F\x98\x80 scan";  // U+1F600
  const std::wstring wide = luUtf8ToWide(text);
  if (sizeof(wchar_t) == 4) {
    EXPECT_EQ(static_cast<uint32_t>(wide[0]), 0x1F600u);
  } else {
    EXPECT_EQ(static_cast<uint32_t>(wide[0]), 0xD83Du);
    EXPECT_EQ(static_cast<uint32_t>(wide[1]), 0xDE00u);
  }
  EXPECT_EQ(luWideToUtf8(wide), text);
}

TEST(Utf8Test, ATruncatedSequenceNeverSwallowsTheBytesAfterIt) {
  // A three-byte lead with one continuation, then plain ASCII.
  const std::string text = bytes({0xE2, 0x82}) + "ab";
  const std::wstring wide = luUtf8ToWide(text);
  ASSERT_EQ(wide.size(), 4u);
  EXPECT_EQ(wide[2], L'a');
  EXPECT_EQ(wide[3], L'b');
  EXPECT_EQ(luWideToUtf8(wide), text);
}

TEST(Utf8Test, ASequenceCutAtTheEndKeepsEveryByte) {
  for (const std::string& text :
       {bytes({'x', 0xC3}), bytes({'x', 0xE2, 0x82}), bytes({'x', 0xF0, 0x9F, 0x98})}) {
    const std::wstring wide = luUtf8ToWide(text);
    EXPECT_EQ(wide.size(), text.size());
    EXPECT_EQ(luWideToUtf8(wide), text);
  }
}

TEST(Utf8Test, MalformedFormsAreEscapedByteForByte) {
  const std::string overlong = bytes({0xC0, 0xAF});
  const std::string surrogate = bytes({0xED, 0xA0, 0x80});
  const std::string tooLarge = bytes({0xF4, 0x90, 0x80, 0x80});
  const std::string stray = bytes({0x80, 0xBF});
  for (const std::string& text : {overlong, surrogate, tooLarge, stray}) {
    const std::wstring wide = luUtf8ToWide(text);
    ASSERT_EQ(wide.size(), text.size()) << "every byte is kept apart";
    for (size_t i = 0; i < text.size(); ++i)
      EXPECT_EQ(static_cast<uint32_t>(wide[i]), 0xDC00u + static_cast<unsigned char>(text[i]));
    EXPECT_EQ(luWideToUtf8(wide), text);
  }
}

TEST(Utf8Test, EveryByteStringSurvivesTheWayInAndOut) {
  std::string all;
  for (int b = 1; b < 256; ++b) all += static_cast<char>(b);
  EXPECT_EQ(luWideToUtf8(luUtf8ToWide(all)), all);
  uint32_t state = 12345;
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    for (int i = 0; i < 12; ++i) {
      state = state * 1103515245u + 12345u;
      text += static_cast<char>(0x80 | ((state >> 16) & 0x7F));
      if ((state >> 8) % 5 == 0) text += 'a';
    }
    EXPECT_EQ(luWideToUtf8(luUtf8ToWide(text)), text);
  }
}

TEST(Utf8Test, LoneSurrogatesOtherThanEscapesBecomeQuestionMarks) {
  std::wstring wide;
  wide += static_cast<wchar_t>(0xD800);
  wide += L'x';
  EXPECT_EQ(luWideToUtf8(wide), "?x");
}

#if !defined(_WIN32)
class Utf8PathTest : public TempDirTest {};

// A file whose name is not UTF-8 (as POSIX file systems allow) is reached
// through the wide path that the conversion gives for its name.
TEST_F(Utf8PathTest, AFileNamedWithInvalidUtf8CanBeInspected) {
  const std::string name = "scan" + bytes({0xE9, 0xFF}) + ".afxs";
  const std::string native = (m_dir / name).string();
  { std::ofstream(native) << "not a cross-section file\n"; }
  const std::wstring wide = luUtf8ToWide(native);
  EXPECT_EQ(luWideToUtf8(wide), native);
  LuAfxsInspection inspection = luAfxsInspect(wide, false);
  EXPECT_TRUE(inspection.opened) << "the name reached the file";
  EXPECT_FALSE(inspection.loadable());
}
#endif
