// `StatementText` owns one statement text made by SQLite's printf ("%s" the table name,
// "%Q" a quoted literal, "%lld" a rowid). `Format` releases the text it held before.
#ifndef VELFS_DATABASE_STATEMENT_TEXT_H
#define VELFS_DATABASE_STATEMENT_TEXT_H

namespace velfs {

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

}  // namespace velfs

#endif  // VELFS_DATABASE_STATEMENT_TEXT_H
