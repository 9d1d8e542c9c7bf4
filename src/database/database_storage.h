// `DatabaseStorage`, a tree of virtual files kept in one SQLite database file.
//
// Every file is one row of the table "FileStorage" keyed by (FileName, Path); directories have no
// rows and exist while some row's Path begins with them (LIKE, so ASCII case and the wildcards
// '%' and '_' count). Every operation is its own transaction (TransactionGuard) unless the caller
// opened one with BeginTrans; then all join it until CommitTrans. Destroying the storage with a
// transaction open rolls it back. Files and listings share the connection
// and must be destroyed before the storage.
#ifndef VELFS_DATABASE_DATABASE_STORAGE_H
#define VELFS_DATABASE_DATABASE_STORAGE_H

#include <memory>
#include <string>

#include "core/storage.h"
#include "database/row_key.h"
#include "database/sqlite_handles.h"

namespace velfs {

class DatabaseStorage final : public Storage {
 public:
  static constexpr const char* kTableName = "FileStorage";

  // Opens or creates the database at `path` ("" gives a private temporary database); null when
  // SQLite cannot open it or the pragmas and the table cannot be set up.
  static std::unique_ptr<Storage> Open(const char* path);

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

  sqlite3* db() const { return db_.get(); }
  bool inTransaction() const { return inTransaction_; }

 private:
  DatabaseStorage(std::string dbPath, Connection db);
  // CopyFile's read and write statements, inside the caller's guard.
  bool CopyContent(const RowKey& source, const RowKey& target, bool exists);
  // Runs one statement through sqlite3_exec inside a TransactionGuard; true on SQLITE_OK.
  bool ExecuteGuarded(const char* sql);

  std::string dbPath_;
  Connection db_;
  bool inTransaction_ = false;
};

}  // namespace velfs

#endif  // VELFS_DATABASE_DATABASE_STORAGE_H
