// Part 3.3: DatabaseEnum — listings derived from the rows' Path values, through the exported
// enumeration functions, with rows put in place by an independent SQLite connection.
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "database_test_support.h"
#include "test_support.h"
#include "velfs.h"

namespace velfs::testing {
namespace {

class DatabaseEnumTest : public DatabaseScratchTest {
 protected:
  void SetUp() override {
    DatabaseScratchTest::SetUp();
    dbPath_ = PathOf("store.db");
    dir_handle_ = velfsOpenDir(dbPath_.c_str());
    ASSERT_NE(dir_handle_, nullptr);
  }
  void TearDown() override {
    velfsCloseDir(dir_handle_);
    DatabaseScratchTest::TearDown();
  }

  std::string dbPath_;
  DirHandle* dir_handle_ = nullptr;
};

// The listing of `directory` as Part 3.3 derives it from the rows in the order in which
// SQLite returns them to the listing's own query (run here by `other`).
std::vector<ListedEntry> ExpectedListing(SecondConnection& other, std::string directory) {
  if (!directory.empty() && directory.back() != '/') directory += '/';
  std::vector<ListedEntry> entries;
  std::set<std::string> seen;
  sqlite3_stmt* statement = nullptr;
  const std::string pattern = directory + "%";
  EXPECT_EQ(sqlite3_prepare_v2(other.db(),
                               "SELECT FileName, Path from FileStorage where Path like ?;", -1,
                               &statement, nullptr),
            SQLITE_OK);
  sqlite3_bind_text(statement, 1, pattern.c_str(), -1, SQLITE_TRANSIENT);
  while (sqlite3_step(statement) == SQLITE_ROW) {
    const std::string name = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
    const std::string path = reinterpret_cast<const char*>(sqlite3_column_text(statement, 1));
    if (path == directory) {
      entries.push_back({name, directory + name, false});
      seen.insert(name);
      continue;
    }
    const std::string rest = path.substr(directory.size());
    const std::string segment = rest.substr(0, rest.find('/') + 1);
    if (seen.insert(segment).second) entries.push_back({segment, directory + segment, true});
  }
  sqlite3_finalize(statement);
  return entries;
}

std::vector<std::string> Names(const std::vector<ListedEntry>& entries) {
  std::vector<std::string> names;
  for (const ListedEntry& entry : entries) names.push_back(entry.name);
  return names;
}

std::vector<std::string> Sorted(std::vector<std::string> names) {
  std::sort(names.begin(), names.end());
  return names;
}

// ---- Edge cases of Part 3.3 ----

TEST_F(DatabaseEnumTest, P3_3_01_ListsFilesAndImmediateSubdirectoriesOnceEach) {
  SecondConnection other(dbPath_);
  InsertPaths(other, {"a/x", "a/y", "a/b/1", "a/b/2", "a/b/c/3", "a/d/4", "other/z", "ab/q"});
  const std::vector<ListedEntry> expected = ExpectedListing(other, "a/");
  ASSERT_EQ(Sorted(Names(expected)), (std::vector<std::string>{"b/", "d/", "x", "y"}));
  for (const char* path : {"a", "a/"}) {
    SCOPED_TRACE(path);
    EnumHandle* listing = velfsCreateEnumIndir(dir_handle_, path);
    ASSERT_NE(listing, nullptr);
    // The placeholder before the first entry.
    char* name = nullptr;
    EXPECT_TRUE(velfsGetName(listing, &name));
    EXPECT_EQ(TakeName(name), "");
    EXPECT_FALSE(velfsIsDirectory(listing));
    const std::vector<ListedEntry> entries = Walk(listing);
    EXPECT_EQ(entries, expected);  // each once, in the order of the first row revealing it
    EXPECT_EQ(entries.size(), 4u);
    velfsCloseEnum(listing);
  }
}

TEST_F(DatabaseEnumTest, P3_3_02_NamesOfDirectoryAndFileEntries) {
  SecondConnection other(dbPath_);
  InsertPaths(other, {"a/x", "a/b/1"});
  for (const char* path : {"a", "a/"}) {
    SCOPED_TRACE(path);
    const std::vector<ListedEntry> entries = List(dir_handle_, path);
    const ListedEntry dirB{"b/", "a/b/", true};
    const ListedEntry fileX{"x", "a/x", false};
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_NE(std::find(entries.begin(), entries.end(), dirB), entries.end());
    EXPECT_NE(std::find(entries.begin(), entries.end(), fileX), entries.end());
  }
}

TEST_F(DatabaseEnumTest, P3_3_03_RootListsEmptyPathRowsAsFilesAndFirstSegmentsAsDirectories) {
  SecondConnection other(dbPath_);
  InsertPaths(other, {"r1", "r2", "top/sub/f", "top/g", "/slash", "other/h"});
  const std::vector<ListedEntry> entries = List(dir_handle_, "");
  EXPECT_EQ(entries, ExpectedListing(other, ""));
  std::vector<ListedEntry> sorted = entries;
  std::sort(sorted.begin(), sorted.end(),
            [](const ListedEntry& l, const ListedEntry& r) { return l.name < r.name; });
  EXPECT_EQ(sorted, (std::vector<ListedEntry>{{"/", "/", true},
                                              {"other/", "other/", true},
                                              {"r1", "r1", false},
                                              {"r2", "r2", false},
                                              {"top/", "top/", true}}));
}

TEST_F(DatabaseEnumTest, P3_3_04_ListingWithoutRowsSucceedsEmpty) {
  EnumHandle* listing = velfsCreateEnumIndir(dir_handle_, "");  // an empty table
  ASSERT_NE(listing, nullptr);
  EXPECT_FALSE(velfsMoveNext(listing));
  EXPECT_FALSE(velfsMoveNext(listing));
  velfsCloseEnum(listing);
  SecondConnection other(dbPath_);
  InsertPaths(other, {"a/x"});
  listing = velfsCreateEnumIndir(dir_handle_, "nothing/here");
  ASSERT_NE(listing, nullptr);
  EXPECT_FALSE(velfsMoveNext(listing));
  char* name = nullptr;
  EXPECT_FALSE(velfsGetName(listing, &name));  // at the end
  EXPECT_EQ(name, nullptr);
  velfsCloseEnum(listing);
}

TEST_F(DatabaseEnumTest, P3_3_05_RowForPathEndingInSlashIsFileWithEmptyName) {
  ASSERT_TRUE(PutFile(dir_handle_, "d/", "slash"));
  SecondConnection other(dbPath_);
  std::string content;
  ASSERT_TRUE(other.ReadRow("", "d/", &content));
  EXPECT_EQ(content, "slash");
  EXPECT_EQ(List(dir_handle_, "d"), (std::vector<ListedEntry>{{"", "d/", false}}));
  EXPECT_EQ(List(dir_handle_, ""), (std::vector<ListedEntry>{{"d/", "d/", true}}));
}

TEST_F(DatabaseEnumTest, P3_3_06_ResetAfterEndStartsOver) {
  SecondConnection other(dbPath_);
  InsertPaths(other, {"a/x", "a/y", "a/b/1"});
  EnumHandle* listing = velfsCreateEnumIndir(dir_handle_, "a");
  ASSERT_NE(listing, nullptr);
  const std::vector<ListedEntry> first = Walk(listing);
  ASSERT_EQ(first.size(), 3u);
  EXPECT_FALSE(velfsMoveNext(listing));  // stays at the end
  velfsReset(listing);
  ASSERT_TRUE(velfsMoveNext(listing));
  char* name = nullptr;
  ASSERT_TRUE(velfsGetName(listing, &name));
  EXPECT_EQ(TakeName(name), first[0].name);
  velfsReset(listing);
  EXPECT_EQ(Walk(listing), first);
  velfsCloseEnum(listing);
}

TEST_F(DatabaseEnumTest, P3_3_07_RowsAddedAfterBuildAreNotSeen) {
  SecondConnection other(dbPath_);
  InsertPaths(other, {"a/x"});
  EnumHandle* listing = velfsCreateEnumIndir(dir_handle_, "a/");
  ASSERT_NE(listing, nullptr);
  ASSERT_TRUE(PutFile(dir_handle_, "a/y", "y"));  // through the same storage
  InsertPaths(other, {"a/z", "a/sub/w"});             // through another connection
  EXPECT_EQ(Walk(listing), (std::vector<ListedEntry>{{"x", "a/x", false}}));
  velfsReset(listing);
  EXPECT_EQ(Names(Walk(listing)), (std::vector<std::string>{"x"}));
  velfsCloseEnum(listing);
  EXPECT_EQ(Sorted(Names(List(dir_handle_, "a/"))),
            (std::vector<std::string>{"sub/", "x", "y", "z"}));
}

// Part 3.3: the LIKE pattern ignores ASCII case and reads '_' as a wildcard; rows it matches only
// so give their next segment as a subdirectory, while their files (exact match) are not listed.
TEST_F(DatabaseEnumTest, RowsMatchedOnlyByLikeGiveSubdirectoriesButNoFiles) {
  SecondConnection other(dbPath_);
  InsertPaths(other, {"a/real", "A/upper", "A/B/deep", "ab/wild", "ab/c/deeper"});
  std::vector<ListedEntry> entries = List(dir_handle_, "a/");
  EXPECT_EQ(entries.size(), 2u);
  EXPECT_NE(std::find(entries.begin(), entries.end(), ListedEntry{"real", "a/real", false}),
            entries.end());
  EXPECT_NE(std::find(entries.begin(), entries.end(), ListedEntry{"B/", "a/B/", true}),
            entries.end());
  entries = List(dir_handle_, "a_/");
  EXPECT_EQ(entries, (std::vector<ListedEntry>{{"c/", "a_/c/", true}}));
}

// ---- Rows this library never writes, and large listings ----

TEST_F(DatabaseEnumTest, RowsWithNullFileNameOrPathAreSkipped) {
  SecondConnection other(dbPath_);
  InsertPaths(other, {"a/x", "root.txt"});
  ASSERT_TRUE(other.Exec(
      "INSERT INTO FileStorage (FileName, Path, Content) VALUES (NULL, 'a/', x'01');"
      "INSERT INTO FileStorage (FileName, Path, Content) VALUES (NULL, 'a/hidden/', x'02');"
      "INSERT INTO FileStorage (FileName, Path, Content) VALUES ('nopath', NULL, x'03');"
      "INSERT INTO FileStorage (FileName, Path, Content) VALUES (NULL, NULL, x'04');"));
  ASSERT_EQ(other.RowCount(), 6);
  EXPECT_EQ(List(dir_handle_, "a/"), (std::vector<ListedEntry>{{"x", "a/x", false}}));
  const std::vector<ListedEntry> root = List(dir_handle_, "");
  EXPECT_EQ(Sorted(Names(root)), (std::vector<std::string>{"a/", "root.txt"}));
  EXPECT_EQ(List(dir_handle_, "a/hidden/"), std::vector<ListedEntry>{});
}

TEST_F(DatabaseEnumTest, ManyImmediateSubdirectoriesAreEachListedOnce) {
  constexpr int kDirectories = 20000;
  {
    SecondConnection other(dbPath_);
    ASSERT_TRUE(other.Exec("BEGIN;"));
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(
                  other.db(),
                  "INSERT INTO FileStorage (FileName, Path, Content) VALUES (?, ?, x'00');", -1,
                  &statement, nullptr),
              SQLITE_OK);
    char path[64];
    for (int i = 0; i < kDirectories; ++i) {
      std::snprintf(path, sizeof path, "big/d%05d/", i);
      for (const char* name : {"one", "two"}) {  // two rows per subdirectory
        sqlite3_bind_text(statement, 1, name, -1, SQLITE_STATIC);
        sqlite3_bind_text(statement, 2, path, -1, SQLITE_TRANSIENT);
        ASSERT_EQ(sqlite3_step(statement), SQLITE_DONE);
        sqlite3_reset(statement);
      }
    }
    sqlite3_finalize(statement);
    std::snprintf(path, sizeof path, "big/d%05d/deeper/", 7);
    ASSERT_TRUE(other.InsertRow("three", path, nullptr));
    ASSERT_TRUE(other.InsertRow("file", "big/", nullptr));
    ASSERT_TRUE(other.Exec("COMMIT;"));
  }
  const std::vector<ListedEntry> entries = List(dir_handle_, "big");
  ASSERT_EQ(entries.size(), static_cast<std::size_t>(kDirectories) + 1);
  std::set<std::string> directories;
  int files = 0;
  for (const ListedEntry& entry : entries) {
    if (entry.isDirectory) {
      EXPECT_EQ(entry.fullName, "big/" + entry.name);
      directories.insert(entry.name);
    } else {
      EXPECT_EQ(entry.name, "file");
      ++files;
    }
  }
  EXPECT_EQ(files, 1);
  EXPECT_EQ(directories.size(), static_cast<std::size_t>(kDirectories));
  EXPECT_EQ(directories.count("d00000/"), 1u);
  EXPECT_EQ(directories.count("d19999/"), 1u);
}

}  // namespace
}  // namespace velfs::testing
