// Part 3.1: DatabaseStorage — opening, the directory operations, copies, moves and transactions,
// observed through the exported API, the storage itself and an independent SQLite connection.
#include <sqlite3.h>

#include <cctype>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "database/database_storage.h"
#include "database_test_support.h"
#include "test_support.h"
#include "velfs.h"

namespace velfs::testing {
namespace {

class DatabaseStorageTest : public DatabaseScratchTest {
 protected:
  void SetUp() override {
    DatabaseScratchTest::SetUp();
    dbPath_ = PathOf("store.db");
  }
  // Opens the database root through the API; fails the test when it cannot.
  DirHandle* OpenRoot() {
    DirHandle* dir = velfsOpenDir(dbPath_.c_str());
    EXPECT_NE(dir, nullptr);
    return dir;
  }
  bool Exists(DirHandle* dir, const char* path) {
    bool exists = false;
    EXPECT_TRUE(velfsIsFileExist(dir, path, &exists)) << path;
    return exists;
  }
  bool DirectoryExists(DirHandle* dir, const char* path) {
    bool exists = false;
    EXPECT_TRUE(velfsIsDirectoryExist(dir, path, &exists)) << path;
    return exists;
  }

  std::string dbPath_;
};

// Every row of FileStorage as "Path|FileName=Content", in key order, read by `other`.
std::vector<std::string> AllRows(SecondConnection& other) {
  std::vector<std::string> rows;
  sqlite3_stmt* statement = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(other.db(),
                               "SELECT Path, FileName, Content FROM FileStorage ORDER BY Path, "
                               "FileName;",
                               -1, &statement, nullptr),
            SQLITE_OK);
  while (sqlite3_step(statement) == SQLITE_ROW) {
    const auto* path = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
    const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(statement, 1));
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, 2));
    const int length = sqlite3_column_bytes(statement, 2);
    rows.push_back(std::string(path ? path : "<null>") + "|" + (name ? name : "<null>") + "=" +
                   std::string(bytes ? bytes : "", bytes ? static_cast<std::size_t>(length) : 0));
  }
  sqlite3_finalize(statement);
  return rows;
}

// The Path of every row, sorted, read by `other`.
std::vector<std::string> RowPaths(SecondConnection& other) {
  std::vector<std::string> paths;
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(other.db(), "SELECT Path || FileName FROM FileStorage ORDER BY 1;", -1,
                     &statement, nullptr);
  while (sqlite3_step(statement) == SQLITE_ROW) {
    paths.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)));
  }
  sqlite3_finalize(statement);
  return paths;
}

// ---- Edge cases of Part 3.1 ----

TEST_F(DatabaseStorageTest, P3_1_01_OpenCreatesDatabaseWithTableAndReopenKeepsRows) {
  ASSERT_FALSE(std::filesystem::exists(dbPath_));
  {
    std::unique_ptr<Storage> storage = DatabaseStorage::Open(dbPath_.c_str());
    ASSERT_NE(storage, nullptr);
    EXPECT_TRUE(std::filesystem::is_regular_file(dbPath_));
    auto file = storage->CreateFile("docs/a.txt", 1);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->Write("hello", 5), 5u);
  }
  {
    // The table as the data model gives it, in a database with 8192-byte pages.
    SecondConnection other(dbPath_);
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(other.db(), "PRAGMA table_info(FileStorage);", -1, &statement,
                                 nullptr),
              SQLITE_OK);
    std::vector<std::string> columns;
    while (sqlite3_step(statement) == SQLITE_ROW) {
      // SQLite reports the declared type in upper case.
      std::string type = reinterpret_cast<const char*>(sqlite3_column_text(statement, 2));
      for (char& c : type) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      const std::string name = reinterpret_cast<const char*>(sqlite3_column_text(statement, 1));
      columns.push_back(name + " " + type + " pk" +
                        std::to_string(sqlite3_column_int(statement, 5)));
    }
    sqlite3_finalize(statement);
    EXPECT_EQ(columns, (std::vector<std::string>{"FileName text pk1", "Path text pk2",
                                                 "Content blob pk0", "Info blob pk0"}));
    ASSERT_EQ(sqlite3_prepare_v2(other.db(), "PRAGMA page_size;", -1, &statement, nullptr),
              SQLITE_OK);
    ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
    EXPECT_EQ(sqlite3_column_int(statement, 0), 8192);
    sqlite3_finalize(statement);
  }
  // Opened again: the table is found (not recreated) and the row kept.
  std::unique_ptr<Storage> storage = DatabaseStorage::Open(dbPath_.c_str());
  ASSERT_NE(storage, nullptr);
  bool exists = false;
  EXPECT_TRUE(storage->IsFileExist("docs/a.txt", &exists));
  EXPECT_TRUE(exists);
  storage.reset();
  SecondConnection other(dbPath_);
  EXPECT_EQ(other.RowCount(), 1);
  std::string content;
  EXPECT_TRUE(other.ReadRow("a.txt", "docs/", &content));
  EXPECT_EQ(content, "hello");
}

