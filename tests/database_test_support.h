// Helpers of the database back-end tests (Parts 3.1 to 3.3): reaching the storage behind a
// DirHandle, walking listings, reading a whole file through the API and recording the statements
// a connection runs. Header-only, used by the database_*_test.cc files.
#ifndef VELFS_TESTS_DATABASE_TEST_SUPPORT_H
#define VELFS_TESTS_DATABASE_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include "core/handle_records.h"
#include "database/database_storage.h"
#include "test_support.h"
#include "velfs.h"

namespace velfs::testing {

// ScratchDirTest placed on a memory file system when the host has one (/dev/shm): every
// operation of the database back-end commits, and each commit syncs the file, which on a disk
// makes the database tests ten times slower. Locking and every result are the same there.
class DatabaseScratchTest : public ScratchDirTest {
 protected:
  void SetUp() override {
    std::error_code ignored;
    if (std::filesystem::is_directory("/dev/shm", ignored)) {
      std::string pattern = "/dev/shm/velfs-dbtest-XXXXXX";
      if (mkdtemp(pattern.data()) != nullptr) {
        dir_ = pattern;
        return;
      }
    }
    ScratchDirTest::SetUp();
  }
};

// The DatabaseStorage behind a handle opened on a database root (null for another back-end).
inline DatabaseStorage* DatabaseOf(DirHandle* dir) {
  return dir == nullptr ? nullptr : dynamic_cast<DatabaseStorage*>(dir->storage.get());
}

// Inserts rows with the given paths through `other`: FileName is the text after the last '/',
// Path the text up to and including it, Content "c".
inline void InsertPaths(SecondConnection& other, const std::vector<std::string>& paths) {
  const std::string content = "c";
  for (const std::string& path : paths) {
    const std::size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    ASSERT_TRUE(other.InsertRow(name, directory, &content)) << path;
  }
}

// One entry of a listing as the enumeration functions report it.
struct ListedEntry {
  std::string name;
  std::string fullName;
  bool isDirectory;
  bool operator==(const ListedEntry& other) const {
    return name == other.name && fullName == other.fullName && isDirectory == other.isDirectory;
  }
};

inline std::ostream& operator<<(std::ostream& out, const ListedEntry& entry) {
  return out << "{" << entry.name << ", " << entry.fullName << ", "
             << (entry.isDirectory ? "dir" : "file") << "}";
}

// Takes a name handed out by velfsGetName / velfsGetFullName and frees it.
inline std::string TakeName(char* text) {
  std::string copy = text == nullptr ? std::string("<null>") : std::string(text);
  std::free(text);
  return copy;
}

// Walks the listing from where it stands to its end (MoveNext until false).
inline std::vector<ListedEntry> Walk(EnumHandle* listing) {
  std::vector<ListedEntry> entries;
  while (velfsMoveNext(listing)) {
    char* name = nullptr;
    char* fullName = nullptr;
    EXPECT_TRUE(velfsGetName(listing, &name));
    EXPECT_TRUE(velfsGetFullName(listing, &fullName));
    const bool isDirectory = velfsIsDirectory(listing);
    entries.push_back({TakeName(name), TakeName(fullName), isDirectory});
  }
  return entries;
}

// Lists `path` of the handle's root; `ok` tells whether the listing could be created.
inline std::vector<ListedEntry> List(DirHandle* dir, const char* path, bool* ok = nullptr) {
  EnumHandle* listing = velfsCreateEnumIndir(dir, path);
  if (ok != nullptr) *ok = listing != nullptr;
  if (listing == nullptr) return {};
  std::vector<ListedEntry> entries = Walk(listing);
  velfsCloseEnum(listing);
  return entries;
}

// Reads the whole file from position 0 and puts the position back where it was.
inline std::string ReadAll(FileHandle* file) {
  const int32_t position = velfsTell(file);
  std::string content;
  if (velfsSeek(file, 0, 0) != 0) return "<seek failed>";
  char buffer[4096];
  for (;;) {
    const uint64_t count = velfsRead(file, buffer, sizeof buffer);
    if (count == 0) break;
    content.append(buffer, static_cast<std::size_t>(count));
  }
  velfsSeek(file, position, 0);
  return content;
}

// Opens `path` in the handle's root, writes `content` at position 0 and closes it.
inline bool PutFile(DirHandle* dir, const char* path, const std::string& content) {
  FileHandle* file = velfsCreateFileIndir(dir, path, 1);
  if (file == nullptr) return false;
  const bool written = velfsWrite(file, content.data(), content.size()) == content.size();
  velfsCloseFile(file);
  return written;
}

// Records the text of every statement a connection starts (sqlite3_trace_v2, SQLITE_TRACE_STMT).
// It must be destroyed before the connection is closed: its destructor removes the trace hook.
class StatementRecorder {
 public:
  explicit StatementRecorder(sqlite3* db) : db_(db) {
    sqlite3_trace_v2(db_, SQLITE_TRACE_STMT, &StatementRecorder::OnTrace, this);
  }
  ~StatementRecorder() { sqlite3_trace_v2(db_, 0, nullptr, nullptr); }
  StatementRecorder(const StatementRecorder&) = delete;
  StatementRecorder& operator=(const StatementRecorder&) = delete;

  const std::vector<std::string>& statements() const { return statements_; }
  void Clear() { statements_.clear(); }
  int Count(const std::string& text) const {
    int count = 0;
    for (const std::string& statement : statements_) count += statement == text ? 1 : 0;
    return count;
  }

 private:
  static int OnTrace(unsigned, void* context, void*, void* text) {
    static_cast<StatementRecorder*>(context)->statements_.emplace_back(
        static_cast<const char*>(text));
    return 0;
  }

  sqlite3* db_;
  std::vector<std::string> statements_;
};

}  // namespace velfs::testing

#endif  // VELFS_TESTS_DATABASE_TEST_SUPPORT_H
