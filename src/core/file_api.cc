// The exported file and enumeration functions.
//
// A handle made from a full path owns a private DirHandle and storage, opened for it alone and
// destroyed after its file or enumerator; a handle made through a DirHandle borrows that
// handle's storage. The forwarders only test the handle and call the operation.
#include <memory>
#include <string>

#include "core/handle_records.h"
#include "core/split_storage_path.h"
#include "core/storage_selection.h"
#include "velfs.h"

using velfs::ObjectHandle;
using velfs::Record;

namespace {

// velfsCreateFile / velfsCreateEnum from a full path: split, open a private storage, open
// the object in it with `open`; on failure everything opened for the attempt is destroyed.
template <class OpenObject>
ObjectHandle* CreateFromFullPath(const char* path, OpenObject open) {
  if (path == nullptr || *path == '\0') return nullptr;
  std::string root, innerPath;
  if (!velfs::SplitStoragePath(path, root, innerPath)) return nullptr;
  auto dir = std::make_unique<DirHandle>();
  dir->rootPath = root;
  dir->storage = velfs::OpenStorage(root.c_str());
  if (!dir->storage) return nullptr;
  auto handle = std::make_unique<ObjectHandle>();
  handle->object = open(dir->storage.get(), innerPath.c_str());
  if (!handle->object) return nullptr;
  handle->dir = dir.release();
  handle->ownsDir = true;
  return handle.release();
}

template <class OpenObject>
ObjectHandle* CreateInDir(DirHandle* dir, OpenObject open) {
  auto handle = std::make_unique<ObjectHandle>();
  handle->object = open(dir->storage.get());
  if (!handle->object) return nullptr;
  handle->dir = dir;
  return handle.release();
}

}  // namespace

extern "C" {

FileHandle* velfsCreateFile(const char* path, uint32_t mode) {
  return AsFileHandle(CreateFromFullPath(path, [mode](velfs::Storage* storage, const char* inner) {
    return velfs::OpenStorageFile(storage, inner, mode);
  }));
}

FileHandle* velfsCreateFileIndir(DirHandle* handle, const char* path, uint32_t mode) {
  if (path == nullptr || *path == '\0' || handle == nullptr) return nullptr;
  return AsFileHandle(CreateInDir(handle, [path, mode](velfs::Storage* storage) {
    return velfs::OpenStorageFile(storage, path, mode);
  }));
}

EnumHandle* velfsCreateEnum(const char* path) {
  return AsEnumHandle(CreateFromFullPath(path, &velfs::OpenStorageEnum));
}

EnumHandle* velfsCreateEnumIndir(DirHandle* handle, const char* path) {
  if (handle == nullptr || path == nullptr) return nullptr;
  return AsEnumHandle(CreateInDir(
      handle, [path](velfs::Storage* storage) { return velfs::OpenStorageEnum(storage, path); }));
}

uint64_t velfsRead(FileHandle* handle, void* buffer, uint64_t size) {
  return handle == nullptr ? 0 : Record(handle)->file().Read(buffer, size);
}

uint64_t velfsWrite(FileHandle* handle, const void* buffer, uint64_t size) {
  return handle == nullptr ? 0 : Record(handle)->file().Write(buffer, size);
}

int32_t velfsTell(FileHandle* handle) {
  return handle == nullptr ? 0 : Record(handle)->file().Tell();
}

int32_t velfsSeek(FileHandle* handle, int32_t offset, int32_t origin) {
  return handle == nullptr ? -1 : Record(handle)->file().Seek(offset, origin);
}

bool velfsError(FileHandle* handle) {
  return handle != nullptr && Record(handle)->file().Error() != 0;
}

bool velfsResize(FileHandle* handle, uint64_t size) {
  return handle != nullptr && Record(handle)->file().Resize(size);
}

bool velfsMoveNext(EnumHandle* handle) {
  return handle != nullptr && Record(handle)->enumerator().MoveNext();
}

void velfsReset(EnumHandle* handle) {
  if (handle != nullptr) Record(handle)->enumerator().Reset();
}

bool velfsGetName(EnumHandle* handle, char** name) {
  return handle != nullptr && Record(handle)->enumerator().GetName(name);
}

bool velfsGetFullName(EnumHandle* handle, char** name) {
  return handle != nullptr && Record(handle)->enumerator().GetFullName(name);
}

bool velfsIsDirectory(EnumHandle* handle) {
  return handle != nullptr && Record(handle)->enumerator().IsDirectory();
}

// One entry point under two exported names (an ELF alias). Both names hand over the
// same record, so the function need not know which kind it was given: the object goes first,
// then an owned DirHandle (its storage, then its rootPath), then the record.
void velfsCloseFile(FileHandle* handle) {
  if (handle == nullptr) return;
  std::unique_ptr<ObjectHandle> record(Record(handle));
  velfs::ReleaseObject(record->object.release());
  if (record->ownsDir) std::unique_ptr<DirHandle>(record->dir).reset();
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wattribute-alias"
#endif
void velfsCloseEnum(EnumHandle* handle) __attribute__((alias("velfsCloseFile")));
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

}  // extern "C"