TEST_F(DatabaseStorageTest, P3_1_02_OpenOfNonDatabaseFileFails) {
  const std::string text = "This is a plain text file, certainly not an SQLite database.\n";
  std::string bytes;
  while (bytes.size() < 2000) bytes += text;
  WriteHostFile(dbPath_, bytes);
  EXPECT_EQ(DatabaseStorage::Open(dbPath_.c_str()), nullptr);
  EXPECT_EQ(velfsOpenDir(dbPath_.c_str()), nullptr);
  EXPECT_EQ(velfsOpenDir((dbPath_ + ":").c_str()), nullptr);
  EXPECT_EQ(velfsCreateFile((dbPath_ + ":a.txt").c_str(), 1), nullptr);
  // Nothing left behind: the file is as it was and no journal was made beside it.
  EXPECT_EQ(ReadHostFile(dbPath_), bytes);
  EXPECT_FALSE(std::filesystem::exists(dbPath_ + "-journal"));
}

TEST_F(DatabaseStorageTest, P3_1_03_EmptyPathOpensPrivateTemporaryDatabase) {
  std::unique_ptr<Storage> first = DatabaseStorage::Open("");
  ASSERT_NE(first, nullptr);
  sqlite3* db = static_cast<DatabaseStorage*>(first.get())->db();
  // SQLite names a temporary database with the empty file name.
  const char* fileName = sqlite3_db_filename(db, "main");
  ASSERT_NE(fileName, nullptr);
  EXPECT_STREQ(fileName, "");
  auto file = first->CreateFile("a.txt", 1);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->Write("abc", 3), 3u);
  file.reset();
  bool exists = false;
  EXPECT_TRUE(first->IsFileExist("a.txt", &exists));
  EXPECT_TRUE(exists);
  // Private: a second temporary database does not see it, nor does one opened after the first is
  // closed (SQLite deleted it).
  std::unique_ptr<Storage> second = DatabaseStorage::Open("");
  ASSERT_NE(second, nullptr);
  exists = true;
  EXPECT_TRUE(second->IsFileExist("a.txt", &exists));
  EXPECT_FALSE(exists);
  first.reset();
  second.reset();
  std::unique_ptr<Storage> third = DatabaseStorage::Open("");
  ASSERT_NE(third, nullptr);
  exists = true;
  EXPECT_TRUE(third->IsFileExist("", &exists));
  EXPECT_FALSE(exists);
  EXPECT_TRUE(third->IsDirectoryExist("", &exists));
  EXPECT_FALSE(exists);

  // The same through the API: a root of one ':' alone (Part 1.3).
  DirHandle* dir = velfsOpenDir(":");
  ASSERT_NE(dir, nullptr);
  ASSERT_NE(DatabaseOf(dir), nullptr);
  EXPECT_STREQ(sqlite3_db_filename(DatabaseOf(dir)->db(), "main"), "");
  EXPECT_TRUE(PutFile(dir, "b.txt", "xyz"));
  EXPECT_TRUE(Exists(dir, "b.txt"));
  velfsCloseDir(dir);
}

TEST_F(DatabaseStorageTest, P3_1_04_IsFileExistLooksUpExactRowKey) {
  DirHandle* dir = OpenRoot();
  ASSERT_NE(dir, nullptr);
  SecondConnection other(dbPath_);
  const std::string content = "1";
  ASSERT_TRUE(other.InsertRow("", "a/b/", &content));
  EXPECT_TRUE(Exists(dir, "a/b/"));  // FileName "" and Path a/b/
  EXPECT_FALSE(Exists(dir, "a/b"));  // FileName b and Path a/: no such row
  // A missing file stores false even over a caller's true.
  bool exists = true;
  EXPECT_TRUE(velfsIsFileExist(dir, "a/c", &exists));
  EXPECT_FALSE(exists);

  // x and /x are different rows: (x, "") and (x, "/").
  ASSERT_TRUE(other.InsertRow("x", "", &content));
  EXPECT_TRUE(Exists(dir, "x"));
  EXPECT_FALSE(Exists(dir, "/x"));
  ASSERT_TRUE(other.InsertRow("x", "/", &content));
  ASSERT_TRUE(other.Exec("DELETE FROM FileStorage WHERE FileName='x' AND Path='';"));
  EXPECT_FALSE(Exists(dir, "x"));
  EXPECT_TRUE(Exists(dir, "/x"));
  velfsCloseDir(dir);
}

