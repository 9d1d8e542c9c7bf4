// `DatabaseFile`, an open file whose bytes are the Content blob of one row.
//
// Reads and in-place writes move only the requested bytes through SQLite's incremental blob I/O;
// a write past the end and Resize rewrite the whole blob with one statement. The row is created
// lazily by the first Write at position 0 or the first Resize. `position <= length` holds as
// long as no other object changes the row. Every change is in the database when the call
// returns (inside an explicit transaction: at the storage's CommitTrans).
//
// Blob handles. A blob handle lives only inside one Read or Write: an open read-write blob is
// an active statement, and no COMMIT on the connection can succeed while it exists, so other
// operations' transactions would stay pending and be rolled back at close. Each call opens its
// handle (read-only for reads) and closes it before returning. While the length is not known
// (`lengthKnown` false), EnsureBlob opens a handle briefly to learn it; Read needs no such extra
// handle, the one it reads through learns the length. When another object changes the row, each
// blob access sees its current length.
#ifndef VELFS_DATABASE_DATABASE_FILE_H
#define VELFS_DATABASE_DATABASE_FILE_H

#include <cstdint>
#include <string>

#include "core/storage.h"
#include "database/sqlite_handles.h"

namespace velfs {

class DatabaseStorage;

class DatabaseFile final : public StorageFile {
 public:
  // Runs no statement; always true.
  bool Init(const char* path, const char* tableName, sqlite3* db, DatabaseStorage* storage);

  uint64_t Read(void* buffer, uint64_t size) override;
  uint64_t Write(const void* buffer, uint64_t size) override;
  int32_t Tell() override;
  int32_t Seek(int32_t offset, int32_t origin) override;
  int32_t Error() override;
  bool Resize(uint64_t size) override;

 private:
  bool LookupRowId();
  // Opens a blob handle on Content of row `rowId` (flags 0 read, 1 read-write) and refreshes
  // `length` from it; null after a failure.
  Blob ReopenBlob(int flags);
  // Finds the row when its rowid is not known yet, and learns the length while it is unknown.
  // False when the file has no row.
  bool EnsureBlob();
  // Write step 3 (past the end, `data` given) and Resize (`data` null): store as the row's
  // Content the first `keep` stored bytes (zero-filled where the row is shorter) followed by
  // `dataSize` bytes of `data`, creating the row when there is none. Sets rowId and length.
  bool RewriteRow(uint64_t keep, const void* data, uint64_t dataSize);
  bool InTransaction() const;

  sqlite3* db_ = nullptr;
  std::string fileName_;
  std::string path_;
  std::string tableName_;
  int64_t rowId_ = 0;
  uint32_t length_ = 0;
  uint32_t position_ = 0;
  bool lengthKnown_ = false;
  DatabaseStorage* storage_ = nullptr;
};

}  // namespace velfs

#endif  // VELFS_DATABASE_DATABASE_FILE_H
