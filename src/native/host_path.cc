// Host path tests over the platform seam.
#include "native/host_path.h"

#include <algorithm>

#include "native/host_file_system.h"
#include "host/text_conversion.h"

namespace velfs {
namespace {

uint32_t Attributes(const char* path) {
  std::u16string wide;
  Utf8ToWide(path, wide);
  return host::GetFileAttributes(wide);
}

}  // namespace

bool IsHostDirectory(const char* path) {
  const uint32_t attributes = Attributes(path);
  return attributes != host::kInvalidFileAttributes &&
         (attributes & host::kFileAttributeDirectory) != 0;
}

bool IsHostFile(const char* path) {
  // The invalid answer has every bit set, so a missing path fails this test by itself.
  return (Attributes(path) & host::kFileAttributeDirectory) == 0;
}

bool CreateHostDirectory(const char* path) {
  std::u16string wide;
  Utf8ToWide(path, wide);
  return host::CreateDirectory(wide);
}

void NormalizeSlashes(std::string& path) { std::replace(path.begin(), path.end(), '\\', '/'); }

std::string NormalizedCopy(const char* path) {
  std::string copy(path);
  NormalizeSlashes(copy);
  return copy;
}

}  // namespace velfs
