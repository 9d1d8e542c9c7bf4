// `ArchiveFile`, one archive member open for reading its uncompressed bytes.
//
// All locating, inflating and positioning is zziplib's. `Read` widens zziplib's count with its
// sign, so a failed read reaches the caller as the all-ones count; `Seek` answers the new
// position or -1; `Error` is the end-of-member test. Writing and resizing are not supported.
// The member stream keeps its archive open inside zziplib, so the file stays usable after its
// storage is destroyed; the last stream's close unmaps the archive.
#ifndef VELFS_ARCHIVE_ARCHIVE_FILE_H
#define VELFS_ARCHIVE_ARCHIVE_FILE_H

#include "archive/zzip_handles.h"
#include "core/storage.h"

namespace velfs {

class ArchiveFile final : public StorageFile {
 public:
  explicit ArchiveFile(MemberStream stream) : stream_(std::move(stream)) {}

  uint64_t Read(void* buffer, uint64_t size) override;
  int32_t Tell() override;
  int32_t Seek(int32_t offset, int32_t origin) override;
  int32_t Error() override;

 private:
  MemberStream stream_;
};

}  // namespace velfs

#endif  // VELFS_ARCHIVE_ARCHIVE_FILE_H
