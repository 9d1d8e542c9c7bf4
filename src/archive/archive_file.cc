// ArchiveFile: reads, positions and the end test of one archive member, all zziplib's.
#include "archive/archive_file.h"

namespace velfs {

uint64_t ArchiveFile::Read(void* buffer, uint64_t size) {
  if (!stream_) return 0;
  return static_cast<uint64_t>(zzip_file_read(stream_.get(), buffer, size));
}

int32_t ArchiveFile::Tell() { return static_cast<int32_t>(zzip_tell(stream_.get())); }

int32_t ArchiveFile::Seek(int32_t offset, int32_t origin) {
  return static_cast<int32_t>(zzip_seek(stream_.get(), offset, origin));
}

int32_t ArchiveFile::Error() {
  if (!stream_) return 1;
  ZZIP_STAT status{};
  zzip_file_stat(stream_.get(), &status);
  return zzip_tell(stream_.get()) >= status.st_size ? 1 : 0;
}

}  // namespace velfs
