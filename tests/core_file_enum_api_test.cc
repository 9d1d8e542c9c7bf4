// Part 1.4: the file and enumeration functions, over database roots and over the test doubles of
// core_fakes.h. The cases that need a native directory root (an existing host file or directory
// as the full path) or a ZIP archive are tested with those back-ends.
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "core/handle_records.h"
#include "core/storage_selection.h"
#include "core_fakes.h"
#include "database/database_storage.h"
#include "test_support.h"
#include "velfs.h"

namespace velfs::testing {
namespace {

using corefakes::EventLog;
using corefakes::FakeFile;
using corefakes::NewDirHandle;
using corefakes::RecordingStorage;
using corefakes::ScopedCurrentDirectory;
using Events = std::vector<std::string>;

class CoreFileApiTest : public ScratchDirTest {
 protected:
  // Creates the database file with its table and the given rows (FileName, Path, Content).
  void MakeDatabase(const std::string& db,
                    const std::vector<std::vector<std::string>>& rows = {}) {
    std::unique_ptr<Storage> storage = OpenStorage(db.c_str());
    ASSERT_NE(storage, nullptr);
    storage.reset();
    SecondConnection other(db);
    for (const auto& row : rows) ASSERT_TRUE(other.InsertRow(row[0], row[1], &row[2]));
  }
  static std::set<std::string> Names(EnumHandle* listing) {
    std::set<std::string> names;
    while (velfsMoveNext(listing)) {
      char* name = nullptr;
      if (velfsGetName(listing, &name)) names.insert(name);
      std::free(name);
    }
    return names;
  }
  std::set<std::string> ScratchEntries() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_)) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }
  static std::string ReadAll(FileHandle* file) {
    std::string text(64, '\0');
    text.resize(velfsRead(file, text.data(), text.size()));
    return text;
  }
};

// The database half; the same form over a ZIP file is tested with the archive back-end.
TEST_F(CoreFileApiTest, P1_4_02_ContainerPathCutAtLastColonOpensDatabaseFile) {
  const std::string db = PathOf("store.db");
  MakeDatabase(db);
  FileHandle* file = velfsCreateFile((db + ":docs/a.txt").c_str(), 1);
  ASSERT_NE(file, nullptr);
  ObjectHandle* record = Record(file);
  ASSERT_NE(record->dir, nullptr);
  EXPECT_TRUE(record->ownsDir);
  EXPECT_EQ(record->dir->rootPath, db + ":");
  EXPECT_NE(dynamic_cast<DatabaseStorage*>(record->dir->storage.get()), nullptr);
  EXPECT_EQ(velfsWrite(file, "hello", 5), 5u);
  velfsCloseFile(file);
  SecondConnection other(db);
  std::string content;
  ASSERT_TRUE(other.ReadRow("a.txt", "docs/", &content));  // the file docs/a.txt of the database
  EXPECT_EQ(content, "hello");
  EXPECT_EQ(other.RowCount(), 1);
  // Read back through a second full path, written with a backslash.
  FileHandle* reader = velfsCreateFile((db + ":docs\\a.txt").c_str(), 0);
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(ReadAll(reader), "hello");
  velfsCloseFile(reader);
  EXPECT_EQ(ScratchEntries(), (std::set<std::string>{"store.db"}));
}

TEST_F(CoreFileApiTest, P1_4_03_MissingHostFileIsCutAtDriveLetterColon) {
  ScopedCurrentDirectory inScratch(dir_);
  FileHandle* file = velfsCreateFile("C:/data/new.txt", 1);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(Record(file)->dir->rootPath, "C:");
  EXPECT_EQ(velfsWrite(file, "new", 3), 3u);
  velfsCloseFile(file);
  // The root C: became the relative database file C; the inner path /data/new.txt its row.
  EXPECT_EQ(ScratchEntries(), (std::set<std::string>{"C"}));
  SecondConnection other(PathOf("C"));
  std::string content;
  ASSERT_TRUE(other.ReadRow("new.txt", "/data/", &content));
  EXPECT_EQ(content, "new");
  EXPECT_EQ(other.RowCount(), 1);
}

