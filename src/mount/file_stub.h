// The `FileStub` records handed to the host I/O layer. Every record holds the same six
// functions and its own open file, which it owns until `ReleaseFileStub`.
#ifndef VELFS_MOUNT_FILE_STUB_H
#define VELFS_MOUNT_FILE_STUB_H

#include <memory>

#include "core/storage.h"
#include "velfs.h"

namespace velfs {

FileStub* MakeFileStub(std::unique_ptr<StorageFile> file);
// Destroys the record's file (when not null), then the record.
void ReleaseFileStub(FileStub* stub);

}  // namespace velfs

#endif  // VELFS_MOUNT_FILE_STUB_H
