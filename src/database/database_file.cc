// DatabaseFile: an open file whose bytes are the Content blob of one row.
//
// Reads and in-place writes move only the requested bytes through SQLite's incremental blob I/O.
// A blob cannot grow in place: a write past the end and Resize store a new Content of the new
// length (a zeroblob, so no buffer of that size is built) and write the kept bytes back through
// a blob handle. The row is created lazily by the first Write at position 0 or the first Resize.
// `position <= length` holds as long as no other object changes the row.
//
// Outside an explicit transaction every call is a transaction of its own and leaves nothing
// behind: the blob handle lives only inside the call (an open blob keeps the connection's read
// lock, and another connection's write would fail), and every change is committed when the call
// returns. Each new handle walks the row's overflow chain from its start to the offset it reads,
// so a call at offset n costs n / page size page lookups: reading a file in fixed-size calls
// grows with the square of its length, at a small constant (the pages come from the connection's
// memory mapping).
//
// Inside an explicit transaction the connection holds its lock until the commit anyway, and no
// other connection can see anything before it, so a file keeps state between calls:
// - one blob handle, reused by every Read and Write (SQLite caches the overflow chain in it, so
//   a sequential pass is linear). A handle whose row was rewritten answers SQLITE_ABORT and is
//   reopened once. An open read-write blob is an active statement that makes COMMIT fail, so the
//   storage closes every kept handle before it commits;
// - room to grow: a write past the end stores the Content at twice the length (zero bytes past
//   the end) and later writes fill it in place, so N appending writes rewrite the row
//   O(log N) times. The stored length is then longer than the file, which no other statement of
//   the connection may see: the row's length is observable (sqlite3_blob_bytes, length(), the
//   bytes CopyFile copies). The storage therefore settles the file, storing exactly `length`
//   bytes, before any statement that could see the row runs: before the operations of another
//   file on the same row, before CopyFile, MoveFile, DeleteFile, DeleteDirectory, before
//   CommitTrans and BeginTrans, and when the file is closed. Statements that cannot see Content
//   (listings, existence tests, renames) need no settling.
// A failure to settle surfaces as the result of the call that settles (false, 0 or -1); a
// CommitTrans that cannot settle every file rolls the transaction back and answers false, so a
// row is never committed with room past its end.
// The price of the room: each rewrite copies the kept bytes through memory once (a buffer as
// long as the file) and SQLite writes the zero pages of the room before the caller's bytes
// replace them, and settling rewrites the row once more. Appending N bytes thus writes a few
// times N bytes, linear but several times what a writer that knows the final length writes: a
// host that does calls Resize first, and every later write is in place.
//
// A rewrite of several statements (new Content, the kept bytes written back, the caller's bytes)
// runs inside a savepoint, so that a failure leaves the row as it was also inside an explicit
// transaction. Savepoints cannot be opened or released while a read-write blob is open on the
// connection, so every kept handle is closed first.
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