TEST_F(CoreFileApiTest, P1_4_04_PathWithoutColonNamingNothingGivesNull) {
  ScopedCurrentDirectory inScratch(dir_);
  EXPECT_EQ(velfsCreateFile("data/new.txt", 1), nullptr);
  EXPECT_EQ(velfsCreateFile(PathOf("data/new.txt").c_str(), 1), nullptr);
  EXPECT_EQ(velfsCreateEnum("data/sub/"), nullptr);
  EXPECT_TRUE(ScratchEntries().empty());  // nothing created
}

TEST_F(CoreFileApiTest, P1_4_07_CreateEnumOfNullOrEmptyGivesNull) {
  ScopedCurrentDirectory inScratch(dir_);
  EXPECT_EQ(velfsCreateEnum(nullptr), nullptr);
  EXPECT_EQ(velfsCreateEnum(""), nullptr);
  EXPECT_TRUE(ScratchEntries().empty());
}

TEST_F(CoreFileApiTest, P1_4_08_EnumIndirEmptyListsRootFileIndirEmptyGivesNull) {
  const std::string db = PathOf("store.db");
  MakeDatabase(db, {{"a.txt", "", "1"}, {"b.txt", "docs/", "2"}, {"c.txt", "docs/sub/", "3"}});
  DirHandle* dir = velfsOpenDir(db.c_str());
  ASSERT_NE(dir, nullptr);
  EnumHandle* listing = velfsCreateEnumIndir(dir, "");
  ASSERT_NE(listing, nullptr);
  EXPECT_FALSE(Record(listing)->ownsDir);
  EXPECT_EQ(Names(listing), (std::set<std::string>{"a.txt", "docs/"}));
  velfsCloseEnum(listing);
  EXPECT_EQ(velfsCreateFileIndir(dir, "", 1), nullptr);
  SecondConnection other(db);
  EXPECT_EQ(other.RowCount(), 3);  // nothing created
  velfsCloseDir(dir);
}

TEST_F(CoreFileApiTest, P1_4_09_CreateEnumHandleClosedEitherWayDestroysAll) {
  // The order, through test doubles wired as velfsCreateEnum wires them.
  for (const bool closeAsFile : {false, true}) {
    SCOPED_TRACE(closeAsFile ? "velfsCloseFile" : "velfsCloseEnum");
    EventLog log;
    auto storage = std::make_unique<RecordingStorage>(&log);
    RecordingStorage* view = storage.get();
    DirHandle* privateDir = NewDirHandle("fake:", std::move(storage));
    view->SetOwner(privateDir);
    auto* record = new ObjectHandle;
    record->dir = privateDir;
    record->object = OpenStorageEnum(view, "");
    ASSERT_NE(record->object, nullptr);
    record->ownsDir = true;
    EnumHandle* handle = AsEnumHandle(record);
    if (closeAsFile) {
      velfsCloseFile(reinterpret_cast<FileHandle*>(handle));
    } else {
      velfsCloseEnum(handle);
    }
    EXPECT_EQ(log.events, (Events{"~enum", "~storage of fake:"}));
  }

  // Through the API over a database root: the handle's own storage (and connection) goes.
  const std::string db = PathOf("store.db");
  MakeDatabase(db, {{"x", "", "keep"}, {"y", "d/", "1"}});
  for (const bool closeAsFile : {false, true}) {
    SCOPED_TRACE(closeAsFile ? "velfsCloseFile" : "velfsCloseEnum");
    EnumHandle* listing = velfsCreateEnum((db + ":").c_str());
    ASSERT_NE(listing, nullptr);
    EXPECT_TRUE(Record(listing)->ownsDir);
    EXPECT_EQ(Record(listing)->dir->rootPath, db + ":");
    EXPECT_EQ(Names(listing), (std::set<std::string>{"x", "d/"}));
    // An uncommitted delete on the handle's own connection holds a write lock.
    Storage* own = Record(listing)->dir->storage.get();
    ASSERT_TRUE(own->BeginTrans());
    ASSERT_TRUE(own->DeleteFile("x"));
    SecondConnection other(db);
    EXPECT_FALSE(other.Exec("BEGIN EXCLUSIVE;"));
    if (closeAsFile) {
      velfsCloseFile(reinterpret_cast<FileHandle*>(listing));
    } else {
      velfsCloseEnum(listing);
    }
    EXPECT_TRUE(other.Exec("BEGIN EXCLUSIVE;"));  // the connection is closed
    EXPECT_TRUE(other.Exec("COMMIT;"));
    EXPECT_TRUE(other.ReadRow("x", ""));  // and its transaction rolled back
  }
}

