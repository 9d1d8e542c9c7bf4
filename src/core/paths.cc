// Path normalisation and the full-path splitter.
#include "core/paths.h"

#include <algorithm>

#include "host/host.h"

namespace velfs {

std::string NormalizedCopy(const char* path) {
  std::string copy(path);
  std::replace(copy.begin(), copy.end(), '\\', '/');
  return copy;
}

bool SplitStoragePath(const char* rawPath, std::string& root, std::string& innerPath) {
  const std::string path = NormalizedCopy(rawPath);
  if (path.empty()) return false;
  const char separator = host::Stat(path).kind != host::EntryKind::kNone ? '/' : ':';
  const std::size_t cut = path.rfind(separator);
  if (cut == std::string::npos) return false;
  root.assign(path, 0, cut + 1);
  innerPath.assign(path, cut + 1);
  return true;
}

}  // namespace velfs
