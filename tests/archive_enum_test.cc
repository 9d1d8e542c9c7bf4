// Part 5.4: ArchiveEnum over the Part's example archive, whose central directory holds, in this
// order, 'a/b/c.txt', 'a/d.txt', 'e.txt', 'a/' and 'A/f.txt'. Cases that need another member
// ('apple.txt', a backslash name) use archives of their own, so that the example's expected
// listings stay exactly those of the Part.
#include "archive/archive_enum.h"

#include <string>
#include <vector>

#include "archive_test_support.h"

namespace velfs::testing::archivetest {
namespace {

std::vector<ZipMember> ExampleMembers() {
  return {Stored("a/b/c.txt", "c"), Deflated("a/d.txt", "d d d d"), Stored("e.txt", "e"),
          Directory("a/"), Stored("A/f.txt", "f")};
}

class ArchiveEnumTest : public ArchiveTest {
 protected:
  void SetUp() override {
    ArchiveTest::SetUp();
    path_ = MakeZip("example.zip", ExampleMembers());
    const std::vector<ZipEntryInfo> central = ReadCentralDirectory(path_);
    std::vector<std::string> names;
    for (const ZipEntryInfo& entry : central) names.push_back(entry.name);
    ASSERT_EQ(names, (std::vector<std::string>{"a/b/c.txt", "a/d.txt", "e.txt", "a/", "A/f.txt"}));
    storage_ = OpenArchive(path_);
    ASSERT_NE(storage_, nullptr);
  }
  void TearDown() override {
    storage_.reset();
    ArchiveTest::TearDown();
  }
  std::unique_ptr<StorageEnum> Enum(const char* path) {
    std::unique_ptr<StorageEnum> listing = storage_->CreateEnum(path);
    EXPECT_NE(listing, nullptr) << path;
    return listing;
  }

