// Bad input through the exported API (Parts 1.2 and 1.4): null and empty paths and null handles
// for every exported function, and path bytes that are not UTF-8. A recording storage (see
// core_fakes.h) shows which calls reach a storage at all.
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "core/handle_records.h"
#include "core_fakes.h"
#include "test_support.h"
#include "velfs.h"

namespace velfs::testing {
namespace {

using corefakes::EventLog;
using corefakes::NewDirHandle;
using corefakes::RecordingStorage;
using corefakes::ScopedCurrentDirectory;
using Calls = std::vector<std::string>;

class CoreBadInputTest : public ScratchDirTest {
 protected:
  void SetUp() override {
    ScratchDirTest::SetUp();
    auto storage = std::make_unique<RecordingStorage>(&log_);
    storage_ = storage.get();
    dir_handle_ = NewDirHandle("root", std::move(storage));
  }
  void TearDown() override {
    velfsCloseDir(dir_handle_);
    ScratchDirTest::TearDown();
  }

  EventLog log_;
  RecordingStorage* storage_ = nullptr;
  DirHandle* dir_handle_ = nullptr;
};

// Part 1.2 failure handling: a null path or a null second path gives false without a call.
TEST_F(CoreBadInputTest, NullPathsGiveFalseWithoutCallingTheStorage) {
  bool exists = true;
  EXPECT_FALSE(velfsIsFileExist(dir_handle_, nullptr, &exists));
  EXPECT_TRUE(exists);
  EXPECT_FALSE(velfsIsDirectoryExist(dir_handle_, nullptr, &exists));
  EXPECT_TRUE(exists);
  EXPECT_FALSE(velfsDeleteFile(dir_handle_, nullptr));
  EXPECT_FALSE(velfsDeleteDirectory(dir_handle_, nullptr));
  EXPECT_FALSE(velfsRenameFile(dir_handle_, nullptr, "b"));
  EXPECT_FALSE(velfsRenameFile(dir_handle_, "a", nullptr));
  EXPECT_FALSE(velfsCopyFile(dir_handle_, nullptr, "b", false));
  EXPECT_FALSE(velfsCopyFile(dir_handle_, "a", nullptr, false));
  EXPECT_FALSE(velfsMoveFile(dir_handle_, nullptr, "b", false));
  EXPECT_FALSE(velfsMoveFile(dir_handle_, "a", nullptr, false));
  EXPECT_EQ(velfsCreateFileIndir(dir_handle_, nullptr, 1), nullptr);
  EXPECT_EQ(velfsCreateEnumIndir(dir_handle_, nullptr), nullptr);
  EXPECT_TRUE(storage_->calls.empty());
  EXPECT_TRUE(log_.events.empty());  // nothing made, nothing destroyed
}

// Part 1.2: an empty path is passed on as the empty path; Part 1.4: velfsCreateFileIndir refuses
// it without a call, velfsCreateEnumIndir lists the root with it.
TEST_F(CoreBadInputTest, EmptyPathsArePassedOnExceptToCreateFileIndir) {
  bool exists = false;
  EXPECT_TRUE(velfsIsFileExist(dir_handle_, "", &exists));
  EXPECT_TRUE(velfsIsDirectoryExist(dir_handle_, "", &exists));
  EXPECT_TRUE(velfsDeleteFile(dir_handle_, ""));
  EXPECT_TRUE(velfsDeleteDirectory(dir_handle_, ""));
  EXPECT_TRUE(velfsRenameFile(dir_handle_, "", ""));
  EXPECT_TRUE(velfsCopyFile(dir_handle_, "", "t", true));
  EXPECT_TRUE(velfsMoveFile(dir_handle_, "s", "", false));
  EXPECT_EQ(velfsCreateFileIndir(dir_handle_, "", 1), nullptr);
  EnumHandle* listing = velfsCreateEnumIndir(dir_handle_, "");
  ASSERT_NE(listing, nullptr);
  velfsCloseEnum(listing);
  EXPECT_EQ(storage_->calls,
            (Calls{"IsFileExist ", "IsDirectoryExist ", "DeleteFile ", "DeleteDirectory ",
                   "RenameFile  ", "CopyFile  t 1", "MoveFile s  0", "CreateEnum "}));
}

// Part 1.2: a DirHandle without a storage answers false everywhere (step 1 tests both).
TEST_F(CoreBadInputTest, DirHandleWithoutStorageGivesFalse) {
  DirHandle* empty = NewDirHandle("nothing", nullptr);
  bool exists = true;
  EXPECT_FALSE(velfsIsFileExist(empty, "a", &exists));
  EXPECT_FALSE(velfsIsDirectoryExist(empty, "a", &exists));
  EXPECT_TRUE(exists);
  EXPECT_FALSE(velfsDeleteFile(empty, "a"));
  EXPECT_FALSE(velfsDeleteDirectory(empty, "a"));
  EXPECT_FALSE(velfsRenameFile(empty, "a", "b"));
  EXPECT_FALSE(velfsCopyFile(empty, "a", "b", false));
  EXPECT_FALSE(velfsMoveFile(empty, "a", "b", false));
  EXPECT_FALSE(velfsBeginTrans(empty));
  EXPECT_FALSE(velfsCommitTrans(empty));
  EXPECT_EQ(velfsCreateFileIndir(empty, "a", 1), nullptr);
  EXPECT_EQ(velfsCreateEnumIndir(empty, ""), nullptr);
  velfsCloseDir(empty);
}

// Every exported function with null handles and null or empty paths, with no storage involved.
TEST_F(CoreBadInputTest, NullAndEmptyArgumentsToEveryExportedFunction) {
  ScopedCurrentDirectory inScratch(dir_);
  EXPECT_EQ(velfsOpenDir(nullptr), nullptr);
  EXPECT_EQ(velfsOpenDir(""), nullptr);
  velfsCloseDir(nullptr);
  bool exists = true;
  EXPECT_FALSE(velfsIsFileExist(nullptr, nullptr, &exists));
  EXPECT_FALSE(velfsIsFileExist(nullptr, "", &exists));
  EXPECT_FALSE(velfsIsDirectoryExist(nullptr, nullptr, &exists));
  EXPECT_FALSE(velfsIsDirectoryExist(nullptr, "", &exists));
  EXPECT_TRUE(exists);
  EXPECT_FALSE(velfsDeleteFile(nullptr, nullptr));
  EXPECT_FALSE(velfsDeleteFile(nullptr, ""));
  EXPECT_FALSE(velfsDeleteDirectory(nullptr, nullptr));
  EXPECT_FALSE(velfsDeleteDirectory(nullptr, ""));
  EXPECT_FALSE(velfsRenameFile(nullptr, nullptr, nullptr));
  EXPECT_FALSE(velfsRenameFile(nullptr, "", ""));
  EXPECT_FALSE(velfsCopyFile(nullptr, nullptr, nullptr, true));
  EXPECT_FALSE(velfsCopyFile(nullptr, "", "", false));
  EXPECT_FALSE(velfsMoveFile(nullptr, nullptr, nullptr, true));
  EXPECT_FALSE(velfsMoveFile(nullptr, "", "", false));
  EXPECT_FALSE(velfsBeginTrans(nullptr));
  EXPECT_FALSE(velfsCommitTrans(nullptr));
  EXPECT_EQ(velfsCreateFile(nullptr, 0), nullptr);
  EXPECT_EQ(velfsCreateFile("", 1), nullptr);
  EXPECT_EQ(velfsCreateFileIndir(nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(velfsCreateFileIndir(nullptr, "", 0), nullptr);
  EXPECT_EQ(velfsCreateEnum(nullptr), nullptr);
  EXPECT_EQ(velfsCreateEnum(""), nullptr);
  EXPECT_EQ(velfsCreateEnumIndir(nullptr, nullptr), nullptr);
  EXPECT_EQ(velfsCreateEnumIndir(nullptr, ""), nullptr);
  char byte = 'k';
  EXPECT_EQ(velfsRead(nullptr, &byte, 1), 0u);
  EXPECT_EQ(velfsRead(nullptr, nullptr, 0), 0u);
  EXPECT_EQ(velfsWrite(nullptr, &byte, 1), 0u);
  EXPECT_EQ(velfsWrite(nullptr, nullptr, 0), 0u);
  EXPECT_EQ(byte, 'k');
  EXPECT_EQ(velfsTell(nullptr), 0);
  EXPECT_EQ(velfsSeek(nullptr, 0, 2), -1);
  EXPECT_FALSE(velfsError(nullptr));
  EXPECT_FALSE(velfsResize(nullptr, 0));
  velfsCloseFile(nullptr);
  EXPECT_FALSE(velfsMoveNext(nullptr));
  velfsReset(nullptr);
  char* name = &byte;
  EXPECT_FALSE(velfsGetName(nullptr, &name));
  EXPECT_FALSE(velfsGetName(nullptr, nullptr));
  EXPECT_FALSE(velfsGetFullName(nullptr, &name));
  EXPECT_FALSE(velfsGetFullName(nullptr, nullptr));
  EXPECT_EQ(name, &byte);
  EXPECT_FALSE(velfsIsDirectory(nullptr));
  velfsCloseEnum(nullptr);
  // Nothing was created in the current directory by any of them.
  EXPECT_TRUE(std::filesystem::is_empty(dir_));
}

// Path bytes that are not UTF-8 reach a database root unchanged: the row holds exactly them.
TEST_F(CoreBadInputTest, InvalidUtf8FileNameIsStoredAsGivenInDatabase) {
  const std::string db = PathOf("store.db");
  DirHandle* dir = velfsOpenDir(db.c_str());
  ASSERT_NE(dir, nullptr);
  FileHandle* file = velfsCreateFileIndir(dir, "\xff\xfe.txt", 1);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(velfsWrite(file, "bytes", 5), 5u);
  velfsCloseFile(file);
  FileHandle* nested = velfsCreateFileIndir(dir, "d\xc3(\\\xe0\x80.bin", 1);
  ASSERT_NE(nested, nullptr);
  EXPECT_EQ(velfsWrite(nested, "n", 1), 1u);
  velfsCloseFile(nested);
  {
    SecondConnection other(db);
    std::string content;
    ASSERT_TRUE(other.ReadRow("\xff\xfe.txt", "", &content));
    EXPECT_EQ(content, "bytes");
    EXPECT_FALSE(other.ReadRow("\xEF\xBF\xBD\xEF\xBF\xBD.txt", ""));  // not replaced by U+FFFD
    ASSERT_TRUE(other.ReadRow("\xe0\x80.bin", "d\xc3(/", &content));  // only '\\' changed
    EXPECT_EQ(content, "n");
    EXPECT_EQ(other.RowCount(), 2);
  }
  bool exists = false;
  EXPECT_TRUE(velfsIsFileExist(dir, "\xff\xfe.txt", &exists));
  EXPECT_TRUE(exists);
  // The listing hands the bytes back unchanged.
  EnumHandle* listing = velfsCreateEnumIndir(dir, "");
  ASSERT_NE(listing, nullptr);
  std::set<std::string> names;
  while (velfsMoveNext(listing)) {
    char* name = nullptr;
    ASSERT_TRUE(velfsGetName(listing, &name));
    names.insert(name);
    std::free(name);
  }
  velfsCloseEnum(listing);
  EXPECT_EQ(names, (std::set<std::string>{"\xff\xfe.txt", "d\xc3(/"}));
  velfsCloseDir(dir);
}

// The same bytes through a full path: the inner path after the last ':' is kept as given.
TEST_F(CoreBadInputTest, InvalidUtf8InnerPathThroughFullPathIsStoredAsGiven) {
  const std::string db = PathOf("store.db");
  FileHandle* file = velfsCreateFile((db + ":\xff\xfe.txt").c_str(), 1);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(velfsWrite(file, "xy", 2), 2u);
  velfsCloseFile(file);
  SecondConnection other(db);
  std::string content;
  ASSERT_TRUE(other.ReadRow("\xff\xfe.txt", "", &content));
  EXPECT_EQ(content, "xy");
}

}  // namespace
}  // namespace velfs::testing
