// DatabaseEnum: one directory of a database storage, listed by one query.
#include "database/database_enum.h"

#include <string_view>

#include "database/database_storage.h"
#include "database/sqlite_handles.h"
#include "database/statement_text.h"
#include "database/transaction_guard.h"

namespace velfs {
namespace {

// sqlite3_column_text as a view; false for NULL. Rows with a NULL FileName or Path name no file
// and are skipped.
bool ColumnText(sqlite3_stmt* statement, int column, std::string_view& text) {
  const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
  if (bytes == nullptr) return false;
  text = std::string_view(bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
  return true;
}

}  // namespace

bool DatabaseEnum::Build(const char* path, const char* tableName, sqlite3* db,
                         DatabaseStorage* storage) {
  entries_.clear();
  names_.clear();
  directory_ = path;
  if (!directory_.empty() && directory_.back() != '/') directory_ += '/';
  db_ = db;
  tableName_ = tableName;
  storage_ = storage;
  TransactionGuard guard(db_, storage_->inTransaction());
  const std::string pattern = directory_ + "%";
  StatementText sql;
  sql.Format("SELECT FileName, Path from %s where Path like %Q;", tableName_.c_str(),
             pattern.c_str());
  AppendFile(std::string());  // the placeholder before the first entry
  const Statement query = Prepare(db_, sql.text());
  if (!query) return false;
  std::string_view fileName, rowDirectory;
  // A step error ends the listing early without a report.
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    if (!ColumnText(query.get(), 0, fileName) || !ColumnText(query.get(), 1, rowDirectory)) {
      continue;
    }
    if (rowDirectory == directory_) {
      AppendFile(std::string(fileName));
      continue;
    }
    // Deeper rows name a subdirectory by their next segment. The dropped prefix is not compared
    // with `directory`: LIKE matched it ignoring ASCII case and with '%' and '_' as wildcards.
    if (rowDirectory.size() <= directory_.size()) continue;
    const std::string_view rest = rowDirectory.substr(directory_.size());
    const std::size_t slash = rest.find('/');
    if (slash == std::string_view::npos) continue;
    AppendDirectory(std::string(rest.substr(0, slash + 1)));
  }
  current_ = 0;
  return true;
}

void DatabaseEnum::AppendDirectory(std::string name) {
  if (names_.insert(name).second) entries_.push_back({1, std::move(name)});
}

void DatabaseEnum::AppendFile(std::string name) {
  if (!name.empty() && name.back() == '/') names_.insert(name);
  entries_.push_back({0, std::move(name)});
}

bool DatabaseEnum::MoveNext() {
  if (!OnEntry()) return false;
  ++current_;
  return OnEntry();
}

void DatabaseEnum::Reset() { current_ = 0; }

bool DatabaseEnum::GetName(char** name) {
  if (name == nullptr || !OnEntry()) return false;
  const std::string& text = entries_[current_].name;
  *name = CopyForHost(text.data(), text.size());
  return true;
}

bool DatabaseEnum::GetFullName(char** name) {
  if (name == nullptr || !OnEntry()) return false;
  std::string text = directory_ + entries_[current_].name;
  if (IsDirectory() && (text.empty() || text.back() != '/')) text += '/';
  *name = CopyForHost(text.data(), text.size());
  return true;
}

bool DatabaseEnum::IsDirectory() { return OnEntry() && entries_[current_].kind == 1; }

}  // namespace velfs
