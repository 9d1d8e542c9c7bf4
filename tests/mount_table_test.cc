// Part 2.1: the mount table and path mapping — velFSMountPath, velFSUnmountPath,
// velFSVelToSyspath (strncpy semantics) and velFSCreateDirectory, and MountTable::MountPrefix.
//
// P2.1-05 (mounting on a ZIP file) is not tested here: it belongs with the archive back-end's
// tests (tests/archive_api_test.cc).
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "mount/mount_table.h"
#include "mount_test_support.h"
#include "test_support.h"
#include "velfs.h"

namespace velfs::testing {
namespace {

namespace fs = std::filesystem;

using MountTableTest = MountFixture;

// The same path with every '/' turned into '\\'.
std::string WithBackslashes(std::string path) {
  for (char& c : path) {
    if (c == '/') c = '\\';
  }
  return path;
}

// --- Edge cases of Part 2.1 -----------------------------------------------------------------

TEST_F(MountTableTest, P2_1_01_AppMountMapsDataPathAndBareName) {
  const std::string root = MakeDir("root");
  Mount("app:", root);
  EXPECT_EQ(Map("app:data/x.txt"), root + "/data/x.txt");
  EXPECT_EQ(velFSVelToSyspath("app:data/x.txt", nullptr, 0), root.size() + 11);
  EXPECT_EQ(Map("app:"), root + "/");
  EXPECT_EQ(velFSVelToSyspath("app:", nullptr, 0), root.size() + 1);
}

TEST_F(MountTableTest, P2_1_02_TrailingSlashSysPathDoublesSeam) {
  const std::string root = MakeDir("root");
  Mount("app:", root + "/");
  EXPECT_EQ(Map("app:data/x.txt"), root + "//data/x.txt");
  EXPECT_EQ(Map("app:"), root + "//");
  // The rest is taken unchanged: a leading '/' of its own doubles the seam too.
  EXPECT_EQ(Map("app:/x"), root + "///x");
}

TEST_F(MountTableTest, P2_1_03_SecondMountOnOtherPathKeepsFirstMapping) {
  const std::string first = MakeDir("first");
  const std::string second = MakeDir("second");
  Mount("app:", first);
  Mount("app:", second);
  EXPECT_EQ(Map("app:x.txt"), first + "/x.txt");
  EXPECT_EQ(Map("app:"), first + "/");
}

TEST_F(MountTableTest, P2_1_04_MountOnNothingCreatesDatabaseMissingParentFails) {
  const std::string store = PathOf("store.db");
  ASSERT_FALSE(fs::exists(store));
  Mount("db:", store);
  EXPECT_TRUE(fs::is_regular_file(store));
  EXPECT_EQ(Map("db:docs/a.txt"), store + "/docs/a.txt");
  {
    SecondConnection second(store);
    EXPECT_EQ(second.RowCount(), 0);  // the table exists and is empty
  }

  const std::string inMissing = PathOf("missing/store.db");
  Mount("bad:", inMissing);
  EXPECT_EQ(velFSVelToSyspath("bad:docs/a.txt", nullptr, 0), 0u);
  EXPECT_EQ(Map("bad:"), "");
  EXPECT_FALSE(fs::exists(PathOf("missing")));
}

TEST_F(MountTableTest, P2_1_06_MountNameDifferingInCaseNotFound) {
  const std::string root = MakeDir("root");
  Mount("app:", root);
  Mount("Data:", MakeDir("data"));
  EXPECT_EQ(velFSVelToSyspath("APP:x.txt", nullptr, 0), 0u);
  EXPECT_EQ(velFSVelToSyspath("App:x.txt", nullptr, 0), 0u);
  EXPECT_EQ(velFSVelToSyspath("data:x.txt", nullptr, 0), 0u);
  EXPECT_EQ(velFSVelToSyspath("DATA:x.txt", nullptr, 0), 0u);
  EXPECT_EQ(Map("app:x.txt"), root + "/x.txt");
  EXPECT_EQ(Map("Data:x.txt"), PathOf("data") + "/x.txt");
}

TEST_F(MountTableTest, P2_1_07_LookupByFirstColonOnlyAndDrivePath) {
  const std::string twoColons = MakeDir("two");
  const std::string letter = MakeDir("letter");
  // A name holding a second ':' can be mounted but is never reached through a virtual path.
  Mount("a:b:", twoColons);
  EXPECT_EQ(velFSVelToSyspath("a:b:x.txt", nullptr, 0), 0u);
  EXPECT_EQ(velFSVelToSyspath("a:b:", nullptr, 0), 0u);
  // With "a:" mounted the same path is read as "a:" and the rest "b:x.txt".
  Mount("a:", letter);
  EXPECT_EQ(Map("a:b:x.txt"), letter + "/b:x.txt");

  // A Windows drive path is the mount name "C:" and the rest "/Windows/x.txt".
  EXPECT_EQ(velFSVelToSyspath("C:/Windows/x.txt", nullptr, 0), 0u);
  EXPECT_EQ(velFSVelToSyspath("C:\\Windows\\x.txt", nullptr, 0), 0u);
  Mount("C:", letter);
  EXPECT_EQ(Map("C:/Windows/x.txt"), letter + "//Windows/x.txt");
  EXPECT_EQ(Map("C:\\Windows\\x.txt"), letter + "//Windows/x.txt");
  EXPECT_EQ(velFSVelToSyspath("D:/Windows/x.txt", nullptr, 0), 0u);

  EXPECT_EQ(MountTable::MountPrefix("a:b:x"), "a:");
  EXPECT_EQ(MountTable::MountPrefix("C:/Windows"), "C:");
  EXPECT_EQ(MountTable::MountPrefix(":x"), ":");
  EXPECT_EQ(MountTable::MountPrefix("no/colon"), "");
  EXPECT_EQ(MountTable::MountPrefix(""), "");
}

TEST_F(MountTableTest, P2_1_08_VelToSyspathBufferSizes) {
  const std::string root = MakeDir("root");
  Mount("app:", root);
  const std::string expected = root + "/data/x.txt";
  const uint64_t length = expected.size();

  // Size 0: the length, nothing written (a buffer may be given or not).
  EXPECT_EQ(velFSVelToSyspath("app:data/x.txt", nullptr, 0), length);
  std::string untouched(length + 4, '#');
  EXPECT_EQ(velFSVelToSyspath("app:data/x.txt", untouched.data(), 0), length);
  EXPECT_EQ(untouched, std::string(length + 4, '#'));

  // A buffer exactly as long as the result: filled, no terminator, the byte after untouched.
  std::string exact(length + 1, '#');
  EXPECT_EQ(velFSVelToSyspath("app:data/x.txt", exact.data(), length), length);
  EXPECT_EQ(exact, expected + "#");
}

TEST_F(MountTableTest, P2_1_09_UnmountUnknownDoesNothingUnmountedMapsToZero) {
  const std::string root = MakeDir("root");
  Mount("app:", root);
  velFSUnmountPath("other:");
  velFSUnmountPath("app");   // the name without its ':' is another name
  velFSUnmountPath("APP:");  // and so is one differing in case
  EXPECT_EQ(Map("app:x.txt"), root + "/x.txt");

  velFSUnmountPath("app:");
  EXPECT_EQ(velFSVelToSyspath("app:x.txt", nullptr, 0), 0u);
  char buffer[4] = {'#', '#', '#', '#'};
  EXPECT_EQ(velFSVelToSyspath("app:x.txt", buffer, sizeof buffer), 0u);
  EXPECT_EQ(std::memcmp(buffer, "\0\0\0\0", 4), 0);
  velFSUnmountPath("app:");  // a second time: nothing left to do
  EXPECT_EQ(velFSVelToSyspath("app:x.txt", nullptr, 0), 0u);
}

TEST_F(MountTableTest, P2_1_10_CreateDirectoryOfExistingReturnsZero) {
  const std::string existing = MakeDir("existing");
  EXPECT_EQ(velFSCreateDirectory(existing.c_str()), 0);
  EXPECT_EQ(velFSCreateDirectory(PathOf("fresh").c_str()), 1);
  EXPECT_TRUE(fs::is_directory(PathOf("fresh")));
  EXPECT_EQ(velFSCreateDirectory(PathOf("fresh").c_str()), 0);
  // One level only: a missing parent gives 0 and creates nothing.
  EXPECT_EQ(velFSCreateDirectory(PathOf("none/child").c_str()), 0);
  EXPECT_FALSE(fs::exists(PathOf("none")));
  // A host path: backslashes are read as '/', no mount name is resolved.
  EXPECT_EQ(velFSCreateDirectory(WithBackslashes(PathOf("slashed")).c_str()), 1);
  EXPECT_TRUE(fs::is_directory(PathOf("slashed")));
  EXPECT_EQ(velFSCreateDirectory(nullptr), 0);
  EXPECT_EQ(velFSCreateDirectory(""), 0);
}

// --- Further cases of the issue -------------------------------------------------------------

TEST_F(MountTableTest, MountNameAndSysPathWithBackslashes) {
  const std::string root = MakeDir("root");
  Mount("vol\\a:", WithBackslashes(root));
  // Both were normalised: the key is "vol/a:" and the system path uses '/'.
  EXPECT_EQ(Map("vol/a:sub/x.txt"), root + "/sub/x.txt");
  EXPECT_EQ(Map("vol\\a:sub\\x.txt"), root + "/sub/x.txt");
  // The storage was opened on the normalised path: a stub writes into the directory.
  {
    StubPtr stub = OpenStub("vol\\a:sub\\x.txt", 1);
    ASSERT_NE(stub, nullptr);
    EXPECT_EQ(WriteText(stub.get(), "back"), 4u);
  }
  EXPECT_EQ(ReadHostFile(root + "/sub/x.txt"), "back");
  // Unmounting under the backslash spelling removes the normalised name.
  velFSUnmountPath("vol\\a:");
  EXPECT_EQ(velFSVelToSyspath("vol/a:sub/x.txt", nullptr, 0), 0u);
}

TEST_F(MountTableTest, SecondMountUnderTakenNameLeavesFirstStorageInForce) {
  const std::string first = MakeDir("first");
  const std::string second = MakeDir("second");
  WriteHostFile(first + "/f.txt", "first");
  WriteHostFile(second + "/f.txt", "second");
  Mount("app:", first);
  Mount("app:", second);
  // A taken name is refused before any storage is opened: no database file appears.
  Mount("app:", PathOf("new.db"));
  EXPECT_FALSE(fs::exists(PathOf("new.db")));

  EXPECT_EQ(Map("app:f.txt"), first + "/f.txt");
  {
    StubPtr stub = OpenStub("app:f.txt", 0);
    ASSERT_NE(stub, nullptr);
    EXPECT_EQ(ReadAll(stub.get()), "first");
  }
  {
    StubPtr stub = OpenStub("app:g.txt", 1);
    ASSERT_NE(stub, nullptr);
    EXPECT_EQ(WriteText(stub.get(), "new"), 3u);
  }
  EXPECT_EQ(ReadHostFile(first + "/g.txt"), "new");
  EXPECT_FALSE(fs::exists(second + "/g.txt"));
}

TEST_F(MountTableTest, UnmountWhileNothingOpenAllowsRemount) {
  const std::string root = MakeDir("root");
  const std::string other = MakeDir("other");
  const std::string store = PathOf("store.db");
  Mount("app:", root);
  Mount("db:", store);
  {
    StubPtr file = OpenStub("app:a.txt", 1);
    StubPtr row = OpenStub("db:a.txt", 1);
    ASSERT_NE(file, nullptr);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(WriteText(file.get(), "abc"), 3u);
    EXPECT_EQ(WriteText(row.get(), "xyz"), 3u);
  }  // both stubs deleted: nothing is open through either mount

  velFSUnmountPath("app:");
  velFSUnmountPath("db:");
  EXPECT_EQ(velFSVelToSyspath("app:a.txt", nullptr, 0), 0u);
  EXPECT_EQ(velFSVelToSyspath("db:a.txt", nullptr, 0), 0u);
  EXPECT_EQ(velFSCreateStub("app:a.txt", 0), nullptr);
  EXPECT_EQ(velFSCreateStub("db:a.txt", 0), nullptr);
  // What was written stays.
  EXPECT_EQ(ReadHostFile(root + "/a.txt"), "abc");
  {
    SecondConnection second(store);
    std::string content;
    EXPECT_TRUE(second.ReadRow("a.txt", "", &content));
    EXPECT_EQ(content, "xyz");
  }
  // The names are free again: a new mount on another path takes effect.
  Mount("app:", other);
  EXPECT_EQ(Map("app:a.txt"), other + "/a.txt");
  EXPECT_EQ(velFSCreateStub("app:a.txt", 0), nullptr);  // no a.txt in the other directory
  Mount("db:", store);
  {
    StubPtr row = OpenStub("db:a.txt", 0);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(ReadAll(row.get()), "xyz");
  }
}

TEST_F(MountTableTest, VelToSyspathBufferSizesZeroOneLengthLengthPlusOne) {
  const std::string root = MakeDir("root");
  Mount("app:", root);
  const std::string expected = root + "/notes/a.txt";
  const uint64_t length = expected.size();
  const std::string padding(8, '#');

  // 0: the length; the buffer is not touched.
  std::string buffer(length + 8, '#');
  EXPECT_EQ(velFSVelToSyspath("app:notes/a.txt", buffer.data(), 0), length);
  EXPECT_EQ(buffer, std::string(length + 8, '#'));

  // 1: the first byte only, no terminator.
  buffer.assign(length + 8, '#');
  EXPECT_EQ(velFSVelToSyspath("app:notes/a.txt", buffer.data(), 1), length);
  EXPECT_EQ(buffer, expected.substr(0, 1) + std::string(length + 7, '#'));

  // length: every byte, no terminator.
  buffer.assign(length + 8, '#');
  EXPECT_EQ(velFSVelToSyspath("app:notes/a.txt", buffer.data(), length), length);
  EXPECT_EQ(buffer, expected + padding);

  // length + 1: every byte and the terminator.
  buffer.assign(length + 8, '#');
  EXPECT_EQ(velFSVelToSyspath("app:notes/a.txt", buffer.data(), length + 1), length);
  EXPECT_EQ(buffer, expected + std::string(1, '\0') + std::string(7, '#'));

  // length + 5: NUL padding up to the size, as strncpy writes it.
  buffer.assign(length + 8, '#');
  EXPECT_EQ(velFSVelToSyspath("app:notes/a.txt", buffer.data(), length + 5), length);
  EXPECT_EQ(buffer, expected + std::string(5, '\0') + std::string(3, '#'));

  // A non-zero size with a null buffer: 0.
  EXPECT_EQ(velFSVelToSyspath("app:notes/a.txt", nullptr, length + 1), 0u);
}

TEST_F(MountTableTest, VelToSyspathUnmappedPathsAnswerZeroAndFillNuls) {
  const std::string root = MakeDir("root");
  Mount("app:", root);
  // No ':' does not map: the default name is added only by velFSCreateStub (Part 2.2).
  EXPECT_EQ(velFSVelToSyspath("notes/a.txt", nullptr, 0), 0u);
  EXPECT_EQ(velFSVelToSyspath("unknown:a.txt", nullptr, 0), 0u);
  std::string buffer(8, '#');
  EXPECT_EQ(velFSVelToSyspath("unknown:a.txt", buffer.data(), 5), 0u);
  EXPECT_EQ(buffer, std::string(5, '\0') + "###");
  // Null and empty paths answer 0 and touch nothing.
  buffer.assign(8, '#');
  EXPECT_EQ(velFSVelToSyspath(nullptr, buffer.data(), 5), 0u);
  EXPECT_EQ(velFSVelToSyspath("", buffer.data(), 5), 0u);
  EXPECT_EQ(buffer, std::string(8, '#'));
}

TEST_F(MountTableTest, MountWithNullOrEmptyArgumentsOrRefusedPathMakesNoEntry) {
  const std::string root = MakeDir("root");
  velFSMountPath(nullptr, root.c_str());
  velFSMountPath("", root.c_str());
  Mount("app:", "");
  velFSMountPath("app:", nullptr);
  EXPECT_EQ(velFSVelToSyspath("app:x", nullptr, 0), 0u);
  // A regular file that is neither a ZIP archive nor a database: no back-end accepts it.
  WriteHostFile(PathOf("plain.txt"), "This is not a database, not an archive either.\n");
  Mount("txt:", PathOf("plain.txt"));
  EXPECT_EQ(velFSVelToSyspath("txt:x", nullptr, 0), 0u);
  EXPECT_EQ(ReadHostFile(PathOf("plain.txt")), "This is not a database, not an archive either.\n");
  // Null and empty names are ignored by velFSUnmountPath.
  Mount("app:", root);
  velFSUnmountPath(nullptr);
  velFSUnmountPath("");
  EXPECT_EQ(Map("app:x"), root + "/x");
}

}  // namespace
}  // namespace velfs::testing
