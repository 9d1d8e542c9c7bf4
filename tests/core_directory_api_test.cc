// Part 1.2: the directory handle functions, over database roots and over the recording storage
// of core_fakes.h (which shows the exact path each function hands to the storage). The cases that
// need a native or archive root are tested with those back-ends.
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "core/handle_records.h"
#include "core_fakes.h"
#include "database/database_storage.h"
#include "test_support.h"
#include "velfs.h"

namespace velfs::testing {
namespace {

using corefakes::EventLog;
using corefakes::MinimalStorage;
using corefakes::NewDirHandle;
using corefakes::RecordingStorage;
using Calls = std::vector<std::string>;

using CoreDirApiTest = ScratchDirTest;

TEST_F(CoreDirApiTest, P1_2_01_OpenDirOfNullAndEmptyReturnsNull) {
  EXPECT_EQ(velfsOpenDir(nullptr), nullptr);
  EXPECT_EQ(velfsOpenDir(""), nullptr);
}

TEST_F(CoreDirApiTest, P1_2_03_OpenDirOfDatabasePathWithColonOpensThatFile) {
  const std::string db = PathOf("store.db");
  {
    DirHandle* setup = velfsOpenDir(db.c_str());
    ASSERT_NE(setup, nullptr);
    velfsCloseDir(setup);
    SecondConnection other(db);
    const std::string bytes = "abc";
    ASSERT_TRUE(other.InsertRow("a.txt", "docs/", &bytes));
  }
  DirHandle* dir = velfsOpenDir((db + ":").c_str());
  ASSERT_NE(dir, nullptr);
  EXPECT_EQ(dir->rootPath, db + ":");  // the ':' stays in rootPath
  EXPECT_NE(dynamic_cast<DatabaseStorage*>(dir->storage.get()), nullptr);
  bool exists = false;
  EXPECT_TRUE(velfsIsFileExist(dir, "docs/a.txt", &exists));
  EXPECT_TRUE(exists);  // it is that database file
  EXPECT_FALSE(std::filesystem::exists(db + ":"));  // no file named with the ':' was made
  velfsCloseDir(dir);
}

TEST_F(CoreDirApiTest, P1_2_04_OpenDirOfMissingPathCreatesEmptyDatabase) {
  const std::string db = PathOf("new.db");
  ASSERT_FALSE(std::filesystem::exists(db));
  DirHandle* dir = velfsOpenDir(db.c_str());
  ASSERT_NE(dir, nullptr);
  EXPECT_EQ(dir->rootPath, db);
  EXPECT_NE(dynamic_cast<DatabaseStorage*>(dir->storage.get()), nullptr);
  EXPECT_TRUE(std::filesystem::is_regular_file(db));
  bool exists = true;
  EXPECT_TRUE(velfsIsDirectoryExist(dir, "", &exists));
  EXPECT_FALSE(exists);  // no row at all
  velfsCloseDir(dir);
  SecondConnection other(db);
  EXPECT_EQ(other.RowCount(), 0);  // the table exists and is empty
}

TEST_F(CoreDirApiTest, P1_2_05_IsFileExistNormalisesBackslashInItsOwnCopy) {
  // The storage is asked about a/b.txt.
  EventLog log;
  auto recording = std::make_unique<RecordingStorage>(&log);
  RecordingStorage* view = recording.get();
  DirHandle* fake = NewDirHandle("root", std::move(recording));
  char path[] = "a\\b.txt";
  bool exists = false;
  EXPECT_TRUE(velfsIsFileExist(fake, path, &exists));
  EXPECT_EQ(view->calls, (Calls{"IsFileExist a/b.txt"}));
  EXPECT_STREQ(path, "a\\b.txt");  // the caller's string is unchanged
  velfsCloseDir(fake);

  // A database root: the row (b.txt, a/) is found; a row named a\b.txt at the root is not asked.
  const std::string db = PathOf("store.db");
  DirHandle* dir = velfsOpenDir(db.c_str());
  ASSERT_NE(dir, nullptr);
  SecondConnection other(db);
  const std::string bytes = "x";
  ASSERT_TRUE(other.InsertRow("a\\b.txt", "", &bytes));
  exists = true;
  EXPECT_TRUE(velfsIsFileExist(dir, path, &exists));
  EXPECT_FALSE(exists);
  ASSERT_TRUE(other.InsertRow("b.txt", "a/", &bytes));
  EXPECT_TRUE(velfsIsFileExist(dir, path, &exists));
  EXPECT_TRUE(exists);
  EXPECT_STREQ(path, "a\\b.txt");
  velfsCloseDir(dir);
}

TEST_F(CoreDirApiTest, P1_2_06_IsDirectoryExistWithEmptyPathAsksAboutRoot) {
  EventLog log;
  auto recording = std::make_unique<RecordingStorage>(&log);
  RecordingStorage* view = recording.get();
  DirHandle* fake = NewDirHandle("root", std::move(recording));
  bool exists = false;
  EXPECT_TRUE(velfsIsDirectoryExist(fake, "", &exists));
  EXPECT_EQ(view->calls, (Calls{"IsDirectoryExist "}));  // the empty path, unchanged
  velfsCloseDir(fake);

  // A database root exists as a directory exactly when the table has a row (Part 3.1).
  const std::string db = PathOf("store.db");
  DirHandle* dir = velfsOpenDir(db.c_str());
  ASSERT_NE(dir, nullptr);
  exists = true;
  EXPECT_TRUE(velfsIsDirectoryExist(dir, "", &exists));
  EXPECT_FALSE(exists);
  SecondConnection other(db);
  const std::string bytes = "x";
  ASSERT_TRUE(other.InsertRow("f", "deep/er/", &bytes));
  EXPECT_TRUE(velfsIsDirectoryExist(dir, "", &exists));
  EXPECT_TRUE(exists);
  velfsCloseDir(dir);
}

// The native and archive roots of this case are tested with those back-ends. Here: the seven
// functions over a storage that keeps the shared not-supported answer (as those roots do) return
// false, and none of them reaches an operation that the storage implements.
TEST_F(CoreDirApiTest, P1_2_07_NotSupportedOperationsReturnFalse) {
  DirHandle* dir = NewDirHandle("root", std::make_unique<MinimalStorage>());
  EXPECT_FALSE(velfsDeleteFile(dir, "a.txt"));
  EXPECT_FALSE(velfsRenameFile(dir, "a.txt", "b.txt"));
  EXPECT_FALSE(velfsCopyFile(dir, "a.txt", "b.txt", false));
  EXPECT_FALSE(velfsMoveFile(dir, "a.txt", "b.txt", false));
  EXPECT_FALSE(velfsDeleteDirectory(dir, "d/"));
  EXPECT_FALSE(velfsBeginTrans(dir));
  EXPECT_FALSE(velfsCommitTrans(dir));
  velfsCloseDir(dir);
}

TEST_F(CoreDirApiTest, P1_2_08_CopyFileFailIfExistsOntoExistingTargetFails) {
  const std::string db = PathOf("store.db");
  DirHandle* dir = velfsOpenDir(db.c_str());
  ASSERT_NE(dir, nullptr);
  SecondConnection other(db);
  const std::string source = "new bytes", target = "old";
  ASSERT_TRUE(other.InsertRow("src.txt", "", &source));
  ASSERT_TRUE(other.InsertRow("dst.txt", "d/", &target));
  EXPECT_FALSE(velfsCopyFile(dir, "src.txt", "d/dst.txt", true));
  std::string content;
  ASSERT_TRUE(other.ReadRow("dst.txt", "d/", &content));
  EXPECT_EQ(content, "old");
  EXPECT_EQ(other.RowCount(), 2);
  // The same copy without failIfExists does replace it (the refusal above was the flag's).
  EXPECT_TRUE(velfsCopyFile(dir, "src.txt", "d\\dst.txt", false));
  ASSERT_TRUE(other.ReadRow("dst.txt", "d/", &content));
  EXPECT_EQ(content, "new bytes");
  EXPECT_EQ(other.RowCount(), 2);
  velfsCloseDir(dir);
}

TEST_F(CoreDirApiTest, P1_2_09_NullHandleGivesFalseEverywhereAndCloseDirIgnoresIt) {
  bool exists = true;
  EXPECT_FALSE(velfsIsFileExist(nullptr, "a", &exists));
  EXPECT_TRUE(exists);  // nothing was asked, so nothing was stored
  EXPECT_FALSE(velfsIsDirectoryExist(nullptr, "a", &exists));
  EXPECT_TRUE(exists);
  exists = false;
  EXPECT_FALSE(velfsIsFileExist(nullptr, "a", &exists));
  EXPECT_FALSE(exists);
  EXPECT_FALSE(velfsDeleteFile(nullptr, "a"));
  EXPECT_FALSE(velfsDeleteDirectory(nullptr, "a/"));
  EXPECT_FALSE(velfsRenameFile(nullptr, "a", "b"));
  EXPECT_FALSE(velfsCopyFile(nullptr, "a", "b", false));
  EXPECT_FALSE(velfsCopyFile(nullptr, "a", "b", true));
  EXPECT_FALSE(velfsMoveFile(nullptr, "a", "b", false));
  EXPECT_FALSE(velfsBeginTrans(nullptr));
  EXPECT_FALSE(velfsCommitTrans(nullptr));
  EXPECT_EQ(velfsCreateFileIndir(nullptr, "a", 1), nullptr);
  EXPECT_EQ(velfsCreateEnumIndir(nullptr, ""), nullptr);
  velfsCloseDir(nullptr);  // does nothing (and does not crash)
}

// Part 1.2: every path argument reaches the storage normalised, in the caller's order, with
// `failIfExists` unchanged; nothing else is done to it (no ':' stripped, no '/' added).
TEST_F(CoreDirApiTest, EveryFunctionHandsNormalisedPathsToTheStorage) {
  EventLog log;
  auto recording = std::make_unique<RecordingStorage>(&log);
  RecordingStorage* view = recording.get();
  DirHandle* dir = NewDirHandle("root", std::move(recording));
  bool exists = false;
  EXPECT_TRUE(velfsIsFileExist(dir, "\\x\\y:", &exists));
  EXPECT_TRUE(velfsIsDirectoryExist(dir, "d\\e", &exists));
  EXPECT_TRUE(velfsDeleteFile(dir, "d\\\\f"));
  EXPECT_TRUE(velfsDeleteDirectory(dir, "D\\"));
  EXPECT_TRUE(velfsRenameFile(dir, "a\\o", "a\\n"));
  EXPECT_TRUE(velfsCopyFile(dir, "s\\1", "t\\2", true));
  EXPECT_TRUE(velfsMoveFile(dir, "s\\1", "t/2", false));
  EXPECT_TRUE(velfsBeginTrans(dir));
  EXPECT_TRUE(velfsCommitTrans(dir));
  EXPECT_EQ(view->calls, (Calls{"IsFileExist /x/y:", "IsDirectoryExist d/e", "DeleteFile d//f",
                                "DeleteDirectory D/", "RenameFile a/o a/n", "CopyFile s/1 t/2 1",
                                "MoveFile s/1 t/2 0", "BeginTrans", "CommitTrans"}));
  velfsCloseDir(dir);
  EXPECT_EQ(log.events, (Calls{"~storage"}));
}

// Part 1.2: velfsOpenDir keeps the normalised root path in the record.
TEST_F(CoreDirApiTest, OpenDirKeepsRootPathWithForwardSlashes) {
  std::string db = PathOf("store.db");
  std::string written = db;
  const std::size_t slash = written.rfind('/');
  written[slash] = '\\';  // .../scratch\store.db
  DirHandle* dir = velfsOpenDir(written.c_str());
  ASSERT_NE(dir, nullptr);
  EXPECT_EQ(dir->rootPath, db);
  EXPECT_TRUE(std::filesystem::is_regular_file(db));
  velfsCloseDir(dir);
}

// Part 1.2: a root path that no back-end accepts gives null and leaves nothing behind.
TEST_F(CoreDirApiTest, OpenDirOfRootNoBackEndAcceptsGivesNull) {
  EXPECT_EQ(velfsOpenDir(PathOf("missing/store.db").c_str()), nullptr);
  EXPECT_FALSE(std::filesystem::exists(PathOf("missing")));
  WriteHostFile(PathOf("text.txt"), std::string(600, 't'));
  EXPECT_EQ(velfsOpenDir(PathOf("text.txt").c_str()), nullptr);
  EXPECT_EQ(ReadHostFile(PathOf("text.txt")), std::string(600, 't'));
}

}  // namespace
}  // namespace velfs::testing
