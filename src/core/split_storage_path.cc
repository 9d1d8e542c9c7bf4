// SplitStoragePath: a full path cut into a storage root and a path inside it.
#include "core/split_storage_path.h"

#include "native/host_path.h"

namespace velfs {

bool SplitStoragePath(const char* path, std::string& root, std::string& innerPath) {
  const std::string copy = NormalizedCopy(path);
  const char separator =
      IsHostDirectory(copy.c_str()) || IsHostFile(copy.c_str()) ? '/' : ':';
  const std::size_t cut = copy.rfind(separator);
  if (cut == std::string::npos) return false;  // also the empty path
  root.assign(copy, 0, cut + 1);
  innerPath.assign(copy, cut + 1);
  return true;
}

}  // namespace velfs
