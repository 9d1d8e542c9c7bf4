// Part 5.2: ArchiveStorage over ZIP fixtures written with libzip.
#include <string>
#include <vector>

#include "archive_test_support.h"
#include "database/database_storage.h"

namespace velfs::testing::archivetest {
namespace {

class ArchiveStorageTest : public ArchiveTest {
 protected:
  // Runs an existence test with the caller's flag preset to the opposite of `expected`, so
  // that a stored answer is told apart from an unwritten one.
  static ::testing::AssertionResult FileAnswer(Storage& storage, const char* path, bool expected) {
    bool exists = !expected;
    if (!storage.IsFileExist(path, &exists)) {
      return ::testing::AssertionFailure() << "IsFileExist(" << path << ") answered false";
    }
    if (exists != expected) {
      return ::testing::AssertionFailure() << "IsFileExist(" << path << ") stored " << exists;
    }
    return ::testing::AssertionSuccess();
  }
  static ::testing::AssertionResult DirectoryAnswer(Storage& storage, const char* path,
                                                    bool expected) {
    bool exists = !expected;
    if (!storage.IsDirectoryExist(path, &exists)) {
      return ::testing::AssertionFailure() << "IsDirectoryExist(" << path << ") answered false";
    }
    if (exists != expected) {
      return ::testing::AssertionFailure() << "IsDirectoryExist(" << path << ") stored " << exists;
    }
    return ::testing::AssertionSuccess();
  }
};

TEST_F(ArchiveStorageTest, P5_2_01_ZipWithoutOrWithOtherExtensionOpens) {
  const std::vector<ZipMember> members = {Stored("readme.txt", "read me"),
                                          Deflated("docs/a.txt", "alpha alpha alpha")};
  for (const char* name : {"pack", "pack.dat", "pack.db", "pack.ZIP.bak"}) {
    SCOPED_TRACE(name);
    const std::string path = MakeZip(name, members);
    std::unique_ptr<Storage> storage = OpenArchive(path);
    ASSERT_NE(storage, nullptr);
    EXPECT_NE(dynamic_cast<ArchiveStorage*>(storage.get()), nullptr);
    EXPECT_EQ(ReadMember(*storage, "readme.txt"), "read me");
    EXPECT_EQ(ReadMember(*storage, "docs/a.txt"), "alpha alpha alpha");
    // And through the exported function, which goes through the storage selection.
    DirPtr dir(velfsOpenDir(path.c_str()));
    ASSERT_NE(dir, nullptr);
    EXPECT_NE(dynamic_cast<ArchiveStorage*>(dir->storage.get()), nullptr);
  }
}

TEST_F(ArchiveStorageTest, P5_2_02_SqliteDatabaseFileIsNotAnArchive) {
  const std::string db = PathOf("store.db");
  {
    SecondConnection maker(db);
    ASSERT_TRUE(maker.Exec("CREATE TABLE Other (x); INSERT INTO Other VALUES (1);"));
  }
  const std::string before = ReadHostFile(db);
  ASSERT_FALSE(before.empty());
  EXPECT_EQ(OpenArchive(db), nullptr);
  EXPECT_EQ(ReadHostFile(db), before);  // declining leaves the file as it was
}

TEST_F(ArchiveStorageTest, P5_2_03_EmptyFileBesideZipOpensTheZipThroughExtensionRetry) {
  MakeZip("x.zip", {Stored("inside.txt", "from x.zip"), Directory("sub/")});
  WriteHostFile(PathOf("x"), "");
  std::unique_ptr<Storage> storage = OpenArchive(PathOf("x"));
  ASSERT_NE(storage, nullptr);
  EXPECT_TRUE(FileAnswer(*storage, "inside.txt", true));
  EXPECT_TRUE(DirectoryAnswer(*storage, "sub/", true));
  EXPECT_EQ(ReadMember(*storage, "inside.txt"), "from x.zip");
  EXPECT_EQ(List(*storage, ""),
            (std::vector<Listed>{{"inside.txt", "inside.txt", false}, {"sub/", "sub/", true}}));
  // The storage selection gets there too: 'x' is a file, not a directory, and opens as archive.
  DirPtr dir(velfsOpenDir(PathOf("x").c_str()));
  ASSERT_NE(dir, nullptr);
  EXPECT_NE(dynamic_cast<ArchiveStorage*>(dir->storage.get()), nullptr);
  EXPECT_EQ(ReadHostFile(PathOf("x")), "");
}

TEST_F(ArchiveStorageTest, P5_2_04_FileExistIgnoresCaseButKeepsLeadingSlash) {
  std::unique_ptr<Storage> storage = OpenArchive(MakeZip("r.zip", {Stored("readme.txt", "text")}));
  ASSERT_NE(storage, nullptr);
  EXPECT_TRUE(FileAnswer(*storage, "README.TXT", true));
  EXPECT_TRUE(FileAnswer(*storage, "readme.txt", true));
  EXPECT_TRUE(FileAnswer(*storage, "ReadMe.Txt", true));
  EXPECT_TRUE(FileAnswer(*storage, "/readme.txt", false));
  EXPECT_TRUE(FileAnswer(*storage, "readme.txt/", false));
  EXPECT_TRUE(FileAnswer(*storage, "./readme.txt", false));
  EXPECT_TRUE(FileAnswer(*storage, "", false));
  // CreateFile follows the same names: the case-folded one opens, the leading '/' one does not.
  EXPECT_EQ(ReadMember(*storage, "README.TXT"), "text");
  EXPECT_EQ(storage->CreateFile("/readme.txt", 0), nullptr);
}

TEST_F(ArchiveStorageTest, P5_2_05_DirectoryMemberIsNoFile) {
  std::unique_ptr<Storage> storage =
      OpenArchive(MakeZip("s.zip", {Directory("sub/"), Stored("top.txt", "t")}));
  ASSERT_NE(storage, nullptr);
  EXPECT_TRUE(FileAnswer(*storage, "sub/", false));
  EXPECT_TRUE(FileAnswer(*storage, "sub", false));
  EXPECT_TRUE(DirectoryAnswer(*storage, "sub/", true));
  EXPECT_TRUE(FileAnswer(*storage, "top.txt", true));
}

TEST_F(ArchiveStorageTest, P5_2_06_DirectoryExistIgnoresCaseAndAddsSlash) {
  std::unique_ptr<Storage> storage =
      OpenArchive(MakeZip("u.zip", {Directory("SUB/"), Stored("SUB/x.txt", "x")}));
  ASSERT_NE(storage, nullptr);
  EXPECT_TRUE(DirectoryAnswer(*storage, "Sub", true));
  EXPECT_TRUE(DirectoryAnswer(*storage, "sub/", true));
  EXPECT_TRUE(DirectoryAnswer(*storage, "SUB", true));
  EXPECT_TRUE(DirectoryAnswer(*storage, "sub//", false));
  EXPECT_TRUE(DirectoryAnswer(*storage, "/sub", false));
  EXPECT_TRUE(DirectoryAnswer(*storage, "su", false));
}

TEST_F(ArchiveStorageTest, P5_2_07_ImpliedDirectoryIsListedButDoesNotExist) {
  std::unique_ptr<Storage> storage = OpenArchive(MakeZip("ab.zip", {Stored("a/b.txt", "b")}));
  ASSERT_NE(storage, nullptr);
  EXPECT_TRUE(DirectoryAnswer(*storage, "a", false));
  EXPECT_TRUE(DirectoryAnswer(*storage, "a/", false));
  EXPECT_EQ(List(*storage, ""), (std::vector<Listed>{{"a/", "a/", true}}));
  EXPECT_EQ(List(*storage, "a/"), (std::vector<Listed>{{"b.txt", "a/b.txt", false}}));
  EXPECT_TRUE(FileAnswer(*storage, "a/b.txt", true));
}

TEST_F(ArchiveStorageTest, P5_2_08_RootDirectoryExistLooksUpSlashAndStoresFalse) {
  std::unique_ptr<Storage> storage = OpenArchive(
      MakeZip("o.zip", {Stored("a.txt", "a"), Directory("d/"), Stored("d/e.txt", "e")}));
  ASSERT_NE(storage, nullptr);
  EXPECT_TRUE(DirectoryAnswer(*storage, "", false));
  EXPECT_TRUE(DirectoryAnswer(*storage, "/", false));
}

TEST_F(ArchiveStorageTest, P5_2_09_ExistenceAnswersUnchangedAfterCreateEnum) {
  std::unique_ptr<Storage> storage =
      OpenArchive(MakeZip("m.zip", {Stored("one.txt", "1"), Directory("d/"),
                                    Stored("d/two.txt", "2"), Stored("last.txt", "3")}));
  ASSERT_NE(storage, nullptr);
  struct Question {
    const char* path;
    bool directory;
    bool answer;
  };
  const std::vector<Question> questions = {{"one.txt", false, true},  {"d/two.txt", false, true},
                                           {"LAST.TXT", false, true}, {"missing", false, false},
                                           {"d", true, true},         {"D/", true, true},
                                           {"one.txt", true, false},  {"e", true, false}};
  auto ask = [&] {
    for (const Question& q : questions) {
      SCOPED_TRACE(q.path);
      EXPECT_TRUE(q.directory ? DirectoryAnswer(*storage, q.path, q.answer)
                              : FileAnswer(*storage, q.path, q.answer));
    }
  };
  // A listing first (before the index exists), then the tests; then listings that stop early
  // and run to the end, and the tests again.
  const std::vector<Listed> root = List(*storage, "");
  EXPECT_EQ(root.size(), 3u);
  ask();
  {
    std::unique_ptr<StorageEnum> partial = storage->CreateEnum("d/");
    ASSERT_NE(partial, nullptr);
    EXPECT_TRUE(partial->MoveNext());
  }
  EXPECT_EQ(List(*storage, ""), root);
  ask();
  EXPECT_EQ(List(*storage, ""), root);  // the listings rewind too
}

TEST_F(ArchiveStorageTest, P5_2_10_CreateFileIgnoresCaseAndModeAndCannotWrite) {
  std::unique_ptr<Storage> storage =
      OpenArchive(MakeZip("d.zip", {Deflated("docs/read.me", "the member's bytes")}));
  ASSERT_NE(storage, nullptr);
  const std::string before = ReadHostFile(PathOf("d.zip"));
  std::unique_ptr<StorageFile> file = storage->CreateFile("Docs/Read.me", 1);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->Write("xyz", 3), 0u);
  EXPECT_EQ(file->Tell(), 0);
  EXPECT_EQ(ReadRest(*file), "the member's bytes");
  EXPECT_EQ(file->Write("xyz", 3), 0u);
  file.reset();
  EXPECT_EQ(ReadHostFile(PathOf("d.zip")), before);
  EXPECT_EQ(ReadMember(*storage, "docs/read.me"), "the member's bytes");
}

TEST_F(ArchiveStorageTest, P5_2_11_NamesDifferingInCaseOpenTheFirstInCentralOrder) {
  {
    std::unique_ptr<Storage> storage = OpenArchive(
        MakeZip("upper-first.zip", {Stored("A.txt", "upper"), Stored("a.txt", "lower")}));
    ASSERT_NE(storage, nullptr);
    EXPECT_EQ(ReadMember(*storage, "a.TXT"), "upper");
    EXPECT_EQ(ReadMember(*storage, "a.txt"), "upper");
    EXPECT_TRUE(FileAnswer(*storage, "A.TXT", true));
    EXPECT_TRUE(FileAnswer(*storage, "a.txt", true));
  }
  {
    std::unique_ptr<Storage> storage = OpenArchive(
        MakeZip("lower-first.zip", {Deflated("a.txt", "lower"), Deflated("A.txt", "upper")}));
    ASSERT_NE(storage, nullptr);
    EXPECT_EQ(ReadMember(*storage, "a.TXT"), "lower");
    EXPECT_EQ(ReadMember(*storage, "A.txt"), "lower");
    EXPECT_TRUE(FileAnswer(*storage, "A.TXT", true));
    EXPECT_TRUE(FileAnswer(*storage, "a.txt", true));
    // The listing shows both (the prefix match and the listing are case-sensitive).
    EXPECT_EQ(List(*storage, ""),
              (std::vector<Listed>{{"a.txt", "a.txt", false}, {"A.txt", "A.txt", false}}));
  }
}

TEST_F(ArchiveStorageTest, P5_2_12_CreateFileOfDirectoryMemberOpensEmptyStream) {
  std::unique_ptr<Storage> storage =
      OpenArchive(MakeZip("sd.zip", {Directory("sub/"), Stored("sub/f.txt", "f")}));
  ASSERT_NE(storage, nullptr);
  std::unique_ptr<StorageFile> file = storage->CreateFile("sub/", 0);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->Tell(), 0);
  EXPECT_EQ(file->Error(), 1);  // at its end from the start: length 0
  char buffer[8];
  EXPECT_EQ(file->Read(buffer, sizeof buffer), 0u);
  EXPECT_EQ(file->Seek(0, 2), 0);
  file.reset();
  std::unique_ptr<StorageFile> folded = storage->CreateFile("SUB/", 0);
  ASSERT_NE(folded, nullptr);
  EXPECT_EQ(folded->Seek(0, 2), 0);
  // 'sub' without its '/' names no member.
  EXPECT_EQ(storage->CreateFile("sub", 0), nullptr);
}