TEST_F(DatabaseStorageTest, P3_1_05_EmptyPathIsWholeTableForDirectoryTestAndDelete) {
  DirHandle* dir = OpenRoot();
  ASSERT_NE(dir, nullptr);
  bool exists = true;
  EXPECT_TRUE(velfsIsDirectoryExist(dir, "", &exists));
  EXPECT_FALSE(exists);  // empty table
  SecondConnection other(dbPath_);
  const std::string content = "1";
  ASSERT_TRUE(other.InsertRow("top.txt", "", &content));  // one row, at the root
  exists = false;
  EXPECT_TRUE(velfsIsDirectoryExist(dir, "", &exists));
  EXPECT_TRUE(exists);
  InsertPaths(other, {"a/1", "a/b/2", "zz/3"});
  ASSERT_EQ(other.RowCount(), 4);
  EXPECT_TRUE(velfsDeleteDirectory(dir, ""));
  EXPECT_EQ(other.RowCount(), 0);
  exists = true;
  EXPECT_TRUE(velfsIsDirectoryExist(dir, "", &exists));
  EXPECT_FALSE(exists);
  velfsCloseDir(dir);
}

TEST_F(DatabaseStorageTest, P3_1_06_DeleteDirectoryMatchesPathPrefixWithLike) {
  DirHandle* dir = OpenRoot();
  ASSERT_NE(dir, nullptr);
  SecondConnection other(dbPath_);
  const std::vector<std::string> rows = {"a/b/1", "a/b/c/2", "a/bc/3", "a/4", "ab/5", "x/a/b/6"};

  InsertPaths(other, rows);
  EXPECT_TRUE(velfsDeleteDirectory(dir, "a/b"));
  EXPECT_EQ(RowPaths(other), (std::vector<std::string>{"a/4", "ab/5", "x/a/b/6"}));

  ASSERT_TRUE(other.Exec("DELETE FROM FileStorage;"));
  InsertPaths(other, rows);
  EXPECT_TRUE(velfsDeleteDirectory(dir, "a/b/"));
  EXPECT_EQ(RowPaths(other), (std::vector<std::string>{"a/4", "a/bc/3", "ab/5", "x/a/b/6"}));

  ASSERT_TRUE(other.Exec("DELETE FROM FileStorage;"));
  InsertPaths(other, rows);
  EXPECT_TRUE(velfsDeleteDirectory(dir, "A/B/"));  // ASCII letters match either case
  EXPECT_EQ(RowPaths(other), (std::vector<std::string>{"a/4", "a/bc/3", "ab/5", "x/a/b/6"}));

  ASSERT_TRUE(other.Exec("DELETE FROM FileStorage;"));
  InsertPaths(other, {"axb/1", "a_b/2", "ab/3", "ayyb/4"});
  EXPECT_TRUE(velfsDeleteDirectory(dir, "a_b/"));  // '_' is a wildcard of one character
  EXPECT_EQ(RowPaths(other), (std::vector<std::string>{"ab/3", "ayyb/4"}));

  // No matching row still answers true and deletes nothing.
  EXPECT_TRUE(velfsDeleteDirectory(dir, "nothing/"));
  EXPECT_EQ(other.RowCount(), 2);
  velfsCloseDir(dir);
}

TEST_F(DatabaseStorageTest, P3_1_07_IsDirectoryExistForSubdirectoriesOnlyAndFileNames) {
  DirHandle* dir = OpenRoot();
  ASSERT_NE(dir, nullptr);
  SecondConnection other(dbPath_);
  InsertPaths(other, {"a/b/c.txt", "d/b.txt"});
  // a holds no file of its own, only the subdirectory b.
  EXPECT_TRUE(DirectoryExists(dir, "a"));
  EXPECT_TRUE(DirectoryExists(dir, "a/"));
  EXPECT_TRUE(DirectoryExists(dir, "a/b/"));
  // d/b.txt is only a file.
  EXPECT_TRUE(Exists(dir, "d/b.txt"));
  EXPECT_FALSE(DirectoryExists(dir, "d/b.txt"));
  EXPECT_FALSE(DirectoryExists(dir, "d/b.txt/"));
  EXPECT_FALSE(DirectoryExists(dir, "q"));
  // ... until some Path begins with d/b.txt.
  InsertPaths(other, {"d/b.txt.old/x"});
  EXPECT_TRUE(DirectoryExists(dir, "d/b.txt"));
  EXPECT_FALSE(DirectoryExists(dir, "d/b.txt/"));
  velfsCloseDir(dir);
}

