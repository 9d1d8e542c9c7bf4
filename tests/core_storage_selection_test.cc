// Part 1.3: storage selection (OpenStorage, OpenStorageFile, OpenStorageEnum, ReleaseObject), and
// Part 1.4's SplitStoragePath. The cases that need a native directory or a ZIP archive as the
// root are tested with those back-ends.
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "core/split_storage_path.h"
#include "core/storage_selection.h"
#include "core_fakes.h"
#include "database/database_storage.h"
#include "test_support.h"

namespace velfs::testing {
namespace {

using corefakes::EventLog;
using corefakes::RecordingStorage;
using corefakes::ScopedCurrentDirectory;
using Calls = std::vector<std::string>;

class CoreSelectionTest : public ScratchDirTest {
 protected:
  static bool IsDatabase(const std::unique_ptr<Storage>& storage) {
    return dynamic_cast<DatabaseStorage*>(storage.get()) != nullptr;
  }
  // Names of the entries of a listing, sorted (the database gives them in row order).
  static std::set<std::string> Names(StorageEnum& listing) {
    std::set<std::string> names;
    while (listing.MoveNext()) {
      char* name = nullptr;
      if (listing.GetName(&name)) names.insert(name);
      std::free(name);
    }
    return names;
  }
  // Whether the database file holds a table of this name.
  static bool HasTable(const std::string& db, const std::string& table) {
    SecondConnection other(db);
    sqlite3_stmt* statement = nullptr;
    bool found = false;
    if (sqlite3_prepare_v2(other.db(), "SELECT 1 FROM sqlite_master WHERE type='table' AND name=?;",
                           -1, &statement, nullptr) == SQLITE_OK) {
      sqlite3_bind_text(statement, 1, table.c_str(), -1, SQLITE_TRANSIENT);
      found = sqlite3_step(statement) == SQLITE_ROW;
    }
    sqlite3_finalize(statement);
    return found;
  }
  std::set<std::string> ScratchEntries() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_)) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }
};

TEST_F(CoreSelectionTest, P1_3_03_ExistingSqliteFileGivesDatabaseAndGetsTheTable) {
  const std::string db = PathOf("other.sqlite");
  {
    SecondConnection maker(db);
    ASSERT_TRUE(maker.Exec("CREATE TABLE Unrelated (x); INSERT INTO Unrelated VALUES (42);"));
  }
  ASSERT_FALSE(HasTable(db, "FileStorage"));
  std::unique_ptr<Storage> storage = OpenStorage(db.c_str());
  ASSERT_NE(storage, nullptr);
  EXPECT_TRUE(IsDatabase(storage));
  EXPECT_TRUE(HasTable(db, "FileStorage"));
  EXPECT_TRUE(HasTable(db, "Unrelated"));  // the existing content stays
  bool exists = true;
  EXPECT_TRUE(storage->IsDirectoryExist("", &exists));
  EXPECT_FALSE(exists);  // the new table is empty
  storage.reset();
  SecondConnection other(db);
  EXPECT_EQ(other.RowCount(), 0);
}

TEST_F(CoreSelectionTest, P1_3_04_RegularFileThatIsNoDatabaseGivesNull) {
  const std::string text = std::string(2048, 'z') + "\nnot a database\n";
  WriteHostFile(PathOf("notes.txt"), text);
  EXPECT_EQ(OpenStorage(PathOf("notes.txt").c_str()), nullptr);
  EXPECT_EQ(OpenStorage((PathOf("notes.txt") + ":").c_str()), nullptr);
  EXPECT_EQ(ReadHostFile(PathOf("notes.txt")), text);  // untouched
  // A short one too (shorter than an SQLite header).
  WriteHostFile(PathOf("hello.txt"), "hello");
  EXPECT_EQ(OpenStorage(PathOf("hello.txt").c_str()), nullptr);
  EXPECT_EQ(ReadHostFile(PathOf("hello.txt")), "hello");
  EXPECT_EQ(ScratchEntries(), (std::set<std::string>{"notes.txt", "hello.txt"}));  // nothing else
}

