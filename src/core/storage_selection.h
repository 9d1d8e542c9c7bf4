// The one place where storages, files and listings are opened and destroyed.
//
// `OpenStorage` offers a root path to the back-ends in a fixed order — native directory,
// ZIP archive, database — and the first that accepts it owns the new storage. A back-end that
// declines leaves nothing behind. Nothing here keeps state or caches.
#ifndef VELFS_CORE_STORAGE_SELECTION_H
#define VELFS_CORE_STORAGE_SELECTION_H

#include <cstdint>
#include <memory>

#include "core/storage.h"

namespace velfs {

std::unique_ptr<Storage> OpenStorage(const char* path);
std::unique_ptr<StorageFile> OpenStorageFile(Storage* storage, const char* path, uint32_t mode);
std::unique_ptr<StorageEnum> OpenStorageEnum(Storage* storage, const char* path);
// Destroys any storage object through its virtual destructor; false for null.
bool ReleaseObject(StorageObject* object);

}  // namespace velfs

#endif  // VELFS_CORE_STORAGE_SELECTION_H
