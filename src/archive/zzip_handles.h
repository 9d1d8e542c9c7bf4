// RAII owners of zziplib's handles: an open archive (zzip_dir_close) and a member stream
// (zzip_file_close). zziplib counts the streams of an archive: closing the archive while
// streams are open only drops its reference, and the last stream's close frees it.
#ifndef VELFS_ARCHIVE_ZZIP_HANDLES_H
#define VELFS_ARCHIVE_ZZIP_HANDLES_H

#include <zzip/zzip.h>

#include <memory>

namespace velfs {

struct ArchiveCloser {
  void operator()(ZZIP_DIR* dir) const { zzip_dir_close(dir); }
};
struct MemberCloser {
  void operator()(ZZIP_FILE* stream) const { zzip_file_close(stream); }
};

using ArchiveDir = std::unique_ptr<ZZIP_DIR, ArchiveCloser>;
using MemberStream = std::unique_ptr<ZZIP_FILE, MemberCloser>;

}  // namespace velfs

#endif  // VELFS_ARCHIVE_ZZIP_HANDLES_H
