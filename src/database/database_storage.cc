// The database back-end: DatabaseStorage, its transactions and statement texts, and its
// listings (core's Listing, filled by one query). Files are in database_file.cc.
#include "database/database_storage.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdarg>
#include <new>
#include <utility>

#include "core/listing.h"

namespace velfs {
namespace {

bool Execute(sqlite3* db, const char* sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

// A statement kept by its owner for later uses, reset (not finalized) when this use ends.
using StatementUse = std::unique_ptr<sqlite3_stmt, ReleaseWith<&sqlite3_reset>>;

// sqlite3_column_text as a view; false for NULL. The column's value is taken once and asked for
// its text and length, which spares a second pass through the statement's checks and error
// bookkeeping. The value is unprotected, which is safe because the connection is only used
// under its lock.
bool ColumnText(sqlite3_stmt* statement, int column, std::string_view& text) {
  sqlite3_value* value = sqlite3_column_value(statement, column);
  const auto* bytes = reinterpret_cast<const char*>(sqlite3_value_text(value));
  if (bytes == nullptr) return false;
  text = std::string_view(bytes, static_cast<std::size_t>(sqlite3_value_bytes(value)));
  return true;
}

// A database file may come from anyone, so the connection is set up as SQLite advises for
// untrusted database files, before its first statement reads the schema:
//  - defensive mode: no statement can corrupt the file on purpose (writable_schema and the
//    like are refused);
//  - an untrusted schema: functions named in the schema (CHECK, DEFAULT, generated columns,
//    expression indexes) may only be those SQLite marks innocuous;
//  - no triggers and no views: velFS reads and writes one table and never runs the schema's
//    code, so a trigger on "FileStorage" does not fire and a view cannot be computed;
//  - limits on what a statement or a schema entry may be: no attached databases, shallow
//    expressions, few compound terms, function arguments and variables, and short statement
//    texts. Each stays well above what velFS's own statements need (two quoted paths, three
//    variables, no compound SELECT). The blob length and the LIKE pattern length keep their
//    defaults: a file's Content and a directory path are as long as the caller makes them.
// A progress handler is not installed: velFS's statements run over one table, and counting
// steps could abort a long but legitimate listing. The process-wide heap limit is not set
// either: it would bind every other SQLite user of the process.
bool HardenConnection(sqlite3* db) {
  for (const int option : {SQLITE_DBCONFIG_DEFENSIVE, SQLITE_DBCONFIG_TRUSTED_SCHEMA,
                           SQLITE_DBCONFIG_ENABLE_TRIGGER, SQLITE_DBCONFIG_ENABLE_VIEW}) {
    const int wanted = option == SQLITE_DBCONFIG_DEFENSIVE ? 1 : 0;
    int set = -1;
    if (sqlite3_db_config(db, option, wanted, &set) != SQLITE_OK || set != wanted) return false;
  }
  static constexpr struct {
    int limit;
    int value;
  } kLimits[] = {
      {SQLITE_LIMIT_ATTACHED, 0},         {SQLITE_LIMIT_EXPR_DEPTH, 100},
      {SQLITE_LIMIT_COMPOUND_SELECT, 3},  {SQLITE_LIMIT_FUNCTION_ARG, 8},
      {SQLITE_LIMIT_VARIABLE_NUMBER, 10}, {SQLITE_LIMIT_TRIGGER_DEPTH, 1},
      {SQLITE_LIMIT_SQL_LENGTH, 1 << 20},
  };
  for (const auto& [limit, value] : kLimits) sqlite3_limit(db, limit, value);
  return true;
}

// True when "FileStorage" is an ordinary table of the main database (rootpage 0 would be a
// virtual table, whose module's code would run) with the columns every statement names. A view
// of that name, which may be recursive or costly to compute, is declined with the rest: the file
// is not a database of this kind.
bool HasFileTable(sqlite3* db) {
  StatementText sql;
  const Statement table = Prepare(
      db, sql.Format("SELECT 1 FROM sqlite_master WHERE type='table' AND rootpage>0 AND "
                     "name=%Q COLLATE NOCASE;",
                     DatabaseStorage::kTableName));
  if (!table || sqlite3_step(table.get()) != SQLITE_ROW) return false;
  return Prepare(db, sql.Format("SELECT FileName, Path, Content FROM %s LIMIT 0;",
                                DatabaseStorage::kTableName)) != nullptr;
}

}  // namespace

Statement Prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
  return Statement(statement);
}

StatementText::~StatementText() { sqlite3_free(text_); }

const char* StatementText::Format(const char* format, ...) {
  sqlite3_free(text_);
  va_list arguments;
  va_start(arguments, format);
  text_ = sqlite3_vmprintf(format, arguments);
  va_end(arguments);
  if (text_ == nullptr) throw std::bad_alloc();  // sqlite3_vmprintf fails only for memory
  return text_;
}

RowKey SplitRowKey(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return {std::string(path), {}};
  return {std::string(path.substr(slash + 1)), std::string(path.substr(0, slash + 1))};
}

TransactionGuard::TransactionGuard(const DatabaseConnection& connection)
    : db_(connection.db.get()), joined_(connection.inTransaction) {
  if (db_ != nullptr && !joined_) began_ = Execute(db_, "BEGIN TRANSACTION;");
}

TransactionGuard::~TransactionGuard() { Commit(); }

bool TransactionGuard::Commit() {
  if (ended_ || db_ == nullptr || joined_) return true;
  ended_ = true;
  if (Execute(db_, "COMMIT TRANSACTION;") || !began_ || sqlite3_get_autocommit(db_) != 0) {
    return true;  // committed, not ours to undo, or nothing left to commit
  }
  Execute(db_, "ROLLBACK TRANSACTION;");
  return false;
}

std::unique_ptr<Storage> OpenDatabaseStorage(const std::string& path, DatabaseAccess access) {
  const bool readOnly = access == DatabaseAccess::kReadOnly;
  sqlite3* raw = nullptr;
  // Every call on the connection is made under DatabaseConnection::lock, so the connection's
  // own mutex, which a serialized SQLite takes and drops on every step and every column read,
  // guards nothing: NOMUTEX leaves it out.
  const int opened = sqlite3_open_v2(
      path.c_str(), &raw,
      (readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) |
          SQLITE_OPEN_NOMUTEX,
      nullptr);
  Connection db(raw);  // closed on every way out but success
  if (opened != SQLITE_OK || !HardenConnection(db.get())) return nullptr;
  if (readOnly) {
    if (!Execute(db.get(), "PRAGMA cache_size=400")) return nullptr;  // the connection's alone
  } else {
    StatementText create;
    create.Format(
        "create table if not exists %s (FileName text, Path text, Content blob, Info blob, "
        "primary key(FileName, Path));",
        DatabaseStorage::kTableName);
    if (!Execute(db.get(), "PRAGMA page_size=8192") ||
        !Execute(db.get(), "PRAGMA cache_size=400") || !Execute(db.get(), create.text())) {
      return nullptr;
    }
  }
  if (!HasFileTable(db.get())) return nullptr;
  // Pages read through the memory mapping cost no system call and no copy into the page cache:
  // a blob handle walking a long overflow chain then takes nanoseconds per page. The mapping
  // changes nothing that is stored, and SQLite reads the pages it cannot map.
  Execute(db.get(), "PRAGMA mmap_size=2147418112");
  return std::make_unique<DatabaseStorage>(std::make_shared<DatabaseConnection>(std::move(db)));
}

DatabaseStorage::~DatabaseStorage() {
  const std::lock_guard<std::recursive_mutex> hold(connection_->lock);
  listingQuery_.reset();
  connection_->CloseBlobs();  // files that outlive the storage reopen theirs outside it
  if (sqlite3_get_autocommit(db()) == 0) Execute(db(), "ROLLBACK TRANSACTION;");
  if (connection_->inTransaction) ++connection_->rollbacks;
  connection_->inTransaction = false;
}

std::unique_ptr<StorageFile> DatabaseStorage::CreateFile(const char* path, uint32_t) {
  return MakeDatabaseFile(connection_, path);
}

sqlite3_stmt* DatabaseStorage::ListingQuery(const std::string& directory) {
  if (listingQuery_ && directory == listedDirectory_) return listingQuery_.get();
  listingQuery_.reset();
  const std::string pattern = directory + "%";
  StatementText sql;
  sql.Format("SELECT FileName, Path from %s where Path like %Q;", kTableName, pattern.c_str());
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v3(db(), sql.text(), -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
  listingQuery_.reset(statement);
  listedDirectory_ = directory;
  return statement;
}

// Files are the rows whose Path equals the directory; subdirectories are derived from the
// Paths of deeper rows, in the order of the first row revealing each. Rows with a NULL FileName
// or Path name no file and are skipped; a step error ends the listing early without a report.
// The query is reset before the guard ends, on every way out: no statement stays active and no
// read lock is held once the listing is made.
std::unique_ptr<StorageEnum> DatabaseStorage::CreateEnum(const char* path) {
  const std::lock_guard<std::recursive_mutex> hold(connection_->lock);
  std::string directory = path;
  if (!directory.empty() && directory.back() != '/') directory += '/';
  TransactionGuard guard(*connection_);
  auto listing = std::make_unique<Listing>(directory);
  const StatementUse query(ListingQuery(directory));
  if (!query) return nullptr;
  std::string_view fileName, rowDirectory;
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    if (!ColumnText(query.get(), 1, rowDirectory)) continue;
    if (rowDirectory == directory) {
      if (ColumnText(query.get(), 0, fileName)) listing->AddFile(fileName);
      continue;
    }
    // A deeper row needs its FileName only to be not NULL: the text is not fetched.
    if (sqlite3_column_type(query.get(), 0) == SQLITE_NULL) continue;
    // Deeper rows name a subdirectory by their next segment. The dropped prefix is not compared
    // with `directory`: LIKE matched it ignoring ASCII case and with '%' and '_' as wildcards.
    if (rowDirectory.size() <= directory.size()) continue;
    const std::string_view rest = rowDirectory.substr(directory.size());
    const std::size_t slash = rest.find('/');
    if (slash == std::string_view::npos) continue;
    listing->AddDirectory(rest.substr(0, slash + 1));
  }
  return listing;
}

bool DatabaseStorage::QueryHasRow(const char* sql, bool* exists) {
  *exists = false;
  const Statement query = Prepare(db(), sql);
  if (!query) return false;
  *exists = sqlite3_step(query.get()) == SQLITE_ROW;
  return true;
}

bool DatabaseStorage::IsFileExist(const char* path, bool* exists) {
  const std::lock_guard<std::recursive_mutex> hold(connection_->lock);
  const RowKey key = SplitRowKey(path);
  TransactionGuard guard(*connection_);
  StatementText sql;
  return QueryHasRow(sql.Format("SELECT rowid from %s where FileName=%Q and Path=%Q;", kTableName,
                                key.fileName.c_str(), key.path.c_str()),
                     exists);
}

bool DatabaseStorage::DeleteDirectory(const char* path) {
  const std::lock_guard<std::recursive_mutex> hold(connection_->lock);
  if (!connection_->SettleFiles()) return false;  // they read or remove rows
  const std::string pattern = std::string(path) + "%";
  StatementText sql;
  return ExecuteGuarded(sql.Format("delete from %s where Path like %Q;", kTableName, pattern.c_str()));
}

bool DatabaseStorage::IsDirectoryExist(const char* path, bool* exists) {
  const std::lock_guard<std::recursive_mutex> hold(connection_->lock);
  TransactionGuard guard(*connection_);
  const std::string pattern = std::string(path) + "%";
  StatementText sql;
  return QueryHasRow(sql.Format("SELECT Path from %s where Path like %Q;", kTableName,
                                pattern.c_str()),
                     exists);
}

bool DatabaseStorage::DeleteFile(const char* path) {
  const std::lock_guard<std::recursive_mutex> hold(connection_->lock);
  if (!connection_->SettleFiles()) return false;  // they read or remove rows
  const RowKey key = SplitRowKey(path);
  StatementText sql;
  return ExecuteGuarded(sql.Format("delete from %s where FileName=%Q and Path=%Q;", kTableName,
                                   key.fileName.c_str(), key.path.c_str()));
}

bool DatabaseStorage::RenameFile(const char* oldPath, const char* newPath) {
  const std::lock_guard<std::recursive_mutex> hold(connection_->lock);
  const RowKey from = SplitRowKey(oldPath);
  const RowKey to = SplitRowKey(newPath);
  if (from.path != to.path) return false;  // renames within one directory only
  StatementText sql;
  return ExecuteGuarded(sql.Format("update %s set FileName=%Q where FileName=%Q and Path=%Q;",
                                   kTableName, to.fileName.c_str(), from.fileName.c_str(),
                                   from.path.c_str()));
}

bool DatabaseStorage::CopyFile(const char* sourcePath, const char* targetPath, bool failIfExists) {
  const std::lock_guard<std::recursive_mutex> hold(connection_->lock);
  if (!connection_->SettleFiles()) return false;  // they read or remove rows
  bool exists = false;
  if (!IsFileExist(targetPath, &exists)) return false;
  if (failIfExists && exists) return false;
  const RowKey source = SplitRowKey(sourcePath);
  const RowKey target = SplitRowKey(targetPath);
  TransactionGuard guard(*connection_);
  return CopyContent(source, target, exists) && guard.Commit();
}

bool DatabaseStorage::CopyContent(const RowKey& source, const RowKey& target, bool exists) {
  StatementText readSql, writeSql;
  readSql.Format("SELECT Content from %s where FileName=%Q and Path=%Q;", kTableName,
                 source.fileName.c_str(), source.path.c_str());
  const Statement read = Prepare(db(), readSql.text());
  if (!read || sqlite3_step(read.get()) != SQLITE_ROW) return false;
  const int length = sqlite3_column_bytes(read.get(), 0);
  const void* bytes = sqlite3_column_blob(read.get(), 0);  // null for an empty blob: stores NULL
  Statement write;
  int bound;
  if (exists) {
    write = Prepare(db(),
                    writeSql.Format("UPDATE %s Set Content = ? where FileName=%Q and Path=%Q;",
                                    kTableName, target.fileName.c_str(), target.path.c_str()));
    if (!write) return false;
    bound = sqlite3_bind_blob(write.get(), 1, bytes, length, SQLITE_STATIC);
  } else {
    write = Prepare(db(),
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
  const std::lock_guard<std::recursive_mutex> hold(connection_->lock);
  if (!CopyFile(sourcePath, targetPath, failIfExists)) return false;
  // A move onto the file's own key has just copied the file onto itself; deleting the source
  // would remove the only row, so it answers true unchanged.
  const RowKey source = SplitRowKey(sourcePath);
  const RowKey target = SplitRowKey(targetPath);
  if (source.fileName == target.fileName && source.path == target.path) return true;
  // The delete runs as its own transaction after the copy's: a second connection sees the copy
  // committed, then the delete.
  return DeleteFile(sourcePath);
}

bool DatabaseStorage::BeginTrans() {
  const std::lock_guard<std::recursive_mutex> hold(connection_->lock);
  if (connection_->inTransaction) {
    CommitTrans();
    connection_->inTransaction = false;
  }
  connection_->inTransaction = Execute(db(), "BEGIN TRANSACTION;");
  return connection_->inTransaction;
}

bool DatabaseStorage::CommitTrans() {
  const std::lock_guard<std::recursive_mutex> hold(connection_->lock);
  // Every kept blob handle closes (an open read-write one would make the COMMIT fail) and every
  // row gets its exact length. A row that could not get it is never committed.
  const bool settled = connection_->SettleFiles() && !connection_->settleFailed;
  connection_->settleFailed = false;
  connection_->inTransaction = false;
  if (!settled) {
    Execute(db(), "ROLLBACK TRANSACTION;");
    ++connection_->rollbacks;
    return false;
  }
  return Execute(db(), "COMMIT TRANSACTION;");
}

sqlite3_stmt* DatabaseConnection::Cached(Query query) {
  Statement& slot = cached_[static_cast<int>(query)];
  if (slot) return slot.get();
  StatementText sql;
  switch (query) {
    case Query::kFindRow:
      sql.Format("SELECT rowid from %s where FileName=? and Path=?;", DatabaseStorage::kTableName);
      break;
    case Query::kInsertRow:
      sql.Format("INSERT INTO %s (FileName, Path, Content) VALUES (?, ?, ?);",
                 DatabaseStorage::kTableName);
      break;
    case Query::kSetContent:
      sql.Format("UPDATE %s Set Content = ? where rowid = ?;", DatabaseStorage::kTableName);
      break;
    case Query::kCount:
      return nullptr;
  }
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v3(db.get(), sql.text(), -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
  slot.reset(statement);
  return statement;
}

void DatabaseConnection::Remember(SettleableFile* file) {
  if (std::find(remembered_.begin(), remembered_.end(), file) == remembered_.end()) {
    remembered_.push_back(file);
  }
}

void DatabaseConnection::Forget(SettleableFile* file) {
  remembered_.erase(std::remove(remembered_.begin(), remembered_.end(), file), remembered_.end());
}

bool DatabaseConnection::SettleFiles(const RowKey* key, int64_t rowId,
                                     const SettleableFile* except) {
  bool settled = true;
  // Settling makes a file forget itself: walk a copy.
  const std::vector<SettleableFile*> files = remembered_;
  for (SettleableFile* file : files) {
    if (file != except && (key == nullptr || file->SharesRow(*key, rowId))) {
      settled = file->Settle() && settled;
    }
  }
  return settled;
}

void DatabaseConnection::CloseBlobs(const SettleableFile* except) {
  for (SettleableFile* file : remembered_) {
    if (file != except) file->CloseBlob();
  }
}

bool DatabaseStorage::ExecuteGuarded(const char* sql) {
  TransactionGuard guard(*connection_);
  const bool executed = Execute(db(), sql);
  return guard.Commit() && executed;
}

}  // namespace velfs