TEST_F(DatabaseStorageTest, P3_1_08_RenameFileOnlyWithinOneDirectory) {
  DirHandle* dir = OpenRoot();
  ASSERT_NE(dir, nullptr);
  ASSERT_TRUE(PutFile(dir, "a/x", "xx"));
  ASSERT_TRUE(PutFile(dir, "a/y", "yy"));
  SecondConnection other(dbPath_);
  const std::vector<std::string> before = AllRows(other);
  ASSERT_EQ(before, (std::vector<std::string>{"a/|x=xx", "a/|y=yy"}));

  EXPECT_FALSE(velfsRenameFile(dir, "a/x", "b/x"));  // another directory
  EXPECT_EQ(AllRows(other), before);
  EXPECT_FALSE(velfsRenameFile(dir, "a/x", "a/y"));  // the target exists
  EXPECT_EQ(AllRows(other), before);
  EXPECT_TRUE(velfsRenameFile(dir, "a/missing", "a/z"));  // a missing source: true, no change
  EXPECT_EQ(AllRows(other), before);
  EXPECT_TRUE(velfsRenameFile(dir, "a/x", "a/z"));
  EXPECT_EQ(AllRows(other), (std::vector<std::string>{"a/|y=yy", "a/|z=xx"}));
  velfsCloseDir(dir);
}

TEST_F(DatabaseStorageTest, P3_1_09_CopyFileReplacesOrRefusesOrFailsOnMissingSource) {
  DirHandle* dir = OpenRoot();
  ASSERT_NE(dir, nullptr);
  ASSERT_TRUE(PutFile(dir, "src.txt", "source bytes"));
  ASSERT_TRUE(PutFile(dir, "d/target.txt", "old"));
  SecondConnection other(dbPath_);
  ASSERT_TRUE(other.Exec("UPDATE FileStorage SET Info=x'0102' WHERE FileName='target.txt';"));

  // failIfExists true on an existing target: false, nothing changes.
  EXPECT_FALSE(velfsCopyFile(dir, "src.txt", "d/target.txt", true));
  std::string content;
  EXPECT_TRUE(other.ReadRow("target.txt", "d/", &content));
  EXPECT_EQ(content, "old");

  // failIfExists false: the target's Content is replaced; its Info stays.
  EXPECT_TRUE(velfsCopyFile(dir, "src.txt", "d/target.txt", false));
  EXPECT_TRUE(other.ReadRow("target.txt", "d/", &content));
  EXPECT_EQ(content, "source bytes");
  sqlite3_stmt* statement = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(other.db(),
                               "SELECT hex(Info) FROM FileStorage WHERE FileName='target.txt';",
                               -1, &statement, nullptr),
            SQLITE_OK);
  ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
  EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)), "0102");
  sqlite3_finalize(statement);

  // A new target: inserted with the source's bytes.
  EXPECT_TRUE(velfsCopyFile(dir, "src.txt", "e/new.txt", true));
  EXPECT_TRUE(other.ReadRow("new.txt", "e/", &content));
  EXPECT_EQ(content, "source bytes");
  ASSERT_EQ(other.RowCount(), 3);

  // A missing source: false, no row made, with either flag.
  EXPECT_FALSE(velfsCopyFile(dir, "missing.txt", "f/none.txt", false));
  EXPECT_FALSE(velfsCopyFile(dir, "missing.txt", "f/none.txt", true));
  EXPECT_FALSE(other.ReadRow("none.txt", "f/"));
  EXPECT_EQ(other.RowCount(), 3);
  velfsCloseDir(dir);
}

TEST_F(DatabaseStorageTest, P3_1_10_BeginTransTwiceCommitsFirstAndCommitWithoutBeginFails) {
  DirHandle* dir = OpenRoot();
  ASSERT_NE(dir, nullptr);
  DatabaseStorage* storage = DatabaseOf(dir);
  ASSERT_NE(storage, nullptr);
  SecondConnection other(dbPath_);

  // CommitTrans without BeginTrans: false, inTransaction stays false.
  EXPECT_FALSE(velfsCommitTrans(dir));
  EXPECT_FALSE(storage->inTransaction());

  EXPECT_TRUE(velfsBeginTrans(dir));
  EXPECT_TRUE(storage->inTransaction());
  ASSERT_TRUE(PutFile(dir, "first.txt", "1"));
  EXPECT_FALSE(other.ReadRow("first.txt", ""));  // not committed yet

  EXPECT_TRUE(velfsBeginTrans(dir));  // commits the first, opens a second
  EXPECT_TRUE(storage->inTransaction());
  std::string content;
  EXPECT_TRUE(other.ReadRow("first.txt", "", &content));
  EXPECT_EQ(content, "1");
  ASSERT_TRUE(PutFile(dir, "second.txt", "2"));
  EXPECT_FALSE(other.ReadRow("second.txt", ""));  // the second transaction is still open

  EXPECT_TRUE(velfsCommitTrans(dir));
  EXPECT_FALSE(storage->inTransaction());
  EXPECT_TRUE(other.ReadRow("second.txt", "", &content));
  EXPECT_EQ(content, "2");

  EXPECT_FALSE(velfsCommitTrans(dir));  // nothing open any more
  EXPECT_FALSE(storage->inTransaction());
  velfsCloseDir(dir);
}