TEST_F(CoreFileApiTest, P1_4_10_FileIndirCloseLeavesDirHandleUsable) {
  const std::string db = PathOf("store.db");
  DirHandle* dir = velfsOpenDir(db.c_str());
  ASSERT_NE(dir, nullptr);
  Storage* storage = dir->storage.get();
  FileHandle* file = velfsCreateFileIndir(dir, "docs\\a.txt", 1);
  ASSERT_NE(file, nullptr);
  EXPECT_FALSE(Record(file)->ownsDir);
  EXPECT_EQ(Record(file)->dir, dir);
  EXPECT_EQ(velfsWrite(file, "hello", 5), 5u);
  velfsCloseFile(file);
  EXPECT_EQ(dir->storage.get(), storage);  // the same storage, still there
  bool exists = false;
  EXPECT_TRUE(velfsIsFileExist(dir, "docs/a.txt", &exists));
  EXPECT_TRUE(exists);
  FileHandle* reader = velfsCreateFileIndir(dir, "docs/a.txt", 0);
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(ReadAll(reader), "hello");
  velfsCloseFile(reader);
  EXPECT_TRUE(velfsRenameFile(dir, "docs/a.txt", "docs/b.txt"));
  SecondConnection other(db);
  EXPECT_TRUE(other.ReadRow("b.txt", "docs/"));
  EXPECT_FALSE(other.ReadRow("a.txt", "docs/"));
  velfsCloseDir(dir);
}

TEST_F(CoreFileApiTest, P1_4_11_NullHandleForwardersAnswerTableValues) {
  char buffer[8] = {'u', 'n', 't', 'o', 'u', 'c', 'h', 'd'};
  EXPECT_EQ(velfsSeek(nullptr, 0, 0), -1);
  EXPECT_EQ(velfsSeek(nullptr, 5, 1), -1);
  EXPECT_EQ(velfsRead(nullptr, buffer, sizeof buffer), 0u);
  EXPECT_EQ(std::string(buffer, sizeof buffer), "untouchd");
  EXPECT_EQ(velfsWrite(nullptr, buffer, sizeof buffer), 0u);
  EXPECT_EQ(velfsTell(nullptr), 0);
  EXPECT_FALSE(velfsResize(nullptr, 10));
  EXPECT_FALSE(velfsError(nullptr));
  velfsReset(nullptr);       // does nothing
  velfsCloseFile(nullptr);   // does nothing
  velfsCloseEnum(nullptr);   // the same function
  EXPECT_FALSE(velfsMoveNext(nullptr));
  EXPECT_FALSE(velfsIsDirectory(nullptr));
  char* name = buffer;
  EXPECT_FALSE(velfsGetName(nullptr, &name));
  EXPECT_EQ(name, buffer);
  EXPECT_FALSE(velfsGetFullName(nullptr, &name));
  EXPECT_EQ(name, buffer);
}

