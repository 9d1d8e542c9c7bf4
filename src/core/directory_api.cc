// The exported directory handle functions.
//
// Each is a thin entry into one operation of the handle's storage: it tests the handle (and the
// path arguments), hands the storage normalised copies of the paths and returns its answer
// unchanged. `exists` and `failIfExists` pass through untouched.
#include <memory>
#include <string>

#include "core/handle_records.h"
#include "core/storage_selection.h"
#include "native/host_path.h"
#include "velfs.h"

using velfs::NormalizedCopy;
using velfs::Storage;

namespace {

Storage* StorageOf(DirHandle* handle) { return handle == nullptr ? nullptr : handle->storage.get(); }

}  // namespace

extern "C" {

DirHandle* velfsOpenDir(const char* rootPath) {
  if (rootPath == nullptr || *rootPath == '\0') return nullptr;
  auto handle = std::make_unique<DirHandle>();
  handle->rootPath = NormalizedCopy(rootPath);
  handle->storage = velfs::OpenStorage(handle->rootPath.c_str());
  return handle->storage ? handle.release() : nullptr;
}

void velfsCloseDir(DirHandle* handle) {
  if (handle == nullptr) return;
  delete handle;  // the storage first (DirHandle declares it last), then rootPath
}

bool velfsIsFileExist(DirHandle* handle, const char* path, bool* exists) {
  Storage* storage = StorageOf(handle);
  if (storage == nullptr || path == nullptr) return false;
  return storage->IsFileExist(NormalizedCopy(path).c_str(), exists);
}

bool velfsIsDirectoryExist(DirHandle* handle, const char* path, bool* exists) {
  Storage* storage = StorageOf(handle);
  if (storage == nullptr || path == nullptr) return false;
  return storage->IsDirectoryExist(NormalizedCopy(path).c_str(), exists);
}

bool velfsDeleteFile(DirHandle* handle, const char* path) {
  Storage* storage = StorageOf(handle);
  if (storage == nullptr || path == nullptr) return false;
  return storage->DeleteFile(NormalizedCopy(path).c_str());
}

bool velfsDeleteDirectory(DirHandle* handle, const char* path) {
  Storage* storage = StorageOf(handle);
  if (storage == nullptr || path == nullptr) return false;
  return storage->DeleteDirectory(NormalizedCopy(path).c_str());
}

bool velfsRenameFile(DirHandle* handle, const char* oldPath, const char* newPath) {
  Storage* storage = StorageOf(handle);
  if (storage == nullptr || oldPath == nullptr || newPath == nullptr) return false;
  return storage->RenameFile(NormalizedCopy(oldPath).c_str(), NormalizedCopy(newPath).c_str());
}

bool velfsCopyFile(DirHandle* handle, const char* sourcePath, const char* targetPath,
                   bool failIfExists) {
  Storage* storage = StorageOf(handle);
  if (storage == nullptr || sourcePath == nullptr || targetPath == nullptr) return false;
  return storage->CopyFile(NormalizedCopy(sourcePath).c_str(), NormalizedCopy(targetPath).c_str(),
                           failIfExists);
}

bool velfsMoveFile(DirHandle* handle, const char* sourcePath, const char* targetPath,
                   bool failIfExists) {
  Storage* storage = StorageOf(handle);
  if (storage == nullptr || sourcePath == nullptr || targetPath == nullptr) return false;
  return storage->MoveFile(NormalizedCopy(sourcePath).c_str(), NormalizedCopy(targetPath).c_str(),
                           failIfExists);
}

bool velfsBeginTrans(DirHandle* handle) {
  Storage* storage = StorageOf(handle);
  return storage != nullptr && storage->BeginTrans();
}

bool velfsCommitTrans(DirHandle* handle) {
  Storage* storage = StorageOf(handle);
  return storage != nullptr && storage->CommitTrans();
}

}  // extern "C"
