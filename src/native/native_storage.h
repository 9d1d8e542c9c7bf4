// The native back-end: a real host directory as a storage root.
//
// Files are host files read and written through C standard I/O streams; listings read the host
// directory entry by entry as the caller steps. Four operations are supported (opening files,
// listing, the two existence tests); the other seven keep the shared not-supported answer. The
// storage keeps only its root path, so its files and listings hold no reference to it and may
// outlive it, and nothing in it needs a lock.
#ifndef VELFS_NATIVE_NATIVE_STORAGE_H
#define VELFS_NATIVE_NATIVE_STORAGE_H

#include <memory>
#include <string>

#include "core/storage.h"
#include "host/host.h"

namespace velfs {

// A storage over the host directory `root`, whose host status the caller has asked already;
// null unless that status is a directory. The root is kept as given (never made canonical),
// with a '/' appended when it lacks one.
std::unique_ptr<Storage> OpenNativeStorage(const std::string& root, const host::EntryStatus& status);

}  // namespace velfs

#endif  // VELFS_NATIVE_NATIVE_STORAGE_H
