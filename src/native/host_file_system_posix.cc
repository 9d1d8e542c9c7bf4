// POSIX implementation of the platform seam (host_file_system.h).
//
// Wide paths come back to UTF-8 through Part 4.4's WideToUtf8, so a path behaves exactly as it
// would on Windows: malformed UTF-8 names the entry whose name holds U+FFFD in its place.
#include <sys/stat.h>

#include "native/host_file_system.h"
#include "native/text_conversion.h"

namespace velfs::host {
namespace {

std::string HostPath(const std::u16string& path) {
  std::string narrow;
  WideToUtf8(path.data(), path.size(), narrow);
  return narrow;
}

}  // namespace

uint32_t GetFileAttributes(const std::u16string& path) {
  struct stat status;
  if (::stat(HostPath(path).c_str(), &status) != 0) return kInvalidFileAttributes;
  return S_ISDIR(status.st_mode) ? kFileAttributeDirectory : 0;
}

bool CreateDirectory(const std::u16string& path) {
  return ::mkdir(HostPath(path).c_str(), 0777) == 0;
}

}  // namespace velfs::host
