// Parts 3.1 and 3.2 through the exported API: full paths into a database root, changes made
// while other files of the storage are open, and databases locked by another connection.
#include <sqlite3.h>

#include <algorithm>
#include <string>
#include <vector>

#include "database_test_support.h"
#include "test_support.h"
#include "velfs.h"

namespace velfs::testing {
namespace {

class DatabaseApiTest : public DatabaseScratchTest {
 protected:
  void SetUp() override {
    DatabaseScratchTest::SetUp();
    dbPath_ = PathOf("store.db");
  }
  std::string Stored(SecondConnection& other, const std::string& fileName,
                     const std::string& path) {
    std::string content;
    if (!other.ReadRow(fileName, path, &content)) return "<no row>";
    return content;
  }

  std::string dbPath_;
};

// ---- Full paths into a database root (Part 1.4 over Part 3.1) ----

TEST_F(DatabaseApiTest, CreateFileWithFullPathIntoDatabase) {
  FileHandle* file = velfsCreateFile((dbPath_ + ":docs/a.txt").c_str(), 1);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(velfsWrite(file, "hello", 5), 5u);
  EXPECT_EQ(velfsTell(file), 5);
  {
    SecondConnection other(dbPath_);
    EXPECT_EQ(Stored(other, "a.txt", "docs/"), "hello");  // committed before close
  }
  velfsCloseFile(file);
  // A second handle on the same full path reads it back.
  file = velfsCreateFile((dbPath_ + ":docs/a.txt").c_str(), 0);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(ReadAll(file), "hello");
  velfsCloseFile(file);
  // Backslashes count as '/'.
  file = velfsCreateFile((dbPath_ + ":docs\\b.txt").c_str(), 1);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(velfsWrite(file, "bee", 3), 3u);
  velfsCloseFile(file);
  SecondConnection other(dbPath_);
  EXPECT_EQ(Stored(other, "b.txt", "docs/"), "bee");
  EXPECT_EQ(other.RowCount(), 2);
}

TEST_F(DatabaseApiTest, CreateFileWithFullPathEndingInSlashIsFileWithEmptyName) {
  FileHandle* file = velfsCreateFile((dbPath_ + ":docs/").c_str(), 1);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(velfsWrite(file, "dir-ish", 7), 7u);
  velfsCloseFile(file);
  SecondConnection other(dbPath_);
  EXPECT_EQ(Stored(other, "", "docs/"), "dir-ish");
  EXPECT_EQ(other.RowCount(), 1);
}

TEST_F(DatabaseApiTest, CreateFileWithRootAloneFailsAndCreateEnumListsRoot) {
  // The root alone leaves an empty inner path: no file (Part 1.4).
  EXPECT_EQ(velfsCreateFile((dbPath_ + ":").c_str(), 1), nullptr);
  {
    SecondConnection other(dbPath_);
    EXPECT_EQ(other.RowCount(), 0);
    ASSERT_TRUE(other.InsertRow("top.txt", "", nullptr));
    ASSERT_TRUE(other.InsertRow("a.txt", "docs/", nullptr));
    ASSERT_TRUE(other.InsertRow("b.txt", "docs/sub/", nullptr));
  }
  EnumHandle* listing = velfsCreateEnum((dbPath_ + ":").c_str());
  ASSERT_NE(listing, nullptr);
  std::vector<ListedEntry> root = Walk(listing);
  velfsCloseEnum(listing);
  std::sort(root.begin(), root.end(),
            [](const ListedEntry& l, const ListedEntry& r) { return l.name < r.name; });
  EXPECT_EQ(root, (std::vector<ListedEntry>{{"docs/", "docs/", true},
                                            {"top.txt", "top.txt", false}}));

  listing = velfsCreateEnum((dbPath_ + ":docs/").c_str());
  ASSERT_NE(listing, nullptr);
  std::vector<ListedEntry> docs = Walk(listing);
  velfsCloseFile(reinterpret_cast<FileHandle*>(listing));  // one close function for both kinds
  std::sort(docs.begin(), docs.end(),
            [](const ListedEntry& l, const ListedEntry& r) { return l.name < r.name; });
  EXPECT_EQ(docs, (std::vector<ListedEntry>{{"a.txt", "docs/a.txt", false},
                                            {"sub/", "docs/sub/", true}}));
  // Closing released the private storages: another connection can take the write lock.
  SecondConnection other(dbPath_);
  EXPECT_TRUE(other.Exec("BEGIN EXCLUSIVE; COMMIT;"));
}

TEST_F(DatabaseApiTest, CreateEnumWithFullPathOfNewDatabaseListsNothing) {
  EnumHandle* listing = velfsCreateEnum((dbPath_ + ":").c_str());
  ASSERT_NE(listing, nullptr);
  EXPECT_FALSE(velfsMoveNext(listing));
  velfsCloseEnum(listing);
  // The database file was created with the table in it (Part 3.1).
  SecondConnection other(dbPath_);
  EXPECT_EQ(other.RowCount(), 0);
}

// ---- Changes made while other files of the same storage are open ----

// Every change made while other files are open and have been read from must be committed when
// the call returns (another connection sees it) and survive closing the storage.
TEST_F(DatabaseApiTest, ChangesWhileOtherFilesAreOpenAreCommittedAtOnce) {
  DirHandle* dir = velfsOpenDir(dbPath_.c_str());
  ASSERT_NE(dir, nullptr);
  ASSERT_TRUE(PutFile(dir, "open/r1.txt", "reader one"));
  ASSERT_TRUE(PutFile(dir, "open/r2.txt", "reader two"));
  ASSERT_TRUE(PutFile(dir, "w/grow.txt", "grow"));
  ASSERT_TRUE(PutFile(dir, "w/inplace.txt", "0123456789"));
  ASSERT_TRUE(PutFile(dir, "w/resize.txt", "resize"));
  ASSERT_TRUE(PutFile(dir, "w/old.txt", "old"));
  ASSERT_TRUE(PutFile(dir, "w/delete.txt", "delete"));
  ASSERT_TRUE(PutFile(dir, "w/source.txt", "source"));

  // Two readers, opened and read from, left open for the whole test.
  FileHandle* r1 = velfsCreateFileIndir(dir, "open/r1.txt", 0);
  FileHandle* r2 = velfsCreateFileIndir(dir, "open/r2.txt", 3);
  ASSERT_NE(r1, nullptr);
  ASSERT_NE(r2, nullptr);
  char buffer[32] = {};
  ASSERT_EQ(velfsRead(r1, buffer, 6), 6u);
  ASSERT_EQ(velfsRead(r2, buffer, 3), 3u);
  EnumHandle* listing = velfsCreateEnumIndir(dir, "w/");
  ASSERT_NE(listing, nullptr);
  ASSERT_TRUE(velfsMoveNext(listing));

  SecondConnection other(dbPath_);
  auto touchReaders = [&] {  // the readers keep working between the changes
    EXPECT_EQ(velfsSeek(r1, 7, 0), 7);
    EXPECT_EQ(velfsRead(r1, buffer, 3), 3u);
    EXPECT_EQ(std::string(buffer, 3), "one");
    EXPECT_EQ(velfsSeek(r2, 0, 0), 0);
    EXPECT_EQ(velfsRead(r2, buffer, 2), 2u);
  };

  FileHandle* grow = velfsCreateFileIndir(dir, "w/grow.txt", 3);
  ASSERT_NE(grow, nullptr);
  ASSERT_EQ(velfsSeek(grow, 4, 0), 4);
  EXPECT_EQ(velfsWrite(grow, "n", 1), 1u);  // growing write
  EXPECT_EQ(Stored(other, "grow.txt", "w/"), "grown");
  touchReaders();

  FileHandle* inplace = velfsCreateFileIndir(dir, "w/inplace.txt", 3);
  ASSERT_NE(inplace, nullptr);
  ASSERT_EQ(velfsRead(inplace, buffer, 2), 2u);
  EXPECT_EQ(velfsWrite(inplace, "AB", 2), 2u);  // in-place write
  EXPECT_EQ(Stored(other, "inplace.txt", "w/"), "01AB456789");
  touchReaders();

  FileHandle* resize = velfsCreateFileIndir(dir, "w/resize.txt", 3);
  ASSERT_NE(resize, nullptr);
  EXPECT_TRUE(velfsResize(resize, 3));
  EXPECT_EQ(Stored(other, "resize.txt", "w/"), "res");
  touchReaders();

  EXPECT_TRUE(velfsRenameFile(dir, "w/old.txt", "w/new.txt"));
  EXPECT_EQ(Stored(other, "new.txt", "w/"), "old");
  EXPECT_EQ(Stored(other, "old.txt", "w/"), "<no row>");
  EXPECT_TRUE(velfsDeleteFile(dir, "w/delete.txt"));
  EXPECT_EQ(Stored(other, "delete.txt", "w/"), "<no row>");
  EXPECT_TRUE(velfsCopyFile(dir, "w/source.txt", "w/copy.txt", false));
  EXPECT_EQ(Stored(other, "copy.txt", "w/"), "source");
  EXPECT_TRUE(velfsMoveFile(dir, "w/copy.txt", "moved/copy.txt", false));
  EXPECT_EQ(Stored(other, "copy.txt", "moved/"), "source");
  EXPECT_EQ(Stored(other, "copy.txt", "w/"), "<no row>");
  touchReaders();

  // An explicit transaction committed while the readers are open.
  ASSERT_TRUE(velfsBeginTrans(dir));
  EXPECT_EQ(velfsWrite(inplace, "CD", 2), 2u);
  ASSERT_TRUE(PutFile(dir, "w/trans.txt", "in transaction"));
  EXPECT_TRUE(velfsDeleteFile(dir, "w/source.txt"));
  touchReaders();
  EXPECT_EQ(Stored(other, "trans.txt", "w/"), "<no row>");
  EXPECT_TRUE(velfsCommitTrans(dir));
  EXPECT_EQ(Stored(other, "trans.txt", "w/"), "in transaction");
  EXPECT_EQ(Stored(other, "inplace.txt", "w/"), "01ABCD6789");
  EXPECT_EQ(Stored(other, "source.txt", "w/"), "<no row>");

  // Another connection can write now: no write statement of ours is left open.
  ASSERT_TRUE(other.Exec("BEGIN EXCLUSIVE;"));
  ASSERT_TRUE(other.Exec("COMMIT;"));

  velfsCloseEnum(listing);
  velfsCloseFile(grow);
  velfsCloseFile(inplace);
  velfsCloseFile(resize);
  velfsCloseFile(r1);
  velfsCloseFile(r2);
  velfsCloseDir(dir);

  // Reopened: everything survived closing the storage.
  dir = velfsOpenDir(dbPath_.c_str());
  ASSERT_NE(dir, nullptr);
  const std::vector<std::pair<const char*, const char*>> expected = {
      {"open/r1.txt", "reader one"}, {"open/r2.txt", "reader two"},
      {"w/grow.txt", "grown"},       {"w/inplace.txt", "01ABCD6789"},
      {"w/resize.txt", "res"},       {"w/new.txt", "old"},
      {"moved/copy.txt", "source"},  {"w/trans.txt", "in transaction"}};
  for (const auto& [path, content] : expected) {
    FileHandle* file = velfsCreateFileIndir(dir, path, 0);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(ReadAll(file), content) << path;
    velfsCloseFile(file);
  }
  EXPECT_EQ(other.RowCount(), static_cast<int>(expected.size()));
  velfsCloseDir(dir);
}

// ---- A database locked by another connection ----

class LockedDatabaseTest : public DatabaseApiTest {
 protected:
  void SetUp() override {
    DatabaseApiTest::SetUp();
    dir_handle_ = velfsOpenDir(dbPath_.c_str());
    ASSERT_NE(dir_handle_, nullptr);
    ASSERT_TRUE(PutFile(dir_handle_, "d/a.txt", "alpha"));
    ASSERT_TRUE(PutFile(dir_handle_, "d/b.txt", "bravo"));
    ASSERT_TRUE(PutFile(dir_handle_, "d/sub/c.txt", "charlie"));
  }
  void TearDown() override {
    velfsCloseDir(dir_handle_);
    DatabaseApiTest::TearDown();
  }
  // The rows as they were made in SetUp.
  void ExpectOriginalRows(SecondConnection& other) {
    EXPECT_EQ(other.RowCount(), 3);
    EXPECT_EQ(Stored(other, "a.txt", "d/"), "alpha");
    EXPECT_EQ(Stored(other, "b.txt", "d/"), "bravo");
    EXPECT_EQ(Stored(other, "c.txt", "d/sub/"), "charlie");
  }
  // Every kind of write answers failure while another connection holds a write lock.
  void ExpectWritesFail(FileHandle* existing) {
    FileHandle* created = velfsCreateFileIndir(dir_handle_, "d/new.txt", 1);
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(velfsWrite(created, "new", 3), 0u);
    EXPECT_EQ(velfsTell(created), 0);
    EXPECT_FALSE(velfsResize(created, 4));
    velfsCloseFile(created);
    ASSERT_EQ(velfsSeek(existing, 0, 0), 0);
    EXPECT_EQ(velfsWrite(existing, "AL", 2), 0u);       // in place
    EXPECT_EQ(velfsTell(existing), 0);
    ASSERT_EQ(velfsSeek(existing, 5, 0), 5);
    EXPECT_EQ(velfsWrite(existing, "++", 2), 0u);       // growing
    EXPECT_EQ(velfsTell(existing), 5);
    EXPECT_FALSE(velfsResize(existing, 2));
    EXPECT_EQ(velfsSeek(existing, 0, 2), 5);            // the length is unchanged
    EXPECT_FALSE(velfsDeleteFile(dir_handle_, "d/b.txt"));
    EXPECT_FALSE(velfsRenameFile(dir_handle_, "d/b.txt", "d/bb.txt"));
    EXPECT_FALSE(velfsCopyFile(dir_handle_, "d/a.txt", "d/copy.txt", false));
    EXPECT_FALSE(velfsMoveFile(dir_handle_, "d/a.txt", "d/moved.txt", false));
    EXPECT_FALSE(velfsDeleteDirectory(dir_handle_, "d/sub/"));
  }

