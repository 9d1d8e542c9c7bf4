// `NativeStorage`, the storage over a real host directory.
//
// It supports four operations: opening files (creating missing parent directories for every
// mode but 0 and 3), listing directories, and the two existence tests; the other seven keep the
// shared not-supported answer. `root` is the host path of the directory as given, always ending
// in '/', never made canonical. Files and listings it makes hold no reference to it.
#ifndef VELFS_NATIVE_NATIVE_STORAGE_H
#define VELFS_NATIVE_NATIVE_STORAGE_H

#include <memory>
#include <string>

#include "core/storage.h"

namespace velfs {

class NativeStorage final : public Storage {
 public:
  // Null unless `path` names an existing host directory.
  static std::unique_ptr<Storage> Open(const char* path);

  std::unique_ptr<StorageFile> CreateFile(const char* path, uint32_t mode) override;
  std::unique_ptr<StorageEnum> CreateEnum(const char* path) override;
  bool IsFileExist(const char* path, bool* exists) override;
  bool IsDirectoryExist(const char* path, bool* exists) override;

  const std::u16string& root() const { return root_; }

 private:
  explicit NativeStorage(std::u16string root) : root_(std::move(root)) {}
  // `root` in UTF-8 followed by `path`.
  std::string HostPath(const char* path) const;

  std::u16string root_;
};

}  // namespace velfs

#endif  // VELFS_NATIVE_NATIVE_STORAGE_H
