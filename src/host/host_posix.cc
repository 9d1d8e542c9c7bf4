// The host layer on POSIX systems (host.h): every system call the library makes.
//
// Paths are read the way the Win32 implementation reads them: a path holding ill-formed UTF-8
// goes to the system with U+FFFD in place of each maximal ill-formed subsequence (ReadablePath),
// so the same call names the same entry on both platforms. A path of ASCII bytes only is handed
// over unchanged without a conversion.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "host/host.h"
#include "host/text_conversion.h"

namespace velfs::host {
namespace {

bool IsAscii(const std::string& text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

// The path as the system should see it: `path` itself when it is ASCII, otherwise its UTF-8
// after the round trip through UTF-16.
std::string ReadablePath(const std::string& path) {
  if (IsAscii(path)) return path;
  std::u16string wide;
  Utf8ToWide(path.data(), path.size(), wide);
  std::string readable;
  WideToUtf8(wide.data(), wide.size(), readable);
  return readable;
}

}  // namespace

EntryStatus Stat(const std::string& path) {
  struct stat status;
  if (::stat(ReadablePath(path).c_str(), &status) != 0) return {};
  if (S_ISDIR(status.st_mode)) return {EntryKind::kDirectory, 0};
  return {EntryKind::kFile, static_cast<uint64_t>(status.st_size)};
}

bool CreateDirectory(const std::string& path) {
  return ::mkdir(ReadablePath(path).c_str(), 0777) == 0;
}

std::size_t ReadFileAt(const std::string& path, uint64_t offset, unsigned char* buffer,
                       std::size_t size) {
  const int descriptor = ::open(ReadablePath(path).c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return 0;
  std::size_t total = 0;
  while (total < size) {
    const ssize_t n = ::pread(descriptor, buffer + total, size - total,
                              static_cast<off_t>(offset + total));
    if (n <= 0) break;
    total += static_cast<std::size_t>(n);
  }
  ::close(descriptor);
  return total;
}

Stream OpenStream(const std::string& path, const char* mode) {
  return Stream(std::fopen(ReadablePath(path).c_str(), mode));
}

int64_t TellStream(std::FILE* stream) { return ::ftello(stream); }

int SeekStream(std::FILE* stream, int64_t offset, int origin) {
  return ::fseeko(stream, static_cast<off_t>(offset), origin) == 0 ? 0 : -1;
}

class DirectorySearch {
 public:
  DirectorySearch(DIR* directory, std::string directoryPath)
      : directory_(directory), directoryPath_(std::move(directoryPath)) {}
  ~DirectorySearch() { ::closedir(directory_); }
  DirectorySearch(const DirectorySearch&) = delete;
  DirectorySearch& operator=(const DirectorySearch&) = delete;

  bool Next(DirectoryEntry& entry) {
    const dirent* found = ended_ ? nullptr : ::readdir(directory_);
    if (found == nullptr) {
      ended_ = true;
      return false;
    }
    entry.name = found->d_name;
    entry.isDirectory = found->d_type == DT_DIR;
    if (found->d_type == DT_UNKNOWN || found->d_type == DT_LNK) {
      struct stat status;
      const std::string full = directoryPath_ + entry.name;
      entry.isDirectory = ::stat(full.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    }
    return true;
  }

 private:
  DIR* directory_;
  std::string directoryPath_;  // ends in '/', or empty for the current directory
  bool ended_ = false;
};

void DirectorySearchCloser::operator()(DirectorySearch* search) const { delete search; }

DirectorySearchHandle OpenDirectorySearch(const std::string& directory) {
  std::string readable = ReadablePath(directory);
  DIR* opened = ::opendir(readable.empty() ? "." : readable.c_str());
  if (opened == nullptr) return nullptr;
  return DirectorySearchHandle(new DirectorySearch(opened, std::move(readable)));
}

bool NextDirectoryEntry(DirectorySearch& search, DirectoryEntry& entry) {
  return search.Next(entry);
}

// The descriptor is closed as soon as the view exists: the mapping alone keeps the bytes
// reachable, so an open archive costs no descriptor.
FileMapping FileMapping::Map(const std::string& path, uint64_t maxSize) {
  const int descriptor = ::open(ReadablePath(path).c_str(), O_RDONLY | O_CLOEXEC);
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

FileMapping::~FileMapping() { Unmap(); }

// The mapping is private and read-only, so none of its pages was ever written: MADV_DONTNEED
// drops them, and the next read maps the file's bytes in again.
void FileMapping::Release(uint64_t offset, uint64_t length) const {
  if (view_ == nullptr || offset >= size_) return;
  const auto page = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
  const uint64_t start = (offset + page - 1) / page * page;  // only whole pages
  const uint64_t end = std::min(size_, offset + length) / page * page;
  if (start >= end) return;
  ::madvise(const_cast<unsigned char*>(view_) + start, static_cast<std::size_t>(end - start),
            MADV_DONTNEED);
}

void FileMapping::Unmap() noexcept {
  if (view_ != nullptr) ::munmap(const_cast<unsigned char*>(view_), size_);
  view_ = nullptr;
  size_ = 0;
}

namespace {

// ELF has no loader call of DllMain: this constructor runs when the library is loaded and hands
// the library's own load address on as its module handle.
__attribute__((constructor)) void AttachProcess() {
  Dl_info info{};
  dladdr(reinterpret_cast<void*>(&AttachProcess), &info);
  OnLibraryLoad(info.dli_fbase);
}

}  // namespace

}  // namespace velfs::host
