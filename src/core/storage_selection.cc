// Part 1.3: storage selection. The only code of the core that names the back-ends.
#include "core/storage_selection.h"

#include <string>

#include "database/database_storage.h"
#include "native/host_path.h"

namespace velfs {

std::unique_ptr<Storage> OpenStorage(const char* path) {
  if (path == nullptr || *path == '\0') return nullptr;
  std::string root(path);
  if (root.back() == ':') root.pop_back();  // one ':' at the end, no more
  NormalizeSlashes(root);
  // Order of building: the native (first) and archive (second) back-ends take their places here
  // when they land; until then the database back-end is the only candidate.
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
