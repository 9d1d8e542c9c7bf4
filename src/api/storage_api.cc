// The exported directory, file and listing functions.
//
// Each tests its handle and path arguments, normalises each path once (paths.h) and hands the
// copy to one operation of the handle's storage, file or listing, whose answer it returns
// unchanged. `exists` and `failIfExists` pass through untouched; a null `exists` or buffer is
// refused like a null handle, before the back-end is reached (a null buffer answers 0 whatever
// the size, and the file is neither read, written nor created; a null `name` is refused by every
// listing). Every function runs inside the exception boundary (api.h): a failure of any kind
// answers false, 0, null or -1.
#include <memory>
#include <string>
#include <utility>

#include "api/api.h"
#include "core/paths.h"
#include "velfs.h"

using velfs::Boundary;
using velfs::HandleRecord;
using velfs::NormalizedCopy;
using velfs::RecordOf;
using velfs::Storage;
using velfs::StorageEnum;
using velfs::StorageFile;

namespace {

// One operation of the handle's storage inside the boundary; false for a null handle.
template <class Call>
bool OnStorage(DirHandle* handle, Call call) noexcept {
  return Boundary(false, [&] { return handle != nullptr && call(*handle->storage); });
}

// velfsCopyFile and velfsMoveFile: `operation` of the storage with both paths normalised.
bool CopyOrMove(bool (Storage::*operation)(const char*, const char*, bool), DirHandle* handle,
                const char* sourcePath, const char* targetPath, bool failIfExists) noexcept {
  return OnStorage(handle, [&](Storage& storage) {
    return sourcePath != nullptr && targetPath != nullptr &&
           (storage.*operation)(NormalizedCopy(sourcePath).c_str(),
                                NormalizedCopy(targetPath).c_str(), failIfExists);
  });
}

// One operation of the handle's file inside the boundary: `absent` for a null handle,
// `failure` when anything is thrown.
template <class Result, class Call>
Result OnFile(FileHandle* handle, Result absent, Result failure, Call call) noexcept {
  return Boundary(failure, [&] {
    return handle == nullptr ? absent : static_cast<Result>(call(*RecordOf(handle)->file));
  });
}

// One operation of the handle's listing inside the boundary; false for a null handle.
template <class Call>
bool OnListing(EnumHandle* handle, Call call) noexcept {
  return Boundary(false, [&] { return handle != nullptr && call(*RecordOf(handle)->listing); });
}

// velfsCreateFile / velfsCreateEnum from a full path: split, open a private storage, open the
// object in it with `open`; on failure everything opened for the attempt is destroyed.
template <class OpenObject>
HandleRecord* CreateFromFullPath(const char* path, OpenObject open) {
  if (path == nullptr || *path == '\0') return nullptr;
  std::string root, innerPath;
  if (!velfs::SplitStoragePath(path, root, innerPath)) return nullptr;
  auto dir = std::make_unique<DirHandle>();
  dir->rootPath = root;
  dir->storage = velfs::OpenStorage(std::move(root));
  if (!dir->storage) return nullptr;
  auto record = std::make_unique<HandleRecord>();
  if (!open(*dir->storage, innerPath, *record)) return nullptr;
  record->dir = dir.release();
  record->ownsDir = true;
  return record.release();
}

template <class OpenObject>
HandleRecord* CreateInDir(DirHandle* dir, const char* path, OpenObject open) {
  auto record = std::make_unique<HandleRecord>();
  if (!open(*dir->storage, NormalizedCopy(path), *record)) return nullptr;
  record->dir = dir;
  return record.release();
}

auto OpenFileInto(uint32_t mode) {
  return [mode](Storage& storage, const std::string& path, HandleRecord& record) {
    record.file = velfs::OpenStorageFile(storage, path, mode);
    return record.file != nullptr;
  };
}

bool OpenListingInto(Storage& storage, const std::string& path, HandleRecord& record) {
  record.listing = velfs::OpenStorageEnum(storage, path);
  return record.listing != nullptr;
}

}  // namespace

