// DatabaseStorage: every operation is one or two SQL statements over "FileStorage".
#include "database/database_storage.h"

#include <utility>

#include "database/database_enum.h"
#include "database/database_file.h"
#include "database/row_key.h"
#include "database/statement_text.h"
#include "database/transaction_guard.h"

namespace velfs {
namespace {

bool Execute(sqlite3* db, const char* sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

}  // namespace

DatabaseStorage::DatabaseStorage(std::string dbPath, Connection db)
    : dbPath_(std::move(dbPath)), db_(std::move(db)) {}

std::unique_ptr<Storage> DatabaseStorage::Open(const char* path) {
  sqlite3* raw = nullptr;
  const int opened = sqlite3_open(path, &raw);
  Connection db(raw);  // closed on every way out but success
  if (opened != SQLITE_OK) return nullptr;
  StatementText create;
  create.Format(
      "create table if not exists %s (FileName text, Path text, Content blob, Info blob, "
      "primary key(FileName, Path));",
      kTableName);
  if (!Execute(db.get(), "PRAGMA page_size=8192") || !Execute(db.get(), "PRAGMA cache_size=400") ||
      !Execute(db.get(), create.text())) {
    return nullptr;
  }
  return std::unique_ptr<Storage>(new DatabaseStorage(path, std::move(db)));
}

std::unique_ptr<StorageFile> DatabaseStorage::CreateFile(const char* path, uint32_t) {
  if (!db_) return nullptr;
  auto file = std::make_unique<DatabaseFile>();
  file->Init(path, kTableName, db_.get(), this);
  return file;
}

std::unique_ptr<StorageEnum> DatabaseStorage::CreateEnum(const char* path) {
  if (!db_) return nullptr;
  auto listing = std::make_unique<DatabaseEnum>();
  if (!listing->Build(path, kTableName, db_.get(), this)) return nullptr;
  return listing;
}

bool DatabaseStorage::IsFileExist(const char* path, bool* exists) {
  if (!db_) return false;
  const RowKey key = SplitRowKey(path);
  TransactionGuard guard(db_.get(), inTransaction_);
  StatementText sql;
  sql.Format("SELECT rowid from %s where FileName=%Q and Path=%Q;", kTableName,
             key.fileName.c_str(), key.path.c_str());
  *exists = false;
  const Statement query = Prepare(db_.get(), sql.text());
  if (!query) return false;
  *exists = sqlite3_step(query.get()) == SQLITE_ROW;
  return true;
}

bool DatabaseStorage::DeleteDirectory(const char* path) {
  if (!db_) return false;
  const std::string pattern = std::string(path) + "%";
  StatementText sql;
  return ExecuteGuarded(sql.Format("delete from %s where Path like %Q;", kTableName, pattern.c_str()));
}

bool DatabaseStorage::IsDirectoryExist(const char* path, bool* exists) {
  if (!db_) return false;
  TransactionGuard guard(db_.get(), inTransaction_);
  const std::string pattern = std::string(path) + "%";
  StatementText sql;
  sql.Format("SELECT Path from %s where Path like %Q;", kTableName, pattern.c_str());
  *exists = false;
  const Statement query = Prepare(db_.get(), sql.text());
  if (!query) return false;
  *exists = sqlite3_step(query.get()) == SQLITE_ROW;
  return true;
}

bool DatabaseStorage::DeleteFile(const char* path) {
  if (!db_) return false;
  const RowKey key = SplitRowKey(path);
  StatementText sql;
  return ExecuteGuarded(sql.Format("delete from %s where FileName=%Q and Path=%Q;", kTableName,
                                   key.fileName.c_str(), key.path.c_str()));
}

bool DatabaseStorage::RenameFile(const char* oldPath, const char* newPath) {
  if (!db_) return false;
  const RowKey from = SplitRowKey(oldPath);
  const RowKey to = SplitRowKey(newPath);
  if (from.path != to.path) return false;  // renames within one directory only
  StatementText sql;
  return ExecuteGuarded(sql.Format("update %s set FileName=%Q where FileName=%Q and Path=%Q;",
                                   kTableName, to.fileName.c_str(), from.fileName.c_str(),
                                   from.path.c_str()));
}

bool DatabaseStorage::CopyFile(const char* sourcePath, const char* targetPath, bool failIfExists) {
  if (!db_) return false;
  bool exists = false;
  if (!IsFileExist(targetPath, &exists)) return false;
  if (failIfExists && exists) return false;
  const RowKey source = SplitRowKey(sourcePath);
  const RowKey target = SplitRowKey(targetPath);
  TransactionGuard guard(db_.get(), inTransaction_);
  return CopyContent(source, target, exists) && guard.Commit();
}

bool DatabaseStorage::CopyContent(const RowKey& source, const RowKey& target, bool exists) {
  StatementText readSql, writeSql;
  readSql.Format("SELECT Content from %s where FileName=%Q and Path=%Q;", kTableName,
                 source.fileName.c_str(), source.path.c_str());
  const Statement read = Prepare(db_.get(), readSql.text());
  if (!read || sqlite3_step(read.get()) != SQLITE_ROW) return false;
  const int length = sqlite3_column_bytes(read.get(), 0);
  const void* bytes = sqlite3_column_blob(read.get(), 0);  // null for an empty blob: stores NULL
  Statement write;
  int bound;
  if (exists) {
    write = Prepare(db_.get(),
                    writeSql.Format("UPDATE %s Set Content = ? where FileName=%Q and Path=%Q;",
                                    kTableName, target.fileName.c_str(), target.path.c_str()));
    if (!write) return false;
    bound = sqlite3_bind_blob(write.get(), 1, bytes, length, SQLITE_STATIC);
  } else {
    write = Prepare(db_.get(),
                    writeSql.Format("INSERT INTO %s (FileName, Path, Content) VALUES (?, ?, ?);",
                                    kTableName));
    if (!write) return false;
    bound = sqlite3_bind_text(write.get(), 1, target.fileName.c_str(), -1, SQLITE_STATIC);
    if (bound == SQLITE_OK) {
      bound = sqlite3_bind_text(write.get(), 2, target.path.c_str(), -1, SQLITE_STATIC);
    }
    if (bound == SQLITE_OK) bound = sqlite3_bind_blob(write.get(), 3, bytes, length, SQLITE_STATIC);
  }
  // `write` is finalized before `read`, whose bytes it binds, and both before the guard commits.
  return bound == SQLITE_OK && sqlite3_step(write.get()) == SQLITE_DONE;
}

bool DatabaseStorage::MoveFile(const char* sourcePath, const char* targetPath, bool failIfExists) {
  if (!db_) return false;
  if (!CopyFile(sourcePath, targetPath, failIfExists)) return false;
  // A move onto the file's own key has just copied the file
  // onto itself; deleting the source would remove the only row, so it answers true unchanged.
  const RowKey source = SplitRowKey(sourcePath);
  const RowKey target = SplitRowKey(targetPath);
  if (source.fileName == target.fileName && source.path == target.path) return true;
  // The delete runs as its own transaction after the copy's: a second connection sees the copy
  // committed, then the delete.
  return DeleteFile(sourcePath);
}

bool DatabaseStorage::BeginTrans() {
  if (inTransaction_) {
    CommitTrans();
    inTransaction_ = false;
  }
  inTransaction_ = Execute(db_.get(), "BEGIN TRANSACTION;");
  return inTransaction_;
}

bool DatabaseStorage::CommitTrans() {
  inTransaction_ = false;
  return Execute(db_.get(), "COMMIT TRANSACTION;");
}

bool DatabaseStorage::ExecuteGuarded(const char* sql) {
  TransactionGuard guard(db_.get(), inTransaction_);
  const bool executed = Execute(db_.get(), sql);
  return guard.Commit() && executed;
}

}  // namespace velfs
