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
//
// A listing may hold a whole subtree's worth of children, so it keeps no object per entry: the
// entries lie end to end in one buffer, each a short header and its name, and the names that
// end in '/' are found through an open-addressing table of their offsets.
#ifndef VELFS_CORE_LISTING_H
#define VELFS_CORE_LISTING_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/storage.h"

namespace velfs {

class Listing final : public StorageEnum {
 public:
  // Throws std::bad_alloc, as AddFile and AddDirectory do, when memory is exhausted.
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
  // A name that ends in '/': the offset of the record that bears it, with the name's hash, so
  // that growing the table and passing other names compare no text. Offset 0, the
  // placeholder's, marks an empty slot.
  struct SlashName {
    uint32_t record;
    uint32_t hash;
  };

  bool OnEntry() const { return current_ < records_.size(); }
  // The name of the record at `offset`, and where the next record begins.
  std::string_view NameAt(std::size_t offset, std::size_t* next = nullptr) const;
  // Appends one record, or changes nothing when it throws; answers its offset.
  std::size_t Append(std::string_view name, bool isDirectory);
  // The slot of `slashNames_` that holds the record named `name`, or the empty slot where it
  // belongs. `slashNames_` has an empty slot.
  std::size_t SlotOf(std::string_view name, uint32_t hash) const;
  // Grows `slashNames_`, when needed, so that it has room for one more name at its load limit;
  // done before a record is appended, so that a failure leaves the listing as it was.
  void ReserveSlashName();
  void Record(std::size_t slot, std::size_t record, uint32_t hash);

  std::string prefix_;
  // Every entry as one record, end to end, in listing order: a header (the name's length
  // shifted left by one, the low bit set for a directory, as a base-128 varint) and the name.
  // The placeholder's record comes first; records begin below 2^32, so that a slot holds one.
  std::string records_;
  std::size_t current_ = 0;  // the offset of the current record, records_.size() at the end
  // The records whose names end in '/' (the only names a directory child is compared with),
  // open addressing with linear probing. Its size is zero or a power of two, and at least twice
  // the number of names it holds, so a probe ends soon.
  std::vector<SlashName> slashNames_;
  std::size_t slashNameCount_ = 0;
};

}  // namespace velfs

#endif  // VELFS_CORE_LISTING_H