TEST_F(DatabaseStorageTest, P3_1_11_UncommittedChangesAreLostWhenStorageIsDestroyed) {
  {
    DirHandle* dir = OpenRoot();
    ASSERT_NE(dir, nullptr);
    ASSERT_TRUE(PutFile(dir, "keep.txt", "kept"));
    ASSERT_TRUE(PutFile(dir, "gone.txt", "doomed"));
    velfsCloseDir(dir);
  }
  {
    DirHandle* dir = OpenRoot();
    ASSERT_NE(dir, nullptr);
    ASSERT_TRUE(velfsBeginTrans(dir));
    ASSERT_TRUE(PutFile(dir, "new.txt", "fresh"));
    FileHandle* file = velfsCreateFileIndir(dir, "keep.txt", 3);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(velfsWrite(file, "KE", 2), 2u);  // in place
    velfsCloseFile(file);
    EXPECT_TRUE(velfsDeleteFile(dir, "gone.txt"));
    EXPECT_TRUE(velfsRenameFile(dir, "keep.txt", "renamed.txt"));
    EXPECT_TRUE(Exists(dir, "new.txt"));  // visible inside the transaction
    velfsCloseDir(dir);                   // destroyed without CommitTrans
  }
  SecondConnection other(dbPath_);
  EXPECT_EQ(AllRows(other), (std::vector<std::string>{"|gone.txt=doomed", "|keep.txt=kept"}));
  DirHandle* dir = OpenRoot();
  ASSERT_NE(dir, nullptr);
  EXPECT_FALSE(Exists(dir, "new.txt"));
  EXPECT_TRUE(Exists(dir, "gone.txt"));
  velfsCloseDir(dir);
}

TEST_F(DatabaseStorageTest, P3_1_12_NoBeginOfItsOwnInsideExplicitTransaction) {
  DirHandle* dir = OpenRoot();
  ASSERT_NE(dir, nullptr);
  DatabaseStorage* storage = DatabaseOf(dir);
  ASSERT_NE(storage, nullptr);
  ASSERT_TRUE(PutFile(dir, "old.txt", "0123456789"));
  ASSERT_TRUE(PutFile(dir, "victim.txt", "v"));
  SecondConnection other(dbPath_);
  {  // the recorder detaches from the connection before velfsCloseDir closes it
    StatementRecorder recorder(storage->db());

    // Outside a transaction a write and a delete each run their own BEGIN … COMMIT.
    FileHandle* file = velfsCreateFileIndir(dir, "outside.txt", 1);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(velfsWrite(file, "out", 3), 3u);
    velfsCloseFile(file);
    EXPECT_GE(recorder.Count("BEGIN TRANSACTION;"), 1);
    EXPECT_GE(recorder.Count("COMMIT TRANSACTION;"), 1);
    EXPECT_TRUE(other.ReadRow("outside.txt", ""));

    ASSERT_TRUE(velfsBeginTrans(dir));
    recorder.Clear();
    FileHandle* created = velfsCreateFileIndir(dir, "new.txt", 1);
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(velfsWrite(created, "hello", 5), 5u);    // inserts the row
    EXPECT_EQ(velfsWrite(created, " world", 6), 6u);   // grows from position 5
    FileHandle* existing = velfsCreateFileIndir(dir, "old.txt", 3);
    ASSERT_NE(existing, nullptr);
    EXPECT_EQ(velfsWrite(existing, "AB", 2), 2u);     // in place
    EXPECT_TRUE(velfsResize(existing, 4));
    EXPECT_TRUE(velfsDeleteFile(dir, "victim.txt"));
    velfsCloseFile(created);
    velfsCloseFile(existing);
    for (const std::string& statement : recorder.statements()) {
      EXPECT_EQ(statement.rfind("BEGIN", 0), std::string::npos) << statement;
      EXPECT_EQ(statement.rfind("COMMIT", 0), std::string::npos) << statement;
    }
    EXPECT_FALSE(recorder.statements().empty());  // the operations' own statements ran

    // Nothing of it is visible to another connection before CommitTrans.
    EXPECT_FALSE(other.ReadRow("new.txt", ""));
    std::string content;
    EXPECT_TRUE(other.ReadRow("old.txt", "", &content));
    EXPECT_EQ(content, "0123456789");
    EXPECT_TRUE(other.ReadRow("victim.txt", ""));

    recorder.Clear();
    EXPECT_TRUE(velfsCommitTrans(dir));
    EXPECT_EQ(recorder.statements(), (std::vector<std::string>{"COMMIT TRANSACTION;"}));
    EXPECT_TRUE(other.ReadRow("new.txt", "", &content));
    EXPECT_EQ(content, "hello world");
    EXPECT_TRUE(other.ReadRow("old.txt", "", &content));
    EXPECT_EQ(content, "AB23");
    EXPECT_FALSE(other.ReadRow("victim.txt", ""));
  }
  velfsCloseDir(dir);
}

