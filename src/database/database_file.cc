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
// - a pending tail: once the row exists, the bytes a write puts past the stored end stay in
//   memory (Tail) and the row keeps its stored length, so appending N bytes in any number of
//   calls rewrites the row once, when the tail is stored: Content becomes a zeroblob of the
//   file's exact length, and the kept bytes and the tail are written into it through a blob
//   handle, as a writer that knows the final length would do. The row's length and bytes are
//   observable (sqlite3_blob_bytes, length(), the bytes CopyFile copies), so the storage settles
//   the file, storing its tail, before any statement that could see the row runs: before the
//   operations of another file on the same row, before CopyFile, MoveFile, DeleteFile,
//   DeleteDirectory, before CommitTrans and BeginTrans, and when the file is closed. Statements
//   that cannot see Content (listings, existence tests, renames) need no settling: the row itself
//   exists from the first write on. This file's own Read, Seek, Error and Resize see the tail.
//
// Where a failure to store the tail surfaces. Memory: the write that appends bytes to the tail
// allocates room for them first, and a failed allocation answers 0 from that write with nothing
// changed. A length SQLite cannot store is refused by that write too. What remains is a failure
// of SQLite while storing, such as a full disk or the page count limit: it surfaces as the
// result of the call that settles (CopyFile, MoveFile, DeleteFile, DeleteDirectory, another
// file's call on the row, Resize of this file: false, 0 or -1), which leaves the tail pending
// for a later settle, and at the latest as CommitTrans answering false after rolling the whole
// transaction back, so no row is ever committed without its tail; a tail that cannot be stored
// when its file is closed marks the transaction, and the next CommitTrans rolls it back the same
// way. This is acceptable because inside an explicit transaction nothing is durable before the
// commit, and SQLite itself keeps changed pages in its cache and writes them to the database
// file only when the cache spills or at COMMIT: a full disk already surfaces at CommitTrans for
// any write whose pages stay in the cache, and a caller of a transaction must check CommitTrans.
// The tail holds up to the file's length in memory, the same amount a rewrite of the row reads
// into memory to keep its bytes.
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
#include <memory>
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

// The bytes of a file past its row's stored end, in fixed-size segments: growing never moves
// the bytes already held, and the peak is the tail plus one segment.
class Tail {
 public:
  uint32_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // Allocates what `size` bytes in all need. Throws std::bad_alloc; the bytes held stay as
  // they were either way.
  void Reserve(uint32_t size) {
    while (segments_.size() * uint64_t{kSegment} < size) {
      std::unique_ptr<unsigned char[]> segment(new unsigned char[kSegment]);
      segments_.push_back(std::move(segment));
    }
  }
  // Copies `count` bytes to `offset`, which is at most size(); the space must be reserved. The
  // tail grows to cover them.
  void Put(const unsigned char* bytes, uint32_t count, uint32_t offset) {
    size_ = std::max(size_, offset + count);
    Visit(count, offset, [&](unsigned char* segment, uint32_t n) {
      std::memcpy(segment, bytes, n);
      bytes += n;
      return true;
    });
  }
  // Sets `count` bytes at `offset`, which is at most size(), to zero; the space must be
  // reserved. The tail grows to cover them.
  void Zero(uint32_t count, uint32_t offset) {
    size_ = std::max(size_, offset + count);
    Visit(count, offset, [](unsigned char* segment, uint32_t n) {
      std::memset(segment, 0, n);
      return true;
    });
  }
  // Copies `count` bytes from `offset`; offset + count is at most size().
  void Get(unsigned char* bytes, uint32_t count, uint32_t offset) {
    Visit(count, offset, [&](const unsigned char* segment, uint32_t n) {
      std::memcpy(bytes, segment, n);
      bytes += n;
      return true;
    });
  }
  // Hands the first `count` bytes to store(bytes, n, offset), a segment at a time; false as
  // soon as store answers false.
  template <class Sink>
  bool Store(uint32_t count, Sink&& store) {
    uint32_t offset = 0;
    return Visit(count, 0, [&](const unsigned char* segment, uint32_t n) {
      const bool stored = store(segment, n, offset);
      offset += n;
      return stored;
    });
  }
  // Drops the bytes and frees their memory.
  void Clear() {
    segments_.clear();
    size_ = 0;
  }

 private:
  static constexpr uint32_t kSegment = 1u << 20;

  template <class Step>
  bool Visit(uint32_t count, uint32_t offset, Step&& step) {
    while (count != 0) {
      const uint32_t within = offset % kSegment;
      const uint32_t n = std::min(count, kSegment - within);
      if (!step(segments_[offset / kSegment].get() + within, n)) return false;
      offset += n;
      count -= n;
    }
    return true;
  }

  std::vector<std::unique_ptr<unsigned char[]>> segments_;
  uint32_t size_ = 0;
};

