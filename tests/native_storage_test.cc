// Part 4.1: NativeStorage, tested directly on the back-end class.
#include <algorithm>
#include <filesystem>
#include <string>

#include "native/native_storage.h"
#include "host/text_conversion.h"
#include "native_test_support.h"

namespace velfs::testing {
namespace {

class NativeStorageTest : public ScratchDirTest {
 protected:
  void SetUp() override {
    ScratchDirTest::SetUp();
    if (HasFatalFailure()) return;
    storage_ = NativeStorage::Open(PathOf().c_str());
    ASSERT_NE(storage_, nullptr);
  }
  void TearDown() override {
    storage_.reset();
    ScratchDirTest::TearDown();
  }

  static std::u16string Wide(const std::string& text) {
    std::u16string wide;
    Utf8ToWide(text.c_str(), wide);
    return wide;
  }

  std::unique_ptr<Storage> storage_;  // over the scratch directory
};

TEST_F(NativeStorageTest, P4_1_01_OpenAppendsOneTrailingSlash) {
  std::filesystem::create_directory(PathOf("d"));
  auto without = NativeStorage::Open(PathOf("d").c_str());
  ASSERT_NE(without, nullptr);
  EXPECT_EQ(static_cast<NativeStorage&>(*without).root(), Wide(PathOf("d") + "/"));

  auto with = NativeStorage::Open((PathOf("d") + "/").c_str());
  ASSERT_NE(with, nullptr);
  EXPECT_EQ(static_cast<NativeStorage&>(*with).root(), Wide(PathOf("d") + "/"));
}

TEST_F(NativeStorageTest, P4_1_02_OpenOfFileOrMissingPathIsNull) {
  WriteHostFile(PathOf("plain.txt"), "not a directory");
  EXPECT_EQ(NativeStorage::Open(PathOf("plain.txt").c_str()), nullptr);
  EXPECT_EQ(NativeStorage::Open(PathOf("missing").c_str()), nullptr);
  EXPECT_EQ(NativeStorage::Open(PathOf("missing/").c_str()), nullptr);
  // Declining leaves nothing behind: the file is as it was and nothing was created.
  EXPECT_EQ(ReadHostFile(PathOf("plain.txt")), "not a directory");
  EXPECT_FALSE(ExistsOnDisk(PathOf("missing")));
}

TEST_F(NativeStorageTest, P4_1_03_CreateFileWbCreatesTwoMissingLevels) {
  auto file = storage_->CreateFile("a/b/f.txt", 1);
  ASSERT_NE(file, nullptr);
  EXPECT_TRUE(IsDirectoryOnDisk(PathOf("a")));
  EXPECT_TRUE(IsDirectoryOnDisk(PathOf("a/b")));
  EXPECT_TRUE(std::filesystem::is_regular_file(PathOf("a/b/f.txt")));
  EXPECT_EQ(file->Write("xyz", 3), 3u);
  file.reset();
  EXPECT_EQ(ReadHostFile(PathOf("a/b/f.txt")), "xyz");
  // Only the two parent levels were created as directories; the file name never is one.
  EXPECT_EQ(SnapshotTree(PathOf()),
            (std::map<std::string, std::string>{
                {"a", "dir"}, {"a/b", "dir"}, {"a/b/f.txt", "file:xyz"}}));
}

TEST_F(NativeStorageTest, P4_1_04_CreateFileRbOrRbPlusOfMissingFileCreatesNothing) {
  EXPECT_EQ(storage_->CreateFile("x/y/missing.txt", 0), nullptr);
  EXPECT_EQ(storage_->CreateFile("x/y/missing.txt", 3), nullptr);
  EXPECT_EQ(storage_->CreateFile("missing.txt", 0), nullptr);
  EXPECT_EQ(storage_->CreateFile("missing.txt", 3), nullptr);
  EXPECT_FALSE(ExistsOnDisk(PathOf("x")));
  EXPECT_TRUE(SnapshotTree(PathOf()).empty());
}

TEST_F(NativeStorageTest, P4_1_05_CreateFileAbCreatesMissingDirectoryAndFile) {
  auto file = storage_->CreateFile("d/f.txt", 2);
  ASSERT_NE(file, nullptr);
  EXPECT_TRUE(IsDirectoryOnDisk(PathOf("d")));
  EXPECT_EQ(file->Write("abc", 3), 3u);
  file.reset();
  EXPECT_EQ(ReadHostFile(PathOf("d/f.txt")), "abc");
}

TEST_F(NativeStorageTest, P4_1_06_CreateEnumListsRootOrFailsForMissingDirectory) {
  WriteHostFile(PathOf("f.txt"), "1");
  std::filesystem::create_directory(PathOf("sub"));
  auto listing = storage_->CreateEnum("");
  ASSERT_NE(listing, nullptr);
  std::vector<Listed> entries = ListRest(*listing);
  std::sort(entries.begin(), entries.end());
  EXPECT_EQ(entries, (std::vector<Listed>{{"f.txt", "f.txt", false}, {"sub", "sub/", true}}));

  EXPECT_EQ(storage_->CreateEnum("missing/"), nullptr);
  EXPECT_EQ(storage_->CreateEnum("f.txt/"), nullptr);  // a file is no directory to list
}

TEST_F(NativeStorageTest, P4_1_07_ExistenceTestsStoreTheirAnswer) {
  std::filesystem::create_directory(PathOf("sub"));
  WriteHostFile(PathOf("f.txt"), "1");

  bool exists = true;
  EXPECT_TRUE(storage_->IsFileExist("sub", &exists));
  EXPECT_FALSE(exists);
  exists = false;
  EXPECT_TRUE(storage_->IsDirectoryExist("", &exists));
  EXPECT_TRUE(exists);

  exists = false;
  EXPECT_TRUE(storage_->IsFileExist("f.txt", &exists));
  EXPECT_TRUE(exists);
  exists = true;
  EXPECT_TRUE(storage_->IsFileExist("missing.txt", &exists));
  EXPECT_FALSE(exists);
  exists = true;
  EXPECT_TRUE(storage_->IsDirectoryExist("f.txt", &exists));
  EXPECT_FALSE(exists);
  exists = false;
  EXPECT_TRUE(storage_->IsDirectoryExist("sub", &exists));
  EXPECT_TRUE(exists);
}

TEST_F(NativeStorageTest, P4_1_08_UnsupportedOperationsChangeNothing) {
  std::filesystem::create_directories(PathOf("sub/inner"));
  WriteHostFile(PathOf("a.txt"), "alpha");
  WriteHostFile(PathOf("sub/b.txt"), "beta");
  const auto before = SnapshotTree(PathOf());

  EXPECT_FALSE(storage_->DeleteFile("a.txt"));
  EXPECT_FALSE(storage_->RenameFile("a.txt", "renamed.txt"));
  EXPECT_FALSE(storage_->CopyFile("a.txt", "copy.txt", false));
  EXPECT_FALSE(storage_->CopyFile("a.txt", "sub/b.txt", false));
  EXPECT_FALSE(storage_->MoveFile("a.txt", "moved.txt", false));
  EXPECT_FALSE(storage_->DeleteDirectory("sub"));
  EXPECT_FALSE(storage_->DeleteDirectory("sub/"));
  EXPECT_FALSE(storage_->BeginTrans());
  EXPECT_FALSE(storage_->CommitTrans());

  EXPECT_EQ(SnapshotTree(PathOf()), before);
}

}  // namespace
}  // namespace velfs::testing
