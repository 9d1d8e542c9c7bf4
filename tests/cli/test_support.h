// Shared helpers of the test suite: a scratch directory per test and direct SQLite access that
// plays the "second connection" the Parts speak of.
#ifndef VELFS_TESTS_TEST_SUPPORT_H
#define VELFS_TESTS_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <string>
#include <vector>

namespace velfs::testing {

// A fresh directory under the system's temporary directory, removed with everything in it when
// the test ends.
class ScratchDirTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // The scratch directory joined with `name` ("" gives the directory itself, with no slash).
  std::string PathOf(const std::string& name = "") const;

  std::filesystem::path dir_;
};

// A plain SQLite connection to a database file, independent of the library.
class SecondConnection {
 public:
  explicit SecondConnection(const std::string& path);
  ~SecondConnection();
  SecondConnection(const SecondConnection&) = delete;
  SecondConnection& operator=(const SecondConnection&) = delete;

  sqlite3* db() const { return db_; }
  // Runs `sql`; true on SQLITE_OK.
  bool Exec(const std::string& sql);
  // Number of rows of "FileStorage".
  int RowCount();
  // True when the row (FileName, Path) exists; its Content goes to `content` (empty for NULL),
  // and `isNull` tells whether Content is NULL.
  bool ReadRow(const std::string& fileName, const std::string& path, std::string* content = nullptr,
               bool* isNull = nullptr);
  // Inserts a row directly; `content` null stores NULL.
  bool InsertRow(const std::string& fileName, const std::string& path, const std::string* content);

 private:
  sqlite3* db_ = nullptr;
};

// Writes `bytes` into a host file, replacing it.
void WriteHostFile(const std::string& path, const std::string& bytes);
// The whole content of a host file ("" when it cannot be read).
std::string ReadHostFile(const std::string& path);

}  // namespace velfs::testing

#endif  // VELFS_TESTS_TEST_SUPPORT_H