TEST_F(ArchiveStorageTest, P5_2_13_BackslashMemberIsNeitherFoundNorOpened) {
  const std::string path = MakeZip("bs.zip", {Stored("docs\\a.txt", "backslash member")});
  std::unique_ptr<Storage> storage = OpenArchive(path);
  ASSERT_NE(storage, nullptr);
  EXPECT_TRUE(FileAnswer(*storage, "docs/a.txt", false));
  EXPECT_TRUE(FileAnswer(*storage, "DOCS/A.TXT", false));
  EXPECT_TRUE(DirectoryAnswer(*storage, "docs", false));
  EXPECT_EQ(storage->CreateFile("docs/a.txt", 0), nullptr);
  EXPECT_EQ(storage->CreateFile("Docs/A.txt", 0), nullptr);
  EXPECT_EQ(List(*storage, ""), (std::vector<Listed>{{"docs\\a.txt", "docs\\a.txt", false}}));
  EXPECT_EQ(List(*storage, "docs/"), std::vector<Listed>{});

  // Through the exported functions, which turn the caller's backslash into '/'.
  DirPtr dir(velfsOpenDir(path.c_str()));
  ASSERT_NE(dir, nullptr);
  bool exists = true;
  EXPECT_TRUE(velfsIsFileExist(dir.get(), "docs\\a.txt", &exists));
  EXPECT_FALSE(exists);
  EXPECT_EQ(FilePtr(velfsCreateFileIndir(dir.get(), "docs\\a.txt", 0)), nullptr);
  EXPECT_EQ(FilePtr(velfsCreateFile((path + ":docs\\a.txt").c_str(), 0)), nullptr);
  EXPECT_EQ(FilePtr(velfsCreateFile((path + ":docs/a.txt").c_str(), 0)), nullptr);
}

