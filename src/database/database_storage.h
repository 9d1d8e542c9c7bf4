// The database back-end: a tree of virtual files kept in one SQLite database file.
//
// Every file is one row of the table "FileStorage" keyed by (FileName, Path); directories have
// no rows and exist while some row's Path begins with them (LIKE, so ASCII case and the
// wildcards '%' and '_' count). Every operation is its own transaction (TransactionGuard) unless
// the caller opened one with BeginTrans; then all join it until CommitTrans. Destroying the
// storage with a transaction open rolls it back. Files share the storage's connection, which
// stays open until the storage and its last file are gone, so a file may outlive its storage;
// listings are read whole when they are made and hold nothing of it.
//
// Threads: one connection serves the storage and all its files, and the explicit transaction
// belongs to that connection, so every operation of the storage and of its files runs under the
// connection's lock, one at a time. Distinct storages (connections) run in parallel.
#ifndef VELFS_DATABASE_DATABASE_STORAGE_H
#define VELFS_DATABASE_DATABASE_STORAGE_H

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "core/storage.h"

namespace velfs {

enum class DatabaseAccess {
  // The database is created when no file is there ("" gives a private temporary database), its
  // pragmas are set and the table "FileStorage" is created when it has none.
  kCreate,
  // An existing database that already has the table, opened with SQLITE_OPEN_READONLY: nothing
  // is created and nothing written, not even a pragma.
  kReadOnly,
};

// A storage over the database at `path`; null when SQLite cannot open it, the pragmas or the
// table cannot be set up (kCreate), or "FileStorage" is not a table with the columns FileName,
// Path and Content: then the file is not a database of this kind.
std::unique_ptr<Storage> OpenDatabaseStorage(const std::string& path,
                                             DatabaseAccess access = DatabaseAccess::kCreate);

// ---- What the storage and its files share ---------------------------------------------------

// The connection (closing it rolls back an open transaction), a prepared statement, and an
// incremental-blob handle.
using Connection = std::unique_ptr<sqlite3, ReleaseWith<&sqlite3_close>>;
using Statement = std::unique_ptr<sqlite3_stmt, ReleaseWith<&sqlite3_finalize>>;
using Blob = std::unique_ptr<sqlite3_blob, ReleaseWith<&sqlite3_blob_close>>;

// sqlite3_prepare_v2 with text length -1; null when the prepare fails.
Statement Prepare(sqlite3* db, const char* sql);

// One statement text made by SQLite's printf ("%s" the table name, "%Q" a quoted literal,
// "%lld" a rowid), owned. `Format` releases the text held before and answers the new one;
// it throws std::bad_alloc when SQLite cannot allocate the text.
class StatementText {
 public:
  StatementText() = default;
  StatementText(const StatementText&) = delete;
  StatementText& operator=(const StatementText&) = delete;
  ~StatementText();

  const char* Format(const char* format, ...);
  const char* text() const { return text_; }

 private:
  char* text_ = nullptr;
};

// The row key of a storage path. `path` is everything up to and including the last '/',
// `fileName` the rest; nothing else is normalised (case, leading, doubled and trailing '/' all
// stay): a/b/c.txt → (c.txt, a/b/), /c.txt → (c.txt, /), a/b/ → ("", a/b/).
struct RowKey {
  std::string fileName;
  std::string path;
};
RowKey SplitRowKey(std::string_view path);

// A file that keeps state between calls inside an explicit transaction: a blob handle, and
// perhaps bytes past its row's stored end, not stored yet (database_file.cc). The connection
// settles such files before any statement that could see the row.
class SettleableFile {
 public:
  // Stores exactly the file's bytes in its row and closes its blob handle; false when the row
  // could not be rewritten: the file then keeps its bytes for a later settle, unless the
  // transaction they belonged to is gone.
  virtual bool Settle() = 0;
  // True when an operation addressing the row `rowId` (0: unknown) or the key `key` may reach
  // this file's row.
  virtual bool SharesRow(const RowKey& key, int64_t rowId) const = 0;
  // Closes the file's blob handle and keeps the rest.
  virtual void CloseBlob() = 0;

 protected:
  ~SettleableFile() = default;
};

// What a storage and its files share: the connection, its explicit transaction, and the lock
// every operation on the connection holds while it runs. Recursive: an operation may call
// another (MoveFile calls CopyFile and DeleteFile). Everything below is used under the lock.
struct DatabaseConnection {
  explicit DatabaseConnection(Connection connection) : db(std::move(connection)) {}

  // The statements a file runs on every open and every growing write, prepared once for the
  // connection's life. Use one through a CachedStatement, which resets it when it goes: a reset
  // statement holds no lock and blocks no COMMIT. Null when the prepare failed.
  enum class Query {
    kFindRow,     // 1 FileName, 2 Path → rowid
    kInsertRow,   // 1 FileName, 2 Path, 3 Content
    kSetContent,  // 1 Content, 2 rowid
    kCount
  };
  sqlite3_stmt* Cached(Query query);

  // The files that keep state between calls. `Remember` registers one (again: no effect),
  // `Forget` removes it; files forget themselves when they settle and when they are destroyed.
  void Remember(SettleableFile* file);
  void Forget(SettleableFile* file);
  // Settles every remembered file other than `except` that shares the row of `key` and `rowId`,
  // or every one when `key` is null. False when one of them failed.
  bool SettleFiles(const RowKey* key = nullptr, int64_t rowId = 0,
                   const SettleableFile* except = nullptr);
  // Closes the blob handles of the remembered files other than `except`: a savepoint can be
  // opened or released, and a transaction committed or rolled back, only while no read-write
  // blob is open on the connection.
  void CloseBlobs(const SettleableFile* except = nullptr);