TEST_F(CoreFileApiTest, P1_4_12_ErrorIsTrueForAnyNonZeroAnswer) {
  for (const int32_t answer : {1, 2, -7, -1, INT32_MAX, INT32_MIN, 256, 0x10000}) {
    SCOPED_TRACE(answer);
    auto* record = new ObjectHandle;
    record->object = std::make_unique<FakeFile>(nullptr, answer);
    FileHandle* handle = AsFileHandle(record);
    EXPECT_TRUE(velfsError(handle));
    velfsCloseFile(handle);  // ownsDir false, dir null: frees the file and the record
  }
  auto* record = new ObjectHandle;
  record->object = std::make_unique<FakeFile>(nullptr, 0);
  EXPECT_FALSE(velfsError(AsFileHandle(record)));
  velfsCloseFile(AsFileHandle(record));
}

// Part 1.4: the forwarders pass their arguments on unchanged and return the results unchanged.
TEST_F(CoreFileApiTest, ForwardersReturnOperationResultsUnchanged) {
  EventLog log;
  DirHandle* dir = NewDirHandle("root", std::make_unique<RecordingStorage>(&log));
  FileHandle* file = velfsCreateFileIndir(dir, "f", 4);
  ASSERT_NE(file, nullptr);
  char buffer[1];
  EXPECT_EQ(velfsRead(file, buffer, 0x123456789ull), 0x123456789ull);  // the fake echoes size
  EXPECT_EQ(velfsSeek(file, -42, 2), -42);                               // and the offset
  EXPECT_EQ(velfsTell(file), 17);
  velfsCloseFile(file);
  velfsCloseDir(dir);
  EXPECT_EQ(log.events, (Events{"~file", "~storage"}));
}

// Part 1.4 failure handling: when the storage opened but the file did not, the storage is
// destroyed again and null comes back; a root that no back-end accepts gives null.
TEST_F(CoreFileApiTest, CreateFileFailuresLeaveNothingOpen) {
  const std::string db = PathOf("store.db");
  MakeDatabase(db, {{"a", "", "1"}});
  // Empty inner path: the storage is opened for the attempt and closed again.
  EXPECT_EQ(velfsCreateFile((db + ":").c_str(), 1), nullptr);
  // Roots that no back-end accepts.
  EXPECT_EQ(velfsCreateFile(PathOf("missing-dir/x.db:a.txt").c_str(), 1), nullptr);
  EXPECT_EQ(velfsCreateEnum(PathOf("missing-dir/x.db:").c_str()), nullptr);
  const std::string text = std::string(1024, 'q');
  WriteHostFile(PathOf("plain.txt"), text);
  EXPECT_EQ(velfsCreateFile((PathOf("plain.txt") + ":a.txt").c_str(), 1), nullptr);
  EXPECT_EQ(velfsCreateEnum((PathOf("plain.txt") + ":").c_str()), nullptr);
  EXPECT_EQ(ReadHostFile(PathOf("plain.txt")), text);
  EXPECT_EQ(ScratchEntries(), (std::set<std::string>{"store.db", "plain.txt"}));
  SecondConnection other(db);
  EXPECT_EQ(other.RowCount(), 1);
}

// Part 1.4: two handles made from full paths with the same root hold two independent storages.
TEST_F(CoreFileApiTest, TwoFullPathHandlesHoldIndependentStorages) {
  const std::string db = PathOf("store.db");
  FileHandle* first = velfsCreateFile((db + ":a.txt").c_str(), 1);
  FileHandle* second = velfsCreateFile((db + ":b.txt").c_str(), 1);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(Record(first)->dir, Record(second)->dir);
  EXPECT_NE(Record(first)->dir->storage.get(), Record(second)->dir->storage.get());
  EXPECT_EQ(velfsWrite(first, "1", 1), 1u);
  EXPECT_EQ(velfsWrite(second, "22", 2), 2u);
  velfsCloseFile(first);
  // The second handle's storage is still open and working after the first one closed.
  EXPECT_EQ(velfsSeek(second, 0, 0), 0);
  EXPECT_EQ(ReadAll(second), "22");
  velfsCloseFile(second);
  SecondConnection other(db);
  EXPECT_EQ(other.RowCount(), 2);
}

}  // namespace
}  // namespace velfs::testing
