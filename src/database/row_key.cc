// SplitRowKey: a storage path cut into FileName and Path.
#include "database/row_key.h"

namespace velfs {

RowKey SplitRowKey(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return {std::string(path), {}};
  return {std::string(path.substr(slash + 1)), std::string(path.substr(0, slash + 1))};
}

}  // namespace velfs