class DatabaseFile final : public StorageFile, private SettleableFile {
 public:
  DatabaseFile(std::shared_ptr<DatabaseConnection> connection, const char* path)
      : connection_(std::move(connection)),
        key_(SplitRowKey(path)),
        rollbacks_(connection_->rollbacks) {}
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
  // Forgets the rowid, the length, the blob handle and the tail when an explicit transaction
  // has been rolled back since the file last looked (DatabaseConnection::rollbacks).
  void ForgetRolledBack();
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
  // when there is none. Sets rowId and length (to `stored`); the tail is left to the caller.
  bool Reshape(uint32_t keep, uint32_t stored);
  // Inside an explicit transaction, with a row whose length is known: writes the caller's
  // `count` bytes at `offset` (at most `length_`), the part below the stored end through the
  // blob handle, the rest into the tail. Nothing changes when it fails (false).
  bool WriteWithTail(const unsigned char* bytes, uint32_t count, uint32_t offset);
  // Stores the file as a Content of `size` bytes: the stored bytes below the tail, then the
  // tail, cut or followed by zero bytes to reach `size`. Run through Atomically; the caller
  // clears the tail when it succeeded.
  bool StoreTail(uint32_t size);
  // Runs steps() (which answers success) as one unit, a transaction of its own outside an
  // explicit one: when it fails, throws std::bad_alloc or cannot commit, the row and the file's
  // state are as before, and the answer is false. `oneStatement`: steps() runs one statement,
  // atomic by itself, and needs no savepoint.
  template <class Steps>
  bool Atomically(bool oneStatement, Steps&& steps);
  // The longest Content SQLite stores for this row.
  uint64_t MaxStored() const;
  // Stores `size` bytes as the Content: `bytes`, or zero bytes when it is null (a zeroblob,
  // built by SQLite without a buffer). Creates the row when there is none. Sets rowId and
  // length; the tail is left to the caller.
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
  // Inside an explicit transaction, while `tail_` holds bytes: the row holds exactly the file's
  // first `storedLength_` bytes, `tail_` the rest, and `length_` is their sum.
  uint32_t storedLength_ = 0;
  Tail tail_;
  uint64_t rollbacks_;  // DatabaseConnection::rollbacks when the file last looked
};

DatabaseFile::~DatabaseFile() {
  const Hold hold(connection_->lock);
  if (!Settle()) connection_->settleFailed = true;
  connection_->Forget(this);
}

bool DatabaseFile::SharesRow(const RowKey& key, int64_t rowId) const {
  return (rowId != 0 && rowId == rowId_) ||
         (key.fileName == key_.fileName && key.path == key_.path);
}

void DatabaseFile::ForgetRolledBack() {
  if (rollbacks_ == connection_->rollbacks) return;
  rollbacks_ = connection_->rollbacks;
  blob_.reset();
  tail_.Clear();
  rowId_ = 0;
  lengthKnown_ = false;
}

bool DatabaseFile::Settle() {
  blob_.reset();
  ForgetRolledBack();  // a transaction rolled back since took the tail with it
  if (!connection_->inTransaction) {
    // The transaction the tail belonged to has ended without it (rolled back): it is gone.
    if (!tail_.empty()) lengthKnown_ = false;  // the next call asks the row again
    tail_.Clear();
  } else if (!tail_.empty() && sqlite3_get_autocommit(db()) != 0) {
    // SQLite rolled the transaction back itself after an error (a full disk does so): the tail
    // went with it, and storing it now would commit it on its own.
    ++connection_->rollbacks;
    ForgetRolledBack();
    connection_->Forget(this);
    return false;
  } else if (!tail_.empty()) {
    // Still inside the transaction (the storage settles before it commits): the guard of the
    // rewrite joins it. A tail that cannot be stored stays pending, and the file remembered,
    // for the next settle; the commit settles last.
    if (!Atomically(false, [this] { return StoreTail(length_); })) return false;
    tail_.Clear();
  }
  connection_->Forget(this);
  return true;
}

bool DatabaseFile::Enter() {
  ForgetRolledBack();
  if (!connection_->inTransaction) {
    // Left from a transaction that ended without the storage settling the file: it was rolled
    // back, and the row's length is asked again.
    blob_.reset();
    if (!tail_.empty()) lengthKnown_ = false;
    tail_.Clear();
    return true;
  }
  // A file renamed while another holds a tail for its row is found by its rowid only.
  if (rowId_ == 0) FindRow();
  return connection_->SettleFiles(&key_, rowId_, this);
}

