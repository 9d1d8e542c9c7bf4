// `Listing`, a directory listing built whole when it is created and then walked in memory: the
// listing of the archive and of the database roots, whose back-ends fill it from member names or
// rows and never touch it again. Later changes of the root are not seen.
//
// The first entry is an empty placeholder that stands before the first child, so MoveNext
// reaches the first child; the queries answer for the placeholder before the first MoveNext and
// false after the end. Children come in the order they were added, unsorted. File children are
// listed as added; a directory child is listed once, and not beside an earlier entry of the same
// name. Full names are the directory prefix given at creation followed by the name, with a '/'
// after a directory's.
#ifndef VELFS_CORE_LISTING_H
#define VELFS_CORE_LISTING_H

#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "core/storage.h"

namespace velfs {

class Listing final : public StorageEnum {
 public:
  explicit Listing(std::string prefix);

  void AddFile(std::string_view name);
  // `name` ends in '/'.
  void AddDirectory(std::string_view name);

  bool MoveNext() override;
  void Reset() override;
  bool GetName(char** name) override;
  bool GetFullName(char** name) override;
  bool IsDirectory() override;

 private:
  struct Entry {
    bool isDirectory;
    std::string name;
  };
  bool OnEntry() const { return current_ < entries_.size(); }

  std::string prefix_;
  std::vector<Entry> entries_;
  std::size_t current_ = 0;
  // The listed names that end in '/': the only names a directory child is compared with, kept
  // so that the test costs O(1) and not a scan of the entries.
  std::unordered_set<std::string> slashNames_;
};

}  // namespace velfs

#endif  // VELFS_CORE_LISTING_H