extern "C" {

DirHandle* velfsOpenDir(const char* rootPath) {
  return Boundary<DirHandle*>(nullptr, [&]() -> DirHandle* {
    if (rootPath == nullptr || *rootPath == '\0') return nullptr;
    auto handle = std::make_unique<DirHandle>();
    handle->rootPath = NormalizedCopy(rootPath);
    handle->storage = velfs::OpenStorage(handle->rootPath);
    return handle->storage ? handle.release() : nullptr;
  });
}

DirHandle* velfsOpenDirReadOnly(const char* rootPath) {
  return Boundary<DirHandle*>(nullptr, [&]() -> DirHandle* {
    if (rootPath == nullptr || *rootPath == '\0') return nullptr;
    auto handle = std::make_unique<DirHandle>();
    handle->rootPath = NormalizedCopy(rootPath);
    handle->storage = velfs::OpenStorageReadOnly(handle->rootPath);
    return handle->storage ? handle.release() : nullptr;
  });
}

void velfsCloseDir(DirHandle* handle) {
  delete handle;  // the storage first (DirHandle declares it last), then rootPath
}

bool velfsIsFileExist(DirHandle* handle, const char* path, bool* exists) {
  return OnStorage(handle, [&](Storage& storage) {
    return path != nullptr && exists != nullptr &&
           storage.IsFileExist(NormalizedCopy(path).c_str(), exists);
  });
}

bool velfsIsDirectoryExist(DirHandle* handle, const char* path, bool* exists) {
  return OnStorage(handle, [&](Storage& storage) {
    return path != nullptr && exists != nullptr &&
           storage.IsDirectoryExist(NormalizedCopy(path).c_str(), exists);
  });
}

bool velfsDeleteFile(DirHandle* handle, const char* path) {
  return OnStorage(handle, [&](Storage& storage) {
    return path != nullptr && storage.DeleteFile(NormalizedCopy(path).c_str());
  });
}

bool velfsDeleteDirectory(DirHandle* handle, const char* path) {
  return OnStorage(handle, [&](Storage& storage) {
    return path != nullptr && storage.DeleteDirectory(NormalizedCopy(path).c_str());
  });
}

bool velfsRenameFile(DirHandle* handle, const char* oldPath, const char* newPath) {
  return OnStorage(handle, [&](Storage& storage) {
    return oldPath != nullptr && newPath != nullptr &&
           storage.RenameFile(NormalizedCopy(oldPath).c_str(), NormalizedCopy(newPath).c_str());
  });
}

bool velfsCopyFile(DirHandle* handle, const char* sourcePath, const char* targetPath,
                   bool failIfExists) {
  return CopyOrMove(&Storage::CopyFile, handle, sourcePath, targetPath, failIfExists);
}

bool velfsMoveFile(DirHandle* handle, const char* sourcePath, const char* targetPath,
                   bool failIfExists) {
  return CopyOrMove(&Storage::MoveFile, handle, sourcePath, targetPath, failIfExists);
}

bool velfsBeginTrans(DirHandle* handle) {
  return OnStorage(handle, [](Storage& storage) { return storage.BeginTrans(); });
}

bool velfsCommitTrans(DirHandle* handle) {
  return OnStorage(handle, [](Storage& storage) { return storage.CommitTrans(); });
}

FileHandle* velfsCreateFile(const char* path, uint32_t mode) {
  return Boundary<FileHandle*>(nullptr, [&] {
    return reinterpret_cast<FileHandle*>(CreateFromFullPath(path, OpenFileInto(mode)));
  });
}

FileHandle* velfsCreateFileIndir(DirHandle* handle, const char* path, uint32_t mode) {
  return Boundary<FileHandle*>(nullptr, [&]() -> FileHandle* {
    if (path == nullptr || *path == '\0' || handle == nullptr) return nullptr;
    return reinterpret_cast<FileHandle*>(CreateInDir(handle, path, OpenFileInto(mode)));
  });
}

EnumHandle* velfsCreateEnum(const char* path) {
  return Boundary<EnumHandle*>(nullptr, [&] {
    return reinterpret_cast<EnumHandle*>(CreateFromFullPath(path, &OpenListingInto));
  });
}

EnumHandle* velfsCreateEnumIndir(DirHandle* handle, const char* path) {
  return Boundary<EnumHandle*>(nullptr, [&]() -> EnumHandle* {
    if (handle == nullptr || path == nullptr) return nullptr;
    return reinterpret_cast<EnumHandle*>(CreateInDir(handle, path, &OpenListingInto));
  });
}

uint64_t velfsRead(FileHandle* handle, void* buffer, uint64_t size) {
  return OnFile<uint64_t>(handle, 0, 0, [&](StorageFile& file) -> uint64_t {
    return buffer == nullptr ? 0 : file.Read(buffer, size);
  });
}

uint64_t velfsWrite(FileHandle* handle, const void* buffer, uint64_t size) {
  return OnFile<uint64_t>(handle, 0, 0, [&](StorageFile& file) -> uint64_t {
    return buffer == nullptr ? 0 : file.Write(buffer, size);
  });
}

int32_t velfsTell(FileHandle* handle) {
  return OnFile<int32_t>(handle, 0, -1, [](StorageFile& file) { return file.Tell(); });
}

int32_t velfsSeek(FileHandle* handle, int32_t offset, int32_t origin) {
  return OnFile<int32_t>(handle, -1, -1,
                         [&](StorageFile& file) { return file.Seek(offset, origin); });
}

bool velfsError(FileHandle* handle) {
  return OnFile(handle, false, false, [](StorageFile& file) { return file.Error() != 0; });
}

bool velfsResize(FileHandle* handle, uint64_t size) {
  return OnFile(handle, false, false, [&](StorageFile& file) { return file.Resize(size); });
}

bool velfsMoveNext(EnumHandle* handle) {
  return OnListing(handle, [](StorageEnum& listing) { return listing.MoveNext(); });
}

void velfsReset(EnumHandle* handle) {
  OnListing(handle, [](StorageEnum& listing) {
    listing.Reset();
    return true;
  });
}

bool velfsGetName(EnumHandle* handle, char** name) {
  return OnListing(handle, [&](StorageEnum& listing) { return listing.GetName(name); });
}

bool velfsGetFullName(EnumHandle* handle, char** name) {
  return OnListing(handle, [&](StorageEnum& listing) { return listing.GetFullName(name); });
}

bool velfsIsDirectory(EnumHandle* handle) {
  return OnListing(handle, [](StorageEnum& listing) { return listing.IsDirectory(); });
}

// One entry point under two exported names. Both names hand over the same kind of record, so
// the function need not know which it was given: the file or listing goes first, then an owned
// DirHandle (its storage, then its rootPath), then the record. Destructors do not throw.
void velfsCloseFile(FileHandle* handle) {
  if (handle == nullptr) return;
  std::unique_ptr<HandleRecord> record(RecordOf(handle));
  record->file.reset();
  record->listing.reset();
  if (record->ownsDir) delete record->dir;
}

#if defined(__ELF__) || defined(__MINGW32__)
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wattribute-alias"
#pragma GCC diagnostic ignored "-Wmissing-attributes"
#endif
void velfsCloseEnum(EnumHandle* handle) __attribute__((alias("velfsCloseFile")));
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#else
void velfsCloseEnum(EnumHandle* handle) { velfsCloseFile(reinterpret_cast<FileHandle*>(handle)); }
#endif

}  // extern "C"