bool DatabaseFile::Leave() {
  if (connection_->inTransaction) {
    if (blob_ || !tail_.empty()) connection_->Remember(this);
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
  if (tail_.empty()) length_ = static_cast<uint32_t>(sqlite3_blob_bytes(blob.get()));
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
  if (read && !tail_.empty()) {
    // The bytes below the stored end come through the blob handle, the rest from the tail.
    count = position_ < length_
                ? static_cast<uint32_t>(std::min<uint64_t>(size, length_ - position_))
                : 0;
    const uint32_t end = position_ + count;
    const uint32_t stored =
        position_ < storedLength_ ? std::min(end, storedLength_) - position_ : 0;
    auto* bytes = static_cast<unsigned char*>(buffer);
    read = stored == 0 || BlobIo(false, bytes, stored, position_);
    if (read && stored < count) {
      tail_.Get(bytes + stored, count - stored, position_ + stored - storedLength_);
    }
    count = read ? count : 0;
  }
  // The handle learns the length as well. A kept handle whose row was rewritten meanwhile
  // answers SQLITE_ABORT: the new handle then learns the new length, and the count follows it.
  for (int attempt = 0; read && tail_.empty() && attempt < 2; ++attempt) {
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
  if (written && connection_->inTransaction && rowId_ != 0 && (lengthKnown_ || length_ == 0) &&
      (end > length_ || !tail_.empty())) {
    // Growing, or a tail is pending: the row is stored when something can see it.
    written = WriteWithTail(static_cast<const unsigned char*>(buffer),
                            static_cast<uint32_t>(size), position_);
  } else if (written && end <= length_) {
    // In place: no guard of its own. Outside an explicit transaction the blob handle's
    // statement is the transaction, and closing the handle (Leave) commits it; a close that
    // cannot commit has been rolled back by SQLite, so the write did not happen.
    written = BlobIo(true, bytes, static_cast<uint32_t>(size), position_);
  } else if (written) {
    // Past the end: one transaction of its own outside an explicit one, so a second connection
    // sees the old content or the new one, never the zero bytes between. At position 0 the
    // caller's bytes are the whole new Content: one statement. Inside an explicit transaction
    // only the first write of a file without a row comes here, and creates the row.
    written = Atomically(position_ == 0, [&] {
      if (position_ == 0) return StoreContent(buffer, static_cast<uint32_t>(size));
      return Reshape(position_, static_cast<uint32_t>(end)) &&
             BlobIo(true, bytes, static_cast<uint32_t>(size), position_);
    });
  }
  written = Leave() && written;
  if (!written) return 0;
  position_ = static_cast<uint32_t>(end);
  return size;
}

bool DatabaseFile::WriteWithTail(const unsigned char* bytes, uint32_t count, uint32_t offset) {
  const uint32_t end = offset + count;
  // Refused here, by the write itself, rather than when the tail is stored.
  if (end > MaxStored()) return false;
  if (tail_.empty()) {
    // A tail starts from the row as it is now: another handle may have resized or deleted it
    // since this file last looked (it settles no file without a tail). A deleted row fails the
    // write here, as a rewrite of it would.
    blob_.reset();
    if (AcquireBlob(true) == nullptr) return false;
    storedLength_ = length_;
  }
  const uint32_t stored = offset < storedLength_ ? std::min(end, storedLength_) - offset : 0;
  if (stored < count) {
    try {
      tail_.Reserve(end - storedLength_);
    } catch (const std::bad_alloc&) {
      return false;  // the write's own failure: nothing is stored
    }
    // A row shortened by another handle leaves a gap before the position: zero bytes.
    const uint32_t held = storedLength_ + tail_.size();
    if (offset > held) tail_.Zero(offset - held, tail_.size());
  }
  // The caller's bytes below the stored end go into the row, in place.
  if (stored != 0 && !BlobIo(true, const_cast<unsigned char*>(bytes), stored, offset)) {
    return false;
  }
  if (stored < count) tail_.Put(bytes + stored, count - stored, offset + stored - storedLength_);
  length_ = std::max(length_, end);
  return true;
}

bool DatabaseFile::StoreTail(uint32_t size) {
  const uint32_t keep = std::min(storedLength_, size);
  if (!Reshape(keep, size)) return false;
  const uint32_t fromTail = size > storedLength_ ? std::min(size - storedLength_, tail_.size()) : 0;
  return tail_.Store(fromTail, [this](const unsigned char* bytes, uint32_t count,
                                      uint32_t offset) {
    return BlobIo(true, const_cast<unsigned char*>(bytes), count, storedLength_ + offset);
  });
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
    // A pending tail is stored with the new length: one rewrite for both.
    if (!tail_.empty()) return StoreTail(static_cast<uint32_t>(size));
    return Reshape(static_cast<uint32_t>(std::min<uint64_t>(size, length_)),
                   static_cast<uint32_t>(size));
  });
  if (resized) tail_.Clear();
  if (!Leave() || !resized) return false;
  position_ = std::min(position_, length_);
  return true;
}

template <class Steps>
bool DatabaseFile::Atomically(bool oneStatement, Steps&& steps) {
  const int64_t rowId = rowId_;
  const uint32_t length = length_;
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
