// `ReadOnlyStorage`: any storage seen through a view that can read and cannot change anything.
//
// Files open only in mode 0 ("rb"); the files it hands out read, tell, seek and test for the end
// through the back-end's file, and refuse Write and Resize with the shared not-supported answer.
// Deleting, renaming, copying, moving and transactions keep that answer too. Listings and the
// existence tests are the back-end's own. The back-end's files and listings may outlive it as
// they may outlive the back-end itself.
#ifndef VELFS_CORE_READ_ONLY_STORAGE_H
#define VELFS_CORE_READ_ONLY_STORAGE_H

#include <memory>

#include "core/storage.h"

namespace velfs {

// The read-only view of `storage`, which it owns; null for a null storage.
std::unique_ptr<Storage> MakeReadOnly(std::unique_ptr<Storage> storage);

}  // namespace velfs

#endif  // VELFS_CORE_READ_ONLY_STORAGE_H
