// Helpers of the reliability tests (reliability_support.h).
#include "reliability_support.h"

#include <sqlite3.h>

#include <memory>

namespace velfs::reliability {
namespace {

struct ConnectionCloser {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
struct StatementFinalizer {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Connection = std::unique_ptr<sqlite3, ConnectionCloser>;
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

Statement Prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
  return Statement(statement);
}

std::string ColumnText(sqlite3_stmt* statement, int column) {
  const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, column));
  return bytes == nullptr ? std::string()
                          : std::string(bytes, static_cast<std::size_t>(
                                                   sqlite3_column_bytes(statement, column)));
}

}  // namespace

DatabaseView ViewDatabase(const std::string& path, bool readRows) {
  DatabaseView view;
  sqlite3* raw = nullptr;
  const int opened = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
  Connection db(raw);
  if (opened != SQLITE_OK) return view;
  view.opened = true;
  if (Statement check = Prepare(db.get(), "PRAGMA integrity_check;")) {
    while (sqlite3_step(check.get()) == SQLITE_ROW) {
      if (view.integrityRows++ == 0) view.integrity = ColumnText(check.get(), 0);
    }
  }
  if (!readRows) return view;
  if (Statement all = Prepare(db.get(), "SELECT Path, FileName, Content FROM FileStorage;")) {
    while (sqlite3_step(all.get()) == SQLITE_ROW) {
      view.rows[ColumnText(all.get(), 0) + ColumnText(all.get(), 1)] = ColumnText(all.get(), 2);
    }
  }
  return view;
}

}  // namespace velfs::reliability