TEST_F(CoreSelectionTest, P1_3_05_MissingPathGivesNewDatabaseMissingParentGivesNull) {
  const std::string db = PathOf("fresh.db");
  std::unique_ptr<Storage> storage = OpenStorage(db.c_str());
  ASSERT_NE(storage, nullptr);
  EXPECT_TRUE(IsDatabase(storage));
  EXPECT_TRUE(std::filesystem::is_regular_file(db));
  storage.reset();
  EXPECT_TRUE(HasTable(db, "FileStorage"));

  EXPECT_EQ(OpenStorage(PathOf("no-such-dir/x.db").c_str()), nullptr);
  EXPECT_FALSE(std::filesystem::exists(PathOf("no-such-dir")));
  EXPECT_EQ(ScratchEntries(), (std::set<std::string>{"fresh.db"}));
}

TEST_F(CoreSelectionTest, P1_3_06_EmptyFileBecomesDatabaseStorage) {
  WriteHostFile(PathOf("empty.bin"), "");
  ASSERT_EQ(std::filesystem::file_size(PathOf("empty.bin")), 0u);
  std::unique_ptr<Storage> storage = OpenStorage(PathOf("empty.bin").c_str());
  ASSERT_NE(storage, nullptr);
  EXPECT_TRUE(IsDatabase(storage));
  storage.reset();
  EXPECT_TRUE(HasTable(PathOf("empty.bin"), "FileStorage"));
}

TEST_F(CoreSelectionTest, P1_3_07_DriveLetterIsRelativePath) {
  ScopedCurrentDirectory inScratch(dir_);
  std::unique_ptr<Storage> storage = OpenStorage("C:");
  ASSERT_NE(storage, nullptr);
  EXPECT_TRUE(IsDatabase(storage));
  storage.reset();
  // The database file is C in the current directory; nothing is named C:.
  EXPECT_TRUE(std::filesystem::is_regular_file(PathOf("C")));
  EXPECT_EQ(ScratchEntries(), (std::set<std::string>{"C"}));
  EXPECT_TRUE(HasTable(PathOf("C"), "FileStorage"));
}

TEST_F(CoreSelectionTest, P1_3_08_LoneColonGivesPrivateTemporaryDatabase) {
  ScopedCurrentDirectory inScratch(dir_);
  std::unique_ptr<Storage> first = OpenStorage(":");
  std::unique_ptr<Storage> second = OpenStorage(":");
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_TRUE(IsDatabase(first));
  EXPECT_TRUE(IsDatabase(second));
  // It works as a database, and it is private: the second one does not see the first's file.
  std::unique_ptr<StorageFile> file = OpenStorageFile(first.get(), "a.txt", 1);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->Write("abc", 3), 3u);
  file.reset();
  bool exists = false;
  EXPECT_TRUE(first->IsFileExist("a.txt", &exists));
  EXPECT_TRUE(exists);
  EXPECT_TRUE(second->IsFileExist("a.txt", &exists));
  EXPECT_FALSE(exists);
  first.reset();
  second.reset();
  EXPECT_TRUE(ScratchEntries().empty());  // no file in the current directory
}

TEST_F(CoreSelectionTest, P1_3_09_TwoTrailingColonsLoseOnlyTheLast) {
  const std::string base = PathOf("store.db");
  std::unique_ptr<Storage> storage = OpenStorage((base + "::").c_str());
  ASSERT_NE(storage, nullptr);
  EXPECT_TRUE(IsDatabase(storage));
  storage.reset();
  EXPECT_TRUE(std::filesystem::is_regular_file(base + ":"));
  EXPECT_EQ(ScratchEntries(), (std::set<std::string>{"store.db:"}));
  // And one trailing ':' on an existing database file opens that file.
  {
    std::unique_ptr<Storage> plain = OpenStorage(base.c_str());
    ASSERT_NE(plain, nullptr);
    std::unique_ptr<StorageFile> file = OpenStorageFile(plain.get(), "x", 1);
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(file->Write("1", 1), 1u);
  }
  std::unique_ptr<Storage> colon = OpenStorage((base + ":").c_str());
  ASSERT_NE(colon, nullptr);
  bool exists = false;
  EXPECT_TRUE(colon->IsFileExist("x", &exists));
  EXPECT_TRUE(exists);
  EXPECT_EQ(ScratchEntries(), (std::set<std::string>{"store.db", "store.db:"}));
}

