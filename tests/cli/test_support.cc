#include "test_support.h"

#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <sstream>

namespace velfs::testing {

void ScratchDirTest::SetUp() {
  std::string pattern = (std::filesystem::temp_directory_path() / "velfs-test-XXXXXX").string();
  ASSERT_NE(mkdtemp(pattern.data()), nullptr);
  dir_ = pattern;
}

void ScratchDirTest::TearDown() {
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

std::string ScratchDirTest::PathOf(const std::string& name) const {
  return name.empty() ? dir_.string() : (dir_ / name).string();
}

SecondConnection::SecondConnection(const std::string& path) {
  if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) ADD_FAILURE() << "cannot open " << path;
}

SecondConnection::~SecondConnection() { sqlite3_close(db_); }

bool SecondConnection::Exec(const std::string& sql) {
  return sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

int SecondConnection::RowCount() {
  sqlite3_stmt* statement = nullptr;
  int count = -1;
  if (sqlite3_prepare_v2(db_, "SELECT count(*) FROM FileStorage;", -1, &statement, nullptr) ==
          SQLITE_OK &&
      sqlite3_step(statement) == SQLITE_ROW) {
    count = sqlite3_column_int(statement, 0);
  }
  sqlite3_finalize(statement);
  return count;
}

bool SecondConnection::ReadRow(const std::string& fileName, const std::string& path,
                               std::string* content, bool* isNull) {
  sqlite3_stmt* statement = nullptr;
  bool found = false;
  if (sqlite3_prepare_v2(db_, "SELECT Content FROM FileStorage WHERE FileName=? AND Path=?;", -1,
                         &statement, nullptr) == SQLITE_OK) {
    sqlite3_bind_text(statement, 1, fileName.data(), static_cast<int>(fileName.size()),
                      SQLITE_TRANSIENT);
    sqlite3_bind_text(statement, 2, path.data(), static_cast<int>(path.size()), SQLITE_TRANSIENT);
    if (sqlite3_step(statement) == SQLITE_ROW) {
      found = true;
      if (isNull) *isNull = sqlite3_column_type(statement, 0) == SQLITE_NULL;
      if (content) {
        const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, 0));
        const int length = sqlite3_column_bytes(statement, 0);
        content->assign(bytes ? bytes : "", bytes ? static_cast<std::size_t>(length) : 0);
      }
    }
  }
  sqlite3_finalize(statement);
  return found;
}

bool SecondConnection::InsertRow(const std::string& fileName, const std::string& path,
                                 const std::string* content) {
  sqlite3_stmt* statement = nullptr;
  bool done = false;
  if (sqlite3_prepare_v2(db_, "INSERT INTO FileStorage (FileName, Path, Content) VALUES (?, ?, ?);",
                         -1, &statement, nullptr) == SQLITE_OK) {
    sqlite3_bind_text(statement, 1, fileName.data(), static_cast<int>(fileName.size()),
                      SQLITE_TRANSIENT);
    sqlite3_bind_text(statement, 2, path.data(), static_cast<int>(path.size()), SQLITE_TRANSIENT);
    if (content) {
      sqlite3_bind_blob(statement, 3, content->data(), static_cast<int>(content->size()),
                        SQLITE_TRANSIENT);
    }
    done = sqlite3_step(statement) == SQLITE_DONE;
  }
  sqlite3_finalize(statement);
  return done;
}

void WriteHostFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

std::string ReadHostFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace velfs::testing
