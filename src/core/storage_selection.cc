// Storage selection. The only code of the core that names the back-ends.
#include "core/storage_selection.h"

#include <string>

#include "archive/archive_storage.h"
#include "database/database_storage.h"
#include "native/host_path.h"
#include "native/native_storage.h"

namespace velfs {

std::unique_ptr<Storage> OpenStorage(const char* path) {
  if (path == nullptr || *path == '\0') return nullptr;
  std::string root(path);
  if (root.back() == ':') root.pop_back();  // one ':' at the end, no more
  NormalizeSlashes(root);
  if (auto storage = NativeStorage::Open(root.c_str())) return storage;
  if (auto storage = ArchiveStorage::Open(root.c_str())) return storage;
  return DatabaseStorage::Open(root.c_str());
}

std::unique_ptr<StorageFile> OpenStorageFile(Storage* storage, const char* path, uint32_t mode) {
  if (path == nullptr || storage == nullptr || *path == '\0') return nullptr;
  return storage->CreateFile(NormalizedCopy(path).c_str(), mode);
}

std::unique_ptr<StorageEnum> OpenStorageEnum(Storage* storage, const char* path) {
  if (storage == nullptr || path == nullptr) return nullptr;
  return storage->CreateEnum(NormalizedCopy(path).c_str());
}

bool ReleaseObject(StorageObject* object) {
  if (object == nullptr) return false;
  delete object;
  return true;
}

}  // namespace velfs
