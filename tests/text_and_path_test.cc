// The two internal units whose contracts stand on their own: the UTF-8 / UTF-16 conversion of
// host paths, which follows Windows' code page 65001 with flags 0 (each maximal ill-formed
// subsequence and each unpaired surrogate becomes one U+FFFD; the result ends at the first zero
// unit), and the cut of a full path into a storage root and a path inside it.
#include <filesystem>
#include <string>

#include "core/paths.h"
#include "host/text_conversion.h"
#include "support.h"

namespace velfs_test {
namespace {

// One conversion: `utf8` becomes `utf16` (and back, when `both`); the other way only, a row
// has an unpaired surrogate.
struct TextCase {
  std::string utf8;
  std::u16string utf16;
  enum { kBoth, kToWide, kToNarrow } direction;
};

TEST(TextConversionTest, EachIllFormedPartOrUnpairedSurrogateBecomesOneReplacement) {
  const std::u16string R = u"\xFFFD";
  const std::string N = "\xEF\xBF\xBD";
  const TextCase cases[] = {
      {"", u"", TextCase::kBoth},
      {"plain/path.txt", u"plain/path.txt", TextCase::kBoth},
      {"\x7F\xC2\x80\xDF\xBF", u"\x007F\x0080\x07FF", TextCase::kBoth},
      {"\xE0\xA0\x80\xEF\xBF\xBF", u"\x0800\xFFFF", TextCase::kBoth},
      {"\xC3\xA9\xE2\x82\xAC", u"\x00E9\x20AC", TextCase::kBoth},
      {"\xF0\x9F\x98\x80", u"\xD83D\xDE00", TextCase::kBoth},
      {"\xF4\x8F\xBF\xBF", u"\xDBFF\xDFFF", TextCase::kBoth},
      {"\xFF", R, TextCase::kToWide},
      {"a\xFF" "b", u"a" + R + u"b", TextCase::kToWide},
      {"\x80\xBF", R + R, TextCase::kToWide},
      {"\xC0\xAF", R + R, TextCase::kToWide},                          // overlong '/'
      {"\xC1\xBF", R + R, TextCase::kToWide},
      {"\xE0\x80\xAF", R + R + R, TextCase::kToWide},                  // overlong, three bytes
      {"\xF0\x80\x80\xAF", R + R + R + R, TextCase::kToWide},          // overlong, four bytes
      {"\xED\xA0\x80", R + R + R, TextCase::kToWide},                  // an encoded surrogate
      {"\xED\xBF\xBF", R + R + R, TextCase::kToWide},
      {"\xF4\x90\x80\x80", R + R + R + R, TextCase::kToWide},          // above U+10FFFF
      {"\xF5\x80", R + R, TextCase::kToWide},
      {"\xE2\x82", R, TextCase::kToWide},                              // truncated at the end
      {"a\xF0\x9F\x98", u"a" + R, TextCase::kToWide},
      {"\xE2\x82" "x", R + u"x", TextCase::kToWide},                   // truncated before ASCII
      {"\xF0\x9F" "\xE2\x82\xAC", R + u"\x20AC", TextCase::kToWide},
      {"\xC3", R, TextCase::kToWide},
      {N, u"\xD83D", TextCase::kToNarrow},
      {N, u"\xDE00", TextCase::kToNarrow},
      {N + "a", u"\xD83D" u"a", TextCase::kToNarrow},
      {N + N, u"\xDE00\xD83D", TextCase::kToNarrow},
      {"x" + N + "\xF0\x9F\x98\x80", u"x\xDE00\xD83D\xDE00", TextCase::kToNarrow},
  };
  for (const TextCase& c : cases) {
    // Each conversion, from a counted text and from a terminated one, replaces what it is given.
    if (c.direction != TextCase::kToNarrow) {
      std::u16string counted = u"old", terminated = u"old";
      velfs::Utf8ToWide(c.utf8.data(), c.utf8.size(), counted);
      velfs::Utf8ToWide(c.utf8.c_str(), terminated);
      EXPECT_EQ(counted, c.utf16) << ::testing::PrintToString(c.utf8);
      EXPECT_EQ(terminated, c.utf16) << ::testing::PrintToString(c.utf8);
    }
    if (c.direction != TextCase::kToWide) {
      std::string counted = "old", terminated = "old";
      velfs::WideToUtf8(c.utf16.data(), c.utf16.size(), counted);
      velfs::WideToUtf8(c.utf16.c_str(), terminated);
      EXPECT_EQ(counted, c.utf8) << ::testing::PrintToString(c.utf8);
      EXPECT_EQ(terminated, c.utf8) << ::testing::PrintToString(c.utf8);
    }
  }
  // A counted text ends at its first zero unit.
  std::u16string wide;
  velfs::Utf8ToWide("ab\0cd", 5, wide);
  EXPECT_EQ(wide, u"ab");
  std::string narrow;
  velfs::WideToUtf8(u"ab\0cd", 5, narrow);
  EXPECT_EQ(narrow, "ab");
}

// An existing host entry is cut after its last '/', anything else after its last ':'.
using SplitStoragePathTest = ScratchTest;

TEST_F(SplitStoragePathTest, FullPathsCutIntoRootAndInnerPath) {
  std::filesystem::create_directories(PathOf("data/sub"));
  WriteHostFile(PathOf("data/readme.txt"), "x");
  const std::string here = PathOf();
  struct Case {
    std::string path;
    bool cut;
    std::string root, inner;
  };
  const Case cases[] = {
      {here + "/data/readme.txt", true, here + "/data/", "readme.txt"},
      {here + "\\data\\readme.txt", true, here + "/data/", "readme.txt"},
      {here + "/data/sub/", true, here + "/data/sub/", ""},
      {here + "/data/sub", true, here + "/data/", "sub"},
      {here + "/data/store.db:docs/a.txt", true, here + "/data/store.db:", "docs/a.txt"},
      {here + "/data/store.db:", true, here + "/data/store.db:", ""},
      {"pack.zip:a:b\\c.txt", true, "pack.zip:a:", "b/c.txt"},
      {"C:/data/missing.txt", true, "C:", "/data/missing.txt"},
      {"no/separator/here.txt", false, "", ""},
      {"", false, "", ""},
  };
  for (const Case& c : cases) {
    std::string root = "untouched", inner = "untouched";
    EXPECT_EQ(velfs::SplitStoragePath(c.path.c_str(), root, inner), c.cut) << c.path;
    EXPECT_EQ(root, c.cut ? c.root : "untouched") << c.path;
    EXPECT_EQ(inner, c.cut ? c.inner : "untouched") << c.path;
  }
}

}  // namespace
}  // namespace velfs_test