// ---- Transactions seen from another connection ----

TEST_F(DatabaseStorageTest, ExplicitTransactionIsInvisibleUntilCommit) {
  DirHandle* dir = OpenRoot();
  ASSERT_NE(dir, nullptr);
  ASSERT_TRUE(PutFile(dir, "a/keep.txt", "keep"));
  ASSERT_TRUE(PutFile(dir, "a/drop.txt", "drop"));
  ASSERT_TRUE(PutFile(dir, "a/old.txt", "old"));
  SecondConnection other(dbPath_);
  const std::vector<std::string> before = AllRows(other);

  ASSERT_TRUE(velfsBeginTrans(dir));
  ASSERT_TRUE(PutFile(dir, "a/new.txt", "new"));
  EXPECT_TRUE(velfsDeleteFile(dir, "a/drop.txt"));
  EXPECT_TRUE(velfsRenameFile(dir, "a/old.txt", "a/renamed.txt"));
  EXPECT_TRUE(velfsCopyFile(dir, "a/keep.txt", "b/copy.txt", false));
  EXPECT_TRUE(velfsMoveFile(dir, "a/new.txt", "a/moved.txt", false));
  EXPECT_TRUE(velfsDeleteDirectory(dir, "zzz/"));
  EXPECT_EQ(AllRows(other), before);
  EXPECT_EQ(other.RowCount(), 3);

  EXPECT_TRUE(velfsCommitTrans(dir));
  EXPECT_EQ(AllRows(other),
            (std::vector<std::string>{"a/|keep.txt=keep", "a/|moved.txt=new", "a/|renamed.txt=old",
                                      "b/|copy.txt=keep"}));
  velfsCloseDir(dir);
}

TEST_F(DatabaseStorageTest, ClosingStorageWithOpenTransactionLosesEverything) {
  DirHandle* dir = OpenRoot();
  ASSERT_NE(dir, nullptr);
  ASSERT_TRUE(PutFile(dir, "base.txt", "base"));
  ASSERT_TRUE(velfsBeginTrans(dir));
  ASSERT_TRUE(PutFile(dir, "t1.txt", "one"));
  EXPECT_TRUE(velfsCopyFile(dir, "base.txt", "t2.txt", false));
  EXPECT_TRUE(velfsDeleteFile(dir, "base.txt"));
  velfsCloseDir(dir);
  SecondConnection other(dbPath_);
  EXPECT_EQ(AllRows(other), (std::vector<std::string>{"|base.txt=base"}));
}