  DirHandle* dir_handle_ = nullptr;
};

TEST_F(LockedDatabaseTest, ExclusiveLockMakesOperationsFailAtOnceAndLosesNothing) {
  FileHandle* known = velfsCreateFileIndir(dir_handle_, "d/a.txt", 3);
  ASSERT_NE(known, nullptr);
  ASSERT_EQ(velfsSeek(known, 0, 2), 5);  // its row is known before the lock
  ASSERT_EQ(velfsSeek(known, 0, 0), 0);
  SecondConnection other(dbPath_);
  ASSERT_TRUE(other.Exec("BEGIN EXCLUSIVE;"));

  // Part 3.1: the test query is prepared (true) but its step meets the lock, so `exists` is
  // false even for a file that is there; nothing waits.
  bool exists = true;
  EXPECT_TRUE(velfsIsFileExist(dir_handle_, "d/a.txt", &exists));
  EXPECT_FALSE(exists);
  exists = true;
  EXPECT_TRUE(velfsIsDirectoryExist(dir_handle_, "d/", &exists));
  EXPECT_FALSE(exists);
  // Part 3.3: a step error cuts the listing short without a report; it lists nothing.
  bool created = false;
  EXPECT_EQ(List(dir_handle_, "d/", &created), std::vector<ListedEntry>{});
  EXPECT_TRUE(created);
  // Reads answer 0.
  char buffer[8] = {};
  EXPECT_EQ(velfsRead(known, buffer, sizeof buffer), 0u);
  EXPECT_EQ(velfsTell(known), 0);
  FileHandle* unknown = velfsCreateFileIndir(dir_handle_, "d/b.txt", 0);
  ASSERT_NE(unknown, nullptr);
  EXPECT_EQ(velfsRead(unknown, buffer, sizeof buffer), 0u);
  EXPECT_TRUE(velfsError(unknown));
  EXPECT_EQ(velfsSeek(unknown, 0, 0), -1);
  ExpectWritesFail(known);

  ASSERT_TRUE(other.Exec("COMMIT;"));
  ExpectOriginalRows(other);
  // Usable again, with the same handles.
  EXPECT_EQ(velfsRead(unknown, buffer, 5), 5u);
  EXPECT_EQ(std::string(buffer, 5), "bravo");
  ASSERT_EQ(velfsSeek(known, 0, 0), 0);
  EXPECT_EQ(velfsWrite(known, "A", 1), 1u);
  EXPECT_EQ(Stored(other, "a.txt", "d/"), "Alpha");
  EXPECT_EQ(List(dir_handle_, "d/").size(), 3u);
  velfsCloseFile(unknown);
  velfsCloseFile(known);
}

TEST_F(LockedDatabaseTest, ImmediateLockAllowsReadsButNotWrites) {
  FileHandle* existing = velfsCreateFileIndir(dir_handle_, "d/a.txt", 3);
  ASSERT_NE(existing, nullptr);
  SecondConnection other(dbPath_);
  ASSERT_TRUE(other.Exec("BEGIN IMMEDIATE;"));
  ASSERT_TRUE(other.InsertRow("pending.txt", "d/", nullptr));  // the other's own change

  bool exists = false;
  EXPECT_TRUE(velfsIsFileExist(dir_handle_, "d/a.txt", &exists));
  EXPECT_TRUE(exists);
  exists = false;
  EXPECT_TRUE(velfsIsDirectoryExist(dir_handle_, "d/sub", &exists));
  EXPECT_TRUE(exists);
  EXPECT_EQ(List(dir_handle_, "d/").size(), 3u);  // a.txt, b.txt, sub/ — not pending.txt
  EXPECT_EQ(ReadAll(existing), "alpha");
  ExpectWritesFail(existing);

  ASSERT_TRUE(other.Exec("ROLLBACK;"));
  ExpectOriginalRows(other);
  ASSERT_EQ(velfsSeek(existing, 5, 0), 5);
  EXPECT_EQ(velfsWrite(existing, "!", 1), 1u);
  EXPECT_EQ(Stored(other, "a.txt", "d/"), "alpha!");
  velfsCloseFile(existing);
}

TEST_F(LockedDatabaseTest, SharedLockMakesWritesFailWithoutLeavingThemBehind) {
  FileHandle* existing = velfsCreateFileIndir(dir_handle_, "d/a.txt", 3);
  ASSERT_NE(existing, nullptr);
  ASSERT_EQ(velfsSeek(existing, 0, 2), 5);
  SecondConnection other(dbPath_);
  // A read transaction: the other connection holds a SHARED lock until it ends.
  ASSERT_TRUE(other.Exec("BEGIN; SELECT count(*) FROM FileStorage;"));

  FileHandle* created = velfsCreateFileIndir(dir_handle_, "d/new.txt", 1);
  ASSERT_NE(created, nullptr);
  EXPECT_EQ(velfsWrite(created, "new", 3), 0u);  // the commit cannot have the lock
  EXPECT_EQ(velfsTell(created), 0);
  EXPECT_EQ(velfsWrite(existing, "++", 2), 0u);  // growing
  ASSERT_EQ(velfsSeek(existing, 0, 0), 0);
  EXPECT_EQ(velfsWrite(existing, "AL", 2), 0u);  // in place
  EXPECT_FALSE(velfsResize(existing, 1));
  EXPECT_FALSE(velfsDeleteFile(dir_handle_, "d/b.txt"));
  EXPECT_FALSE(velfsCopyFile(dir_handle_, "d/a.txt", "d/copy.txt", false));
  // Reads still work.
  EXPECT_EQ(ReadAll(existing), "alpha");
  bool exists = true;
  EXPECT_TRUE(velfsIsFileExist(dir_handle_, "d/new.txt", &exists));
  EXPECT_FALSE(exists);

  ASSERT_TRUE(other.Exec("COMMIT;"));
  ExpectOriginalRows(other);  // none of the failed writes reached the database
  // The storage is still usable: the next writes succeed and are visible at once.
  EXPECT_EQ(velfsWrite(created, "new", 3), 3u);
  EXPECT_EQ(Stored(other, "new.txt", "d/"), "new");
  EXPECT_EQ(velfsWrite(existing, "AL", 2), 2u);
  EXPECT_EQ(Stored(other, "a.txt", "d/"), "ALpha");
  EXPECT_TRUE(velfsDeleteFile(dir_handle_, "d/b.txt"));
  EXPECT_EQ(Stored(other, "b.txt", "d/"), "<no row>");
  EXPECT_TRUE(other.Exec("BEGIN EXCLUSIVE; COMMIT;"));  // nothing of ours is left pending
  velfsCloseFile(created);
  velfsCloseFile(existing);
}

TEST_F(LockedDatabaseTest, SharedLockDuringExplicitTransactionFailsCommitOnly) {
  SecondConnection other(dbPath_);
  ASSERT_TRUE(velfsBeginTrans(dir_handle_));
  ASSERT_TRUE(PutFile(dir_handle_, "d/t.txt", "trans"));
  ASSERT_TRUE(other.Exec("BEGIN; SELECT count(*) FROM FileStorage;"));
  EXPECT_FALSE(velfsCommitTrans(dir_handle_));  // the other's read lock blocks the commit
  ASSERT_TRUE(other.Exec("COMMIT;"));
  // Part 3.1: no rollback of ours; the transaction stays open and a later COMMIT ends it.
  EXPECT_TRUE(velfsCommitTrans(dir_handle_));
  EXPECT_EQ(Stored(other, "t.txt", "d/"), "trans");
}

}  // namespace
}  // namespace velfs::testing
