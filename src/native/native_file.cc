// NativeFile: a host file through a standard I/O stream.
#include "native/native_file.h"

#include <limits>

namespace velfs {
namespace {

constexpr const char16_t* kModeStrings[] = {u"rb", u"wb", u"ab", u"rb+", u"wb+", u"ab+"};

}  // namespace

bool NativeFile::Open(const std::u16string& path, uint32_t mode) {
  const uint32_t index = mode & 7;
  if (index >= std::size(kModeStrings)) return false;
  stream_ = host::OpenStream(path, kModeStrings[index]);
  return stream_ != nullptr;
}

uint64_t NativeFile::Read(void* buffer, uint64_t size) {
  return std::fread(buffer, 1, size, stream_.get());
}

uint64_t NativeFile::Write(const void* buffer, uint64_t size) {
  return std::fwrite(buffer, 1, size, stream_.get());
}

int32_t NativeFile::Tell() {
  const int64_t position = host::TellStream(stream_.get());
  return position > std::numeric_limits<int32_t>::max() ? -1 : static_cast<int32_t>(position);
}

int32_t NativeFile::Seek(int32_t offset, int32_t origin) {
  return host::SeekStream(stream_.get(), offset, origin);
}

int32_t NativeFile::Error() { return std::feof(stream_.get()); }

}  // namespace velfs
