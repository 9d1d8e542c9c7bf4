// The platform seam of the archive back-end: a read-only view of every byte of a file.
//
// It stands for CreateFileW (GENERIC_READ, OPEN_EXISTING, sequential scan), GetFileSizeEx,
// CreateFileMappingW (PAGE_READONLY) and MapViewOfFile (FILE_MAP_READ) on Windows;
// file_mapping_posix.cc implements it with open, fstat and mmap. Windows' share modes (other
// processes may read the archive but not open it for writing while it is mapped) have no POSIX
// counterpart and are not imitated.
#ifndef VELFS_ARCHIVE_FILE_MAPPING_H
#define VELFS_ARCHIVE_FILE_MAPPING_H

#include <cstdint>
#include <string>

namespace velfs::host {

class FileMapping {
 public:
  // Maps the existing file at `path` whole. Empty when the file cannot be opened for reading,
  // is longer than `maxSize` bytes, or cannot be mapped (a file of length 0 cannot).
  static FileMapping Map(const std::u16string& path, uint64_t maxSize);

  FileMapping() = default;
  FileMapping(FileMapping&& other) noexcept;
  FileMapping& operator=(FileMapping&& other) noexcept;
  FileMapping(const FileMapping&) = delete;
  FileMapping& operator=(const FileMapping&) = delete;
  ~FileMapping();

  explicit operator bool() const { return view_ != nullptr; }
  const unsigned char* view() const { return view_; }
  uint64_t size() const { return size_; }

 private:
  FileMapping(const unsigned char* view, uint64_t size) : view_(view), size_(size) {}

  const unsigned char* view_ = nullptr;
  uint64_t size_ = 0;
};

}  // namespace velfs::host

#endif  // VELFS_ARCHIVE_FILE_MAPPING_H