  std::recursive_mutex lock;
  Connection db;
  bool inTransaction = false;  // between a successful BeginTrans and the next CommitTrans
  // A file could not settle when it was closed: the transaction lacks some of its bytes, and the
  // next CommitTrans rolls it back.
  bool settleFailed = false;
  // Counts the explicit transactions rolled back. A rowid or a tail that a file learned or kept
  // before a rollback may belong to no row any more, and SQLite gives a rolled-back rowid to the
  // next row inserted: a file that sees the count change forgets both.
  uint64_t rollbacks = 0;

 private:
  Statement cached_[static_cast<int>(Query::kCount)];  // finalized before db closes
  std::vector<SettleableFile*> remembered_;
};

// One use of a statement from DatabaseConnection::Cached: reset, with its bindings cleared, when
// the use ends.
class CachedStatement {
 public:
  CachedStatement(DatabaseConnection& connection, DatabaseConnection::Query query)
      : statement_(connection.Cached(query)) {}
  CachedStatement(const CachedStatement&) = delete;
  CachedStatement& operator=(const CachedStatement&) = delete;
  ~CachedStatement() {
    if (statement_ == nullptr) return;
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
  }
  sqlite3_stmt* get() const { return statement_; }
  explicit operator bool() const { return statement_ != nullptr; }

 private:
  sqlite3_stmt* statement_;
};

class DatabaseStorage final : public Storage {
 public:
  static constexpr const char* kTableName = "FileStorage";

  explicit DatabaseStorage(std::shared_ptr<DatabaseConnection> connection)
      : connection_(std::move(connection)) {}
  // Rolls back a transaction still open on the connection, as closing it would.
  ~DatabaseStorage() override;

  std::unique_ptr<StorageFile> CreateFile(const char* path, uint32_t mode) override;
  std::unique_ptr<StorageEnum> CreateEnum(const char* path) override;
  bool IsFileExist(const char* path, bool* exists) override;
  bool DeleteDirectory(const char* path) override;
  bool IsDirectoryExist(const char* path, bool* exists) override;
  bool DeleteFile(const char* path) override;
  bool RenameFile(const char* oldPath, const char* newPath) override;
  bool CopyFile(const char* sourcePath, const char* targetPath, bool failIfExists) override;
  bool MoveFile(const char* sourcePath, const char* targetPath, bool failIfExists) override;
  bool BeginTrans() override;
  bool CommitTrans() override;

 private:
  sqlite3* db() const { return connection_->db.get(); }

  // CopyFile's read and write statements, inside the caller's guard.
  bool CopyContent(const RowKey& source, const RowKey& target, bool exists);
  // Runs one statement through sqlite3_exec inside a TransactionGuard; true on SQLITE_OK.
  bool ExecuteGuarded(const char* sql);
  // Runs a query and sets *exists to whether it yields a row; false when it cannot be prepared.
  bool QueryHasRow(const char* sql, bool* exists);
  // The listing query of `directory` (empty or ending in '/'), prepared or kept from the last
  // listing; null when it cannot be prepared. The caller resets it when done.
  sqlite3_stmt* ListingQuery(const std::string& directory);

  const std::shared_ptr<DatabaseConnection> connection_;
  // The query of the directory listed last stays prepared, so listing it again (a host that
  // refreshes its view) skips the prepare. Its pattern is written into the text, not bound: a
  // LIKE pattern may choose the plan, so SQLite prepares a statement again at every new binding
  // of one anyway. Finalized under the lock before the connection can close.
  Statement listingQuery_;
  std::string listedDirectory_;  // the directory of listingQuery_
};

// A file on `connection` whose bytes are the Content of the row keyed by `path`
// (database_file.cc). Runs no statement: the row is looked up at the first call that needs it.
std::unique_ptr<StorageFile> MakeDatabaseFile(std::shared_ptr<DatabaseConnection> connection,
                                              const char* path);

// `TransactionGuard` wraps one operation in "BEGIN TRANSACTION;" … "COMMIT TRANSACTION;", or,
// while the storage is inside an explicit transaction, issues nothing and lets the operation
// join that transaction. There is no nesting counter: a BEGIN refused because a transaction is
// already open is ignored, and so is a COMMIT refused because none is.
//
// Every change is in the database when the operation returns. A COMMIT that fails while the
// transaction stays open (another connection holds a read lock, so the write lock cannot be
// had) would otherwise leave the change pending until some later statement, or lose it when the
// storage closes. `Commit` therefore rolls back a transaction that its own BEGIN opened and
// could not commit, and answers false; writing operations fail with it, so nothing that
// answered success is left uncommitted and nothing of a failed operation stays behind. A
// transaction the guard did not open is left to its owner.
//
// Declare the guard before the statements of the operation and finalize them before `Commit`:
// a stepped, unfinalized statement makes the COMMIT fail.
class TransactionGuard {
 public:
  explicit TransactionGuard(const DatabaseConnection& connection);
  TransactionGuard(const TransactionGuard&) = delete;
  TransactionGuard& operator=(const TransactionGuard&) = delete;
  ~TransactionGuard();

  // Ends the guard early (the destructor then does nothing). True when the operation's changes
  // are committed, or belong to the caller's explicit transaction.
  bool Commit();

 private:
  sqlite3* db_;
  bool joined_;         // the explicit transaction was open: the guard issues nothing
  bool began_ = false;  // this guard's BEGIN opened the transaction
  bool ended_ = false;
};

}  // namespace velfs

#endif  // VELFS_DATABASE_DATABASE_STORAGE_H
