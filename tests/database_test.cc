// A database root as another SQLite connection sees it: every change is in the database when the
// call returns, a transaction shows its changes at commit, the library holds no lock between
// calls and fails at once, leaving nothing behind, when another connection holds one.
#include "support.h"

namespace velfs_test {
namespace {

class DatabaseTest : public ScratchTest {
 protected:
  void SetUp() override {
    ScratchTest::SetUp();
    db_path_ = PathOf("store.db");
    dir_handle_ = velfsOpenDir(db_path_.c_str());
    ASSERT_NE(dir_handle_, nullptr);
    other_ = std::make_unique<SecondConnection>(db_path_);
  }
  void TearDown() override {
    other_.reset();
    velfsCloseDir(dir_handle_);
    ScratchTest::TearDown();
  }
  bool Put(const std::string& path, const std::string& content) {
    return WriteAndClose(velfsCreateFileIndir(dir_handle_, path.c_str(), 1), content);
  }

  std::string db_path_;
  DirHandle* dir_handle_ = nullptr;
  std::unique_ptr<SecondConnection> other_;
};

// One write or resize on docs/f.txt, opened in a given mode, from a given position: the answer,
// the position, and the row the other connection reads right after the call. No open mode
// empties or positions an existing file, and each writes.
struct ChangeCase {
  const char* what;
  const char* before;  // nullptr: no row
  uint32_t mode;
  int32_t position;
  bool resize;
  std::string bytes;   // written, or for a resize its length is the new size
  uint64_t answer;
  int32_t tell;
  std::string stored;
};

TEST_F(DatabaseTest, WritesAndResizesAreInTheRowWhenTheyReturn) {
  const std::string z = std::string(1, '\0');
  const ChangeCase cases[] = {
      {"first write creates the row", nullptr, 1, 0, false, "hello", 5, 5, "hello"},
      {"empty write creates nothing", nullptr, 0, 0, false, "", 0, 0, "<no row>"},
      {"overwrite in place", "0123456789", 3, 4, false, "xy", 2, 6, "0123xy6789"},
      {"shorter write at 0 keeps the rest", "0123456789", 2, 0, false, "AB", 2, 2, "AB23456789"},
      {"longer write at 0 replaces", "0123456789", 5, 0, false, "abcdefghijkl", 12, 12,
       "abcdefghijkl"},
      {"growing write keeps the head", "abc", 4, 2, false, "WXYZ", 4, 6, "abWXYZ"},
      {"append at the end", "abc", 1, 3, false, "de", 2, 5, "abcde"},
      {"resize grows with zero bytes", "abc", 0, 0, true, "123456", 1, 0, "abc" + z + z + z},
      {"resize shrinks and pulls the position back", "abcdef", 3, 5, true, "12", 1, 2, "ab"},
      {"resize to the same length", "abc", 4, 1, true, "123", 1, 1, "abc"},
      {"resize without a row inserts zeros", nullptr, 1, 0, true, "1234", 1, 0, z + z + z + z},
  };
  for (const ChangeCase& c : cases) {
    SCOPED_TRACE(c.what);
    velfsDeleteFile(dir_handle_, "docs/f.txt");
    if (c.before != nullptr) {
      ASSERT_TRUE(Put("docs/f.txt", c.before));
    }
    FileHandle* file = velfsCreateFileIndir(dir_handle_, "docs/f.txt", c.mode);
    ASSERT_NE(file, nullptr);
    if (c.position != 0) {
      ASSERT_EQ(velfsSeek(file, c.position, 0), c.position);
    }
    const uint64_t answer = c.resize ? velfsResize(file, c.bytes.size())
                                     : velfsWrite(file, c.bytes.data(), c.bytes.size());
    EXPECT_EQ(answer, c.answer);
    EXPECT_EQ(velfsTell(file), c.tell);
    EXPECT_EQ(other_->Content("f.txt", "docs/"), c.stored);
    // The same handle keeps reading and writing after its row was rewritten.
    if (c.stored != "<no row>") {
      ASSERT_EQ(velfsSeek(file, 0, 0), 0);
      EXPECT_EQ(ReadRest(file), c.stored);
      ASSERT_EQ(velfsSeek(file, 0, 0), 0);
      EXPECT_EQ(velfsWrite(file, "#", 1), 1u);
      EXPECT_EQ(other_->Content("f.txt", "docs/"), "#" + c.stored.substr(1));
    }
    velfsCloseFile(file);
  }
}

// A file without a row opens, and is created only when written; a NULL Content is an empty file.
TEST_F(DatabaseTest, MissingAndNullContentFilesAreEmpty) {
  FileHandle* missing = velfsCreateFileIndir(dir_handle_, "missing.txt", 0);
  ASSERT_NE(missing, nullptr);
  char byte;
  EXPECT_EQ(velfsRead(missing, &byte, 1), 0u);
  EXPECT_TRUE(velfsError(missing));
  EXPECT_EQ(velfsSeek(missing, 0, 0), -1);
  velfsCloseFile(missing);
  EXPECT_EQ(other_->Content("missing.txt", ""), "<no row>");
  ASSERT_TRUE(other_->Exec("INSERT INTO FileStorage (FileName, Path) VALUES ('null.txt', '')"));
  FileHandle* empty = velfsCreateFileIndir(dir_handle_, "null.txt", 0);
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(velfsRead(empty, &byte, 1), 0u);
  EXPECT_TRUE(velfsError(empty));
  EXPECT_EQ(velfsSeek(empty, 0, 0), 0);
  EXPECT_EQ(velfsWrite(empty, "x", 1), 1u);
  velfsCloseFile(empty);
  EXPECT_EQ(other_->Content("null.txt", ""), "x");
}

TEST_F(DatabaseTest, ATransactionShowsItsChangesAtCommitAndLosesThemWhenNeverCommitted) {
  ASSERT_TRUE(Put("kept.txt", "kept"));
  EXPECT_FALSE(velfsCommitTrans(dir_handle_));  // none open
  ASSERT_TRUE(velfsBeginTrans(dir_handle_));
  ASSERT_TRUE(Put("a.txt", "first"));
  ASSERT_TRUE(velfsDeleteFile(dir_handle_, "kept.txt"));
  EXPECT_EQ(other_->Content("a.txt", ""), "<no row>");
  EXPECT_EQ(other_->Content("kept.txt", ""), "kept");
  ASSERT_TRUE(velfsBeginTrans(dir_handle_));  // a second begin commits the first transaction
  EXPECT_EQ(other_->Content("a.txt", ""), "first");
  EXPECT_EQ(other_->Content("kept.txt", ""), "<no row>");
  ASSERT_TRUE(Put("b.txt", "second"));
  ASSERT_TRUE(velfsCopyFile(dir_handle_, "a.txt", "c.txt", true));
  EXPECT_EQ(other_->Content("b.txt", ""), "<no row>");
  EXPECT_TRUE(velfsCommitTrans(dir_handle_));
  EXPECT_EQ(other_->Content("b.txt", ""), "second");
  EXPECT_EQ(other_->Content("c.txt", ""), "first");
  EXPECT_FALSE(velfsCommitTrans(dir_handle_));

  ASSERT_TRUE(velfsBeginTrans(dir_handle_));
  ASSERT_TRUE(Put("lost.txt", "lost"));
  velfsCloseDir(dir_handle_);
  dir_handle_ = velfsOpenDir(db_path_.c_str());
  ASSERT_NE(dir_handle_, nullptr);
  EXPECT_EQ(other_->Content("lost.txt", ""), "<no row>");
  EXPECT_EQ(other_->RowCount(), 3);
}

// Between calls the library holds no lock, with files and a listing open: another connection
// takes an exclusive one. While another holds a lock, every change fails at once.
TEST_F(DatabaseTest, AHeldLockFailsChangesAtOnceAndLeavesNothingPending) {
  ASSERT_TRUE(Put("a.txt", "alpha"));
  FileHandle* existing = velfsCreateFileIndir(dir_handle_, "a.txt", 3);
  FileHandle* created = velfsCreateFileIndir(dir_handle_, "new.txt", 1);
  EnumHandle* listing = velfsCreateEnumIndir(dir_handle_, "");
  ASSERT_NE(existing, nullptr);
  ASSERT_NE(created, nullptr);
  ASSERT_TRUE(velfsMoveNext(listing));
  ASSERT_EQ(velfsSeek(existing, 0, 2), 5);
  EXPECT_TRUE(other_->Exec("BEGIN EXCLUSIVE; INSERT INTO FileStorage VALUES ('b.txt', '', "
                           "x'627261766F', NULL); COMMIT;"));
  EXPECT_EQ(ReadFullPath(db_path_ + ":b.txt"), "bravo");
  for (const char* lock : {"BEGIN; SELECT count(*) FROM FileStorage;", "BEGIN IMMEDIATE;"}) {
    SCOPED_TRACE(lock);
    ASSERT_TRUE(other_->Exec(lock));
    EXPECT_EQ(velfsWrite(created, "new", 3), 0u);
    EXPECT_EQ(velfsTell(created), 0);
    EXPECT_EQ(velfsWrite(existing, "++", 2), 0u);
    EXPECT_EQ(velfsTell(existing), 5);
    EXPECT_FALSE(velfsResize(existing, 1));
    EXPECT_FALSE(velfsDeleteFile(dir_handle_, "b.txt"));
    EXPECT_FALSE(velfsCopyFile(dir_handle_, "a.txt", "copy.txt", false));
    EXPECT_FALSE(velfsRenameFile(dir_handle_, "b.txt", "c.txt"));
    ASSERT_TRUE(velfsSeek(existing, 0, 0) == 0);
    EXPECT_EQ(ReadRest(existing), "alpha");  // reads still work
    ASSERT_TRUE(other_->Exec("COMMIT;"));
    EXPECT_EQ(other_->RowCount(), 2);
    EXPECT_TRUE(other_->Exec("BEGIN EXCLUSIVE; COMMIT;"));  // nothing of ours left pending
  }
  EXPECT_EQ(velfsWrite(created, "new", 3), 3u);
  EXPECT_EQ(other_->Content("new.txt", ""), "new");
  ASSERT_TRUE(velfsBeginTrans(dir_handle_));
  EXPECT_EQ(velfsWrite(existing, "!", 1), 1u);
  ASSERT_TRUE(other_->Exec("BEGIN; SELECT count(*) FROM FileStorage;"));
  EXPECT_FALSE(velfsCommitTrans(dir_handle_));  // the other's read lock blocks the commit
  ASSERT_TRUE(other_->Exec("COMMIT;"));
  EXPECT_TRUE(velfsCommitTrans(dir_handle_));  // still open: a later commit ends it
  EXPECT_EQ(other_->Content("a.txt", ""), "alpha!");
  velfsCloseFile(created);
  velfsCloseFile(existing);
  velfsCloseEnum(listing);
}

// Directory tests and deletions match the Path column with LIKE: a prefix, ASCII letters in
// either case, '_' as any one character.
TEST_F(DatabaseTest, DirectoriesAreThePrefixesOfStoredPaths) {
  const char* files[] = {"a/b/1", "a/b/c/2", "a/bc/3", "a/x/4", "axb/5", "A/B/6", "top"};
  struct Case {
    const char* deleted;
    int left;  // rows left of the seven
    const char *survivorName, *survivorPath;  // one row that must stay
  };
  const Case cases[] = {
      {"a/b", 3, "4", "a/x/"},  {"a/b/", 4, "3", "a/bc/"}, {"A/B/", 4, "4", "a/x/"},
      {"a_b/", 3, "3", "a/bc/"}, {"a/x/4", 7, "4", "a/x/"}, {"", 0, "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.deleted);
    ASSERT_TRUE(other_->Exec("DELETE FROM FileStorage"));
    for (const char* file : files) {
      ASSERT_TRUE(Put(file, file));
    }
    bool exists = false;
    ASSERT_TRUE(velfsIsDirectoryExist(dir_handle_, c.deleted, &exists));
    EXPECT_EQ(exists, c.left != 7);
    EXPECT_TRUE(velfsDeleteDirectory(dir_handle_, c.deleted));
    EXPECT_EQ(other_->RowCount(), c.left);
    if (*c.survivorName != '\0') {
      EXPECT_NE(other_->Content(c.survivorName, c.survivorPath), "<no row>");
    }
  }
  for (const char* file : files) {
    ASSERT_TRUE(Put(file, file));
  }
  EnumHandle* listing = velfsCreateEnumIndir(dir_handle_, "a/");
  ASSERT_TRUE(Put("a/late.txt", "late"));  // a listing is fixed when it is made
  // A/B/6 matches a/ only in letter case: its next segment shows as a directory.
  EXPECT_EQ(Listing(listing), (std::map<std::string, bool>{
                                  {"a/b/", true}, {"a/bc/", true}, {"a/x/", true}, {"a/B/", true}}));
}

// A listing comes in the order of the rows that reveal its entries, each directory once, across
// many directories, long names, a file whose name ends in '/', a NULL FileName and a Path that
// matches only without letter case. The rows are inserted in key order, so the table and its key
// index return them alike. Listing again, or another directory between, sees the rows of then.
TEST_F(DatabaseTest, ListingsKeepRowOrderAndGiveEachDirectoryOnce) {
  const std::string longName(70, 'n'), longDirectory(70, 'L');
  std::vector<std::pair<std::string, std::string>> rows = {
      {"a", "d/"}, {"b", "d/s1/"}, {"c", "D/"}, {"c", "D/s2/x/"}, {"e", "d/s1/t/"},
      {"f" + longName, "d/"}, {"g", "d/" + longDirectory + "/"}, {"h", "d/s1/"}};
  std::vector<std::pair<std::string, bool>> expected = {
      {"d/a", false}, {"d/s1/", true}, {"d/s2/", true}, {"d/f" + longName, false},
      {"d/" + longDirectory + "/", true}};
  for (int k = 100; k < 140; ++k) {  // more directories than the first table holds
    rows.push_back({"k" + std::to_string(k), "d/m" + std::to_string(k) + "/"});
    expected.push_back({"d/m" + std::to_string(k) + "/", true});
  }
  rows.insert(rows.end(), {{"t/", "d/"}, {"u", "d/t/"}, {"z", "d/m120/y/"}, {"z", "d/m139/"}});
  expected.push_back({"d/t/", false});
  ASSERT_TRUE(other_->Exec("INSERT INTO FileStorage VALUES (NULL, 'd/s9/', NULL, NULL)"));
  for (const auto& [fileName, path] : rows) {
    ASSERT_TRUE(other_->Exec("INSERT INTO FileStorage VALUES ('" + fileName + "', '" + path +
                             "', NULL, NULL)"));
  }
  for (int pass = 0; pass < 2; ++pass) {
    EnumHandle* listing = velfsCreateEnumIndir(dir_handle_, "d");
    ASSERT_NE(listing, nullptr);
    std::vector<std::pair<std::string, bool>> entries;
    while (velfsMoveNext(listing)) {
      char* name = nullptr;
      ASSERT_TRUE(velfsGetFullName(listing, &name));
      entries.push_back({Take(name), velfsIsDirectory(listing)});
    }
    velfsCloseEnum(listing);
    EXPECT_EQ(entries, expected);
    EXPECT_EQ(Listing(velfsCreateEnumIndir(dir_handle_, "")),
              (std::map<std::string, bool>{{"d/", true}, {"D/", true}}));
    ASSERT_TRUE(Put("d/zz", "late"));
    expected.push_back({"d/zz", false});
  }
}

TEST_F(DatabaseTest, RenameCopyAndMoveAnswerAsTheRowsAllow) {
  struct Case {
    char call;  // 'r' rename, 'c' copy, 'm' move
    const char *from, *to;
    bool failIfExists, answer;
    const char *a, *y, *z;  // the contents of a/x, a/y and b/z afterwards
  };
  const char* none = "<no row>";
  const Case cases[] = {
      {'r', "a/x", "a/n", false, true, none, "y", none},  // in its directory
      {'r', "a/x", "b/x", false, false, "x", "y", none},  // to another directory
      {'r', "a/x", "a/y", false, false, "x", "y", none},  // onto an existing file
      {'r', "a/q", "a/r", false, true, "x", "y", none},   // a missing file
      {'c', "a/x", "b/z", true, true, "x", "y", "x"},
      {'c', "a/x", "a/y", false, true, "x", "x", none},   // over an existing file
      {'c', "a/x", "a/y", true, false, "x", "y", none},   // refused over an existing file
      {'c', "a/q", "b/z", false, false, "x", "y", none},  // a missing file
      {'m', "a/x", "b/z", true, true, none, "y", "x"},
      {'m', "a/x", "a/y", true, false, "x", "y", none},   // refused over an existing file
      {'c', "a\\x", "b\\z", true, true, "x", "y", "x"},  // backslashes are separators
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(1, c.call) + " " + c.from + " " + c.to);
    ASSERT_TRUE(other_->Exec("DELETE FROM FileStorage"));
    ASSERT_TRUE(Put("a/x", "x"));
    ASSERT_TRUE(Put("a/y", "y"));
    EXPECT_EQ(c.call == 'r'   ? velfsRenameFile(dir_handle_, c.from, c.to)
              : c.call == 'c' ? velfsCopyFile(dir_handle_, c.from, c.to, c.failIfExists)
                              : velfsMoveFile(dir_handle_, c.from, c.to, c.failIfExists),
              c.answer);
    EXPECT_EQ(other_->Content("x", "a/"), c.a);
    EXPECT_EQ(other_->Content("y", "a/"), c.y);
    EXPECT_EQ(other_->Content("z", "b/"), c.z);
  }
}

using HostileDatabaseTest = ScratchTest;

// Databases made by someone else. A "FileStorage" that is not an ordinary table with the columns
// FileName, Path and Content means the file is not a velFS database: both opens decline it and
// leave it as it was. A table with a trigger opens, and the trigger never fires through velFS.
TEST_F(HostileDatabaseTest, ASchemaThatIsNotAPlainFileTableIsDeclinedAndNeverRun) {
  const std::string table =
      "CREATE TABLE FileStorage (FileName text, Path text, Content blob, Info blob, "
      "primary key(FileName, Path)); CREATE TABLE Log (x);";
  struct Case {
    const char* what;
    std::string schema;
    bool opens;
  };
  const Case cases[] = {
      {"a recursive view",
       "CREATE VIEW FileStorage AS WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM "
       "n) SELECT 'f' || x AS FileName, '' AS Path, zeroblob(1000) AS Content, NULL AS Info "
       "FROM n;",
       false},
      {"no Content column", "CREATE TABLE FileStorage (FileName text, Path text, Info blob);",
       false},
      {"a virtual table", "CREATE VIRTUAL TABLE FileStorage USING fts5(FileName, Path, Content);",
       false},
      {"a trigger on the table",
       table + "CREATE TRIGGER Spy AFTER INSERT ON FileStorage BEGIN "
               "INSERT INTO Log VALUES (new.FileName); END;",
       true},
      {"a recursive view beside the table",
       table + "CREATE VIEW Endless AS WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 "
               "FROM n) SELECT x FROM n;",
       true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string path = PathOf("hostile.db");
    std::filesystem::remove(path);
    {
      SecondConnection maker(path);
      if (!maker.Exec(c.schema)) {  // fts5 is an optional module, missing from some SQLite builds
        ASSERT_NE(c.schema.find("fts5"), std::string::npos);
        continue;
      }
    }
    const std::string bytes = ReadHostFile(path);
    for (DirHandle* (*open)(const char*) : {&velfsOpenDirReadOnly, &velfsOpenDir}) {
      DirHandle* dir = open(path.c_str());
      ASSERT_EQ(dir != nullptr, c.opens);
      if (dir == nullptr) {
        EXPECT_EQ(ReadHostFile(path), bytes);
        continue;
      }
      EXPECT_TRUE(Listing(velfsCreateEnumIndir(dir, "")).empty());
      FileHandle* file = velfsCreateFileIndir(dir, "a.txt", 1);
      EXPECT_EQ(velfsWrite(file, "abc", 3), open == &velfsOpenDir ? 3u : 0u);
      velfsCloseFile(file);
      velfsCloseDir(dir);
    }
    if (c.opens) {
      SecondConnection check(path);
      EXPECT_EQ(check.Content("a.txt", ""), "abc");
      EXPECT_EQ(check.Rows("SELECT count(*) FROM Log").begin()->first, "0");  // no trigger ran
    }
  }
}

}  // namespace
}  // namespace velfs_test
