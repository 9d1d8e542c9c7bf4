// A host directory as a root: the six open modes of standard I/O, parent directories created
// for the modes that create, and positions in a file beyond 2 GiB.
#include <fstream>

#include "support.h"

namespace velfs_test {
namespace {

namespace fs = std::filesystem;

using NativeTest = ScratchTest;

// Mode: whether a missing file opens (and is created), what a read from the start gives, and the
// content after writing "XY" right after opening "abcdef".
struct ModeCase {
  uint32_t mode;
  bool createsMissing;
  std::string readAtOpen;
  std::string afterWrite;
};

TEST_F(NativeTest, OpenModesMapToTheirStandardIoModes) {
  const ModeCase cases[] = {
      {0, false, "abcdef", "abcdef"},  {1, true, "", "XY"},         {2, true, "", "abcdefXY"},
      {3, false, "abcdef", "XYcdef"},  {4, true, "", "XY"},         {5, true, "abcdef", "abcdefXY"},
  };
  DirHandle* dir = velfsOpenDir(PathOf().c_str());
  ASSERT_NE(dir, nullptr);
  for (const ModeCase& c : cases) {
    SCOPED_TRACE("mode " + std::to_string(c.mode));
    const std::string missing = "new" + std::to_string(c.mode) + "/deeper/f.txt";
    FileHandle* created = velfsCreateFileIndir(dir, missing.c_str(), c.mode);
    EXPECT_EQ(created != nullptr, c.createsMissing);
    velfsCloseFile(created);
    EXPECT_EQ(fs::is_regular_file(PathOf(missing)), c.createsMissing);
    EXPECT_EQ(fs::exists(PathOf("new" + std::to_string(c.mode))), c.createsMissing);

    WriteHostFile(PathOf("f.txt"), "abcdef");
    EXPECT_EQ(ReadAndClose(velfsCreateFileIndir(dir, "f.txt", c.mode)), c.readAtOpen);

    WriteHostFile(PathOf("f.txt"), "abcdef");
    FileHandle* file = velfsCreateFileIndir(dir, "f.txt", c.mode);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(velfsWrite(file, "XY", 2), c.mode == 0 ? 0u : 2u);
    velfsCloseFile(file);
    EXPECT_EQ(ReadHostFile(PathOf("f.txt")), c.afterWrite);
  }
  velfsCloseDir(dir);
}

TEST_F(NativeTest, HostPathsOpenFilesListDirectoriesAndCreateOneLevel) {
  fs::create_directories(PathOf("d/sub"));
  WriteHostFile(PathOf("d/f.txt"), "file");
  EXPECT_EQ(ReadFullPath(PathOf("d/f.txt")), "file");
  EXPECT_EQ(velfsCreateFile(PathOf("d/").c_str(), 0), nullptr);
  // A missing file opened for reading fails. The path names no host entry, so it is cut at its
  // last ':', which is the one after "d" on every platform (a Windows path has a drive's too).
  EXPECT_EQ(velfsCreateFile((PathOf("d") + ":missing.txt").c_str(), 0), nullptr);
  EXPECT_EQ(Listing(velfsCreateEnum(PathOf("d/").c_str())),
            (std::map<std::string, bool>{{"f.txt", false}, {"sub/", true}}));
  DirHandle* dir = velfsOpenDir(PathOf().c_str());
  EXPECT_EQ(velfsCreateEnumIndir(dir, "missing/"), nullptr);
  EXPECT_TRUE(Listing(velfsCreateEnumIndir(dir, "d/sub/")).empty());
  velfsCloseDir(dir);

  EXPECT_EQ(velFSCreateDirectory(PathOf("d/new").c_str()), 1);
  EXPECT_TRUE(fs::is_directory(PathOf("d/new")));
  EXPECT_EQ(velFSCreateDirectory(PathOf("d/new").c_str()), 0);
  EXPECT_EQ(velFSCreateDirectory(PathOf("d/x/y").c_str()), 0);
  EXPECT_FALSE(fs::exists(PathOf("d/x")));
  EXPECT_EQ(velFSCreateDirectory(""), 0);
}

// Positions are 64-bit underneath; Tell of a position past the 32-bit range answers -1, never a
// wrapped value, and reads and writes there still work.
TEST_F(NativeTest, PositionsBeyondTwoGiBReadAndWriteButTellAnswersMinusOne) {
  const std::string path = PathOf("big.bin");
  const std::uintmax_t size = std::uintmax_t{3} << 30;
  WriteHostFile(path, "");
  std::error_code error;
  fs::resize_file(path, size, error);
  if (error) GTEST_SKIP() << "the file system cannot hold a sparse 3 GiB file: " << error.message();
  {
    std::fstream out(path, std::ios::in | std::ios::out | std::ios::binary);
    out.seekp(static_cast<std::streamoff>(size - 1));
    out.put('Z');
  }
  FileHandle* file = velfsCreateFile(path.c_str(), 3);
  ASSERT_NE(file, nullptr);
  char byte = 0;
  EXPECT_EQ(velfsSeek(file, INT32_MAX, 0), 0);
  EXPECT_EQ(velfsTell(file), INT32_MAX);
  EXPECT_EQ(velfsSeek(file, 1, 1), 0);
  EXPECT_EQ(velfsTell(file), -1);
  EXPECT_EQ(velfsWrite(file, "W", 1), 1u);
  EXPECT_EQ(velfsSeek(file, -1, 2), 0);
  EXPECT_EQ(velfsTell(file), -1);
  EXPECT_EQ(velfsRead(file, &byte, 1), 1u);
  EXPECT_EQ(byte, 'Z');
  EXPECT_EQ(velfsRead(file, &byte, 1), 0u);
  EXPECT_TRUE(velfsError(file));
  EXPECT_EQ(velfsSeek(file, INT32_MAX, 0), 0);
  EXPECT_EQ(velfsSeek(file, 1, 1), 0);
  EXPECT_EQ(velfsRead(file, &byte, 1), 1u);
  EXPECT_EQ(byte, 'W');
  velfsCloseFile(file);
  // Too large for an archive, not a database: no root, and left as it was.
  EXPECT_EQ(velfsOpenDir(path.c_str()), nullptr);
  EXPECT_EQ(fs::file_size(path), size);
}

}  // namespace
}  // namespace velfs_test
