// Many entries (issue 8): 100,000 files in one database directory, and archives of 65,535 and
// 65,536 members. Debian's zziplib has no ZIP64 support: it reads the 16-bit member count of the
// end-of-central-directory record, which libzip sets to 65,535 (0xFFFF) for an archive of more
// members (with the true count in its ZIP64 record), so the 65,536th member is not listed, found
// or opened, and the others are.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "reliability_support.h"
#include "test_support.h"
#include "velfs.h"
#include "zip_fixture.h"

namespace velfs::reliability {
namespace {

using velfs::testing::Stored;
using velfs::testing::WriteZip;
using velfs::testing::ZipMember;

std::string Numbered(const char* format, int number) {
  char name[64];
  std::snprintf(name, sizeof name, format, number);
  return name;
}

// Full names and directory flags of a listing, which is closed afterwards.
struct Listing {
  std::vector<std::string> names;
  int directories = 0;
};
Listing Walk(EnumHandle* listing) {
  Listing result;
  while (velfsMoveNext(listing)) {
    char* name = nullptr;
    if (velfsGetFullName(listing, &name)) result.names.emplace_back(name);
    std::free(name);
    result.directories += velfsIsDirectory(listing) ? 1 : 0;
  }
  velfsCloseEnum(listing);
  return result;
}

std::string ReadMember(DirHandle* dir, const std::string& path) {
  FileHandle* file = velfsCreateFileIndir(dir, path.c_str(), 0);
  if (file == nullptr) return "<not opened>";
  char buffer[64];
  const uint64_t count = velfsRead(file, buffer, sizeof buffer);
  velfsCloseFile(file);
  return std::string(buffer, static_cast<std::size_t>(count));
}

class ManyEntriesTest : public velfs::testing::ScratchDirTest {};

TEST_F(ManyEntriesTest, HundredThousandFilesInOneDatabaseDirectory) {
  constexpr int kFiles = 100000;
  const std::string database = PathOf("many.db");
  DirHandle* dir = velfsOpenDir(database.c_str());
  ASSERT_NE(dir, nullptr);
  ASSERT_TRUE(velfsBeginTrans(dir));
  for (int i = 0; i < kFiles; ++i) {
    const std::string name = Numbered("many/f%06d.txt", i);
    FileHandle* file = velfsCreateFileIndir(dir, name.c_str(), 1);
    ASSERT_NE(file, nullptr) << name;
    ASSERT_EQ(velfsWrite(file, name.data() + 5, 7), 7u) << name;
    velfsCloseFile(file);
  }
  ASSERT_TRUE(velfsCommitTrans(dir));

  const Listing listing = Walk(velfsCreateEnumIndir(dir, "many/"));
  EXPECT_EQ(listing.names.size(), static_cast<std::size_t>(kFiles));
  EXPECT_EQ(listing.directories, 0);
  const std::set<std::string> unique(listing.names.begin(), listing.names.end());
  EXPECT_EQ(unique.size(), static_cast<std::size_t>(kFiles));
  EXPECT_EQ(*unique.begin(), "many/f000000.txt");
  EXPECT_EQ(*unique.rbegin(), "many/f099999.txt");
  const Listing root = Walk(velfsCreateEnumIndir(dir, ""));
  EXPECT_EQ(root.names, std::vector<std::string>{"many/"});
  for (int i = 0; i < kFiles; i += 997) {
    bool exists = false;
    const std::string name = Numbered("many/f%06d.txt", i);
    EXPECT_TRUE(velfsIsFileExist(dir, name.c_str(), &exists));
    EXPECT_TRUE(exists) << name;
    EXPECT_EQ(ReadMember(dir, name), name.substr(5, 7));
  }
  EXPECT_TRUE(velfsRenameFile(dir, "many/f000000.txt", "many/first.txt"));
  EXPECT_TRUE(velfsCopyFile(dir, "many/first.txt", "other/first.txt", true));
  EXPECT_EQ(Walk(velfsCreateEnum((database + ":many/").c_str())).names.size(),
            static_cast<std::size_t>(kFiles));

  EXPECT_TRUE(velfsDeleteDirectory(dir, "many/"));
  EXPECT_TRUE(Walk(velfsCreateEnumIndir(dir, "many/")).names.empty());
  velfsCloseDir(dir);
  const DatabaseView view = ViewDatabase(database);
  EXPECT_EQ(view.integrity, "ok");
  EXPECT_EQ(view.rows, (std::map<std::string, std::string>{{"other/first.txt", "f000000"}}));
}

// Writes an archive of `count` stored members m/f00000.txt ... and answers its path.
std::string WriteNumberedArchive(const std::string& path, int count) {
  std::vector<ZipMember> members;
  members.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    members.push_back(Stored(Numbered("m/f%05d.txt", i), Numbered("%05d", i)));
  }
  EXPECT_TRUE(WriteZip(path, members));
  return path;
}

TEST_F(ManyEntriesTest, ArchiveOf65535MembersListsFindsAndOpensEveryOne) {
  constexpr int kMembers = 65535;
  const std::string archive = WriteNumberedArchive(PathOf("65535.zip"), kMembers);
  DirHandle* dir = velfsOpenDir(archive.c_str());
  ASSERT_NE(dir, nullptr);
  EXPECT_EQ(Walk(velfsCreateEnumIndir(dir, "")).names, std::vector<std::string>{"m/"});
  const Listing listing = Walk(velfsCreateEnumIndir(dir, "m/"));
  ASSERT_EQ(listing.names.size(), static_cast<std::size_t>(kMembers));
  int missing = 0;
  for (int i = 0; i < kMembers; ++i) {
    bool exists = false;
    const std::string name = Numbered("m/f%05d.txt", i);
    EXPECT_TRUE(velfsIsFileExist(dir, name.c_str(), &exists));
    missing += exists ? 0 : 1;
    if (listing.names[static_cast<std::size_t>(i)] != name) ++missing;
  }
  EXPECT_EQ(missing, 0);
  for (int i = 0; i < kMembers; i += 1001) {
    EXPECT_EQ(ReadMember(dir, Numbered("m/f%05d.txt", i)), Numbered("%05d", i));
  }
  EXPECT_EQ(ReadMember(dir, "m/f65534.txt"), "65534");
  velfsCloseDir(dir);
}

TEST_F(ManyEntriesTest, ArchiveOf65536MembersShowsTheFirst65535) {
  const std::string archive = WriteNumberedArchive(PathOf("65536.zip"), 65536);
  DirHandle* dir = velfsOpenDir(archive.c_str());
  ASSERT_NE(dir, nullptr);
  const Listing listing = Walk(velfsCreateEnumIndir(dir, "m/"));
  EXPECT_EQ(listing.names.size(), 65535u);
  EXPECT_EQ(listing.names.back(), "m/f65534.txt");
  bool exists = true;
  EXPECT_TRUE(velfsIsFileExist(dir, "m/f65535.txt", &exists));
  EXPECT_FALSE(exists);
  EXPECT_EQ(ReadMember(dir, "m/f65535.txt"), "<not opened>");
  EXPECT_EQ(ReadMember(dir, "m/f65534.txt"), "65534");
  velfsCloseDir(dir);
}

}  // namespace
}  // namespace velfs::reliability
