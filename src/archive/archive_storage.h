// The archive back-end: a ZIP archive, read-only, as a storage root.
//
// Any existing file that zziplib opens as a ZIP archive is accepted, whatever its name; its
// bytes are read from a whole-file mapping (archive_io.h). Four operations are supported:
// opening members for reading, listing a directory level, and the two existence tests; the
// other seven keep the shared not-supported answer. Member names are read once, when the
// archive is opened; every later lookup and listing works from that index.
//
// Threads: zziplib keeps one input position per archive, shared by all its member streams, so
// the storage and every file it opened take turns on one lock of that archive. Member files keep
// the archive (and the lock) alive after the storage is destroyed; listings hold nothing of it.
#ifndef VELFS_ARCHIVE_ARCHIVE_STORAGE_H
#define VELFS_ARCHIVE_ARCHIVE_STORAGE_H

#include <memory>
#include <string>

#include "core/storage.h"
#include "host/host.h"

namespace velfs {

// A storage over the archive at `path`, whose host status the caller has asked already; null
// unless that status is a file that zziplib opens as an archive. With no extension list,
// zziplib retries the name with ".zip" and ".ZIP" appended when the file cannot be opened.
std::unique_ptr<Storage> OpenArchiveStorage(const std::string& path,
                                            const host::EntryStatus& status);

}  // namespace velfs

#endif  // VELFS_ARCHIVE_ARCHIVE_STORAGE_H
