// DatabaseFile: an open file whose bytes are the Content blob of one row.
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
// (`lengthKnown_` false), FindRowAndLength opens a handle briefly to learn it; Read needs no such
// extra handle, the one it reads through learns the length. When another object changes the
// row, each blob access sees its current length.
//
// Every operation runs under the connection's lock: the file shares the storage's connection,
// and keeps it open when it outlives the storage.
#include <algorithm>
#include <cstring>
#include <limits>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "database/database_storage.h"

namespace velfs {
namespace {

// The blob calls and the binds take int lengths, so a file can grow to INT32_MAX bytes; a
// longer request fails (0 or false) and stores nothing.
constexpr uint64_t kMaxContent = std::numeric_limits<int32_t>::max();
// A non-null pointer for a zero-length blob (a null one would store NULL).
constexpr unsigned char kNoBytes[1] = {0};

enum class BlobAccess { kRead = 0, kReadWrite = 1 };  // sqlite3_blob_open's flags

class DatabaseFile final : public StorageFile {
 public:
  DatabaseFile(std::shared_ptr<DatabaseConnection> connection, const char* path)
      : connection_(std::move(connection)), key_(SplitRowKey(path)) {}

  uint64_t Read(void* buffer, uint64_t size) override;
  uint64_t Write(const void* buffer, uint64_t size) override;
  int32_t Tell() override;
  int32_t Seek(int32_t offset, int32_t origin) override;
  int32_t Error() override;
  bool Resize(uint64_t size) override;

 private:
  using Hold = std::lock_guard<std::recursive_mutex>;

  sqlite3* db() const { return connection_->db.get(); }
  // Looks up the row's rowid; false when the file has no row.
  bool FindRow();
  // Opens a blob handle on Content of the row and refreshes `length_` from it; null after a
  // failure.
  Blob OpenBlob(BlobAccess access);
  // Finds the row when its rowid is not known yet, and learns the length while it is unknown.
  // False when the file has no row.
  bool FindRowAndLength();
  // A write past the end (`data` given) and Resize (`data` null): store as the row's Content
  // the first `keep` stored bytes (zero-filled where the row is shorter) followed by `dataSize`
  // bytes of `data`, creating the row when there is none. Sets rowId and length.
  bool RewriteRow(uint64_t keep, const void* data, uint64_t dataSize);

