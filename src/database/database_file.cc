// DatabaseFile. See the header for how blob handles are held.
#include "database/database_file.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <vector>

#include "database/database_storage.h"
#include "database/row_key.h"
#include "database/statement_text.h"
#include "database/transaction_guard.h"

namespace velfs {
namespace {

// The blob calls and the binds take int lengths, so a file
// can grow to INT32_MAX bytes; a longer request fails (0 or false) and stores nothing.
constexpr uint64_t kMaxContent = std::numeric_limits<int32_t>::max();
// A non-null pointer for a zero-length blob (a null one would store NULL).
constexpr unsigned char kNoBytes[1] = {0};

}  // namespace

bool DatabaseFile::Init(const char* path, const char* tableName, sqlite3* db,
                        DatabaseStorage* storage) {
  tableName_ = tableName;
  db_ = db;
  storage_ = storage;
  RowKey key = SplitRowKey(path);
  fileName_ = std::move(key.fileName);
  path_ = std::move(key.path);
  return true;
}

bool DatabaseFile::InTransaction() const { return storage_->inTransaction(); }

bool DatabaseFile::LookupRowId() {
  TransactionGuard guard(db_, InTransaction());
  StatementText sql;
  sql.Format("SELECT rowid from %s where FileName=%Q and Path=%Q;", tableName_.c_str(),
             fileName_.c_str(), path_.c_str());
  const Statement query = Prepare(db_, sql.text());
  if (!query || sqlite3_step(query.get()) != SQLITE_ROW) return false;
  rowId_ = sqlite3_column_int64(query.get(), 0);
  return true;
}

Blob DatabaseFile::ReopenBlob(int flags) {
  sqlite3_blob* raw = nullptr;
  const int opened = sqlite3_blob_open(db_, nullptr, tableName_.c_str(), "Content", rowId_, flags, &raw);
  Blob blob(raw);
  lengthKnown_ = opened == SQLITE_OK;
  if (!lengthKnown_) return nullptr;
  length_ = static_cast<uint32_t>(sqlite3_blob_bytes(blob.get()));
  return blob;
}

bool DatabaseFile::EnsureBlob() {
  if (rowId_ == 0 && !LookupRowId()) return false;
  if (!lengthKnown_) ReopenBlob(0);
  return true;
}

uint64_t DatabaseFile::Read(void* buffer, uint64_t size) {
  // EnsureBlob's first step only: its brief handle would learn the length that the handle
  // opened here learns as well, at the cost of one more read transaction.
  if (rowId_ == 0 && !LookupRowId()) return 0;
  // One fresh handle per call: a handle opened here cannot have expired, so a failed read is not
  // retried.
  const Blob blob = ReopenBlob(0);
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
  EnsureBlob();
  if (uint64_t{position_} + size > length_) {
    if (!RewriteRow(position_, buffer, size)) return 0;
    position_ = length_;
    return size;
  }
  // In place: no guard of its own. Outside an explicit transaction the blob handle's statement
  // is the transaction, and closing the handle commits it; a close that cannot commit has been
  // rolled back by SQLite, so the write did not happen.
  Blob blob = ReopenBlob(1);
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
  if (!EnsureBlob()) return -1;
  const auto delta = static_cast<uint32_t>(offset);  // the sums wrap in 32 bits
  uint32_t target = position_;
  if (origin == 0) target = delta;
  if (origin == 1) target = position_ + delta;
  if (origin == 2) target = length_ + delta;
  if (target <= length_) position_ = target;  // a refused target answers the old position
  return static_cast<int32_t>(position_);
}

int32_t DatabaseFile::Error() { return !EnsureBlob() || position_ >= length_ ? 1 : 0; }

bool DatabaseFile::Resize(uint64_t size) {
  EnsureBlob();
  if (!RewriteRow(size, nullptr, 0)) return false;
  position_ = std::min(position_, length_);
  return true;
}

bool DatabaseFile::RewriteRow(uint64_t keep, const void* data, uint64_t dataSize) {
  const uint64_t total = keep + dataSize;
  if (total > kMaxContent) return false;
  TransactionGuard guard(db_, InTransaction());
  StatementText readSql, writeSql;
  Statement read, write;
  std::vector<unsigned char> content;
  // A Write at position 0 stores exactly the caller's bytes; a Resize of a file without a row
  // inserts a zero blob. Everything else reads the stored Content first.
  const bool callerBytes = keep == 0 && data != nullptr;
  const bool zeroBlob = rowId_ == 0 && data == nullptr;
  const void* bytes = callerBytes ? data : kNoBytes;
  if (!callerBytes && !zeroBlob) {
    read = Prepare(db_, readSql.Format("SELECT Content from %s where rowid=%lld;",
                                       tableName_.c_str(), static_cast<long long>(rowId_)));
    if (!read || sqlite3_step(read.get()) != SQLITE_ROW) return false;
    try {
      content.assign(total, 0);
    } catch (const std::bad_alloc&) {
      return false;  // a failed allocation answers 0 / false
    }
    // Never read past the stored content; where it has become
    // shorter than `keep`, the gap stays zero.
    const auto stored = static_cast<uint64_t>(sqlite3_column_bytes(read.get(), 0));
    const void* storedBytes = sqlite3_column_blob(read.get(), 0);
    const uint64_t kept = std::min(stored, keep);  // Resize(0): none, and no buffer
    if (storedBytes != nullptr && kept != 0) std::memcpy(content.data(), storedBytes, kept);
    if (dataSize != 0) std::memcpy(content.data() + keep, data, dataSize);
    if (total != 0) bytes = content.data();
  }
  int bound;
  if (rowId_ != 0) {
    write = Prepare(db_, writeSql.Format("UPDATE %s Set Content = ? where rowid = %lld;",
                                         tableName_.c_str(), static_cast<long long>(rowId_)));
    if (!write) return false;
    bound = sqlite3_bind_blob(write.get(), 1, bytes, static_cast<int>(total), SQLITE_STATIC);
  } else {
    write = Prepare(db_, writeSql.Format("INSERT INTO %s (FileName, Path, Content) VALUES (?, ?, ?);",
                                         tableName_.c_str()));
    if (!write) return false;
    bound = sqlite3_bind_text(write.get(), 1, fileName_.c_str(), -1, SQLITE_STATIC);
    if (bound == SQLITE_OK) bound = sqlite3_bind_text(write.get(), 2, path_.c_str(), -1, SQLITE_STATIC);
    if (bound == SQLITE_OK) {
      bound = zeroBlob ? sqlite3_bind_zeroblob(write.get(), 3, static_cast<int>(total))
                       : sqlite3_bind_blob(write.get(), 3, bytes, static_cast<int>(total), SQLITE_STATIC);
    }
  }
  if (bound != SQLITE_OK || sqlite3_step(write.get()) != SQLITE_DONE) return false;
  const int64_t rowId = rowId_ != 0 ? rowId_ : sqlite3_last_insert_rowid(db_);
  write.reset();  // the write before the read, both before the commit
  read.reset();
  if (!guard.Commit()) return false;
  rowId_ = rowId;
  length_ = static_cast<uint32_t>(total);
  lengthKnown_ = true;
  return true;
}

}  // namespace velfs