TEST_F(CoreSelectionTest, P1_3_10_EmptyPathFileIsNullWithoutCallEnumListsRoot) {
  RecordingStorage recording(nullptr);
  EXPECT_EQ(OpenStorageFile(&recording, "", 1), nullptr);
  EXPECT_TRUE(recording.calls.empty());  // the storage was not asked
  std::unique_ptr<StorageEnum> fakeListing = OpenStorageEnum(&recording, "");
  EXPECT_NE(fakeListing, nullptr);
  EXPECT_EQ(recording.calls, (Calls{"CreateEnum "}));  // the root: the empty path

  // A database root: the empty path lists the root's files and first-level directories.
  std::unique_ptr<Storage> db = OpenStorage(PathOf("store.db").c_str());
  ASSERT_NE(db, nullptr);
  {
    SecondConnection other(PathOf("store.db"));
    const std::string bytes = "x";
    ASSERT_TRUE(other.InsertRow("top.txt", "", &bytes));
    ASSERT_TRUE(other.InsertRow("deep.txt", "sub/dir/", &bytes));
  }
  EXPECT_EQ(OpenStorageFile(db.get(), "", 0), nullptr);
  std::unique_ptr<StorageEnum> listing = OpenStorageEnum(db.get(), "");
  ASSERT_NE(listing, nullptr);
  EXPECT_EQ(Names(*listing), (std::set<std::string>{"top.txt", "sub/"}));
}

TEST_F(CoreSelectionTest, P1_3_11_ReleaseObjectOfNullReturnsFalse) {
  EXPECT_FALSE(ReleaseObject(nullptr));
  // With an object it destroys it through the virtual destructor and answers true.
  EventLog log;
  auto* storage = new RecordingStorage(&log);
  EXPECT_TRUE(ReleaseObject(storage));
  EXPECT_EQ(log.events, (Calls{"~storage"}));
  EXPECT_TRUE(ReleaseObject(new corefakes::FakeFile(&log)));
  EXPECT_TRUE(ReleaseObject(new corefakes::FakeEnum(&log)));
  EXPECT_EQ(log.events, (Calls{"~storage", "~file", "~enum"}));
}

// Part 1.3: OpenStorageFile and OpenStorageEnum hand the storage a normalised copy, and the mode
// unchanged; null arguments give null without a call.
TEST_F(CoreSelectionTest, OpenStorageFileAndEnumNormaliseAndRefuseNulls) {
  RecordingStorage recording(nullptr);
  const char path[] = "a\\b\\c.txt";
  std::unique_ptr<StorageFile> file = OpenStorageFile(&recording, path, 5);
  EXPECT_NE(file, nullptr);
  std::unique_ptr<StorageEnum> listing = OpenStorageEnum(&recording, "a\\b\\");
  EXPECT_NE(listing, nullptr);
  EXPECT_STREQ(path, "a\\b\\c.txt");
  EXPECT_EQ(OpenStorageFile(&recording, nullptr, 0), nullptr);
  EXPECT_EQ(OpenStorageEnum(&recording, nullptr), nullptr);
  EXPECT_EQ(OpenStorageFile(nullptr, "a", 0), nullptr);
  EXPECT_EQ(OpenStorageEnum(nullptr, ""), nullptr);
  EXPECT_EQ(recording.calls, (Calls{"CreateFile a/b/c.txt 5", "CreateEnum a/b/"}));
}

// Part 1.3 step 1 and failure handling: null and empty paths give null.
TEST_F(CoreSelectionTest, OpenStorageOfNullAndEmptyGivesNull) {
  ScopedCurrentDirectory inScratch(dir_);
  EXPECT_EQ(OpenStorage(nullptr), nullptr);
  EXPECT_EQ(OpenStorage(""), nullptr);
  EXPECT_TRUE(ScratchEntries().empty());
}

// Part 1.3 step 3: backslashes become '/' before the back-ends see the path; two calls give two
// independent storages.
TEST_F(CoreSelectionTest, OpenStorageNormalisesSlashesAndKeepsNoCache) {
  std::string written = PathOf("sub");
  std::filesystem::create_directory(written);
  written += "\\x.db";
  std::unique_ptr<Storage> first = OpenStorage(written.c_str());
  ASSERT_NE(first, nullptr);
  EXPECT_TRUE(std::filesystem::is_regular_file(PathOf("sub/x.db")));
  EXPECT_FALSE(std::filesystem::exists(PathOf("sub\\x.db")));
  std::unique_ptr<Storage> second = OpenStorage(PathOf("sub/x.db").c_str());
  ASSERT_NE(second, nullptr);
  EXPECT_NE(first.get(), second.get());
  EXPECT_TRUE(first->BeginTrans());
  EXPECT_TRUE(second->BeginTrans());  // each has its own connection and transaction
  EXPECT_TRUE(first->CommitTrans());
  EXPECT_TRUE(second->CommitTrans());
}

