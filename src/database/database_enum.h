// `DatabaseEnum`, the listing of one directory of a database storage.
//
// The whole listing is built by one query at creation (`Build`) and then walked in memory; later
// changes are not seen. Files are the rows whose Path equals the directory; subdirectories are
// derived from the Paths of deeper rows. The first entry is an empty placeholder that stands
// before the first real one; the rest come in the order of the first row revealing each, unsorted.
#ifndef VELFS_DATABASE_DATABASE_ENUM_H
#define VELFS_DATABASE_DATABASE_ENUM_H

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "core/storage.h"

namespace velfs {

class DatabaseStorage;

struct DatabaseEnumEntry {
  uint32_t kind;     // 0 a file, 1 a directory
  std::string name;  // a directory's name ends in '/'
};

class DatabaseEnum final : public StorageEnum {
 public:
  // False when the listing query cannot be prepared.
  bool Build(const char* path, const char* tableName, sqlite3* db, DatabaseStorage* storage);

  bool MoveNext() override;
  void Reset() override;
  bool GetName(char** name) override;
  bool GetFullName(char** name) override;
  bool IsDirectory() override;

 private:
  void AppendFile(std::string name);
  // The duplicate test and the append in one step: appends a directory entry unless an
  // entry of that name is listed already.
  void AppendDirectory(std::string name);
  bool OnEntry() const { return current_ < entries_.size(); }

  sqlite3* db_ = nullptr;
  std::string directory_;
  std::string tableName_;
  std::vector<DatabaseEnumEntry> entries_;
  std::size_t current_ = 0;
  DatabaseStorage* storage_ = nullptr;
  // A subdirectory is listed once; this set answers "listed already?" in O(1) where a scan of
  // the entries would be quadratic in the listing's size. Only directory names, which end in
  // '/', are looked up, so the set holds the entries' names that end in '/'.
  std::unordered_set<std::string> names_;
};

}  // namespace velfs

#endif  // VELFS_DATABASE_DATABASE_ENUM_H