bool Execute(sqlite3* db, const char* sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

// The blob calls and the binds take int lengths, so a file can grow to INT32_MAX bytes; a
// longer request fails (0 or false) and stores nothing.
constexpr uint64_t kMaxContent = std::numeric_limits<int32_t>::max();

class DatabaseFile final : public StorageFile, private SettleableFile {
 public:
  DatabaseFile(std::shared_ptr<DatabaseConnection> connection, const char* path)
      : connection_(std::move(connection)), key_(SplitRowKey(path)) {}
  ~DatabaseFile() override;

  uint64_t Read(void* buffer, uint64_t size) override;
  uint64_t Write(const void* buffer, uint64_t size) override;
  int32_t Tell() override;
  int32_t Seek(int32_t offset, int32_t origin) override;
  int32_t Error() override;
  bool Resize(uint64_t size) override;

 private:
  using Hold = std::lock_guard<std::recursive_mutex>;

  // SettleableFile.
  bool Settle() override;
  bool SharesRow(const RowKey& key, int64_t rowId) const override;
  void CloseBlob() override { blob_.reset(); }

  sqlite3* db() const { return connection_->db.get(); }
  // The start of every operation: outside a transaction the file keeps nothing; inside one,
  // files holding room on this file's row are settled first. False when that failed.
  bool Enter();
  // The end of every operation: outside a transaction the blob handle is closed (for a
  // read-write handle this commits its write; false when that failed); inside one the file is
  // registered with the storage while it keeps a handle or room.
  bool Leave();
  // Looks up the row's rowid; false when the file has no row.
  bool FindRow();
  // The blob handle on Content, open for writing when `writable`: the kept one when it fits,
  // else a new one, which refreshes `length_` unless the row holds room. Null on failure.
  sqlite3_blob* AcquireBlob(bool writable);
  // Moves `count` bytes at `offset` through the blob handle (into `bytes` when reading, out of
  // it when writing); a kept handle whose row was rewritten (SQLITE_ABORT) is reopened once.
  // False on failure, and for bytes past the stored content.
  bool BlobIo(bool writing, void* bytes, uint32_t count, uint32_t offset);
  // Finds the row when its rowid is not known yet, and learns the length while it is unknown.
  // False when the file has no row.
  bool FindRowAndLength();
  // Stores a Content of `stored` bytes: the first `keep` bytes of the current content (zero
  // where it is shorter), zero bytes after them. Creates the row (with `stored` zero bytes)
  // when there is none. Sets rowId, length (to `stored`) and leaves no room.
  bool Reshape(uint32_t keep, uint32_t stored);
  // Runs steps() (which answers success) as one unit, a transaction of its own outside an
  // explicit one: when it fails, throws std::bad_alloc or cannot commit, the row and the file's
  // state are as before, and the answer is false. `oneStatement`: steps() runs one statement,
  // atomic by itself, and needs no savepoint.
  template <class Steps>
  bool Atomically(bool oneStatement, Steps&& steps);
  // The longest Content SQLite stores for this row.
  uint64_t MaxStored() const;
  // Stores `size` bytes as the Content: `bytes`, or zero bytes when it is null (a zeroblob,
  // built by SQLite without a buffer). Creates the row when there is none. Sets rowId and length
  // and leaves no room.
  bool StoreContent(const void* bytes, uint32_t size);
  // Binds the row key to parameters 1 (FileName) and 2 (Path).
  bool BindKey(sqlite3_stmt* statement) const;

  const std::shared_ptr<DatabaseConnection> connection_;
  const RowKey key_;
  int64_t rowId_ = 0;
  uint32_t length_ = 0;
  uint32_t position_ = 0;
  bool lengthKnown_ = false;
  Blob blob_;                  // kept between calls only inside an explicit transaction
  bool blobWritable_ = false;
  uint32_t stored_ = 0;        // inside a transaction: the stored length when it exceeds length_
};

DatabaseFile::~DatabaseFile() {
  const Hold hold(connection_->lock);
  if (!Settle()) connection_->settleFailed = true;
}

bool DatabaseFile::SharesRow(const RowKey& key, int64_t rowId) const {
  return (rowId != 0 && rowId == rowId_) ||
         (key.fileName == key_.fileName && key.path == key_.path);
}

bool DatabaseFile::Settle() {
  bool settled = true;
  if (stored_ > length_) {
    // Still inside the transaction (the storage settles before it commits): the guard of the
    // rewrite joins it.
    settled = Atomically(false, [this] { return Reshape(length_, length_); });
    if (!settled) lengthKnown_ = false;  // the next call asks the row again
  }
  stored_ = 0;
  blob_.reset();
  connection_->Forget(this);
  return settled;
}

bool DatabaseFile::Enter() {
  if (!connection_->inTransaction) {
    blob_.reset();  // left from a transaction that ended without the storage settling it
    stored_ = 0;
    return true;
  }
  return connection_->SettleFiles(&key_, rowId_, this);
}

bool DatabaseFile::Leave() {
  if (connection_->inTransaction) {
    if (blob_ || stored_ > length_) connection_->Remember(this);
    return true;
  }
  return !blob_ || sqlite3_blob_close(blob_.release()) == SQLITE_OK;
}

// One statement, atomic on its own: it needs no transaction around it.
bool DatabaseFile::FindRow() {
  const CachedStatement query(*connection_, DatabaseConnection::Query::kFindRow);
  if (!query || !BindKey(query.get()) || sqlite3_step(query.get()) != SQLITE_ROW) return false;
  rowId_ = sqlite3_column_int64(query.get(), 0);
  return true;
}

bool DatabaseFile::BindKey(sqlite3_stmt* statement) const {
  return sqlite3_bind_text(statement, 1, key_.fileName.c_str(), -1, SQLITE_STATIC) == SQLITE_OK &&
         sqlite3_bind_text(statement, 2, key_.path.c_str(), -1, SQLITE_STATIC) == SQLITE_OK;
}

bool DatabaseFile::StoreContent(const void* bytes, uint32_t size) {
  blob_.reset();  // the rewrite expires it
  const bool update = rowId_ != 0;
  const CachedStatement write(*connection_, update ? DatabaseConnection::Query::kSetContent
                                                   : DatabaseConnection::Query::kInsertRow);
  const int column = update ? 1 : 3;
  const bool bound =
      write && (update ? sqlite3_bind_int64(write.get(), 2, rowId_) == SQLITE_OK
                       : BindKey(write.get())) &&
      (bytes == nullptr
           ? sqlite3_bind_zeroblob(write.get(), column, static_cast<int>(size))
           : sqlite3_bind_blob(write.get(), column, bytes, static_cast<int>(size),
                               SQLITE_STATIC)) == SQLITE_OK;
  if (!bound || sqlite3_step(write.get()) != SQLITE_DONE) return false;
  if (!update) rowId_ = sqlite3_last_insert_rowid(db());
  stored_ = 0;
  length_ = size;
  lengthKnown_ = true;
  return true;
}

sqlite3_blob* DatabaseFile::AcquireBlob(bool writable) {
  if (blob_ && (blobWritable_ || !writable)) return blob_.get();
  blob_.reset();
  sqlite3_blob* raw = nullptr;
  const int opened = sqlite3_blob_open(db(), nullptr, DatabaseStorage::kTableName, "Content",
                                       rowId_, writable ? 1 : 0, &raw);
  Blob blob(raw);
  if (opened != SQLITE_OK) {
    lengthKnown_ = false;
    return nullptr;
  }
  if (stored_ <= length_) {
    length_ = static_cast<uint32_t>(sqlite3_blob_bytes(blob.get()));
    stored_ = 0;
  }
  lengthKnown_ = true;
  blob_ = std::move(blob);
  blobWritable_ = writable;
  return blob_.get();
}

bool DatabaseFile::BlobIo(bool writing, void* bytes, uint32_t count, uint32_t offset) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    const bool kept = static_cast<bool>(blob_);
    sqlite3_blob* blob = AcquireBlob(writing);
    if (blob == nullptr) return false;
    // Never past the stored content, even when another object shortened the row.
    if (uint64_t{offset} + count > static_cast<uint64_t>(sqlite3_blob_bytes(blob))) return false;
    const int done = writing ? sqlite3_blob_write(blob, bytes, static_cast<int>(count),
                                                  static_cast<int>(offset))
                             : sqlite3_blob_read(blob, bytes, static_cast<int>(count),
                                                 static_cast<int>(offset));
    if (done == SQLITE_OK) return true;
    blob_.reset();
    if (done != SQLITE_ABORT || !kept) return false;  // a fresh handle cannot have expired
  }
  return false;
}