TEST_F(ArchiveStorageTest, P5_2_14_ChangingOperationsReturnFalseAndChangeNothing) {
  const std::string path =
      MakeZip("ro.zip", {Stored("a.txt", "A"), Directory("d/"), Deflated("d/b.txt", "B")});
  const std::string before = ReadHostFile(path);
  std::unique_ptr<Storage> storage = OpenArchive(path);
  ASSERT_NE(storage, nullptr);
  EXPECT_FALSE(storage->DeleteFile("a.txt"));
  EXPECT_FALSE(storage->RenameFile("a.txt", "c.txt"));
  EXPECT_FALSE(storage->CopyFile("a.txt", "c.txt", false));
  EXPECT_FALSE(storage->CopyFile("a.txt", "c.txt", true));
  EXPECT_FALSE(storage->MoveFile("d/b.txt", "e.txt", false));
  EXPECT_FALSE(storage->DeleteDirectory("d/"));
  EXPECT_FALSE(storage->BeginTrans());
  EXPECT_FALSE(storage->CommitTrans());
  EXPECT_TRUE(FileAnswer(*storage, "a.txt", true));
  EXPECT_TRUE(FileAnswer(*storage, "d/b.txt", true));
  EXPECT_TRUE(FileAnswer(*storage, "c.txt", false));
  EXPECT_TRUE(FileAnswer(*storage, "e.txt", false));
  EXPECT_TRUE(DirectoryAnswer(*storage, "d/", true));
  EXPECT_EQ(ReadMember(*storage, "a.txt"), "A");
  EXPECT_EQ(ReadMember(*storage, "d/b.txt"), "B");
  storage.reset();
  EXPECT_EQ(ReadHostFile(path), before);
}

