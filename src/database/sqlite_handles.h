// RAII owners of the SQLite resources the database back-end holds: a connection (closed with
// sqlite3_close), a prepared statement (finalized) and an incremental-blob handle (closed).
#ifndef VELFS_DATABASE_SQLITE_HANDLES_H
#define VELFS_DATABASE_SQLITE_HANDLES_H

#include <sqlite3.h>

#include <memory>

namespace velfs {

struct ConnectionCloser {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
struct StatementFinalizer {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
struct BlobCloser {
  void operator()(sqlite3_blob* blob) const { sqlite3_blob_close(blob); }
};

using Connection = std::unique_ptr<sqlite3, ConnectionCloser>;
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;
using Blob = std::unique_ptr<sqlite3_blob, BlobCloser>;

// sqlite3_prepare_v2 with text length -1; null when the prepare fails.
inline Statement Prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
  return Statement(statement);
}

}  // namespace velfs

#endif  // VELFS_DATABASE_SQLITE_HANDLES_H
