// The limits of the library, one row each: files beyond the 32-bit positions of the API (a host
// file of 3 GiB, a database file beyond 2 GiB, a row beyond SQLite's largest), and many entries
// (100,000 files in one database directory; an archive of 65,536 members, one more than a ZIP
// without ZIP64 records counts). Large and slow: CTest label "limits".
#include <cstring>
#include <functional>

#include "support.h"

namespace velfs_test {
namespace {

constexpr uint64_t kMiB = uint64_t{1} << 20;
constexpr uint64_t kGiB = uint64_t{1} << 30;

// The 8-byte word at every multiple of 8 of a large file is `tag` plus its own offset, so any
// slice can be made and checked without keeping the file.
std::string Pattern(uint64_t size, uint64_t offset, uint64_t tag) {
  std::string bytes(size, '\0');
  for (uint64_t at = 0; at + 8 <= size; at += 8) {
    const uint64_t word = tag + offset + at;
    std::memcpy(&bytes[at], &word, 8);
  }
  return bytes;
}
std::string Numbered(const char* format, int number) {
  char text[32];
  std::snprintf(text, sizeof text, format, number);
  return text;
}

struct Limit {
  const char* name;
  uint64_t diskNeeded;
  std::function<void(const std::string& scratch)> check;
};

void HostFileOfThreeGiB(const std::string& scratch) {
  const uint64_t size = 3 * kGiB, chunk = 256 * kMiB, tag = 0x5A00000000000000ull;
  FileHandle* file = velfsCreateFile((scratch + ":big.bin").c_str(), 1);
  ASSERT_NE(file, nullptr);
  for (uint64_t offset = 0; offset < size; offset += chunk) {
    const std::string bytes = Pattern(chunk, offset, tag);
    ASSERT_EQ(velfsWrite(file, bytes.data(), chunk), chunk);
    EXPECT_EQ(velfsTell(file), offset + chunk <= INT32_MAX ? int32_t(offset + chunk) : -1);
  }
  velfsCloseFile(file);
  file = velfsCreateFile((scratch + "/big.bin").c_str(), 0);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(velfsSeek(file, INT32_MAX - 7, 0), 0);
  std::string across(16, '\0');
  ASSERT_EQ(velfsRead(file, across.data(), 16), 16u);  // across 2^31
  EXPECT_EQ(across, Pattern(16, INT32_MAX - 7, tag));
  ASSERT_EQ(velfsSeek(file, 0, 0), 0);
  std::string first(2 * kGiB + 4096, '\0');  // one read of a count beyond 32 bits
  ASSERT_EQ(velfsRead(file, first.data(), first.size()), first.size());
  EXPECT_TRUE(first == Pattern(first.size(), 0, tag));
  const uint64_t rest = size - first.size();
  first.clear();
  first.shrink_to_fit();
  std::string tail(rest, '\0');
  EXPECT_EQ(velfsRead(file, tail.data(), rest + 1), rest);
  EXPECT_TRUE(tail == Pattern(rest, size - rest, tag));
  velfsCloseFile(file);
}

void DatabaseBeyondTwoGiB(const std::string& scratch) {
  const std::string database = scratch + "/big.db";
  const uint64_t chunk = 256 * kMiB;
  DirHandle* dir = velfsOpenDir(database.c_str());
  ASSERT_NE(dir, nullptr);
  std::string bytes;
  for (uint64_t i = 0; i < 9; ++i) {
    FileHandle* file = velfsCreateFileIndir(dir, ("big/f" + std::to_string(i)).c_str(), 1);
    bytes = Pattern(chunk, 0, i << 56);
    ASSERT_EQ(velfsWrite(file, bytes.data(), chunk), chunk);
    velfsCloseFile(file);
  }
  // A row beyond SQLite's largest (1,000,000,000 bytes) is refused whole.
  FileHandle* tooLong = velfsCreateFileIndir(dir, "big/too-long", 1);
  bytes.resize(1000000001);
  EXPECT_EQ(velfsWrite(tooLong, bytes.data(), bytes.size()), 0u);
  EXPECT_FALSE(velfsResize(tooLong, bytes.size()));
  velfsCloseFile(tooLong);
  bytes.resize(64 * kMiB);
  velfsCloseDir(dir);
  EXPECT_GT(std::filesystem::file_size(database), 2 * kGiB);
  dir = velfsOpenDir(database.c_str());
  ASSERT_NE(dir, nullptr);
  EXPECT_EQ(Exists(dir, "big/too-long"), "no");
  for (uint64_t i = 0; i < 9; ++i) {
    FileHandle* file = velfsCreateFileIndir(dir, ("big/f" + std::to_string(i)).c_str(), 0);
    EXPECT_EQ(velfsSeek(file, 0, 2), int32_t(chunk));
    ASSERT_EQ(velfsSeek(file, 0, 0), 0);
    uint64_t offset = 0;
    for (uint64_t count; (count = velfsRead(file, bytes.data(), bytes.size())) > 0;) {
      ASSERT_TRUE(bytes.substr(0, count) == Pattern(count, offset, i << 56))
          << i << " at " << offset;
      offset += count;
    }
    EXPECT_EQ(offset, chunk);
    velfsCloseFile(file);
  }
  velfsCloseDir(dir);
}

void DatabaseDirectoryOfManyFiles(const std::string& scratch) {
  const std::string database = scratch + "/many.db";
  DirHandle* dir = velfsOpenDir(database.c_str());
  ASSERT_TRUE(velfsBeginTrans(dir));
  for (int i = 0; i < 100000; ++i) {
    FileHandle* file = velfsCreateFileIndir(dir, Numbered("many/f%06d", i).c_str(), 1);
    ASSERT_EQ(velfsWrite(file, &i, sizeof i), sizeof i);
    velfsCloseFile(file);
  }
  ASSERT_TRUE(velfsCommitTrans(dir));
  const auto names = Listing(velfsCreateEnumIndir(dir, "many/"));
  EXPECT_EQ(names.size(), 100000u);
  EXPECT_EQ(names.begin()->first, "many/f000000");
  EXPECT_EQ(names.rbegin()->first, "many/f099999");
  EXPECT_EQ(ReadFullPath(database + ":many/f065536"), std::string("\0\0\1\0", 4));
  EXPECT_TRUE(velfsDeleteDirectory(dir, "many"));
  SecondConnection other(database);
  EXPECT_EQ(other.RowCount(), 0);
  velfsCloseDir(dir);
}

// A writer without ZIP64 records counts 0xFFFF for 65,535 members and beyond; zziplib, without
// ZIP64, reads that count, so of 65,536 members the last is neither listed nor found nor opened.
void ArchiveOf65536Members(const std::string& scratch) {
  const int members = 65536;
  std::vector<ZipMember> zip;
  for (int i = 0; i < members; ++i) zip.push_back({Numbered("m/f%05d", i), Numbered("%05d", i)});
  WriteZip(scratch + "/many.zip", zip);
  DirHandle* dir = velfsOpenDir((scratch + "/many.zip").c_str());
  ASSERT_NE(dir, nullptr);
  const auto names = Listing(velfsCreateEnumIndir(dir, "m/"));
  EXPECT_EQ(names.size(), 65535u);
  int found = 0;
  for (int i = 0; i < members; ++i) {
    found += Exists(dir, Numbered("m/f%05d", i).c_str()) == "yes";
  }
  EXPECT_EQ(found, 65535);
  EXPECT_EQ(ReadFullPath(scratch + "/many.zip:m/f65534"), "65534");
  EXPECT_EQ(ReadFullPath(scratch + "/many.zip:m/f65535"), "<absent>");
  velfsCloseDir(dir);
}

void PrintTo(const Limit& limit, std::ostream* out) { *out << limit.name; }

class LimitsTest : public ScratchTest, public ::testing::WithParamInterface<Limit> {};

TEST_P(LimitsTest, HoldsAtTheLimit) {
  const auto space = std::filesystem::space(PathOf());
  if (space.available < GetParam().diskNeeded) {
    GTEST_SKIP() << "needs " << GetParam().diskNeeded / kMiB << " MiB free in " << PathOf();
  }
  GetParam().check(PathOf());
}

INSTANTIATE_TEST_SUITE_P(
    Limits, LimitsTest,
    ::testing::Values(Limit{"HostFileOfThreeGiB", 4 * kGiB, HostFileOfThreeGiB},
                      Limit{"DatabaseBeyondTwoGiB", 4 * kGiB, DatabaseBeyondTwoGiB},
                      Limit{"HundredThousandFilesInADatabaseDirectory", 0,
                            DatabaseDirectoryOfManyFiles},
                      Limit{"ArchiveOf65536Members", 0, ArchiveOf65536Members}),
    [](const ::testing::TestParamInfo<Limit>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace velfs_test
