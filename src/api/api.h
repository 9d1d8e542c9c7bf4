// What the exported functions share: the records behind the opaque handles, the exception
// boundary, and the selection of a back-end for a root path.
//
// This is the top of the library: the exported functions (storage_api.cc, mount_api.cc) and the
// selection (selection.cc) are the only code that names the back-ends; below them the back-ends
// reach each other only through core's interfaces, and everything reaches the system only
// through the host layer.
#ifndef VELFS_API_API_H
#define VELFS_API_API_H

#include <cstdint>
#include <memory>
#include <string>

#include "core/storage.h"
#include "velfs.h"

struct DirHandle {
  std::string rootPath;                     // the normalised root path; a trailing ':' stays
  std::unique_ptr<velfs::Storage> storage;  // declared last: destroyed before rootPath
};

namespace velfs {

// The record behind a FileHandle or an EnumHandle: an open file or an open listing (exactly
// one of the two) and the DirHandle it was made through. velfsCloseFile and velfsCloseEnum are
// one function, so one record serves both kinds. A record made from a full path owns a private
// DirHandle, opened for it alone and destroyed after the file or listing.
struct HandleRecord {
  DirHandle* dir = nullptr;  // owned only when ownsDir is true
  std::unique_ptr<StorageFile> file;
  std::unique_ptr<StorageEnum> listing;
  bool ownsDir = false;
};

inline HandleRecord* RecordOf(FileHandle* handle) { return reinterpret_cast<HandleRecord*>(handle); }
inline HandleRecord* RecordOf(EnumHandle* handle) { return reinterpret_cast<HandleRecord*>(handle); }

// The exception boundary of every exported function: runs `body` and answers its result, or
// `failure` when anything is thrown (std::bad_alloc included). No exception crosses into the
// host, whose frames are C.
template <class Result, class Body>
Result Boundary(Result failure, Body&& body) noexcept {
  try {
    return body();
  } catch (...) {
    return failure;
  }
}

template <class Body>
void Boundary(Body&& body) noexcept {
  try {
    body();
  } catch (...) {
  }
}

// Storage selection. `root` is a normalised root path, optionally followed by one ':' (which
// is dropped). It is offered to the back-ends in a fixed order — host directory, ZIP archive,
// database — and the first that accepts it owns the new storage; a back-end that declines
// leaves nothing behind. The host is asked about the root once. Null for an empty root.
std::unique_ptr<Storage> OpenStorage(std::string root);
// The same selection for a root that must exist already, seen read-only (read_only_storage.h):
// an existing directory, an existing file that zziplib opens as an archive, or an existing
// database that has the table "FileStorage", opened read-only. Creates and writes nothing; null
// for anything else.
std::unique_ptr<Storage> OpenStorageReadOnly(std::string root);

// A file or listing of `storage` at the normalised `path`. A file needs a non-empty path.
std::unique_ptr<StorageFile> OpenStorageFile(Storage& storage, const std::string& path,
                                             uint32_t mode);
std::unique_ptr<StorageEnum> OpenStorageEnum(Storage& storage, const std::string& path);

}  // namespace velfs

#endif  // VELFS_API_API_H
