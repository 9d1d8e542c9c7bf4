// Why the library refused a database (see database_diagnosis.h), found with SQLite's C API on a
// read-only connection in defensive mode, with the schema untrusted and a bound on the work of
// each statement, so that a crafted file cannot make the diagnosis hang or run anything.
#include "database_diagnosis.h"

#include <sqlite3.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

namespace velfs::tool {

namespace {

struct CloseDatabase {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct Finalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

// SQLite's virtual machine steps between calls of the progress handler, and how many calls a
// statement gets before it is interrupted: enough for any schema of a velFS database.
constexpr int kStepsPerCheck = 1000;
constexpr int kChecks = 10000;

std::string CauseOf(sqlite3* db, int code) {
  switch (code & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return "locked by another program (--wait sets how long velfs waits)";
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return std::string("the database file is damaged (") + sqlite3_errmsg(db) + ")";
    case SQLITE_INTERRUPT:
      return "its schema takes too much work to read (a crafted database?)";
    default:
      return std::string("SQLite: ") + sqlite3_errmsg(db);
  }
}

// A read-only connection to `hostPath` in defensive mode with an untrusted schema, whose
// statements are interrupted after `checks` calls of the progress handler (counted in
// `*count`); `*opened` is the result of the open.
std::unique_ptr<sqlite3, CloseDatabase> OpenUntrusted(const std::string& hostPath, int* opened,
                                                      int* count) {
  sqlite3* raw = nullptr;
  *opened = sqlite3_open_v2(hostPath.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
  std::unique_ptr<sqlite3, CloseDatabase> db(raw);
  if (*opened != SQLITE_OK) return db;
  sqlite3_db_config(db.get(), SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(db.get(), SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_progress_handler(
      db.get(), kStepsPerCheck,
      [](void* checks) { return ++*static_cast<int*>(checks) > kChecks ? 1 : 0; }, count);
  return db;
}

}  // namespace

std::vector<std::string> UnlistedRows(const std::string& hostPath, const std::string& directory) {
  std::vector<std::string> rows;
  int opened = 0;
  int checks = 0;
  const auto db = OpenUntrusted(hostPath, &opened, &checks);
  if (opened != SQLITE_OK) return rows;
  // Only a table is read: a view could be made to run without end.
  sqlite3_stmt* query = nullptr;
  if (sqlite3_prepare_v2(db.get(),
                         "SELECT Path || FileName FROM FileStorage WHERE "
                         "(SELECT type FROM sqlite_master WHERE name = 'FileStorage') = 'table' "
                         "AND Path <> '' AND substr(Path, -1) <> '/' AND substr(Path, 1, ?1) = ?2 "
                         "ORDER BY 1;",
                         -1, &query, nullptr) != SQLITE_OK) {
    return rows;
  }
  const Statement select(query);
  sqlite3_bind_int(query, 1, static_cast<int>(directory.size()));
  sqlite3_bind_text(query, 2, directory.data(), static_cast<int>(directory.size()),
                    SQLITE_TRANSIENT);
  while (sqlite3_step(query) == SQLITE_ROW) {
    if (const auto* text = sqlite3_column_text(query, 0)) {
      rows.emplace_back(reinterpret_cast<const char*>(text));
    }
  }
  return rows;
}

std::string DiagnoseDatabase(const std::string& hostPath) {
  int opened = 0;
  int checks = 0;
  const auto db = OpenUntrusted(hostPath, &opened, &checks);
  if (opened != SQLITE_OK) return db ? CauseOf(db.get(), opened) : std::string();

  sqlite3_stmt* query = nullptr;
  int result = sqlite3_prepare_v2(
      db.get(), "SELECT type FROM sqlite_master WHERE name = 'FileStorage';", -1, &query, nullptr);
  Statement type(query);
  if (result != SQLITE_OK) return CauseOf(db.get(), result);
  result = sqlite3_step(type.get());
  if (result == SQLITE_DONE) return "not a velFS database: it has no \"FileStorage\" table";
  if (result != SQLITE_ROW) return CauseOf(db.get(), result);
  const auto* kind = reinterpret_cast<const char*>(sqlite3_column_text(type.get(), 0));
  if (kind == nullptr || std::string(kind) != "table") {
    return std::string("not a velFS database: its \"FileStorage\" is a ") +
           (kind == nullptr ? "?" : kind) + ", not a table";
  }

  query = nullptr;
  result = sqlite3_prepare_v2(db.get(), "SELECT name FROM pragma_table_info('FileStorage');", -1,
                              &query, nullptr);
  Statement columns(query);
  if (result != SQLITE_OK) return CauseOf(db.get(), result);
  std::set<std::string> names;
  while ((result = sqlite3_step(columns.get())) == SQLITE_ROW) {
    if (const auto* name = sqlite3_column_text(columns.get(), 0)) {
      names.insert(reinterpret_cast<const char*>(name));
    }
  }
  if (result != SQLITE_DONE) return CauseOf(db.get(), result);
  for (const char* column : {"FileName", "Path", "Content"}) {
    if (names.count(column) == 0) {
      return std::string("its \"FileStorage\" table has no ") + column + " column";
    }
  }
  return "";
}

}  // namespace velfs::tool
