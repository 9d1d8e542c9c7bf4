// The records handed to the host as opaque `DirHandle`, `FileHandle` and `EnumHandle`.
//
// Files and listings share one record, `ObjectHandle` (dir, object, ownsDir), because
// `velfsCloseFile` and `velfsCloseEnum` are one entry point that destroys the second field
// without knowing which kind it holds. The host sees that record as `FileHandle` or `EnumHandle`;
// only the conversions below turn one into the other. `object` is never null in a handle that
// was handed out.
#ifndef VELFS_CORE_HANDLE_RECORDS_H
#define VELFS_CORE_HANDLE_RECORDS_H

#include <memory>
#include <string>

#include "core/storage.h"
#include "velfs.h"

struct DirHandle {
  std::string rootPath;                     // the normalised root path; a trailing ':' stays
  std::unique_ptr<velfs::Storage> storage;  // declared last: destroyed before rootPath
};

namespace velfs {

struct ObjectHandle {
  DirHandle* dir = nullptr;  // owned only when ownsDir is true
  std::unique_ptr<StorageObject> object;
  bool ownsDir = false;

  StorageFile& file() { return static_cast<StorageFile&>(*object); }
  StorageEnum& enumerator() { return static_cast<StorageEnum&>(*object); }
};

inline ObjectHandle* Record(FileHandle* handle) { return reinterpret_cast<ObjectHandle*>(handle); }
inline ObjectHandle* Record(EnumHandle* handle) { return reinterpret_cast<ObjectHandle*>(handle); }
inline FileHandle* AsFileHandle(ObjectHandle* record) {
  return reinterpret_cast<FileHandle*>(record);
}
inline EnumHandle* AsEnumHandle(ObjectHandle* record) {
  return reinterpret_cast<EnumHandle*>(record);
}

}  // namespace velfs

#endif  // VELFS_CORE_HANDLE_RECORDS_H