  const std::shared_ptr<DatabaseConnection> connection_;
  const RowKey key_;
  int64_t rowId_ = 0;
  uint32_t length_ = 0;
  uint32_t position_ = 0;
  bool lengthKnown_ = false;
};

bool DatabaseFile::FindRow() {
  TransactionGuard guard(*connection_);
  StatementText sql;
  sql.Format("SELECT rowid from %s where FileName=%Q and Path=%Q;", DatabaseStorage::kTableName,
             key_.fileName.c_str(), key_.path.c_str());
  const Statement query = Prepare(db(), sql.text());
  if (!query || sqlite3_step(query.get()) != SQLITE_ROW) return false;
  rowId_ = sqlite3_column_int64(query.get(), 0);
  return true;
}

Blob DatabaseFile::OpenBlob(BlobAccess access) {
  sqlite3_blob* raw = nullptr;
  const int opened = sqlite3_blob_open(db(), nullptr, DatabaseStorage::kTableName, "Content",
                                       rowId_, static_cast<int>(access), &raw);
  Blob blob(raw);
  lengthKnown_ = opened == SQLITE_OK;
  if (!lengthKnown_) return nullptr;
  length_ = static_cast<uint32_t>(sqlite3_blob_bytes(blob.get()));
  return blob;
}

bool DatabaseFile::FindRowAndLength() {
  if (rowId_ == 0 && !FindRow()) return false;
  if (!lengthKnown_) OpenBlob(BlobAccess::kRead);
  return true;
}

uint64_t DatabaseFile::Read(void* buffer, uint64_t size) {
  const Hold hold(connection_->lock);
  // The row only: the handle opened here learns the length as well.
  if (rowId_ == 0 && !FindRow()) return 0;
  // One fresh handle per call: a handle opened here cannot have expired, so a failed read is not
  // retried.
  const Blob blob = OpenBlob(BlobAccess::kRead);
  if (!blob) return 0;
  // Never past the stored content, even when another object shortened the row.
  const uint32_t count =
      position_ < length_ ? static_cast<uint32_t>(std::min<uint64_t>(size, length_ - position_)) : 0;
  if (sqlite3_blob_read(blob.get(), buffer, static_cast<int>(count), static_cast<int>(position_)) !=
      SQLITE_OK) {
    return 0;
  }
  position_ += count;
  return count;
}

uint64_t DatabaseFile::Write(const void* buffer, uint64_t size) {
  const Hold hold(connection_->lock);
  FindRowAndLength();
  if (uint64_t{position_} + size > length_) {
    if (!RewriteRow(position_, buffer, size)) return 0;
    position_ = length_;
    return size;
  }
  // In place: no guard of its own. Outside an explicit transaction the blob handle's statement
  // is the transaction, and closing the handle commits it; a close that cannot commit has been
  // rolled back by SQLite, so the write did not happen.
  Blob blob = OpenBlob(BlobAccess::kReadWrite);
  if (!blob || sqlite3_blob_write(blob.get(), buffer, static_cast<int>(size),
                                  static_cast<int>(position_)) != SQLITE_OK) {
    return 0;
  }
  if (sqlite3_blob_close(blob.release()) != SQLITE_OK) return 0;
  position_ += static_cast<uint32_t>(size);
  return size;
}

int32_t DatabaseFile::Tell() { return static_cast<int32_t>(position_); }

int32_t DatabaseFile::Seek(int32_t offset, int32_t origin) {
  const Hold hold(connection_->lock);
  if (!FindRowAndLength()) return -1;
  const auto delta = static_cast<uint32_t>(offset);  // the sums wrap in 32 bits
  uint32_t target = position_;
  if (origin == 0) target = delta;
  if (origin == 1) target = position_ + delta;
  if (origin == 2) target = length_ + delta;
  if (target <= length_) position_ = target;  // a refused target answers the old position
  return static_cast<int32_t>(position_);
}

int32_t DatabaseFile::Error() {
  const Hold hold(connection_->lock);
  return !FindRowAndLength() || position_ >= length_ ? 1 : 0;
}

bool DatabaseFile::Resize(uint64_t size) {
  const Hold hold(connection_->lock);
  FindRowAndLength();
  if (!RewriteRow(size, nullptr, 0)) return false;
  position_ = std::min(position_, length_);
  return true;
}

bool DatabaseFile::RewriteRow(uint64_t keep, const void* data, uint64_t dataSize) {
  const uint64_t total = keep + dataSize;
  if (total > kMaxContent) return false;
  const char* table = DatabaseStorage::kTableName;
  TransactionGuard guard(*connection_);
  StatementText readSql, writeSql;
  Statement read, write;
  std::vector<unsigned char> content;
  // A Write at position 0 stores exactly the caller's bytes; a Resize of a file without a row
  // inserts a zero blob. Everything else reads the stored Content first.
  const bool callerBytes = keep == 0 && data != nullptr;
  const bool zeroBlob = rowId_ == 0 && data == nullptr;
  const void* bytes = callerBytes ? data : kNoBytes;
  if (!callerBytes && !zeroBlob) {
    read = Prepare(db(), readSql.Format("SELECT Content from %s where rowid=%lld;", table,
                                        static_cast<long long>(rowId_)));
    if (!read || sqlite3_step(read.get()) != SQLITE_ROW) return false;
    try {
      content.assign(total, 0);
    } catch (const std::bad_alloc&) {
      return false;  // a content too large for memory fails the call, nothing stored
    }
    // Never read past the stored content; where it has become shorter than `keep`, the gap
    // stays zero.
    const auto stored = static_cast<uint64_t>(sqlite3_column_bytes(read.get(), 0));
    const void* storedBytes = sqlite3_column_blob(read.get(), 0);
    const uint64_t kept = std::min(stored, keep);  // Resize(0): none, and no buffer
    if (storedBytes != nullptr && kept != 0) std::memcpy(content.data(), storedBytes, kept);
    if (dataSize != 0) std::memcpy(content.data() + keep, data, dataSize);
    if (total != 0) bytes = content.data();
  }
  int bound;
  if (rowId_ != 0) {
    write = Prepare(db(), writeSql.Format("UPDATE %s Set Content = ? where rowid = %lld;", table,
                                          static_cast<long long>(rowId_)));
    if (!write) return false;
    bound = sqlite3_bind_blob(write.get(), 1, bytes, static_cast<int>(total), SQLITE_STATIC);
  } else {
    write = Prepare(db(), writeSql.Format(
                              "INSERT INTO %s (FileName, Path, Content) VALUES (?, ?, ?);", table));
    if (!write) return false;
    bound = sqlite3_bind_text(write.get(), 1, key_.fileName.c_str(), -1, SQLITE_STATIC);
    if (bound == SQLITE_OK) {
      bound = sqlite3_bind_text(write.get(), 2, key_.path.c_str(), -1, SQLITE_STATIC);
    }
    if (bound == SQLITE_OK) {
      bound = zeroBlob ? sqlite3_bind_zeroblob(write.get(), 3, static_cast<int>(total))
                       : sqlite3_bind_blob(write.get(), 3, bytes, static_cast<int>(total),
                                           SQLITE_STATIC);
    }
  }
  if (bound != SQLITE_OK || sqlite3_step(write.get()) != SQLITE_DONE) return false;
  const int64_t rowId = rowId_ != 0 ? rowId_ : sqlite3_last_insert_rowid(db());
  write.reset();  // the write before the read, both before the commit
  read.reset();
  if (!guard.Commit()) return false;
  rowId_ = rowId;
  length_ = static_cast<uint32_t>(total);
  lengthKnown_ = true;
  return true;
}

}  // namespace

std::unique_ptr<StorageFile> MakeDatabaseFile(std::shared_ptr<DatabaseConnection> connection,
                                              const char* path) {
  return std::make_unique<DatabaseFile>(std::move(connection), path);
}

}  // namespace velfs