  std::string path_;
  std::unique_ptr<Storage> storage_;
};

TEST_F(ArchiveEnumTest, P5_4_01_RootListingInCentralDirectoryOrder) {
  EXPECT_EQ(
      List(*storage_, ""),
      (std::vector<Listed>{{"a/", "a/", true}, {"e.txt", "e.txt", false}, {"A/", "A/", true}}));
  // The same through the exported functions.
  DirPtr dir(velfsOpenDir(path_.c_str()));
  ASSERT_NE(dir, nullptr);
  EnumPtr listing(velfsCreateEnumIndir(dir.get(), ""));
  ASSERT_NE(listing, nullptr);
  EXPECT_EQ(
      ListRest(listing.get()),
      (std::vector<Listed>{{"a/", "a/", true}, {"e.txt", "e.txt", false}, {"A/", "A/", true}}));
}

TEST_F(ArchiveEnumTest, P5_4_02_ListingOfLowerA) {
  EXPECT_EQ(List(*storage_, "a/"),
            (std::vector<Listed>{{"b/", "a/b/", true}, {"d.txt", "a/d.txt", false}}));
}

TEST_F(ArchiveEnumTest, P5_4_03_ListingOfUpperA) {
  EXPECT_EQ(List(*storage_, "A/"), (std::vector<Listed>{{"f.txt", "A/f.txt", false}}));
}

TEST_F(ArchiveEnumTest, P5_4_04_PrefixWithoutSlashMatchesRawBytes) {
  EXPECT_EQ(List(*storage_, "a"), (std::vector<Listed>{{"/", "a/", true}}));

  std::vector<ZipMember> members = ExampleMembers();
  members.push_back(Stored("apple.txt", "apple"));
  std::unique_ptr<Storage> withApple = OpenArchive(MakeZip("apple.zip", members));
  ASSERT_NE(withApple, nullptr);
  EXPECT_EQ(List(*withApple, "a"),
            (std::vector<Listed>{{"/", "a/", true}, {"pple.txt", "apple.txt", false}}));
  EXPECT_EQ(List(*withApple, ""), (std::vector<Listed>{{"a/", "a/", true},
                                                       {"e.txt", "e.txt", false},
                                                       {"A/", "A/", true},
                                                       {"apple.txt", "apple.txt", false}}));
}

TEST_F(ArchiveEnumTest, P5_4_05_NamesAndFullNamesInLowerA) {
  std::unique_ptr<StorageEnum> listing = Enum("a/");
  ASSERT_NE(listing, nullptr);
  char* text = nullptr;
  ASSERT_TRUE(listing->MoveNext());
  ASSERT_TRUE(listing->GetName(&text));
  EXPECT_EQ(TakeText(text), "b/");
  ASSERT_TRUE(listing->GetFullName(&text));
  EXPECT_EQ(TakeText(text), "a/b/");
  EXPECT_TRUE(listing->IsDirectory());
  ASSERT_TRUE(listing->MoveNext());
  ASSERT_TRUE(listing->GetName(&text));
  EXPECT_EQ(TakeText(text), "d.txt");
  ASSERT_TRUE(listing->GetFullName(&text));
  EXPECT_EQ(TakeText(text), "a/d.txt");
  EXPECT_FALSE(listing->IsDirectory());
  EXPECT_FALSE(listing->MoveNext());
}

TEST_F(ArchiveEnumTest, P5_4_06_BeforeFirstMoveNextStandsOnEmptyPlaceholder) {
  for (const char* path : {"", "a/", "z/"}) {
    SCOPED_TRACE(path);
    std::unique_ptr<StorageEnum> listing = Enum(path);
    ASSERT_NE(listing, nullptr);
    char* text = nullptr;
    ASSERT_TRUE(listing->GetName(&text));
    EXPECT_EQ(TakeText(text), "");
    text = nullptr;
    ASSERT_TRUE(listing->GetFullName(&text));
    EXPECT_EQ(TakeText(text), path);  // the listed directory's path (Part 1.1)
    EXPECT_FALSE(listing->IsDirectory());
  }
}

TEST_F(ArchiveEnumTest, P5_4_07_ListingMatchingNothingIsEmpty) {
  std::unique_ptr<StorageEnum> listing = Enum("z/");
  ASSERT_NE(listing, nullptr);
  EXPECT_FALSE(listing->MoveNext());
  char* text = reinterpret_cast<char*>(0x1);  // must stay untouched
  EXPECT_FALSE(listing->GetName(&text));
  EXPECT_EQ(text, reinterpret_cast<char*>(0x1));
  EXPECT_FALSE(listing->GetFullName(&text));
  EXPECT_EQ(text, reinterpret_cast<char*>(0x1));
  EXPECT_FALSE(listing->IsDirectory());
  EXPECT_FALSE(listing->MoveNext());
  EXPECT_FALSE(listing->MoveNext());
}

TEST_F(ArchiveEnumTest, P5_4_08_ResetAfterLastChildStandsOnFirstAgain) {
  std::unique_ptr<StorageEnum> listing = Enum("");
  ASSERT_NE(listing, nullptr);
  const std::vector<Listed> first = ListRest(*listing);
  ASSERT_EQ(first.size(), 3u);
  EXPECT_FALSE(listing->MoveNext());
  listing->Reset();
  ASSERT_TRUE(listing->MoveNext());
  char* text = nullptr;
  ASSERT_TRUE(listing->GetName(&text));
  EXPECT_EQ(TakeText(text), "a/");
  EXPECT_TRUE(listing->IsDirectory());
  EXPECT_EQ(ListRest(*listing), (std::vector<Listed>(first.begin() + 1, first.end())));
  // Reset before the end too, and right after creation.
  listing->Reset();
  EXPECT_EQ(ListRest(*listing), first);
}

TEST_F(ArchiveEnumTest, P5_4_09_GetNameWithNullOutReturnsFalse) {
  std::unique_ptr<StorageEnum> listing = Enum("");
  ASSERT_NE(listing, nullptr);
  EXPECT_FALSE(listing->GetName(nullptr));  // before the first entry
  EXPECT_FALSE(listing->GetFullName(nullptr));
  ASSERT_TRUE(listing->MoveNext());
  EXPECT_FALSE(listing->GetName(nullptr));  // on an entry
  EXPECT_FALSE(listing->GetFullName(nullptr));
  // Nothing was allocated and nothing moved: the entry still answers.
  char* text = nullptr;
  ASSERT_TRUE(listing->GetName(&text));
  EXPECT_EQ(TakeText(text), "a/");
  // Through the exported function as well.
  DirPtr dir(velfsOpenDir(path_.c_str()));
  ASSERT_NE(dir, nullptr);
  EnumPtr handle(velfsCreateEnumIndir(dir.get(), ""));
  ASSERT_NE(handle, nullptr);
  ASSERT_TRUE(velfsMoveNext(handle.get()));
  EXPECT_FALSE(velfsGetName(handle.get(), nullptr));
}

TEST_F(ArchiveEnumTest, P5_4_10_BackslashMemberIsOneFileOfTheRoot) {
  std::unique_ptr<Storage> storage =
      OpenArchive(MakeZip("backslash.zip", {Stored("docs\\a.txt", "bs"), Stored("docs/b.txt", "b"),
                                            Stored("e.txt", "e")}));
  ASSERT_NE(storage, nullptr);
  EXPECT_EQ(List(*storage, ""), (std::vector<Listed>{{"docs\\a.txt", "docs\\a.txt", false},
                                                     {"docs/", "docs/", true},
                                                     {"e.txt", "e.txt", false}}));
  EXPECT_EQ(List(*storage, "docs/"), (std::vector<Listed>{{"b.txt", "docs/b.txt", false}}));
  // A prefix ending in the backslash is no directory path (paths reach storages with '/'
  // only); the raw byte match of Part 5.4 would list the rest as a file.
  std::unique_ptr<Storage> only = OpenArchive(MakeZip("only.zip", {Stored("docs\\a.txt", "bs")}));
  ASSERT_NE(only, nullptr);
  EXPECT_EQ(List(*only, ""), (std::vector<Listed>{{"docs\\a.txt", "docs\\a.txt", false}}));
  EXPECT_EQ(List(*only, "docs/"), std::vector<Listed>{});
}

// Part 5.4: a built listing never touches the archive again and stays valid after its storage
// is gone; file children are not deduplicated while directories are listed once.
TEST_F(ArchiveEnumTest, ListingOutlivesItsStorage) {
  std::unique_ptr<StorageEnum> listing = Enum("a/");
  ASSERT_NE(listing, nullptr);
  storage_.reset();
  EXPECT_EQ(MappingsOf(path_), 0);
  EXPECT_EQ(ListRest(*listing),
            (std::vector<Listed>{{"b/", "a/b/", true}, {"d.txt", "a/d.txt", false}}));
  listing->Reset();
  EXPECT_EQ(ListRest(*listing).size(), 2u);
}

}  // namespace
}  // namespace velfs::testing::archivetest