TEST_F(DatabaseStorageTest, EachOperationIsItsOwnTransactionOutsideBeginTrans) {
  DirHandle* dir = OpenRoot();
  ASSERT_NE(dir, nullptr);
  SecondConnection other(dbPath_);
  std::string content;

  FileHandle* file = velfsCreateFileIndir(dir, "d/f.txt", 1);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(velfsWrite(file, "abc", 3), 3u);
  EXPECT_TRUE(other.ReadRow("f.txt", "d/", &content));
  EXPECT_EQ(content, "abc");
  EXPECT_EQ(velfsWrite(file, "def", 3), 3u);  // grows
  EXPECT_TRUE(other.ReadRow("f.txt", "d/", &content));
  EXPECT_EQ(content, "abcdef");
  ASSERT_EQ(velfsSeek(file, 1, 0), 1);
  EXPECT_EQ(velfsWrite(file, "X", 1), 1u);  // in place
  EXPECT_TRUE(other.ReadRow("f.txt", "d/", &content));
  EXPECT_EQ(content, "aXcdef");
  EXPECT_TRUE(velfsResize(file, 2));
  EXPECT_TRUE(other.ReadRow("f.txt", "d/", &content));
  EXPECT_EQ(content, "aX");
  velfsCloseFile(file);

  EXPECT_TRUE(velfsCopyFile(dir, "d/f.txt", "d/g.txt", false));
  EXPECT_TRUE(other.ReadRow("g.txt", "d/", &content));
  EXPECT_EQ(content, "aX");
  EXPECT_TRUE(velfsRenameFile(dir, "d/g.txt", "d/h.txt"));
  EXPECT_TRUE(other.ReadRow("h.txt", "d/"));
  EXPECT_FALSE(other.ReadRow("g.txt", "d/"));
  EXPECT_TRUE(velfsMoveFile(dir, "d/h.txt", "e/i.txt", false));
  EXPECT_TRUE(other.ReadRow("i.txt", "e/"));
  EXPECT_FALSE(other.ReadRow("h.txt", "d/"));
  EXPECT_TRUE(velfsDeleteFile(dir, "e/i.txt"));
  EXPECT_FALSE(other.ReadRow("i.txt", "e/"));
  EXPECT_TRUE(velfsDeleteDirectory(dir, "d/"));
  EXPECT_EQ(other.RowCount(), 0);
  // Another connection can take the write lock at once: nothing of ours is left open.
  EXPECT_TRUE(other.Exec("BEGIN EXCLUSIVE; COMMIT;"));
  velfsCloseDir(dir);
}

TEST_F(DatabaseStorageTest, MoveFileRunsCopyThenDelete) {
  DirHandle* dir = OpenRoot();
  ASSERT_NE(dir, nullptr);
  ASSERT_TRUE(PutFile(dir, "a/src.txt", "moving"));
  ASSERT_TRUE(PutFile(dir, "b/taken.txt", "taken"));
  SecondConnection other(dbPath_);
  // failIfExists onto an existing target: false, both unchanged.
  EXPECT_FALSE(velfsMoveFile(dir, "a/src.txt", "b/taken.txt", true));
  EXPECT_EQ(AllRows(other), (std::vector<std::string>{"a/|src.txt=moving", "b/|taken.txt=taken"}));
  // Across directories, overwriting.
  EXPECT_TRUE(velfsMoveFile(dir, "a/src.txt", "b/taken.txt", false));
  EXPECT_EQ(AllRows(other), (std::vector<std::string>{"b/|taken.txt=moving"}));
  // A missing source: false and nothing made.
  EXPECT_FALSE(velfsMoveFile(dir, "a/src.txt", "c/x.txt", false));
  EXPECT_EQ(other.RowCount(), 1);
  velfsCloseDir(dir);
}

TEST_F(DatabaseStorageTest, MoveFileOntoItsOwnPathKeepsTheFile) {
  DirHandle* dir = OpenRoot();
  ASSERT_NE(dir, nullptr);
  ASSERT_TRUE(PutFile(dir, "a/self.txt", "myself"));
  EXPECT_TRUE(velfsMoveFile(dir, "a/self.txt", "a/self.txt", false));
  SecondConnection other(dbPath_);
  std::string content;
  EXPECT_TRUE(other.ReadRow("self.txt", "a/", &content));
  EXPECT_EQ(content, "myself");
  EXPECT_EQ(other.RowCount(), 1);
  EXPECT_TRUE(Exists(dir, "a/self.txt"));
  // With failIfExists the target (the file itself) exists: false, and still kept.
  EXPECT_FALSE(velfsMoveFile(dir, "a/self.txt", "a/self.txt", true));
  EXPECT_TRUE(other.ReadRow("self.txt", "a/", &content));
  EXPECT_EQ(content, "myself");
  // Inside an explicit transaction too.
  ASSERT_TRUE(velfsBeginTrans(dir));
  EXPECT_TRUE(velfsMoveFile(dir, "a/self.txt", "a/self.txt", false));
  EXPECT_TRUE(velfsCommitTrans(dir));
  EXPECT_TRUE(other.ReadRow("self.txt", "a/", &content));
  EXPECT_EQ(content, "myself");
  velfsCloseDir(dir);
}

