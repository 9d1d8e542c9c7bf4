// Statement texts through sqlite3_vmprintf.
#include "database/statement_text.h"

#include <sqlite3.h>

#include <cstdarg>
#include <new>

namespace velfs {

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

}  // namespace velfs
