// The mapped archive input: zziplib's five I/O operations served from whole-file mappings.
#include "archive/archive_io.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "archive/file_mapping.h"
#include "host/text_conversion.h"

namespace velfs {
namespace {

// One open archive input: the mapping holds every byte of the file; reads copy from it.
struct MappedFile {
  host::FileMapping mapping;
  uint32_t size = 0;
  uint32_t position = 0;          // always at most size
  bool overReadsTrailer = false;  // ReachesTrailerOverRead: the size query answers -1
};

// Handle h names slot h - 1 of this table of open records;
// a closed record's slot is reused by a later open.
std::vector<std::unique_ptr<MappedFile>>& OpenRecords() {
  static std::vector<std::unique_ptr<MappedFile>> records;
  return records;
}

MappedFile* Find(int handle) {
  auto& records = OpenRecords();
  if (handle <= 0 || static_cast<std::size_t>(handle) > records.size()) return nullptr;
  return records[static_cast<std::size_t>(handle) - 1].get();
}

zzip_plugin_io_handlers ArchiveIo;

}  // namespace

bool ReachesTrailerOverRead(const unsigned char* bytes, uint64_t size) {
  constexpr uint64_t kTrailerSize = 22;      // zziplib refuses shorter files unread
  constexpr uint64_t kTrailerMatch = 20;     // bytes zziplib wants from a "PK\5\6" on
  constexpr uint64_t kTrailer64Match = 54;   // bytes it wants from a "PK\6\6" on
  constexpr uint64_t kTrailer64Fields = 56;  // bytes it reads from a "PK\6\6" on
  if (size < kTrailerSize) return false;
  // The distance from the signature to the end of the file, in the order zziplib meets them.
  for (uint64_t distance = kTrailerMatch; distance < kTrailer64Fields && distance <= size;
       ++distance) {
    const unsigned char* tail = bytes + (size - distance);
    if (tail[0] != 'P' || tail[1] != 'K') continue;
    if (tail[2] == 5 && tail[3] == 6) return false;  // the trailer zziplib takes, read whole
    if (distance >= kTrailer64Match && tail[2] == 6 && tail[3] == 6) return true;
  }
  return false;
}

zzip_plugin_io_handlers* FillArchiveIo() {
  zzip_init_io(&ArchiveIo, 0);
  ArchiveIo.fd.open = &MappedOpen;
  ArchiveIo.fd.close = &MappedClose;
  ArchiveIo.fd.read = &MappedRead;
  ArchiveIo.fd.seeks = &MappedSeek;
  ArchiveIo.fd.filesize = &MappedFileSize;
  return &ArchiveIo;
}

// `flags` is ignored: the mapping is always read-only, and share modes have no POSIX counterpart.
int MappedOpen(zzip_char_t* path, int, ...) {
  std::u16string widePath;
  Utf8ToWide(path, widePath);
  auto file = std::make_unique<MappedFile>();
  file->mapping = host::FileMapping::Map(widePath, kMaxArchiveSize);
  if (!file->mapping) return -1;
  file->size = static_cast<uint32_t>(file->mapping.size());
  file->overReadsTrailer = ReachesTrailerOverRead(file->mapping.view(), file->mapping.size());
  auto& records = OpenRecords();
  std::size_t slot = 0;
  while (slot < records.size() && records[slot] != nullptr) ++slot;
  if (slot == records.size()) records.emplace_back();
  records[slot] = std::move(file);
  return static_cast<int>(slot + 1);
}

int MappedClose(int handle) {
  if (Find(handle) == nullptr) return -1;
  OpenRecords()[static_cast<std::size_t>(handle) - 1].reset();  // unmaps the view
  return 0;
}

zzip_ssize_t MappedRead(int handle, void* destination, zzip_size_t count) {
  MappedFile* file = Find(handle);
  if (file == nullptr) return -1;
  if (file->position > file->size) return 0;
  const zzip_size_t n = count < file->size - file->position ? count : file->size - file->position;
  std::memcpy(destination, file->mapping.view() + file->position, n);
  file->position += static_cast<uint32_t>(n);
  return static_cast<zzip_ssize_t>(n);
}

// Unsigned 32-bit arithmetic, so a target before the start wraps beyond `size`; a
// target outside the file (or an unknown whence) leaves the position and answers it.
zzip_off_t MappedSeek(int handle, zzip_off_t offset, int whence) {
  MappedFile* file = Find(handle);
  if (file == nullptr) return -1;
  const auto delta = static_cast<uint32_t>(offset);
  uint32_t target = file->position;
  if (whence == SEEK_SET) target = delta;
  if (whence == SEEK_CUR) target = file->position + delta;
  if (whence == SEEK_END) target = file->size + delta;
  if (target <= file->size) file->position = target;
  return file->position;
}

// The size as a signed 32-bit number: an archive of exactly 2^31 bytes answers a
// negative size, which zziplib takes as a failure. A file whose trailer zziplib would over-read
// (CVE-2024-39134, archive_io.h) answers -1, so that zziplib never starts its trailer search.
zzip_off_t MappedFileSize(int handle) {
  const MappedFile* file = Find(handle);
  if (file == nullptr || file->overReadsTrailer) return -1;
  return static_cast<int32_t>(file->size);
}

}  // namespace velfs