// Part 1.4 SplitStoragePath: an existing host entry is cut at its last '/'.
TEST_F(CoreSelectionTest, SplitStoragePathCutsExistingHostFileAtLastSlash) {
  WriteHostFile(PathOf("readme.txt"), "r");
  std::string root, inner;
  ASSERT_TRUE(SplitStoragePath(PathOf("readme.txt").c_str(), root, inner));
  EXPECT_EQ(root, PathOf("") + "/");
  EXPECT_EQ(inner, "readme.txt");
  // Written with a backslash before the name: the same cut, after normalisation.
  std::string written = PathOf("readme.txt");
  written[written.rfind('/')] = '\\';
  ASSERT_TRUE(SplitStoragePath(written.c_str(), root, inner));
  EXPECT_EQ(root, PathOf("") + "/");
  EXPECT_EQ(inner, "readme.txt");
  // An existing file whose name holds ':' is still cut at its last '/'.
  WriteHostFile(PathOf("a:b"), "r");
  ASSERT_TRUE(SplitStoragePath(PathOf("a:b").c_str(), root, inner));
  EXPECT_EQ(root, PathOf("") + "/");
  EXPECT_EQ(inner, "a:b");
}

TEST_F(CoreSelectionTest, SplitStoragePathCutsExistingDirectoryAtLastSlash) {
  std::filesystem::create_directory(PathOf("data"));
  std::string root, inner;
  ASSERT_TRUE(SplitStoragePath(PathOf("data").c_str(), root, inner));
  EXPECT_EQ(root, PathOf("") + "/");
  EXPECT_EQ(inner, "data");
  ASSERT_TRUE(SplitStoragePath((PathOf("data") + "/").c_str(), root, inner));
  EXPECT_EQ(root, PathOf("data") + "/");
  EXPECT_EQ(inner, "");
}

TEST_F(CoreSelectionTest, SplitStoragePathCutsEverythingElseAtLastColon) {
  std::string root, inner;
  ASSERT_TRUE(SplitStoragePath("x:y:z", root, inner));
  EXPECT_EQ(root, "x:y:");
  EXPECT_EQ(inner, "z");
  ASSERT_TRUE(SplitStoragePath("C:\\data\\store.db:docs\\a.txt", root, inner));
  EXPECT_EQ(root, "C:/data/store.db:");
  EXPECT_EQ(inner, "docs/a.txt");
  ASSERT_TRUE(SplitStoragePath("C:/data/new.txt", root, inner));
  EXPECT_EQ(root, "C:");
  EXPECT_EQ(inner, "/data/new.txt");
  ASSERT_TRUE(SplitStoragePath("store.db:", root, inner));
  EXPECT_EQ(root, "store.db:");
  EXPECT_EQ(inner, "");
  // A missing path is cut at ':' even when it holds '/' after the last ':'.
  const std::string missing = PathOf("nothing.db") + ":a/b.txt";
  ASSERT_TRUE(SplitStoragePath(missing.c_str(), root, inner));
  EXPECT_EQ(root, PathOf("nothing.db") + ":");
  EXPECT_EQ(inner, "a/b.txt");
}

TEST_F(CoreSelectionTest, SplitStoragePathFailsForEmptyOrUncuttablePath) {
  ScopedCurrentDirectory inScratch(dir_);
  std::string root = "keep-root", inner = "keep-inner";
  EXPECT_FALSE(SplitStoragePath("", root, inner));
  EXPECT_EQ(root, "keep-root");
  EXPECT_EQ(inner, "keep-inner");
  // No ':' in a path that names nothing.
  EXPECT_FALSE(SplitStoragePath(PathOf("nothing/new.txt").c_str(), root, inner));
  EXPECT_FALSE(SplitStoragePath("data/new.txt", root, inner));
  EXPECT_EQ(root, "keep-root");
  EXPECT_EQ(inner, "keep-inner");
}

}  // namespace
}  // namespace velfs::testing