TEST_F(DatabaseStorageTest, CopyOfEmptyFileStoresNullContent) {
  DirHandle* dir = OpenRoot();
  ASSERT_NE(dir, nullptr);
  FileHandle* file = velfsCreateFileIndir(dir, "empty.txt", 1);
  ASSERT_NE(file, nullptr);
  EXPECT_TRUE(velfsResize(file, 0));  // a row with an empty blob
  velfsCloseFile(file);
  SecondConnection other(dbPath_);
  bool isNull = true;
  ASSERT_TRUE(other.ReadRow("empty.txt", "", nullptr, &isNull));
  EXPECT_FALSE(isNull);
  EXPECT_TRUE(velfsCopyFile(dir, "empty.txt", "copy.txt", false));  // a new target
  isNull = false;
  ASSERT_TRUE(other.ReadRow("copy.txt", "", nullptr, &isNull));
  EXPECT_TRUE(isNull);
  ASSERT_TRUE(PutFile(dir, "full.txt", "full"));
  EXPECT_TRUE(velfsCopyFile(dir, "empty.txt", "full.txt", false));  // an existing target
  isNull = false;
  ASSERT_TRUE(other.ReadRow("full.txt", "", nullptr, &isNull));
  EXPECT_TRUE(isNull);
  velfsCloseDir(dir);
}

// ---- Bad input offered as a root ----

TEST_F(DatabaseStorageTest, RandomBytesFileIsRefusedAndLeftUnchanged) {
  std::mt19937 generator(20240601u);
  std::string bytes(16384, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator() & 0xff);
  ASSERT_NE(bytes.compare(0, 6, "SQLite"), 0);
  WriteHostFile(dbPath_, bytes);
  EXPECT_EQ(velfsOpenDir(dbPath_.c_str()), nullptr);
  EXPECT_EQ(velfsOpenDir((dbPath_ + ":").c_str()), nullptr);
  EXPECT_EQ(velfsCreateEnum((dbPath_ + ":").c_str()), nullptr);
  EXPECT_EQ(DatabaseStorage::Open(dbPath_.c_str()), nullptr);
  EXPECT_EQ(ReadHostFile(dbPath_), bytes);
  EXPECT_FALSE(std::filesystem::exists(dbPath_ + "-journal"));
}

TEST_F(DatabaseStorageTest, TruncatedDatabaseIsRefusedAndLeftUnchanged) {
  // A real database of several pages, made with the library.
  {
    DirHandle* dir = OpenRoot();
    ASSERT_NE(dir, nullptr);
    ASSERT_TRUE(velfsBeginTrans(dir));
    const std::string content(3000, 'z');
    for (int i = 0; i < 40; ++i) {
      ASSERT_TRUE(PutFile(dir, ("dir/file" + std::to_string(i)).c_str(), content));
    }
    ASSERT_TRUE(velfsCommitTrans(dir));
    velfsCloseDir(dir);
  }
  const std::string whole = ReadHostFile(dbPath_);
  ASSERT_GT(whole.size(), 8u * 8192u);
  // SQLite refuses each of these: the header alone (16 bytes, no page size), part of page 1, the
  // first page whole, half the pages (the header counts more pages than the file holds).
  const std::size_t half = whole.size() / 2 / 8192 * 8192;
  for (const std::size_t cut : {std::size_t{16}, std::size_t{50}, std::size_t{100},
                                std::size_t{8192}, half, whole.size() - 8192}) {
    SCOPED_TRACE("truncated to " + std::to_string(cut) + " bytes");
    const std::string path = PathOf("cut" + std::to_string(cut) + ".db");
    const std::string bytes = whole.substr(0, cut);
    WriteHostFile(path, bytes);
    EXPECT_EQ(velfsOpenDir(path.c_str()), nullptr);
    EXPECT_EQ(velfsOpenDir((path + ":").c_str()), nullptr);
    EXPECT_EQ(velfsCreateFile((path + ":dir/file1").c_str(), 0), nullptr);
    EXPECT_EQ(DatabaseStorage::Open(path.c_str()), nullptr);
    EXPECT_EQ(ReadHostFile(path), bytes);
    EXPECT_FALSE(std::filesystem::exists(path + "-journal"));
  }
  // The original is still a good database.
  DirHandle* dir = OpenRoot();
  ASSERT_NE(dir, nullptr);
  EXPECT_TRUE(Exists(dir, "dir/file39"));
  velfsCloseDir(dir);
}

TEST_F(DatabaseStorageTest, PathInMissingDirectoryIsRefused) {
  const std::string path = PathOf("no/such/dir/store.db");
  EXPECT_EQ(velfsOpenDir(path.c_str()), nullptr);
  EXPECT_EQ(DatabaseStorage::Open(path.c_str()), nullptr);
  EXPECT_FALSE(std::filesystem::exists(PathOf("no")));
}

}  // namespace
}  // namespace velfs::testing
