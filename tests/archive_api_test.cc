// The archive halves of Parts 1.1 to 1.4 and 2.1 (an archive root reached through the exported
// functions, the storage selection and a mount), and the archive lifecycle of Part 5.2 through
// the exported functions: no mapping and no descriptor stay behind once every handle is closed.
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "archive_test_support.h"
#include "core/storage_selection.h"
#include "database/database_storage.h"

namespace velfs::testing::archivetest {
namespace {

class ArchiveApiTest : public ArchiveTest {
 protected:
  void SetUp() override {
    ArchiveTest::SetUp();
    zip_ = MakeZip("pack.zip",
                   {Directory("docs/"), Stored("docs/a.txt", "alpha bytes"),
                    Deflated("docs/b.txt", "beta beta beta beta"), Stored("top.txt", "top")});
    before_ = ReadHostFile(zip_);
  }
  static bool IsArchive(Storage* storage) {
    return dynamic_cast<ArchiveStorage*>(storage) != nullptr;
  }

  std::string zip_;
  std::string before_;
};

TEST_F(ArchiveApiTest, P1_1_06_ArchiveRootRefusesBeginTransAndWrite) {
  DirPtr dir(velfsOpenDir(zip_.c_str()));
  ASSERT_NE(dir, nullptr);
  EXPECT_FALSE(velfsBeginTrans(dir.get()));
  EXPECT_FALSE(velfsCommitTrans(dir.get()));
  {
    FilePtr file(velfsCreateFileIndir(dir.get(), "docs/a.txt", 1));
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(velfsWrite(file.get(), "overwrite", 9), 0u);
    EXPECT_FALSE(velfsResize(file.get(), 0));
    EXPECT_EQ(velfsTell(file.get()), 0);
    EXPECT_EQ(ReadRest(file.get()), "alpha bytes");
  }
  EXPECT_EQ(ReadHostFile(zip_), before_);
}

TEST_F(ArchiveApiTest, P1_1_07_ArchiveIsFileExistStoresFalse) {
  DirPtr dir(velfsOpenDir(zip_.c_str()));
  ASSERT_NE(dir, nullptr);
  bool exists = true;
  EXPECT_TRUE(velfsIsFileExist(dir.get(), "docs/missing.txt", &exists));
  EXPECT_FALSE(exists);
  exists = true;
  EXPECT_TRUE(velfsIsFileExist(dir.get(), "docs", &exists));  // a directory is no file
  EXPECT_FALSE(exists);
  exists = false;
  EXPECT_TRUE(velfsIsFileExist(dir.get(), "DOCS/A.TXT", &exists));
  EXPECT_TRUE(exists);
  exists = true;
  EXPECT_TRUE(velfsIsDirectoryExist(dir.get(), "nowhere", &exists));
  EXPECT_FALSE(exists);
}

TEST_F(ArchiveApiTest, P1_2_07_ArchiveRootRefusesChanges) {
  DirPtr dir(velfsOpenDir(zip_.c_str()));
  ASSERT_NE(dir, nullptr);
  EXPECT_FALSE(velfsDeleteFile(dir.get(), "top.txt"));
  EXPECT_FALSE(velfsRenameFile(dir.get(), "top.txt", "renamed.txt"));
  EXPECT_FALSE(velfsCopyFile(dir.get(), "top.txt", "copy.txt", false));
  EXPECT_FALSE(velfsCopyFile(dir.get(), "top.txt", "docs/a.txt", true));
  EXPECT_FALSE(velfsMoveFile(dir.get(), "docs/a.txt", "moved.txt", false));
  EXPECT_FALSE(velfsDeleteDirectory(dir.get(), "docs/"));
  EXPECT_FALSE(velfsBeginTrans(dir.get()));
  EXPECT_FALSE(velfsCommitTrans(dir.get()));
  for (const char* present : {"top.txt", "docs/a.txt", "docs/b.txt"}) {
    bool exists = false;
    EXPECT_TRUE(velfsIsFileExist(dir.get(), present, &exists));
    EXPECT_TRUE(exists) << present;
  }
  for (const char* absent : {"renamed.txt", "copy.txt", "moved.txt"}) {
    bool exists = true;
    EXPECT_TRUE(velfsIsFileExist(dir.get(), absent, &exists));
    EXPECT_FALSE(exists) << absent;
  }
  bool exists = false;
  EXPECT_TRUE(velfsIsDirectoryExist(dir.get(), "docs", &exists));
  EXPECT_TRUE(exists);
  dir.reset();
  EXPECT_EQ(ReadHostFile(zip_), before_);
  // Nothing was created beside the archive either.
  std::vector<std::string> entries;
  for (const auto& entry : std::filesystem::directory_iterator(dir_)) {
    entries.push_back(entry.path().filename().string());
  }
  EXPECT_EQ(entries, std::vector<std::string>{"pack.zip"});
}

TEST_F(ArchiveApiTest, P1_3_02_ZipFileGivesArchiveStorage) {
  std::unique_ptr<Storage> plain = OpenStorage(zip_.c_str());
  std::unique_ptr<Storage> colon = OpenStorage((zip_ + ":").c_str());
  ASSERT_NE(plain, nullptr);
  ASSERT_NE(colon, nullptr);
  EXPECT_TRUE(IsArchive(plain.get()));
  EXPECT_TRUE(IsArchive(colon.get()));
  EXPECT_NE(plain.get(), colon.get());  // two independent storages
  bool exists = false;
  EXPECT_TRUE(colon->IsFileExist("docs/b.txt", &exists));
  EXPECT_TRUE(exists);

  DirPtr dir(velfsOpenDir((zip_ + ":").c_str()));
  ASSERT_NE(dir, nullptr);
  EXPECT_TRUE(IsArchive(dir->storage.get()));
  EXPECT_EQ(dir->rootPath, zip_ + ":");  // the ':' stays in the record
  DirPtr bare(velfsOpenDir(zip_.c_str()));
  ASSERT_NE(bare, nullptr);
  EXPECT_TRUE(IsArchive(bare->storage.get()));
}

TEST_F(ArchiveApiTest, P1_4_02_CreateFileOfZipMember) {
  {
    FilePtr file(velfsCreateFile((zip_ + ":docs/a.txt").c_str(), 0));
    ASSERT_NE(file, nullptr);
    ObjectHandle* record = Record(file.get());
    EXPECT_TRUE(record->ownsDir);
    ASSERT_NE(record->dir, nullptr);
    EXPECT_EQ(record->dir->rootPath, zip_ + ":");
    EXPECT_TRUE(IsArchive(record->dir->storage.get()));
    EXPECT_EQ(ReadRest(file.get()), "alpha bytes");
    EXPECT_TRUE(velfsError(file.get()));
  }
  {
    FilePtr deflated(velfsCreateFile((zip_ + ":DOCS\\B.TXT").c_str(), 0));
    ASSERT_NE(deflated, nullptr);
    EXPECT_EQ(velfsSeek(deflated.get(), 5, 0), 5);
    EXPECT_EQ(ReadRest(deflated.get(), 3), "beta beta beta");
  }
  EXPECT_EQ(FilePtr(velfsCreateFile((zip_ + ":docs/none.txt").c_str(), 0)), nullptr);
  EXPECT_EQ(FilePtr(velfsCreateFile((zip_ + "/docs/a.txt").c_str(), 0)), nullptr);
  // Listings take the same form.
  EnumPtr listing(velfsCreateEnum((zip_ + ":docs/").c_str()));
  ASSERT_NE(listing, nullptr);
  EXPECT_EQ(ListRest(listing.get()),
            (std::vector<Listed>{{"a.txt", "docs/a.txt", false}, {"b.txt", "docs/b.txt", false}}));
  listing.reset();
  EXPECT_EQ(MappingsOf(zip_), 0);
}

TEST_F(ArchiveApiTest, P2_1_05_MountOnZipFile) {
  velFSMountPath("z:", zip_.c_str());
  const std::string expected = zip_ + "/docs/a.txt";
  EXPECT_EQ(velFSVelToSyspath("z:docs/a.txt", nullptr, 0), expected.size());
  std::vector<char> buffer(expected.size() + 1, '#');
  EXPECT_EQ(velFSVelToSyspath("z:docs/a.txt", buffer.data(), buffer.size()), expected.size());
  EXPECT_EQ(std::string(buffer.data()), expected);
  EXPECT_FALSE(std::filesystem::exists(expected));  // inside the archive file's path: no file

  FileStub* stub = velFSCreateStub("z:docs/a.txt", 0);
  ASSERT_NE(stub, nullptr);
  char bytes[64] = {};
  EXPECT_EQ(stub->read(stub->file, bytes, sizeof bytes), 11u);
  EXPECT_EQ(std::string(bytes, 11), "alpha bytes");
  EXPECT_EQ(stub->error(stub->file), 1);
  EXPECT_EQ(stub->write(stub->file, "x", 1), 0u);
  velFSDeleteStub(stub);

  FileStub* deflated = velFSCreateStub("z:DOCS/B.txt", 0);
  ASSERT_NE(deflated, nullptr);
  EXPECT_EQ(deflated->seek(deflated->file, 0, 2), 19);
  velFSDeleteStub(deflated);
  EXPECT_EQ(velFSCreateStub("z:docs/none.txt", 0), nullptr);

  velFSUnmountPath("z:");
  EXPECT_EQ(velFSVelToSyspath("z:docs/a.txt", nullptr, 0), 0u);
  EXPECT_EQ(MappingsOf(zip_), 0);  // the mount's storage is gone
  EXPECT_EQ(ReadHostFile(zip_), before_);
}

// Issue 5: a database file is not an archive; the selection passes it on to the database
// back-end (Parts 1.3 and 5.2).
TEST_F(ArchiveApiTest, DatabaseFileIsNotAnArchiveRoot) {
  const std::string db = PathOf("store.db");
  {
    SecondConnection maker(db);
    ASSERT_TRUE(maker.Exec("CREATE TABLE Other (x);"));
  }
  EXPECT_EQ(ArchiveStorage::Open(db.c_str()), nullptr);
  DirPtr dir(velfsOpenDir(db.c_str()));
  ASSERT_NE(dir, nullptr);
  EXPECT_FALSE(IsArchive(dir->storage.get()));
  EXPECT_NE(dynamic_cast<DatabaseStorage*>(dir->storage.get()), nullptr);
  DirPtr colon(velfsOpenDir((db + ":").c_str()));
  ASSERT_NE(colon, nullptr);
  EXPECT_NE(dynamic_cast<DatabaseStorage*>(colon->storage.get()), nullptr);
  EXPECT_EQ(MappingsOf(db), 0);  // the archive back-end's attempt left no mapping
}

// Part 5.2's lifecycle with the real zziplib, through the exported functions: a member opened
// through a DirHandle stays readable to its end after velfsCloseDir, and closing it releases
// the archive file.
TEST_F(ArchiveApiTest, MemberReadsToItsEndAfterCloseDirThenArchiveIsReleased) {
  const std::string content = PseudoRandomBytes(300000, 7, 50);
  const std::string path = MakeZip(
      "life.zip", {Deflated("data.bin", content), Stored("plain.bin", content.substr(0, 1000))});
  DirHandle* dir = velfsOpenDir(path.c_str());
  ASSERT_NE(dir, nullptr);
  FileHandle* file = velfsCreateFileIndir(dir, "data.bin", 0);
  ASSERT_NE(file, nullptr);
  char first[10];
  ASSERT_EQ(velfsRead(file, first, sizeof first), 10u);
  velfsCloseDir(dir);
  EXPECT_GE(MappingsOf(path), 1);
  const std::string rest = ReadRest(file, 4096);
  EXPECT_EQ(std::string(first, 10) + rest, content);
  EXPECT_TRUE(velfsError(file));
  velfsCloseFile(file);
  EXPECT_EQ(MappingsOf(path), 0);
  EXPECT_EQ(DescriptorsOn(path), 0);
}

// Issue 5: after a sequence of every kind of handle over one archive, each closed, no mapping
// and no descriptor of the archive remain, and the process holds no more descriptors than
// before.
TEST_F(ArchiveApiTest, NoMappingOrDescriptorLeftAfterEveryHandleIsClosed) {
  const int descriptorsBefore = OpenDescriptorCount();
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    DirPtr dir(velfsOpenDir(zip_.c_str()));
    ASSERT_NE(dir, nullptr);
    bool exists = false;
    EXPECT_TRUE(velfsIsFileExist(dir.get(), "docs/a.txt", &exists));
    EXPECT_TRUE(exists);
    FilePtr a(velfsCreateFileIndir(dir.get(), "docs/a.txt", 0));
    FilePtr b(velfsCreateFileIndir(dir.get(), "docs/b.txt", 0));
    EnumPtr root(velfsCreateEnumIndir(dir.get(), ""));
    FilePtr full(velfsCreateFile((zip_ + ":top.txt").c_str(), 0));
    EnumPtr fullEnum(velfsCreateEnum((zip_ + ":docs/").c_str()));
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    ASSERT_NE(root, nullptr);
    ASSERT_NE(full, nullptr);
    ASSERT_NE(fullEnum, nullptr);
    velFSMountPath("ziplife:", zip_.c_str());
    FileStub* stub = velFSCreateStub("ziplife:top.txt", 0);
    ASSERT_NE(stub, nullptr);
    EXPECT_GE(MappingsOf(zip_), 1);
    EXPECT_EQ(ReadRest(a.get(), 2), "alpha bytes");
    EXPECT_EQ(ReadRest(b.get(), 5), "beta beta beta beta");
    EXPECT_EQ(ReadRest(full.get()), "top");
    EXPECT_EQ(ListRest(root.get()).size(), 2u);
    EXPECT_EQ(ListRest(fullEnum.get()).size(), 2u);
    velFSDeleteStub(stub);
    velFSUnmountPath("ziplife:");
    fullEnum.reset();
    full.reset();
    root.reset();
    b.reset();
    a.reset();
    dir.reset();
    EXPECT_EQ(MappingsOf(zip_), 0);
    EXPECT_EQ(DescriptorsOn(zip_), 0);
  }
  EXPECT_EQ(OpenDescriptorCount(), descriptorsBefore);
}

}  // namespace
}  // namespace velfs::testing::archivetest