bool DatabaseFile::FindRowAndLength() {
  if (rowId_ == 0 && !FindRow()) return false;
  if (!lengthKnown_) AcquireBlob(false);
  return true;
}

uint64_t DatabaseFile::Read(void* buffer, uint64_t size) {
  const Hold hold(connection_->lock);
  if (!Enter()) return 0;
  uint32_t count = 0;
  bool read = rowId_ != 0 || FindRow();
  // The handle learns the length as well. A kept handle whose row was rewritten meanwhile
  // answers SQLITE_ABORT: the new handle then learns the new length, and the count follows it.
  for (int attempt = 0; read && attempt < 2; ++attempt) {
    const bool kept = static_cast<bool>(blob_);
    sqlite3_blob* blob = AcquireBlob(false);
    if (blob == nullptr) {
      read = false;
      break;
    }
    // Never past the stored content, even when another object shortened the row.
    count = position_ < length_
                ? static_cast<uint32_t>(std::min<uint64_t>(size, length_ - position_))
                : 0;
    const int done =
        sqlite3_blob_read(blob, buffer, static_cast<int>(count), static_cast<int>(position_));
    if (done == SQLITE_OK) break;
    blob_.reset();
    read = done == SQLITE_ABORT && kept;  // a fresh handle cannot have expired
  }
  read = Leave() && read;
  if (!read) return 0;
  position_ += count;
  return count;
}

uint64_t DatabaseFile::Write(const void* buffer, uint64_t size) {
  const Hold hold(connection_->lock);
  if (!Enter()) return 0;
  FindRowAndLength();
  const uint64_t end = uint64_t{position_} + size;
  auto* bytes = const_cast<void*>(buffer);  // only read: sqlite3_blob_write takes void*
  bool written = size != 0 && end <= kMaxContent;
  if (written && end <= std::max(stored_, length_)) {
    // In place, or into the room: no guard of its own. Outside an explicit transaction the blob
    // handle's statement is the transaction, and closing the handle (Leave) commits it; a close
    // that cannot commit has been rolled back by SQLite, so the write did not happen.
    written = BlobIo(true, bytes, static_cast<uint32_t>(size), position_);
    if (written && end > length_) {
      length_ = static_cast<uint32_t>(end);
      if (stored_ <= length_) stored_ = 0;
    }
  } else if (written) {
    // Past the end: one transaction of its own outside an explicit one, so a second connection
    // sees the old content or the new one, never the zero bytes between. At position 0 the
    // caller's bytes are the whole new Content: one statement.
    written = Atomically(position_ == 0, [&] {
      if (position_ == 0) return StoreContent(buffer, static_cast<uint32_t>(size));
      // Inside a transaction, room for as much again; outside, exactly the new length.
      const uint64_t room =
          connection_->inTransaction ? std::max(end, std::min(2 * end, MaxStored())) : end;
      if (!Reshape(position_, static_cast<uint32_t>(room))) return false;
      // The bytes from position_ on are replaced by the caller's; the room past them holds
      // zero bytes.
      stored_ = length_;
      length_ = static_cast<uint32_t>(end);
      if (stored_ <= length_) stored_ = 0;
      return BlobIo(true, bytes, static_cast<uint32_t>(size), position_);
    });
  }
  written = Leave() && written;
  if (!written) return 0;
  position_ = static_cast<uint32_t>(end);
  return size;
}

