// Part 4.4: host paths (IsHostDirectory, IsHostFile, CreateHostDirectory, NormalizeSlashes) and
// the UTF-8 / UTF-16 conversions, which follow Windows' code page 65001 with flags 0: every
// maximal ill-formed subsequence of UTF-8 becomes one U+FFFD (Unicode's "substitution of maximal
// subparts"), every unpaired surrogate of UTF-16 becomes U+FFFD, and the result ends at the first
// zero unit.
#include <filesystem>
#include <string>

#include "native/host_path.h"
#include "host/text_conversion.h"
#include "test_support.h"

namespace velfs::testing {
namespace {

std::u16string ToWide(const std::string& bytes) {
  std::u16string wide = u"old contents";
  Utf8ToWide(bytes.data(), bytes.size(), wide);
  return wide;
}

std::string ToNarrow(const std::u16string& units) {
  std::string narrow = "old contents";
  WideToUtf8(units.data(), units.size(), narrow);
  return narrow;
}

const std::string kReplacementUtf8 = "\xEF\xBF\xBD";

// ---- The Part's edge cases ----

TEST(Utf8ConversionTest, P4_4_01_EmptyTextConvertsToEmptyAndBack) {
  std::u16string wide = u"stale";
  Utf8ToWide("", wide);
  EXPECT_EQ(wide, u"");
  std::string narrow = "stale";
  WideToUtf8(u"", narrow);
  EXPECT_EQ(narrow, "");
  EXPECT_EQ(ToWide(""), u"");
  EXPECT_EQ(ToNarrow(u""), "");
}

TEST(Utf8ConversionTest, P4_4_02_NonBmpCharacterBecomesSurrogatePairAndBack) {
  const std::string grinning = "\xF0\x9F\x98\x80";  // U+1F600
  std::u16string wide;
  Utf8ToWide(grinning.c_str(), wide);
  EXPECT_EQ(wide, (std::u16string{char16_t(0xD83D), char16_t(0xDE00)}));
  std::string back;
  WideToUtf8(wide.c_str(), back);
  EXPECT_EQ(back, grinning);
  EXPECT_EQ(back.size(), 4u);
}

TEST(Utf8ConversionTest, P4_4_03_MalformedByteBecomesReplacementCharacter) {
  std::u16string wide = u"stale";
  Utf8ToWide("\xFF", wide);
  EXPECT_EQ(wide, u"\xFFFD");
  Utf8ToWide("a\xFF" "b", wide);
  EXPECT_EQ(wide, u"a\xFFFD" u"b");
  std::string narrow;
  WideToUtf8(wide.c_str(), narrow);
  EXPECT_EQ(narrow, "a" + kReplacementUtf8 + "b");
}

// ---- Deeper checks of the conversions ----

TEST(Utf8ConversionTest, WellFormedBoundaryValuesConvertBothWays) {
  struct Case {
    std::string utf8;
    std::u16string utf16;
  };
  const Case cases[] = {
      {"\x7F", u"\x007F"},
      {"\xC2\x80", u"\x0080"},
      {"\xDF\xBF", u"\x07FF"},
      {"\xE0\xA0\x80", u"\x0800"},
      {"\xED\x9F\xBF", u"\xD7FF"},
      {"\xEE\x80\x80", u"\xE000"},
      {"\xEF\xBF\xBD", u"\xFFFD"},
      {"\xEF\xBF\xBF", u"\xFFFF"},
      {"\xF0\x90\x80\x80", std::u16string{char16_t(0xD800), char16_t(0xDC00)}},
      {"\xF4\x8F\xBF\xBF", std::u16string{char16_t(0xDBFF), char16_t(0xDFFF)}},
      {"a\xC3\xA9z\xE2\x82\xAC", u"a\x00E9z\x20AC"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.utf8);
    EXPECT_EQ(ToWide(c.utf8), c.utf16);
    EXPECT_EQ(ToNarrow(c.utf16), c.utf8);
  }
}

TEST(Utf8ConversionTest, TruncatedSequencesGiveOneReplacementEach) {
  EXPECT_EQ(ToWide("\xC3"), u"\xFFFD");
  EXPECT_EQ(ToWide("\xE1\x80"), u"\xFFFD");        // at the end: one
  EXPECT_EQ(ToWide("\xF0\x9F\x98"), u"\xFFFD");    // at the end: one
  EXPECT_EQ(ToWide("\xF0\x9F"), u"\xFFFD");
  EXPECT_EQ(ToWide("\xF0\x9F\x98" "A"), u"\xFFFD" u"A");  // cut short by an ASCII byte
  EXPECT_EQ(ToWide("\xE2\x82" "\xE2\x82\xAC"), u"\xFFFD\x20AC");
  EXPECT_EQ(ToWide("x\xE2\x82"), u"x\xFFFD");
  // Two truncated sequences in a row are two maximal subparts.
  EXPECT_EQ(ToWide("\xE1\x80\xE1\x80"), u"\xFFFD\xFFFD");
  // A count that cuts a well-formed sequence truncates it.
  std::u16string wide;
  Utf8ToWide("\xE2\x82\xAC", 2, wide);
  EXPECT_EQ(wide, u"\xFFFD");
  Utf8ToWide("\xF0\x9F\x98\x80", 3, wide);
  EXPECT_EQ(wide, u"\xFFFD");
}

TEST(Utf8ConversionTest, OverlongEncodingsGiveOneReplacementPerByte) {
  EXPECT_EQ(ToWide("\xC0\x80"), u"\xFFFD\xFFFD");
  EXPECT_EQ(ToWide("\xC1\xBF"), u"\xFFFD\xFFFD");
  EXPECT_EQ(ToWide("\xE0\x80\x80"), u"\xFFFD\xFFFD\xFFFD");
  EXPECT_EQ(ToWide("\xE0\x9F\xBF"), u"\xFFFD\xFFFD\xFFFD");
  EXPECT_EQ(ToWide("\xF0\x80\x80\x80"), u"\xFFFD\xFFFD\xFFFD\xFFFD");
  EXPECT_EQ(ToWide("\xF0\x8F\xBF\xBF"), u"\xFFFD\xFFFD\xFFFD\xFFFD");
}

TEST(Utf8ConversionTest, EncodedSurrogatesGiveOneReplacementPerByte) {
  EXPECT_EQ(ToWide("\xED\xA0\x80"), u"\xFFFD\xFFFD\xFFFD");  // U+D800
  EXPECT_EQ(ToWide("\xED\xBF\xBF"), u"\xFFFD\xFFFD\xFFFD");  // U+DFFF
  // CESU-8 style pair: six bytes, six replacements.
  EXPECT_EQ(ToWide("\xED\xA0\xBD\xED\xB8\x80"), std::u16string(6, char16_t(0xFFFD)));
}

TEST(Utf8ConversionTest, CodePointsAboveMaximumGiveOneReplacementPerByte) {
  EXPECT_EQ(ToWide("\xF4\x90\x80\x80"), u"\xFFFD\xFFFD\xFFFD\xFFFD");  // U+110000
  EXPECT_EQ(ToWide("\xF5\x80\x80\x80"), u"\xFFFD\xFFFD\xFFFD\xFFFD");
  EXPECT_EQ(ToWide("\xF7\xBF\xBF\xBF"), u"\xFFFD\xFFFD\xFFFD\xFFFD");
  EXPECT_EQ(ToWide("\xF8\x88\x80\x80\x80"), std::u16string(5, char16_t(0xFFFD)));
  EXPECT_EQ(ToWide("\xFC\x84\x80\x80\x80\x80"), std::u16string(6, char16_t(0xFFFD)));
}

TEST(Utf8ConversionTest, StrayBytesGiveOneReplacementEach) {
  EXPECT_EQ(ToWide("\x80"), u"\xFFFD");
  EXPECT_EQ(ToWide("\x80\xBF"), u"\xFFFD\xFFFD");
  EXPECT_EQ(ToWide("\xFE\xFF"), u"\xFFFD\xFFFD");
  EXPECT_EQ(ToWide("a\x80" "b\xBF" "c"), u"a\xFFFD" u"b\xFFFD" u"c");
  // A well-formed sequence followed by a stray continuation byte.
  EXPECT_EQ(ToWide("\xC3\xA9\xA9"), u"\x00E9\xFFFD");
  // A lead byte followed by a new lead: the first is one subpart, the second decodes.
  EXPECT_EQ(ToWide("\xE2\xC3\xA9"), u"\xFFFD\x00E9");
}

TEST(Utf8ConversionTest, LoneSurrogatesBecomeReplacementInUtf8) {
  const std::string r = kReplacementUtf8;
  EXPECT_EQ(ToNarrow(std::u16string{char16_t(0xD800)}), r);
  EXPECT_EQ(ToNarrow(std::u16string{char16_t(0xDC00)}), r);
  EXPECT_EQ(ToNarrow(std::u16string{char16_t(0xDBFF), u'A'}), r + "A");
  EXPECT_EQ(ToNarrow(std::u16string{u'A', char16_t(0xDFFF), u'B'}), "A" + r + "B");
  // Low before high is two unpaired surrogates.
  EXPECT_EQ(ToNarrow(std::u16string{char16_t(0xDC00), char16_t(0xD800)}), r + r);
  // Two highs and then a low: the first is unpaired, the second pairs.
  EXPECT_EQ(ToNarrow(std::u16string{char16_t(0xD83D), char16_t(0xD83D), char16_t(0xDE00)}),
            r + "\xF0\x9F\x98\x80");
  // A count that cuts a pair leaves its high surrogate unpaired.
  const char16_t pair[] = {char16_t(0xD83D), char16_t(0xDE00), 0};
  std::string narrow;
  WideToUtf8(pair, 1, narrow);
  EXPECT_EQ(narrow, r);
}

TEST(Utf8ConversionTest, NulInsideCountedInputEndsTheResult) {
  const std::string bytes("ab\0cd", 5);
  EXPECT_EQ(ToWide(bytes), u"ab");
  const std::string leading("\0x", 2);
  EXPECT_EQ(ToWide(leading), u"");
  const std::u16string units(u"ab\0cd", 5);
  EXPECT_EQ(ToNarrow(units), "ab");
  const std::u16string leadingUnits(u"\0x", 2);
  EXPECT_EQ(ToNarrow(leadingUnits), "");
}

TEST(Utf8ConversionTest, CountedAndNulTerminatedFormsAgree) {
  const char* texts[] = {"",
                         "plain/ascii.txt",
                         "\xC3\xA9t\xC3\xA9",
                         "\xF0\x9F\x98\x80/x",
                         "\xFF\xFE.txt",
                         "\xE0\x80\x80",
                         "\xED\xA0\x80",
                         "\xF4\x90\x80\x80",
                         "\xE1\x80",
                         "\xF0\x9F\x98"};
  for (const char* text : texts) {
    SCOPED_TRACE(text);
    std::u16string terminated, counted;
    Utf8ToWide(text, terminated);
    Utf8ToWide(text, std::char_traits<char>::length(text), counted);
    EXPECT_EQ(terminated, counted);
    std::string narrowTerminated, narrowCounted;
    WideToUtf8(terminated.c_str(), narrowTerminated);
    WideToUtf8(terminated.data(), terminated.size(), narrowCounted);
    EXPECT_EQ(narrowTerminated, narrowCounted);
  }
  // The NUL-terminated form measures up to the first NUL.
  std::u16string wide;
  Utf8ToWide("ab\0cd", wide);
  EXPECT_EQ(wide, u"ab");
  std::string narrow;
  WideToUtf8(u"ab\0cd", narrow);
  EXPECT_EQ(narrow, "ab");
}

TEST(Utf8ConversionTest, ConversionReplacesDestinationContents) {
  std::u16string wide = u"a long earlier value";
  Utf8ToWide("x", wide);
  EXPECT_EQ(wide, u"x");
  std::string narrow = "a long earlier value";
  WideToUtf8(u"y", narrow);
  EXPECT_EQ(narrow, "y");
}

TEST(Utf8ConversionTest, MalformedUtf8RoundTripsToReplacementBytes) {
  // What the host sees for an invalid path: each subpart as EF BF BD.
  std::u16string wide;
  Utf8ToWide("\xFF\xFE.txt", wide);
  EXPECT_EQ(wide, u"\xFFFD\xFFFD.txt");
  std::string narrow;
  WideToUtf8(wide.c_str(), narrow);
  EXPECT_EQ(narrow, kReplacementUtf8 + kReplacementUtf8 + ".txt");
}

// ---- Host paths ----

using HostHelpersTest = ScratchDirTest;

TEST_F(HostHelpersTest, P4_4_04_IsHostDirectoryEmptyFalseTrailingSlashTrue) {
  EXPECT_FALSE(IsHostDirectory(""));
  EXPECT_TRUE(IsHostDirectory((PathOf("") + "/").c_str()));
  EXPECT_TRUE(IsHostDirectory(PathOf("").c_str()));
  WriteHostFile(PathOf("f.txt"), "x");
  EXPECT_FALSE(IsHostDirectory(PathOf("f.txt").c_str()));
  EXPECT_FALSE(IsHostDirectory(PathOf("missing").c_str()));
}

TEST_F(HostHelpersTest, P4_4_05_IsHostFileFalseForDirectoryAndMissingTrueForFile) {
  std::filesystem::create_directory(PathOf("sub"));
  EXPECT_FALSE(IsHostFile(PathOf("sub").c_str()));
  EXPECT_FALSE(IsHostFile((PathOf("sub") + "/").c_str()));
  EXPECT_FALSE(IsHostFile(PathOf("missing.txt").c_str()));
  EXPECT_FALSE(IsHostFile(""));
  WriteHostFile(PathOf("f.txt"), "x");
  EXPECT_TRUE(IsHostFile(PathOf("f.txt").c_str()));
  WriteHostFile(PathOf("empty"), "");
  EXPECT_TRUE(IsHostFile(PathOf("empty").c_str()));
}

TEST_F(HostHelpersTest, P4_4_06_CreateHostDirectoryExistingAndTwoLevelFail) {
  std::filesystem::create_directory(PathOf("there"));
  EXPECT_FALSE(CreateHostDirectory(PathOf("there").c_str()));
  EXPECT_TRUE(std::filesystem::is_directory(PathOf("there")));
  EXPECT_FALSE(CreateHostDirectory(PathOf("first/second").c_str()));
  EXPECT_FALSE(std::filesystem::exists(PathOf("first")));
  // One missing level is created, and only by the first call.
  EXPECT_TRUE(CreateHostDirectory(PathOf("new").c_str()));
  EXPECT_TRUE(std::filesystem::is_directory(PathOf("new")));
  EXPECT_FALSE(CreateHostDirectory(PathOf("new").c_str()));
  // An existing file in the way is not replaced.
  WriteHostFile(PathOf("file"), "x");
  EXPECT_FALSE(CreateHostDirectory(PathOf("file").c_str()));
  EXPECT_EQ(ReadHostFile(PathOf("file")), "x");
}

TEST(HostPathTest, P4_4_07_NormalizeSlashesTurnsBackslashesOnly) {
  std::string path = "first\\second\\";
  NormalizeSlashes(path);
  EXPECT_EQ(path, "first/second/");
  path = "first//second";
  NormalizeSlashes(path);
  EXPECT_EQ(path, "first//second");
  path = "C:\\Data\\\\Mixed/Case\\";
  NormalizeSlashes(path);
  EXPECT_EQ(path, "C:/Data//Mixed/Case/");
  path = "";
  NormalizeSlashes(path);
  EXPECT_EQ(path, "");
  path = std::string("a\\\xFF\\b", 5);
  NormalizeSlashes(path);
  EXPECT_EQ(path, std::string("a/\xFF/b", 5));
}

TEST(HostPathTest, NormalizedCopyLeavesCallersStringAlone) {
  const char original[] = "x\\y\\z";
  EXPECT_EQ(NormalizedCopy(original), "x/y/z");
  EXPECT_STREQ(original, "x\\y\\z");
}

}  // namespace
}  // namespace velfs::testing
