// `TransactionGuard` wraps one operation in "BEGIN TRANSACTION;" … "COMMIT TRANSACTION;"
// unless the storage is inside an explicit transaction (then it issues nothing and the
// operation joins that transaction). There is no nesting counter: a BEGIN refused because a
// transaction is already open is ignored, and so is a COMMIT refused because none is.
//
// Every change is in the database when the operation returns. A COMMIT that fails while the
// transaction stays open (another connection holds a read lock, so the write lock cannot be had)
// would otherwise leave the change pending until some
// later statement or lose it when the storage closes. `Commit` therefore rolls back a
// transaction that its own BEGIN opened and could not commit, and answers false; writing
// operations fail with it, so nothing that answered success is left uncommitted and nothing of a
// failed operation stays behind. A transaction the guard did not open is left to its owner.
//
// Declare the guard before the statements of the operation and finalize them before `Commit`:
// a stepped, unfinalized statement makes the COMMIT fail.
#ifndef VELFS_DATABASE_TRANSACTION_GUARD_H
#define VELFS_DATABASE_TRANSACTION_GUARD_H

#include <sqlite3.h>

namespace velfs {

class TransactionGuard {
 public:
  TransactionGuard(sqlite3* db, bool inTransaction);
  TransactionGuard(const TransactionGuard&) = delete;
  TransactionGuard& operator=(const TransactionGuard&) = delete;
  ~TransactionGuard();

  // Ends the guard early (the destructor then does nothing). True when the operation's changes
  // are committed, or belong to the caller's explicit transaction.
  bool Commit();

 private:
  sqlite3* db_;
  bool suppressed_;
  bool began_ = false;  // this guard's BEGIN opened the transaction
  bool ended_ = false;
};

}  // namespace velfs

#endif  // VELFS_DATABASE_TRANSACTION_GUARD_H
