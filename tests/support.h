// What the tests share: a scratch directory per test, the sample tree built as each of the three
// kinds of root, a second SQLite connection, a ZIP writer (zlib), and readers that turn the
// library's handles into plain values. Only the public header is used, so the same helpers serve
// every test program, whichever build of the library it links.
#ifndef VELFS_TESTS_SUPPORT_H
#define VELFS_TESTS_SUPPORT_H

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "velfs.h"

namespace velfs_test {

// A fresh directory, removed with everything in it when the test ends.
class ScratchTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // The scratch directory joined with `name`, with '/' separators.
  std::string PathOf(const std::string& name = "") const;

  std::filesystem::path dir_;
};

enum class RootKind { kDirectory, kArchive, kDatabase };
std::string KindName(const ::testing::TestParamInfo<RootKind>& info);

// The sample tree every root kind is built from: path -> content.
const std::map<std::string, std::string>& SampleTree();
// Builds the sample tree at `path` as a directory, a stored/deflated ZIP or a database (written
// through the library itself). Answers the root path to open.
std::string BuildSampleRoot(RootKind kind, const std::string& path);

struct ZipMember {
  std::string name;      // raw bytes; a name ending in '/' makes a directory member
  std::string data;
  bool deflated = false;
};
// Writes a ZIP archive, members in central-directory order, and an archive comment. With a
// `prefix`, the file starts with those bytes and the archive's offsets count them, as a
// self-extracting archive's do.
void WriteZip(const std::string& path, const std::vector<ZipMember>& members,
              const std::string& comment = "", const std::string& prefix = "");

// `length` letters 'a' to 'p' of a xorshift sequence from `seed` (not 0): text that deflate
// shrinks without making it repeat, and in which a read from another offset or seed differs.
std::string Noise(std::size_t length, uint32_t seed);

void WriteHostFile(const std::string& path, const std::string& bytes);
std::string ReadHostFile(const std::string& path);

// Everything left to read from the current position, until a read answers 0; followed by
// "<failed>" when a read answers the failure value (the all-ones count) instead.
std::string ReadRest(FileHandle* file);
// Everything left to read, then closes the file; "<absent>" for a null one.
std::string ReadAndClose(FileHandle* file);
// The whole content of a file at a full path; "<absent>" when it does not open.
std::string ReadFullPath(const std::string& fullPath);
// Writes all of `bytes`, then closes the file; false for a null one or a short write.
bool WriteAndClose(FileHandle* file, const std::string& bytes);
// The listing of an enumerator, walked once: full name -> is a directory; {"<no listing>"} for
// a null one. The enumerator is closed unless `keepOpen`.
std::map<std::string, bool> Listing(EnumHandle* listing, bool keepOpen = false);
// What velfsIsFileExist (velfsIsDirectoryExist with `directory`) answers: "yes", "no", or
// "failed" when the call itself fails.
std::string Exists(DirHandle* dir, const char* path, bool directory = false);
// Takes a name handed out by velfsGetName / velfsGetFullName and frees it.
std::string Take(char* name);

// A plain SQLite connection to a database file, independent of the library.
class SecondConnection {
 public:
  explicit SecondConnection(const std::string& path);
  ~SecondConnection();
  SecondConnection(const SecondConnection&) = delete;
  SecondConnection& operator=(const SecondConnection&) = delete;

  bool Exec(const std::string& sql);
  // The rows `sql` answers, its parameters bound to `binds`: first column -> second column (""
  // without one), "<null>" for NULL; a failure answers the one row {"<error: ...>", ""}.
  std::map<std::string, std::string> Rows(
      const std::string& sql = "SELECT Path || FileName, Content FROM FileStorage",
      const std::vector<std::string>& binds = {});
  // The content of the row (FileName, Path); "<no row>" when missing, "<null>" for NULL.
  std::string Content(const std::string& fileName, const std::string& path);
  int RowCount();

 private:
  sqlite3* db_ = nullptr;
};

}  // namespace velfs_test

#endif  // VELFS_TESTS_SUPPORT_H