TEST_F(ArchiveStorageTest, P5_2_15_FileOutlivesItsStorageAndUnmapsWhenClosed) {
  const std::string content = PseudoRandomBytes(200000, 15, 40);
  const std::string path =
      MakeZip("life.zip", {Stored("first.txt", "x"), Deflated("big.bin", content)});
  ASSERT_EQ(MappingsOf(path), 0);
  std::unique_ptr<Storage> storage = OpenArchive(path);
  ASSERT_NE(storage, nullptr);
  EXPECT_GE(MappingsOf(path), 1);
  EXPECT_EQ(DescriptorsOn(path), 0);  // the descriptor is closed once the file is mapped
  std::unique_ptr<StorageFile> file = storage->CreateFile("big.bin", 0);
  ASSERT_NE(file, nullptr);
  char head[1000];
  ASSERT_EQ(file->Read(head, sizeof head), sizeof head);

  storage.reset();  // zziplib keeps the archive for the open member stream
  EXPECT_GE(MappingsOf(path), 1);
  std::string rest = ReadRest(*file, 777);
  EXPECT_EQ(std::string(head, sizeof head) + rest, content);
  EXPECT_EQ(file->Error(), 1);
  EXPECT_EQ(file->Seek(5, 0), 5);  // backward: re-inflated from the start, still works
  char five[5];
  ASSERT_EQ(file->Read(five, 5), 5u);
  EXPECT_EQ(std::string(five, 5), content.substr(5, 5));

  file.reset();  // the last stream: the archive is closed and unmapped
  EXPECT_EQ(MappingsOf(path), 0);
  EXPECT_EQ(DescriptorsOn(path), 0);
}

