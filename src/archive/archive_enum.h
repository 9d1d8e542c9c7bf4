// `ArchiveEnum`, the listing of one directory level of a ZIP archive, derived from the
// member names when it is created: members directly under the prefix are files, the first
// component of deeper names a directory (once). Central-directory order, nothing sorted; the
// prefix matches case-sensitively. The first entry is an empty placeholder before the first
// child. Once built it never touches the archive again.
#ifndef VELFS_ARCHIVE_ARCHIVE_ENUM_H
#define VELFS_ARCHIVE_ARCHIVE_ENUM_H

#include <zzip/zzip.h>

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "core/storage.h"

namespace velfs {

struct ArchiveEnumEntry {
  uint32_t kind;     // 0 a file, 1 a directory
  std::string name;  // relative to the prefix; a directory's name ends in '/'
};

class ArchiveEnum final : public StorageEnum {
 public:
  // Always true. Reads every member of `dir` and rewinds its member cursor.
  bool BuildListing(const char* path, ZZIP_DIR* dir);

  bool MoveNext() override;
  void Reset() override;
  bool GetName(char** name) override;
  bool GetFullName(char** name) override;
  bool IsDirectory() override;

 private:
  void AppendFile(std::string name);
  // The duplicate test and the append in one step: appends a directory child unless an
  // entry of that name is listed already.
  void AppendDirectory(std::string name);
  bool OnEntry() const { return current_ < entries_.size(); }

  std::vector<ArchiveEnumEntry> entries_;
  std::string prefix_;
  std::size_t current_ = 0;
  // A directory child is listed once; this set answers "listed already?" in O(1) where a scan
  // of the entries would be quadratic in the listing's size. Only directory children's names are looked up, and they
  // end in '/', so the set holds the entries' names that end in '/'.
  std::unordered_set<std::string> names_;
};

}  // namespace velfs

#endif  // VELFS_ARCHIVE_ARCHIVE_ENUM_H
