// The process-wide `MountTable`, mount names mapped to system paths, each with a storage kept
// open; and the stub operations, which open files in those storages.
//
// Names are looked up by a virtual path's prefix up to and including its first ':'
// (`MountPrefix`), compared byte by byte. The table is created at first use and destroyed at
// exit (or unload) without destroying the storages still mounted. One thread at a time.
#ifndef VELFS_MOUNT_MOUNT_TABLE_H
#define VELFS_MOUNT_MOUNT_TABLE_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "core/storage.h"
#include "velfs.h"

namespace velfs {

class MountTable {
 public:
  static MountTable& Instance();

  // False when the name is taken (the entry stays as it was) or no back-end accepts the path.
  bool Mount(const std::string& name, const std::string& sysPath);
  // Destroys the entry's storage and removes it; true in every case.
  bool Unmount(const std::string& name);
  // The entry's sysPath, '/', and the rest of the path after the prefix; empty when unmapped.
  std::string ToSyspath(std::string_view path) const;
  // The text up to and including the first ':', or empty.
  static std::string_view MountPrefix(std::string_view path);

  // A record over a file opened in the mount's storage, or null.
  FileStub* CreateStub(std::string_view path, uint32_t mode);
  void DeleteStub(FileStub* stub);

 private:
  struct MountEntry {
    std::string sysPath;
    std::unique_ptr<Storage> storage;  // declared last: destroyed first
  };

  MountTable() = default;
  ~MountTable();

  std::map<std::string, MountEntry, std::less<>> entries_;
};

}  // namespace velfs

#endif  // VELFS_MOUNT_MOUNT_TABLE_H