// Part 5.2, failure handling: root paths that name no file, or a directory, are declined
// before zziplib is asked; existence tests with a null path answer false and write nothing.
TEST_F(ArchiveStorageTest, DeclinedRootsAndNullPaths) {
  const std::string path = MakeZip("pack.zip", {Stored("sub/a.txt", "a")});
  EXPECT_EQ(OpenArchive(PathOf("")), nullptr);  // the scratch directory
  EXPECT_EQ(OpenArchive(PathOf("missing.zip")), nullptr);
  EXPECT_EQ(OpenArchive(path + "/sub"), nullptr);
  EXPECT_EQ(OpenArchive(path + "/sub/a.txt"), nullptr);
  WriteHostFile(PathOf("text.txt"), "plain text, no archive at all");
  EXPECT_EQ(OpenArchive(PathOf("text.txt")), nullptr);
  EXPECT_EQ(MappingsOf(path), 0);
  EXPECT_EQ(MappingsOf(PathOf("text.txt")), 0);

  std::unique_ptr<Storage> storage = OpenArchive(path);
  ASSERT_NE(storage, nullptr);
  bool exists = true;
  EXPECT_FALSE(storage->IsFileExist(nullptr, &exists));
  EXPECT_TRUE(exists);  // not written
  exists = false;
  EXPECT_FALSE(storage->IsDirectoryExist(nullptr, &exists));
  EXPECT_FALSE(exists);
  exists = true;
  EXPECT_FALSE(storage->IsDirectoryExist(nullptr, &exists));
  EXPECT_TRUE(exists);
}

// Issue 5: no mapping and no descriptor stay behind a storage closed with no member open, nor
// behind a storage closed before several open members.
TEST_F(ArchiveStorageTest, StorageWithoutOpenMembersUnmapsAtOnce) {
  const std::string path = MakeZip("plain.zip", {Stored("a.txt", "a"), Stored("b.txt", "b")});
  std::unique_ptr<Storage> storage = OpenArchive(path);
  ASSERT_NE(storage, nullptr);
  EXPECT_EQ(ReadMember(*storage, "a.txt"), "a");  // opened and closed again
  EXPECT_EQ(List(*storage, "").size(), 2u);
  EXPECT_GE(MappingsOf(path), 1);
  std::unique_ptr<StorageFile> first = storage->CreateFile("a.txt", 0);
  std::unique_ptr<StorageFile> second = storage->CreateFile("b.txt", 0);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  storage.reset();
  first.reset();
  EXPECT_GE(MappingsOf(path), 1);  // 'b.txt' still holds the archive
  EXPECT_EQ(ReadRest(*second), "b");
  second.reset();
  EXPECT_EQ(MappingsOf(path), 0);
  EXPECT_EQ(DescriptorsOn(path), 0);

  std::unique_ptr<Storage> again = OpenArchive(path);
  ASSERT_NE(again, nullptr);
  again.reset();
  EXPECT_EQ(MappingsOf(path), 0);
}

}  // namespace
}  // namespace velfs::testing::archivetest
