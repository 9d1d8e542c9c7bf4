// Parts 1.1–1.4 where they need a native root: the exported directory, file and listing
// functions and the storage selection over real host directories.
#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "core/handle_records.h"
#include "core/storage_selection.h"
#include "native/native_file.h"
#include "native/native_storage.h"
#include "host/text_conversion.h"
#include "native_test_support.h"

namespace velfs::testing {
namespace {

using NativeApiTest = ScratchDirTest;

std::string WithBackslashes(std::string path) {
  std::replace(path.begin(), path.end(), '/', '\\');
  return path;
}

std::string Utf8(const std::u16string& wide) {
  std::string narrow;
  WideToUtf8(wide.c_str(), narrow);
  return narrow;
}

TEST_F(NativeApiTest, P1_1_06_NativeRootBeginTransReturnsFalse) {
  WriteHostFile(PathOf("a.txt"), "alpha");
  const auto before = SnapshotTree(PathOf());
  DirPtr dir(velfsOpenDir(PathOf().c_str()));
  ASSERT_NE(dir, nullptr);
  EXPECT_FALSE(velfsBeginTrans(dir.get()));
  // No transaction was opened: a write goes straight to the file, and CommitTrans has nothing.
  {
    FilePtr file(velfsCreateFileIndir(dir.get(), "a.txt", 1));
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(velfsWrite(file.get(), "beta", 4), 4u);
  }
  EXPECT_EQ(ReadHostFile(PathOf("a.txt")), "beta");
  EXPECT_FALSE(velfsCommitTrans(dir.get()));
  dir.reset();
  auto after = SnapshotTree(PathOf());
  after["a.txt"] = before.at("a.txt");  // the one change is the write above
  EXPECT_EQ(after, before);              // BeginTrans created no journal or other file
}

TEST_F(NativeApiTest, P1_2_02_BackslashRootOpensNativeWithSlashRootPath) {
  std::filesystem::create_directories(PathOf("one/two"));
  const std::string slashed = PathOf("one/two");
  const std::string backslashed = WithBackslashes(slashed);
  ASSERT_NE(backslashed, slashed);
  DirPtr dir(velfsOpenDir(backslashed.c_str()));
  ASSERT_NE(dir, nullptr);
  EXPECT_EQ(dir->rootPath, slashed);
  auto* native = dynamic_cast<NativeStorage*>(dir->storage.get());
  ASSERT_NE(native, nullptr);
  EXPECT_EQ(Utf8(native->root()), slashed + "/");
  // With a trailing backslash the same text ends in '/'.
  DirPtr trailing(velfsOpenDir((backslashed + "\\").c_str()));
  ASSERT_NE(trailing, nullptr);
  EXPECT_EQ(trailing->rootPath, slashed + "/");
  EXPECT_NE(dynamic_cast<NativeStorage*>(trailing->storage.get()), nullptr);
}

TEST_F(NativeApiTest, P1_2_07_NativeRootRefusesChanges) {
  std::filesystem::create_directories(PathOf("sub/inner"));
  WriteHostFile(PathOf("a.txt"), "alpha");
  WriteHostFile(PathOf("sub/b.txt"), "beta");
  const auto before = SnapshotTree(PathOf());
  DirPtr dir(velfsOpenDir(PathOf().c_str()));
  ASSERT_NE(dir, nullptr);

  EXPECT_FALSE(velfsDeleteFile(dir.get(), "a.txt"));
  EXPECT_FALSE(velfsDeleteFile(dir.get(), "sub\\b.txt"));
  EXPECT_FALSE(velfsRenameFile(dir.get(), "a.txt", "renamed.txt"));
  EXPECT_FALSE(velfsCopyFile(dir.get(), "a.txt", "copy.txt", false));
  EXPECT_FALSE(velfsCopyFile(dir.get(), "a.txt", "sub/b.txt", false));
  EXPECT_FALSE(velfsMoveFile(dir.get(), "a.txt", "moved.txt", false));
  EXPECT_FALSE(velfsMoveFile(dir.get(), "a.txt", "sub/b.txt", true));
  EXPECT_FALSE(velfsDeleteDirectory(dir.get(), "sub"));
  EXPECT_FALSE(velfsDeleteDirectory(dir.get(), "sub/inner/"));
  EXPECT_FALSE(velfsBeginTrans(dir.get()));
  EXPECT_FALSE(velfsCommitTrans(dir.get()));

  EXPECT_EQ(SnapshotTree(PathOf()), before);
  // The handle is still usable after the refusals.
  bool exists = false;
  EXPECT_TRUE(velfsIsFileExist(dir.get(), "a.txt", &exists));
  EXPECT_TRUE(exists);
}

TEST_F(NativeApiTest, P1_3_01_DirectoryNamedLikeArchiveOrDatabaseIsNative) {
  for (const char* name : {"x.zip", "y.db"}) {
    SCOPED_TRACE(name);
    std::filesystem::create_directory(PathOf(name));
    auto storage = OpenStorage(PathOf(name).c_str());
    ASSERT_NE(storage, nullptr);
    EXPECT_NE(dynamic_cast<NativeStorage*>(storage.get()), nullptr);
    auto colon = OpenStorage((PathOf(name) + ":").c_str());  // one trailing ':' is dropped
    ASSERT_NE(colon, nullptr);
    EXPECT_NE(dynamic_cast<NativeStorage*>(colon.get()), nullptr);
    DirPtr dir(velfsOpenDir(PathOf(name).c_str()));
    ASSERT_NE(dir, nullptr);
    EXPECT_NE(dynamic_cast<NativeStorage*>(dir->storage.get()), nullptr);
    // Nothing was created inside or beside it (no database file, no journal).
    EXPECT_TRUE(IsDirectoryOnDisk(PathOf(name)));
    EXPECT_TRUE(std::filesystem::is_empty(PathOf(name)));
  }
  EXPECT_EQ(SnapshotTree(PathOf()),
            (std::map<std::string, std::string>{{"x.zip", "dir"}, {"y.db", "dir"}}));
}

TEST_F(NativeApiTest, P1_4_01_CreateFileOfHostFileCutsAtLastSlash) {
  std::filesystem::create_directory(PathOf("data"));
  WriteHostFile(PathOf("data/readme.txt"), "read me");
  FilePtr file(velfsCreateFile(PathOf("data/readme.txt").c_str(), 0));
  ASSERT_NE(file, nullptr);
  ObjectHandle* record = Record(file.get());
  EXPECT_TRUE(record->ownsDir);
  ASSERT_NE(record->dir, nullptr);
  EXPECT_EQ(record->dir->rootPath, PathOf("data") + "/");
  auto* native = dynamic_cast<NativeStorage*>(record->dir->storage.get());
  ASSERT_NE(native, nullptr);
  EXPECT_EQ(Utf8(native->root()), PathOf("data") + "/");
  EXPECT_NE(dynamic_cast<NativeFile*>(&record->file()), nullptr);
  char buffer[32] = {};
  EXPECT_EQ(velfsRead(file.get(), buffer, sizeof buffer), 7u);
  EXPECT_EQ(std::string(buffer, 7), "read me");
  // The same full path written with backslashes is the same file.
  FilePtr again(velfsCreateFile(WithBackslashes(PathOf("data/readme.txt")).c_str(), 0));
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(Record(again.get())->dir->rootPath, PathOf("data") + "/");
  EXPECT_EQ(velfsRead(again.get(), buffer, sizeof buffer), 7u);
}

TEST_F(NativeApiTest, P1_4_05_CreateFileOfDirectoryWithTrailingSlashIsNull) {
  std::filesystem::create_directory(PathOf("d"));
  const auto before = SnapshotTree(PathOf());
  for (uint32_t mode = 0; mode <= 5; ++mode) {
    SCOPED_TRACE(mode);
    EXPECT_EQ(FilePtr(velfsCreateFile((PathOf("d") + "/").c_str(), mode)), nullptr);
  }
  EXPECT_EQ(SnapshotTree(PathOf()), before);  // the writing modes created nothing either
}

TEST_F(NativeApiTest, P1_4_06_CreateEnumWithAndWithoutTrailingSlash) {
  std::filesystem::create_directory(PathOf("sub"));
  WriteHostFile(PathOf("sub/f.txt"), "f");
  WriteHostFile(PathOf("subway.txt"), "s");
  WriteHostFile(PathOf("other.txt"), "o");
  {  // trailing '/': the directory itself is the root, listed with the empty relative path
    EnumPtr listing(velfsCreateEnum((PathOf("sub") + "/").c_str()));
    ASSERT_NE(listing, nullptr);
    EXPECT_EQ(Record(listing.get())->dir->rootPath, PathOf("sub") + "/");
    EXPECT_EQ(ListRest(listing.get()), (std::vector<Listed>{{"f.txt", "f.txt", false}}));
  }
  {  // without it: root is the parent, the relative path "sub" (no '/'), and the pattern
     // "sub*.*" matches the parent's entries whose names begin with "sub" (Part 4.3, left to
     // the implementer): the full names are plain concatenations.
    EnumPtr listing(velfsCreateEnum(PathOf("sub").c_str()));
    ASSERT_NE(listing, nullptr);
    EXPECT_EQ(Record(listing.get())->dir->rootPath, PathOf() + "/");
    std::vector<Listed> entries = ListRest(listing.get());
    std::sort(entries.begin(), entries.end());
    EXPECT_EQ(entries, (std::vector<Listed>{{"sub", "subsub/", true},
                                            {"subway.txt", "subsubway.txt", false}}));
  }
}

// ---- From the issue. ----

TEST_F(NativeApiTest, NativeExistenceTestsThroughTheApi) {
  std::filesystem::create_directories(PathOf("d/e"));
  WriteHostFile(PathOf("d/f.txt"), "f");
  DirPtr dir(velfsOpenDir(PathOf().c_str()));
  ASSERT_NE(dir, nullptr);
  struct Case {
    const char* path;
    bool isFile;
    bool isDirectory;
  };
  for (const Case& c : {Case{"d/f.txt", true, false}, Case{"d\\f.txt", true, false},
                        Case{"d", false, true}, Case{"d/", false, true}, Case{"d\\e", false, true},
                        Case{"", false, true}, Case{"missing", false, false},
                        Case{"d/missing.txt", false, false}}) {
    SCOPED_TRACE(c.path);
    bool exists = !c.isFile;
    EXPECT_TRUE(velfsIsFileExist(dir.get(), c.path, &exists));
    EXPECT_EQ(exists, c.isFile);
    exists = !c.isDirectory;
    EXPECT_TRUE(velfsIsDirectoryExist(dir.get(), c.path, &exists));
    EXPECT_EQ(exists, c.isDirectory);
  }
  bool exists = true;
  EXPECT_FALSE(velfsIsFileExist(dir.get(), nullptr, &exists));
  EXPECT_TRUE(exists);  // untouched
}

TEST_F(NativeApiTest, NativeNoDescriptorLeftOpenAfterClosingEverything) {
  std::filesystem::create_directories(PathOf("root/sub"));
  WriteHostFile(PathOf("root/a.txt"), "alpha");
  WriteHostFile(PathOf("root/sub/b.txt"), "beta");
  const int before = OpenDescriptorCount();
  {
    DirPtr native(velfsOpenDir(PathOf("root").c_str()));
    ASSERT_NE(native, nullptr);
    DirPtr database(velfsOpenDir(PathOf("store.db").c_str()));
    ASSERT_NE(database, nullptr);
    FilePtr read(velfsCreateFileIndir(native.get(), "a.txt", 0));
    FilePtr write(velfsCreateFileIndir(native.get(), "new/c.txt", 4));
    FilePtr full(velfsCreateFile(PathOf("root/sub/b.txt").c_str(), 3));
    FilePtr dbFile(velfsCreateFileIndir(database.get(), "docs/x.txt", 1));
    ASSERT_TRUE(read && write && full && dbFile);
    EXPECT_EQ(velfsWrite(write.get(), "c", 1), 1u);
    EXPECT_EQ(velfsWrite(dbFile.get(), "x", 1), 1u);
    EnumPtr rootList(velfsCreateEnumIndir(native.get(), ""));
    EnumPtr subList(velfsCreateEnumIndir(native.get(), "sub/"));
    EnumPtr fullList(velfsCreateEnum((PathOf("root") + "/").c_str()));
    EnumPtr dbList(velfsCreateEnumIndir(database.get(), ""));
    ASSERT_TRUE(rootList && subList && fullList && dbList);
    // Searches in every state: exhausted, in the middle, reset after a step.
    ListRest(rootList.get());
    EXPECT_TRUE(velfsMoveNext(subList.get()));
    EXPECT_TRUE(velfsMoveNext(fullList.get()));
    velfsReset(fullList.get());
    EXPECT_TRUE(velfsMoveNext(fullList.get()));
    EXPECT_TRUE(velfsMoveNext(dbList.get()));
    EXPECT_GT(OpenDescriptorCount(), before);
    // Failed attempts in the middle leave nothing open either.
    EXPECT_EQ(FilePtr(velfsCreateFileIndir(native.get(), "missing/x.txt", 0)), nullptr);
    EXPECT_EQ(EnumPtr(velfsCreateEnumIndir(native.get(), "missing/")), nullptr);
    EXPECT_EQ(FilePtr(velfsCreateFile((PathOf("root") + "/").c_str(), 1)), nullptr);
  }  // handles close first, the two roots last
  EXPECT_EQ(OpenDescriptorCount(), before);
}

}  // namespace
}  // namespace velfs::testing
