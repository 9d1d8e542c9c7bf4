// TransactionGuard: one operation, one transaction, unless the caller opened one.
#include "database/transaction_guard.h"

namespace velfs {

TransactionGuard::TransactionGuard(sqlite3* db, bool inTransaction)
    : db_(db), suppressed_(inTransaction) {
  if (db_ != nullptr && !suppressed_) {
    began_ = sqlite3_exec(db_, "BEGIN TRANSACTION;", nullptr, nullptr, nullptr) == SQLITE_OK;
  }
}

TransactionGuard::~TransactionGuard() { Commit(); }

bool TransactionGuard::Commit() {
  if (ended_ || db_ == nullptr || suppressed_) return true;
  ended_ = true;
  if (sqlite3_exec(db_, "COMMIT TRANSACTION;", nullptr, nullptr, nullptr) == SQLITE_OK ||
      !began_ || sqlite3_get_autocommit(db_) != 0) {
    return true;  // committed, not ours to undo, or nothing left to commit
  }
  sqlite3_exec(db_, "ROLLBACK TRANSACTION;", nullptr, nullptr, nullptr);
  return false;
}

}  // namespace velfs
