// POSIX implementation of FileMapping (file_mapping.h). The descriptor is closed as soon as the
// view exists: the mapping alone keeps the bytes reachable, so an open archive costs no
// descriptor.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "archive/file_mapping.h"
#include "host/text_conversion.h"

namespace velfs::host {

FileMapping FileMapping::Map(const std::u16string& path, uint64_t maxSize) {
  std::string narrow;
  WideToUtf8(path.data(), path.size(), narrow);
  const int descriptor = ::open(narrow.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return {};
  FileMapping mapping;
  struct stat status;
  if (::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 &&
      static_cast<uint64_t>(status.st_size) <= maxSize) {
    const auto size = static_cast<std::size_t>(status.st_size);
    void* view = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, descriptor, 0);
    if (view != MAP_FAILED) mapping = FileMapping(static_cast<const unsigned char*>(view), size);
  }
  ::close(descriptor);
  return mapping;
}

FileMapping::FileMapping(FileMapping&& other) noexcept
    : view_(std::exchange(other.view_, nullptr)), size_(std::exchange(other.size_, 0)) {}

FileMapping& FileMapping::operator=(FileMapping&& other) noexcept {
  if (this != &other) {
    this->~FileMapping();
    view_ = std::exchange(other.view_, nullptr);
    size_ = std::exchange(other.size_, 0);
  }
  return *this;
}

FileMapping::~FileMapping() {
  if (view_ != nullptr) ::munmap(const_cast<unsigned char*>(view_), size_);
}

}  // namespace velfs::host
