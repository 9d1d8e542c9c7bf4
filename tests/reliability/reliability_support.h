// Helpers of the reliability tests: the path of the child program, the seed corpus directory,
// and a plain SQLite view of a database file (integrity check and every row), independent of the
// library.
#ifndef VELFS_TESTS_RELIABILITY_RELIABILITY_SUPPORT_H
#define VELFS_TESTS_RELIABILITY_RELIABILITY_SUPPORT_H

#include <map>
#include <string>

namespace velfs::reliability {

// velfs_crash_writer, built beside the tests (CMake passes its path).
inline const char* CrashWriterPath() { return VELFS_CRASH_WRITER; }
// fuzz/corpus/ of the source tree.
inline std::string CorpusPath(const std::string& name) {
  return std::string(VELFS_FUZZ_CORPUS_DIR) + "/" + name;
}

// What a second SQLite connection sees in a database file. Opening it rolls back a hot journal
// left by a killed writer, as every connection does.
struct DatabaseView {
  bool opened = false;
  std::string integrity;                    // the first row of PRAGMA integrity_check
  int integrityRows = 0;                    // how many rows it gave ("ok" alone: 1)
  std::map<std::string, std::string> rows;  // Path followed by FileName -> Content
};
// `readRows` false leaves `rows` empty (for databases too large to hold in memory).
DatabaseView ViewDatabase(const std::string& path, bool readRows = true);

}  // namespace velfs::reliability

#endif  // VELFS_TESTS_RELIABILITY_RELIABILITY_SUPPORT_H
