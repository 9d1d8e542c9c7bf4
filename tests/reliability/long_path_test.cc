// Paths of 4,096 bytes (issue 8): Linux's PATH_MAX, terminator included, so no host path of that
// length can be opened. Inside a database or an archive a path is only a key and works whole;
// wherever a host path of that length is needed the call fails cleanly (null, false, 0) and
// nothing is created. SQLite's POSIX layer also refuses database files whose absolute path is
// longer than 512 bytes: such a root does not open.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "reliability_support.h"
#include "test_support.h"
#include "velfs.h"
#include "zip_fixture.h"

namespace velfs::reliability {
namespace {

using velfs::testing::Directory;
using velfs::testing::Stored;
using velfs::testing::WriteZip;

constexpr std::size_t kLength = 4096;

// A path of exactly `length` bytes: `prefix`, then 'x' up to the length.
std::string PathOfLength(const std::string& prefix, std::size_t length) {
  return prefix + std::string(length - prefix.size(), 'x');
}

std::string ReadWhole(FileHandle* file) {
  std::string content;
  char buffer[512];
  for (uint64_t count; (count = velfsRead(file, buffer, sizeof buffer)) > 0;) {
    content.append(buffer, static_cast<std::size_t>(count));
  }
  return content;
}

std::vector<std::string> FullNames(EnumHandle* listing) {
  std::vector<std::string> names;
  while (velfsMoveNext(listing)) {
    char* name = nullptr;
    if (velfsGetFullName(listing, &name)) names.emplace_back(name);
    std::free(name);
  }
  velfsCloseEnum(listing);
  return names;
}

class LongPathTest : public velfs::testing::ScratchDirTest {};

TEST_F(LongPathTest, DatabasePathsOf4096BytesWork) {
  const std::string database = PathOf("long.db");
  const std::string path = PathOfLength("deep/dir/", kLength);
  const std::string renamed = PathOfLength("deep/dir/y", kLength);
  DirHandle* dir = velfsOpenDir(database.c_str());
  ASSERT_NE(dir, nullptr);
  FileHandle* file = velfsCreateFileIndir(dir, path.c_str(), 1);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(velfsWrite(file, "long", 4), 4u);
  velfsCloseFile(file);
  bool exists = false;
  EXPECT_TRUE(velfsIsFileExist(dir, path.c_str(), &exists));
  EXPECT_TRUE(exists);
  EXPECT_EQ(FullNames(velfsCreateEnumIndir(dir, "deep/dir/")), std::vector<std::string>{path});
  EXPECT_TRUE(velfsRenameFile(dir, path.c_str(), renamed.c_str()));
  EXPECT_TRUE(velfsCopyFile(dir, renamed.c_str(), path.c_str(), true));
  velfsCloseDir(dir);

  // Through a full path: the container, ':' and 4,096 bytes.
  file = velfsCreateFile((database + ":" + renamed).c_str(), 0);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(ReadWhole(file), "long");
  velfsCloseFile(file);
  EXPECT_EQ(FullNames(velfsCreateEnum((database + ":deep/dir/").c_str())).size(), 2u);

  // Through a mount and a stub, and the mapping of a virtual path that long.
  velFSMountPath("longdb:", database.c_str());
  const std::string virtualPath = "longdb:" + path;
  const uint64_t length = velFSVelToSyspath(virtualPath.c_str(), nullptr, 0);
  EXPECT_EQ(length, database.size() + 1 + kLength);
  std::string syspath(length, '\0');
  EXPECT_EQ(velFSVelToSyspath(virtualPath.c_str(), syspath.data(), length), length);
  EXPECT_EQ(syspath, database + "/" + path);
  FileStub* stub = velFSCreateStub(virtualPath.c_str(), 0);
  ASSERT_NE(stub, nullptr);
  char buffer[8] = {};
  EXPECT_EQ(stub->read(stub->file, buffer, sizeof buffer), 4u);
  EXPECT_EQ(std::string(buffer), "long");
  velFSDeleteStub(stub);
  velFSUnmountPath("longdb:");
}

TEST_F(LongPathTest, ArchiveMemberNamesOf4096BytesWork) {
  const std::string archive = PathOf("long.zip");
  const std::string member = PathOfLength("deep/", kLength);
  ASSERT_TRUE(WriteZip(archive, {Directory("deep/"), Stored(member, "member")}));
  DirHandle* dir = velfsOpenDir(archive.c_str());
  ASSERT_NE(dir, nullptr);
  bool exists = false;
  EXPECT_TRUE(velfsIsFileExist(dir, member.c_str(), &exists));
  EXPECT_TRUE(exists);
  EXPECT_EQ(FullNames(velfsCreateEnumIndir(dir, "deep/")), std::vector<std::string>{member});
  FileHandle* file = velfsCreateFileIndir(dir, member.c_str(), 0);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(ReadWhole(file), "member");
  velfsCloseFile(file);
  velfsCloseDir(dir);
  file = velfsCreateFile((archive + ":" + member).c_str(), 0);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(ReadWhole(file), "member");
  velfsCloseFile(file);
}

TEST_F(LongPathTest, HostPathsOf4096BytesFailCleanlyAndCreateNothing) {
  const std::string directory = PathOf("native");
  std::filesystem::create_directory(directory);
  DirHandle* dir = velfsOpenDir(directory.c_str());
  ASSERT_NE(dir, nullptr);
  const std::string name(kLength, 'n');  // one component: longer than NAME_MAX as well
  for (uint32_t mode = 0; mode <= 5; ++mode) {
    EXPECT_EQ(velfsCreateFileIndir(dir, name.c_str(), mode), nullptr) << "mode " << mode;
  }
  bool exists = true;
  EXPECT_TRUE(velfsIsFileExist(dir, name.c_str(), &exists));
  EXPECT_FALSE(exists);
  EXPECT_EQ(velfsCreateEnumIndir(dir, (name + "/").c_str()), nullptr);
  velfsCloseDir(dir);
  EXPECT_TRUE(std::filesystem::is_empty(directory));

  // A host path of 4,096 bytes as a root, a full path and a mount: nothing opens.
  const std::string longPath = PathOfLength(directory + "/", kLength);
  EXPECT_EQ(velfsOpenDir(longPath.c_str()), nullptr);
  EXPECT_EQ(velfsCreateFile(longPath.c_str(), 1), nullptr);
  EXPECT_EQ(velfsCreateFile((longPath + ":inner.txt").c_str(), 1), nullptr);
  EXPECT_EQ(velfsCreateEnum((longPath + "/").c_str()), nullptr);
  EXPECT_EQ(velFSCreateDirectory(longPath.c_str()), 0);
  velFSMountPath("longhost:", longPath.c_str());
  EXPECT_EQ(velFSVelToSyspath("longhost:x", nullptr, 0), 0u);
  velFSUnmountPath("longhost:");
  EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(LongPathTest, DatabaseFileBeyondSqlitesPathLimitIsNoRoot) {
  // Directories of 200-byte names until the absolute path passes 512 bytes.
  std::string deep = PathOf();
  while (deep.size() <= 512) {
    deep += "/" + std::string(200, 'd');
    ASSERT_TRUE(std::filesystem::create_directory(deep));
  }
  const std::string database = deep + "/store.db";
  EXPECT_EQ(velfsOpenDir(database.c_str()), nullptr);
  EXPECT_FALSE(std::filesystem::exists(database));
  // A directory at that depth is still a native root, and files in it work.
  DirHandle* dir = velfsOpenDir(deep.c_str());
  ASSERT_NE(dir, nullptr);
  FileHandle* file = velfsCreateFileIndir(dir, "host.txt", 1);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(velfsWrite(file, "host", 4), 4u);
  velfsCloseFile(file);
  velfsCloseDir(dir);
  EXPECT_EQ(velfs::testing::ReadHostFile(deep + "/host.txt"), "host");
}

}  // namespace
}  // namespace velfs::reliability
