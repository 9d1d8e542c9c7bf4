// The row key of a storage-relative path. `Path` is everything up to and including the
// last '/', `FileName` the rest; nothing else is normalised (case, leading, doubled and trailing
// '/' all stay): a/b/c.txt → (c.txt, a/b/), /c.txt → (c.txt, /), a/b/ → ("", a/b/).
#ifndef VELFS_DATABASE_ROW_KEY_H
#define VELFS_DATABASE_ROW_KEY_H

#include <string>
#include <string_view>

namespace velfs {

struct RowKey {
  std::string fileName;
  std::string path;
};

RowKey SplitRowKey(std::string_view path);

}  // namespace velfs

#endif  // VELFS_DATABASE_ROW_KEY_H