int32_t DatabaseFile::Tell() { return static_cast<int32_t>(position_); }

int32_t DatabaseFile::Seek(int32_t offset, int32_t origin) {
  const Hold hold(connection_->lock);
  const bool found = Enter() && FindRowAndLength();
  if (!Leave() || !found) return -1;
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
  const bool found = Enter() && FindRowAndLength();
  return !Leave() || !found || position_ >= length_ ? 1 : 0;
}

bool DatabaseFile::Resize(uint64_t size) {
  const Hold hold(connection_->lock);
  if (!Enter()) return false;
  FindRowAndLength();
  const bool resized = size <= kMaxContent && Atomically(false, [&] {
    return Reshape(static_cast<uint32_t>(std::min<uint64_t>(size, length_)),
                   static_cast<uint32_t>(size));
  });
  if (!Leave() || !resized) return false;
  position_ = std::min(position_, length_);
  return true;
}

template <class Steps>
bool DatabaseFile::Atomically(bool oneStatement, Steps&& steps) {
  const int64_t rowId = rowId_;
  const uint32_t length = length_, stored = stored_;
  const bool lengthKnown = lengthKnown_;
  TransactionGuard guard(*connection_);
  // SAVEPOINT, RELEASE, ROLLBACK TO and COMMIT all fail while a read-write blob (an active write
  // statement) is open on the connection, this file's or another's.
  blob_.reset();
  connection_->CloseBlobs(this);
  // Several statements are undone together through a savepoint, also inside an explicit
  // transaction, where a failed call must leave the row as it was.
  const bool savepoint = !oneStatement && Execute(db(), "SAVEPOINT velfs_rewrite;");
  bool done = false;
  if (oneStatement || savepoint) {
    try {
      done = steps();
    } catch (const std::bad_alloc&) {
      done = false;  // a content too large for memory fails the call, nothing stored
    }
  }
  blob_.reset();
  if (savepoint) {
    if (!done) Execute(db(), "ROLLBACK TO velfs_rewrite;");
    done = Execute(db(), "RELEASE velfs_rewrite;") && done;
  }
  done = guard.Commit() && done;
  if (!done) {
    rowId_ = rowId;
    length_ = length;
    stored_ = stored;
    lengthKnown_ = lengthKnown;
  }
  return done;
}

uint64_t DatabaseFile::MaxStored() const {
  // SQLite refuses a record longer than its length limit; the key and the record header
  // take a few bytes of it.
  const auto limit = static_cast<uint64_t>(sqlite3_limit(db(), SQLITE_LIMIT_LENGTH, -1));
  const uint64_t overhead = key_.fileName.size() + key_.path.size() + 64;
  return std::min(kMaxContent, limit > overhead ? limit - overhead : 0);
}

bool DatabaseFile::Reshape(uint32_t keep, uint32_t stored) {
  std::vector<unsigned char> kept;
  if (rowId_ != 0 && keep != 0) {
    sqlite3_blob* blob = AcquireBlob(false);
    // A NULL Content (no blob opens on it, and its length is 0) keeps nothing. Never read past
    // the stored content; where it has become shorter than `keep`, the gap stays zero.
    if (blob == nullptr && length_ != 0) return false;
    const uint32_t available =
        blob == nullptr ? 0 : static_cast<uint32_t>(sqlite3_blob_bytes(blob));
    kept.resize(std::min(keep, available));  // std::bad_alloc: the caller undoes the call
    if (!kept.empty() && !BlobIo(false, kept.data(), static_cast<uint32_t>(kept.size()), 0)) {
      return false;
    }
  }
  return StoreContent(nullptr, stored) &&
         (kept.empty() || BlobIo(true, kept.data(), static_cast<uint32_t>(kept.size()), 0));
}

}  // namespace

std::unique_ptr<StorageFile> MakeDatabaseFile(std::shared_ptr<DatabaseConnection> connection,
                                              const char* path) {
  return std::make_unique<DatabaseFile>(std::move(connection), path);
}

}  // namespace velfs
